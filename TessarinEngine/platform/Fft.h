#pragma once

#include <algorithm>
#include <cassert>
#include <complex>
#include <cstddef>
#include <memory>
#include <new>

struct fftwf_plan_s;

namespace Fft {

// Heap storage aligned for FFTW's vector code, zero-filled when made. The shared plans were made
// for arrays aligned like this one, so a transform only ever runs on such buffers.
template <class T>
class Buffer {
public:
    static constexpr std::size_t kAlignment = 64;

    Buffer() = default;
    explicit Buffer(std::size_t count)
        : data_(static_cast<T*>(::operator new (count * sizeof(T), std::align_val_t{kAlignment}))),
          size_(count) {
        std::fill(data_.get(), data_.get() + count, T{});
    }

    T* data() { return data_.get(); }
    const T* data() const { return data_.get(); }
    std::size_t size() const { return size_; }
    T& operator[](std::size_t i) { return data_[i]; }
    const T& operator[](std::size_t i) const { return data_[i]; }
    T* begin() { return data(); }
    T* end() { return data() + size_; }
    const T* begin() const { return data(); }
    const T* end() const { return data() + size_; }

private:
    struct Free {
        void operator()(T* p) const { ::operator delete (p, std::align_val_t{kAlignment}); }
    };
    std::unique_ptr<T[], Free> data_;
    std::size_t size_ = 0;
};

using RealBuffer = Buffer<float>;
using ComplexBuffer = Buffer<std::complex<float>>;

// The forward and inverse real transforms of one power-of-two size, single precision. Immutable
// once made: any number of threads may run transforms on their own buffers at once, without a
// lock. Set-ups are never destroyed.
class Setup {
public:
    // Plans transforms of 2^log2n points (log2n from 1 to 30), or nothing when FFTW cannot.
    // FFTW's planner is not thread-safe: call this only under the lock of the process-wide table
    // (SyncCorrelator::sharedFFTSetup), which owns every set-up for the life of the process.
    static const Setup* make(unsigned log2n);

    std::size_t size() const { return size_; }
    std::size_t spectrumSize() const { return size_ / 2 + 1; }

    // X[m] = sum over n of x[n] exp(-2 pi i m n / N) for m from 0 to N/2, unscaled. `in` holds at
    // least N values and is left unchanged; `out` holds at least N/2 + 1.
    void forward(const RealBuffer& in, ComplexBuffer& out) const;

    // x[n] = sum over the whole conjugate-symmetric spectrum of X[m] exp(2 pi i m n / N), that is
    // N times the inverse DFT. The imaginary parts of bins 0 and N/2 are ignored. `in` (at least
    // N/2 + 1) is used as scratch and left undefined; `out` holds at least N values.
    void inverse(ComplexBuffer& in, RealBuffer& out) const;

    Setup(const Setup&) = delete;
    Setup& operator=(const Setup&) = delete;

private:
    Setup(std::size_t size, fftwf_plan_s* forward, fftwf_plan_s* inverse)
        : size_(size), forward_(forward), inverse_(inverse) {}

    std::size_t size_;
    fftwf_plan_s* forward_;
    fftwf_plan_s* inverse_;
};

} // namespace Fft

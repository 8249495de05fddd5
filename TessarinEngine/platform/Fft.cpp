#include "TessarinEngine/platform/Fft.h"

#include <fftw3.h>

namespace Fft {

static_assert(sizeof(std::complex<float>) == sizeof(fftwf_complex),
              "std::complex<float> and fftwf_complex share one layout");

const Setup* Setup::make(unsigned log2n) {
    if (log2n < 1 || log2n > 30) {
        return nullptr;
    }
    const std::size_t n = std::size_t{1} << log2n;
    try {
        // The plans are only ever run on new arrays, but FFTW derives from these the alignment
        // and the out-of-place layout that every later array must share.
        RealBuffer real(n);
        ComplexBuffer spectrum(n / 2 + 1);
        auto* bins = reinterpret_cast<fftwf_complex*>(spectrum.data());
        fftwf_plan forward =
            fftwf_plan_dft_r2c_1d(static_cast<int>(n), real.data(), bins, FFTW_ESTIMATE);
        fftwf_plan inverse = fftwf_plan_dft_c2r_1d(static_cast<int>(n), bins, real.data(),
                                                   FFTW_ESTIMATE | FFTW_DESTROY_INPUT);
        if (!forward || !inverse) {
            if (forward) {
                fftwf_destroy_plan(forward);
            }
            if (inverse) {
                fftwf_destroy_plan(inverse);
            }
            return nullptr;
        }
        // Owned by the caller's process-wide table and never freed, so the plans outlive every
        // thread that may still be transforming at exit.
        return new Setup(n, forward, inverse);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void Setup::forward(const RealBuffer& in, ComplexBuffer& out) const {
    assert(in.size() >= size_ && out.size() >= spectrumSize());
    // An out-of-place real-to-complex transform leaves its input alone; FFTW's signature just
    // lacks the const.
    fftwf_execute_dft_r2c(forward_, const_cast<float*>(in.data()),
                          reinterpret_cast<fftwf_complex*>(out.data()));
}

void Setup::inverse(ComplexBuffer& in, RealBuffer& out) const {
    assert(in.size() >= spectrumSize() && out.size() >= size_);
    fftwf_execute_dft_c2r(inverse_, reinterpret_cast<fftwf_complex*>(in.data()), out.data());
}

} // namespace Fft

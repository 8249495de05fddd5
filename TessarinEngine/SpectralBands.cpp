#include "TessarinEngine/SpectralBands.h"

#include "TessarinEngine/SyncCorrelator.h"
#include "TessarinEngine/platform/Fft.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <list>
#include <mutex>
#include <numbers>
#include <set>
#include <unordered_map>

namespace SpectralBands {

namespace {

constexpr double kFrameRate = 25.0;
constexpr std::size_t kWindowSize = 1024;
constexpr unsigned kWindowLog2n = 10;
constexpr std::size_t kHop = 640;
constexpr std::size_t kBandCount = 8;
constexpr int kMinFrames = 5;
// The periodic Hann window scaled to a mean square of 1. The scale is part of the feature, since
// log1p is not invariant to it.
constexpr double kHannScale = 0.8165;
// Below these a band, or a search range, is too flat to normalise.
constexpr float kFlatRms = 1e-9f;
constexpr double kFlatSpread = 1e-6;
// Stands for the missing neighbour at either end of a search range, so that ends can be peaks.
constexpr float kNoNeighbour = -3.4028235e38f;

constexpr std::size_t kDefaultCacheBudget = std::size_t{128} << 20;
// Beyond this many entries the table's upkeep would start to cost more than it saves.
constexpr std::size_t kMaxCacheEntries = 1024;

std::array<std::size_t, kBandCount + 1> bandEdges() {
    std::array<std::size_t, kBandCount + 1> edges{};
    for (std::size_t i = 0; i <= kBandCount; ++i) {
        // Equal steps in log frequency over the nine octaves of the 512 bins.
        const double edge = std::trunc(std::exp2(9.0 * static_cast<double>(i) / 8.0));
        edges[i] = static_cast<std::size_t>(std::clamp(edge, 1.0, 512.0));
    }
    return edges;
}

const std::array<float, kWindowSize>& hannWindow() {
    static const auto window = [] {
        std::array<float, kWindowSize> w{};
        for (std::size_t n = 0; n < kWindowSize; ++n) {
            w[n] = static_cast<float>(
                kHannScale * (1.0 - std::cos(2.0 * std::numbers::pi * static_cast<double>(n) /
                                             double(kWindowSize))));
        }
        return w;
    }();
    return window;
}

// Zero mean and unit mean square, in place; a band too flat for that is only centred. Sums run in
// double, so that a constant band centres to exact zeros.
void zscore(float* values, std::size_t count) {
    if (count == 0) {
        return;
    }
    double sum = 0;
    for (std::size_t i = 0; i < count; ++i) {
        sum += values[i];
    }
    const float mean = static_cast<float>(sum / static_cast<double>(count));
    double squares = 0;
    for (std::size_t i = 0; i < count; ++i) {
        values[i] -= mean;
        squares += static_cast<double>(values[i]) * values[i];
    }
    const float rms = static_cast<float>(std::sqrt(squares / static_cast<double>(count)));
    if (rms > kFlatRms) {
        const float scale = 1.0f / rms;
        for (std::size_t i = 0; i < count; ++i) {
            values[i] *= scale;
        }
    }
}

// The transform size the correlator uses for inputs of these lengths, or 0 when it makes none.
std::size_t correlationSize(std::size_t a, std::size_t b) {
    const std::size_t total = a + b;
    if (total < 3 || total - 1 > (std::size_t{1} << SyncCorrelator::kMaxLog2n)) {
        return 0;
    }
    const std::size_t size = std::max<std::size_t>(2, std::bit_ceil(total - 1));
    return size < 8 ? 0 : size;
}

// Sums term(0) ... term(count - 1) in independent lanes of Acc, flushed to double every block: the
// lanes let the compiler vectorise a sum it may not reorder, the flushes keep it near a double sum.
template <class Acc, class Term>
double sumInLanes(std::size_t count, Term term) {
    constexpr std::size_t kLanes = 8;
    constexpr std::size_t kBlock = 1024;
    double total = 0;
    std::size_t m = 0;
    while (m + kLanes <= count) {
        Acc lanes[kLanes] = {};
        const std::size_t end = std::min(count, m + kBlock);
        for (; m + kLanes <= end; m += kLanes) {
            for (std::size_t l = 0; l < kLanes; ++l) {
                lanes[l] += term(m + l);
            }
        }
        for (Acc v : lanes) {
            total += static_cast<double>(v);
        }
    }
    for (; m < count; ++m) {
        total += static_cast<double>(term(m));
    }
    return total;
}

// The two ways of correlating below give the summed correlation S at lags first ... last:
// S(L) = sum over the used bands of r(L) / rms(r), r(L) = 2 * sum over n of ref[n + L] * clip[n],
// read on the circle of N lags, rms over all N of them. A band is used when its rms is above
// kFlatRms and finite; with no band used there is nothing.
using LagValues = std::optional<std::vector<float>>;

bool usableRms(double rms) {
    return rms > kFlatRms && std::isfinite(rms);
}

void loadPadded(Fft::RealBuffer& padded, const std::vector<float>& band) {
    std::fill(padded.begin(), padded.end(), 0.0f);
    std::copy_n(band.begin(), std::min(band.size(), padded.size()), padded.begin());
}

// All N lags in one transform of size N per band and side, as the correlator would, with two
// shortcuts: each band's rms comes from its spectrum (Parseval), and the weighted spectra are
// summed before a single inverse transform. Serves every feature, however shaped: a band whose
// lengths give a different N is left out, as the correlator's result would be.
LagValues correlateWhole(const Feature& clip, const Feature& ref, const Fft::Setup& setup,
                         std::int64_t first, std::int64_t last) {
    const std::size_t size = setup.size();
    const std::size_t bins = setup.spectrumSize();
    Fft::RealBuffer padded(size);
    Fft::ComplexBuffer refSpectrum(bins);
    Fft::ComplexBuffer product(bins);
    Fft::ComplexBuffer sum(bins);
    bool used = false;
    for (std::size_t i = 0; i < clip.bandCount(); ++i) {
        if (correlationSize(ref.band(i).size(), clip.band(i).size()) != size) {
            continue;
        }
        loadPadded(padded, ref.band(i));
        setup.forward(padded, refSpectrum);
        loadPadded(padded, clip.band(i));
        setup.forward(padded, product);

        // product = ref * conj(clip), and its energy over the whole conjugate-symmetric
        // spectrum: bins 1 to N/2 - 1 count twice, bins 0 and N/2 once.
        const float* r = reinterpret_cast<const float*>(refSpectrum.data());
        float* p = reinterpret_cast<float*>(product.data());
        const double twice = 2.0 * sumInLanes<float>(bins, [&](std::size_t m) {
                                 const float ar = r[2 * m], ai = r[2 * m + 1];
                                 const float br = p[2 * m], bi = p[2 * m + 1];
                                 const float pr = ar * br + ai * bi;
                                 const float pi = ai * br - ar * bi;
                                 p[2 * m] = pr;
                                 p[2 * m + 1] = pi;
                                 return pr * pr + pi * pi;
                             });
        const double energy = twice - std::norm(std::complex<double>(product[0])) -
                              std::norm(std::complex<double>(product[bins - 1]));
        // The correlation is 2/N times the inverse of the product, so its rms over N lags is
        // 2 sqrt(energy) / N, and 2/N divided by that rms is 1 / sqrt(energy).
        if (!usableRms(2.0 * std::sqrt(energy) / static_cast<double>(size))) {
            continue;
        }
        const float weight = static_cast<float>(1.0 / std::sqrt(energy));
        float* s = reinterpret_cast<float*>(sum.data());
        for (std::size_t k = 0; k < 2 * bins; ++k) {
            s[k] += weight * p[k];
        }
        used = true;
    }
    if (!used) {
        return std::nullopt;
    }
    setup.inverse(sum, padded);
    std::vector<float> values(static_cast<std::size_t>(last - first + 1));
    for (std::int64_t lag = first; lag <= last; ++lag) {
        values[std::size_t(lag - first)] =
            padded[std::size_t(lag < 0 ? lag + std::int64_t(size) : lag)];
    }
    return values;
}

// A reference cut into overlapping blocks for overlap-save correlation against clips of up to
// size - hop + 1 frames: block j holds `size` frames of the reference from (j - 1) * hop on (zeros
// outside the reference). Correlated circularly with such a clip, block j gives the exact lags
// (j - 1) * hop ... j * hop - 1. Made once, by whichever caller gets there first; read-only
// afterwards.
struct BlockSpectra {
    std::once_flag made;
    std::size_t blocks = 0;
    // Split form for the multiply-accumulate loop: per band, block j's real parts start at
    // 2 j stride and its imaginary parts at (2 j + 1) stride.
    std::size_t stride = 0;
    std::vector<std::vector<float>> blockSpectra;
    // Per band, the (real) spectrum of its autocorrelation at lags -(size - hop) ... size - hop,
    // laid out on the circle of one block. With it a clip band's correlation energy over all lags
    // is one dot product with the clip's power spectrum.
    std::vector<std::vector<float>> autocorrelationSpectra;
};

struct BlockLayout {
    std::size_t size;
    std::size_t hop;
};

constexpr std::size_t kMinBlockSize = 2048;
// Fewer blocks than this, and one whole-length correlation costs less than making the blocks.
constexpr std::size_t kMinBlocks = 4;

// Blocks of at least twice the clip, so that the clip's autocorrelation fits one without wrapping
// round. The hop is as long as the clip allows, in sixteenths of a block, so that clips of similar
// lengths share one layout of a reference.
BlockLayout blockLayoutFor(int clipFrames) {
    const auto clip = static_cast<std::size_t>(clipFrames);
    const std::size_t size = std::max(kMinBlockSize, std::bit_ceil(2 * clip));
    const std::size_t step = size / 16;
    return {size, size / 2 + (size / 2 + 1 - clip) / step * step};
}

std::size_t blockCount(int refFrames, std::size_t hop) {
    return (static_cast<std::size_t>(refFrames) - 1) / hop + 2;
}

std::size_t splitStride(std::size_t bins) {
    return (bins + 15) / 16 * 16;
}

std::size_t blockSpectraBytes(std::size_t bandCount, BlockLayout layout, int refFrames) {
    const std::size_t bins = layout.size / 2 + 1;
    return bandCount * (blockCount(refFrames, layout.hop) * 2 * splitStride(bins) + bins) *
           sizeof(float);
}

void makeBlockSpectra(BlockSpectra& out, const Feature& ref, BlockLayout layout,
                      const Fft::Setup& setup) {
    const std::size_t size = layout.size;
    const std::size_t hop = layout.hop;
    const std::size_t reach = size - hop;
    const std::size_t bins = setup.spectrumSize();
    const std::size_t blocks = blockCount(ref.frames, hop);
    const std::size_t stride = splitStride(bins);
    const auto frames = static_cast<std::int64_t>(ref.frames);

    std::vector<std::vector<float>> blockSpectra;
    std::vector<std::vector<float>> autocorrelationSpectra;
    Fft::RealBuffer segment(size);
    Fft::ComplexBuffer whole(bins);
    Fft::ComplexBuffer head(bins);
    Fft::ComplexBuffer cross(bins);
    for (std::size_t i = 0; i < ref.bandCount(); ++i) {
        const auto& band = ref.band(i);
        // Loads `count` frames of the reference from `from` on, zeros outside it and after them.
        auto load = [&](std::int64_t from, std::size_t count) {
            std::fill(segment.begin(), segment.end(), 0.0f);
            const std::int64_t first = std::max<std::int64_t>(from, 0);
            const std::int64_t last = std::min(from + static_cast<std::int64_t>(count), frames);
            if (first < last) {
                std::copy(band.begin() + first, band.begin() + last,
                          segment.begin() + (first - from));
            }
        };
        std::vector<float> split(blocks * 2 * stride, 0.0f);
        std::fill(cross.begin(), cross.end(), std::complex<float>());
        for (std::size_t j = 0; j < blocks; ++j) {
            const auto from = (static_cast<std::int64_t>(j) - 1) * static_cast<std::int64_t>(hop);
            load(from, size);
            setup.forward(segment, whole);
            float* re = split.data() + 2 * j * stride;
            float* im = re + stride;
            for (std::size_t m = 0; m < bins; ++m) {
                re[m] = whole[m].real();
                im[m] = whole[m].imag();
            }
            // Each block against its own first hop sums, over all blocks, to the reference's
            // autocorrelation at lags 0 ... reach: every frame starts exactly one such product.
            if (from + static_cast<std::int64_t>(hop) <= 0) {
                continue;
            }
            load(from, hop);
            setup.forward(segment, head);
            for (std::size_t m = 0; m < bins; ++m) {
                const float wr = whole[m].real(), wi = whole[m].imag();
                const float hr = head[m].real(), hi = head[m].imag();
                cross[m] += std::complex<float>(wr * hr + wi * hi, wi * hr - wr * hi);
            }
        }
        setup.inverse(cross, segment);
        const float scale = 1.0f / static_cast<float>(size);
        for (std::size_t d = 0; d <= reach; ++d) {
            segment[d] *= scale;
        }
        for (std::size_t t = reach + 1; t < size - reach; ++t) {
            segment[t] = 0.0f;
        }
        for (std::size_t d = 1; d <= reach && d < size - reach; ++d) {
            segment[size - d] = segment[d];
        }
        setup.forward(segment, whole);
        std::vector<float> autocorrelation(bins);
        for (std::size_t m = 0; m < bins; ++m) {
            autocorrelation[m] = whole[m].real();
        }
        blockSpectra.push_back(std::move(split));
        autocorrelationSpectra.push_back(std::move(autocorrelation));
    }
    out.blocks = blocks;
    out.stride = stride;
    // Assigned whole at the end: if making them fails, the next caller starts from nothing.
    out.blockSpectra = std::move(blockSpectra);
    out.autocorrelationSpectra = std::move(autocorrelationSpectra);
}

// The innermost loops of the block search, on arrays that never overlap. Saying so lets the
// compiler vectorise them; they are kept out of line, since once inlined the promise is forgotten.

// sum (+)= x * w, bin by bin, on split complex arrays: set on the first band, added on the others.
[[gnu::noinline]] void multiplyAccumulate(std::size_t bins, bool first, const float* __restrict xRe,
                                          const float* __restrict xIm, const float* __restrict wRe,
                                          const float* __restrict wIm, float* __restrict sumRe,
                                          float* __restrict sumIm) {
    if (first) {
        for (std::size_t m = 0; m < bins; ++m) {
            sumRe[m] = xRe[m] * wRe[m] - xIm[m] * wIm[m];
            sumIm[m] = xRe[m] * wIm[m] + xIm[m] * wRe[m];
        }
        return;
    }
    for (std::size_t m = 0; m < bins; ++m) {
        sumRe[m] += xRe[m] * wRe[m] - xIm[m] * wIm[m];
        sumIm[m] += xRe[m] * wIm[m] + xIm[m] * wRe[m];
    }
}

// The conjugate of an interleaved spectrum, scaled, in split form.
[[gnu::noinline]] void splitConjugate(std::size_t bins, const float* __restrict in, float scale,
                                      float* __restrict re, float* __restrict im) {
    for (std::size_t m = 0; m < bins; ++m) {
        re[m] = in[2 * m] * scale;
        im[m] = -in[2 * m + 1] * scale;
    }
}

[[gnu::noinline]] void interleave(std::size_t bins, const float* __restrict re,
                                  const float* __restrict im, float* __restrict out) {
    for (std::size_t m = 0; m < bins; ++m) {
        out[2 * m] = re[m];
        out[2 * m + 1] = im[m];
    }
}

// Only lags first ... last are made, one inverse transform of a block per hop of them, from the
// reference's kept block spectra. Needs every band to hold exactly `frames` values.
LagValues correlateInBlocks(const Feature& clip, const Feature& ref, const BlockSpectra& spectra,
                            BlockLayout layout, const Fft::Setup& setup, std::size_t size,
                            std::int64_t first, std::int64_t last) {
    const std::size_t block = layout.size;
    const auto hop = static_cast<std::int64_t>(layout.hop);
    const std::size_t bins = setup.spectrumSize();
    const std::int64_t nc = clip.frames;
    const std::int64_t nr = ref.frames;

    Fft::RealBuffer padded(block);
    Fft::ComplexBuffer spectrum(bins);
    std::vector<std::size_t> used;
    std::vector<float> directWeights;
    std::vector<float> weightedRe;
    std::vector<float> weightedIm;
    for (std::size_t i = 0; i < clip.bandCount(); ++i) {
        std::copy(clip.band(i).begin(), clip.band(i).end(), padded.begin());
        setup.forward(padded, spectrum);
        // The band's correlation energy over all lags is the sum over lags d of the product of
        // the two autocorrelations. The clip's vanishes from |d| = nc on, inside the lags the
        // reference's kept autocorrelation covers, so one dot product of spectra gives it.
        const float* c = reinterpret_cast<const float*>(spectrum.data());
        const float* a = spectra.autocorrelationSpectra[i].data();
        auto term = [&](std::size_t m) {
            return a[m] * (c[2 * m] * c[2 * m] + c[2 * m + 1] * c[2 * m + 1]);
        };
        const double energy =
            (2.0 * sumInLanes<float>(bins, term) - term(0) - term(bins - 1)) / double(block);
        const double rms = 2.0 * std::sqrt(energy / static_cast<double>(size));
        if (!usableRms(rms)) {
            continue;
        }
        // Folds 1/rms, the correlation's factor 2 and the inverse transform's missing 1/block
        // into the conjugated clip spectrum.
        const auto scale = static_cast<float>(2.0 / (static_cast<double>(block) * rms));
        weightedRe.resize(weightedRe.size() + bins);
        weightedIm.resize(weightedIm.size() + bins);
        splitConjugate(bins, c, scale, weightedRe.data() + used.size() * bins,
                       weightedIm.data() + used.size() * bins);
        used.push_back(i);
        directWeights.push_back(static_cast<float>(2.0 / rms));
    }
    if (used.empty()) {
        return std::nullopt;
    }

    std::vector<float> values(static_cast<std::size_t>(last - first + 1), 0.0f);
    const std::int64_t reachFirst = std::max(first, 1 - nc);
    const std::int64_t reachLast = std::min(last, nr - 1);
    if (reachFirst <= reachLast) {
        std::vector<float> sumRe(bins);
        std::vector<float> sumIm(bins);
        Fft::ComplexBuffer sum(bins);
        for (std::int64_t j = (reachFirst + hop) / hop; j <= (reachLast + hop) / hop; ++j) {
            for (std::size_t u = 0; u < used.size(); ++u) {
                const float* re = spectra.blockSpectra[used[u]].data() +
                                  2 * static_cast<std::size_t>(j) * spectra.stride;
                multiplyAccumulate(bins, u == 0, re, re + spectra.stride,
                                   weightedRe.data() + u * bins, weightedIm.data() + u * bins,
                                   sumRe.data(), sumIm.data());
            }
            interleave(bins, sumRe.data(), sumIm.data(), reinterpret_cast<float*>(sum.data()));
            setup.inverse(sum, padded);
            const std::int64_t start = (j - 1) * hop;
            for (std::int64_t lag = std::max(reachFirst, start);
                 lag <= std::min(reachLast, start + hop - 1); ++lag) {
                values[std::size_t(lag - first)] = padded[std::size_t(lag - start)];
            }
        }
    }

    // On the circle of N lags the reachable ones stand once and the rest are zero. The two lags
    // just outside them (-nc and nr, searched only without overlap) fall on a reachable lag when
    // N is exactly nc + nr - 1; there only one product of the two features contributes.
    auto directLag = [&](std::int64_t lag) {
        float v = 0;
        for (std::size_t u = 0; u < used.size(); ++u) {
            const auto& a = ref.band(used[u]);
            const auto& b = clip.band(used[u]);
            const auto n = static_cast<std::size_t>(lag < 0 ? -lag : 0);
            v += directWeights[u] * a[std::size_t(std::int64_t(n) + lag)] * b[n];
        }
        return v;
    };
    const bool tight = static_cast<std::int64_t>(size) == nc + nr - 1;
    if (first < reachFirst) {
        values.front() = tight ? directLag(nr - 1) : 0.0f;
    }
    if (last > reachLast) {
        values.back() = tight ? directLag(1 - nc) : 0.0f;
    }
    return values;
}

// The references' block spectra, keyed by band storage and block layout, least recently used first
// out. An entry only watches its feature (weak ownership), so a dead feature's address cannot be
// mistaken for a new one's while the entry exists.
class SpectrumCache {
public:
    // The block spectra for `ref` in `layout`, shared with the table; they may still need
    // making (see BlockSpectra::made). Nothing when they would not fit in the budget.
    std::shared_ptr<BlockSpectra> find(const Feature& ref, BlockLayout layout, std::size_t bytes) {
        const Key key{ref.bands.get(), layout.size, layout.hop};
        std::lock_guard<std::mutex> guard(lock_);
        if (auto found = index_.find(key); found != index_.end()) {
            if (!found->second->owner.expired()) {
                recent_.splice(recent_.begin(), recent_, found->second);
                return found->second->spectra;
            }
            erase(found->second);
        }
        dropExpired();
        if (bytes > budget_) {
            return nullptr;
        }
        while (!recent_.empty() &&
               (bytes_ + bytes > budget_ || recent_.size() >= kMaxCacheEntries)) {
            erase(std::prev(recent_.end()));
        }
        auto spectra = std::make_shared<BlockSpectra>();
        recent_.push_front(Entry{key, ref.bands, spectra, bytes});
        index_.emplace(key, recent_.begin());
        bytes_ += bytes;
        return spectra;
    }

    SpectrumCacheUsage usage() {
        std::lock_guard<std::mutex> guard(lock_);
        dropExpired();
        return {recent_.size(), bytes_};
    }

    std::size_t setBudget(std::size_t bytes) {
        std::lock_guard<std::mutex> guard(lock_);
        const std::size_t previous = budget_;
        budget_ = bytes;
        while (!recent_.empty() && bytes_ > budget_) {
            erase(std::prev(recent_.end()));
        }
        return previous;
    }

private:
    struct Key {
        const Feature::Bands* bands;
        std::size_t blockSize;
        std::size_t hop;
        bool operator==(const Key&) const = default;
    };
    struct KeyHash {
        std::size_t operator()(const Key& k) const {
            return std::hash<const void*>()(k.bands) ^
                   ((k.blockSize * 31 + k.hop) * 0x9e3779b97f4a7c15ull);
        }
    };
    struct Entry {
        Key key;
        std::weak_ptr<const Feature::Bands> owner;
        std::shared_ptr<BlockSpectra> spectra;
        std::size_t bytes;
    };

    // Callers still using an erased entry's spectra keep them alive until they return.
    void erase(std::list<Entry>::iterator entry) {
        bytes_ -= entry->bytes;
        index_.erase(entry->key);
        recent_.erase(entry);
    }

    void dropExpired() {
        for (auto entry = recent_.begin(); entry != recent_.end();) {
            auto next = std::next(entry);
            if (entry->owner.expired()) {
                erase(entry);
            }
            entry = next;
        }
    }

    std::mutex lock_;
    std::list<Entry> recent_;
    std::unordered_map<Key, std::list<Entry>::iterator, KeyHash> index_;
    std::size_t bytes_ = 0;
    std::size_t budget_ = kDefaultCacheBudget;
};

SpectrumCache& spectrumCache() {
    static SpectrumCache cache;
    return cache;
}

bool bandsHoldFrames(const Feature& f) {
    for (std::size_t i = 0; i < f.bandCount(); ++i) {
        if (f.band(i).size() != static_cast<std::size_t>(f.frames)) {
            return false;
        }
    }
    return true;
}

LagValues summedCorrelation(const Feature& clip, const Feature& ref, std::size_t size,
                            std::int64_t first, std::int64_t last) {
    const BlockLayout layout = blockLayoutFor(clip.frames);
    if (layout.size <= (std::size_t{1} << SyncCorrelator::kMaxLog2n) &&
        blockCount(ref.frames, layout.hop) >= kMinBlocks && bandsHoldFrames(clip) &&
        bandsHoldFrames(ref)) {
        const auto* setup =
            SyncCorrelator::sharedFFTSetup(static_cast<unsigned>(std::countr_zero(layout.size)));
        auto spectra =
            setup ? spectrumCache().find(ref, layout,
                                         blockSpectraBytes(ref.bandCount(), layout, ref.frames))
                  : nullptr;
        if (spectra) {
            std::call_once(spectra->made, [&] { makeBlockSpectra(*spectra, ref, layout, *setup); });
            return correlateInBlocks(clip, ref, *spectra, layout, *setup, size, first, last);
        }
    }
    const auto* setup =
        SyncCorrelator::sharedFFTSetup(static_cast<unsigned>(std::countr_zero(size)));
    if (!setup) {
        return std::nullopt;
    }
    return correlateWhole(clip, ref, *setup, first, last);
}

// The largest of `count` values, in lanes the compiler can vectorise.
float spanMaximum(const float* values, std::size_t count) {
    constexpr std::size_t kLanes = 8;
    float lanes[kLanes];
    std::fill_n(lanes, kLanes, kNoNeighbour);
    std::size_t k = 0;
    for (; k + kLanes <= count; k += kLanes) {
        for (std::size_t l = 0; l < kLanes; ++l) {
            lanes[l] = lanes[l] < values[k + l] ? values[k + l] : lanes[l];
        }
    }
    float most = *std::max_element(lanes, lanes + kLanes);
    for (; k < count; ++k) {
        most = std::max(most, values[k]);
    }
    return most;
}

// Steps through the searched lags: z-scores over them, local maxima (ties included, the range's
// ends against a missing neighbour), best first, separated, at most topK.
std::vector<Peak> rankPeaks(const std::vector<float>& values, std::int64_t firstLag, int topK,
                            double minSeparationSec) {
    const std::size_t count = values.size();
    if (topK < 1 || count == 0) {
        return {};
    }
    const float* v = values.data();
    const double s1 = sumInLanes<double>(count, [&](std::size_t k) { return double(v[k]); });
    const double s2 = sumInLanes<double>(count, [&](std::size_t k) { return double(v[k]) * v[k]; });
    const double mean = s1 / static_cast<double>(count);
    const double spread = std::sqrt(std::max(0.0, s2 / static_cast<double>(count) - mean * mean));
    if (!(spread > kFlatSpread)) {
        return {};
    }

    auto isPeak = [&](std::size_t k) {
        const float left = k > 0 ? v[k - 1] : kNoNeighbour;
        const float right = k + 1 < count ? v[k + 1] : kNoNeighbour;
        return left <= v[k] && right <= v[k];
    };
    struct Candidate {
        float score;
        std::int64_t lag;
        float value;
    };
    auto candidate = [&](std::size_t k) {
        return Candidate{static_cast<float>((v[k] - mean) / spread),
                         firstLag + static_cast<std::int64_t>(k), v[k]};
    };
    // A stable sort by score, best first: equal scores keep ascending lag, which is the only
    // tie-break a strict order needs since lags are distinct.
    auto before = [](const Candidate& x, const Candidate& y) {
        return x.score > y.score || (x.score == y.score && x.lag < y.lag);
    };

    double separation = std::round(minSeparationSec * kFrameRate);
    if (!(separation >= 1)) {
        separation = 1;
    }
    // Searched lags differ by less than 2^33, so a larger separation is as good as infinite.
    const auto apart = static_cast<std::int64_t>(std::min(separation, 0x1p40));
    std::vector<Peak> accepted;
    std::set<std::int64_t> acceptedLags;
    // Takes the next candidate in order; true once topK are accepted.
    auto offer = [&](const Candidate& c) {
        auto near = acceptedLags.lower_bound(c.lag - apart + 1);
        if (near == acceptedLags.end() || *near >= c.lag + apart) {
            acceptedLags.insert(c.lag);
            accepted.push_back({static_cast<double>(c.lag) / kFrameRate, c.score});
        }
        return accepted.size() == static_cast<std::size_t>(topK);
    };

    // Usually the best few candidates are all that separation needs. They are found in one pass
    // that looks closely only at what can still enter: scores never fall as values rise, and a
    // later lag loses a tie, so nothing below the value of the worst kept candidate can displace
    // it, and a whole span of lags below it is passed over at once.
    // The best candidate is always accepted, so one search for one peak keeps only that.
    const std::size_t keep = topK == 1 ? 1 : 16 * static_cast<std::size_t>(topK);
    constexpr std::size_t kSpan = 64;
    std::vector<Candidate> best;
    best.reserve(keep);
    for (std::size_t from = 0; from < count; from += kSpan) {
        const std::size_t to = std::min(count, from + kSpan);
        if (best.size() == keep && spanMaximum(v + from, to - from) < best.front().value) {
            continue;
        }
        for (std::size_t k = from; k < to; ++k) {
            if ((best.size() == keep && v[k] < best.front().value) || !isPeak(k)) {
                continue;
            }
            const Candidate next = candidate(k);
            if (best.size() < keep) {
                best.push_back(next);
                std::push_heap(best.begin(), best.end(), before);
            } else if (before(next, best.front())) {
                std::pop_heap(best.begin(), best.end(), before);
                best.back() = next;
                std::push_heap(best.begin(), best.end(), before);
            }
        }
    }
    const bool everyCandidate = best.size() < keep;
    std::sort_heap(best.begin(), best.end(), before);
    for (const auto& c : best) {
        if (offer(c)) {
            return accepted;
        }
    }
    if (everyCandidate) {
        return accepted;
    }

    // Separation dropped too many: all candidates, sorted a growing part at a time.
    accepted.clear();
    acceptedLags.clear();
    std::vector<Candidate> candidates;
    for (std::size_t k = 0; k < count; ++k) {
        if (isPeak(k)) {
            candidates.push_back(candidate(k));
        }
    }
    std::size_t walked = 0;
    std::size_t sorted = std::min(candidates.size(), keep);
    while (walked < candidates.size()) {
        std::partial_sort(candidates.begin() + std::ptrdiff_t(walked),
                          candidates.begin() + std::ptrdiff_t(sorted), candidates.end(), before);
        for (; walked < sorted; ++walked) {
            if (offer(candidates[walked])) {
                return accepted;
            }
        }
        sorted = std::min(candidates.size(), sorted * 2);
    }
    return accepted;
}

} // namespace

Feature compute(const std::vector<float>& pcm) {
    if (pcm.size() < kWindowSize || pcm.size() - kWindowSize < (kMinFrames - 1) * kHop) {
        return {};
    }
    const auto* setup = SyncCorrelator::sharedFFTSetup(kWindowLog2n);
    if (!setup) {
        return {};
    }
    // A trailing stretch too short for a whole window is not analysed.
    const std::size_t frames = (pcm.size() - kWindowSize) / kHop + 1;
    const auto& window = hannWindow();
    const auto edges = bandEdges();

    Fft::RealBuffer frame(kWindowSize);
    Fft::ComplexBuffer spectrum(setup->spectrumSize());
    Feature::Bands bands(kBandCount, std::vector<float>(frames));
    for (std::size_t t = 0; t < frames; ++t) {
        const float* x = pcm.data() + t * kHop;
        for (std::size_t n = 0; n < kWindowSize; ++n) {
            frame[n] = x[n] * window[n];
        }
        setup->forward(frame, spectrum);
        const float* bin = reinterpret_cast<const float*>(spectrum.data());
        for (std::size_t b = 0; b < kBandCount; ++b) {
            float power = 0;
            for (std::size_t m = edges[b]; m < edges[b + 1]; ++m) {
                power += bin[2 * m] * bin[2 * m] + bin[2 * m + 1] * bin[2 * m + 1];
            }
            // Four times |X|^2: the power the feature has always been defined on.
            bands[b][t] = std::log1p(4.0f * power);
        }
    }
    for (auto& band : bands) {
        zscore(band.data(), band.size());
    }
    return Feature(std::move(bands), static_cast<int>(frames));
}

std::optional<Feature> slice(const Feature& feature, double fromSec, double durationSec) {
    const double count = std::round(durationSec * kFrameRate);
    if (!(count >= kMinFrames)) {
        return std::nullopt;
    }
    double start = std::round(fromSec * kFrameRate);
    if (std::isnan(start)) {
        return std::nullopt;
    }
    // A start before the feature moves to 0 and keeps the length.
    start = std::max(start, 0.0);
    if (feature.bandCount() != kBandCount || start + count > static_cast<double>(feature.frames)) {
        return std::nullopt;
    }
    const auto first = static_cast<std::size_t>(start);
    const auto n = static_cast<std::size_t>(count);
    Feature::Bands bands;
    for (std::size_t i = 0; i < kBandCount; ++i) {
        const auto& band = feature.band(i);
        if (band.size() < first + n) {
            return std::nullopt;
        }
        bands.emplace_back(band.begin() + std::ptrdiff_t(first),
                           band.begin() + std::ptrdiff_t(first + n));
        zscore(bands.back().data(), n);
    }
    return Feature(std::move(bands), static_cast<int>(n));
}

std::vector<Peak> peaks(const Feature& clip, const Feature& ref, double minOffsetSec,
                        double maxOffsetSec, double minOverlapSec, int topK,
                        double minSeparationSec) {
    if (topK < 1 || clip.frames < kMinFrames || ref.frames < kMinFrames ||
        clip.bandCount() != ref.bandCount() || ref.frames <= clip.frames || clip.bandCount() == 0) {
        return {};
    }
    const std::size_t size = correlationSize(std::size_t(ref.frames), std::size_t(clip.frames));
    if (size == 0) {
        return {};
    }

    // The lags that keep at least `overlap` frames of the clip inside the reference. This one
    // conversion is cut, not rounded.
    double overlap = std::trunc(minOverlapSec * kFrameRate);
    if (!(overlap >= 0)) {
        overlap = 0;
    }
    if (static_cast<double>(clip.frames) <= overlap) {
        return {};
    }
    const auto lo = static_cast<std::int64_t>(overlap) - clip.frames;
    const auto hi = ref.frames - static_cast<std::int64_t>(overlap);
    if (hi < lo) {
        return {};
    }
    // A bound that is not finite in frames (infinity, or a product that overflows) is no bound.
    auto bound = [&](double sec, std::int64_t none) {
        const double f = sec * kFrameRate;
        if (!std::isfinite(f)) {
            return none;
        }
        return static_cast<std::int64_t>(
            std::clamp(std::round(f), static_cast<double>(lo), static_cast<double>(hi)));
    };
    const std::int64_t first = bound(minOffsetSec, lo);
    const std::int64_t last = bound(maxOffsetSec, hi);
    // A single searched lag has no spread, so it can never score: stop before any transform.
    // Bounds that lie wholly outside the overlap range clamp to one lag, which is common for
    // clips whose clock window misses a pool segment.
    if (last <= first) {
        return {};
    }

    const auto values = summedCorrelation(clip, ref, size, first, last);
    if (!values) {
        return {};
    }
    return rankPeaks(*values, first, topK, minSeparationSec);
}

std::vector<Peak> pickPeaks(const std::vector<float>& summed, int firstLag, int lastLag, int topK,
                            double minSeparationSec) {
    const auto size = static_cast<std::int64_t>(summed.size());
    if (lastLag < firstLag || firstLag < -size || lastLag >= size) {
        return {};
    }
    std::vector<float> values;
    for (std::int64_t lag = firstLag; lag <= lastLag; ++lag) {
        values.push_back(summed[std::size_t(lag < 0 ? lag + size : lag)]);
    }
    return rankPeaks(values, firstLag, topK, minSeparationSec);
}

SpectrumCacheUsage spectrumCacheUsage() {
    return spectrumCache().usage();
}

std::size_t setSpectrumCacheBudget(std::size_t bytes) {
    return spectrumCache().setBudget(bytes);
}

} // namespace SpectralBands

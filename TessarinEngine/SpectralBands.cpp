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
// Below this transform size a reference's spectra are cheaper to make again than to keep; above
// the entry count the table's upkeep would start to cost more than it saves.
constexpr std::size_t kMinCachedSize = 2048;
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

// Forward spectra of every band of a reference at one transform size. Made once, by whichever
// caller gets there first; read-only afterwards.
struct ReferenceSpectra {
    std::once_flag made;
    std::vector<Fft::ComplexBuffer> bands;
};

std::size_t spectraBytes(std::size_t bandCount, std::size_t size) {
    return bandCount * (size / 2 + 1) * sizeof(std::complex<float>);
}

void makeSpectra(ReferenceSpectra& spectra, const Feature& ref, const Fft::Setup& setup) {
    std::vector<Fft::ComplexBuffer> bands;
    Fft::RealBuffer padded(setup.size());
    for (std::size_t i = 0; i < ref.bandCount(); ++i) {
        const auto& band = ref.band(i);
        std::fill(padded.begin(), padded.end(), 0.0f);
        std::copy_n(band.begin(), std::min(band.size(), setup.size()), padded.begin());
        bands.emplace_back(setup.spectrumSize());
        setup.forward(padded, bands.back());
    }
    // Assigned whole at the end: if making them fails, the next caller starts from nothing.
    spectra.bands = std::move(bands);
}

// The references' spectra, keyed by band storage and transform size, least recently used first
// out. An entry only watches its feature (weak ownership), so a dead feature's address cannot be
// mistaken for a new one's while the entry exists.
class SpectrumCache {
public:
    // The spectra for `ref` at `size`, shared with the table when they fit in it, or made for
    // this caller alone. They may still need making: see ReferenceSpectra::made.
    std::shared_ptr<ReferenceSpectra> find(const Feature& ref, std::size_t size) {
        const Key key{ref.bands.get(), size};
        const std::size_t bytes = spectraBytes(ref.bandCount(), size);
        std::lock_guard<std::mutex> guard(lock_);
        if (auto found = index_.find(key); found != index_.end()) {
            if (!found->second->owner.expired()) {
                recent_.splice(recent_.begin(), recent_, found->second);
                return found->second->spectra;
            }
            erase(found->second);
        }
        auto spectra = std::make_shared<ReferenceSpectra>();
        if (size < kMinCachedSize || bytes > budget_) {
            return spectra;
        }
        dropExpired();
        while (!recent_.empty() &&
               (bytes_ + bytes > budget_ || recent_.size() >= kMaxCacheEntries)) {
            erase(std::prev(recent_.end()));
        }
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
        std::size_t size;
        bool operator==(const Key&) const = default;
    };
    struct KeyHash {
        std::size_t operator()(const Key& k) const {
            return std::hash<const void*>()(k.bands) ^ (k.size * 0x9e3779b97f4a7c15ull);
        }
    };
    struct Entry {
        Key key;
        std::weak_ptr<const Feature::Bands> owner;
        std::shared_ptr<ReferenceSpectra> spectra;
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

// product = ref * conj(product), bin by bin, in place. Returns the energy of the product over the
// whole conjugate-symmetric spectrum, which by Parseval is N times the energy of its inverse.
double multiplyConjugate(const Fft::ComplexBuffer& ref, Fft::ComplexBuffer& product,
                         std::size_t bins) {
    const float* r = reinterpret_cast<const float*>(ref.data());
    float* p = reinterpret_cast<float*>(product.data());
    double inner = 0;
    for (std::size_t m = 0; m < bins; ++m) {
        const float ar = r[2 * m], ai = r[2 * m + 1];
        const float br = p[2 * m], bi = p[2 * m + 1];
        const float pr = ar * br + ai * bi;
        const float pi = ai * br - ar * bi;
        p[2 * m] = pr;
        p[2 * m + 1] = pi;
        inner += static_cast<double>(pr * pr + pi * pi);
    }
    // Bins 1 to N/2 - 1 stand for their mirror images as well; bins 0 and N/2 only for themselves.
    const double edge = std::norm(std::complex<double>(product[0])) +
                        std::norm(std::complex<double>(product[bins - 1]));
    return 2.0 * inner - edge;
}

// The sum over the bands of each band's circular correlation (reference against clip) divided by
// its RMS over all N lags, or nothing when no band has energy in its correlation. The RMS comes
// from the spectrum (Parseval), so the weighted spectra can be summed before one inverse transform.
std::optional<Fft::RealBuffer> summedCorrelation(const Feature& clip, const Feature& ref,
                                                 const Fft::Setup& setup) {
    const std::size_t size = setup.size();
    const std::size_t bins = setup.spectrumSize();
    auto spectra = spectrumCache().find(ref, size);
    std::call_once(spectra->made, [&] { makeSpectra(*spectra, ref, setup); });

    Fft::RealBuffer padded(size);
    Fft::ComplexBuffer product(bins);
    Fft::ComplexBuffer sum(bins);
    std::size_t copied = 0;
    bool used = false;
    for (std::size_t i = 0; i < clip.bandCount(); ++i) {
        const auto& band = clip.band(i);
        if (correlationSize(ref.band(i).size(), band.size()) != size) {
            continue;
        }
        std::fill_n(padded.begin(), copied, 0.0f);
        copied = std::min(band.size(), size);
        std::copy_n(band.begin(), copied, padded.begin());
        setup.forward(padded, product);
        const double energy = multiplyConjugate(spectra->bands[i], product, bins);
        // The correlation is 2/N times the inverse of the product, so its RMS over N lags is
        // 2 sqrt(energy) / N, and 2/N divided by that RMS is 1 / sqrt(energy).
        const double rms = 2.0 * std::sqrt(energy) / static_cast<double>(size);
        if (!(rms > kFlatRms) || !std::isfinite(rms)) {
            continue;
        }
        const float weight = static_cast<float>(1.0 / std::sqrt(energy));
        const float* p = reinterpret_cast<const float*>(product.data());
        float* s = reinterpret_cast<float*>(sum.data());
        for (std::size_t k = 0; k < 2 * bins; ++k) {
            s[k] += weight * p[k];
        }
        used = true;
    }
    if (!used) {
        return std::nullopt;
    }
    Fft::RealBuffer summed(size);
    setup.inverse(sum, summed);
    return summed;
}

struct Candidate {
    float score;
    std::int64_t lag;
};

std::vector<Peak> searchPeaks(const float* summed, std::int64_t size, std::int64_t first,
                              std::int64_t last, int topK, double minSeparationSec) {
    if (topK < 1 || last < first || first < -size || last >= size) {
        return {};
    }
    auto at = [&](std::int64_t lag) {
        return summed[lag < 0 ? lag + size : lag];
    };

    const auto count = static_cast<double>(last - first + 1);
    double s1 = 0;
    double s2 = 0;
    for (std::int64_t lag = first; lag <= last; ++lag) {
        const double v = at(lag);
        s1 += v;
        s2 += v * v;
    }
    const double mean = s1 / count;
    const double spread = std::sqrt(std::max(0.0, s2 / count - mean * mean));
    if (!(spread > kFlatSpread)) {
        return {};
    }

    std::vector<Candidate> candidates;
    for (std::int64_t lag = first; lag <= last; ++lag) {
        const float v = at(lag);
        const float left = lag > first ? at(lag - 1) : kNoNeighbour;
        const float right = lag < last ? at(lag + 1) : kNoNeighbour;
        if (left <= v && right <= v) {
            candidates.push_back({static_cast<float>((v - mean) / spread), lag});
        }
    }

    double separation = std::round(minSeparationSec * kFrameRate);
    if (!(separation >= 1)) {
        separation = 1;
    }
    // Lags differ by less than 2^33, so a larger separation is as good as infinite.
    const auto apart = static_cast<std::int64_t>(std::min(separation, 0x1p40));

    // A stable sort by score, best first: equal scores keep ascending lag, which is the only
    // tie-break a strict order needs since lags are distinct.
    auto before = [](const Candidate& x, const Candidate& y) {
        return x.score > y.score || (x.score == y.score && x.lag < y.lag);
    };
    std::vector<Peak> accepted;
    std::set<std::int64_t> acceptedLags;
    // Only the best few candidates are usually looked at; sort more only when separation has
    // dropped them all before topK were accepted.
    std::size_t walked = 0;
    std::size_t sorted =
        std::min(candidates.size(), std::max<std::size_t>(64, 4 * std::size_t(topK)));
    while (walked < candidates.size()) {
        std::partial_sort(candidates.begin() + std::ptrdiff_t(walked),
                          candidates.begin() + std::ptrdiff_t(sorted), candidates.end(), before);
        for (; walked < sorted; ++walked) {
            const auto& c = candidates[walked];
            auto near = acceptedLags.lower_bound(c.lag - apart + 1);
            if (near != acceptedLags.end() && *near < c.lag + apart) {
                continue;
            }
            acceptedLags.insert(c.lag);
            accepted.push_back({static_cast<double>(c.lag) / kFrameRate, c.score});
            if (accepted.size() == static_cast<std::size_t>(topK)) {
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
    if (last < first) {
        return {};
    }

    const auto* setup =
        SyncCorrelator::sharedFFTSetup(static_cast<unsigned>(std::countr_zero(size)));
    if (!setup) {
        return {};
    }
    const auto summed = summedCorrelation(clip, ref, *setup);
    if (!summed) {
        return {};
    }
    return searchPeaks(summed->data(), static_cast<std::int64_t>(size), first, last, topK,
                       minSeparationSec);
}

std::vector<Peak> pickPeaks(const std::vector<float>& summed, int firstLag, int lastLag, int topK,
                            double minSeparationSec) {
    return searchPeaks(summed.data(), static_cast<std::int64_t>(summed.size()), firstLag, lastLag,
                       topK, minSeparationSec);
}

SpectrumCacheUsage spectrumCacheUsage() {
    return spectrumCache().usage();
}

std::size_t setSpectrumCacheBudget(std::size_t bytes) {
    return spectrumCache().setBudget(bytes);
}

} // namespace SpectralBands

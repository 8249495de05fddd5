#include "TessarinEngine/SpectralBands/BlockSpectra.h"
#include "TessarinEngine/SyncCorrelator.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <cstdint>
#include <set>

namespace SpectralBands {

namespace {

// Stands for the missing neighbour at either end of a search range, so that ends can be peaks.
constexpr float kNoNeighbour = -3.4028235e38f;

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

// Fewer blocks than this, and one whole-length correlation costs less than making the blocks.
constexpr std::size_t kMinBlocks = 4;

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
            setup ? keptBlockSpectra(ref, layout,
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

} // namespace SpectralBands

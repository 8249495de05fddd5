#include "TessarinEngine/Refine.h"

#include "TessarinEngine/EngineLog.h"
#include "TessarinEngine/SyncCorrelator.h"
#include "TessarinEngine/SyncEngine/Format.h"
#include "TessarinEngine/WorkerWindow.h"
#include "TessarinEngine/platform/Fft.h"
#include "TessarinEngine/platform/MediaDecoder.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <exception>
#include <memory>
#include <numeric>
#include <set>
#include <string_view>
#include <unordered_map>

namespace Refine {

namespace {

// A peak must correlate at least this much to say anything.
constexpr float kMinPeakScore = 0.2f;
// Another peak reaching this share of the best makes the range ambiguous.
constexpr float kClearRatio = 0.8f;
// Lags this close to the best belong to its own lobe.
constexpr double kLobeSeconds = 0.002;
// No camera or recorder clock runs this far off; a line steeper than this joins lags of two
// different events.
constexpr double kMaxDrift = 500e-6;
// Windows keep this far inside the overlap, so that the searched range stays inside both files.
constexpr double kEdgeMargin = 0.1;
// Shortest overlap worth a window.
constexpr double kShortestOverlap = 1.0;

// Placements measured by the clip's own audio against one partner.
constexpr std::string_view kDirectCodes[] = {
    PlacementCode::A1,       PlacementCode::A1w, PlacementCode::A3,    PlacementCode::A3b,
    PlacementCode::A3bBroll, PlacementCode::A4,  PlacementCode::A3cam,
};
// Placements made through another clip, which the clip follows.
constexpr std::string_view kFollowingCodes[] = {
    PlacementCode::linked,    PlacementCode::sibling, PlacementCode::siblingCh,
    PlacementCode::A3cluster, PlacementCode::chapter,
};
// Of those, the ones whose lead is the same device, so it shares the lead's clock and drift.
constexpr std::string_view kSameDeviceCodes[] = {
    PlacementCode::sibling,
    PlacementCode::siblingCh,
    PlacementCode::chapter,
};

bool codeIn(const ClipItem& clip, std::span<const std::string_view> codes) {
    if (!clip.placementPass) {
        return false;
    }
    return std::find(codes.begin(), codes.end(), *clip.placementPass) != codes.end();
}

std::vector<float> withoutMean(std::span<const float> x) {
    const double mean =
        x.empty() ? 0.0 : std::accumulate(x.begin(), x.end(), 0.0) / static_cast<double>(x.size());
    std::vector<float> out(x.size());
    std::transform(x.begin(), x.end(), out.begin(),
                   [&](float v) { return static_cast<float>(v - mean); });
    return out;
}

// sum over i of partner[i + k] * clip[i] for k from 0 to lags - 1, where partner holds
// clip.size() + lags - 1 values: a circular correlation of the partner's length is enough, since
// no product of these lags wraps around. Empty when no transform can be had.
std::vector<double> slidingProducts(const std::vector<float>& partner,
                                    const std::vector<float>& clip, std::size_t lags) {
    unsigned log2n = 1;
    while ((std::size_t{1} << log2n) < partner.size()) {
        ++log2n;
    }
    const Fft::Setup* setup =
        log2n <= SyncCorrelator::kMaxLog2n ? SyncCorrelator::sharedFFTSetup(log2n) : nullptr;
    if (!setup) {
        return {};
    }
    const std::size_t n = setup->size();
    Fft::RealBuffer padded(n);
    Fft::ComplexBuffer theirs(setup->spectrumSize());
    Fft::ComplexBuffer own(setup->spectrumSize());
    std::copy(partner.begin(), partner.end(), padded.begin());
    setup->forward(padded, theirs);
    std::fill(padded.begin(), padded.end(), 0.0f);
    std::copy(clip.begin(), clip.end(), padded.begin());
    setup->forward(padded, own);
    for (std::size_t m = 0; m < setup->spectrumSize(); ++m) {
        theirs[m] *= std::conj(own[m]);
    }
    setup->inverse(theirs, padded);
    // The unscaled inverse gives n times each sum.
    std::vector<double> products(lags);
    for (std::size_t k = 0; k < lags; ++k) {
        products[k] = static_cast<double>(padded[k]) / static_cast<double>(n);
    }
    return products;
}

} // namespace

std::optional<Peak> correlationPeak(std::span<const float> clip, std::span<const float> partner,
                                    int maxLag) {
    constexpr std::size_t kShortestWindow = 256;
    const std::size_t n = clip.size();
    const auto lags = static_cast<std::size_t>(2 * maxLag + 1);
    if (maxLag < 1 || n < kShortestWindow || partner.size() != n + lags - 1) {
        return std::nullopt;
    }
    const auto c = withoutMean(clip);
    const auto p = withoutMean(partner);
    const double clipEnergy = std::inner_product(c.begin(), c.end(), c.begin(), 0.0);
    if (clipEnergy <= 0) {
        return std::nullopt;
    }
    const auto products = slidingProducts(p, c, lags);
    if (products.empty()) {
        return std::nullopt;
    }
    // The energy of the partner under the clip at each lag, from running sums.
    std::vector<double> prefix(p.size() + 1, 0.0);
    for (std::size_t i = 0; i < p.size(); ++i) {
        prefix[i + 1] = prefix[i] + static_cast<double>(p[i]) * p[i];
    }
    std::vector<float> score(lags, 0.0f);
    for (std::size_t k = 0; k < lags; ++k) {
        const double energy = prefix[k + n] - prefix[k];
        if (energy > 0) {
            score[k] = static_cast<float>(products[k] / std::sqrt(clipEnergy * energy));
        }
    }
    const auto best =
        static_cast<std::size_t>(std::max_element(score.begin(), score.end()) - score.begin());
    Peak peak;
    peak.score = score[best];
    peak.lag = static_cast<double>(best) - maxLag;
    if (best > 0 && best + 1 < lags) {
        const double before = score[best - 1];
        const double at = score[best];
        const double after = score[best + 1];
        const double curvature = before - 2 * at + after;
        if (curvature < 0) {
            peak.lag += 0.5 * (before - after) / curvature;
        }
    }
    const auto lobe = static_cast<std::size_t>(kLobeSeconds * kRateHz);
    for (std::size_t k = 0; k < lags; ++k) {
        const std::size_t apart = k > best ? k - best : best - k;
        if (apart >= lobe) {
            peak.runnerUp = std::max(peak.runnerUp, score[k]);
        }
    }
    return peak;
}

bool isClearPeak(const Peak& peak) {
    return peak.score >= kMinPeakScore && peak.runnerUp < kClearRatio * peak.score;
}

std::optional<Fit> fitLags(const std::vector<WindowLag>& lags) {
    if (lags.empty()) {
        return std::nullopt;
    }
    if (lags.size() == 1) {
        return Fit{lags.front().lag, std::nullopt};
    }
    const double count = static_cast<double>(lags.size());
    double meanAt = 0;
    double meanLag = 0;
    for (const auto& l : lags) {
        meanAt += l.at / count;
        meanLag += l.lag / count;
    }
    double spread = 0;
    double joint = 0;
    for (const auto& l : lags) {
        spread += (l.at - meanAt) * (l.at - meanAt);
        joint += (l.at - meanAt) * (l.lag - meanLag);
    }
    if (spread <= 0) {
        return std::nullopt;
    }
    const double slope = joint / spread;
    const double intercept = meanLag - slope * meanAt;
    if (std::abs(slope) > kMaxDrift) {
        return std::nullopt;
    }
    for (const auto& l : lags) {
        if (std::abs(intercept + slope * l.at - l.lag) > kFitTolerance) {
            return std::nullopt;
        }
    }
    const auto [first, last] = std::minmax_element(
        lags.begin(), lags.end(), [](const auto& a, const auto& b) { return a.at < b.at; });
    Fit fit{intercept, std::nullopt};
    if (last->at - first->at >= kDriftSpanSeconds) {
        fit.driftPpm = slope * 1e6;
    }
    return fit;
}

Stretches openStretches(const std::filesystem::path& file) {
    auto decoder = std::make_shared<MediaDecoder::StretchDecoder>(file, kRateHz);
    return [decoder](double from, double seconds) {
        return decoder->read(from, seconds);
    };
}

namespace {

std::string clipName(const ClipItem& clip) {
    return clip.url.filename().string();
}

// What a log line tells of a clip's shift and drift.
std::string shiftText(const char* verb, double seconds, const std::optional<double>& driftPpm) {
    std::string drift = "not measured";
    if (driftPpm) {
        drift = SyncEngine::format("%+.1f ppm", *driftPpm);
    }
    return SyncEngine::format("%s by %+.5f s, drift ", verb, seconds) + drift;
}

struct Placed {
    int track = 0;
    int index = 0;
};

// What refining one clip against its partner gives: its new start and drift.
struct Refinement {
    double start = 0;
    std::optional<double> driftPpm;
};

// One window at `centre` on the timeline, searched around `expectedLag`: the lag found, or
// nothing when the files do not hold the window or its peak is not clear.
std::optional<WindowLag> measureWindow(const ClipItem& clip, const ClipItem& partner, double centre,
                                       double width, double expectedLag, const Stretches& readOwn,
                                       const Stretches& readTheirs) {
    const int maxLag = static_cast<int>(std::lround(kSearchSeconds * kRateHz));
    const double partnerRate = 1.0 - partner.driftPpm.value_or(0.0) * 1e-6;
    const double at = centre - clip.startOffset;
    const double partnerAt = (centre - expectedLag - partner.startOffset) / partnerRate;
    const double half = width / 2;
    const auto samples = static_cast<std::size_t>(std::lround(width * kRateHz));
    const double margin = static_cast<double>(maxLag) / kRateHz;
    if (at - half < 0 || partnerAt - half - margin < 0) {
        return std::nullopt;
    }
    auto own = readOwn(at - half, static_cast<double>(samples) / kRateHz);
    auto theirs =
        readTheirs(partnerAt - half - margin,
                   static_cast<double>(samples + 2 * static_cast<std::size_t>(maxLag)) / kRateHz);
    if (own.size() < samples || theirs.size() < samples + 2 * static_cast<std::size_t>(maxLag)) {
        return std::nullopt;
    }
    own.resize(samples);
    theirs.resize(samples + 2 * static_cast<std::size_t>(maxLag));
    const auto peak = correlationPeak(own, theirs, maxLag);
    if (!peak || !isClearPeak(*peak)) {
        return std::nullopt;
    }
    // The clip's content at `at` lies in the partner at partnerAt + lag, which is this moment.
    const double truth = partner.startOffset + (partnerAt + peak->lag / kRateHz) * partnerRate;
    return WindowLag{at, centre - truth};
}

// Middle window first, searched around the band placement; then the start and the end, each
// around the lag that the windows found so far predict.
std::optional<Refinement> refineAgainst(const ClipItem& clip, const ClipItem& partner,
                                        const StretchOpener& open) {
    const double from = std::max(clip.startOffset, partner.startOffset) + kEdgeMargin;
    const double to =
        std::min(clip.startOffset + clip.duration, partner.startOffset + partner.duration) -
        kEdgeMargin;
    if (to - from < kShortestOverlap) {
        return std::nullopt;
    }
    const double width = std::min(kWindowSeconds, to - from);
    std::vector<double> centres{(from + to) / 2};
    // Side windows only where they can measure drift; a shorter overlap holds one window.
    if (to - from >= kDriftSpanSeconds + width) {
        centres.push_back(from + width / 2);
        centres.push_back(to - width / 2);
    }
    const auto readOwn = open(clip.url);
    const auto readTheirs = open(partner.url);
    std::vector<WindowLag> found;
    for (const double centre : centres) {
        double expected = 0;
        if (const auto fit = fitLags(found)) {
            const double slope = found.size() >= 2 ? (found.back().lag - found.front().lag) /
                                                         (found.back().at - found.front().at)
                                                   : 0.0;
            expected = found.front().lag + slope * (centre - clip.startOffset - found.front().at);
        }
        if (const auto lag =
                measureWindow(clip, partner, centre, width, expected, readOwn, readTheirs)) {
            found.push_back(*lag);
        }
    }
    const auto fit = fitLags(found);
    if (!fit) {
        return std::nullopt;
    }
    return Refinement{clip.startOffset - fit->lagAtStart, fit->driftPpm};
}

} // namespace

void refineTracks(std::vector<TrackSource>& tracks, const StretchOpener& open, int width) {
    const auto began = std::chrono::steady_clock::now();
    int refined = 0;
    std::unordered_map<Uuid, Placed> where;
    for (int t = 0; t < static_cast<int>(tracks.size()); ++t) {
        for (int c = 0; c < static_cast<int>(tracks[t].clips.size()); ++c) {
            where.emplace(tracks[t].clips[c].id, Placed{t, c});
        }
    }
    auto clipAt = [&](Placed p) -> ClipItem& {
        return tracks[p.track].clips[p.index];
    };
    auto leadOf = [&](const ClipItem& clip) -> std::optional<Placed> {
        const auto& id = clip.placementPass == PlacementCode::siblingCh ? clip.siblingLeaderID
                                                                        : clip.placedAgainst;
        if (!id) {
            return std::nullopt;
        }
        const auto it = where.find(*id);
        return it == where.end() ? std::nullopt : std::optional<Placed>(it->second);
    };

    // Clips still to settle: a clip is settled once its lead is.
    std::vector<Placed> pending;
    for (const auto& [id, p] : where) {
        const auto& clip = clipAt(p);
        if ((codeIn(clip, kDirectCodes) || codeIn(clip, kFollowingCodes)) && leadOf(clip)) {
            pending.push_back(p);
        }
    }
    std::sort(pending.begin(), pending.end(), [](const Placed& a, const Placed& b) {
        return a.track != b.track ? a.track < b.track : a.index < b.index;
    });
    std::set<Uuid> unsettled;
    for (const auto& p : pending) {
        unsettled.insert(clipAt(p).id);
    }

    while (!pending.empty()) {
        std::vector<Placed> ready;
        std::vector<Placed> waiting;
        for (const auto& p : pending) {
            const auto lead = leadOf(clipAt(p));
            (unsettled.count(clipAt(*lead).id) ? waiting : ready).push_back(p);
        }
        // Leads that wait on each other: the first of them goes as it stands.
        if (ready.empty()) {
            ready.push_back(waiting.front());
            waiting.erase(waiting.begin());
        }

        std::vector<std::optional<Refinement>> results(ready.size());
        WorkerWindow::run<std::optional<Refinement>>(
            ready.size(), static_cast<std::size_t>(std::max(width, 1)),
            [&](std::size_t i) -> std::optional<Refinement> {
                const auto& clip = clipAt(ready[i]);
                if (!codeIn(clip, kDirectCodes)) {
                    return std::nullopt;
                }
                try {
                    return refineAgainst(clip, clipAt(*leadOf(clip)), open);
                } catch (const std::exception&) {
                    // A file that cannot be read again keeps its band placement.
                    return std::nullopt;
                }
            },
            [&](std::size_t i, std::optional<Refinement> r) {
                results[i] = r;
                return true;
            });

        for (std::size_t i = 0; i < ready.size(); ++i) {
            auto& clip = clipAt(ready[i]);
            const auto& lead = clipAt(*leadOf(clip));
            const std::string names = "'" + clipName(clip) + "' against '" + clipName(lead) + "'";
            if (results[i]) {
                clip.refinedBy = results[i]->start - clip.startOffset;
                clip.startOffset = results[i]->start;
                clip.driftPpm = results[i]->driftPpm;
                EngineLog::log("[Refine] " + names + ": " +
                               shiftText("refined", *clip.refinedBy, clip.driftPpm));
                ++refined;
            } else if (lead.refinedBy && *lead.refinedBy != 0) {
                // Placed against or through a clip that moved: it moves with it.
                clip.refinedBy = *lead.refinedBy;
                clip.startOffset += *lead.refinedBy;
                if (codeIn(clip, kSameDeviceCodes)) {
                    clip.driftPpm = lead.driftPpm;
                }
                EngineLog::log("[Refine] " + names + ": " +
                               shiftText("follows", *clip.refinedBy, clip.driftPpm));
            } else if (codeIn(clip, kDirectCodes)) {
                EngineLog::log("[Refine] " + names + ": kept");
            }
            unsettled.erase(clip.id);
        }
        pending = std::move(waiting);
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
    EngineLog::log(SyncEngine::format("[Refine] %d clips refined by their own audio in %.3f s",
                                      refined, took.count()));
}

} // namespace Refine

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
#include <map>
#include <memory>
#include <mutex>
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
// No camera or recorder clock runs this far off; a line steeper than this joins lags of two
// different events.
constexpr double kMaxDrift = 500e-6;
// Windows keep this far inside the overlap, so that the searched range stays inside both files.
constexpr double kEdgeMargin = 0.1;
// Placing by the windows is repeated until no device's drift moves by this much, and at most so
// often.
constexpr double kSettledPpm = 0.1;
constexpr int kMostSweeps = 6;
// Files kept open between clips, at most.
constexpr std::size_t kMostIdleFiles = 64;
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

// The power of two of the transform that holds `size` values.
unsigned transformLog2(std::size_t size) {
    unsigned log2n = 1;
    while ((std::size_t{1} << log2n) < size) {
        ++log2n;
    }
    return log2n;
}

// sum over i of partner[i + k] * clip[i] for k from 0 to lags - 1, where partner holds
// clip.size() + lags - 1 values: a circular correlation of the partner's length is enough, since
// no product of these lags wraps around. Empty when no transform can be had.
std::vector<double> slidingProducts(const std::vector<float>& partner,
                                    const std::vector<float>& clip, std::size_t lags) {
    const unsigned log2n = transformLog2(partner.size());
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
                                    int maxLag, double lobeSeconds) {
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
    const auto lobe = static_cast<std::size_t>(lobeSeconds * kRateHz);
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

std::optional<Fit> fitSightings(const std::vector<Sighting>& sightings, bool clockFixed) {
    if (sightings.empty()) {
        return std::nullopt;
    }
    const double count = static_cast<double>(sightings.size());
    double meanAt = 0;
    double meanWhen = 0;
    for (const auto& s : sightings) {
        meanAt += s.at / count;
        meanWhen += s.when / count;
    }
    double spread = 0;
    double joint = 0;
    for (const auto& s : sightings) {
        spread += (s.at - meanAt) * (s.at - meanAt);
        joint += (s.at - meanAt) * (s.when - meanWhen);
    }
    const auto [first, last] =
        std::minmax_element(sightings.begin(), sightings.end(),
                            [](const Sighting& a, const Sighting& b) { return a.at < b.at; });
    const bool measuresDrift = !clockFixed && last->at - first->at >= kDriftSpanSeconds;
    // The rate at which the clip's seconds pass on the timeline: 1 for a clock taken as true.
    const double rate = measuresDrift && spread > 0 ? joint / spread : 1.0;
    if (std::abs(rate - 1.0) > kMaxDrift) {
        return std::nullopt;
    }
    const double start = meanWhen - rate * meanAt;
    for (const auto& s : sightings) {
        if (std::abs(start + rate * s.at - s.when) > kFitTolerance) {
            return std::nullopt;
        }
    }
    Fit fit{start, std::nullopt};
    if (measuresDrift) {
        fit.driftPpm = (1.0 - rate) * 1e6;
    }
    return fit;
}

void prepare() {
    const auto window = static_cast<std::size_t>(std::lround(kWindowSeconds * kRateHz));
    const auto search = static_cast<std::size_t>(std::lround(kSearchSeconds * kRateHz));
    SyncCorrelator::sharedFFTSetup(transformLog2(window + 2 * search));
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

// One window pair: where the clip's window lies in it and where the same sound lies in its
// partner, both in seconds from the file's start. Placements do not enter it, so it holds
// whatever the partner's placement becomes.
struct Pairing {
    double at = 0;
    double partnerAt = 0;
};

// What the windows of one clip found against its partner; the middle window comes first.
struct Measured {
    std::vector<Pairing> pairings;
    bool middleFound = false;
};

// Files opened for stretches and kept open for the next clip that reads them: most files are read
// twice, once as a clip and once as a partner, and opening costs more than a window.
class FilePool {
public:
    explicit FilePool(const StretchOpener& open) : open_(open) {}

    // One reader of a file, to the leaser alone until it goes back to the pool.
    class Lease {
    public:
        Lease(FilePool& pool, const std::filesystem::path& path) : pool_(pool), path_(path) {
            {
                std::lock_guard lock(pool_.mutex_);
                auto& idle = pool_.idle_[path_];
                if (!idle.empty()) {
                    reader_ = std::move(idle.back());
                    idle.pop_back();
                    --pool_.idleCount_;
                }
            }
            if (!reader_) {
                reader_ = pool_.open_(path_);
            }
        }
        ~Lease() {
            std::lock_guard lock(pool_.mutex_);
            // Beyond that many, a file closes: a day of a thousand clips must not hold a
            // thousand descriptors.
            if (pool_.idleCount_ < kMostIdleFiles) {
                pool_.idle_[path_].push_back(std::move(reader_));
                ++pool_.idleCount_;
            }
        }
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;

        std::vector<float> operator()(double from, double seconds) const {
            return reader_(from, seconds);
        }

    private:
        FilePool& pool_;
        std::filesystem::path path_;
        Stretches reader_;
    };

private:
    const StretchOpener& open_;
    std::mutex mutex_;
    std::map<std::filesystem::path, std::vector<Stretches>> idle_;
    std::size_t idleCount_ = 0;
};

// One window at `centre` on the timeline (the band placements of both), searched around
// `expectedLag` seconds beyond where the band placements put the partner's sound.
std::optional<Pairing> measureWindow(const ClipItem& clip, const ClipItem& partner, double centre,
                                     double width, double expectedLag,
                                     const FilePool::Lease& readOwn,
                                     const FilePool::Lease& readTheirs) {
    const int maxLag = static_cast<int>(std::lround(kSearchSeconds * kRateHz));
    const auto lagSamples = static_cast<std::size_t>(maxLag);
    const double at = centre - clip.startOffset;
    const double partnerAt = centre + expectedLag - partner.startOffset;
    const double half = width / 2;
    const auto samples = static_cast<std::size_t>(std::lround(width * kRateHz));
    const double margin = static_cast<double>(maxLag) / kRateHz;
    if (at - half < 0 || partnerAt - half - margin < 0) {
        return std::nullopt;
    }
    auto own = readOwn(at - half, static_cast<double>(samples) / kRateHz);
    auto theirs = readTheirs(partnerAt - half - margin,
                             static_cast<double>(samples + 2 * lagSamples) / kRateHz);
    if (own.size() < samples || theirs.size() < samples + 2 * lagSamples) {
        return std::nullopt;
    }
    own.resize(samples);
    theirs.resize(samples + 2 * lagSamples);
    const auto peak = correlationPeak(own, theirs, maxLag);
    if (peak) {
        EngineLog::log(SyncEngine::format(
            "[Refine]    '%s' at %.1f s: %+.3f ms from the band placement, peak %.3f, next %.3f%s",
            clipName(clip).c_str(), at, 1000.0 * (expectedLag + peak->lag / kRateHz),
            static_cast<double>(peak->score), static_cast<double>(peak->runnerUp),
            isClearPeak(*peak) ? "" : " (not clear)"));
    }
    if (!peak || !isClearPeak(*peak)) {
        return std::nullopt;
    }
    return Pairing{at, partnerAt + peak->lag / kRateHz};
}

// The middle window first, searched around the band placement; then the start and the end, each
// around the lag the windows found so far predict. Reads the files; the placements of the two
// are read only to aim the windows.
Measured measureAgainst(const ClipItem& clip, const ClipItem& partner, FilePool& files) {
    Measured measured;
    const double from = std::max(clip.startOffset, partner.startOffset) + kEdgeMargin;
    const double to =
        std::min(clip.startOffset + clip.duration, partner.startOffset + partner.duration) -
        kEdgeMargin;
    if (to - from < kShortestOverlap) {
        return measured;
    }
    const double width = std::min(kWindowSeconds, to - from);
    std::vector<double> centres{(from + to) / 2};
    // Side windows only where they can measure drift; a shorter overlap holds one window.
    if (to - from >= kDriftSpanSeconds + width) {
        centres.push_back(from + width / 2);
        centres.push_back(to - width / 2);
    }
    const FilePool::Lease readOwn(files, clip.url);
    const FilePool::Lease readTheirs(files, partner.url);
    // Each finding as seconds the partner's sound lies beyond where the band placements put it.
    std::vector<std::pair<double, double>> lags;
    for (const double centre : centres) {
        double expected = lags.empty() ? 0.0 : lags.front().second;
        if (lags.size() >= 2) {
            expected += (lags.back().second - lags.front().second) /
                        (lags.back().first - lags.front().first) * (centre - lags.front().first);
        }
        const auto found =
            measureWindow(clip, partner, centre, width, expected, readOwn, readTheirs);
        if (found) {
            measured.middleFound = measured.middleFound || centre == centres.front();
            measured.pairings.push_back(*found);
            lags.emplace_back(centre, found->partnerAt - (centre - partner.startOffset));
        }
    }
    return measured;
}

// Where the measured windows put the clip, given where its partner now lies and how fast its
// clock runs against the reference's. A clip on the reference's own track keeps its clock.
std::optional<Fit> placeByWindows(const Measured& measured, const ClipItem& partner,
                                  double partnerDriftPpm, bool clockFixed) {
    // A lone side window tells the lag at that end only: a drifting clock moves the start, and
    // the band placement is a fit over the whole clip, whose middle it matches best.
    if (measured.pairings.size() == 1 && !measured.middleFound) {
        return std::nullopt;
    }
    const double partnerRate = 1.0 - partnerDriftPpm * 1e-6;
    std::vector<Sighting> sightings;
    for (const auto& p : measured.pairings) {
        sightings.push_back({p.at, partner.startOffset + p.partnerAt * partnerRate});
    }
    return fitSightings(sightings, clockFixed);
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t mid = values.size() / 2;
    return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

} // namespace

void refineTracks(std::vector<TrackSource>& tracks, const StretchOpener& open, int width) {
    const auto began = std::chrono::steady_clock::now();
    std::unordered_map<Uuid, Placed> where;
    std::set<int> referenceTracks;
    for (int t = 0; t < static_cast<int>(tracks.size()); ++t) {
        for (int c = 0; c < static_cast<int>(tracks[t].clips.size()); ++c) {
            where.emplace(tracks[t].clips[c].id, Placed{t, c});
            if (tracks[t].clips[c].placementPass == PlacementCode::ref) {
                referenceTracks.insert(t);
            }
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

    std::vector<Placed> settling;
    std::vector<Placed> direct;
    for (int t = 0; t < static_cast<int>(tracks.size()); ++t) {
        for (int c = 0; c < static_cast<int>(tracks[t].clips.size()); ++c) {
            const auto& clip = tracks[t].clips[c];
            if ((codeIn(clip, kDirectCodes) || codeIn(clip, kFollowingCodes)) && leadOf(clip)) {
                settling.push_back({t, c});
                if (codeIn(clip, kDirectCodes)) {
                    direct.push_back({t, c});
                }
            }
        }
    }

    // The files are read once, all clips at a time, against the band placements.
    FilePool files(open);
    std::unordered_map<Uuid, Measured> measured;
    WorkerWindow::run<Measured>(
        direct.size(), static_cast<std::size_t>(std::max(width, 1)),
        [&](std::size_t i) -> Measured {
            const auto& clip = clipAt(direct[i]);
            try {
                return measureAgainst(clip, clipAt(*leadOf(clip)), files);
            } catch (const std::exception&) {
                // A file that cannot be read again keeps its band placement.
                return {};
            }
        },
        [&](std::size_t i, Measured m) {
            measured.emplace(clipAt(direct[i]).id, std::move(m));
            return true;
        });

    // Placing from the findings costs nothing, so it is done until the devices' drifts settle: a
    // partner whose own windows could not tell its drift runs at its device's drift found the
    // time before.
    std::unordered_map<Uuid, double> bandStart;
    for (const auto& p : settling) {
        bandStart[clipAt(p).id] = clipAt(p).startOffset;
    }
    std::map<int, double> deviceDrift;
    bool settled = false;
    int refined = 0;
    for (int sweep = 0;; ++sweep) {
        for (const auto& p : settling) {
            auto& clip = clipAt(p);
            clip.startOffset = bandStart[clip.id];
            clip.refinedBy.reset();
            clip.driftPpm.reset();
        }
        std::set<Uuid> unsettled;
        for (const auto& p : settling) {
            unsettled.insert(clipAt(p).id);
        }
        std::vector<Placed> pending = settling;
        const bool last = settled || sweep + 1 >= kMostSweeps;
        while (!pending.empty()) {
            std::vector<Placed> ready;
            std::vector<Placed> waiting;
            for (const auto& p : pending) {
                (unsettled.count(clipAt(*leadOf(clipAt(p))).id) ? waiting : ready).push_back(p);
            }
            // Clips measured against each other: the first goes against the other as it stands.
            if (ready.empty()) {
                ready.push_back(waiting.front());
                waiting.erase(waiting.begin());
            }
            for (const auto& p : ready) {
                auto& clip = clipAt(p);
                const Placed leadAt = *leadOf(clip);
                const auto& lead = clipAt(leadAt);
                const std::string names =
                    "'" + clipName(clip) + "' against '" + clipName(lead) + "'";
                std::optional<Fit> fit;
                if (const auto m = measured.find(clip.id); m != measured.end()) {
                    double leadDrift = 0;
                    if (lead.driftPpm) {
                        leadDrift = *lead.driftPpm;
                    } else if (const auto d = deviceDrift.find(leadAt.track);
                               d != deviceDrift.end()) {
                        leadDrift = d->second;
                    }
                    fit = placeByWindows(m->second, lead, leadDrift,
                                         referenceTracks.count(p.track) > 0);
                }
                if (fit) {
                    clip.refinedBy = fit->start - clip.startOffset;
                    clip.startOffset = fit->start;
                    clip.driftPpm = fit->driftPpm;
                    if (last) {
                        ++refined;
                        EngineLog::log("[Refine] " + names + ": " +
                                       shiftText("refined", *clip.refinedBy, clip.driftPpm));
                    }
                } else if (lead.refinedBy && *lead.refinedBy != 0) {
                    // Placed against or through a clip that moved: it moves with it.
                    clip.refinedBy = *lead.refinedBy;
                    clip.startOffset += *lead.refinedBy;
                    if (codeIn(clip, kSameDeviceCodes)) {
                        clip.driftPpm = lead.driftPpm;
                    }
                    if (last) {
                        EngineLog::log("[Refine] " + names + ": " +
                                       shiftText("follows", *clip.refinedBy, clip.driftPpm));
                    }
                } else if (last && codeIn(clip, kDirectCodes)) {
                    EngineLog::log("[Refine] " + names + ": kept");
                }
                unsettled.erase(clip.id);
            }
            pending = std::move(waiting);
        }
        // Each device's drift, as its clips' own windows measured it.
        std::map<int, std::vector<double>> drifts;
        for (const auto& p : direct) {
            if (clipAt(p).driftPpm) {
                drifts[p.track].push_back(*clipAt(p).driftPpm);
            }
        }
        if (last) {
            break;
        }
        std::map<int, double> found;
        for (const auto& [track, values] : drifts) {
            found[track] = median(values);
        }
        settled =
            found.size() == deviceDrift.size() &&
            std::equal(found.begin(), found.end(), deviceDrift.begin(),
                       [](const auto& a, const auto& b) {
                           return a.first == b.first && std::abs(a.second - b.second) < kSettledPpm;
                       });
        deviceDrift = std::move(found);
    }
    // The timeline starts at 0: a clip refined to before the first one moves everything along.
    double earliest = 0;
    for (const auto& track : tracks) {
        for (const auto& clip : track.clips) {
            earliest = std::min(earliest, clip.startOffset);
        }
    }
    for (auto& track : tracks) {
        for (auto& clip : track.clips) {
            clip.startOffset -= earliest;
        }
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
    EngineLog::log(SyncEngine::format("[Refine] %d clips refined by their own audio in %.3f s",
                                      refined, took.count()));
}

namespace {

// Shorter clips than this are the ones band features cannot place.
constexpr double kShortClip = 8.0;
// How far either way of the clock a short clip is sought.
constexpr double kShortReach = 1.0;
constexpr double kHighPassHz = 300.0;
constexpr float kSampleFloor = 0.3f;
constexpr float kSampleClearRatio = 0.9f;
// Pitch makes voiced speech alike a few milliseconds on; a rival must lie beyond that.
constexpr double kShortLobeSeconds = 0.010;

// `x` without what lies below `hz`: its spectrum's low bins cleared.
std::vector<float> highPassed(const std::vector<float>& x, double hz) {
    const Fft::Setup* setup = SyncCorrelator::sharedFFTSetup(transformLog2(x.size()));
    if (!setup || x.empty()) {
        return x;
    }
    const std::size_t n = setup->size();
    Fft::RealBuffer buffer(n);
    std::copy(x.begin(), x.end(), buffer.begin());
    Fft::ComplexBuffer spectrum(setup->spectrumSize());
    setup->forward(buffer, spectrum);
    const auto below = static_cast<std::size_t>(std::ceil(hz * static_cast<double>(n) / kRateHz));
    for (std::size_t m = 0; m < std::min(below, spectrum.size()); ++m) {
        spectrum[m] = 0;
    }
    setup->inverse(spectrum, buffer);
    std::vector<float> out(x.size());
    for (std::size_t i = 0; i < x.size(); ++i) {
        out[i] = buffer[i] / static_cast<float>(n);
    }
    return out;
}

// Whether a clip's placement can be measured against: placed by audio, or the reference.
bool placedByEvidence(const ClipItem& clip) {
    return clip.syncStatus == SyncStatus::synced && clip.placementPass &&
           *clip.placementPass != PlacementCode::clock &&
           *clip.placementPass != PlacementCode::interp &&
           *clip.placementPass != PlacementCode::interpNoAudio;
}

} // namespace

void placeShortClipsBySamples(std::vector<TrackSource>& tracks, const StretchOpener& open,
                              int width) {
    struct Job {
        int track = 0;
        int index = 0;
        int partnerTrack = 0;
        int partnerIndex = 0;
    };
    std::vector<Job> jobs;
    for (int t = 0; t < static_cast<int>(tracks.size()); ++t) {
        for (int c = 0; c < static_cast<int>(tracks[t].clips.size()); ++c) {
            const auto& clip = tracks[t].clips[c];
            if (clip.placementPass != PlacementCode::clock || clip.duration >= kShortClip ||
                clip.audioUsability != AudioUsability::ok) {
                continue;
            }
            // The partner must hold the whole searched range.
            const double from = clip.startOffset - kShortReach - kEdgeMargin;
            const double to = clip.startOffset + clip.duration + kShortReach + kEdgeMargin;
            // The first clip of another device that was placed by evidence and covers them.
            const auto covering = [&]() -> std::optional<Job> {
                for (int u = 0; u < static_cast<int>(tracks.size()); ++u) {
                    if (u == t ||
                        (tracks[u].deviceName && tracks[u].deviceName == tracks[t].deviceName)) {
                        continue;
                    }
                    for (int d = 0; d < static_cast<int>(tracks[u].clips.size()); ++d) {
                        const auto& other = tracks[u].clips[d];
                        if (placedByEvidence(other) && other.audioUsability == AudioUsability::ok &&
                            other.startOffset <= from && other.startOffset + other.duration >= to) {
                            return Job{t, c, u, d};
                        }
                    }
                }
                return std::nullopt;
            }();
            if (covering) {
                jobs.push_back(*covering);
            }
        }
    }

    const int maxLag = static_cast<int>(std::lround(kShortReach * kRateHz));
    FilePool files(open);
    std::vector<std::optional<Peak>> peaks(jobs.size());
    WorkerWindow::run<std::optional<Peak>>(
        jobs.size(), static_cast<std::size_t>(std::max(width, 1)),
        [&](std::size_t i) -> std::optional<Peak> {
            const auto& job = jobs[i];
            const auto& clip = tracks[job.track].clips[job.index];
            const auto& partner = tracks[job.partnerTrack].clips[job.partnerIndex];
            try {
                const auto samples = static_cast<std::size_t>(clip.duration * kRateHz);
                const FilePool::Lease readOwn(files, clip.url);
                const FilePool::Lease readTheirs(files, partner.url);
                auto own = readOwn(0, static_cast<double>(samples) / kRateHz);
                const double partnerFrom = clip.startOffset - partner.startOffset - kShortReach;
                const std::size_t span = samples + 2 * static_cast<std::size_t>(maxLag);
                auto theirs = readTheirs(partnerFrom, static_cast<double>(span) / kRateHz);
                if (own.size() < samples || theirs.size() < span) {
                    return std::nullopt;
                }
                own.resize(samples);
                theirs.resize(span);
                return correlationPeak(highPassed(own, kHighPassHz),
                                       highPassed(theirs, kHighPassHz), maxLag, kShortLobeSeconds);
            } catch (const std::exception&) {
                return std::nullopt;
            }
        },
        [&](std::size_t i, std::optional<Peak> peak) {
            peaks[i] = peak;
            return true;
        });

    for (std::size_t i = 0; i < jobs.size(); ++i) {
        auto& clip = tracks[jobs[i].track].clips[jobs[i].index];
        const auto& partner = tracks[jobs[i].partnerTrack].clips[jobs[i].partnerIndex];
        const auto& peak = peaks[i];
        if (!peak) {
            continue;
        }
        const bool clear =
            peak->score >= kSampleFloor && peak->runnerUp < kSampleClearRatio * peak->score;
        EngineLog::log(SyncEngine::format(
            "[Refine] short '%s' against '%s': %+.3f s from its clock, peak %.3f, next %.3f%s",
            clipName(clip).c_str(), clipName(partner).c_str(), peak->lag / kRateHz,
            static_cast<double>(peak->score), static_cast<double>(peak->runnerUp),
            clear ? "" : " (kept)"));
        if (!clear) {
            continue;
        }
        const double start = clip.startOffset + peak->lag / kRateHz;
        // Its own track's neighbours stay where they are.
        const auto& own = tracks[jobs[i].track].clips;
        const bool collides = start < 0 || std::any_of(own.begin(), own.end(), [&](const auto& o) {
                                  return &o != &clip && o.startOffset < start + clip.duration &&
                                         start < o.startOffset + o.duration;
                              });
        if (collides) {
            continue;
        }
        clip.startOffset = start;
        clip.syncStatus = SyncStatus::synced;
        clip.placementPass = PlacementCode::A3s;
        clip.matchScore.reset();
        clip.placementNote =
            SyncEngine::format("correlation %.2f against '", static_cast<double>(peak->score)) +
            clipName(partner) + "'";
        clip.placedAgainst = partner.id;
    }
}

} // namespace Refine

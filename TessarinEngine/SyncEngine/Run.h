#pragma once

// The state of one call of `synchronise` and the stages that share it. Every stage runs on the
// engine's thread and writes only through `Run`; the parallel parts of matching get const views
// and hand values back.

#include "TessarinEngine/SyncEngine.h"
#include "TessarinEngine/SyncEngine/Chain.h"
#include "TessarinEngine/SyncEngine/Format.h"

#include <atomic>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace SyncEngine {

// Band features have 25 frames per second.
constexpr double kFramesPerSecond = 25.0;

// The widest search bound: "no bound" on either side.
constexpr double kWidest = std::numeric_limits<double>::max();

constexpr float kSingleStrongScore = 14.0f;
// A search for the one best offset of a window: it keeps this much of the window inside what it
// is sought in (or 0.8 of a shorter window), asks for one peak, and takes peaks this far apart.
constexpr double kSearchOverlap = 8.0;
constexpr double kSearchOverlapShare = 0.8;
constexpr int kBestPeakOnly = 1;
constexpr double kSearchSeparation = 0.5;
constexpr float kStrongScore = 7.0f;
constexpr float kWeakScore = 4.5f;
// Window votes of one clip that lie this close (inclusive) agree on its position.
constexpr double kVoteClusterRadius = 5.0;
// Votes of one cluster are averaged only this close to its best vote: votes a second apart came
// from two different takes, and their mean lies in neither.
constexpr double kVoteAverageRadius = 0.1;
// Clips shorter than this are never compared and never enter a pool.
constexpr double kShortestMatched = 5.0;

// A position on the common timeline (where the clip's first sample falls) and its z-score, with
// the placed clip whose audio it was measured against, where one pool clip gave it.
struct Match {
    double pos = 0;
    float score = 0;
    std::optional<ClipRef> partner;
    bool operator==(const Match&) const = default;
};

// One segment of a pool: a placed clip as it stood when the pool was refreshed.
struct PoolSpan {
    double off = 0;
    double dur = 0;
    std::optional<SpectralBands::Feature> bands;
    std::optional<Date> date;
    ClockQuality quality = ClockQuality::none;
    std::optional<double> startTC;
    // The placed clip this segment is.
    std::optional<ClipRef> clip;
    bool operator==(const PoolSpan&) const = default;
};

// What the layout log tells about a placed clip, and the clip it was placed against.
struct PlacementRecord {
    std::optional<double> raw;
    float score = 0;
    std::string kind;
    std::optional<ClipRef> partner;
    // What the match itself scored, where `score` counts less for a partner only weakly placed.
    std::optional<float> measured;
};

// A lower and upper bound on a clip's start.
struct Window {
    double lo = -kWidest;
    double hi = kWidest;
    bool operator==(const Window&) const = default;
};

// The state of one shooting-day region, made anew for each.
struct Region {
    std::string name;
    std::vector<ClipRef> clips;
    std::unordered_set<std::uint64_t> keys;
    std::vector<int> tracks;
    std::vector<int> audioTracks;
    std::vector<int> longCameras;
    std::vector<int> longAudio;
    std::set<int> lavTracks;
    std::optional<int> bestLong;
    bool camerasFirst = false;

    int refTrack = -1;
    std::vector<int> refClips;
    bool hasFullClock = false;
    std::optional<Date> refEpoch;
    std::optional<Date> regionEpoch;
    std::vector<std::vector<int>> takes{{}};
    std::set<int> calibratedTakes;

    std::vector<PoolSpan> matchSpans;
    std::vector<PoolSpan> primarySpans;
    std::set<int> readyTracks;
    std::set<int> poolCameras;
    bool holdRecorders = false;
    // While cameras are paired first: lavalier tracks stay out of the pool, and cameras may also
    // lend the clips they laid by clock or between neighbours, which the pool otherwise refuses.
    bool excludeLavs = false;

    std::vector<int> otherTracks;
    // Group name and member tracks, in order of first appearance.
    std::vector<std::pair<std::string, std::vector<int>>> cameraGroups;
    std::set<int> groupedTracks;
    std::vector<int> soloCameras;
    std::set<int> doneCameras;
    std::set<std::string> doneGroups;
    std::vector<int> unmatchedCameras;
    std::vector<int> unlinkedBackups;
};

struct Run {
    std::vector<TrackSource> sources;
    const ProgressCallback& onProgress;
    const PlaceCallback& onPlace;
    const std::atomic<bool>* cancel = nullptr;

    double baseOffset = 0;
    int totalClips = 1;
    double progressStep = 0.999;
    double progressFraction = 0;
    std::unordered_map<Uuid, PlacementRecord> placementLog;
    // Threads of the matching passes that fan out.
    int width = 2;

    Region region;

    Run(std::vector<TrackSource> tracks, const ProgressCallback& progress,
        const PlaceCallback& place, const std::atomic<bool>* cancelFlag);

    bool cancelled() const { return cancel && cancel->load(std::memory_order_relaxed); }
    ClipItem& clip(ClipRef r) { return sources[r.si].clips[r.ci]; }
    const ClipItem& clip(ClipRef r) const { return sources[r.si].clips[r.ci]; }
};

// Frame (Synchronise.cpp)

std::uint64_t regionKey(int si, int ci);
bool inRegion(const Run& run, int si, int ci);
// The length in seconds of the track's longest clip in the region, 0 if none.
double maxClip(const Run& run, int si);
int regionClipCount(const Run& run, int si);
// The clip indices of a track that lie in the region, ascending.
std::vector<int> regionClipsOf(const Run& run, int si);
// File name without its extension: the label of progress and logs.
std::string clipName(const ClipItem& clip);
// Adds `share` of a progress step (held at 0.999) and reports it with the clip's name.
void advanceProgress(Run& run, const std::string& label, double share = 1.0);
void reportPlace(Run& run, const ClipItem& clip);
// Builds the region's keys, track lists, bestLong and camerasFirst from its clips.
void beginRegion(Run& run, std::string name, std::vector<ClipRef> clips);

// Reference (ReferenceLayout.cpp)

// The reference track of the current region by the rules of trust: a very long recorder, the
// longest camera of an ensemble, the busiest recorder, the longest track.
int chooseReference(const Run& run);
// Sets the epochs, lays the reference's clips by its own clock and seeds the pool. Returns false
// when cancelled.
bool layoutReference(Run& run);
void calibrateSegmentIfNeeded(Run& run, int take, int backup);
// Once every other device is placed: moves each reference clip where the clips placed against the
// other reference clips hear it (two votes within 0.1 s, the best of 7.0 or more, 0.04 to 60 s
// away), together with every clip placed against it.
void checkReferenceByAudio(Run& run);

// Pools (AudioPools.cpp)

PoolSpan spanOf(const Run& run, ClipRef ref);
void refreshMatchSpans(Run& run);
// The best position within lo...hi of a feature over the pool's segments, with no floor on the
// score; nothing when no segment yields a peak. Thread-safe.
std::optional<Match> bestMatch(const std::vector<PoolSpan>& spans,
                               const std::optional<SpectralBands::Feature>& feature, double lo,
                               double hi);
// The best position within lo...hi of a clip too short for a wide search: its peak is taken in that
// narrow window but scored against the lags around it, so that its score can be held to a floor
// measured on unrelated audio. Thread-safe.
std::optional<Match> shortMatch(const std::vector<PoolSpan>& spans,
                                const SpectralBands::Feature& feature, double lo, double hi);
std::vector<ClipRef> orderedFlatClips(const Run& run, std::vector<int> tracks);
std::string readyNames(const Run& run);

// Window matching (WindowMatching.cpp)

// Three voting windows of the clip, or the whole clip under 25 s. Thread-safe.
std::optional<Match> multiWindowMatch(const std::optional<SpectralBands::Feature>& feature,
                                      double dur, double lo, double hi,
                                      const std::vector<PoolSpan>& spans, bool allowSingleStrong);
// The votes within `radius` of the seed that gathers most, each vote in turn a seed; of equal
// clusters the first stays.
std::vector<Match> largestCluster(const std::vector<Match>& votes, double radius);
// What a cluster of votes says: the best vote's score and partner, at the score-weighted mean of
// the votes within kVoteAverageRadius of it.
Match clusterConsensus(const std::vector<Match>& cluster);
std::optional<Match> clipMatch(const Run& run, int si, int ci, double lo, double hi,
                               const std::vector<PoolSpan>& spans);
std::optional<Window> tcWindow(const ClipItem& clip, const std::vector<PoolSpan>& spans);
// The window that the clip's clock or a text offset to the reference allows, else the widest.
Window clockWindow(const Run& run, int si, const ClipItem& clip);
// The clock window narrowed by timecode where the two agree.
Window jobWindow(const Run& run, int si, const ClipItem& clip, const std::vector<PoolSpan>& spans);
SyncStatus statusForScore(float score);
// A match is no surer than the clip it was measured against: against a clip that is itself only
// weakly placed, or laid by its clock, it counts at most as that clip's own score (4.5 for a clip
// without one). Otherwise the match's score.
float evidenceScore(const Run& run, const Match& m);
// The note of a clip whose match counts less than it scored: which clip held it back.
std::optional<std::string> weakPartnerNote(const Run& run, const Match& m);
// Marks the clip when its timecode puts it elsewhere than `pos` by more than two frames.
void checkTimecode(ClipItem& clip, double pos, const std::vector<PoolSpan>& spans);

// Placement of chains and tracks (ClipChain.cpp, TrackSync.cpp)

// The clips of one call of the twins, indexed by their place in recording order, with what the
// passes have found so far.
struct ChainState {
    std::vector<ClipRef> refs;
    std::vector<ClipItem> clips;
    std::vector<double> prefixDur;
    std::vector<int> order;
    std::unordered_map<int, Match> hits;
    std::set<int> placed;
    std::set<int> strong;
    std::unordered_map<int, double> posOf;
    // The recording device of each clip, numbered: a track, or tracks that name one device.
    std::vector<int> device;
    // Clips of `placed` that lie where their device's proven clock puts them, not by a match.
    std::set<int> clockLaid;
    // The pool used for timecode checks of stored matches.
    const std::vector<PoolSpan>* checkSpans = nullptr;

    void init(const Run& run, std::vector<ClipRef> chainRefs);
    // Where the strong neighbours let clip i start.
    Window bounds(int i) const;
    // Where the clock of clip i's device puts it, when that clock is proven around it: its
    // nearest strong anchors of the same device before and after it (or the two nearest on its
    // one side) agree with their own clocks within 2 s, whatever the clock's quality. The clip
    // itself is no witness. Nothing otherwise.
    std::optional<double> provenClock(int i) const;
    // Whether a match of clip i at `pos` is a likeness, not its place: a proven clock puts the
    // clip more than 5 s away, and the match is below 12.0, which no clock overrules.
    bool clockOverrules(int i, float score, double pos) const;
    // Stores a bracketed match, held inside lo...hi, unless the device's proven clock puts the
    // clip far from it and the match is not strong enough to overrule a clock (then false).
    bool acceptFill(Run& run, int i, Match m, double lo, double hi, const std::string& kind);
    // Drops every placed match that a proven clock contradicts (see acceptFill).
    void dropAgainstProvenClocks(Run& run);
    // Lays every chapter of a recording that has no strong match of its own against the nearest
    // chapter of the same recording that has one, after its end or before its start.
    void placeChapters(Run& run);
    // Places every clip still unplaced whose device clock is proven around it, by that clock.
    void placeByProvenClocks(Run& run);
    // Clips placed by audio.
    int matchedCount() const { return static_cast<int>(placed.size() - clockLaid.size()); }
    // The setClip of layoutChain and of the rescues.
    void setClip(Run& run, int i, double pos, Placement how);
    // Places clip i at `pos` as `record` says: the chain holds it placed there, the log keeps
    // the record, and the clip takes its verdict, score and code from it.
    void place(Run& run, int i, double pos, const PlacementRecord& record);
    // Places a chosen anchor at its hit with the given code.
    void placeAnchor(Run& run, int i, Match m, const std::string& kind);
    // Lays every clip around the anchors and writes the neighbour notes of the rest.
    ChainCounts layout(Run& run);
};

struct Pass1Job {
    int index = 0;
    std::string name;
    double duration = 0;
    std::optional<SpectralBands::Feature> feature;
    Window window;
    // Where timecode narrowed the window: the window without it, searched when the narrow one
    // finds no hit. Timecode of devices that were never jammed together disagrees by minutes.
    std::optional<Window> untimed;
};

// Builds the jobs of a chain against the Pass 1 pool, longest first.
std::vector<Pass1Job> buildPass1Jobs(const Run& run, const ChainState& chain,
                                     const std::vector<PoolSpan>& spans);
// Runs Pass 1 concurrently; hits of 7.0 or more go into `chain.hits`. Returns false when the run
// was cancelled during it.
bool runPass1(Run& run, ChainState& chain, const std::vector<Pass1Job>& jobs,
              const std::vector<PoolSpan>& spans);

void syncClipChain(Run& run, const std::vector<ClipRef>& refs, const std::string& label,
                   const std::vector<PoolSpan>& pass1Spans,
                   const std::vector<PoolSpan>& pass3Spans);

struct HotSpot {
    double footage = 0;
    double spread = 0;
};
// Seeds (by clip index) that spread over much footage yet land in one short stretch of the pool:
// they heard one loud passage, not their places.
std::optional<HotSpot> findHotSpot(const std::map<int, Match>& seeds,
                                   const std::vector<double>& prefixDur);

struct TrackResult {
    int matched = 0;
    bool hotSpot = false;
};
TrackResult syncOneTrack(Run& run, int si);

// Rescues (Rescues.cpp)

// Each returns false when the run was cancelled during it.
bool longRescueChain(Run& run, ChainState& chain);
bool cameraCross(Run& run, ChainState& chain);
void cameraCluster(Run& run, ChainState& chain);
void siblingProp(Run& run, ChainState& chain);
bool longRescueTrack(Run& run, ChainState& chain, const std::vector<PoolSpan>& pool);

// Long backups (LongBackups.cpp)

bool isLongBackup(const Run& run, int si);
bool clocksOverlapRef(const Run& run, int si);
std::optional<double> probeBackupLinkage(Run& run, int si);
void placeBackupLinked(Run& run, int si, double offset);
void placeUnlinked(Run& run, int si);

// Cameras (Cameras.cpp)

// Notes the other tracks, the camera groups and the solo cameras of the region.
void noteCameras(Run& run);
// Returns false when cancelled.
bool runCamerasFirst(Run& run);
bool runLateCameras(Run& run);
bool runLateGroups(Run& run);

// Channels and finishing (Finishing.cpp)

bool siblingVerified(Run& run, int si, int leader);
// Returns false when cancelled.
bool runChannelTracks(Run& run);
// No clip overlaps its predecessor in the track by more than 0.05 s.
void resolveOverlaps(std::vector<TrackSource>& sources);
// Moves the timeline so that it starts at zero.
void normaliseOffsets(std::vector<TrackSource>& sources);
void logLayoutAndDone(const Run& run);
// Mirrored channel clips take their lead clip's placement again where it has changed since.
void followLeads(Run& run);

// Refill (Refill.cpp)

// Once every track of the region is placed: the clips of each track that were laid by clock or
// between neighbours are sought again, inside their brackets and near a proven clock, against
// everything the region placed with evidence; a match of 7.0 or more places them. Repeats while
// that finds anything, a few rounds at most.
void refillUnmatched(Run& run);

} // namespace SyncEngine

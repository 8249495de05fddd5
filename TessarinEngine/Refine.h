#pragma once

// Refinement of audio placements below a band frame: each clip placed by its own match is
// correlated sample by sample with the clip it was matched against, over a few short windows of
// their overlap, and the lags of those windows give its offset to a fraction of a sample and,
// over a minute or more, how fast its clock runs against its partner's.

#include "TessarinEngine/TrackModels.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <vector>

namespace Refine {

// Samples per second of the signals compared.
constexpr int kRateHz = 16000;
// How far either way of the band placement the first window is searched: the band placement is
// good to about a frame (40 ms), with room for a frame's rounding on top.
constexpr double kSearchSeconds = 0.060;
// The length of one window: with the searched range it fits a transform of 2^15 points.
constexpr double kWindowSeconds = 1.9;
// Windows this far apart, and no less, tell a clock's drift from the uncertainty of a lag.
constexpr double kDriftSpanSeconds = 60.0;
// Lags that a line through them misses by more than this do not come from one drifting clock.
constexpr double kFitTolerance = 0.001;

// The best lag of a window within the searched range, in samples (a fraction where the peak lies
// between two), with its normalised correlation and the highest correlation found at lags clear of
// its own peak.
struct Peak {
    double lag = 0;
    float score = 0;
    float runnerUp = 0;
};

// The normalised correlation of `clip` against `partner` at every lag from -maxLag to +maxLag,
// where `partner` holds clip.size() + 2 * maxLag samples and lag k pairs clip[i] with
// partner[i + maxLag + k]; each side's window is taken with its mean removed, so neither the
// level nor a constant offset of either signal counts. The peak's position is interpolated by a
// parabola through its neighbours. Nothing when either window is silent or too short.
// `lobeSeconds` is how close to the best a lag still belongs to its own peak.
std::optional<Peak> correlationPeak(std::span<const float> clip, std::span<const float> partner,
                                    int maxLag, double lobeSeconds = 0.002);

// Whether the peak tells one lag: it correlates at least 0.2 and nothing clear of its own
// lobe (2 ms away or more) reaches 0.8 of it. A range holding two alike events, a repeated knock,
// a steady hum, has two or more peaks of a height and tells nothing.
bool isClearPeak(const Peak& peak);

// One window's finding: where in the clip it lies (seconds from the clip's start) and where on
// the timeline its sound truly lies, by the partner's placement.
struct Sighting {
    double at = 0;
    double when = 0;
};

// Where the sightings put the clip: the timeline position of its first sample and, where they
// span kDriftSpanSeconds or more, how fast its clock runs against the timeline's, in parts per
// million (positive when its content falls progressively later). A clip whose clock is the
// timeline's own (`clockFixed`), or whose sightings span less, is taken to run true. Nothing when a
// sighting lies more than kFitTolerance off the line, or the line runs 500 ppm or more off true.
struct Fit {
    double start = 0;
    std::optional<double> driftPpm;
};
std::optional<Fit> fitSightings(const std::vector<Sighting>& sightings, bool clockFixed);

// The mono 16 kHz samples of `seconds` of one file from `from` (seconds from its start); shorter
// or empty where the file ends first. May throw.
using Stretches = std::function<std::vector<float>(double from, double seconds)>;
// Opens a file for reading stretches. May throw.
using StretchOpener = std::function<Stretches(const std::filesystem::path&)>;

// Makes ready, once per process, the transform that full windows are correlated in; refining
// makes it on first use otherwise. Thread-safe.
void prepare();

// Reads stretches of the file by seeking in it, never decoding it whole; the file stays open as
// long as the reader lives.
Stretches openStretches(const std::filesystem::path& file);

// Short clips that their device's proven clock laid, because the band features of a few seconds
// said too little, sought sample by sample within a second of that clock against the clip of
// another device that covers them, above 300 Hz (wind on a small camera's microphone drowns
// what lies below). A clip whose correlation peaks at 0.3 or more, with nothing 10 ms or more
// away reaching 0.9 of it (unrelated audio peaks under 0.15 over that range), moves there and
// is synced, placement "A3s". Others stay.
void placeShortClipsBySamples(std::vector<TrackSource>& tracks, const StretchOpener& open,
                              int width);

// Refines every clip placed by its own audio match against the clip it was matched against, in
// an order where every partner comes first, so that a clip placed against a refined partner
// inherits its correction; clips placed through another clip (its channels, chapters, siblings)
// take that clip's correction. The reference stays where it is, and drift is relative to its
// clock. A clip that cannot be refined, or whose peaks are not clear, keeps its placement.
// Refined clips get `refinedBy` and, where measured, `driftPpm`. A clip refined to before 0 moves
// the whole timeline along so that it starts at 0 again. `width` clips are refined at once.
void refineTracks(std::vector<TrackSource>& tracks, const StretchOpener& open, int width);

} // namespace Refine

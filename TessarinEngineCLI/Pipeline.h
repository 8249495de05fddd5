#pragma once

#include "TessarinEngine/TrackModels.h"
#include "TessarinEngineCLI/Events.h"
#include "TessarinEngineCLI/Request.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Pipeline {

using EventSink = std::function<void(const Event&)>;

// One clip to analyse, addressed by its indices in the track array.
struct ExtractJob {
    int si = 0;
    int ci = 0;
    std::filesystem::path url;
    double duration = 0;
};

// What one job returns. `weight` is its share of the phase's progress.
struct ExtractOutcome {
    int si = 0;
    int ci = 0;
    std::filesystem::path url;
    double weight = 0.5;
    std::optional<SpectralBands::Feature> bands;
    std::optional<double> refinedDuration;
    std::optional<std::string> errorMessage;
};

using ExtractJobFunction = std::function<ExtractOutcome(const ExtractJob&)>;

// The progress share of a clip: its duration, at least 0.5 s.
double jobWeight(double duration);

// How many extractions run at once for a processor count: 2 to 4.
int extractWidth(unsigned processorCount);

// Features of one clip from the cache, or decoded and computed (and then cached). Never throws:
// a failure is an outcome with an error message and no features.
ExtractOutcome runExtractJob(const ExtractJob& job);

// Runs the jobs in a sliding window of `width`, in job order, and folds each outcome on the calling
// thread in the order the jobs finish: progress, then the error if any, then the features into
// `sources`.
void runExtractPhase(std::vector<TrackSource>& sources, const std::vector<ExtractJob>& jobs,
                     int width, const ExtractJobFunction& job, const EventSink& emit);

// The length of a clip's separate picture file, for clips that have one.
std::optional<double> pictureDuration(const ClipItem& clip);

// The result line of one clip of a track.
ResultEvent makeResultEvent(const TrackSource& track, const ClipItem& clip);

// What the command line adds to a request.
struct RunOptions {
    // Refine audio placements below a band frame once every clip is placed.
    bool refine = false;
};

// The whole run: ingest, metadata, grouping, extraction, sync, results. False after a run-level
// error, which has then been emitted. An item whose path holds a NUL gets an error event and is
// left out. Events::WriteFailed from `emit` ends the run at once and is passed on.
bool runPipeline(const Request& request, const EventSink& emit, const RunOptions& options = {});

} // namespace Pipeline

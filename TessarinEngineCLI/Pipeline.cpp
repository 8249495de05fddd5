#include "TessarinEngineCLI/Pipeline.h"

#include "TessarinEngine/AudioExtractor.h"
#include "TessarinEngine/EnvelopeCache.h"
#include "TessarinEngine/IngestEngine.h"
#include "TessarinEngine/Refine.h"
#include "TessarinEngine/SpectralBands.h"
#include "TessarinEngine/SyncCorrelator.h"
#include "TessarinEngine/SyncEngine.h"
#include "TessarinEngine/WorkerWindow.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <future>
#include <thread>

namespace Pipeline {

namespace {

// 16 kHz samples to a 100-per-second envelope.
constexpr int kEnvelopeFactor = 160;

} // namespace

double jobWeight(double duration) {
    return std::max(duration, 0.5);
}

int extractWidth(unsigned processorCount) {
    return static_cast<int>(std::clamp(processorCount, 2u, 4u));
}

ExtractOutcome runExtractJob(const ExtractJob& job) {
    ExtractOutcome out{job.si, job.ci, job.url, jobWeight(job.duration), {}, {}, {}};
    if (auto cached = EnvelopeCache::loadBands(job.url)) {
        out.bands = std::move(*cached);
        return out;
    }
    try {
        auto audio = AudioExtractor::extract(job.url, job.duration, {});
        auto bands = SpectralBands::compute(audio.samples);
        auto envelope = CrossCorrelator::magnitudeEnvelope(audio.samples, kEnvelopeFactor);
        EnvelopeCache::saveEnvelope(job.url, envelope);
        EnvelopeCache::saveBands(job.url, bands);
        out.bands = std::move(bands);
        out.refinedDuration = audio.duration;
    } catch (const TessarinError& e) {
        out.errorMessage = "Extraction failed: " + e.caseText();
    } catch (const std::exception& e) {
        out.errorMessage = std::string("Extraction failed: ") + e.what();
    }
    return out;
}

void runExtractPhase(std::vector<TrackSource>& sources, const std::vector<ExtractJob>& jobs,
                     int width, const ExtractJobFunction& job, const EventSink& emit) {
    double totalWeight = 0;
    for (const auto& j : jobs) {
        totalWeight += jobWeight(j.duration);
    }
    const double divisor = std::max(totalWeight, 1.0);

    // At most `width` jobs run at once and they start in job order; outcomes are folded in the
    // order they finish. An event that cannot be written stops the window.
    double running = 0;
    WorkerWindow::run<ExtractOutcome>(
        jobs.size(), static_cast<std::size_t>(std::max(width, 1)),
        [&](std::size_t index) {
            try {
                return job(jobs[index]);
            } catch (const std::exception& e) {
                const auto& j = jobs[index];
                return ExtractOutcome{j.si,
                                      j.ci,
                                      j.url,
                                      jobWeight(j.duration),
                                      {},
                                      {},
                                      std::string("Extraction failed: ") + e.what()};
            }
        },
        [&](std::size_t, ExtractOutcome outcome) {
            running += outcome.weight;
            const std::string path = outcome.url.string();
            emit(ProgressEvent{"extract", running / divisor, path});
            if (outcome.errorMessage) {
                emit(ErrorEvent{path, *outcome.errorMessage});
            }
            if (outcome.bands) {
                auto& clip = sources[outcome.si].clips[outcome.ci];
                clip.bandFeature = std::move(outcome.bands);
                if (outcome.refinedDuration) {
                    clip.duration = *outcome.refinedDuration;
                }
            }
            return true;
        });
}

std::optional<double> pictureDuration(const ClipItem& clip) {
    if (!clip.pictureURL) {
        return std::nullopt;
    }
    if (clip.pictureFrames && clip.recordFrameRate && *clip.recordFrameRate > 0) {
        return static_cast<double>(*clip.pictureFrames) /
               static_cast<double>(*clip.recordFrameRate);
    }
    // Without a known frame count the picture is taken to end a little before the sound.
    return std::max(clip.duration - 0.512, 0.0);
}

ResultEvent makeResultEvent(const TrackSource& track, const ClipItem& clip) {
    ResultEvent r;
    r.path = clip.url.string();
    r.session = track.session;
    r.track = track.name;
    r.mediaType = std::string(toString(track.type));
    r.startOffset = clip.startOffset;
    r.duration = clip.duration;
    r.syncStatus = std::string(toString(clip.syncStatus));
    r.matchScore = clip.matchScore;
    r.placement = clip.placementPass;
    r.audioUsability = std::string(toString(clip.audioUsability));
    r.explanation = clip.placementExplanation();
    r.channelCount = clip.channelCount;
    r.frameRate = clip.frameRate;
    r.pixelWidth = clip.pixelWidth;
    r.pixelHeight = clip.pixelHeight;
    if (clip.pictureURL) {
        r.picturePath = clip.pictureURL->string();
    }
    r.pictureDuration = pictureDuration(clip);
    r.recordFrameRate = clip.recordFrameRate;
    r.conformFrameRate = clip.conformFrameRate;
    r.refinedBy = clip.refinedBy;
    r.driftPpm = clip.driftPpm;
    return r;
}

bool runPipeline(const Request& request, const EventSink& emit, const RunOptions& options) {
    // What refining needs from the start is made while the run reads metadata and features.
    std::future<void> refineReady;
    if (options.refine) {
        refineReady = std::async(std::launch::async, Refine::prepare);
    }
    try {
        IngestEngine ingest;
        ingest.completeShootSessions = {request.completeShootSessions.begin(),
                                        request.completeShootSessions.end()};
        ingest.proxyDirNames = {"sub", "proxy", "proxies", "lrv", "thm", "drone", "drones"};

        // Relative paths name files below the working directory, so results and cache keys
        // carry absolute paths.
        std::error_code noDirectory;
        const auto workingDirectory = std::filesystem::current_path(noDirectory);
        std::vector<IngestItem> items;
        items.reserve(request.items.size());
        for (const auto& item : request.items) {
            if (auto resolved = resolveItem(item, workingDirectory)) {
                items.push_back({resolved->path, resolved->dropHint});
            } else {
                emit(ErrorEvent{item.path, std::string(kNulInPathMessage)});
            }
        }

        auto sources = ingest.ingestFlat(items, {});
        if (sources.empty()) {
            emit(ErrorEvent{std::nullopt, "No valid media found in request"});
            return false;
        }

        std::size_t clipTotal = 0;
        for (const auto& t : sources) {
            clipTotal += t.clips.size();
        }
        const double metadataTotal = static_cast<double>(std::max<std::size_t>(clipTotal, 1));
        int metadataDone = 0;
        sources = IngestEngine::loadMetadata(std::move(sources), [&](const auto&) {
            ++metadataDone;
            emit(ProgressEvent{"metadata", metadataDone / metadataTotal, std::nullopt});
        });

        sources = IngestEngine::alignZonedClocks(std::move(sources));
        sources = IngestEngine::splitSourcesByDevice(std::move(sources));
        // Channel files that came out as one track (one folder, or one folder per take) must be
        // tracks of their own before the channel tracks are tied to a lead.
        sources = IngestEngine::splitChannelTracks(std::move(sources));
        sources = IngestEngine::detectSiblingChannels(std::move(sources));
        sources = IngestEngine::markChapters(std::move(sources));
        sources = IngestEngine::assignCameraGroups(std::move(sources));
        sources = IngestEngine::sortSources(std::move(sources));

        std::vector<ExtractJob> jobs;
        for (std::size_t si = 0; si < sources.size(); ++si) {
            const auto& clips = sources[si].clips;
            for (std::size_t ci = 0; ci < clips.size(); ++ci) {
                jobs.push_back({static_cast<int>(si), static_cast<int>(ci), clips[ci].url,
                                clips[ci].duration});
            }
        }
        runExtractPhase(sources, jobs, extractWidth(std::thread::hardware_concurrency()),
                        runExtractJob, emit);

        // Extraction can change durations; clips of a track follow each other again.
        for (auto& track : sources) {
            double offset = 0;
            for (auto& clip : track.clips) {
                clip.startOffset = offset;
                offset += clip.duration;
            }
        }

        if (sources.size() < 2) {
            emit(ErrorEvent{std::nullopt, "Need at least 2 tracks to sync"});
            return false;
        }

        // An event that cannot be written cancels the engine, which stops at its next clip; the
        // failure then ends the run.
        std::atomic<bool> cancel = false;
        std::exception_ptr lostEvent;
        auto placed = SyncEngine::synchronise(
            std::move(sources),
            [&](double fraction, const std::string& label) {
                if (lostEvent) {
                    return;
                }
                try {
                    emit(ProgressEvent{"sync", fraction, label});
                } catch (const Events::WriteFailed&) {
                    lostEvent = std::current_exception();
                    cancel = true;
                }
            },
            [](const Uuid&, double, SyncStatus) {}, &cancel);
        if (lostEvent) {
            std::rethrow_exception(lostEvent);
        }
        const int width = extractWidth(std::thread::hardware_concurrency());
        Refine::placeShortClipsBySamples(placed, Refine::openStretches, width);
        if (options.refine) {
            refineReady.wait();
            Refine::refineTracks(placed, Refine::openStretches, width);
        }

        int clipCount = 0;
        double timelineEnd = 0;
        for (const auto& track : placed) {
            for (const auto& clip : track.clips) {
                emit(makeResultEvent(track, clip));
                ++clipCount;
                timelineEnd = std::max(timelineEnd, clip.startOffset + clip.duration);
            }
        }
        emit(DoneEvent{static_cast<int>(placed.size()), clipCount, timelineEnd});
        return true;
    } catch (const Events::WriteFailed&) {
        throw;
    } catch (const std::exception& e) {
        emit(ErrorEvent{std::nullopt, e.what()});
        return false;
    }
}

} // namespace Pipeline

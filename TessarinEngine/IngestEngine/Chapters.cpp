#include "TessarinEngine/EngineLog.h"
#include "TessarinEngine/IngestEngine.h"
#include "TessarinEngine/IngestEngine/Helpers.h"
#include "TessarinEngine/platform/Regex.h"

#include <cmath>
#include <cstdio>
#include <map>
#include <tuple>

using namespace IngestHelpers;

namespace {

// A chapter that starts more than this after the end of the one before by trusted clocks is a
// new take; clocks of whole seconds put true chapters within it.
constexpr double kChapterGap = 1.0;
// Chapters below the size limit by more than this share are files that ended on their own.
constexpr double kSizeLimitTolerance = 0.01;
// Files at the size limit a track must hold before its largest size counts as a limit at all: one
// long take alone is just the largest file.
constexpr std::size_t kFilesAtLimit = 2;

int number(const std::string& digits) {
    return std::stoi(digits);
}

std::optional<std::uintmax_t> fileSize(const std::filesystem::path& url) {
    std::error_code error;
    const auto size = std::filesystem::file_size(url, error);
    return error ? std::nullopt : std::optional(size);
}

bool hasTrustedClock(const ClipItem& clip) {
    return clip.recordingDate && clip.clockQuality >= ClockQuality::filename;
}

// The clips of a track that carry on from the one before them by trusted clock and size, for
// clips whose names say nothing about chapters.
std::vector<bool> continuesByClockAndSize(const TrackSource& track) {
    const auto& clips = track.clips;
    std::vector<std::optional<std::uintmax_t>> sizes;
    std::uintmax_t limit = 0;
    for (const auto& clip : clips) {
        sizes.push_back(fileSize(clip.url));
        limit = std::max(limit, sizes.back().value_or(0));
    }
    auto atLimit = [&](std::size_t ci) {
        return sizes[ci] && limit > 0 &&
               static_cast<double>(limit - *sizes[ci]) <=
                   kSizeLimitTolerance * static_cast<double>(limit);
    };
    std::size_t filesAtLimit = 0;
    for (std::size_t ci = 0; ci < clips.size(); ++ci) {
        filesAtLimit += atLimit(ci) ? 1 : 0;
    }
    std::vector<bool> continues(clips.size(), false);
    if (filesAtLimit < kFilesAtLimit) {
        return continues;
    }
    for (std::size_t ci = 1; ci < clips.size(); ++ci) {
        const auto& before = clips[ci - 1];
        const auto& clip = clips[ci];
        if (IngestEngine::chapterName(before.url) || IngestEngine::chapterName(clip.url) ||
            !hasTrustedClock(before) || !hasTrustedClock(clip) || before.duration <= 0 ||
            !atLimit(ci - 1) || !sizes[ci]) {
            continue;
        }
        const double end = *before.recordingDate + before.duration;
        continues[ci] = std::abs(*clip.recordingDate - end) <= kChapterGap;
    }
    return continues;
}

std::string withoutExtension(const std::filesystem::path& url) {
    std::filesystem::path stem = url;
    return stem.replace_extension().string();
}

} // namespace

std::optional<IngestEngine::ChapterName>
IngestEngine::chapterName(const std::filesystem::path& url) {
    // Action cameras number a recording and put the chapter before it: GX010045 is the first file
    // of recording 45, GX020045 its second. The older scheme names the first file GOPR0045 and
    // the next ones GP010045, GP020045.
    static const Regex::Pattern numbered("^(G[HXL])([0-9]{2})([0-9]{4})$", "i");
    static const Regex::Pattern continued("^GP([0-9]{2})([0-9]{4})$", "i");
    static const Regex::Pattern first("^GOPR([0-9]{4})$", "i");
    const std::string name = baseName(url);
    // Every sort of file names asks this of each name; most are no chapter names.
    if (name.empty() || (name.front() != 'G' && name.front() != 'g')) {
        return std::nullopt;
    }
    if (auto m = numbered.firstMatch(name); m && number((*m)[2]) > 0) {
        return ChapterName{Collation::uppercased((*m)[1]), number((*m)[3]), number((*m)[2]) - 1};
    }
    if (auto m = continued.firstMatch(name); m && number((*m)[1]) > 0) {
        return ChapterName{"GP", number((*m)[2]), number((*m)[1])};
    }
    if (auto m = first.firstMatch(name)) {
        return ChapterName{"GP", number((*m)[1]), 0};
    }
    return std::nullopt;
}

std::vector<TrackSource> IngestEngine::markChapters(std::vector<TrackSource> sources) {
    for (auto& track : sources) {
        auto& clips = track.clips;
        for (auto& clip : clips) {
            clip.recordingKey = std::nullopt;
            clip.chapterIndex = 0;
        }

        // By name: the files of one recording number in one folder.
        std::map<std::tuple<std::string, std::string, int>, std::vector<std::size_t>> byRecording;
        std::map<std::size_t, int> chapterOf;
        for (std::size_t ci = 0; ci < clips.size(); ++ci) {
            if (auto chapter = chapterName(clips[ci].url)) {
                byRecording[{clips[ci].url.parent_path().string(), chapter->prefix,
                             chapter->recording}]
                    .push_back(ci);
                chapterOf[ci] = chapter->chapter;
            }
        }
        std::size_t recordings = 0;
        std::size_t files = 0;
        for (const auto& [recording, members] : byRecording) {
            if (members.size() < 2) {
                continue;
            }
            const auto& [folder, prefix, num] = recording;
            char digits[16];
            std::snprintf(digits, sizeof digits, "%04d", num);
            const std::string key = (std::filesystem::path(folder) / (prefix + digits)).string();
            for (auto ci : members) {
                clips[ci].recordingKey = key;
                // A missing chapter leaves a gap in the indices.
                clips[ci].chapterIndex = chapterOf[ci];
            }
            ++recordings;
            files += members.size();
        }

        // By clock and size: runs of files that each start where the one before ended.
        const auto continues = continuesByClockAndSize(track);
        for (std::size_t ci = 0; ci < clips.size();) {
            std::size_t end = ci + 1;
            while (end < clips.size() && continues[end]) {
                ++end;
            }
            if (end - ci >= 2) {
                const std::string key = withoutExtension(clips[ci].url);
                for (std::size_t k = ci; k < end; ++k) {
                    clips[k].recordingKey = key;
                    clips[k].chapterIndex = static_cast<int>(k - ci);
                }
                ++recordings;
                files += end - ci;
            }
            ci = end;
        }

        if (recordings > 0) {
            EngineLog::log("[Ingest] chapters '" + track.name + "': " + std::to_string(files) +
                           " files are chapters of " + std::to_string(recordings) +
                           " recording(s) — kept together in recording order");
        }
    }
    return sources;
}

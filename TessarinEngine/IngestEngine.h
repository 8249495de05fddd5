#pragma once

#include "TessarinEngine/MediaMetadata.h"
#include "TessarinEngine/TrackModels.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

// One file of a request with the thing the user dropped to bring it in.
struct IngestItem {
    std::filesystem::path path;
    std::filesystem::path dropHint;
};

// Turns a flat list of files into tracks that each mean one device. The value carries the sessions
// that are complete; everything else is a pure function of its arguments. Log lines go through
// EngineLog on the calling thread.
struct IngestEngine {
    std::set<std::string> completeShootSessions;
    std::set<std::string> proxyDirNames = {"sub", "proxy", "proxies", "lrv",
                                           "thm", "drone", "drones"};

    // Groups the items by drop into first tracks (appended to `into`) and decides sessions. Reads
    // paths only, and the card files of RED media. Grows `completeShootSessions`. Items whose
    // path is not valid UTF-8 are left out with a log line.
    std::vector<TrackSource> ingestFlat(const std::vector<IngestItem>& items,
                                        std::vector<TrackSource> into);

    // Reads the metadata of every clip whose duration is still 0, a few clips at a time. The
    // callback runs on the calling thread once per clip, with the tracks as they stand.
    static std::vector<TrackSource>
    loadMetadata(std::vector<TrackSource> sources,
                 const std::function<void(const std::vector<TrackSource>&)>& onClipUpdated);

    using MetadataReader = std::function<MediaMetadata::ClipMeta(const std::filesystem::path&)>;
    // The same with the read of one clip given: it runs on worker threads, four clips at a time,
    // and must be safe to call concurrently. A read that throws counts as a clip read as unknown.
    static std::vector<TrackSource>
    loadMetadata(std::vector<TrackSource> sources,
                 const std::function<void(const std::vector<TrackSource>&)>& onClipUpdated,
                 const MetadataReader& readMeta);

    // Makes each track mean one device.
    static std::vector<TrackSource> splitSourcesByDevice(std::vector<TrackSource> sources);
    // Reads the dates that carry a UTC offset (Sony XML) as wall clock, like the zone-less dates
    // of Broadcast WAV, in each session where the other devices' dates show that the shoot's
    // clocks ran on local time: the offset-carrying dates sit a whole number of quarter hours
    // (30 min to 14 h) from them and agree within 15 min once the offset is dropped. With several
    // offsets the one of most clips counts. Converted clips lose `clockOffsetMinutes`. Logs one
    // line per session changed.
    static std::vector<TrackSource> alignZonedClocks(std::vector<TrackSource> sources);
    // Splits an audio track that holds the channel files of a multitrack recorder (at least 90 %
    // of its clips have a `twin` in the same track, and its suffixes are no more than the channel
    // files of one take) into one track per channel suffix, named "{track} {suffix}", in natural
    // order of the suffixes; clips without a suffix join the first. Each part keeps the track's
    // type, session and device. Other tracks are unchanged. Logs one line per track split.
    static std::vector<TrackSource> splitChannelTracks(std::vector<TrackSource> sources);
    // Ties the channel files of one recorder to a lead track.
    static std::vector<TrackSource> detectSiblingChannels(std::vector<TrackSource> sources);
    // Sets `recordingKey` and `chapterIndex` on the files a camera split from one take, where at
    // least two files of the recording are on the track: by `chapterName` in one folder, or, for
    // other names, by a run of files that each start within 1 s of the end of the one before by
    // trusted clocks (filename or better) while every file but the last reaches the track's size
    // limit (the largest file size, within 1 %, reached by at least two files). Reads file sizes.
    static std::vector<TrackSource> markChapters(std::vector<TrackSource> sources);
    // Marks tracks that are one camera split over several folders.
    static std::vector<TrackSource> assignCameraGroups(std::vector<TrackSource> sources);
    // The final order of tracks: video before audio, natural name order within each.
    static std::vector<TrackSource> sortSources(std::vector<TrackSource> sources);

    // The track name a dropped folder or file stands for: generic inner folders ("DCIM",
    // "100MEDIA", "CLIPS") are climbed to the first meaningful one, and a reel folder loses its
    // extension.
    static std::string trackName(const std::filesystem::path& hint);
    // Whether a folder name says nothing about the device ("DCIM", "Clips 2", "100MEDIA").
    static bool isGenericFolder(std::string_view name);
    // `preferred` cut to 40 characters (or "Mic"/"CLIP" for a name no track may bear), with " 2",
    // " 3", ... added until it differs from every name in `existing`.
    static std::string uniqueName(std::string_view preferred, SourceType type,
                                  const std::vector<std::string>& existing);
    // Video if any clip has a separate picture or a video file extension, else audio.
    static SourceType inferredType(const std::vector<ClipItem>& clips);
    // The longest common run of leading path components; for one path its folder; "" for none.
    static std::string commonAncestorPath(const std::vector<std::string>& paths);
    // Whether `a` goes before `b`: natural order of file names, then for equal names the earlier
    // file creation date, then plain text order of the names. Chapter files (`chapterName`) are
    // ordered by prefix, recording number, then chapter, so a recording's chapters stay together.
    static bool chronologicalOrder(const std::filesystem::path& a, const std::filesystem::path& b);

    // A device name reduced to what identifies the model: upper case, words of letters and
    // digits, trailing serial numbers and repeated words removed.
    static std::string normalizeDeviceKey(std::string_view name);
    // The device name most clips agree on, in its first spelling; nothing when no clip names one.
    static std::optional<std::string> trackDeviceLabel(const std::vector<ClipItem>& clips);

    struct NumericKey {
        std::string prefix;
        std::int64_t num = 0;
        bool operator==(const NumericKey&) const = default;
    };
    // A file name split before its trailing digits: "A001C002.mov" is ("A001C", 2). Nothing
    // without a prefix or without trailing digits.
    static std::optional<NumericKey> clipNumericKey(const std::filesystem::path& url);

    struct ChapterName {
        std::string prefix;
        int recording = 0;
        // The file's place in its recording, 0 for the first.
        int chapter = 0;
        bool operator==(const ChapterName&) const = default;
    };
    // The recording and chapter of an action camera's chapter file: "GX020045.MP4" is chapter 1
    // of recording 45 with prefix "GX" (also GH, GL); "GOPR0045" and "GP010045" are chapters 0
    // and 1 of recording 45 with prefix "GP". Nothing for any other name.
    static std::optional<ChapterName> chapterName(const std::filesystem::path& url);

    // The take name shared by the channel files of one recording: the name without extension cut
    // before its last "_suffix" ("SCENE12_3" is "SCENE12"; "_3" and "TAKE" stay).
    static std::string channelStem(const std::filesystem::path& url);
    // The index of the first clip of `track` that is another channel of the same recording as
    // `clip`: same stem, other name, lengths within 0.1 s and trusted clocks within 1 s.
    static std::optional<std::size_t> twin(const ClipItem& clip, const TrackSource& track);

    // Runs of video tracks of one session whose file numbering goes on from one track to the next.
    static std::vector<CameraGroupProposal>
    detectCameraGroups(const std::vector<TrackSource>& sources);
    // Labels the tracks of each accepted proposal "cam-0", "cam-1", ... in proposal order.
    static std::vector<TrackSource>
    applyCameraGroups(std::vector<TrackSource> sources,
                      const std::vector<CameraGroupProposal>& proposals,
                      const std::set<Uuid>& accepted);

    // Lays the clips of a track end to end from 0 by their durations.
    static TrackSource recomputeOffsets(TrackSource source);
    static void recomputeOffsets(std::size_t si, std::vector<TrackSource>& sources);
};

#pragma once

#include "TessarinEngine/TrackModels.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Readers of what a media file says about itself: recording clock, device, frame rate, picture
// size, duration, channels and start timecode. None throws; a value that cannot be read comes
// back as nothing or as the stated default. No reader decodes audio or video, writes anything or
// opens a file that is not a regular file (a FIFO cannot hang a read). A file that shrinks while
// it is read gives the defaults, as an unreadable one does. All are thread-safe.
namespace MediaMetadata {

// Everything ingest reads about one clip. Fields that cannot be read keep these defaults.
struct ClipMeta {
    double duration = 0;
    std::optional<float> fps;
    std::optional<std::string> device;
    std::optional<Date> date;
    ClockQuality quality = ClockQuality::none;
    int channels = 1;
    std::vector<int> channelMap;
    std::optional<std::pair<int, int>> size;
    std::optional<double> timecode;
    // The UTC offset the date was written with, where the source states one (Sony XML).
    std::optional<int> clockOffsetMinutes;
};

// All metadata reads of one clip: duration, frame rate, device, recording clock, channel count,
// picture size, timecode (timecode track, then Sony NRTM, then BWF), then the channel indices.
// The file is opened and its container probed once for all of them. A path that is not a
// regular file gives all defaults. Never throws and never decodes media. Thread-safe.
ClipMeta readClipMeta(const std::filesystem::path& url);

// When a file was recorded, and how far that can be trusted.
struct RecordingClock {
    std::optional<Date> date;
    ClockQuality quality = ClockQuality::none;
    // Minutes east of UTC that the date was written in, where the source states a zone.
    std::optional<int> offsetMinutes;
    bool operator==(const RecordingClock&) const = default;
};

// The best clock of the file: Broadcast WAV origination (wav/wave), Sony XML (mov/mp4/m4v), a
// date in the file name, the container's creation date, the file system's dates, in that order.
RecordingClock readRecordingClock(const std::filesystem::path& url);

// A "YYYYMMDD_HHMMSS" date and time at the end of the name's stem, in the process's local time
// zone; nothing without one or for a date the calendar refuses.
std::optional<Date> dateFromFilename(std::string_view name);

// The name of the recording device: BWF originator (wav/wave), the container's model, Sony XML
// beside or inside the file, timed metadata, QuickTime make/model atoms, the file name, and for
// movies a fingerprint of the video codec configuration. Trimmed; nothing when all fail.
std::optional<std::string> readDeviceInfo(const std::filesystem::path& url);

// Nominal frame rate of the first video track; nothing without one.
std::optional<float> readFrameRate(const std::filesystem::path& url);

// Width and height of the first video track with its display rotation applied; nothing without
// a video track.
std::optional<std::pair<int, int>> readVideoSize(const std::filesystem::path& url);

// Duration in seconds; 0 if unknown.
double readDuration(const std::filesystem::path& url);

// Channels of the first audio track; 1 without audio or when unknown.
int readChannelCount(const std::filesystem::path& url);

// The recorder's channel numbers of a Broadcast WAV from its iXML, when they are exactly
// `channelCount` distinct numbers; otherwise 1, 2, ... up to max(channelCount, 1).
std::vector<int> readAudioChannelIndices(const std::filesystem::path& url, int channelCount);

// Start timecode in seconds: the movie's timecode track, else Sony NRTM metadata, else the BWF
// TimeReference; nothing when none has one.
std::optional<double> readStartTimecode(const std::filesystem::path& url);

// The single steps of the timecode chain.
std::optional<double> readMovieTimecode(const std::filesystem::path& url);
std::optional<double> readSonyNRTMTimecode(const std::filesystem::path& url);
std::optional<double> readBWFTimecode(const std::filesystem::path& url);

// ---- Parsers over the bytes of a whole file, which the readers above call. ----

using Bytes = std::span<const std::uint8_t>;

// OriginationDate and OriginationTime of the first bext chunk, read as a UTC wall clock.
std::optional<Date> readBWFOriginationDate(Bytes wav);
// The bext Originator, else the maker and model named in its Description, or the iXML
// MANUFACTURER and MODEL, whichever chunk comes first with a name.
std::optional<std::string> readBWFOriginator(Bytes wav);
// bext TimeReference over the fmt sample rate (48000 where none is found), in seconds.
std::optional<double> readBWFTimecode(Bytes file);
// The iXML channel indices rule of readAudioChannelIndices, without the extension test.
std::vector<int> readIXMLChannelIndices(Bytes wav, int channelCount);

// The lastUpdate date of the Sony XML found last in the final 4 MiB.
std::optional<Date> readSonyXMLDate(Bytes file);
// The camera named by the XML document found last in the final 4 MiB.
std::optional<std::string> readXMLBox(Bytes file);
// Manufacturer and model of the camera an XML document describes.
std::optional<std::string> parseCameraFromXML(std::string_view xml);
// The model in a camera attributes value: a property list, else its text.
std::optional<std::string> extractCameraAttributesModel(Bytes value);
// The first camera, make or model value of the timed metadata in the movie's first second.
std::optional<std::string> readTimedMetadataDevice(Bytes movieFile);
// Make and model from the movie's user-data atoms.
std::optional<std::string> readQuickTimeDeviceAtoms(Bytes movieFile);
// A device known by its naming scheme ("ZOOM", "TASCAM", "SONY", "ROLAND", "DJI 01").
std::optional<std::string> deviceFromFilename(std::string_view name);
// "cam_" and the 64-bit FNV-1a hash of a codec configuration record in 16 hex digits.
std::string codecFingerprint(Bytes configurationRecord);

// Frame number of the first timecode sample over the track's frames per second.
std::optional<double> readMovieTimecode(Bytes movieFile);
// The Sony non-real-time metadata XML in a top-level meta atom.
std::optional<std::string> sonyNonRealTimeMetaXML(Bytes movieFile);
std::optional<double> readSonyNRTMTimecode(Bytes movieFile);
// The LTC start of a Sony non-real-time metadata document.
std::optional<double> sonyNRTMTimecodeFromXML(std::string_view xml);

} // namespace MediaMetadata

#include "TessarinEngine/MediaMetadata.h"

#include "TessarinEngine/BRAWAudio.h"
#include "TessarinEngine/platform/Files.h"
#include "TessarinEngine/platform/LocalTime.h"
#include "TessarinEngine/platform/MappedFile.h"
#include "TessarinEngine/platform/MediaProbe.h"
#include "TessarinEngine/platform/PropertyList.h"
#include "TessarinEngine/platform/QuickTime.h"
#include "TessarinEngine/platform/Regex.h"
#include "TessarinEngine/platform/Riff.h"
#include "TessarinEngine/platform/Text.h"
#include "TessarinEngine/platform/Unicode.h"
#include "TessarinEngine/platform/Xml.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>
#include <set>

namespace MediaMetadata {

namespace {

std::string_view asText(Bytes bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Readers trim what they find, and an empty name counts as none.
std::optional<std::string> nonEmpty(std::optional<std::string> text) {
    if (!text) {
        return std::nullopt;
    }
    auto trimmed = Unicode::trimWhitespace(*text);
    if (trimmed.empty()) {
        return std::nullopt;
    }
    return trimmed;
}

// "a" and "b" joined by a blank where both exist, else the one there is.
std::optional<std::string> joined(const std::optional<std::string>& a,
                                  const std::optional<std::string>& b) {
    if (a && b) {
        return *a + " " + *b;
    }
    return a ? a : b;
}

std::optional<long long> parseDecimal(std::string_view digits) {
    long long value = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc{} || end != digits.data() + digits.size()) {
        return std::nullopt;
    }
    return value;
}

bool isOneOf(const std::string& ext, std::initializer_list<std::string_view> list) {
    return std::find(list.begin(), list.end(), ext) != list.end();
}

bool isMovieExtension(const std::string& ext) {
    return isOneOf(ext, {"mov", "mp4", "m4v"});
}

// Sony cameras write their XML near the end of a movie; this much of the end is searched.
constexpr std::size_t kSonyTailBytes = 4 * 1024 * 1024;

// Where the last "xml " of the file's tail starts, as an offset into that tail.
std::optional<std::size_t> lastXmlMarker(std::string_view tail) {
    const auto at = tail.rfind("xml ");
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    return at;
}

std::string_view tailOf(Bytes file) {
    const std::size_t n = std::min(file.size(), kSonyTailBytes);
    return asText(file.subspan(file.size() - n));
}

// A RIFF/WAVE file of plain PCM or float samples, whose shape its chunks tell exactly.
struct WaveShape {
    int channels = 0;
    double duration = 0;
};

std::optional<WaveShape> readWaveShape(Bytes bytes) {
    std::optional<Riff::Format> format;
    std::optional<Riff::Chunk> data;
    Riff::forEachChunk(bytes, [&](const Riff::Chunk& chunk) {
        if (chunk.id == "fmt " && !format) {
            format = Riff::readFormat(chunk.content);
        } else if (chunk.id == "data" && !data) {
            data = chunk;
        }
        return !(format && data);
    });
    constexpr std::uint16_t kPcm = 1;
    constexpr std::uint16_t kFloat = 3;
    if (!format || !data || (format->subFormat != kPcm && format->subFormat != kFloat) ||
        format->blockAlign == 0 || format->sampleRate == 0) {
        return std::nullopt;
    }
    // A recorder that stopped before fixing its sizes leaves a data size past the end; what
    // the file holds is what plays.
    const auto frames = data->content.size() / format->blockAlign;
    return WaveShape{format->channels, static_cast<double>(frames) / format->sampleRate};
}

// One clip opened for reading: the mapped file, and the container probe and movie parse made
// only when a read needs them, each at most once.
class Clip {
public:
    Clip(std::filesystem::path url, MappedFile file)
        : url_(std::move(url)), ext_(Files::lowerExtension(url_)), file_(std::move(file)),
          wave_(readWaveShape(file_.bytes())), isRiffWave_(Riff::isWave(file_.bytes())) {}

    const std::filesystem::path& url() const { return url_; }
    const std::string& ext() const { return ext_; }
    Bytes bytes() const { return file_.bytes(); }
    const MappedFile& file() const { return file_; }
    const std::optional<WaveShape>& wave() const { return wave_; }
    // A RIFF/WAVE file keeps its metadata in chunks, not in container tags.
    bool isRiffWave() const { return isRiffWave_; }

    const MediaProbe::Info* probe() {
        if (!probed_) {
            probed_ = true;
            probe_ = MediaProbe::probe(bytes(), url_.filename().string());
        }
        return probe_ ? &*probe_ : nullptr;
    }

    const QuickTime::Movie* movie() {
        if (!movieRead_) {
            movieRead_ = true;
            movie_ = QuickTime::readMovie(bytes());
        }
        return movie_ ? &*movie_ : nullptr;
    }

    const BRAWAudio::Result* braw() {
        if (ext_ != "braw") {
            return nullptr;
        }
        if (!brawRead_) {
            brawRead_ = true;
            braw_ = BRAWAudio::probe(url_);
        }
        return braw_ ? &*braw_ : nullptr;
    }

    const MediaProbe::Stream* firstStream(MediaProbe::StreamKind kind) {
        const auto* info = probe();
        if (info == nullptr) {
            return nullptr;
        }
        for (const auto& stream : info->streams) {
            if (stream.kind == kind && !stream.attachedPicture) {
                return &stream;
            }
        }
        return nullptr;
    }

private:
    std::filesystem::path url_;
    std::string ext_;
    MappedFile file_;
    std::optional<WaveShape> wave_;
    bool isRiffWave_;
    bool probed_ = false;
    std::optional<MediaProbe::Info> probe_;
    bool movieRead_ = false;
    std::optional<QuickTime::Movie> movie_;
    bool brawRead_ = false;
    std::optional<BRAWAudio::Result> braw_;
};

std::optional<Clip> openClip(const std::filesystem::path& url) {
    auto file = MappedFile::open(url);
    if (!file) {
        return std::nullopt;
    }
    return Clip(url, std::move(*file));
}

std::optional<std::string> timedMetadataDevice(const QuickTime::Movie& movie, Bytes file);
std::optional<double> timecodeOfMovie(const QuickTime::Movie& movie, Bytes file);

// ---- Recording clock ----

// The lastUpdate date of the Sony XML found last in the final 4 MiB, with the zone it states.
std::optional<LocalTime::ZonedDate> sonyXMLClock(Bytes file) {
    static const Regex::Pattern lastUpdate("lastUpdate=\"([^\"]+)\"");
    const std::string_view tail = tailOf(file);
    auto at = lastXmlMarker(tail);
    if (!at) {
        return std::nullopt;
    }
    const std::string_view text = tail.substr(*at);
    if (!Text::isValidUtf8(text)) {
        return std::nullopt;
    }
    auto match = lastUpdate.firstMatch(text);
    if (!match) {
        return std::nullopt;
    }
    return LocalTime::fromIso8601Zoned((*match)[1]);
}

std::optional<Date> readAssetCreationDate(Clip& clip) {
    if (clip.isRiffWave()) {
        return std::nullopt;
    }
    const auto* info = clip.probe();
    if (info == nullptr) {
        return std::nullopt;
    }
    // The creation date item a camera or phone writes, the user-data date, then the movie
    // header's own creation time; the tracks' times last.
    for (const char* key : {"com.apple.quicktime.creationdate", "date", "creation_time"}) {
        if (auto it = info->metadata.find(key); it != info->metadata.end()) {
            if (auto date = LocalTime::fromIso8601(it->second)) {
                return date;
            }
        }
    }
    for (const auto& stream : info->streams) {
        if (auto it = stream.metadata.find("creation_time"); it != stream.metadata.end()) {
            if (auto date = LocalTime::fromIso8601(it->second)) {
                return date;
            }
        }
    }
    return std::nullopt;
}

// A recorder writes its origination time in whole seconds and the same clock to the sample as the
// time reference. Where the reference names the same second of the day, its fraction is the part
// of the second the origination time leaves out; a reference that names another second is a
// timecode of its own (jammed elsewhere) and says nothing about this clock.
Date withTimeReferenceFraction(Date origination, std::optional<double> timeReference) {
    constexpr double kDay = 86400.0;
    if (!timeReference || !std::isfinite(*timeReference) || *timeReference < 0 ||
        !std::isfinite(origination)) {
        return origination;
    }
    const double whole = std::floor(*timeReference);
    const double secondOfDay = std::fmod(std::floor(origination), kDay);
    if (std::fmod(whole, kDay) != (secondOfDay < 0 ? secondOfDay + kDay : secondOfDay) ||
        origination != std::floor(origination)) {
        return origination;
    }
    return origination + (*timeReference - whole);
}

// Only a Sony XML date keeps the zone it was written in; the other sources give none.
RecordingClock recordingClock(Clip& clip) {
    if (isOneOf(clip.ext(), {"wav", "wave"})) {
        if (auto date = readBWFOriginationDate(clip.bytes())) {
            return {withTimeReferenceFraction(*date, readBWFTimecode(clip.bytes())),
                    ClockQuality::embedded, std::nullopt};
        }
    }
    if (isMovieExtension(clip.ext())) {
        if (auto zoned = sonyXMLClock(clip.bytes())) {
            return {zoned->date, ClockQuality::embedded, zoned->offsetMinutes};
        }
    }
    if (auto date = dateFromFilename(clip.url().filename().string())) {
        return {date, ClockQuality::filename, std::nullopt};
    }
    if (auto date = readAssetCreationDate(clip)) {
        return {date, ClockQuality::asset, std::nullopt};
    }
    if (auto date = clip.file().creationDate()) {
        return {date, ClockQuality::filesystem, std::nullopt};
    }
    if (auto date = clip.file().modificationDate()) {
        return {date, ClockQuality::filesystem, std::nullopt};
    }
    return {};
}

// ---- Device identity ----

std::optional<std::string> readCommonModel(Clip& clip) {
    if (clip.isRiffWave()) {
        return std::nullopt;
    }
    const auto* info = clip.probe();
    if (info == nullptr) {
        return std::nullopt;
    }
    // The model as QuickTime metadata and as the user-data "\xA9mod" atom.
    for (const char* key : {"com.apple.quicktime.model", "model"}) {
        if (auto it = info->metadata.find(key); it != info->metadata.end()) {
            return it->second;
        }
    }
    return std::nullopt;
}

std::optional<std::string> readSidecarXML(const std::filesystem::path& url) {
    std::filesystem::path stem = url;
    stem.replace_extension();
    const std::string base = stem.string();
    for (const std::string& candidate :
         {base + "M01.XML", base + "M01.xml", base + ".XML", base + ".xml"}) {
        if (auto file = MappedFile::open(candidate)) {
            auto camera = parseCameraFromXML(asText(file->bytes()));
            return file->damaged() ? std::nullopt : camera;
        }
    }
    return std::nullopt;
}

std::optional<std::string> videoCodecFingerprint(Clip& clip) {
    const auto* video = clip.firstStream(MediaProbe::StreamKind::video);
    if (video == nullptr || video->extradata.empty() ||
        (video->codec != "hevc" && video->codec != "h264")) {
        return std::nullopt;
    }
    return codecFingerprint(video->extradata);
}

std::optional<std::string> deviceInfo(Clip& clip) {
    const std::string& ext = clip.ext();
    const bool movie = isMovieExtension(ext);
    if (isOneOf(ext, {"wav", "wave"})) {
        if (auto name = nonEmpty(readBWFOriginator(clip.bytes()))) {
            return name;
        }
    }
    if (auto name = nonEmpty(readCommonModel(clip))) {
        return name;
    }
    if (movie || ext == "mxf") {
        if (auto name = nonEmpty(readSidecarXML(clip.url()))) {
            return name;
        }
    }
    if (movie) {
        if (auto name = nonEmpty(readXMLBox(clip.bytes()))) {
            return name;
        }
        if (const auto* movieBoxes = clip.movie()) {
            if (auto name = timedMetadataDevice(*movieBoxes, clip.bytes())) {
                return name;
            }
        }
        if (auto name = nonEmpty(readQuickTimeDeviceAtoms(clip.bytes()))) {
            return name;
        }
    }
    if (auto name = nonEmpty(deviceFromFilename(clip.url().filename().string()))) {
        return name;
    }
    if (movie) {
        return videoCodecFingerprint(clip);
    }
    return std::nullopt;
}

// ---- Media properties ----

std::optional<float> frameRate(Clip& clip) {
    if (const auto* braw = clip.braw()) {
        return static_cast<float>(braw->frameRate);
    }
    if (clip.wave()) {
        return std::nullopt;
    }
    const auto* video = clip.firstStream(MediaProbe::StreamKind::video);
    if (video == nullptr || !video->frameRate) {
        return std::nullopt;
    }
    return static_cast<float>(*video->frameRate);
}

std::optional<std::pair<int, int>> videoSize(Clip& clip) {
    if (const auto* braw = clip.braw(); braw && braw->width > 0 && braw->height > 0) {
        return std::pair{static_cast<int>(braw->width), static_cast<int>(braw->height)};
    }
    if (clip.wave()) {
        return std::nullopt;
    }
    const auto* video = clip.firstStream(MediaProbe::StreamKind::video);
    if (video == nullptr || video->width <= 0 || video->height <= 0) {
        return std::nullopt;
    }
    double width = video->width;
    double height = video->height;
    if (video->displayMatrix) {
        // The size as the transform maps it: (a*w + c*h, b*w + d*h), 16.16 fixed point.
        const auto& m = *video->displayMatrix;
        const double a = m[0] / 65536.0, b = m[1] / 65536.0;
        const double c = m[3] / 65536.0, d = m[4] / 65536.0;
        const double w = a * width + c * height;
        const double h = b * width + d * height;
        width = w;
        height = h;
    }
    return std::pair{static_cast<int>(std::lround(std::fabs(width))),
                     static_cast<int>(std::lround(std::fabs(height)))};
}

double duration(Clip& clip) {
    if (const auto* braw = clip.braw(); braw && braw->pictureDuration() > 0) {
        return braw->pictureDuration();
    }
    if (clip.wave()) {
        return clip.wave()->duration;
    }
    const auto* info = clip.probe();
    if (info == nullptr) {
        return 0;
    }
    if (info->duration) {
        return *info->duration;
    }
    double longest = 0;
    for (const auto& stream : info->streams) {
        longest = std::max(longest, stream.duration.value_or(0));
    }
    return longest;
}

int channelCount(Clip& clip) {
    if (clip.wave()) {
        return std::max(clip.wave()->channels, 1);
    }
    const auto* audio = clip.firstStream(MediaProbe::StreamKind::audio);
    return audio != nullptr && audio->channels > 0 ? audio->channels : 1;
}

std::vector<int> defaultChannelIndices(int channelCount) {
    std::vector<int> indices(static_cast<std::size_t>(std::max(channelCount, 1)));
    for (std::size_t i = 0; i < indices.size(); ++i) {
        indices[i] = static_cast<int>(i) + 1;
    }
    return indices;
}

bool isBroadcastWaveExtension(const std::string& ext) {
    return isOneOf(ext, {"wav", "bwf", "wave"});
}

std::vector<int> audioChannelIndices(Clip& clip, int channelCount) {
    if (!isBroadcastWaveExtension(clip.ext())) {
        return defaultChannelIndices(channelCount);
    }
    return readIXMLChannelIndices(clip.bytes(), channelCount);
}

// ---- Timecode ----

std::optional<double> movieTimecode(Clip& clip) {
    const auto* movie = clip.movie();
    if (movie == nullptr) {
        return std::nullopt;
    }
    return timecodeOfMovie(*movie, clip.bytes());
}

std::optional<double> bwfTimecode(Clip& clip) {
    if (!isBroadcastWaveExtension(clip.ext())) {
        return std::nullopt;
    }
    return readBWFTimecode(clip.bytes());
}

std::optional<double> startTimecode(Clip& clip) {
    if (auto tc = movieTimecode(clip)) {
        return tc;
    }
    if (auto tc = readSonyNRTMTimecode(clip.bytes())) {
        return tc;
    }
    return bwfTimecode(clip);
}

std::optional<std::string> timedMetadataDevice(const QuickTime::Movie& movie, Bytes file) {
    // A camera states itself in the first samples; one second is plenty.
    constexpr double kSeconds = 1.0;
    for (const auto& item : QuickTime::readTimedMetadata(movie, file, kSeconds)) {
        const std::string identifier = item.keyNamespace + "/" + item.key;
        const std::string text = Unicode::lower(identifier + " " + item.key);
        std::optional<std::string> value;
        if (text.find("cameraattributes") != std::string::npos) {
            value = extractCameraAttributesModel(item.dataValue);
        } else if (text.find("model") != std::string::npos ||
                   text.find("make") != std::string::npos ||
                   text.find("camera") != std::string::npos) {
            value = item.stringValue;
        }
        if (auto name = nonEmpty(value)) {
            return name;
        }
    }
    return std::nullopt;
}

std::optional<double> timecodeOfMovie(const QuickTime::Movie& movie, Bytes file) {
    auto sample = QuickTime::readTimecodeSample(movie, file);
    if (!sample || sample->frameQuanta == 0) {
        return std::nullopt;
    }
    return static_cast<double>(sample->frameNumber) / sample->frameQuanta;
}

// Runs one read on an opened clip; the default where the path is no regular file, the file
// shrank while it was read (what was read is then partly zeros), or the read fails in a way the
// readers do not foresee (memory).
template <class T, class Read>
T withClip(const std::filesystem::path& url, T fallback, Read read) {
    try {
        auto clip = openClip(url);
        if (!clip) {
            return fallback;
        }
        T result = read(*clip);
        if (clip->file().damaged()) {
            return fallback;
        }
        return result;
    } catch (const std::exception&) {
        return fallback;
    }
}

} // namespace

// ---- File readers ----

ClipMeta readClipMeta(const std::filesystem::path& url) {
    ClipMeta unread;
    unread.channelMap = defaultChannelIndices(unread.channels);
    return withClip(url, unread, [](Clip& clip) {
        ClipMeta meta;
        meta.duration = duration(clip);
        meta.fps = frameRate(clip);
        meta.device = deviceInfo(clip);
        const auto clock = recordingClock(clip);
        meta.date = clock.date;
        meta.quality = clock.quality;
        meta.clockOffsetMinutes = clock.offsetMinutes;
        meta.channels = channelCount(clip);
        meta.size = videoSize(clip);
        meta.timecode = startTimecode(clip);
        meta.channelMap = audioChannelIndices(clip, meta.channels);
        return meta;
    });
}

RecordingClock readRecordingClock(const std::filesystem::path& url) {
    return withClip(url, RecordingClock{}, recordingClock);
}

std::optional<std::string> readDeviceInfo(const std::filesystem::path& url) {
    return withClip(url, std::optional<std::string>{}, deviceInfo);
}

std::optional<float> readFrameRate(const std::filesystem::path& url) {
    return withClip(url, std::optional<float>{}, frameRate);
}

std::optional<std::pair<int, int>> readVideoSize(const std::filesystem::path& url) {
    return withClip(url, std::optional<std::pair<int, int>>{}, videoSize);
}

double readDuration(const std::filesystem::path& url) {
    return withClip(url, 0.0, duration);
}

int readChannelCount(const std::filesystem::path& url) {
    return withClip(url, 1, channelCount);
}

std::vector<int> readAudioChannelIndices(const std::filesystem::path& url, int channelCount) {
    return withClip(url, defaultChannelIndices(channelCount),
                    [&](Clip& clip) { return audioChannelIndices(clip, channelCount); });
}

std::optional<double> readStartTimecode(const std::filesystem::path& url) {
    return withClip(url, std::optional<double>{}, startTimecode);
}

std::optional<double> readMovieTimecode(const std::filesystem::path& url) {
    return withClip(url, std::optional<double>{}, movieTimecode);
}

std::optional<double> readSonyNRTMTimecode(const std::filesystem::path& url) {
    return withClip(url, std::optional<double>{},
                    [](Clip& clip) { return readSonyNRTMTimecode(clip.bytes()); });
}

std::optional<double> readBWFTimecode(const std::filesystem::path& url) {
    return withClip(url, std::optional<double>{}, bwfTimecode);
}

// ---- Broadcast WAV ----

std::optional<Date> readBWFOriginationDate(Bytes wav) {
    auto bext = Riff::findChunk(wav, "bext");
    // Description (256), Originator (32), OriginatorReference (32), then the date and time.
    constexpr std::size_t kDateAt = 320;
    constexpr std::size_t kTimeAt = 330;
    constexpr std::size_t kEnd = 338;
    if (!bext || bext->content.size() < kEnd) {
        return std::nullopt;
    }
    const auto date = Unicode::trimControls(asText(bext->content.subspan(kDateAt, 10)));
    const auto time = Unicode::trimControls(asText(bext->content.subspan(kTimeAt, 8)));
    return LocalTime::fromIsoUtcWallClock(date + "T" + time);
}

std::optional<std::string> readBWFOriginator(Bytes wav) {
    static const Regex::Pattern maker("MAKER=([^;,\\r\\n\\x{0}]+)");
    static const Regex::Pattern model("MODEL=([^;,\\r\\n\\x{0}]+)");
    static const Regex::Pattern manufacturerTag("<MANUFACTURER>([^<]+)</MANUFACTURER>", "i");
    static const Regex::Pattern modelTag("<MODEL>([^<]+)</MODEL>", "i");
    auto group = [](const Regex::Pattern& pattern,
                    std::string_view text) -> std::optional<std::string> {
        if (auto m = pattern.firstMatch(text)) {
            return nonEmpty((*m)[1]);
        }
        return std::nullopt;
    };

    std::optional<std::string> result;
    Riff::forEachChunk(wav, [&](const Riff::Chunk& chunk) {
        if (chunk.id == "bext") {
            const Bytes head =
                chunk.content.first(std::min<std::size_t>(chunk.content.size(), 320));
            // The fields are ASCII; Latin 1 keeps any stray high byte readable.
            if (head.size() > 256) {
                const Bytes originator =
                    head.subspan(256, std::min<std::size_t>(32, head.size() - 256));
                result =
                    nonEmpty(Unicode::trimControlsAndWhitespace(Unicode::fromLatin1(originator)));
            }
            if (!result) {
                const std::string description =
                    Unicode::fromLatin1(head.first(std::min<std::size_t>(256, head.size())));
                result = joined(group(maker, description), group(model, description));
            }
        } else if (chunk.id == "iXML" || chunk.id == "ixml") {
            const Bytes head =
                chunk.content.first(std::min<std::size_t>(chunk.content.size(), 65536));
            const std::string text = Text::repairUtf8(asText(head));
            result = joined(group(manufacturerTag, text), group(modelTag, text));
        }
        return !result;
    });
    return result;
}

std::optional<double> readBWFTimecode(Bytes file) {
    const std::string_view text = asText(file);
    // The first "bext" anywhere in the file: its content starts 8 bytes on, and TimeReference
    // (samples since midnight) stands at content offset 338.
    const auto bext = text.find("bext");
    if (bext == std::string_view::npos || bext + 8 + 338 + 8 > file.size()) {
        return std::nullopt;
    }
    const std::uint64_t timeReference = Riff::readU64(file, bext + 8 + 338);
    double sampleRate = 48000.0;
    if (const auto fmt = text.find("fmt ");
        fmt != std::string_view::npos && fmt + 16 <= file.size()) {
        if (const auto rate = Riff::readU32(file, fmt + 12); rate != 0) {
            sampleRate = rate;
        }
    }
    return static_cast<double>(timeReference) / sampleRate;
}

std::vector<int> readIXMLChannelIndices(Bytes wav, int channelCount) {
    static const Regex::Pattern trackIndex(
        "<TRACK\\b[\\s\\S]*?<CHANNEL_INDEX>\\s*(\\d+)\\s*</CHANNEL_INDEX>");
    auto ixml = Riff::findChunk(wav, "iXML");
    if (!ixml) {
        return defaultChannelIndices(channelCount);
    }
    std::vector<int> indices;
    for (const auto& match : trackIndex.allMatches(Unicode::fromUtf8OrLatin1(ixml->content))) {
        if (auto n = parseDecimal(match[1]); n && *n <= std::numeric_limits<int>::max()) {
            indices.push_back(static_cast<int>(*n));
        }
    }
    const std::set<int> distinct(indices.begin(), indices.end());
    if (indices.size() != static_cast<std::size_t>(std::max(channelCount, 0)) ||
        distinct.size() != indices.size()) {
        return defaultChannelIndices(channelCount);
    }
    return indices;
}

// ---- Sony XML and other camera metadata ----

std::optional<Date> readSonyXMLDate(Bytes file) {
    const auto zoned = sonyXMLClock(file);
    return zoned ? std::optional(zoned->date) : std::nullopt;
}

std::optional<std::string> readXMLBox(Bytes file) {
    const std::string_view tail = tailOf(file);
    auto at = lastXmlMarker(tail);
    if (!at) {
        return std::nullopt;
    }
    // The marker is the "xml " of "<?xml ": the document starts at its "<?".
    std::size_t start = *at;
    if (start >= 2 && tail.substr(start - 2, 2) == "<?") {
        start -= 2;
    }
    return parseCameraFromXML(tail.substr(start));
}

std::optional<std::string> parseCameraFromXML(std::string_view xml) {
    std::optional<std::string> manufacturer;
    std::optional<std::string> model;
    bool found = false;
    auto firstOf = [](const Xml::Element& e,
                      std::initializer_list<std::string_view> names) -> std::optional<std::string> {
        for (auto name : names) {
            if (auto value = e.attribute(name); value && !value->empty()) {
                return value;
            }
        }
        return std::nullopt;
    };
    Xml::forEachElement(xml, [&](const Xml::Element& element) {
        if (found) {
            return;
        }
        std::string name = element.name;
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (name == "device" || name.find("camera") != std::string::npos) {
            // The first device or camera element that names a model is the camera; any model
            // met before it, on another element, was only a stand-in.
            if (auto m = firstOf(element, {"manufacturer", "Manufacturer"})) {
                manufacturer = m;
            }
            if (auto m = firstOf(element, {"modelName", "model", "Model"})) {
                model = m;
                found = true;
            }
        } else if (!model) {
            model = firstOf(element, {"model", "Model"});
        }
    });
    return nonEmpty(joined(nonEmpty(manufacturer), nonEmpty(model)));
}

std::optional<std::string> extractCameraAttributesModel(Bytes value) {
    static constexpr std::string_view kKeys[] = {
        "Model", "model",      "CameraModel", "cameraModel", "Make",
        "make",  "CameraMake", "cameraMake",  "DeviceModel", "deviceModel"};
    if (auto strings = PropertyList::readDictionaryStrings(value, kKeys)) {
        for (std::string_view key : kKeys) {
            if (auto it = strings->find(std::string(key));
                it != strings->end() && !it->second.empty()) {
                return it->second;
            }
        }
        // A dictionary that names no model is an answer too: its text would be no name.
        return std::nullopt;
    }
    const std::string_view text = asText(value);
    if (!Text::isValidUtf8(text)) {
        return std::nullopt;
    }
    auto trimmed = Unicode::trimControls(text);
    if (trimmed.empty()) {
        return std::nullopt;
    }
    return trimmed;
}

std::optional<std::string> readTimedMetadataDevice(Bytes movieFile) {
    auto movie = QuickTime::readMovie(movieFile);
    return movie ? timedMetadataDevice(*movie, movieFile) : std::nullopt;
}

std::optional<std::string> readQuickTimeDeviceAtoms(Bytes movieFile) {
    // FUJIFILM cameras name themselves in a short "Info" atom, e.g. "FUJIFILM DIGITAL CAMERA
    // X-T3"; other makers' Info atoms say nothing useful.
    const auto fujifilm = [](std::string_view atom) -> std::optional<QuickTime::MakeAndModel> {
        std::string text = Unicode::upper(std::string(atom));
        if (text.find("FUJIFILM") == std::string::npos) {
            return std::nullopt;
        }
        constexpr std::string_view kBoilerplate = "FUJIFILM DIGITAL CAMERA";
        for (auto at = text.find(kBoilerplate); at != std::string::npos;
             at = text.find(kBoilerplate)) {
            text.erase(at, kBoilerplate.size());
        }
        QuickTime::MakeAndModel named{"FUJIFILM", std::nullopt};
        if (auto trimmed = Unicode::trimWhitespace(text); !trimmed.empty()) {
            named.model = std::move(trimmed);
        }
        return named;
    };
    return QuickTime::readDeviceAtoms(movieFile, fujifilm);
}

std::optional<std::string> deviceFromFilename(std::string_view name) {
    static const Regex::Pattern dji("DJI_(\\d{2,3})_");
    static const Regex::Pattern roland("^R\\d{7}\\.");
    const std::string upper = Unicode::upper(name);
    const std::string_view u = upper;
    if (auto m = dji.firstMatch(u)) {
        return "DJI " + (*m)[1];
    }
    if (u.starts_with("ZOOM")) {
        return "ZOOM";
    }
    if (u.find("TASCAM") != std::string_view::npos || u.find("DR-10") != std::string_view::npos ||
        u.find("DR10") != std::string_view::npos) {
        return "TASCAM";
    }
    if (u.starts_with("SONY") || u.starts_with("PCM_")) {
        return "SONY";
    }
    if (roland.matches(u)) {
        return "ROLAND";
    }
    return std::nullopt;
}

std::string codecFingerprint(Bytes configurationRecord) {
    std::uint64_t h = 0xcbf29ce484222325ULL;
    for (std::uint8_t byte : configurationRecord) {
        h = (h ^ byte) * 0x100000001b3ULL;
    }
    char text[24];
    std::snprintf(text, sizeof text, "cam_%016llx", static_cast<unsigned long long>(h));
    return text;
}

// ---- Timecode ----

std::optional<double> readMovieTimecode(Bytes movieFile) {
    auto movie = QuickTime::readMovie(movieFile);
    return movie ? timecodeOfMovie(*movie, movieFile) : std::nullopt;
}

std::optional<std::string> sonyNonRealTimeMetaXML(Bytes movieFile) {
    std::optional<std::string> xml;
    QuickTime::forEachBox(movieFile, [&](const QuickTime::Box& box) {
        if (box.type != QuickTime::fourcc("meta")) {
            return true;
        }
        // Both markers are ASCII, the same bytes in either decoding: look before decoding.
        const std::string_view raw = asText(box.content);
        if (raw.find("NonRealTimeMeta") == std::string_view::npos ||
            raw.find("LtcChange") == std::string_view::npos) {
            return true;
        }
        xml = Unicode::fromUtf8OrLatin1(box.content);
        return false;
    });
    return xml;
}

std::optional<double> readSonyNRTMTimecode(Bytes movieFile) {
    auto xml = sonyNonRealTimeMetaXML(movieFile);
    if (!xml) {
        return std::nullopt;
    }
    return sonyNRTMTimecodeFromXML(*xml);
}

std::optional<double> sonyNRTMTimecodeFromXML(std::string_view xml) {
    static const Regex::Pattern tcFps("tcFps=\"(\\d+)\"");
    static const Regex::Pattern firstChange("<LtcChange frameCount=\"0\" value=\"([0-9]{8})\"");
    static const Regex::Pattern incrementChange(
        "<LtcChange[^>]*value=\"([0-9]{8})\"[^>]*status=\"increment\"");
    auto fpsMatch = tcFps.firstMatch(xml);
    auto fps = fpsMatch ? parseDecimal((*fpsMatch)[1]) : std::nullopt;
    if (!fps) {
        return std::nullopt;
    }
    auto value = firstChange.firstMatch(xml);
    if (!value) {
        value = incrementChange.firstMatch(xml);
    }
    if (!value) {
        return std::nullopt;
    }
    // Sony writes the value back to front: frames, seconds, minutes, hours.
    const std::string& digits = (*value)[1];
    auto pair = [&](std::size_t i) {
        return parseDecimal(std::string_view(digits).substr(i * 2, 2));
    };
    auto frames = pair(0), seconds = pair(1), minutes = pair(2), hours = pair(3);
    if (!frames || !seconds || !minutes || !hours || *seconds > 59 || *minutes > 59 ||
        *frames >= *fps) {
        return std::nullopt;
    }
    const double rate = static_cast<double>(*fps);
    return (((*hours * 60 + *minutes) * 60 + *seconds) * rate + *frames) / rate;
}

// ---- Names ----

std::optional<Date> dateFromFilename(std::string_view name) {
    static const Regex::Pattern stamp("(\\d{8})_(\\d{6})$");
    const std::string stem = std::filesystem::path(name).stem().string();
    auto m = stamp.firstMatch(stem);
    if (!m) {
        return std::nullopt;
    }
    const std::string_view day = (*m)[1];
    const std::string_view time = (*m)[2];
    auto field = [](std::string_view text, std::size_t at, std::size_t n) {
        return parseDecimal(text.substr(at, n));
    };
    auto year = field(day, 0, 4), month = field(day, 4, 2), dom = field(day, 6, 2);
    auto hour = field(time, 0, 2), minute = field(time, 2, 2), second = field(time, 4, 2);
    if (!year || !month || !dom || !hour || !minute || !second) {
        return std::nullopt;
    }
    return LocalTime::fromLocal({static_cast<int>(*year), static_cast<int>(*month),
                                 static_cast<int>(*dom), static_cast<int>(*hour),
                                 static_cast<int>(*minute), static_cast<double>(*second)});
}

} // namespace MediaMetadata

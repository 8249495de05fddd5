#pragma once

#include "TessarinEngine/BRAWAudio.h"
#include "TessarinEngine/MediaMetadata.h"
#include "TessarinEngine/platform/Files.h"
#include "TessarinEngine/platform/LocalTime.h"
#include "TessarinEngine/platform/MappedFile.h"
#include "TessarinEngine/platform/MediaProbe.h"
#include "TessarinEngine/platform/QuickTime.h"
#include "TessarinEngine/platform/Riff.h"

#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What the readers of one media file share: the opened clip, the small text helpers, and the
// reads of one concern that another concern's file calls. Private to MediaMetadata.
namespace MediaMetadata {

std::string_view asText(Bytes bytes);

// Readers trim what they find, and an empty name counts as none.
std::optional<std::string> nonEmpty(std::optional<std::string> text);

// "a" and "b" joined by a blank where both exist, else the one there is.
std::optional<std::string> joined(const std::optional<std::string>& a,
                                  const std::optional<std::string>& b);

std::optional<long long> parseDecimal(std::string_view digits);

bool isOneOf(const std::string& ext, std::initializer_list<std::string_view> list);

bool isMovieExtension(const std::string& ext);

bool isBroadcastWaveExtension(const std::string& ext);

// A RIFF/WAVE file of plain PCM or float samples, whose shape its chunks tell exactly.
struct WaveShape {
    int channels = 0;
    double duration = 0;
};

std::optional<WaveShape> readWaveShape(Bytes bytes);

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

std::optional<Clip> openClip(const std::filesystem::path& url);

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

// Only a Sony XML date keeps the zone it was written in; the other sources give none.
RecordingClock recordingClock(Clip& clip);

std::optional<std::string> deviceInfo(Clip& clip);

std::optional<float> frameRate(Clip& clip);

std::optional<std::pair<int, int>> videoSize(Clip& clip);

double duration(Clip& clip);

int channelCount(Clip& clip);

std::vector<int> defaultChannelIndices(int channelCount);

std::vector<int> audioChannelIndices(Clip& clip, int channelCount);

std::optional<double> startTimecode(Clip& clip);

// The lastUpdate date of the Sony XML found last in the final 4 MiB, with the zone it states.
std::optional<LocalTime::ZonedDate> sonyXMLClock(Bytes file);

} // namespace MediaMetadata

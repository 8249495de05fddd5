#include "TessarinEngine/platform/MediaProbe.h"

#include "TessarinEngine/platform/FFmpeg.h"

#include <cstring>
#include <string_view>
#include <variant>

extern "C" {
#include <libavutil/dict.h>
}

namespace MediaProbe {

namespace {

// Reads the probed bytes for libavformat, so the container is never opened a second time.
struct MemoryReader {
    std::span<const std::uint8_t> bytes;
    std::int64_t position = 0;
};

int readPacket(void* opaque, std::uint8_t* buffer, int size) {
    auto* reader = static_cast<MemoryReader*>(opaque);
    const auto total = static_cast<std::int64_t>(reader->bytes.size());
    if (reader->position >= total) {
        return AVERROR_EOF;
    }
    const auto n = static_cast<int>(std::min<std::int64_t>(size, total - reader->position));
    std::memcpy(buffer, reader->bytes.data() + reader->position, static_cast<std::size_t>(n));
    reader->position += n;
    return n;
}

std::int64_t seekTo(void* opaque, std::int64_t offset, int whence) {
    auto* reader = static_cast<MemoryReader*>(opaque);
    const auto total = static_cast<std::int64_t>(reader->bytes.size());
    if ((whence & AVSEEK_SIZE) != 0) {
        return total;
    }
    std::int64_t target = 0;
    switch (whence & ~AVSEEK_FORCE) {
    case SEEK_SET:
        target = offset;
        break;
    case SEEK_CUR:
        target = reader->position + offset;
        break;
    case SEEK_END:
        target = total + offset;
        break;
    default:
        return AVERROR(EINVAL);
    }
    if (target < 0) {
        return AVERROR(EINVAL);
    }
    reader->position = target;
    return target;
}

struct IOContextFree {
    void operator()(AVIOContext* io) const {
        // The context may have swapped its buffer for a larger one; free the one it holds.
        av_freep(&io->buffer);
        avio_context_free(&io);
    }
};
using IOContext = std::unique_ptr<AVIOContext, IOContextFree>;

std::map<std::string, std::string> readMetadata(const AVDictionary* dictionary) {
    std::map<std::string, std::string> out;
    const AVDictionaryEntry* entry = nullptr;
    while ((entry = av_dict_get(dictionary, "", entry, AV_DICT_IGNORE_SUFFIX)) != nullptr) {
        out.emplace(entry->key, entry->value);
    }
    return out;
}

std::optional<double> seconds(std::int64_t value, AVRational base) {
    if (value == AV_NOPTS_VALUE || value <= 0 || base.num <= 0 || base.den <= 0) {
        return std::nullopt;
    }
    return static_cast<double>(value) * av_q2d(base);
}

std::optional<double> rate(AVRational r) {
    if (r.num <= 0 || r.den <= 0) {
        return std::nullopt;
    }
    return av_q2d(r);
}

Stream readStream(const AVStream* st) {
    Stream out;
    const AVCodecParameters* par = st->codecpar;
    out.kind = par->codec_type == AVMEDIA_TYPE_VIDEO   ? StreamKind::video
               : par->codec_type == AVMEDIA_TYPE_AUDIO ? StreamKind::audio
                                                       : StreamKind::other;
    out.attachedPicture = (st->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
    out.codec = avcodec_get_name(par->codec_id);
    if (par->extradata != nullptr && par->extradata_size > 0) {
        out.extradata.assign(par->extradata, par->extradata + par->extradata_size);
    }
    out.width = par->width;
    out.height = par->height;
    std::size_t matrixSize = 0;
    if (const std::uint8_t* matrix =
            av_stream_get_side_data(st, AV_PKT_DATA_DISPLAYMATRIX, &matrixSize);
        matrix != nullptr && matrixSize >= 9 * sizeof(std::int32_t)) {
        std::array<std::int32_t, 9> m{};
        std::memcpy(m.data(), matrix, sizeof m);
        out.displayMatrix = m;
    }
    out.frameRate = rate(st->avg_frame_rate);
    if (!out.frameRate) {
        out.frameRate = rate(st->r_frame_rate);
    }
    out.channels = par->ch_layout.nb_channels;
    out.duration = seconds(st->duration, st->time_base);
    out.metadata = readMetadata(st->metadata);
    return out;
}

// Demuxers whose header describes every stream fully: reading packets to fill in parameters
// would only cost time (a movie's sample tables, a WAV's fmt chunk).
bool headerDescribesStreams(std::string_view formatName) {
    return formatName == "mov,mp4,m4a,3gp,3g2,mj2" || formatName == "wav";
}

} // namespace

std::optional<Info> probe(std::span<const std::uint8_t> bytes, const std::string& name) {
    if (bytes.empty()) {
        return std::nullopt;
    }
    FFmpeg::silenceLogs();
    MemoryReader reader{bytes};
    constexpr int kBufferSize = 64 * 1024;
    auto* buffer = static_cast<unsigned char*>(av_malloc(kBufferSize));
    if (buffer == nullptr) {
        return std::nullopt;
    }
    IOContext io(avio_alloc_context(buffer, kBufferSize, 0, &reader, readPacket, nullptr, seekTo));
    if (!io) {
        av_free(buffer);
        return std::nullopt;
    }
    auto opened = FFmpeg::openLocalMedia(name, io.get());
    if (!std::holds_alternative<FFmpeg::FormatContext>(opened)) {
        return std::nullopt;
    }
    auto format = std::move(std::get<FFmpeg::FormatContext>(opened));

    Info info;
    info.formatName = format->iformat != nullptr ? format->iformat->name : "";
    if (!headerDescribesStreams(info.formatName)) {
        // Enough to see a few frames of each stream of a typical camera file, and bounded.
        format->probesize = 2'000'000;
        format->max_analyze_duration = 2 * AV_TIME_BASE;
        // A failure here still leaves what the header said, which is worth reporting.
        avformat_find_stream_info(format.get(), nullptr);
    }
    info.duration = seconds(format->duration, AVRational{1, AV_TIME_BASE});
    info.metadata = readMetadata(format->metadata);
    for (unsigned i = 0; i < format->nb_streams; ++i) {
        info.streams.push_back(readStream(format->streams[i]));
    }
    return info;
}

} // namespace MediaProbe

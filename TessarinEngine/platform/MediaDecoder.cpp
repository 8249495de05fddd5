#include "TessarinEngine/platform/MediaDecoder.h"

#include "TessarinEngine/TessarinError.h"
#include "TessarinEngine/platform/FFmpeg.h"

extern "C" {
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>
#include <new>
#include <optional>
#include <set>
#include <utility>
#include <variant>

namespace MediaDecoder {

namespace {

using Kind = TessarinError::Kind;

// Every resampler option is set, so that the samples (and the features cached from them) stay the
// same when FFmpeg changes a default. The values are the ones FFmpeg 5.1 uses, with the automatic
// cutoff written out. Channels are mixed by our own matrix, so the mix levels never apply.
struct IntegerOption {
    const char* name;
    std::int64_t value;
};
constexpr IntegerOption kIntegerOptions[] = {
    {"used_channel_count", 0}, // all of them
    {"swr_flags", 0},
    {"dither_method", 0}, // none: the output is float
    {"resampler", 0},     // FFmpeg's own engine
    {"filter_size", 32},
    {"phase_shift", 10},
    {"linear_interp", 1},
    {"exact_rational", 1},
    {"cheby", 0},
    {"first_pts", INT64_MIN}, // no timestamp compensation
    {"matrix_encoding", 0},
    {"filter_type", 2}, // Kaiser-windowed sinc
    {"output_sample_bits", 0},
};
struct RealOption {
    const char* name;
    double value;
};
constexpr RealOption kRealOptions[] = {
    {"center_mix_level", M_SQRT1_2},
    {"surround_mix_level", M_SQRT1_2},
    {"lfe_mix_level", 0},
    {"rematrix_volume", 1},
    {"rematrix_maxval", 0},
    {"dither_scale", 1},
    {"cutoff", 0.97},
    {"precision", 20},
    {"min_comp", FLT_MAX}, // never stretch or pad to timestamps: we lay samples ourselves
    {"min_hard_comp", 0.1},
    {"comp_duration", 1},
    {"max_soft_comp", 0},
    {"async", 0},
    {"kaiser_beta", 9},
};
// Set one by one in makeResampler, from the stream's own format.
constexpr const char* kFormatOptions[] = {"in_chlayout",        "out_chlayout",  "in_sample_rate",
                                          "out_sample_rate",    "in_sample_fmt", "out_sample_fmt",
                                          "internal_sample_fmt"};

// A resampler from the given input to mono float at `outRate`, folding the channels to their
// mean; nothing if FFmpeg refuses any setting.
FFmpeg::Resampler makeResampler(const AVChannelLayout& inLayout, AVSampleFormat inFormat,
                                int inRate, int outRate) {
    FFmpeg::Resampler swr(swr_alloc());
    if (!swr) {
        return {};
    }
    const AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
    void* s = swr.get();
    bool ok = av_opt_set_chlayout(s, "in_chlayout", &inLayout, 0) >= 0 &&
              av_opt_set_chlayout(s, "out_chlayout", &mono, 0) >= 0 &&
              av_opt_set_int(s, "in_sample_rate", inRate, 0) >= 0 &&
              av_opt_set_int(s, "out_sample_rate", outRate, 0) >= 0 &&
              av_opt_set_sample_fmt(s, "in_sample_fmt", inFormat, 0) >= 0 &&
              av_opt_set_sample_fmt(s, "out_sample_fmt", AV_SAMPLE_FMT_FLT, 0) >= 0 &&
              av_opt_set_sample_fmt(s, "internal_sample_fmt", AV_SAMPLE_FMT_FLTP, 0) >= 0;
    for (const auto& o : kIntegerOptions) {
        ok = ok && av_opt_set_int(s, o.name, o.value, 0) >= 0;
    }
    for (const auto& o : kRealOptions) {
        ok = ok && av_opt_set_double(s, o.name, o.value, 0) >= 0;
    }
    if (!ok) {
        return {};
    }
    // The mean of the channels: a stream's loudness does not depend on how many channels carry it.
    const int channels = inLayout.nb_channels;
    std::vector<double> matrix(static_cast<std::size_t>(channels), 1.0 / channels);
    if (swr_set_matrix(swr.get(), matrix.data(), channels) < 0 || swr_init(swr.get()) < 0) {
        return {};
    }
    return swr;
}

// A layout swresample accepts: an unordered one becomes the default order for its count.
FFmpeg::ChannelLayout usableLayout(const AVChannelLayout& layout) {
    if (layout.order != AV_CHANNEL_ORDER_UNSPEC) {
        return FFmpeg::ChannelLayout(layout);
    }
    FFmpeg::ChannelLayout result;
    av_channel_layout_default(result.out(), layout.nb_channels);
    return result;
}

// One audio stream being decoded, and where its samples go in the mix.
struct StreamDecode {
    int streamIndex = -1;
    FFmpeg::CodecContext codec;
    FFmpeg::Resampler resampler;
    // The input format the resampler was made for; a stream may change it midway.
    FFmpeg::ChannelLayout inLayout;
    int inRate = 0;
    int inFormat = AV_SAMPLE_FMT_NONE;
    std::size_t offset = 0;
    std::size_t laid = 0;
    // For a stretch: output samples still to drop before the stretch begins, and whether the
    // stream has reached the stretch's end.
    std::size_t skip = 0;
    bool placed = false;
    bool full = false;
    AVRational timeBase{1, 1};
};

// The state of one decodeMixedMono call.
struct Decoding {
    std::string fileName;
    int rateHz = 0;
    // The most samples the file can honestly yield; see sampleLimit.
    std::size_t maxSamples = 0;
    std::vector<float> mix;
    std::vector<float> scratch;
    const std::function<void(std::size_t)>* onLaid = nullptr;
    // A stretch keeps what falls before `stop` and drops the rest; a whole decode keeps all.
    std::optional<std::size_t> stop;
    // Where the stretch's first sample lies, in seconds of the streams' own timestamps.
    double originSeconds = 0;
};

// After a seek, a stream's first frame tells where its samples lie: on the axis of a whole decode
// (its first sample at the earliest stream's start), so both give the same sample for one time.
void placeAfterSeek(Decoding& d, StreamDecode& s, const AVFrame* frame) {
    const std::int64_t ts = frame->best_effort_timestamp;
    if (ts == AV_NOPTS_VALUE) {
        throw TessarinError(Kind::readFailed, "seek");
    }
    const double seconds = static_cast<double>(ts) * av_q2d(s.timeBase);
    const auto at = std::llround((seconds - d.originSeconds) * d.rateHz);
    s.offset = at >= 0 ? static_cast<std::size_t>(at) : 0;
    s.skip = at < 0 ? static_cast<std::size_t>(-at) : 0;
    s.placed = true;
}

void layInMix(Decoding& d, StreamDecode& s, std::size_t count) {
    const float* src = d.scratch.data();
    if (s.skip > 0) {
        const std::size_t dropped = std::min(s.skip, count);
        s.skip -= dropped;
        src += dropped;
        count -= dropped;
    }
    const std::size_t from = s.offset + s.laid;
    if (d.stop) {
        const std::size_t room = from < *d.stop ? *d.stop - from : 0;
        if (count >= room) {
            count = room;
            s.full = true;
        }
    }
    if (count == 0) {
        return;
    }
    if (from + count > d.maxSamples) {
        throw TessarinError(Kind::emptySamples, d.fileName);
    }
    if (from + count > d.mix.size()) {
        d.mix.resize(from + count);
    }
    float* dst = d.mix.data() + from;
    for (std::size_t i = 0; i < count; ++i) {
        dst[i] += src[i];
    }
    s.laid += count;
    if (d.onLaid && *d.onLaid) {
        (*d.onLaid)(d.mix.size());
    }
}

// Runs the resampler over `count` input samples (or flushes it with none) into the mix.
void resampleInto(Decoding& d, StreamDecode& s, const std::uint8_t** in, int count) {
    for (;;) {
        const int room = std::max(swr_get_out_samples(s.resampler.get(), count), 0) + 64;
        if (d.scratch.size() < static_cast<std::size_t>(room)) {
            d.scratch.resize(static_cast<std::size_t>(room));
        }
        auto* out = reinterpret_cast<std::uint8_t*>(d.scratch.data());
        const int made = swr_convert(s.resampler.get(), &out, room, in, count);
        if (made < 0) {
            throw TessarinError(Kind::readFailed, "resampler");
        }
        layInMix(d, s, static_cast<std::size_t>(made));
        // Given input, one call takes all of it; a flush repeats until nothing is left.
        if (in || made == 0) {
            return;
        }
    }
}

template <class Sample>
bool forEachNonFinite(AVFrame* frame, bool zero) {
    const auto format = static_cast<AVSampleFormat>(frame->format);
    const int channels = frame->ch_layout.nb_channels;
    const bool planar = av_sample_fmt_is_planar(format) != 0;
    const int planes = planar ? channels : 1;
    const auto perPlane = static_cast<std::size_t>(frame->nb_samples) *
                          static_cast<std::size_t>(planar ? 1 : channels);
    for (int p = 0; p < planes; ++p) {
        auto* samples = reinterpret_cast<Sample*>(frame->extended_data[p]);
        for (std::size_t i = 0; i < perPlane; ++i) {
            if (!std::isfinite(samples[i])) {
                if (!zero) {
                    return true;
                }
                samples[i] = 0;
            }
        }
    }
    return false;
}

// A float stream can hold NaN or infinity (a damaged file, a faulty plug-in). One such value
// would spread through the resampler's filter into the features of the whole file, so it is read
// as 0. The frame is copied only when it holds one.
template <class Sample>
void zeroNonFinite(AVFrame* frame) {
    if (!forEachNonFinite<Sample>(frame, false)) {
        return;
    }
    if (av_frame_make_writable(frame) < 0) {
        throw std::bad_alloc();
    }
    forEachNonFinite<Sample>(frame, true);
}

void layFrame(Decoding& d, StreamDecode& s, AVFrame* frame) {
    if (s.full) {
        return;
    }
    if (d.stop && !s.placed) {
        placeAfterSeek(d, s, frame);
    }
    switch (frame->format) {
    case AV_SAMPLE_FMT_FLT:
    case AV_SAMPLE_FMT_FLTP:
        zeroNonFinite<float>(frame);
        break;
    case AV_SAMPLE_FMT_DBL:
    case AV_SAMPLE_FMT_DBLP:
        zeroNonFinite<double>(frame);
        break;
    default:
        break;
    }
    const bool sameInput = s.resampler && frame->sample_rate == s.inRate &&
                           frame->format == s.inFormat &&
                           av_channel_layout_compare(&frame->ch_layout, &s.inLayout.get()) == 0;
    if (!sameInput) {
        if (s.resampler) {
            resampleInto(d, s, nullptr, 0);
        }
        if (frame->ch_layout.nb_channels <= 0 || frame->sample_rate <= 0) {
            throw TessarinError(Kind::emptySamples, d.fileName);
        }
        auto layout = usableLayout(frame->ch_layout);
        s.resampler = makeResampler(layout.get(), static_cast<AVSampleFormat>(frame->format),
                                    frame->sample_rate, d.rateHz);
        if (!s.resampler) {
            throw TessarinError(Kind::readFailed, "resampler");
        }
        s.inLayout = FFmpeg::ChannelLayout(frame->ch_layout);
        s.inRate = frame->sample_rate;
        s.inFormat = frame->format;
    }
    // A second of input at a time: a header that claims a rate far below the output's (1 Hz)
    // would otherwise have the resampler build the whole stretch at once, hours of output from a
    // few kilobytes, before the bound on what the file may yield can stop it.
    const auto format = static_cast<AVSampleFormat>(frame->format);
    const int planes = av_sample_fmt_is_planar(format) ? frame->ch_layout.nb_channels : 1;
    const std::size_t stride =
        static_cast<std::size_t>(av_get_bytes_per_sample(format)) *
        static_cast<std::size_t>(planes == 1 ? frame->ch_layout.nb_channels : 1);
    const int step = std::max(1, frame->sample_rate);
    std::vector<const std::uint8_t*> in(static_cast<std::size_t>(planes));
    for (int done = 0; done < frame->nb_samples; done += step) {
        for (int p = 0; p < planes; ++p) {
            in[static_cast<std::size_t>(p)] =
                frame->extended_data[p] + static_cast<std::size_t>(done) * stride;
        }
        resampleInto(d, s, in.data(), std::min(step, frame->nb_samples - done));
    }
}

// Sends one packet, or the empty packet that drains the decoder, and lays every frame that comes
// out: one packet can hold several frames.
void decodePacket(Decoding& d, StreamDecode& s, const AVPacket* packet, AVFrame* frame) {
    int rc = avcodec_send_packet(s.codec.get(), packet);
    if (rc < 0 && rc != AVERROR_EOF) {
        throw TessarinError(Kind::emptySamples, d.fileName);
    }
    for (;;) {
        rc = avcodec_receive_frame(s.codec.get(), frame);
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) {
            return;
        }
        if (rc < 0) {
            throw TessarinError(Kind::emptySamples, d.fileName);
        }
        layFrame(d, s, frame);
        av_frame_unref(frame);
    }
}

StreamDecode openStream(const AVStream* stream, const std::string& fileName) {
    StreamDecode s;
    s.streamIndex = stream->index;
    s.timeBase = stream->time_base;
    const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
    if (!codec) {
        throw TessarinError(Kind::emptySamples, fileName);
    }
    s.codec.reset(avcodec_alloc_context3(codec));
    if (!s.codec) {
        throw std::bad_alloc();
    }
    if (avcodec_parameters_to_context(s.codec.get(), stream->codecpar) < 0) {
        throw TessarinError(Kind::emptySamples, fileName);
    }
    // The decoder needs the stream's time base to honour the container's priming-sample skips.
    s.codec->pkt_timebase = stream->time_base;
    if (avcodec_open2(s.codec.get(), codec, nullptr) < 0) {
        throw TessarinError(Kind::emptySamples, fileName);
    }
    return s;
}

// A lying edit list can claim a start days after the other streams; trusting it would fill
// memory with silence. Real multi-track recordings start within moments of each other.
constexpr double kMaxStartSpread = 3600.0;

void placeStreams(std::vector<StreamDecode>& streams, const AVFormatContext* format, int rateHz) {
    std::vector<std::optional<double>> starts;
    std::optional<double> earliest;
    for (const auto& s : streams) {
        const AVStream* st = format->streams[s.streamIndex];
        std::optional<double> start;
        if (st->start_time != AV_NOPTS_VALUE) {
            start = static_cast<double>(st->start_time) * av_q2d(st->time_base);
        }
        if (start && (!earliest || *start < *earliest)) {
            earliest = start;
        }
        starts.push_back(start);
    }
    for (std::size_t i = 0; i < streams.size(); ++i) {
        if (!starts[i]) {
            continue;
        }
        const double lead = std::min(*starts[i] - *earliest, kMaxStartSpread);
        streams[i].offset = static_cast<std::size_t>(std::llround(lead * rateHz));
    }
}

// Where several streams cover a sample, the sum becomes their mean.
void averageOverlaps(std::vector<float>& mix, const std::vector<StreamDecode>& streams) {
    std::vector<std::pair<std::size_t, int>> edges;
    for (const auto& s : streams) {
        if (s.laid > 0) {
            edges.emplace_back(s.offset, 1);
            edges.emplace_back(s.offset + s.laid, -1);
        }
    }
    std::sort(edges.begin(), edges.end());
    int present = 0;
    for (std::size_t e = 0; e + 1 < edges.size(); ++e) {
        present += edges[e].second;
        if (present > 1) {
            const float scale = 1.0f / static_cast<float>(present);
            for (std::size_t i = edges[e].first; i < edges[e + 1].first; ++i) {
                mix[i] *= scale;
            }
        }
    }
}

// The duration the container states, where it states one; an estimate from the bit rate is
// no statement.
std::optional<double> statedDuration(const AVFormatContext* format) {
    if (format->duration == AV_NOPTS_VALUE || format->duration <= 0 ||
        format->duration_estimation_method == AVFMT_DURATION_FROM_BITRATE) {
        return std::nullopt;
    }
    return static_cast<double>(format->duration) / AV_TIME_BASE;
}

// Audio costs a file at least this many bytes per second: 800 bit/s is below every codec a
// camera, recorder or phone writes, yet a header claiming 1 Hz samples cannot turn a few
// kilobytes into hours of 16 kHz floats (each 16 kHz second costs 64000 bytes of memory).
constexpr double kMinBytesPerSecond = 100;
// What a file may yield beyond its stated duration: priming, rounding, a container that
// understates its length.
constexpr double kStatedSlackFactor = 2.0;
// Slack in seconds on both bounds, so a tiny file or a short stated duration is never cut.
constexpr double kSlackSeconds = 60;

// The most samples one file may yield, so what a file costs is bounded by what its container
// honestly holds, however long that is: its size at the lowest byte rate of real audio, and
// twice the duration it states.
std::size_t sampleLimit(AVFormatContext* format, int rateHz) {
    const std::int64_t bytes = format->pb != nullptr ? avio_size(format->pb) : -1;
    double seconds = bytes >= 0 ? static_cast<double>(bytes) / kMinBytesPerSecond + kSlackSeconds
                                : std::numeric_limits<double>::infinity();
    if (const auto stated = statedDuration(format)) {
        seconds = std::min(seconds, *stated * kStatedSlackFactor + kSlackSeconds);
    }
    const double samples = seconds * rateHz;
    return samples >= static_cast<double>(SIZE_MAX) ? SIZE_MAX : static_cast<std::size_t>(samples);
}

// Two hours: the most the duration a file states may reserve up front. Longer files grow past
// it; the reservation only spares the first regrowths.
constexpr double kMaxReservedSeconds = 7200.0;

std::size_t reservationFor(const AVFormatContext* format, int rateHz, std::size_t limit) {
    const auto stated = statedDuration(format);
    if (!stated) {
        return 0;
    }
    const double seconds = std::min(*stated + 1.0, kMaxReservedSeconds);
    return std::min(static_cast<std::size_t>(seconds * rateHz), limit);
}

// A file opened for decoding: its audio streams with their decoders, the rest discarded.
struct OpenFile {
    FFmpeg::FormatContext format;
    std::vector<StreamDecode> streams;
    std::vector<int> decodeOfStream;
};

// How much a stretch's file is read ahead to learn its streams, where a whole decode reads
// FFmpeg's default (5 MB, 5 s): a stretch needs the same streams but reads only seconds of
// them, and opening would otherwise cost more than the stretch.
constexpr std::int64_t kStretchProbeBytes = 1 << 14;
constexpr std::int64_t kStretchAnalyseMicroseconds = 200000;

OpenFile openFile(const std::filesystem::path& path, const std::string& fileName,
                  bool readAhead = true) {
    FFmpeg::silenceLogs();
    auto opened = FFmpeg::openLocalMedia(path);
    if (const auto* reason = std::get_if<std::string>(&opened)) {
        throw TessarinError(Kind::readerStartFailed, *reason);
    }
    OpenFile f;
    f.format = std::move(std::get<FFmpeg::FormatContext>(opened));
    if (!readAhead) {
        f.format->probesize = kStretchProbeBytes;
        f.format->max_analyze_duration = kStretchAnalyseMicroseconds;
        // Nor need the pictures be decoded to learn their format.
        for (unsigned i = 0; i < f.format->nb_streams; ++i) {
            if (f.format->streams[i]->codecpar->codec_type != AVMEDIA_TYPE_AUDIO) {
                f.format->streams[i]->discard = AVDISCARD_ALL;
            }
        }
    }
    if (int rc = avformat_find_stream_info(f.format.get(), nullptr); rc < 0) {
        throw TessarinError(Kind::readerStartFailed, FFmpeg::errorText(rc));
    }
    f.decodeOfStream.assign(f.format->nb_streams, -1);
    for (unsigned i = 0; i < f.format->nb_streams; ++i) {
        AVStream* stream = f.format->streams[i];
        if (stream->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
            f.decodeOfStream[i] = static_cast<int>(f.streams.size());
            f.streams.push_back(openStream(stream, fileName));
        } else {
            // The demuxer then skips video and data without reading them.
            stream->discard = AVDISCARD_ALL;
        }
    }
    if (f.streams.empty()) {
        throw TessarinError(Kind::noAudioTrack, fileName);
    }
    return f;
}

// Reads and decodes packets until the end of the file, or until every stream has filled the
// stretch, then drains the decoders and resamplers.
void decodeAll(Decoding& d, OpenFile& f) {
    FFmpeg::Packet packet(av_packet_alloc());
    FFmpeg::Frame frame(av_frame_alloc());
    if (!packet || !frame) {
        throw std::bad_alloc();
    }
    auto allFull = [&] {
        return std::all_of(f.streams.begin(), f.streams.end(),
                           [](const StreamDecode& s) { return s.full; });
    };
    while (!(d.stop && allFull())) {
        const int rc = av_read_frame(f.format.get(), packet.get());
        if (rc == AVERROR_EOF) {
            break;
        }
        if (rc < 0) {
            throw TessarinError(Kind::emptySamples, d.fileName);
        }
        const int index = packet->stream_index;
        if (index >= 0 && index < static_cast<int>(f.decodeOfStream.size()) &&
            f.decodeOfStream[index] >= 0) {
            decodePacket(d, f.streams[static_cast<std::size_t>(f.decodeOfStream[index])],
                         packet.get(), frame.get());
        }
        av_packet_unref(packet.get());
    }
    for (auto& s : f.streams) {
        decodePacket(d, s, nullptr, frame.get());
        if (s.resampler) {
            resampleInto(d, s, nullptr, 0);
        }
    }
    averageOverlaps(d.mix, f.streams);
}

// The earliest start of the audio streams, in seconds of their timestamps; 0 when none states one.
double earliestStart(const OpenFile& f) {
    std::optional<double> earliest;
    for (const auto& s : f.streams) {
        const AVStream* st = f.format->streams[s.streamIndex];
        if (st->start_time != AV_NOPTS_VALUE) {
            const double start = static_cast<double>(st->start_time) * av_q2d(st->time_base);
            earliest = earliest ? std::min(*earliest, start) : start;
        }
    }
    return earliest.value_or(0.0);
}

// Decoding starts this long before a stretch: a decoder needs a few frames after a seek before
// its output is whole again (overlapped transforms, a bit reservoir).
constexpr double kSeekPreroll = 0.2;

} // namespace

std::vector<float> decodeMixedMono(const std::filesystem::path& path, int rateHz,
                                   const std::function<void(std::size_t)>& onLaid) {
    Decoding d;
    d.fileName = path.filename().string();
    d.rateHz = rateHz;
    d.onLaid = &onLaid;
    auto f = openFile(path, d.fileName);
    placeStreams(f.streams, f.format.get(), rateHz);
    d.maxSamples = sampleLimit(f.format.get(), rateHz);
    d.mix.reserve(reservationFor(f.format.get(), rateHz, d.maxSamples));
    decodeAll(d, f);
    return std::move(d.mix);
}

struct StretchDecoder::State {
    std::string fileName;
    int rateHz = 0;
    OpenFile file;
    double earliest = 0;
    bool fresh = true;
};

namespace {

// Whether every audio stream's timestamps advance by exactly its frames' samples, where the
// container indexes each packet and the codec has frames of one size. A whole decode lays samples
// one after another; a stretch is found by its timestamps; where an encoder wrote packets longer
// than the frames they hold, the two drift apart (by 11 ms in three minutes seen in the wild).
constexpr double kForgivenStamping = 2.0; // output samples

bool timestampsFollowSamples(const OpenFile& f, int rateHz) {
    for (const auto& s : f.streams) {
        AVStream* st = f.format->streams[s.streamIndex];
        const int entries = avformat_index_get_entries_count(st);
        const int frameSize = st->codecpar->frame_size;
        if (entries < 2 || frameSize <= 0 || st->codecpar->sample_rate <= 0) {
            continue;
        }
        const AVIndexEntry* first = avformat_index_get_entry(st, 0);
        const AVIndexEntry* last = avformat_index_get_entry(st, entries - 1);
        if (first == nullptr || last == nullptr) {
            continue;
        }
        const double stamped =
            static_cast<double>(last->timestamp - first->timestamp) * av_q2d(st->time_base);
        const double held =
            static_cast<double>(entries - 1) * frameSize / st->codecpar->sample_rate;
        // Encoders stretch the first packet by a few samples; that much is below what refining
        // can tell, and is forgiven.
        if (std::abs(stamped - held) > kForgivenStamping / rateHz) {
            return false;
        }
    }
    return true;
}

} // namespace

StretchDecoder::StretchDecoder(const std::filesystem::path& path, int rateHz)
    : state_(std::make_unique<State>()) {
    state_->fileName = path.filename().string();
    state_->rateHz = rateHz;
    state_->file = openFile(path, state_->fileName, false);
    state_->earliest = earliestStart(state_->file);
    if (!timestampsFollowSamples(state_->file, rateHz)) {
        throw TessarinError(Kind::readFailed, "seek");
    }
}

StretchDecoder::~StretchDecoder() = default;

std::vector<float> StretchDecoder::read(double fromSeconds, double seconds) {
    State& st = *state_;
    Decoding d;
    d.fileName = st.fileName;
    d.rateHz = st.rateHz;
    const double from = std::max(fromSeconds, 0.0);
    const auto wanted = static_cast<std::size_t>(std::max(seconds, 0.0) * st.rateHz);
    d.stop = wanted;
    d.maxSamples = wanted;
    d.originSeconds = st.earliest + from;
    // A file just opened stands at its start; otherwise every read seeks, to its start if need be.
    if (!st.fresh || from > kSeekPreroll) {
        const double seekTo = std::max(d.originSeconds - kSeekPreroll, st.earliest);
        const auto ts = static_cast<std::int64_t>(std::floor(seekTo * AV_TIME_BASE));
        if (avformat_seek_file(st.file.format.get(), -1, INT64_MIN, ts, ts, 0) < 0) {
            throw TessarinError(Kind::readFailed, "seek");
        }
    }
    st.fresh = false;
    for (auto& s : st.file.streams) {
        avcodec_flush_buffers(s.codec.get());
        s.resampler.reset();
        s.inRate = 0;
        s.inFormat = AV_SAMPLE_FMT_NONE;
        s.offset = 0;
        s.laid = 0;
        s.skip = 0;
        s.placed = false;
        s.full = false;
    }
    d.mix.reserve(wanted);
    decodeAll(d, st.file);
    return std::move(d.mix);
}

std::vector<float> resampleMono(std::span<const float> samples, int fromRateHz, int toRateHz) {
    FFmpeg::silenceLogs();
    if (fromRateHz <= 0 || toRateHz <= 0 || samples.size() > static_cast<std::size_t>(INT_MAX)) {
        throw TessarinError(Kind::readFailed, "resampler");
    }
    const AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
    auto swr = makeResampler(mono, AV_SAMPLE_FMT_FLT, fromRateHz, toRateHz);
    if (!swr) {
        throw TessarinError(Kind::readFailed, "resampler");
    }
    const auto count = static_cast<std::int64_t>(samples.size());
    std::vector<float> out(static_cast<std::size_t>(count * toRateHz / fromRateHz + 64));
    std::size_t made = 0;
    const auto* in = reinterpret_cast<const std::uint8_t*>(samples.data());
    int pending = static_cast<int>(count);
    // The first call takes all input; then the flush gives the filter's tail.
    for (;;) {
        if (out.size() - made < 64) {
            out.resize(out.size() + 4096);
        }
        auto* dst = reinterpret_cast<std::uint8_t*>(out.data() + made);
        const int room = static_cast<int>(std::min<std::size_t>(out.size() - made, INT_MAX));
        const int n = swr_convert(swr.get(), &dst, room, pending > 0 ? &in : nullptr, pending);
        if (n < 0) {
            throw TessarinError(Kind::readFailed, "resampler");
        }
        made += static_cast<std::size_t>(n);
        if (pending > 0) {
            pending = 0;
        } else if (n == 0) {
            break;
        }
    }
    out.resize(made);
    return out;
}

std::vector<std::string> unpinnedResamplerOptions() {
    const AVClass* cls = swr_get_class();
    auto offsetOf = [&](const char* name) {
        const AVOption* o = av_opt_find(&cls, name, nullptr, 0, AV_OPT_SEARCH_FAKE_OBJ);
        return o ? o->offset : -1;
    };
    std::set<int> pinned;
    for (const char* name : kFormatOptions) {
        pinned.insert(offsetOf(name));
    }
    for (const auto& o : kIntegerOptions) {
        pinned.insert(offsetOf(o.name));
    }
    for (const auto& o : kRealOptions) {
        pinned.insert(offsetOf(o.name));
    }
    std::vector<std::string> unpinned;
    for (const AVOption* o = nullptr; (o = av_opt_next(&cls, o));) {
        if (o->type == AV_OPT_TYPE_CONST || (o->flags & AV_OPT_FLAG_DEPRECATED)) {
            continue;
        }
        if (!pinned.count(o->offset)) {
            unpinned.emplace_back(o->name);
        }
    }
    return unpinned;
}

} // namespace MediaDecoder

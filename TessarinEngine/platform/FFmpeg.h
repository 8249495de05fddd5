#pragma once

// RAII owners of FFmpeg's objects. Every handle is adopted the moment it exists, so no failure path
// can leak one. Nothing outside platform/ includes FFmpeg's headers.

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
#include <libswresample/swresample.h>
}

#include <filesystem>
#include <mutex>
#include <string>
#include <variant>

namespace FFmpeg {

template <auto Free>
struct Deleter {
    template <class T>
    void operator()(T* p) const {
        Free(&p);
    }
};

// avformat_open_input frees the context itself on failure: adopt it only on success.
using FormatContext = std::unique_ptr<AVFormatContext, Deleter<avformat_close_input>>;
using CodecContext = std::unique_ptr<AVCodecContext, Deleter<avcodec_free_context>>;
using Resampler = std::unique_ptr<SwrContext, Deleter<swr_free>>;
using Frame = std::unique_ptr<AVFrame, Deleter<av_frame_free>>;
using Packet = std::unique_ptr<AVPacket, Deleter<av_packet_free>>;

// An owned copy of a channel layout; a custom layout holds a map that must be freed.
class ChannelLayout {
public:
    ChannelLayout() = default;
    explicit ChannelLayout(const AVChannelLayout& other) {
        av_channel_layout_copy(&layout_, &other);
    }
    ~ChannelLayout() { av_channel_layout_uninit(&layout_); }
    ChannelLayout(const ChannelLayout&) = delete;
    ChannelLayout& operator=(const ChannelLayout&) = delete;
    ChannelLayout(ChannelLayout&& other) noexcept : layout_(other.layout_) {
        other.layout_ = AVChannelLayout{};
    }
    ChannelLayout& operator=(ChannelLayout&& other) noexcept {
        if (this != &other) {
            av_channel_layout_uninit(&layout_);
            layout_ = other.layout_;
            other.layout_ = AVChannelLayout{};
        }
        return *this;
    }

    const AVChannelLayout& get() const { return layout_; }
    AVChannelLayout* out() { return &layout_; }

private:
    AVChannelLayout layout_{};
};

// FFmpeg's text for an error code.
inline std::string errorText(int code) {
    char buf[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, buf, sizeof buf);
    return buf;
}

// FFmpeg writes its own diagnostics to standard error, which carries our log lines; every caller
// runs this before its first FFmpeg call, and only the first call does anything.
inline void silenceLogs() {
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_level(AV_LOG_QUIET); });
}

// Opens a container as one local file and nothing else: every FFmpeg open of media goes through
// here. Only the file protocol is allowed, and the path is handed over as "file:" + path, so a
// colon in a name ("pipe:0.wav") is never read as a protocol. Only demuxers of self-contained
// containers are allowed (no playlists, concatenation lists, manifests or image sequences), and
// the opened container may open nothing else. With `bytes`, the container is read from that
// context instead and `path` only helps guess the format by its extension; without it, a path
// that is not a regular file is refused before anything opens it, so a FIFO cannot block.
// Returns the opened context, or the reason in words ("not a regular file" or FFmpeg's text).
// Thread-safe.
std::variant<FormatContext, std::string> openLocalMedia(const std::filesystem::path& path,
                                                        AVIOContext* bytes = nullptr);

} // namespace FFmpeg

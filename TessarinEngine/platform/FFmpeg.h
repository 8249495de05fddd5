#pragma once

// RAII owners of FFmpeg's objects. Every handle is adopted the moment it exists, so no failure path
// can leak one. Nothing outside platform/ includes FFmpeg's headers.

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libswresample/swresample.h>
}

#include <string>

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

// FFmpeg's text for an error code.
inline std::string errorText(int code) {
    char buf[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, buf, sizeof buf);
    return buf;
}

} // namespace FFmpeg

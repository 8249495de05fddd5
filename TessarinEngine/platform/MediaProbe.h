#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

// What libavformat says about a container: its streams and metadata, without decoding. Values
// are copied out, so nothing of FFmpeg outlives the call.
namespace MediaProbe {

enum class StreamKind { video, audio, other };

struct Stream {
    StreamKind kind = StreamKind::other;
    bool attachedPicture = false;        // cover art carried as a one-frame video stream
    std::string codec;                   // FFmpeg's codec name: "h264", "hevc", "aac", ...
    std::vector<std::uint8_t> extradata; // for H.264 and HEVC in MP4/MOV: the avcC/hvcC record
    int width = 0;
    int height = 0;
    // The 3x3 transform [a b u; c d v; x y w] in 16.16 fixed point (2.30 for the last column),
    // where the container has a non-identity one.
    std::optional<std::array<std::int32_t, 9>> displayMatrix;
    std::optional<double> frameRate; // average frame rate, else the real base rate
    int channels = 0;
    std::optional<double> duration; // seconds
    std::map<std::string, std::string> metadata;
};

struct Info {
    std::string formatName;         // e.g. "mov,mp4,m4a,3gp,3g2,mj2"
    std::optional<double> duration; // seconds
    std::map<std::string, std::string> metadata;
    std::vector<Stream> streams;
};

// Probes the container held in `bytes`. `name` is the file's name; its extension helps FFmpeg
// choose among formats. Nothing when FFmpeg recognises no format, or one that is not a
// self-contained container (see FFmpeg::openLocalMedia). Streams are read from the
// container's header; only formats whose header does not describe them are read further, with a
// bounded look-ahead. No other file or resource is ever opened. Thread-safe.
std::optional<Info> probe(std::span<const std::uint8_t> bytes, const std::string& name);

} // namespace MediaProbe

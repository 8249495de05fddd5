#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>

// The facts of a RED picture file that ingest needs, read from the start of the file without
// decoding any picture.
namespace R3DHeader {

struct Metadata {
    std::optional<double> recordFrameRate;
    std::optional<double> timeBase;
    std::optional<int> width;
    std::optional<int> height;
    std::optional<std::string> sidecarWAV;
    std::optional<std::string> edgeTimecode;
    std::optional<std::string> todTimecode;
    std::optional<std::string> model;
    std::optional<std::string> sensor;
    std::optional<std::string> bodySerial;
    std::optional<std::string> mediaSerial;
    std::optional<std::string> reel;
    std::optional<std::string> clipNumber;
    std::optional<std::string> firmware;
    std::optional<std::int64_t> audioSampleRate;
    std::optional<std::string> ownFilename;

    bool operator==(const Metadata&) const = default;
};

// How much of a file the header is read from.
constexpr std::size_t kHeaderBytes = 16384;

// The header of the file: one read of its first 16 KB. Nothing when the file is not a regular
// file, cannot be read, is no RED file, or names neither a frame rate, a sidecar nor a model.
// Never throws. Thread-safe.
std::optional<Metadata> read(const std::filesystem::path& url);

// The same over the first bytes of a file already in memory (any length; only the first 16 KB
// count). Never throws, whatever the bytes.
std::optional<Metadata> read(std::span<const std::uint8_t> bytes);

} // namespace R3DHeader

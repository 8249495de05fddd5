#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Builds QuickTime boxes and small movies byte by byte, including broken ones, for the readers'
// tests. Types are four bytes ("\xA9mak" included).
namespace QuickTimeWriter {

using Bytes = std::vector<std::uint8_t>;

Bytes be16(std::uint16_t v);
Bytes be32(std::uint32_t v);
Bytes be64(std::uint64_t v);
Bytes text(std::string_view s);
Bytes cat(std::initializer_list<Bytes> parts);

// A box with a 32-bit size.
Bytes box(std::string_view type, const Bytes& content);
// A box in the 64-bit size form (size field 1).
Bytes largeBox(std::string_view type, const Bytes& content);
// A box whose size field claims `claimedSize`, whatever its content.
Bytes boxClaiming(std::string_view type, std::uint32_t claimedSize, const Bytes& content);
// A box with version and flags 0 before its content.
Bytes fullBox(std::string_view type, const Bytes& content);

// A user-data string atom: length, language code, text.
Bytes userDataText(std::string_view type, std::string_view value, std::uint16_t language = 0);
// An item-list atom holding a UTF-8 "data" atom.
Bytes itemListText(std::string_view type, std::string_view value);

struct Track {
    std::string handler; // "tmcd", "meta", "vide", ...
    std::uint32_t timescale = 600;
    Bytes sampleEntry; // a whole sample description box
    std::vector<Bytes> samples;
    std::uint32_t sampleDuration = 600;
    std::uint32_t samplesPerChunk = 1;
    bool offsets64 = false; // co64 instead of stco
};

// "ftyp", an "mdat" holding every sample, and a "moov" with an mvhd of the given duration and
// one trak per track (the moov before the mdat when `moovFirst`). `moovExtra` is appended to the
// moov's children.
Bytes movie(const std::vector<Track>& tracks, std::uint32_t timescale, std::uint32_t duration,
            const Bytes& moovExtra = {}, bool moovFirst = false);

// A tmcd sample description with `frames` frames per second.
Bytes tmcdEntry(std::uint8_t frames);

struct MetadataKey {
    std::uint32_t localId = 1;
    std::string keyNamespace = "mdta";
    std::string key;
    std::uint32_t wellKnownType = 1; // 1 UTF-8, 2 UTF-16, 0 binary
};
// A mebx sample description declaring these keys.
Bytes mebxEntry(const std::vector<MetadataKey>& keys);
// A timed metadata sample: one item per (local id, value).
Bytes mebxSample(const std::vector<std::pair<std::uint32_t, Bytes>>& items);

} // namespace QuickTimeWriter

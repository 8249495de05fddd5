#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// The one reader of QuickTime/ISO media boxes (atoms). It works on bytes only: a mapped file or a
// fuzzer's buffer. Offsets inside the movie, such as chunk offsets, are offsets into that buffer.
namespace QuickTime {

using Bytes = std::span<const std::uint8_t>;

// A four-character code as the big-endian number of its bytes.
constexpr std::uint32_t fourcc(std::string_view code) {
    return static_cast<std::uint32_t>(static_cast<std::uint8_t>(code[0])) << 24 |
           static_cast<std::uint32_t>(static_cast<std::uint8_t>(code[1])) << 16 |
           static_cast<std::uint32_t>(static_cast<std::uint8_t>(code[2])) << 8 |
           static_cast<std::uint32_t>(static_cast<std::uint8_t>(code[3]));
}

struct Box {
    std::uint32_t type = 0;
    std::uint64_t offset = 0; // of the header within the walked bytes
    std::uint64_t size = 0;   // header and content
    Bytes content;
};

// Visits the boxes laid end to end in `bytes`, in order, until `visit` returns false. A box is a
// 32-bit big-endian size and a type; a size of 1 means a 64-bit size follows the type, and 0
// means the box runs to the end of `bytes`. The walk ends, without visiting it, at a box whose
// size is smaller than its header or runs past the end.
void forEachBox(Bytes bytes, const std::function<bool(const Box&)>& visit);

// The first box of this type among `bytes`' boxes, or nothing.
std::optional<Box> findBox(Bytes bytes, std::uint32_t type);

// What a maker's own short "Info" atom says of the camera, as the reader of device identity
// understands it: a make and, where it names one, a model; nothing for an Info atom it does not
// know.
struct MakeAndModel {
    std::string make;
    std::optional<std::string> model;
};
using InfoReader = std::function<std::optional<MakeAndModel>(std::string_view text)>;

// The make and model a camera wrote into the movie's atoms: the user-data and item-list atoms
// ("\xA9mak", "make", "\xA9mod") of moov/udta/meta/ilst down to nesting depth 5, and the short
// "Info" atoms that `info` understands. Make and model joined by a blank, or the one there is;
// nothing without either.
std::optional<std::string> readDeviceAtoms(Bytes file, const InfoReader& info = {});

// One track of the movie, with its sample tables unparsed.
struct Track {
    std::uint32_t handler = 0;      // media handler type: 'vide', 'soun', 'tmcd', 'meta', ...
    std::uint32_t timescale = 0;    // media time units per second
    std::vector<Box> sampleEntries; // the sample descriptions, in order (type = data format)
    Bytes stts, stsc, stsz, stco;   // table contents; empty where the track has none
    bool chunkOffsets64 = false;    // stco holds a co64 table
};

struct Movie {
    std::uint32_t timescale = 0;
    std::uint64_t duration = 0; // in movie time units
    std::vector<Track> tracks;  // in file order
};

// The first top-level moov box of the buffer, parsed; nothing without one.
std::optional<Movie> readMovie(Bytes file);

struct Sample {
    std::uint64_t index = 0;
    double time = 0;                    // decode time in seconds
    std::uint32_t descriptionIndex = 1; // 1-based index into the track's sample entries
    std::optional<Bytes> data;          // nothing where the sample lies outside the buffer
};

// Visits the track's samples in decode order until `visit` returns false or the tables end.
void forEachSample(const Track& track, Bytes file, const std::function<bool(const Sample&)>& visit);

// The start of the first timecode track: the frame number held in the first 4 bytes of its first
// sample and the frames per second ("number of frames") of its tmcd sample description.
struct TimecodeSample {
    std::uint32_t frameNumber = 0;
    std::uint8_t frameQuanta = 0;
};
std::optional<TimecodeSample> readTimecodeSample(const Movie& movie, Bytes file);

// One item of a timed metadata ('mebx') sample.
struct MetadataItem {
    std::string keyNamespace;               // e.g. "mdta"
    std::string key;                        // e.g. "com.apple.quicktime.camera.identifier"
    std::optional<std::string> stringValue; // for the text data types
    Bytes dataValue;                        // the raw value bytes
};

// The items of the timed metadata tracks, track after track, of the samples that start within
// the first `seconds` of the movie (at most the movie's duration), each sample's items in order.
std::vector<MetadataItem> readTimedMetadata(const Movie& movie, Bytes file, double seconds);

} // namespace QuickTime

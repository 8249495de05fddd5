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

inline Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

inline Bytes be16(std::uint16_t v) {
    return {static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v)};
}

inline Bytes be32(std::uint32_t v) {
    return cat({be16(static_cast<std::uint16_t>(v >> 16)), be16(static_cast<std::uint16_t>(v))});
}

inline Bytes be64(std::uint64_t v) {
    return cat({be32(static_cast<std::uint32_t>(v >> 32)), be32(static_cast<std::uint32_t>(v))});
}

inline Bytes text(std::string_view s) {
    return Bytes(s.begin(), s.end());
}

// A box with a 32-bit size.
inline Bytes box(std::string_view type, const Bytes& content) {
    return cat({be32(static_cast<std::uint32_t>(content.size() + 8)), text(type), content});
}

// A box with version and flags 0 before its content.
inline Bytes fullBox(std::string_view type, const Bytes& content) {
    return box(type, cat({be32(0), content}));
}

// A user-data string atom: length, language code, text.
inline Bytes userDataText(std::string_view type, std::string_view value,
                          std::uint16_t language = 0) {
    return box(type,
               cat({be16(static_cast<std::uint16_t>(value.size())), be16(language), text(value)}));
}

// A mebx sample description declaring each (local id, key in the "mdta" namespace, well-known
// type: 1 UTF-8, 2 UTF-16, 0 binary).
struct MetadataKey {
    std::uint32_t localId = 1;
    std::string key;
    std::uint32_t wellKnownType = 1;
};
inline Bytes mebxEntry(const std::vector<MetadataKey>& keys) {
    Bytes table;
    for (const auto& k : keys) {
        const Bytes keyd = box("keyd", cat({text("mdta"), text(k.key)}));
        const Bytes dtyp = box("dtyp", cat({be32(0), be32(k.wellKnownType)}));
        table = cat({table, be32(static_cast<std::uint32_t>(8 + keyd.size() + dtyp.size())),
                     be32(k.localId), keyd, dtyp});
    }
    return box("mebx", cat({Bytes(6, 0), be16(1), box("keys", table)}));
}

// A timed metadata sample: one item per (local id, value).
inline Bytes mebxSample(const std::vector<std::pair<std::uint32_t, Bytes>>& items) {
    Bytes out;
    for (const auto& [id, value] : items) {
        out = cat({out, be32(static_cast<std::uint32_t>(value.size() + 8)), be32(id), value});
    }
    return out;
}

struct Track {
    std::string handler; // "tmcd", "meta", "vide", ...
    Bytes sampleEntry;   // a whole sample description box
    std::vector<Bytes> samples;
    std::uint32_t timescale = 600;
    std::uint32_t sampleDuration = 600;
    std::uint32_t samplesPerChunk = 1;
    bool offsets64 = false; // co64 instead of stco
};

// The moov of `movie`, its sample offsets counted from `base`, where the mdat's content will
// start; its size does not depend on the offsets it holds.
inline Bytes moovBox(const std::vector<Track>& tracks, std::uint32_t duration,
                     const Bytes& moovExtra, std::uint64_t base, Bytes& mdatContent) {
    mdatContent.clear();
    Bytes traks;
    for (const auto& track : tracks) {
        const auto count = static_cast<std::uint32_t>(track.samples.size());
        Bytes sizes = cat({be32(0), be32(count)});
        Bytes offsets = be32((count + track.samplesPerChunk - 1) / track.samplesPerChunk);
        for (std::size_t s = 0; s < track.samples.size(); ++s) {
            if (s % track.samplesPerChunk == 0) {
                const std::uint64_t at = base + mdatContent.size();
                offsets = cat({offsets, track.offsets64 ? be64(at) : be32(std::uint32_t(at))});
            }
            mdatContent = cat({mdatContent, track.samples[s]});
            sizes = cat({sizes, be32(static_cast<std::uint32_t>(track.samples[s].size()))});
        }
        const Bytes stbl =
            box("stbl",
                cat({fullBox("stsd", cat({be32(1), track.sampleEntry})),
                     fullBox("stts", cat({be32(1), be32(count), be32(track.sampleDuration)})),
                     fullBox("stsc", cat({be32(1), be32(1), be32(track.samplesPerChunk), be32(1)})),
                     fullBox("stsz", sizes), fullBox(track.offsets64 ? "co64" : "stco", offsets)}));
        const Bytes mdhd = fullBox("mdhd", cat({be32(0), be32(0), be32(track.timescale),
                                                be32(count * track.sampleDuration), be32(0)}));
        const Bytes hdlr = fullBox("hdlr", cat({be32(0), text(track.handler), Bytes(12, 0)}));
        traks = cat({traks, box("trak", box("mdia", cat({mdhd, hdlr, box("minf", stbl)})))});
    }
    const Bytes mvhd =
        fullBox("mvhd", cat({be32(0), be32(0), be32(600), be32(duration), Bytes(80, 0)}));
    return box("moov", cat({mvhd, traks, moovExtra}));
}

// "ftyp", a "moov" with an mvhd of the given duration (timescale 600) and one trak per track, then
// an "mdat" holding every sample. `moovExtra` is appended to the moov's children.
inline Bytes movie(const std::vector<Track>& tracks, std::uint32_t duration,
                   const Bytes& moovExtra = {}) {
    const Bytes ftyp = box("ftyp", cat({text("qt  "), be32(0), text("qt  ")}));
    Bytes mdat;
    const std::size_t moovSize = moovBox(tracks, duration, moovExtra, 0, mdat).size();
    const Bytes moov = moovBox(tracks, duration, moovExtra, ftyp.size() + moovSize + 8, mdat);
    return cat({ftyp, moov, box("mdat", mdat)});
}

} // namespace QuickTimeWriter

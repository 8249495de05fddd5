#include "tests/support/QuickTimeWriter.h"

#include <stdexcept>

namespace QuickTimeWriter {

Bytes be16(std::uint16_t v) {
    return {static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v)};
}

Bytes be32(std::uint32_t v) {
    return {static_cast<std::uint8_t>(v >> 24), static_cast<std::uint8_t>(v >> 16),
            static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v)};
}

Bytes be64(std::uint64_t v) {
    return cat({be32(static_cast<std::uint32_t>(v >> 32)), be32(static_cast<std::uint32_t>(v))});
}

Bytes text(std::string_view s) {
    return Bytes(s.begin(), s.end());
}

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

namespace {

Bytes typeBytes(std::string_view type) {
    if (type.size() != 4) {
        throw std::invalid_argument("box type must have four bytes");
    }
    return text(type);
}

} // namespace

Bytes box(std::string_view type, const Bytes& content) {
    return cat({be32(static_cast<std::uint32_t>(content.size() + 8)), typeBytes(type), content});
}

Bytes largeBox(std::string_view type, const Bytes& content) {
    return cat({be32(1), typeBytes(type), be64(content.size() + 16), content});
}

Bytes boxClaiming(std::string_view type, std::uint32_t claimedSize, const Bytes& content) {
    return cat({be32(claimedSize), typeBytes(type), content});
}

Bytes fullBox(std::string_view type, const Bytes& content) {
    return box(type, cat({be32(0), content}));
}

Bytes userDataText(std::string_view type, std::string_view value, std::uint16_t language) {
    return box(type,
               cat({be16(static_cast<std::uint16_t>(value.size())), be16(language), text(value)}));
}

Bytes itemListText(std::string_view type, std::string_view value) {
    return box(type, box("data", cat({be32(1), be32(0), text(value)})));
}

Bytes tmcdEntry(std::uint8_t frames) {
    return box("tmcd", cat({Bytes(6, 0), be16(1), be32(0), be32(0), be32(frames), be32(1),
                            Bytes{frames, 0}}));
}

Bytes mebxEntry(const std::vector<MetadataKey>& keys) {
    Bytes table;
    for (const auto& k : keys) {
        const Bytes keyd = box("keyd", cat({text(k.keyNamespace), text(k.key)}));
        const Bytes dtyp = box("dtyp", cat({be32(0), be32(k.wellKnownType)}));
        const Bytes entry = cat({be32(static_cast<std::uint32_t>(8 + keyd.size() + dtyp.size())),
                                 be32(k.localId), keyd, dtyp});
        table.insert(table.end(), entry.begin(), entry.end());
    }
    return box("mebx", cat({Bytes(6, 0), be16(1), box("keys", table)}));
}

Bytes mebxSample(const std::vector<std::pair<std::uint32_t, Bytes>>& items) {
    Bytes out;
    for (const auto& [id, value] : items) {
        const Bytes item =
            cat({be32(static_cast<std::uint32_t>(value.size() + 8)), be32(id), value});
        out.insert(out.end(), item.begin(), item.end());
    }
    return out;
}

namespace {

Bytes moovBox(const std::vector<Track>& tracks, std::uint32_t timescale, std::uint32_t duration,
              const Bytes& moovExtra, std::uint64_t base, Bytes& mdatContent) {
    mdatContent.clear();
    std::vector<std::vector<std::uint64_t>> chunkOffsets(tracks.size());
    for (std::size_t t = 0; t < tracks.size(); ++t) {
        const auto& track = tracks[t];
        for (std::size_t s = 0; s < track.samples.size(); ++s) {
            if (s % track.samplesPerChunk == 0) {
                chunkOffsets[t].push_back(base + mdatContent.size());
            }
            mdatContent.insert(mdatContent.end(), track.samples[s].begin(), track.samples[s].end());
        }
    }

    Bytes traks;
    for (std::size_t t = 0; t < tracks.size(); ++t) {
        const auto& track = tracks[t];
        const auto count = static_cast<std::uint32_t>(track.samples.size());
        const Bytes stsd = fullBox("stsd", cat({be32(1), track.sampleEntry}));
        const Bytes stts = fullBox("stts", cat({be32(1), be32(count), be32(track.sampleDuration)}));
        const Bytes stsc =
            fullBox("stsc", cat({be32(1), be32(1), be32(track.samplesPerChunk), be32(1)}));
        Bytes sizes = cat({be32(0), be32(count)});
        for (const auto& sample : track.samples) {
            const Bytes size = be32(static_cast<std::uint32_t>(sample.size()));
            sizes.insert(sizes.end(), size.begin(), size.end());
        }
        const Bytes stsz = fullBox("stsz", sizes);
        Bytes offsets = be32(static_cast<std::uint32_t>(chunkOffsets[t].size()));
        for (auto off : chunkOffsets[t]) {
            const Bytes o = track.offsets64 ? be64(off) : be32(static_cast<std::uint32_t>(off));
            offsets.insert(offsets.end(), o.begin(), o.end());
        }
        const Bytes stco = fullBox(track.offsets64 ? "co64" : "stco", offsets);
        const Bytes stbl = box("stbl", cat({stsd, stts, stsc, stsz, stco}));
        const Bytes mdhd = fullBox("mdhd", cat({be32(0), be32(0), be32(track.timescale),
                                                be32(count * track.sampleDuration), be32(0)}));
        const Bytes hdlr = fullBox("hdlr", cat({be32(0), text(track.handler), Bytes(12, 0)}));
        const Bytes mdia = box("mdia", cat({mdhd, hdlr, box("minf", stbl)}));
        const Bytes trak = box("trak", mdia);
        traks.insert(traks.end(), trak.begin(), trak.end());
    }
    const Bytes mvhd =
        fullBox("mvhd", cat({be32(0), be32(0), be32(timescale), be32(duration), Bytes(80, 0)}));
    return box("moov", cat({mvhd, traks, moovExtra}));
}

} // namespace

Bytes movie(const std::vector<Track>& tracks, std::uint32_t timescale, std::uint32_t duration,
            const Bytes& moovExtra, bool moovFirst) {
    const Bytes ftyp = box("ftyp", cat({text("qt  "), be32(0), text("qt  ")}));
    Bytes mdatContent;
    // Sample offsets count from the file's start: ftyp, the moov when it comes first (whose size
    // does not depend on the offsets it holds), then the mdat's 8-byte header.
    std::uint64_t base = ftyp.size() + 8;
    if (moovFirst) {
        base += moovBox(tracks, timescale, duration, moovExtra, 0, mdatContent).size();
    }
    const Bytes moov = moovBox(tracks, timescale, duration, moovExtra, base, mdatContent);
    const Bytes mdat = box("mdat", mdatContent);
    return moovFirst ? cat({ftyp, moov, mdat}) : cat({ftyp, mdat, moov});
}

} // namespace QuickTimeWriter

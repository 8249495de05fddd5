#include "TessarinEngine/platform/QuickTime.h"

#include "TessarinEngine/platform/Text.h"
#include "TessarinEngine/platform/Unicode.h"

#include <algorithm>
#include <map>

namespace QuickTime {

namespace {

std::uint32_t be32(Bytes b, std::size_t at) {
    return static_cast<std::uint32_t>(b[at]) << 24 | static_cast<std::uint32_t>(b[at + 1]) << 16 |
           static_cast<std::uint32_t>(b[at + 2]) << 8 | static_cast<std::uint32_t>(b[at + 3]);
}

std::uint64_t be64(Bytes b, std::size_t at) {
    return static_cast<std::uint64_t>(be32(b, at)) << 32 | be32(b, at + 4);
}

// The bytes after a full box's version and flags.
Bytes afterVersion(Bytes content) {
    return content.size() >= 4 ? content.subspan(4) : Bytes{};
}

std::optional<Bytes> childContent(Bytes bytes, std::uint32_t type) {
    if (auto box = findBox(bytes, type)) {
        return box->content;
    }
    return std::nullopt;
}

// Text of an atom the way cameras write make and model: a user-data string (length and language
// code before the text), or an item-list atom holding a "data" atom (type and locale before the
// value). Whatever binary bytes are left over are control characters, which are dropped.
std::string cleanAtomText(Bytes content) {
    constexpr std::size_t kMaxBytes = 256;
    Bytes head = content.first(std::min(content.size(), kMaxBytes));
    const std::string_view view(reinterpret_cast<const char*>(head.data()), head.size());
    if (head.size() >= 4 &&
        static_cast<std::size_t>(head[0] << 8 | head[1]) == content.size() - 4) {
        // The length matches: a user-data string. Its language code is no control character
        // ("und" packs to 0x55C4), and a length of 32 or more is printable, so the header is
        // cut rather than cleaned; a "data" inside the text is text.
        head = head.subspan(4);
    } else if (const auto at = view.find("data"); at != std::string_view::npos) {
        // The value starts after the tag, the 4-byte type and the 4-byte locale.
        head = at + 12 <= head.size() ? head.subspan(at + 12) : Bytes{};
    }
    const std::string_view text(reinterpret_cast<const char*>(head.data()), head.size());
    return Unicode::trimWhitespace(Unicode::dropControls(text));
}

struct DeviceScan {
    const InfoReader& info;
    std::optional<std::string> make;
    std::optional<std::string> model;

    void scan(Bytes bytes, int depth) {
        constexpr int kMaxDepth = 5;
        if (depth > kMaxDepth || model) {
            return;
        }
        forEachBox(bytes, [&](const Box& box) {
            visit(box, depth);
            return true;
        });
    }

    void visit(const Box& box, int depth) {
        constexpr std::uint32_t kMak = 0xA96D616B; // "\xA9mak"
        constexpr std::uint32_t kMod = 0xA96D6F64; // "\xA9mod"
        switch (box.type) {
        case fourcc("moov"):
        case fourcc("udta"):
        case fourcc("ilst"):
            scan(box.content, depth + 1);
            return;
        case fourcc("meta"):
            scan(afterVersion(box.content), depth + 1);
            return;
        case kMak:
        case fourcc("make"):
            if (auto text = cleanAtomText(box.content); !text.empty()) {
                make = std::move(text);
            }
            return;
        case kMod:
            if (auto text = cleanAtomText(box.content); !text.empty()) {
                model = std::move(text);
            }
            return;
        case fourcc("Info"):
            if (box.size < 256 && info) {
                if (auto named = info(cleanAtomText(box.content))) {
                    make = std::move(named->make);
                    if (named->model) {
                        model = std::move(named->model);
                    }
                }
            }
            return;
        default:
            return;
        }
    }
};

std::optional<Track> readTrack(Bytes trak) {
    auto mdia = childContent(trak, fourcc("mdia"));
    if (!mdia) {
        return std::nullopt;
    }
    Track track;
    if (auto hdlr = childContent(*mdia, fourcc("hdlr")); hdlr && hdlr->size() >= 12) {
        track.handler = be32(*hdlr, 8);
    }
    if (auto mdhd = childContent(*mdia, fourcc("mdhd")); mdhd && !mdhd->empty()) {
        const std::size_t at = (*mdhd)[0] == 1 ? 20 : 12;
        if (mdhd->size() >= at + 4) {
            track.timescale = be32(*mdhd, at);
        }
    }
    auto minf = childContent(*mdia, fourcc("minf"));
    auto stbl = minf ? childContent(*minf, fourcc("stbl")) : std::nullopt;
    if (!stbl) {
        return track;
    }
    if (auto stsd = childContent(*stbl, fourcc("stsd")); stsd && stsd->size() >= 8) {
        const std::uint32_t count = be32(*stsd, 4);
        forEachBox(stsd->subspan(8), [&](const Box& entry) {
            track.sampleEntries.push_back(entry);
            return track.sampleEntries.size() < count;
        });
    }
    track.stts = childContent(*stbl, fourcc("stts")).value_or(Bytes{});
    track.stsc = childContent(*stbl, fourcc("stsc")).value_or(Bytes{});
    track.stsz = childContent(*stbl, fourcc("stsz")).value_or(Bytes{});
    if (auto stco = childContent(*stbl, fourcc("stco"))) {
        track.stco = *stco;
    } else if (auto co64 = childContent(*stbl, fourcc("co64"))) {
        track.stco = *co64;
        track.chunkOffsets64 = true;
    }
    return track;
}

// The number of fixed-size entries a table says it has, held to what its bytes can carry.
std::uint64_t entryCount(Bytes table, std::size_t countAt, std::size_t entrySize) {
    if (table.size() < countAt + 4) {
        return 0;
    }
    const std::uint64_t room = (table.size() - countAt - 4) / entrySize;
    return std::min<std::uint64_t>(be32(table, countAt), room);
}

struct MetadataKey {
    std::string keyNamespace;
    std::string key;
    std::optional<std::uint32_t> wellKnownType;
};

std::string fourccText(std::uint32_t code) {
    const std::uint8_t bytes[4] = {
        static_cast<std::uint8_t>(code >> 24), static_cast<std::uint8_t>(code >> 16),
        static_cast<std::uint8_t>(code >> 8), static_cast<std::uint8_t>(code)};
    return Unicode::fromUtf8OrLatin1(bytes);
}

// The key table of a 'mebx' sample description: local key id to key.
std::map<std::uint32_t, MetadataKey> readMetadataKeys(const Box& entry) {
    std::map<std::uint32_t, MetadataKey> keys;
    // A sample entry starts with 6 reserved bytes and a data reference index.
    if (entry.content.size() < 8) {
        return keys;
    }
    auto table = childContent(entry.content.subspan(8), fourcc("keys"));
    if (!table) {
        return keys;
    }
    forEachBox(*table, [&](const Box& keyBox) {
        MetadataKey key;
        if (auto keyd = childContent(keyBox.content, fourcc("keyd")); keyd && keyd->size() >= 4) {
            key.keyNamespace = fourccText(be32(*keyd, 0));
            key.key = Unicode::fromUtf8OrLatin1(keyd->subspan(4));
        }
        if (auto dtyp = childContent(keyBox.content, fourcc("dtyp"));
            dtyp && dtyp->size() >= 8 && be32(*dtyp, 0) == 0) {
            key.wellKnownType = be32(*dtyp, 4);
        }
        keys.emplace(keyBox.type, std::move(key));
        return true;
    });
    return keys;
}

std::optional<std::string> stringValue(const MetadataKey& key, Bytes value) {
    if (!key.wellKnownType) {
        return std::nullopt;
    }
    // Well-known types 1 and 4 are UTF-8, 2 and 5 UTF-16 (the sort forms alike).
    switch (*key.wellKnownType) {
    case 1:
    case 4:
        return Text::repairUtf8(
            std::string_view(reinterpret_cast<const char*>(value.data()), value.size()));
    case 2:
    case 5:
        return Unicode::fromUtf16BigEndian(value);
    default:
        return std::nullopt;
    }
}

} // namespace

void forEachBox(Bytes bytes, const std::function<bool(const Box&)>& visit) {
    std::uint64_t offset = 0;
    while (offset + 8 <= bytes.size()) {
        const std::uint64_t remaining = bytes.size() - offset;
        std::uint64_t size = be32(bytes, offset);
        std::uint64_t header = 8;
        if (size == 1) {
            if (remaining < 16) {
                return;
            }
            size = be64(bytes, offset + 8);
            header = 16;
        } else if (size == 0) {
            size = remaining;
        }
        if (size < header || size > remaining) {
            return;
        }
        Box box;
        box.type = be32(bytes, offset + 4);
        box.offset = offset;
        box.size = size;
        box.content = bytes.subspan(offset + header, size - header);
        if (!visit(box)) {
            return;
        }
        offset += size;
    }
}

std::optional<Box> findBox(Bytes bytes, std::uint32_t type) {
    std::optional<Box> found;
    forEachBox(bytes, [&](const Box& box) {
        if (box.type == type) {
            found = box;
            return false;
        }
        return true;
    });
    return found;
}

std::optional<std::string> readDeviceAtoms(Bytes file, const InfoReader& info) {
    DeviceScan scan{info, {}, {}};
    scan.scan(file, 0);
    if (scan.make && scan.model) {
        return *scan.make + " " + *scan.model;
    }
    if (scan.model) {
        return scan.model;
    }
    return scan.make;
}

std::optional<Movie> readMovie(Bytes file) {
    auto moov = childContent(file, fourcc("moov"));
    if (!moov) {
        return std::nullopt;
    }
    Movie movie;
    if (auto mvhd = childContent(*moov, fourcc("mvhd")); mvhd && !mvhd->empty()) {
        const bool wide = (*mvhd)[0] == 1;
        const std::size_t at = wide ? 20 : 12;
        if (mvhd->size() >= at + (wide ? 12 : 8)) {
            movie.timescale = be32(*mvhd, at);
            movie.duration = wide ? be64(*mvhd, at + 4) : be32(*mvhd, at + 4);
        }
    }
    forEachBox(*moov, [&](const Box& box) {
        if (box.type == fourcc("trak")) {
            if (auto track = readTrack(box.content)) {
                movie.tracks.push_back(std::move(*track));
            }
        }
        return true;
    });
    return movie;
}

void forEachSample(const Track& track, Bytes file,
                   const std::function<bool(const Sample&)>& visit) {
    if (track.stsz.size() < 12) {
        return;
    }
    const std::uint32_t uniformSize = be32(track.stsz, 4);
    const std::uint64_t sampleCount =
        uniformSize != 0 ? be32(track.stsz, 8) : entryCount(track.stsz, 8, 4);
    const std::size_t offsetSize = track.chunkOffsets64 ? 8 : 4;
    const std::uint64_t chunkCount = entryCount(track.stco, 4, offsetSize);
    const std::uint64_t stscCount = entryCount(track.stsc, 4, 12);
    const std::uint64_t sttsCount = entryCount(track.stts, 4, 8);

    std::uint64_t sampleIndex = 0;
    std::uint64_t ticks = 0;
    std::uint64_t sttsEntry = 0;
    std::uint64_t sttsLeft = sttsCount > 0 ? be32(track.stts, 8) : 0;

    for (std::uint64_t e = 0; e < stscCount && sampleIndex < sampleCount; ++e) {
        const std::size_t at = 8 + e * 12;
        const std::uint64_t firstChunk = be32(track.stsc, at);
        const std::uint64_t perChunk = be32(track.stsc, at + 4);
        const std::uint32_t description = be32(track.stsc, at + 8);
        const std::uint64_t nextFirst =
            e + 1 < stscCount ? be32(track.stsc, at + 12) : chunkCount + 1;
        // Chunks are numbered from 1 and the runs must rise; anything else is a broken table.
        if (firstChunk == 0 || nextFirst <= firstChunk) {
            return;
        }
        for (std::uint64_t chunk = firstChunk;
             chunk < nextFirst && chunk <= chunkCount && sampleIndex < sampleCount; ++chunk) {
            const std::size_t slot = 8 + (chunk - 1) * offsetSize;
            std::uint64_t offset =
                track.chunkOffsets64 ? be64(track.stco, slot) : be32(track.stco, slot);
            for (std::uint64_t s = 0; s < perChunk && sampleIndex < sampleCount; ++s) {
                const std::uint64_t size =
                    uniformSize != 0 ? uniformSize : be32(track.stsz, 12 + sampleIndex * 4);
                Sample sample;
                sample.index = sampleIndex;
                sample.time =
                    track.timescale > 0 ? static_cast<double>(ticks) / track.timescale : 0.0;
                sample.descriptionIndex = description;
                if (offset <= file.size() && size <= file.size() - offset) {
                    sample.data = file.subspan(offset, size);
                }
                if (!visit(sample)) {
                    return;
                }
                offset += size;
                ++sampleIndex;
                while (sttsLeft == 0 && sttsEntry + 1 < sttsCount) {
                    ++sttsEntry;
                    sttsLeft = be32(track.stts, 8 + sttsEntry * 8);
                }
                if (sttsLeft > 0) {
                    ticks += be32(track.stts, 8 + sttsEntry * 8 + 4);
                    --sttsLeft;
                }
            }
        }
    }
}

std::optional<TimecodeSample> readTimecodeSample(const Movie& movie, Bytes file) {
    auto track = std::find_if(movie.tracks.begin(), movie.tracks.end(),
                              [](const Track& t) { return t.handler == fourcc("tmcd"); });
    if (track == movie.tracks.end() || track->sampleEntries.empty() ||
        track->sampleEntries.front().type != fourcc("tmcd")) {
        return std::nullopt;
    }
    // tmcd description: reserved and data reference index (8), reserved (4), flags (4),
    // timescale (4), frame duration (4), then the number of frames.
    const Bytes description = track->sampleEntries.front().content;
    if (description.size() < 25) {
        return std::nullopt;
    }
    std::optional<TimecodeSample> result;
    forEachSample(*track, file, [&](const Sample& sample) {
        if (sample.data && sample.data->size() >= 4) {
            result = TimecodeSample{be32(*sample.data, 0), description[24]};
        }
        return false;
    });
    return result;
}

std::vector<MetadataItem> readTimedMetadata(const Movie& movie, Bytes file, double seconds) {
    // Past this many items a track is not honest metadata; stop rather than fill memory.
    constexpr std::size_t kMaxItems = 4096;
    std::vector<MetadataItem> items;
    double end = seconds;
    if (movie.timescale > 0) {
        end = std::min(end, static_cast<double>(movie.duration) / movie.timescale);
    }
    for (const Track& track : movie.tracks) {
        if (track.handler != fourcc("meta")) {
            continue;
        }
        std::vector<std::map<std::uint32_t, MetadataKey>> keys;
        for (const Box& entry : track.sampleEntries) {
            keys.push_back(entry.type == fourcc("mebx") ? readMetadataKeys(entry)
                                                        : std::map<std::uint32_t, MetadataKey>{});
        }
        forEachSample(track, file, [&](const Sample& sample) {
            if (sample.time >= end || items.size() >= kMaxItems) {
                return false;
            }
            if (!sample.data || sample.descriptionIndex == 0 ||
                sample.descriptionIndex > keys.size()) {
                return true;
            }
            const auto& table = keys[sample.descriptionIndex - 1];
            forEachBox(*sample.data, [&](const Box& item) {
                auto key = table.find(item.type);
                if (key != table.end()) {
                    items.push_back({key->second.keyNamespace, key->second.key,
                                     stringValue(key->second, item.content), item.content});
                }
                return items.size() < kMaxItems;
            });
            return true;
        });
    }
    return items;
}

} // namespace QuickTime

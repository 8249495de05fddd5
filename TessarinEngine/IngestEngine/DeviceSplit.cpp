#include "TessarinEngine/EngineLog.h"
#include "TessarinEngine/IngestEngine.h"
#include "TessarinEngine/IngestEngine/Helpers.h"
#include "TessarinEngine/platform/Regex.h"

#include <charconv>
#include <map>
#include <sstream>

using namespace IngestHelpers;

namespace {

// Below this many clips a folder is small enough that every device key may stand as a track.
constexpr std::size_t kMinClipsForFolding = 20;
// Keys with fewer clips are noise in the metadata of a large folder rather than devices.
constexpr std::size_t kSmallKeyClips = 3;
constexpr std::size_t kLargestKeysKept = 8;

bool isCodecFingerprint(const std::string& deviceName) {
    return deviceName.starts_with("cam_");
}

// The device key of a clip, or nothing for a clip without a usable device name.
std::optional<std::string> deviceKey(const ClipItem& clip) {
    if (!clip.deviceName || isCodecFingerprint(*clip.deviceName)) {
        return std::nullopt;
    }
    return IngestEngine::normalizeDeviceKey(*clip.deviceName);
}

// Clip indices by device key, keys in the order they were first met, which fixes the order among
// keys of equal size.
struct KeyedClips {
    std::vector<std::string> keys;
    std::map<std::string, std::vector<std::size_t>> clips;
    std::map<std::string, std::string> spelling;

    void add(const std::string& key, std::size_t ci, const std::string& deviceName) {
        auto [it, fresh] = clips.try_emplace(key);
        if (fresh) {
            keys.push_back(key);
            spelling[key] = deviceName;
        }
        it->second.push_back(ci);
    }
    std::size_t count(const std::string& key) const { return clips.at(key).size(); }
    // Moves the clips of a key to `to` and forgets the key.
    void dissolve(const std::string& key, std::vector<std::size_t>& to) {
        const auto& moved = clips.at(key);
        to.insert(to.end(), moved.begin(), moved.end());
        clips.erase(key);
        spelling.erase(key);
        std::erase(keys, key);
    }
    std::vector<std::string> largestFirst() const {
        std::vector<std::string> out = keys;
        std::stable_sort(out.begin(), out.end(), [&](const std::string& a, const std::string& b) {
            return count(a) > count(b);
        });
        return out;
    }
};

bool allInOneFolder(const TrackSource& track) {
    return std::all_of(track.clips.begin(), track.clips.end(), [&](const ClipItem& c) {
        return c.url.parent_path() == track.clips.front().url.parent_path();
    });
}

// Unkeyed clips join the key of a keyed clip with the same file-name prefix: the camera that
// wrote A001C004 also wrote A001C005, even if the reader found no device name in the latter.
void adoptByPrefix(const std::vector<ClipItem>& clips, KeyedClips& byKey,
                   std::vector<std::size_t>& unkeyed) {
    std::map<std::string, std::string> keyOfPrefix;
    for (const auto& key : byKey.keys) {
        for (auto ci : byKey.clips.at(key)) {
            if (auto numeric = IngestEngine::clipNumericKey(clips[ci].url)) {
                keyOfPrefix.try_emplace(numeric->prefix, key);
            }
        }
    }
    std::vector<std::size_t> left;
    for (auto ci : unkeyed) {
        const auto numeric = IngestEngine::clipNumericKey(clips[ci].url);
        const auto partner = numeric ? keyOfPrefix.find(numeric->prefix) : keyOfPrefix.end();
        if (partner != keyOfPrefix.end()) {
            byKey.clips.at(partner->second).push_back(ci);
        } else {
            left.push_back(ci);
        }
    }
    unkeyed = std::move(left);
}

} // namespace

std::string IngestEngine::normalizeDeviceKey(std::string_view name) {
    static const Regex::Pattern digitalCamera("DIGITAL CAMERA");
    static const Regex::Pattern separators("[^A-Z0-9]+");
    std::string text = Collation::uppercased(name);
    text = digitalCamera.replaceAll(text, " ");
    text = separators.replaceAll(text, " ");

    std::vector<std::string> words;
    std::istringstream in(text);
    for (std::string word; in >> word;) {
        words.push_back(word);
    }
    // Serial numbers at the end tell bodies of one model apart, which must fall on one key.
    while (!words.empty() && words.back().size() >= 5 &&
           std::all_of(words.back().begin(), words.back().end(),
                       [](char c) { return c >= '0' && c <= '9'; })) {
        words.pop_back();
    }
    std::string out;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (i > 0 && words[i] == words[i - 1]) {
            continue;
        }
        if (!out.empty()) {
            out += ' ';
        }
        out += words[i];
    }
    return out;
}

std::optional<std::string> IngestEngine::trackDeviceLabel(const std::vector<ClipItem>& clips) {
    std::vector<std::string> keys;
    std::map<std::string, std::size_t> counts;
    std::map<std::string, std::string> spelling;
    for (const auto& clip : clips) {
        if (!clip.deviceName || clip.deviceName->empty() || isCodecFingerprint(*clip.deviceName)) {
            continue;
        }
        const std::string key = normalizeDeviceKey(*clip.deviceName);
        if (key.empty()) {
            continue;
        }
        if (counts[key]++ == 0) {
            keys.push_back(key);
            spelling[key] = *clip.deviceName;
        }
    }
    if (keys.empty()) {
        return std::nullopt;
    }
    std::string best = keys.front();
    for (const auto& key : keys) {
        if (counts[key] > counts[best]) {
            best = key;
        }
    }
    return spelling[best];
}

std::optional<IngestEngine::NumericKey>
IngestEngine::clipNumericKey(const std::filesystem::path& url) {
    const std::string name = baseName(url);
    std::size_t split = name.size();
    while (split > 0 && name[split - 1] >= '0' && name[split - 1] <= '9') {
        --split;
    }
    if (split == 0 || split == name.size()) {
        return std::nullopt;
    }
    NumericKey key{name.substr(0, split), 0};
    const auto [end, error] =
        std::from_chars(name.data() + split, name.data() + name.size(), key.num);
    if (error != std::errc() || end != name.data() + name.size()) {
        return std::nullopt;
    }
    return key;
}

std::vector<TrackSource> IngestEngine::splitSourcesByDevice(std::vector<TrackSource> sources) {
    std::vector<TrackSource> out;
    for (auto& track : sources) {
        // A RED take's grouping is fixed by its card, and recorders write all their channels into
        // one folder: such tracks stay whole.
        if (track.lockedGrouping || (track.type == SourceType::audio && allInOneFolder(track))) {
            if (!track.deviceName) {
                track.deviceName = trackDeviceLabel(track.clips);
            }
            out.push_back(std::move(track));
            continue;
        }

        KeyedClips byKey;
        std::vector<std::size_t> unkeyed;
        for (std::size_t ci = 0; ci < track.clips.size(); ++ci) {
            if (auto key = deviceKey(track.clips[ci])) {
                byKey.add(*key, ci, *track.clips[ci].deviceName);
            } else {
                unkeyed.push_back(ci);
            }
        }
        if (!unkeyed.empty() && !byKey.keys.empty()) {
            adoptByPrefix(track.clips, byKey, unkeyed);
        }

        if (byKey.keys.size() > 1 && track.clips.size() >= kMinClipsForFolding) {
            std::vector<std::string> small;
            for (const auto& key : byKey.keys) {
                if (byKey.count(key) < kSmallKeyClips) {
                    small.push_back(key);
                }
            }
            if (!small.empty() && small.size() < byKey.keys.size()) {
                for (const auto& key : small) {
                    byKey.dissolve(key, unkeyed);
                }
                EngineLog::log("[Ingest] device-split '" + track.name +
                               "': " + std::to_string(small.size()) +
                               " device key(s) with fewer than 3 clips folded into '(other)'");
            }
        }

        if (byKey.keys.size() <= 1 && (byKey.keys.empty() || unkeyed.empty())) {
            track.deviceName = byKey.keys.empty()
                                   ? std::nullopt
                                   : std::optional(byKey.spelling.at(byKey.keys.front()));
            out.push_back(std::move(track));
            continue;
        }

        if (byKey.keys.size() > kLargestKeysKept) {
            const std::size_t before = byKey.keys.size();
            const auto ranked = byKey.largestFirst();
            for (std::size_t i = kLargestKeysKept; i < ranked.size(); ++i) {
                byKey.dissolve(ranked[i], unkeyed);
            }
            EngineLog::log("[Ingest] device-split '" + track.name + "': " + std::to_string(before) +
                           " device keys — keeping the 8 largest as tracks, the rest in '(other)'. "
                           "Check this folder by hand: select clips and press N to move them to "
                           "their own track.");
        }

        struct Group {
            std::optional<std::string> label;
            std::vector<ClipItem> clips;
        };
        auto clipsAt = [&](const std::vector<std::size_t>& indices) {
            std::vector<ClipItem> clips;
            clips.reserve(indices.size());
            for (auto ci : indices) {
                clips.push_back(std::move(track.clips[ci]));
            }
            return clips;
        };
        std::vector<Group> groups;
        for (const auto& key : byKey.largestFirst()) {
            groups.push_back({byKey.spelling.at(key), clipsAt(byKey.clips.at(key))});
        }
        if (!unkeyed.empty()) {
            groups.push_back({std::nullopt, clipsAt(unkeyed)});
        }
        std::string summary;
        for (auto& g : groups) {
            sortChronologically(g.clips, [](const ClipItem& c) { return c.url; });
            summary += (summary.empty() ? "" : ", ") + g.label.value_or("other") + "=" +
                       std::to_string(g.clips.size());
        }
        EngineLog::log("[Ingest] device-split '" + track.name + "': " + summary);

        for (auto& g : groups) {
            std::vector<std::string> names;
            for (const auto& t : out) {
                names.push_back(t.name);
            }
            TrackSource part;
            part.name = uniqueName(g.label ? *g.label : track.name + " (other)", track.type, names);
            part.type = track.type;
            part.session = track.session;
            part.deviceName = g.label;
            part.clips = std::move(g.clips);
            out.push_back(recomputeOffsets(std::move(part)));
        }
    }

    for (auto& track : out) {
        track.type = inferredType(track.clips);
        if (auto label = trackDeviceLabel(track.clips)) {
            track.deviceName = label;
        } else if (track.deviceName && isCodecFingerprint(*track.deviceName)) {
            track.deviceName = std::nullopt;
        }
    }
    return out;
}

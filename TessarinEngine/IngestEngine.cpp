#include "TessarinEngine/IngestEngine.h"

#include "TessarinEngine/EngineLog.h"
#include "TessarinEngine/IngestEngine/Helpers.h"
#include "TessarinEngine/REDCard.h"
#include "TessarinEngine/platform/Files.h"
#include "TessarinEngine/platform/Regex.h"
#include "TessarinEngine/platform/Text.h"

#include <array>
#include <cstdio>
#include <map>
#include <unordered_set>

namespace fs = std::filesystem;

namespace IngestHelpers {

fs::path withoutTrailingSeparator(const fs::path& p) {
    std::string s = p.string();
    while (s.size() > 1 && s.back() == '/') {
        s.pop_back();
    }
    return s;
}

std::string fileName(const fs::path& p) {
    return withoutTrailingSeparator(p).filename().string();
}

std::string baseName(const fs::path& p) {
    return withoutTrailingSeparator(p).stem().string();
}

bool isVideoExtension(const std::string& lowerExt) {
    static const std::array<std::string_view, 9> kVideo = {"mov",  "mp4", "m4v", "mxf", "r3d",
                                                           "braw", "ari", "arx", "crm"};
    return std::find(kVideo.begin(), kVideo.end(), lowerExt) != kVideo.end();
}

bool isAudioExtension(const std::string& lowerExt) {
    static const std::array<std::string_view, 5> kAudio = {"wav", "mp3", "aiff", "aif", "m4a"};
    return std::find(kAudio.begin(), kAudio.end(), lowerExt) != kAudio.end();
}

namespace {

// The name that decides a file's place. A chapter file is named as its recording, then its
// chapter ("GX020045" sorts as "GX004501"), so that a recording's chapters stay together instead
// of interleaving with the next recording's; every other name is itself. Sorting by this key
// keeps the order a strict weak one, as no pair of names is compared by a rule of its own.
std::string orderName(const fs::path& p, const std::string& name) {
    const auto chapter = IngestEngine::chapterName(p);
    if (!chapter) {
        return name;
    }
    char key[32];
    std::snprintf(key, sizeof key, "%s%04d%02d", chapter->prefix.c_str(), chapter->recording,
                  chapter->chapter);
    return key + withoutTrailingSeparator(p).extension().string();
}

} // namespace

OrderKey::OrderKey(fs::path p)
    : path_(std::move(p)), name_(fileName(path_)),
      key_(Collation::sortKey(orderName(path_, name_))) {}

const std::optional<Date>& OrderKey::date() const {
    if (!date_) {
        date_ = Files::creationDate(path_);
    }
    return *date_;
}

bool OrderKey::before(const OrderKey& other) const {
    if (key_ != other.key_) {
        return key_ < other.key_;
    }
    // The same name in two folders: the file made first goes first.
    if (date() && other.date()) {
        return *date() < *other.date();
    }
    return name_ < other.name_;
}

} // namespace IngestHelpers

using namespace IngestHelpers;

namespace {

constexpr std::size_t kNameCharacters = 40;

bool isForbiddenName(const std::string& lower) {
    static const std::array<std::string_view, 7> kForbidden = {
        "desktop", "downloads", "documents", "movies", "music", "videos", "media"};
    return std::find(kForbidden.begin(), kForbidden.end(), lower) != kForbidden.end();
}

const Regex::Pattern& clipFolderPattern() {
    static const Regex::Pattern pattern("^clips?\\s*\\d*$");
    return pattern;
}

// Map keys for folders, so that "a//b" and "a/b" meet.
std::string folderKey(const fs::path& p) {
    return withoutTrailingSeparator(p.lexically_normal()).string();
}

void logSkippedName(const fs::path& p) {
    EngineLog::log("[Ingest] skipped a file whose name is not valid UTF-8: " +
                   Text::repairUtf8(p.string()));
}

struct Kinds {
    bool video = false;
    bool audio = false;
};

Kinds kinds(const std::vector<fs::path>& files, const std::map<std::string, REDCard::Take>& takes) {
    Kinds k;
    for (const auto& f : files) {
        const bool isTake = takes.contains(f.string());
        const std::string ext = Files::lowerExtension(f);
        k.video = k.video || isTake || isVideoExtension(ext);
        k.audio = k.audio || (!isTake && isAudioExtension(ext));
    }
    return k;
}

// The picture facts of a take whose sound lives in its own WAV.
void applyTakeFields(ClipItem& clip, const REDCard::Take& take) {
    clip.pictureURL = take.picture;
    clip.pictureFrames = take.pictureFrames;
    if (!take.header) {
        return;
    }
    const auto& h = *take.header;
    if (h.recordFrameRate) {
        clip.recordFrameRate = static_cast<float>(*h.recordFrameRate);
    }
    if (h.timeBase) {
        clip.conformFrameRate = static_cast<float>(*h.timeBase);
    }
    if (const auto& tc = h.todTimecode ? h.todTimecode : h.edgeTimecode) {
        const double fps = h.timeBase ? *h.timeBase : h.recordFrameRate.value_or(24.0);
        clip.pictureTimecode = REDCard::timecodeSeconds(*tc, fps);
    }
    clip.pixelWidth = h.width;
    clip.pixelHeight = h.height;
}

void addGroup(const std::string& name, std::vector<fs::path> files, const std::string& session,
              const std::unordered_set<std::string>& used,
              const std::map<std::string, REDCard::Take>& takesByPath,
              std::vector<TrackSource>& sources) {
    std::erase_if(files, [&](const fs::path& f) { return used.contains(f.string()); });
    sortChronologically(files, [](const fs::path& f) { return f; });
    if (files.empty()) {
        return;
    }
    TrackSource track;
    for (const auto& f : files) {
        ClipItem clip(f);
        if (auto it = takesByPath.find(f.string()); it != takesByPath.end() && it->second.wav) {
            applyTakeFields(clip, it->second);
        }
        track.lockedGrouping = track.lockedGrouping || clip.pictureURL.has_value();
        track.clips.push_back(std::move(clip));
    }
    track.type = IngestEngine::inferredType(track.clips);
    std::vector<std::string> names;
    names.reserve(sources.size());
    for (const auto& s : sources) {
        names.push_back(s.name);
    }
    track.name = IngestEngine::uniqueName(name, track.type, names);
    track.session = session;
    sources.push_back(std::move(track));
}

} // namespace

std::vector<TrackSource> IngestEngine::ingestFlat(const std::vector<IngestItem>& items,
                                                  std::vector<TrackSource> into) {
    // Linux file names are bytes; a name that is no text cannot become a track or session name.
    std::vector<IngestItem> valid;
    valid.reserve(items.size());
    for (const auto& item : items) {
        if (!Text::isValidUtf8(item.path.string()) || !Text::isValidUtf8(item.dropHint.string())) {
            logSkippedName(item.path);
            continue;
        }
        valid.push_back(
            {withoutTrailingSeparator(item.path), withoutTrailingSeparator(item.dropHint)});
    }

    // All chunks of a RED take become one entry, carried by the take's sound file where it has
    // one and grouped by the reel folder above the take folder.
    std::map<std::string, REDCard::Take> takesByPath;
    std::map<std::string, std::optional<REDCard::Take>> takeOfFolder;
    std::set<std::string> seenTakeFolders;
    int chunkCount = 0;
    std::vector<IngestItem> kept;
    for (const auto& item : valid) {
        const fs::path parent = item.path.parent_path();
        if (Files::lowerExtension(item.path) == "r3d") {
            auto [it, fresh] = takeOfFolder.try_emplace(parent.string());
            if (fresh && REDCard::isTakeFolder(parent)) {
                it->second = REDCard::take(parent);
            }
            if (it->second) {
                ++chunkCount;
                if (!seenTakeFolders.insert(parent.string()).second) {
                    continue;
                }
                const fs::path primary = it->second->wav ? *it->second->wav : it->second->picture;
                if (!Text::isValidUtf8(primary.string())) {
                    logSkippedName(primary);
                    continue;
                }
                takesByPath[primary.string()] = *it->second;
                kept.push_back({primary, parent.parent_path()});
                continue;
            }
        }
        kept.push_back(item);
    }

    // Picture lengths come from the neighbours on the card, so whole cards are read.
    if (!takesByPath.empty()) {
        std::set<fs::path> roots;
        for (const auto& [path, take] : takesByPath) {
            roots.insert(take.folder.parent_path());
        }
        std::map<std::string, REDCard::Take> byFolder;
        for (const auto& root : roots) {
            for (auto& card : REDCard::cards(root)) {
                for (auto& take : card.takes) {
                    byFolder[folderKey(take.folder)] = std::move(take);
                }
            }
        }
        for (auto& [path, take] : takesByPath) {
            if (auto it = byFolder.find(folderKey(take.folder)); it != byFolder.end()) {
                take = it->second;
            }
        }
    }
    if (!seenTakeFolders.empty()) {
        const auto known = std::count_if(takesByPath.begin(), takesByPath.end(), [](const auto& e) {
            return e.second.pictureFrames.has_value();
        });
        EngineLog::log("[Ingest] RED: " + std::to_string(chunkCount) + " chunk(s) → " +
                       std::to_string(seenTakeFolders.size()) + " take(s), " +
                       std::to_string(known) + " with a known picture length");
    }

    std::vector<fs::path> order;
    std::map<std::string, std::vector<fs::path>> filesByHint;
    for (const auto& item : kept) {
        auto [it, fresh] = filesByHint.try_emplace(item.dropHint.string());
        if (fresh) {
            order.push_back(item.dropHint);
        }
        it->second.push_back(item.path);
    }

    // A dropped folder with cameras and recorders is a complete shoot of its own.
    std::vector<bool> mixed;
    for (const auto& hint : order) {
        const Kinds k = kinds(filesByHint[hint.string()], takesByPath);
        mixed.push_back(k.video && k.audio);
        if (mixed.back()) {
            completeShootSessions.insert(hint.string());
        }
    }

    std::vector<std::string> sharedPaths;
    for (const auto& track : into) {
        if (!completeShootSessions.contains(track.session)) {
            for (const auto& clip : track.clips) {
                sharedPaths.push_back(clip.url.string());
            }
        }
    }
    for (std::size_t h = 0; h < order.size(); ++h) {
        if (!mixed[h]) {
            for (const auto& f : filesByHint[order[h].string()]) {
                sharedPaths.push_back(f.string());
            }
        }
    }
    const std::string sharedSession = commonAncestorPath(sharedPaths);

    std::unordered_set<std::string> used;
    for (const auto& track : into) {
        for (const auto& clip : track.clips) {
            used.insert(clip.url.string());
        }
    }

    for (std::size_t h = 0; h < order.size(); ++h) {
        const std::string session = mixed[h] ? order[h].string() : sharedSession;
        addGroup(trackName(order[h]), filesByHint[order[h].string()], session, used, takesByPath,
                 into);
    }
    for (auto& track : into) {
        if (!completeShootSessions.contains(track.session)) {
            track.session = sharedSession;
        }
    }
    return into;
}

std::string IngestEngine::trackName(const fs::path& hint) {
    static const Regex::Pattern cardFolder("(?i)^(card|cam|camera|body|slot)\\b");
    fs::path cur = withoutTrailingSeparator(hint);
    if (isGenericFolder(fileName(cur))) {
        for (;;) {
            const fs::path parent = cur.parent_path();
            if (parent.empty() || parent == cur || parent.string() == "/") {
                break;
            }
            // A clip folder takes the name of the card or camera folder it sits on; above it in
            // any other folder, the clip folder itself is the better name.
            if (!clipFolderPattern().matches(Collation::lowercased(fileName(cur)))) {
                cur = parent;
            } else if (!cardFolder.matches(fileName(parent))) {
                break;
            } else {
                cur = parent;
            }
            if (!isGenericFolder(fileName(cur))) {
                break;
            }
        }
    }
    if (Files::lowerExtension(cur) == "rdm") {
        return baseName(cur);
    }
    return fileName(cur);
}

bool IngestEngine::isGenericFolder(std::string_view name) {
    static const std::array<std::string_view, 12> kGeneric = {
        "clip",  "clips", "contents", "stream", "bdmv",  "private",
        "avchd", "dcim",  "video",    "movies", "media", "footage"};
    static const Regex::Pattern numbered("^\\d+[a-z]*$");
    static const Regex::Pattern cameraNumbered("^\\d{3}[a-z]+$");
    const std::string lower = Collation::lowercased(name);
    return std::find(kGeneric.begin(), kGeneric.end(), lower) != kGeneric.end() ||
           clipFolderPattern().matches(lower) || numbered.matches(lower) ||
           cameraNumbered.matches(lower);
}

std::string IngestEngine::uniqueName(std::string_view preferred, SourceType type,
                                     const std::vector<std::string>& existing) {
    std::string base;
    if (isForbiddenName(Collation::lowercased(preferred))) {
        base = type == SourceType::audio ? "Mic" : "CLIP";
    } else {
        base = Collation::prefixCharacters(preferred, kNameCharacters);
    }
    auto taken = [&](const std::string& name) {
        return std::find(existing.begin(), existing.end(), name) != existing.end();
    };
    if (!taken(base)) {
        return base;
    }
    for (std::size_t n = 2;; ++n) {
        std::string candidate = base + " " + std::to_string(n);
        if (!taken(candidate)) {
            return candidate;
        }
    }
}

SourceType IngestEngine::inferredType(const std::vector<ClipItem>& clips) {
    const bool video = std::any_of(clips.begin(), clips.end(), [](const ClipItem& c) {
        return c.pictureURL || isVideoExtension(Files::lowerExtension(c.url));
    });
    return video ? SourceType::video : SourceType::audio;
}

std::string IngestEngine::commonAncestorPath(const std::vector<std::string>& paths) {
    if (paths.empty()) {
        return {};
    }
    if (paths.size() == 1) {
        return withoutTrailingSeparator(paths.front()).parent_path().string();
    }
    auto split = [](const std::string& p) {
        std::vector<std::string_view> parts;
        std::size_t start = 0;
        for (;;) {
            const std::size_t slash = p.find('/', start);
            parts.push_back(std::string_view(p).substr(
                start, slash == std::string::npos ? std::string::npos : slash - start));
            if (slash == std::string::npos) {
                return parts;
            }
            start = slash + 1;
        }
    };
    std::vector<std::string_view> common = split(paths.front());
    for (std::size_t i = 1; i < paths.size(); ++i) {
        const auto parts = split(paths[i]);
        const auto [mine, theirs] =
            std::mismatch(common.begin(), common.end(), parts.begin(), parts.end());
        common.erase(mine, common.end());
    }
    std::string joined;
    for (std::size_t i = 0; i < common.size(); ++i) {
        if (i > 0) {
            joined += '/';
        }
        joined += common[i];
    }
    return joined.empty() ? "/" : joined;
}

bool IngestEngine::chronologicalOrder(const fs::path& a, const fs::path& b) {
    return OrderKey(a).before(OrderKey(b));
}

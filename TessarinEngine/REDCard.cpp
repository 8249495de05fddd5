#include "TessarinEngine/REDCard.h"

#include "TessarinEngine/platform/Collation.h"
#include "TessarinEngine/platform/Regex.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <map>
#include <string>

namespace fs = std::filesystem;

namespace {

bool hasExtension(const fs::path& p, std::string_view ext) {
    const std::string own = p.extension().string();
    return own.size() == ext.size() + 1 && Collation::equalsIgnoringCase(own.substr(1), ext);
}

// A folder's entries, without hidden ones: cards copied through other systems carry "._" shadow
// files next to every chunk, which are no media. Nothing when the folder cannot be listed.
std::optional<std::vector<fs::directory_entry>> listFolder(const fs::path& folder) {
    std::error_code ec;
    fs::directory_iterator it(folder, ec);
    if (ec) {
        return std::nullopt;
    }
    std::vector<fs::directory_entry> out;
    for (; it != fs::directory_iterator(); it.increment(ec)) {
        if (ec) {
            return std::nullopt;
        }
        if (!it->path().filename().string().starts_with('.')) {
            out.push_back(*it);
        }
    }
    return out;
}

bool isFile(const fs::directory_entry& entry) {
    std::error_code ec;
    return entry.is_regular_file(ec);
}

bool byName(const fs::path& a, const fs::path& b) {
    return a.filename().string() < b.filename().string();
}

std::optional<fs::path> sidecar(const std::vector<fs::path>& wavs, const fs::path& picture,
                                const std::optional<R3DHeader::Metadata>& header) {
    if (wavs.empty()) {
        return std::nullopt;
    }
    if (header && header->sidecarWAV) {
        for (const auto& wav : wavs) {
            if (Collation::equalsIgnoringCase(wav.filename().string(), *header->sidecarWAV)) {
                return wav;
            }
        }
    }
    // The sound file is named like the first chunk without its chunk number.
    static const Regex::Pattern chunkNumber("_\\d+$");
    const std::string stem = chunkNumber.replaceAll(picture.stem().string(), "");
    for (const auto& wav : wavs) {
        if (Collation::equalsIgnoringCase(wav.stem().string(), stem)) {
            return wav;
        }
    }
    if (wavs.size() == 1) {
        return wavs.front();
    }
    return std::nullopt;
}

struct Timecode {
    std::int64_t h = 0;
    std::int64_t m = 0;
    std::int64_t s = 0;
    std::int64_t f = 0;
};

std::optional<std::int64_t> decimal(std::string_view part) {
    // Nine digits keep every product below in range, far beyond any real timecode.
    if (part.empty() || part.size() > 9 ||
        !std::all_of(part.begin(), part.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    std::int64_t value = 0;
    std::from_chars(part.data(), part.data() + part.size(), value);
    return value;
}

std::optional<Timecode> parseTimecode(std::string_view text) {
    std::int64_t parts[4];
    std::size_t count = 0;
    std::size_t start = 0;
    for (;;) {
        const std::size_t colon = text.find(':', start);
        const auto part =
            text.substr(start, colon == std::string_view::npos ? text.npos : colon - start);
        if (count == 4) {
            return std::nullopt;
        }
        const auto value = decimal(part);
        if (!value) {
            return std::nullopt;
        }
        parts[count++] = *value;
        if (colon == std::string_view::npos) {
            break;
        }
        start = colon + 1;
    }
    if (count != 4) {
        return std::nullopt;
    }
    return Timecode{parts[0], parts[1], parts[2], parts[3]};
}

void collectTakeFolders(const fs::path& folder, std::vector<fs::path>& found) {
    const auto entries = listFolder(folder);
    if (!entries) {
        return;
    }
    for (const auto& entry : *entries) {
        // Linked folders are not entered, so a link back up the tree cannot loop.
        std::error_code ec;
        if (!entry.is_directory(ec) || entry.is_symlink(ec)) {
            continue;
        }
        if (REDCard::isTakeFolder(entry.path())) {
            found.push_back(entry.path());
        } else {
            collectTakeFolders(entry.path(), found);
        }
    }
}

} // namespace

bool REDCard::isTakeFolder(const fs::path& url) {
    if (!hasExtension(url, "rdc")) {
        return false;
    }
    const auto entries = listFolder(url);
    return entries && std::any_of(entries->begin(), entries->end(), [](const auto& e) {
               return hasExtension(e.path(), "r3d") && isFile(e);
           });
}

std::optional<REDCard::Take> REDCard::take(const fs::path& folder) {
    const auto entries = listFolder(folder);
    if (!entries) {
        return std::nullopt;
    }
    std::vector<fs::path> chunks;
    std::vector<fs::path> wavs;
    for (const auto& entry : *entries) {
        if (!isFile(entry)) {
            continue;
        }
        if (hasExtension(entry.path(), "r3d")) {
            chunks.push_back(entry.path());
        } else if (hasExtension(entry.path(), "wav")) {
            wavs.push_back(entry.path());
        }
    }
    if (chunks.empty()) {
        return std::nullopt;
    }
    std::sort(chunks.begin(), chunks.end(), byName);
    std::sort(wavs.begin(), wavs.end(), byName);

    Take t;
    t.folder = folder;
    t.picture = chunks.front();
    t.chunkCount = static_cast<int>(chunks.size());
    t.header = R3DHeader::read(t.picture);
    for (const auto& chunk : chunks) {
        std::error_code ec;
        const auto size = fs::file_size(chunk, ec);
        if (!ec) {
            t.byteCount += static_cast<std::int64_t>(size);
        }
    }
    t.wav = sidecar(wavs, t.picture, t.header);
    return t;
}

std::vector<REDCard> REDCard::cards(const fs::path& root) {
    std::error_code ec;
    if (!fs::is_directory(root, ec)) {
        return {};
    }
    std::vector<fs::path> folders;
    collectTakeFolders(root, folders);

    std::map<fs::path, std::vector<Take>> byParent;
    for (const auto& folder : folders) {
        if (auto t = take(folder)) {
            byParent[folder.parent_path()].push_back(std::move(*t));
        }
    }
    std::vector<REDCard> out;
    for (auto& [parent, takes] : byParent) {
        std::sort(takes.begin(), takes.end(),
                  [](const Take& a, const Take& b) { return byName(a.folder, b.folder); });
        out.push_back({parent, withPictureLengths(std::move(takes))});
    }
    return out;
}

std::optional<std::int64_t> REDCard::edgeFrames(std::string_view timecode) {
    const auto tc = parseTimecode(timecode);
    if (!tc) {
        return std::nullopt;
    }
    return ((tc->h * 60 + tc->m) * 60 + tc->s) * 24 + tc->f;
}

std::optional<double> REDCard::timecodeSeconds(std::string_view timecode, double fps) {
    const auto tc = parseTimecode(timecode);
    if (!tc || !(fps > 0) || !std::isfinite(fps)) {
        return std::nullopt;
    }
    return static_cast<double>(tc->h * 3600 + tc->m * 60 + tc->s) +
           static_cast<double>(tc->f) / fps;
}

std::vector<REDCard::Take> REDCard::withPictureLengths(std::vector<Take> takes) {
    std::vector<std::optional<std::int64_t>> edges;
    edges.reserve(takes.size());
    for (const auto& t : takes) {
        edges.push_back(t.header && t.header->edgeTimecode ? edgeFrames(*t.header->edgeTimecode)
                                                           : std::nullopt);
    }
    // The edge timecode counts recorded frames across the card, so a take lasts until the next
    // one begins.
    for (std::size_t i = 0; i + 1 < takes.size(); ++i) {
        if (edges[i] && edges[i + 1] && *edges[i] < *edges[i + 1] &&
            *edges[i + 1] - *edges[i] <= INT_MAX) {
            takes[i].pictureFrames = static_cast<int>(*edges[i + 1] - *edges[i]);
        }
    }

    std::vector<double> bytesPerFrame;
    for (const auto& t : takes) {
        if (t.pictureFrames && *t.pictureFrames > 0) {
            bytesPerFrame.push_back(static_cast<double>(t.byteCount) / *t.pictureFrames);
        }
    }
    if (bytesPerFrame.empty()) {
        return takes;
    }
    std::sort(bytesPerFrame.begin(), bytesPerFrame.end());
    const double median = bytesPerFrame[bytesPerFrame.size() / 2];
    if (!(median > 0)) {
        return takes;
    }
    // The last take has no successor; it and any take whose timecode ran backwards are sized
    // from their bytes, as the card's frames are close to one size.
    for (auto& t : takes) {
        if (t.pictureFrames) {
            continue;
        }
        const double estimate = std::round(static_cast<double>(t.byteCount) / median);
        if (estimate >= 1 && estimate < 1000000) {
            t.pictureFrames = static_cast<int>(estimate);
        }
    }
    return takes;
}

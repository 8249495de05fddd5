#include "TessarinEngine/MediaMetadata/ClipFile.h"
#include "TessarinEngine/platform/LocalTime.h"
#include "TessarinEngine/platform/Regex.h"
#include "TessarinEngine/platform/Riff.h"
#include "TessarinEngine/platform/Text.h"
#include "TessarinEngine/platform/Unicode.h"

#include <algorithm>
#include <limits>
#include <set>

namespace MediaMetadata {

std::optional<Date> readBWFOriginationDate(Bytes wav) {
    auto bext = Riff::findChunk(wav, "bext");
    // Description (256), Originator (32), OriginatorReference (32), then the date and time.
    constexpr std::size_t kDateAt = 320;
    constexpr std::size_t kTimeAt = 330;
    constexpr std::size_t kEnd = 338;
    if (!bext || bext->content.size() < kEnd) {
        return std::nullopt;
    }
    const auto date = Unicode::trimControls(asText(bext->content.subspan(kDateAt, 10)));
    const auto time = Unicode::trimControls(asText(bext->content.subspan(kTimeAt, 8)));
    return LocalTime::fromIsoUtcWallClock(date + "T" + time);
}

std::optional<std::string> readBWFOriginator(Bytes wav) {
    static const Regex::Pattern maker("MAKER=([^;,\\r\\n\\x{0}]+)");
    static const Regex::Pattern model("MODEL=([^;,\\r\\n\\x{0}]+)");
    static const Regex::Pattern manufacturerTag("<MANUFACTURER>([^<]+)</MANUFACTURER>", "i");
    static const Regex::Pattern modelTag("<MODEL>([^<]+)</MODEL>", "i");
    auto group = [](const Regex::Pattern& pattern,
                    std::string_view text) -> std::optional<std::string> {
        if (auto m = pattern.firstMatch(text)) {
            return nonEmpty((*m)[1]);
        }
        return std::nullopt;
    };

    std::optional<std::string> result;
    Riff::forEachChunk(wav, [&](const Riff::Chunk& chunk) {
        if (chunk.id == "bext") {
            const Bytes head =
                chunk.content.first(std::min<std::size_t>(chunk.content.size(), 320));
            // The fields are ASCII; Latin 1 keeps any stray high byte readable.
            if (head.size() > 256) {
                const Bytes originator =
                    head.subspan(256, std::min<std::size_t>(32, head.size() - 256));
                result =
                    nonEmpty(Unicode::trimControlsAndWhitespace(Unicode::fromLatin1(originator)));
            }
            if (!result) {
                const std::string description =
                    Unicode::fromLatin1(head.first(std::min<std::size_t>(256, head.size())));
                result = joined(group(maker, description), group(model, description));
            }
        } else if (chunk.id == "iXML" || chunk.id == "ixml") {
            const Bytes head =
                chunk.content.first(std::min<std::size_t>(chunk.content.size(), 65536));
            const std::string text = Text::repairUtf8(asText(head));
            result = joined(group(manufacturerTag, text), group(modelTag, text));
        }
        return !result;
    });
    return result;
}

std::optional<double> readBWFTimecode(Bytes file) {
    const std::string_view text = asText(file);
    // The first "bext" anywhere in the file: its content starts 8 bytes on, and TimeReference
    // (samples since midnight) stands at content offset 338.
    const auto bext = text.find("bext");
    if (bext == std::string_view::npos || bext + 8 + 338 + 8 > file.size()) {
        return std::nullopt;
    }
    const std::uint64_t timeReference = Riff::readU64(file, bext + 8 + 338);
    double sampleRate = 48000.0;
    if (const auto fmt = text.find("fmt ");
        fmt != std::string_view::npos && fmt + 16 <= file.size()) {
        if (const auto rate = Riff::readU32(file, fmt + 12); rate != 0) {
            sampleRate = rate;
        }
    }
    return static_cast<double>(timeReference) / sampleRate;
}

std::vector<int> readIXMLChannelIndices(Bytes wav, int channelCount) {
    static const Regex::Pattern trackIndex(
        "<TRACK\\b[\\s\\S]*?<CHANNEL_INDEX>\\s*(\\d+)\\s*</CHANNEL_INDEX>");
    auto ixml = Riff::findChunk(wav, "iXML");
    if (!ixml) {
        return defaultChannelIndices(channelCount);
    }
    std::vector<int> indices;
    for (const auto& match : trackIndex.allMatches(Unicode::fromUtf8OrLatin1(ixml->content))) {
        if (auto n = parseDecimal(match[1]); n && *n <= std::numeric_limits<int>::max()) {
            indices.push_back(static_cast<int>(*n));
        }
    }
    const std::set<int> distinct(indices.begin(), indices.end());
    if (indices.size() != static_cast<std::size_t>(std::max(channelCount, 0)) ||
        distinct.size() != indices.size()) {
        return defaultChannelIndices(channelCount);
    }
    return indices;
}

} // namespace MediaMetadata

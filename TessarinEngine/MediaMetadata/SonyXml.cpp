#include "TessarinEngine/MediaMetadata/ClipFile.h"
#include "TessarinEngine/platform/LocalTime.h"
#include "TessarinEngine/platform/QuickTime.h"
#include "TessarinEngine/platform/Regex.h"
#include "TessarinEngine/platform/Text.h"
#include "TessarinEngine/platform/Unicode.h"
#include "TessarinEngine/platform/Xml.h"

#include <algorithm>

namespace MediaMetadata {

namespace {

// Sony cameras write their XML near the end of a movie; this much of the end is searched.
constexpr std::size_t kSonyTailBytes = 4 * 1024 * 1024;

// Where the last "xml " of the file's tail starts, as an offset into that tail.
std::optional<std::size_t> lastXmlMarker(std::string_view tail) {
    const auto at = tail.rfind("xml ");
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    return at;
}

std::string_view tailOf(Bytes file) {
    const std::size_t n = std::min(file.size(), kSonyTailBytes);
    return asText(file.subspan(file.size() - n));
}

} // namespace

// The lastUpdate date of the Sony XML found last in the final 4 MiB, with the zone it states.
std::optional<LocalTime::ZonedDate> sonyXMLClock(Bytes file) {
    static const Regex::Pattern lastUpdate("lastUpdate=\"([^\"]+)\"");
    const std::string_view tail = tailOf(file);
    auto at = lastXmlMarker(tail);
    if (!at) {
        return std::nullopt;
    }
    const std::string_view text = tail.substr(*at);
    if (!Text::isValidUtf8(text)) {
        return std::nullopt;
    }
    auto match = lastUpdate.firstMatch(text);
    if (!match) {
        return std::nullopt;
    }
    return LocalTime::fromIso8601Zoned((*match)[1]);
}

std::optional<Date> readSonyXMLDate(Bytes file) {
    const auto zoned = sonyXMLClock(file);
    return zoned ? std::optional(zoned->date) : std::nullopt;
}

std::optional<std::string> readXMLBox(Bytes file) {
    const std::string_view tail = tailOf(file);
    auto at = lastXmlMarker(tail);
    if (!at) {
        return std::nullopt;
    }
    // The marker is the "xml " of "<?xml ": the document starts at its "<?".
    std::size_t start = *at;
    if (start >= 2 && tail.substr(start - 2, 2) == "<?") {
        start -= 2;
    }
    return parseCameraFromXML(tail.substr(start));
}

std::optional<std::string> parseCameraFromXML(std::string_view xml) {
    std::optional<std::string> manufacturer;
    std::optional<std::string> model;
    bool found = false;
    auto firstOf = [](const Xml::Element& e,
                      std::initializer_list<std::string_view> names) -> std::optional<std::string> {
        for (auto name : names) {
            if (auto value = e.attribute(name); value && !value->empty()) {
                return value;
            }
        }
        return std::nullopt;
    };
    Xml::forEachElement(xml, [&](const Xml::Element& element) {
        if (found) {
            return;
        }
        std::string name = element.name;
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (name == "device" || name.find("camera") != std::string::npos) {
            // The first device or camera element that names a model is the camera; any model
            // met before it, on another element, was only a stand-in.
            if (auto m = firstOf(element, {"manufacturer", "Manufacturer"})) {
                manufacturer = m;
            }
            if (auto m = firstOf(element, {"modelName", "model", "Model"})) {
                model = m;
                found = true;
            }
        } else if (!model) {
            model = firstOf(element, {"model", "Model"});
        }
    });
    return nonEmpty(joined(nonEmpty(manufacturer), nonEmpty(model)));
}

std::optional<std::string> sonyNonRealTimeMetaXML(Bytes movieFile) {
    std::optional<std::string> xml;
    QuickTime::forEachBox(movieFile, [&](const QuickTime::Box& box) {
        if (box.type != QuickTime::fourcc("meta")) {
            return true;
        }
        // Both markers are ASCII, the same bytes in either decoding: look before decoding.
        const std::string_view raw = asText(box.content);
        if (raw.find("NonRealTimeMeta") == std::string_view::npos ||
            raw.find("LtcChange") == std::string_view::npos) {
            return true;
        }
        xml = Unicode::fromUtf8OrLatin1(box.content);
        return false;
    });
    return xml;
}

std::optional<double> readSonyNRTMTimecode(Bytes movieFile) {
    auto xml = sonyNonRealTimeMetaXML(movieFile);
    if (!xml) {
        return std::nullopt;
    }
    return sonyNRTMTimecodeFromXML(*xml);
}

std::optional<double> sonyNRTMTimecodeFromXML(std::string_view xml) {
    static const Regex::Pattern tcFps("tcFps=\"(\\d+)\"");
    static const Regex::Pattern firstChange("<LtcChange frameCount=\"0\" value=\"([0-9]{8})\"");
    static const Regex::Pattern incrementChange(
        "<LtcChange[^>]*value=\"([0-9]{8})\"[^>]*status=\"increment\"");
    auto fpsMatch = tcFps.firstMatch(xml);
    auto fps = fpsMatch ? parseDecimal((*fpsMatch)[1]) : std::nullopt;
    if (!fps) {
        return std::nullopt;
    }
    auto value = firstChange.firstMatch(xml);
    if (!value) {
        value = incrementChange.firstMatch(xml);
    }
    if (!value) {
        return std::nullopt;
    }
    // Sony writes the value back to front: frames, seconds, minutes, hours.
    const std::string& digits = (*value)[1];
    auto pair = [&](std::size_t i) {
        return parseDecimal(std::string_view(digits).substr(i * 2, 2));
    };
    auto frames = pair(0), seconds = pair(1), minutes = pair(2), hours = pair(3);
    if (!frames || !seconds || !minutes || !hours || *seconds > 59 || *minutes > 59 ||
        *frames >= *fps) {
        return std::nullopt;
    }
    const double rate = static_cast<double>(*fps);
    return (((*hours * 60 + *minutes) * 60 + *seconds) * rate + *frames) / rate;
}

} // namespace MediaMetadata

#include "TessarinEngine/MediaMetadata/ClipFile.h"
#include "TessarinEngine/platform/MappedFile.h"
#include "TessarinEngine/platform/MediaProbe.h"
#include "TessarinEngine/platform/PropertyList.h"
#include "TessarinEngine/platform/QuickTime.h"
#include "TessarinEngine/platform/Regex.h"
#include "TessarinEngine/platform/Text.h"
#include "TessarinEngine/platform/Unicode.h"

#include <cstdio>

namespace MediaMetadata {

namespace {

std::optional<std::string> readCommonModel(Clip& clip) {
    if (clip.isRiffWave()) {
        return std::nullopt;
    }
    const auto* info = clip.probe();
    if (info == nullptr) {
        return std::nullopt;
    }
    // The model as QuickTime metadata and as the user-data "\xA9mod" atom.
    for (const char* key : {"com.apple.quicktime.model", "model"}) {
        if (auto it = info->metadata.find(key); it != info->metadata.end()) {
            return it->second;
        }
    }
    return std::nullopt;
}

std::optional<std::string> readSidecarXML(const std::filesystem::path& url) {
    std::filesystem::path stem = url;
    stem.replace_extension();
    const std::string base = stem.string();
    for (const std::string& candidate :
         {base + "M01.XML", base + "M01.xml", base + ".XML", base + ".xml"}) {
        if (auto file = MappedFile::open(candidate)) {
            auto camera = parseCameraFromXML(asText(file->bytes()));
            return file->damaged() ? std::nullopt : camera;
        }
    }
    return std::nullopt;
}

std::optional<std::string> videoCodecFingerprint(Clip& clip) {
    const auto* video = clip.firstStream(MediaProbe::StreamKind::video);
    if (video == nullptr || video->extradata.empty() ||
        (video->codec != "hevc" && video->codec != "h264")) {
        return std::nullopt;
    }
    return codecFingerprint(video->extradata);
}

std::optional<std::string> timedMetadataDevice(const QuickTime::Movie& movie, Bytes file) {
    // A camera states itself in the first samples; one second is plenty.
    constexpr double kSeconds = 1.0;
    for (const auto& item : QuickTime::readTimedMetadata(movie, file, kSeconds)) {
        const std::string identifier = item.keyNamespace + "/" + item.key;
        const std::string text = Unicode::lower(identifier + " " + item.key);
        std::optional<std::string> value;
        if (text.find("cameraattributes") != std::string::npos) {
            value = extractCameraAttributesModel(item.dataValue);
        } else if (text.find("model") != std::string::npos ||
                   text.find("make") != std::string::npos ||
                   text.find("camera") != std::string::npos) {
            value = item.stringValue;
        }
        if (auto name = nonEmpty(value)) {
            return name;
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<std::string> deviceInfo(Clip& clip) {
    const std::string& ext = clip.ext();
    const bool movie = isMovieExtension(ext);
    if (isOneOf(ext, {"wav", "wave"})) {
        if (auto name = nonEmpty(readBWFOriginator(clip.bytes()))) {
            return name;
        }
    }
    if (auto name = nonEmpty(readCommonModel(clip))) {
        return name;
    }
    if (movie || ext == "mxf") {
        if (auto name = nonEmpty(readSidecarXML(clip.url()))) {
            return name;
        }
    }
    if (movie) {
        if (auto name = nonEmpty(readXMLBox(clip.bytes()))) {
            return name;
        }
        if (const auto* movieBoxes = clip.movie()) {
            if (auto name = timedMetadataDevice(*movieBoxes, clip.bytes())) {
                return name;
            }
        }
        if (auto name = nonEmpty(readQuickTimeDeviceAtoms(clip.bytes()))) {
            return name;
        }
    }
    if (auto name = nonEmpty(deviceFromFilename(clip.url().filename().string()))) {
        return name;
    }
    if (movie) {
        return videoCodecFingerprint(clip);
    }
    return std::nullopt;
}

std::optional<std::string> readDeviceInfo(const std::filesystem::path& url) {
    return withClip(url, std::optional<std::string>{}, deviceInfo);
}

std::optional<std::string> extractCameraAttributesModel(Bytes value) {
    static constexpr std::string_view kKeys[] = {
        "Model", "model",      "CameraModel", "cameraModel", "Make",
        "make",  "CameraMake", "cameraMake",  "DeviceModel", "deviceModel"};
    if (auto strings = PropertyList::readDictionaryStrings(value, kKeys)) {
        for (std::string_view key : kKeys) {
            if (auto it = strings->find(std::string(key));
                it != strings->end() && !it->second.empty()) {
                return it->second;
            }
        }
        // A dictionary that names no model is an answer too: its text would be no name.
        return std::nullopt;
    }
    const std::string_view text = asText(value);
    if (!Text::isValidUtf8(text)) {
        return std::nullopt;
    }
    auto trimmed = Unicode::trimControls(text);
    if (trimmed.empty()) {
        return std::nullopt;
    }
    return trimmed;
}

std::optional<std::string> readTimedMetadataDevice(Bytes movieFile) {
    auto movie = QuickTime::readMovie(movieFile);
    return movie ? timedMetadataDevice(*movie, movieFile) : std::nullopt;
}

std::optional<std::string> readQuickTimeDeviceAtoms(Bytes movieFile) {
    // FUJIFILM cameras name themselves in a short "Info" atom, e.g. "FUJIFILM DIGITAL CAMERA
    // X-T3"; other makers' Info atoms say nothing useful.
    const auto fujifilm = [](std::string_view atom) -> std::optional<QuickTime::MakeAndModel> {
        std::string text = Unicode::upper(std::string(atom));
        if (text.find("FUJIFILM") == std::string::npos) {
            return std::nullopt;
        }
        constexpr std::string_view kBoilerplate = "FUJIFILM DIGITAL CAMERA";
        for (auto at = text.find(kBoilerplate); at != std::string::npos;
             at = text.find(kBoilerplate)) {
            text.erase(at, kBoilerplate.size());
        }
        QuickTime::MakeAndModel named{"FUJIFILM", std::nullopt};
        if (auto trimmed = Unicode::trimWhitespace(text); !trimmed.empty()) {
            named.model = std::move(trimmed);
        }
        return named;
    };
    return QuickTime::readDeviceAtoms(movieFile, fujifilm);
}

std::optional<std::string> deviceFromFilename(std::string_view name) {
    static const Regex::Pattern dji("DJI_(\\d{2,3})_");
    static const Regex::Pattern roland("^R\\d{7}\\.");
    const std::string upper = Unicode::upper(name);
    const std::string_view u = upper;
    if (auto m = dji.firstMatch(u)) {
        return "DJI " + (*m)[1];
    }
    if (u.starts_with("ZOOM")) {
        return "ZOOM";
    }
    if (u.find("TASCAM") != std::string_view::npos || u.find("DR-10") != std::string_view::npos ||
        u.find("DR10") != std::string_view::npos) {
        return "TASCAM";
    }
    if (u.starts_with("SONY") || u.starts_with("PCM_")) {
        return "SONY";
    }
    if (roland.matches(u)) {
        return "ROLAND";
    }
    return std::nullopt;
}

std::string codecFingerprint(Bytes configurationRecord) {
    std::uint64_t h = 0xcbf29ce484222325ULL;
    for (std::uint8_t byte : configurationRecord) {
        h = (h ^ byte) * 0x100000001b3ULL;
    }
    char text[24];
    std::snprintf(text, sizeof text, "cam_%016llx", static_cast<unsigned long long>(h));
    return text;
}

} // namespace MediaMetadata

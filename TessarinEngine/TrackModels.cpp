#include "TessarinEngine/TrackModels.h"

#include <array>
#include <cstdio>

std::string_view toString(SourceType type) {
    return type == SourceType::video ? "video" : "audio";
}

std::string_view toString(SyncStatus status) {
    switch (status) {
    case SyncStatus::pending:
        return "pending";
    case SyncStatus::synced:
        return "synced";
    case SyncStatus::weak:
        return "weak";
    case SyncStatus::failed:
        return "failed";
    }
    return "pending";
}

std::string_view toString(AudioUsability usability) {
    switch (usability) {
    case AudioUsability::ok:
        return "ok";
    case AudioUsability::none:
        return "none";
    case AudioUsability::silent:
        return "silent";
    case AudioUsability::undecodable:
        return "undecodable";
    }
    return "ok";
}

std::string_view toString(ClockQuality quality) {
    static constexpr std::array<std::string_view, 5> names = {"none", "filesystem", "asset",
                                                              "filename", "embedded"};
    return names[static_cast<std::size_t>(quality)];
}

std::optional<ClockQuality> clockQualityFromRaw(int raw) {
    if (raw < 0 || raw > 4) {
        return std::nullopt;
    }
    return static_cast<ClockQuality>(raw);
}

namespace {

std::string formatDouble(const char* format, double value) {
    char buf[64];
    std::snprintf(buf, sizeof buf, format, value);
    return buf;
}

constexpr std::string_view kDot = " \u00B7 ";

} // namespace

bool isCodeWithoutScore(std::string_view code) {
    return code == PlacementCode::ref || code == PlacementCode::interp ||
           code == PlacementCode::interpNoAudio || code == PlacementCode::clock ||
           code == PlacementCode::unlinked || code == PlacementCode::siblingCh ||
           code == PlacementCode::chapter;
}

std::string ClipItem::placementExplanation() const {
    switch (audioUsability) {
    case AudioUsability::none:
        return "No audio track in this file \u2014 placed by clock or between neighbours";
    case AudioUsability::silent:
        return "Audio track is silent \u2014 placed by clock or between neighbours";
    case AudioUsability::undecodable:
        return "Format not decodable on this machine \u2014 placed by clock or between neighbours";
    case AudioUsability::ok:
        break;
    }

    static const std::map<std::string_view, std::string_view> ownSentences = {
        {PlacementCode::ref, "Reference track \u2014 everything else is measured against it"},
        {PlacementCode::linked, "Long recorder linked to the reference by content consensus"},
        {PlacementCode::unlinked,
         "Long recorder with no audio in common with the reference \u2014 placed after it"},
        {PlacementCode::siblingCh, "Channel of the same recorder \u2014 follows its lead track"},
        {PlacementCode::clock, "No audio match nearby \u2014 placed by the device clock"},
        {PlacementCode::stackAlone,
         "No other take shares this audio \u2014 placed in shooting order"},
        {PlacementCode::stack, "Stacked with takes sharing the same audio"},
        {PlacementCode::sibling, "Placed alongside a matched clip from the same camera"},
        {PlacementCode::A3cam, "Matched a sibling camera \u2014 no external recorder nearby"},
        {PlacementCode::A3cluster,
         "Synced only against other cameras \u2014 no external recorder nearby"},
        {PlacementCode::A3bBroll, "Long take placed via nearby B-roll"},
        {PlacementCode::chapter, "Continues the previous chapter of the same recording"},
        {PlacementCode::A3s, "Short clip matched sample by sample near its device clock"},
    };

    const std::string code = placementPass.value_or("");
    std::string text;
    if (code.empty() || code == PlacementCode::interp || code == PlacementCode::interpNoAudio) {
        constexpr double kComparedMinimum = 5.0;
        text =
            duration < kComparedMinimum
                ? formatDouble("Shorter than %.0f s \u2014 not compared, placed between neighbours",
                               kComparedMinimum)
                : "No matching audio nearby \u2014 placed between neighbours";
    } else if (auto it = ownSentences.find(code); it != ownSentences.end()) {
        text = it->second;
    } else {
        switch (syncStatus) {
        case SyncStatus::pending:
            text = "Not placed yet";
            break;
        case SyncStatus::synced:
            text = "Strong audio match";
            break;
        case SyncStatus::weak:
            text = "Weak audio match \u2014 check by ear";
            break;
        case SyncStatus::failed:
            text = "Audio match below the confidence floor";
            break;
        }
    }

    if (matchScore && !isCodeWithoutScore(code)) {
        text += formatDouble(" \u00B7 score %.1f", *matchScore);
    }
    if (placementNote && !placementNote->empty()) {
        text += kDot;
        text += *placementNote;
    }
    if (tcDisagrees) {
        text += kDot;
        text += "timecode disagrees with the audio position";
    }
    if (refinedBy) {
        text += kDot;
        text += "refined";
    }
    return text;
}

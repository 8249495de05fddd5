#pragma once

#include "TessarinEngine/Fingerprint.h"
#include "TessarinEngine/SpectralBands.h"
#include "TessarinEngine/TessarinError.h"
#include "TessarinEngine/platform/Date.h"
#include "TessarinEngine/platform/Uuid.h"

#include <compare>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

enum class SourceType { video, audio };

enum class SyncStatus { pending, synced, weak, failed };

enum class AudioUsability { ok, none, silent, undecodable };

// How far a recording date can be trusted; the larger raw value is the better clock.
enum class ClockQuality : int { none = 0, filesystem = 1, asset = 2, filename = 3, embedded = 4 };

constexpr auto operator<=>(ClockQuality a, ClockQuality b) {
    return static_cast<int>(a) <=> static_cast<int>(b);
}

std::string_view toString(SourceType type);
std::string_view toString(SyncStatus status);
std::string_view toString(AudioUsability usability);
// The name printed in log lines: "none", "filesystem", "asset", "filename", "embedded".
std::string_view toString(ClockQuality quality);
// The quality of a raw value, or nothing above 4 (and below 0).
std::optional<ClockQuality> clockQualityFromRaw(int raw);

// The codes a clip's `placementPass` holds: how the engine laid it. Some decide what enters the
// audio pool, so every stage names them from here; `ClipItem::placementExplanation` gives each its
// sentence.
namespace PlacementCode {
inline constexpr const char* A1 = "A1";               // a Pass 1 anchor
inline constexpr const char* A1w = "A1w";             // an anchor found by window votes
inline constexpr const char* A3 = "A3";               // a fill between anchors
inline constexpr const char* A3b = "A3b";             // a fill by a wider rescue
inline constexpr const char* A3bBroll = "A3b-broll";  // a long take found near its B-roll
inline constexpr const char* A3cam = "A3cam";         // matched against a sibling camera
inline constexpr const char* A3cluster = "A3cluster"; // linked among cameras only
inline constexpr const char* A4 = "A4";               // found by a whole-pool probe
inline constexpr const char* A3s = "A3s";             // a short clip found sample by sample
inline constexpr const char* p1 = "p1";               // a Pass 1 hit not yet accepted
inline constexpr const char* interp = "interp";       // laid between neighbours
inline constexpr const char* interpNoAudio = "interp-noaudio";
inline constexpr const char* clock = "clock";          // laid by the device clock
inline constexpr const char* ref = "ref";              // a clip of the reference track
inline constexpr const char* linked = "linked";        // a long backup linked by content
inline constexpr const char* unlinked = "unlinked";    // a long backup parked after the reference
inline constexpr const char* sibling = "sibling";      // alongside a matched clip of its camera
inline constexpr const char* siblingCh = "sibling-ch"; // a channel that follows its lead
inline constexpr const char* chapter = "chapter";      // continues its recording's chapter
inline constexpr const char* stack = "stack";
inline constexpr const char* stackAlone = "stack-alone";
} // namespace PlacementCode

struct ClipItem {
    Uuid id = Uuid::random();
    std::filesystem::path url;
    double duration = 0;
    double startOffset = 0;
    SyncStatus syncStatus = SyncStatus::pending;
    std::optional<float> matchScore;
    std::optional<std::string> placementPass;
    std::optional<std::string> placementNote;
    std::vector<float> waveformPreview;
    std::optional<float> frameRate;
    std::optional<std::filesystem::path> pictureURL;
    std::optional<float> recordFrameRate;
    std::optional<float> conformFrameRate;
    std::optional<int> pictureFrames;
    std::optional<double> pictureTimecode;
    std::optional<int> pixelWidth;
    std::optional<int> pixelHeight;
    std::optional<double> startTimecode;
    bool tcDisagrees = false;
    int channelCount = 1;
    std::vector<int> audioChannelIndices;
    std::optional<std::string> deviceName;
    std::optional<Date> recordingDate;
    ClockQuality clockQuality = ClockQuality::none;
    std::optional<std::string> dayRegion;
    std::optional<std::vector<float>> cachedEnvelope;
    std::optional<std::vector<Fingerprint::Landmark>> fingerprint;
    std::optional<std::vector<float>> bassOnsets;
    std::optional<SpectralBands::Feature> bandFeature;
    AudioUsability audioUsability = AudioUsability::ok;
    std::optional<Uuid> siblingLeaderID;
    // The recording a chapter file belongs to, where a camera split one take into several
    // files; the same text for all chapters of that recording. Set at ingest.
    std::optional<std::string> recordingKey;
    // The chapter's place in its recording, 0 for the first file. Meaningful only with a key.
    int chapterIndex = 0;
    // The UTC offset, in minutes, that the file wrote its recording date with, where it states
    // one (Sony XML); nothing for dates written without a zone.
    std::optional<int> clockOffsetMinutes;
    // The placed clip whose audio this clip's placement was measured against, or that it follows
    // (its chapter, its camera's matched clip); set by the sync engine where there is one.
    std::optional<Uuid> placedAgainst;
    // Set only by refinement: the seconds it added to the band placement, and how fast the clip's
    // clock runs against the reference's, in parts per million (positive when its content falls
    // progressively later; it plays in step at speed 1 + driftPpm / 1,000,000).
    std::optional<double> refinedBy;
    std::optional<double> driftPpm;

    ClipItem() = default;
    explicit ClipItem(std::filesystem::path file) : url(std::move(file)) {}

    // The sentence an editor reads about how this clip was placed.
    std::string placementExplanation() const;

    // A clip is the same clip exactly when its id is the same.
    bool operator==(const ClipItem& other) const { return id == other.id; }
};

struct TrackSource {
    Uuid id = Uuid::random();
    std::string name;
    SourceType type = SourceType::video;
    std::vector<ClipItem> clips;
    std::string session;
    std::optional<std::string> deviceName;
    bool lockedGrouping = false;
    std::optional<std::string> cameraGroup;
    std::optional<std::string> dayRegion;
    std::optional<Uuid> siblingOf;
    std::map<std::string, double> textSyncOffsetByPeer;
    bool forceReference = false;
    bool isMuted = false;

    bool operator==(const TrackSource&) const = default;
};

struct CameraGroupProposal {
    Uuid id = Uuid::random();
    std::string session;
    std::vector<Uuid> trackIDs;
    std::vector<std::string> trackNames;
    int clipCount = 0;
    std::string filenamePrefix;
    std::string sequenceHint;

    bool operator==(const CameraGroupProposal&) const = default;
};

// The address of one clip within a run: track index and clip index.
struct ClipRef {
    int si = 0;
    int ci = 0;
    auto operator<=>(const ClipRef&) const = default;
};

// Placement codes whose sentences never carry the score.
bool isCodeWithoutScore(std::string_view code);

#include "TessarinEngine/EngineLog.h"
#include "TessarinEngine/IngestEngine.h"
#include "TessarinEngine/IngestEngine/Helpers.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>

namespace {

// Zones differ by whole quarter hours; a smaller difference is clock drift, not a zone, and none
// is larger than 14 h.
constexpr int kZoneStepMinutes = 15;
constexpr int kSmallestZoneMinutes = 30;
constexpr int kLargestZoneMinutes = 14 * 60;
// How close a clip must lie to another device's clip for their dates to agree.
constexpr double kAgreement = 15 * 60;

struct Span {
    Date start = 0;
    double duration = 0;
};

// Seconds between two clips' spans, 0 where they overlap.
double gapBetween(const Span& a, const Span& b) {
    return std::max({0.0, b.start - (a.start + a.duration), a.start - (b.start + b.duration)});
}

// Whether at least half of `zoned`, moved by `shift`, lies within the agreement of a clip of
// `others`. Camera clips without a recorder rolling are common, so all of them need not.
bool agree(const std::vector<Span>& zoned, const std::vector<Span>& others, double shift) {
    std::size_t near = 0;
    for (const auto& z : zoned) {
        const Span moved{z.start + shift, z.duration};
        near += std::any_of(others.begin(), others.end(),
                            [&](const Span& o) { return gapBetween(moved, o) <= kAgreement; })
                    ? 1
                    : 0;
    }
    return 2 * near >= zoned.size();
}

std::string offsetText(int minutes) {
    char text[16];
    std::snprintf(text, sizeof text, "UTC%c%02d:%02d", minutes < 0 ? '-' : '+',
                  std::abs(minutes) / 60, std::abs(minutes) % 60);
    return text;
}

std::optional<std::string> deviceKey(const ClipItem& clip) {
    if (!clip.deviceName) {
        return std::nullopt;
    }
    return IngestEngine::normalizeDeviceKey(*clip.deviceName);
}

} // namespace

std::vector<TrackSource> IngestEngine::alignZonedClocks(std::vector<TrackSource> sources) {
    std::vector<std::string> sessions;
    for (const auto& track : sources) {
        if (std::find(sessions.begin(), sessions.end(), track.session) == sessions.end()) {
            sessions.push_back(track.session);
        }
    }
    for (const auto& session : sessions) {
        std::vector<ClipItem*> zoned;
        std::vector<const ClipItem*> zoneless;
        std::set<std::string> zonedDevices;
        for (auto& track : sources) {
            if (track.session != session) {
                continue;
            }
            for (auto& clip : track.clips) {
                if (clip.recordingDate && clip.clockOffsetMinutes) {
                    zoned.push_back(&clip);
                    if (auto key = deviceKey(clip)) {
                        zonedDevices.insert(*key);
                    }
                }
            }
        }
        if (zoned.empty()) {
            continue;
        }
        // The other devices: their file dates say only when the files were copied.
        for (const auto& track : sources) {
            if (track.session != session) {
                continue;
            }
            for (const auto& clip : track.clips) {
                const auto key = deviceKey(clip);
                if (clip.recordingDate && !clip.clockOffsetMinutes &&
                    clip.clockQuality >= ClockQuality::asset &&
                    !(key && zonedDevices.contains(*key))) {
                    zoneless.push_back(&clip);
                }
            }
        }
        if (zoneless.empty()) {
            continue;
        }

        std::map<int, std::size_t> clipsPerOffset;
        std::vector<int> offsets;
        for (const auto* clip : zoned) {
            if (clipsPerOffset[*clip->clockOffsetMinutes]++ == 0) {
                offsets.push_back(*clip->clockOffsetMinutes);
            }
        }
        int offset = offsets.front();
        for (int o : offsets) {
            if (clipsPerOffset[o] > clipsPerOffset[offset]) {
                offset = o;
            }
        }
        if (offset % kZoneStepMinutes != 0 || std::abs(offset) < kSmallestZoneMinutes ||
            std::abs(offset) > kLargestZoneMinutes) {
            continue;
        }

        std::vector<Span> measured;
        for (const auto* clip : zoned) {
            if (*clip->clockOffsetMinutes == offset) {
                measured.push_back({*clip->recordingDate, clip->duration});
            }
        }
        std::vector<Span> others;
        for (const auto* clip : zoneless) {
            others.push_back({*clip->recordingDate, clip->duration});
        }
        // Dropping the offset moves a date by the offset: 10:00 at UTC-07:00 is 17:00 UTC, and
        // as a wall clock like Broadcast WAV's it reads 10:00.
        const double shift = offset * 60.0;
        if (agree(measured, others, 0) || !agree(measured, others, shift)) {
            continue;
        }
        for (auto* clip : zoned) {
            *clip->recordingDate += *clip->clockOffsetMinutes * 60.0;
            clip->clockOffsetMinutes = std::nullopt;
        }
        EngineLog::log("[Ingest] clock zones '" + session + "': " + std::to_string(zoned.size()) +
                       " date(s) written at " + offsetText(offset) +
                       " read as wall clock, as the other devices' dates are — they sit that far "
                       "apart and agree once it is dropped");
    }
    return sources;
}

#pragma once

#include "TessarinTimeline/EventStream.h"

#include <cstdint>
#include <string>
#include <vector>

// A frame rate as a ratio of whole numbers, the way editors store it: 24000/1001 for 23.976.
struct FrameRate {
    int num = 25;
    int den = 1;

    double fps() const { return static_cast<double>(num) / den; }
    bool operator==(const FrameRate&) const = default;
};

// The picture format of a project: the rate its positions are counted in and its picture size.
struct TimelineFormat {
    FrameRate rate;
    int width = 1920;
    int height = 1080;

    bool operator==(const TimelineFormat&) const = default;
};

// One clip laid on its track in whole frames of the timeline. A clip that the one before it
// overlaps by rounding (or by the engine's small overlaps) keeps its sync: its head is trimmed
// (`in` > 0) instead of its start moving.
struct LaidClip {
    const TimelineClip* clip = nullptr;
    std::int64_t start = 0;  // timeline frame of the first frame shown
    std::int64_t in = 0;     // first frame shown, counted in played frames from the clip's start
    std::int64_t length = 0; // frames shown
    std::int64_t playedFrames = 0; // frames of the whole clip at `speed`
    double speed = 1;              // 1 + driftPpm / 1e6, or 1 without drift

    std::int64_t end() const { return start + length; }
};

struct LaidTrack {
    const TimelineTrack* track = nullptr;
    std::vector<LaidClip> clips; // in timeline order, none overlapping
};

struct LaidTimeline {
    TimelineFormat format;
    std::vector<LaidTrack> tracks; // as in the timeline: video tracks first
    // Clips that have no place on a track: those the engine marked failed, and any that a clip
    // before it covers whole.
    std::vector<const TimelineClip*> bin;
    std::int64_t length = 0; // frames up to the end of the last clip laid
};

namespace FrameLayout {

// The rate as a ratio: whole rates over 1, NTSC rates over 1001 (23.976 gives 24000/1001), any
// other over 1000 reduced. Rates below 1 fps or beyond 1000 fps give 25/1.
FrameRate rationalRate(double fps);

// The most common frame rate of the video clips (25/1 when there is no video) and the most
// common picture size among them (1920x1080 when none has one). Ties go to the first met.
TimelineFormat chooseFormat(const Timeline& timeline);

// Lays every clip that was not failed at its startOffset, rounded to the nearest frame of the
// chosen rate; the timeline must outlive the layout, which points into it.
LaidTimeline layOut(const Timeline& timeline);

// The last part of a path: the file name shown to people.
std::string fileName(const std::string& path);

// The name a clip is shown by: its picture file's where picture and sound lie apart.
std::string clipName(const ResultEvent& result);

// The name of the shoot: the last part of the session, or "Timeline" without one.
std::string timelineName(const Timeline& timeline);

} // namespace FrameLayout

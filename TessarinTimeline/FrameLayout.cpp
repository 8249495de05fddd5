#include "TessarinTimeline/FrameLayout.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>
#include <utility>

namespace {

// The most common key in order of first appearance; ties go to the first met.
template <class Key>
std::optional<Key> mostCommon(const std::vector<Key>& keys) {
    std::map<Key, int> counts;
    std::optional<Key> best;
    int bestCount = 0;
    for (const auto& key : keys) {
        const int n = ++counts[key];
        if (n > bestCount) {
            bestCount = n;
            best = key;
        }
    }
    return best;
}

} // namespace

namespace FrameLayout {

FrameRate rationalRate(double fps) {
    if (!std::isfinite(fps) || fps < 1 || fps > 1000) {
        return {25, 1};
    }
    // Rates travel as single-precision floats (23.976 arrives as 23.97599983...), so a rate
    // within a hundredth of a frame of a standard one is that one.
    constexpr double kSameRate = 0.01;
    const double whole = std::round(fps);
    if (std::abs(fps - whole) < kSameRate) {
        return {static_cast<int>(whole), 1};
    }
    const double ntsc = std::round(fps * 1.001);
    if (std::abs(fps - ntsc * 1000 / 1001) < kSameRate) {
        return {static_cast<int>(ntsc) * 1000, 1001};
    }
    const int num = static_cast<int>(std::round(fps * 1000));
    const int g = std::gcd(num, 1000);
    return {num / g, 1000 / g};
}

TimelineFormat chooseFormat(const Timeline& timeline) {
    std::vector<std::pair<int, int>> rates;
    std::vector<std::pair<int, int>> sizes;
    for (const auto& track : timeline.tracks) {
        for (const auto& clip : track.clips) {
            const auto& r = clip.result;
            if (r.mediaType != "video") {
                continue;
            }
            if (r.frameRate) {
                const auto rate = rationalRate(*r.frameRate);
                rates.emplace_back(rate.num, rate.den);
            }
            if (r.pixelWidth && r.pixelHeight && *r.pixelWidth > 0 && *r.pixelHeight > 0) {
                sizes.emplace_back(*r.pixelWidth, *r.pixelHeight);
            }
        }
    }
    TimelineFormat format;
    if (auto rate = mostCommon(rates)) {
        format.rate = {rate->first, rate->second};
    }
    if (auto size = mostCommon(sizes)) {
        format.width = size->first;
        format.height = size->second;
    }
    return format;
}

LaidTimeline layOut(const Timeline& timeline) {
    LaidTimeline laid;
    laid.format = chooseFormat(timeline);
    const double fps = laid.format.rate.fps();
    for (const auto& track : timeline.tracks) {
        LaidTrack lane{&track, {}};
        // The engine lists a track's clips in its own order; a track plays them in time.
        std::vector<const TimelineClip*> order;
        for (const auto& clip : track.clips) {
            order.push_back(&clip);
        }
        std::stable_sort(order.begin(), order.end(), [](const auto* a, const auto* b) {
            return a->result.startOffset < b->result.startOffset;
        });
        std::int64_t cursor = 0;
        for (const auto* item : order) {
            const auto& clip = *item;
            if (clip.failed()) {
                laid.bin.push_back(&clip);
                continue;
            }
            LaidClip c;
            c.clip = &clip;
            if (clip.driftPpm && 1 + *clip.driftPpm / 1e6 > 0) {
                c.speed = 1 + *clip.driftPpm / 1e6;
            }
            c.playedFrames =
                std::max<std::int64_t>(1, std::llround(clip.result.duration * fps / c.speed));
            const std::int64_t position = std::llround(clip.result.startOffset * fps);
            c.start = std::max(position, cursor);
            c.in = c.start - position;
            c.length = c.playedFrames - c.in;
            if (c.length <= 0) {
                laid.bin.push_back(&clip);
                continue;
            }
            cursor = c.end();
            laid.length = std::max(laid.length, cursor);
            lane.clips.push_back(c);
        }
        laid.tracks.push_back(std::move(lane));
    }
    return laid;
}

std::string fileName(const std::string& path) {
    const auto slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string clipName(const ResultEvent& result) {
    return fileName(result.picturePath.value_or(result.path));
}

std::string timelineName(const Timeline& timeline) {
    std::string session = timeline.session;
    while (session.size() > 1 && session.back() == '/') {
        session.pop_back();
    }
    const auto name = fileName(session);
    return name.empty() ? "Timeline" : name;
}

} // namespace FrameLayout

#include "TessarinEngine/SyncEngine/Chain.h"
#include "TessarinEngine/SyncEngine/Format.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace SyncEngine {

namespace {

// A clip clock more than a week from the anchor's is taken to belong to another shoot.
constexpr double kClockHorizon = 604800.0;
// A clock lay may start this much before its floor before it counts as not fitting.
constexpr double kStartTolerance = 0.05;
constexpr double kTailAllowanceCap = 7200.0;

struct Lay {
    std::vector<double> pos;
    std::vector<Placement> how;
};

struct Layout {
    const std::unordered_map<int, double>& posOf;
    const std::function<double(int)>& dur;
    const std::function<std::optional<Date>(int)>& clock;
    const SetClip& setClip;
    ChainCounts counts;

    bool usableClock(int i, Date anchorDate) const {
        const auto c = clock(i);
        return c && std::abs(*c - anchorDate) < kClockHorizon;
    }

    // Positions of first..<last measured from an anchor at position p with date d, or nothing if
    // no clip has a usable clock or the clips do not fit between `from` and `to`.
    std::optional<Lay> clockLay(int first, int last, double p, Date d, double from,
                                std::optional<double> to) const {
        bool any = false;
        for (int i = first; i < last && !any; ++i) {
            any = usableClock(i, d);
        }
        if (!any) {
            return std::nullopt;
        }
        Lay lay;
        double running = from;
        for (int i = first; i < last; ++i) {
            double pos = running;
            Placement how = Placement::interp;
            if (usableClock(i, d)) {
                pos = p + (*clock(i) - d);
                how = Placement::clock;
            }
            lay.pos.push_back(pos);
            lay.how.push_back(how);
            running = pos + dur(i);
        }
        double cursor = from;
        for (int i = first; i < last; ++i) {
            auto& pos = lay.pos[i - first];
            pos = std::max(cursor, pos);
            cursor = pos + dur(i);
        }
        double limit = to.value_or(std::numeric_limits<double>::max());
        for (int i = last - 1; i >= first; --i) {
            auto& pos = lay.pos[i - first];
            limit -= dur(i);
            limit = std::min(pos, limit);
            pos = limit;
        }
        if (lay.pos.front() < from - kStartTolerance) {
            return std::nullopt;
        }
        return lay;
    }

    void place(int i, double pos, Placement how) {
        setClip(i, pos, how);
        if (how == Placement::clock) {
            ++counts.byClock;
        } else {
            ++counts.byInterp;
        }
    }

    void apply(int first, const Lay& lay) {
        for (std::size_t k = 0; k < lay.pos.size(); ++k) {
            place(first + static_cast<int>(k), lay.pos[k], lay.how[k]);
        }
    }

    std::optional<Lay> layFrom(std::optional<int> anchor, int first, int last, double from,
                               std::optional<double> to) const {
        if (!anchor || !posOf.contains(*anchor)) {
            return std::nullopt;
        }
        const auto d = clock(*anchor);
        if (!d) {
            return std::nullopt;
        }
        return clockLay(first, last, posOf.at(*anchor), *d, from, to);
    }

    void fill(int first, int last, double from, std::optional<double> to,
              std::optional<int> prevAnchor, std::optional<int> nextAnchor) {
        if (first >= last) {
            return;
        }
        double total = 0;
        for (int i = first; i < last; ++i) {
            total += dur(i);
        }
        if (auto lay = layFrom(prevAnchor, first, last, from, to)) {
            if (to) {
                apply(first, *lay);
                return;
            }
            // A tail has nothing after it to stop a wrong clock; it may run past its footage by
            // at most the footage itself, and never by more than two hours.
            const double ceiling = from + total + std::min(total, kTailAllowanceCap);
            const double reached = lay->pos.back() + dur(last - 1);
            if (reached <= ceiling) {
                apply(first, *lay);
                return;
            }
            logDetail(format("clock-laid tail of %d clip(s) from %.0fs reached %.0fs (ceiling "
                             "%.0fs) — the anchor it is measured from looks wrong, butt-joining "
                             "instead",
                             last - first, from, reached, ceiling));
        }
        if (auto lay = layFrom(nextAnchor, first, last, from, to)) {
            apply(first, *lay);
            return;
        }
        bool anyClock = false;
        for (int i = first; i < last && !anyClock; ++i) {
            anyClock = clock(i).has_value();
        }
        const Placement how = anyClock ? Placement::clock : Placement::interp;
        double gap = 0;
        if (to && total < *to - from) {
            gap = (*to - from - total) / static_cast<double>(last - first + 1);
        }
        double cursor = from + gap;
        for (int i = first; i < last; ++i) {
            place(i, cursor, how);
            cursor = cursor + gap + dur(i);
        }
    }
};

} // namespace

std::vector<int> longestConsistentChain(const std::vector<ChainAnchor>& anchors,
                                        const std::vector<double>& prefixDur, double slack) {
    if (anchors.empty()) {
        return {};
    }
    const std::size_t n = anchors.size();
    std::vector<int> len(n, 1);
    std::vector<int> prev(n, -1);
    std::size_t best = 0;
    for (std::size_t i = 0; i < n; ++i) {
        for (std::size_t j = 0; j < i; ++j) {
            const double footage = prefixDur[anchors[i].ci] - prefixDur[anchors[j].ci];
            if (footage - slack <= anchors[i].pos - anchors[j].pos && len[i] < len[j] + 1) {
                len[i] = len[j] + 1;
                prev[i] = static_cast<int>(j);
            }
        }
        if (len[best] < len[i]) {
            best = i;
        }
    }
    std::vector<int> chain;
    for (int k = static_cast<int>(best); k != -1; k = prev[k]) {
        chain.push_back(anchors[k].ci);
    }
    std::reverse(chain.begin(), chain.end());
    return chain;
}

ChainCounts layoutChain(const std::vector<int>& anchors,
                        const std::unordered_map<int, double>& posOf,
                        const std::function<double(int)>& dur,
                        const std::function<std::optional<Date>(int)>& clock,
                        const SetClip& setClip, double base, int count,
                        const std::function<int(int)>& device) {
    Layout layout{posOf, dur, clock, setClip, {}};
    if (count <= 0) {
        return {};
    }
    if (anchors.empty()) {
        int k = -1;
        for (int i = 0; i < count && k < 0; ++i) {
            if (clock(i)) {
                k = i;
            }
        }
        std::optional<Lay> lay;
        if (k >= 0) {
            // The clips before the first clock are taken to have run back to back up to it.
            double prefix = 0;
            for (int i = 0; i < k; ++i) {
                prefix += dur(i);
            }
            lay = layout.clockLay(0, count, base + prefix, *clock(k), base, std::nullopt);
        }
        if (lay) {
            layout.apply(0, *lay);
        } else {
            double cursor = base;
            for (int i = 0; i < count; ++i) {
                layout.place(i, cursor, Placement::interp);
                cursor += dur(i);
            }
        }
        return layout.counts;
    }

    const int a = anchors.front();
    if (a > 0) {
        double before = 0;
        for (int i = 0; i < a; ++i) {
            before += dur(i);
        }
        layout.fill(0, a, posOf.at(a) - before, posOf.at(a), std::nullopt, a);
    }
    setClip(a, posOf.at(a), Placement::matched);
    // One device records one clip at a time, so an anchor that overlaps the last anchor of its own
    // device is pushed to touch it. The devices of a chain that joins several run side by side:
    // their overlaps were heard in their audio, and stay.
    const auto deviceOf = [&](int i) {
        return device ? device(i) : 0;
    };
    std::unordered_map<int, double> deviceEnd{{deviceOf(a), posOf.at(a) + dur(a)}};
    int p = a;
    double laid = posOf.at(a);
    for (std::size_t k = 1; k < anchors.size(); ++k) {
        const int b = anchors[k];
        const auto end = deviceEnd.find(deviceOf(b));
        const double q = end == deviceEnd.end() ? posOf.at(b) : std::max(posOf.at(b), end->second);
        layout.fill(p + 1, b, laid + dur(p), q, p, b);
        setClip(b, q, Placement::matched);
        deviceEnd[deviceOf(b)] = q + dur(b);
        p = b;
        laid = q;
    }
    layout.fill(p + 1, count, laid + dur(p), std::nullopt, p, std::nullopt);
    return layout.counts;
}

std::optional<std::string> neighbourNote(int i, const std::vector<int>& anchors,
                                         const std::function<std::string(int)>& names) {
    std::optional<int> prev;
    std::optional<int> next;
    for (int a : anchors) {
        if (a < i) {
            prev = a;
        } else if (a > i && !next) {
            next = a;
        }
    }
    if (prev && next) {
        return "between '" + names(*prev) + "' and '" + names(*next) + "'";
    }
    if (prev) {
        return "after '" + names(*prev) + "'";
    }
    if (next) {
        return "before '" + names(*next) + "'";
    }
    return std::nullopt;
}

} // namespace SyncEngine

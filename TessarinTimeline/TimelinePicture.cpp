#include "TessarinTimeline/TimelinePicture.h"

#include "TessarinTimeline/FrameLayout.h"
#include "TessarinTimeline/XmlText.h"
#include "TessarinTimeline/platform/TextCells.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>

namespace {

constexpr double kFontSize = 11;
constexpr double kTitleSize = 15;
// Monospace faces set their characters 0.6 em wide (DejaVu Sans Mono 0.602 em, Liberation Mono
// 0.600 em); 6.7 px at 11 px leaves room for the widest of them.
constexpr double kCellWidth = 6.7;
constexpr const char* kFontFamily = "'DejaVu Sans Mono', 'Liberation Mono', monospace";

constexpr double kLeft = 170; // track names stand left of the time axis
constexpr double kRight = 70; // room for the last ruler label
constexpr double kPlotWidth = 1400;
constexpr double kMinPixelsPerSecond = 0.2;
constexpr double kRulerTop = 86;
constexpr double kLanesTop = 110;
constexpr double kLaneHeight = 30;
constexpr double kBarInset = 4;
constexpr double kBarHeight = kLaneHeight - 2 * kBarInset;
constexpr double kLabelPad = 4;
constexpr double kMinLabelledBar = 60;

struct Verdict {
    const char* status;
    const char* fill;
    const char* stroke;
};

// Colours that tell the verdicts apart also for the common red-green colour blindness by
// lightness: a light green, a mid amber and a darker red.
constexpr std::array<Verdict, 4> kVerdicts = {{{"synced", "#8fd19e", "#2e7d32"},
                                               {"weak", "#f2c14e", "#9a6b00"},
                                               {"failed", "#e0675f", "#8e1b14"},
                                               {"pending", "#c8c8c8", "#6b6b6b"}}};

const Verdict& verdictOf(const std::string& status) {
    for (const auto& v : kVerdicts) {
        if (status == v.status) {
            return v;
        }
    }
    return kVerdicts.back();
}

std::string px(double value) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.2f", value);
    return buf;
}

double textWidth(const std::string& text) {
    return TextCells::width(text) * kCellWidth;
}

// "m:ss.s" under an hour, "h:mm:ss" beyond.
std::string clockText(double seconds) {
    char buf[48];
    const auto whole = static_cast<long long>(seconds);
    if (seconds < 3600) {
        std::snprintf(buf, sizeof buf, "%lld:%04.1f", whole / 60, seconds - (whole / 60) * 60.0);
    } else {
        std::snprintf(buf, sizeof buf, "%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60,
                      whole % 60);
    }
    return buf;
}

// Ruler labels: whole minutes as "12 min"; the quarter and half minutes of short timelines as
// "m:ss".
std::string minutesText(double minutes) {
    char buf[32];
    if (minutes == std::floor(minutes)) {
        std::snprintf(buf, sizeof buf, "%.0f min", minutes);
    } else {
        const auto seconds = static_cast<long long>(std::lround(minutes * 60));
        std::snprintf(buf, sizeof buf, "%lld:%02lld", seconds / 60, seconds % 60);
    }
    return buf;
}

class Svg {
public:
    void raw(const std::string& text) { out_ += text + "\n"; }

    void text(double x, double y, const std::string& content, const char* cls,
              double size = kFontSize) {
        out_ += "<text class=\"" + std::string(cls) + "\" x=\"" + px(x) + "\" y=\"" + px(y) + "\"";
        if (size != kFontSize) {
            out_ += " font-size=\"" + px(size) + "\"";
        }
        out_ += ">" + XmlText::escape(content) + "</text>\n";
    }

    void rect(double x, double y, double w, double h, const std::string& style,
              const std::string& cls = {}, const std::string& title = {}) {
        out_ += "<rect";
        if (!cls.empty()) {
            out_ += " class=\"" + cls + "\"";
        }
        out_ += " x=\"" + px(x) + "\" y=\"" + px(y) + "\" width=\"" + px(w) + "\" height=\"" +
                px(h) + "\" " + style;
        if (title.empty()) {
            out_ += "/>\n";
        } else {
            out_ += "><title>" + XmlText::escape(title) + "</title></rect>\n";
        }
    }

    std::string take() { return std::move(out_); }

private:
    std::string out_;
};

struct Bar {
    double x = 0;
    double width = 0;
    const TimelineClip* clip = nullptr;
};

// The ruler step in minutes: the smallest that keeps every label clear of the next and the ticks
// 60 px or more apart.
double rulerStep(double pixelsPerSecond, double total) {
    constexpr std::array<double, 13> kSteps = {0.25, 0.5, 1,  2,   5,   10, 15,
                                               20,   30,  60, 120, 240, 480};
    for (double step : kSteps) {
        double widest = 0;
        for (int i = 0; i * step * 60 <= total + 1e-9; ++i) {
            widest = std::max(widest, textWidth(minutesText(i * step)));
        }
        const double spacing = step * 60 * pixelsPerSecond;
        if (spacing >= std::max(60.0, widest + 12)) {
            return step;
        }
    }
    return kSteps.back();
}

void writeLegend(Svg& svg, const Timeline& timeline) {
    std::array<int, kVerdicts.size()> counts{};
    for (const auto& track : timeline.tracks) {
        for (const auto& clip : track.clips) {
            const auto& v = verdictOf(clip.result.syncStatus);
            ++counts[static_cast<std::size_t>(&v - kVerdicts.data())];
        }
    }
    double x = 16;
    for (std::size_t i = 0; i < kVerdicts.size(); ++i) {
        const auto& v = kVerdicts[i];
        if (i == kVerdicts.size() - 1 && counts[i] == 0) {
            break; // "pending" is shown only when some clip still is
        }
        svg.rect(x, 60, 12, 12, std::string("fill=\"") + v.fill + "\" stroke=\"" + v.stroke + "\"");
        const std::string text = std::string(v.status) + " " + std::to_string(counts[i]);
        svg.text(x + 18, 70, text, "legend");
        x += 18 + textWidth(text) + 24;
    }
}

} // namespace

namespace TimelinePicture {

std::string write(const Timeline& timeline) {
    double total = std::max(1.0, timeline.done.timelineDuration);
    for (const auto& track : timeline.tracks) {
        for (const auto& clip : track.clips) {
            total = std::max(total, clip.result.startOffset + clip.result.duration);
        }
    }
    const double pps = std::max(kMinPixelsPerSecond, kPlotWidth / total);
    const double width = std::ceil(kLeft + total * pps + kRight);
    const double height = kLanesTop + timeline.tracks.size() * kLaneHeight + 24;

    Svg svg;
    svg.raw("<?xml version=\"1.0\" encoding=\"utf-8\"?>");
    svg.raw("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + px(width) + "\" height=\"" +
            px(height) + "\" viewBox=\"0 0 " + px(width) + " " + px(height) + "\" font-family=\"" +
            kFontFamily + "\" font-size=\"" + px(kFontSize) + "\">");
    svg.rect(0, 0, width, height, "fill=\"#ffffff\"");

    const auto& done = timeline.done;
    svg.text(16, 26, "Timeline of " + FrameLayout::timelineName(timeline), "title", kTitleSize);
    svg.text(16, 48,
             std::to_string(done.trackCount) + " tracks \u00B7 " + std::to_string(done.clipCount) +
                 " clips \u00B7 timeline " + clockText(done.timelineDuration),
             "totals");
    writeLegend(svg, timeline);

    const double lanesBottom = kLanesTop + timeline.tracks.size() * kLaneHeight;
    for (std::size_t si = 0; si < timeline.tracks.size(); ++si) {
        if (si % 2 == 0) {
            svg.rect(0, kLanesTop + si * kLaneHeight, width, kLaneHeight, "fill=\"#f3f4f6\"");
        }
    }

    const double step = rulerStep(pps, total);
    svg.raw("<g stroke=\"#b0b4ba\" stroke-width=\"1\">");
    for (int i = 0;; ++i) {
        const double x = kLeft + i * step * 60 * pps;
        if (i * step * 60 > total + 1e-9) {
            break;
        }
        svg.raw("<line x1=\"" + px(x) + "\" y1=\"" + px(kRulerTop + 14) + "\" x2=\"" + px(x) +
                "\" y2=\"" + px(lanesBottom) + "\"/>");
    }
    svg.raw("</g>");
    for (int i = 0; i * step * 60 <= total + 1e-9; ++i) {
        svg.text(kLeft + i * step * 60 * pps + 3, kRulerTop + 10, minutesText(i * step), "ruler");
    }

    const int nameCells = static_cast<int>((kLeft - 24) / kCellWidth);
    for (std::size_t si = 0; si < timeline.tracks.size(); ++si) {
        const auto& track = timeline.tracks[si];
        const double top = kLanesTop + si * kLaneHeight;
        svg.text(8, top + 19, TextCells::fit(track.name, nameCells), "track");

        std::vector<Bar> bars;
        for (const auto& clip : track.clips) {
            const double start = std::max(0.0, clip.result.startOffset);
            bars.push_back({kLeft + start * pps, std::max(1.0, clip.result.duration * pps), &clip});
        }
        std::stable_sort(bars.begin(), bars.end(),
                         [](const Bar& a, const Bar& b) { return a.x < b.x; });
        for (const auto& bar : bars) {
            const auto& r = bar.clip->result;
            const auto& v = verdictOf(r.syncStatus);
            svg.rect(bar.x, top + kBarInset, bar.width, kBarHeight,
                     std::string("fill=\"") + v.fill + "\" stroke=\"" + v.stroke +
                         "\" stroke-width=\"0.5\"",
                     "clip",
                     FrameLayout::clipName(r) + " \u00B7 " + r.syncStatus + " \u00B7 " +
                         clockText(r.startOffset) + " \u00B7 " + r.explanation);
        }
        // Labels go left to right, each starting clear of the one before, so none overlap even
        // where the engine let two clips touch.
        double labelEnd = -std::numeric_limits<double>::infinity();
        for (const auto& bar : bars) {
            if (bar.width < kMinLabelledBar) {
                continue;
            }
            const double left = std::max(bar.x + kLabelPad, labelEnd + kLabelPad);
            const double right = bar.x + bar.width - kLabelPad;
            const int cells = static_cast<int>(std::floor((right - left) / kCellWidth));
            const auto label = TextCells::fit(FrameLayout::clipName(bar.clip->result), cells);
            if (label.empty()) {
                continue;
            }
            svg.text(left, top + kBarInset + 15, label, "label");
            labelEnd = left + textWidth(label);
        }
    }
    svg.raw("</svg>");
    return svg.take();
}

} // namespace TimelinePicture

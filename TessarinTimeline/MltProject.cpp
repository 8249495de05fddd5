#include "TessarinTimeline/MltProject.h"

#include "TessarinTimeline/XmlText.h"

#include <charconv>
#include <cmath>
#include <map>
#include <numeric>

namespace {

std::string number(double value) {
    char buf[64];
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, value);
    return std::string(buf, ec == std::errc{} ? end : buf);
}

class Writer {
public:
    void line(int depth, const std::string& text) {
        out_.append(static_cast<std::size_t>(depth) * 2, ' ');
        out_ += text;
        out_ += '\n';
    }
    void property(int depth, const std::string& name, const std::string& value) {
        line(depth, "<property name=\"" + XmlText::escape(name) + "\">" + XmlText::escape(value) +
                        "</property>");
    }
    std::string take() { return std::move(out_); }

private:
    std::string out_;
};

std::string attribute(const char* name, const std::string& value) {
    return std::string(" ") + name + "=\"" + XmlText::escape(value) + "\"";
}

std::string attribute(const char* name, std::int64_t value) {
    return attribute(name, std::to_string(value));
}

// The producer of one clip's media: the picture file where picture and sound lie apart.
void writeProducer(Writer& w, const std::string& id, const TimelineClip& clip, double fps) {
    const auto& r = clip.result;
    const std::string media = r.picturePath.value_or(r.path);
    const double speed = clip.driftPpm ? 1 + *clip.driftPpm / 1e6 : 1;
    const double seconds = r.pictureDuration.value_or(r.duration);
    const auto length = std::max<std::int64_t>(1, std::llround(seconds * fps / speed));
    w.line(1, "<producer" + attribute("id", id) + attribute("in", 0) +
                  attribute("out", length - 1) + ">");
    w.property(2, "length", std::to_string(length));
    if (clip.driftPpm) {
        // The time-warp producer plays "speed:file"; its warp_ properties are what editors show.
        w.property(2, "resource", number(speed) + ":" + media);
        w.property(2, "mlt_service", "timewarp");
        w.property(2, "warp_speed", number(speed));
        w.property(2, "warp_resource", media);
        w.property(2, "tessarin:driftPpm", number(*clip.driftPpm));
    } else {
        w.property(2, "resource", media);
        w.property(2, "mlt_service", "avformat");
    }
    if (r.picturePath) {
        w.property(2, "tessarin:soundPath", r.path);
    }
    w.property(2, "shotcut:caption", FrameLayout::clipName(r));
    w.property(2, "kdenlive:clipname", FrameLayout::clipName(r));
    w.property(2, "tessarin:track", r.track);
    w.property(2, "tessarin:startOffset", number(r.startOffset));
    w.property(2, "tessarin:syncStatus", r.syncStatus);
    if (r.placement) {
        w.property(2, "tessarin:placement", *r.placement);
    }
    if (r.matchScore) {
        w.property(2, "tessarin:matchScore", number(*r.matchScore));
    }
    w.property(2, "tessarin:explanation", r.explanation);
    w.line(1, "</producer>");
}

void writeTransition(Writer& w, const std::string& service, std::size_t b) {
    w.line(2, "<transition>");
    w.property(3, "a_track", "0");
    w.property(3, "b_track", std::to_string(b));
    w.property(3, "mlt_service", service);
    w.property(3, "always_active", "1");
    if (service == "mix") {
        w.property(3, "sum", "1");
    }
    w.line(2, "</transition>");
}

} // namespace

namespace MltProject {

std::string write(const Timeline& timeline) {
    const auto laid = FrameLayout::layOut(timeline);
    const auto& f = laid.format;
    const double fps = f.rate.fps();
    const std::int64_t length = std::max<std::int64_t>(1, laid.length);
    const std::string name = FrameLayout::timelineName(timeline);

    Writer w;
    w.line(0, "<?xml version=\"1.0\" encoding=\"utf-8\"?>");
    w.line(0, "<mlt" + attribute("LC_NUMERIC", "C") + attribute("version", "7.12.0") +
                  attribute("title", name) + ">");
    const int g = std::gcd(f.width, f.height);
    w.line(1, "<profile" + attribute("description", name) + attribute("width", f.width) +
                  attribute("height", f.height) + attribute("progressive", 1) +
                  attribute("sample_aspect_num", 1) + attribute("sample_aspect_den", 1) +
                  attribute("display_aspect_num", f.width / g) +
                  attribute("display_aspect_den", f.height / g) +
                  attribute("frame_rate_num", f.rate.num) +
                  attribute("frame_rate_den", f.rate.den) + attribute("colorspace", 709) + "/>");

    std::map<const TimelineClip*, std::string> producers;
    for (const auto& track : timeline.tracks) {
        for (const auto& clip : track.clips) {
            const std::string id = "producer" + std::to_string(producers.size());
            producers[&clip] = id;
            writeProducer(w, id, clip, fps);
        }
    }

    // Shotcut shows the playlist called main_bin as its bin; others see a plain playlist.
    w.line(1, "<playlist" + attribute("id", "main_bin") + ">");
    w.property(2, "xml_retain", "1");
    w.property(2, "tessarin:role", "clips with no place on the timeline");
    for (const auto* clip : laid.bin) {
        w.line(2, "<entry" + attribute("producer", producers.at(clip)) + "/>");
    }
    w.line(1, "</playlist>");

    // A black background as the lowest track gives the mix and the compositing a base that runs
    // the whole length, with silent sound.
    w.line(1, "<producer" + attribute("id", "black") + attribute("in", 0) +
                  attribute("out", length - 1) + ">");
    w.property(2, "length", std::to_string(length));
    w.property(2, "resource", "black");
    w.property(2, "mlt_service", "color");
    w.property(2, "set.test_audio", "0");
    w.line(1, "</producer>");
    w.line(1, "<playlist" + attribute("id", "background") + ">");
    w.line(2, "<entry" + attribute("producer", "black") + attribute("in", 0) +
                  attribute("out", length - 1) + "/>");
    w.line(1, "</playlist>");

    for (std::size_t si = 0; si < laid.tracks.size(); ++si) {
        const auto& lane = laid.tracks[si];
        const bool video = lane.track->type == SourceType::video;
        w.line(1, "<playlist" + attribute("id", "playlist" + std::to_string(si)) + ">");
        w.property(2, video ? "shotcut:video" : "shotcut:audio", "1");
        w.property(2, "shotcut:name", lane.track->name);
        w.property(2, "kdenlive:track_name", lane.track->name);
        if (!video) {
            w.property(2, "kdenlive:audio_track", "1");
        }
        std::int64_t cursor = 0;
        for (const auto& c : lane.clips) {
            if (c.start > cursor) {
                w.line(2, "<blank" + attribute("length", c.start - cursor) + "/>");
            }
            w.line(2, "<entry" + attribute("producer", producers.at(c.clip)) +
                          attribute("in", c.in) + attribute("out", c.in + c.length - 1) + "/>");
            cursor = c.end();
        }
        w.line(1, "</playlist>");
    }

    w.line(1, "<tractor" + attribute("id", "tractor0") + attribute("title", name) +
                  attribute("in", 0) + attribute("out", length - 1) + ">");
    w.property(2, "shotcut", "1");
    w.line(2, "<multitrack>");
    w.line(3, "<track" + attribute("producer", "background") + "/>");
    for (std::size_t si = 0; si < laid.tracks.size(); ++si) {
        const bool video = laid.tracks[si].track->type == SourceType::video;
        w.line(3, "<track" + attribute("producer", "playlist" + std::to_string(si)) +
                      (video ? "" : attribute("hide", "video")) + "/>");
    }
    w.line(2, "</multitrack>");
    // Track 0 is the background: every track above it is mixed into it, so all are heard
    // together, and every video track is laid over it.
    for (std::size_t si = 0; si < laid.tracks.size(); ++si) {
        writeTransition(w, "mix", si + 1);
        if (laid.tracks[si].track->type == SourceType::video) {
            writeTransition(w, "qtblend", si + 1);
        }
    }
    w.line(1, "</tractor>");
    w.line(0, "</mlt>");
    return w.take();
}

} // namespace MltProject

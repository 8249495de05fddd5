#include "TessarinEngineCLI/Events.h"

#include "TessarinEngine/platform/Text.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <system_error>
#include <type_traits>

namespace {

// Builds one object field by field; remembers whether anything could not be encoded.
class ObjectWriter {
public:
    ObjectWriter() { out_ += '{'; }

    void field(const char* key, const std::string& value) {
        if (!Text::isValidUtf8(value)) {
            failed_ = true;
        }
        name(key);
        quoted(value);
    }
    void field(const char* key, const char* value) { field(key, std::string(value)); }
    void field(const char* key, int value) {
        name(key);
        out_ += std::to_string(value);
    }
    void field(const char* key, double value) { number(key, value); }
    void field(const char* key, float value) { number(key, value); }

    template <class T>
    void field(const char* key, const std::optional<T>& value) {
        if (value) {
            field(key, *value);
        }
    }

    std::optional<std::string> finish() {
        out_ += '}';
        if (failed_) {
            return std::nullopt;
        }
        return std::move(out_);
    }

private:
    template <class T>
    void number(const char* key, T value) {
        if (!std::isfinite(value)) {
            failed_ = true;
            return;
        }
        name(key);
        char buf[64];
        // Shortest text that reads back to the same value of the same width.
        auto [end, ec] = std::to_chars(buf, buf + sizeof buf, value);
        out_.append(buf, ec == std::errc{} ? end : buf);
    }

    void name(const char* key) {
        if (!first_) {
            out_ += ',';
        }
        first_ = false;
        quoted(key);
        out_ += ':';
    }

    void quoted(const std::string& s) {
        out_ += '"';
        for (char ch : s) {
            const auto c = static_cast<unsigned char>(ch);
            switch (ch) {
            case '"':
                out_ += "\\\"";
                break;
            case '\\':
                out_ += "\\\\";
                break;
            case '/':
                out_ += "\\/";
                break;
            case '\n':
                out_ += "\\n";
                break;
            case '\r':
                out_ += "\\r";
                break;
            case '\t':
                out_ += "\\t";
                break;
            case '\b':
                out_ += "\\b";
                break;
            case '\f':
                out_ += "\\f";
                break;
            default:
                if (c < 0x20) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04x", c);
                    out_ += buf;
                } else {
                    out_ += ch;
                }
            }
        }
        out_ += '"';
    }

    std::string out_;
    bool first_ = true;
    bool failed_ = false;
};

std::optional<std::string> encodeOne(const ProgressEvent& e) {
    ObjectWriter w;
    w.field("type", "progress");
    w.field("phase", e.phase);
    w.field("fraction", e.fraction);
    w.field("path", e.path);
    return w.finish();
}

std::optional<std::string> encodeOne(const ResultEvent& e) {
    // Frame rates are single precision in the records and are written with the digits of that
    // float widened to double.
    auto widened = [](const std::optional<float>& f) -> std::optional<double> {
        if (!f) {
            return std::nullopt;
        }
        return static_cast<double>(*f);
    };
    ObjectWriter w;
    w.field("type", "result");
    w.field("path", e.path);
    w.field("session", e.session);
    w.field("track", e.track);
    w.field("mediaType", e.mediaType);
    w.field("startOffset", e.startOffset);
    w.field("duration", e.duration);
    w.field("syncStatus", e.syncStatus);
    w.field("matchScore", e.matchScore);
    w.field("placement", e.placement);
    w.field("audioUsability", e.audioUsability);
    w.field("explanation", e.explanation);
    w.field("channelCount", e.channelCount);
    w.field("frameRate", widened(e.frameRate));
    w.field("pixelWidth", e.pixelWidth);
    w.field("pixelHeight", e.pixelHeight);
    w.field("picturePath", e.picturePath);
    w.field("pictureDuration", e.pictureDuration);
    w.field("recordFrameRate", widened(e.recordFrameRate));
    w.field("conformFrameRate", widened(e.conformFrameRate));
    w.field("refinedBy", e.refinedBy);
    w.field("driftPpm", e.driftPpm);
    return w.finish();
}

std::optional<std::string> encodeOne(const ErrorEvent& e) {
    ObjectWriter w;
    w.field("type", "error");
    w.field("path", e.path);
    w.field("message", e.message);
    return w.finish();
}

std::optional<std::string> encodeOne(const DoneEvent& e) {
    ObjectWriter w;
    w.field("type", "done");
    w.field("trackCount", e.trackCount);
    w.field("clipCount", e.clipCount);
    w.field("timelineDuration", e.timelineDuration);
    return w.finish();
}

} // namespace

namespace Events {

std::optional<std::string> encode(const Event& event) {
    return std::visit([](const auto& e) { return encodeOne(e); }, event);
}

void emit(const Event& event) {
    auto line = encode(event);
    if (!line) {
        return;
    }
    *line += '\n';
    errno = 0;
    if (std::fwrite(line->data(), 1, line->size(), stdout) != line->size() ||
        std::fflush(stdout) != 0) {
        const int error = errno != 0 ? errno : EIO;
        std::clearerr(stdout);
        throw WriteFailed(std::error_code(error, std::generic_category()).message());
    }
}

void eprint(const std::string& text) {
    std::string line = text + '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

} // namespace Events

#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <variant>

struct ProgressEvent {
    std::string phase; // "metadata", "extract" or "sync"
    double fraction = 0;
    std::optional<std::string> path;
};

struct ResultEvent {
    std::string path;
    std::string session;
    std::string track;
    std::string mediaType;
    double startOffset = 0;
    double duration = 0;
    std::string syncStatus;
    std::optional<float> matchScore;
    std::optional<std::string> placement;
    std::string audioUsability;
    std::string explanation;
    int channelCount = 1;
    std::optional<float> frameRate;
    std::optional<int> pixelWidth;
    std::optional<int> pixelHeight;
    std::optional<std::string> picturePath;
    std::optional<double> pictureDuration;
    std::optional<float> recordFrameRate;
    std::optional<float> conformFrameRate;
    // Only after refinement, and only where it gave a value.
    std::optional<double> refinedBy;
    std::optional<double> driftPpm;
};

struct ErrorEvent {
    std::optional<std::string> path;
    std::string message;
};

struct DoneEvent {
    int trackCount = 0;
    int clipCount = 0;
    double timelineDuration = 0;
};

using Event = std::variant<ProgressEvent, ResultEvent, ErrorEvent, DoneEvent>;

namespace Events {

// One JSON object on one line (without the line feed): fields in their record order, optional
// fields left out, '/' written as "\/", numbers in the shortest text that reads back at their own
// width. Nothing when a number is not finite or a text is not UTF-8.
std::optional<std::string> encode(const Event& event);

// Standard output refused an event (a full disk, a closed reader): nothing more can reach the
// front end, so the run must end with a failure. `what()` is the system's reason.
struct WriteFailed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Writes the encoded event and a line feed to standard output with one write and one flush. An
// event that cannot be encoded is dropped without a word; one that cannot be written throws
// WriteFailed.
void emit(const Event& event);

// Writes the text and a line feed to standard error, unbuffered.
void eprint(const std::string& text);

} // namespace Events

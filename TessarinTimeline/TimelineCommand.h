#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct TimelineOptions {
    std::optional<std::filesystem::path> inputPath;
    bool useStdin = false;
    std::optional<std::filesystem::path> mlt;
    std::optional<std::filesystem::path> otio;
    std::optional<std::filesystem::path> svg;
    bool force = false;
};

struct TimelineCommandLine {
    std::optional<TimelineOptions> options; // nothing: print the usage text and exit with 1
    std::vector<std::string> messages;      // for standard error, in order
};

namespace TimelineCommand {

inline constexpr std::string_view kUsageText =
    "Usage: tessarin-timeline (--input <events.jsonl> | --stdin) [--mlt FILE] [--otio FILE] "
    "[--svg FILE] [--force]";

// Reads the arguments left to right, as the engine does: `--stdin` wins over `--input`, a later
// value replaces an earlier one, an unknown argument is reported and skipped. Without an input,
// without any output, or with one file named for two outputs there are no options.
TimelineCommandLine parse(const std::vector<std::string>& args);

// Reads the event stream and writes every file asked for; each is written whole or not at all,
// and an existing one only with `force`. Nothing is written unless the stream holds a finished
// run with results and no target is refused. Messages go to `say`, one line each. Returns the
// exit code: 0 when all files were written, else 1.
int run(const TimelineOptions& options, std::string_view events,
        const std::function<void(const std::string&)>& say);

} // namespace TimelineCommand

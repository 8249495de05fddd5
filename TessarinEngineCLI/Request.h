#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct RequestItem {
    std::string path;
    std::string dropHint;
};

struct Request {
    std::int64_t version = 0;
    std::vector<RequestItem> items;
    std::vector<std::string> completeShootSessions;
};

// Decodes a request; nothing when the bytes are no JSON, a required key is missing or a value has
// the wrong type. Keys the request does not name are ignored.
std::optional<Request> decodeRequest(std::string_view bytes);

// The item with both paths absolute: a relative path, and an empty drop hint, resolve against
// `workingDirectory`; absolute paths are kept as written. Nothing when either path holds a NUL,
// which no file name can (the part before it would name another file).
std::optional<RequestItem> resolveItem(const RequestItem& item,
                                       const std::filesystem::path& workingDirectory);

inline constexpr std::string_view kNulInPathMessage = "Path contains a NUL character";

// What the command line asks for.
struct CommandLine {
    enum class Action {
        run,        // read the request from `inputPath` or standard input
        brawStatus, // answer whether Blackmagic RAW can be read
        usage,      // print the usage text, exit 1
        missingPath // "--input" was the last argument, exit 1
    };
    Action action = Action::usage;
    bool useStdin = false;
    std::optional<std::string> inputPath;
    // Refine audio placements below a frame and measure clock drift after placing.
    bool refine = false;
    // Messages for standard error, in the order the arguments were read.
    std::vector<std::string> messages;
};

// Reads the arguments after the program name, left to right.
CommandLine parseCommandLine(const std::vector<std::string>& args);

inline constexpr std::string_view kUsageText =
    "Usage: TessarinEngineCLI --input <request.json>  (or --stdin)";

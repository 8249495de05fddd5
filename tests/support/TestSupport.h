#pragma once

#include "TessarinEngine/EngineLog.h"

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace TestSupport {

// A fresh folder below the system's temporary folder, removed with everything in it at the end of
// the scope.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

// Collects the library's log lines for the length of its scope.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    const std::vector<std::string>& lines() const { return lines_; }
    bool contains(const std::string& fragment) const;

private:
    EngineLog::Sink previous_;
    std::vector<std::string> lines_;
};

// Wakes whoever waits on a FIFO: after `seconds`, unless destroyed first, opens its writing end
// and closes it again, so a reader blocked on it meets the end of the file. A test can then tell
// a hang (it took that long) from a refusal without hanging itself.
class FifoWatchdog {
public:
    FifoWatchdog(std::filesystem::path fifo, double seconds);

private:
    std::jthread thread_;
};

struct ProcessResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// Runs a program with arguments, feeding `input` to its standard input (closed at once when
// empty) and capturing both output streams. `env` entries ("NAME=value") are added to the
// environment of the child.
// `cwd`, when given, is the working folder of the child.
ProcessResult runProcess(const std::vector<std::string>& argv, const std::string& input = {},
                         const std::vector<std::string>& env = {},
                         const std::filesystem::path& cwd = {});

void writeText(const std::filesystem::path& file, const std::string& text);

// Compiles the C `source` into the shared library `library` with the system's C compiler; a
// failure (no compiler on the machine) lets the caller skip.
ProcessResult buildSharedLibrary(const std::filesystem::path& library, const std::string& source);

// A stand-in for the Blackmagic RAW library: its factory entry point returns a pointer to 42.
inline constexpr const char* kStandInRawFactory =
    "static int marker = 42;\nvoid* CreateBlackmagicRawFactoryInstance(void) { return &marker; }\n";

// Points the feature cache at `dir` for one scope and restores the folder it had, however the
// scope ends.
class ScopedCacheFolder {
public:
    explicit ScopedCacheFolder(const std::filesystem::path& dir);
    ~ScopedCacheFolder();
    ScopedCacheFolder(const ScopedCacheFolder&) = delete;
    ScopedCacheFolder& operator=(const ScopedCacheFolder&) = delete;

private:
    std::filesystem::path previous_;
};

// Sets the process's time zone (TZ) for one scope and restores it after.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* zone);
    ~ScopedTimeZone();
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

private:
    std::optional<std::string> previous_;
};

// Runs the project's shoot generator for `scenario` into `dir`: media in one folder per device,
// request.json and truth.json.
ProcessResult makeShoot(const std::filesystem::path& dir, const std::string& scenario,
                        std::optional<int> seed = std::nullopt);

// One run of the program on a request file: its exit code, its events in order and its log.
struct EngineRun {
    int exitCode = -1;
    std::vector<nlohmann::json> events;
    std::string log;

    std::vector<nlohmann::json> ofType(const std::string& type) const;
};

// `env` as for runProcess: tests point XDG_CACHE_HOME at a folder of their own.
EngineRun runEngine(const std::filesystem::path& request, const std::vector<std::string>& env,
                    const std::filesystem::path& cwd = {});

} // namespace TestSupport

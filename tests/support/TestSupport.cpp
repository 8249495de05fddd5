#include "tests/support/TestSupport.h"

#include "TessarinEngine/EnvelopeCache.h"

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <mutex>
#include <random>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace TestSupport {

TempDir::TempDir() {
    std::random_device rd;
    auto base = std::filesystem::temp_directory_path();
    for (int attempt = 0; attempt < 100; ++attempt) {
        auto candidate = base / ("tessarin-test-" + std::to_string(rd()));
        if (std::filesystem::create_directory(candidate)) {
            path_ = candidate;
            return;
        }
    }
    throw std::runtime_error("cannot make a temporary folder");
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

ScopedTimeZone::ScopedTimeZone(const char* zone) {
    if (const char* old = std::getenv("TZ")) {
        previous_ = old;
    }
    setenv("TZ", zone, 1);
    tzset();
}

ScopedTimeZone::~ScopedTimeZone() {
    previous_ ? setenv("TZ", previous_->c_str(), 1) : unsetenv("TZ");
    tzset();
}

ScopedCacheFolder::ScopedCacheFolder(const std::filesystem::path& dir)
    : previous_(EnvelopeCache::cacheDir()) {
    EnvelopeCache::setCacheDir(dir);
}

ScopedCacheFolder::~ScopedCacheFolder() {
    EnvelopeCache::setCacheDir(previous_);
}

LogCapture::LogCapture() : previous_(EngineLog::sink()) {
    EngineLog::sink() = [this](const std::string& line) {
        lines_.push_back(line);
    };
}

LogCapture::~LogCapture() {
    EngineLog::sink() = previous_;
}

bool LogCapture::contains(const std::string& fragment) const {
    for (const auto& l : lines_) {
        if (l.find(fragment) != std::string::npos) {
            return true;
        }
    }
    return false;
}

FifoWatchdog::FifoWatchdog(std::filesystem::path fifo, double seconds)
    : thread_([fifo = std::move(fifo), seconds](std::stop_token stop) {
          std::mutex mutex;
          std::condition_variable_any never;
          std::unique_lock lock(mutex);
          if (never.wait_for(lock, stop, std::chrono::duration<double>(seconds),
                             [] { return false; }) ||
              stop.stop_requested()) {
              return;
          }
          // Opening the writing end fails until a reader waits on the other one.
          while (!stop.stop_requested()) {
              const int fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
              if (fd >= 0) {
                  ::close(fd);
                  return;
              }
              std::this_thread::sleep_for(std::chrono::milliseconds(10));
          }
      }) {}

ProcessResult runProcess(const std::vector<std::string>& argv, const std::string& input,
                         const std::vector<std::string>& env, const std::filesystem::path& cwd) {
    // The child writes to files, read once it is gone, so it never waits on us while we feed its
    // input; a child that leaves without reading it breaks the pipe, which must not end the tests.
    std::signal(SIGPIPE, SIG_IGN);
    TempDir outputs;
    int inPipe[2];
    if (pipe2(inPipe, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, inPipe[0], 0);
    for (const auto& [fd, name] : {std::pair{1, "out"}, std::pair{2, "err"}}) {
        posix_spawn_file_actions_addopen(&actions, fd, (outputs / name).c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
    }
    if (!cwd.empty()) {
        posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());
    }
    std::vector<std::string> strings = argv;
    for (char** e = environ; *e; ++e) {
        strings.emplace_back(*e);
    }
    strings.insert(strings.end(), env.begin(), env.end());
    std::vector<char*> pointers;
    for (auto& s : strings) {
        pointers.push_back(s.data());
    }
    pointers.insert(pointers.begin() + static_cast<std::ptrdiff_t>(argv.size()), nullptr);
    pointers.push_back(nullptr);
    char** envp = pointers.data() + argv.size() + 1;

    pid_t pid;
    const int rc = posix_spawnp(&pid, pointers[0], &actions, nullptr, pointers.data(), envp);
    posix_spawn_file_actions_destroy(&actions);
    close(inPipe[0]);
    for (std::size_t written = 0; rc == 0 && written < input.size();) {
        const auto n = write(inPipe[1], input.data() + written, input.size() - written);
        if (n <= 0) {
            break;
        }
        written += static_cast<std::size_t>(n);
    }
    close(inPipe[1]);
    if (rc != 0) {
        throw std::runtime_error("cannot start " + argv[0]);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    auto read = [&](const char* name) {
        std::ifstream in(outputs / name, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), read("out"),
            read("err")};
}

void writeText(const std::filesystem::path& file, const std::string& text) {
    std::ofstream out(file, std::ios::binary);
    out << text;
}

ProcessResult buildSharedLibrary(const std::filesystem::path& library, const std::string& source) {
    const auto file = library.parent_path() / (library.stem().string() + ".c");
    writeText(file, source);
    return runProcess({"cc", "-shared", "-fPIC", "-o", library.string(), file.string()});
}

ProcessResult makeShoot(const std::filesystem::path& dir, const std::string& scenario,
                        std::optional<int> seed) {
    std::vector<std::string> args{"/usr/bin/python3",
                                  std::string(TESSARIN_TESTS_DIR) + "/shoot/make_shoot.py",
                                  dir.string(), "--scenario", scenario};
    if (seed) {
        args.insert(args.end(), {"--seed", std::to_string(*seed)});
    }
    return runProcess(args);
}

std::vector<nlohmann::json> EngineRun::ofType(const std::string& type) const {
    std::vector<nlohmann::json> out;
    for (const auto& e : events) {
        if (e["type"] == type) {
            out.push_back(e);
        }
    }
    return out;
}

EngineRun runEngine(const std::filesystem::path& request, const std::vector<std::string>& env,
                    const std::filesystem::path& cwd) {
    auto p = runProcess({TESSARIN_CLI_PATH, "--input", request.string()}, {}, env, cwd);
    EngineRun run{p.exitCode, {}, p.err};
    std::istringstream out(p.out);
    for (std::string line; std::getline(out, line);) {
        run.events.push_back(nlohmann::json::parse(line));
    }
    return run;
}

} // namespace TestSupport

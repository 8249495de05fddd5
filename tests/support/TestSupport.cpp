#include "tests/support/TestSupport.h"

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <mutex>
#include <poll.h>
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
    int inPipe[2], outPipe[2], errPipe[2];
    if (pipe(inPipe) != 0 || pipe(outPipe) != 0 || pipe(errPipe) != 0) {
        throw std::runtime_error("pipe failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, inPipe[0], 0);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
    for (int fd : {inPipe[0], inPipe[1], outPipe[0], outPipe[1], errPipe[0], errPipe[1]}) {
        posix_spawn_file_actions_addclose(&actions, fd);
    }
    if (!cwd.empty()) {
        posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());
    }

    std::vector<std::string> envStrings;
    for (char** e = environ; *e; ++e) {
        envStrings.emplace_back(*e);
    }
    envStrings.insert(envStrings.end(), env.begin(), env.end());
    std::vector<char*> envp;
    for (auto& s : envStrings) {
        envp.push_back(s.data());
    }
    envp.push_back(nullptr);
    std::vector<std::string> args = argv;
    std::vector<char*> argp;
    for (auto& s : args) {
        argp.push_back(s.data());
    }
    argp.push_back(nullptr);

    pid_t pid;
    int rc = posix_spawnp(&pid, argp[0], &actions, nullptr, argp.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(inPipe[0]);
    close(outPipe[1]);
    close(errPipe[1]);
    if (rc != 0) {
        close(inPipe[1]);
        close(outPipe[0]);
        close(errPipe[0]);
        throw std::runtime_error("cannot start " + argv[0]);
    }

    ProcessResult result;
    std::size_t written = 0;
    if (input.empty()) {
        close(inPipe[1]);
        inPipe[1] = -1;
    } else {
        fcntl(inPipe[1], F_SETFL, O_NONBLOCK);
    }
    bool outOpen = true, errOpen = true;
    while (outOpen || errOpen) {
        std::array<pollfd, 3> fds{
            {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}, {inPipe[1], POLLOUT, 0}}};
        poll(fds.data(), inPipe[1] >= 0 ? 3 : 2, -1);
        char buf[65536];
        if (outOpen && (fds[0].revents & (POLLIN | POLLHUP))) {
            auto n = read(outPipe[0], buf, sizeof buf);
            if (n <= 0) {
                outOpen = false;
            } else {
                result.out.append(buf, static_cast<std::size_t>(n));
            }
        }
        if (errOpen && (fds[1].revents & (POLLIN | POLLHUP))) {
            auto n = read(errPipe[0], buf, sizeof buf);
            if (n <= 0) {
                errOpen = false;
            } else {
                result.err.append(buf, static_cast<std::size_t>(n));
            }
        }
        if (inPipe[1] >= 0 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP))) {
            auto n = write(inPipe[1], input.data() + written, input.size() - written);
            if (n > 0) {
                written += static_cast<std::size_t>(n);
            }
            if (n < 0 || written == input.size()) {
                close(inPipe[1]);
                inPipe[1] = -1;
            }
        }
    }
    if (inPipe[1] >= 0) {
        close(inPipe[1]);
    }
    close(outPipe[0]);
    close(errPipe[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

void writeText(const std::filesystem::path& file, const std::string& text) {
    std::ofstream out(file, std::ios::binary);
    out << text;
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

#include "TessarinEngine/platform/Files.h"

#include "TessarinEngine/platform/Collation.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <pwd.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace Files {

std::filesystem::path userCacheDirectory() {
    if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg && *xdg == '/') {
        return xdg;
    }
    if (const char* home = std::getenv("HOME"); home && *home) {
        return std::filesystem::path(home) / ".cache";
    }
    if (const passwd* pw = getpwuid(getuid()); pw && pw->pw_dir) {
        return std::filesystem::path(pw->pw_dir) / ".cache";
    }
    return std::filesystem::temp_directory_path() / ".cache";
}

bool isRegularFile(const std::filesystem::path& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::optional<double> creationDate(const std::filesystem::path& path) {
    struct statx st {};
    if (::statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME, &st) != 0 || !(st.stx_mask & STATX_BTIME)) {
        return std::nullopt;
    }
    return static_cast<double>(st.stx_btime.tv_sec) + st.stx_btime.tv_nsec * 1e-9;
}

std::optional<Status> status(const std::filesystem::path& path, bool followLinks) {
    struct stat st {};
    if ((followLinks ? ::stat(path.c_str(), &st) : ::lstat(path.c_str(), &st)) != 0) {
        return std::nullopt;
    }
    const auto ns = [](const struct timespec& t) {
        return static_cast<std::int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
    };
    return Status{static_cast<std::int64_t>(st.st_size), ns(st.st_mtim), ns(st.st_atim),
                  S_ISREG(st.st_mode)};
}

std::string lowerExtension(const std::filesystem::path& path) {
    std::string text = path.string();
    while (text.size() > 1 && text.back() == '/') {
        text.pop_back();
    }
    const std::string ext = std::filesystem::path(text).extension().string();
    return ext.empty() ? std::string() : Collation::lowercased(ext.substr(1));
}

std::optional<std::string> readAll(std::istream& in) {
    std::ostringstream buffer;
    buffer << in.rdbuf();
    if (in.bad()) {
        return std::nullopt;
    }
    return buffer.str();
}

bool removeName(const std::filesystem::path& path) {
    return ::unlink(path.c_str()) == 0;
}

Descriptor::~Descriptor() {
    if (fd >= 0) {
        ::close(fd);
    }
}

std::optional<std::vector<std::uint8_t>> readRegularFile(const std::filesystem::path& path) {
    Descriptor in{::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
    struct stat st {};
    if (in.fd < 0 || ::fstat(in.fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(st.st_size));
    std::size_t done = 0;
    while (done < bytes.size()) {
        const auto n =
            ::pread(in.fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return std::nullopt;
        }
        done += static_cast<std::size_t>(n);
    }
    return bytes;
}

bool replaceFile(const std::filesystem::path& path, std::span<const std::uint8_t> bytes) {
    std::string temporary = path.string() + std::string(kReplacementMark) + "XXXXXX";
    // mkostemp creates its file exclusively: it never opens what is already there.
    Descriptor out{::mkostemp(temporary.data(), O_CLOEXEC)};
    if (out.fd < 0) {
        return false;
    }
    bool written = true;
    for (std::size_t done = 0; written && done < bytes.size();) {
        const auto n = ::write(out.fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        written = n > 0;
        done += written ? static_cast<std::size_t>(n) : 0;
    }
    written = ::close(std::exchange(out.fd, -1)) == 0 && written;
    if (!written || ::rename(temporary.c_str(), path.c_str()) != 0) {
        ::unlink(temporary.c_str());
        return false;
    }
    return true;
}

std::optional<std::string> readToEnd(const std::filesystem::path& path) {
    Descriptor in{::open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC)};
    struct stat st {};
    if (in.fd < 0 || ::fstat(in.fd, &st) != 0 || S_ISDIR(st.st_mode)) {
        return std::nullopt;
    }
    std::string text;
    char buffer[65536];
    for (;;) {
        const auto n = ::read(in.fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return std::nullopt;
        }
        if (n == 0) {
            return text;
        }
        text.append(buffer, static_cast<std::size_t>(n));
    }
}

void openStandardDescriptors() {
    for (int fd = 0; fd <= 2; ++fd) {
        if (::fcntl(fd, F_GETFD) != -1 || errno != EBADF) {
            continue;
        }
        // open() takes the lowest free number, which is this one while the lower ones are open.
        const int opened = ::open("/dev/null", O_RDWR);
        if (opened >= 0 && opened != fd) {
            ::dup2(opened, fd);
            ::close(opened);
        }
    }
}

} // namespace Files

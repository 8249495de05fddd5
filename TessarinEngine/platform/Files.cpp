#include "TessarinEngine/platform/Files.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

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

std::optional<std::string> readToEnd(const std::filesystem::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        return std::nullopt;
    }
    struct stat st {};
    std::optional<std::string> text;
    if (::fstat(fd, &st) == 0 && !S_ISDIR(st.st_mode)) {
        text.emplace();
        char buffer[65536];
        for (;;) {
            const auto n = ::read(fd, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n < 0) {
                text.reset();
            }
            if (n <= 0) {
                break;
            }
            text->append(buffer, static_cast<std::size_t>(n));
        }
    }
    ::close(fd);
    return text;
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

#include "TessarinEngine/platform/Files.h"

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

} // namespace Files

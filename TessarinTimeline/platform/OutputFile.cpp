#include "TessarinTimeline/platform/OutputFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

std::string reason(int error) {
    return std::strerror(error);
}

// Closes the descriptor and removes the temporary file unless the rename took it.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::filesystem::path& target) {
        const auto folder =
            target.parent_path().empty() ? std::filesystem::path(".") : target.parent_path();
        for (int attempt = 0; attempt < 100 && fd_ < 0; ++attempt) {
            path_ = folder / ("." + target.filename().string() + "." + std::to_string(getpid()) +
                              "." + std::to_string(attempt) + ".tmp");
            fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
            error_ = fd_ < 0 ? errno : 0;
            created_ = fd_ >= 0;
            if (fd_ < 0 && error_ != EEXIST) {
                break;
            }
        }
    }
    ~TemporaryFile() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        if (created_ && !kept_) {
            ::unlink(path_.c_str());
        }
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    bool created() const { return created_; }
    int error() const { return error_; }
    int fd() const { return fd_; }
    const std::filesystem::path& path() const { return path_; }

    // Closes the file; false when the last of its data could not be written.
    bool close() {
        const int rc = ::close(fd_);
        fd_ = -1;
        error_ = rc == 0 ? 0 : errno;
        return rc == 0;
    }
    void keep() { kept_ = true; }

private:
    std::filesystem::path path_;
    int fd_ = -1;
    int error_ = 0;
    bool created_ = false;
    bool kept_ = false;
};

} // namespace

namespace OutputFile {

std::optional<std::string> writeWhole(const std::filesystem::path& target, std::string_view bytes,
                                      bool replace) {
    TemporaryFile tmp(target);
    if (!tmp.created()) {
        return "cannot create a file in " + tmp.path().parent_path().string() + ": " +
               reason(tmp.error());
    }
    for (std::size_t done = 0; done < bytes.size();) {
        const auto n = ::write(tmp.fd(), bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return "cannot write " + tmp.path().string() + ": " + reason(errno);
        }
        done += static_cast<std::size_t>(n);
    }
    if (::fsync(tmp.fd()) != 0) {
        return "cannot write " + tmp.path().string() + ": " + reason(errno);
    }
    if (!tmp.close()) {
        return "cannot write " + tmp.path().string() + ": " + reason(tmp.error());
    }
    // Without `replace`, the kernel refuses the rename if the target appeared meanwhile.
    const unsigned flags = replace ? 0 : RENAME_NOREPLACE;
    if (::renameat2(AT_FDCWD, tmp.path().c_str(), AT_FDCWD, target.c_str(), flags) != 0) {
        const int error = errno;
        if (error == EEXIST) {
            return target.string() + " already exists";
        }
        return "cannot rename " + tmp.path().string() + " to " + target.string() + ": " +
               reason(error);
    }
    tmp.keep();
    return std::nullopt;
}

} // namespace OutputFile

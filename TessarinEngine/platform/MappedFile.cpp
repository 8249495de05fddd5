#include "TessarinEngine/platform/MappedFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

Date toDate(const struct statx_timestamp& t) {
    return static_cast<double>(t.tv_sec) + t.tv_nsec / 1e9;
}

// Closes the descriptor on every path out of open(); the mapping outlives it.
struct Descriptor {
    int fd;
    ~Descriptor() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
};

} // namespace

std::optional<MappedFile> MappedFile::open(const std::filesystem::path& path) {
    // Devices and FIFOs are refused before open(), which has effects on some of them. Should
    // the path change in between, O_NONBLOCK keeps open() from waiting for a FIFO's writer and
    // the type check on the descriptor still refuses it.
    struct stat before {};
    if (::stat(path.c_str(), &before) != 0 || !S_ISREG(before.st_mode)) {
        return std::nullopt;
    }
    Descriptor file{::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
    if (file.fd < 0) {
        return std::nullopt;
    }
    struct statx st {};
    if (::statx(file.fd, "", AT_EMPTY_PATH, STATX_TYPE | STATX_SIZE | STATX_BTIME | STATX_MTIME,
                &st) != 0 ||
        !S_ISREG(st.stx_mode)) {
        return std::nullopt;
    }
    MappedFile mapped;
    if ((st.stx_mask & STATX_BTIME) != 0) {
        mapped.created_ = toDate(st.stx_btime);
    }
    if ((st.stx_mask & STATX_MTIME) != 0) {
        mapped.modified_ = toDate(st.stx_mtime);
    }
    if (st.stx_size == 0) {
        return mapped;
    }
    void* data = ::mmap(nullptr, st.stx_size, PROT_READ, MAP_PRIVATE, file.fd, 0);
    if (data == MAP_FAILED) {
        return std::nullopt;
    }
    mapped.data_ = static_cast<const std::uint8_t*>(data);
    mapped.size_ = st.stx_size;
    return mapped;
}

MappedFile::MappedFile(MappedFile&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)),
      created_(other.created_), modified_(other.modified_) {}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
    if (this != &other) {
        if (data_ != nullptr) {
            ::munmap(const_cast<std::uint8_t*>(data_), size_);
        }
        data_ = std::exchange(other.data_, nullptr);
        size_ = std::exchange(other.size_, 0);
        created_ = other.created_;
        modified_ = other.modified_;
    }
    return *this;
}

MappedFile::~MappedFile() {
    if (data_ != nullptr) {
        ::munmap(const_cast<std::uint8_t*>(data_), size_);
    }
}

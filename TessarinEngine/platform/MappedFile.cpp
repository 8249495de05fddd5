#include "TessarinEngine/platform/MappedFile.h"

#include "TessarinEngine/platform/Files.h"

#include <atomic>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <mutex>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

// The mappings in use, where the bus error handler looks a faulting address up. A fixed table of
// atomics: a signal handler may neither lock nor allocate.
struct Guard {
    std::atomic<int> state{0};
    std::atomic<std::uintptr_t> begin{0};
    std::atomic<std::uintptr_t> end{0};
    std::atomic<bool> faulted{false};
};
constexpr int kFree = 0;
constexpr int kClaimed = 1;
constexpr int kActive = 2;
// Far more than are ever mapped at once: a few files per clip, a few clips at a time.
constexpr int kGuardCount = 256;
Guard guards[kGuardCount];

struct sigaction previousBusAction;
std::uintptr_t pageSize = 4096;

// A read of a page the file no longer has raises SIGBUS. Inside one of our mappings, the page is
// replaced by zeros, the mapping is marked damaged and the read goes on; any other bus error is
// left to whatever would have handled it without us.
void onBusError(int signal, siginfo_t* info, void* context) {
    const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
    for (auto& guard : guards) {
        if (guard.state.load(std::memory_order_acquire) != kActive ||
            address < guard.begin.load(std::memory_order_relaxed) ||
            address >= guard.end.load(std::memory_order_relaxed)) {
            continue;
        }
        guard.faulted.store(true, std::memory_order_relaxed);
        void* page = reinterpret_cast<void*>(address & ~(pageSize - 1));
        if (::mmap(page, pageSize, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) !=
            MAP_FAILED) {
            return;
        }
        break;
    }
    if ((previousBusAction.sa_flags & SA_SIGINFO) != 0) {
        previousBusAction.sa_sigaction(signal, info, context);
        return;
    }
    if (previousBusAction.sa_handler != SIG_DFL && previousBusAction.sa_handler != SIG_IGN) {
        previousBusAction.sa_handler(signal);
        return;
    }
    // A fault repeats on return and now ends the process as it would have; a bus error sent by
    // another process is raised again.
    ::sigaction(signal, &previousBusAction, nullptr);
    if (info->si_code <= 0) {
        ::raise(signal);
    }
}

void installBusErrorHandler() {
    static std::once_flag once;
    std::call_once(once, [] {
        pageSize = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
        struct sigaction action {};
        action.sa_sigaction = onBusError;
        action.sa_flags = SA_SIGINFO | SA_RESTART;
        sigemptyset(&action.sa_mask);
        ::sigaction(SIGBUS, &action, &previousBusAction);
    });
}

int claimGuard(const void* data, std::size_t size) {
    for (int i = 0; i < kGuardCount; ++i) {
        int expected = kFree;
        if (guards[i].state.compare_exchange_strong(expected, kClaimed)) {
            const auto begin = reinterpret_cast<std::uintptr_t>(data);
            guards[i].begin.store(begin, std::memory_order_relaxed);
            guards[i].end.store(begin + size, std::memory_order_relaxed);
            guards[i].faulted.store(false, std::memory_order_relaxed);
            guards[i].state.store(kActive, std::memory_order_release);
            return i;
        }
    }
    return -1;
}

Date toDate(const struct statx_timestamp& t) {
    return static_cast<double>(t.tv_sec) + t.tv_nsec / 1e9;
}

} // namespace

std::optional<MappedFile> MappedFile::open(const std::filesystem::path& path) {
    // Devices and FIFOs are refused before open(), which has effects on some of them. Should
    // the path change in between, O_NONBLOCK keeps open() from waiting for a FIFO's writer and
    // the type check on the descriptor still refuses it.
    struct stat before {};
    if (::stat(path.c_str(), &before) != 0 || !S_ISREG(before.st_mode)) {
        return std::nullopt;
    }
    // Closed on every path out of open(); the mapping outlives it.
    Files::Descriptor file{::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
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
    installBusErrorHandler();
    void* data = ::mmap(nullptr, st.stx_size, PROT_READ, MAP_PRIVATE, file.fd, 0);
    if (data == MAP_FAILED) {
        return std::nullopt;
    }
    mapped.data_ = static_cast<const std::uint8_t*>(data);
    mapped.size_ = st.stx_size;
    mapped.guard_ = claimGuard(data, st.stx_size);
    if (mapped.guard_ < 0) {
        return std::nullopt; // unguarded, a shrinking file could end the process
    }
    return mapped;
}

bool MappedFile::damaged() const {
    return guard_ >= 0 && guards[guard_].faulted.load(std::memory_order_relaxed);
}

// The guard goes first: once the range is unmapped, another mapping may take its addresses.
void MappedFile::release() {
    if (guard_ >= 0) {
        guards[guard_].state.store(kFree, std::memory_order_release);
        guard_ = -1;
    }
    if (data_ != nullptr) {
        ::munmap(const_cast<std::uint8_t*>(data_), size_);
        data_ = nullptr;
        size_ = 0;
    }
}

MappedFile::MappedFile(MappedFile&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)),
      guard_(std::exchange(other.guard_, -1)), created_(other.created_),
      modified_(other.modified_) {}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
    if (this != &other) {
        release();
        data_ = std::exchange(other.data_, nullptr);
        size_ = std::exchange(other.size_, 0);
        guard_ = std::exchange(other.guard_, -1);
        created_ = other.created_;
        modified_ = other.modified_;
    }
    return *this;
}

MappedFile::~MappedFile() {
    release();
}

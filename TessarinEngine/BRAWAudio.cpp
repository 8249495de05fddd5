#include "TessarinEngine/BRAWAudio.h"

#include <algorithm>
#include <cstdio>
#include <system_error>

namespace BRAWAudio {

namespace {

constexpr const char* kLibraryFile = "libBlackmagicRawAPI.so";
constexpr const char* kFactoryEntry = "CreateBlackmagicRawFactoryInstance";

Error errorNoCodec() {
    return {2, "Blackmagic RAW: could not create a codec"};
}

Error errorUnsupportedFormat(unsigned bitDepth) {
    char text[96];
    std::snprintf(text, sizeof text, "Blackmagic RAW: unsupported audio format (%u-bit)", bitDepth);
    return {4, text};
}

// The process's one load: the library and its factory live until the process ends.
const LibraryLoad& processLoad() {
    static const LibraryLoad load = loadLibrary(candidateLibraryPaths());
    return load;
}

// Three bytes little-endian, sign taken from the top bit of the last.
std::int32_t readInt24(const std::uint8_t* p) {
    auto u = static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
             (static_cast<std::uint32_t>(p[2]) << 16);
    return static_cast<std::int32_t>(u << 8) >> 8;
}

} // namespace

std::vector<std::filesystem::path> candidateLibraryPaths() {
    std::vector<std::filesystem::path> paths;
    std::error_code ec;
    auto executable = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (!ec) {
        paths.push_back(executable.parent_path() / kLibraryFile);
        paths.push_back(executable.parent_path().parent_path() / "lib" / kLibraryFile);
    }
    for (const char* folder : {"/usr/lib/blackmagic/BlackmagicRAWSDK/Linux/Libraries",
                               "/opt/resolve/libs", "/usr/local/lib", "/usr/lib64", "/usr/lib"}) {
        paths.push_back(std::filesystem::path(folder) / kLibraryFile);
    }
    return paths;
}

LibraryLoad loadLibrary(const std::vector<std::filesystem::path>& candidates) {
    LibraryLoad load;
    for (const auto& candidate : candidates) {
        std::error_code ec;
        if (std::filesystem::exists(candidate, ec)) {
            load.path = candidate;
            break;
        }
    }
    if (!load.path) {
        return load;
    }
    load.library = DynamicLibrary::open(*load.path);
    if (!load.library) {
        return load;
    }
    using Entry = void* (*)();
    if (auto entry = reinterpret_cast<Entry>(load.library->symbol(kFactoryEntry))) {
        load.factory = entry();
    }
    return load;
}

std::string availabilityNote(const LibraryLoad& load) {
    if (load.factory && load.clipsReadable) {
        return "Blackmagic RAW SDK loaded from " + load.path->string();
    }
    if (load.factory) {
        return "Blackmagic RAW SDK found at " + load.path->string() +
               ", but this build cannot read its clips";
    }
    if (load.path) {
        return "Blackmagic RAW framework found but could not be loaded";
    }
    return "Blackmagic RAW framework not found on this machine";
}

bool isAvailable() {
    const auto& load = processLoad();
    return load.factory != nullptr && load.clipsReadable;
}

std::string availabilityNote() {
    return availabilityNote(processLoad());
}

// TODO: the codec, clip and clip-audio interfaces of the library are not bound yet (it was not at
// hand to build against). Until they are, no load is available: the program says so, and a clip
// fails alone with that note while the run goes on.
std::variant<Result, Error> readAudioOrError(const std::filesystem::path&,
                                             const std::function<void(double)>&) {
    // Code 1, "no library", with the note that says what became of it.
    if (!isAvailable()) {
        return Error{1, availabilityNote()};
    }
    return errorNoCodec();
}

std::optional<Result> readAudio(const std::filesystem::path& path,
                                const std::function<void(double)>& progress) {
    auto outcome = readAudioOrError(path, progress);
    if (auto* result = std::get_if<Result>(&outcome)) {
        return std::move(*result);
    }
    return std::nullopt;
}

// Blocked on the same unbound interfaces as readAudioOrError: no clip can be opened yet.
std::optional<Result> probe(const std::filesystem::path&) {
    return std::nullopt;
}

std::variant<Result, Error> readClipAudio(Result facts, const std::optional<AudioSource>& source,
                                          bool probeOnly,
                                          const std::function<void(double)>& progress) {
    if (!source || source->channelCount == 0 || source->sampleRate <= 0 ||
        source->sampleCount == 0) {
        return facts;
    }
    facts.sampleRate = source->sampleRate;
    facts.channelCount = source->channelCount;
    facts.frameCount = source->sampleCount;
    if (probeOnly) {
        return facts;
    }
    const unsigned bits = source->bitDepth;
    if (source->format != kFormatPcmLittleEndian || (bits != 16 && bits != 24 && bits != 32)) {
        return errorUnsupportedFormat(bits);
    }

    const std::size_t frameBytes = static_cast<std::size_t>(source->channelCount) * (bits / 8);
    std::vector<std::uint8_t> buffer(kFramesPerRead * frameBytes);
    // A clip's header may overstate its length; reserve no more than a few hours' worth.
    constexpr std::uint64_t kMaxReservedFrames = 48000ull * 3600 * 4;
    facts.interleaved.reserve(std::min(source->sampleCount, kMaxReservedFrames) *
                              source->channelCount);
    std::uint64_t position = 0;
    while (position < source->sampleCount) {
        const auto want = static_cast<std::uint32_t>(
            std::min<std::uint64_t>(kFramesPerRead, source->sampleCount - position));
        auto bytes = source->readSamples ? source->readSamples(position, want, buffer)
                                         : std::optional<std::size_t>{};
        if (!bytes || *bytes < frameBytes) {
            break;
        }
        const std::size_t frames = std::min<std::size_t>(*bytes / frameBytes, want);
        appendPcmAsFloat(std::span(buffer).first(frames * frameBytes), bits, facts.interleaved);
        position += frames;
        if (progress) {
            progress(static_cast<double>(position) / static_cast<double>(source->sampleCount));
        }
    }
    facts.frameCount = position;
    return facts;
}

void appendPcmAsFloat(std::span<const std::uint8_t> bytes, unsigned bitDepth,
                      std::vector<float>& out) {
    const std::size_t width = bitDepth / 8;
    if (width < 2 || width > 4) {
        return;
    }
    const std::size_t count = bytes.size() / width;
    const std::uint8_t* p = bytes.data();
    for (std::size_t i = 0; i < count; ++i, p += width) {
        if (width == 2) {
            auto v = static_cast<std::int16_t>(p[0] | (p[1] << 8));
            out.push_back(static_cast<float>(v) * 3.0517578e-5f);
        } else if (width == 3) {
            out.push_back(static_cast<float>(readInt24(p)) * 1.1920929e-7f);
        } else {
            auto u = static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
                     (static_cast<std::uint32_t>(p[2]) << 16) |
                     (static_cast<std::uint32_t>(p[3]) << 24);
            out.push_back(static_cast<float>(static_cast<std::int32_t>(u)) * 4.656613e-10f);
        }
    }
}

} // namespace BRAWAudio

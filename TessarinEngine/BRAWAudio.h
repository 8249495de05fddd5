#pragma once

#include "TessarinEngine/platform/DynamicLibrary.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

// Blackmagic RAW clips, read through the maker's closed library, which is looked for and loaded at
// run time so that the program runs with or without it. On Linux the library is the file
// "libBlackmagicRawAPI.so", looked for in this order, the first that exists being the one used:
//   1. beside the running executable;
//   2. in "../lib" from the executable's folder;
//   3. /usr/lib/blackmagic/BlackmagicRAWSDK/Linux/Libraries, where the SDK installs itself;
//   4. /opt/resolve/libs, where the maker's editing application carries its own copy;
//   5. /usr/local/lib, /usr/lib64 and /usr/lib.
namespace BRAWAudio {

// Picture facts and audio of one Blackmagic RAW clip.
struct Result {
    double sampleRate = 0;
    unsigned channelCount = 0;
    std::uint64_t frameCount = 0;
    std::vector<float> interleaved; // empty from probe
    double frameRate = 0;
    std::uint64_t pictureFrames = 0;
    unsigned width = 0;
    unsigned height = 0;

    // pictureFrames / frameRate, or 0 when either is not positive.
    double pictureDuration() const {
        return pictureFrames > 0 && frameRate > 0 ? static_cast<double>(pictureFrames) / frameRate
                                                  : 0.0;
    }
};

// Why a clip could not be read. Codes: 1 no library, 2 no codec, 3 clip not opened,
// 4 audio format not readable.
struct Error {
    int code = 0;
    std::string description;
    bool operator==(const Error&) const = default;
};
inline constexpr const char* kErrorDomain = "Tessarin.BRAW";

// Whether Blackmagic RAW clips can be read on this machine: the library was found and loaded and
// its clip interfaces are bound. The search and the load happen once per process; thread-safe.
bool isAvailable();
// One line for the user on where the library was found and whether clips can be read, or that it
// was not found.
std::string availabilityNote();

// Picture facts and audio format, no samples; nothing without the library or for a bad file.
std::optional<Result> probe(const std::filesystem::path& path);

// All audio samples with the picture facts; nothing without the library or for a bad file.
std::optional<Result> readAudio(const std::filesystem::path& path,
                                const std::function<void(double)>& progress);

// As readAudio, with the reason when the clip cannot be read.
std::variant<Result, Error> readAudioOrError(const std::filesystem::path& path,
                                             const std::function<void(double)>& progress);

// The candidate library files in search order (see the list above).
std::vector<std::filesystem::path> candidateLibraryPaths();

// The outcome of looking for the library and loading it: `path` is the first candidate that
// exists, `factory` what its entry point returned, null when either step failed.
// `clipsReadable` says the codec, clip and audio interfaces are bound as well; nothing binds them
// yet, so a loaded library still reads no clip and is not reported as available.
struct LibraryLoad {
    std::optional<std::filesystem::path> path;
    std::optional<DynamicLibrary> library;
    void* factory = nullptr;
    bool clipsReadable = false;
};
LibraryLoad loadLibrary(const std::vector<std::filesystem::path>& candidates);
// The availability line for one load outcome.
std::string availabilityNote(const LibraryLoad& load);

// Four-character code of little-endian integer PCM, the only audio format read.
inline constexpr std::uint32_t kFormatPcmLittleEndian = 0x70636D6C; // 'pcml'
// Sample frames asked for per read.
inline constexpr std::uint32_t kFramesPerRead = 48000;

// The audio side of an open clip as the library reports it. `readSamples` fills `buffer` with at
// most `maxFrames` interleaved frames starting at frame `position` and returns the bytes written,
// or nothing when the read fails.
struct AudioSource {
    std::uint32_t format = 0;
    unsigned bitDepth = 0;
    unsigned channelCount = 0;
    double sampleRate = 0;
    std::uint64_t sampleCount = 0;
    std::function<std::optional<std::size_t>(std::uint64_t position, std::uint32_t maxFrames,
                                             std::span<std::uint8_t> buffer)>
        readSamples;
};

// Adds the audio of `source` to a result that holds the picture facts. A clip without audio
// (no source, or no channels, rate or samples) keeps empty `interleaved` and succeeds; a probe
// stops after the format. Reads in runs of kFramesPerRead frames and, when a read fails or comes
// back shorter than one frame, keeps what was read; `frameCount` is then the frames truly read.
// `progress`, if set, gets position / sample count after every read.
std::variant<Result, Error> readClipAudio(Result facts, const std::optional<AudioSource>& source,
                                          bool probeOnly,
                                          const std::function<void(double)>& progress);

// Appends little-endian signed PCM of 16, 24 or 32 bits as floats; the most negative value gives
// -1. Bytes past the last whole sample are ignored.
void appendPcmAsFloat(std::span<const std::uint8_t> bytes, unsigned bitDepth,
                      std::vector<float>& out);

} // namespace BRAWAudio

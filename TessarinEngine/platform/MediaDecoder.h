#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace MediaDecoder {

// Decodes every audio stream of a media file into one mono signal at `rateHz`. Each stream is
// folded to mono as the mean of its channels, resampled as it is decoded, and laid from its start
// time relative to the earliest audio stream's start; where streams overlap their sum is divided
// by the number of streams present. Values are not clipped; NaN and infinities in a float stream
// are read as 0. `onLaid`, if set, gets the number of samples laid so far after every decoded
// frame, on the calling thread. The file is opened by FFmpeg::openLocalMedia.
// Throws TessarinError: readerStartFailed ("not a regular file" or FFmpeg's text) when the file
// cannot be opened or probed, noAudioTrack (last path component) without an audio stream, and
// emptySamples (last path component) on a read or decode error other than end of file, or when
// the output outgrows what the file can hold (twice its stated duration, or its size at 100
// bytes per second, each plus a minute). What FFmpeg reads to a clean end of file is the whole
// result, even if the file was cut short; it may be empty. Thread-safe.
std::vector<float> decodeMixedMono(const std::filesystem::path& path, int rateHz,
                                   const std::function<void(std::size_t)>& onLaid);

// One file kept open for stretches of what decodeMixedMono gives for it: each read returns
// `seconds` from `fromSeconds`, the same samples within one at the same times, decoded from a seek
// point shortly before it rather than from the start, shorter where the file ends first. Opening
// and reading throw as decodeMixedMono does, and readFailed("seek") when the file cannot seek, its
// frames carry no timestamps, or its index shows timestamps that do not advance with the samples
// (a stretch would not be where a whole decode has it). One thread at a time.
class StretchDecoder {
public:
    StretchDecoder(const std::filesystem::path& path, int rateHz);
    ~StretchDecoder();
    StretchDecoder(const StretchDecoder&) = delete;
    StretchDecoder& operator=(const StretchDecoder&) = delete;

    std::vector<float> read(double fromSeconds, double seconds);

private:
    struct State;
    std::unique_ptr<State> state_;
};

// Resamples mono float samples in one pass with the same pinned resampler, flushed to the end;
// the first output sample lies at the time of the first input sample. Throws TessarinError
// readFailed("resampler") when a rate is not positive or the resampler cannot be made or run.
std::vector<float> resampleMono(std::span<const float> samples, int fromRateHz, int toRateHz);

// Names of the resampler's current, non-deprecated options that are left at FFmpeg's default.
// Empty when every option is pinned; a newer FFmpeg may add one.
std::vector<std::string> unpinnedResamplerOptions();

} // namespace MediaDecoder

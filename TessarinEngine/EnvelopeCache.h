#pragma once

#include "TessarinEngine/SpectralBands.h"
#include "TessarinEngine/TrackModels.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace EnvelopeCache {

// The folder of the cache, the only place the program writes. Set once at start, before any
// concurrent work.
std::filesystem::path cacheDir();
void setCacheDir(std::filesystem::path dir);

// The key of a file: a 64-bit FNV-1a hash of its path as given, size and modification time in
// nanoseconds, as 16 lower-case hex digits; nothing if the file cannot be stat'ed.
std::optional<std::string> cacheKey(const std::filesystem::path& url);

// The cached features of a file, or nothing on any miss (no entry, short, foreign or damaged,
// or anything but a regular file under the entry's name: a link, a FIFO, a folder).
std::optional<SpectralBands::Feature> loadBands(const std::filesystem::path& url);

// Stores the features of a file; every failure is ignored. Each cache file is written under a
// temporary name ("{name}.tmp-" and six characters) and renamed into place, so it is never
// opened through a link or anything else found under its name.
void saveBands(const std::filesystem::path& url, const SpectralBands::Feature& feature);

// The bytes of a features file, and the features of such bytes (nothing for short, foreign or
// damaged bytes; bytes after the last band are ignored).
std::vector<std::uint8_t> encodeBands(const SpectralBands::Feature& feature);
std::optional<SpectralBands::Feature> decodeBands(std::span<const std::uint8_t> bytes);

// Writes the envelope file of a file beside its features; every failure is ignored.
void saveEnvelope(const std::filesystem::path& url, const std::vector<float>& envelope);

// The bytes of an envelope file.
std::vector<std::uint8_t> serialize(const std::vector<float>& preview,
                                    const std::vector<float>& envelope);

struct PruneResult {
    int removed = 0;
    std::int64_t bytesFreed = 0;
};

// Removes entries not used for 7 days, then the least recently used ones while the folder holds
// more than 2 GiB. Only regular files named as the cache names them (temporary ones included)
// are counted and removed; links are never followed. Logs one line when anything was removed.
PruneResult prune(Date now);

} // namespace EnvelopeCache

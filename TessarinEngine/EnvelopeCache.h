#pragma once

#include "TessarinEngine/SpectralBands.h"
#include "TessarinEngine/TrackModels.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace EnvelopeCache {

// The folder of the cache, the only place the program writes. Set once at start, before any
// concurrent work.
std::filesystem::path cacheDir();
void setCacheDir(std::filesystem::path dir);

// The key of a file from its path, size and modification time; nothing if it cannot be read.
std::optional<std::string> cacheKey(const std::filesystem::path& url);

// The cached features of a file, or nothing on any miss (no entry, short, foreign or damaged).
std::optional<SpectralBands::Feature> loadBands(const std::filesystem::path& url);

// Stores the features of a file; every failure is ignored.
void saveBands(const std::filesystem::path& url, const SpectralBands::Feature& feature);

// The bytes of an envelope file.
std::vector<std::uint8_t> serialize(const std::vector<float>& preview,
                                    const std::vector<float>& envelope);

struct PruneResult {
    int removed = 0;
    std::int64_t bytesFreed = 0;
};

// Removes entries too old or beyond the size bound.
PruneResult prune(Date now);

} // namespace EnvelopeCache

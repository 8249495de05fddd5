#include "TessarinEngine/EnvelopeCache.h"

namespace EnvelopeCache {

namespace {
std::filesystem::path& dirStorage() {
    static std::filesystem::path dir;
    return dir;
}
} // namespace

std::filesystem::path cacheDir() {
    return dirStorage();
}

void setCacheDir(std::filesystem::path dir) {
    dirStorage() = std::move(dir);
}

// Pass-throughs until the cache is built: every lookup misses and nothing is stored.
std::optional<std::string> cacheKey(const std::filesystem::path&) {
    return std::nullopt;
}

std::optional<SpectralBands::Feature> loadBands(const std::filesystem::path&) {
    return std::nullopt;
}

void saveBands(const std::filesystem::path&, const SpectralBands::Feature&) {}

std::vector<std::uint8_t> serialize(const std::vector<float>&, const std::vector<float>&) {
    return {};
}

PruneResult prune(Date) {
    return {};
}

} // namespace EnvelopeCache

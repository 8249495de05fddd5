#include "TessarinEngine/BRAWAudio.h"

namespace BRAWAudio {

// Pass-through until the run-time loader is built: the library is never looked for.
bool isAvailable() {
    return false;
}

std::string availabilityNote() {
    return "Blackmagic RAW framework not found on this machine";
}

std::optional<Result> probe(const std::filesystem::path&) {
    return std::nullopt;
}

std::optional<Result> readAudio(const std::filesystem::path&, const std::function<void(double)>&) {
    return std::nullopt;
}

} // namespace BRAWAudio

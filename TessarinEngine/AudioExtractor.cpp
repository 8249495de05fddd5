#include "TessarinEngine/AudioExtractor.h"

namespace AudioExtractor {

// Pass-through until media decoding is built: every clip reports that it could not be read, so
// the run goes on without features, as it does for a broken file.
ExtractedAudio extract(const std::filesystem::path&, double, const std::function<void(double)>&) {
    throw TessarinError(TessarinError::Kind::readFailed, "decoding not available");
}

} // namespace AudioExtractor

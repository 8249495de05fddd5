#include "TessarinEngine/MediaMetadata.h"

namespace MediaMetadata {

// Pass-through until the media readers are built: every file reads as unknown.
ClipMeta readClipMeta(const std::filesystem::path&) {
    return {};
}

} // namespace MediaMetadata

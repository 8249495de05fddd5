#include "TessarinEngine/TessarinError.h"

#include <string_view>

namespace {

struct ErrorCase {
    std::string_view name;
    std::string_view before; // description text before the payload
    std::string_view after;  // and after it
};

ErrorCase errorCase(TessarinError::Kind kind) {
    using K = TessarinError::Kind;
    switch (kind) {
    case K::noAudioTrack:
        return {"noAudioTrack", "No audio track in \"", "\""};
    case K::readerStartFailed:
        return {"readerStartFailed", "Reader failed: ", ""};
    case K::readFailed:
        return {"readFailed", "Read failed: ", ""};
    case K::emptySamples:
        return {"emptySamples", "No audio in \"", "\""};
    case K::silentAudio:
        return {"silentAudio", "Audio track in \"", "\" is silent (muted)"};
    case K::correlationFailed:
        return {"correlationFailed", "Correlation failed: ", ""};
    case K::notEnoughTracks:
        return {"notEnoughTracks", "Need at least 2 tracks", ""};
    }
    return {"notEnoughTracks", "Need at least 2 tracks", ""};
}

std::string describe(TessarinError::Kind kind, const std::string& payload) {
    auto c = errorCase(kind);
    if (kind == TessarinError::Kind::notEnoughTracks) {
        return std::string(c.before);
    }
    return std::string(c.before) + payload + std::string(c.after);
}

} // namespace

TessarinError::TessarinError(Kind kind, std::string payload)
    : std::runtime_error(describe(kind, payload)), kind_(kind), payload_(std::move(payload)) {}

std::string TessarinError::errorDescription() const {
    return describe(kind_, payload_);
}

std::string TessarinError::caseText() const {
    auto name = std::string(errorCase(kind_).name);
    if (kind_ == Kind::notEnoughTracks) {
        return name;
    }
    return name + "(\"" + payload_ + "\")";
}

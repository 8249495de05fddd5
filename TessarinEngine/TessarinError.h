#pragma once

#include <stdexcept>
#include <string>

// The one error type of media reading. Only audio extraction throws it.
class TessarinError : public std::runtime_error {
public:
    enum class Kind {
        noAudioTrack,
        readerStartFailed,
        readFailed,
        emptySamples,
        silentAudio,
        correlationFailed,
        notEnoughTracks
    };

    TessarinError(Kind kind, std::string payload = {});

    Kind kind() const { return kind_; }
    const std::string& payload() const { return payload_; }
    // The human text, e.g. `No audio track in "C0001.MP4"`.
    std::string errorDescription() const;
    // The case name with its payload quoted in parentheses, e.g. `noAudioTrack("C0001.MP4")`, or
    // the bare name when the case has no payload. This is what error events carry.
    std::string caseText() const;

private:
    Kind kind_;
    std::string payload_;
};

#pragma once

#include <cstdint>

namespace Fingerprint {

// One landmark of an audio fingerprint; clips can carry them, no stage computes them.
struct Landmark {
    std::uint32_t hash = 0;
    int t = 0;
    bool operator==(const Landmark&) const = default;
};

} // namespace Fingerprint

#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <string>

// A random (version 4) UUID, the identity of tracks, clips and proposals.
struct Uuid {
    std::array<std::uint8_t, 16> bytes{};

    // A fresh version 4 UUID from the system's random source. Thread-safe.
    static Uuid random();
    // Upper-case canonical text, 8-4-4-4-12 hex digits.
    std::string text() const;

    auto operator<=>(const Uuid&) const = default;
    bool operator==(const Uuid&) const = default;
};

template <>
struct std::hash<Uuid> {
    std::size_t operator()(const Uuid& u) const noexcept {
        std::size_t h = 0;
        for (auto b : u.bytes) {
            h = h * 131 + b;
        }
        return h;
    }
};

#include "fuzz/Targets.h"

#include "TessarinEngine/EnvelopeCache.h"
#include "TessarinEngineCLI/Request.h"

#include <algorithm>
#include <array>
#include <span>
#include <string>

namespace FuzzTargets {

namespace {

void request(const std::uint8_t* data, std::size_t size) {
    auto r = decodeRequest(std::string_view(reinterpret_cast<const char*>(data), size));
    if (r) {
        // Touch what was decoded, so a bad item shows up here and not later.
        std::size_t total = 0;
        for (const auto& item : r->items) {
            total += item.path.size() + item.dropHint.size();
        }
        (void)total;
    }
}

void bands(const std::uint8_t* data, std::size_t size) {
    auto f = EnvelopeCache::decodeBands(std::span<const std::uint8_t>(data, size));
    if (f) {
        // What was read must write back to the bytes it came from (compared as bytes: a NaN in
        // the file is still the same NaN).
        auto again = EnvelopeCache::encodeBands(*f);
        if (again.size() > size || !std::equal(again.begin(), again.end(), data)) {
            __builtin_trap();
        }
    }
}

const std::array<Entry, 2> kTargets = {{
    {"request", request},
    {"bands", bands},
}};

} // namespace

const Entry* begin() {
    return kTargets.data();
}

const Entry* end() {
    return kTargets.data() + kTargets.size();
}

const Entry* find(std::string_view name) {
    for (const auto& t : kTargets) {
        if (t.name == name) {
            return &t;
        }
    }
    return nullptr;
}

} // namespace FuzzTargets

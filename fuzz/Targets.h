#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace FuzzTargets {

// One parser fed with bytes a user could hand us. Returns normally for every input; a crash, hang
// or sanitizer report is the finding.
using Target = void (*)(const std::uint8_t* data, std::size_t size);

struct Entry {
    std::string_view name;
    Target run;
};

// Every target, by the name of its corpus folder.
const Entry* find(std::string_view name);
const Entry* begin();
const Entry* end();

} // namespace FuzzTargets

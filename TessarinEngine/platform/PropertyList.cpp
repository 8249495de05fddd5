#include "TessarinEngine/platform/PropertyList.h"

#include <cstring>
#include <limits>
#include <memory>
#include <plist/plist.h>

namespace PropertyList {

namespace {

struct NodeFree {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Node = std::unique_ptr<void, NodeFree>;

} // namespace

std::optional<std::map<std::string, std::string>>
readDictionaryStrings(std::span<const std::uint8_t> bytes, std::span<const std::string_view> keys) {
    if (bytes.empty() || bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
        return std::nullopt;
    }
    plist_t raw = nullptr;
    plist_from_memory(reinterpret_cast<const char*>(bytes.data()),
                      static_cast<std::uint32_t>(bytes.size()), &raw);
    Node root(raw);
    if (!root || plist_get_node_type(raw) != PLIST_DICT) {
        return std::nullopt;
    }
    // Looked up by key rather than iterated, and read through the pointer form: libplist's
    // copying getters assert (and abort) on a string or key with a NUL inside.
    std::map<std::string, std::string> values;
    for (std::string_view key : keys) {
        const std::string name(key);
        plist_t value = plist_dict_get_item(raw, name.c_str());
        if (value == nullptr || plist_get_node_type(value) != PLIST_STRING) {
            continue;
        }
        std::uint64_t length = 0;
        if (const char* text = plist_get_string_ptr(value, &length); text != nullptr) {
            // A NUL ends the text: libplist copies some strings only that far.
            values.emplace(name, std::string(text, ::strnlen(text, length)));
        }
    }
    return values;
}

} // namespace PropertyList

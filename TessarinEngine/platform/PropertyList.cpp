#include "TessarinEngine/platform/PropertyList.h"

#include <cstdlib>
#include <limits>
#include <memory>
#include <plist/plist.h>

namespace PropertyList {

namespace {

struct NodeFree {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Node = std::unique_ptr<void, NodeFree>;

// libplist hands out strings allocated with malloc.
struct CharFree {
    void operator()(char* p) const { std::free(p); }
};
using CString = std::unique_ptr<char, CharFree>;

} // namespace

std::optional<std::map<std::string, std::string>>
readStringDictionary(std::span<const std::uint8_t> bytes) {
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
    std::map<std::string, std::string> values;
    plist_dict_iter iter = nullptr;
    plist_dict_new_iter(raw, &iter);
    // The iterator is a malloc'd cursor.
    std::unique_ptr<void, void (*)(void*)> iterOwner(iter, std::free);
    for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(raw, iter, &key, &value);
        CString keyOwner(key);
        if (value == nullptr) {
            break;
        }
        if (key != nullptr && plist_get_node_type(value) == PLIST_STRING) {
            char* text = nullptr;
            plist_get_string_val(value, &text);
            CString textOwner(text);
            if (text != nullptr) {
                values.emplace(key, text);
            }
        }
    }
    return values;
}

} // namespace PropertyList

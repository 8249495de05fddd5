#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// A streaming XML reader over expat. Element names are reported as written, prefix included:
// namespaces are not processed.
namespace Xml {

struct Element {
    std::string name;
    std::vector<std::pair<std::string, std::string>> attributes; // in document order

    // The value of the attribute with exactly this name, or nothing.
    std::optional<std::string> attribute(std::string_view attributeName) const;
};

// Calls `onStart` for each start tag of the document, in order. Parsing stops at the first
// error; the elements before it have been reported. Returns whether the whole text was a
// well-formed document. External entities are never loaded.
bool forEachElement(std::string_view document, const std::function<void(const Element&)>& onStart);

} // namespace Xml

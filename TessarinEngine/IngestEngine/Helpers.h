#pragma once

// Helpers shared by the ingest stages; not part of the library's interface.

#include "TessarinEngine/IngestEngine.h"
#include "TessarinEngine/platform/Collation.h"

#include <algorithm>
#include <filesystem>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

namespace IngestHelpers {

// The path without trailing separators, so that a dropped "/shoot/A_CAM/" names "A_CAM".
std::filesystem::path withoutTrailingSeparator(const std::filesystem::path& p);

// The last path component.
std::string fileName(const std::filesystem::path& p);
// The last path component without its extension.
std::string baseName(const std::filesystem::path& p);

bool isVideoExtension(const std::string& lowerExt);
bool isAudioExtension(const std::string& lowerExt);

// The file's creation (birth) time, where the file system records one.
std::optional<Date> creationDate(const std::filesystem::path& p);

// One element's part in `chronologicalOrder`, prepared once per sort: the collation key of its
// name, and its creation date read only when another element has a name of equal order.
class OrderKey {
public:
    explicit OrderKey(std::filesystem::path p);
    bool before(const OrderKey& other) const;

private:
    const std::optional<Date>& date() const;

    std::filesystem::path path_;
    std::string name_;
    std::string key_;
    mutable std::optional<std::optional<Date>> date_;
};

// Sorts with `chronologicalOrder` on the path that `pathOf` gives for each element. The order of
// equal names read by creation date need not be transitive; a stable sort never steps outside
// the range whatever the comparisons say.
template <class T, class PathOf>
void sortChronologically(std::vector<T>& items, PathOf pathOf) {
    std::vector<OrderKey> keys;
    keys.reserve(items.size());
    for (const auto& item : items) {
        keys.emplace_back(pathOf(item));
    }
    std::vector<std::size_t> order(items.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return keys[a].before(keys[b]); });
    std::vector<T> sorted;
    sorted.reserve(items.size());
    for (auto i : order) {
        sorted.push_back(std::move(items[i]));
    }
    items = std::move(sorted);
}

} // namespace IngestHelpers

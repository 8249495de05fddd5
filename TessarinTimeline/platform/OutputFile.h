#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace OutputFile {

// Writes the bytes to a new file beside `target` (a hidden temporary name in the same folder)
// and renames it onto `target` at the end, so the target is either untouched or whole. With
// `replace` false an existing target (of any kind) is left alone and the write fails. Nothing on
// success, else the reason in words; no temporary file is left behind either way.
std::optional<std::string> writeWhole(const std::filesystem::path& target, std::string_view bytes,
                                      bool replace);

} // namespace OutputFile

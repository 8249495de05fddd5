#pragma once

#include <string>
#include <string_view>

// Widths of text in a monospace face, counted in character cells: most characters take one cell,
// East Asian wide and full-width characters two, combining marks and format characters none.
namespace TextCells {

// The cells the UTF-8 text takes; ill-formed bytes count one cell each.
int width(std::string_view text);

// The text if it takes at most `cells`, else its head and tail around "…" so that the whole
// takes at most `cells` (the end of a file name tells its kind and number). Empty when not even
// the ellipsis fits. Characters are never split.
std::string fit(std::string_view text, int cells);

} // namespace TextCells

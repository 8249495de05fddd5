#include "TessarinTimeline/platform/TextCells.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>
#include <vector>

namespace {

struct Character {
    std::string_view bytes;
    int cells = 1;
};

int cellsOf(UChar32 c) {
    if (c < 0) {
        return 1;
    }
    const auto category = u_charType(c);
    if (category == U_NON_SPACING_MARK || category == U_ENCLOSING_MARK ||
        category == U_FORMAT_CHAR) {
        return 0;
    }
    const auto eastAsian = u_getIntPropertyValue(c, UCHAR_EAST_ASIAN_WIDTH);
    return eastAsian == U_EA_WIDE || eastAsian == U_EA_FULLWIDTH ? 2 : 1;
}

std::vector<Character> characters(std::string_view text) {
    std::vector<Character> out;
    const auto* s = reinterpret_cast<const uint8_t*>(text.data());
    const auto length = static_cast<int32_t>(text.size());
    for (int32_t i = 0; i < length;) {
        const int32_t begin = i;
        UChar32 c = 0;
        U8_NEXT(s, i, length, c);
        out.push_back({text.substr(begin, i - begin), cellsOf(c)});
    }
    return out;
}

} // namespace

namespace TextCells {

int width(std::string_view text) {
    int cells = 0;
    for (const auto& ch : characters(text)) {
        cells += ch.cells;
    }
    return cells;
}

std::string fit(std::string_view text, int cells) {
    const auto chars = characters(text);
    int total = 0;
    for (const auto& ch : chars) {
        total += ch.cells;
    }
    if (total <= cells) {
        return std::string(text);
    }
    const int room = cells - 1; // the ellipsis takes one cell
    if (room < 0) {
        return {};
    }
    // Two thirds of the room for the head, the rest for the tail.
    const int headRoom = room - room / 3;
    std::size_t head = 0;
    int used = 0;
    while (head < chars.size() && used + chars[head].cells <= headRoom) {
        used += chars[head++].cells;
    }
    std::size_t tail = chars.size();
    while (tail > head && used + chars[tail - 1].cells <= room) {
        used += chars[--tail].cells;
    }
    std::string out;
    for (std::size_t i = 0; i < head; ++i) {
        out += chars[i].bytes;
    }
    out += "\u2026";
    for (std::size_t i = tail; i < chars.size(); ++i) {
        out += chars[i].bytes;
    }
    return out;
}

} // namespace TextCells

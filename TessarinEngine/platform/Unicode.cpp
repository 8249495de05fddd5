#include "TessarinEngine/platform/Unicode.h"

#include "TessarinEngine/platform/Text.h"

#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>
#include <vector>

namespace Unicode {

namespace {

// The code points of valid UTF-8 with the byte offset where each begins.
struct CodePoint {
    UChar32 c;
    std::size_t begin;
    std::size_t end;
};

std::vector<CodePoint> codePoints(const std::string& text) {
    std::vector<CodePoint> out;
    const auto* s = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto n = static_cast<int32_t>(text.size());
    int32_t i = 0;
    while (i < n) {
        const int32_t begin = i;
        UChar32 c;
        U8_NEXT(s, i, n, c);
        out.push_back({c, static_cast<std::size_t>(begin), static_cast<std::size_t>(i)});
    }
    return out;
}

bool isControl(UChar32 c) {
    return u_charType(c) == U_CONTROL_CHAR;
}

bool isSpace(UChar32 c) {
    return u_isUWhiteSpace(c) != 0;
}

template <class Pred>
std::string trim(std::string_view text, Pred strip) {
    const std::string valid = Text::repairUtf8(text);
    const auto points = codePoints(valid);
    std::size_t first = 0;
    std::size_t last = points.size();
    while (first < last && strip(points[first].c)) {
        ++first;
    }
    while (last > first && strip(points[last - 1].c)) {
        --last;
    }
    if (first == last) {
        return {};
    }
    return valid.substr(points[first].begin, points[last - 1].end - points[first].begin);
}

std::string toUtf8(const icu::UnicodeString& s) {
    std::string out;
    s.toUTF8String(out);
    return out;
}

} // namespace

std::string dropControls(std::string_view text) {
    const std::string valid = Text::repairUtf8(text);
    std::string out;
    out.reserve(valid.size());
    for (const auto& p : codePoints(valid)) {
        if (!isControl(p.c)) {
            out.append(valid, p.begin, p.end - p.begin);
        }
    }
    return out;
}

std::string trimWhitespace(std::string_view text) {
    return trim(text, isSpace);
}

std::string trimControls(std::string_view text) {
    return trim(text, isControl);
}

std::string trimControlsAndWhitespace(std::string_view text) {
    return trim(text, [](UChar32 c) { return isControl(c) || isSpace(c); });
}

std::string upper(std::string_view text) {
    const std::string valid = Text::repairUtf8(text);
    auto s = icu::UnicodeString::fromUTF8(
        icu::StringPiece(valid.data(), static_cast<int32_t>(valid.size())));
    return toUtf8(s.toUpper(icu::Locale::getRoot()));
}

std::string lower(std::string_view text) {
    const std::string valid = Text::repairUtf8(text);
    auto s = icu::UnicodeString::fromUTF8(
        icu::StringPiece(valid.data(), static_cast<int32_t>(valid.size())));
    return toUtf8(s.toLower(icu::Locale::getRoot()));
}

std::string fromLatin1(std::span<const std::uint8_t> bytes) {
    std::string out;
    out.reserve(bytes.size());
    for (std::uint8_t b : bytes) {
        if (b < 0x80) {
            out.push_back(static_cast<char>(b));
        } else {
            out.push_back(static_cast<char>(0xC0 | b >> 6));
            out.push_back(static_cast<char>(0x80 | (b & 0x3F)));
        }
    }
    return out;
}

std::string fromUtf8OrLatin1(std::span<const std::uint8_t> bytes) {
    const std::string_view view(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    if (Text::isValidUtf8(view)) {
        return std::string(view);
    }
    return fromLatin1(bytes);
}

std::string fromUtf16BigEndian(std::span<const std::uint8_t> bytes) {
    icu::UnicodeString s;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        s.append(static_cast<char16_t>(bytes[i] << 8 | bytes[i + 1]));
    }
    // toUTF8String writes U+FFFD for unpaired surrogates.
    return toUtf8(s);
}

} // namespace Unicode

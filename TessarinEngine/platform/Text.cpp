#include "TessarinEngine/platform/Text.h"

#include <unicode/ustring.h>
#include <unicode/utf8.h>

namespace Text {

bool isValidUtf8(std::string_view bytes) {
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = 0;
    u_strFromUTF8(nullptr, 0, &length, bytes.data(), static_cast<int32_t>(bytes.size()), &status);
    return status == U_BUFFER_OVERFLOW_ERROR || U_SUCCESS(status);
}

std::string repairUtf8(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    const auto* s = reinterpret_cast<const uint8_t*>(bytes.data());
    const auto n = static_cast<int32_t>(bytes.size());
    int32_t i = 0;
    while (i < n) {
        const int32_t start = i;
        UChar32 c;
        U8_NEXT(s, i, n, c);
        if (c < 0) {
            out += "\xEF\xBF\xBD";
        } else {
            out.append(bytes.substr(start, i - start));
        }
    }
    return out;
}

} // namespace Text

#include "TessarinTimeline/XmlText.h"

namespace XmlText {

std::string escape(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char ch : text) {
        switch (ch) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&apos;";
            break;
        case '\t':
        case '\n':
        case '\r':
            out += ch;
            break;
        default:
            if (static_cast<unsigned char>(ch) < 0x20) {
                out += "\uFFFD";
            } else {
                out += ch;
            }
        }
    }
    return out;
}

} // namespace XmlText

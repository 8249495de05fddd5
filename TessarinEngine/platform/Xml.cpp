#include "TessarinEngine/platform/Xml.h"

#include <algorithm>
#include <expat.h>
#include <memory>

namespace Xml {

namespace {

struct ParserFree {
    void operator()(XML_ParserStruct* p) const { XML_ParserFree(p); }
};
using Parser = std::unique_ptr<XML_ParserStruct, ParserFree>;

struct Context {
    const std::function<void(const Element&)>* onStart;
    XML_Parser parser;
    bool failed = false;
};

void XMLCALL startElement(void* data, const XML_Char* name, const XML_Char** attributes) {
    auto* context = static_cast<Context*>(data);
    // No exception may cross expat's C frames: a failing callback stops the parse instead.
    try {
        Element element;
        element.name = name;
        for (const XML_Char** a = attributes; a[0] != nullptr && a[1] != nullptr; a += 2) {
            element.attributes.emplace_back(a[0], a[1]);
        }
        (*context->onStart)(element);
    } catch (...) {
        context->failed = true;
        XML_StopParser(context->parser, XML_FALSE);
    }
}

} // namespace

std::optional<std::string> Element::attribute(std::string_view attributeName) const {
    for (const auto& [key, value] : attributes) {
        if (key == attributeName) {
            return value;
        }
    }
    return std::nullopt;
}

bool forEachElement(std::string_view document, const std::function<void(const Element&)>& onStart) {
    Parser parser(XML_ParserCreate(nullptr));
    if (!parser) {
        return false;
    }
    Context context{&onStart, parser.get()};
    XML_SetUserData(parser.get(), &context);
    XML_SetStartElementHandler(parser.get(), startElement);
    XML_SetParamEntityParsing(parser.get(), XML_PARAM_ENTITY_PARSING_NEVER);

    // expat takes an int length: feed long documents in pieces.
    constexpr std::size_t kPiece = 1 << 20;
    std::size_t at = 0;
    do {
        const std::size_t n = std::min(kPiece, document.size() - at);
        const bool last = at + n == document.size();
        if (XML_Parse(parser.get(), document.data() + at, static_cast<int>(n), last) !=
            XML_STATUS_OK) {
            return false;
        }
        at += n;
    } while (at < document.size());
    return !context.failed;
}

} // namespace Xml

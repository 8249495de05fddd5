#include "TessarinEngine/platform/Collation.h"

#include <cassert>
#include <memory>
#include <unicode/brkiter.h>
#include <unicode/coll.h>
#include <unicode/unistr.h>

namespace Collation {

namespace {

icu::UnicodeString toUnicode(std::string_view text) {
    return icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

std::string toUtf8(const icu::UnicodeString& text) {
    std::string out;
    text.toUTF8String(out);
    return out;
}

// Root rules rather than the user's locale: the order of a shoot's files must not depend on the
// machine that reads them. Secondary strength keeps accents apart and folds case.
std::unique_ptr<icu::Collator> makeCollator() {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Collator> collator(
        icu::Collator::createInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status) || !collator) {
        return nullptr;
    }
    collator->setAttribute(UCOL_NUMERIC_COLLATION, UCOL_ON, status);
    collator->setStrength(icu::Collator::SECONDARY);
    assert(U_SUCCESS(status));
    return collator;
}

// A collator keeps working buffers, so each thread compares with its own clone of one
// prototype that is built once.
icu::Collator* threadCollator() {
    static const std::unique_ptr<icu::Collator> prototype = makeCollator();
    thread_local const std::unique_ptr<icu::Collator> local(prototype ? prototype->clone()
                                                                      : nullptr);
    return local.get();
}

} // namespace

int compare(std::string_view a, std::string_view b) {
    icu::Collator* collator = threadCollator();
    if (!collator) {
        return a.compare(b);
    }
    UErrorCode status = U_ZERO_ERROR;
    const auto result =
        collator->compareUTF8(icu::StringPiece(a.data(), static_cast<int32_t>(a.size())),
                              icu::StringPiece(b.data(), static_cast<int32_t>(b.size())), status);
    if (U_FAILURE(status)) {
        return a.compare(b);
    }
    return static_cast<int>(result);
}

std::string sortKey(std::string_view text) {
    icu::Collator* collator = threadCollator();
    if (!collator) {
        return std::string(text);
    }
    const auto unicode = toUnicode(text);
    std::string key(64, '\0');
    for (;;) {
        const int32_t needed = collator->getSortKey(unicode, reinterpret_cast<uint8_t*>(key.data()),
                                                    static_cast<int32_t>(key.size()));
        if (needed <= 0) {
            return std::string(text);
        }
        if (static_cast<std::size_t>(needed) <= key.size()) {
            // The length includes the terminating zero, which plain comparison does not need.
            key.resize(static_cast<std::size_t>(needed) - 1);
            return key;
        }
        key.assign(static_cast<std::size_t>(needed), '\0');
    }
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return toUnicode(a).caseCompare(toUnicode(b), U_FOLD_CASE_DEFAULT) == 0;
}

std::string lowercased(std::string_view text) {
    return toUtf8(toUnicode(text).toLower(icu::Locale::getRoot()));
}

std::string uppercased(std::string_view text) {
    return toUtf8(toUnicode(text).toUpper(icu::Locale::getRoot()));
}

std::string prefixCharacters(std::string_view text, std::size_t count) {
    const auto unicode = toUnicode(text);
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> characters(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status) || !characters) {
        return std::string(text);
    }
    characters->setText(unicode);
    int32_t end = characters->first();
    for (std::size_t i = 0; i < count; ++i) {
        const int32_t next = characters->next();
        if (next == icu::BreakIterator::DONE) {
            return std::string(text);
        }
        end = next;
    }
    return toUtf8(unicode.tempSubString(0, end));
}

} // namespace Collation

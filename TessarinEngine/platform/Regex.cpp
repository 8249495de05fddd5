#include "TessarinEngine/platform/Regex.h"

#include <cassert>
#include <unicode/regex.h>
#include <unicode/unistr.h>

namespace Regex {

struct Pattern::Impl {
    std::unique_ptr<icu::RegexPattern> pattern;
};

namespace {

std::string toUtf8(const icu::UnicodeString& s) {
    std::string out;
    s.toUTF8String(out);
    return out;
}

std::vector<std::string> groups(icu::RegexMatcher& m) {
    std::vector<std::string> out;
    UErrorCode status = U_ZERO_ERROR;
    for (int32_t g = 0; g <= m.groupCount(); ++g) {
        status = U_ZERO_ERROR;
        auto text = m.group(g, status);
        out.push_back(U_SUCCESS(status) ? toUtf8(text) : std::string());
    }
    return out;
}

} // namespace

Pattern::Pattern(std::string_view pattern, std::string_view flags)
    : impl_(std::make_unique<Impl>()) {
    uint32_t options = 0;
    if (flags.find('i') != std::string_view::npos) {
        options |= UREGEX_CASE_INSENSITIVE;
    }
    UErrorCode status = U_ZERO_ERROR;
    UParseError parseError;
    impl_->pattern.reset(
        icu::RegexPattern::compile(icu::UnicodeString::fromUTF8(icu::StringPiece(
                                       pattern.data(), static_cast<int32_t>(pattern.size()))),
                                   options, parseError, status));
    if (U_FAILURE(status)) {
        impl_->pattern.reset();
    }
    assert(impl_->pattern && "invalid regular expression");
}

Pattern::~Pattern() = default;
Pattern::Pattern(Pattern&&) noexcept = default;
Pattern& Pattern::operator=(Pattern&&) noexcept = default;

std::optional<std::vector<std::string>> Pattern::firstMatch(std::string_view text) const {
    if (!impl_->pattern) {
        return std::nullopt;
    }
    auto input = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexMatcher> m(impl_->pattern->matcher(input, status));
    if (U_FAILURE(status) || !m->find(status) || U_FAILURE(status)) {
        return std::nullopt;
    }
    return groups(*m);
}

std::vector<std::vector<std::string>> Pattern::allMatches(std::string_view text) const {
    std::vector<std::vector<std::string>> out;
    if (!impl_->pattern) {
        return out;
    }
    auto input = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexMatcher> m(impl_->pattern->matcher(input, status));
    while (U_SUCCESS(status) && m->find(status) && U_SUCCESS(status)) {
        out.push_back(groups(*m));
    }
    return out;
}

std::string Pattern::replaceAll(std::string_view text, std::string_view replacement) const {
    if (!impl_->pattern) {
        return std::string(text);
    }
    auto input = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexMatcher> m(impl_->pattern->matcher(input, status));
    auto result = m->replaceAll(icu::UnicodeString::fromUTF8(icu::StringPiece(
                                    replacement.data(), static_cast<int32_t>(replacement.size()))),
                                status);
    return U_SUCCESS(status) ? toUtf8(result) : std::string(text);
}

} // namespace Regex

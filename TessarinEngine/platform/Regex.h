#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Regex {

// A compiled ICU regular expression. Immutable after construction, so one pattern may be shared
// by threads; each match builds its own matcher.
class Pattern {
public:
    // `flags` "i" for case-insensitive. An invalid pattern is a bug: it asserts and matches
    // nothing.
    explicit Pattern(std::string_view pattern, std::string_view flags = {});
    ~Pattern();
    Pattern(Pattern&&) noexcept;
    Pattern& operator=(Pattern&&) noexcept;
    Pattern(const Pattern&) = delete;
    Pattern& operator=(const Pattern&) = delete;

    // The groups of the first match anywhere in the text (group 0 is the whole match; a group that
    // did not take part is empty), or nothing.
    std::optional<std::vector<std::string>> firstMatch(std::string_view text) const;
    bool matches(std::string_view text) const { return firstMatch(text).has_value(); }
    // Every match in order, each with its groups.
    std::vector<std::vector<std::string>> allMatches(std::string_view text) const;
    // The text with every match replaced by `replacement` ($1 names a group).
    std::string replaceAll(std::string_view text, std::string_view replacement) const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace Regex

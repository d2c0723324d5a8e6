// hstring: the runtime's immutable UTF-16 text. Embedded NULs are kept, and
// unpaired surrogates travel unchanged: it is code units, not characters.
#pragma once

#include <compare>
#include <string>
#include <string_view>
#include <utility>

namespace Quorvendale::Platform {

class hstring {
public:
    hstring() = default;
    hstring(std::u16string_view text) : text_(text) {}
    hstring(const char16_t* text) : text_(text) {}
    explicit hstring(std::u16string&& text) noexcept : text_(std::move(text)) {}

    const char16_t* c_str() const noexcept { return text_.c_str(); }
    const char16_t* data() const noexcept { return text_.data(); }
    std::size_t size() const noexcept { return text_.size(); }
    bool empty() const noexcept { return text_.empty(); }
    operator std::u16string_view() const noexcept { return text_; }
    const std::u16string& str() const& noexcept { return text_; }
    std::u16string str() && noexcept { return std::move(text_); }

    friend bool operator==(const hstring&, const hstring&) = default;
    friend auto operator<=>(const hstring&, const hstring&) = default;

private:
    std::u16string text_;
};

}  // namespace Quorvendale::Platform

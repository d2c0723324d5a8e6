// hstring: the runtime's immutable UTF-16 text, shared by its copies. Embedded NULs are kept, and
// unpaired surrogates travel unchanged: it is code units, not characters.
#pragma once

#include <compare>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace Quorvendale::Platform {

class hstring {
public:
    hstring() = default;
    hstring(std::u16string_view text) : hstring(std::u16string(text)) {}
    hstring(const char16_t* text) : hstring(std::u16string_view(text)) {}
    explicit hstring(std::u16string&& text)
        : text_(text.empty() ? nullptr : std::make_shared<const std::u16string>(std::move(text))) {}

    const char16_t* c_str() const noexcept { return str().c_str(); }
    const char16_t* data() const noexcept { return str().data(); }
    std::size_t size() const noexcept { return str().size(); }
    bool empty() const noexcept { return str().empty(); }
    operator std::u16string_view() const noexcept { return str(); }
    const std::u16string& str() const noexcept {
        static const std::u16string none;
        return text_ ? *text_ : none;
    }

    friend bool operator==(const hstring& left, const hstring& right) noexcept {
        return left.str() == right.str();
    }
    friend auto operator<=>(const hstring& left, const hstring& right) noexcept {
        return left.str() <=> right.str();
    }

private:
    // Shared by copies, as the platform's own strings are: a value boxed,
    // put in a ValueSet, framed and taken out again is never copied whole.
    std::shared_ptr<const std::u16string> text_;
};

}  // namespace Quorvendale::Platform

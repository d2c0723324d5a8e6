// The multi-line error report the storage clients throw as
// std::runtime_error:
//
//   Exception:
//   <TAB>file: <__FILE__>
//   <TAB>function: <fully qualified name>
//   <TAB>line: <__LINE__>
//   <TAB>message: <message>          (no newline after the message)
//
// Raise one with QV_THROW_ERROR_REPORT(message) at the point of failure, so
// that the file, function and line are those of the raise.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace Quorvendale::InterfaceContract {

std::string errorReport(std::string_view file, std::string_view function, int line,
                        std::string_view message);

// "std::string Quorvendale::X::Y::read(const string&) const" -> "Quorvendale::X::Y::read":
// the compiler's pretty function name without return type and parameters.
constexpr std::string_view qualifiedFunctionName(std::string_view pretty) {
    std::size_t open = 0;
    int depth = 0;
    constexpr std::string_view anonymous = "(anonymous namespace)";  // clang's spelling
    for (; open < pretty.size(); ++open) {
        const char c = pretty[open];
        if (c == '<') ++depth;
        if (c == '>') --depth;
        if (c == '(' && pretty.substr(open).starts_with(anonymous)) {
            open += anonymous.size() - 1;
            continue;
        }
        if (c == '(' && depth == 0) break;
    }
    std::string_view name = pretty.substr(0, open);
    depth = 0;
    for (std::size_t i = name.size(); i > 0; --i) {
        const char c = name[i - 1];
        if (c == '>' || c == ')') ++depth;
        if (c == '<' || c == '(') --depth;
        if (c == ' ' && depth == 0) return name.substr(i);
    }
    return name;
}

}  // namespace Quorvendale::InterfaceContract

#define QV_ERROR_REPORT(message)                                                                \
    ::Quorvendale::InterfaceContract::errorReport(                                              \
        __FILE__, ::Quorvendale::InterfaceContract::qualifiedFunctionName(__PRETTY_FUNCTION__), \
        __LINE__, (message))

#define QV_THROW_ERROR_REPORT(message) throw std::runtime_error(QV_ERROR_REPORT(message))

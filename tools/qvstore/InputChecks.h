// What qvstore refuses before it sends anything to the local storage service:
// input the service would store changed, or could not store at all. The
// service carries text, not bytes (a value ends at its first NUL, invalid
// UTF-8 becomes U+FFFD, a byte 0x1A ends the value when it is read back), and
// it keeps each entry as one file named by the key, in a folder named by the
// group.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace Quorvendale::Qvstore {

// Input that qvstore will not send; what() says which byte or which rule.
class Refusal : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The longest group or key, in bytes: one file name on Linux.
inline constexpr std::size_t longestName = 255;

// Throws Refusal unless `name` can be one file name in the store: not empty,
// not "." or "..", no '/', at most longestName bytes, valid UTF-8 without NUL.
// `what` names it in the message ("the group", "the key").
void checkName(std::string_view what, std::string_view name);

// Throws Refusal unless `value` comes back from the store as it went in:
// valid UTF-8 with no NUL and no byte 0x1A.
void checkValue(std::string_view value);

}  // namespace Quorvendale::Qvstore

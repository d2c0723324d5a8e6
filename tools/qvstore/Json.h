// The JSON that export writes and import reads: one object of string members,
// key to value, in UTF-8.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Quorvendale::Qvstore {

using Entries = std::vector<std::pair<std::string, std::string>>;

// `text` as a JSON string, quotes included. Control characters, '"' and '\'
// are escaped; every other byte is copied as it is.
std::string jsonString(std::string_view text);

// The members of the one JSON object that `text` holds, in their order.
// Anything else (another type, a member that is not a string, the same key
// twice, an escape for a lone surrogate, text after the object) throws
// Refusal saying what and at which byte.
Entries parseJsonObject(std::string_view text);

}  // namespace Quorvendale::Qvstore

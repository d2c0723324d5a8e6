// What qvstore refuses of its own, before it loads the library: input it
// cannot read (a JSON text, a file) and a value that would make the alias
// "default" name a key no one meant. What the local storage service cannot
// hold is refused by Client.hpp's checks, which qvstore runs first as well.
#pragma once

#include <stdexcept>

namespace Quorvendale::Qvstore {

// Input that qvstore will not send; what() says which byte or which rule.
class Refusal : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace Quorvendale::Qvstore

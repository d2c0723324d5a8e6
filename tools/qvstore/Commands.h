// The commands of qvstore, run on one storage client.
#pragma once

#include <cstdio>
#include <string>

#include "CommandLine.h"
#include "Failure.h"
#include "Json.h"
#include "Quorvendale/Client.hpp"

namespace Quorvendale::Qvstore {

// Where results go: qvstore's own standard output, which is not the
// library's, and whether it is a terminal.
struct Output {
    std::FILE* file;
    bool terminal;
};

// A failed command: what to say and the exit status. `subject` is the entry it
// concerns, where that is not the command's own operands (import).
struct CommandFailure {
    Failure failure;
    std::string subject;
};

// What the command sends besides its operands, taken before the store is
// reached: write's data from standard input, import's entries.
struct Input {
    std::string data;
    Entries entries;
};

// Reads the command's input. With `checkInput`, names and values the local
// storage service would change or cannot carry are refused (Client::Refused,
// Client::TooLarge), and a .default value that ends in a line feed (Refusal),
// before the library is loaded.
Input takeInput(const Invocation& invocation, bool checkInput);

// Runs the invocation's command on the store with its input and gives its
// exit status. Failures of the store leave
// as Client::Error, unless the command turns them into a status itself (read
// --default, --quiet); failures to read input or to write the output as
// std::runtime_error; a failure inside a walk or an import as CommandFailure.
int runCommand(const Client::Storage& storage, const Invocation& invocation, const Input& input,
               const Output& output);

}  // namespace Quorvendale::Qvstore

#include "Commands.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <unordered_set>

namespace Quorvendale::Qvstore {
namespace {

// All of standard input, any bytes, up to its end.
std::string readStandardInput() {
    std::string data;
    char chunk[64 * 1024];
    std::size_t count;
    while ((count = std::fread(chunk, 1, sizeof chunk, stdin)) > 0) data.append(chunk, count);
    if (std::ferror(stdin)) {
        throw std::runtime_error(std::string("cannot read standard input: ") +
                                 std::strerror(errno));
    }
    return data;
}

void writeStandardOutput(std::string_view bytes) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size()) {
        throw std::runtime_error(std::string("cannot write standard output: ") +
                                 std::strerror(errno));
    }
}

// Walks the group with next from the empty key. A store that hands out a key
// a second time would send the walk round for ever; it stops there instead.
int listGroup(const Client::Storage& storage, const std::string& group) {
    std::unordered_set<std::string> seen;
    for (std::string key = storage.next(group, ""); !key.empty(); key = storage.next(group, key)) {
        if (!seen.insert(key).second) {
            std::fprintf(stderr,
                         "qvstore: the store gave the key '%s' a second time; walk stopped after "
                         "%zu keys\n",
                         key.c_str(), seen.size());
            return 1;
        }
        writeStandardOutput(key + '\n');
    }
    return 0;
}

}  // namespace

int runCommand(const Client::Storage& storage, const std::string& command,
               const std::vector<std::string>& operands) {
    if (command == "write") {
        storage.write(operands[0], operands[1],
                      operands.size() == 3 ? operands[2] : readStandardInput());
    } else if (command == "read") {
        writeStandardOutput(storage.read(operands[0], operands[1]));
    } else if (command == "remove") {
        storage.remove(operands[0], operands[1]);
    } else if (command == "next") {
        const std::string following =
            storage.next(operands[0], operands.size() == 2 ? operands[1] : "");
        if (!following.empty()) writeStandardOutput(following + '\n');
    } else if (command == "list") {
        return listGroup(storage, operands[0]);
    } else if (command == "exists") {
        if (!storage.exists()) {
            std::fputs("qvstore: the store did not answer\n", stderr);
            return 1;
        }
    } else {
        throw std::logic_error("qvstore has no command " + command);
    }
    return 0;
}

}  // namespace Quorvendale::Qvstore

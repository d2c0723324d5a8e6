#include "Commands.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <unordered_set>

#include "InputChecks.h"

namespace Quorvendale::Qvstore {
namespace {

// All of a stream, any bytes, up to its end.
std::string readAll(std::FILE* stream, const std::string& name) {
    std::string data;
    char chunk[64 * 1024];
    std::size_t count;
    while ((count = std::fread(chunk, 1, sizeof chunk, stream)) > 0) data.append(chunk, count);
    if (std::ferror(stream)) {
        throw std::runtime_error("cannot read " + name + ": " + std::strerror(errno));
    }
    return data;
}

std::string readFile(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) throw Refusal("cannot open " + path + ": " + std::strerror(errno));
    struct Close {
        std::FILE* file;
        ~Close() { std::fclose(file); }
    } close{file};
    return readAll(file, path);
}

void write(const Output& output, std::string_view bytes) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), output.file) != bytes.size()) {
        throw std::runtime_error(std::string("cannot write standard output: ") +
                                 std::strerror(errno));
    }
}

// The keys of a group, walked with next from the empty key. A store that hands
// out a key a second time would send the walk round for ever; it stops there.
std::vector<std::string> keysOf(const Client::Storage& storage, const std::string& group) {
    std::vector<std::string> keys;
    std::unordered_set<std::string> seen;
    for (std::string key = storage.next(group, ""); !key.empty(); key = storage.next(group, key)) {
        if (!seen.insert(key).second) {
            throw CommandFailure{{storeFailed, "the store gave the key '" + oneLine(key) +
                                                   "' a second time; walk stopped after " +
                                                   std::to_string(keys.size()) + " keys"},
                                 ""};
        }
        keys.push_back(key);
    }
    return keys;
}

// A value as read prints: exactly, and a line feed only for a person.
void printValue(const Output& output, const std::string& value) {
    write(output, value);
    if (output.terminal) write(output, "\n");
}

int read(const Client::Storage& storage, const Invocation& invocation, const Output& output) {
    const std::string& group = invocation.operands[0];
    const std::string& key = invocation.operands[1];
    try {
        printValue(output, storage.read(group, key));
    } catch (const Client::NotFound&) {
        if (!invocation.defaultValue && !invocation.quiet) throw;
        if (!invocation.defaultValue) return keyMissing;
        printValue(output, *invocation.defaultValue);
    }
    return succeeded;
}

// Keys as plain list prints them: sorted by bytes, one a line, a line feed or
// other control character in a key escaped so that each key stays one line
// (list --json carries every key exactly).
std::string plainList(std::vector<std::string> keys) {
    std::sort(keys.begin(), keys.end());
    std::string text;
    for (const std::string& key : keys) text += oneLine(key) + '\n';
    return text;
}

// The alias "default" names the key that .default holds, line feed and all; a
// value that ends in one is almost always `echo NAME | qvstore write`.
void checkAliasTarget(const std::string& key, const std::string& value) {
    if (key == ".default" && !value.empty() && value.back() == '\n') {
        throw Refusal("the value ends in a line feed, so the alias 'default' would name a key "
                      "that ends in one; give the key's name without it, as an argument after "
                      "'--' (printf or echo -n for standard input)");
    }
}

// A store failure part-way names the entry and how many went before it.
int import(const Client::Storage& storage, const Invocation& invocation, const Entries& entries) {
    const std::string& group = invocation.operands[0];
    std::size_t written = 0;
    for (const auto& [key, value] : entries) {
        try {
            storage.write(group, key, value);
        } catch (const Client::Error& error) {
            Failure failure = failureOf(error);
            failure.message += "; " + std::to_string(written) + " of " +
                               std::to_string(entries.size()) + " entries written";
            throw CommandFailure{std::move(failure), oneLine(key)};
        }
        ++written;
    }
    return succeeded;
}

}  // namespace

Input takeInput(const Invocation& invocation, bool checkInput) {
    const std::string& command = invocation.command;
    const std::vector<std::string>& operands = invocation.operands;
    Input input;
    if (command == "write") {
        input.data = operands.size() == 3 ? operands[2] : readAll(stdin, "standard input");
    } else if (command == "import") {
        input.entries = parseJsonObject(operands.size() == 2 ? readFile(operands[1])
                                                             : readAll(stdin, "standard input"));
    }
    if (!checkInput || operands.empty()) return input;

    Client::checkLocalName("group", operands[0]);
    const bool keyOperand = command == "write" || command == "read" || command == "remove" ||
                            (command == "next" && operands.size() == 2 && !operands[1].empty());
    if (keyOperand) Client::checkLocalName("key", operands[1]);
    if (command == "write") {
        Client::checkLocalValue(input.data);
        checkAliasTarget(operands[1], input.data);
    }
    // Every entry is checked before the first is written: a refusal stores none.
    for (const auto& [key, value] : input.entries) {
        try {
            Client::checkLocalName("key", key);
            Client::checkLocalValue(value);
            checkAliasTarget(key, value);
        } catch (const std::runtime_error& refusal) {
            throw Refusal("entry " + jsonString(key) + ": " + refusal.what() +
                          "; nothing was imported");
        }
    }
    return input;
}

int runCommand(const Client::Storage& storage, const Invocation& invocation, const Input& input,
               const Output& output) {
    const std::string& command = invocation.command;
    const std::vector<std::string>& operands = invocation.operands;
    if (command == "write") {
        storage.write(operands[0], operands[1], input.data);
    } else if (command == "read") {
        return read(storage, invocation, output);
    } else if (command == "remove") {
        storage.remove(operands[0], operands[1]);
    } else if (command == "next") {
        const std::string following =
            storage.next(operands[0], operands.size() == 2 ? operands[1] : "");
        if (!following.empty()) write(output, following + '\n');
    } else if (command == "list") {
        std::vector<std::string> keys = keysOf(storage, operands[0]);
        if (!invocation.json) {
            write(output, plainList(std::move(keys)));
        } else {
            std::sort(keys.begin(), keys.end());
            std::string text = "[";
            for (const std::string& key : keys) text += (text.size() > 1 ? "," : "") + jsonString(key);
            write(output, text + "]\n");
        }
    } else if (command == "export") {
        std::string text = "{";
        for (const std::string& key : keysOf(storage, operands[0])) {
            text += (text.size() > 1 ? "," : "") + jsonString(key) + ":" +
                    jsonString(storage.read(operands[0], key));
        }
        write(output, text + "}\n");
    } else if (command == "import") {
        return import(storage, invocation, input.entries);
    } else if (command == "exists") {
        if (!storage.exists()) {
            throw CommandFailure{{unreachable, "the storage service did not answer"}, ""};
        }
    } else {
        throw std::logic_error("qvstore has no command " + command);
    }
    return succeeded;
}

}  // namespace Quorvendale::Qvstore

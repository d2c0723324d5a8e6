#include "CommandLine.h"

#include <algorithm>
#include <string_view>

#include "Quorvendale/Limits.h"

namespace Quorvendale::Qvstore {
namespace {

struct CommandForm {
    const char* name;
    std::size_t fewestOperands;
    std::size_t mostOperands;
    const char* synopsis;
    const char* description;  // lines after the first are indented to the description's column
};

constexpr CommandForm commandForms[] = {
    {"write", 2, 3, "write GROUP KEY [DATA]",
     "store DATA under KEY in GROUP (replacing any value);\n"
     "without DATA, all of standard input"},
    {"read", 2, 2, "read GROUP KEY",
     "print the value stored under KEY, exactly as stored\n"
     "(a line feed is added only on a terminal);\n"
     "--default VALUE prints VALUE when KEY is missing"},
    {"remove", 2, 2, "remove GROUP KEY",
     "delete the value stored under KEY (a missing KEY\nis no failure)"},
    {"next", 1, 2, "next GROUP [KEY]",
     "print the key after KEY in the store's own order\n"
     "(the first one without KEY) and a line feed;\n"
     "nothing after the last key"},
    {"list", 1, 1, "list GROUP",
     "print every key of GROUP sorted by bytes, one a\n"
     "line (a line feed in a key as \\n), or with --json\n"
     "as one JSON array"},
    {"export", 1, 1, "export GROUP", "print GROUP as one JSON object of key to value"},
    {"import", 1, 2, "import GROUP [FILE]",
     "write every member of the JSON object in FILE\n"
     "(or standard input) to GROUP; nothing at all\n"
     "if any member is refused"},
    {"exists", 0, 0, "exists", "succeed when the store answers; print nothing"},
    {"status", 0, 0, "status",
     "print the running service's counters as a table, or\n"
     "with --json as one JSON object; never starts it"},
};

const CommandForm* findCommand(std::string_view name) {
    const auto* found = std::find_if(std::begin(commandForms), std::end(commandForms),
                                     [&](const CommandForm& form) { return name == form.name; });
    return found == std::end(commandForms) ? nullptr : found;
}

// HOST:PORT, split at the last colon, so that the host text may hold colons.
// The host is handed to the client as it stands; the port must be a TCP port.
RemoteAddress parseRemoteAddress(std::string_view text) {
    const auto bad = [&] {
        return UsageError("bad --remote '" + std::string(text) +
                          "': expected HOST:PORT with PORT from 1 to 65535");
    };
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos || colon == 0) throw bad();
    const std::string_view digits = text.substr(colon + 1);
    if (digits.empty() || digits.size() > 5 ||
        !std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        throw bad();
    }
    const std::uint32_t port = static_cast<std::uint32_t>(std::stoul(std::string(digits)));
    if (port == 0 || port > 65535) throw bad();
    return {std::string(text.substr(0, colon)), port};
}

void checkOperandCount(const CommandForm& form, std::size_t count) {
    if (count < form.fewestOperands || count > form.mostOperands) {
        throw UsageError("wrong number of arguments for '" + std::string(form.name) +
                         "'; usage: qvstore " + form.synopsis);
    }
}

}  // namespace

Invocation parseCommandLine(int argc, const char* const* argv) {
    Invocation invocation;
    std::vector<std::string> words;
    bool optionsEnded = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        // A lone "-" and anything after "--" are words, not options.
        if (optionsEnded || argument.size() < 2 || argument[0] != '-') {
            words.emplace_back(argument);
            continue;
        }
        if (argument == "--") {
            optionsEnded = true;
            continue;
        }
        if (argument == "--help" || argument == "-h") {
            invocation.action = Invocation::Action::help;
            return invocation;
        }
        if (argument == "--version") {
            invocation.action = Invocation::Action::version;
            return invocation;
        }
        if (argument == "--verbose" || argument == "-v") {
            invocation.verbose = true;
            continue;
        }
        if (argument == "--quiet" || argument == "-q") {
            invocation.quiet = true;
            continue;
        }
        if (argument == "--json") {
            invocation.json = true;
            continue;
        }
        // --name VALUE or --name=VALUE
        const std::size_t equals = argument.find('=');
        const std::string_view name = argument.substr(0, equals);
        if (name != "--remote" && name != "--library" && name != "--default") {
            throw UsageError("unknown option '" + std::string(argument) + "'");
        }
        std::string_view value;
        if (equals != std::string_view::npos) {
            value = argument.substr(equals + 1);
        } else if (i + 1 < argc) {
            value = argv[++i];
        } else {
            throw UsageError("option '" + std::string(name) + "' needs a value");
        }
        if (name == "--remote") {
            invocation.remote = parseRemoteAddress(value);
        } else if (name == "--default") {
            invocation.defaultValue = std::string(value);
        } else if (value.empty()) {
            throw UsageError("option '--library' needs a path");
        } else {
            invocation.library = std::string(value);
        }
    }

    if (words.empty()) throw UsageError("no command given");
    const CommandForm* form = findCommand(words.front());
    if (form == nullptr) throw UsageError("unknown command '" + words.front() + "'");
    invocation.command = form->name;
    invocation.operands.assign(words.begin() + 1, words.end());
    checkOperandCount(*form, invocation.operands.size());
    if (invocation.defaultValue && invocation.command != "read") {
        throw UsageError("option '--default' belongs to 'read' only");
    }
    if (invocation.json && invocation.command != "list" && invocation.command != "status") {
        throw UsageError("option '--json' belongs to 'list' and 'status' only");
    }
    if (invocation.remote && invocation.command == "status") {
        throw UsageError("option '--remote' does not apply to 'status'");
    }
    return invocation;
}

std::string usage(const std::vector<std::string>& defaultLibraries) {
    std::string text =
        "Usage: qvstore [OPTIONS] COMMAND [ARGUMENTS]\n"
        "\n"
        "Reads and writes the Quorvendale key-value store (group -> key -> bytes)\n"
        "through the local storage service, or a storage server with --remote.\n"
        "\n"
        "Commands:\n";
    constexpr std::size_t column = 26;
    for (const CommandForm& form : commandForms) {
        std::string line = "  " + std::string(form.synopsis);
        line.resize(std::max(column, line.size() + 2), ' ');
        for (const char* c = form.description; *c != '\0'; ++c) {
            line += *c;
            if (*c == '\n') line.append(column, ' ');
        }
        text += line + "\n";
    }
    text +=
        "\n"
        "Options:\n"
        "  --remote HOST:PORT      use the storage server at HOST:PORT instead of the\n"
        "                          local storage service\n"
        "  --library PATH          load the client library from PATH; without it, the\n"
        "                          one installed with this qvstore if it exists,\n"
        "                          else the SONAME where the loader finds it:\n";
    for (const std::string& path : defaultLibraries)
        text += "                            " + path + "\n";
    text +=
        "  --default VALUE         read: print VALUE and succeed when KEY is missing\n"
        "  --json                  list: print the keys as one JSON array;\n"
        "                          status: print the counters as one JSON object\n"
        "  -q, --quiet             say nothing when the key to read is missing\n"
        "  -v, --verbose           with a failure, also print the library's full report\n"
        "  -h, --help              show this help and exit\n"
        "  --version               show the version and exit\n"
        "  --                      end of options: later words that begin with '-' are\n"
        "                          groups, keys or data (qvstore write g k -- -1)\n"
        "\n"
        "What the local storage service keeps: a group is a folder and a key a file\n"
        "in it, so each must be one file name: not empty, not '.' or '..', no '/', at\n"
        "most " + std::to_string(QV_LOCAL_MAX_NAME_BYTES) +
        " bytes of UTF-8. A value is UTF-8 text without the bytes NUL and\n"
        "0x1A (line feeds and CR LF are kept), of at most " +
        std::to_string(QV_LOCAL_MAX_VALUE_BYTES) + " bytes (31 MiB).\n"
        "qvstore refuses anything else before it loads the library (exit status 2),\n"
        "since the service would store it changed or could not carry it.\n"
        "\n"
        "The key 'default' of every group is an alias: it stands for the key whose\n"
        "name is the value of the key '.default' of that group, and read, write and\n"
        "remove of 'default' act on that key. Set it with\n"
        "  qvstore write settings .default theme\n"
        "after which 'qvstore read settings default' reads the key 'theme'. Without\n"
        "'.default', reading 'default' prints nothing and writing it fails. A value\n"
        "of '.default' that ends in a line feed is refused (echo adds one).\n"
        "\n"
        "Each failure is one line on standard error:\n"
        "  qvstore: COMMAND GROUP KEY: what happened\n"
        "Exit status:\n"
        "  0  success (for exists: the store answered)\n"
        "  1  the key does not exist (read, or next after an unknown KEY): 'no such\n"
        "     key' (--verbose adds the service's text)\n"
        "  2  usage error, or input refused (see above); nothing was sent\n"
        "  3  the storage service could not be reached: no session bus, the service\n"
        "     is not installed, it failed to start, or it refused the connection\n"
        "     (its status name is given)\n"
        "  4  the store, or a service that was reached, failed the operation (a\n"
        "     connection cut during a request included), with its reason\n";
    return text;
}

}  // namespace Quorvendale::Qvstore

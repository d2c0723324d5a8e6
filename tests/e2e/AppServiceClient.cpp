// A second client process for the host's tests: opens its own connection to
// the storage service and writes, then reads back, COUNT entries of GROUP.
// Exits 0 when every answer was right, 1 (saying why) otherwise.
//
// Usage: AppServiceClient PACKAGE APP_SERVICE GROUP COUNT
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Support/StorageMessages.h"
#include "Support/Waiting.h"

using namespace Quorvendale;
using namespace Quorvendale::Platform;

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s PACKAGE APP_SERVICE GROUP COUNT\n", argv[0]);
        return 2;
    }
    const std::string group = argv[3];
    const int count = std::atoi(argv[4]);
    try {
        AppServiceConnection connection;
        connection.PackageFamilyName(hstring(utf8ToUtf16(argv[1])));
        connection.AppServiceName(hstring(utf8ToUtf16(argv[2])));
        const auto status = Testing::await(connection.OpenAsync());
        if (status != AppServiceConnectionStatus::Success) {
            std::fprintf(stderr, "open failed with status %d\n", static_cast<int>(status));
            return 1;
        }
        const auto ask = [&](const ValueSet& message) {
            return Testing::replyOf(Testing::await(connection.SendMessageAsync(message)));
        };
        for (int i = 0; i < count; ++i) {
            const std::string key = std::to_string(i);
            const std::string value = group + " " + key;
            const Testing::Reply written = ask(Testing::request(
                {{u"command", "write"}, {u"group", group}, {u"key", key}, {u"data", value}}));
            const Testing::Reply read =
                ask(Testing::request({{u"command", "read"}, {u"group", group}, {u"key", key}}));
            if (written != Testing::success || read != Testing::Reply("success", value)) {
                std::fprintf(stderr, "entry %d: write gave %s, read gave %s \"%s\"\n", i,
                             written.first.c_str(), read.first.c_str(), read.second.c_str());
                return 1;
            }
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    } catch (const HResultError& error) {
        std::fprintf(stderr, "0x%08X\n", static_cast<unsigned>(error.code()));
        return 1;
    }
    return 0;
}

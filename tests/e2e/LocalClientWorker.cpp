// A second client process for the local client's load test: loads the
// library, asks for a local client, and writes then reads back COUNT entries
// of GROUP. Exits 0 when every value came back as written, 1 (saying why)
// otherwise.
//
// Usage: LocalClientWorker LIBRARY GROUP COUNT
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "Quorvendale/Client.hpp"

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s LIBRARY GROUP COUNT\n", argv[0]);
        return 2;
    }
    const std::string group = argv[2];
    const int count = std::atoi(argv[3]);
    try {
        const Quorvendale::Client::Library library(argv[1]);
        auto storage = library.local();
        if (!storage) return 1;
        for (int i = 0; i < count; ++i) {
            const std::string key = std::to_string(i);
            storage->write(group, key, group + "/" + key);
            if (storage->read(group, key) != group + "/" + key) {
                std::fprintf(stderr, "entry %s came back changed\n", key.c_str());
                return 1;
            }
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}

// Client.hpp against the built library, loaded from its real path and
// compiled as C++17, as its users compile it: the ownership of Ptr seen in the
// counts of the library's own objects, failures as Errors with the client's
// code and text, the interface's 32-bit lengths, and loading that fails.
#include "Quorvendale/Client.hpp"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Support/PackageFolder.h"
#include "Support/TemporaryFolder.h"

namespace {

using namespace Quorvendale::Client;
using Quorvendale::Testing::ScopedEnvironment;
using Quorvendale::Testing::TemporaryFolder;

const std::string libraryPath = QV_LIBRARY_PATH;
constexpr const char* refusal =
    "hostname is invalid or requires DNS lookup, which is not supported yet";

// The object's interface count, read as the result of a matched addRef/release.
template <class I>
std::uint32_t countOf(I* object) {
    object->table->addRef(object);
    return object->table->release(object);
}

// Expects `operation` to throw Error with `code`, and returns its text.
std::string errorOf(const std::function<void()>& operation, ResultCode code) {
    try {
        operation();
    } catch (const Error& error) {
        EXPECT_EQ(error.code(), code);
        return error.what();
    }
    ADD_FAILURE() << "no Error";
    return {};
}

TEST(ClientPtr, EachOwnerHoldsOneReference) {
    const Library library(libraryPath);
    ILibrary* const object = library.ptr().get();
    ASSERT_EQ(countOf(object), 1u);

    Ptr<ILibrary> copy = library.ptr();
    Ptr<ILibrary> shared = Ptr<ILibrary>::share(object);
    EXPECT_EQ(countOf(object), 3u);
    Ptr<ILibrary> moved = std::move(copy);
    EXPECT_TRUE(!copy && moved.get() == object);
    Ptr<ILibrary>& same = moved;
    moved = same;
    moved = std::move(same);
    shared = moved;  // the same object again: one reference taken, one given back
    EXPECT_EQ(countOf(object), 3u);
    moved.reset();
    Ptr<ILibrary> adopted = Ptr<ILibrary>::adopt(shared.detach());
    EXPECT_EQ(countOf(object), 2u);
    adopted = nullptr;
    EXPECT_EQ(countOf(object), 1u);

    // An out-slot's pointer is adopted: the client that put() receives has
    // count 1, and put() gives back what the Ptr held before.
    Ptr<IStorage> client;
    ASSERT_EQ(object->table->createRemoteStorageClient(object, "", 0, 1, client.put()), QV_S_OK);
    const Storage storage(client);
    IStorage* const first = client.get();
    EXPECT_EQ(countOf(first), 2u);
    ASSERT_EQ(object->table->createRemoteStorageClient(object, "", 0, 1, client.put()), QV_S_OK);
    EXPECT_EQ(countOf(client.get()), 1u);
    EXPECT_EQ(countOf(first), 1u);
    {
        const Storage copied = storage;
        EXPECT_EQ(countOf(first), 2u);
    }
    EXPECT_EQ(countOf(first), 1u);
    EXPECT_THROW(Storage{Ptr<IStorage>()}, std::invalid_argument);
}

// Every remote operation ends with the address parser's refusal, as E_FAIL.
TEST(ClientStorage, FailuresCarryTheClientsCodeAndText) {
    const Library library(libraryPath);
    const Storage storage = library.remote("127.0.0.1", 1);
    const std::vector<std::pair<const char*, std::function<void()>>> operations = {
        {"read", [&] { storage.read("group", "key"); }},
        {"write", [&] { storage.write("group", "key", std::string("a\0b", 3)); }},
        {"remove", [&] { storage.remove("group", "key"); }},
        {"next", [&] { storage.next("group", ""); }},
        {"exists", [&] { storage.exists(); }},
    };
    for (const auto& [name, operation] : operations) {
        SCOPED_TRACE(name);
        EXPECT_EQ(errorOf(operation, QV_E_FAIL), refusal);
    }
}

// A view of 4 GiB + 1 bytes: mapped, never touched. Cut to 32 bits it would be
// one byte long and reach the client, which would fail with its refusal.
TEST(ClientStorage, LengthsBeyondThirtyTwoBitsAreRefusedNotCut) {
    constexpr std::size_t length = (std::size_t{1} << 32) + 1;
    void* pages =
        ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    const std::unique_ptr<void, std::function<void(void*)>> unmap(
        pages, [](void* mapped) { ::munmap(mapped, length); });
    const std::string_view huge(static_cast<const char*>(pages), length);

    const Library library(libraryPath);
    const Storage storage = library.remote("127.0.0.1", 1);
    EXPECT_EQ(errorOf([&] { storage.write("g", "k", huge); }, QV_E_INVALIDARG).rfind("the data", 0),
              0u);
    EXPECT_EQ(errorOf([&] { storage.read(huge, "k"); }, QV_E_INVALIDARG).rfind("the group", 0), 0u);
    EXPECT_EQ(errorOf([&] { storage.next("g", huge); }, QV_E_INVALIDARG).rfind("the key", 0), 0u);
    EXPECT_EQ(errorOf([&] { library.remote(huge, 1); }, QV_E_INVALIDARG).rfind("the address", 0),
              0u);
}

TEST(ClientLibrary, LoadFailuresNameThePathAndTheReason) {
    const TemporaryFolder folder;
    const std::string notALibrary = (folder / "notALibrary.so").string();
    std::ofstream(notALibrary) << "text, not a shared object\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {(folder / "missing.so").string(), "No such file or directory"},
        {notALibrary, notALibrary + ": "},
        {QV_PLATFORM_LIBRARY_PATH, "getLibraryInterface"},  // loads, but has no entry
    };
    for (const auto& [path, reason] : cases) {
        SCOPED_TRACE(path);
        try {
            Library library(path);
            ADD_FAILURE() << "loaded";
        } catch (const std::runtime_error& error) {
            const std::string text = error.what();
            EXPECT_EQ(text.rfind("cannot load " + path + ": ", 0), 0u) << text;
            EXPECT_NE(text.find(reason), std::string::npos) << text;
        }
    }
}

}  // namespace

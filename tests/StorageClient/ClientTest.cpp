// Client.hpp against the built library, loaded from its real path and
// compiled as C++17, as its users compile it: the ownership of Ptr seen in the
// counts of the library's own objects, failures as Errors with the client's
// code and text, the interface's 32-bit lengths, and loading that fails.
#include "Quorvendale/Client.hpp"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <functional>

#include "Support/TemporaryFolder.h"

namespace {

using namespace Quorvendale::Client;

const std::string libraryPath = QV_LIBRARY_PATH;

// The object's interface count, read as the result of a matched addRef/release.
template <class I>
std::uint32_t countOf(I* object) {
    object->table->addRef(object);
    return object->table->release(object);
}

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

    // An out-slot's pointer is adopted, and put() gives back what it held.
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

// Every remote operation ends with the address parser's refusal, as E_FAIL,
// through the library, the table and the boundary guard; a view of 4 GiB + 1
// bytes (mapped, never touched) is refused, not cut to one byte.
TEST(ClientStorage, FailuresCarryTheCodeAndTextAndLengthsStayWhole) {
    const Library library(libraryPath);
    const Storage storage = library.remote("127.0.0.1", 1);
    // qvstore's tests see the same refusal for every command.
    EXPECT_EQ(errorOf([&] { storage.write("group", "key", std::string("a\0b", 3)); }, QV_E_FAIL),
              "hostname is invalid or requires DNS lookup, which is not supported yet");

    constexpr std::size_t length = (std::size_t{1} << 32) + 1;
    void* pages =
        ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    const std::string_view huge(static_cast<const char*>(pages), length);
    const std::pair<const char*, std::function<void()>> refused[] = {
        {"the data", [&] { storage.write("g", "k", huge); }},
        {"the group", [&] { storage.read(huge, "k"); }},
        {"the key", [&] { storage.next("g", huge); }},
        {"the address", [&] { library.remote(huge, 1); }},
    };
    for (const auto& [what, operation] : refused) {
        EXPECT_EQ(errorOf(operation, QV_E_INVALIDARG).rfind(what, 0), 0u) << what;
    }
    ::munmap(pages, length);
}

TEST(ClientLibrary, LoadFailuresNameThePathAndTheReason) {
    const Quorvendale::Testing::TemporaryFolder folder;
    const std::string notALibrary = (folder / "notALibrary.so").string();
    std::ofstream(notALibrary) << "text, not a shared object\n";
    const std::pair<std::string, std::string> cases[] = {
        {(folder / "missing.so").string(), "No such file or directory"},
        {notALibrary, notALibrary + ": "},
        {QV_PLATFORM_LIBRARY_PATH, "getLibraryInterface"},  // loads, but has no entry
    };
    for (const auto& [path, reason] : cases) {
        try {
            Library library(path);
            ADD_FAILURE() << "loaded " << path;
        } catch (const std::runtime_error& error) {
            const std::string text = error.what();
            EXPECT_EQ(text.rfind("cannot load " + path + ": ", 0), 0u) << text;
            EXPECT_NE(text.find(reason), std::string::npos) << text;
        }
    }
}

}  // namespace

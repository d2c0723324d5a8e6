// Client.hpp against the built library, loaded from its real path and
// compiled as C++17, as its users compile it: the ownership of Ptr seen in the
// counts of the library's own objects, failures as Errors with the client's
// code and text, the interface's 32-bit lengths, and loading that fails.
#include "Quorvendale/Client.hpp"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <fstream>
#include <functional>
#include <tuple>

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
    EXPECT_THROW(Storage{Ptr<IStorage>()}, Error);
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
        } catch (const Error& error) {  // the header's own type, like every failure
            const std::string text = error.what();
            EXPECT_EQ(text.rfind("cannot load " + path + ": ", 0), 0u) << text;
            EXPECT_NE(text.find(reason), std::string::npos) << text;
        }
    }
}

// The library's texts, as its clients raise them, to the kind a caller catches.
TEST(ClientErrors, EachTextIsRecognisedAsItsKind) {
    const std::string report = "Exception:\n\tfile: f.cpp\n\tfunction: f\n\tline: 1\n\tmessage: ";
    enum Kind { notFound, unreachable, tooLarge, plain };
    const std::tuple<std::string, ClientKind, Kind> cases[] = {
        {report + "Read file error: file /x/LocalState/g/k is not exist", ClientKind::local, notFound},
        {report + "Invalid key", ClientKind::local, notFound},
        {report + "AppUnavailable", ClientKind::local, unreachable},
        {"UwpLocalStorageClient::sendMessage: no connection", ClientKind::local, unreachable},
        // The service answered the connection and then cut it mid-request.
        {"response.Status() != TResponseStatus::Success in UwpLocalStorageClient::sendMessage",
         ClientKind::local, plain},
        {report + "Write file error", ClientKind::local, plain},
        {"The value is too large: 32505857 bytes, the largest the local client carries is "
         "32505856 bytes", ClientKind::local, tooLarge},
        {report + "The key is too long: 300 bytes, the longest the local client carries is 255 "
                  "bytes", ClientKind::local, tooLarge},
        {"connect() failed: Connection refused", ClientKind::remote, unreachable},
        {"Write file error", ClientKind::remote, plain},
    };
    for (const auto& [text, client, kind] : cases) {
        SCOPED_TRACE(text);
        try {
            Detail::raise(QV_E_FAIL, text, client);
        } catch (const NotFound&) {
            EXPECT_EQ(kind, notFound);
        } catch (const Unreachable& error) {
            EXPECT_EQ(kind, unreachable);
            EXPECT_EQ(error.status(), client == ClientKind::local ? error.message() : "");
        } catch (const TooLarge& error) {
            EXPECT_EQ(kind, tooLarge);
            EXPECT_EQ(error.code(), QV_E_FAIL);  // the library's code
        } catch (const Error& error) {
            EXPECT_EQ(kind, plain);
            EXPECT_EQ(error.what(), text);
        }
    }
    // A write of the alias "default" that names no key fails with a missing
    // file's text: a failure of the store, not a missing key.
    try {
        Detail::raise(QV_E_FAIL, std::get<0>(cases[0]), ClientKind::local, Detail::Asked::other);
    } catch (const NotFound&) {
        ADD_FAILURE() << "a write's failure taken for a missing key";
    } catch (const Error&) {
    }
}

// A local client's input is checked before anything is sent: here a remote
// client stands behind it, whose own refusal shows what got through. Each
// kind of refusal is qvstore's test; here, the limits themselves pass.
TEST(ClientErrors, LocalInputIsRefusedBeforeSendingUpToItsLimits) {
    const Library library(libraryPath);
    const Storage storage(library.remote("127.0.0.1", 1).ptr(), ClientKind::local);
    const std::string largest(largestLocalValue, 'v'), longest(longestLocalName, 'k');
    try {
        storage.write(longest, longest, largest);
        ADD_FAILURE() << "sent to no server";
    } catch (const Refused& refused) {
        ADD_FAILURE() << refused.what();
    } catch (const Error& error) {
        EXPECT_EQ(error.message(),
                  "hostname is invalid or requires DNS lookup, which is not supported yet");
    }
    EXPECT_THROW(storage.write("g", "k", largest + "v"), TooLarge);
}

// Without a session bus, local() throws Unreachable naming the status, and
// the library's lines about it are in report(), not on standard output.
TEST(ClientLibrary, LocalWithoutAServiceThrowsUnreachableAndKeepsStandardOutput) {
    const Quorvendale::Testing::TemporaryFolder folder;
    const std::string address = "unix:path=" + (folder / "no-bus").string();
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    std::FILE* output = std::tmpfile();
    std::fflush(stdout);
    const int original = ::dup(STDOUT_FILENO);
    ::dup2(::fileno(output), STDOUT_FILENO);
    try {
        Library(libraryPath).local();
        ADD_FAILURE() << "connected";
    } catch (const Unreachable& error) {
        EXPECT_EQ(error.status(), "AppUnavailable");
        EXPECT_STREQ(error.what(), "the storage service cannot be reached: no session bus "
                                   "answered, or the service failed to start (AppUnavailable)");
        EXPECT_EQ(error.report().rfind("Error: UwpClient connection failed\nException:\n", 0), 0u)
            << error.report();
    }
    std::printf("after");
    std::fflush(stdout);
    ::dup2(original, STDOUT_FILENO);
    ::close(original);
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
    char written[64] = {};
    std::rewind(output);
    EXPECT_STREQ(std::fgets(written, sizeof written, output), "after");
    std::fclose(output);
}

}  // namespace

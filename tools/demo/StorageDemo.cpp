// The end-to-end demo of what the library carries today, in one process:
//
//  1. a program loads the library and asks ILibrary for a remote client,
//     whose every operation ends with the address parser's refusal;
//  2. the storage service is activated from the same library through
//     DllGetActivationFactory, as the app-service host does, and runs as the
//     background task of one end of a socketpair, while the demo talks to the
//     other end the way the local client does: write, alias, read, walk,
//     remove; the entries it leaves are listed from disk.
//
// Usage: StorageDemo <libQuorvendaleStorageClient.so>
// The service's data lives in a temporary folder, removed at the end.
#include <dlfcn.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>

#include "Platform/BackgroundTaskInstance.h"
#include "Platform/Module.h"
#include "Platform/TextConversion.h"
#include "Quorvendale/ILibrary.h"

using namespace Quorvendale;
using namespace Quorvendale::Platform;

namespace {

constexpr const char* packageFamilyName = "KMWPRT.Quorvendale.Service_x7q2m9vd4hnra";

void* symbol(void* library, const char* name) {
    void* address = ::dlsym(library, name);
    if (address == nullptr) throw std::runtime_error(std::string("missing export ") + name);
    return address;
}

std::string messageOf(StorageClient::IStorage* storage) {
    InterfaceContract::IExceptionData* data = nullptr;
    storage->table->queryInterface(storage, &InterfaceContract::IID_IExceptionData,
                                   reinterpret_cast<void**>(&data));
    std::string text;
    data->table->getMessage(data, &text, [](void* context, std::uint32_t length) -> void* {
        auto* out = static_cast<std::string*>(context);
        out->resize(length);
        return out->data();
    });
    return text;
}

void showRemoteClient(void* library) {
    std::puts("== a remote client through getLibraryInterface -> ILibrary -> IStorage");
    auto getLibrary = reinterpret_cast<StorageClient::GetLibraryInterfaceFunction>(
        symbol(library, "getLibraryInterface"));
    StorageClient::ILibrary* entry = nullptr;
    getLibrary(nullptr, &entry);
    StorageClient::IStorage* remote = nullptr;
    entry->table->createRemoteStorageClient(entry, "127.0.0.1", 9, 7000, &remote);
    std::uint32_t exists = 0;
    const auto code = remote->table->exists(remote, &exists);
    std::printf("exists() on 127.0.0.1:7000 -> 0x%08X\n  %s\n", code, messageOf(remote).c_str());
    remote->table->release(remote);
    entry->table->release(entry);
}

template <class T>
T waitFor(const IAsyncOperation<T>& operation) {
    auto ended = std::make_shared<std::promise<void>>();
    auto future = ended->get_future();
    operation.Completed([ended](auto&&, auto&&) { ended->set_value(); });
    if (future.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        throw std::runtime_error("no answer within 10 s");
    }
    return operation.GetResults();
}

// Line feeds shown as \n, so that each exchange stays on one line.
std::string escaped(std::string text) {
    for (std::size_t at = 0; (at = text.find('\n', at)) != std::string::npos; at += 2) {
        text.replace(at, 1, "\\n");
    }
    return text;
}

// Sends one storage message and prints it with the service's reply.
std::string ask(const AppServiceConnection& connection, const std::string& command,
                const std::string& group, const std::string& key, const char* data = nullptr) {
    ValueSet message;
    message.Insert(u"command", PropertyValue::CreateString(hstring(utf8ToUtf16(command))));
    message.Insert(u"group", PropertyValue::CreateString(hstring(utf8ToUtf16(group))));
    message.Insert(u"key", PropertyValue::CreateString(hstring(utf8ToUtf16(key))));
    if (data != nullptr) {
        message.Insert(u"data", PropertyValue::CreateString(hstring(utf8ToUtf16(data))));
    }
    const ValueSet reply = waitFor(connection.SendMessageAsync(message)).Message();
    const std::string status = utf16ToUtf8(unbox_value<hstring>(reply.Lookup(u"status")));
    const std::string response = utf16ToUtf8(unbox_value<hstring>(reply.Lookup(u"response")));
    std::printf("%-6s %s/%-10s -> %s \"%s\"\n", command.c_str(), group.c_str(), key.c_str(),
                status.c_str(), escaped(response).c_str());
    return response;
}

void showStorageService(void* library, const std::filesystem::path& dataFolder) {
    std::puts("\n== the storage service, activated through DllGetActivationFactory");
    ::setenv("XDG_DATA_HOME", dataFolder.c_str(), 1);
    ::setenv("QUORVENDALE_PACKAGE_FAMILY_NAME", packageFamilyName, 1);
    auto getFactory = reinterpret_cast<HRESULT (*)(HSTRING, IActivationFactory**)>(
        symbol(library, "DllGetActivationFactory"));
    auto canUnloadNow = reinterpret_cast<HRESULT (*)()>(symbol(library, "DllCanUnloadNow"));

    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        throw std::runtime_error("socketpair failed");
    }
    AppServiceConnection client = AppServiceConnection::fromSocket(ends[0]);
    auto task = BackgroundTaskInstance::forConnection(AppServiceConnection::fromSocket(ends[1]));
    {
        IActivationFactory* factory = nullptr;
        const hstring classId(u"Quorvendale.Storage.StorageService");
        if (getFactory(get_abi(classId), &factory) != S_OK) {
            throw std::runtime_error("the library does not activate the storage service");
        }
        const auto service = com_ptr<IActivationFactory>::attach(factory)->ActivateInstance();
        task->run(*as<IBackgroundTask>(service));
    }
    std::printf("DllCanUnloadNow while serving -> %d (S_FALSE)\n\n", canUnloadNow());

    ask(client, "write", "greetings", "hello", "Hello,\nworld");
    ask(client, "write", "greetings", ".default", "hello");
    ask(client, "read", "greetings", "default");
    ask(client, "write", "greetings", "bonjour", "Bonjour \u00e0 tous");
    for (std::string key = ask(client, "next", "greetings", ""); !key.empty();) {
        key = ask(client, "next", "greetings", key);
    }
    ask(client, "read", "greetings", "missing");
    ask(client, "remove", "greetings", "bonjour");

    const auto group = dataFolder / "Packages" / packageFamilyName / "LocalState" / "greetings";
    std::printf("\nentries on disk in %s:\n", group.c_str());
    for (const auto& entry : std::filesystem::directory_iterator(group)) {
        std::ifstream file(entry.path(), std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(file)), {});
        std::printf("  %-10s %zu bytes:", entry.path().filename().c_str(), bytes.size());
        for (unsigned char c : bytes) std::printf(" %02X", c);
        std::puts("");
    }

    client.Close();  // the service's task ends with its connection
    waitFor(task->Ended());
    client = nullptr;
    task = nullptr;
    for (int i = 0; i < 500 && canUnloadNow() != S_OK; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::printf("\nconnection closed; DllCanUnloadNow -> %d (S_OK)\n", canUnloadNow());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <libQuorvendaleStorageClient.so>\n", argv[0]);
        return 2;
    }
    // Never unloaded: the runtime's pool threads may still be leaving its code.
    void* library = ::dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", ::dlerror());
        return 1;
    }
    std::string pattern = (std::filesystem::temp_directory_path() / "qv-demo-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    const std::filesystem::path dataFolder = pattern;
    int status = 0;
    try {
        showRemoteClient(library);
        showStorageService(library, dataFolder);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "demo failed: %s\n", error.what());
        status = 1;
    } catch (const HResultError& error) {
        std::fprintf(stderr, "demo failed: 0x%08X %s\n", static_cast<unsigned>(error.code()),
                     utf16ToUtf8(error.message()).c_str());
        status = 1;
    }
    std::filesystem::remove_all(dataFolder);
    return status;
}

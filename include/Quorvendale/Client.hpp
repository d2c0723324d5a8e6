// A C++17 layer over the library's binary interface, for programs that load
// libQuorvendaleStorageClient.so.1: owning interface pointers, loading by name,
// and Library and Storage classes that turn a failing result code into an
// exception carrying the code and the library's own text.
//
// Header-only. It uses nothing but the C headers beside it and the system's
// dynamic loader (link with -ldl where the C library does not carry dlopen).
// The C headers stay the contract; this one is a convenience over them, and a
// program may mix both: get() hands out the raw interface pointer.
//
//   Quorvendale::Client::Library library;  // the installed library, by its SONAME
//   if (std::optional<Quorvendale::Client::Storage> store = library.local()) {
//       store->write("settings", "theme", "dark");
//       std::string theme = store->read("settings", "theme");
//   }
#ifndef QUORVENDALE_CLIENT_HPP
#define QUORVENDALE_CLIENT_HPP

#include <dlfcn.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "ILibrary.h"

namespace Quorvendale::Client {

// The library's SONAME: what Library loads when given no path. Its number
// changes only when the binary interface does.
inline constexpr const char* librarySoname = "libQuorvendaleStorageClient.so.1";

using InterfaceContract::ResultCode;
using StorageClient::ILibrary;
using StorageClient::IStorage;

// An owning pointer to a counted interface, one whose table begins with
// queryInterface, addRef and release (ILibrary, IStorage, IInterface). It holds
// one reference and gives it back with release when it lets go.
//
// Where the pointer comes from decides how it is taken:
//   Ptr<I>::adopt(p)  takes over the reference p already carries, as a pointer
//                     that a factory stored in an out-slot does: no addRef now,
//                     one release later.
//   Ptr<I>::share(p)  takes a reference of its own: addRef now, release later.
//   put()             releases what the Ptr holds and returns the address of
//                     its (now null) pointer, for a factory's out-slot to fill;
//                     whatever the factory stores there is adopted.
//
// A copy takes one addRef; a move hands the reference over without touching
// the count. Thread safety: as for std::shared_ptr, separate Ptr objects may be
// used on separate threads even when they share one object (its counts are
// atomic), but one Ptr must not be changed while another thread uses it.
template <class I>
class Ptr {
public:
    Ptr() noexcept = default;
    Ptr(std::nullptr_t) noexcept {}

    [[nodiscard]] static Ptr adopt(I* object) noexcept {
        Ptr owner;
        owner.object_ = object;
        return owner;
    }
    [[nodiscard]] static Ptr share(I* object) noexcept {
        if (object != nullptr) object->table->addRef(object);
        return adopt(object);
    }

    Ptr(const Ptr& other) noexcept : Ptr(share(other.object_)) {}
    Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    Ptr& operator=(const Ptr& other) noexcept {
        Ptr(other).swap(*this);
        return *this;
    }
    Ptr& operator=(Ptr&& other) noexcept {
        Ptr(std::move(other)).swap(*this);
        return *this;
    }
    ~Ptr() { reset(); }

    // Releases the held reference, if any; the Ptr is then empty.
    void reset() noexcept {
        if (I* object = std::exchange(object_, nullptr)) object->table->release(object);
    }

    [[nodiscard]] I** put() noexcept {
        reset();
        return &object_;
    }

    // Gives up ownership without a release: the caller now owns the reference.
    [[nodiscard]] I* detach() noexcept { return std::exchange(object_, nullptr); }

    I* get() const noexcept { return object_; }
    I* operator->() const noexcept { return object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }

    void swap(Ptr& other) noexcept { std::swap(object_, other.object_); }

private:
    I* object_ = nullptr;
};

// A failed operation: the result code the library returned and, as what(),
// the failure's text, read through IExceptionData on the failing thread right
// after the call (the library keeps one text per thread, replaced by the next
// failure). Where the library gave no text, what() names the code instead.
//
// Failures found on this side of the boundary are Errors too: an argument
// longer than the interface's 32-bit lengths carries QV_E_INVALIDARG.
class Error : public std::runtime_error {
public:
    Error(ResultCode code, const std::string& message)
        : std::runtime_error(message.empty() ? describe(code) : message), code_(code) {}

    ResultCode code() const noexcept { return code_; }

private:
    static std::string describe(ResultCode code) {
        char text[64];
        std::snprintf(text, sizeof text, "failed with result 0x%08X and no message",
                      static_cast<unsigned>(code));
        return text;
    }

    ResultCode code_;
};

namespace Detail {

// An array-out that fills a std::string. The callback runs inside the
// library's frames, where no exception may pass: a failed allocation hands the
// library a null buffer (it then copies nothing) and is raised here once the
// call has returned.
class StringOut {
public:
    static void* QV_CALL allocate(void* context, std::uint32_t length) noexcept {
        auto* self = static_cast<StringOut*>(context);
        try {
            self->bytes_.resize(length);
            return self->bytes_.data();
        } catch (...) {
            self->exhausted_ = true;
            return nullptr;
        }
    }

    bool exhausted() const noexcept { return exhausted_; }

    std::string take() {
        if (exhausted_) throw std::bad_alloc();
        return std::move(bytes_);
    }

private:
    std::string bytes_;
    bool exhausted_ = false;
};

// An array-in argument as the interface carries it.
struct ArrayIn {
    const char* bytes;
    std::uint32_t length;
};

// `what` names the argument in the error. A length beyond 32 bits is refused,
// never cut. An empty view may have no data pointer; the callee still gets one.
inline ArrayIn arrayIn(std::string_view view, const char* what) {
    if (static_cast<std::uint64_t>(view.size()) > std::numeric_limits<std::uint32_t>::max()) {
        throw Error(
            QV_E_INVALIDARG,
            std::string(what) + " is longer than the interface's limit of 4294967295 bytes");
    }
    return {view.data() != nullptr ? view.data() : "", static_cast<std::uint32_t>(view.size())};
}

// The calling thread's failure text, through IExceptionData of the object
// whose call failed; empty if there is none or it cannot be copied.
template <class I>
std::string failureText(I* object) noexcept {
    void* found = nullptr;
    if (object->table->queryInterface(object, &InterfaceContract::IID_IExceptionData, &found) !=
            QV_S_OK ||
        found == nullptr) {
        return {};
    }
    auto* data = static_cast<InterfaceContract::IExceptionData*>(found);
    StringOut text;
    if (data->table->getMessage(data, &text, &StringOut::allocate) != QV_S_OK || text.exhausted()) {
        return {};
    }
    return text.take();
}

// Throws the Error of a failing code, with the text of the same thread.
template <class I>
void check(ResultCode code, I* object) {
    if (code != QV_S_OK) throw Error(code, failureText(object));
}

}  // namespace Detail

// One storage client: a store reached through IStorage, whatever lies behind
// it (the local storage service, or a storage server over TCP).
//
// Groups, keys and values are bytes of any kind, passed and returned with
// explicit lengths. The local storage service keeps them as UTF-8 text: a value
// is cut at its first zero byte on the way, and a line feed is stored as
// CR LF on disk (and read back as a line feed).
//
// Failure: every operation throws Error with the client's code and text; a
// group, key or value longer than 4294967295 bytes is an Error as well
// (QV_E_INVALIDARG), before anything is sent.
//
// Ownership and thread safety: a Storage holds one reference to its client,
// and copies share that client. The library's clients accept calls from
// several threads at once; each failure's text is read on the thread whose
// call failed, so threads never see each other's messages. A moved-from
// Storage may only be destroyed or assigned to.
class Storage {
public:
    // Takes over a client already obtained through the C interface.
    // Throws std::invalid_argument for a null pointer.
    explicit Storage(Ptr<IStorage> client) : client_(std::move(client)) {
        if (!client_) throw std::invalid_argument("Storage needs a client, not a null pointer");
    }

    // The value stored under key in group.
    std::string read(std::string_view group, std::string_view key) const {
        const Detail::ArrayIn g = Detail::arrayIn(group, "the group");
        const Detail::ArrayIn k = Detail::arrayIn(key, "the key");
        Detail::StringOut value;
        Detail::check(client_->table->read(client_.get(), g.bytes, g.length, k.bytes, k.length,
                                           &value, &Detail::StringOut::allocate),
                      client_.get());
        return value.take();
    }

    // Stores data under key in group, replacing what was there.
    void write(std::string_view group, std::string_view key, std::string_view data) const {
        const Detail::ArrayIn g = Detail::arrayIn(group, "the group");
        const Detail::ArrayIn k = Detail::arrayIn(key, "the key");
        const Detail::ArrayIn d = Detail::arrayIn(data, "the data");
        Detail::check(client_->table->write(client_.get(), g.bytes, g.length, k.bytes, k.length,
                                            d.bytes, d.length),
                      client_.get());
    }

    // Deletes the value stored under key in group.
    void remove(std::string_view group, std::string_view key) const {
        const Detail::ArrayIn g = Detail::arrayIn(group, "the group");
        const Detail::ArrayIn k = Detail::arrayIn(key, "the key");
        Detail::check(client_->table->remove(client_.get(), g.bytes, g.length, k.bytes, k.length),
                      client_.get());
    }

    // The key after key in group, in the store's own order: the first key for
    // an empty key, an empty string after the last one. A walk of a group
    // starts from the empty key and stops at the empty result.
    std::string next(std::string_view group, std::string_view key) const {
        const Detail::ArrayIn g = Detail::arrayIn(group, "the group");
        const Detail::ArrayIn k = Detail::arrayIn(key, "the key");
        Detail::StringOut following;
        Detail::check(client_->table->next(client_.get(), g.bytes, g.length, k.bytes, k.length,
                                           &following, &Detail::StringOut::allocate),
                      client_.get());
        return following.take();
    }

    // Whether the store behind the client is there and serving. A client may
    // answer false or fail with an Error when it cannot reach the store: the
    // local client answers false, the remote one fails.
    bool exists() const {
        std::uint32_t answer = QV_FALSE;
        Detail::check(client_->table->exists(client_.get(), &answer), client_.get());
        return answer != QV_FALSE;  // true is all bits set; any non-zero word counts
    }

    const Ptr<IStorage>& ptr() const noexcept { return client_; }

private:
    Ptr<IStorage> client_;
};

// The loaded library and one ILibrary object of it, from which storage clients
// are made.
//
// Loading: the constructor dlopens the file at `path` (resolved by the dynamic
// loader's rules, so give a path with a slash to avoid its search) and calls
// getLibraryInterface. Without a path it loads librarySoname, which the loader
// finds where the system's libraries are (/usr/lib/<multiarch>/ for the
// Debian packages; LD_LIBRARY_PATH or the program's RUNPATH for another prefix). If the file cannot be loaded or lacks
// getLibraryInterface, it throws std::runtime_error naming the path and the
// loader's reason; if getLibraryInterface fails, an Error.
//
// The module is never unloaded, not even when the last Library goes: threads
// of the library and of its runtime may still be leaving its code after the
// last object is released, and the library's per-thread message slot pins the
// module until each thread that failed a call has ended anyway. Loading the
// same path again is cheap: the loader hands back the module already loaded.
//
// Ownership and thread safety: a Library holds one reference to its ILibrary
// object, and copies share it. The factories keep no state and may be called
// from several threads at once. The clients they make are independent objects
// that stay usable after the Library is gone.
class Library {
public:
    Library() : Library(librarySoname) {}

    explicit Library(const std::string& path) {
        void* module = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (module == nullptr) throw loadError(path);
        void* entry = ::dlsym(module, "getLibraryInterface");
        if (entry == nullptr) throw loadError(path);
        const auto getLibraryInterface =
            reinterpret_cast<StorageClient::GetLibraryInterfaceFunction>(entry);
        const ResultCode code = getLibraryInterface(nullptr, library_.put());
        if (code != QV_S_OK) throw Error(code, "getLibraryInterface of " + path + " failed");
        if (!library_) throw Error(QV_E_POINTER, "getLibraryInterface of " + path + " gave none");
    }

    // A client of the storage server at address:port. It opens no connection
    // here: the address is first used, and refused if it must be, by the
    // client's operations. The library built here accepts no address text at
    // all, so every operation of its remote clients fails with the
    // address parser's text ("hostname is invalid or requires DNS lookup, ...").
    Storage remote(std::string_view address, std::uint32_t port) const {
        const Detail::ArrayIn a = Detail::arrayIn(address, "the address");
        Ptr<IStorage> client;
        Detail::check(library_->table->createRemoteStorageClient(library_.get(), a.bytes, a.length,
                                                                 port, client.put()),
                      library_.get());
        return Storage(std::move(client));
    }

    // A client of the local storage service, connected before it is returned.
    // Empty when the service cannot be reached: the library has then written
    // its own two lines about it to standard output, and the caller decides
    // what more to say. A failing code is an Error, as everywhere else.
    std::optional<Storage> local() const {
        Ptr<IStorage> client;
        Detail::check(library_->table->createUwpLocalStorageClient(library_.get(), client.put()),
                      library_.get());
        if (!client) return std::nullopt;
        return Storage(std::move(client));
    }

    const Ptr<ILibrary>& ptr() const noexcept { return library_; }

private:
    static std::runtime_error loadError(const std::string& path) {
        const char* reason = ::dlerror();
        std::runtime_error error("cannot load " + path + ": " +
                                 (reason != nullptr ? reason : "unknown reason"));
        // The loader keeps the reason until it is asked once more; asking now
        // lets it free the thread's error record at once instead of at the
        // thread's end.
        ::dlerror();
        return error;
    }

    Ptr<ILibrary> library_;
};

}  // namespace Quorvendale::Client

#endif  // QUORVENDALE_CLIENT_HPP

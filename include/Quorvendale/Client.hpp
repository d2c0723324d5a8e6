// A C++17 layer over the library's binary interface, for programs that load
// libQuorvendaleStorageClient.so.1: owning interface pointers, loading by name,
// and Library and Storage classes that turn every failure into a Client::Error
// carrying the code and the library's own text, of a subclass a caller can
// catch on its own: NotFound, Unreachable, Refused (and TooLarge, a Refused).
//
// Header-only. It uses nothing but the C headers beside it and the system's
// dynamic loader (link with -ldl where the C library does not carry dlopen).
// The C headers stay the contract; this one is a convenience over them, and a
// program may mix both: get() hands out the raw interface pointer.
//
//   try {
//       Quorvendale::Client::Storage store = Quorvendale::Client::Library().local();
//       store.write("settings", "theme", "dark");
//       std::string theme = store.read("settings", "theme");
//   } catch (const Quorvendale::Client::Error& error) {
//       std::cerr << error.what() << '\n';  // one line for Unreachable and Refused
//   }
//
// The local client's limits (Limits.h): a value of at most 32505856 bytes
// (31 MiB), a group or key of at most 255 bytes. Larger input is TooLarge,
// thrown here before anything is sent.
#ifndef QUORVENDALE_CLIENT_HPP
#define QUORVENDALE_CLIENT_HPP

#if !defined(__cplusplus) || __cplusplus < 201703L
#error "Quorvendale/Client.hpp needs C++17 or later: compile with -std=c++17"
#endif

#include <dlfcn.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "ILibrary.h"
#include "Limits.h"

namespace Quorvendale::Client {

// The library's SONAME: what Library loads when given no path. Its number
// changes only when the binary interface does.
inline constexpr const char* librarySoname = "libQuorvendaleStorageClient.so.1";

using InterfaceContract::ResultCode;
using StorageClient::ILibrary;
using StorageClient::IStorage;

// The largest value and the longest group or key the local client carries.
inline constexpr std::size_t largestLocalValue = QV_LOCAL_MAX_VALUE_BYTES;
inline constexpr std::size_t longestLocalName = QV_LOCAL_MAX_NAME_BYTES;

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

// A failure: the result code the library returned and, as what(), the
// failure's text, read through IExceptionData on the failing thread right after
// the call (the library keeps one text per thread, replaced by the next
// failure). Where the library gave no text, what() names the code instead.
// message() is the store's own text: the last field of the library's error
// report ("Exception:\n\tfile: ...\n\tmessage: <text>"), or what() whole.
//
// Every failure of this header is an Error: loading the library, connecting,
// and input refused on this side of the boundary. The subclasses tell apart
// what a caller may want to act on; any other Error is a failure of the store
// or of a service that answered (a connection cut mid-request among them).
class Error : public std::runtime_error {
public:
    Error(ResultCode code, const std::string& text)
        : std::runtime_error(text.empty() ? describe(code) : text), code_(code) {}

    ResultCode code() const noexcept { return code_; }

    std::string message() const {
        constexpr std::string_view field = "\n\tmessage: ";
        const std::string_view text = what();
        const std::size_t at = text.rfind(field);
        if (text.substr(0, 11) != "Exception:\n" || at == std::string_view::npos)
            return std::string(text);
        return std::string(text.substr(at + field.size()));
    }

private:
    static std::string describe(ResultCode code) {
        char text[64];
        std::snprintf(text, sizeof text, "failed with result 0x%08X and no message",
                      static_cast<unsigned>(code));
        return text;
    }

    ResultCode code_;
};

// The key does not exist: read of a missing key, or next after a key that is
// not in the group.
class NotFound : public Error {
public:
    using Error::Error;
};

// The store could not be reached: no session bus, the service not installed
// or failed to start, the connection refused; for a remote client, the server
// not reached. status() is the connection's status name (AppNotInstalled,
// AppUnavailable, AppServiceUnavailable, ...) where the local client gave one;
// report() what the library wrote about it, if anything.
class Unreachable : public Error {
public:
    Unreachable(ResultCode code, const std::string& text, std::string status,
                std::string report = {})
        : Error(code, text), status_(std::move(status)), report_(std::move(report)) {}

    const std::string& status() const noexcept { return status_; }
    const std::string& report() const noexcept { return report_; }

private:
    std::string status_;
    std::string report_;
};

// Input the store cannot hold as given, refused before anything is sent: for
// the local service a group or key that is not one file name, a value that is
// not UTF-8 text or holds NUL or 0x1A (the service would store it changed).
// The code is QV_E_INVALIDARG where this header refused, the library's own
// where the library did.
class Refused : public Error {
public:
    explicit Refused(const std::string& text, ResultCode code = QV_E_INVALIDARG)
        : Error(code, text) {}
};

// A value, group or key larger than the local client carries (largestLocalValue,
// longestLocalName), or than the interface's 32-bit lengths.
class TooLarge : public Refused {
public:
    using Refused::Refused;
};

// Which client a Storage holds, for what it checks and how it reads failures.
enum class ClientKind {
    local,   // the local service: input checked before sending
    remote,  // a storage server: bytes as they are; a failure not the store's own is Unreachable
    other,   // a client handed in through the C interface: nothing checked
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
        throw TooLarge(std::string(what) +
                       " is longer than the interface's limit of 4294967295 bytes");
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

// The store's own texts for an entry that is not there.
inline bool isMissingKey(std::string_view message) {
    constexpr std::string_view missingFile = "Read file error: file ", notExist = " is not exist";
    return message == "Invalid key" ||
           (message.substr(0, missingFile.size()) == missingFile &&
            message.size() >= notExist.size() &&
            message.substr(message.size() - notExist.size()) == notExist);
}

inline bool startsWithAny(std::string_view text, std::initializer_list<std::string_view> starts) {
    for (const std::string_view start : starts) {
        if (text.substr(0, start.size()) == start) return true;
    }
    return false;
}

// Texts the store itself answers with: a remote server that gave one was
// reached.
inline bool isStoreMessage(std::string_view message) {
    return startsWithAny(message, {"Read file error: ", "Write file error", "Remove file error",
                                   "Invalid key", "Failed to open folder: ", "Unknown exception",
                                   "Unknown command"});
}

// The local client's texts for a connection it could not make: the status
// name of a failed reconnect, or a send that found no connection.
inline bool isConnectionStatus(std::string_view message) {
    return startsWithAny(message, {"UwpLocalStorageClient::sendMessage: no connection"}) ||
           message == "AppNotInstalled" || message == "AppUnavailable" ||
           message == "AppServiceUnavailable" || message == "Unknown" ||
           message == "NotAuthorized" || message == "UnknownAppServiceConnectionStatus";
}

// The library's own refusals of what the local client does not carry.
inline bool isTooLarge(std::string_view message) {
    return startsWithAny(message, {"The value is too large: ", "The group is too long: ",
                                   "The key is too long: "});
}

// What a failed call asked for: only a read or a next can miss their key (a
// write of the alias "default" fails with the same text when the alias names
// no key, which is a failure of the store, not a missing key).
enum class Asked { key, other };

// The one place where a failing call becomes an exception of its kind.
[[noreturn]] inline void raise(ResultCode code, const std::string& text, ClientKind kind,
                               Asked asked = Asked::key) {
    const Error error(code, text);
    const std::string message = error.message();
    if (asked == Asked::key && isMissingKey(message)) throw NotFound(code, text);
    if (isTooLarge(message)) throw TooLarge(text, code);
    if (kind == ClientKind::remote ? !isStoreMessage(message) : isConnectionStatus(message)) {
        throw Unreachable(code, text, kind == ClientKind::remote ? "" : message);
    }
    throw error;
}

// Throws the Error of a failing code, with the text of the same thread.
template <class I>
void check(ResultCode code, I* object, ClientKind kind = ClientKind::other,
           Asked asked = Asked::other) {
    if (code != QV_S_OK) raise(code, failureText(object), kind, asked);
}

inline std::string byteAt(std::string_view text, std::size_t offset) {
    char described[48];
    std::snprintf(described, sizeof described, "byte 0x%02X at offset %zu",
                  static_cast<unsigned>(static_cast<unsigned char>(text[offset])), offset);
    return described;
}

// The offset of the first byte that does not belong to well-formed UTF-8 (no
// overlong forms, no surrogates, nothing above U+10FFFF), the way the
// service's conversion sees it; none for valid text.
inline std::optional<std::size_t> firstInvalidUtf8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        std::size_t length;
        unsigned char low = 0x80, high = 0xBF;  // the range of the second byte
        if (lead < 0x80) {
            ++i;
            continue;
        } else if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            if (lead == 0xE0) low = 0xA0;   // overlong
            if (lead == 0xED) high = 0x9F;  // surrogates
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            if (lead == 0xF0) low = 0x90;   // overlong
            if (lead == 0xF4) high = 0x8F;  // above U+10FFFF
        } else {
            return i;
        }
        for (std::size_t k = 1; k < length; ++k) {
            if (i + k >= text.size()) return i;
            const auto byte = static_cast<unsigned char>(text[i + k]);
            if (byte < (k == 1 ? low : 0x80) || byte > (k == 1 ? high : 0xBF)) return i;
        }
        i += length;
    }
    return std::nullopt;
}

inline void checkText(std::string_view what, std::string_view text) {
    if (const std::size_t zero = text.find('\0'); zero != std::string_view::npos) {
        throw Refused(std::string(what) + " holds " + byteAt(text, zero) +
                      " (NUL): the service would cut it there");
    }
    if (const auto invalid = firstInvalidUtf8(text)) {
        throw Refused(std::string(what) + " is not valid UTF-8 at " + byteAt(text, *invalid) +
                      ": the service would store U+FFFD instead");
    }
}

}  // namespace Detail

// Throws TooLarge or Refused unless `name` can be a group or key of the local
// service: one file name (not empty, not "." or "..", no '/', at most
// longestLocalName bytes) of valid UTF-8 without NUL. `what` is "group" or
// "key"; the message is one line naming the rule or the byte.
inline void checkLocalName(std::string_view what, std::string_view name) {
    const std::string the = "the " + std::string(what);
    if (name.size() > longestLocalName) {
        throw TooLarge("The " + std::string(what) + " is too long: " +
                       std::to_string(name.size()) +
                       " bytes, the longest the local client carries is " +
                       std::to_string(longestLocalName) + " bytes");
    }
    const auto refuse = [&](const std::string& rule) {
        throw Refused(the + " " + rule + ": it must be one file name in the store");
    };
    if (name.empty()) refuse("is empty");
    if (name == "." || name == "..") refuse("is '" + std::string(name) + "'");
    if (const std::size_t slash = name.find('/'); slash != std::string_view::npos) {
        refuse("holds '/' at offset " + std::to_string(slash));
    }
    Detail::checkText(the, name);
}

// Throws TooLarge or Refused unless `value` comes back from the local service
// as it went in: at most largestLocalValue bytes of valid UTF-8 with no NUL and
// no byte 0x1A (which ends a value read back).
inline void checkLocalValue(std::string_view value) {
    if (value.size() > largestLocalValue) {
        throw TooLarge("The value is too large: " + std::to_string(value.size()) +
                       " bytes, the largest the local client carries is " +
                       std::to_string(largestLocalValue) + " bytes");
    }
    Detail::checkText("the value", value);
    if (const std::size_t end = value.find('\x1A'); end != std::string_view::npos) {
        throw Refused("the value holds " + Detail::byteAt(value, end) +
                      " (end of text): it would be read back cut there");
    }
}


// One storage client: a store reached through IStorage, whatever lies behind
// it (the local storage service, or a storage server over TCP).
//
// Groups, keys and values are bytes of any kind, passed and returned with
// explicit lengths. The local storage service keeps them as UTF-8 text: a value
// is cut at its first zero byte on the way, and a line feed is stored as
// CR LF on disk (and read back as a line feed).
//
// Failure: every operation throws an Error of its kind: NotFound for a
// missing key, Unreachable when the store cannot be reached, Refused (before
// anything is sent) for input a local client's store cannot hold, TooLarge for
// input beyond its limits or beyond the interface's 32-bit lengths.
//
// Ownership and thread safety: a Storage holds one reference to its client,
// and copies share that client. The library's clients accept calls from
// several threads at once; each failure's text is read on the thread whose
// call failed, so threads never see each other's messages. A moved-from
// Storage may only be destroyed or assigned to.
class Storage {
public:
    // Takes over a client already obtained through the C interface; `kind`
    // says what it is (Library's factories give local and remote). Throws
    // Error (QV_E_POINTER) for a null pointer.
    explicit Storage(Ptr<IStorage> client, ClientKind kind = ClientKind::other)
        : client_(std::move(client)), kind_(kind) {
        if (!client_) throw Error(QV_E_POINTER, "Storage needs a client, not a null pointer");
    }

    // The value stored under key in group.
    std::string read(std::string_view group, std::string_view key) const {
        checkNames(group, key);
        const Detail::ArrayIn g = Detail::arrayIn(group, "the group");
        const Detail::ArrayIn k = Detail::arrayIn(key, "the key");
        Detail::StringOut value;
        Detail::check(client_->table->read(client_.get(), g.bytes, g.length, k.bytes, k.length,
                                           &value, &Detail::StringOut::allocate),
                      client_.get(), kind_, Detail::Asked::key);
        return value.take();
    }

    // Stores data under key in group, replacing what was there.
    void write(std::string_view group, std::string_view key, std::string_view data) const {
        checkNames(group, key);
        if (kind_ == ClientKind::local) checkLocalValue(data);
        const Detail::ArrayIn g = Detail::arrayIn(group, "the group");
        const Detail::ArrayIn k = Detail::arrayIn(key, "the key");
        const Detail::ArrayIn d = Detail::arrayIn(data, "the data");
        Detail::check(client_->table->write(client_.get(), g.bytes, g.length, k.bytes, k.length,
                                            d.bytes, d.length),
                      client_.get(), kind_);
    }

    // Deletes the value stored under key in group; a missing key is no failure.
    void remove(std::string_view group, std::string_view key) const {
        checkNames(group, key);
        const Detail::ArrayIn g = Detail::arrayIn(group, "the group");
        const Detail::ArrayIn k = Detail::arrayIn(key, "the key");
        Detail::check(client_->table->remove(client_.get(), g.bytes, g.length, k.bytes, k.length),
                      client_.get(), kind_);
    }

    // The key after key in group, in the store's own order: the first key for
    // an empty key, an empty string after the last one. A walk of a group
    // starts from the empty key and stops at the empty result.
    std::string next(std::string_view group, std::string_view key) const {
        checkNames(group, key.empty() ? std::string_view("-") : key);
        const Detail::ArrayIn g = Detail::arrayIn(group, "the group");
        const Detail::ArrayIn k = Detail::arrayIn(key, "the key");
        Detail::StringOut following;
        Detail::check(client_->table->next(client_.get(), g.bytes, g.length, k.bytes, k.length,
                                           &following, &Detail::StringOut::allocate),
                      client_.get(), kind_, Detail::Asked::key);
        return following.take();
    }

    // Whether the store behind the client is there and serving. A client may
    // answer false or fail with an Error when it cannot reach the store: the
    // local client answers false, the remote one fails.
    bool exists() const {
        std::uint32_t answer = QV_FALSE;
        Detail::check(client_->table->exists(client_.get(), &answer), client_.get(), kind_);
        return answer != QV_FALSE;  // true is all bits set; any non-zero word counts
    }

    const Ptr<IStorage>& ptr() const noexcept { return client_; }
    ClientKind kind() const noexcept { return kind_; }

private:
    void checkNames(std::string_view group, std::string_view key) const {
        if (kind_ != ClientKind::local) return;
        checkLocalName("group", group);
        checkLocalName("key", key);
    }

    Ptr<IStorage> client_;
    ClientKind kind_;
};

namespace Detail {

// The library reports a local client that cannot connect on standard output,
// which belongs to the program. While the local client connects, descriptor 1
// is a temporary file; afterwards the library's lines are taken out of it and
// anything else written there meanwhile (by another thread) is passed on to
// the real standard output. Connecting is serialised across the process, since
// descriptor 1 is one for all threads.
class LibraryOutputAside {
public:
    LibraryOutputAside() : lock_(mutex()) {
        std::fflush(stdout);
        file_ = std::tmpfile();
        original_ = file_ != nullptr ? ::dup(STDOUT_FILENO) : -1;
        if (original_ < 0 || ::dup2(::fileno(file_), STDOUT_FILENO) < 0) restore();
    }
    LibraryOutputAside(const LibraryOutputAside&) = delete;
    LibraryOutputAside& operator=(const LibraryOutputAside&) = delete;
    ~LibraryOutputAside() { restore(); }

    // Puts standard output back and returns what the library wrote about a
    // failed connection: "Error: UwpClient connection failed" and its report.
    std::string takeLibraryLines() {
        if (original_ < 0) return {};
        std::fflush(stdout);
        std::string text;
        std::rewind(file_);
        char chunk[4096];
        for (std::size_t count; (count = std::fread(chunk, 1, sizeof chunk, file_)) > 0;)
            text.append(chunk, count);
        restore();
        const std::size_t begin = text.find("Error: UwpClient connection failed");
        std::size_t end = begin == std::string::npos ? begin : text.find('\n', begin);
        if (end != std::string::npos && text.compare(end + 1, 11, "Exception:\n") == 0) {
            end = text.find("\tmessage: ", end);
            if (end != std::string::npos) end = text.find('\n', end);
        }
        if (end != std::string::npos) ++end;
        const std::string lines = begin == std::string::npos ? "" : text.substr(begin, end - begin);
        if (begin != std::string::npos) text.erase(begin, end - begin);
        passOn(text);
        return lines;
    }

private:
    static std::mutex& mutex() {
        static std::mutex connecting;
        return connecting;
    }

    static void passOn(std::string_view text) {
        while (!text.empty()) {
            const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
            if (written <= 0) return;
            text.remove_prefix(static_cast<std::size_t>(written));
        }
    }

    void restore() noexcept {
        if (original_ >= 0) {
            std::fflush(stdout);
            ::dup2(original_, STDOUT_FILENO);
            ::close(original_);
            original_ = -1;
        }
        if (file_ != nullptr) std::fclose(std::exchange(file_, nullptr));
    }

    std::lock_guard<std::mutex> lock_;
    std::FILE* file_ = nullptr;
    int original_ = -1;
};

// The status a failed connection's report names, its last line.
inline std::string connectionStatus(const std::string& libraryLines) {
    std::string status = libraryLines;
    while (!status.empty() && status.back() == '\n') status.pop_back();
    status = status.substr(status.rfind('\n') + 1);
    constexpr std::string_view field = "\tmessage: ";
    if (status.compare(0, field.size(), field) == 0) return status.substr(field.size());
    return status == "Error: UwpClient connection failed (unknown exception)" ? "" : status;
}

// What a connection status means, for a person.
inline std::string explainStatus(const std::string& status) {
    if (status == "AppNotInstalled") return "it is not installed: no D-Bus service file provides it";
    if (status == "AppServiceUnavailable") return "its host does not offer the storage app service";
    if (status == "AppUnavailable") return "no session bus answered, or the service failed to start";
    return "the connection failed";
}

}  // namespace Detail

// The loaded library and one ILibrary object of it, from which storage clients
// are made.
//
// Loading: the constructor dlopens the file at `path` (resolved by the dynamic
// loader's rules, so give a path with a slash to avoid its search) and calls
// getLibraryInterface. Without a path it loads librarySoname, which the loader
// finds where the system's libraries are (/usr/lib/<multiarch>/ for the
// Debian packages; LD_LIBRARY_PATH or the program's RUNPATH for another
// prefix). If the file cannot be loaded or lacks getLibraryInterface, it
// throws Error (QV_E_FAIL) naming the path and the loader's reason; if
// getLibraryInterface fails, an Error with its code.
//
// The module is never unloaded, not even when the last Library goes: threads
// of the library and of its runtime may still be leaving its code after the
// last object is released, and the library's per-thread message slot pins the
// module until each thread that failed a call has ended anyway. Loading the
// same path again is cheap: the loader hands back the module already loaded.
//
// Ownership and thread safety: a Library holds one reference to its ILibrary
// object, and copies share it. The factories may be called from several
// threads at once (local() connects one thread at a time). The clients they
// make are independent objects that stay usable after the Library is gone.
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
    // all, so every operation of its remote clients fails as Unreachable with
    // the address parser's text ("hostname is invalid or requires DNS lookup, ...").
    Storage remote(std::string_view address, std::uint32_t port) const {
        const Detail::ArrayIn a = Detail::arrayIn(address, "the address");
        Ptr<IStorage> client;
        Detail::check(library_->table->createRemoteStorageClient(library_.get(), a.bytes, a.length,
                                                                 port, client.put()),
                      library_.get());
        return Storage(std::move(client), ClientKind::remote);
    }

    // A client of the local storage service, connected before it is returned.
    // When the service cannot be reached it throws Unreachable, one line
    // naming the connection's status (status()); the library's own report of
    // it is kept off standard output and given by report().
    Storage local() const {
        Ptr<IStorage> client;
        Detail::LibraryOutputAside output;
        const ResultCode code =
            library_->table->createUwpLocalStorageClient(library_.get(), client.put());
        const std::string lines = output.takeLibraryLines();
        Detail::check(code, library_.get());
        if (!client) {
            const std::string status = Detail::connectionStatus(lines);
            throw Unreachable(QV_E_FAIL,
                              "the storage service cannot be reached: " +
                                  Detail::explainStatus(status) +
                                  (status.empty() ? "" : " (" + status + ")"),
                              status, lines);
        }
        return Storage(std::move(client), ClientKind::local);
    }

    const Ptr<ILibrary>& ptr() const noexcept { return library_; }

private:
    static Error loadError(const std::string& path) {
        const char* reason = ::dlerror();
        Error error(QV_E_FAIL, "cannot load " + path + ": " +
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

#include "UwpLocalStorageClient.h"

#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "InterfaceContract/ErrorReport.h"
#include "Quorvendale/Limits.h"
#include "Platform/Foundation/Apartment.h"
#include "Platform/Text/TextConversion.h"
#include "StorageClient/LocalStorageClient.h"
#include "StorageClient/LogLine.h"

namespace Quorvendale::StorageClient {

using namespace Platform;

namespace {

const hstring& keyOf(UwpLocalStorageClient::RequestField field) {
    static const hstring keys[] = {u"command", u"group", u"key", u"data"};
    return keys[static_cast<int>(field)];
}

// A platform message handed to narrow text as it stands: its UTF-16 bytes
// read up to the first zero byte, so that plain text keeps only its first
// character. Callers have always seen it so; it is kept on purpose.
std::string narrowAsItStands(const hstring& message) {
    return std::string(reinterpret_cast<const char*>(message.c_str()));
}

// Blocks until the operation has ended, without a time limit, and gives its
// result: the platform's cancellation error for a cancelled operation, its
// error for a failed one.
template <class T>
T waitFor(const IAsyncOperation<T>& operation) {
    operation.wait();
    if (operation.Status() == AsyncStatus::Canceled) throw HResultError(ERROR_CANCELLED);
    return operation.GetResults();
}

// The body of a worker thread: the task in the multithreaded apartment, and
// whatever it throws (a failing apartment included) as a plain text.
std::optional<std::runtime_error> runInApartment(const std::function<void()>& task) {
    try {
        const HRESULT joined = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        if (joined < 0) throw HResultError(joined);
        struct Leave {
            ~Leave() { CoUninitialize(); }
        } leave;
        task();
        return std::nullopt;
    } catch (const std::exception& error) {
        return std::runtime_error(error.what());
    } catch (const HResultError& error) {
        return std::runtime_error(narrowAsItStands(error.message()));
    } catch (...) {
        return std::runtime_error("executeWinRT: unknown error");
    }
}

// One attempt: a worker thread of its own, joined before this returns.
std::optional<std::runtime_error> attempt(const std::function<void()>& task) {
    std::optional<std::runtime_error> failure;
    std::thread worker([&] { failure = runInApartment(task); });
    worker.join();
    return failure;
}

// Input larger than the local path carries is refused before anything is
// sent: it could never arrive, and a reconnect and a retry would only hide
// why. The texts are the ones the limits are documented with.
void checkName(const char* what, const std::string& name) {
    if (name.size() <= QV_LOCAL_MAX_NAME_BYTES) return;
    throw std::runtime_error(std::string("The ") + what + " is too long: " +
                             std::to_string(name.size()) +
                             " bytes, the longest the local client carries is " +
                             std::to_string(QV_LOCAL_MAX_NAME_BYTES) + " bytes");
}

void checkEntry(const std::string& group, const std::string& key) {
    checkName("group", group);
    checkName("key", key);
}

void checkValue(const std::string& value) {
    if (value.size() <= QV_LOCAL_MAX_VALUE_BYTES) return;
    throw std::runtime_error("The value is too large: " + std::to_string(value.size()) +
                             " bytes, the largest the local client carries is " +
                             std::to_string(QV_LOCAL_MAX_VALUE_BYTES) + " bytes");
}

}  // namespace

// How the connection's events reach the client: through a pointer that the
// client clears before it goes. The runtime raises the event on its pool, and
// a reconnect waits for an open that needs a pool thread too, so a reconnect
// runs on a thread of its own: however many clients lose their connection at
// once, none holds a pool thread while it waits. Each reconnect thread joins
// the one before it, and the client joins the last before it goes, so no
// code of this library runs on after the client: a program may unload the
// library as soon as it has released its last client.
class UwpLocalStorageClient::EventTarget {
public:
    explicit EventTarget(UwpLocalStorageClient& client)
        : target_(std::make_shared<Target>(&client)) {}
    ~EventTarget() { detach(); }
    EventTarget(const EventTarget&) = delete;
    EventTarget& operator=(const EventTarget&) = delete;

    // From here on no handler reaches the client; returns once every
    // reconnect has ended.
    void detach() {
        std::thread last;
        {
            MutexLock lock(target_->mutex);
            target_->client = nullptr;
            last = std::move(target_->reconnect);
        }
        if (last.joinable()) last.join();
    }

    // The handler for the connection of that generation.
    AppServiceConnection::ServiceClosedHandler serviceClosed(std::uint64_t generation) const {
        return [target = target_, generation](const AppServiceConnection&,
                                              const AppServiceClosedEventArgs&) {
            MutexLock lock(target->mutex);
            if (target->client == nullptr) return;
            const auto previous = std::make_shared<std::thread>(std::move(target->reconnect));
            try {
                target->reconnect = std::thread([client = target->client, generation, previous] {
                    if (previous->joinable()) previous->join();
                    client->onServiceClosed(generation);
                });
            } catch (const std::system_error&) {
                // No thread to be had: the next operation finds the
                // connection closed, and its retry reconnects.
                target->reconnect = std::move(*previous);
            }
        };
    }

private:
    struct Target {
        explicit Target(UwpLocalStorageClient* to) : client(to) {}
        Mutex mutex;
        UwpLocalStorageClient* client QV_GUARDED_BY(mutex);
        std::thread reconnect QV_GUARDED_BY(mutex);  // the latest, which joins those before it
    };
    std::shared_ptr<Target> target_;
};

UwpLocalStorageClient::UwpLocalStorageClient() : events_(std::make_unique<EventTarget>(*this)) {
    connect(0);  // generation 0: no connection yet
}

// A reconnect under way ends first; it still has the whole client to work
// with.
UwpLocalStorageClient::~UwpLocalStorageClient() { events_->detach(); }

std::string_view UwpLocalStorageClient::connectionStatusName(AppServiceConnectionStatus status) {
    static constexpr std::string_view names[] = {
        "Success",
        "AppNotInstalled",
        "AppUnavailable",
        "AppServiceUnavailable",
        "Unknown",
        "RemoteSystemUnavailable",
        "RemoteSystemNotSupportedByApp",
        "NotAuthorized",
    };
    const auto value = static_cast<std::size_t>(status);
    return value < std::size(names) ? names[value] : "UnknownAppServiceConnectionStatus";
}

// The tasks take the caller's text by reference: each runs on a worker that
// the caller joins, and a copy of a large value would cost its size again.
std::string UwpLocalStorageClient::read(const std::string& group, const std::string& key) {
    checkEntry(group, key);
    std::string value;
    executeWinRT([&](const Connection& connection) {
        executeCommand(connection,
                       {{RequestField::Command, "read"},
                        {RequestField::Group, group},
                        {RequestField::Key, key}},
                       &value);
    });
    return value;
}

void UwpLocalStorageClient::write(const std::string& group, const std::string& key,
                                  const std::string& data) {
    checkEntry(group, key);
    checkValue(data);
    executeWinRT([&](const Connection& connection) {
        executeCommand(connection, {{RequestField::Command, "write"},
                                    {RequestField::Group, group},
                                    {RequestField::Key, key},
                                    {RequestField::Data, data}});
    });
}

void UwpLocalStorageClient::remove(const std::string& group, const std::string& key) {
    checkEntry(group, key);
    executeWinRT([&](const Connection& connection) {
        executeCommand(connection, {{RequestField::Command, "remove"},
                                    {RequestField::Group, group},
                                    {RequestField::Key, key}});
    });
}

std::string UwpLocalStorageClient::next(const std::string& group, const std::string& key) {
    checkEntry(group, key);
    std::string following;
    executeWinRT([&](const Connection& connection) {
        executeCommand(connection,
                       {{RequestField::Command, "next"},
                        {RequestField::Group, group},
                        {RequestField::Key, key}},
                       &following);
    });
    return following;
}

// The probe runs once, on one worker: no reconnect and no retry. The worker
// joins its apartment twice and leaves it as the platform's callers always
// have: once, and once more only when the first join was the first.
bool UwpLocalStorageClient::exists() {
    const Connection connection = currentConnection().first;
    bool answered = false;
    std::thread worker([&] {
        const HRESULT first = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        try {
            const HRESULT second = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            if (second < 0) throw HResultError(second);
            sendMessage(connection, ValueSet());
            answered = true;
        } catch (...) {
            try {
                logLine("exception in UwpLocalStorageClient::exists()");
            } catch (...) {
            }
        }
        CoUninitialize();
        if (first == S_OK) CoUninitialize();
    });
    worker.join();
    return answered;
}

void UwpLocalStorageClient::connect(std::uint64_t used) {
    std::uint64_t generation = 0;
    {
        MutexLock lock(connectionMutex_);
        while (opening_) connectionSettled_.wait(lock.forWaiting());
        // Replaced since that attempt: the retry goes to the new connection.
        // After a failed open there is none, and this thread opens one.
        if (generation_ != used && connection_) return;
        opening_ = true;
        generation = generation_ + 1;
        // The previous connection goes; its handler stays registered on it.
        connection_ = nullptr;
    }
    Connection opened = nullptr;
    event_token token{};
    AppServiceConnectionStatus status = AppServiceConnectionStatus::Unknown;
    try {
        status = open(opened, token, generation);
    } catch (...) {
        settle(nullptr, token, generation);
        throw;
    }
    settle(status == AppServiceConnectionStatus::Success ? opened : nullptr, token, generation);
    if (status != AppServiceConnectionStatus::Success) {
        QV_THROW_ERROR_REPORT(std::string(connectionStatusName(status)));
    }
}

AppServiceConnectionStatus UwpLocalStorageClient::open(Connection& connection, event_token& token,
                                                       std::uint64_t generation) {
    connection = AppServiceConnection();
    connection.AppServiceName(hstring(utf8ToUtf16(appServiceName)));
    connection.PackageFamilyName(hstring(utf8ToUtf16(packageFamilyName)));
    token = connection.ServiceClosed(events_->serviceClosed(generation));
    AppServiceConnectionStatus status = AppServiceConnectionStatus::Unknown;
    // An open that throws is a failed attempt like any other, and a new
    // connection is opened in its place (one whose open was tried cannot be
    // opened again), without bound; a failing status is no throw.
    if (attempt([&] { status = waitFor(connection.OpenAsync()); }))
        return open(connection, token, generation);
    return status;
}

void UwpLocalStorageClient::settle(const Connection& opened, event_token token,
                                   std::uint64_t generation) {
    {
        MutexLock lock(connectionMutex_);
        connection_ = opened;
        serviceClosedToken_ = token;
        generation_ = generation;
        opening_ = false;
    }
    connectionSettled_.notify_all();
}

std::pair<UwpLocalStorageClient::Connection, std::uint64_t>
UwpLocalStorageClient::currentConnection() {
    MutexLock lock(connectionMutex_);
    while (opening_) connectionSettled_.wait(lock.forWaiting());
    return {connection_, generation_};
}

void UwpLocalStorageClient::executeCommand(const Connection& connection, const Request& request,
                                           std::string* response) {
    ValueSet message;
    for (const auto& [field, value] : request) {
        message.Insert(keyOf(field), PropertyValue::CreateString(hstring(utf8ToUtf16(value))));
    }
    const ValueSet reply = sendMessage(connection, message);
    const hstring status = unbox_value<hstring>(reply.Lookup(u"status"));
    if (status == hstring(u"success")) {
        if (response == nullptr) return;
        const auto text = reply.Lookup(u"response");
        *response = text ? utf16ToUtf8(unbox_value<hstring>(text)) : std::string();
        return;
    }
    QV_THROW_ERROR_REPORT(utf16ToUtf8(unbox_value<hstring>(reply.Lookup(u"response"))));
}

ValueSet UwpLocalStorageClient::sendMessage(const Connection& connection, const ValueSet& message) {
    // Empty after a failed open: a failed attempt, so that the retry
    // reconnects.
    if (!connection) throw std::runtime_error("UwpLocalStorageClient::sendMessage: no connection");
    const AppServiceResponse response = waitFor(connection.SendMessageAsync(message));
    if (response.Status() != AppServiceResponseStatus::Success) {
        throw std::runtime_error(
            "response.Status() != TResponseStatus::Success in UwpLocalStorageClient::sendMessage");
    }
    return response.Message();
}

void UwpLocalStorageClient::executeWinRT(const Task& task) {
    auto current = currentConnection();
    if (!attempt([&] { task(current.first); })) return;
    // A reconnect that fails leaves at once: the caller sees its error, and
    // the first attempt's is dropped.
    connect(current.second);
    current = currentConnection();
    if (const auto failure = attempt([&] { task(current.first); })) throw *failure;
}

void UwpLocalStorageClient::onServiceClosed(std::uint64_t generation) {
    try {
        connect(generation);
    } catch (...) {
        // Nobody to tell on this thread: the next operation finds no
        // connection, and its retry reconnects.
    }
}

BasicStorageClient* newLocalStorageClient() { return new UwpLocalStorageClient(); }

}  // namespace Quorvendale::StorageClient

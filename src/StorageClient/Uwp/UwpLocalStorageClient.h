#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/AppService/AppServiceConnection.h"
#include "Platform/Foundation/Mutex.h"
#include "ServiceIdentity.h"
#include "StorageClient/BasicStorageClient.h"

namespace Quorvendale::StorageClient {

// The storage client of the local storage service: it keeps nothing itself
// and sends every operation as one message over an app-service connection to
// the service application, which the platform starts on demand.
//
// The client presents a blocking interface: every request, and the opening
// of the connection, runs on a short-lived worker thread of its own in the
// multithreaded apartment while the calling thread waits for it. A failed
// operation, whatever the cause (a "failed" reply from the service too), is
// retried once after a full reconnect; there is no time-out anywhere, so a
// service that never answers blocks its caller.
//
// Text travels as UTF-16 inside the messages: group, key and data must be
// UTF-8 text, and each is cut at its first zero byte on the way. A group or
// key over QV_LOCAL_MAX_NAME_BYTES, or a value over QV_LOCAL_MAX_VALUE_BYTES
// (Quorvendale/Limits.h), is refused at once, with neither reconnect nor
// retry.
//
// One client may be shared by many threads. Their requests travel
// concurrently on one connection; a thread waits for another only while that
// one opens a new connection, and operations only ever use a connection
// whose open succeeded. Reconnects coalesce: a thread whose attempt failed
// replaces the connection only if it is still the one that attempt used,
// else it retries on its replacement.
class UwpLocalStorageClient : public BasicStorageClient {
public:
    // The storage service's app service, as its package declares it, and
    // the package that provides it.
    static constexpr std::string_view appServiceName = ServiceIdentity::appServiceName;
    static constexpr std::string_view packageFamilyName = ServiceIdentity::packageFamilyName;

    enum class RequestField { Command = 0, Group = 1, Key = 2, Data = 3 };
    // The entries of one request message, in field order: views of the
    // caller's text, which is converted once, into the message itself.
    using Request = std::map<RequestField, std::string_view>;

    // Connects at once. Throws the error report naming the status when the
    // service cannot be opened ("AppNotInstalled", ...).
    UwpLocalStorageClient();
    // Waits for a reconnect under way on a thread of its own, then releases
    // the connection, which ends when its last reference goes.
    ~UwpLocalStorageClient() override;

    std::string read(const std::string& group, const std::string& key) override;
    void write(const std::string& group, const std::string& key, const std::string& data) override;
    void remove(const std::string& group, const std::string& key) override;
    std::string next(const std::string& group, const std::string& key) override;
    // True when the service answered an empty message, whatever it said.
    // Never throws and never reconnects: a failure prints
    // "exception in UwpLocalStorageClient::exists()" and gives false.
    bool exists() override;

    // "Success", "AppNotInstalled", ... for the platform's statuses 0 to 7;
    // "UnknownAppServiceConnectionStatus" for any other.
    static std::string_view connectionStatusName(Platform::AppServiceConnectionStatus status);

private:
    using Connection = Platform::AppServiceConnection;
    using Task = std::function<void(const Connection&)>;
    class EventTarget;

    // Replaces the connection of generation `used` by a newly opened one,
    // unless another thread has replaced it already (then returns at once,
    // leaving the retry to the new one). Throws the error report naming the
    // status when the open fails; the client then has no connection, and the
    // next thread to fail tries again.
    void connect(std::uint64_t used);
    // A new connection whose ServiceClosed names `generation`, and how its
    // open ended. An open that throws is replaced by another one.
    Platform::AppServiceConnectionStatus open(Connection& connection, Platform::event_token& token,
                                              std::uint64_t generation);
    // Ends the open in progress: `opened` (empty after a failed open)
    // becomes the current connection, and the threads waiting go on.
    void settle(const Connection& opened, Platform::event_token token, std::uint64_t generation);
    // The current connection and its generation, once no open is in
    // progress. Empty when the last open failed.
    std::pair<Connection, std::uint64_t> currentConnection();

    // Sends the request and checks the reply's "status". The form with a
    // result stores the reply's "response" in *response.
    void executeCommand(const Connection& connection, const Request& request,
                        std::string* response = nullptr);
    // One exchange on the connection; the reply's message. An empty
    // connection fails like a request the service did not answer.
    Platform::ValueSet sendMessage(const Connection& connection, const Platform::ValueSet& message);
    // Runs the task on a worker thread with the current connection; on
    // failure reconnects and runs it once more. The second failure, or the
    // reconnect's, is thrown.
    void executeWinRT(const Task& task);
    // The connection of that generation ended from the service's side.
    void onServiceClosed(std::uint64_t generation);

    // Locking. connectionMutex_ guards connection_, generation_, opening_ and
    // serviceClosedToken_, and is held only to read or change them: never
    // while waiting on the service (an open, a request) and never with any
    // other lock. One thread at a time opens a connection: the one that set
    // opening_, which alone changes connection_ and generation_ until it
    // clears it again (settle). Threads that need the connection meanwhile
    // wait on connectionSettled_; that is the only wait between threads.
    Platform::Mutex connectionMutex_;
    std::condition_variable connectionSettled_;
    // Open, or empty after a failed open.
    Connection connection_ QV_GUARDED_BY(connectionMutex_){nullptr};
    // Counts the opens that have ended.
    std::uint64_t generation_ QV_GUARDED_BY(connectionMutex_) = 0;
    bool opening_ QV_GUARDED_BY(connectionMutex_) = false;
    Platform::event_token serviceClosedToken_ QV_GUARDED_BY(connectionMutex_){};
    // How ServiceClosed reaches the client; the destructor detaches it
    // first, waiting for a reconnect under way on a thread of its own.
    std::unique_ptr<EventTarget> events_;
};

}  // namespace Quorvendale::StorageClient

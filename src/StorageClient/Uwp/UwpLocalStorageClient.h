#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "Platform/AppService/AppServiceConnection.h"
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
// UTF-8 text, and each is cut at its first zero byte on the way.
//
// Concurrent calls on one client are not serialised. The connection is
// copied under a short lock before each use, so a reconnect on another
// thread never destroys a connection under a running call.
class UwpLocalStorageClient : public BasicStorageClient {
public:
    // The storage service's app service, as its package declares it, and
    // the package that provides it.
    static constexpr std::string_view appServiceName = ServiceIdentity::appServiceName;
    static constexpr std::string_view packageFamilyName = ServiceIdentity::packageFamilyName;

    enum class RequestField { Command = 0, Group = 1, Key = 2, Data = 3 };
    // The entries of one request message, in field order.
    using Request = std::map<RequestField, std::string>;

    // Connects at once. Throws the error report naming the status when the
    // service cannot be opened ("AppNotInstalled", ...).
    UwpLocalStorageClient();
    // Releases the connection, which ends when its last reference goes.
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
    using Connection = std::shared_ptr<Platform::AppServiceConnection>;
    class EventTarget;

    // Makes a new connection the current one and opens it.
    void connect();
    // Sends the request and checks the reply's "status". The form with a
    // result stores the reply's "response" in *response.
    void executeCommand(const Request& request);
    void executeCommand(const Request& request, std::string* response);
    // One exchange on the current connection; the reply's message.
    Platform::ValueSet sendMessage(const Platform::ValueSet& message);
    // Runs the task on a worker thread; on failure reconnects and runs it
    // once more. The second failure, or the reconnect's, is thrown.
    void executeWinRT(const std::function<void()>& task);
    void onServiceClosed(const Platform::AppServiceConnection& sender,
                         const Platform::AppServiceClosedEventArgs& args);

    Connection currentConnection() const;

    mutable std::mutex connectionMutex_;  // guards connection_ and serviceClosedToken_
    Connection connection_;
    Platform::event_token serviceClosedToken_;
    // Last, so that it goes first: no event reaches a client being destroyed.
    std::unique_ptr<EventTarget> events_;
};

}  // namespace Quorvendale::StorageClient

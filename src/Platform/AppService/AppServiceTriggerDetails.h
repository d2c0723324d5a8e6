// The trigger details of a task started for an app-service connection.
#pragma once

#include "Platform/AppService/AppServiceConnection.h"
#include "Platform/Foundation/com_ptr.h"

namespace Quorvendale::Platform {

class QV_PLATFORM_API AppServiceTriggerDetails final : public IInspectable {
public:
    explicit AppServiceTriggerDetails(Platform::AppServiceConnection connection)
        : connection_(std::move(connection)) {}
    hstring GetRuntimeClassName() const override;
    Platform::AppServiceConnection AppServiceConnection() const { return connection_; }

private:
    Platform::AppServiceConnection connection_;
};

}  // namespace Quorvendale::Platform

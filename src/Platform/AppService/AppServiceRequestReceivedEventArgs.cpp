#include "Platform/AppService/AppServiceRequestReceivedEventArgs.h"

namespace Quorvendale::Platform {

AppServiceDeferral AppServiceRequestReceivedEventArgs::GetDeferral() const {
    return AppServiceDeferral::holding(request_);
}

}  // namespace Quorvendale::Platform

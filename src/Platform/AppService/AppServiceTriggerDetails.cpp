#include "Platform/AppService/AppServiceTriggerDetails.h"

namespace Quorvendale::Platform {

hstring AppServiceTriggerDetails::GetRuntimeClassName() const {
    return u"Windows.ApplicationModel.AppService.AppServiceTriggerDetails";
}

}  // namespace Quorvendale::Platform

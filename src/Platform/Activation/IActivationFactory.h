// What makes objects of one runtime class.
#pragma once

#include "Platform/Foundation/com_ptr.h"

namespace Quorvendale::Platform {

class QV_PLATFORM_API IActivationFactory : public virtual IInspectable {
public:
    virtual com_ptr<IInspectable> ActivateInstance() = 0;

protected:
    ~IActivationFactory() override;
};

}  // namespace Quorvendale::Platform

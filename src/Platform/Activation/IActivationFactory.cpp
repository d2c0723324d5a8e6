#include "Platform/Activation/IActivationFactory.h"

namespace Quorvendale::Platform {

IActivationFactory::~IActivationFactory() = default;

}  // namespace Quorvendale::Platform

// The library that carries a package's background tasks, as the host reaches
// it: only through its two activation exports.
#pragma once

#include <string>

#include "Platform/Activation/Module.h"
#include "Platform/Background/IBackgroundTask.h"

namespace Quorvendale::AppHost {

class ServiceLibrary {
public:
    // Loads it for good (threads of the runtime may still run its code at
    // exit, so it is never unloaded). Throws std::runtime_error naming the
    // path when it cannot be loaded or lacks an export.
    explicit ServiceLibrary(const std::string& path);

    // A new task of the class. Throws the platform's HResultError when the
    // library has no such class or the object is no background task.
    Platform::com_ptr<Platform::IBackgroundTask> activate(const Platform::hstring& classId) const;

    // Whether the library activates the class, asked without making a task.
    bool activates(const Platform::hstring& classId) const;

    // DllCanUnloadNow: no object of the library is alive any more.
    bool canUnloadNow() const;

private:
    Platform::com_ptr<Platform::IActivationFactory> factory(const Platform::hstring& classId) const;

    Platform::HRESULT (*getActivationFactory_)(Platform::HSTRING, Platform::IActivationFactory**);
    Platform::HRESULT (*canUnloadNow_)();
};

}  // namespace Quorvendale::AppHost

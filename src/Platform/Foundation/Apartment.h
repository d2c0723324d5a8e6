// CoInitializeEx / CoUninitialize: each thread keeps its own apartment record.
// The first initialisation of a thread returns S_OK, each nested one with the
// same model S_FALSE, one with the other model RPC_E_CHANGED_MODE (and counts
// nothing). CoUninitialize undoes one successful initialisation; after the
// last one the thread may join either model again.
#pragma once

#include <cstdint>

#include "Platform/Foundation/HResultError.h"
#include "Platform/Foundation/PlatformExport.h"

namespace Quorvendale::Platform {

using DWORD = std::uint32_t;

inline constexpr DWORD COINIT_MULTITHREADED = 0x0;
inline constexpr DWORD COINIT_APARTMENTTHREADED = 0x2;

// reserved must be null (E_INVALIDARG otherwise); coInit is one of the models above.
QV_PLATFORM_API HRESULT CoInitializeEx(void* reserved, DWORD coInit) noexcept;
QV_PLATFORM_API void CoUninitialize() noexcept;

}  // namespace Quorvendale::Platform

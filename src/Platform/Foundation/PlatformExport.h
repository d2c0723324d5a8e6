// Symbol visibility of libQuorvendalePlatform.so. The runtime's C++ types are
// shared by the product library, the app-service host and the tests, as the
// platform's are on Windows, so its classes are exported whole.
#pragma once

#define QV_PLATFORM_API __attribute__((visibility("default")))

// Symbol visibility of libQuorvendalePlatform.so. The runtime's classes and
// functions that the storage library, the host or the tests may use are
// marked visible here; of those, the library's version script
// (QuorvendalePlatform.map) exports only what the product's binaries need.
#pragma once

#define QV_PLATFORM_API __attribute__((visibility("default")))

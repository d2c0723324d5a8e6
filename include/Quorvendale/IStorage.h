/* IStorage: read, write, remove and enumerate the entries of a grouped
 * key-value store, whatever lies behind it (a storage server over TCP, or
 * the local storage service).
 *
 * Group, key and data are array-in pairs of bytes; nothing is trimmed or
 * checked. What reaches the store depends on the client: the remote client
 * sends every byte, a zero byte inside included; the local client carries
 * text, so its group, key and data must be valid UTF-8 and each ends at its
 * first zero byte, on the way in and on the way out. Every operation returns QV_S_OK or
 * a failure code whose text IExceptionData::getMessage gives on the same
 * thread. On failure, outputs (the array-out buffer, the boolean word) are not
 * written and the array-out callback is not called. */
#ifndef QUORVENDALE_ISTORAGE_H
#define QUORVENDALE_ISTORAGE_H

#include "InterfaceContract.h"

#ifdef __cplusplus
namespace Quorvendale::StorageClient {
using InterfaceContract::ArrayOutAllocate;
using InterfaceContract::InterfaceId;
using InterfaceContract::ResultCode;
#endif

/* 792D9D14-A2D2-42AD-AEEC-7F8A6BA62BD0 */
QV_HEADER_CONSTANT InterfaceId IID_IStorage = {
    0x792D9D14u, 0xA2D2u, 0x42ADu, {0xAE, 0xEC, 0x7F, 0x8A, 0x6B, 0xA6, 0x2B, 0xD0}};

typedef struct IStorage IStorage;

typedef struct IStorageTable {
    /* Slots 0-2: those of IInterface. */
    ResultCode(QV_CALL* queryInterface)(IStorage* self, const InterfaceId* id, void** out);
    uint32_t(QV_CALL* addRef)(IStorage* self);
    uint32_t(QV_CALL* release)(IStorage* self);

    /* Slot 3: the value stored under key in group, through the marshaller. */
    ResultCode(QV_CALL* read)(IStorage* self, const char* group, uint32_t groupLength,
                              const char* key, uint32_t keyLength, void* context,
                              ArrayOutAllocate allocate);
    /* Slot 4: store data under key in group, replacing any value there. */
    ResultCode(QV_CALL* write)(IStorage* self, const char* group, uint32_t groupLength,
                               const char* key, uint32_t keyLength, const char* data,
                               uint32_t dataLength);
    /* Slot 5: delete the value under key in group. */
    ResultCode(QV_CALL* remove)(IStorage* self, const char* group, uint32_t groupLength,
                                const char* key, uint32_t keyLength);
    /* Slot 6: the key that follows key in group, in the store's own order; an
     * empty key asks for the first, an empty result means there is no more. */
    ResultCode(QV_CALL* next)(IStorage* self, const char* group, uint32_t groupLength,
                              const char* key, uint32_t keyLength, void* context,
                              ArrayOutAllocate allocate);
    /* Slot 7: whether the store is there and serving: QV_TRUE or QV_FALSE. */
    ResultCode(QV_CALL* exists)(IStorage* self, uint32_t* result);
} IStorageTable;

struct IStorage {
    const IStorageTable* table;
};

QV_STATIC_ASSERT(offsetof(IStorageTable, read) == 3 * sizeof(void*), "IStorage slot 3");
QV_STATIC_ASSERT(offsetof(IStorageTable, exists) == 7 * sizeof(void*), "IStorage slot 7");
QV_STATIC_ASSERT(sizeof(IStorageTable) == 8 * sizeof(void*), "IStorage has 8 slots");

#ifdef __cplusplus
}  // namespace Quorvendale::StorageClient
#endif

#endif /* QUORVENDALE_ISTORAGE_H */

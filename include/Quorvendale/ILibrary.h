/* The library's entry: getLibraryInterface and the ILibrary table.
 *
 * Load the library, look up getLibraryInterface, and create storage clients
 * through ILibrary. Every interface pointer handed out carries one reference
 * that the caller owns and gives back with release. */
#ifndef QUORVENDALE_ILIBRARY_H
#define QUORVENDALE_ILIBRARY_H

#include "IStorage.h"

#ifdef __cplusplus
namespace Quorvendale::StorageClient {
using InterfaceContract::IInterface;
#endif

/* 85ABAB02-BE0F-4836-9C1C-3C730BBD0251 */
QV_HEADER_CONSTANT InterfaceId IID_ILibrary = {
    0x85ABAB02u, 0xBE0Fu, 0x4836u, {0x9C, 0x1C, 0x3C, 0x73, 0x0B, 0xBD, 0x02, 0x51}};

typedef struct ILibrary ILibrary;

/* Out-slots (the IStorage** and ILibrary** arguments) are assigned like an
 * owning smart pointer: a non-null pointer already in the slot is released
 * first, then the new pointer is stored with one reference for the caller.
 * Initialise a slot to NULL unless you mean to hand its pointer over. */
typedef struct ILibraryTable {
    /* Slots 0-2: those of IInterface. */
    ResultCode(QV_CALL* queryInterface)(ILibrary* self, const InterfaceId* id, void** out);
    uint32_t(QV_CALL* addRef)(ILibrary* self);
    uint32_t(QV_CALL* release)(ILibrary* self);

    /* Slot 3: a client of the storage server at address:port. Opens no
     * connection; the address is used only when an operation connects. On
     * failure the out-slot keeps what it held. This release resolves no
     * address text at all, so every operation of the client fails with
     * "hostname is invalid or requires DNS lookup, which is not supported
     * yet" and sends nothing. */
    ResultCode(QV_CALL* createRemoteStorageClient)(ILibrary* self, const char* address,
                                                   uint32_t addressLength, uint32_t port,
                                                   IStorage** out);
    /* Slot 4: a client of the local storage service, which the session
     * bus starts on demand in a process of its own; connects at once. A
     * failed connection returns QV_S_OK with NULL in the out-slot: test the
     * pointer, not only the code. Standard output then gets the line "Error:
     * UwpClient connection failed" and the failure's text on the next, or,
     * for a failure that carries no text, the one line "Error: UwpClient
     * connection failed (unknown exception)". Data
     * travels as text: it must be valid UTF-8, and a value ends at its first
     * NUL byte, on the way in and on the way out. */
    ResultCode(QV_CALL* createUwpLocalStorageClient)(ILibrary* self, IStorage** out);
} ILibraryTable;

struct ILibrary {
    const ILibraryTable* table;
};

QV_STATIC_ASSERT(offsetof(ILibraryTable, createRemoteStorageClient) == 3 * sizeof(void*),
                 "ILibrary slot 3");
QV_STATIC_ASSERT(sizeof(ILibraryTable) == 5 * sizeof(void*), "ILibrary has 5 slots");

/* Creates a new, independent library object and stores its ILibrary table in
 * *out with one reference. loaderHandle may be NULL; if not, the library
 * releases it once and keeps nothing, whatever the result. Returns QV_S_OK;
 * QV_E_POINTER, storing nothing, when out is NULL; QV_E_OUTOFMEMORY, leaving
 * *out as it was, when the object cannot be made. */
QV_EXTERN_C QV_EXPORT ResultCode QV_CALL getLibraryInterface(IInterface* loaderHandle,
                                                             ILibrary** out);

typedef ResultCode(QV_CALL* GetLibraryInterfaceFunction)(IInterface* loaderHandle, ILibrary** out);

#ifdef __cplusplus
}  // namespace Quorvendale::StorageClient
#endif

#endif /* QUORVENDALE_ILIBRARY_H */

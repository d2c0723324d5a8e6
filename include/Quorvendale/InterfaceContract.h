/* The binary interface contract: identifiers, result codes, value forms, and
 * the operation tables of IUnsafe, IInterface and IExceptionData.
 *
 * An interface pointer points at an object whose first word is a pointer to
 * its operation table. Nothing crosses the boundary but integers, raw
 * pointers, 16-byte identifiers, pointer-and-length pairs and function
 * pointers: no exception, no standard-library object, no run-time type
 * information. This header is valid C11 and C++; in C++ its names live in
 * namespace Quorvendale::InterfaceContract. */
#ifndef QUORVENDALE_INTERFACE_CONTRACT_H
#define QUORVENDALE_INTERFACE_CONTRACT_H

#include <stddef.h>
#include <stdint.h>

#include "Export.h"

#ifdef __cplusplus
namespace Quorvendale::InterfaceContract {
#endif

/* Result of every operation at the boundary: 0 is success, failures use the
 * standard HRESULT numbering. */
typedef uint32_t ResultCode;

/* The codes name their type in full, so that they work outside the C++
 * namespace too. */
#ifdef __cplusplus
#define QV_RESULT_CODE(value) (static_cast<::Quorvendale::InterfaceContract::ResultCode>(value))
#else
#define QV_RESULT_CODE(value) ((ResultCode)(value))
#endif
#define QV_S_OK QV_RESULT_CODE(0x00000000u)
#define QV_E_NOINTERFACE QV_RESULT_CODE(0x80004002u) /* queryInterface: no table answers */
#define QV_E_POINTER QV_RESULT_CODE(0x80004003u)     /* queryInterface: null out-slot */
#define QV_E_FAIL QV_RESULT_CODE(0x80004005u)        /* any other failure */
#define QV_E_INVALIDARG QV_RESULT_CODE(0x80070057u)  /* std::invalid_argument */
#define QV_E_OUTOFMEMORY QV_RESULT_CODE(0x8007000Eu) /* std::bad_alloc */

/* The boolean out-value of the contract: true is all bits set, not 1.
 * Callers test for non-zero. */
#define QV_TRUE ((uint32_t)0xFFFFFFFFu)
#define QV_FALSE ((uint32_t)0u)

/* 16-byte interface identifier in GUID layout. Compare it field by field
 * (InterfaceId_equal), never as text. */
typedef struct InterfaceId {
    uint32_t data1;
    uint16_t data2;
    uint16_t data3;
    uint8_t data4[8];
} InterfaceId;

QV_HEADER_FUNCTION int InterfaceId_equal(const InterfaceId* a, const InterfaceId* b) {
    int i;
    if (a->data1 != b->data1 || a->data2 != b->data2 || a->data3 != b->data3) return 0;
    for (i = 0; i < 8; ++i) {
        if (a->data4[i] != b->data4[i]) return 0;
    }
    return 1;
}

/* FFFFFFFF-FFFF-FFFF-0C00-000000000064 */
QV_HEADER_CONSTANT InterfaceId IID_IUnsafe = {
    0xFFFFFFFFu, 0xFFFFu, 0xFFFFu, {0x0C, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x64}};
/* 00000000-0000-0000-C000-000000000046: the component model's root identifier, on purpose. */
QV_HEADER_CONSTANT InterfaceId IID_IInterface = {
    0x00000000u, 0x0000u, 0x0000u, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
/* 97122FF5-CEAA-4C40-9627-12AAB74A5DAF */
QV_HEADER_CONSTANT InterfaceId IID_IExceptionData = {
    0x97122FF5u, 0xCEAAu, 0x4C40u, {0x96, 0x27, 0x12, 0xAA, 0xB7, 0x4A, 0x5D, 0xAF}};

/* Array-out: the callee calls `allocate(context, length)` exactly once, also
 * for an empty result (length 0), and copies `length` bytes into the returned
 * buffer unless it is null or the length is 0. No terminating zero is
 * written. The buffer belongs to the caller.
 *
 * Array-in is a pointer and an unsigned 32-bit byte length, passed as two
 * separate arguments; the bytes need not end in a zero and are copied by the
 * callee. An array-out marshaller is likewise two arguments: context, then
 * callback. (A 16-byte struct argument travels differently from two scalars on
 * x86-64 and Windows x64, so neither form is ever a struct by value.) */
typedef void*(QV_CALL* ArrayOutAllocate)(void* context, uint32_t length);

typedef struct IUnsafe IUnsafe;
typedef struct IInterface IInterface;
typedef struct IExceptionData IExceptionData;

/* queryInterface(id, out):
 *   out == NULL          -> QV_E_POINTER, nothing changed;
 *   a table answers id   -> *out = that table, counted unless IExceptionData, QV_S_OK;
 *   otherwise            -> *out = NULL, QV_E_NOINTERFACE.
 * The most-derived table of the object is asked first. */
typedef struct IUnsafeTable {
    ResultCode(QV_CALL* queryInterface)(IUnsafe* self, const InterfaceId* id, void** out);
} IUnsafeTable;

struct IUnsafe {
    const IUnsafeTable* table;
};

/* addRef/release act on the object behind the table, not on the table: all
 * tables of one object share its count. Both return the count after the
 * change. The release that returns 0 destroys the object; do not touch the
 * pointer afterwards. Both are safe to call from any thread. */
typedef struct IInterfaceTable {
    ResultCode(QV_CALL* queryInterface)(IInterface* self, const InterfaceId* id, void** out);
    uint32_t(QV_CALL* addRef)(IInterface* self);
    uint32_t(QV_CALL* release)(IInterface* self);
} IInterfaceTable;

struct IInterface {
    const IInterfaceTable* table;
};

/* Reachable on every object; never counted (no addRef/release).
 * The message is per thread, not per object: fetch it on the thread whose
 * call failed, before that thread's next call into the library. Reading
 * does not clear it, and a successful call does not clear it either.
 *   getMessage: copies the calling thread's last failure text out; QV_S_OK,
 *     or QV_E_INVALIDARG for a NULL callback, leaving the text as it was.
 *   setMessage: replaces it; QV_S_OK, or QV_E_FAIL if the copy failed. */
typedef struct IExceptionDataTable {
    ResultCode(QV_CALL* queryInterface)(IExceptionData* self, const InterfaceId* id, void** out);
    ResultCode(QV_CALL* getMessage)(IExceptionData* self, void* context, ArrayOutAllocate allocate);
    ResultCode(QV_CALL* setMessage)(IExceptionData* self, const char* message, uint32_t length);
} IExceptionDataTable;

struct IExceptionData {
    const IExceptionDataTable* table;
};

QV_STATIC_ASSERT(sizeof(InterfaceId) == 16, "InterfaceId is 16 bytes");
QV_STATIC_ASSERT(offsetof(InterfaceId, data4) == 8, "InterfaceId has the GUID layout");
QV_STATIC_ASSERT(offsetof(IInterfaceTable, release) == 2 * sizeof(void*), "IInterface slot 2");
QV_STATIC_ASSERT(offsetof(IExceptionDataTable, setMessage) == 2 * sizeof(void*),
                 "IExceptionData slot 2");

#ifdef __cplusplus
}  // namespace Quorvendale::InterfaceContract
#endif

#endif /* QUORVENDALE_INTERFACE_CONTRACT_H */

/* Loads the built library the way a foreign program does, through the public
 * header alone, compiled as C, and checks the contract as such a caller sees
 * it: identities, counts, queryInterface answers, out-slot assignment and
 * destruction. Usage: LibraryCTest <path to the library> */
#include <stdio.h>
#include <string.h>

#include "Quorvendale/ILibrary.h"

/* getLibraryInterface of the library at `path`, loaded the platform's way and
 * never unloaded (its per-thread message slot keeps it loaded anyway). */
#ifdef _WIN32
#include <windows.h>
static GetLibraryInterfaceFunction loadEntry(const char* path) {
    HMODULE module = LoadLibraryA(path);
    /* Through void (*)(void), the type that converts to any function type. */
    return module == NULL ? NULL
                          : (GetLibraryInterfaceFunction)(void (*)(void))GetProcAddress(
                                module, "getLibraryInterface");
}
#else
#include <dlfcn.h>
static GetLibraryInterfaceFunction loadEntry(const char* path) {
    GetLibraryInterfaceFunction entry = NULL;
    void* module = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (module != NULL) *(void**)&entry = dlsym(module, "getLibraryInterface");
    return entry;
}
#endif

static int failures;

#define CHECK(condition)                                                                  \
    do {                                                                                  \
        if (!(condition)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            ++failures;                                                                   \
        }                                                                                 \
    } while (0)

/* A loader handle of the caller's own, counting the releases it receives. */
static int handleReleases;
static ResultCode QV_CALL handleQuery(IInterface* self, const InterfaceId* id, void** out) {
    (void)self;
    (void)id;
    *out = NULL;
    return QV_E_NOINTERFACE;
}
static uint32_t QV_CALL handleAddRef(IInterface* self) {
    (void)self;
    return 1;
}
static uint32_t QV_CALL handleRelease(IInterface* self) {
    (void)self;
    handleReleases++;
    return 0;
}
static const IInterfaceTable handleTable = {handleQuery, handleAddRef, handleRelease};

/* Array-out into a fixed buffer, remembering how often and with what length it was called. */
typedef struct Captured {
    char bytes[256];
    uint32_t length;
    int calls;
} Captured;

static void* QV_CALL capture(void* context, uint32_t length) {
    Captured* captured = (Captured*)context;
    captured->calls++;
    captured->length = length;
    return length <= sizeof captured->bytes ? captured->bytes : NULL;
}

/* The interface count after a matched addRef/release pair. */
static uint32_t countOf(ILibrary* library) {
    library->table->addRef(library);
    return library->table->release(library);
}

static void checkQueryInterface(ILibrary* library) {
    void* out = (void*)&failures; /* a non-null sentinel that each failure must clear */
    InterfaceId almostLibrary = IID_ILibrary;
    almostLibrary.data4[7] ^= 0x01;

    CHECK(library->table->queryInterface(library, &IID_ILibrary, NULL) == QV_E_POINTER);
    CHECK(library->table->queryInterface(library, &IID_IStorage, &out) == QV_E_NOINTERFACE);
    CHECK(out == NULL);
    out = (void*)&failures;
    CHECK(library->table->queryInterface(library, &almostLibrary, &out) == QV_E_NOINTERFACE);
    CHECK(out == NULL);
    CHECK(countOf(library) == 1);

    /* The most-derived table answers its bases' identifiers, counted. */
    CHECK(library->table->queryInterface(library, &IID_IInterface, &out) == QV_S_OK);
    CHECK(out == (void*)library);
    CHECK(countOf(library) == 2);
    CHECK(library->table->release(library) == 1);
    CHECK(library->table->queryInterface(library, &IID_IUnsafe, &out) == QV_S_OK);
    CHECK(out == (void*)library);
    CHECK(library->table->release(library) == 1);
}

static void checkExceptionData(ILibrary* library) {
    IExceptionData* data = NULL;
    void* again = NULL;
    Captured captured;
    const char message[] = "with\0zero";

    /* IExceptionData answers on every object, for itself too, and is never counted. */
    CHECK(library->table->queryInterface(library, &IID_IExceptionData, (void**)&data) == QV_S_OK);
    if (data == NULL) return;
    CHECK((void*)data != (void*)library && countOf(library) == 1);
    CHECK(data->table->queryInterface(data, &IID_IExceptionData, &again) == QV_S_OK);
    CHECK(again == (void*)data);

    CHECK(data->table->setMessage(data, message, sizeof message - 1) == QV_S_OK);
    memset(&captured, 0, sizeof captured);
    CHECK(data->table->getMessage(data, &captured, capture) == QV_S_OK);
    CHECK(captured.calls == 1 && captured.length == sizeof message - 1);
    CHECK(memcmp(captured.bytes, message, sizeof message - 1) == 0);

    /* An empty text still calls the callback, once, with length 0. */
    CHECK(data->table->setMessage(data, NULL, 0) == QV_S_OK);
    memset(&captured, 0, sizeof captured);
    CHECK(data->table->getMessage(data, &captured, capture) == QV_S_OK);
    CHECK(captured.calls == 1 && captured.length == 0);

    /* A null callback is refused, and the text it would have read stays. */
    CHECK(data->table->setMessage(data, "kept", 4) == QV_S_OK);
    CHECK(data->table->getMessage(data, NULL, NULL) == QV_E_INVALIDARG);
    memset(&captured, 0, sizeof captured);
    CHECK(data->table->getMessage(data, &captured, capture) == QV_S_OK);
    CHECK(captured.length == 4 && memcmp(captured.bytes, "kept", 4) == 0);
}

/* Run on a bus where no storage service is installed: the library hands out
 * no local client, yet the call succeeds (the reason goes to standard
 * output), and an out-slot that held a client has it released. */
static void checkLocalClientWithoutService(ILibrary* library) {
    IStorage* held = NULL;
    IStorage* storage = NULL;

    CHECK(library->table->createRemoteStorageClient(library, "", 0, 1, &held) == QV_S_OK);
    if (held == NULL) return;
    held->table->addRef(held); /* one for the slot, one kept here */
    storage = held;
    CHECK(library->table->createUwpLocalStorageClient(library, &storage) == QV_S_OK);
    CHECK(storage == NULL);
    CHECK(held->table->release(held) == 0);
}

int main(int argc, char** argv) {
    GetLibraryInterfaceFunction getLibrary;
    IInterface handle = {&handleTable};
    ILibrary* first = NULL;
    ILibrary* second = NULL;
    ILibrary* slot;

    if (argc != 2) {
        fprintf(stderr, "usage: %s <path to the library>\n", argv[0]);
        return 2;
    }
    getLibrary = loadEntry(argv[1]);
    if (getLibrary == NULL) {
        fprintf(stderr, "cannot load getLibraryInterface from %s\n", argv[1]);
        return 2;
    }

    /* The loader handle is released exactly once; each call makes a new object. */
    CHECK(getLibrary(&handle, &first) == QV_S_OK);
    CHECK(handleReleases == 1);
    CHECK(getLibrary(NULL, &second) == QV_S_OK);
    CHECK(first != NULL && second != NULL && first != second);
    if (first == NULL || second == NULL) return 1;
    CHECK(countOf(first) == 1 && countOf(second) == 1);
    CHECK(getLibrary(NULL, NULL) == QV_E_POINTER);

    checkQueryInterface(first);
    checkExceptionData(first);
    checkLocalClientWithoutService(first);

    /* An out-slot that already holds a pointer has it released by the call. */
    second->table->addRef(second); /* one for the slot, one kept here */
    slot = second;
    CHECK(getLibrary(NULL, &slot) == QV_S_OK);
    CHECK(slot != NULL && slot != second);
    CHECK(countOf(second) == 1 && countOf(slot) == 1);

    CHECK(slot->table->release(slot) == 0);
    CHECK(second->table->release(second) == 0);
    CHECK(first->table->release(first) == 0);

    if (failures == 0) printf("LibraryCTest: all checks passed\n");
    return failures == 0 ? 0 : 1;
}

#include <stdio.h>
#include <stdlib.h>
#include <windows.h>

#include "LibraryLoader.h"

GetLibraryInterfaceFunction loadLibraryEntry(const char* path) {
    GetLibraryInterfaceFunction entry;
    HMODULE module;
    wchar_t* widePath;
    const int size = MultiByteToWideChar(CP_ACP, 0, path, -1, NULL, 0);
    if (size == 0 || (widePath = malloc(sizeof(wchar_t) * (size_t)size)) == NULL) return NULL;
    MultiByteToWideChar(CP_ACP, 0, path, -1, widePath, size);
    module = LoadLibraryW(widePath);
    free(widePath);
    if (module == NULL) {
        fprintf(stderr, "LoadLibraryW: error %lu\n", GetLastError());
        return NULL;
    }
    /* Through void (*)(void), the type that converts to any function type. */
    entry =
        (GetLibraryInterfaceFunction)(void (*)(void))GetProcAddress(module, "getLibraryInterface");
    if (entry == NULL) fprintf(stderr, "GetProcAddress: error %lu\n", GetLastError());
    return entry;
}

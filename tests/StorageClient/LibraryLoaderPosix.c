#include <dlfcn.h>
#include <stdio.h>

#include "LibraryLoader.h"

GetLibraryInterfaceFunction loadLibraryEntry(const char* path) {
    GetLibraryInterfaceFunction entry = NULL;
    void* module = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (module == NULL) {
        fprintf(stderr, "dlopen: %s\n", dlerror());
        return NULL;
    }
    *(void**)&entry = dlsym(module, "getLibraryInterface");
    if (entry == NULL) fprintf(stderr, "dlsym: %s\n", dlerror());
    return entry;
}

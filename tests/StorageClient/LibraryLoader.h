/* Loads the library under test the platform's way (LibraryLoaderPosix.c,
 * LibraryLoaderWin32.c) and finds its entry. */
#ifndef QUORVENDALE_TESTS_LIBRARY_LOADER_H
#define QUORVENDALE_TESTS_LIBRARY_LOADER_H

#include "Quorvendale/ILibrary.h"

/* getLibraryInterface of the library at `path`, or NULL after saying why on
 * standard error. The library stays loaded until the process ends: its
 * per-thread message slot keeps it loaded for the thread anyway. */
GetLibraryInterfaceFunction loadLibraryEntry(const char* path);

#endif /* QUORVENDALE_TESTS_LIBRARY_LOADER_H */

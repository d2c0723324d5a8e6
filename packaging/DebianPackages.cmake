# `cpack -G DEB` in a build tree configured for /usr: four packages, named
# the Debian way (the library package after its SONAME).
#   runtime  libquorvendalestorageclient1: the client library and the
#            platform library in its private folder, nothing else, so that a
#            future ...2 installs beside it
#   service  quorvendale-service: the host under /usr/libexec/quorvendale,
#            its man page, the D-Bus service file and the systemd user unit
#   dev      libquorvendalestorageclient-dev: headers, the .so link,
#            pkg-config and CMake files
#   tools    quorvendale-tools: qvstore, its man page and bash completion
#   python   python3-quorvendale: the quorvendale Python package
get_target_property(QV_SOVERSION QuorvendaleStorageClient SOVERSION)
set(QV_DEB_RUNTIME libquorvendalestorageclient${QV_SOVERSION})
set(QV_DEB_DEV libquorvendalestorageclient-dev)
set(QV_DEB_TOOLS quorvendale-tools)
set(QV_DEB_SERVICE quorvendale-service)
set(QV_DEB_PYTHON python3-quorvendale)
set(QV_DEB_VERSION ${PROJECT_VERSION}-1)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quorvendale)
set(CPACK_PACKAGE_VENDOR "The Quorvendale developers")
set(CPACK_PACKAGE_CONTACT "Quorvendale developers <quorvendale@example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime service dev tools python)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# dpkg-shlibdeps works out the dependencies on system libraries; the
# platform library is the runtime package's own.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The host's package finds it in the build tree, as it is not in its own.
get_target_property(platformBuildDir QuorvendalePlatform BINARY_DIR)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_INSTALL_PREFIX}/${QV_PRIVATE_LIBDIR}
    ${platformBuildDir})

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${QV_DEB_RUNTIME})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# shlibs: what a program linked with the library depends on. triggers: the
# library lands in a folder of the loader's cache, which libc's trigger updates.
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/shlibs
     "libQuorvendaleStorageClient ${QV_SOVERSION} ${QV_DEB_RUNTIME} (>= ${PROJECT_VERSION})\n")
# (CPack also calls ldconfig from postinst and postrm, which the trigger makes
# redundant: lintian's maintscript-calls-ldconfig, a warning.)
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_BINARY_DIR}/shlibs ${CMAKE_CURRENT_BINARY_DIR}/triggers)
# The library's local client talks to the service, which another package
# holds: a program that uses only the remote client needs no service.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS ${QV_DEB_SERVICE})
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "Quorvendale storage client library
A small persistent key-value store (group, key, value) for applications,
reached through reference-counted binary interfaces that any compiler can
call. This package holds the client library and its private platform
library.")

set(CPACK_DEBIAN_SERVICE_PACKAGE_NAME ${QV_DEB_SERVICE})
set(CPACK_DEBIAN_SERVICE_PACKAGE_SECTION misc)
# The host loads the library (by path, which dpkg-shlibdeps cannot see) and
# links the platform library beside it. It is started by a session bus; any
# D-Bus session bus will do.
set(CPACK_DEBIAN_SERVICE_PACKAGE_DEPENDS "${QV_DEB_RUNTIME} (= ${QV_DEB_VERSION})")
set(CPACK_DEBIAN_SERVICE_PACKAGE_RECOMMENDS "default-dbus-session-bus | dbus-session-bus")
set(CPACK_DEBIAN_SERVICE_DESCRIPTION "Quorvendale storage service
The service behind the Quorvendale storage client library's local client:
a host that the session bus starts on demand (through the systemd user
manager where the session has one), confined to its one data folder, that
keeps each entry as a file and leaves when idle.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${QV_DEB_DEV})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${QV_DEB_RUNTIME} (= ${QV_DEB_VERSION})")
set(CPACK_DEBIAN_DEV_DESCRIPTION "Quorvendale storage client library (development files)
The C headers of the library's binary interface, its header-only C++ layer,
the link to the library, and the pkg-config and CMake package files.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${QV_DEB_TOOLS})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
# qvstore loads the library at run time, which dpkg-shlibdeps cannot see.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${QV_DEB_RUNTIME} (= ${QV_DEB_VERSION})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "Quorvendale key-value store from the shell
qvstore reads, writes, lists, exports and imports the entries of the
Quorvendale storage service, with one-line errors and exit statuses that a
script can act on.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME ${QV_DEB_PYTHON})
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
# Pure Python that loads the library at run time, by its SONAME.
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3, ${QV_DEB_RUNTIME} (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
# Byte-compiled on installation and those files removed before removal, as
# Debian's Python packages are.
configure_file(${CMAKE_CURRENT_LIST_DIR}/python3-quorvendale.postinst ${CMAKE_CURRENT_BINARY_DIR}/python/postinst COPYONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/python3-quorvendale.prerm ${CMAKE_CURRENT_BINARY_DIR}/python/prerm COPYONLY)
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_BINARY_DIR}/python/postinst ${CMAKE_CURRENT_BINARY_DIR}/python/prerm)
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "Quorvendale key-value store from Python
The quorvendale package reads, writes and lists the entries of the
Quorvendale storage service: pure Python over the client library's C
interface, with errors a program can tell apart.")

include(CPack)

# Debian packages through CPack: `cpack -G DEB` in the build tree (or `make package` at the
# top) builds
#   libtarvo0    the shared library (component "runtime"), and
#   libtarvo-dev headers, the libTarvo.so link, the CMake package and the pkg-config file
#                (component "dev").
# The runtime package's dependencies come from dpkg-shlibdeps, i.e. from the libraries that
# libTarvo.so actually loads (libevent_core, libunwind, the C++ runtime); Boost is used through
# its headers only, so it appears among the -dev package's dependencies, not the runtime's.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libtarvo)
set(CPACK_PACKAGE_VENDOR "libTarvo")
set(CPACK_PACKAGE_CONTACT "libTarvo developers <libtarvo@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "cooperative task scheduling for event-driven agent processes")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Stripped as Debian ships libraries; backtraces name frames through the dynamic symbols.
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(tarvo_deb_version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtarvo${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# A shlibs file and ldconfig on install, as Debian policy asks of a shared-library package.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "Per-thread cooperative task schedulers, timers, descriptor tasks, a trace facility,
exceptions with backtraces, virtual time, statistics and system utilities for
long-running event-driven agents. This package holds the shared library.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtarvo-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# The public headers include Boost (intrusive lists, circular_buffer), and the CMake package
# finds Boost; the library's other dependencies stay private to libTarvo.so.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libtarvo${PROJECT_VERSION_MAJOR} (= ${tarvo_deb_version}), libboost-dev (>= 1.74)")
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "Headers, the CMake package (find_package(Tarvo) gives Tarvo::Tarvo) and the pkg-config
file (tarvo) for building programs against libTarvo. Needs a C++20 compiler.")

include(CPack)

# Debian packages, one for each component: the library, what is needed to build with it, and the tools.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "tslb developers <maintainers@tslb.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # would stand above the first line of each description
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/stage.cmake)
# Where dpkg-shlibdeps finds the library that the tools ask for: its package is not installed here.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(same_version "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

# The newest entry of the packages' changelog is what they are named for.
set(changelog ${PROJECT_SOURCE_DIR}/packaging/changelog)
file(STRINGS ${changelog} newest LIMIT_COUNT 1)
if(NOT newest MATCHES "^tslb \\(${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}\\) ")
  message(FATAL_ERROR "${changelog}: begins with \"${newest}\", not with the version ${PROJECT_VERSION}")
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtslb0)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# A trigger calls ldconfig. The two scripts do not exist, which CPack warns about: naming them keeps it from adding its
# own, which would call ldconfig again.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers postinst postrm)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "storage primitives for time-series databases
Arrays whose records never move, slot arrays with free lists, and pools of
chunks with 32-bit addresses. Redo records, snapshot streams and block files
make them durable.
.
This package contains the shared library, which a database loads.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtslb-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# The stand-in is C++ within: a machine with a C compiler alone could not link it.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libtslb0 ${same_version}, libstdc++-12-dev | libstdc++-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION "storage primitives for time-series databases (development files)
Headers, the link to the shared library, a static library with a stand-in for
the symbols that a host defines, files for CMake and pkg-config, documents, and
an example of a host.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tslb-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION database)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libtslb0 ${same_version}")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "tools for the stored arrays of tslb databases
Command line programs for stored arrays of the tslb library: tslb-inspect shows
them and reports inconsistencies, tslb-convert converts them to older layouts.")

include(CPack)

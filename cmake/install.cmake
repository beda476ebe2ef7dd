# The files of `cmake --install`: library, host stand-in, durable store, headers, documents, files for CMake and pkg-config, and the
# gdb scripts. No installed file contains the prefix, so the installation can be moved.
include(CMakePackageConfigHelpers)
set(TSLB_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tslb)
set(TSLB_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
foreach(dir IN ITEMS ${CMAKE_INSTALL_LIBDIR} ${CMAKE_INSTALL_INCLUDEDIR} ${CMAKE_INSTALL_BINDIR}
    ${CMAKE_INSTALL_DATADIR})
  if(IS_ABSOLUTE ${dir})
    message(FATAL_ERROR "${dir}: installation folders are given relative to the prefix")
  endif()
endforeach()

set_target_properties(tslb PROPERTIES PUBLIC_HEADER "${TSLB_PUBLIC_HEADERS}")
set_target_properties(tslb_host PROPERTIES PUBLIC_HEADER "${TSLB_HOST_PUBLIC_HEADERS};${TSLB_HOST_CPP_HEADERS}" EXPORT_NAME host)
install(TARGETS tslb tslb_host EXPORT tslb-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tslb COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT tslb-targets NAMESPACE tslb:: DESTINATION ${TSLB_CMAKE_DIR} COMPONENT dev)
set(pc_names tslb tslb-host)
# tslb_install_archive(name component headers...): the archive of tslb::name, with targets in a file of its own.
function(tslb_install_archive name component)
  set_target_properties(tslb_${name} PROPERTIES PUBLIC_HEADER "${ARGN}")
  install(TARGETS tslb_${name} EXPORT tslb-${name}-targets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${component}
    PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tslb COMPONENT ${component}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  install(EXPORT tslb-${name}-targets NAMESPACE tslb:: DESTINATION ${TSLB_CMAKE_DIR} COMPONENT ${component})
endfunction()

# Programs without the durable store need no zstd.
if(TSLB_BUILD_DURABLE)
  tslb_install_archive(durable dev ${TSLB_DURABLE_PUBLIC_HEADERS} ${TSLB_DURABLE_CPP_HEADERS})
  list(APPEND pc_names tslb-durable)
endif()
# In a package of its own, which needs the client of NATS.
if(TSLB_BUILD_REPLICA)
  tslb_install_archive(replica replica ${TSLB_REPLICA_PUBLIC_HEADERS})
endif()

set(generated ${PROJECT_BINARY_DIR}/install)
configure_package_config_file(cmake/tslb-config.cmake.in ${generated}/tslb-config.cmake
  INSTALL_DESTINATION ${TSLB_CMAKE_DIR} NO_SET_AND_CHECK_MACRO)
# Before 1.0 a minor version may break compatibility.
write_basic_package_version_file(${generated}/tslb-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${generated}/tslb-config.cmake ${generated}/tslb-config-version.cmake
  DESTINATION ${TSLB_CMAKE_DIR} COMPONENT dev)

# The relative path from the .pc file's folder to the prefix, computed with the root as the prefix.
file(RELATIVE_PATH TSLB_PREFIX_FROM_PC /${TSLB_PKGCONFIG_DIR} /)
string(REGEX REPLACE "/$" "" TSLB_PREFIX_FROM_PC "${TSLB_PREFIX_FROM_PC}")
list(JOIN TSLB_HOST_LINK_OPTIONS " " TSLB_HOST_PC_OPTIONS)
foreach(name IN LISTS pc_names)
  configure_file(cmake/${name}.pc.in ${generated}/${name}.pc @ONLY)
  install(FILES ${generated}/${name}.pc DESTINATION ${TSLB_PKGCONFIG_DIR} COMPONENT dev)
endforeach()
if(TSLB_BUILD_REPLICA)
  configure_file(cmake/tslb-replica.pc.in ${generated}/tslb-replica.pc @ONLY)
  install(FILES ${generated}/tslb-replica.pc DESTINATION ${TSLB_PKGCONFIG_DIR} COMPONENT replica)
endif()

# The documents, in the folders of this tree, so that their links hold; and the examples: the hosts of the README, event_store,
# typed_readings and converters. For the prefix /usr both are in Debian's folders for documents of a package.
include(cmake/readme_host.cmake)
set(doc_dir ${CMAKE_INSTALL_DATADIR}/doc/tslb)
set(example_dir ${doc_dir}/examples)
set(markdown_dir ${doc_dir})
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(doc_dir ${CMAKE_INSTALL_DATADIR}/doc/tslb-doc)
  set(markdown_dir ${doc_dir}/markdown)
  set(example_dir ${CMAKE_INSTALL_DATADIR}/doc/libtslb-dev/examples)
endif()
file(GLOB documents CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/*.md ${PROJECT_SOURCE_DIR}/docs/*.png)
install(FILES ${documents} DESTINATION ${markdown_dir}/docs COMPONENT doc)
install(FILES README.md CHANGELOG.md CONTRIBUTING.md SECURITY.md DESTINATION ${markdown_dir} COMPONENT doc)
install(FILES bench/RESULTS.md DESTINATION ${markdown_dir}/bench COMPONENT doc)
# With the reference, as pages: scripts/site makes them.
set(TSLB_SITE "" CACHE PATH "Folder of the documents as pages, which is installed too")
if(TSLB_SITE)
  install(DIRECTORY ${TSLB_SITE}/ DESTINATION ${doc_dir}/html COMPONENT doc)
endif()
install(DIRECTORY examples/converters DESTINATION ${example_dir} COMPONENT dev)
install(FILES ${TSLB_README_HOST} DESTINATION ${example_dir} COMPONENT dev)
if(TSLB_BUILD_DURABLE)
  install(FILES ${TSLB_README_DURABLE_HOST} DESTINATION ${example_dir} COMPONENT dev)
  install(DIRECTORY examples/event_store examples/typed_readings DESTINATION ${example_dir} COMPONENT dev)
endif()

# gdb reads a script with a library's name together with that library: from its own share/gdb/auto-load, which it
# trusts, and from the library's folder. Only for a library below /usr is the first folder certain to exist.
set(gdb_modules ${CMAKE_INSTALL_DATADIR}/tslb/gdb)
set(gdb_loader_dir ${CMAKE_INSTALL_LIBDIR})
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(gdb_loader_dir ${CMAKE_INSTALL_DATADIR}/gdb/auto-load/usr/${CMAKE_INSTALL_LIBDIR})
endif()
file(RELATIVE_PATH TSLB_GDB_MODULES_FROM_LOADER /${gdb_loader_dir} /${gdb_modules})
set(gdb_loader ${generated}/libtslb.so.${PROJECT_VERSION}-gdb.py)
configure_file(tools/gdb/tslb-gdb.py.in ${gdb_loader} @ONLY)
install(FILES ${gdb_loader} DESTINATION ${gdb_loader_dir} COMPONENT runtime)
install(DIRECTORY tools/gdb/tslb_gdb DESTINATION ${gdb_modules} COMPONENT runtime FILES_MATCHING PATTERN "*.py")

# The constants of the stored formats for the gdb scripts, generated from their header.
set(stored_header ${PROJECT_SOURCE_DIR}/utils/stored/src/tslb_stored.h)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${stored_header})
file(STRINGS ${stored_header} numbers REGEX "^#define [A-Z_0-9]+ +(0x)?[0-9A-Fa-f]+u?( |$)")
set(gdb_constants "\"\"\"Constants of the stored formats, as in <tslb/tslb_stored.h>.\"\"\"\n\n")
foreach(number IN LISTS numbers)
  string(REGEX REPLACE "^#define ([A-Z_0-9]+) +((0x)?[0-9A-Fa-f]+).*" "\\1 = \\2\n" number "${number}")
  string(APPEND gdb_constants "${number}")
endforeach()
file(CONFIGURE OUTPUT ${generated}/tslb_gdb/stored.py CONTENT "${gdb_constants}" @ONLY)
install(FILES ${generated}/tslb_gdb/stored.py DESTINATION ${gdb_modules}/tslb_gdb COMPONENT runtime)

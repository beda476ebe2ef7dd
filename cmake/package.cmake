# Debian packages, one per component: the library, the development files, those of replicas, the documents, the tools, the
# package of Python, and the database metricdb.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "tslb developers <maintainers@tslb.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # otherwise it precedes the first line of each description
set(CPACK_COMPONENTS_ALL runtime dev doc tools)
if(TARGET metricdb)
  list(APPEND CPACK_COMPONENTS_ALL metricdb)
endif()
if(TSLB_BUILD_REPLICA)
  list(APPEND CPACK_COMPONENTS_ALL replica)
endif()
if(TARGET tslb_python)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/stage.cmake)
# Folder in which dpkg-shlibdeps finds the library that the tools need: its package is not installed here.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(same_version "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

# The packages have the version of the newest entry of their changelog.
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
# A trigger calls ldconfig. postinst and postrm do not exist, and CPack warns about it. Listing them keeps CPack from
# adding its own scripts, which would call ldconfig again.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers postinst postrm)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "storage primitives for time-series databases
Record arrays that grow without moving a record, slot arrays with lists, chunk
pools with 32-bit addresses, and their durable forms: redo records, snapshot
streams and block files.
.
This package contains the shared library, which a database loads.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtslb-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# The archives contain C++: they cannot be linked on a machine with only a C compiler. The durable store uses zstd.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libtslb0 ${same_version}, libstdc++-12-dev | libstdc++-dev, libzstd-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION "storage primitives for time-series databases (development files)
Headers, the link to the shared library, static libraries with a stand-in for
the host's symbols and with the durable store, files for CMake and pkg-config,
and small hosts as examples. The package tslb-doc has the documents.")
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "tslb-doc, pkg-config, cmake")

set(CPACK_DEBIAN_DOC_PACKAGE_NAME tslb-doc)
set(CPACK_DEBIAN_DOC_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)
set(CPACK_COMPONENT_DOC_DESCRIPTION "storage primitives for time-series databases (documents)
The documents of tslb, of its durable stores and of metricdb, the manual pages,
and the reference of all headers, as pages for a browser that need no network.
The documents are also there as Markdown.")

set(CPACK_DEBIAN_REPLICA_PACKAGE_NAME libtslb-replica-dev)
set(CPACK_DEBIAN_REPLICA_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_REPLICA_PACKAGE_DEPENDS "libtslb-dev ${same_version}, libnats-dev")
set(CPACK_COMPONENT_REPLICA_DESCRIPTION "durable stores that other machines follow (development files)
Header and static library with which a durable store of tslb is followed by
others, through NATS JetStream, and the files for CMake and pkg-config.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tslb-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION database)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libtslb0 ${same_version}")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "tools for the stored arrays of tslb databases
Command line programs for arrays that the tslb library stored: tslb-inspect
shows their contents and faults and seals them with checksums, tslb-convert
converts them to older layouts.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-tslb)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "libtslb0 ${same_version}, python3, python3-cffi, python3-numpy")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS "python3-pandas, python3-matplotlib, tslb-doc")
# Compile the modules at the installation, and remove what Python compiled.
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/python/postinst
  ${PROJECT_SOURCE_DIR}/packaging/python/prerm)
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "stored arrays of tslb databases in Python
Opens snapshot streams, block files and durable stores of tslb: records are
NumPy arrays, chunks are memoryviews, and faults are exceptions with file and
byte. Durable stores can also be written, in batches.")

set(CPACK_DEBIAN_METRICDB_PACKAGE_NAME metricdb)
set(CPACK_DEBIAN_METRICDB_PACKAGE_SECTION database)
set(CPACK_DEBIAN_METRICDB_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_METRICDB_PACKAGE_DEPENDS "libtslb0 ${same_version}")
set(CPACK_DEBIAN_METRICDB_PACKAGE_SUGGESTS "tslb-doc")
set(CPACK_DEBIAN_METRICDB_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/metricdb/conffiles
  ${PROJECT_SOURCE_DIR}/packaging/metricdb/postinst ${PROJECT_SOURCE_DIR}/packaging/metricdb/prerm
  ${PROJECT_SOURCE_DIR}/packaging/metricdb/postrm)
set(CPACK_COMPONENT_METRICDB_DESCRIPTION "time-series database for agents and dashboards
Receives points over the HTTP interface of InfluxDB 1.x and over Graphite's
plaintext protocol, answers InfluxQL, and acknowledges points when they are on
the disk. Databases are folders, which can be copied while they are served.
.
The package contains the program, a service of systemd that is not started by
the installation, and its configuration.")

include(CPack)

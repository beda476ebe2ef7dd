# The public headers. They are installed, included by the umbrella header, and compiled one by one by the tests. All
# other headers are private.
set(TSLB_PUBLIC_HEADERS
  catalog/src/mvt.h
  catalog/src/tsdb_multi_thread_trace_log.h
  catalog/src/tsdb_recovery_schema.h
  catalog/src/tsdb_recovery_version_compatibility.h
  catalog/src/tsdb_recovery_version_downgrade_fn.h
  utils/common/src/tslb_atomics.h
  utils/common/src/tslb_decl.h
  utils/common/src/tslb_dlog.h
  utils/common/src/tslb_dlog_macros.h
  utils/common/src/tslb_settings.h
  utils/common/src/tslb_util.h
  utils/common/src/tslb_util_common.h
  utils/common/src/tslb_version.h
  utils/dynarr/src/dynamic_array.h
  utils/dynarr/src/tslb_dynarr.h
  utils/dynmem/src/tslb_dynmem.h
  utils/redo/src/tslb_rd_api.h
  utils/stored/src/tslb_stored.h)
# The headers of libtslb_host.a. The umbrella header does not include them: programs that include it may not link this
# archive.
set(TSLB_HOST_PUBLIC_HEADERS
  recovery/array_check.h
  recovery/array_convert.h
  recovery/array_loader.h
  recovery/array_rebuild.h
  recovery/array_settle.h
  recovery/block_files.h
  recovery/recovery_driver.h
  recovery/redo_applier.h)
# The header of libtslb_durable.a.
set(TSLB_DURABLE_PUBLIC_HEADERS
  durable/durable.h)
# The header of libtslb_replica.a.
set(TSLB_REPLICA_PUBLIC_HEADERS
  replica/replica.h)
# The typed layer, in C++20 alone. It needs nothing but the headers; it is installed with those that it includes.
set(TSLB_HOST_CPP_HEADERS
  cpp/tslb.hpp)
set(TSLB_DURABLE_CPP_HEADERS
  cpp/durable.hpp
  cpp/durable_schema.hpp)
list(TRANSFORM TSLB_HOST_CPP_HEADERS PREPEND ${PROJECT_SOURCE_DIR}/)
list(TRANSFORM TSLB_DURABLE_CPP_HEADERS PREPEND ${PROJECT_SOURCE_DIR}/)
list(TRANSFORM TSLB_REPLICA_PUBLIC_HEADERS PREPEND ${PROJECT_SOURCE_DIR}/)
list(TRANSFORM TSLB_DURABLE_PUBLIC_HEADERS PREPEND ${PROJECT_SOURCE_DIR}/)
list(TRANSFORM TSLB_PUBLIC_HEADERS PREPEND ${PROJECT_SOURCE_DIR}/)
list(TRANSFORM TSLB_HOST_PUBLIC_HEADERS PREPEND ${PROJECT_SOURCE_DIR}/)

# One folder for all of them, as after installation: <tslb/tslb_dynarr.h> is the name in the build tree too.
set(TSLB_HEADER_FOLDER ${PROJECT_BINARY_DIR}/include/tslb)
file(MAKE_DIRECTORY ${TSLB_HEADER_FOLDER})
foreach(header IN LISTS TSLB_PUBLIC_HEADERS TSLB_HOST_PUBLIC_HEADERS TSLB_DURABLE_PUBLIC_HEADERS TSLB_REPLICA_PUBLIC_HEADERS
    TSLB_HOST_CPP_HEADERS TSLB_DURABLE_CPP_HEADERS)
  get_filename_component(name ${header} NAME)
  file(CREATE_LINK ${header} ${TSLB_HEADER_FOLDER}/${name} SYMBOLIC)
endforeach()

set(includes)
foreach(header IN LISTS TSLB_PUBLIC_HEADERS)
  get_filename_component(name ${header} NAME)
  string(APPEND includes "#include \"${name}\"\n")
endforeach()
set(umbrella ${TSLB_HEADER_FOLDER}/tslb.h)
file(CONFIGURE OUTPUT ${umbrella} @ONLY CONTENT
"/* All public headers of libtslb, for C11, and for C++17 and later. Headers of libtslb_host.a are included by name, such as
 * <tslb/array_loader.h>. */
#ifndef TSLB_H
#define TSLB_H

@includes@
#endif
")
list(APPEND TSLB_PUBLIC_HEADERS ${umbrella})

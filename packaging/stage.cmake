# Runs between installation and packing, for each package's folder: adds what Debian requires of packages and a plain
# installation does not need.
file(GLOB packages LIST_DIRECTORIES true ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*)
foreach(root IN LISTS packages)
  get_filename_component(component ${root} NAME)
  string(TOUPPER ${component} component)
  set(doc ${root}/usr/share/doc/${CPACK_DEBIAN_${component}_PACKAGE_NAME})
  # Not with file(INSTALL), which installs everything below DESTDIR.
  execute_process(COMMAND install -D -m 644 ${CMAKE_CURRENT_LIST_DIR}/copyright ${doc}/copyright
    COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND install -D -m 644 ${CMAKE_CURRENT_LIST_DIR}/changelog ${doc}/changelog.Debian
    COMMAND_ERROR_IS_FATAL ANY)

  # Without name and time in the compressed file, so that the same content gives the same bytes.
  file(GLOB_RECURSE to_compress ${root}/usr/share/man/*.[1-9] ${doc}/changelog.Debian)
  execute_process(COMMAND gzip -9n ${to_compress} COMMAND_ERROR_IS_FATAL ANY)

  set(strip strip --remove-section=.comment --remove-section=.note)
  file(GLOB binaries ${root}/usr/bin/* ${root}/usr/lib/*/*.so.*.* ${root}/usr/lib/python3/dist-packages/tslb/_shim.so)
  file(GLOB archives ${root}/usr/lib/*/*.a)
  if(binaries)
    execute_process(COMMAND ${strip} --strip-unneeded ${binaries} COMMAND_ERROR_IS_FATAL ANY)
  endif()
  if(archives)
    execute_process(COMMAND ${strip} --strip-debug --enable-deterministic-archives ${archives}
      COMMAND_ERROR_IS_FATAL ANY)
  endif()
endforeach()

# Run by CPack between the installation into its staging folders and the packing: what Debian's
# policy asks of files that `cmake --install` leaves as they are.
file(GLOB_RECURSE texts ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.[1-9]
  ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/changelog)
list(FILTER texts INCLUDE REGEX "/share/(man|doc)/")
file(GLOB_RECURSE archives ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.a)
if(texts)
  execute_process(COMMAND gzip -9n ${texts} COMMAND_ERROR_IS_FATAL ANY)
endif()
foreach(archive IN LISTS archives)
  execute_process(COMMAND strip --strip-debug --enable-deterministic-archives ${archive}
    COMMAND_ERROR_IS_FATAL ANY)
endforeach()

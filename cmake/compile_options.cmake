# Flags for everything built here. Sanitized builds are the ones that CI runs the tests under.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # False positives of GCC 12 in optimised coroutine frames and std::variant / std::string code.
  add_compile_options(-Wno-maybe-uninitialized -Wno-restrict -Wno-stringop-overflow
    -Wno-array-bounds -Wno-dangling-pointer -Wno-mismatched-new-delete)
endif()
if(TARNLINK_SANITIZE)
  add_compile_options(-fsanitize=${TARNLINK_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TARNLINK_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND TARNLINK_SANITIZE MATCHES "undefined")
    # Clang 14 cannot emit the function-type prologue of coroutines. The vptr check probes memory
    # through a pipe, and so calls everything invalid once descriptors have run out, which tests
    # bring about on purpose.
    add_compile_options(-fno-sanitize=function,vptr)
  endif()
endif()

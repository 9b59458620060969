# How every target of the project is compiled: warnings are errors, sanitizers come from one switch.
add_library(vorlinkit_build_options INTERFACE)
if(VORLINKIT_STRICT)
  target_compile_options(vorlinkit_build_options INTERFACE -Wall -Wextra -Wconversion -Werror)
else()
  # Whatever the project around us asks its own sources to be warned of, or to fail for.
  target_compile_options(vorlinkit_build_options INTERFACE -w)
endif()
if(VORLINKIT_SANITIZE)
  target_compile_options(vorlinkit_build_options INTERFACE -fsanitize=${VORLINKIT_SANITIZE}
                         -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(vorlinkit_build_options INTERFACE -fsanitize=${VORLINKIT_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    # g++ loses track of what is initialised in code that a sanitizer has been added to, and warns of what is not so.
    target_compile_options(vorlinkit_build_options INTERFACE -Wno-maybe-uninitialized)
  endif()
  if(VORLINKIT_SANITIZE MATCHES thread AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    # asio's fences mean nothing to ThreadSanitizer, which g++ warns of; asio's locks order the same memory.
    target_compile_options(vorlinkit_build_options INTERFACE -Wno-tsan)
  endif()
endif()

# Log records name the class that wrote them, on every machine and with every compiler: the location of
# FILES reads NAME instead of a path of the build machine.
# The compiler may be given the file's full path, or (compiler caches rewrite it so) the path from the top of the build
# tree, where it runs.
function(vorlinkit_log_location target name)
  foreach(file IN LISTS ARGN)
    set(full ${CMAKE_CURRENT_SOURCE_DIR}/${file})
    file(RELATIVE_PATH from_build_tree ${CMAKE_BINARY_DIR} ${full})
    set_property(SOURCE ${file} TARGET_DIRECTORY ${target} APPEND PROPERTY COMPILE_OPTIONS
                 -fmacro-prefix-map=${full}=${name} -fmacro-prefix-map=${from_build_tree}=${name})
  endforeach()
endfunction()

# Defaults for all targets: language level, warnings, sanitizers, hidden visibility, output directories.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_VERIFY_INTERFACE_HEADER_SETS ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")

option(ORIEL_BUILD_TESTS "Build the tests" ON)
option(ORIEL_BUILD_BENCH "Build the benchmarks" ON)
set(ORIEL_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize takes them")

add_compile_options(-Wall -Wextra -Werror)
add_compile_options($<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety>)
# Rows of our tables name only the fields that differ from their defaults.
add_compile_options(-Wno-missing-field-initializers)
# What Debian's packages are hardened with, in all builds: what is shipped is what was tested and measured.
if(NOT CMAKE_SYSTEM_NAME STREQUAL "Windows" AND NOT ORIEL_SANITIZE AND CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo")
  add_compile_options(-fstack-protector-strong -D_FORTIFY_SOURCE=2)
  add_link_options(LINKER:-z,relro,-z,now)
endif()
if(ORIEL_SANITIZE)
  add_compile_options(-fsanitize=${ORIEL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${ORIEL_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND ORIEL_SANITIZE MATCHES "undefined")
    # With these, g++ takes no address for a constant, and so none of our tables that the compiler checks. The fuzz targets,
    # made by clang, have them.
    add_compile_options(-fno-sanitize=null,nonnull-attribute,returns-nonnull-attribute)
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND ORIEL_SANITIZE MATCHES "thread")
    # The fences of the store order what processes see of each other's files. The sanitizer looks at threads only.
    add_compile_options(-Wno-error=tsan -Wno-tsan)
  endif()
endif()

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
  set(CMAKE_C_COMPILER_LAUNCHER "${CCACHE_PROGRAM}")
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CCACHE_PROGRAM}")
endif()

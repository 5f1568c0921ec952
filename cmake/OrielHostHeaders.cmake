# oriel_header_library(PACKAGE TARGET FOLDER HEADER [VERSION]): a library that is headers only. When building for another
# system its headers are this machine's: their folder is linked into a directory that holds nothing else, since
# /usr/include itself would bring the C headers of this machine with it.
function(oriel_header_library package target folder header)
  if(NOT CMAKE_CROSSCOMPILING)
    find_package(${package} ${ARGN} REQUIRED GLOBAL)
    return()
  endif()
  if(TARGET ${target})
    return()
  endif()
  find_path(${package}_HEADERS ${folder}/${header} NO_CMAKE_FIND_ROOT_PATH REQUIRED)
  set(apart "${CMAKE_BINARY_DIR}/headers/${package}")
  file(MAKE_DIRECTORY "${apart}")
  file(CREATE_LINK "${${package}_HEADERS}/${folder}" "${apart}/${folder}" SYMBOLIC)
  add_library(${target} INTERFACE IMPORTED GLOBAL)
  target_include_directories(${target} SYSTEM INTERFACE "${apart}")
endfunction()

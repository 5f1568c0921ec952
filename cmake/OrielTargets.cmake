# Matches the names of source files for other systems than the target system.
if(WIN32)
  set(ORIEL_OTHER_SYSTEM "_(linux|posix)[.]cpp$")
else()
  set(ORIEL_OTHER_SYSTEM "_windows[.]cpp$")
endif()

# oriel_sources(TARGET GLOB...): adds all files that match, except those for other systems. The build notices new files.
function(oriel_sources target)
  file(GLOB sources CONFIGURE_DEPENDS ${ARGN})
  list(FILTER sources EXCLUDE REGEX "${ORIEL_OTHER_SYSTEM}")
  target_sources(${target} PRIVATE ${sources})
endfunction()

# oriel_headers(TARGET SCOPE BASE GLOB...): adds headers, each of which must compile alone.
function(oriel_headers target scope base)
  file(GLOB headers CONFIGURE_DEPENDS ${ARGN})
  if(headers)
    target_sources(${target} ${scope} FILE_SET HEADERS BASE_DIRS ${base} FILES ${headers})
  endif()
endfunction()

# oriel_notification_path(TARGET): the code that a notification passes through stands together in the program or library
# that is made of the target.
function(oriel_notification_path target)
  if(WIN32 OR ORIEL_SANITIZE OR NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    return()
  endif()
  set(script "${CMAKE_SOURCE_DIR}/cmake/notification_path.ld")
  target_compile_options(${target} PRIVATE -ffunction-sections)
  target_link_options(${target} PRIVATE LINKER:-T,${script})
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${script}")
endfunction()

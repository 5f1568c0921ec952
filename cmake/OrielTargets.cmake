# A file whose name ends with this is for another system than the one that is built for.
if(WIN32)
  set(ORIEL_OTHER_SYSTEM "_(linux|posix)[.]cpp$")
else()
  set(ORIEL_OTHER_SYSTEM "_windows[.]cpp$")
endif()

# oriel_sources(TARGET GLOB...): the target's sources are all files that match, found anew when one is added; without those
# for another system.
function(oriel_sources target)
  file(GLOB sources CONFIGURE_DEPENDS ${ARGN})
  list(FILTER sources EXCLUDE REGEX "${ORIEL_OTHER_SYSTEM}")
  target_sources(${target} PRIVATE ${sources})
endfunction()

# oriel_headers(TARGET SCOPE BASE GLOB...): headers of the target, each of which must compile alone.
function(oriel_headers target scope base)
  file(GLOB headers CONFIGURE_DEPENDS ${ARGN})
  if(headers)
    target_sources(${target} ${scope} FILE_SET HEADERS BASE_DIRS ${base} FILES ${headers})
  endif()
endfunction()

# oriel_sources(TARGET GLOB...): the target's sources are all files that match, found anew when one is added.
function(oriel_sources target)
  file(GLOB sources CONFIGURE_DEPENDS ${ARGN})
  target_sources(${target} PRIVATE ${sources})
endfunction()

# oriel_headers(TARGET SCOPE BASE GLOB...): headers of the target, each of which must compile alone.
function(oriel_headers target scope base)
  file(GLOB headers CONFIGURE_DEPENDS ${ARGN})
  if(headers)
    target_sources(${target} ${scope} FILE_SET HEADERS BASE_DIRS ${base} FILES ${headers})
  endif()
endfunction()

# The import library of the 32-bit DLL. Callers ask for the decorated names of the calling convention (_Name@4), the DLL has
# the plain ones: the import library leads from the one to the other. How many bytes of parameters a name has is read from
# the DLL's own symbols.
#
# cmake -D NM=... -D DLLTOOL=... -D EXPORTS=exports.def -D DLL=... -D LIBRARY=... -P import_library.cmake
execute_process(COMMAND "${NM}" --defined-only "${DLL}" OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
file(STRINGS "${EXPORTS}" lines REGEX "^ +[A-Za-z]+ .*@[0-9]+")
set(definition "LIBRARY TVSQDZ.DLL\nEXPORTS\n")
foreach(line IN LISTS lines)
  string(REGEX MATCH "[A-Za-z]+" name "${line}")
  if(NOT symbols MATCHES " T _${name}(@[0-9]+)")
    message(FATAL_ERROR "${DLL} has no function ${name} with the standard calling convention")
  endif()
  string(APPEND definition "${name}${CMAKE_MATCH_1}\n")
endforeach()
file(WRITE "${LIBRARY}.def" "${definition}")
execute_process(COMMAND "${DLLTOOL}" --kill-at --input-def "${LIBRARY}.def" --output-lib "${LIBRARY}"
  COMMAND_ERROR_IS_FATAL ANY)

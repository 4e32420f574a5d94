# cmake -DMANIFEST=<manifest.json> -DVALUES=<values.cmake> -DOUTPUT=<file> -P AssembleScript.cmake
#
# Joins the files listed in the manifest, in order, and replaces each listed placeholder
# @NAME@ by the variable NAME from the values file. resources/assemble.mjs is the same for
# the tests. The output is only rewritten when its text changes.
foreach(required MANIFEST VALUES OUTPUT)
  if(NOT DEFINED ${required})
    message(FATAL_ERROR "AssembleScript.cmake needs -D${required}=...")
  endif()
endforeach()

include(${VALUES})
file(READ ${MANIFEST} manifest)
get_filename_component(folder ${MANIFEST} DIRECTORY)

set(text "")
string(JSON file_count LENGTH "${manifest}" files)
math(EXPR last "${file_count} - 1")
foreach(i RANGE ${last})
  string(JSON name GET "${manifest}" files ${i})
  file(READ ${folder}/${name} part)
  string(APPEND text "${part}")
endforeach()

string(JSON placeholder_count LENGTH "${manifest}" placeholders)
math(EXPR last "${placeholder_count} - 1")
foreach(i RANGE ${last})
  string(JSON name GET "${manifest}" placeholders ${i})
  if(NOT DEFINED ${name})
    message(FATAL_ERROR "no value for placeholder ${name}")
  endif()
  string(REPLACE "@${name}@" "${${name}}" text "${text}")
endforeach()

file(WRITE ${OUTPUT}.tmp "${text}")
file(COPY_FILE ${OUTPUT}.tmp ${OUTPUT} ONLY_IF_DIFFERENT)
file(REMOVE ${OUTPUT}.tmp)

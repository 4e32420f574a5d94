# cmake -DINPUT=<file> -DOUTPUT=<file.cpp> -DFUNCTION=<name> -P EmbedText.cmake
#
# Writes a C++ source defining `std::string_view qev::resources::<FUNCTION>()` that returns
# the input file's bytes. A byte array rather than a string literal: compilers cap the
# length of one literal well below what a script may grow to.
foreach(required INPUT OUTPUT FUNCTION)
  if(NOT DEFINED ${required})
    message(FATAL_ERROR "EmbedText.cmake needs -D${required}=...")
  endif()
endforeach()

file(READ ${INPUT} hex HEX)
string(LENGTH "${hex}" hex_length)
math(EXPR byte_count "${hex_length} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${hex}")
# Twenty bytes per line keep the generated file readable in a debugger.
string(REPEAT "'\\\\x[0-9a-f][0-9a-f]'," 20 line_pattern)
string(REGEX REPLACE "(${line_pattern})" "\\1\n    " bytes "${bytes}")

file(WRITE ${OUTPUT}.tmp "// Generated from ${INPUT}; edit the sources, not this file.
#include \"qev/resources.h\"

namespace qev::resources {
namespace {

constexpr char kText[] = {
    ${bytes}'\\0'};

}  // namespace

std::string_view ${FUNCTION}() { return {kText, ${byte_count}}; }

}  // namespace qev::resources
")
file(COPY_FILE ${OUTPUT}.tmp ${OUTPUT} ONLY_IF_DIFFERENT)
file(REMOVE ${OUTPUT}.tmp)

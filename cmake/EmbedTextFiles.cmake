# Writes a C++ source that holds text files as byte arrays, so that texts kept as files in
# the source tree are compiled into the executable.
# Usage: cmake -DOUTPUT=<file.cpp> -DSYMBOL=<name> -DFILES=<a;b;...> -P EmbedTextFiles.cmake
# The source defines
#   extern const std::pair<std::string_view, std::string_view> SYMBOL[];  // {file name, text}
#   extern const size_t SYMBOLCount;
set(body "")
set(table "")
set(index 0)
foreach(path IN LISTS FILES)
  get_filename_component(name "${path}" NAME)
  file(READ "${path}" hex HEX)
  string(LENGTH "${hex}" hexLength)
  math(EXPR size "${hexLength} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${hex}")
  string(APPEND body "constexpr char file${index}[] = {${bytes} 0};\n")
  string(APPEND table "    {\"${name}\", std::string_view(file${index}, ${size})},\n")
  math(EXPR index "${index} + 1")
endforeach()
set(content "// Generated from text files by EmbedTextFiles.cmake; do not edit.
#include <cstddef>
#include <string_view>
#include <utility>

namespace {
${body}} // namespace

extern const std::pair<std::string_view, std::string_view> ${SYMBOL}[] = {
${table}};
extern const size_t ${SYMBOL}Count = ${index};
")
# Rewritten only when it changes, so that an unchanged text does not rebuild its users.
if(EXISTS "${OUTPUT}")
  file(READ "${OUTPUT}" previous)
  if(previous STREQUAL content)
    return()
  endif()
endif()
file(WRITE "${OUTPUT}" "${content}")

# Writes a C++ source that holds text files, for programs that bring what they serve with them.
#   cmake -DOUTPUT=out.cpp -DHEADER=folder/Header.h -DNAMESPACE=a::b -DTEXTS=kName=path,kOther=path -P EmbedTexts.cmake
# HEADER declares each kName as `extern const std::string_view`.

set(source "// Made from the files that it holds.\n#include \"${HEADER}\"\n\nnamespace ${NAMESPACE} {\n\n")
string(REPLACE "," ";" texts "${TEXTS}")
foreach(text IN LISTS texts)
  string(REGEX MATCH "^([^=]+)=(.+)$" matched "${text}")
  set(name "${CMAKE_MATCH_1}")
  file(READ "${CMAKE_MATCH_2}" contents)
  string(APPEND source "constexpr std::string_view ${name}{R\"embedded(${contents})embedded\"};\n")
endforeach()
string(APPEND source "\n}  // namespace ${NAMESPACE}\n")
file(WRITE "${OUTPUT}" "${source}")

# Writes page_files.h: the files of this directory as texts of the program.
#   cmake -DOUTPUT=page_files.h -DDIRECTORY=... -P embed.cmake
set(content "// Made of the files in tools/zelfwtrace/page.\n#pragma once\n\n#include <string_view>\n\n")
string(APPEND content "namespace page_files {\n\n")
foreach(file report.mustache fleet.mustache style.css)
  file(READ ${DIRECTORY}/${file} text)
  cmake_path(GET file STEM name)
  string(APPEND content "inline constexpr std::string_view ${name} = R\"~~~(${text})~~~\";\n\n")
endforeach()
string(APPEND content "}  // namespace page_files\n")
file(WRITE ${OUTPUT} "${content}")

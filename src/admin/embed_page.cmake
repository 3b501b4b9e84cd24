# Writes the page at IN as a C++ string at OUT.
file(READ ${IN} page HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${page}")
file(WRITE ${OUT} "// Generated from page/index.html at build time.\n#include <string_view>\n"
  "namespace qel::admin {\nnamespace {\nconstexpr char kBytes[] = {${bytes}};\n}\n"
  "std::string_view AdminPage() { return {kBytes, sizeof kBytes}; }\n}\n")

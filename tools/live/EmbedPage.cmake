# Writes a C++ source holding the page as one raw string: cmake -DINPUT=... -DOUTPUT=... -P EmbedPage.cmake
file(READ ${INPUT} content)
string(FIND "${content}" ")STYLUS_LIVE_PAGE\"" clash)
if(NOT clash EQUAL -1)
  message(FATAL_ERROR "${INPUT} holds the raw string's closing delimiter")
endif()
file(WRITE ${OUTPUT}.tmp "#include \"PageContent.h\"\n\nnamespace live {\n\nconst char pageHtml[] = R\"STYLUS_LIVE_PAGE(${content})STYLUS_LIVE_PAGE\";\n\n}  // namespace live\n")
file(RENAME ${OUTPUT}.tmp ${OUTPUT})

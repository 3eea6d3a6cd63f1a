# Writes OUTPUT, a C++ source that defines the character array SYMBOL (declared in HEADER) with
# the exact contents of INPUT, so that a script kept as a file of its own is built into a tool.
# Run as: cmake -DINPUT=... -DOUTPUT=... -DSYMBOL=... -DHEADER=... -P embed_text.cmake
file(READ ${INPUT} text)
string(FIND "${text}" ")CVEMBED\"" clash)
if(NOT clash EQUAL -1)
  message(FATAL_ERROR "${INPUT} holds the raw-string delimiter )CVEMBED\"")
endif()
get_filename_component(name ${INPUT} NAME)
file(WRITE ${OUTPUT}.tmp
  "// Generated from ${name} at build time; edit that file, not this one.\n"
  "#include \"${HEADER}\"\n\n"
  "const char ${SYMBOL}[] = R\"CVEMBED(${text})CVEMBED\";\n")
file(RENAME ${OUTPUT}.tmp ${OUTPUT})

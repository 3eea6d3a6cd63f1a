// printWrapped on arbitrary text, output captured: wrapping may turn blanks into line feeds,
// add line feeds and drop blanks, but never lose, add or reorder any other character.
#include <cstring>
#include <string>

#include "installer/console.h"

static std::string withoutBlanks(const char* text, size_t length) {
    std::string kept;
    for (size_t i = 0; i < length; i++)
        if (text[i] != ' ' && text[i] != '\n') kept += text[i];
    return kept;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    static char out[40000];
    FILE* captured = fmemopen(out, sizeof out, "w");
    FILE* saved = stdout;
    stdout = captured;
    int32_t rc = printWrapped(text.c_str());
    stdout = saved;
    long written = ftell(captured);
    fclose(captured);
    size_t kept = strnlen(text.c_str(), 10239);  // the text is cut to the 10240-byte buffer
    if (rc != written) abort();
    if (withoutBlanks(out, static_cast<size_t>(written)) != "***" + withoutBlanks(text.c_str(), kept) + "***")
        abort();
    return 0;
}

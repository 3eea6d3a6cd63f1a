// cvbc: the message compiler.
//
//   cvbc compile <source.msg> <out.cvb>   compiles the readable message source
//   cvbc dump <file.cvb>                  prints a message file back in source form
//
// The source form is described in msgfile.h. Errors go to standard error with the source
// line they concern; the exit status is 0 on success, 1 on bad input, 2 on bad usage.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/cvbc/msgfile.h"

namespace {

void usage() {
    std::fprintf(stderr,
                 "usage: cvbc compile <source.msg> <out.cvb>\n"
                 "       cvbc dump <file.cvb>\n");
}

bool readFile(const char* path, std::vector<unsigned char>& bytes) {
    FILE* f = std::fopen(path, "rb");
    if (!f) return false;
    unsigned char chunk[65536];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0) bytes.insert(bytes.end(), chunk, chunk + got);
    bool ok = !std::ferror(f);
    std::fclose(f);
    return ok;
}

bool writeFile(const char* path, const std::vector<unsigned char>& bytes) {
    FILE* f = std::fopen(path, "wb");
    if (!f) return false;
    bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    ok = std::fclose(f) == 0 && ok;
    return ok;
}

int compile(const char* sourcePath, const char* outPath) {
    std::vector<unsigned char> raw;
    if (!readFile(sourcePath, raw)) {
        std::fprintf(stderr, "cvbc: cannot read %s: %s\n", sourcePath, std::strerror(errno));
        return 1;
    }
    std::vector<MsgEntry> entries;
    std::vector<std::string> errors;
    if (!parseMessageSource(std::string(raw.begin(), raw.end()), entries, errors)) {
        for (const std::string& e : errors) std::fprintf(stderr, "cvbc: %s: %s\n", sourcePath, e.c_str());
        return 1;
    }
    if (!writeFile(outPath, buildMessageFile(entries))) {
        std::fprintf(stderr, "cvbc: cannot write %s: %s\n", outPath, std::strerror(errno));
        std::remove(outPath);
        return 1;
    }
    return 0;
}

int dump(const char* path) {
    std::vector<unsigned char> raw;
    if (!readFile(path, raw)) {
        std::fprintf(stderr, "cvbc: cannot read %s: %s\n", path, std::strerror(errno));
        return 1;
    }
    std::vector<MsgEntry> entries;
    std::string error;
    if (!readMessageFile(raw, entries, error)) {
        std::fprintf(stderr, "cvbc: %s: %s\n", path, error.c_str());
        return 1;
    }
    std::string text = formatMessageSource(entries);
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
        std::fprintf(stderr, "cvbc: cannot write the dump\n");
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "compile") == 0) return compile(argv[2], argv[3]);
    if (argc == 3 && std::strcmp(argv[1], "dump") == 0) return dump(argv[2]);
    usage();
    return 2;
}

// genpayload: writes a deterministic editor-like payload tree for the installation benchmarks.
//
//   genpayload OUTDIR [DIVISOR]
//
// DIVISOR 1 (the default) gives about 142 MB in about 3000 files: many 1-20 KB source-like
// text files, some 0.1-1 MB text and semi-binary files, a dozen 2-10 MB binaries that barely
// compress, in directories 3 to 5 levels deep. DIVISOR 10 gives a tenth of the bytes and of
// the files with the same mix (one large binary instead of twelve). The same arguments always
// give the same bytes: one fixed-seed generator, no clock, no locale.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// xorshift64*: small, fast and the same everywhere.
struct Random {
    uint64_t state;
    explicit Random(uint64_t seed) : state(seed) {}
    uint64_t next() {
        state ^= state >> 12;
        state ^= state << 25;
        state ^= state >> 27;
        return state * 2685821657736338717ull;
    }
    // Uniform in [low, high].
    uint64_t between(uint64_t low, uint64_t high) { return low + next() % (high - low + 1); }
    template <size_t N>
    const char* pick(const char* const (&words)[N]) {
        return words[next() % N];
    }
};

const char* const kWords[] = {
    "buffer", "window",  "cursor", "line",    "column", "mark",   "region", "search", "replace", "macro",
    "key",    "binding", "menu",   "file",    "path",   "tag",    "symbol", "token",  "parse",   "indent",
    "syntax", "color",   "font",   "view",    "scroll", "undo",   "redo",   "clip",   "paste",   "select",
    "block",  "word",    "char",   "count",   "index",  "offset", "length", "size",   "flag",    "mode",
    "state",  "list",    "table",  "entry",   "name",   "value",  "result", "status", "error",   "config",
    "option", "project", "build",  "compile", "debug",  "trace",  "format", "print",  "open",    "close",
    "read",   "write",   "save",   "load",    "find",   "next",   "prev",   "first",  "last",    "begin",
    "end",    "start",   "stop",   "insert",  "delete", "move",   "copy",   "split",  "join",    "wrap",
};
const char* const kTypes[] = {"int", "long", "char *", "unsigned", "void", "struct view *", "bool", "size_t"};
const char* const kKeywords[] = {"if", "while", "for", "switch", "return"};
const char* const kExtensions[] = {".c", ".h", ".e", ".cpp", ".sh", ".txt", ".ini", ".mak"};

void appendIdentifier(Random& random, std::string* out) {
    out->append(random.pick(kWords));
    int parts = static_cast<int>(random.between(0, 2));
    for (int i = 0; i < parts; i++) {
        std::string word = random.pick(kWords);
        word[0] = static_cast<char>(word[0] - 'a' + 'A');
        out->append(word);
    }
}

// C-like source: functions, comments, statements, string and number literals.
void sourceText(Random& random, size_t size, std::string* out) {
    while (out->size() < size) {
        out->append("/* ");
        for (uint64_t w = random.between(4, 12); w > 0; w--) {
            out->append(random.pick(kWords));
            out->push_back(' ');
        }
        out->append("*/\n");
        out->append(random.pick(kTypes));
        out->push_back(' ');
        appendIdentifier(random, out);
        out->append("(int ");
        appendIdentifier(random, out);
        out->append(")\n{\n");
        for (uint64_t s = random.between(3, 14); s > 0; s--) {
            int depth = static_cast<int>(random.between(1, 3));
            out->append(static_cast<size_t>(depth) * 4, ' ');
            if (random.next() % 4 == 0) {
                out->append(random.pick(kKeywords));
                out->append(" (");
                appendIdentifier(random, out);
                out->append(" > ");
                out->append(std::to_string(random.between(0, 4096)));
                out->append(") ");
            }
            appendIdentifier(random, out);
            out->append(" = ");
            appendIdentifier(random, out);
            if (random.next() % 3 == 0) {
                out->append("(\"");
                out->append(random.pick(kWords));
                out->append(" %d\", ");
                out->append(std::to_string(random.between(0, 65535)));
                out->push_back(')');
            }
            out->append(";\n");
        }
        out->append("}\n\n");
    }
    out->resize(size);
}

// Help and documentation text: sentences in paragraphs.
void proseText(Random& random, size_t size, std::string* out) {
    while (out->size() < size) {
        for (uint64_t s = random.between(2, 6); s > 0; s--) {
            std::string first = random.pick(kWords);
            first[0] = static_cast<char>(first[0] - 'a' + 'A');
            out->append(first);
            for (uint64_t w = random.between(5, 16); w > 0; w--) {
                out->push_back(' ');
                out->append(random.pick(kWords));
            }
            out->append(". ");
        }
        out->append("\n\n");
    }
    out->resize(size);
}

// Index and database files: fixed records of small little-endian numbers, a name and a few
// bytes of noise, the kind of file that compresses to about half.
void semiBinary(Random& random, size_t size, std::string* out) {
    uint32_t serial = static_cast<uint32_t>(random.between(0, 1000));
    while (out->size() < size) {
        uint32_t numbers[3] = {serial++, static_cast<uint32_t>(random.between(0, 300)),
                               static_cast<uint32_t>(random.between(0, 1u << 20))};
        for (uint32_t number : numbers)
            for (int b = 0; b < 4; b++) out->push_back(static_cast<char>((number >> (8 * b)) & 0xff));
        std::string name;
        appendIdentifier(random, &name);
        name.resize(20, '\0');
        out->append(name);
        uint64_t noise = random.next();
        out->append(reinterpret_cast<const char*>(&noise), 6);
    }
    out->resize(size);
}

// Executables and libraries that are already dense: random bytes with a header and an
// occasional zero-filled stretch.
void denseBinary(Random& random, size_t size, std::string* out) {
    out->append("\177ELF\2\1\1", 7);
    out->append(57, '\0');
    while (out->size() < size) {
        if (random.next() % 64 == 0) {
            out->append(static_cast<size_t>(random.between(16, 512)), '\0');
            continue;
        }
        for (int i = 0; i < 64; i++) {
            uint64_t word = random.next();
            out->append(reinterpret_cast<const char*>(&word), 8);
        }
    }
    out->resize(size);
}

int makeDirs(const std::string& path) {
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        std::string prefix = path.substr(0, slash);
        if (mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
            fprintf(stderr, "genpayload: cannot create %s: %s\n", prefix.c_str(), strerror(errno));
            return 1;
        }
        if (slash == std::string::npos) return 0;
    }
}

int writeFile(const std::string& path, const std::string& content, mode_t mode) {
    size_t slash = path.rfind('/');
    if (makeDirs(path.substr(0, slash)) != 0) return 1;
    FILE* out = fopen(path.c_str(), "wb");
    if (out == nullptr || fwrite(content.data(), 1, content.size(), out) != content.size() ||
        fclose(out) != 0) {
        fprintf(stderr, "genpayload: cannot write %s: %s\n", path.c_str(), strerror(errno));
        return 1;
    }
    return chmod(path.c_str(), mode) == 0 ? 0 : 1;
}

// A directory 3 to 5 levels below the top of the tree, under one of the given roots.
std::string nestedDir(Random& random, const char* root) {
    std::string dir = root;
    uint64_t rootLevels = 1 + static_cast<uint64_t>(std::count(dir.begin(), dir.end(), '/'));
    uint64_t levels = random.between(3, 5) - rootLevels;
    for (uint64_t l = 0; l < levels; l++) {
        dir.push_back('/');
        // Four names a level, so that directories hold several files each.
        dir.append(kWords[random.next() % 4 + 8 * l]);
    }
    return dir;
}

std::string fileName(Random& random, int serial, const char* extension) {
    std::string name;
    appendIdentifier(random, &name);
    return name + "_" + std::to_string(serial) + extension;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: genpayload OUTDIR [DIVISOR]\n");
        return 2;
    }
    std::string top = argv[1];
    int divisor = argc == 3 ? atoi(argv[2]) : 1;
    if (divisor < 1) {
        fprintf(stderr, "genpayload: DIVISOR must be 1 or more\n");
        return 2;
    }
    if (makeDirs(top) != 0) return 1;
    Random random(0x43564e5354ull * static_cast<uint64_t>(divisor));
    const uint64_t targetBytes = 142000000ull / static_cast<uint64_t>(divisor);
    const int smallFiles = 2880 / divisor, mediumFiles = 80 / divisor;
    const int largeFiles = 12 / divisor > 0 ? 12 / divisor : 1;

    static const char* const kSourceRoots[] = {"src", "macros/lib", "samples", "include/cv"};
    uint64_t written = 0;
    int files = 0;
    std::string content;
    for (int i = 0; i < smallFiles; i++, files++) {
        content.clear();
        size_t size = static_cast<size_t>(random.between(1024, uint64_t{20} * 1024));
        const char* extension = kExtensions[random.next() % 8];
        if (strcmp(extension, ".txt") == 0)
            proseText(random, size, &content);
        else
            sourceText(random, size, &content);
        std::string dir = nestedDir(random, kSourceRoots[random.next() % 4]);
        if (writeFile(top + "/" + dir + "/" + fileName(random, i, extension), content, 0644) != 0) return 1;
        written += size;
    }
    for (int i = 0; i < mediumFiles; i++, files++) {
        content.clear();
        size_t size = static_cast<size_t>(random.between(uint64_t{100} * 1024, uint64_t{1024} * 1024));
        bool text = i % 2 == 0;
        if (text)
            proseText(random, size, &content);
        else
            semiBinary(random, size, &content);
        std::string dir = nestedDir(random, text ? "help" : "data");
        if (writeFile(top + "/" + dir + "/" + fileName(random, i, text ? ".hlp" : ".db"), content, 0644) != 0)
            return 1;
        written += size;
    }
    // The large binaries take what is left of the target, split in random shares of 2-10 MB.
    uint64_t left = targetBytes > written ? targetBytes - written : 0;
    std::vector<uint64_t> shares(static_cast<size_t>(largeFiles));
    uint64_t shareTotal = 0;
    for (uint64_t& share : shares) shareTotal += share = random.between(2, 10);
    if (shareTotal == 0) shareTotal = 1;  // no large files at all
    for (int i = 0; i < largeFiles; i++, files++) {
        uint64_t size = left * shares[static_cast<size_t>(i)] / shareTotal;
        if (size < 2000000) size = 2000000;
        if (size > 10000000) size = 10000000;
        content.clear();
        denseBinary(random, static_cast<size_t>(size), &content);
        std::string dir = nestedDir(random, "lib");
        if (writeFile(top + "/" + dir + "/" + fileName(random, i, ".so"), content, 0755) != 0) return 1;
        written += size;
    }
    printf("genpayload: %d files, %llu bytes in %s\n", files, static_cast<unsigned long long>(written),
           top.c_str());
    return 0;
}

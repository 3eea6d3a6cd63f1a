// Writing and reading the SHA-256 list in sha256sum's format.
#include "tools/common/sha256list.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "tools/common/linelist.h"

int buildSha256List(const char* program, const std::string& root, const std::vector<std::string>& names,
                    std::string* list) {
    std::vector<std::pair<std::string, std::string>> files;
    files.reserve(names.size());
    for (const std::string& name : names) files.emplace_back(name, root + "/" + name);
    return buildSha256ListOf(program, std::move(files), list);
}

int buildSha256ListOf(const char* program, std::vector<std::pair<std::string, std::string>> files,
                      std::string* list) {
    std::sort(files.begin(), files.end());
    list->clear();
    for (const auto& file : files) {
        char hex[kSha256HexSize];
        if (sha256File(file.second.c_str(), hex) != 0) {
            fprintf(stderr, "%s: cannot read %s: %s\n", program, file.second.c_str(), strerror(errno));
            return 1;
        }
        *list += sha256SumLine(hex, file.first);
    }
    return 0;
}

int parseSha256Line(const std::string& line, Sha256Entry* entry) {
    bool escaped = !line.empty() && line[0] == '\\';
    size_t at = escaped ? 1 : 0;
    if (line.size() < at + 66) return 1;
    for (int i = 0; i < 64; i++) {
        auto c = static_cast<unsigned char>(line[at + i]);
        if (isxdigit(c) == 0) return 1;
        entry->hex[i] = static_cast<char>(tolower(c));
    }
    entry->hex[64] = '\0';
    at += 64;
    if (line[at] != ' ' || (line[at + 1] != ' ' && line[at + 1] != '*')) return 1;
    entry->name.clear();
    for (at += 2; at < line.size(); at++) {
        char c = line[at];
        if (escaped && c == '\\') {
            if (++at >= line.size()) return 1;
            c = line[at] == 'n' ? '\n' : line[at];
        }
        entry->name += c;
    }
    return entry->name.empty() ? 1 : 0;
}

size_t parseSha256List(const std::string& text, std::vector<Sha256Entry>* entries) {
    return parseLineList(text, entries, parseSha256Line);
}

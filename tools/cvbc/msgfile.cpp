// Message file source and binary forms (see msgfile.h for both layouts).
#include "tools/cvbc/msgfile.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const uint32_t kMagic = 4386;

std::string lineError(int line, const std::string& what) {
    return "line " + std::to_string(line) + ": " + what;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Decodes the escapes of one text; false with a reason when one is malformed.
bool unescape(const std::string& raw, std::string& out, std::string& why) {
    out.clear();
    for (size_t i = 0; i < raw.size(); i++) {
        char c = raw[i];
        if (c != '\\') {
            out += c;
            continue;
        }
        if (i + 1 >= raw.size()) {
            why = "backslash at the end of the text (write \\\\ for a backslash)";
            return false;
        }
        char e = raw[++i];
        if (e == 'n')
            out += '\n';
        else if (e == 't')
            out += '\t';
        else if (e == 'r')
            out += '\r';
        else if (e == '\\')
            out += '\\';
        else if (e == 'x') {
            int hi = i + 1 < raw.size() ? hexValue(raw[i + 1]) : -1;
            int lo = i + 2 < raw.size() ? hexValue(raw[i + 2]) : -1;
            if (hi < 0 || lo < 0) {
                why = "\\x needs two hex digits";
                return false;
            }
            if (hi == 0 && lo == 0) {
                why = "a text cannot hold a NUL byte";
                return false;
            }
            out += char(hi * 16 + lo);
            i += 2;
        } else {
            why = std::string("unknown escape \\") + e;
            return false;
        }
    }
    return true;
}

std::string escape(const std::string& text) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else if (c == '\t')
            out += "\\t";
        else if (c == '\r')
            out += "\\r";
        else if (c < 0x20 || c == 0x7f) {
            out += "\\x";
            out += kHex[c >> 4];
            out += kHex[c & 15];
        } else {
            out += char(c);
        }
    }
    return out;
}

void putWord(std::vector<unsigned char>& out, int64_t value) {
    uint32_t v = uint32_t(value);
    for (int i = 0; i < 4; i++) out.push_back(static_cast<unsigned char>(v >> (8 * i)));
}

int32_t getWord(const std::vector<unsigned char>& bytes, size_t at) {
    return int32_t(uint32_t(bytes[at]) | uint32_t(bytes[at + 1]) << 8 | uint32_t(bytes[at + 2]) << 16 |
                   uint32_t(bytes[at + 3]) << 24);
}

}  // namespace

bool parseMessageSource(const std::string& source, std::vector<MsgEntry>& entries,
                        std::vector<std::string>& errors) {
    size_t errorsBefore = errors.size();
    entries.clear();
    size_t pos = 0;
    int line = 0;
    while (pos < source.size()) {
        size_t end = source.find('\n', pos);
        if (end == std::string::npos) end = source.size();
        std::string text = source.substr(pos, end - pos);
        pos = end + 1;
        line++;
        if (!text.empty() && text.back() == '\r') text.pop_back();
        if (text.empty() || text[0] == '#') continue;

        size_t tab = text.find('\t');
        std::string codeText = text.substr(0, tab);
        const char* digits = codeText.c_str();
        char* stop = nullptr;
        errno = 0;
        long long code = std::strtoll(digits, &stop, 10);
        bool numeric = !codeText.empty() && *stop == 0 && errno == 0 &&
                       (std::isdigit(static_cast<unsigned char>(codeText[0])) || codeText[0] == '-' ||
                        codeText[0] == '+');
        if (!numeric) {
            errors.push_back(lineError(line, "code '" + codeText + "' is not a number"));
            continue;
        }
        if (tab == std::string::npos) {
            errors.push_back(lineError(line, "a TAB must separate the code from its text"));
            continue;
        }
        if (code > 0) {
            errors.push_back(lineError(line, "code " + codeText + " is positive; codes are 0 or negative"));
            continue;
        }
        if (code < kMsgLowestCode) {
            errors.push_back(
                lineError(line, "code " + codeText + " is below " + std::to_string(kMsgLowestCode)));
            continue;
        }
        MsgEntry entry;
        entry.code = int32_t(code);
        entry.line = line;
        std::string why;
        if (!unescape(text.substr(tab + 1), entry.text, why)) {
            errors.push_back(lineError(line, why));
            continue;
        }
        bool duplicate = false;
        for (const MsgEntry& seen : entries) {
            if (seen.code == entry.code) {
                errors.push_back(lineError(line, "code " + std::to_string(entry.code) +
                                                     " already given on line " + std::to_string(seen.line)));
                duplicate = true;
                break;
            }
        }
        if (!duplicate) entries.push_back(entry);
    }
    bool hasGeneric = false;
    for (const MsgEntry& e : entries) hasGeneric = hasGeneric || e.code == 0;
    if (!hasGeneric && errors.size() == errorsBefore)
        errors.push_back("no entry for code 0 (the text for codes without one of their own)");
    return errors.size() == errorsBefore;
}

std::string formatMessageSource(const std::vector<MsgEntry>& entries) {
    std::string out;
    for (const MsgEntry& e : entries) {
        out += std::to_string(e.code);
        out += '\t';
        out += escape(e.text);
        out += '\n';
    }
    return out;
}

std::vector<unsigned char> buildMessageFile(const std::vector<MsgEntry>& entries) {
    std::vector<unsigned char> out;
    putWord(out, kMagic);
    putWord(out, 8 + 8 * int64_t(entries.size()) + 8);
    int64_t offset = 0;
    for (const MsgEntry& e : entries) {
        putWord(out, e.code);
        putWord(out, offset);
        offset += int64_t(e.text.size()) + 1;
    }
    putWord(out, 0);
    putWord(out, -1);
    for (const MsgEntry& e : entries) {
        out.insert(out.end(), e.text.begin(), e.text.end());
        out.push_back(0);
    }
    return out;
}

bool readMessageFile(const std::vector<unsigned char>& bytes, std::vector<MsgEntry>& entries,
                     std::string& error) {
    entries.clear();
    if (bytes.size() < 8 || uint32_t(getWord(bytes, 0)) != kMagic) {
        error = "not a message file (magic 4386 missing)";
        return false;
    }
    if (bytes.size() > 0x7FFFFFFF) {
        error = "file too large";
        return false;
    }
    int64_t size = int64_t(bytes.size());
    int64_t textBase = getWord(bytes, 4);
    if (textBase < 0 || textBase > size) {
        error = "text area starts outside the file";
        return false;
    }
    int64_t at = 8;
    for (;; at += 8) {
        if (at + 8 > size) {
            error = "entry table has no terminator";
            return false;
        }
        int32_t code = getWord(bytes, size_t(at));
        int32_t textOffset = getWord(bytes, size_t(at + 4));
        if (textOffset < 0) break;
        int64_t start = textBase + textOffset;
        if (start >= size) {
            error = "text of code " + std::to_string(code) + " lies outside the file";
            return false;
        }
        const unsigned char* begin = bytes.data() + start;
        const void* nul = std::memchr(begin, 0, size_t(size - start));
        if (!nul) {
            error = "text of code " + std::to_string(code) + " is not terminated";
            return false;
        }
        MsgEntry e;
        e.code = code;
        e.text.assign(reinterpret_cast<const char*>(begin), static_cast<const unsigned char*>(nul) - begin);
        e.line = 0;
        entries.push_back(e);
    }
    return true;
}

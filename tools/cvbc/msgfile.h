// Message file source and binary forms, shared by the cvbc tool and its tests.
//
// Source form: one entry per line, "<code><TAB><text>". The code is 0 or a negative number
// (not below -100000); the text runs to the end of the line. In texts, "\n", "\t", "\r" and
// "\\" stand for a line feed, a tab, a carriage return and a backslash, and "\xHH" for any
// byte given by two hex digits (NUL excepted). Empty lines and lines whose first character is
// "#" are ignored; a carriage return at the very end of a line is dropped (CRLF sources).
//
// Binary form: magic 4386, textBase, (code, textOffset) entries, a terminator entry with
// textOffset -1, then the NUL-terminated texts; 32-bit little-endian words, text offsets
// counted from textBase.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

struct MsgEntry {
    int32_t code;
    std::string text;
    int line;  // source line, 0 when read from a binary file
};

const int32_t kMsgLowestCode = -100000;

// Parses source text into entries (in source order). Every problem is appended to errors as
// "line N: ..." (or a plain sentence for the file as a whole); returns true when there is none.
bool parseMessageSource(const std::string& source, std::vector<MsgEntry>& entries,
                        std::vector<std::string>& errors);

// Writes entries in source form; parseMessageSource reads it back unchanged.
std::string formatMessageSource(const std::vector<MsgEntry>& entries);

// Lays out the binary message file: entries in the given order, texts in the same order.
std::vector<unsigned char> buildMessageFile(const std::vector<MsgEntry>& entries);

// Reads a binary message file back into entries (file order). Returns false with a reason in
// error when the file is not a well-formed message file.
bool readMessageFile(const std::vector<unsigned char>& bytes, std::vector<MsgEntry>& entries,
                     std::string& error);

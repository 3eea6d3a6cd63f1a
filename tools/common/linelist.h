// The lists that cvmkdist packs beside the file list (distribsha256, distribmodes) hold one
// record a line; this reads such a text with the parser of one line.
#pragma once
#include <string>
#include <vector>

// Appends the record of every line of text to entries; a last line without a line feed counts.
// 0, or the number of the first line that parseLine refuses (non-zero).
template <typename Entry, typename ParseLine>
size_t parseLineList(const std::string& text, std::vector<Entry>* entries, ParseLine parseLine) {
    size_t number = 0;
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        number++;
        Entry entry;
        if (parseLine(text.substr(start, end - start), &entry) != 0) return number;
        entries->push_back(entry);
        start = end + 1;
    }
    return 0;
}

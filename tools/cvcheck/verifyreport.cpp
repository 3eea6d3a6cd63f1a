// Text and JSON output of cvcheck verify. JSON through nlohmann/json, which escapes quotes,
// backslashes and control characters; bytes that are not UTF-8 cannot stand in a JSON string,
// so a path holding any is given a second time as hex ("path_hex", "file_hex").
#include "tools/cvcheck/verifyreport.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "tools/common/sha256list.h"

namespace {

using nlohmann::json;

struct Counts {
    size_t byMethod[3] = {0, 0, 0};
    size_t byDrift[5] = {0, 0, 0, 0, 0};
};

Counts countResults(const VerifyReport& report) {
    Counts counts;
    for (const FileCheck& result : report.results) {
        counts.byMethod[result.method]++;
        counts.byDrift[result.drift]++;
    }
    return counts;
}

size_t differing(const Counts& counts) {
    return counts.byDrift[kMissing] + counts.byDrift[kSize] + counts.byDrift[kContent];
}

// Why a file differs, in words.
std::string detail(const ListedFile& file, const FileCheck& result) {
    switch (result.drift) {
        case kSize:
            return "listed with " + std::to_string(file.size) + " bytes, has " +
                   std::to_string(result.actualSize);
        case kContent:
            if (result.error == ELOOP) return "a symbolic link";
            if (result.error == ENOTDIR) return "a directory on its path is a symbolic link or no directory";
            if (result.error != 0) return "not a regular file";
            return result.method == kBySha256 ? "SHA-256 differs" : "byte sum differs";
        case kUnreadable:
            return strerror(result.error);
        default:
            return "";
    }
}

void putPath(json* record, const std::string& key, const std::string& bytes) {
    (*record)[key] = bytes;
    json text = bytes;
    if (text.dump(-1, ' ', false, json::error_handler_t::ignore) ==
        text.dump(-1, ' ', false, json::error_handler_t::replace))
        return;
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char c : bytes) hex += std::string{kDigits[c >> 4], kDigits[c & 15]};
    (*record)[key + "_hex"] = hex;
}

void printJson(const json& document) {
    printf("%s\n", document.dump(2, ' ', false, json::error_handler_t::replace).c_str());
}

}  // namespace

int verifyStatus(const VerifyReport& report) {
    Counts counts = countResults(report);
    if (differing(counts) != 0) return 1;
    return counts.byDrift[kUnreadable] != 0 ? 2 : 0;
}

void printVerifyText(const VerifyReport& report) {
    const Installation& inst = *report.installation;
    for (size_t i = 0; i < report.checked.size(); i++) {
        const FileCheck& result = report.results[i];
        if (result.drift == kSame) continue;
        std::string why = detail(*report.checked[i], result);
        printf("%-10s %s%s\n", driftName(result.drift), installedPath(inst, *report.checked[i]).c_str(),
               why.empty() ? "" : (" (" + why + ")").c_str());
    }
    Counts counts = countResults(report);
    printf("cvcheck: %zu of %zu checked files differ in %s (", differing(counts), report.checked.size(),
           inst.dir.c_str());
    const char* separator = "";
    if (inst.sha256List) {
        printf("SHA-256 list %s: %zu", kSha256ListName, counts.byMethod[kBySha256]);
        separator = ", ";
    }
    if (!inst.sha256List || counts.byMethod[kByByteSum] != 0)
        printf("%sbyte sums of %s: %zu", separator, inst.listName.c_str(), counts.byMethod[kByByteSum]);
    if (counts.byMethod[kBySize] != 0) printf(", size alone: %zu", counts.byMethod[kBySize]);
    if (report.leftOut != 0) printf("; %zu that the installation changes itself left out", report.leftOut);
    printf(")");
    if (counts.byDrift[kUnreadable] != 0) printf(", %zu could not be read", counts.byDrift[kUnreadable]);
    printf("\n");
}

void printVerifyJson(const VerifyReport& report) {
    const Installation& inst = *report.installation;
    Counts counts = countResults(report);
    json files = json::array();
    for (size_t i = 0; i < report.checked.size(); i++) {
        const ListedFile& file = *report.checked[i];
        const FileCheck& result = report.results[i];
        if (result.drift == kSame) continue;
        json record = json::object();
        putPath(&record, "path", file.name);
        putPath(&record, "file", installedPath(inst, file));
        record["kind"] = driftName(result.drift);
        record["check"] = methodName(result.method);
        record["detail"] = detail(file, result);
        record["expected_size"] = file.size;
        if (result.drift == kSize) record["actual_size"] = result.actualSize;
        files.push_back(record);
    }
    int status = verifyStatus(report);
    json document = json::object();
    document["command"] = "verify";
    putPath(&document, "directory", inst.dir);
    putPath(&document, "installation", inst.install);
    document["plugin"] = inst.plugin;
    document["list"] = inst.listName;
    document["list_sha256"] = inst.listSha256;
    document["check"] = inst.sha256List ? "sha256" : "bytesum";
    document["status"] = status == 0 ? "clean" : status == 1 ? "differs" : "unreadable";
    document["exit"] = status;
    document["counts"] = {{"listed", inst.files.size()},
                          {"checked", report.checked.size()},
                          {"sha256", counts.byMethod[kBySha256]},
                          {"bytesum", counts.byMethod[kByByteSum]},
                          {"size_only", counts.byMethod[kBySize]},
                          {"left_out", report.leftOut},
                          {"nothing_to_check", report.nothingToCheck},
                          {"differ", differing(counts)},
                          {"missing", counts.byDrift[kMissing]},
                          {"size", counts.byDrift[kSize]},
                          {"content", counts.byDrift[kContent]},
                          {"unreadable", counts.byDrift[kUnreadable]}};
    document["files"] = files;
    printJson(document);
}

void printCannotCheck(const char* dir, const std::string& why, bool json) {
    fprintf(stderr, "cvcheck: cannot check %s: %s\n", dir, why.c_str());
    if (!json) return;
    nlohmann::json document = nlohmann::json::object();
    document["command"] = "verify";
    putPath(&document, "directory", dir);
    document["status"] = "cannot-check";
    document["exit"] = 2;
    putPath(&document, "reason", why);
    printJson(document);
}

// Text and JSON output of cvcheck verify. JSON through nlohmann/json, which escapes quotes,
// backslashes and control characters; bytes that are not UTF-8 cannot stand in a JSON string,
// so a path holding any is given a second time as hex ("path_hex", "file_hex").
#include "tools/cvcheck/verifyreport.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>
#include <nlohmann/json.hpp>

#include "tools/common/sha256list.h"

namespace {

using nlohmann::json;

struct Counts {
    size_t byMethod[3] = {0, 0, 0};
    size_t byDrift[5] = {0, 0, 0, 0, 0};
    size_t mode = 0, owner = 0, differ = 0, dirsDiffer = 0;
};

Counts countResults(const VerifyReport& report) {
    Counts counts;
    for (const FileCheck& result : report.results) {
        counts.byMethod[result.method]++;
        counts.byDrift[result.drift]++;
        counts.mode += result.modeChanged ? 1 : 0;
        counts.owner += result.ownerChanged ? 1 : 0;
        counts.differ += differs(result) ? 1 : 0;
    }
    for (const FileCheck& result : report.dirResults) {
        counts.mode += result.modeChanged ? 1 : 0;
        counts.owner += result.ownerChanged ? 1 : 0;
        counts.dirsDiffer += differs(result) ? 1 : 0;
    }
    return counts;
}

size_t differing(const Counts& counts) {
    return counts.differ;
}

std::string octal(unsigned mode) {
    char text[8];
    snprintf(text, sizeof(text), "%04o", mode & 07777);
    return text;
}

// Each way a file differs, as (kind, detail): its content or size first, then mode and owner.
std::vector<std::pair<std::string, std::string>> findings(const ListedFile& file, const FileCheck& result);

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

std::vector<std::pair<std::string, std::string>> findings(const ListedFile& file, const FileCheck& result) {
    std::vector<std::pair<std::string, std::string>> found;
    if (result.drift != kSame) found.emplace_back(driftName(result.drift), detail(file, result));
    if (result.modeChanged)
        found.emplace_back(
            "mode", "listed " + octal(static_cast<unsigned>(file.mode)) + ", is " + octal(result.mode));
    if (result.ownerChanged)
        found.emplace_back("owner", "listed root, owned by uid " + std::to_string(result.owner));
    return found;
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
    if (differing(counts) != 0 || counts.dirsDiffer != 0) return 1;
    return counts.byDrift[kUnreadable] != 0 ? 2 : 0;
}

void printVerifyText(const VerifyReport& report) {
    const Installation& inst = *report.installation;
    for (size_t i = 0; i < report.checked.size(); i++) {
        for (const auto& finding : findings(*report.checked[i], report.results[i])) {
            printf("%-10s %s%s\n", finding.first.c_str(), installedPath(inst, *report.checked[i]).c_str(),
                   finding.second.empty() ? "" : (" (" + finding.second + ")").c_str());
        }
    }
    for (size_t i = 0; i < inst.dirs.size(); i++) {
        for (const auto& finding : findings(inst.dirs[i], report.dirResults[i]))
            printf("%-10s %s/ (%s)\n", finding.first.c_str(), installedPath(inst, inst.dirs[i]).c_str(),
                   finding.second.c_str());
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
    if (counts.dirsDiffer != 0)
        printf(", and %zu of %zu directories differ", counts.dirsDiffer, inst.dirs.size());
    printf("\n");
    std::string advice = verifyAdvice(report);
    if (!advice.empty()) printf("cvcheck: %s\n", advice.c_str());
}

std::string verifyAdvice(const VerifyReport& report) {
    const std::string& dir = report.installation->dir;
    switch (verifyStatus(report)) {
        case 1:
            return "to put the files back, install the release again into " + dir +
                   "; to take the installation off, run: cvcheck remove " + dir;
        case 2:
            return "run cvcheck as a user who may read every installed file (root, for an installation by "
                   "root)";
        default:
            return "";
    }
}

void printVerifyJson(const VerifyReport& report) {
    const Installation& inst = *report.installation;
    Counts counts = countResults(report);
    json files = json::array();
    for (size_t i = 0; i < report.checked.size(); i++) {
        const ListedFile& file = *report.checked[i];
        const FileCheck& result = report.results[i];
        for (const auto& finding : findings(file, result)) {
            json record = json::object();
            putPath(&record, "path", file.name);
            putPath(&record, "file", installedPath(inst, file));
            record["kind"] = finding.first;
            record["check"] =
                finding.first == "mode" || finding.first == "owner" ? "modes" : methodName(result.method);
            record["detail"] = finding.second;
            if (file.size >= 0) record["expected_size"] = file.size;
            if (result.drift == kSize && finding.first == "size") record["actual_size"] = result.actualSize;
            if (finding.first == "mode") record["expected_mode"] = octal(static_cast<unsigned>(file.mode));
            if (finding.first == "mode") record["actual_mode"] = octal(result.mode);
            if (finding.first == "owner") record["actual_uid"] = result.owner;
            files.push_back(record);
        }
    }
    for (size_t i = 0; i < inst.dirs.size(); i++) {
        for (const auto& finding : findings(inst.dirs[i], report.dirResults[i])) {
            json record = json::object();
            putPath(&record, "path", inst.dirs[i].name + "/");
            putPath(&record, "file", installedPath(inst, inst.dirs[i]) + "/");
            record["kind"] = finding.first;
            record["check"] = "modes";
            record["detail"] = finding.second;
            record["directory"] = true;
            if (finding.first == "mode")
                record["expected_mode"] = octal(static_cast<unsigned>(inst.dirs[i].mode));
            if (finding.first == "mode") record["actual_mode"] = octal(report.dirResults[i].mode);
            if (finding.first == "owner") record["actual_uid"] = report.dirResults[i].owner;
            files.push_back(record);
        }
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
                          {"unreadable", counts.byDrift[kUnreadable]},
                          {"mode", counts.mode},
                          {"owner", counts.owner},
                          {"directories", inst.dirs.size()},
                          {"directories_differ", counts.dirsDiffer}};
    document["modes"] = inst.modeList;
    document["files"] = files;
    std::string advice = verifyAdvice(report);
    if (!advice.empty()) document["advice"] = advice;
    printJson(document);
}

void printCannotCheck(const char* dir, const std::string& why, const std::string& advice, bool json) {
    fprintf(stderr, "cvcheck: cannot check %s: %s\n", dir, why.c_str());
    if (!advice.empty()) fprintf(stderr, "cvcheck: %s\n", advice.c_str());
    if (!json) return;
    nlohmann::json document = nlohmann::json::object();
    document["command"] = "verify";
    putPath(&document, "directory", dir);
    document["status"] = "cannot-check";
    document["exit"] = 2;
    putPath(&document, "reason", why);
    if (!advice.empty()) document["advice"] = advice;
    printJson(document);
}

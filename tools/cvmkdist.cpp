// cvmkdist: builds a distribution directory from a payload tree.
//
//   cvmkdist --payload DIR --package NAME --out DISTDIR
//            [--installer FILE] [--messages FILE] [--license FILE] [--checker FILE]
//   cvmkdist --payload DIR --list-only
//
// The payload is the editor tree as it will stand in the installation directory. cvmkdist
// writes the file list "distribfilelist" (path, size and byte sum of every regular file,
// sorted), packs the tree plus that list into a gzip-compressed tar package named NAME in
// DISTDIR, and copies the installer, its message file, the licence text and the installation
// checker cvcheck beside it (each only when given). The package also holds "distribsha256", the
// SHA-256 list of the listed files (tools/sha256list.h), which the file list does not name.
// The payload directory itself is never written: the tree is packed from a staged copy.
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <iterator>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tools/sha256list.h"

namespace {

const char kListName[] = "distribfilelist";
// The installer reads list lines of at most 511 characters including the line feed, and
// its checksums and sizes as signed 32-bit numbers.
const size_t kMaxListLine = 511;
const uint64_t kMaxListedValue = 2147483647u;

struct Entry {
    std::string path;  // relative to the payload root, no leading "/"
    char kind;         // 'd' directory, 'f' regular file, 'l' symbolic link
    uint64_t size;
    uint32_t sum;
};

// Newest modification time in the payload; the list gets it, so that the same payload
// always packs into the same bytes.
struct timespec gNewestChange = {0, 0};

struct Options {
    std::string payload, package, out, installer, messages, license, checker;
    bool listOnly = false;
};

void usage() {
    fprintf(stderr,
            "usage: cvmkdist --payload DIR --package NAME --out DISTDIR\n"
            "                [--installer FILE] [--messages FILE] [--license FILE] [--checker FILE]\n"
            "       cvmkdist --payload DIR --list-only\n"
            "NAME is one of cvpack, cvpacku, cvpackd, cvpackep, cvpackepd.\n");
}

int fail(const char* format, const std::string& what, const char* detail = nullptr) {
    fprintf(stderr, "cvmkdist: ");
    fprintf(stderr, format, what.c_str());
    if (detail) fprintf(stderr, ": %s", detail);
    fprintf(stderr, "\n");
    return 1;
}

// One shell word holding exactly the given text.
std::string shellQuote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    quoted += "'";
    return quoted;
}

bool isPackageName(const std::string& name) {
    static const char* const kNames[] = {"cvpack", "cvpacku", "cvpackd", "cvpackep", "cvpackepd"};
    return std::any_of(std::begin(kNames), std::end(kNames),
                       [&](const char* known) { return name == known; });
}

int parseOptions(int argc, char** argv, Options* options) {
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        std::string* target = nullptr;
        if (arg == "--payload")
            target = &options->payload;
        else if (arg == "--package")
            target = &options->package;
        else if (arg == "--out")
            target = &options->out;
        else if (arg == "--installer")
            target = &options->installer;
        else if (arg == "--messages")
            target = &options->messages;
        else if (arg == "--license")
            target = &options->license;
        else if (arg == "--checker")
            target = &options->checker;
        else if (arg == "--list-only") {
            options->listOnly = true;
            continue;
        } else if (arg == "-h" || arg == "--help") {
            usage();
            exit(0);
        } else {
            usage();
            return fail("unknown argument '%s'", arg);
        }
        if (i + 1 >= argc) {
            usage();
            return fail("option %s needs a value", arg);
        }
        *target = argv[++i];
        if (target->empty()) return fail("option %s has an empty value", arg);
    }
    if (options->payload.empty()) {
        usage();
        return fail("%s", "no payload directory given (--payload)");
    }
    if (options->listOnly) return 0;
    if (options->package.empty() || options->out.empty()) {
        usage();
        return fail("%s", "--package and --out are required");
    }
    if (!isPackageName(options->package))
        return fail(
            "'%s' is not a distribution package name "
            "(cvpack, cvpacku, cvpackd, cvpackep, cvpackepd)",
            options->package);
    return 0;
}

// Sum of all bytes as unsigned 8-bit values in a wrapping 32-bit accumulator; the
// installer computes the same over the installed file.
int byteSum(const std::string& file, uint64_t* size, uint32_t* sum) {
    int fd = open(file.c_str(), O_RDONLY);
    if (fd < 0) return fail("cannot open %s", file, strerror(errno));
    unsigned char block[65536];
    uint32_t total = 0;
    uint64_t count = 0;
    for (;;) {
        ssize_t n = read(fd, block, sizeof(block));
        if (n < 0) {
            if (errno == EINTR) continue;
            int saved = errno;
            close(fd);
            return fail("cannot read %s", file, strerror(saved));
        }
        if (n == 0) break;
        for (ssize_t k = 0; k < n; k++) total += block[k];
        count += (uint64_t)n;
    }
    close(fd);
    *size = count;
    *sum = total;
    return 0;
}

// Collects every entry below root/relative, depth first.
int walkTree(const std::string& root, const std::string& relative, std::vector<Entry>* entries) {
    std::string dirPath = relative.empty() ? root : root + "/" + relative;
    DIR* dir = opendir(dirPath.c_str());
    if (!dir) return fail("cannot read directory %s", dirPath, strerror(errno));
    std::vector<std::string> names;
    while (struct dirent* entry = readdir(dir)) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
        names.push_back(entry->d_name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());

    for (const std::string& name : names) {
        std::string rel = relative.empty() ? name : relative + "/" + name;
        std::string full = root + "/" + rel;
        if (relative.empty() && (name == kListName || name == kSha256ListName)) {
            fprintf(stderr, "cvmkdist: warning: %s in the payload is replaced by a new list\n", full.c_str());
            continue;
        }
        if (rel.find('\n') != std::string::npos || rel.find('\r') != std::string::npos)
            return fail("%s: a file name with a line break cannot be listed", full);
        struct stat st;
        if (lstat(full.c_str(), &st) != 0) return fail("cannot stat %s", full, strerror(errno));
        if (st.st_mtim.tv_sec > gNewestChange.tv_sec ||
            (st.st_mtim.tv_sec == gNewestChange.tv_sec && st.st_mtim.tv_nsec > gNewestChange.tv_nsec))
            gNewestChange = st.st_mtim;
        Entry item{rel, 0, 0, 0};
        if (S_ISDIR(st.st_mode)) {
            item.kind = 'd';
            entries->push_back(item);
            if (walkTree(root, rel, entries) != 0) return 1;
            continue;
        }
        if (S_ISLNK(st.st_mode)) {
            item.kind = 'l';
        } else if (S_ISREG(st.st_mode)) {
            item.kind = 'f';
            if (byteSum(full, &item.size, &item.sum) != 0) return 1;
            if (item.size > kMaxListedValue)
                return fail("%s is larger than 2147483647 bytes; the installer could not verify it", full);
            if (item.sum > kMaxListedValue) {
                char detail[64];
                snprintf(detail, sizeof(detail), "byte sum %u", item.sum);
                return fail("%s: byte sum above 2147483647; the installer could not verify it", full, detail);
            }
        } else {
            return fail("%s is neither a regular file, a directory nor a symbolic link", full);
        }
        entries->push_back(item);
    }
    return 0;
}

int buildFileList(const std::vector<Entry>& entries, std::string* list) {
    std::vector<const Entry*> files;
    for (const Entry& entry : entries)
        if (entry.kind == 'f') files.push_back(&entry);
    std::sort(files.begin(), files.end(), [](const Entry* a, const Entry* b) { return a->path < b->path; });
    list->clear();
    for (const Entry* file : files) {
        char numbers[64];
        snprintf(numbers, sizeof(numbers), " %llu %u\n", (unsigned long long)file->size, file->sum);
        std::string line = file->path + numbers;
        if (line.size() > kMaxListLine)
            return fail("%s: path too long for a file-list line of 511 characters", file->path);
        *list += line;
    }
    return 0;
}

int writeWholeFile(const std::string& file, const std::string& content, mode_t mode) {
    FILE* out = fopen(file.c_str(), "wb");
    if (!out) return fail("cannot create %s", file, strerror(errno));
    size_t written = fwrite(content.data(), 1, content.size(), out);
    if (fclose(out) != 0 || written != content.size()) return fail("cannot write %s", file, strerror(errno));
    if (chmod(file.c_str(), mode) != 0) return fail("cannot set the mode of %s", file, strerror(errno));
    return 0;
}

int copyInto(const std::string& source, const std::string& target, mode_t mode) {
    struct stat st;
    if (stat(source.c_str(), &st) != 0) return fail("cannot find %s", source, strerror(errno));
    if (!S_ISREG(st.st_mode)) return fail("%s is not a regular file", source);
    FILE* in = fopen(source.c_str(), "rb");
    if (!in) return fail("cannot open %s", source, strerror(errno));
    std::string content;
    char block[65536];
    size_t n;
    while ((n = fread(block, 1, sizeof(block), in)) > 0) content.append(block, n);
    bool readError = ferror(in) != 0;
    fclose(in);
    if (readError) return fail("cannot read %s", source);
    unlink(target.c_str());
    return writeWholeFile(target, content, mode);
}

int makeDirectoryTree(const std::string& dir) {
    struct stat st;
    if (stat(dir.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode)) return 0;
        return fail("%s exists and is not a directory", dir);
    }
    size_t slash = dir.find_last_of('/');
    if (slash != std::string::npos && slash > 0 && makeDirectoryTree(dir.substr(0, slash)) != 0) return 1;
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)
        return fail("cannot create directory %s", dir, strerror(errno));
    return 0;
}

int removeEntry(const char* path, const struct stat* /*info*/, int /*kind*/, struct FTW* /*walk*/) {
    if (remove(path) != 0) fprintf(stderr, "cvmkdist: warning: cannot remove %s\n", path);
    return 0;
}

void removeTree(const std::string& dir) {
    if (!dir.empty()) nftw(dir.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

int runCommand(const std::string& command) {
    int status = system(command.c_str());
    if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fprintf(stderr, "cvmkdist: command failed: %s\n", command.c_str());
        return 1;
    }
    return 0;
}

// Streams "tar" over the staged tree through zlib into the package file.
int writePackage(const std::string& staging, const std::string& memberList, const std::string& package) {
    std::string command = "tar -C " + shellQuote(staging) + " --no-recursion --null -T " +
                          shellQuote(memberList) + " --owner=0 --group=0 --numeric-owner -cf -";
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return fail("cannot run %s", command, strerror(errno));
    std::string partial = package + ".part";
    gzFile gz = gzopen(partial.c_str(), "wb9");
    if (!gz) {
        pclose(pipe);
        return fail("cannot create %s", partial);
    }
    char block[65536];
    size_t n;
    bool writeError = false;
    while ((n = fread(block, 1, sizeof(block), pipe)) > 0) {
        if (gzwrite(gz, block, (unsigned)n) != (int)n) {
            writeError = true;
            break;
        }
    }
    if (writeError) {
        while (fread(block, 1, sizeof(block), pipe) > 0) {
        }
    }
    int status = pclose(pipe);
    if (gzclose(gz) != Z_OK) writeError = true;
    if (writeError || status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        unlink(partial.c_str());
        return fail("packing the tree into %s failed", package);
    }
    if (rename(partial.c_str(), package.c_str()) != 0) {
        int saved = errno;
        unlink(partial.c_str());
        return fail("cannot rename the package to %s", package, strerror(saved));
    }
    return 0;
}

int stampList(const std::string& file) {
    struct timespec times[2] = {gNewestChange, gNewestChange};
    if (utimensat(AT_FDCWD, file.c_str(), times, 0) != 0)
        return fail("cannot set the time of %s", file, strerror(errno));
    return 0;
}

int packTree(const Options& options, const std::vector<Entry>& entries, const std::string& list) {
    const char* tmp = getenv("TMPDIR");
    std::string work = std::string(tmp && *tmp ? tmp : "/tmp") + "/cvmkdist.XXXXXX";
    std::vector<char> buffer(work.begin(), work.end());
    buffer.push_back('\0');
    if (!mkdtemp(buffer.data())) return fail("cannot create a work directory %s", work, strerror(errno));
    work = buffer.data();
    std::string staging = work + "/tree";

    // The list first, so that it is whole whenever anything was unpacked: a disk that fills
    // up or a package cut short then leaves files that verification finds missing or short,
    // not an empty list that checks nothing. Then the members in sorted order, directories
    // before their contents.
    std::vector<std::string> members;
    members.reserve(entries.size() + 1);
    for (const Entry& entry : entries) members.push_back(entry.path);
    std::sort(members.begin(), members.end());
    members.insert(members.begin(), kListName);
    members.insert(members.begin() + 1, kSha256ListName);
    std::vector<std::string> files;
    for (const Entry& entry : entries)
        if (entry.kind == 'f') files.push_back(entry.path);
    std::string memberList;
    for (const std::string& member : members) {
        memberList += member;
        memberList += '\0';
    }

    int result = 1;
    if (mkdir(staging.c_str(), 0755) == 0 &&
        runCommand("cp -pPR " + shellQuote(options.payload + "/.") + " " + shellQuote(staging)) == 0 &&
        writeWholeFile(staging + "/" + kListName, list, 0644) == 0 &&
        stampList(staging + "/" + kListName) == 0 &&
        writeSha256List("cvmkdist", staging, files, staging + "/" + kSha256ListName) == 0 &&
        stampList(staging + "/" + kSha256ListName) == 0 &&
        writeWholeFile(work + "/members", memberList, 0600) == 0 &&
        writePackage(staging, work + "/members", options.out + "/" + options.package) == 0) {
        result = 0;
    }
    removeTree(work);
    return result;
}

void warnAboutOtherPackages(const Options& options) {
    static const char* const kNames[] = {"cvpack", "cvpacku", "cvpackd", "cvpackep", "cvpackepd"};
    for (const char* name : kNames) {
        if (options.package == name) continue;
        std::string other = options.out + "/" + name;
        if (access(other.c_str(), F_OK) == 0)
            fprintf(stderr, "cvmkdist: warning: %s also holds the package %s\n", options.out.c_str(), name);
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (parseOptions(argc, argv, &options) != 0) return 1;
    while (options.payload.size() > 1 && options.payload.back() == '/') options.payload.pop_back();
    while (options.out.size() > 1 && options.out.back() == '/') options.out.pop_back();

    struct stat st;
    if (stat(options.payload.c_str(), &st) != 0)
        return fail("payload directory %s not found", options.payload, strerror(errno));
    if (!S_ISDIR(st.st_mode)) return fail("payload %s is not a directory", options.payload);
    const std::string* inputs[] = {&options.installer, &options.messages, &options.license, &options.checker};
    for (const std::string* input : inputs) {
        if (input->empty()) continue;
        if (stat(input->c_str(), &st) != 0) return fail("%s not found", *input, strerror(errno));
        if (!S_ISREG(st.st_mode)) return fail("%s is not a regular file", *input);
    }

    std::vector<Entry> entries;
    if (walkTree(options.payload, "", &entries) != 0) return 1;
    std::string list;
    if (buildFileList(entries, &list) != 0) return 1;
    if (options.listOnly) {
        fwrite(list.data(), 1, list.size(), stdout);
        return 0;
    }

    if (makeDirectoryTree(options.out) != 0) return 1;
    warnAboutOtherPackages(options);
    if (packTree(options, entries, list) != 0) return 1;
    if (!options.installer.empty() && copyInto(options.installer, options.out + "/cvinst", 0755) != 0)
        return 1;
    if (!options.messages.empty() && copyInto(options.messages, options.out + "/cdinst.cvb", 0644) != 0)
        return 1;
    if (!options.license.empty() && copyInto(options.license, options.out + "/license.txt", 0644) != 0)
        return 1;
    if (!options.checker.empty() && copyInto(options.checker, options.out + "/cvcheck", 0755) != 0) return 1;
    return 0;
}

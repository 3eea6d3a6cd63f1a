// Reporting, files, directories and child programs of the distribution builder.
#include "tools/cvmkdist/util.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

int removeEntry(const char* path, const struct stat* /*info*/, int /*kind*/, struct FTW* /*walk*/) {
    if (remove(path) != 0) mkdistWarn(std::string("cannot remove ") + path);
    return 0;
}

std::string commandText(const std::vector<std::string>& argv) {
    std::string text;
    for (const std::string& word : argv) text += (text.empty() ? "" : " ") + word;
    return text;
}

pid_t startProgram(const std::vector<std::string>& argv, int outFd, int closeFd) {
    std::vector<char*> words;
    words.reserve(argv.size() + 1);
    for (const std::string& word : argv) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        if (outFd >= 0 && dup2(outFd, 1) < 0) _exit(126);
        if (closeFd >= 0) close(closeFd);
        execvp(words[0], words.data());
        fprintf(stderr, "cvmkdist: cannot run %s: %s\n", words[0], strerror(errno));
        _exit(127);
    }
    if (pid < 0) mkdistFail("cannot start %s", argv[0], strerror(errno));
    return pid;
}

}  // namespace

int mkdistFail(const char* format, const std::string& what, const char* detail) {
    fprintf(stderr, "cvmkdist: ");
    fprintf(stderr, format, what.c_str());
    if (detail) fprintf(stderr, ": %s", detail);
    fprintf(stderr, "\n");
    return 1;
}

void mkdistWarn(const std::string& text) {
    fprintf(stderr, "cvmkdist: warning: %s\n", text.c_str());
}

void mkdistList(const std::string& title, const std::vector<std::string>& items, bool warning) {
    fprintf(stderr, "cvmkdist: %s%s\n", warning ? "warning: " : "", title.c_str());
    for (const std::string& item : items) fprintf(stderr, "  %s\n", item.c_str());
}

int readWholeFile(const std::string& file, std::string* content) {
    FILE* in = fopen(file.c_str(), "rb");
    if (!in) return mkdistFail("cannot open %s", file, strerror(errno));
    content->clear();
    char block[65536];
    size_t n;
    while ((n = fread(block, 1, sizeof(block), in)) > 0) content->append(block, n);
    bool readError = ferror(in) != 0;
    fclose(in);
    if (readError) return mkdistFail("cannot read %s", file);
    return 0;
}

int writeWholeFile(const std::string& file, const std::string& content, mode_t mode) {
    FILE* out = fopen(file.c_str(), "wb");
    if (!out) return mkdistFail("cannot create %s", file, strerror(errno));
    size_t written = fwrite(content.data(), 1, content.size(), out);
    if (fclose(out) != 0 || written != content.size())
        return mkdistFail("cannot write %s", file, strerror(errno));
    if (chmod(file.c_str(), mode) != 0) return mkdistFail("cannot set the mode of %s", file, strerror(errno));
    return 0;
}

int copyInto(const std::string& source, const std::string& target, mode_t mode) {
    struct stat st;
    if (stat(source.c_str(), &st) != 0) return mkdistFail("cannot find %s", source, strerror(errno));
    if (!S_ISREG(st.st_mode)) return mkdistFail("%s is not a regular file", source);
    std::string content;
    if (readWholeFile(source, &content) != 0) return 1;
    unlink(target.c_str());
    return writeWholeFile(target, content, mode);
}

int copyStripped(const std::string& source, const std::string& target, mode_t mode) {
    if (copyInto(source, target, mode) != 0) return 1;
    char magic[4] = {0, 0, 0, 0};
    int fd = open(target.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return mkdistFail("cannot open %s", target, strerror(errno));
    ssize_t n = read(fd, magic, sizeof(magic));
    close(fd);
    if (n != (ssize_t)sizeof(magic) || memcmp(magic,
                                              "\x7f"
                                              "ELF",
                                              sizeof(magic)) != 0)
        return 0;
    if (runProgram({"strip", "--strip-all", target}) != 0) return mkdistFail("cannot strip %s", target);
    if (chmod(target.c_str(), mode) != 0)
        return mkdistFail("cannot set the mode of %s", target, strerror(errno));
    return 0;
}

int makeDirectoryTree(const std::string& dir) {
    struct stat st;
    if (stat(dir.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode)) return 0;
        return mkdistFail("%s exists and is not a directory", dir);
    }
    size_t slash = dir.find_last_of('/');
    if (slash != std::string::npos && slash > 0 && makeDirectoryTree(dir.substr(0, slash)) != 0) return 1;
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)
        return mkdistFail("cannot create directory %s", dir, strerror(errno));
    return 0;
}

void removeTree(const std::string& dir) {
    if (!dir.empty()) nftw(dir.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

int makeWorkDirectory(std::string* dir) {
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/cvmkdist.XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (!mkdtemp(buffer.data()))
        return mkdistFail("cannot create a work directory %s", pattern, strerror(errno));
    *dir = buffer.data();
    return 0;
}

std::string baseName(const std::string& path) {
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string dirName(const std::string& path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

int runProgram(const std::vector<std::string>& argv, int outFd) {
    pid_t pid = startProgram(argv, outFd, -1);
    if (pid < 0) return 1;
    return waitProgram(pid, argv);
}

int startProgramReader(const std::vector<std::string>& argv, pid_t* pid) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        mkdistFail("cannot make a pipe for %s", argv[0], strerror(errno));
        return -1;
    }
    *pid = startProgram(argv, ends[1], ends[0]);
    close(ends[1]);
    if (*pid < 0) {
        close(ends[0]);
        return -1;
    }
    return ends[0];
}

int waitProgram(pid_t pid, const std::vector<std::string>& argv) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return mkdistFail("lost %s", argv[0], strerror(errno));
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return 0;
    return mkdistFail("command failed: %s", commandText(argv));
}

int sourceDateEpoch(long long* epoch) {
    *epoch = -1;
    const char* text = getenv("SOURCE_DATE_EPOCH");
    if (text == nullptr) return 0;
    char* end = nullptr;
    errno = 0;
    long long value = strtoll(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0' || errno != 0)
        return mkdistFail("SOURCE_DATE_EPOCH='%s' is not a number of seconds since 1970", text);
    *epoch = value;
    return 0;
}

std::vector<std::string> reproducibleTarCommand(const std::string& dir, const std::string& members,
                                                long long epoch) {
    std::vector<std::string> argv = {"tar", "-C", dir, "--no-recursion", "--null", "-T", members};
    argv.insert(argv.end(), {"--format=gnu", "--owner=0", "--group=0", "--numeric-owner"});
    if (epoch >= 0) argv.insert(argv.end(), {"--mtime=@" + std::to_string(epoch), "--clamp-mtime"});
    argv.insert(argv.end(), {"-cf", "-"});
    return argv;
}

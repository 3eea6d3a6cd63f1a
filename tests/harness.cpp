// End-to-end harness: a fresh sandbox per test, distributions made by the built cvmkdist,
// and runs of the real cvinst with a chosen argv[0], directory, environment and input.
#include "tests/harness.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const uid_t kNobody = 65534;

int64_t nowMillis() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

void setNonBlocking(int fd) {
    int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

void closeFd(int* fd) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
}

// Removes a tree even where the installer (or a test) took the permissions away.
void removeTree(const std::string& p) {
    struct stat st;
    if (lstat(p.c_str(), &st) != 0) return;
    if (S_ISDIR(st.st_mode)) {
        chmod(p.c_str(), 0700);
        if (DIR* dir = opendir(p.c_str())) {
            std::vector<std::string> names;
            while (struct dirent* entry = readdir(dir)) {
                if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
                    names.push_back(entry->d_name);
            }
            closedir(dir);
            for (const std::string& name : names) removeTree(p + "/" + name);
        }
        rmdir(p.c_str());
    } else {
        unlink(p.c_str());
    }
}

// The environment handed to the installer: a small fixed base, sanitizer settings passed
// through, then the test's own changes.
std::map<std::string, std::string> childEnvironment(const std::string& home,
                                                    const RunOptions& options) {
    std::map<std::string, std::string> env;
    env["PATH"] = "/usr/local/bin:/usr/bin:/bin";
    env["HOME"] = home;
    env["LANG"] = "C";
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
        if (const char* value = getenv(name)) env[name] = value;
    }
    for (const auto& change : options.env) {
        if (change.second) env[change.first] = *change.second;
        else env.erase(change.first);
    }
    return env;
}

bool isExecutableFile(const std::string& p) {
    struct stat st;
    return stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(p.c_str(), X_OK) == 0;
}

// Resolves argv[0] the way a shell would find the program: a name with "/" relative to the
// working directory, a bare name along PATH (relative entries from the working directory).
std::string resolveProgram(const std::string& argv0, const std::string& cwd,
                           const std::map<std::string, std::string>& env) {
    if (argv0.empty()) return "";
    if (argv0[0] == '/') return argv0;
    if (argv0.find('/') != std::string::npos) return cwd + "/" + argv0;
    auto path = env.find("PATH");
    if (path == env.end()) return "";
    std::string list = path->second;
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find(':', start);
        if (end == std::string::npos) end = list.size();
        std::string entry = list.substr(start, end - start);
        if (!entry.empty()) {
            std::string dir = entry[0] == '/' ? entry : cwd + "/" + entry;
            std::string candidate = dir + "/" + argv0;
            if (isExecutableFile(candidate)) return candidate;
        }
        start = end + 1;
    }
    return "";
}

}  // namespace

int countOf(const std::string& haystack, const std::string& needle) {
    if (needle.empty()) return 0;
    int count = 0;
    for (size_t at = haystack.find(needle); at != std::string::npos;
         at = haystack.find(needle, at + needle.size()))
        count++;
    return count;
}

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

bool appearsInOrder(const std::string& text, const std::vector<std::string>& parts) {
    size_t from = 0;
    for (const std::string& part : parts) {
        size_t at = text.find(part, from);
        if (at == std::string::npos) return false;
        from = at + part.size();
    }
    return true;
}

std::string interactiveAnswers(const std::string& installDir) {
    return "\nyes\n" + installDir + "\ny\n";
}

int enableEulaBypass(const std::string& program) {
    FILE* in = fopen(program.c_str(), "rb");
    if (!in) return 0;
    std::string content;
    char block[65536];
    size_t n;
    while ((n = fread(block, 1, sizeof(block), in)) > 0) content.append(block, n);
    fclose(in);
    const std::string marker = "EnableBypasEula#0";
    int patched = 0;
    for (size_t at = content.find(marker); at != std::string::npos;
         at = content.find(marker, at + marker.size())) {
        content[at + marker.size() - 1] = '1';
        patched++;
    }
    if (patched == 0) return 0;
    FILE* out = fopen(program.c_str(), "r+b");
    if (!out) return 0;
    bool ok = fwrite(content.data(), 1, content.size(), out) == content.size();
    ok = fclose(out) == 0 && ok;
    return ok ? patched : 0;
}

std::string builtInstaller() { return CVINST_BUILT_INSTALLER; }
std::string builtMkdist() { return CVINST_BUILT_MKDIST; }
std::string builtMessageFile() { return CVINST_BUILT_MESSAGES; }
std::string demoPayload() { return CVINST_DEMO_PAYLOAD; }
std::string demoPluginPayload() { return CVINST_DEMO_PLUGIN_PAYLOAD; }

std::string shellQuoted(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

void InstallerTest::SetUp() {
    // A run whose child ignores its input must not kill the harness with SIGPIPE.
    signal(SIGPIPE, SIG_IGN);
    char pattern[] = "/tmp/cvinst-e2e.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr) << strerror(errno);
    sandbox = pattern;
    // Searchable for everybody, so that runs as uid 65534 can reach their own trees.
    ASSERT_EQ(chmod(sandbox.c_str(), 0755), 0);
    dist = makeDistribution();
}

void InstallerTest::TearDown() {
    if (!sandbox.empty()) removeTree(sandbox);
}

std::string InstallerTest::makeDistribution(const DistOptions& options, const std::string& name) {
    std::string dir = path(name);
    std::string payload = options.payload.empty() ? demoPayload() : options.payload;
    std::string license = payload + "/license.txt";
    if (!isRegularFile(license)) license = demoPayload() + "/license.txt";
    // Without a package the tree is packed all the same and the package removed afterwards.
    std::string package = options.package.empty() ? "cvpack" : options.package;

    RunOptions mk;
    mk.program = builtMkdist();
    mk.argv0 = builtMkdist();
    mk.cwd = sandbox;
    mk.args = {"--payload", payload, "--package", package, "--out", dir,
               "--installer", builtInstaller()};
    if (options.withMessageFile) {
        mk.args.push_back("--messages");
        mk.args.push_back(builtMessageFile());
    }
    if (options.withLicense) {
        mk.args.push_back("--license");
        mk.args.push_back(license);
    }
    RunResult r = run(mk);
    EXPECT_EQ(r.exitStatus, 0) << "cvmkdist failed for " << dir << ":\n" << r.out << r.err;
    if (options.package.empty()) unlink((dir + "/" + package).c_str());
    return dir;
}

std::string InstallerTest::distributionWith(const std::string& package, const std::string& name) {
    DistOptions options;
    options.package = package;
    return makeDistribution(options, name);
}

RunResult InstallerTest::runQuick(const std::string& input, const std::vector<std::string>& args,
                                  const std::string& dir) {
    RunOptions options;
    if (!dir.empty()) {
        options.argv0 = dir + "/cvinst";
        options.cwd = dir;
    }
    options.args = {"-d", "-post-install"};
    options.args.insert(options.args.end(), args.begin(), args.end());
    options.input = input;
    return run(options);
}

RunResult InstallerTest::run(const RunOptions& options) {
    RunResult result;
    std::string cwd = options.cwd.empty() ? dist : path(options.cwd);
    std::string argv0 = options.argv0.empty() ? dist + "/cvinst" : options.argv0;
    std::map<std::string, std::string> env = childEnvironment(sandbox, options);
    std::string program = options.program;
    if (program.empty()) program = resolveProgram(argv0, cwd, env);
    // A name that cannot be found (PATH unset, say) still starts the real installer, which
    // must then fail to locate its distribution by itself.
    if (program.empty()) program = dist + "/cvinst";

    std::vector<std::string> argStrings;
    argStrings.push_back(argv0);
    argStrings.insert(argStrings.end(), options.args.begin(), options.args.end());
    std::vector<char*> argv;
    for (std::string& arg : argStrings) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    std::vector<std::string> envStrings;
    for (const auto& entry : env) envStrings.push_back(entry.first + "=" + entry.second);
    std::vector<char*> envp;
    for (std::string& entry : envStrings) envp.push_back(&entry[0]);
    envp.push_back(nullptr);

    int inPipe[2], outPipe[2], errPipe[2];
    if (pipe2(inPipe, O_CLOEXEC) != 0 || pipe2(outPipe, O_CLOEXEC) != 0 ||
        pipe2(errPipe, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe: " << strerror(errno);
        return result;
    }
    pid_t pid = fork();
    if (pid < 0) {
        ADD_FAILURE() << "fork: " << strerror(errno);
        return result;
    }
    if (pid == 0) {
        // Child: only async-signal-safe calls from here on.
        setpgid(0, 0);
        signal(SIGPIPE, SIG_DFL);
        dup2(inPipe[0], 0);
        dup2(outPipe[1], 1);
        dup2(errPipe[1], 2);
        if (chdir(cwd.c_str()) != 0) {
            const char text[] = "harness: cannot change to the working directory\n";
            (void)!write(2, text, sizeof(text) - 1);
            _exit(126);
        }
        if (options.unprivileged &&
            (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0)) {
            const char text[] = "harness: cannot become uid 65534\n";
            (void)!write(2, text, sizeof(text) - 1);
            _exit(126);
        }
        execve(program.c_str(), argv.data(), envp.data());
        const char text[] = "harness: exec failed\n";
        (void)!write(2, text, sizeof(text) - 1);
        _exit(127);
    }
    setpgid(pid, pid);   // also here, so that the group exists whoever runs first
    close(inPipe[0]);
    close(outPipe[1]);
    close(errPipe[1]);
    int inFd = inPipe[1], outFd = outPipe[0], errFd = errPipe[0];
    setNonBlocking(inFd);
    setNonBlocking(outFd);
    setNonBlocking(errFd);

    size_t written = 0;
    if (options.input.empty() && options.closeInput) closeFd(&inFd);
    const int64_t deadline = nowMillis() + (int64_t)options.timeoutSeconds * 1000;
    int64_t drainUntil = -1;   // after the child ended: how long to wait for its pipes
    bool exited = false;
    int status = 0;
    char block[65536];

    while (outFd >= 0 || errFd >= 0 || !exited) {
        if (!exited) {
            pid_t done = waitpid(pid, &status, WNOHANG);
            if (done == pid) {
                exited = true;
                // Whatever the input still holds is not wanted any more.
                closeFd(&inFd);
                // Background children of the installer may keep the pipes open a while.
                drainUntil = nowMillis() + 2000;
            }
        }
        int64_t now = nowMillis();
        if (!exited && now >= deadline) {
            result.timedOut = true;
            kill(-pid, SIGKILL);
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            exited = true;
            closeFd(&inFd);
            drainUntil = nowMillis() + 500;
            continue;
        }
        if (exited && now >= drainUntil) break;

        struct pollfd fds[3];
        int count = 0;
        int outIndex = -1, errIndex = -1, inIndex = -1;
        if (outFd >= 0) { fds[count] = {outFd, POLLIN, 0}; outIndex = count++; }
        if (errFd >= 0) { fds[count] = {errFd, POLLIN, 0}; errIndex = count++; }
        if (inFd >= 0 && written < options.input.size()) {
            fds[count] = {inFd, POLLOUT, 0};
            inIndex = count++;
        }
        int64_t limit = (exited ? drainUntil : deadline) - now;
        int wait = (int)std::min<int64_t>(limit, 50);
        if (wait < 0) wait = 0;
        int ready = poll(fds, count, wait);
        if (ready < 0 && errno != EINTR) break;
        if (ready <= 0) continue;

        for (int which : {outIndex, errIndex}) {
            if (which < 0 || fds[which].revents == 0) continue;
            int* fd = which == outIndex ? &outFd : &errFd;
            std::string* sink = which == outIndex ? &result.out : &result.err;
            ssize_t n = read(*fd, block, sizeof(block));
            if (n > 0) sink->append(block, (size_t)n);
            else if (n == 0 || (errno != EAGAIN && errno != EINTR)) closeFd(fd);
        }
        if (inIndex >= 0 && fds[inIndex].revents != 0) {
            ssize_t n = write(inFd, options.input.data() + written, options.input.size() - written);
            if (n > 0) written += (size_t)n;
            else if (n < 0 && errno != EAGAIN && errno != EINTR) closeFd(&inFd);
            if (written >= options.input.size() && options.closeInput) closeFd(&inFd);
        }
    }
    closeFd(&inFd);
    closeFd(&outFd);
    closeFd(&errFd);
    // Anything of the run that is still alive (an editor started in the background) goes too.
    kill(-pid, SIGKILL);

    if (WIFEXITED(status)) {
        result.exitStatus = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.exitStatus = -1;
        result.signal = WTERMSIG(status);
    }
    if (result.timedOut) {
        result.exitStatus = -1;
        result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : SIGKILL;
    }
    return result;
}

std::string InstallerTest::path(const std::string& relative) const {
    if (!relative.empty() && relative[0] == '/') return relative;
    if (relative.empty()) return sandbox;
    return sandbox + "/" + relative;
}

bool InstallerTest::exists(const std::string& p) const {
    struct stat st;
    return lstat(path(p).c_str(), &st) == 0;
}

bool InstallerTest::isDirectory(const std::string& p) const {
    struct stat st;
    return stat(path(p).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool InstallerTest::isRegularFile(const std::string& p) const {
    struct stat st;
    return stat(path(p).c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool InstallerTest::isSymlink(const std::string& p) const {
    struct stat st;
    return lstat(path(p).c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

std::string InstallerTest::linkTarget(const std::string& p) const {
    char target[4096];
    ssize_t n = readlink(path(p).c_str(), target, sizeof(target));
    if (n < 0) return "";
    return std::string(target, (size_t)n);
}

std::vector<std::string> InstallerTest::listDir(const std::string& p) const {
    std::vector<std::string> names;
    if (DIR* dir = opendir(path(p).c_str())) {
        while (struct dirent* entry = readdir(dir)) {
            if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
                names.push_back(entry->d_name);
        }
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string InstallerTest::readFile(const std::string& p) const {
    std::string full = path(p);
    FILE* in = fopen(full.c_str(), "rb");
    if (!in) {
        ADD_FAILURE() << "cannot read " << full << ": " << strerror(errno);
        return "";
    }
    std::string content;
    char block[65536];
    size_t n;
    while ((n = fread(block, 1, sizeof(block), in)) > 0) content.append(block, n);
    fclose(in);
    return content;
}

void InstallerTest::writeFile(const std::string& p, const std::string& content, unsigned mode) const {
    std::string full = path(p);
    size_t slash = full.find_last_of('/');
    if (slash != std::string::npos && slash > 0) makeDirs(full.substr(0, slash));
    FILE* out = fopen(full.c_str(), "wb");
    if (!out) {
        ADD_FAILURE() << "cannot write " << full << ": " << strerror(errno);
        return;
    }
    bool ok = fwrite(content.data(), 1, content.size(), out) == content.size();
    ok = fclose(out) == 0 && ok;
    EXPECT_TRUE(ok) << "short write to " << full;
    EXPECT_EQ(chmod(full.c_str(), mode), 0) << full;
}

void InstallerTest::makeDirs(const std::string& p, unsigned mode) const {
    std::string full = path(p);
    size_t at = 1;
    while (at <= full.size()) {
        size_t slash = full.find('/', at);
        if (slash == std::string::npos) slash = full.size();
        std::string part = full.substr(0, slash);
        if (!part.empty() && mkdir(part.c_str(), mode) != 0 && errno != EEXIST)
            ADD_FAILURE() << "cannot create " << part << ": " << strerror(errno);
        at = slash + 1;
    }
    EXPECT_TRUE(isDirectory(full)) << full;
    chmod(full.c_str(), mode);
}

unsigned InstallerTest::modeOf(const std::string& p) const {
    struct stat st;
    if (stat(path(p).c_str(), &st) != 0) return 0;
    return st.st_mode & 07777;
}

void InstallerTest::giveToNobody(const std::string& p) const {
    std::string full = path(p);
    struct stat st;
    if (lstat(full.c_str(), &st) != 0) return;
    EXPECT_EQ(lchown(full.c_str(), kNobody, kNobody), 0) << full << ": " << strerror(errno);
    if (!S_ISDIR(st.st_mode)) return;
    for (const std::string& name : listDir(full)) giveToNobody(full + "/" + name);
}

std::string InstallerTest::copyPayload(const std::string& name, const std::string& from) {
    std::string tree = path(name);
    shell("cp -a " + shellQuoted(from.empty() ? demoPayload() : from) + " " + shellQuoted(tree) +
          " && find " + shellQuoted(tree) + " -exec touch -h -d 2020-01-01 {} +");
    return tree;
}

std::string InstallerTest::distributionFromTree(const std::string& tree, const std::string& name,
                                                const std::string& package) {
    DistOptions options;
    options.package = "";
    std::string dir = makeDistribution(options, name);
    shell("tar -C " + shellQuoted(tree) + " -cf - . | gzip -c >" + shellQuoted(dir + "/" + package));
    return dir;
}

void InstallerTest::shell(const std::string& command) const {
    int status = system(command.c_str());
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << command;
}

long InstallerTest::mtimeOf(const std::string& p) const {
    struct stat st;
    return lstat(path(p).c_str(), &st) == 0 ? (long)st.st_mtime : -1;
}

uid_t InstallerTest::ownerOf(const std::string& p) const {
    struct stat st;
    return lstat(path(p).c_str(), &st) == 0 ? st.st_uid : (uid_t)-1;
}

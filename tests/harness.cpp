// End-to-end harness: runs the bash command lines of a case in a fresh sandbox with a copy of
// the built demo distribution, and checks what they print and leave behind.
#include "tests/harness.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace {

// Exit status (128 + n after signal n, -1 after the time limit), standard output and error.
struct RunResult {
    int status = 0;
    std::string out, err;
};

std::string readFile(Str path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// "$S" and "$D", where no longer name goes on behind them, become the sandbox and its distribution.
std::string expand(std::string text, Str sandbox) {
    for (size_t at = 0; (at = text.find('$', at)) != std::string::npos; at++) {
        char name = text[at + 1];  // the terminating NUL where text ends
        char next = at + 2 < text.size() ? text[at + 2] : '\0';
        if ((name != 'S' && name != 'D') || isalnum(static_cast<unsigned char>(next)) || next == '_')
            continue;
        text.replace(at, 2, name == 'S' ? sandbox : sandbox + "/dist");
    }
    return text;
}

// statfs fails with the given error in this process and all that it starts.
void failStatfs(int error) {
    struct sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_statfs, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (error & SECCOMP_RET_DATA)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    struct sock_fprog program = {4, code};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) _exit(125);
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) _exit(125);
}

// Runs bash with the helpers and the command in the sandbox, in a process group of its own that
// is killed afterwards, with the input on standard input and the output in files beside the sandbox.
RunResult run(Str sandbox, Str command, Str input = "", int statfsErrno = 0) {
    Lines env = {"PATH=/usr/local/bin:/usr/bin:/bin", "HOME=" + sandbox, "LANG=C", "S=" + sandbox};
    const char* const names[] = {"I=", "MK=", "MSG=", "P=", "PP="};
    const char* const built[] = {CVINST_BUILT_INSTALLER, CVINST_BUILT_MKDIST, CVINST_BUILT_MESSAGES,
                                 CVINST_DEMO_PAYLOAD, CVINST_DEMO_PLUGIN_PAYLOAD};
    for (size_t i = 0; i < 5; i++) env.push_back(names[i] + std::string(built[i]));
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "GCOV_PREFIX"})
        if (const char* value = getenv(name)) env.push_back(std::string(name) + "=" + value);
    // The helpers of tests/lib.sh first, then the command.
    std::string script = "source " + shq(CVINST_TEST_LIB) + " || exit 125\n" + command;
    std::vector<char*> argv = {const_cast<char*>("bash"), const_cast<char*>("-c"), script.data(), nullptr};
    std::vector<char*> envp;
    for (std::string& entry : env) envp.push_back(entry.data());
    envp.push_back(nullptr);
    std::ofstream(sandbox + ".in", std::ios::binary) << input;
    pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        dup2(open((sandbox + ".in").c_str(), O_RDONLY), 0);
        dup2(open((sandbox + ".1").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
        dup2(open((sandbox + ".2").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
        closefrom(3);  // nothing of the test runner's leaks into the run
        if (statfsErrno != 0) failStatfs(statfsErrno);
        execve("/bin/bash", argv.data(), envp.data());
        _exit(127);
    }
    int status = 0;
    pid_t done = 0;
    for (int wait = 0; wait < 60000 && (done = waitpid(pid, &status, WNOHANG)) == 0; wait++) usleep(2000);
    kill(-pid, SIGKILL);
    if (done == 0) waitpid(pid, &status, 0);
    RunResult result{-1, "", ""};
    if (done != 0) result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = readFile(sandbox + ".1");
    result.err = readFile(sandbox + ".2");
    return result;
}

// The fragments in order, each searched behind the previous match (see Case::out).
void expectOutput(Str text, const Lines& fragments) {
    size_t at = 0;
    for (Str fragment : fragments) {
        char kind = fragment.empty() || strchr("!^$=", fragment[0]) == nullptr ? ' ' : fragment[0];
        std::string body = fragment.substr(kind == ' ' ? 0 : 1);
        size_t found = text.find(body, at);
        if (kind == '!') {
            EXPECT_EQ(found, std::string::npos) << "printed after all: " << body;
        } else if (kind == ' ') {
            EXPECT_NE(found, std::string::npos) << "not printed behind the previous match: " << body;
            at = found == std::string::npos ? at : found + body.size();
        } else {  // the whole output, its beginning or its end
            size_t from = kind == '$' ? text.size() - std::min(text.size(), body.size()) : 0;
            EXPECT_EQ(text.substr(from, kind == '=' ? std::string::npos : body.size()), body);
            at = kind == '^' ? body.size() : at;
        }
    }
}

// Unmounts what the case mounted in the sandbox, the latest mounts first, and removes it.
void removeSandbox(Str sandbox) {
    std::ifstream mounts("/proc/mounts");
    Lines points;
    for (std::string device, point, rest; mounts >> device >> point && std::getline(mounts, rest);)
        if (point.rfind(sandbox + "/", 0) == 0) points.insert(points.begin(), point);
    for (Str point : points) umount2(point.c_str(), MNT_DETACH);
    std::error_code error;
    std::filesystem::remove_all(sandbox, error);
    for (const char* file : {".out", ".in", ".1", ".2"}) unlink((sandbox + file).c_str());
}

}  // namespace

std::string shq(Str text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string demoFile(Str name) {
    return readFile(CVINST_DEMO_PAYLOAD "/" + name);
}

TEST_P(E2E, Run) {
    const Case& c = GetParam();
    char pattern[] = "/tmp/cvinst-e2e.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr) << strerror(errno);
    const std::string sandbox = pattern;
    // Searchable by everybody, for the runs as uid 65534; the distribution is the built one.
    std::error_code error;
    std::filesystem::permissions(sandbox, std::filesystem::perms(0755), error);
    std::filesystem::copy(std::filesystem::path(CVINST_BUILT_MESSAGES).parent_path() / "dist",
                          sandbox + "/dist", std::filesystem::copy_options::recursive, error);
    ASSERT_FALSE(error) << error.message();
    RunResult setup, r, checked;
    if (!c.setup.empty()) setup = run(sandbox, expand(c.setup, sandbox));
    for (const auto& file : c.files) {
        std::filesystem::path where = expand(file.first, sandbox);
        std::filesystem::create_directories(where.parent_path());
        std::ofstream(where, std::ios::binary) << expand(file.second, sandbox);
    }
    if (setup.status == 0)
        r = run(sandbox, expand(c.command, sandbox), expand(c.input, sandbox), c.statfsErrno);
    const std::string text = r.out + (r.err.empty() ? "" : "[stderr]\n" + r.err);
    std::ofstream(sandbox + ".out", std::ios::binary) << text;
    // Each condition that does not hold prints itself.
    std::string checks = "O=$S.out\n";
    for (Str check : c.checks)
        checks += "(" + expand(check, sandbox) + ") || echo " + shq("failed: " + check) + "\n";
    if (!c.checks.empty() && setup.status == 0) checked = run(sandbox, checks);
    removeSandbox(sandbox);

    for (const RunResult* step : {&setup, &r})
        if (step->status == 77 && step->out.rfind("skip: ", 0) == 0) GTEST_SKIP() << step->out.substr(6);
    ASSERT_EQ(setup.status, 0) << "setup:\n" << setup.out << setup.err;
    EXPECT_EQ(r.status, c.status);
    Lines out;
    for (Str fragment : c.out) out.push_back(expand(fragment, sandbox));
    expectOutput(text, out);
    EXPECT_EQ(checked.out + checked.err, "");
    if (HasFailure() || getenv("E2E_SHOW")) ADD_FAILURE() << "output of the run:\n" << text;
}

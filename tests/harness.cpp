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

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace {

// Helpers for the command lines. The sandbox is $S, the distribution $D, the demo payloads $P
// and $PP, the build directory $B (with dist-plugin/), the built $I, $MK and $MSG.
const char kPrelude[] = R"SH(cd "$S"; D=$S/dist; B=${MSG%/*}
T='uname cp mv rm mkdir tar uncompress chgrp chown touch more'
cvinst() { "$D/cvinst" "$@"; }
q() { cvinst -d -post-install "$@"; }
inst() { "$S/$1/cvinst" -d -post-install -destination-dir "$S/$2" "${@:3}"; }
mkd() { "$MK" --payload "${2:-$P}" --package "${3:-cvpack}" --out "$S/$1" --installer "$I" --messages "$MSG" \
  --license "$P/license.txt" --allow-incomplete >/dev/null; }
tree() { cp -a "${2:-$P}" "$S/$1" && find "$S/$1" -exec touch -h -d 2020-01-01 {} +; }
tard() { cp -a "$D" "$S/$1" && tar -C "$2" -cf - . | gzip -c >"$S/$1/cvpack"; }
nobody() { setpriv --reuid=65534 --regid=65534 --clear-groups "$@"; }
mnt() { mkdir -p "$1" && mount -t tmpfs -o "$2" tmpfs "$1" 2>/dev/null ||
  { echo "skip: mounting a tmpfs is not permitted here"; exit 77; }; }
sock() { perl -MIO::Socket::UNIX -e 'IO::Socket::UNIX->new(Local => $ARGV[0], Listen => 1) or die' "$1"; }
tools() { local d=$S/$1 t; shift; mkdir -p "$d"; for t; do ln -s "$(command -v "$t")" "$d/$t"; done; }
intact() { (cd "$S/$1" && ! find . -type f ! -name '$alias.crv' ! -exec cmp -s {} "$S/$2/{}" \; -print | grep -q .); }
xvfb() { local x i; command -v Xvfb >/dev/null || { echo "skip: Xvfb is not installed"; exit 77; }
  Xvfb -displayfd 3 -nolisten tcp 3>"$S/.display" </dev/null >/dev/null 2>&1 & x=$!
  for i in $(seq 200); do [ -s "$S/.display" ] || sleep 0.05; done
  [ -s "$S/.display" ] || { echo "skip: Xvfb could not be started"; exit 77; }
  export DISPLAY=:$(cat "$S/.display"); rm "$S/.display"; trap "kill $x; wait $x" EXIT; }
)SH";

// Exit status (128 + n after signal n, -1 after the time limit), standard output and error.
struct RunResult {
    int status;
    std::string out, err;
};

std::string readFile(Str path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::string expand(std::string text, const std::string& sandbox) {
    for (size_t at = 0; (at = text.find('$', at)) != std::string::npos; at++) {
        char name = at + 1 < text.size() ? text[at + 1] : 0, next = at + 2 < text.size() ? text[at + 2] : 0;
        if ((name != 'S' && name != 'D') || isalnum((unsigned char)next) || next == '_') continue;
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
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        _exit(125);
}

// Runs bash with the prelude and the command in the sandbox, in a process group of its own that
// is killed afterwards, with the input on standard input and the output in files beside the sandbox.
RunResult run(const std::string& sandbox, const std::string& command, const std::string& input = "",
              int statfsErrno = 0) {
    Lines env = {"PATH=/usr/local/bin:/usr/bin:/bin",
                 "HOME=" + sandbox,
                 "LANG=C",
                 "S=" + sandbox,
                 "I=" CVINST_BUILT_INSTALLER,
                 "MK=" CVINST_BUILT_MKDIST,
                 "MSG=" CVINST_BUILT_MESSAGES,
                 "P=" CVINST_DEMO_PAYLOAD,
                 "PP=" CVINST_DEMO_PLUGIN_PAYLOAD};
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"})
        if (const char* value = getenv(name)) env.push_back(std::string(name) + "=" + value);
    std::string script = kPrelude + command, in = sandbox + ".in", out = sandbox + ".1", err = sandbox + ".2";
    std::vector<char*> argv = {(char*)"bash", (char*)"-c", &script[0], nullptr}, envp;
    for (std::string& entry : env) envp.push_back(&entry[0]);
    envp.push_back(nullptr);
    std::ofstream(in, std::ios::binary) << input;
    RunResult result{-1, "", ""};
    pid_t pid = fork(), done = 0;
    if (pid == 0) {
        setpgid(0, 0);
        dup2(open(in.c_str(), O_RDONLY), 0);
        dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
        dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
        closefrom(3);  // nothing of the test runner's leaks into the run
        if (statfsErrno != 0) failStatfs(statfsErrno);
        execve("/bin/bash", argv.data(), envp.data());
        _exit(127);
    }
    int status = 0;
    for (int wait = 0; wait < 60000 && (done = waitpid(pid, &status, WNOHANG)) == 0; wait++) usleep(2000);
    kill(-pid, SIGKILL);
    if (done == 0) waitpid(pid, &status, 0);
    if (done != 0) result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = readFile(out), result.err = readFile(err);
    return result;
}

void expectOutput(const std::string& text, const std::vector<std::string>& fragments) {
    size_t at = 0;
    for (const std::string& fragment : fragments) {
        char kind = fragment.empty() || strchr("!^$=", fragment[0]) == nullptr ? ' ' : fragment[0];
        std::string body = fragment.substr(kind == ' ' ? 0 : 1);
        size_t found = text.find(body, at), size = body.size();
        bool ok = kind == '!'   ? found == std::string::npos
                  : kind == '^' ? text.compare(0, size, body) == 0
                  : kind == '$' ? text.size() >= size && text.compare(text.size() - size, size, body) == 0
                  : kind == '=' ? text == body
                                : found != std::string::npos;
        if (ok && (kind == ' ' || kind == '^')) at = kind == '^' ? size : found + size;
        EXPECT_TRUE(ok) << "fragment: " << fragment;
    }
}

}  // namespace

std::string shq(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string demoFile(const std::string& name) {
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
    RunResult setup = c.setup.empty() ? RunResult{0, "", ""} : run(sandbox, expand(c.setup, sandbox)), r;
    for (const auto& file : c.files) {
        std::filesystem::path where = expand(file.first, sandbox);
        std::filesystem::create_directories(where.parent_path());
        std::ofstream(where, std::ios::binary) << expand(file.second, sandbox);
    }
    if (setup.status == 0)
        r = run(sandbox, expand(c.command, sandbox), expand(c.input, sandbox), c.statfsErrno);
    const std::string text = r.out + (r.err.empty() ? "" : "[stderr]\n" + r.err);
    std::ofstream(sandbox + ".out", std::ios::binary) << text;
    std::string checks = "O=$S.out\n";
    for (size_t i = 0; i < c.checks.size(); i++)
        checks +=
            "(" + expand(c.checks[i], sandbox) + ") || echo \"check " + std::to_string(i + 1) + " failed\"\n";
    RunResult checked = c.checks.empty() || setup.status != 0 ? RunResult{0, "", ""} : run(sandbox, checks);
    // The sandbox goes, with whatever the case mounted in it, the latest mounts first.
    std::ifstream mounts("/proc/mounts");
    std::vector<std::string> points;
    for (std::string device, point, rest; mounts >> device >> point && std::getline(mounts, rest);)
        if (point.rfind(sandbox + "/", 0) == 0) points.insert(points.begin(), point);
    for (const std::string& point : points) umount2(point.c_str(), MNT_DETACH);
    std::filesystem::remove_all(sandbox, error);
    for (const char* file : {".out", ".in", ".1", ".2"}) unlink((sandbox + file).c_str());

    for (const RunResult* step : {&setup, &r})
        if (step->status == 77 && step->out.rfind("skip: ", 0) == 0) GTEST_SKIP() << step->out.substr(6);
    ASSERT_EQ(setup.status, 0) << "setup:\n" << setup.out << setup.err;
    EXPECT_EQ(r.status, c.status);
    std::vector<std::string> out;
    for (const std::string& fragment : c.out) out.push_back(expand(fragment, sandbox));
    expectOutput(text, out);
    EXPECT_EQ(checked.out + checked.err, "");
    if (HasFailure() || getenv("E2E_SHOW")) ADD_FAILURE() << "output of the run:\n" << text;
}

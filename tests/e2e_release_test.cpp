// End-to-end: release engineering. The self-extracting file as users run it (dash and bash),
// SHA256SUMS with a signature made and checked by GnuPG, reproducible builds, and the payload
// checks of cvmkdist.
#include "tests/harness.h"

namespace {

// The release of the demo is built by `mkrun DIST FILE`; `ini DIR` writes w/setup.ini naming the
// target $S/DIR, `same A B` compares two installations and `waiting` starts r.run and waits at
// the installer's first question (tests/lib.sh).
const std::string kTmp = "$S/t m'p$x";  // TMPDIR with a blank, a quote and a dollar sign
const std::string kBuilt = R"sh(mkrun d r.run && mkdir -p ")sh" + kTmp + R"sh(" && )sh";

const std::string kLacksSideFiles =
    "[stderr]\ncvmkdist: the distribution lacks:\n  the installer (--installer FILE)\n"
    "  the message file (--messages FILE)\n  the licence text (--license FILE)\ncvmkdist: nothing was built";

}  // namespace

E2E_CASES(
    Release,
    // Through the file under dash, from a directory holding setup.ini and with TMPDIR holding a
    // blank, a quote and a dollar sign: the same tree as an installation from the directory.
    Case{
        "run_installs_like_directory",
        kBuilt +
            R"sh(ini inst && (cd w && "$S/d/cvinst" -d -post-install <<<$'\nyes' >/dev/null) && mv inst viadir)sh",
        R"sh(cd w && TMPDIR=")sh" + kTmp +
            R"sh(" dash ../r.run -- -d -post-install && same inst viadir && echo same)sh",
        kOpen,
        0,
        {kPause, kDone, "\nsame\n"},
        {R"sh([ -z "$(ls -A ")sh" + kTmp + R"sh(")" ])sh", "cd d && sha256sum --quiet -c SHA256SUMS",
         "sha256sum --quiet -c r.run.sha256"}},
    // Under bash, started by its own name: the installer's status comes back; --keep keeps the
    // private directory and says where it is.
    Case{"bash_keep_and_status",
         kBuilt + "mkdir tmp",
         "TMPDIR=$S/tmp bash ./r.run --keep -- -d -post-install; echo status $?; ls tmp",
         "\nno\n",
         0,
         {"Do you agree", "status 1\ncorvane.",
          "[stderr]\n./r.run: the distribution stays in $S/tmp/corvane."},
         {"test -x tmp/corvane.*/cvinst"}},
    Case{"check_list_target_help",
         kBuilt + "mkdir bin && ln -s /usr/bin/{dd,wc,tr,sha256sum} bin/",
         R"sh(./r.run --check && PATH=$S/bin /bin/dash r.run --check && sh r.run --list &&
              sh r.run --target 'my dir' && (cd 'my dir' && sha256sum -c SHA256SUMS) >/dev/null &&
              sh r.run --help && sh r.run -d)sh",
         "",
         2,
         {"^./r.run: OK (SHA-256 ", "\nr.run: OK (SHA-256 ", " SHA256SUMS\n", " cdinst.cvb\n", " cvinst\n",
          " cvpack\n", " license.txt\n", "Unpacked into my dir; to install, start my dir/cvinst.\n",
          "Usage: sh r.run [OPTION]",
          "[stderr]\nr.run: unknown option '-d' (the installer's own options go after --).\n"},
         {R"sh(cmp 'my dir/cvinst' "$I")sh"}},
    // Cut short and altered: refused before anything is unpacked, --check says so too.
    Case{"damage_refused",
         kBuilt + R"sh(mkdir tmp && head -c -100 r.run >cut.run && cp r.run flip.run &&
                       printf ZZZZ | dd of=flip.run bs=1 seek=300000 conv=notrunc 2>/dev/null && ! cmp -s r.run flip.run)sh",
         "TMPDIR=$S/tmp sh cut.run; echo $?; TMPDIR=$S/tmp sh flip.run --target out; echo $?; sh flip.run "
         "--check",
         "",
         1,
         {"^1\n1\n[stderr]\n", "cut.run: the file is damaged: it is cut short (", "Nothing was unpacked.",
          "flip.run: the file is damaged: the SHA-256 of its archive is ", "flip.run: the file is damaged"},
         {R"sh([ -z "$(ls -A tmp)" ])sh", "! test -e out"}},
    Case{"interrupt_at_question",
         kBuilt + "mkdir tmp",
         "waiting; kill -INT -- -$pid; wait $pid; echo status $?; ls -A tmp",
         "",
         0,
         {"^status 130\n"},
         {"grep -q 'ENTER' out", R"sh([ -z "$(ls -A tmp)" ])sh"}},
    Case{"hangup_at_question",
         kBuilt + "mkdir tmp",
         "waiting; kill -HUP -- -$pid; wait $pid; echo status $?; ls -A tmp",
         "",
         0,
         {"^status 129\n"},
         {R"sh([ -z "$(ls -A tmp)" ])sh"}},
    Case{"noexec_tmpdir",
         kBuilt + "mnt nx noexec,size=4m",
         "TMPDIR=$S/nx sh r.run -- -d",
         "",
         1,
         {"=[stderr]\nr.run: programs cannot be started from $S/nx (TMPDIR): its file system is mounted "
          "noexec.\n"
          "r.run: Choose another directory: TMPDIR=DIR sh r.run\n"
          "r.run: or unpack with: sh r.run --target DIR, and start DIR/cvinst from here.\n"},
         {R"sh([ -z "$(ls -A nx)" ])sh"}},
    // Signed as docs/releasing.md says, with a throwaway key; a changed SHA256SUMS fails the check.
    Case{
        "signature_verifies",
        kBuilt + R"sh(mkdir -m 700 g && export GNUPGHOME=$S/g &&
                       gpg --batch --passphrase '' --quick-gen-key 'Release Test <rt@example.org>' default default never 2>/dev/null &&
                       gpg --export >k.gpg; s=$?; gpgconf --kill all; exit $s)sh",
        R"sh(export GNUPGHOME=$S/g; (cd d && gpg --batch --detach-sign SHA256SUMS) && gpg --batch --detach-sign r.run;
              s=$?; gpgconf --kill all
              [ $s = 0 ] && gpgv --keyring ./k.gpg d/SHA256SUMS.sig d/SHA256SUMS 2>/dev/null &&
                gpgv --keyring ./k.gpg r.run.sig r.run 2>/dev/null && echo good
              echo >>d/SHA256SUMS; gpgv --keyring ./k.gpg d/SHA256SUMS.sig d/SHA256SUMS 2>/dev/null || echo refused)sh",
        "",
        0,
        {"=good\nrefused\n"}},
    // Another copy of the payload, other times, a second later: the same bytes with one epoch.
    Case{
        "reproducible",
        R"sh(cp -r "$P" p2 && export SOURCE_DATE_EPOCH=1700000000 && mkrun d1 r1.run)sh",
        R"sh(sleep 1; P=$S/p2 SOURCE_DATE_EPOCH=1700000000 mkrun d2 r2.run && cmp d1/SHA256SUMS d2/SHA256SUMS &&
              cmp r1.run r2.run && mkrun d3 r3.run && ! cmp -s r1.run r3.run && echo same)sh",
        "",
        0,
        {"=same\n"}},
    // One message names every problem; nothing is built.
    Case{
        "payload_refused",
        R"sh(cp -a "$P" t && rm t/corv.stu 't/$alias.crv' && mkdir 't/$alias.crv' && echo gone.e >>t/cmacros.lst &&
              mkfifo t/fifo && sock t/sock && ln -s /etc/passwd t/abs && ln -s abs t/viaabs && ln -s .. t/bin/up &&
              ln -s bin/up/.. t/esc && ln -s loop t/loop && mv t/bin/cvtw t/cvtw.real && ln -s ../cvtw.real t/bin/cvtw)sh",
        R"sh("$MK" --payload t --package cvpackep --out o --installer "$I" --messages "$MSG" --license "$P/license.txt")sh",
        "",
        1,
        {"=[stderr]\ncvmkdist: the payload t holds what a package cannot carry:\n"
         "  fifo: a FIFO\n  sock: a socket\n"
         "  abs: a symbolic link to '/etc/passwd', which leads out of the payload\n"
         "  esc: a symbolic link to 'bin/up/..', which leads out of the payload\n"
         "  loop: a symbolic link to 'loop', which is part of a loop of symbolic links\n"
         "  viaabs: a symbolic link to 'abs', which leads out of the payload through the link abs\n"
         "cvmkdist: the payload t lacks what an installation from cvpackep reads:\n"
         "  $alias.crv: the shipped alias file, which becomes or extends alias.crv (here not a regular "
         "file)\n"
         "  corv.stu: the state file, copied to rescue.stu\n"
         "  macros/gone.e: a macro source that cmacros.lst names\n"
         "  eclipse/features/com.corvane.plugin: the plug-in's feature directory\n"
         "  eclipse/plugins/com.corvane.core: the core plug-in directory\n"
         "  eclipse/plugins/com.corvane.eclipse.plugin: the Eclipse plug-in directory\n"
         "cvmkdist: nothing was built (--allow-incomplete builds a test distribution anyway)\n"},
        {"! test -e o"}},
    Case{"device_refused",
         R"sh(cp -a "$P" t && mknode t/null c 1 3)sh",
         R"sh("$MK" --payload t --list-only)sh",
         "",
         1,
         {"=[stderr]\ncvmkdist: the payload t holds what a package cannot carry:\n  null: a character "
          "device\n"}},
    // Without installer, message file and licence only on request; the file not inside the directory.
    Case{"side_files_required",
         "",
         R"sh(m() { "$MK" --payload "$P" --package cvpack --out o "$@"; }
             m; m --allow-incomplete && ls o
             m --allow-incomplete --installer "$I" --self-extracting o/x.run; m --self-extracting x.run
             "$MK" --help | head -1)sh",
         "",
         0,
         {"^SHA256SUMS\ncvcheck\ncvpack\nusage: cvmkdist --payload DIR", kLacksSideFiles,
          "cvmkdist: warning: the distribution lacks:\n", "o/x.run would lie in the distribution directory",
          "cvmkdist: --self-extracting needs --installer"},
         {"! test -e o/x.run"}});

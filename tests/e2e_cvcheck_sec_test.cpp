// End-to-end: what cvcheck guarantees. verify never says "0 differ" about what it could not check
// and names modes and owners as rpm -V does; remove holds the installer's lock and takes only what
// the installation put there; the checker comes with the installation as bin/cvcheck.
#include "tests/harness.h"

namespace {

// The demo installed into $S/i (`installed`), checked by the distribution's cvcheck (`ck`): see
// tests/lib.sh.
const std::string kInstall = "installed && ";
const std::string kAdvice =
    "cvcheck: to put the files back, install the release again into $S/i/; to take the installation off, "
    "run: cvcheck remove $S/i/\n";
const std::string kUnfinished =
    "cvcheck: run the installer again into $S/u/, or take off what it unpacked with: cvcheck remove $S/u/ "
    "--unfinished\n";

}  // namespace

E2E_CASES(
    CvcheckSec,
    // The package carries the checker and the modes of its files.
    Case{"package_carries_checker_and_modes",
         "",
         R"sh(tar xzf "$D/cvpack" -O distribmodes | grep -E ' bin/(cvtw|cvcheck|)$'
              mkdir x && tar xzf "$D/cvpack" -C x bin/cvcheck && cmp x/bin/cvcheck "$D/cvcheck" && echo same)sh",
         "",
         0,
         {"=0755 root bin/\n0755 root bin/cvcheck\n0755 root bin/cvtw\nsame\n"}},
    // An emptied list with no SHA-256 list beside it: nothing to check against.
    Case{"verify_empty_list_cannot_check",
         kInstall + R"sh(rm i/distribsha256 && : >i/distribfilelist.*)sh",
         R"sh(ck verify i; echo "status $?"; ck verify i --json | python3 -c '
import json, sys; d = json.load(sys.stdin); print(d["status"], d["exit"], "names no file" in d["reason"])')sh",
         "",
         0,
         {"^status 2\ncannot-check 2 True\n[stderr]\ncvcheck: cannot check i: $S/i/distribfilelist.",
          " names no file to check (it is empty, or none of its lines is a file record), and there is no "
          "distribsha256 to check with instead\n"
          "cvcheck: install the release again into $S/i/ to check it\n"}},
    // A list of lines that are no file records: the SHA-256 list still names every file, and the
    // changed editor is found.
    Case{"verify_empty_list_checks_sha256",
         kInstall + R"sh(printf 'x' | dd of=i/bin/cv bs=1 seek=9 conv=notrunc status=none &&
             printf 'not a record\n\n' >i/distribfilelist.*)sh",
         "ck verify i",
         "",
         1,
         {"^content    $S/i/bin/cv (SHA-256 differs)\n", "cvcheck: 1 of 16 checked files differ in $S/i/",
          "[stderr]\ncvcheck: $S/i/distribfilelist.",
          " names no file to check; checking the 17 files that distribsha256 names\n"}},
    // Mode and owner, each named by its kind, and what to do after them.
    Case{
        "verify_names_mode_and_owner",
        kInstall + "chmod 644 i/bin/cvtw && chown 65534 i/bin/cv",
        R"sh(ck verify i; echo "status $?"; ck verify i --json | python3 -c '
import json, sys; d = json.load(sys.stdin)
print([(f["path"], f["kind"], f["detail"]) for f in d["files"]], d["counts"]["mode"], d["counts"]["owner"])')sh",
        "",
        0,
        {"^owner      $S/i/bin/cv (listed root, owned by uid 65534)\n",
         "mode       $S/i/bin/cvtw (listed 0755, is 0644)\n",
         "cvcheck: 2 of 16 checked files differ in $S/i/", "\n" + kAdvice + "status 1\n",
         R"([('bin/cv', 'owner', 'listed root, owned by uid 65534'), ('bin/cvtw', 'mode', 'listed 0755, is 0644')])",
         " 1 1\n"}},
    // A directory that others may now write: whoever can write bin/ can replace the programs in it.
    Case{"verify_names_directory_mode",
         kInstall + "chmod 777 i/bin",
         R"sh(ck verify i; echo "status $?"; ck verify i --json | python3 -c '
import json, sys; d = json.load(sys.stdin); print(d["counts"]["directories"], d["files"][0]["path"])')sh",
         "",
         0,
         {"^mode       $S/i/bin/ (listed 0755, is 0777)\ncvcheck: 0 of 16 checked files differ in $S/i/ (",
          "), and 1 of 4 directories differ\n" + kAdvice + "status 1\n4 bin/\n"}},
    // A user's installation under umask 077: group and other bits the umask took are no difference,
    // and a file the user owns is no owner difference.
    Case{"verify_user_umask_is_no_difference",
         R"sh(mkdir mine && chown 65534 mine &&
             nobody bash -c 'umask 077; printf "\nyes\n" | "$0/cvinst" -d -post-install -destination-dir "$1"' \
               "$D" "$S/mine/i" >/dev/null)sh",
         R"sh(nobody "$D/cvcheck" verify mine/i)sh",
         "",
         0,
         {"=cvcheck: 0 of 16 checked files differ in $S/mine/i/ (SHA-256 list distribsha256: 16; 1 that the "
          "installation changes itself left out)\n"},
         {R"sh([ "$(stat -c %a mine/i/bin/cvtw)" = 700 ])sh"}},
    // The installed checker checks its own installation, itself included, with no argument.
    Case{
        "installed_checker_verifies_itself",
        kInstall + "chmod 644 i/bin/cvtw",
        R"sh(i/bin/cvcheck verify; echo "status $?"; cd /tmp && PATH=$S/i/bin:$PATH cvcheck verify | tail -2)sh",
        "",
        0,
        {"^mode       $S/i/bin/cvtw (listed 0755, is 0644)\ncvcheck: 1 of 16 checked files differ in $S/i/ (",
         kAdvice + "status 1\n", "cvcheck: 1 of 16 checked files differ in $S/i/ (", "$" + kAdvice}},
    Case{"help_and_usage_errors",
         "",
         R"sh(ck --help 2>err | head -1; echo "help ${PIPESTATUS[0]} $(wc -c <err)"
              ck verify i --jsn; echo "status $?"; ck frobnicate; echo "status $?"; ck remove; echo "status $?")sh",
         "",
         0,
         {"^usage: cvcheck verify [INSTALLDIR] [--json]\nhelp 0 0\nstatus 64\nstatus 64\nstatus "
          "64\n[stderr]\n",
          "cvcheck: unknown option '--jsn' for verify\nusage: ", "cvcheck: unknown command 'frobnicate'\n",
          "cvcheck: remove needs the installation directory\n"}},
    // The installer's lock: remove is refused while it is held, and so is an installation.
    Case{"lock_held",
         kInstall + "find i | sort >before",
         R"sh(flock i "$D/cvcheck" remove i; echo "status $?"
              printf '\nyes\n' | flock i "$D/cvinst" -d -post-install -destination-dir "$S/i" | grep 'Corvane Install'
              echo "status ${PIPESTATUS[1]}")sh",
         "",
         0,
         {"^status 2\nCorvane Install: Another installation into $S/i/, or a removal of it, is still "
          "running.\nstatus 1\n",
          "[stderr]\ncvcheck: refusing to remove: an installation into $S/i/ is running (it holds the "
          "directory's "
          "lock)\ncvcheck: try again once it has ended\n"},
         {"cmp before <(find i | sort)"}},
    // An empty directory that was there before the installation is not the installation's.
    Case{"remove_keeps_preexisting_empty_directory",
         "mkdir -p i/srv/empty-mountpoint && " + kInstall + "true",
         "ck remove i --purge",
         "",
         0,
         {"kept         $S/i/srv/empty-mountpoint/ (not the installation's)\n", "!kept         $S/i/bin",
          "cvcheck: removed "},
         {R"sh([ "$(find i | sort | xargs)" = 'i i/srv i/srv/empty-mountpoint' ])sh"}},
    // What the installation made (the translator's log, its lists) goes with the package's files.
    Case{"purge_untouched_leaves_nothing",
         kInstall + "grep -x bin/cvtw.log i/distribmade",
         R"sh(ck remove i --purge >out; echo "status $?, $(grep -c ^kept out) kept")sh",
         "",
         0,
         {"=status 0, 0 kept\n"},
         {"! test -e i"}},
    // A user's files, there before or come later, are kept and named; everything else goes.
    Case{
        "purge_keeps_users_files",
        R"sh(mkdir -p i/bin && echo mine >i/bin/otherprog && )sh" + kInstall +
            R"sh(mkdir -p i/share/otherapp && echo data >i/share/otherapp/data && echo '; mine' >>i/bin/corv.ini)sh",
        "ck remove i --purge | grep -v '^removed'",
        "",
        0,
        {"=kept         $S/i/bin/otherprog (unknown)\nkept         $S/i/share/otherapp/data (unknown)\n"
         "cvcheck: removed 33 entries of $S/i/, kept 2\n"},
        {R"sh([ "$(find i ! -type d | sort | xargs)" = 'i/bin/otherprog i/share/otherapp/data' ])sh",
         "grep -qx mine i/bin/otherprog"}},
    // Unpacked and never verified (as when the installer is killed while unpacking): advice, and a
    // removal that goes by the package's own list only when asked to.
    Case{"unfinished_installation",
         R"sh(mkdir u && tar xzf "$D/cvpack" -C u && truncate -s 3 u/bin/cv)sh",
         R"sh(ck verify u; echo "status $?"; ck remove u; echo "status $?"; flock u "$D/cvcheck" verify u
              echo "status $?"; ck remove u --unfinished | tail -1; ck remove u --unfinished --purge | tail -1)sh",
         "",
         0,
         {"^status 2\nstatus 2\nstatus 2\n", "cvcheck: removed 19 entries of $S/u/, kept 4\n",
          "cvcheck: removed 6 entries of $S/u/, kept 0\n[stderr]\n",
          "cvcheck: cannot check u: the installation into $S/u/ was never verified: ",
          "distribfilelist, the package's own list, is still there", kUnfinished,
          "cvcheck: refusing to remove: the installation into $S/u/ was never verified", kUnfinished,
          // Still unpacking: the installer holds the lock.
          "cvcheck: cannot check u: an installation into $S/u/ is running (it holds the directory's lock)\n",
          "cvcheck: check it once it has ended\n"},
         {"! test -e u"}});

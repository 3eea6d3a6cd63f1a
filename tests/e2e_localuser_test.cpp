// End-to-end: root's installer against what an unprivileged local user (uid 65534) could prepare,
// and against a damaged or full target. Each row runs the installer as root; a canary directory
// owned by uid 65534 beside the installation must be unchanged afterwards (no new file, no changed
// byte, mode, owner or time). The refusals come before anything is created or unpacked, so the
// races that they prevent never start.
#include "tests/harness.h"

namespace {

// pic: the canary as it stands. pk NAME LINE: a package NAME from the demo payload, its file list
// made first and then the tree changed by LINE, packed with the real tar and gzip. fake: a
// stand-in tar first on PATH, for the rows that name a system directory: it records that it was
// started and kills the whole run, so that a missing refusal fails the row and nothing unpacks
// into the system or sweeps it.
const std::string kFns = R"sh(
pic() { find out -printf '%p %u %g %m %s %T@ %C@\n' | sort; md5sum out/canary; }
pk() { tree t && "$MK" --payload t --list-only >l && mv l t/distribfilelist && (cd t && eval "$2") && tard "$1" t; }
fake() { mkdir -p fake && printf '#!/bin/sh\necho started >>"%s/tar.started"\nkill -KILL 0\n' "$S" >fake/tar && chmod +x fake/tar; }
)sh";
const std::string kCanary =
    R"sh(mkdir out && echo canary >out/canary && chown -R 65534:65534 out && pic >out.pic)sh";
const std::string kUnchanged = R"sh([ "$(pic)" = "$(cat out.pic)" ])sh";

// A row whose setup is the canary and then setup; the canary is checked after the run.
Case row(Str name, Str setup, Str command, int status, Lines out, Lines checks = {}) {
    checks.insert(checks.begin(), kFns + kUnchanged);
    return Case{name, kFns + kCanary + " && " + setup, kFns + command, kOpen, status, std::move(out), checks};
}

const std::string kDone2 = "!" + kDone;
const std::string kBroken = msg("Error detected in distribution.");
const std::string kOwned =
    " is owned by user nobody (uid 65534), who could change or replace what root installs "
    "there. Make root its owner (chown root ";
const std::string kWorld =
    " can be written by every user (mode 0777), who could change or replace what root "
    "installs there. Take that permission away (chmod o-w ";
std::string systemDir(Str dir) {
    return msg(dir +
               " is one of the system's own directories: the package would be unpacked over the system's "
               "files. Choose a directory of its own, such as /opt/corvane/.");
}
// Into a system directory with the stand-in tar: refused, tar never started. Without shown, the
// name printed is the one the kernel resolves (as /bin may be /usr/bin).
Case system(Str name, Str dir, Str shown) {
    Lines out = {shown.empty() ? " is one of the system's own directories: " : systemDir(shown), kDone2};
    return row(name, "fake", R"sh(PATH=$S/fake:$PATH "$D/cvinst" -d -post-install -destination-dir )sh" + dir,
               1, out, {"! test -e tar.started"});
}
const std::string kSecret = R"sh(echo secret-7f3a >secret && chmod 600 secret)sh";
const std::string kNoSecret = R"sh(! grep -rqs secret-7f3a i i/alias.crv i/rescue.stu)sh";
std::string leadsOut(Str name) {
    return msg("$S/i/" + name + " is a symbolic link that leads out of $S/i/.");
}

}  // namespace

E2E_CASES(
    LocalUser,
    // The installation directory is another user's: refused, nothing written into it.
    row("dir_owned_by_other_user", "mkdir i && chown 65534 i", "inst dist i", 1,
        {msg("$S/i" + kOwned + "$S/i) or run the installer as that user."), kDone2},
        {R"sh([ -z "$(ls -A i)" ])sh"}),
    // A directory on the way, not the installation directory itself, is another user's.
    row("parent_owned_by_other_user", "mkdir p && chown 65534 p", "inst dist p/i", 1,
        {msg("$S/p" + kOwned + "$S/p) or run the installer as that user."), kDone2}, {"! test -e p/i"}),
    // bin/, from which the macro translator runs as root, may be written by everyone.
    row("bin_writable_by_all", "mkdir -p i/bin && chmod 777 i/bin", "inst dist i", 1,
        {msg("$S/i/bin" + kWorld +
             "$S/i/bin) or run the installer as the user who is to own the installation."),
         kDone2},
        {R"sh([ "$(ls -A i)" = bin ])sh", R"sh([ -z "$(ls -A i/bin)" ])sh"}),
    // The installation directory itself: the sticky bit does not make it safe.
    row("dir_sticky_writable_by_all", "mkdir i && chmod 1777 i", "inst dist i", 1,
        {"Corvane Install: $S/i can be written by every user (mode 1777), who could", kDone2},
        {R"sh([ -z "$(ls -A i)" ])sh"}),
    // In a sticky directory writable by all, another user makes the directory while root's run
    // waits at the creation question: checked again once it exists, it is refused. (cat pages the
    // licence: more would read the answers still to come from the FIFO.)
    row("dir_made_by_other_user_meanwhile",
        R"sh(mkdir p && chmod 1777 p && mkfifo in && tools c cat && mv c/cat c/more)sh",
        R"sh(PATH=$S/c:$PATH "$D/cvinst" -d -post-install <in >o & exec 3>in; printf '\nyes\n%s\n' "$S/p/i" >&3
             for n in $(seq 1000); do grep -q 'does not exist. Create' o && break; sleep 0.02; done
             nobody mkdir p/i; printf 'y\n' >&3; exec 3>&-; wait $!; echo "status $?"; cat o)sh",
        0, {"status 1\n", msg("$S/p/i" + kOwned + "$S/p/i) or run the installer as that user."), kDone2},
        {R"sh([ -z "$(ls -A p/i)" ])sh"}),
    // On the way, a sticky directory such as /tmp is fine.
    row("sticky_parent_accepted", "mkdir p && chmod 1777 p", "inst dist p/i", 0, {kDone}),
    // Not as root nothing changes: the user installs into a directory of their own.
    row("other_user_installs_own_dir", "mkdir mine && chown 65534 mine",
        R"sh(nobody "$D/cvinst" -d -post-install -destination-dir "$S/mine/i")sh", 0, {kDone}),
    // "/" and the system's own directories, under the names the kernel resolves them to.
    system("root_dir", "/", "/"), system("usr", "/usr", "/usr"), system("usr_lib", "/usr/lib/", "/usr/lib"),
    system("usr_share", "/usr/share", "/usr/share"), system("etc", "/etc", "/etc"),
    system("var", "/var/", "/var"), system("dev", "/dev", "/dev"), system("bin_as_resolved", "/bin", ""),
    system("dotdot_to_root", "$S/..//..", "/"),
    // Refused before the new directory on the way is made.
    row("dotdot_below_a_new_dir", "fake",
        R"sh(PATH=$S/fake:$PATH "$D/cvinst" -d -post-install -destination-dir "$S/new/../../../usr")sh", 1,
        {systemDir("/usr"), kDone2}, {"! test -e tar.started", "! test -e new"}),
    // The shipped $alias.crv leads to a root-only file outside: it is not read nor made the alias
    // file. Unchecked (-s): the list would stop the run first, as the row after next shows.
    row("shipped_alias_link_out", kSecret + R"sh( && pk h 'ln -sf "$S/secret" "\$alias.crv"')sh",
        "inst h i -s", 0, {leadsOut("$alias.crv"), msg("Cannot update $S/i/alias.crv."), kDone},
        {kNoSecret, "! test -e i/alias.crv"}),
    // With an alias file already there it is appended to: the link out is not read either, and
    // neither is corv.stu's for the rescue copy.
    row("shipped_alias_and_state_links_out",
        kSecret +
            R"sh( && pk h 'ln -sf "$S/secret" "\$alias.crv" && ln -sf "$S/secret" corv.stu' && mkdir i && echo mine >i/alias.crv)sh",
        "inst h i -s", 0, {leadsOut("$alias.crv"), leadsOut("corv.stu"), kDone},
        {kNoSecret, R"sh([ "$(cat i/alias.crv)" = mine ])sh", "! test -e i/rescue.stu"}),
    // Checked, the links out stop the run at the list.
    row("shipped_links_out_listed", kSecret + R"sh( && pk h 'ln -sf "$S/secret" corv.stu')sh", "inst h i", 1,
        {msg("Error detected in $S/i/corv.stu. The name leaves the installation directory."), kBroken,
         kDone2},
        {kNoSecret}),
    // What the package makes writable by everyone is not left so; the project file keeps its 0666.
    row("package_writable_by_all", R"sh(pk h 'chmod 777 bin/cv macros docs && chmod 666 license.txt')sh",
        "inst h i", 0, {kDone},
        {R"sh([ "$(stat -c %a i/bin/cv)" = 775 ])sh", R"sh([ "$(stat -c %a i/macros)" = 775 ])sh",
         R"sh([ "$(stat -c %a i/license.txt)" = 664 ])sh", R"sh([ "$(stat -c %a i/uproject.crv)" = 666 ])sh",
         R"sh([ -z "$(find i ! -type l -perm -o+w ! -name uproject.crv)" ])sh"}),
    // An empty file list checks nothing, and so cannot pass.
    row("empty_file_list", "pk h ': >distribfilelist'", "inst h i", 1,
        {msg("Error detected in $S/i/distribfilelist. It names no file to check."), kBroken, kDone2}),
    // A list whose last line has no line feed is still read whole.
    row("list_without_last_line_feed", "pk h 'truncate -s -1 distribfilelist'", "inst h i", 0,
        {"!Error detected", kDone}),
    // A listed file that is an absolute link to a file inside the installation (here the macro
    // list) is judged by where it leads, checked there and read from there.
    row("listed_absolute_link_inside",
        R"sh(tree t && cp t/cmacros.lst t/docs/cml && "$MK" --payload t --list-only >l && mv l t/distribfilelist &&
             ln -sf "$S/i/docs/cml" t/cmacros.lst && tard h t)sh",
        "inst h i", 0, {"!Error detected", kDone}, {"test -L i/cmacros.lst", "test -s i/macros/main.ex"}),
    // A full disk (-d: no space check): the package's first file is larger than the file system;
    // tar's errors go unseen and the files after it, the list included, are left empty.
    row("full_disk",
        R"sh(mnt m size=1m && pk h : && mkdir big && head -c 3000000 /dev/urandom >big/0big.bin && tar -cf - -C "$S/big" 0big.bin -C "$S/t" . | gzip -c >h/cvpack)sh",
        "inst h m/i", 1,
        {msg("Error detected in $S/m/i/distribfilelist. It names no file to check."), kBroken, kDone2},
        {"test -e m/i/distribfilelist.*"}));

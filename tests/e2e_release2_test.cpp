// End-to-end: what a release ships. cvmkdist refuses a payload that would leave files or
// directories other users may change in a root installation, ships its programs stripped, and
// the demo release stays small. (Two builds in two directories: tests/reproducible.sh, run by
// ctest -L release.)
#include "tests/harness.h"

#ifndef CVINST_RELEASE_BUILD
#define CVINST_RELEASE_BUILD 0
#endif

namespace {

// m [OPTION]...: the payload $S/t packed into $S/o and $S/r.run with the built programs.
const std::string kMk =
    R"sh(m() { "$MK" --payload t --package cvpack --out o --installer "$I" --messages "$MSG" \
  --license "$P/license.txt" --self-extracting r.run "$@"; }; )sh";

// Sizes of the demo release mean what a user downloads only in an optimised build without
// sanitizers or coverage counters.
const std::string kReleaseBuildOnly =
    CVINST_RELEASE_BUILD ? ""
                         : R"sh(echo "skip: not a release build (optimised, no sanitizers)"; exit 77; )sh";

}  // namespace

E2E_CASES(
    Release2,
    // The editor's start script and the macro directory writable by everyone: any user could
    // change what others run after a root installation. Both named, nothing built.
    Case{"world_writable_refused",
         R"sh(cp -a "$P" t && chmod 0777 t/bin/cv t/macros && chmod 0666 t/corv.stu)sh",
         kMk + R"sh(m)sh",
         "",
         1,
         {"=[stderr]\ncvmkdist: the payload t holds what a package cannot carry:\n"
          "  bin/cv: a file writable by others (mode 0777)\n"
          "  corv.stu: a file writable by others (mode 0666)\n"
          "  macros: a directory writable by others (mode 0777)\n"
          "cvmkdist: nothing was built\n"},
         {"! test -e o", "! test -e r.run", "! test -e r.run.sha256"}},
    // --allow-group-write does not let through what others may write.
    Case{"world_writable_refused_with_group_flag",
         R"sh(cp -a "$P" t && chmod o+w t/bin/cvtw)sh",
         kMk + R"sh(m --allow-group-write)sh",
         "",
         1,
         {"=[stderr]\ncvmkdist: the payload t holds what a package cannot carry:\n"
          "  bin/cvtw: a file writable by others (mode 0757)\n"
          "cvmkdist: nothing was built\n"},
         {"! test -e o"}},
    // Group-writable: refused (also for --list-only) until the release engineer says the group
    // is meant to write; then packed with the modes as they are.
    Case{"group_writable_needs_flag",
         R"sh(cp -a "$P" t && chmod g+w t/corv.stu t/macros)sh",
         kMk + R"sh(m; echo "refused $?"; test -e o || echo "no o"; "$MK" --payload t --list-only >/dev/null
echo "list $?"; m --allow-group-write && tar -tvzf o/cvpack | grep -E ' (corv\.stu|macros/)$' | cut -c1-10)sh",
         "",
         0,
         {"=refused 1\nno o\nlist 1\n-rw-rw-r--\ndrwxrwxr-x\n[stderr]\n"
          "cvmkdist: the payload t holds what a package cannot carry:\n"
          "  corv.stu: a file writable by its group (mode 0664; --allow-group-write packs it)\n"
          "  macros: a directory writable by its group (mode 0775; --allow-group-write packs it)\n"
          "cvmkdist: nothing was built\n"
          "cvmkdist: the payload t holds what a package cannot carry:\n"
          "  corv.stu: a file writable by its group (mode 0664; --allow-group-write packs it)\n"
          "  macros: a directory writable by its group (mode 0775; --allow-group-write packs it)\n"},
         {"test -s r.run", "cd o && sha256sum --quiet -c SHA256SUMS"}},
    // A link's own mode (0777) is not a writable file: the demo's links pass.
    Case{"links_not_refused_for_their_mode",
         R"sh(cp -a "$P" t && ln -s cv t/bin/cvlink)sh",
         kMk + R"sh(m && echo built)sh",
         "",
         0,
         {"=built\n"}},
    // The installer and the checker are shipped stripped (the same bytes as strip makes from the
    // built ones, which carry a symbol table); an installer that is a script is shipped as is.
    Case{
        "programs_shipped_stripped",
        R"sh(cp -a "$P" t && strip -o s1 "$I" && strip -o s2 "${MK%/*}/cvcheck" && printf '#!/bin/sh\necho x\n' >inst.sh)sh",
        kMk + R"sh(m && "$MK" --payload t --package cvpack --out e --installer inst.sh --messages "$MSG" \
  --license "$P/license.txt" && echo built)sh",
        "",
        0,
        {"=built\n"},
        {"cmp o/cvinst s1", "cmp o/cvcheck s2", R"sh(readelf -S "$I" | grep -q '\.symtab')sh",
         "! readelf -S o/cvinst | grep -q '\\.symtab'", "! readelf -S o/cvcheck | grep -q '\\.symtab'",
         "cmp e/cvinst inst.sh", "test -x e/cvinst"}},
    // The demo's self-extracting file as the build makes it: under 1 MB, and without the build
    // directory's path anywhere in it.
    Case{"demo_run_under_1mb",
         "",
         kReleaseBuildOnly + R"sh(size=$(stat -c %s "$B/corvane-demo.run")
if [ "$size" -lt 1000000 ]; then echo "under 1 MB"; else echo "$size bytes"; fi
if grep -qaF "$B" "$B/corvane-demo.run"; then echo "holds $B"; else echo "no build path"; fi)sh",
         "",
         0,
         {"=under 1 MB\nno build path\n"}});

// End-to-end: cvcheck, shipped in the distribution, over installations of the demo.
#include "tests/harness.h"

namespace {

// The demo is installed into $S/i (`installed`) or the plug-in into $S/ide/corvplugin (`plugged`),
// and checked by the distribution's cvcheck (`ck`): see tests/lib.sh.
const std::string kCore = "$S/ide/corvplugin/eclipse/plugins/com.corvane.core_10.0.0/";
const std::string kFeature = "$S/ide/corvplugin/eclipse/features/com.corvane.plugin_10.0.0/feature.xml";
// The files left in $S/i are exactly those named as kept ($O: the output).
const std::string kOnlyKept =
    R"sh(diff <(sed -n 's/^kept  *\(.*\) ([^(]*)$/\1/p' $O | sort) <(find "$S/i" ! -type d | sort))sh";
// Swaps the first two bytes of a file ("Co" to "oC"): the byte sum stays.
const std::string kSwap =
    R"sh(f='i/docs/release notes.txt' && printf oC | dd of="$f" conv=notrunc status=none)sh";

}  // namespace

E2E_CASES(
    Check,
    // Without the SHA-256 list the byte sums run and miss the swapped bytes.
    Case{
        "verify_names_drift",
        "installed && " + kSwap + R"sh( &&
            printf x | dd of=i/bin/cv bs=1 seek=9 conv=notrunc status=none && truncate -s 5 i/corv.stu &&
            rm i/license.txt)sh",
        R"sh(ck verify i; echo "status $?"; rm i/distribsha256; ck verify i)sh",
        "",
        1,
        {"^content    $S/i/bin/cv (SHA-256 differs)\n",
         "size       $S/i/corv.stu (listed with 57 bytes, has 5)\n",
         "content    $S/i/docs/release notes.txt (SHA-256 differs)\n", "missing    $S/i/license.txt\n",
         "cvcheck: 4 of 16 checked files differ", "status 1\n", "content    $S/i/bin/cv (byte sum differs)\n",
         "size       $S/i/corv.stu", "!release notes", "missing    $S/i/license.txt\n",
         "cvcheck: 3 of 16 checked files differ in $S/i/ (byte sums of distribfilelist."}},
    // Any byte of a listed name comes out as valid JSON, the raw bytes as hex beside it.
    Case{
        "verify_json",
        R"sh(installed && rm i/bin/cvtw && printf 'odd\\"\001\377 3 294\n' >>i/distribfilelist.*)sh",
        R"sh(ck verify i --json >j; echo "status $?"; python3 -m json.tool j >/dev/null && python3 -c )sh"
        R"sh('import json; d = json.load(open("j")); print(d["status"], d["check"], d["counts"]["differ"], )sh"
        R"sh(ascii([(f["path"], f["kind"], f["check"], f.get("path_hex")) for f in d["files"]]))'; )sh"
        R"sh(ck verify nowhere --json | python3 -m json.tool)sh",
        "",
        0,
        {"^status 1\n" +
             line(R"(differs sha256 2 [('bin/cvtw', 'missing', 'sha256', None), ('odd\\"\x01\ufffd', )"
                  R"('missing', 'bytesum', '6f64645c2201ff')])"),
         R"("status": "cannot-check")",
         "[stderr]\ncvcheck: cannot check nowhere: cannot open nowhere: No such"}},
    Case{"verify_cannot_check",
         "installed && mkdir empty",
         R"sh(ck verify empty; echo "status $?"; rm i/bin/cvt; ck verify i)sh",
         "",
         2,
         {"^status 2\n[stderr]\ncvcheck: cannot check empty: no dated file list "
          "(distribfilelist.YYYYMMDDhhmmss) "
          "in $S/empty/",
          "cvcheck: cannot check i: no $S/i/bin/cvt, which the installation makes once its verification has "
          "passed\n"}},
    Case{"remove_dry_run",
         R"sh(installed && find i -printf '%p %s %T@\n' | sort >before)sh",
         "ck remove i --dry-run",
         "",
         0,
         {"would remove $S/i/alias.crv\n", "would remove $S/i/bin/cvt\n",
          "kept         $S/i/bin/cvtw.log (made while installing)\n",
          "kept         $S/i/distribsha256 (the list of the kept files)\n", "would remove $S/i/docs/\n",
          "would remove $S/i/macros/main.ex\n", "cvcheck: would remove 28 entries of $S/i/, kept 5\n"},
         {R"sh(cmp before <(find i -printf '%p %s %T@\n' | sort))sh"}},
    // A second installation backs up the configuration into old/ (and may leave a second dated
    // list); then corv.ini is changed.
    Case{"remove_keeps_changed_until_purge",
         R"sh(installed &&
             printf '\nyes\n\n\n' | "$D/cvinst" -d -post-install -destination-dir "$S/i" >/dev/null &&
             echo '; mine' >>i/bin/corv.ini)sh",
         R"sh(ck remove i; grep -H mine i/bin/corv.ini; ck remove i --purge >/dev/null; echo "status $?")sh",
         "",
         0,
         {"kept         $S/i/bin/corv.ini (changed)\n", "removed      $S/i/bin/corvkeys.cvb\n",
          "kept         $S/i/old/corv.ini (backup)\n", "cvcheck: removed 27 entries of $S/i/, kept ",
          "i/bin/corv.ini:; mine\nstatus 0\n"},
         {"! test -e i"}},
    Case{"remove_only_named",
         "installed && echo '; mine' >>i/bin/corv.ini && echo x >>i/macros/keys.e && echo n >i/notes",
         "ck remove i",
         "",
         0,
         {"kept         $S/i/macros/keys.e (changed)\n", "kept         $S/i/notes (unknown)\n"},
         {kOnlyKept}},
    // A directory replaced by a link to a canary outside, and a link planted beside: neither is
    // the installation's, so even a purge keeps them.
    Case{"remove_never_follows_links",
         R"sh(installed && mv i/docs canary && ln -s "$S/canary" i/docs && ln -s "$S/canary" i/bin/out)sh",
         "ck remove i --purge",
         "",
         0,
         {"kept         $S/i/bin/out (unknown)\n", "kept         $S/i/docs (unknown)\n"},
         {R"sh(test -L i/docs && cmp 'canary/release notes.txt' "$P/docs/release notes.txt")sh"}},
    // A file of the plug-in layout is looked for where the layout step moved it.
    Case{"plugin_verify_and_remove",
         "plugged && echo x >>" + kFeature,
         "ck verify ide/corvplugin; ck verify " + kCore +
             " | tail -2; ck remove ide/corvplugin --eclipse ide >out; tail -3 out",
         "",
         0,
         {"^size       " + kFeature + " (listed with 268 bytes, has 270)\n",
          "cvcheck: 1 of 19 checked files differ in $S/ide/corvplugin/ (",
          "cvcheck: 1 of 19 checked files differ in " + kCore,
          "removed      $S/ide/eclipse/links/com.corvane.eclipse.plugin.link\nremoved      "
          "$S/ide/eclipse/eclipse-cv\ncvcheck: removed 33 entries of $S/ide/corvplugin/, kept 6\n"},
         {R"sh([ "$(cd ide && find . ! -type d | sed 's/[0-9]\{14\}$/N/' | sort | xargs)" = )sh"
          "'./corvplugin/eclipse/features/com.corvane.plugin_10.0.0/feature.xml "
          "./corvplugin/eclipse/plugins/com.corvane.core_10.0.0/bin/cvtw.log "
          "./corvplugin/eclipse/plugins/com.corvane.core_10.0.0/distribfilelist.N "
          "./corvplugin/eclipse/plugins/com.corvane.core_10.0.0/distribmade "
          "./corvplugin/eclipse/plugins/com.corvane.core_10.0.0/distribmodes "
          "./corvplugin/eclipse/plugins/com.corvane.core_10.0.0/distribsha256 ./eclipse/.eclipseproduct' ]"}},
    Case{"remove_refuses",
         "installed && mkdir empty && cp -a i j && echo '../i/bin/cv 456 1' >>j/distribfilelist.*",
         R"sh(ck remove /; echo "status $?"; ck remove empty; echo "status $?"; ck remove j)sh",
         "",
         2,
         {"^status 2\nstatus 2\n[stderr]\ncvcheck: refusing to remove: / is the root directory\n",
          "cvcheck: refusing to remove: no dated file list", "cvcheck: refusing to remove: distribfilelist.",
          " names '../i/bin/cv', which has a '..' component\n"},
         {"test -f i/bin/cv && test -f j/bin/cv"}});

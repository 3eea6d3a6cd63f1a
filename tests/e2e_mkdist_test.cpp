// End-to-end: the distribution builder cvmkdist, run as the release build runs it.
#include "tests/harness.h"

namespace {

// A payload with known sums: "abc" is 97 + 98 + 99, the bytes 0..255 sum to 32640.
const std::string kSmall =
    "sp() { mkdir -p \"$1/bin\" \"$1/deep/er\" \"$1/emptydir\" && printf abc >\"$1/abc.txt\" && : "
    ">\"$1/empty\" && "
    "printf z >\"$1/deep/er/z\" && ln -s abc.txt \"$1/link\" && "
    "for i in $(seq 0 255); do printf \"\\\\$(printf %03o $i)\"; done >\"$1/bin/all bytes\" && "
    "chmod 755 \"$1/bin/all bytes\"; }; ";
const std::string kList = "abc.txt 3 294\nbin/all bytes 256 32640\ndeep/er/z 1 122\nempty 0 0";

}  // namespace

E2E_CASES(
    Mkdist,
    // The list names every regular file; the same payload makes the same package, even a second
    // later; the distribution gets the installer, the messages and the licence beside the package.
    Case{
        "lists_and_builds",
        kSmall + "sp pay",
        "\"$MK\" --payload pay --list-only && \"$MK\" --payload pay --package cvpack --out one && sleep 1 && "
        "\"$MK\" --payload pay/ --package cvpack --out two && mkd fresh",
        "",
        0,
        {"=" + kList + "\n"},
        {"test -s one/cvpack", "cmp one/cvpack two/cvpack", "cmp fresh/cvinst \"$I\"",
         "[ \"$(ls fresh | xargs)\" = 'cdinst.cvb cvinst cvpack license.txt' ]",
         "cmp fresh/cdinst.cvb \"$MSG\"", "[ $(stat -c %a fresh/cvinst) = 755 ]",
         "cmp fresh/license.txt \"$P/license.txt\""}},
    // Members are relative names, and the top directory is none of them, so unpacking leaves the
    // mode of the directory unpacked into alone. The list comes first.
    Case{"package_holds_tree_and_list",
         kSmall + "sp 'pay load'",
         "\"$MK\" --payload 'pay load' --package cvpacku --out 'out dir' && mkdir x && "
         "tar -xzf 'out dir/cvpacku' -C x && tar -tzf 'out dir/cvpacku'",
         "",
         0,
         {"!./", "^distribfilelist\n", "abc.txt\n", "bin/\n", "bin/all bytes\n", "deep/\n", "deep/er/\n",
          "deep/er/z\n", "empty\n", "emptydir/\n", "link\n", "!\n"},
         {"[ \"$(ls 'out dir')\" = cvpacku ]", "[ \"$(cat x/distribfilelist)\" = " + shq(kList) + " ]",
          "[ $(cat x/abc.txt) = abc ]", "cmp 'x/bin/all bytes' 'pay load/bin/all bytes'",
          "[ $(stat -c %a 'x/bin/all bytes') = 755 ]", "test -d x/emptydir",
          "[ \"$(readlink x/link)\" = abc.txt ]"}},
    // 8421504 bytes of 0xff sum to 2147483520, the largest multiple of 255 that still fits.
    Case{"byte_sum_limit",
         "mkdir -p ok bad/sub && head -c 8421504 /dev/zero | tr '\\0' '\\377' >ok/big && "
         "cp ok/big 'bad/sub/too big' && printf '\\377' >>'bad/sub/too big'",
         "\"$MK\" --payload ok --list-only && \"$MK\" --payload bad --package cvpack --out out; "
         "echo status $?",
         "",
         0,
         {"^big 8421504 2147483520\nstatus 1\n[stderr]\n", "sub/too big"},
         {"! test -e out/cvpack"}});

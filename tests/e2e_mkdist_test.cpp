// End-to-end: the distribution builder cvmkdist, run as the release build runs it.
#include "tests/harness.h"

E2E_CASES(Mkdist,
          // 8421504 bytes of 0xff sum to 2147483520, the largest multiple of 255 that still fits.
          Case{"byte_sum_limit",
               R"sh(mkdir -p ok bad/sub && head -c 8421504 /dev/zero | tr '\0' '\377' >ok/big &&
                    cp ok/big 'bad/sub/too big' && printf '\377' >>'bad/sub/too big')sh",
               R"sh("$MK" --payload ok --list-only && "$MK" --payload bad --package cvpack --out out;
                    echo status $?)sh",
               "",
               0,
               {"^big 8421504 2147483520\nstatus 1\n[stderr]\n", "sub/too big"},
               {"! test -e out/cvpack"}});

// End-to-end: what the Ansible role reads from cvcheck verify --json to tell the same release.
#include "tests/harness.h"

E2E_CASES(Fleet,
          // list_sha256 is the digest of the dated list the check used, which is the package's own list.
          Case{"verify_json_names_the_list_digest",
               "printf '\\nyes\\n' | \"$D/cvinst\" -d -post-install -destination-dir \"$S/i\" >/dev/null",
               "\"$D/cvcheck\" verify i --json | python3 -c 'import json, sys; "
               "print(json.load(sys.stdin)[\"list_sha256\"])'; "
               "tar -xzOf \"$D/cvpack\" distribfilelist | sha256sum",
               "",
               0,
               {},
               {"[ \"$(sed -n 1p $O)  -\" = \"$(sed -n 2p $O)\" ]",
                "grep -Eqx '[0-9a-f]{64}' <(sed -n 1p $O)"}});

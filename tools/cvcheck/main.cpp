// cvcheck: checks an installation against what was installed, and takes it off again.
//
//   cvcheck verify INSTALLDIR [--json]
//   cvcheck remove INSTALLDIR [--dry-run] [--purge] [--eclipse ECLIPSEDIR]
//
// INSTALLDIR is the installation directory; for a plug-in installation the plug-in root or its
// core plug-in directory. verify exits 0 when nothing differs, 1 when something does, 2 when
// the installation cannot be checked; remove exits 0 when done, 1 when something could not be
// removed, 2 when it refuses.
#include <cstdio>
#include <cstring>

#include "tools/cvcheck/removecmd.h"
#include "tools/cvcheck/verifycmd.h"

namespace {

int usage() {
    fprintf(stderr,
            "usage: cvcheck verify INSTALLDIR [--json]\n"
            "       cvcheck remove INSTALLDIR [--dry-run] [--purge] [--eclipse ECLIPSEDIR]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return usage();
    const char* command = argv[1];
    if (strcmp(command, "verify") == 0) {
        bool json = argc == 4 && strcmp(argv[3], "--json") == 0;
        if (argc > 4 || (argc == 4 && !json)) return usage();
        return runVerify(argv[2], json);
    }
    if (strcmp(command, "remove") != 0) return usage();
    RemoveOptions options;
    options.dir = argv[2];
    for (int i = 3; i < argc; i++) {
        if (strcmp(argv[i], "--dry-run") == 0)
            options.dryRun = true;
        else if (strcmp(argv[i], "--purge") == 0)
            options.purge = true;
        else if (strcmp(argv[i], "--eclipse") == 0 && i + 1 < argc)
            options.eclipse = argv[++i];
        else
            return usage();
    }
    return runRemove(options);
}

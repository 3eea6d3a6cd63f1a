// cvcheck: checks an installation against what was installed, and takes it off again.
//
//   cvcheck verify [INSTALLDIR] [--json]
//   cvcheck remove INSTALLDIR [--dry-run] [--purge] [--unfinished] [--eclipse ECLIPSEDIR]
//   cvcheck --help
//
// INSTALLDIR is the installation directory; for a plug-in installation the plug-in root or its
// core plug-in directory. Without it, verify checks the installation that this cvcheck belongs to
// (it is installed as bin/cvcheck). Statuses: see kHelp.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "tools/cvcheck/removecmd.h"
#include "tools/cvcheck/verifycmd.h"

namespace {

// A usage error has a status of its own, apart from the commands' 0, 1 and 2 (as sysexits' EX_USAGE).
enum { kUsageStatus = 64 };

const char kUsage[] =
    "usage: cvcheck verify [INSTALLDIR] [--json]\n"
    "       cvcheck remove INSTALLDIR [--dry-run] [--purge] [--unfinished] [--eclipse ECLIPSEDIR]\n"
    "       cvcheck --help\n";

const char kHelp[] =
    "\n"
    "verify checks every file that the installation's file list or its SHA-256 list names against\n"
    "its size and digest (or byte sum), its mode and, for an installation by root, its owner. One\n"
    "line per difference, the kind first (missing, size, content, unreadable, mode, owner), then a\n"
    "summary and what to do. Without INSTALLDIR it checks the installation it belongs to.\n"
    "  --json        one JSON document instead\n"
    "Status: 0 nothing differs, 1 something differs, 2 the installation cannot be checked.\n"
    "\n"
    "remove takes the installation off, holding the installer's lock on the directory: the listed\n"
    "files that are unchanged, what the installation made, and the directories that its lists name\n"
    "or imply once they are empty. It keeps and names changed files, backups, what the installation\n"
    "recorded as made while installing, and everything that is not the installation's.\n"
    "  --dry-run     say what would be removed, remove nothing\n"
    "  --purge       also remove changed files, backups and what was made while installing; what is\n"
    "                not the installation's (there before, or come later from elsewhere) is still kept\n"
    "  --unfinished  for an installation that never got as far as its verification: go by the\n"
    "                package's own list (distribfilelist)\n"
    "  --eclipse DIR also remove the plug-in's link file and launch script from that Eclipse\n"
    "Status: 0 done, 1 something could not be removed, 2 refused.\n"
    "\n"
    "A usage error has status 64.\n";

int usageError(const std::string& what) {
    fprintf(stderr, "cvcheck: %s\n%s(cvcheck --help tells more)\n", what.c_str(), kUsage);
    return kUsageStatus;
}

// The installation this program belongs to: it runs as INSTALLDIR/bin/cvcheck.
std::string ownInstallation() {
    char self[4096];
    ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (length <= 0) return "";
    std::string path(self, static_cast<size_t>(length));
    const std::string tail = "/bin/cvcheck";
    if (path.size() <= tail.size() || path.compare(path.size() - tail.size(), tail.size(), tail) != 0)
        return "";
    return path.substr(0, path.size() - tail.size() + 1);
}

int verifyCommand(int argc, char** argv) {
    bool json = false;
    const char* dir = nullptr;
    for (int i = 2; i < argc; i++) {
        if (strcmp(argv[i], "--json") == 0)
            json = true;
        else if (argv[i][0] == '-' && argv[i][1] != '\0')
            return usageError(std::string("unknown option '") + argv[i] + "' for verify");
        else if (dir != nullptr)
            return usageError(std::string("verify checks one directory: '") + argv[i] + "' is one too many");
        else
            dir = argv[i];
    }
    std::string own;
    if (dir == nullptr) {
        own = ownInstallation();
        if (own.empty())
            return usageError(
                "no INSTALLDIR given, and this cvcheck is not the bin/cvcheck of an installation");
        dir = own.c_str();
    }
    return runVerify(dir, json);
}

int removeCommand(int argc, char** argv) {
    RemoveOptions options;
    for (int i = 2; i < argc; i++) {
        if (strcmp(argv[i], "--dry-run") == 0) {
            options.dryRun = true;
        } else if (strcmp(argv[i], "--purge") == 0) {
            options.purge = true;
        } else if (strcmp(argv[i], "--unfinished") == 0) {
            options.unfinished = true;
        } else if (strcmp(argv[i], "--eclipse") == 0) {
            if (i + 1 >= argc) return usageError("--eclipse needs the Eclipse directory");
            options.eclipse = argv[++i];
        } else if (argv[i][0] == '-' && argv[i][1] != '\0') {
            return usageError(std::string("unknown option '") + argv[i] + "' for remove");
        } else if (options.dir != nullptr) {
            return usageError(std::string("remove takes one directory: '") + argv[i] + "' is one too many");
        } else {
            options.dir = argv[i];
        }
    }
    // Never by default: removing is asked for by naming what goes.
    if (options.dir == nullptr) return usageError("remove needs the installation directory");
    return runRemove(options);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usageError("no command given");
    const char* command = argv[1];
    if (strcmp(command, "--help") == 0 || strcmp(command, "-h") == 0) {
        printf("%s%s", kUsage, kHelp);
        return 0;
    }
    if (strcmp(command, "verify") == 0) return verifyCommand(argc, argv);
    if (strcmp(command, "remove") == 0) return removeCommand(argc, argv);
    return usageError(std::string("unknown command '") + command + "'");
}

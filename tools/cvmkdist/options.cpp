// Options of cvmkdist: a table of the options that take a value, and the help text.
#include "tools/cvmkdist/options.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "tools/cvmkdist/payload.h"
#include "tools/cvmkdist/util.h"

namespace {

struct ValueOption {
    const char* name;
    std::string MkdistOptions::*field;
};
const ValueOption kValueOptions[] = {
    {"--payload", &MkdistOptions::payload},   {"--package", &MkdistOptions::package},
    {"--out", &MkdistOptions::out},           {"--installer", &MkdistOptions::installer},
    {"--messages", &MkdistOptions::messages}, {"--license", &MkdistOptions::license},
    {"--checker", &MkdistOptions::checker},   {"--self-extracting", &MkdistOptions::selfExtracting},
};

const char kUsage[] =
    "usage: cvmkdist --payload DIR --package NAME --out DISTDIR\n"
    "                --installer FILE --messages FILE --license FILE\n"
    "                [--checker FILE] [--self-extracting FILE] [--allow-incomplete]\n"
    "                [--allow-group-write]\n"
    "       cvmkdist --payload DIR [--allow-group-write] --list-only\n";

const char kHelp[] =
    "\n"
    "Builds a Corvane distribution directory DISTDIR from the payload DIR, the editor tree as it\n"
    "will stand in the installation directory: the package NAME (the payload and its file list\n"
    "distribfilelist, the SHA-256 list distribsha256 and the mode list distribmodes, gzip-compressed\n"
    "tar), the installer as\n"
    "cvinst, the message file as cdinst.cvb, the licence as license.txt, the installation checker\n"
    "as cvcheck, and SHA256SUMS over all of them.\n"
    "\n"
    "  --package NAME          cvpack, cvpacku or cvpackd (the editor), cvpackep or cvpackepd\n"
    "                          (the Eclipse plug-in)\n"
    "  --checker FILE          the cvcheck to ship, also packed into the payload as bin/cvcheck so\n"
    "                          that each installation carries it; by default the one beside\n"
    "                          cvmkdist itself, shipped beside the package only\n"
    "  --self-extracting FILE  also write FILE, one shell script that checks, unpacks and starts\n"
    "                          the distribution (sh FILE --help), and FILE.sha256\n"
    "  --allow-incomplete      build even where the installer, the message file or the licence\n"
    "                          is not given, or the payload lacks what an installation reads;\n"
    "                          each gap is then a warning (for test distributions)\n"
    "  --allow-group-write     pack files and directories that their group may write (those\n"
    "                          that others may write are refused always)\n"
    "  --list-only             print the file list of the payload and build nothing\n"
    "\n"
    "The payload must hold bin/cvtw (the macro translator), $alias.crv, corv.stu and the\n"
    "directories bin and macros, every macro that cmacros.lst names (if there is one), and for the\n"
    "plug-in packages eclipse/features/com.corvane.plugin, eclipse/plugins/com.corvane.core and\n"
    "eclipse/plugins/com.corvane.eclipse.plugin. It must not hold device nodes, FIFOs, sockets or\n"
    "symbolic links that lead out of it, nor files or directories that others (or, without\n"
    "--allow-group-write, the group) may write: the installation keeps the modes packed. The\n"
    "installer and the checker are shipped stripped of symbols and debug information. With\n"
    "SOURCE_DATE_EPOCH set, no member of the package or of FILE is dated later than it, and the\n"
    "same inputs give the same bytes.\n";

int usageError(const char* format, const std::string& what) {
    fputs(kUsage, stderr);
    return mkdistFail(format, what);
}

}  // namespace

int parseMkdistOptions(int argc, char** argv, MkdistOptions* options) {
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        if (arg == "--list-only") {
            options->listOnly = true;
            continue;
        }
        if (arg == "--allow-incomplete") {
            options->allowIncomplete = true;
            continue;
        }
        if (arg == "--allow-group-write") {
            options->allowGroupWrite = true;
            continue;
        }
        if (arg == "-h" || arg == "--help") {
            printf("%s%s", kUsage, kHelp);
            return 2;
        }
        const ValueOption* option = nullptr;
        for (const ValueOption& known : kValueOptions)
            if (arg == known.name) option = &known;
        if (option == nullptr) return usageError("unknown argument '%s'", arg);
        if (i + 1 >= argc) return usageError("option %s needs a value", arg);
        std::string& field = options->*(option->field);
        field = argv[++i];
        if (field.empty()) return mkdistFail("option %s has an empty value", arg);
    }
    for (std::string* path : {&options->payload, &options->out, &options->selfExtracting})
        while (path->size() > 1 && path->back() == '/') path->pop_back();
    if (options->payload.empty()) return usageError("%s", "no payload directory given (--payload)");
    if (options->listOnly) return 0;
    if (options->package.empty() || options->out.empty())
        return usageError("%s", "--package and --out are required");
    if (!options->selfExtracting.empty() && options->installer.empty())
        return mkdistFail("%s",
                          "--self-extracting needs --installer: the file starts the installer it holds");
    if (!isPackageName(options->package))
        return mkdistFail(
            "'%s' is not a distribution package name (cvpack, cvpacku, cvpackd, cvpackep, cvpackepd)",
            options->package);
    options->checkerInPayload = !options->checker.empty();
    if (options->checker.empty()) options->checker = checkerBesideProgram();
    return 0;
}

std::string checkerBesideProgram() {
    char self[4096];
    ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (length <= 0) return "";
    self[length] = '\0';
    std::string checker = dirName(self) + "/cvcheck";
    struct stat st;
    return stat(checker.c_str(), &st) == 0 && S_ISREG(st.st_mode) ? checker : "";
}

// Choice of the command, the checks made before it starts, and the usage text.
#include "cli/command_line.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "cli/options.h"
#include "commands/capture.h"
#include "commands/clone.h"
#include "commands/consolidate.h"
#include "commands/restore.h"
#include "commands/verify.h"
#include "disk/list_disks.h"

namespace vornix {

namespace {

constexpr const char* numberNotGiven = "-1";

int PrintUsage() {
    std::fputs("Vornix - whole-physical-disk raw sector-level imaging.\n"
               "\n"
               "  vornix list-disks\n"
               "  vornix capture --disk N --out PATH [--base PATH [--thin]] [--vss] [--encrypt --password-file PATH]\n"
               "  vornix verify  --in PATH [--password-file PATH]\n"
               "  vornix restore --in PATH --disk N --confirm YES [--password-file PATH]\n"
               "  vornix clone --from N --to M --confirm YES [--verify]   (disk straight onto disk)\n"
               "  vornix consolidate --in PATH --out PATH [--password-file PATH [--encrypt]]  (thin chain -> one full "
               "image)\n"
               "\n"
               "Run as Administrator. See README.md for the crash-consistency and\n"
               "destructive-restore notes before using this on a real disk.\n",
               stdout);
    return 1;
}

int RunListDisks(int, char**) {
    ListDisks();
    return 0;
}

// Each command converts its numbers at the moment it reads them, before any other check, so that a mistyped number
// ends the process even where the command line lacks something else as well.

int RunCapture(int argc, char** argv) {
    CaptureOptions options{
        .disk = ParseInt(GetOptionValue(argc, argv, "--disk", numberNotGiven)),
        .outPath = GetOptionValue(argc, argv, "--out", ""),
        .encrypt = HasFlag(argc, argv, "--encrypt"),
        .vss = HasFlag(argc, argv, "--vss"),
        .passwordFile = GetOptionValue(argc, argv, "--password-file", ""),
        .basePath = GetOptionValue(argc, argv, "--base", ""),
        .thin = HasFlag(argc, argv, "--thin"),
    };
    if (options.basePath.empty()) {
        options.basePath = GetOptionValue(argc, argv, "--incremental", "");
    }
    if (options.disk < 0 || options.outPath.empty() || (options.encrypt && options.passwordFile.empty())) {
        return PrintUsage();
    }
    CaptureDisk(options);
    return 0;
}

int RunVerify(int argc, char** argv) {
    const std::string inPath = GetOptionValue(argc, argv, "--in", "");
    const std::string passwordFile = GetOptionValue(argc, argv, "--password-file", "");
    if (inPath.empty()) {
        return PrintUsage();
    }
    VerifyImage(inPath, passwordFile);
    return 0;
}

int RunRestore(int argc, char** argv) {
    const RestoreOptions options{
        .inPath = GetOptionValue(argc, argv, "--in", ""),
        .disk = ParseInt(GetOptionValue(argc, argv, "--disk", numberNotGiven)),
        .confirmed = GetOptionValue(argc, argv, "--confirm", "") == "YES",
        .passwordFile = GetOptionValue(argc, argv, "--password-file", ""),
        .skipZero = HasFlag(argc, argv, "--skip-zero"),
    };
    if (options.inPath.empty() || options.disk < 0) {
        return PrintUsage();
    }
    RestoreImage(options);
    return 0;
}

int RunClone(int argc, char** argv) {
    const CloneOptions options{
        .fromDisk = ParseInt(GetOptionValue(argc, argv, "--from", numberNotGiven)),
        .toDisk = ParseInt(GetOptionValue(argc, argv, "--to", numberNotGiven)),
        .confirmed = GetOptionValue(argc, argv, "--confirm", "") == "YES",
        .verify = HasFlag(argc, argv, "--verify"),
    };
    if (options.fromDisk < 0 || options.toDisk < 0) {
        return PrintUsage();
    }
    CloneDisk(options);
    return 0;
}

int RunConsolidate(int argc, char** argv) {
    const ConsolidateOptions options{
        .inPath = GetOptionValue(argc, argv, "--in", ""),
        .outPath = GetOptionValue(argc, argv, "--out", ""),
        .encrypt = HasFlag(argc, argv, "--encrypt"),
        .passwordFile = GetOptionValue(argc, argv, "--password-file", ""),
    };
    if (options.inPath.empty() || options.outPath.empty()) {
        return PrintUsage();
    }
    ConsolidateImage(options);
    return 0;
}

struct Command {
    const char* word;
    int (*run)(int argc, char** argv);
};

constexpr Command commands[] = {
    {"list-disks", RunListDisks}, {"capture", RunCapture}, {"verify", RunVerify},
    {"restore", RunRestore},      {"clone", RunClone},     {"consolidate", RunConsolidate},
};

} // namespace

int RunCommandLine(int argc, char** argv) {
    if (argc >= 2) {
        for (const Command& command : commands) {
            if (std::strcmp(argv[1], command.word) == 0) {
                return command.run(argc, argv);
            }
        }
    }
    return PrintUsage();
}

} // namespace vornix

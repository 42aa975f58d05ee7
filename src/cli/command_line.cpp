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

// Each command converts its numbers at the moment it reads them, before any other check, so that a mistyped number
// ends the process even where the command line lacks something else as well.

int RunCapture(int argc, char** argv) {
    const int disk = ParseInt(GetOptionValue(argc, argv, "--disk", numberNotGiven));
    const std::string outPath = GetOptionValue(argc, argv, "--out", "");
    const bool encrypt = HasFlag(argc, argv, "--encrypt");
    const bool vss = HasFlag(argc, argv, "--vss");
    const std::string passwordFile = GetOptionValue(argc, argv, "--password-file", "");
    std::string basePath = GetOptionValue(argc, argv, "--base", "");
    if (basePath.empty()) {
        basePath = GetOptionValue(argc, argv, "--incremental", "");
    }
    if (disk < 0 || outPath.empty() || (encrypt && passwordFile.empty())) {
        return PrintUsage();
    }
    CaptureDisk(disk, outPath, encrypt, passwordFile, vss, basePath, HasFlag(argc, argv, "--thin"));
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
    const std::string inPath = GetOptionValue(argc, argv, "--in", "");
    const int disk = ParseInt(GetOptionValue(argc, argv, "--disk", numberNotGiven));
    const bool confirmed = GetOptionValue(argc, argv, "--confirm", "") == "YES";
    const std::string passwordFile = GetOptionValue(argc, argv, "--password-file", "");
    if (inPath.empty() || disk < 0) {
        return PrintUsage();
    }
    RestoreImage(inPath, disk, confirmed, passwordFile, HasFlag(argc, argv, "--skip-zero"));
    return 0;
}

int RunClone(int argc, char** argv) {
    const int fromDisk = ParseInt(GetOptionValue(argc, argv, "--from", numberNotGiven));
    const int toDisk = ParseInt(GetOptionValue(argc, argv, "--to", numberNotGiven));
    if (fromDisk < 0 || toDisk < 0) {
        return PrintUsage();
    }
    const bool verify = HasFlag(argc, argv, "--verify");
    const bool confirmed = GetOptionValue(argc, argv, "--confirm", "") == "YES";
    CloneDisk(fromDisk, toDisk, confirmed, verify);
    return 0;
}

int RunConsolidate(int argc, char** argv) {
    const std::string inPath = GetOptionValue(argc, argv, "--in", "");
    const std::string outPath = GetOptionValue(argc, argv, "--out", "");
    if (inPath.empty() || outPath.empty()) {
        return PrintUsage();
    }
    const bool encrypt = HasFlag(argc, argv, "--encrypt");
    const std::string passwordFile = GetOptionValue(argc, argv, "--password-file", "");
    ConsolidateImage(inPath, outPath, passwordFile, encrypt);
    return 0;
}

} // namespace

int RunCommandLine(int argc, char** argv) {
    if (argc < 2) {
        return PrintUsage();
    }
    const char* command = argv[1];
    if (std::strcmp(command, "list-disks") == 0) {
        ListDisks();
        return 0;
    }
    if (std::strcmp(command, "capture") == 0) {
        return RunCapture(argc, argv);
    }
    if (std::strcmp(command, "verify") == 0) {
        return RunVerify(argc, argv);
    }
    if (std::strcmp(command, "restore") == 0) {
        return RunRestore(argc, argv);
    }
    if (std::strcmp(command, "clone") == 0) {
        return RunClone(argc, argv);
    }
    if (std::strcmp(command, "consolidate") == 0) {
        return RunConsolidate(argc, argv);
    }
    return PrintUsage();
}

} // namespace vornix

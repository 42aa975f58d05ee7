// vornix-disks: which disk has which number, what lies on it, and who uses it. Only looks; the imaging is vornix's.
#include <langinfo.h>

#include <clocale>
#include <cstdio>
#include <cstring>
#include <string>

#include "clean_text.h"
#include "print_report.h"

namespace {

using vornix::disks_tool::AskLsblk;
using vornix::disks_tool::FormatJson;
using vornix::disks_tool::FormatTable;
using vornix::disks_tool::MakePrintable;
using vornix::disks_tool::MakeReport;
using vornix::disks_tool::Report;

constexpr const char* usage =
    "usage: vornix-disks [--json]\n"
    "       vornix-disks --help | --version\n"
    "\n"
    "Shows the disks with the numbers that vornix takes, what lies on them, and who uses them.\n"
    "\n"
    "  --json     one JSON object in place of the table\n"
    "  --help     this text\n"
    "  --version  the version\n"
    "\n"
    "The exit status is 0, 1 where something could not be looked at or shown, 2 for a wrong\n"
    "command line. See vornix-disks(8).\n";

// What is printed is all that this program does: where it does not arrive, that is a failure.
int Print(const std::string& text) {
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
        std::perror("vornix-disks: the output was lost");
        return 1;
    }
    return 0;
}

int ShowDisks(bool isJson) {
    const bool isUtf8 = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    const vornix::platform::HostRoots& roots = vornix::platform::TheHostRoots();
    const Report report = MakeReport(roots, AskLsblk());
    if (!report.Numbers.Damage.empty()) {
        std::fprintf(
            stderr,
            "vornix-disks: the disk numbers of this boot in %s were damaged (%s): the disks are numbered anew\n",
            RegistryPath(roots).c_str(), report.Numbers.Damage.c_str());
    }
    if (!report.Error.empty()) {
        std::fprintf(stderr, "vornix-disks: %s\n", MakePrintable(report.Error, isUtf8).c_str());
    }
    const int printed = Print(isJson ? FormatJson(report, VORNIX_VERSION) : FormatTable(report, isUtf8));
    return printed != 0 || !report.Error.empty() ? 1 : 0;
}

} // namespace

int main(int count, char** arguments) {
    // For the texts of system errors and the names of what is on the disks; numbers keep their form.
    (void)std::setlocale(LC_CTYPE, "");
    const std::string option = count > 1 ? arguments[1] : "";
    if (count > 2 || (count == 2 && option != "--json" && option != "--help" && option != "--version")) {
        std::fputs(usage, stderr);
        return 2;
    }
    if (option == "--help") {
        return Print(usage);
    }
    if (option == "--version") {
        return Print("vornix-disks " VORNIX_VERSION "\n");
    }
    return ShowDisks(option == "--json");
}

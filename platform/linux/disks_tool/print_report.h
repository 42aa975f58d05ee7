// How vornix-disks shows its report: a table for people, JSON for scripts.
#pragma once

#include <string>

#include "disk_report.h"

namespace vornix::disks_tool {

// The table with its notes. Plain ASCII unless `isUtf8`.
std::string FormatTable(const Report& report, bool isUtf8);

// One JSON object, in ASCII; man/vornix-disks.8 describes it. A change of what a field means or a field less is another
// schema version; a field more is not.
std::string FormatJson(const Report& report, const std::string& programVersion);

} // namespace vornix::disks_tool

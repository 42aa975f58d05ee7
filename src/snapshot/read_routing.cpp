// The routing of reads.
#include "snapshot/read_routing.h"

namespace vornix {

ReadSource SelectReadSource(const std::vector<SnapshotRange>& ranges, bool vss, uint64_t offset, uint32_t length,
                            HANDLE liveDisk) {
    if (vss) {
        for (const SnapshotRange& range : ranges) {
            if (offset >= range.Start && offset + length <= range.End) {
                return {range.Device, offset - range.Start};
            }
        }
    }
    return {liveDisk, offset};
}

} // namespace vornix

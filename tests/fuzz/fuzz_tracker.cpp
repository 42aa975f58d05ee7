// Tracker replies: whatever the driver says, the client's state is one that can be asked about any range.
#include "fuzz_world.h"

#include "tracker/tracker_client.h"

using namespace vornix;
using namespace vornix::fuzz;

namespace {

// A bitmap of gigabytes would only show that memory can run out.
constexpr uint32_t largestBitmap = 1 << 20;
// Bits of one range that are looked at one by one.
constexpr uint64_t mostBits = 1 << 16;

// The answer by the definition: every byte of the range lies under a bit that exists and is clear.
bool RangeMayHaveChanged(const TrackerState& state, uint64_t offset, uint64_t length) {
    const uint32_t shift = state.Status.GranularityShift % 64;
    for (uint64_t bit = offset >> shift; bit <= (offset + length - 1) >> shift; ++bit) {
        if (bit >= state.Bitmap.size() * 8 || (state.Bitmap[bit / 8] & (1 << bit % 8)) != 0) {
            return true;
        }
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ResetWorld();
    Input input(data, size);
    const uint64_t offset = input.TakeNumber(8);
    const uint64_t length = input.TakeNumber(4);
    Bytes first = input.TakeStretch();
    first.resize(sizeof(TrackerStatus));
    if (first[46] > (largestBitmap >> 16) || first[47] != 0) {
        return 0;
    }
    TheWorld().TrackerReplies = {first, input.TakeStretch()};

    TrackerState state;
    if (!TrackerOpen(state, 1) || !state.Available) {
        ReportBroken("a device that opens and attaches is available");
    }
    if (!TrackerQuery(state)) {
        if (!state.Bitmap.empty() || state.Status.Active != 0) {
            ReportBroken("a failed query leaves the state alone");
        }
        return 0;
    }
    const uint32_t shift = state.Status.GranularityShift % 64;
    if (length == 0 || offset > UINT64_MAX - length || (length >> shift) > mostBits) {
        return 0;
    }
    if (TrackerRangeChanged(state, offset, length) != RangeMayHaveChanged(state, offset, length)) {
        ReportBroken("a range is unchanged exactly when all its bits exist and are clear");
    }
    return 0;
}

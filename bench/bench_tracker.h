// The tracking driver of a described machine: what its device answers, which bits the program's writes set, and the
// file that holds its state between runs.
#pragma once

#include "machine_description.h"
#include "open_objects.h"

#include <cstdint>
#include <set>
#include <string>

namespace vornix::bench {

class Tracker {
public:
    // `folder` is that of the description.
    Tracker(TrackerDescription description, const std::string& folder);
    Tracker(const Tracker&) = delete;
    Tracker& operator=(const Tracker&) = delete;

    // Answers an open of the device.
    OpenOutcome Open(const OpenRequest& request);

    // The program wrote `length` bytes, not 0, to a disk at `offset`. Of no effect on a disk that is not tracked.
    void MarkWritten(std::uint32_t disk, std::uint64_t offset, std::uint64_t length);

    // Rewrites the file in place if anything has changed since it was read or last written. What did not change stays
    // as the file had it. Ends the process if the host refuses the file.
    void Save();

private:
    friend class TrackerObject;

    struct State {
        TrackedDiskDescription Disk;
        bool Asked = false;     // a QUERY was answered in this run
        bool Committed = false; // epochs and gaps are no longer those of the file
        bool Marked = false;    // the bitmap is no longer that of the file
    };

    Outcome Attach(const ControlRequest& request);
    Outcome Query(const ControlRequest& request, DWORD& returned);
    Outcome Commit(const ControlRequest& request);

    // Null if the disk is not tracked.
    State* FindState(std::uint32_t number);

    // The disk of a request of `length` bytes; null, with the error set, for a request that is too short or for a disk
    // that is not tracked.
    State* FindRequested(const ControlRequest& request, DWORD length, DWORD& error);

    const std::string path_;
    const std::uint32_t openError_;
    std::string text_;
    std::vector<State> states_;
    ShareLedger shares_;
};

} // namespace vornix::bench

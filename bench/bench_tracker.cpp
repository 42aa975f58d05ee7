// Imitates the tracking driver. See bench_tracker.h; the records of its requests are those of its published device
// protocol and are written down here a second time, so that the program's own declarations are held against another
// reading.
#include "bench_tracker.h"

#include "host.h"
#include "text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

namespace vornix::bench {

namespace {

constexpr DWORD attachCode = 0x8C7D2004;
constexpr DWORD queryCode = 0x8C7D2008;
constexpr DWORD commitCode = 0x8C7D200C;

constexpr DWORD diskRequestBytes = 8;
constexpr DWORD commitRequestBytes = 16;
constexpr DWORD statusBytes = 48;

std::uint64_t ReadLittle(const void* bytes, std::size_t offset, std::size_t width) {
    const auto* const from = static_cast<const std::uint8_t*>(bytes) + offset;
    std::uint64_t value = 0;
    for (std::size_t index = width; index > 0; --index) {
        value = value << 8 | from[index - 1];
    }
    return value;
}

void WriteLittle(std::uint8_t* bytes, std::size_t offset, std::size_t width, std::uint64_t value) {
    for (std::size_t index = 0; index < width; ++index) {
        bytes[offset + index] = static_cast<std::uint8_t>(value >> (8 * index) & 0xFF);
    }
}

// The 48 bytes of a status; `reply` stands in for the values that it gives.
void WriteStatus(std::uint8_t* out, const TrackedDiskDescription& disk, const FirstReplyDescription& reply) {
    const auto bitmapBytes = static_cast<std::uint32_t>(disk.Bitmap.size());
    WriteLittle(out, 0, 4, reply.Active.value_or(disk.Active));
    WriteLittle(out, 4, 4, reply.HasPreviousEpoch.value_or(disk.HasPreviousEpoch));
    WriteLittle(out, 8, 8, reply.PreviousEpoch.value_or(disk.PreviousEpoch));
    WriteLittle(out, 16, 8, reply.CurrentEpoch.value_or(disk.CurrentEpoch));
    WriteLittle(out, 24, 4, reply.OtherGap.value_or(disk.OtherGap));
    WriteLittle(out, 28, 4, reply.Gap.value_or(disk.Gap));
    WriteLittle(out, 32, 8, reply.TrackedExtent.value_or(disk.TrackedExtent));
    WriteLittle(out, 40, 4, reply.GranularityShift.value_or(disk.GranularityShift));
    WriteLittle(out, 44, 4, reply.BitmapBytes.value_or(bitmapBytes));
}

} // namespace

// A handle of the program on the driver's device.
class TrackerObject final : public OpenObject {
public:
    TrackerObject(Tracker& tracker, const OpenRequest& request)
        : tracker_(tracker), access_(request.Access), share_(request.Share) {}

    Outcome Control(const ControlRequest& request, DWORD& returned) override {
        switch (request.Code) {
        case attachCode:
            return tracker_.Attach(request);
        case queryCode:
            return tracker_.Query(request, returned);
        case commitCode:
            return tracker_.Commit(request);
        default:
            return FailWith(ERROR_INVALID_FUNCTION);
        }
    }

    Outcome Close() override {
        tracker_.shares_.Leave(access_, share_);
        return {};
    }

private:
    Tracker& tracker_;
    DWORD access_;
    DWORD share_;
};

Tracker::Tracker(TrackerDescription description, const std::string& folder)
    : path_(JoinHostPath(folder, description.File)), openError_(description.OpenError),
      text_(std::move(description.Text)) {
    for (TrackedDiskDescription& disk : description.Disks) {
        states_.push_back({.Disk = std::move(disk)});
    }
}

OpenOutcome Tracker::Open(const OpenRequest& request) {
    if (openError_ != 0) {
        return RefuseOpen(openError_);
    }
    if (!shares_.Enter(request.Access, request.Share)) {
        return RefuseOpen(ERROR_SHARING_VIOLATION);
    }
    return {.Object = std::make_unique<TrackerObject>(*this, request), .Result = {}};
}

void Tracker::MarkWritten(std::uint32_t disk, std::uint64_t offset, std::uint64_t length) {
    State* const state = FindState(disk);
    if (state == nullptr || state->Disk.Bitmap.empty()) {
        return;
    }
    std::vector<std::uint8_t>& bitmap = state->Disk.Bitmap;
    const std::uint32_t shift = state->Disk.GranularityShift & 63;
    const std::uint64_t last = std::min<std::uint64_t>((offset + length - 1) >> shift, bitmap.size() * 8 - 1);
    for (std::uint64_t bit = offset >> shift; bit <= last; ++bit) {
        std::uint8_t& byte = bitmap[static_cast<std::size_t>(bit / 8)];
        const auto mask = static_cast<std::uint8_t>(1u << bit % 8);
        if ((byte & mask) == 0) {
            byte = static_cast<std::uint8_t>(byte | mask);
            state->Marked = true;
        }
    }
}

void Tracker::Save() {
    if (std::none_of(states_.begin(), states_.end(),
                     [](const State& state) { return state.Committed || state.Marked; })) {
        return;
    }
    // The file was read and found good when the machine was built, and its list of disks is that of the states.
    using Json = nlohmann::ordered_json;
    Json content = Json::parse(text_);
    for (std::size_t index = 0; index < states_.size(); ++index) {
        Json& fields = content["disks"][index];
        State& state = states_[index];
        if (state.Committed) {
            fields["has_previous_epoch"] = state.Disk.HasPreviousEpoch;
            fields["previous_epoch"] = state.Disk.PreviousEpoch;
            fields["current_epoch"] = state.Disk.CurrentEpoch;
            fields["other_gap"] = state.Disk.OtherGap;
            fields["gap"] = state.Disk.Gap;
        }
        if (state.Committed || state.Marked) {
            fields["bitmap"] = HexFromBytes(state.Disk.Bitmap.data(), state.Disk.Bitmap.size());
        }
        state.Committed = false;
        state.Marked = false;
    }
    text_ = content.dump(2) + "\n";
    const std::unique_ptr<HostFile> file = HostFile::Open(path_, HostFile::Mode::Create);
    const HostTransfer transfer = file == nullptr ? HostTransfer() : file->WriteAt(0, text_.data(), text_.size());
    if (transfer.Count != text_.size()) {
        std::fprintf(stderr, "vornix-bench: cannot write the tracker's file %s\n", path_.c_str());
        std::fflush(stderr);
        EndProcess(3);
    }
}

Outcome Tracker::Attach(const ControlRequest& request) {
    DWORD error = 0;
    return FindRequested(request, diskRequestBytes, error) == nullptr ? FailWith(error) : Outcome();
}

Outcome Tracker::Query(const ControlRequest& request, DWORD& returned) {
    DWORD error = 0;
    State* const state = FindRequested(request, diskRequestBytes, error);
    if (state == nullptr) {
        return FailWith(error);
    }
    if (request.OutLength < statusBytes) {
        return FailWith(ERROR_INSUFFICIENT_BUFFER);
    }
    auto* const out = static_cast<std::uint8_t*>(request.Out);
    WriteStatus(out, state->Disk, state->Asked ? FirstReplyDescription() : state->Disk.FirstReply);
    state->Asked = true;
    returned = statusBytes;
    const std::vector<std::uint8_t>& bitmap = state->Disk.Bitmap;
    if (request.OutLength - statusBytes < bitmap.size()) {
        return FailWith(ERROR_MORE_DATA);
    }
    std::copy(bitmap.begin(), bitmap.end(), out + statusBytes);
    returned = statusBytes + static_cast<DWORD>(bitmap.size());
    return {};
}

Outcome Tracker::Commit(const ControlRequest& request) {
    DWORD error = 0;
    State* const state = FindRequested(request, commitRequestBytes, error);
    if (state == nullptr) {
        return FailWith(error);
    }
    const std::uint64_t epoch = ReadLittle(request.In, 8, 8);
    TrackedDiskDescription& disk = state->Disk;
    disk.HasPreviousEpoch = 1;
    disk.PreviousEpoch = epoch;
    disk.CurrentEpoch = epoch + 1;
    disk.OtherGap = 0;
    disk.Gap = 0;
    std::fill(disk.Bitmap.begin(), disk.Bitmap.end(), std::uint8_t{0});
    state->Committed = true;
    // At once, so that a process that is killed behind the commit leaves it standing.
    Save();
    return {};
}

Tracker::State* Tracker::FindState(std::uint32_t number) {
    const auto found =
        std::find_if(states_.begin(), states_.end(), [&](const State& state) { return state.Disk.Number == number; });
    return found == states_.end() ? nullptr : &*found;
}

Tracker::State* Tracker::FindRequested(const ControlRequest& request, DWORD length, DWORD& error) {
    // The second word of every request is reserved and has to be 0.
    if (request.InLength < length || ReadLittle(request.In, 4, 4) != 0) {
        error = ERROR_INVALID_PARAMETER;
        return nullptr;
    }
    State* const state = FindState(static_cast<std::uint32_t>(ReadLittle(request.In, 0, 4)));
    error = state == nullptr ? ERROR_FILE_NOT_FOUND : ERROR_SUCCESS;
    return state;
}

} // namespace vornix::bench

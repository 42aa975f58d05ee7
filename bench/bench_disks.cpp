// Answers what the program asks of a disk of the described machine. See bench_disks.h.
#include "bench_disks.h"

#include "bench_calls.h"
#include "bench_tracker.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace vornix::bench {

namespace {

constexpr std::uint64_t frozenBlock = 65536;

// The answer to IOCTL_DISK_GET_DRIVE_GEOMETRY_EX without partition or detection data, as the program asks for it.
constexpr DWORD geometryBytes = 40;

} // namespace

// A handle of the program on a disk.
class DiskObject final : public SectorObject {
public:
    DiskObject(Disk& disk, const OpenRequest& request)
        : SectorObject(request, disk.Description().Length, disk.Description().SectorSize), disk_(disk),
          access_(request.Access), share_(request.Share) {}

    Outcome Control(const ControlRequest& request, DWORD& returned) override {
        switch (request.Code) {
        case IOCTL_DISK_GET_LENGTH_INFO:
            return AnswerLength(request, returned);
        case IOCTL_DISK_GET_DRIVE_GEOMETRY_EX:
            return AnswerGeometry(request, returned);
        case IOCTL_DISK_UPDATE_PROPERTIES:
            return {};
        default:
            return FailWith(ERROR_INVALID_FUNCTION);
        }
    }

    Outcome Close() override {
        disk_.shares_.Leave(access_, share_);
        return {};
    }

protected:
    HostTransfer ReadAt(std::uint64_t offset, void* buffer, std::size_t length) override {
        return disk_.ReadAt(offset, buffer, length);
    }

    HostTransfer WriteAt(std::uint64_t offset, const void* buffer, std::size_t length) override {
        return disk_.WriteAt(offset, buffer, length);
    }

private:
    Outcome AnswerLength(const ControlRequest& request, DWORD& returned) const {
        GET_LENGTH_INFORMATION answer = {};
        if (request.OutLength < sizeof answer) {
            return FailWith(ERROR_INSUFFICIENT_BUFFER);
        }
        answer.Length.QuadPart = static_cast<LONGLONG>(disk_.Description().Length);
        std::memcpy(request.Out, &answer, sizeof answer);
        returned = sizeof answer;
        return {};
    }

    Outcome AnswerGeometry(const ControlRequest& request, DWORD& returned) const {
        DISK_GEOMETRY_EX answer = {};
        static_assert(sizeof answer == geometryBytes);
        if (request.OutLength < geometryBytes) {
            return FailWith(ERROR_INSUFFICIENT_BUFFER);
        }
        constexpr std::uint32_t tracks = 255;
        constexpr std::uint32_t sectors = 63;
        const DiskDescription& disk = disk_.Description();
        const std::uint64_t cylinderBytes = std::uint64_t{tracks} * sectors * disk.SectorSize;
        answer.Geometry.Cylinders.QuadPart = static_cast<LONGLONG>(disk.Length / cylinderBytes);
        answer.Geometry.MediaType = FixedMedia;
        answer.Geometry.TracksPerCylinder = tracks;
        answer.Geometry.SectorsPerTrack = sectors;
        answer.Geometry.BytesPerSector = disk.SectorSize;
        // DiskSize stays 0 on purpose: the length of a disk is what the other control code says.
        std::memcpy(request.Out, &answer, geometryBytes);
        returned = geometryBytes;
        return {};
    }

    Disk& disk_;
    DWORD access_;
    DWORD share_;
};

bool DiskFile::Open() {
    if (file_ == nullptr) {
        file_ = HostFile::Open(path_, HostFile::Mode::ReadWrite);
    }
    if (file_ == nullptr) {
        file_ = HostFile::Open(path_, HostFile::Mode::Read);
    }
    return file_ != nullptr;
}

HostTransfer DiskFile::ReadAt(std::uint64_t offset, void* buffer, std::size_t length) {
    return file_->ReadAt(offset, buffer, length);
}

HostTransfer DiskFile::WriteAt(std::uint64_t offset, const void* buffer, std::size_t length) {
    for (FrozenExtent* const frozen : frozen_) {
        frozen->Preserve(offset, length);
    }
    return file_->WriteAt(offset, buffer, length);
}

std::uint64_t DiskFile::FindSize() {
    return file_->FindSize().value_or(0);
}

Disk::Disk(DiskDescription description, std::shared_ptr<DiskFile> file, Tracker* tracker)
    : description_(std::move(description)), file_(std::move(file)), tracker_(tracker) {}

OpenOutcome Disk::Open(const OpenRequest& request) {
    if (description_.OpenError != 0) {
        return RefuseOpen(description_.OpenError);
    }
    constexpr DWORD shareBoth = FILE_SHARE_READ | FILE_SHARE_WRITE;
    if (description_.InUse && (request.Share & shareBoth) != shareBoth) {
        return RefuseOpen(ERROR_SHARING_VIOLATION);
    }
    if (!file_->Open()) {
        return RefuseOpen(ERROR_ACCESS_DENIED);
    }
    if (!shares_.Enter(request.Access, request.Share)) {
        return RefuseOpen(ERROR_SHARING_VIOLATION);
    }
    return {.Object = std::make_unique<DiskObject>(*this, request), .Result = {}};
}

HostTransfer Disk::ReadAt(std::uint64_t offset, void* buffer, std::size_t length) {
    return file_->ReadAt(offset, buffer, length);
}

HostTransfer Disk::WriteAt(std::uint64_t offset, const void* buffer, std::size_t length) {
    const HostTransfer transfer = file_->WriteAt(offset, buffer, length);
    if (tracker_ != nullptr && transfer.Count > 0) {
        tracker_->MarkWritten(description_.Number, offset, transfer.Count);
    }
    return transfer;
}

bool Disk::Poke(std::uint64_t offset, const std::vector<std::uint8_t>& bytes) {
    if (!file_->Open()) {
        return false;
    }
    const HostTransfer transfer = file_->WriteAt(offset, bytes.data(), bytes.size());
    return transfer.Error == 0 && transfer.Count == bytes.size();
}

FrozenExtent::FrozenExtent(std::shared_ptr<DiskFile> file, std::uint64_t start, std::uint64_t length)
    : file_(std::move(file)), start_(start) {
    // A file that ends within the extent may grow later; what it does not hold now was not frozen.
    const std::uint64_t size = file_->FindSize();
    length_ = start >= size ? 0 : std::min(length, size - start);
    file_->frozen_.push_back(this);
}

FrozenExtent::~FrozenExtent() {
    std::erase(file_->frozen_, this);
}

HostTransfer FrozenExtent::ReadAt(std::uint64_t offset, void* buffer, std::size_t length) {
    HostTransfer transfer;
    auto* const bytes = static_cast<std::uint8_t*>(buffer);
    while (transfer.Count < length && offset + transfer.Count < length_) {
        const std::uint64_t at = offset + transfer.Count;
        const std::uint64_t inBlock = at % frozenBlock;
        const std::uint64_t inExtent = std::min(frozenBlock - inBlock, length_ - at);
        const auto step = static_cast<std::size_t>(std::min<std::uint64_t>(length - transfer.Count, inExtent));
        const auto preserved = preserved_.find(at / frozenBlock);
        if (preserved == preserved_.end()) {
            const HostTransfer live = file_->ReadAt(start_ + at, bytes + transfer.Count, step);
            transfer.Error = live.Error;
            transfer.Count += live.Count;
            if (live.Error != 0 || live.Count < step) {
                break;
            }
        } else {
            std::memcpy(bytes + transfer.Count, preserved->second.data() + inBlock, step);
            transfer.Count += step;
        }
    }
    return transfer;
}

void FrozenExtent::Preserve(std::uint64_t offset, std::uint64_t length) {
    const std::uint64_t first = std::max(offset, start_);
    const std::uint64_t end = std::min(offset + length, start_ + length_);
    if (first >= end) {
        return;
    }
    for (std::uint64_t block = (first - start_) / frozenBlock; block <= (end - 1 - start_) / frozenBlock; ++block) {
        if (!preserved_.contains(block)) {
            preserved_.emplace(block, ReadBlock(block));
        }
    }
}

std::vector<std::uint8_t> FrozenExtent::ReadBlock(std::uint64_t block) {
    const std::uint64_t offset = block * frozenBlock;
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(std::min(frozenBlock, length_ - offset)));
    const HostTransfer transfer = file_->ReadAt(start_ + offset, bytes.data(), bytes.size());
    if (transfer.Error != 0 || transfer.Count != bytes.size()) {
        EndUnsupported("a disk that cannot be read back where its snapshot is kept");
    }
    return bytes;
}

} // namespace vornix::bench

// Builds the described machine of this process. See machine.h.
#include "machine.h"

#include "host.h"

#include <utility>

namespace vornix::bench {

namespace {

// A plain pointer with no constructor, so that it is null from the very start of the process.
Machine* currentMachine = nullptr;

class HostDescriptionFiles final : public DescriptionFiles {
public:
    explicit HostDescriptionFiles(std::string folder) : folder_(std::move(folder)) {}

    std::optional<std::string> ReadText(const std::string& name) const override {
        const std::unique_ptr<HostFile> file = HostFile::Open(JoinHostPath(folder_, name), HostFile::Mode::Read);
        const std::optional<std::uint64_t> size = file == nullptr ? std::nullopt : file->FindSize();
        if (!size) {
            return std::nullopt;
        }
        std::string text(static_cast<std::size_t>(*size), '\0');
        const HostTransfer transfer = file->ReadAt(0, text.data(), text.size());
        return transfer.Count == text.size() ? std::optional(std::move(text)) : std::nullopt;
    }

    std::optional<std::uint64_t> FindSize(const std::string& name) const override {
        const std::unique_ptr<HostFile> file = HostFile::Open(JoinHostPath(folder_, name), HostFile::Mode::Read);
        return file == nullptr ? std::nullopt : file->FindSize();
    }

private:
    const std::string folder_;
};

} // namespace

Machine::Machine(MachineDescription description, const std::string& folder, std::unique_ptr<HostFile> log)
    : Description(std::move(description)), Log(std::move(log)), Faults(Description.Faults), Ticks(Description.Ticks) {
    if (Description.Tracker) {
        ChangeTracker = std::make_unique<Tracker>(*Description.Tracker, folder);
    }
    std::map<std::string, std::shared_ptr<DiskFile>> files;
    for (const DiskDescription& disk : Description.Disks) {
        std::shared_ptr<DiskFile>& file = files[disk.File];
        if (file == nullptr) {
            file = std::make_shared<DiskFile>(JoinHostPath(folder, disk.File));
        }
        Disks.emplace(disk.Number, std::make_unique<Disk>(disk, file, ChangeTracker.get()));
    }
    if (Description.ShadowService) {
        Shadows = std::make_unique<ShadowService>(Description, Disks, folder);
    }
}

Disk* Machine::FindDisk(std::uint32_t number) {
    const auto found = Disks.find(number);
    return found == Disks.end() ? nullptr : found->second.get();
}

Machine* CurrentMachine() {
    return currentMachine;
}

void InstallMachine(std::unique_ptr<Machine> machine) {
    delete currentMachine;
    currentMachine = machine.release();
}

std::unique_ptr<Machine> LoadMachine(const std::string& folder) {
    MachineDescription description = LoadMachineDescription(HostDescriptionFiles(folder));
    std::unique_ptr<HostFile> log;
    if (description.Calls) {
        log = HostFile::Open(JoinHostPath(folder, *description.Calls), HostFile::Mode::Create);
        if (log == nullptr) {
            throw DescriptionError("calls: the file \"" + *description.Calls + "\" cannot be made");
        }
    }
    return std::make_unique<Machine>(std::move(description), folder, std::move(log));
}

} // namespace vornix::bench

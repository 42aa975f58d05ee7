// Runs one call of the program through the fault policy and the log. See call_record.h.
#include "call_record.h"

#include "host.h"
#include "machine.h"
#include "text.h"

#include <cstdio>

namespace vornix::bench {

namespace {

[[noreturn]] void EndForFault(const char* what, const std::string& path) {
    std::fprintf(stderr, "vornix-bench: a fault cannot %s %s\n", what, path.c_str());
    std::fflush(stderr);
    EndProcess(3);
}

void Poke(Machine& machine, const PokeEffect& poke) {
    Disk& disk = *machine.FindDisk(poke.Disk); // the description was refused if there were none
    if (!disk.Poke(poke.Offset, poke.Bytes)) {
        EndForFault("write to", disk.Description().File);
    }
}

void Touch(const std::string& path) {
    if (HostFile::Open(path, HostFile::Mode::Create) == nullptr) {
        EndForFault("make", path);
    }
}

} // namespace

CallRecord::CallRecord(std::string_view call, std::initializer_list<std::string_view> paths)
    : call_(call), lastError_(GetLastError()) {
    Machine& machine = *CurrentMachine();
    if (const FaultEffect* const effect = machine.Faults.Take(call, paths)) {
        effect_ = *effect;
    }
    if (effect_.Poke) {
        Poke(machine, *effect_.Poke);
    }
    if (effect_.Touch) {
        Touch(*effect_.Touch);
    }
    if (effect_.Kill && !effect_.Transferred) {
        EndKilled();
    }
}

void CallRecord::AddCode(const char* key, std::uint32_t code) {
    fields_.Add(key, FormatCode(code));
}

void CallRecord::AdoptLastError() {
    lastError_ = GetLastError();
}

void CallRecord::Finish() {
    CurrentMachine()->Log.Write(call_, fields_);
    // Last of all, since writing the line goes through calls of the host that have last errors of their own.
    SetLastError(lastError_);
}

BOOL CallRecord::FinishWithOutcome(const Outcome& outcome) {
    Add("ok", outcome.Ok);
    if (!outcome.Ok) {
        Add("error", *outcome.LastError);
    }
    lastError_ = outcome.LastError.value_or(lastError_);
    Finish();
    return outcome.Ok ? TRUE : FALSE;
}

std::int32_t CallRecord::FinishWithStatus(std::int32_t status) {
    AddCode("status", static_cast<std::uint32_t>(status));
    Finish();
    return status;
}

void EndKilled() {
    EndProcess(137);
}

} // namespace vornix::bench

// Writes the log of a described machine. See call_log.h.
#include "call_log.h"

#include <cstdio>
#include <string>
#include <utility>

namespace vornix::bench {

CallLog::CallLog(std::unique_ptr<HostFile> file) : file_(std::move(file)) {}

void CallLog::Write(std::string_view call, const LogFields& fields) {
    if (file_ == nullptr) {
        return;
    }
    LogFields line = {{"n", ++lines_}, {"call", call}};
    for (const auto& field : fields.items()) {
        line[field.key()] = field.value();
    }
    // A narrow path of the program is bytes of any kind; what is no UTF-8 in it must not break the line.
    const std::string text = line.dump(-1, ' ', false, LogFields::error_handler_t::replace) + "\n";
    const HostTransfer transfer = file_->WriteAt(size_, text.data(), text.size());
    if (transfer.Error != 0 || transfer.Count != text.size()) {
        std::fprintf(stderr, "vornix-bench: cannot write the log of calls (error %u)\n",
                     static_cast<unsigned int>(transfer.Error));
        std::fflush(stderr);
        EndProcess(3);
    }
    size_ += text.size();
}

} // namespace vornix::bench

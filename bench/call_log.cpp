// Writes the log of a described machine. See call_log.h.
#include "call_log.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <utility>

namespace vornix::bench {

namespace {

std::string Quoted(std::string_view text) {
    using Json = nlohmann::json;
    return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

} // namespace

void LogFields::Add(std::string_view key, std::string_view text) {
    AddJson(key, Quoted(text));
}

void LogFields::AddJson(std::string_view key, std::string_view value) {
    text_.append(",\"").append(key).append("\":").append(value);
}

CallLog::CallLog(std::unique_ptr<HostFile> file) : file_(std::move(file)) {}

void CallLog::Write(std::string_view call, const LogFields& fields) {
    if (file_ == nullptr) {
        return;
    }
    LogFields head;
    head.Add("n", ++lines_);
    head.Add("call", call);
    const std::string text = "{" + head.Text().substr(1) + fields.Text() + "}\n";
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

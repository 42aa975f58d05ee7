// The streams of a run.

#include "console.h"

#include "text.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace vrnx_cli {

namespace {

constexpr size_t pieceLength = 65536;

} // namespace

int Worst(int one, int other) {
    return std::max(one, other);
}

bool Console::Write(const void* bytes, size_t length) {
    if (outputFailed_) {
        return false;
    }
    int error = WriteStream(Stream::output, bytes, length);
    if (error != 0) {
        outputFailed_ = true;
        Complain("standard output cannot be written: " + DescribeSystemError(error));
    }
    return !outputFailed_;
}

void Console::Print(std::string_view text) {
    pending_ += text;
    if (pending_.size() >= pieceLength) {
        Flush();
    }
}

void Console::Flush() {
    if (pending_.empty()) {
        return;
    }
    EndProgress();
    Write(pending_.data(), pending_.size());
    pending_.clear();
}

bool Console::PrintBytes(const void* bytes, size_t length) {
    return Write(bytes, length);
}

void Console::Complain(std::string_view text) {
    EndProgress();
    std::string line = "vrnx: " + Printable(text) + "\n";
    // Where not even this can be said, the status says it.
    static_cast<void>(WriteStream(Stream::error, line.data(), line.size()));
}

void Console::ShowProgress(std::string_view what, uint64_t done, uint64_t total) {
    auto now = std::chrono::steady_clock::now();
    if (!errorIsTerminal_ || now < nextProgress_) {
        return;
    }
    nextProgress_ = now + std::chrono::milliseconds(200);
    std::array<char, 16> share = {};
    double percent = total == 0 ? 100.0 : 100.0 * static_cast<double>(done) / static_cast<double>(total);
    std::snprintf(share.data(), share.size(), "%6.2f%%", percent);
    std::string line = std::string(share.data()) + "  " + Printable(what);
    size_t length = line.size();
    line = "\r" + line + std::string(progressLength_ > length ? progressLength_ - length : 0, ' ');
    progressLength_ = length;
    static_cast<void>(WriteStream(Stream::error, line.data(), line.size()));
}

void Console::EndProgress() {
    if (progressLength_ == 0) {
        return;
    }
    std::string line = "\r" + std::string(progressLength_, ' ') + "\r";
    progressLength_ = 0;
    static_cast<void>(WriteStream(Stream::error, line.data(), line.size()));
}

} // namespace vrnx_cli

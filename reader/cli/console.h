// The two streams of a run: results on standard output, everything else on standard error.
#pragma once

#include "port.h"

#include <chrono>
#include <string>
#include <string_view>

namespace vrnx_cli {

// How a run ends; of several reasons the highest.
enum Status {
    statusGood = 0,
    statusDamaged = 1, // an image is damaged, incomplete or refused
    statusUsage = 2,   // wrong usage, which the arguments alone show
    statusFailed = 3   // it could not be done
};

int Worst(int one, int other);

class Console {
public:
    // Results. They are collected and written in large pieces; Flush or the end of the run writes the rest.
    void Print(std::string_view text);
    void Flush();

    // Bytes of a disk, at once.
    bool PrintBytes(const void* bytes, size_t length);

    // Whether a write of standard output has failed: there is nobody to work for any more. It was complained of then.
    bool OutputFailed() const { return outputFailed_; }

    // One line on standard error, "vrnx: " and the text, in which what is no text is escaped.
    void Complain(std::string_view text);

    // A line on standard error that each call replaces, some times a second, where that is a terminal.
    void ShowProgress(std::string_view what, uint64_t done, uint64_t total);
    void EndProgress();

private:
    bool Write(const void* bytes, size_t length);

    std::string pending_;
    bool outputFailed_ = false;
    bool errorIsTerminal_ = IsTerminal(Stream::error);
    size_t progressLength_ = 0;
    std::chrono::steady_clock::time_point nextProgress_ = {};
};

} // namespace vrnx_cli

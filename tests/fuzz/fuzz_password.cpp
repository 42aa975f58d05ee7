// The password file: any content gives its bytes without the line ends at the very end, or ends the process.
#include "fuzz_world.h"

#include <string>

#include "crypto/password_file.h"

using namespace vornix;
using namespace vornix::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ResetWorld();
    Input input(data, size);
    // A stretch repeated: sizes round the limit are out of reach of inputs of sensible length otherwise.
    const uint64_t repeats = input.TakeNumber(2) + 1;
    const Bytes stretch = input.TakeRest();
    std::string content;
    for (uint64_t i = 0; i < repeats && content.size() <= 1200000; ++i) {
        content.append(stretch.begin(), stretch.end());
    }
    TheWorld().PasswordFile.assign(content.begin(), content.end());
    std::string expected = content;
    while (!expected.empty() && (expected.back() == '\n' || expected.back() == '\r')) {
        expected.pop_back();
    }

    std::string password;
    const bool accepted = SurvivesFatal([&] { password = ReadPasswordFile("password"); });
    if (accepted != (content.size() <= 1048576 && !expected.empty())) {
        ReportBroken("a password file is accepted exactly when it is short enough and not empty");
    }
    if (accepted && password != expected) {
        ReportBroken("a password is the file without the line ends at its end");
    }
    return 0;
}

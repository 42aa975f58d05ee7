// Option scanning: arguments of any text in any number.
#include "fuzz_world.h"

#include <stdexcept>
#include <string.h>
#include <string>

#include "cli/options.h"

using namespace vornix;
using namespace vornix::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ResetWorld();
    std::vector<std::string> words(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0) {
            words.emplace_back();
        } else {
            words.back().push_back(static_cast<char>(data[i]));
        }
    }
    std::vector<char*> arguments;
    arguments.reserve(words.size());
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    const int count = static_cast<int>(arguments.size());

    for (const char* name : {"--disk", "--out", "--thin"}) {
        // Only where there is no value do two defaults make a difference; any one of them could be a value as well.
        const bool valued = GetOptionValue(count, arguments.data(), name, "one") ==
                            GetOptionValue(count, arguments.data(), name, "another");
        const bool flag = HasFlag(count, arguments.data(), name);
        if (valued && !flag) {
            ReportBroken("an option that has a value is among the arguments");
        }
        if (flag && !valued && _stricmp(words.back().c_str(), name) != 0) {
            ReportBroken("an argument that is not the last has a value behind it");
        }
    }
    for (const std::string& word : words) {
        try {
            const int number = ParseInt(word);
            if (ParseInt(std::to_string(number)) != number) {
                ReportBroken("a number that was read is read again");
            }
        } catch (const std::invalid_argument&) {
        } catch (const std::out_of_range&) {
        }
    }
    return 0;
}

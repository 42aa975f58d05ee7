// How a piece of the program ends the process, seen without a process that ends.
//
// GoogleTest's death tests start the test program anew on Windows, and one in some thousand of these starts fails under
// Wine. Here the linker sends the program's calls of exit through the test (--wrap), where the thread that made one
// stays for good.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace vornix {

struct ProcessEnd {
    std::optional<int> Status; // none where the piece came back
    std::string Errors;        // what it wrote to the standard error stream
};

// Runs a piece of the program in a thread of its own. What a piece that ends the process holds is not given back.
ProcessEnd EndOf(const std::function<void()>& piece);

} // namespace vornix

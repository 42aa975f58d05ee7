// What a build for benchmarks leaves out of the platform, so that its worth can be measured (VORNIX_WITHOUT in
// CMakeLists.txt). Nothing in every other build.
#pragma once

#include <string_view>

#ifndef VORNIX_WITHOUT
#define VORNIX_WITHOUT ""
#endif

namespace vornix::platform {

constexpr bool IsLeftOut(std::string_view what) {
    return std::string_view(VORNIX_WITHOUT).find(what) != std::string_view::npos;
}

} // namespace vornix::platform

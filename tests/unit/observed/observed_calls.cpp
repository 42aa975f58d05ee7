// The record of an observation.
#include "observed_calls.h"

#include <algorithm>

namespace vornix::observed {

namespace {

Observation* current = nullptr;

} // namespace

bool Place::IsZero() const {
    return std::all_of(Begin, Begin + Length, [](uint8_t byte) { return byte == 0; });
}

Observation::Observation() {
    current = this;
}

Observation::~Observation() {
    current = nullptr;
}

std::vector<std::string> Observation::Names() const {
    std::vector<std::string> names;
    for (const Call& call : Calls) {
        names.push_back(call.Name);
    }
    return names;
}

Observation* Current() {
    return current;
}

} // namespace vornix::observed

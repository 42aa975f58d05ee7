// An open descriptor that closes itself. For those of which nobody wants to know how the close went.
#pragma once

#include <unistd.h>

#include <utility>

namespace vornix::platform {

class OwnedDescriptor {
public:
    OwnedDescriptor() = default;
    explicit OwnedDescriptor(int value) : value_(value) {}
    ~OwnedDescriptor() { Close(); }
    OwnedDescriptor(const OwnedDescriptor&) = delete;
    OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;
    OwnedDescriptor(OwnedDescriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
    OwnedDescriptor& operator=(OwnedDescriptor&& other) noexcept {
        if (this != &other) {
            Close();
            value_ = std::exchange(other.value_, -1);
        }
        return *this;
    }
    int Get() const { return value_; }
    bool IsOpen() const { return value_ >= 0; }

private:
    void Close() const {
        if (value_ >= 0) {
            (void)close(value_);
        }
    }

    int value_ = -1;
};

} // namespace vornix::platform

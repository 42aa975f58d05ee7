// An open image of libvrnx with an owner, and what the commands ask of it in more than one place.
#pragma once

#include "vrnx.h"

#include <cstdint>
#include <string>

namespace vrnx_cli {

// A password for the images of a run.
//
// The file is read once, since it may be a pipe, and only its bytes without the line ends at the very end are kept. One
// that cannot be read, or holds no password, is left to the library, which complains where the password is needed.
class Password {
public:
    Password() = default;
    Password(const Password&) = delete;
    Password& operator=(const Password&) = delete;
    ~Password();

    void Read(const std::string& path);

    void PutInto(vrnx_open_options& options) const;

private:
    std::string path_;
    std::string bytes_;
    bool wanted_ = false;
};

class Image {
public:
    Image() = default;
    Image(Image&& other) noexcept;
    Image& operator=(Image&&) = delete;
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;
    ~Image();

    // Opens an image with flags of vrnx_open_flag; without a password where `password` is nullptr. Gives VRNX_OK, or
    // the code that is in `error`.
    int Open(const std::string& path, uint32_t flags, const Password* password, vrnx_error& error);

    vrnx_image* Handle() const { return image_; }
    vrnx_info Info() const;
    vrnx_layer Layer(uint32_t level) const;
    vrnx_chunk Chunk(uint64_t number) const;
    vrnx_error Problem(uint32_t number) const;

private:
    vrnx_image* image_ = nullptr;
};

inline bool IsKnown(const vrnx_layer& layer, uint32_t what) {
    return (layer.known & what) == what;
}

// The name of the base as it stands in the trailer.
std::string BaseName(const vrnx_layer& layer);

// How a failure to open an image ends a run: refused is status 1, everything else 3.
int StatusOfOpenError(int code);

} // namespace vrnx_cli

// Where bad chunks are taken from: other images, and raw copies of the disk.
#pragma once

#include "image.h"
#include "port.h"

#include <memory>
#include <string>
#include <vector>

namespace vrnx_cli {

class Donors {
public:
    // Opens an image, leniently, or what is none as a raw copy. Gives VRNX_OK, or a code with its text in `text`.
    int Add(const std::string& path, const Password& password, std::string& text);

    bool IsEmpty() const { return donors_.empty(); }

    // Fills `buffer` with the bytes of a chunk out of the first donor that has them, and names that one. Whatever is
    // taken has the hash that the image's table demands. Gives false where nobody has them.
    bool Heal(const Image& image, const vrnx_chunk& chunk, uint64_t number, void* buffer, std::string& from);

private:
    struct Donor {
        std::string path;
        Image image;  // or
        RawCopy copy; // where there is no image
    };

    std::vector<std::unique_ptr<Donor>> donors_;
};

} // namespace vrnx_cli

// Other images and raw copies that bad chunks are taken from.

#include "donors.h"

namespace vrnx_cli {

int Donors::Add(const std::string& path, const Password& password, std::string& text) {
    auto donor = std::make_unique<Donor>();
    donor->path = path;
    vrnx_error error;
    int code = IsBlockDevice(path) ? static_cast<int>(VRNX_REFUSED_NOT_AN_IMAGE)
                                   : donor->image.Open(path, VRNX_OPEN_LENIENT, &password, error);
    // The bytes of a disk look like anything; each is proved before it is used.
    if (VRNX_IS_REFUSAL(code)) {
        if (int systemError = donor->copy.Open(path)) {
            text = path + ": " + DescribeSystemError(systemError);
            return VRNX_ERROR_OPEN;
        }
        code = VRNX_OK;
    }
    if (code != VRNX_OK) {
        text = error.text;
        return code;
    }
    donors_.push_back(std::move(donor));
    return VRNX_OK;
}

bool Donors::Heal(const Image& image, const vrnx_chunk& chunk, uint64_t number, void* buffer, std::string& from) {
    for (const std::unique_ptr<Donor>& donor : donors_) {
        int code = VRNX_ERROR_FILE_READ;
        if (donor->image.Handle() != nullptr) {
            code = vrnx_heal_chunk(image.Handle(), number, donor->image.Handle(), buffer, nullptr);
        } else if (donor->copy.Read(chunk.disk_offset, buffer, chunk.length)) {
            code = vrnx_prove_chunk(image.Handle(), number, buffer, chunk.length, nullptr);
        }
        if (code == VRNX_OK) {
            from = donor->path;
            return true;
        }
    }
    return false;
}

} // namespace vrnx_cli

// Images and passwords of a run.

#include "image.h"

#include "console.h"
#include "port.h"

#include <utility>

namespace vrnx_cli {

namespace {

// docs/image-format.md, "Sealing".
constexpr size_t largestPasswordFile = 1048576;

// Overwrites a secret. The pointer to volatile keeps the compiler from leaving it out.
void Wipe(std::string& secret) {
    volatile char* bytes = secret.data();
    for (size_t at = 0; at < secret.size(); at++) {
        bytes[at] = 0;
    }
    secret.clear();
}

} // namespace

Password::~Password() {
    Wipe(bytes_);
}

void Password::Read(const std::string& path) {
    path_ = path;
    wanted_ = true;
    // All the room at once: a text that grows leaves copies of itself behind.
    bytes_.reserve(largestPasswordFile + 1);
    if (ReadWholeFile(path, largestPasswordFile + 1, bytes_) != 0 || bytes_.size() > largestPasswordFile) {
        Wipe(bytes_);
    }
    bytes_.resize(bytes_.find_last_not_of("\r\n") + 1);
}

void Password::PutInto(vrnx_open_options& options) const {
    if (!bytes_.empty()) {
        options.password = bytes_.data();
        options.password_length = bytes_.size();
    } else if (wanted_) {
        options.password_file = path_.c_str();
    }
}

Image::Image(Image&& other) noexcept : image_(std::exchange(other.image_, nullptr)) {}

Image::~Image() {
    vrnx_close(image_);
}

int Image::Open(const std::string& path, uint32_t flags, const Password* password, vrnx_error& error) {
    vrnx_open_options options = {};
    options.flags = flags;
    // Every command takes each chunk once.
    options.cache_chunks = VRNX_CACHE_NONE;
    if (password != nullptr) {
        password->PutInto(options);
    }
    return vrnx_open(path.c_str(), &options, sizeof options, &image_, &error);
}

vrnx_info Image::Info() const {
    vrnx_info info = {};
    vrnx_get_info(image_, &info, sizeof info);
    return info;
}

vrnx_layer Image::Layer(uint32_t level) const {
    vrnx_layer layer = {};
    vrnx_get_layer(image_, level, &layer, sizeof layer);
    return layer;
}

vrnx_chunk Image::Chunk(uint64_t number) const {
    vrnx_chunk chunk = {};
    vrnx_get_chunk(image_, number, &chunk, sizeof chunk);
    return chunk;
}

vrnx_error Image::Problem(uint32_t number) const {
    vrnx_error problem = {};
    vrnx_get_problem(image_, number, &problem);
    return problem;
}

std::string BaseName(const vrnx_layer& layer) {
    return layer.base_name == nullptr ? std::string() : std::string(layer.base_name, layer.base_name_length);
}

int StatusOfOpenError(int code) {
    return VRNX_IS_REFUSAL(code) ? statusDamaged : statusFailed;
}

} // namespace vrnx_cli

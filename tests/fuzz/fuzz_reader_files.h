// The world of the library's fuzz targets: the images of an input as real files, and a cheap key derivation. An input
// is what fuzz_image.cpp takes, so that both readers get the same seeds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "vrnx.h"

namespace vrnx_fuzz {

// Puts the images of an input into a folder of this process, under the names 0, 1, 2 and so on, and gives the path of
// the first. `wishes` is the input's first byte.
std::string PutFiles(const uint8_t* data, size_t size, uint8_t& wishes);

// Opens the image with the password of the seeds, or without one where the wishes say so; nullptr where that fails.
vrnx_image* Open(const std::string& path, uint32_t flags, uint8_t wishes, vrnx_error& error);

// Ends the process, as a finding, where something does not hold that must.
void Require(bool holds, const char* what);

} // namespace vrnx_fuzz

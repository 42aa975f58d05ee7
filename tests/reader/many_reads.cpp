// Opens and checks images by the thousand from one process, for the suites that try every bit: a line
// "FLAGS\tPATH\tPASSWORD" on standard input, and for each a line "CODE\tNUMBER=CODE NUMBER=CODE...\tTEXT" on standard
// output, the bad chunks with what is wrong with each. A good image is read whole as well. Derivations are remembered,
// see fast_derivation.cpp.

#include "vrnx.h"

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

namespace {

void Answer(const std::string& line) {
    const size_t first = line.find('\t');
    const size_t second = line.find('\t', first + 1);
    const std::string path = line.substr(first + 1, second - first - 1);
    const std::string password = line.substr(second + 1);
    vrnx_open_options options = {};
    options.flags = static_cast<uint32_t>(std::stoul(line.substr(0, first)));
    options.password = password.empty() ? nullptr : password.data();
    options.password_length = password.size();
    static vrnx_error error;
    vrnx_image* image = nullptr;
    const int code = vrnx_open(path.c_str(), &options, sizeof options, &image, &error);
    std::printf("%d\t", code);
    if (code == VRNX_OK) {
        vrnx_info info = {};
        vrnx_get_info(image, &info, sizeof info);
        bool good = true;
        for (uint64_t number = 0; number < info.chunk_count; number++) {
            const int verdict = vrnx_check_chunk(image, number, &error);
            if (verdict != VRNX_OK) {
                std::printf("%s%llu=%d", good ? "" : " ", static_cast<unsigned long long>(number), verdict);
            }
            good = good && verdict == VRNX_OK;
        }
        std::vector<uint8_t> whole(good ? info.disk_size : 0);
        if (vrnx_read(image, whole.data(), 0, whole.size(), &error) != VRNX_OK) {
            std::printf("cannot be read");
        }
    }
    std::printf("\t%s\n", code == VRNX_OK ? "" : error.text);
    std::fflush(stdout);
    vrnx_close(image);
}

} // namespace

int main() {
    std::string line;
    while (std::getline(std::cin, line)) {
        Answer(line);
    }
    return 0;
}

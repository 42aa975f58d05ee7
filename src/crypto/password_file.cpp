// Reading of the password file.
#include "crypto/password_file.h"

#include <stdio.h>

#include "cli/fatal.h"
#include "crypto/secure_wipe.h"

namespace vornix {

std::string ReadPasswordFile(const std::string& path) {
    constexpr size_t largestPasswordFile = 1048576;

    FILE* stream = nullptr;
    if (fopen_s(&stream, path.c_str(), "rb") != 0 || stream == nullptr) {
        Fatal("could not open password file", 0);
    }
    std::string password;
    char block[256];
    for (;;) {
        // An error is not told apart from the end of the file: what was read so far is the password.
        const size_t count = fread(block, 1, sizeof(block), stream);
        if (count == 0) {
            break;
        }
        if (password.size() > largestPasswordFile - count) {
            fclose(stream);
            WipeString(password);
            Fatal("password file is too large", 0);
        }
        password.append(block, count);
    }
    fclose(stream);
    while (!password.empty() && (password.back() == '\n' || password.back() == '\r')) {
        WipeBytes(&password.back(), 1);
        password.pop_back();
    }
    if (password.empty()) {
        Fatal("password file is empty", 0);
    }
    return password;
}

} // namespace vornix

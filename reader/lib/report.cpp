// How a failure is described, and each code's own words. It is not for deciding what a failure is.

#include "report.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace vrnx {

Text& Text::operator<<(std::string_view text) {
    for (char c : text) {
        if (length_ + 1 == sizeof error_.text) {
            break;
        }
        // One line, whatever a name holds.
        error_.text[length_++] = c == '\n' || c == '\r' || c == '\0' ? '?' : c;
    }
    error_.text[length_] = '\0';
    return *this;
}

Text& Text::operator<<(uint64_t number) {
    char digits[20];
    return *this << std::string_view(digits,
                                     static_cast<size_t>(std::to_chars(digits, digits + 20, number).ptr - digits));
}

Text& Text::AddPath(std::string_view path) {
    constexpr size_t enough = 4200;
    if (path.size() <= enough) {
        return *this << path;
    }
    return *this << "..." << path.substr(path.size() - enough);
}

void Text::AddSystemError(int systemError) {
    if (systemError > 0) {
        *this << ": " << std::system_category().message(systemError);
    }
}

int Begin(vrnx_error& error, int code, uint32_t level, int systemError) {
    error.code = code;
    error.system_error = std::max(systemError, 0);
    error.chunk = VRNX_NO_CHUNK;
    error.disk_offset = 0;
    error.length = 0;
    error.level = level;
    error.text[0] = '\0';
    return code;
}

int Report(vrnx_error& error, int code, std::string_view text) {
    Begin(error, code);
    Text(error) << text;
    return code;
}

int ReportFile(vrnx_error& error, int code, uint32_t level, const std::string& path, std::string_view text,
               int systemError) {
    Begin(error, code, level, systemError);
    Text line(error);
    line.AddPath(path) << ": " << (text.empty() ? std::string_view(vrnx_code_text(code)) : text);
    line.AddSystemError(systemError);
    return code;
}

} // namespace vrnx

// The words for a refused image are those of the program, so that who knows one of the two knows both.
const char* vrnx_code_text(int code) {
    switch (code) {
    case VRNX_OK:
        return "no error";
    case VRNX_ERROR_USAGE:
        return "wrong use of the library";
    case VRNX_ERROR_MEMORY:
        return "out of memory";
    case VRNX_ERROR_OPEN:
        return "could not open image file";
    case VRNX_ERROR_FILE_READ:
        return "could not read image file";
    case VRNX_ERROR_CRYPTO:
        return "the library of cryptography failed";
    case VRNX_ERROR_PASSWORD_NEEDED:
        return "this image is encrypted, and no password was given";
    case VRNX_ERROR_PASSWORD:
        return "the password cannot be used";
    case VRNX_REFUSED_CHAIN_LENGTH:
        return "image chain is too deep (or loops back on itself)";
    case VRNX_REFUSED_NO_HEADER:
        return "could not read image header - file is truncated or not a .vrnx image";
    case VRNX_REFUSED_NOT_AN_IMAGE:
        return "not a recognized Vornix image (bad magic/version)";
    case VRNX_REFUSED_GEOMETRY:
        return "image header has invalid disk/sector/chunk geometry";
    case VRNX_REFUSED_SEAL_PARAMETERS:
        return "image has invalid encryption/KDF parameters";
    case VRNX_REFUSED_CHUNK_COUNT:
        return "image header has an impossible chunk count";
    case VRNX_REFUSED_TABLE_TRUNCATED:
        return "image is truncated before its chunk table";
    case VRNX_REFUSED_TABLE_ENTRY:
        return "image chunk table has an invalid offset or length";
    case VRNX_REFUSED_DATA_TRUNCATED:
        return "image chunk data extends past end of file";
    case VRNX_REFUSED_NO_TRAILER:
        return "thin image has no valid trailer - file is truncated";
    case VRNX_REFUSED_TRAILER_MALFORMED:
        return "thin image trailer is malformed";
    case VRNX_REFUSED_BASE_NAME:
        return "thin image trailer names a base outside its folder - refusing";
    case VRNX_REFUSED_BASE_MISSING:
        return "base image of a thin image not found";
    case VRNX_REFUSED_BASE_REPLACED:
        return "base image does not match the one pinned in the thin image";
    case VRNX_REFUSED_BASE_GEOMETRY:
        return "base image geometry differs from the thin image";
    case VRNX_CHUNK_READ:
        return "could not read chunk data";
    case VRNX_CHUNK_AUTHENTICATION:
        return "authentication failed (damaged, or sealed with another password)";
    case VRNX_CHUNK_HASH:
        return "hash mismatch";
    case VRNX_CHUNK_ENTRY:
        return "its entry in the chunk table is broken";
    case VRNX_CHUNK_NO_BASE:
        return "it lies in a base image that was not opened";
    default:
        return "unknown code";
    }
}

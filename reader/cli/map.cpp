// vrnx map: which image of the chain holds which part of the disk, drawn.

#include "check_document.h"
#include "commands.h"
#include "disk_map.h"
#include "image.h"
#include "port.h"
#include "text.h"

#include <algorithm>

namespace vrnx_cli {

namespace {

int WriteNewFile(const std::string& path, const std::string& content, Console& console) {
    NewFile file;
    int error = file.Create(path);
    if (error == 0) {
        error = file.Write(0, content.data(), content.size());
    }
    if (error == 0) {
        error = file.Finish();
    }
    if (error == 0) {
        return statusGood;
    }
    console.Complain(path + ": " + DescribeSystemError(error));
    return statusFailed;
}

} // namespace

int RunMap(const Arguments& arguments, Console& console) {
    const std::string& path = arguments.operands[0];
    Image image;
    vrnx_error error;
    int code = image.Open(path, VRNX_OPEN_LENIENT | VRNX_OPEN_NO_PASSWORD, nullptr, error);
    if (code != VRNX_OK) {
        console.Complain(error.text);
        return StatusOfOpenError(code);
    }
    vrnx_info info = image.Info();
    for (uint32_t number = 0; number < info.problem_count; number++) {
        console.Complain(image.Problem(number).text);
    }
    std::vector<bool> bad;
    if (const std::string* document = arguments.Value("--check")) {
        std::string problem = ReadCheckDocument(*document, path, info.chunk_count, bad);
        if (!problem.empty()) {
            console.Complain(*document + ": " + problem);
            return statusFailed;
        }
    }
    DiskMap map(image, bad);
    int status = info.problem_count > 0 || map.Style(badCell).chunks > 0 ? statusDamaged : statusGood;
    if (const std::string* file = arguments.Value("--svg")) {
        if (map.Style(badCell).chunks > 0) {
            console.Complain(path + ": " + Count(map.Style(badCell).chunks, "bad chunk"));
        }
        return Worst(status, WriteNewFile(*file, DrawAsSvg(map, path), console));
    }
    console.Print(DrawAsText(map, path, TerminalColumns(), TakesColours()));
    return status;
}

} // namespace vrnx_cli

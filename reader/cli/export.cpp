// vrnx export: the plain disk that an image stands for, as a file or on standard output; also as much of it as is good.

#include "commands.h"
#include "donors.h"
#include "image.h"
#include "rescue_map.h"
#include "text.h"

#include <algorithm>

namespace vrnx_cli {

namespace {

// Where the disk goes to.
class Target {
public:
    explicit Target(Console& console) : console_(console) {}

    // Creates the file, or is standard output where the path is "-". Gives the status.
    int Open(const std::string& path);

    // Each gives false, and has complained, where it fails.
    bool Write(uint64_t offset, const void* bytes, size_t length);
    bool Skip(uint64_t offset, size_t length); // a hole; on standard output as many zeros

    // Ends the file behind what was written and skipped so far, and brings it to the medium.
    bool Finish();

private:
    bool Succeeds(int error);

    Console& console_;
    std::string path_;
    NewFile file_;
    bool isFile_ = false;
    uint64_t end_ = 0;
    std::vector<char> zeros_;
};

int Target::Open(const std::string& path) {
    path_ = path;
    isFile_ = path != "-";
    if (isFile_ ? IsBlockDevice(path) : IsOutputBlockDevice()) {
        console_.Complain(path + ": is a disk; restoring to one is the work of vornix restore");
        return statusFailed;
    }
    return !isFile_ || Succeeds(file_.Create(path)) ? statusGood : statusFailed;
}

bool Target::Succeeds(int error) {
    if (error != 0) {
        console_.Complain(path_ + ": " + DescribeSystemError(error));
    }
    return error == 0;
}

bool Target::Write(uint64_t offset, const void* bytes, size_t length) {
    end_ = offset + length;
    return isFile_ ? Succeeds(file_.Write(offset, bytes, length)) : console_.PrintBytes(bytes, length);
}

bool Target::Skip(uint64_t offset, size_t length) {
    end_ = offset + length;
    if (isFile_) {
        return true;
    }
    zeros_.resize(std::max(zeros_.size(), length));
    return console_.PrintBytes(zeros_.data(), length);
}

bool Target::Finish() {
    if (!isFile_) {
        return true;
    }
    bool sized = Succeeds(file_.Resize(end_));
    return Succeeds(file_.Finish()) && sized;
}

// One run of the command.
class Export {
public:
    Export(const Arguments& arguments, Console& console)
        : console_(console), imagePath_(arguments.operands[0]), targetPath_(arguments.operands[1]),
          mapPath_(arguments.Value("--salvage")), from_(arguments.Values("--from")), target_(console) {
        if (const std::string* path = arguments.Value("--password-file")) {
            password_.Read(*path);
        }
    }

    int Run();

private:
    enum class Outcome {
        goOn,
        stopped, // by a bad chunk
        failed
    };

    int OpenSources();
    int OpenTargets();
    Outcome CopyChunks();
    Outcome CopyChunk(uint64_t number);
    Outcome TakeBad(uint64_t number, const vrnx_chunk& chunk, const vrnx_error& error);
    bool FinishMap();
    void Summarize();

    Console& console_;
    std::string imagePath_;
    std::string targetPath_;
    const std::string* mapPath_;
    std::vector<std::string> from_;
    Password password_;
    Image image_;
    vrnx_info info_ = {};
    Donors donors_;
    Target target_;
    NewFile mapFile_;
    RescueMap map_;
    std::vector<char> buffer_;
    uint64_t zeroChunks_ = 0;
    uint64_t healedChunks_ = 0;
    uint64_t badChunks_ = 0;
};

int Export::OpenSources() {
    // Where bad chunks are not the end, a chain that is not whole is none either.
    bool lenient = mapPath_ != nullptr || !from_.empty();
    vrnx_error error;
    int code = image_.Open(imagePath_, lenient ? VRNX_OPEN_LENIENT : 0, &password_, error);
    if (code != VRNX_OK) {
        console_.Complain(error.text);
        return StatusOfOpenError(code);
    }
    info_ = image_.Info();
    for (uint32_t number = 0; number < info_.problem_count; number++) {
        console_.Complain(image_.Problem(number).text);
    }
    for (const std::string& path : from_) {
        std::string text;
        if (donors_.Add(path, password_, text) != VRNX_OK) {
            console_.Complain(text);
            return statusFailed;
        }
    }
    return statusGood;
}

int Export::OpenTargets() {
    if (mapPath_ != nullptr) {
        if (int error = mapFile_.Create(*mapPath_)) {
            console_.Complain(*mapPath_ + ": " + DescribeSystemError(error));
            return statusFailed;
        }
    }
    int status = target_.Open(targetPath_);
    if (status != statusGood && mapPath_ != nullptr) {
        mapFile_.Remove(); // it says nothing yet
    }
    return status;
}

int Export::Run() {
    int status = OpenSources();
    if (status != statusGood) {
        return status;
    }
    status = OpenTargets();
    if (status != statusGood) {
        return status;
    }
    buffer_.resize(info_.chunk_size);
    Outcome outcome = CopyChunks();
    console_.EndProgress();
    // Whatever happened: what is there is kept, and the map tells what that is.
    if (!target_.Finish()) {
        outcome = Outcome::failed;
    }
    if (mapPath_ != nullptr && !FinishMap()) {
        outcome = Outcome::failed;
    }
    if (outcome == Outcome::failed) {
        return statusFailed;
    }
    Summarize();
    return outcome == Outcome::stopped || badChunks_ > 0 ? statusDamaged : statusGood;
}

Export::Outcome Export::CopyChunks() {
    for (uint64_t number = 0; number < info_.chunk_count; number++) {
        Outcome outcome = CopyChunk(number);
        if (outcome != Outcome::goOn) {
            return outcome;
        }
        console_.ShowProgress("exporting " + imagePath_, number + 1, info_.chunk_count);
    }
    return Outcome::goOn;
}

Export::Outcome Export::CopyChunk(uint64_t number) {
    vrnx_chunk chunk = image_.Chunk(number);
    bool good = true;
    bool hole = chunk.zero != 0;
    if (!hole) {
        vrnx_error error;
        int code = vrnx_read(image_.Handle(), buffer_.data(), chunk.disk_offset, chunk.length, &error);
        if (code != VRNX_OK) {
            uint64_t badBefore = badChunks_;
            Outcome outcome = TakeBad(number, chunk, error);
            if (outcome != Outcome::goOn) {
                return outcome;
            }
            good = badChunks_ == badBefore;
            hole = !good;
        }
    }
    zeroChunks_ += chunk.zero;
    bool written = hole ? target_.Skip(chunk.disk_offset, chunk.length)
                        : target_.Write(chunk.disk_offset, buffer_.data(), chunk.length);
    if (!written) {
        return Outcome::failed;
    }
    map_.Add(chunk.length, good);
    return Outcome::goOn;
}

// A chunk that could not be read: healed into the buffer, or counted as bad where the run goes on.
Export::Outcome Export::TakeBad(uint64_t number, const vrnx_chunk& chunk, const vrnx_error& error) {
    if (!VRNX_IS_BAD_CHUNK(error.code)) {
        console_.Complain(error.text);
        return Outcome::failed;
    }
    std::string from;
    if (donors_.Heal(image_, chunk, number, buffer_.data(), from)) {
        healedChunks_++;
        console_.Complain(std::string(error.text) + "; taken from " + from);
        return Outcome::goOn;
    }
    badChunks_++;
    console_.Complain(error.text);
    return mapPath_ == nullptr ? Outcome::stopped : Outcome::goOn;
}

bool Export::FinishMap() {
    std::string text = map_.Text(info_.disk_size);
    int error = mapFile_.Write(0, text.data(), text.size());
    int finished = mapFile_.Finish();
    error = error != 0 ? error : finished;
    if (error != 0) {
        console_.Complain(*mapPath_ + ": " + DescribeSystemError(error));
    }
    return error == 0;
}

void Export::Summarize() {
    if (badChunks_ > 0 && mapPath_ == nullptr) {
        console_.Complain("the output ends before the bad chunk");
        return;
    }
    std::string text = BytesText(info_.disk_size) + ", " + Count(info_.chunk_count, "chunk") + ": " +
                       std::to_string(zeroChunks_) + " of zeros, " + std::to_string(healedChunks_) + " healed, " +
                       std::to_string(badChunks_) + " bad";
    if (targetPath_ != "-") {
        console_.Print(Printable(targetPath_) + ": " + text + "\n");
    } else if (badChunks_ > 0 || healedChunks_ > 0) {
        console_.Complain(text);
    }
}

} // namespace

int RunExport(const Arguments& arguments, Console& console) {
    return Export(arguments, console).Run();
}

} // namespace vrnx_cli

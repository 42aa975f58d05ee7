// vrnx check: every chunk of the disks that images stand for, read and proved, on several threads.

#include "commands.h"
#include "image.h"
#include "json_writer.h"
#include "text.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <system_error>
#include <thread>

namespace vrnx_cli {

namespace {

constexpr uint64_t mostJobs = 1024;
// More parts than an image can have chunks would be nights without work.
constexpr uint64_t mostParts = 1000000000;

struct Wish {
    uint64_t jobs = 1;
    uint64_t part = 1; // from 1 to `parts`
    uint64_t parts = 1;
    Password password;
};

struct BadChunk {
    uint64_t number;
    uint64_t diskOffset;
    uint32_t length;
    uint32_t level;
    int code;
};

enum class Result {
    good,
    damaged,
    refused,
    unreadable
};

struct Verdict {
    std::string path;
    Result result = Result::good;
    bool chunksKnown = false;
    uint64_t chunks = 0;
    uint64_t checked = 0;
    std::vector<BadChunk> bad;      // ascending
    std::vector<std::string> names; // of the files of the chain, from the image itself down
    std::string message;
};

const char* ResultText(Result result) {
    switch (result) {
    case Result::good:
        return "good";
    case Result::damaged:
        return "damaged";
    case Result::refused:
        return "refused";
    default:
        return "unreadable";
    }
}

const char* CauseText(int code) {
    switch (code) {
    case VRNX_CHUNK_AUTHENTICATION:
        return "authentication";
    case VRNX_CHUNK_READ:
        return "read";
    default:
        return "hash";
    }
}

// --- The work -------------------------------------------------------------------------------------------------------

// A run of chunks of one image. The threads take one chunk after the other, so that a disk is read from front to back.
class Work {
public:
    Work(const Image& image, uint64_t first, uint64_t last, Console& console)
        : image_(image), next_(first), first_(first), last_(last), console_(console) {}

    void Run(uint64_t jobs, const std::string& path);

    // What was found; of a failure that is no verdict its text.
    uint64_t Checked() const { return checked_; }
    std::vector<BadChunk> TakeBad();
    bool HasFailed() const { return failed_; }
    std::string Failure() const { return failure_.empty() ? "out of memory" : failure_; }

    // Whether a sealed chunk was opened: then the password is the right one.
    bool OpenedSealed() const { return openedSealed_; }

private:
    void RunThread(const std::string* progressText);
    void Take(uint64_t number, int code, const vrnx_error& error);

    const Image& image_;
    std::atomic<uint64_t> next_;
    uint64_t first_;
    uint64_t last_;
    Console& console_;
    std::atomic<uint64_t> checked_ = 0;
    std::atomic<bool> failed_ = false;
    std::atomic<bool> openedSealed_ = false;
    std::mutex mutex_; // of what follows
    std::vector<BadChunk> bad_;
    std::string failure_;
};

void Work::Run(uint64_t jobs, const std::string& path) {
    std::vector<std::thread> threads;
    uint64_t wanted = std::min(jobs, last_ - first_);
    try {
        threads.reserve(wanted);
        for (uint64_t count = 1; count < wanted; count++) {
            threads.emplace_back([this] { RunThread(nullptr); });
        }
    } catch (const std::exception&) {
        // A system that has no more threads to give: those there are do it all.
    }
    std::string text = "checking " + path;
    RunThread(&text);
    for (std::thread& thread : threads) {
        thread.join();
    }
    console_.EndProgress();
}

void Work::RunThread(const std::string* progressText) {
    vrnx_error error;
    while (!failed_) {
        uint64_t number = next_++;
        if (number >= last_) {
            break;
        }
        Take(number, vrnx_check_chunk(image_.Handle(), number, &error), error);
        if (progressText != nullptr) {
            console_.ShowProgress(*progressText, checked_, last_ - first_);
        }
    }
}

void Work::Take(uint64_t number, int code, const vrnx_error& error) {
    if (code == VRNX_OK) {
        vrnx_chunk chunk = image_.Chunk(number);
        if (!openedSealed_ && image_.Layer(chunk.level).encrypted) {
            openedSealed_ = true;
        }
        checked_++;
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    try {
        if (VRNX_IS_BAD_CHUNK(code)) {
            if (code == VRNX_CHUNK_HASH && image_.Layer(error.level).encrypted) {
                openedSealed_ = true; // the tag did fit
            }
            bad_.push_back({number, error.disk_offset, error.length, error.level, code});
            checked_++;
            return;
        }
        if (!failed_) {
            failure_ = error.text;
        }
    } catch (const std::bad_alloc&) {
        failure_.clear();
    }
    failed_ = true;
}

std::vector<BadChunk> Work::TakeBad() {
    std::sort(bad_.begin(), bad_.end(),
              [](const BadChunk& one, const BadChunk& other) { return one.number < other.number; });
    return std::move(bad_);
}

// Where the I-th of N runs of chunks begins.
uint64_t PartStart(uint64_t chunks, uint64_t part, uint64_t parts) {
    return chunks * (part - 1) / parts;
}

std::string DamageMessage(const Verdict& verdict, bool openedSealed) {
    std::string message = std::to_string(verdict.bad.size()) + " of " + Count(verdict.checked, "chunk") + " bad";
    bool unauthentic = std::any_of(verdict.bad.begin(), verdict.bad.end(),
                                   [](const BadChunk& chunk) { return chunk.code == VRNX_CHUNK_AUTHENTICATION; });
    if (unauthentic && !openedSealed) {
        message += "; no sealed chunk could be opened: the password may be the wrong one";
    }
    return message;
}

Verdict CheckImage(const std::string& path, const Wish& wish, Console& console) {
    Verdict verdict;
    verdict.path = path;
    Image image;
    vrnx_error error;
    int code = image.Open(path, 0, &wish.password, error);
    if (code != VRNX_OK) {
        verdict.result = VRNX_IS_REFUSAL(code) ? Result::refused : Result::unreadable;
        verdict.message = error.text;
        return verdict;
    }
    vrnx_info info = image.Info();
    for (uint32_t level = 0; level < info.level_count; level++) {
        verdict.names.push_back(NameInPath(image.Layer(level).path));
    }
    verdict.chunksKnown = true;
    verdict.chunks = info.chunk_count;
    Work work(image, PartStart(info.chunk_count, wish.part, wish.parts),
              PartStart(info.chunk_count, wish.part + 1, wish.parts), console);
    work.Run(wish.jobs, path);
    verdict.checked = work.Checked();
    verdict.bad = work.TakeBad();
    if (work.HasFailed()) {
        verdict.result = Result::unreadable;
        verdict.message = work.Failure();
    } else if (!verdict.bad.empty()) {
        verdict.result = Result::damaged;
        verdict.message = DamageMessage(verdict, work.OpenedSealed());
    }
    return verdict;
}

// --- The result -----------------------------------------------------------------------------------------------------

void WriteJson(Console& console, const std::vector<Verdict>& verdicts) {
    JsonWriter json(console);
    json.BeginObject();
    json.SchemaVersionMember();
    json.Key("images");
    json.BeginArray();
    for (const Verdict& verdict : verdicts) {
        json.BeginObject();
        json.TextMember("path", verdict.path);
        json.TextMember("result", ResultText(verdict.result));
        if (verdict.chunksKnown) {
            json.NumberMember("chunks", verdict.chunks);
        } else {
            json.NullMember("chunks");
        }
        json.NumberMember("checked", verdict.checked);
        json.Key("bad");
        json.BeginArray();
        for (const BadChunk& chunk : verdict.bad) {
            json.BeginObject(JsonWriter::Layout::line);
            json.NumberMember("chunk", chunk.number);
            json.NumberMember("disk_offset", chunk.diskOffset);
            json.NumberMember("length", chunk.length);
            json.TextMember("image", verdict.names[chunk.level]);
            json.TextMember("cause", CauseText(chunk.code));
            json.EndObject();
        }
        json.EndArray();
        if (verdict.message.empty()) {
            json.NullMember("message");
        } else {
            json.TextMember("message", verdict.message);
        }
        json.EndObject();
    }
    json.EndArray();
    json.EndObject();
}

void PrintVerdict(Console& console, const Verdict& verdict) {
    std::string line = Printable(verdict.path) + ": " + ResultText(verdict.result);
    if (verdict.result == Result::good) {
        line += ", " + Count(verdict.checked, "chunk");
        if (verdict.checked != verdict.chunks) {
            line += " of " + std::to_string(verdict.chunks);
        }
    } else {
        line += ": " + Printable(verdict.message);
    }
    console.Print(line + "\n");
    for (const BadChunk& chunk : verdict.bad) {
        console.Print("  chunk " + std::to_string(chunk.number) + ": " + Count(chunk.length, "byte") +
                      " at disk offset " + std::to_string(chunk.diskOffset) + ", in " +
                      Printable(verdict.names[chunk.level]) + ": " + CauseText(chunk.code) + "\n");
    }
    console.Flush();
}

int StatusOf(Result result) {
    switch (result) {
    case Result::good:
        return statusGood;
    case Result::unreadable:
        return statusFailed;
    default:
        return statusDamaged;
    }
}

void ReadWish(const Arguments& arguments, Wish& wish) {
    wish.jobs = std::max(1U, std::thread::hardware_concurrency());
    if (const std::string* jobs = arguments.Value("--jobs")) {
        if (!ParseNumber(*jobs, 1, mostJobs, wish.jobs)) {
            throw UsageError{"--jobs needs a number from 1 to " + std::to_string(mostJobs) + ", not " + *jobs};
        }
    }
    if (const std::string* part = arguments.Value("--part")) {
        size_t stroke = part->find('/');
        if (stroke == std::string::npos || !ParseNumber(part->substr(stroke + 1), 1, mostParts, wish.parts) ||
            !ParseNumber(part->substr(0, stroke), 1, wish.parts, wish.part)) {
            throw UsageError{"--part needs I/N with I from 1 to N, not " + *part};
        }
    }
}

} // namespace

int RunCheck(const Arguments& arguments, Console& console) {
    Wish wish;
    ReadWish(arguments, wish);
    if (const std::string* path = arguments.Value("--password-file")) {
        wish.password.Read(*path);
    }
    bool asJson = arguments.Has("--json");
    std::vector<Verdict> verdicts;
    int status = statusGood;
    for (const std::string& path : arguments.operands) {
        Verdict verdict = CheckImage(path, wish, console);
        status = Worst(status, StatusOf(verdict.result));
        if (asJson) {
            verdicts.push_back(std::move(verdict));
        } else {
            PrintVerdict(console, verdict);
        }
        if (console.OutputFailed()) {
            break; // nobody reads the output any more
        }
    }
    if (asJson) {
        WriteJson(console, verdicts);
    }
    return status;
}

} // namespace vrnx_cli

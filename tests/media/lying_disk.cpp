// A disk that lies, as a plugin of nbdkit: it has a cache that forgets, and fails when it is told to. For tests alone.
//
// What is written goes into a cache in memory, and from there into the file `durable` at a flush: what that file holds
// is what is left when the power goes. The file `control` holds one line that says what goes wrong from now on; it is
// looked at before each request, and with another line the counts begin again at 1:
//
//   N load PATH     first takes both cache and durable bytes from the file at PATH; then nothing goes wrong
//   N write K       write K fails; nothing of it is kept
//   N writes K      write K and all behind it fail
//   N read K        read K fails
//   N reads K       read K and all behind it fail
//   N flush K       flush K fails, and the cache forgets what was written since the one before
//   N lose K        write K and all behind it are acknowledged, and forgotten at the next flush, which fails
//
// N tells lines apart. The file `state` then has "N WRITES FLUSHES FAULTS READS", the counts since.
#define NBDKIT_API_VERSION 2
#include <nbdkit-plugin.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Disk {
    std::string DurablePath;
    std::string ControlPath;
    std::string StatePath;
    std::vector<char> Durable;
    std::vector<char> Cache;
    std::map<uint64_t, uint32_t> Unflushed; // offset and length of what the cache alone has

    std::string Line;
    std::string Id;
    std::string Fault;
    unsigned long At = 0;
    unsigned long Writes = 0;
    unsigned long Flushes = 0;
    unsigned long Faults = 0;
    unsigned long Reads = 0;
    bool IsLosing = false;
};

Disk theDisk;

std::vector<char> ReadFile(const std::string& path) {
    std::vector<char> bytes(std::filesystem::file_size(path));
    std::ifstream(path, std::ios::binary).read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

void WriteDurable() {
    std::ofstream file(theDisk.DurablePath, std::ios::binary | std::ios::trunc);
    file.write(theDisk.Durable.data(), static_cast<std::streamsize>(theDisk.Durable.size()));
}

void WriteState() {
    // Renamed into place, so that nobody reads half of it.
    const std::string next = theDisk.StatePath + ".next";
    std::ofstream(next) << theDisk.Id << ' ' << theDisk.Writes << ' ' << theDisk.Flushes << ' ' << theDisk.Faults << ' '
                        << theDisk.Reads << '\n';
    (void)std::rename(next.c_str(), theDisk.StatePath.c_str());
}

void LookAtControl() {
    std::ifstream file(theDisk.ControlPath);
    std::string line;
    if (!std::getline(file, line) || line == theDisk.Line) {
        return;
    }
    theDisk.Line = line;
    std::istringstream words(line);
    std::string argument;
    words >> theDisk.Id >> theDisk.Fault >> argument;
    theDisk.Writes = theDisk.Flushes = theDisk.Faults = theDisk.Reads = 0;
    theDisk.IsLosing = false;
    if (theDisk.Fault == "load") {
        theDisk.Durable = theDisk.Cache = ReadFile(argument);
        theDisk.Unflushed.clear();
        WriteDurable();
    } else {
        theDisk.At = std::stoul(argument);
    }
    WriteState();
}

int Fail(const char* what) {
    theDisk.Faults++;
    WriteState();
    nbdkit_error("%s fails as it was told to", what);
    nbdkit_set_error(EIO);
    return -1;
}

void ForgetWhatIsUnflushed() {
    for (const auto& [offset, length] : theDisk.Unflushed) {
        std::memcpy(theDisk.Cache.data() + offset, theDisk.Durable.data() + offset, length);
    }
    theDisk.Unflushed.clear();
}

int Configure(const char* key, const char* value) {
    const std::string name = key;
    std::string* const path = name == "durable"   ? &theDisk.DurablePath
                              : name == "control" ? &theDisk.ControlPath
                              : name == "state"   ? &theDisk.StatePath
                                                  : nullptr;
    if (path == nullptr) {
        nbdkit_error("unknown parameter %s", key);
        return -1;
    }
    *path = value;
    return 0;
}

int GetReady() {
    theDisk.Durable = theDisk.Cache = ReadFile(theDisk.DurablePath);
    return 0;
}

void* Open(int) {
    return NBDKIT_HANDLE_NOT_NEEDED;
}

int64_t GetSize(void*) {
    return static_cast<int64_t>(theDisk.Cache.size());
}

int Read(void*, void* buffer, uint32_t count, uint64_t offset, uint32_t) {
    LookAtControl();
    theDisk.Reads++;
    if ((theDisk.Fault == "read" && theDisk.Reads == theDisk.At) ||
        (theDisk.Fault == "reads" && theDisk.Reads >= theDisk.At)) {
        return Fail("read");
    }
    WriteState();
    std::memcpy(buffer, theDisk.Cache.data() + offset, count);
    return 0;
}

int Write(void*, const void* buffer, uint32_t count, uint64_t offset, uint32_t) {
    LookAtControl();
    theDisk.Writes++;
    if ((theDisk.Fault == "write" && theDisk.Writes == theDisk.At) ||
        (theDisk.Fault == "writes" && theDisk.Writes >= theDisk.At)) {
        return Fail("write");
    }
    theDisk.IsLosing = theDisk.IsLosing || (theDisk.Fault == "lose" && theDisk.Writes >= theDisk.At);
    std::memcpy(theDisk.Cache.data() + offset, buffer, count);
    uint32_t& length = theDisk.Unflushed[offset];
    length = length < count ? count : length;
    WriteState();
    return 0;
}

int Flush(void*, uint32_t) {
    LookAtControl();
    theDisk.Flushes++;
    if (theDisk.IsLosing || (theDisk.Fault == "flush" && theDisk.Flushes == theDisk.At)) {
        theDisk.IsLosing = false;
        if (theDisk.Fault == "lose") {
            theDisk.Fault = "lost";
        }
        ForgetWhatIsUnflushed();
        return Fail("flush");
    }
    std::fstream file(theDisk.DurablePath, std::ios::binary | std::ios::in | std::ios::out);
    for (const auto& [offset, length] : theDisk.Unflushed) {
        std::memcpy(theDisk.Durable.data() + offset, theDisk.Cache.data() + offset, length);
        file.seekp(static_cast<std::streamoff>(offset));
        file.write(theDisk.Durable.data() + offset, length);
    }
    theDisk.Unflushed.clear();
    WriteState();
    return 0;
}

nbdkit_plugin MakePlugin() {
    nbdkit_plugin plugin{};
    plugin.name = "lying-disk";
    plugin.config = Configure;
    plugin.get_ready = GetReady;
    plugin.open = Open;
    plugin.get_size = GetSize;
    plugin.pread = Read;
    plugin.pwrite = Write;
    plugin.flush = Flush;
    return plugin;
}

nbdkit_plugin plugin = MakePlugin();

} // namespace

#define THREAD_MODEL NBDKIT_THREAD_MODEL_SERIALIZE_ALL_REQUESTS
NBDKIT_REGISTER_PLUGIN(plugin)

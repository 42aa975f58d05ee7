// The images of a folder, and which of them hang on which.
//
// Each file is opened by itself and once, so that a folder takes as long as its tables, however long its chains are.
#pragma once

#include "image.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace vrnx_cli {

enum class Kind {
    full,
    thin,
    unfinished,
    notAnImage,
    unreadable
};

// One file of the folder.
struct Entry {
    std::string name;
    Kind kind = Kind::notAnImage;
    bool missing = false;       // unreadable: there is no such file
    bool digestKnown = false;   // the whole table is there
    bool geometryKnown = false; // disk_size, chunk_size and chunk_count of `layer` are
    vrnx_layer layer = {};      // its texts and paths are gone
    bool listed = false;        // named as images are
    std::string base;           // thin: the base's name; empty where it cannot be told
    std::string problem;        // what is wrong with the file by itself; empty where nothing

    Entry* baseEntry = nullptr;         // the file of the base's name; none for a name that is refused
    bool baseIsPinned = false;          // and it is the very image that this one was made over
    std::vector<const Entry*> neededBy; // the others that are made over this one, sorted by name
    std::string reason;                 // why the image is of no use; empty where it is complete

    bool IsImage() const { return kind == Kind::full || kind == Kind::thin; }
};

class Folder {
public:
    // Reads the folder and every image in it. Gives 0, or the system's error where the folder cannot be read.
    int Read(const std::string& path);

    // The files that are named as images are, sorted by name.
    const std::vector<Entry*>& Entries() const { return listed_; }

private:
    Entry& Load(const std::string& name);
    void LoadBases();

    std::string path_;
    std::map<std::string, std::unique_ptr<Entry>> entries_; // by the key of their names
    std::vector<Entry*> listed_;
};

} // namespace vrnx_cli

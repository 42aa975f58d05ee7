// Opening an image with its chain, strictly or not. It is not for reading chunks.

#include "image.h"
#include "report.h"

#include <algorithm>
#include <cstring>

namespace vrnx {

namespace {

constexpr uint32_t defaultCacheChunks = 8;

// The password of one opening, wiped with it.
class Password {
public:
    Password() = default;
    Password(const Password&) = delete;
    Password& operator=(const Password&) = delete;
    ~Password() {
        if (file_ != nullptr) {
            Wipe(file_.get(), maxPassword + 1);
        }
    }

    // Finds out what the password is, at the first sealed image. Fills `error` of a failure.
    int Take(const vrnx_open_options& options, vrnx_error& error) {
        if (bytes_ != nullptr) {
            return VRNX_OK;
        }
        if (options.password_file != nullptr) {
            return ReadFile(options.password_file, error);
        }
        if (options.password_length == 0) {
            return Report(error, VRNX_ERROR_PASSWORD, "password is empty");
        }
        if (options.password_length > maxPassword) {
            return Report(error, VRNX_ERROR_PASSWORD, "password is too large");
        }
        bytes_ = static_cast<const uint8_t*>(options.password);
        length_ = options.password_length;
        return VRNX_OK;
    }

    const uint8_t* Bytes() const { return bytes_; }
    size_t Length() const { return length_; }

private:
    int ReadFile(const char* path, vrnx_error& error) {
        file_ = std::make_unique<uint8_t[]>(maxPassword + 1);
        size_t got = 0;
        if (int systemError = ReadWhole(path, file_.get(), maxPassword + 1, got)) {
            return ReportFile(error, VRNX_ERROR_PASSWORD, VRNX_NO_LEVEL, path, "could not read password file",
                              systemError);
        }
        if (got > maxPassword) {
            return ReportFile(error, VRNX_ERROR_PASSWORD, VRNX_NO_LEVEL, path, "password file is too large");
        }
        while (got > 0 && (file_[got - 1] == '\n' || file_[got - 1] == '\r')) {
            got--;
        }
        if (got == 0) {
            return ReportFile(error, VRNX_ERROR_PASSWORD, VRNX_NO_LEVEL, path, "password file is empty");
        }
        bytes_ = file_.get();
        length_ = got;
        return VRNX_OK;
    }

    std::unique_ptr<uint8_t[]> file_;
    const uint8_t* bytes_ = nullptr;
    size_t length_ = 0;
};

bool IsRefusedName(const std::string& name) {
    constexpr std::string_view separators("\\/:\0", 4);
    return name == "." || name == ".." || name.find_first_of(separators) != std::string::npos;
}

bool HaveOneShape(const Header& a, const Header& b) {
    return a.diskSize == b.diskSize && a.chunkSize == b.chunkSize && a.chunkCount == b.chunkCount;
}

} // namespace

// One opening: what it was asked for, and what it needs meanwhile.
class Image::Opening {
public:
    Opening(Image& image, const vrnx_open_options& options, vrnx_error& error)
        : image_(image), options_(options), error_(error), context_(image.algorithms_) {
        if ((options.flags & (VRNX_OPEN_LENIENT | VRNX_OPEN_EXAMINE)) != 0) {
            problems_ = &image.problems_;
        }
    }

    int Run(const char* path);

private:
    int OpenLayers(const char* path);
    int JudgeReading();
    int OpenLayer(const std::string& path, bool& opened);
    int DeriveKey(Layer& layer);
    int FindBase(Layer& layer, bool& found);
    int CompareWithBase(Layer& layer, const Layer& base, bool& usable);
    int TieChain();

    // A refusal, or where these are collected a problem.
    int Refuse(int code, const Layer& layer, std::string_view detail = {}) {
        ReportFile(error_, code, layer.Level(), layer.Path(), detail);
        return vrnx::Refuse(problems_, error_);
    }

    Image& image_;
    const vrnx_open_options& options_;
    vrnx_error& error_;
    Context context_;
    Problems* problems_ = nullptr;
    ZeroHashes zeros_;
    Password password_;
};

int Image::Opening::Run(const char* path) {
    if (!image_.algorithms_.Fetch()) {
        return Report(error_, VRNX_ERROR_CRYPTO, vrnx_code_text(VRNX_ERROR_CRYPTO));
    }
    if (int code = OpenLayers(path)) {
        return code;
    }
    if (int code = JudgeReading()) {
        return code;
    }
    if (int code = TieChain()) {
        return code;
    }
    std::stable_sort(image_.problems_.begin(), image_.problems_.end(),
                     [](const Problem& a, const Problem& b) { return a.level < b.level; });

    const uint64_t chunks = image_.Top().GetHeader().chunkCount;
    image_.verdicts_ = std::make_unique<std::atomic<uint8_t>[]>(static_cast<size_t>(chunks));
    image_.shifts_ = std::make_unique<std::atomic<int64_t>[]>(image_.layers_.size());
    if (options_.cache_chunks != VRNX_CACHE_NONE) {
        const uint64_t wanted = options_.cache_chunks == 0 ? defaultCacheChunks : options_.cache_chunks;
        image_.slots_.resize(static_cast<size_t>(std::min(wanted, chunks)));
    }
    return VRNX_OK;
}

// Who asks what an image is cannot be told by a medium that does not give its table or trailer.
int Image::Opening::JudgeReading() {
    if ((options_.flags & VRNX_OPEN_EXAMINE) == 0) {
        return VRNX_OK;
    }
    for (const Problem& problem : image_.problems_) {
        if (problem.level == 0 && problem.systemError != 0) {
            Begin(error_, VRNX_ERROR_FILE_READ, 0, problem.systemError);
            Text(error_) << problem.text;
            return VRNX_ERROR_FILE_READ;
        }
    }
    return VRNX_OK;
}

int Image::Opening::OpenLayers(const char* path) {
    std::string next = path;
    for (;;) {
        bool opened = false;
        if (int code = OpenLayer(next, opened)) {
            return code;
        }
        if (!opened) {
            break;
        }
        Layer& layer = *image_.layers_.back();
        bool found = false;
        if (int code = FindBase(layer, found)) {
            return code;
        }
        if (!found) {
            break;
        }
        next = *layer.basePath;
    }
    return VRNX_OK;
}

// Opens one file and puts it at the end of the chain. Of a base that is salvaged over, `opened` says whether it is
// there.
int Image::Opening::OpenLayer(const std::string& path, bool& opened) {
    auto& layers = image_.layers_;
    const auto level = static_cast<uint32_t>(layers.size());
    const bool examine = (options_.flags & VRNX_OPEN_EXAMINE) != 0;
    auto layer = std::make_unique<Layer>(path, level);
    int code = VRNX_OK;
    if (level == maxChain) {
        code = ReportFile(error_, VRNX_REFUSED_CHAIN_LENGTH, level, path);
    } else {
        ZeroHashes* const zeros = image_.HasHashes() ? nullptr : &zeros_;
        code = layer->Load(context_, problems_, examine && level == 0, zeros, error_);
    }
    // The same file a second time would lead to itself again, until there are too many.
    const bool loops = std::any_of(layers.begin(), layers.end(), [&](const auto& upper) {
        return code == VRNX_OK && upper->File().IsSameAs(layer->File());
    });
    if (loops) {
        code = ReportFile(error_, VRNX_REFUSED_CHAIN_LENGTH, level, path);
    }
    if (code == VRNX_OK && layer->IsSealed() && (options_.flags & VRNX_OPEN_NO_PASSWORD) == 0) {
        code = DeriveKey(*layer);
    }
    if (code == VRNX_OK) {
        layers.push_back(std::move(layer));
        opened = true;
        return VRNX_OK;
    }
    // A base that is of no use is a problem; what has nothing to do with it is none.
    const bool ofTheFile = VRNX_IS_REFUSAL(code) || code == VRNX_ERROR_OPEN || code == VRNX_ERROR_FILE_READ;
    if (level == 0 || problems_ == nullptr || !ofTheFile) {
        return code;
    }
    layers.back()->baseState = VRNX_BASE_REFUSED;
    return vrnx::Refuse(problems_, error_);
}

int Image::Opening::DeriveKey(Layer& layer) {
    if (options_.password == nullptr && options_.password_file == nullptr) {
        return ReportFile(error_, VRNX_ERROR_PASSWORD_NEEDED, layer.Level(), layer.Path());
    }
    if (int code = password_.Take(options_, error_)) {
        return code;
    }
    const Header& header = layer.GetHeader();
    for (const auto& upper : image_.layers_) {
        const Header& other = upper->GetHeader();
        if (upper->key != nullptr && other.kdfIterations == header.kdfIterations &&
            memcmp(other.salt, header.salt, saltSize) == 0) {
            layer.key = upper->key;
            return VRNX_OK;
        }
    }
    auto key = std::make_shared<Key>();
    if (!vrnx::DeriveKey(password_.Bytes(), password_.Length(), header.salt, header.kdfIterations, key->bytes)) {
        return ReportFile(error_, VRNX_ERROR_CRYPTO, layer.Level(), layer.Path());
    }
    layer.key = std::move(key);
    return VRNX_OK;
}

// Reads which base an image has, and whether there is one of that name.
int Image::Opening::FindBase(Layer& layer, bool& found) {
    if (!layer.IsThin() || !layer.Knows(VRNX_KNOWN_GEOMETRY | VRNX_KNOWN_SEAL)) {
        return VRNX_OK;
    }
    layer.baseState = VRNX_BASE_UNKNOWN;
    if (int code = layer.LoadTrailer(problems_, error_)) {
        return code;
    }
    if (!layer.Knows(VRNX_KNOWN_BASE_NAME)) {
        return VRNX_OK;
    }
    if (IsRefusedName(layer.BaseName())) {
        layer.baseState = VRNX_BASE_REFUSED;
        return Refuse(VRNX_REFUSED_BASE_NAME, layer);
    }
    layer.basePath = layer.BasePath();
    if ((options_.flags & VRNX_OPEN_ALONE) != 0) {
        return VRNX_OK;
    }
    found = FileExists(layer.basePath->c_str());
    if (found) {
        return VRNX_OK;
    }
    layer.baseState = VRNX_BASE_MISSING;
    Begin(error_, VRNX_REFUSED_BASE_MISSING, layer.Level());
    Text(error_).AddPath(layer.Path()) << ": " << vrnx_code_text(error_.code) << ": " << *layer.basePath;
    return vrnx::Refuse(problems_, error_);
}

// Whether a base is the one that its image is pinned to; without `usable` it has no chunk for that image.
int Image::Opening::CompareWithBase(Layer& layer, const Layer& base, bool& usable) {
    const bool same = base.Knows(VRNX_KNOWN_DIGEST) && memcmp(layer.BaseDigest(), base.Digest(), hashSize) == 0;
    const bool shaped = HaveOneShape(layer.GetHeader(), base.GetHeader());
    usable = shaped;
    const bool broken = std::any_of(image_.problems_.begin(), image_.problems_.end(), [&](const Problem& problem) {
        return problem.level == base.Level() && problem.code != VRNX_REFUSED_BASE_MISSING &&
               problem.code != VRNX_REFUSED_BASE_REPLACED && problem.code != VRNX_REFUSED_BASE_GEOMETRY;
    });
    if (same && shaped && !broken) {
        const bool whole = base.baseState == VRNX_BASE_NONE || base.baseState == VRNX_BASE_GOOD;
        layer.baseState = whole ? VRNX_BASE_GOOD : VRNX_BASE_INCOMPLETE;
        return VRNX_OK;
    }
    layer.baseState = broken ? VRNX_BASE_REFUSED : VRNX_BASE_REPLACED;
    if ((same && shaped) || !base.Knows(VRNX_KNOWN_DIGEST)) {
        return VRNX_OK; // what is broken is a problem of the base already
    }
    Begin(error_, same ? VRNX_REFUSED_BASE_GEOMETRY : VRNX_REFUSED_BASE_REPLACED, layer.Level());
    Text(error_).AddPath(layer.Path()) << ": " << vrnx_code_text(error_.code) << ": " << base.Path();
    return vrnx::Refuse(problems_, error_);
}

// Compares each image with its base, the lowest first, as a base is whole before it is compared.
int Image::Opening::TieChain() {
    auto& layers = image_.layers_;
    size_t kept = layers.size();
    for (size_t i = layers.size() - 1; i-- > 0;) {
        bool usable = true;
        if (int code = CompareWithBase(*layers[i], *layers[i + 1], usable)) {
            return code;
        }
        if (!usable) {
            kept = i + 1;
        }
    }
    layers.resize(kept);
    return VRNX_OK;
}

int Image::Open(const char* path, const vrnx_open_options& options, vrnx_error& error) {
    hasHashes_ = (options.flags & VRNX_OPEN_NO_HASHES) == 0;
    return Opening(*this, options, error).Run(path);
}

} // namespace vrnx

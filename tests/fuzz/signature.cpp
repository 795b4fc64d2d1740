// Signed packages, as the device opens them and as kvtool trusts them. The fuzzer signs packages
// with a key of its own, changes some, and knows what both must say. It also changes the file
// behind an open stream: the device must never read a byte that was not signed.
#include <sodium.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "common/kv_raii.h"
#include "flash/kv_upgrade_package.h"
#include "tests/fuzz/world.h"
#include "tests/support/wire.h"
#include "tools/base/errors.h"
#include "tools/package/builder.h"
#include "tools/package/package_json.h"

using namespace fuzz;
using namespace kvtool;
using kv_test::Little;
using kv_test::Noise;
using kv_test::Padded;

namespace {

constexpr size_t kFixed = 138;  // size of a signature without its comment

// Called before each of the device's reads of the file.
std::function<void()> g_onRead;

// A file in memory with a path that any code can open.
class MemoryFile {
  public:
    const std::string& Put(const std::string& text) {
        Require(ftruncate(fd_, 0) == 0);
        Change(0, text);
        return path_;
    }
    void Change(size_t at, const std::string& text) {
        Require(pwrite(fd_, text.data(), text.size(), static_cast<off_t>(at)) ==
                static_cast<ssize_t>(text.size()));
    }
    void Resize(size_t size) { Require(ftruncate(fd_, static_cast<off_t>(size)) == 0); }

  private:
    int fd_ = memfd_create("package", 0);
    std::string path_ = "/proc/self/fd/" + std::to_string(fd_);
};

const uint8_t* Raw(const std::string& bytes) {
    return reinterpret_cast<const uint8_t*>(bytes.data());
}

// Signs with the secret key that belongs to signature.pub. Its seed is fixed.
std::string Sign(const std::string& bytes) {
    static const std::vector<uint8_t> secret = [] {
        const std::string seed(crypto_sign_SEEDBYTES, 'f');
        std::vector<uint8_t> key(crypto_sign_SECRETKEYBYTES);
        uint8_t open[crypto_sign_PUBLICKEYBYTES];
        (void)crypto_sign_seed_keypair(open, key.data(), Raw(seed));
        return key;
    }();
    std::string signature(crypto_sign_BYTES, '\0');
    (void)crypto_sign_detached(reinterpret_cast<uint8_t*>(signature.data()), nullptr, Raw(bytes),
                               bytes.size(), secret.data());
    return signature;
}

struct Made {
    std::string bytes;
    size_t image = 0;   // offset of the signature
    bool good = false;  // whether a device must accept it
};

// A table whose first entry is that of a signature, but sometimes not quite.
std::string Table(Input* in, size_t entries, size_t imageSize, bool* odd) {
    const size_t end = 24 + 256 * entries;
    const auto number = [in, odd](size_t right) {
        if (in->Below(32) != 31) {
            return Little(static_cast<uint32_t>(right));
        }
        const auto other = static_cast<uint32_t>(right + in->Short());
        *odd = *odd || other != right;
        return Little(other);
    };
    std::string name = "signature";
    if (in->Below(32) == 31) {
        name = in->Piece();
        *odd = *odd || std::string(name.c_str()) != "signature";
    }
    std::string table = Padded(in->Piece(), 16) + Little(1) +
                        Little(static_cast<uint32_t>(entries)) + Padded(name, 128);
    table += number(imageSize);
    table += number(end) + Little(0);
    table += number(0x12345) + std::string(112, '\0');
    for (size_t i = 1; i < entries; ++i) {
        table += Padded(in->Piece(), 128);
        table += Padded(in->Text(16), 128);
    }
    return table;
}

// Signs what has room for a signature at `image`.
void SignInside(Made* made, const std::string& comment) {
    std::string digest(crypto_generichash_BYTES_MAX, '\0');
    (void)crypto_generichash(reinterpret_cast<uint8_t*>(digest.data()), digest.size(),
                             Raw(made->bytes), made->bytes.size(), nullptr, 0);
    const std::string signature = Sign(digest);
    (void)made->bytes.replace(made->image, kFixed + comment.size(),
                              "EDfuzzers!" + signature + Sign(signature + comment) + comment);
}

// A package of kvtool's own, without the signature.
Made Build(Input* in) {
    BuildRequest request{"PRT7K", "38QX", {}, Layout::Default(), true};
    for (const char* name : {"uboot", "kern"}) {
        const std::string image = in->Piece();
        request.images.push_back({name, Bytes(image.begin(), image.end())});
    }
    request.signatureComment = in->Text(in->Byte());
    Made made;
    try {
        const Bytes bytes = BuildPackage(request).bytes;
        const auto room = FindEmbeddedSignature(bytes);
        Require(room && room->text.comment == *request.signatureComment);
        made.bytes.assign(bytes.begin(), bytes.end());
        made.image = room->offset;
        made.good = true;
        (void)made.bytes.replace(made.image, room->Size(), std::string(room->Size(), '\0'));
        SignInside(&made, *request.signatureComment);
    } catch (const ToolError& error) {
        Require(error.Code() == ExitCode::kRefused);
    }
    return made;
}

Made Make(Input* in) {
    if (in->Below(8) == 7) {
        return Build(in);
    }
    Made made;
    const size_t entries = 1 + in->Below(80);
    const std::string comment = in->Text(in->Below(16) == 15 ? in->Byte() + 200 : in->Below(32));
    const size_t size = kFixed + comment.size();
    bool odd = comment.size() > kv::kMaxSignatureComment;
    const std::string table = Table(in, entries, size, &odd);
    made.image = table.size();
    made.bytes = table + std::string(size, '\0') + in->Piece();
    made.bytes += Noise(in->Short(), 3);
    SignInside(&made, comment);
    made.good = !odd;
    return made;
}

// Changes the package. Returns whether it is another one now.
bool Change(Input* in, Made* made) {
    const std::string before = made->bytes;
    for (size_t left = in->Below(4); left > 0; --left) {
        // Half of the changes hit the signature or its neighbours.
        const size_t at = in->Below(2) == 0 ? in->Number(3) : made->image + in->Below(250);
        const size_t kind = in->Below(8);
        if (kind == 0) {
            made->bytes.resize(std::min(made->bytes.size(), at));
        } else if (kind == 1) {
            made->bytes += in->Text(1 + in->Below(8));
        } else if (kind == 2 && at < made->bytes.size()) {
            (void)made->bytes.insert(at, std::string(256, '\0'));
        } else if (!made->bytes.empty()) {
            made->bytes[at % made->bytes.size()] ^= static_cast<char>(in->Byte());
        }
    }
    return made->bytes != before;
}

bool KvtoolTrusts(const std::string& package, const std::string& keys) {
    const Bytes bytes(package.begin(), package.end());
    if (const auto found = FindEmbeddedSignature(bytes)) {
        RequireSafe(SignatureJson(found->text).dump(-1, ' ', true));
        Require(found->offset + found->Size() <= bytes.size());
    }
    try {
        return VerifySignature(bytes, "/nowhere/package", {keys, ""}).keyId == "217372657A7A7566";
    } catch (const ToolError& error) {
        Require(error.Code() == ExitCode::kRefused);
        RequireSafe(error.what());
        return false;
    }
}

// Changes the file, but not what was signed.
void Disturb(Input* in, MemoryFile* file, size_t size) {
    if (in->Below(4) == 3) {
        file->Resize(in->Number(3) % (2 * size));
    } else {
        file->Change(in->Number(3) % size, in->Piece());
    }
}

// Reads here and there while the file changes. What is read must be what was signed.
void ReadWhileItChanges(Input* in, FILE* stream, MemoryFile* file, const std::string& package,
                        bool changed) {
    constexpr int kFrom[] = {SEEK_SET, SEEK_CUR, SEEK_END};
    const auto size = static_cast<off_t>(package.size());
    std::string piece(40000, '\0');
    for (size_t left = in->Below(8); left > 0; --left) {
        if (in->Below(4) == 3) {
            changed = true;
            Disturb(in, file, package.size());
        }
        const off_t at = in->Number(3) % (package.size() + 8);
        const size_t from = in->Below(8) % std::size(kFrom);
        const off_t bases[] = {0, ftello(stream), size};
        Require(fseeko(stream, at - bases[from], kFrom[from]) == 0 && ftello(stream) == at);
        const size_t got = fread(piece.data(), 1, 1 + in->Short() % piece.size(), stream);
        const auto start = std::min(static_cast<size_t>(at), package.size());
        Require(start + got <= package.size());
        Require(package.compare(start, got, piece, 0, got) == 0);
        Require(changed || got > 0 || at >= size);
        Require(fseeko(stream, -size - 1, SEEK_END) != 0);
    }
}

}  // namespace

extern "C" ssize_t __real_pread64(int fd, void* to, size_t size, off_t at);
extern "C" ssize_t __wrap_pread64(int fd, void* to, size_t size, off_t at) {
    if (g_onRead) {
        g_onRead();
    }
    return __real_pread64(fd, to, size, at);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static MemoryFile file;
    Scope scope(data, size);
    Input& in = scope.in;
    Made made = Make(&in);
    if (Change(&in, &made)) {
        made.good = false;
    }
    Require(KvtoolTrusts(made.bytes, KV_FUZZ_KEYS) == made.good);
    const std::string& path = file.Put(made.bytes);
    if (made.bytes.empty() || in.Below(64) == 63) {
        // Not a regular file, or one that is larger than 32-bit offsets reach.
        file.Resize(size_t{5} << 30);
        const char* const other = in.Below(2) == 0 ? "/dev/zero" : path.c_str();
        Require(kv::kOpenPackage(other, "rb") == nullptr);
        return 0;
    }
    // The file may change during the check too.
    bool changed = false;
    size_t quiet = in.Below(4) == 3 ? in.Below(4) : SIZE_MAX;
    g_onRead = [&] {
        if (made.good && quiet-- == 0) {
            changed = true;
            Disturb(&in, &file, made.bytes.size());
        }
    };
    const UniqueFile stream(kv::kOpenPackage(path.c_str(), "rb"));
    g_onRead = nullptr;
    Require(static_cast<bool>(stream) == made.good || changed);
    if (stream) {
        ReadWhileItChanges(&in, stream.Get(), &file, made.bytes, changed);
    }
    return 0;
}

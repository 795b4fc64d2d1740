// The texts that kvtool reads from files: recipes, layouts, keys and signatures.
#include <sodium.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "tests/fuzz/world.h"
#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/package/layout.h"
#include "tools/package/package_json.h"
#include "tools/package/recipe.h"
#include "tools/package/signature.h"

using namespace fuzz;
using namespace kvtool;

namespace {

// A file in memory with a path that any code can open.
class MemoryFile {
  public:
    const std::string& Put(const std::string& text) {
        Require(ftruncate(fd_, 0) == 0);
        Require(pwrite(fd_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
        return path_;
    }

  private:
    int fd_ = memfd_create("text", 0);
    std::string path_ = "/proc/self/fd/" + std::to_string(fd_);
};
MemoryFile g_first;
MemoryFile g_second;

// Each fault names its place, and can be shown on a terminal.
void Try(const std::function<void()>& action) {
    try {
        action();
    } catch (const ToolError& error) {
        std::string text = error.what();
        text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());
        RequireSafe(text);
        Require(error.Code() != ExitCode::kInternal);
    }
}

void ReadTexts(const std::string& text) {
    const std::string path = g_first.Put(text);
    Try([&] {
        const Recipe recipe = ReadRecipe(path);
        Layout layout = Layout::Default();
        for (const std::string& size : recipe.sizes) {
            layout.SetSize(size);
        }
        for (const NamedFile& image : recipe.images) {
            Require(Trimmed(image.name) == image.name);
            (void)layout.Select(image.name);
            (void)recipe.Resolve(image.file);
        }
    });
    Try([&] {
        Layout layout = Layout::Default();
        layout.ReadFile(path);
        Require(layout.Rows().size() == 6 && layout.Rows()[5].IsBoot());
    });
    Try([&] { Require(ShortSizeText(ParseSize(text)).size() < 40); });
    RequireSafe(Printable(text));
    (void)SizeText(text.size() * 5000);
    (void)SecondsText(static_cast<double>(text.size()));
    Require(Sha256Hex(nullptr, 0).size() == 64);
}

std::string Base64(const std::string& bytes) {
    std::string text(sodium_base64_ENCODED_LEN(bytes.size(), sodium_base64_VARIANT_ORIGINAL), '\0');
    (void)sodium_bin2base64(text.data(), text.size(),
                            reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                            sodium_base64_VARIANT_ORIGINAL);
    return text.c_str();
}

// A good signature passes; one with any change is refused.
void Verify(Input* in) {
    unsigned char publicKey[crypto_sign_PUBLICKEYBYTES];
    unsigned char secretKey[crypto_sign_SECRETKEYBYTES];
    const unsigned char seed[crypto_sign_SEEDBYTES] = {1};
    (void)crypto_sign_seed_keypair(publicKey, secretKey, seed);
    const auto sign = [&secretKey](const std::string& text) {
        std::string signature(crypto_sign_BYTES, '\0');
        (void)crypto_sign_detached(reinterpret_cast<unsigned char*>(signature.data()), nullptr,
                                   reinterpret_cast<const unsigned char*>(text.data()), text.size(),
                                   secretKey);
        return signature;
    };
    const std::string package = in->Piece();
    const std::string comment = "file:package.fls";
    std::string digest(crypto_generichash_BYTES_MAX, '\0');
    (void)crypto_generichash(reinterpret_cast<unsigned char*>(digest.data()), digest.size(),
                             reinterpret_cast<const unsigned char*>(package.data()), package.size(),
                             nullptr, 0);
    const bool plain = in->Below(2) == 1;
    const std::string signature = sign(plain ? package : digest);
    std::string key = "untrusted comment: key\n" +
                      Base64("Ed12345678" + std::string(reinterpret_cast<char*>(publicKey), 32)) +
                      "\n";
    std::string text = "untrusted comment: signature\n" +
                       Base64((plain ? "Ed" : "ED") + ("12345678" + signature)) +
                       "\ntrusted comment: " + comment + "\n" + Base64(sign(signature + comment)) +
                       "\n";
    bool good = true;
    if (in->Below(2) == 1) {
        std::string& edited = in->Below(2) == 1 ? key : text;
        const size_t at = in->Byte() % edited.size();
        const std::string edit = in->Piece();
        // A key's or signature's untrusted comment may be anything.
        good = edit.empty() || at + edit.size() < edited.find('\n');
        (void)edited.replace(at, edit.size(), edit);
    }
    bool passed = false;
    Try([&] {
        const std::string& keyPath = g_first.Put(key);
        const Signature found = VerifySignature(Bytes(package.begin(), package.end()), "package",
                                                {keyPath, g_second.Put(text)});
        passed = true;
        Require(!good || found.comment == comment);
        (void)JsonLine(SignatureJson(found));
    });
    Require(passed || !good || key.compare(0, 18, "untrusted comment:") != 0 ||
            text.compare(0, 18, "untrusted comment:") != 0 || key[18] != ' ' || text[18] != ' ');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    if (input.Below(4) == 3) {
        Verify(&input);
    } else {
        ReadTexts(input.Rest());
    }
    return 0;
}

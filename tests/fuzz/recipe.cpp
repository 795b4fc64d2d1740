// The texts that kvtool reads from files: recipes, layouts, keys and signatures.
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

// Whatever is signed, one byte more is not.
void Verify(Input* in) {
    const std::string& key = g_first.Put(in->LongPiece());
    const Trust trust{key, g_second.Put(in->LongPiece())};
    const std::string text = in->Rest();
    Bytes package(text.begin(), text.end());
    Try([&] { RequireSafe(JsonLine(SignatureJson(VerifySignature(package, "package", trust)))); });
    package.push_back('x');
    bool signedToo = false;
    Try([&] {
        (void)VerifySignature(package, "package", trust);
        signedToo = true;
    });
    Require(!signedToo);
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

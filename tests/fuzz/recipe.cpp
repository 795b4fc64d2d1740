// The texts that kvtool reads from files: recipes, layouts, keys and signatures.
#include "tools/package/recipe.h"
#include "tests/fuzz/tool.h"
#include "tools/package/layout.h"
#include "tools/package/minisign_files.h"
#include "tools/package/package_json.h"

using namespace fuzz;
using namespace kvtool;

namespace {

void ReadTexts(const std::string& text) {
    const std::string path = Put("/recipe", text);
    Layout layout = Layout::Default();
    (void)Try([&] {
        const Recipe recipe = ReadRecipe(path);
        for (const NamedFile& image : recipe.images) {
            Require(Trimmed(image.name) == image.name);
            (void)recipe.Resolve(image.file);
        }
        for (const std::string& size : recipe.sizes) {
            layout.SetSize(size);
        }
    });
    (void)Try([&] { layout.ReadFile(path); });
    for (const LayoutRow& row : layout.Rows()) {
        Require(row.size <= uint64_t{9999999999} << 30);
    }
    (void)Try([&] { RequireSafe(SizeText(ParseSize(text)) + ShortSizeText(text.size() << 10)); });
    RequireSafe(Printable(text));
    Require(MarkupText(text).find('<') == std::string::npos);
    (void)DidYouMean(text.substr(0, 20), {"kernel", "sensor"});
}

// Whatever is signed, one byte more is not.
void Verify(Input* in) {
    Trust trust;
    trust.key = Put("/key", in->LongPiece());
    trust.signature = Put("/signature", in->LongPiece());
    (void)Try([&] { (void)ReadDetachedSignature(trust.signature); });
    const std::string text = in->Rest();
    Bytes package(text.begin(), text.end());
    (void)Try([&] { RequireSafe(JsonLine(SignatureJson(VerifySignature(package, "p", trust)))); });
    package.push_back('x');
    Require(!Try([&] { (void)VerifySignature(package, "p", trust); }));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    if (in.Below(4) == 3) {
        Verify(&in);
    } else {
        ReadTexts(in.Rest());
    }
    return 0;
}

// Signed packages: what a device with trusted keys opens, and that the stream gives only signed
// bytes. minisign makes the signatures; kvtool must judge every package as the device does.
#include <optional>

#include "common/kv_le.h"
#include "common/kv_raii.h"
#include "flash/kv_upgrade_package.h"
#include "tests/support/capture.h"
#include "tools/base/errors.h"
#include "tools/package/builder.h"
#include "tools/package/check.h"
#include "tools/package/minisign_files.h"
#include "tools/package/signature.h"
#include "tools/package/signer.h"

namespace {

using kv_test::Contains;
using kvtool::Bytes;

constexpr size_t kEntry = 24;            // offset of entry 0
constexpr size_t kImage = 24 + 2 * 256;  // offset of the signature's image, with one other entry
constexpr size_t kFixed = 138;           // its size without the comment
const std::string kKeys = KV_TEST_KEYS;  // one.key, two.key, other.key; trusted.pub without other

Bytes Unsigned(const std::string& name, size_t size) {
    Bytes image(size);
    for (size_t i = 0; i < size; ++i) {
        image[i] = static_cast<uint8_t>(i * 7 + i / 251);
    }
    kvtool::BuildRequest request{"PRT7K", "38QX", {{name, image}}, kvtool::Layout::Default()};
    request.signatureComment = "camera 1.2";
    return kvtool::BuildPackage(request).bytes;
}

Bytes Signed(Bytes package, const std::string& key = "one") {
    kvtool::SignPackage(&package, kKeys + "/" + key + ".key");
    return package;
}

// The boot loader is not padded, so its package is small.
const Bytes& Small() {
    static const Bytes package = Signed(Unsigned("uboot", 60));
    return package;
}

class PackageSignature : public testing::Test {
  protected:
    PackageSignature() : path_(folder_.Path("package")), log_(2) {}

    std::string Write(const Bytes& package) {
        kv_test::WriteFile(path_, std::string(package.begin(), package.end()));
        return path_;
    }
    // What the stream gives of a package; nothing if the device refuses it. kvtool must agree.
    std::optional<Bytes> Open(const Bytes& package) {
        const UniqueFile stream(kv::kOpenPackage(Write(package).c_str(), "rb"));
        std::optional<Bytes> read;
        if (stream) {
            read = Bytes(package.size() + 1);
            read->resize(fread(read->data(), 1, read->size(), stream.Get()));
        }
        EXPECT_EQ(KvtoolTrusts(package), read.has_value());
        return read;
    }
    bool KvtoolTrusts(const Bytes& package) {
        try {
            (void)kvtool::VerifySignature(package, path_, {kKeys + "/trusted.pub", ""});
            return true;
        } catch (const kvtool::ToolError& error) {
            EXPECT_EQ(error.Code(), kvtool::ExitCode::kRefused);
            return false;
        }
    }
    // The image of a signature of the file as it is.
    std::string ImageByMinisign() {
        (void)kv_test::Shell("minisign -S -H -s " + kKeys + "/one.key -t 'camera 1.2' -m " + path_ +
                             " -x " + path_ + ".sig");
        const kvtool::DetachedSignature made = kvtool::ReadDetachedSignature(path_ + ".sig");
        std::string image = "ED";
        image.append(made.id.begin(), made.id.end());
        image.append(made.signature.begin(), made.signature.end());
        image.append(made.commentSignature.begin(), made.commentSignature.end());
        return image + made.comment;
    }
    bool Logged(const std::string& text) { return Contains(log_.Text(), "\033[m" + text); }

    kv_test::Folder folder_;
    std::string path_;
    kv_test::Capture log_;
};

TEST_F(PackageSignature, OpensWhatATrustedKeySigned) {
    for (const char* key : {"one", "two"}) {
        for (const Bytes& package :
             {Signed(Unsigned("uboot", 60), key), Signed(Unsigned("app", 100000), key)}) {
            EXPECT_EQ(Open(package), package) << key;
        }
    }
    EXPECT_TRUE(Contains(log_.Text(), ": camera 1.2\n"));
    const auto report = kvtool::CheckPackage(Small(), kvtool::Layout::Default(), {});
    EXPECT_TRUE(report.findings.empty()) << "it is a package like any other";

    EXPECT_FALSE(Open(Signed(Unsigned("uboot", 60), "other")));
    EXPECT_TRUE(Contains(log_.Text(), ", which is not trusted\n"));
    EXPECT_FALSE(Open(Unsigned("uboot", 60))) << "room for a signature is not a signature";
    EXPECT_FALSE(Open({}));
    EXPECT_FALSE(Logged("the package has changed"));
    EXPECT_EQ(kv::kOpenPackage(folder_.Path("missing").c_str(), "rb"), nullptr);
    EXPECT_EQ(kv::kOpenPackage(folder_.Path().c_str(), "rb"), nullptr);
}

TEST_F(PackageSignature, EveryByteCounts) {
    Bytes package = Small();
    for (size_t i = 0; i < package.size(); ++i) {
        for (const int flip : {1 << (i % 8), 0xFF}) {
            const uint8_t right = package[i];
            package[i] = static_cast<uint8_t>(right ^ flip);
            EXPECT_FALSE(Open(package)) << i;
            package[i] = right;
        }
    }
    EXPECT_TRUE(Open(package));
    // The ends of the blocks in which the device reads.
    Bytes large = Signed(Unsigned("app", 100000));
    for (size_t i = 0; i < large.size(); i += i % 16384 == 16383 ? 1 : 16383) {
        large[i] ^= 0x10;
        EXPECT_FALSE(Open(large)) << i;
        large[i] ^= 0x10;
    }
}

TEST_F(PackageSignature, NothingCanBeAddedOrTakenAway) {
    const Bytes whole = Small();
    for (size_t size = 0; size < whole.size(); ++size) {
        EXPECT_FALSE(Open(Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size))));
    }
    for (const size_t at : {kEntry, kEntry + 256, kImage, kImage + kFixed, whole.size()}) {
        Bytes longer = whole;
        longer.insert(longer.begin() + static_cast<ptrdiff_t>(at), 256, 0);
        EXPECT_FALSE(Open(longer)) << at;
    }
}

TEST_F(PackageSignature, TheEntryHasOnePlace) {
    const auto entry = [](Bytes* package, size_t index) {
        return package->begin() + static_cast<ptrdiff_t>(kEntry + index * 256);
    };
    Bytes swapped = Small();
    std::swap_ranges(entry(&swapped, 0), entry(&swapped, 1), entry(&swapped, 1));
    EXPECT_FALSE(Open(swapped));
    Bytes doubled = Small();
    std::copy(entry(&doubled, 0), entry(&doubled, 1), entry(&doubled, 1));
    EXPECT_FALSE(Open(doubled));
    // A third entry, a second signature, with its image at the end and in place of the first.
    for (const bool first : {false, true}) {
        Bytes more = Small();
        more.insert(more.end(), more.begin() + kImage, more.begin() + kImage + kFixed);
        more.insert(entry(&more, first ? 0 : 2), entry(&more, 0), entry(&more, 1));
        kv::PutLe32(&more[20], 3);
        kv::PutLe32(&more[kEntry + 132], kImage + 256);
        EXPECT_FALSE(Open(more)) << first;
    }
    // An entry that a device does not take for a signature's: kvtool does not sign such a package,
    // and the device refuses it.
    for (const size_t field : {0, 9, 128, 132, 140}) {
        Bytes odd = Unsigned("uboot", 60);
        odd[kEntry + field] ^= 0x80;
        EXPECT_THROW((void)Signed(odd), kvtool::ToolError) << field;
        EXPECT_FALSE(Open(odd)) << field;
    }
    // A good signature does not help if the entry points past the last image. The signature is
    // there, or where it ought to be.
    const size_t end = Unsigned("uboot", 60).size();
    for (const size_t at : {kImage, end}) {
        Bytes odd = Unsigned("uboot", 60);
        kv::PutLe32(&odd[kEntry + 132], static_cast<uint32_t>(end));
        odd.resize(end + kFixed + 10);
        std::fill_n(odd.begin() + static_cast<ptrdiff_t>(at), kFixed + 10, uint8_t{0});
        Write(odd);
        const std::string image = ImageByMinisign();
        std::copy(image.begin(), image.end(), odd.begin() + static_cast<ptrdiff_t>(at));
        EXPECT_FALSE(Open(odd)) << at;
    }
    EXPECT_TRUE(Logged("the package is not signed\n"));
}

// A long table puts the signature across two blocks.
TEST_F(PackageSignature, TheSignatureMayCrossABlock) {
    Bytes package = Unsigned("uboot", 60);
    const size_t entries = 63;  // the table ends 232 bytes before the first block does
    package.insert(package.begin() + kImage, 256 * (entries - 2), 0);
    package.insert(package.begin() + kImage + 256 * (entries - 2) + kFixed, 200, 'c');
    kv::PutLe32(&package[20], entries);
    kv::PutLe32(&package[kEntry + 128], kFixed + 10 + 200);
    kv::PutLe32(&package[kEntry + 132], 24 + 256 * entries);
    package = Signed(package);
    EXPECT_EQ(Open(package), package);
    for (const size_t at : {size_t{16383}, size_t{16384}, package.size() - 1}) {
        package[at] ^= 1;
        EXPECT_FALSE(Open(package)) << at;
        package[at] ^= 1;
    }
}

TEST_F(PackageSignature, AStreamNeverGivesOtherBytesThanThoseChecked) {
    const Bytes package = Signed(Unsigned("app", 100000));
    const auto at = [&package](size_t from, size_t size) {
        const auto first = package.begin() + static_cast<ptrdiff_t>(from);
        return Bytes(first, first + static_cast<ptrdiff_t>(size));
    };
    UniqueFile stream(kv::kOpenPackage(Write(package).c_str(), "rb"));
    ASSERT_TRUE(stream);
    const auto read = [&stream](size_t from, size_t size) {
        Bytes bytes(size);
        EXPECT_EQ(fseeko(stream.Get(), static_cast<off_t>(from), SEEK_SET), 0);
        bytes.resize(fread(bytes.data(), 1, size, stream.Get()));
        return bytes;
    };
    EXPECT_EQ(read(65000, 2000), at(65000, 2000));
    EXPECT_EQ(read(10, 40000), at(10, 40000));
    EXPECT_EQ(read(package.size() - 5, 100), at(package.size() - 5, 5));
    EXPECT_EQ(read(package.size() + 5, 100), Bytes());

    std::fstream writer(path_, std::ios::in | std::ios::out | std::ios::binary);
    writer.seekp(50000);
    writer.put('!').flush();
    EXPECT_EQ(read(100, 1000), at(100, 1000)) << "other blocks are still good";
    const Bytes changed = read(40000, 20000);
    EXPECT_EQ(changed, at(40000, changed.size()));
    EXPECT_LE(changed.size(), 49152U - 40000) << "the block of the change must not be given";
    EXPECT_TRUE(Logged("the package has changed since its signature was checked\n"));
    writer.seekp(50000);
    writer.put(static_cast<char>(package[50000])).flush();
    EXPECT_EQ(read(40000, 20000), at(40000, 20000));
    std::filesystem::resize_file(path_, 60000);
    EXPECT_EQ(read(70000, 20000), Bytes());
    Write(package);
    std::ofstream(path_, std::ios::app) << "more";
    EXPECT_EQ(read(package.size() - 5, 100), at(package.size() - 5, 5));
}

}  // namespace

// kvtool: packages, built and inspected.
#include "tests/support/discovery_client.h"
#include "tools/base/errors.h"
#include "tools/package/builder.h"
#include "tools/package/check.h"

namespace {

using kv_test::Put;
using kvtool::BuildRequest;
using kvtool::Bytes;
using kvtool::ExitCode;
using kvtool::Layout;
using kvtool::PackageReport;
using kvtool::ToolError;

Bytes Of(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

BuildRequest Request(std::vector<kvtool::ImageSpec> images) {
    return {"PRT7K", "38QX", std::move(images), Layout::Default(), false};
}

// "app" (5 bytes) and "uboot" (3 bytes), every byte written out by hand.
Bytes HandMade() {
    Bytes bytes(24 + 512, 0x00);
    bytes.resize(24 + 512 + 65536 + 3, 0xFF);
    Put(&bytes, 0, "PRT7K");
    Put(&bytes, 8, "38QX");
    Put(&bytes, 16, std::string("\x1B\x02\x01\x00", 4));  // 66075, the whole file
    Put(&bytes, 20, std::string("\x02\x00\x00\x00", 4));
    Put(&bytes, 24, "app");
    Put(&bytes, 24 + 128, std::string("\x05\x00\x00\x00\x18\x02\x00\x00", 8));
    Put(&bytes, 24 + 140, std::string("\x45\x23\x01\x00", 4));
    Put(&bytes, 280, "uboot.bin");
    Put(&bytes, 280 + 128, std::string("\x03\x00\x00\x00\x18\x02\x01\x00", 8));
    Put(&bytes, 280 + 140, std::string("\x45\x23\x01\x00", 4));
    Put(&bytes, 0x218, "APPLE");
    Put(&bytes, 0x10218, "UBT");
    return bytes;
}

PackageReport Check(const Bytes& bytes) {
    return kvtool::CheckPackage(bytes, Layout::Default(), kvtool::StandardIdentity());
}

bool Reports(const PackageReport& report, kvtool::Severity severity, const std::string& text) {
    return std::any_of(report.findings.begin(), report.findings.end(), [&](const auto& finding) {
        return finding.severity == severity && finding.text.find(text) != std::string::npos;
    });
}

std::string AllFindings(const PackageReport& report) {
    std::string all;
    for (const kvtool::Finding& finding : report.findings) {
        all += std::to_string(finding.entry) + ": " + finding.text + "\n";
    }
    return all;
}

TEST(KvtoolPack, GivesTheBytesMadeByHand) {
    // The boot loader is given first and must end up last.
    const auto result =
        kvtool::BuildPackage(Request({{"uboot.bin", Of("UBT")}, {"app", Of("APPLE")}}));
    EXPECT_EQ(result.bytes, HandMade());
    EXPECT_TRUE(result.warnings.empty());
}

TEST(KvtoolPack, PadsOnlyToTheUnitAndNeverBehindTheBootLoader) {
    const auto result = kvtool::BuildPackage(Request(
        {{"kernel", Bytes(65536, 1)}, {"rootfs", Bytes(65537, 2)}, {"uboot", Bytes(70000, 3)}}));
    const size_t data = 24 + 3 * 256;
    ASSERT_EQ(result.bytes.size(), data + 65536 + 131072 + 70000);
    const PackageReport report = Check(result.bytes);
    EXPECT_TRUE(report.findings.empty()) << AllFindings(report);
    ASSERT_EQ(report.entries.size(), 3U);
    EXPECT_EQ(report.entries[0].behind, 0U);
    EXPECT_EQ(report.entries[1].behind, 65535U);
    EXPECT_TRUE(report.entries[1].behindBlank);
    EXPECT_EQ(report.entries[2].name, "uboot");
    EXPECT_EQ(report.entries[2].behind, 0U);
}

TEST(KvtoolPack, Refusals) {
    const std::string fits(127, 'k');
    struct Case {
        const char* what;
        std::vector<kvtool::ImageSpec> images;
        bool forceable;
    };
    const Case cases[] = {
        {"matches no row", {{"kern", Of("x")}}, true},
        {"partition taken twice", {{"app", Of("x")}, {"app_v2", Of("y")}}, true},
        {"one byte too large", {{"param", Bytes(524289)}}, true},
        {"boot loader too large", {{"uboot", Bytes(589825)}}, true},
        {"empty", {{"app", {}}}, true},
        {"name of 128", {{"app" + std::string(125, 'x'), Of("x")}}, false},
        {"name not printable", {{"app\n", Of("x")}}, false},
        {"no name", {{"", Of("x")}}, false},
        {"nothing", {}, false},
    };
    for (const Case& c : cases) {
        BuildRequest request = Request(c.images);
        EXPECT_THROW((void)kvtool::BuildPackage(request), ToolError) << c.what;
        request.force = true;
        if (c.forceable) {
            EXPECT_FALSE(kvtool::BuildPackage(request).warnings.empty()) << c.what;
        } else {
            EXPECT_THROW((void)kvtool::BuildPackage(request), ToolError) << c.what;
        }
    }
    BuildRequest twice = Request({{"app2", Of("x")}});
    twice.layout = Layout({{"app", "/dev/mtd5", 100}, {"app2", "/dev/mtd6", 100}});
    EXPECT_THROW((void)kvtool::BuildPackage(twice), ToolError) << "name of two rows";

    // The limits themselves are fine.
    const std::string longest = "app" + std::string(124, 'x');
    EXPECT_NO_THROW(
        (void)kvtool::BuildPackage(Request({{"param", Bytes(524288)}, {longest, Of("x")}})));
    BuildRequest larger = Request({{"param", Bytes(524289)}});
    larger.layout.SetSize("param=1M");
    EXPECT_NO_THROW((void)kvtool::BuildPackage(larger));
}

TEST(KvtoolInspect, ReadsThePackageMadeByHand) {
    const PackageReport report = Check(HandMade());
    EXPECT_TRUE(report.findings.empty()) << AllFindings(report);
    EXPECT_EQ(report.ic, "PRT7K");
    EXPECT_EQ(report.sensor, "38QX");
    EXPECT_EQ(report.totalLen, 66075U);
    ASSERT_EQ(report.entries.size(), 2U);
    EXPECT_EQ(report.entries[0].targets.at(0).device, "/dev/mtd5");
    EXPECT_EQ(report.entries[0].behind, 65531U);
    EXPECT_EQ(report.entries[0].md5, "4c462d6dd59d782386bb1cdad0060c70");  // of "APPLE"
    EXPECT_EQ(report.entries[1].targets.at(0).device, "/dev/mtd0");
    EXPECT_EQ(report.entries[1].dataOffset, 0x10218U);
}

TEST(KvtoolInspect, NamesWhatTheDeviceWouldMakeOfIt) {
    using kvtool::Severity;
    const std::string zero4(4, '\0');
    struct Case {
        size_t at;
        std::string bytes;
        Severity severity;
        const char* text;
    };
    const Case cases[] = {
        {5, "X", Severity::kError, "chip type"},
        {0, "PRT7KXYZ", Severity::kError, "chip type"},
        {8, "38Qx", Severity::kError, "sensor type"},
        {16, zero4, Severity::kError, "total data length is 0"},
        {16, std::string("\x01\0\0\0", 4), Severity::kNote, "not the size of the file"},
        {20, zero4, Severity::kError, "number of entries is 0"},
        {20, std::string("\xFF\xFF\xFF\xFF", 4), Severity::kError, "bad check code"},
        {24 + 140, zero4, Severity::kError, "bad check code"},
        {24, "xpp", Severity::kWarning, "selects no partition"},
        {280, std::string("app\0", 4), Severity::kWarning, "written already by entry 0"},
        {24 + 128, std::string("\x01\x00\x40\x00", 4), Severity::kError, "larger than"},
        {24 + 128, zero4, Severity::kError, "empty"},
        {24 + 132, std::string("\xFF\xFF\xFF\xFF", 4), Severity::kError, "past the end"},
        {24 + 132, std::string("\x00\x01\x00\x00", 4), Severity::kWarning, "header or the table"},
        {24 + 128, std::string("\x01\x00\x01\x00", 4), Severity::kWarning, "overlaps that of"},
        {536 + 100, "x", Severity::kWarning, "not blank"},
        {280 + 132, std::string("\x18\x02\x00\x00", 4), Severity::kError, "does not bound"},
    };
    for (const Case& c : cases) {
        Bytes bytes = HandMade();
        Put(&bytes, c.at, c.bytes);
        const PackageReport report = Check(bytes);
        EXPECT_TRUE(Reports(report, c.severity, c.text)) << c.text << " not among:\n"
                                                         << AllFindings(report);
        EXPECT_EQ(report.Acceptable(), c.severity != Severity::kError)
            << c.text << AllFindings(report);
    }
}

TEST(KvtoolInspect, EveryTruncationIsFoundAndHarmless) {
    const Bytes whole = HandMade();
    for (const size_t size : {0U, 23U, 24U, 25U, 163U, 164U, 279U, 281U, 535U, 540U, 66074U}) {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        EXPECT_FALSE(Check(cut).Acceptable()) << size;
    }
}

TEST(KvtoolLayout, SizesAreParsedStrictly) {
    EXPECT_EQ(kvtool::ParseSize("576K"), 589824U);
    EXPECT_EQ(kvtool::ParseSize("2M"), 2097152U);
    EXPECT_EQ(kvtool::ParseSize("7"), 7U);
    for (const char* bad : {"", "K", "-1", "1k", "1KB", "0x10", "99999999999", " 1"}) {
        EXPECT_THROW((void)kvtool::ParseSize(bad), ToolError) << bad;
    }
    Layout layout = Layout::Default();
    EXPECT_THROW(layout.SetSize("flash=1M"), ToolError);
    EXPECT_THROW(layout.SetSize("app"), ToolError);
}

TEST(KvtoolText, ForeignBytesCannotReachATerminal) {
    EXPECT_EQ(kvtool::Printable("a\x1B[2J\\\xFF"), "a\\x1B[2J\\x5C\\xFF");
}

}  // namespace

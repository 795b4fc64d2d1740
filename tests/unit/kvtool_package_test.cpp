// kvtool: builds, checks, extracts, compares and verifies packages; predicted times, layouts, texts
// and the progress line.
#include "common/kv_le.h"
#include "tests/support/discovery_client.h"
#include "tools/base/errors.h"
#include "tools/cli/progress.h"
#include "tools/cli/report.h"
#include "tools/package/builder.h"
#include "tools/package/check.h"
#include "tools/package/compare.h"
#include "tools/package/extract.h"
#include "tools/package/flash_image.h"
#include "tools/package/flash_time.h"

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

// "app" (5 bytes) and "uboot" (3 bytes), written out byte by byte.
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
    return kvtool::CheckPackage(bytes, Layout::Default(), {"PRT7K", "38QX"});
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
    // The boot loader is given first but must come last.
    const auto result =
        kvtool::BuildPackage(Request({{"uboot.bin", Of("UBT")}, {"app", Of("APPLE")}}));
    EXPECT_EQ(result.bytes, HandMade());
    EXPECT_TRUE(result.warnings.empty());
}

TEST(KvtoolPack, PadsOnlyToTheUnitAndNeverAfterTheBootLoader) {
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
    EXPECT_THROW((void)kvtool::BuildPackage(twice), ToolError) << "a name that fits two rows";

    // Values at the limits are fine.
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

TEST(KvtoolInspect, ReportsWhatTheDeviceWouldDoWithIt) {
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
        {280, std::string("app\0", 4), Severity::kWarning, "already written by entry 0"},
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

TEST(KvtoolInspect, ComparesOnlyWithWhatIsKnownOfTheDevice) {
    const auto fits = [](const kvtool::Identity& device) {
        return kvtool::CheckPackage(HandMade(), Layout::Default(), device).Acceptable();
    };
    EXPECT_TRUE(fits({}));
    EXPECT_TRUE(fits({"PRT7K", {}}));
    EXPECT_TRUE(fits({{}, "38QX"}));
    EXPECT_FALSE(fits({"PRT9K", {}}));
    EXPECT_FALSE(fits({{}, ""}));
}

// Thousands of long images, each covering nearly the whole file.
TEST(KvtoolInspect, ManyOverlappingEntriesTakeOnePass) {
    constexpr uint32_t kEntries = 4000;
    Bytes bytes = HandMade();
    bytes.resize(24 + kEntries * 256 + 65536, 0xFF);
    kv::PutLe32(bytes.data() + 20, kEntries);
    for (uint32_t i = 0; i < kEntries; ++i) {
        uint8_t* const entry = bytes.data() + 24 + size_t{i} * 256;
        memcpy(entry, "app", 4);
        kv::PutLe32(entry + 128, static_cast<uint32_t>(bytes.size()) - i);
        kv::PutLe32(entry + 132, i);
        kv::PutLe32(entry + 140, 0x12345);
    }
    const PackageReport report = Check(bytes);
    ASSERT_EQ(report.entries.size(), kEntries);
    EXPECT_EQ(report.entries[0].md5, report.md5);
    EXPECT_TRUE(report.entries[kEntries - 1].md5.empty()) << "must not hash every image";
    std::ostringstream text;
    kvtool::PrintPackage(text, report);
    EXPECT_LT(text.str().size(), 100000U);
    EXPECT_NE(text.str().find("… and 3989 more like it (written_twice)"), std::string::npos);
}

TEST(KvtoolInspect, WarnsOfBytesThatBelongToNoImage) {
    // Without the second entry, its place in the table belongs to no image. Padding is fine.
    Bytes bytes = HandMade();
    bytes.resize(0x10218);
    Put(&bytes, 20, std::string("\x01\x00\x00\x00", 4));
    EXPECT_TRUE(
        Reports(Check(bytes), kvtool::Severity::kWarning, "256 bytes at offset 280 belong"));
}

TEST(KvtoolInspect, EveryTruncationIsFoundAndHarmless) {
    const Bytes whole = HandMade();
    for (const size_t size : {0U, 23U, 24U, 25U, 163U, 164U, 279U, 281U, 535U, 540U, 66074U}) {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        EXPECT_FALSE(Check(cut).Acceptable()) << size;
    }
}

TEST(KvtoolExtract, TakesOnlyNamesThatAreFiles) {
    Bytes bytes = HandMade();
    const PackageReport report = Check(bytes);
    ASSERT_EQ(kvtool::SelectImages(report, {}, false).size(), 2U);
    const auto boot = kvtool::SelectImages(report, {"uboot"}, false);
    ASSERT_EQ(boot.size(), 1U);
    EXPECT_EQ(boot[0].name, "uboot.bin");
    EXPECT_EQ(kvtool::ImageBytes(bytes, *boot[0].entry), Of("UBT"));
    EXPECT_THROW((void)kvtool::SelectImages(report, {"kernel"}, false), ToolError);

    for (const char* name : {"../app", "/app", ".app", "", "a\x1Bp"}) {
        Bytes evil = HandMade();
        Put(&evil, 24, std::string(name) + '\0');
        EXPECT_THROW((void)kvtool::SelectImages(Check(evil), {}, true), ToolError) << name;
    }
    Put(&bytes, 280, std::string("app\0", 4));
    EXPECT_EQ(kvtool::SelectImages(Check(bytes), {}, false)[1].name, "app.1") << "same name";
    bytes.pop_back();
    EXPECT_THROW((void)kvtool::SelectImages(Check(bytes), {}, false), ToolError) << "truncated";
    EXPECT_NO_THROW((void)kvtool::SelectImages(Check(bytes), {}, true));
}

TEST(KvtoolDiff, TellsImagesApart) {
    using Images = std::vector<kvtool::ImageSpec>;
    const auto compare = [](const Images& a, const Images& b) {
        const auto comparison =
            kvtool::ComparePackages(kvtool::BuildPackage(Request(a)).bytes,
                                    kvtool::BuildPackage(Request(b)).bytes, Layout::Default());
        std::string text = comparison.identical ? "identical" : "";
        for (const auto& image : comparison.images) {
            text += image.name + " " + kvtool::ImageChangeName(image.change) + " " +
                    std::to_string(image.difference.first) + " " +
                    std::to_string(image.difference.count) + "; ";
        }
        return text;
    };
    const Images both = {{"kernel", Of("KERNEL")}, {"app", Of("APPLE")}};
    EXPECT_EQ(compare(both, both), "identicalkernel same 6 0; app same 5 0; ");
    EXPECT_EQ(compare(both, {both[1], both[0]}), "kernel moved 6 0; app moved 5 0; ");
    EXPECT_EQ(compare(both, {both[0], {"app", Of("APXLEYY")}}),
              "kernel same 6 0; app changed 2 3; ");
    EXPECT_EQ(compare({both[0]}, {both[1]}), "kernel removed 0 0; app added 0 0; ");
    // Only the padding differs.
    Bytes bytes = HandMade();
    bytes[0x300] = 0;
    const auto padding = kvtool::ComparePackages(HandMade(), bytes, Layout::Default());
    EXPECT_FALSE(padding.identical);
    EXPECT_EQ(padding.images[0].change, kvtool::ImageChange::kSame);
    EXPECT_THROW((void)kvtool::ComparePackages(Of("x"), bytes, Layout::Default()), ToolError);
}

kvtool::DumpVerdict Verify(const Bytes& package, const std::string& name,
                           std::vector<Bytes> devices) {
    return kvtool::VerifyDump(package, Layout::Default(), {name, std::move(devices)});
}

TEST(KvtoolVerify, ExpectsWhatTheWriterLeaves) {
    Bytes package = HandMade();
    package[0x300] = 'p';  // 232 bytes after the start of "APPLE"; written after it
    Bytes app(131072, 0xFF);
    Put(&app, 0, "APPLE");
    app[0x300 - 0x218] = 'p';
    kvtool::DumpVerdict verdict = Verify(package, "app", {app});
    EXPECT_EQ(verdict.difference.count, 0U);
    EXPECT_EQ(verdict.image, 5U);
    EXPECT_EQ(verdict.behind, 65531U);
    for (const size_t at : {0U, 232U, 65536U, 131071U}) {
        Bytes other = app;
        other[at] ^= 1;
        verdict = Verify(package, "app", {other});
        EXPECT_EQ(verdict.difference.first, at);
        EXPECT_EQ(verdict.difference.count, 1U);
    }

    // The boot loader spans three devices. Its 100,000 bytes vary.
    Bytes image(100000);
    for (size_t i = 0; i < image.size(); ++i) {
        image[i] = static_cast<uint8_t>(i * 7 + i / 251);
    }
    const Bytes boot = kvtool::BuildPackage(Request({{"app", Of("x")}, {"uboot", image}})).bytes;
    Bytes flash(196608, 0xFF);
    std::copy(image.begin(), image.end(), flash.begin());
    const Bytes first(flash.begin(), flash.begin() + 65536);
    const Bytes second(flash.begin() + 65536, flash.begin() + 131072);
    const Bytes third(65536, 0xFF);
    EXPECT_EQ(Verify(boot, "uboot", {first, second, third}).difference.count, 0U);
    EXPECT_EQ(Verify(boot, "uboot", {flash}).difference.count, 0U);
    EXPECT_NE(Verify(boot, "uboot", {first, third, second}).difference.count, 0U);

    // Bytes after the boot loader make its writer continue on the following devices.
    Bytes longer = boot;
    longer.insert(longer.end(), 65536, 'z');
    EXPECT_THROW((void)Verify(longer, "uboot", {flash}), ToolError);
    Bytes filled = second;
    std::fill(filled.begin() + (100000 - 65536), filled.end(), 'z');
    Bytes rest(65536, 0xFF);
    std::fill_n(rest.begin(), 65536 - (131072 - 100000), 'z');
    EXPECT_EQ(Verify(longer, "uboot", {first, filled, rest}).difference.count, 0U);
}

TEST(KvtoolFlashTime, PredictsWhenThePowerMustHold) {
    const auto predict = [](std::vector<kvtool::ImageSpec> images) {
        return kvtool::PredictFlashTime(kvtool::CheckPackage(
            kvtool::BuildPackage(Request(std::move(images))).bytes, Layout::Default(), {}));
    };
    // The kernel's partition has 32 blocks. Its image has 390.6 pages, with the padding 512. Then
    // come 64 blocks and 256 pages of the application, 9 blocks and 4 pages of the boot loader.
    const kvtool::FlashTime time =
        predict({{"uboot", Bytes(1000)}, {"kernel", Bytes(100000)}, {"app", Bytes(1)}});
    ASSERT_EQ(time.windows.size(), 3U);
    EXPECT_EQ(time.windows[0].partition, "kernel");
    EXPECT_EQ(time.windows[0].risk, kvtool::CutRisk::kRescue);
    EXPECT_NEAR(time.windows[0].from, 0, 1e-9);
    EXPECT_NEAR(time.windows[0].seconds, 32 * 0.15 + 391 * 0.0007, 1e-9);
    EXPECT_EQ(time.windows[1].partition, "app");
    EXPECT_NEAR(time.windows[1].from, 32 * 0.15 + 512 * 0.0007, 1e-9);
    EXPECT_NEAR(time.windows[1].seconds, 0.15, 1e-9);
    EXPECT_EQ(kvtool::PowerWindowText(time.windows[1]),
              "must hold for 0.1 s, from 5.2 s on: after a cut the application may start damaged");
    EXPECT_EQ(time.windows[2].risk, kvtool::CutRisk::kDead);
    EXPECT_NEAR(time.windows[2].from, 96 * 0.15 + 768 * 0.0007, 1e-9);
    EXPECT_NEAR(time.windows[2].seconds, 9 * 0.15 + 4 * 0.0007, 1e-9);
    EXPECT_NEAR(time.seconds, 105 * 0.15 + 772 * 0.0007, 1e-9);
    EXPECT_EQ(kvtool::PowerWindowText(time.windows[2]),
              "must hold for 1.4 s, from 14.9 s on: a cut kills the device");
    EXPECT_TRUE(predict({{"var", Bytes(1)}}).windows.empty());
    Bytes badCode = HandMade();
    badCode[24 + 140] = 0;
    Bytes noLength = HandMade();
    std::fill_n(noLength.begin() + 16, 4, uint8_t{0});
    for (const Bytes& bad : {badCode, noLength}) {
        EXPECT_EQ(
            kvtool::PredictFlashTime(kvtool::CheckPackage(bad, Layout::Default(), {})).seconds, 0);
    }
}

TEST(KvtoolVerify, RefusesWhatTheDeviceDoesNotWrite) {
    const Bytes dump(131072, 0xFF);
    Bytes bad = HandMade();
    bad[24 + 140] = 0;
    EXPECT_THROW((void)Verify(bad, "app", {dump}), ToolError) << "bad check code";
    EXPECT_THROW((void)Verify(HandMade(), "app", {Bytes(4, 0xFF)}), ToolError) << "too large";
    EXPECT_THROW((void)Verify(HandMade(), "kernel", {dump}), ToolError) << "no entry";
    EXPECT_THROW((void)Verify(HandMade(), "flash", {dump}), ToolError) << "no partition";
    EXPECT_THROW((void)Verify(HandMade(), "app", {dump, dump}), ToolError) << "two devices";
}

TEST(KvtoolLayout, SizesAreParsedStrictly) {
    EXPECT_EQ(kvtool::ParseSize("576K"), 589824U);
    EXPECT_EQ(kvtool::ParseSize("2M"), 2097152U);
    EXPECT_EQ(kvtool::ParseSize("7"), 7U);
    EXPECT_EQ(kvtool::ParseSize("0x1F"), 31U);
    EXPECT_EQ(kvtool::ParseSize("1g"), 1073741824U);
    for (const char* bad :
         {"", "K", "-1", "1T", "1KB", "0x", "99999999999", "0x123456789", "0x1g7", " 1"}) {
        EXPECT_THROW((void)kvtool::ParseSize(bad), ToolError) << bad;
    }
    Layout layout = Layout::Default();
    EXPECT_THROW(layout.SetSize("flash=1M"), ToolError);
    EXPECT_THROW(layout.SetSize("app"), ToolError);
}

TEST(KvtoolLayout, FilesAreReadAsPeopleWriteThem) {
    const kv_test::Folder folder;
    const std::string path = folder.Path("sizes");
    kv_test::WriteFile(path, "# camera\r\n\n  app = 6m   # larger\n\tvar=0x80000\n");
    Layout layout = Layout::Default();
    layout.ReadFile(path);
    EXPECT_EQ(layout.Select("app")[0].size, 6291456U);
    EXPECT_EQ(layout.Select("var")[0].size, 524288U);
    kv_test::WriteFile(path, "app=1M\n# fine\napp=much\n");
    try {
        layout.ReadFile(path);
        FAIL() << "a wrong size was accepted";
    } catch (const ToolError& error) {
        EXPECT_EQ(std::string(error.what()).rfind(path + ":3: ", 0), 0U) << error.what();
    }
}

TEST(KvtoolText, ForeignBytesCannotReachATerminal) {
    EXPECT_EQ(kvtool::Printable("a\x1B[2J\\\xFF"), "a\\x1B[2J\\x5C\\xFF");
    EXPECT_EQ(kvtool::Printable("gr\u00fcn \U0001F4F7"), "gr\u00fcn \U0001F4F7");
    EXPECT_EQ(kvtool::Printable("\u202E"), "\\xE2\\x80\\xAE") << "text direction";
    EXPECT_EQ(kvtool::Printable("\u009B"), "\\xC2\\x9B") << "8-bit control character";
    for (const char* wrong : {"\xC0\xAF", "\xED\xA0\x80", "\xE2\x82", "\xF4\x90\x80\x80"}) {
        EXPECT_EQ(kvtool::Printable(wrong).substr(0, 2), "\\x") << wrong;
    }
}

TEST(KvtoolProgress, FitsTheTerminalAndFollowsTheLink) {
    kvtool::RateMeter meter;
    uint64_t bytes = 0;
    for (int tick = 0; tick <= 200; ++tick) {
        // 100,000 bytes per second for ten seconds, then a tenth of that.
        bytes += tick <= 100 ? 10000 : 1000;
        meter.Add(tick * 0.1, bytes);
    }
    EXPECT_NEAR(meter.Rate(), 10000, 500);

    const uint64_t total = 12345678;
    kvtool::UploadProgress progress{total / 2, total, 30, 0, 25};
    EXPECT_EQ(kvtool::ProgressText(progress, 1048576, 80),
              "upload 50%, 6 s left, 1.0 MiB/s, of 11.8 MiB");
    progress.silent = 15;
    EXPECT_EQ(kvtool::ProgressText(progress, 0, 80),
              "upload 50%, stalled for 15 s, gives up at 25 s, of 11.8 MiB");
    for (size_t columns = 0; columns < 80; ++columns) {
        EXPECT_LE(kvtool::ProgressText(progress, 0, columns).size(), columns);
    }
}

}  // namespace

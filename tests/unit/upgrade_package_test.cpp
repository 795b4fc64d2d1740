#include "flash/kv_upgrade_package.h"

#include "tests/support/common.h"
#include "tests/support/wire.h"

namespace {

std::string Header(const std::string& ic, const std::string& sensor, uint32_t dataLen,
                   int fileNum) {
    return kv_test::BuildPackage({}, {ic, sensor, dataLen, fileNum});
}

FILE* FileOf(const std::string& bytes) {
    FILE* file = tmpfile();
    (void)fwrite(bytes.data(), 1, bytes.size(), file);
    rewind(file);
    return file;
}

}  // namespace

TEST(UpgradePackage, AcceptsThisDevicesPackagesOnly) {
    const struct {
        std::string bytes;
        bool accepted;
    } rows[] = {
        {Header("PRT7K", "38QX", 1, 1), true},      {Header("PRT7KX", "38QX", 1, 1), false},
        {Header("PRT7", "38QX", 1, 1), false},      {Header("PRT7KXYZ", "38QX", 1, 1), false},
        {Header("PRT7K", "38QX1234", 1, 1), false}, {Header("prt7k", "38QX", 1, 1), false},
        {Header("PRT7K", "38QX", 0, 1), false},     {Header("PRT7K", "38QX", 1, 0), false},
    };
    for (const auto& row : rows) {
        FILE* file = FileOf(row.bytes);
        UpgradeFileHeader header;
        ASSERT_EQ(KV_PACKAGE_ReadHeader(file, &header), 24U);
        EXPECT_EQ(KV_PACKAGE_HeaderAccepted(&header), row.accepted) << row.bytes;
        (void)fclose(file);
    }
}

TEST(UpgradePackage, ShortHeaderReturnsItsLength) {
    FILE* file = FileOf(Header("PRT7K", "38QX", 1, 1).substr(0, 23));
    UpgradeFileHeader header;
    EXPECT_EQ(KV_PACKAGE_ReadHeader(file, &header), 23U);
    (void)fclose(file);
}

TEST(UpgradePackage, EntryFieldsAndMissingBytes) {
    std::string entry(256, '\xEE');
    memcpy(&entry[0], "rootfs.img", 11);
    memcpy(&entry[128], "\x01\x02\x03\x84\x05\x06\x07\x08", 8);
    memcpy(&entry[140], "\x45\x23\x01\x00", 4);
    const std::string noName = std::string(128, 'n') + entry.substr(128, 6);
    FILE* file = FileOf(Header("PRT7K", "38QX", 1, 2) + entry + noName);
    UpgradeFileEntry read;
    KV_PACKAGE_ReadEntry(file, 0, &read);
    EXPECT_STREQ(read.fileName, "rootfs.img");
    EXPECT_EQ(read.dataLen, 0x84030201U);
    EXPECT_EQ(read.dataOffset, 0x08070605U);
    EXPECT_EQ(read.checkCode, kv::kEntryCheckCode);
    // Truncated in the middle of the offset: missing bytes read as zero, and a name without a NUL
    // is terminated.
    KV_PACKAGE_ReadEntry(file, 1, &read);
    EXPECT_EQ(std::string(read.fileName), std::string(128, 'n'));
    EXPECT_EQ(read.dataOffset, 0x0605U);
    EXPECT_EQ(read.checkCode, 0U);
    (void)fclose(file);
}

TEST(UpgradePackage, PartitionNameIsAPrefix) {
    EXPECT_TRUE(KV_PACKAGE_NameSelects("kernel2", "kernel"));
    EXPECT_TRUE(KV_PACKAGE_NameSelects("app", "app"));
    EXPECT_FALSE(KV_PACKAGE_NameSelects("kern", "kernel"));
    EXPECT_FALSE(KV_PACKAGE_NameSelects("Kernel", "kernel"));
}

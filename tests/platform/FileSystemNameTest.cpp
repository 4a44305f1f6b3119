#include "platform/FileSystemName.h"

#include <gtest/gtest.h>

#include <array>
#include <sstream>
#include <string>

namespace vorrel {
namespace {

struct NameCase {
    const char* typeName;
    std::uint32_t subtype;
    std::size_t minimumSize;
    const char* written;
};

// The whole table of names.
constexpr NameCase kNames[] = {
    {"msdos", 0, 4, "FAT"},
    {"msdos", 1, 4, "FAT"},
    {"msdos", 2, 6, "FAT32"},
    {"msdos", 4'294'967'295, 6, "FAT32"},
    {"msdosfs", 1, 4, "FAT"},  // begins with the five bytes
    {"msdosfs", 3, 6, "FAT32"},
    {"hfs", 0, 9, "hfs plus"},
    {"hfs", 1, 14, "hfs journaled"},
    {"hfs", 2, 19, "hfs case-sensitive"},
    {"hfs", 3, 30, "hfs case-sensitive, journaled"},
    {"hfs", 4, 16, "hfs"},
    {"hfs", 128, 16, "hfs"},
    {"hfsplus", 0, 16, "hfsplus"},  // not exactly "hfs"
    {"msdo", 0, 16, "msdo"},
    {"MSDOS", 0, 16, "MSDOS"},
    {"ufs", 0, 16, "ufs"},
    {"ext4", 7, 16, "ext4"},
    {"", 0, 16, ""},
    {"fifteen letters", 0, 16, "fifteen letters"},
    {"sixteen letters!", 0, 16, "sixteen letters"},
};

class FileSystemNameTest : public testing::TestWithParam<NameCase> {
protected:
    std::array<char, 40> buffer = [] {
        std::array<char, 40> filled{};
        filled.fill('#');
        return filled;
    }();
};

TEST_P(FileSystemNameTest, IsWrittenFromItsMinimumSizeOn) {
    WriteFileSystemName(GetParam().typeName, GetParam().subtype, buffer.data(),
                        GetParam().minimumSize);

    EXPECT_STREQ(buffer.data(), GetParam().written);
    EXPECT_EQ(buffer[GetParam().minimumSize], '#') << "wrote past the size it was given";
}

TEST_P(FileSystemNameTest, LeavesABufferThatIsOneByteSmaller) {
    WriteFileSystemName(GetParam().typeName, GetParam().subtype, buffer.data(),
                        GetParam().minimumSize - 1);

    EXPECT_EQ(std::string(buffer.data(), buffer.size()), std::string(40, '#'));
}

TEST_P(FileSystemNameTest, TakesNoBuffer) {
    WriteFileSystemName(GetParam().typeName, GetParam().subtype, nullptr, 100);
}

INSTANTIATE_TEST_SUITE_P(Table, FileSystemNameTest, testing::ValuesIn(kNames));

TEST(FileSystemNameTableTest, Fat32IntoFiveBytesWritesNothing) {
    std::array<char, 5> buffer = {'#', '#', '#', '#', '#'};

    WriteFileSystemName("msdos", 2, buffer.data(), buffer.size());

    EXPECT_EQ(std::string(buffer.data(), buffer.size()), "#####");
}

TEST(FileSystemNameTableTest, OtherNamesFillSixteenBytes) {
    std::array<char, 17> buffer{};
    buffer.fill('#');

    WriteFileSystemName("ufs", 0, buffer.data(), buffer.size());

    EXPECT_EQ(std::string(buffer.data(), buffer.size()),
              std::string("ufs\0\0\0\0\0\0\0\0\0\0\0\0\0#", 17));
}

/// The name that a volume with this identification is reported by.
std::string Reported(std::uint64_t magic, std::uint64_t blocks, const std::string& kernelName) {
    const FileSystemType type = IdentifyFileSystem(magic, blocks, kernelName);
    std::array<char, 32> buffer{};
    WriteFileSystemName(type.name, type.subtype, buffer.data(), buffer.size());
    return buffer.data();
}

TEST(FileSystemIdentificationTest, ClustersTellFatFromFat32) {
    EXPECT_EQ(Reported(0x4d44, 4'084, "vfat"), "FAT");
    EXPECT_EQ(Reported(0x4d44, 4'085, "vfat"), "FAT");
    EXPECT_EQ(Reported(0x4d44, 65'524, "vfat"), "FAT");
    EXPECT_EQ(Reported(0x4d44, 65'525, "vfat"), "FAT32");
    EXPECT_EQ(Reported(0x4d44, 65'525, "msdos"), "FAT32");
}

TEST(FileSystemIdentificationTest, HfsAndHfsPlusGetTheirNames) {
    EXPECT_EQ(Reported(0x4244, 1'000'000, "hfs"), "hfs");
    EXPECT_EQ(Reported(0x482b, 1'000'000, "hfsplus"), "hfs plus");
}

TEST(FileSystemIdentificationTest, AllElseKeepsTheKernelsName) {
    EXPECT_EQ(Reported(0xef53, 10, "ext4"), "ext4");
    EXPECT_EQ(Reported(0x2011bab0, 100'000, "exfat"), "exfat");
    EXPECT_EQ(Reported(0x00011954, 100'000, "ufs"), "ufs");
    EXPECT_EQ(Reported(0x65735546, 100'000, "fuseblk"), "fuseblk");
}

constexpr const char* kMountTable =
    "22 27 0:21 / /proc rw,relatime - proc proc rw\n"
    "27 1 254:0 / / rw,relatime shared:1 master:2 - ext4 /dev/vda rw,discard\n"
    "30 27 8:1 / /media rw - xfs /dev/sda1 rw\n"
    "31 30 8:17 / /media/My\\040Card rw - vfat /dev/sdb1 rw\n"
    "32 27 0:40 / /tmp rw - tmpfs first rw\n"
    "33 32 0:41 / /tmp rw - ramfs second rw\n"
    "a line that is none\n";

std::string Found(std::uint64_t mountId, const std::string& path) {
    std::istringstream table(kMountTable);
    return FindMountedType(table, mountId, path);
}

TEST(MountTableTest, TheMountIdDecides) {
    EXPECT_EQ(Found(22, "/"), "proc");
    EXPECT_EQ(Found(27, "/proc"), "ext4");
    EXPECT_EQ(Found(32, "/tmp/x"), "tmpfs");
}

TEST(MountTableTest, WithoutAnIdTheLongestMountPointDecides) {
    EXPECT_EQ(Found(0, "/"), "ext4");
    EXPECT_EQ(Found(0, "/var/lib"), "ext4");
    EXPECT_EQ(Found(0, "/media/x"), "xfs");
    EXPECT_EQ(Found(0, "/proc"), "proc");
    EXPECT_EQ(Found(999, "/proc/1"), "proc");
}

TEST(MountTableTest, AMountPointEndsAtASlash) {
    EXPECT_EQ(Found(0, "/mediathek"), "ext4");
}

TEST(MountTableTest, EscapedBytesOfAMountPointAreRead) {
    EXPECT_EQ(Found(0, "/media/My Card/take.wav"), "vfat");
}

TEST(MountTableTest, OfEqualMountPointsTheLastCovers) {
    EXPECT_EQ(Found(0, "/tmp"), "ramfs");
}

TEST(MountTableTest, AnEmptyTableNamesNothing) {
    std::istringstream table;

    EXPECT_EQ(FindMountedType(table, 1, "/"), "");
}

TEST(FileSystemTypeTest, AMissingPathHasNoType) {
    FileSystemType type{"kept", 5};

    EXPECT_FALSE(FileSystemTypeOf("/missing/directory", type));
    EXPECT_EQ(type.name, "kept");
    EXPECT_EQ(type.subtype, 5U);
}

}  // namespace
}  // namespace vorrel

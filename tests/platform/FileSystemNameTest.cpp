#include "platform/FileSystemName.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

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

/// The name that a volume with this identification is reported by, as far as that says it.
std::string Reported(std::uint64_t magic, std::uint64_t blocks) {
    const std::optional<FileSystemType> type = IdentifyFileSystem(magic, blocks);
    if (!type) {
        return "the mount table's";
    }
    std::array<char, 32> buffer{};
    WriteFileSystemName(type->name.Text(), type->subtype, buffer.data(), buffer.size());
    return buffer.data();
}

TEST(FileSystemIdentificationTest, ClustersTellFatFromFat32) {
    EXPECT_EQ(Reported(0x4d44, 4'084), "FAT");
    EXPECT_EQ(Reported(0x4d44, 4'085), "FAT");
    EXPECT_EQ(Reported(0x4d44, 65'524), "FAT");
    EXPECT_EQ(Reported(0x4d44, 65'525), "FAT32");
}

TEST(FileSystemIdentificationTest, HfsAndHfsPlusGetTheirNames) {
    EXPECT_EQ(Reported(0x4244, 1'000'000), "hfs");
    EXPECT_EQ(Reported(0x482b, 1'000'000), "hfs plus");
}

TEST(FileSystemIdentificationTest, AllElseIsLeftToTheMountTable) {
    for (const std::uint64_t magic : {0xef53U, 0x2011bab0U, 0x00011954U, 0x65735546U}) {
        EXPECT_EQ(Reported(magic, 100'000), "the mount table's") << magic;
    }
}

constexpr const char* kMountTable =
    "22 27 0:21 / /proc rw,relatime - proc proc rw\n"
    "27 1 254:0 / / rw,relatime shared:1 master:2 - ext4 /dev/vda rw,discard\n"
    "30 27 8:1 / /media rw - xfs /dev/sda1 rw\n"
    "31 30 8:17 / /media/My\\040Card rw - vfat /dev/sdb1 rw\n"
    "32 27 0:40 / /tmp rw - tmpfs first rw\n"
    "33 32 0:41 / /tmp rw - ramfs second rw\n"
    "a line that is none\n";

/// A table as a descriptor, which gives no more than `pieceBytes` at a time.
class Table {
public:
    explicit Table(const std::string& text, std::size_t pieceBytes = 4'096) {
        std::array<int, 2> ends{};
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data()) != 0) {
            throw std::runtime_error("no socket");
        }
        descriptor = ends[0];
        writer = std::thread([text, pieceBytes, out = ends[1]] {
            for (std::size_t at = 0; at < text.size(); at += pieceBytes) {
                const std::size_t bytes = std::min(pieceBytes, text.size() - at);
                if (::send(out, text.data() + at, bytes, MSG_NOSIGNAL) < 0) {
                    break;  // found before the end
                }
            }
            ::close(out);
        });
    }
    ~Table() {
        ::close(descriptor);
        writer.join();
    }
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    std::string Find(std::uint64_t mountId, const std::string& path) const {
        return std::string(FindMountedType(descriptor, mountId, path).Text());
    }

private:
    int descriptor = -1;
    std::thread writer;
};

std::string Found(std::uint64_t mountId, const std::string& path) {
    return Table(kMountTable).Find(mountId, path);
}

TEST(MountTableTest, TheMountIdDecides) {
    EXPECT_EQ(Found(22, "/"), "proc");
    EXPECT_EQ(Found(27, "/proc"), "ext4");
    EXPECT_EQ(Found(32, "/tmp/x"), "tmpfs");
    EXPECT_EQ(Found(32, ""), "tmpfs");
}

TEST(MountTableTest, WithoutAnIdTheLongestMountPointDecides) {
    EXPECT_EQ(Found(0, "/"), "ext4");
    EXPECT_EQ(Found(0, "/var/lib"), "ext4");
    EXPECT_EQ(Found(0, "/media/x"), "xfs");
    EXPECT_EQ(Found(0, "/proc"), "proc");
    EXPECT_EQ(Found(999, "/proc/1"), "proc");
}

TEST(MountTableTest, WithoutIdAndPathNothingFits) {
    EXPECT_EQ(Found(0, ""), "");
    EXPECT_EQ(Found(999, ""), "");
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

TEST(MountTableTest, ATableThatComesInPiecesIsReadTheSame) {
    for (const std::size_t pieceBytes : {1U, 2U, 3U, 50U}) {
        EXPECT_EQ(Table(kMountTable, pieceBytes).Find(0, "/tmp"), "ramfs") << pieceBytes;
        EXPECT_EQ(Table(kMountTable, pieceBytes).Find(31, ""), "vfat") << pieceBytes;
    }
}

TEST(MountTableTest, ALastLineWithoutAnEndCounts) {
    EXPECT_EQ(Table("27 1 254:0 / / rw - ext4").Find(27, ""), "ext4");
}

TEST(MountTableTest, OfALineThatIsTooLongTheEndIsLeftOut) {
    const std::string layers = "lowerdir=" + std::string(100'000, 'x') + " 27 1 0:1 / / rw - no";
    const std::string table = "26 1 0:30 / / rw - overlay overlay " + layers + "\n" + kMountTable;

    EXPECT_EQ(Table(table).Find(26, ""), "overlay");
    EXPECT_EQ(Table(table).Find(27, ""), "ext4");
    EXPECT_EQ(Table(table).Find(0, "/media/x"), "xfs");
}

TEST(MountTableTest, ATypeIsCutOffBehindFifteenBytes) {
    EXPECT_EQ(Table("27 1 254:0 / / rw - fuse.something-of-that-kind x rw\n").Find(27, ""),
              "fuse.something-");
}

TEST(MountTableTest, AnEmptyTableNamesNothing) {
    EXPECT_EQ(Table("").Find(1, "/"), "");
}

TEST(MountTableTest, ATableThatCannotBeReadNamesNothing) {
    EXPECT_EQ(FindMountedType(-1, 27, "/").Text(), "");
}

TEST(FileSystemTypeTest, AMissingPathHasNoType) {
    FileSystemType type{FileSystemTypeName("kept"), 5};

    EXPECT_FALSE(FileSystemTypeOf("/missing/directory", type));
    EXPECT_EQ(type.name.Text(), "kept");
    EXPECT_EQ(type.subtype, 5U);
}

TEST(FileSystemTypeTest, WithoutAMountTableTheNameIsEmpty) {
    FileSystemType type{FileSystemTypeName("kept"), 5};
    ASSERT_TRUE(FileSystemTypeOf("/proc", type));
    EXPECT_EQ(type.name.Text(), "proc");
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);

    const bool isKnown = FileSystemTypeOf("/proc", type);

    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_TRUE(isKnown);
    EXPECT_EQ(type.name.Text(), "");
}

}  // namespace
}  // namespace vorrel

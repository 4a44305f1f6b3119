#include "platform/SystemHelpers.h"

#include <gtest/gtest.h>
#include <mntent.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "support/TempDirectory.h"

namespace vorrel {
namespace {

namespace fs = std::filesystem;
using test::TempDirectory;

std::string VolumeName(const char* path) {
    std::array<char, 64> name{};
    EXPECT_EQ(
        GetVolumeInformation(path, nullptr, 0, nullptr, nullptr, nullptr, name.data(), name.size()),
        1);
    return name.data();
}

// Free space

struct Space {
    _ULARGE_INTEGER caller = 1;
    _ULARGE_INTEGER total = 2;
    _ULARGE_INTEGER free = 3;
    friend bool operator==(const Space&, const Space&) = default;
};

TEST(VolumeHelpersTest, GetDiskFreeSpaceExReportsBlocksTimesFragmentSize) {
    const TempDirectory directory;
    Space expected;
    Space reported;

    // Others write to this volume too: asked again until nothing moved between the two questions.
    for (int attempt = 0; attempt < 1000 && (attempt == 0 || !(expected == reported)); ++attempt) {
        struct statvfs volume {};
        ASSERT_EQ(::statvfs(directory.Path().c_str(), &volume), 0);
        expected = {volume.f_bavail * volume.f_frsize, volume.f_blocks * volume.f_frsize,
                    volume.f_bfree * volume.f_frsize};
        ASSERT_EQ(GetDiskFreeSpaceEx(directory.Path().c_str(), &reported.caller, &reported.total,
                                     &reported.free),
                  1);
    }

    EXPECT_EQ(reported, expected);
    EXPECT_GT(reported.total, 0U);
}

TEST(VolumeHelpersTest, GetDiskFreeSpaceExTakesNullOutputs) {
    _ULARGE_INTEGER total = 0;

    EXPECT_EQ(GetDiskFreeSpaceEx("/", nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(GetDiskFreeSpaceEx("/", nullptr, &total, nullptr), 1);
    EXPECT_GT(total, 0U);
}

TEST(VolumeHelpersTest, GetDiskFreeSpaceExIsFalseAndWritesNothingForNullMissingAndEmptyPaths) {
    const TempDirectory directory;
    Space space;

    for (const char* path : {static_cast<const char*>(nullptr), "", "/missing/directory"}) {
        EXPECT_EQ(GetDiskFreeSpaceEx(path, &space.caller, &space.total, &space.free), 0);
    }
    EXPECT_EQ(space, Space());
}

TEST(VolumeHelpersTest, GetDiskFreeSpaceFillsOnlyTheTotal) {
    struct statvfs volume {};
    ASSERT_EQ(::statvfs("/", &volume), 0);
    std::uint64_t sectors = 11;
    std::uint64_t bytes = 12;
    std::uint64_t freeClusters = 13;
    std::uint64_t total = 14;

    EXPECT_EQ(GetDiskFreeSpace("/", &sectors, &bytes, &freeClusters, &total), 1);

    EXPECT_EQ(total, std::min<std::uint64_t>(volume.f_blocks, 4'294'967'295U));
    EXPECT_EQ(sectors, 11U);
    EXPECT_EQ(bytes, 12U);
    EXPECT_EQ(freeClusters, 13U);
}

TEST(VolumeHelpersTest, GetDiskFreeSpaceTakesANullTotal) {
    EXPECT_EQ(GetDiskFreeSpace("/", nullptr, nullptr, nullptr, nullptr), 1);
}

TEST(VolumeHelpersTest, GetDiskFreeSpaceIsFalseForNullAndMissingPaths) {
    std::uint64_t total = 14;

    EXPECT_EQ(GetDiskFreeSpace(nullptr, nullptr, nullptr, nullptr, &total), 0);
    EXPECT_EQ(GetDiskFreeSpace("/missing/directory", nullptr, nullptr, nullptr, &total), 0);
    EXPECT_EQ(total, 14U);
}

// GetVolumeInformation

TEST(VolumeHelpersTest, VolumeInformationNamesTheTmpfs) {
    constexpr long kTmpfsMagic = 0x01021994;
    struct statfs volume {};
    if (::statfs("/dev/shm", &volume) != 0 || volume.f_type != kTmpfsMagic) {
        GTEST_SKIP() << "no tmpfs at /dev/shm";
    }

    EXPECT_EQ(VolumeName("/dev/shm"), "tmpfs");
}

TEST(VolumeHelpersTest, VolumeInformationNamesTheRootAsTheMountTableDoes) {
    std::string expected;
    std::FILE* const table = ::setmntent("/proc/self/mounts", "r");
    ASSERT_NE(table, nullptr);
    while (const mntent* entry = ::getmntent(table)) {
        if (std::string(entry->mnt_dir) == "/") {
            expected = entry->mnt_type;  // of several, the last covers the others
        }
    }
    ::endmntent(table);
    ASSERT_FALSE(expected.empty());

    EXPECT_EQ(VolumeName("/"), expected.substr(0, 15));
}

TEST(VolumeHelpersTest, VolumeInformationNamesTheVolumeUnderAPathAndALink) {
    const TempDirectory directory;
    fs::create_directory_symlink("/proc", directory.File("link"));

    EXPECT_EQ(VolumeName("/proc/self"), "proc");
    EXPECT_EQ(VolumeName(directory.File("link").c_str()), "proc");
}

TEST(VolumeHelpersTest, VolumeInformationIsFalseForNullAndMissingPaths) {
    std::array<char, 16> name = {'#'};

    for (const char* path : {static_cast<const char*>(nullptr), "", "/missing/directory"}) {
        EXPECT_EQ(GetVolumeInformation(path, nullptr, 0, nullptr, nullptr, nullptr, name.data(),
                                       name.size()),
                  0);
    }
    EXPECT_EQ(name[0], '#');
}

TEST(VolumeHelpersTest, VolumeInformationIsTrueWithATooSmallBufferAndLeavesIt) {
    std::array<char, 16> name{};
    name.fill('#');

    for (const std::size_t size : {std::size_t{0}, std::size_t{3}}) {
        EXPECT_EQ(
            GetVolumeInformation("/", nullptr, 0, nullptr, nullptr, nullptr, name.data(), size), 1);
    }
    EXPECT_EQ(std::string(name.data(), name.size()), "################");
}

TEST(VolumeHelpersTest, VolumeInformationIsTrueWithoutABuffer) {
    EXPECT_EQ(GetVolumeInformation("/", nullptr, 0, nullptr, nullptr, nullptr, nullptr, 100), 1);
}

TEST(VolumeHelpersTest, VolumeInformationNeverWritesTheOtherOutputs) {
    std::array<char, 32> volume = {'#'};
    std::uint32_t serial = 1;
    std::uint32_t component = 2;
    std::uint32_t flags = 3;
    std::array<char, 32> name{};

    EXPECT_EQ(GetVolumeInformation("/", volume.data(), volume.size(), &serial, &component, &flags,
                                   name.data(), name.size()),
              1);

    EXPECT_EQ(volume[0], '#');
    EXPECT_EQ(serial, 1U);
    EXPECT_EQ(component, 2U);
    EXPECT_EQ(flags, 3U);
}

}  // namespace
}  // namespace vorrel

// Which volume a path leads to, and which of them have their room in common.
#include "Mounts.h"

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <string>

#include "Volumes.h"
#include "support/SmallVolume.h"
#include "support/Subvolumes.h"
#include "support/TempDirectory.h"

namespace vorrel::cli {
namespace {

using test::TempDirectory;

TEST(PlaceTest, ADirectoryIsTheSamePlaceByItsNumberOrItsMount) {
    const Place place = {7, 100, 30};

    EXPECT_TRUE(IsSamePlace(place, {7, 100, 30}));
    EXPECT_TRUE(IsSamePlace(place, {7, 101, 30}));  // FAT has given out a new number
    EXPECT_TRUE(IsSamePlace(place, {7, 100, 31}));  // mounted anew
    EXPECT_FALSE(IsSamePlace(place, {7, 101, 31}));
    EXPECT_FALSE(IsSamePlace(place, {8, 100, 30}));
}

TEST(PlaceTest, WhatIsBelowAVolumeIsAnotherPlace) {
    const TempDirectory directory;
    const std::optional<Place> below = PlaceOf(directory.Path());
    ASSERT_TRUE(below);
    EXPECT_TRUE(IsSamePlace(*below, PlaceOf(directory.Path() + "/.").value_or(Place{})));
    EXPECT_FALSE(PlaceOf(directory.File("none")));
    if (::mount("none", directory.Path().c_str(), "tmpfs", 0, "size=1m") != 0) {
        GTEST_SKIP() << "needs the right to mount";
    }

    const std::optional<Place> above = PlaceOf(directory.Path());

    EXPECT_EQ(::umount2(directory.Path().c_str(), MNT_DETACH), 0);
    ASSERT_TRUE(above);
    EXPECT_FALSE(IsSamePlace(*below, *above));
}

constexpr const char* kMounts =
    "22 27 0:21 / /proc rw,relatime - proc proc rw\n"
    "27 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw\n"
    "36 27 0:32 /@home /home rw,noatime shared:5 master:2 - btrfs /dev/sda1 rw,subvol=/@home\n"
    "37 27 0:33 /@data /srv/with\\040space rw - btrfs /dev/sda1 rw,subvol=/@data\n"
    "38 27 0:34 / /mnt/other rw - btrfs /dev/sdb1 rw\n"
    "40 27 0:40 / /tank/a rw - zfs tank/a rw\n"
    "41 27 0:41 / /tank/a/b rw - zfs tank/a/b rw\n"
    "42 27 0:42 / /tank2 rw - zfs tank2 rw\n"
    "50 27 0:50 / /tmp rw - tmpfs tmpfs rw\n"
    "51 27 0:51 / /run rw - tmpfs tmpfs rw\n"
    "52 27 0:52 / /ram/a rw - tmpfs /ram rw\n"
    "60 27 0:60 / /far/a rw - fuse.far /dev/fuse rw\n"
    "61 27 0:61 / /far/b rw - nfs4 host:/b rw\n"
    "70 27 0:70 / /broken rw\n"
    "71 27 0:71 / /broken rw -\n";

std::string Pool(std::uint64_t mount) {
    return MountTable(kMounts).PoolOf({1, 2, mount});
}

TEST(MountTableTest, SubvolumesOfOneDeviceAndDataSetsOfOnePoolHaveTheirRoomInCommon) {
    EXPECT_EQ(Pool(36), "btrfs /dev/sda1");
    EXPECT_EQ(Pool(37), Pool(36));
    EXPECT_EQ(Pool(38), "btrfs /dev/sdb1");
    EXPECT_EQ(Pool(40), "zfs tank");
    EXPECT_EQ(Pool(41), Pool(40));
    EXPECT_EQ(Pool(42), "zfs tank2");
    EXPECT_EQ(Pool(27), "ext4 /dev/vda");
}

TEST(MountTableTest, WhatASourceDoesNotTellStandsForItself) {
    for (const std::uint64_t mount : {0U, 22U, 50U, 51U, 52U, 60U, 61U, 70U, 71U, 3U, 99U}) {
        EXPECT_EQ(Pool(mount), "") << mount;
    }
    EXPECT_EQ(MountTable("").PoolOf({1, 2, 36}), "");
}

TEST(MountTableTest, TheKernelTellsOfTheMountOfAPlace) {
    const test::SmallVolume volume(1 << 20);
    if (!volume.Mounted()) {
        GTEST_SKIP() << "needs the right to mount";
    }
    const std::optional<Place> place = PlaceOf(volume.Path());
    ASSERT_TRUE(place);

    // Its source is "none".
    EXPECT_NE(place->mount, 0U);
    EXPECT_EQ(MountTable().PoolOf(*place), "");
}

TEST(MountTableTest, SubvolumesAreVolumesOfOnePoolAndOnePlaceToRescueTo) {
    const test::Subvolumes volumes;
    if (!volumes.Made()) {
        GTEST_SKIP() << "needs the right to mount, and btrfs";
    }
    const Place a = PlaceOf(volumes.A()).value_or(Place{});
    const Place b = PlaceOf(volumes.B()).value_or(Place{});
    ASSERT_NE(a.device, b.device);
    const MountTable mounts;

    EXPECT_EQ(mounts.PoolOf(a).rfind("btrfs /dev/", 0), 0U) << mounts.PoolOf(a);
    EXPECT_EQ(mounts.PoolOf(a), mounts.PoolOf(b));
    EXPECT_EQ(FindRescuePlaces({volumes.A(), volumes.B()}, 1).size(), 1U);
}

}  // namespace
}  // namespace vorrel::cli

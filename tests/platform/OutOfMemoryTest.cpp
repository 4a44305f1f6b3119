#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/SystemHelpers.h"
#include "support/AllocationLimit.h"
#include "support/TempDirectory.h"
#include "vorrel/MainQueue.h"

namespace vorrel {
namespace {

namespace fs = std::filesystem;
using test::AllocationLimit;
using test::TempDirectory;

/// What a thread can do that gets no memory at all.
template <class Call>
auto WithoutMemory(const Call& call) {
    const AllocationLimit limit(1);
    return call();
}

// Before every other test of this program: the queue is made at its first use.
TEST(MainQueueMemoryTest, TheFirstUseOfTheQueueNeedsNone) {
    EXPECT_GE(WithoutMemory([] { return MainQueue::Descriptor(); }), 0);
    EXPECT_EQ(WithoutMemory([] { return MainQueue::Dispatch(); }), 0U);
}

TEST(SystemHelpersMemoryTest, AFileIsDeletedWithoutMemory) {
    const TempDirectory directory;
    const std::string path = directory.File(std::string(100, 'x'));
    std::ofstream(path) << "x";

    EXPECT_EQ(WithoutMemory([&] { return DeleteFile(path.c_str()); }), 1);

    EXPECT_FALSE(fs::exists(path));
}

TEST(SystemHelpersMemoryTest, ADirectoryIsRemovedWithoutMemory) {
    const TempDirectory directory;
    const std::string path = directory.File(std::string(100, 'x'));
    fs::create_directories(path + "/e/f");
    std::ofstream(path + "/e/a") << "x";

    EXPECT_EQ(WithoutMemory([&] { return RemoveDirectory(path.c_str()); }), 1);

    EXPECT_FALSE(fs::exists(path));
}

TEST(SystemHelpersMemoryTest, AVolumeIsNamedWithoutMemory) {
    std::array<char, 16> name{};

    EXPECT_EQ(WithoutMemory([&] {
                  return GetVolumeInformation("/proc/self/", nullptr, 0, nullptr, nullptr, nullptr,
                                              name.data(), name.size());
              }),
              1);

    EXPECT_STREQ(name.data(), "proc");
}

}  // namespace
}  // namespace vorrel

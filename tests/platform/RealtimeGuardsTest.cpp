#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <new>
#include <thread>

#include "platform/AlignedBytes.h"
#include "platform/Realtime.h"
#include "platform/SystemHelpers.h"
#include "platform/Trace.h"
#include "support/AllocationGuard.h"
#include "support/FileCallGuard.h"
#include "support/TempDirectory.h"

namespace vorrel {
namespace {

using test::AllocationGuard;
using test::FileCallGuard;
using test::TempDirectory;

TEST(RealtimeScopeTest, IsActiveOnItsThreadUntilTheOutermostEnds) {
    EXPECT_FALSE(RealtimeScope::Active());
    {
        const RealtimeScope outer;
        { const RealtimeScope inner; }
        bool onAnotherThread = true;
        std::thread([&] { onAnotherThread = RealtimeScope::Active(); }).join();

        EXPECT_TRUE(RealtimeScope::Active());
        EXPECT_FALSE(onAnotherThread);
    }
    EXPECT_FALSE(RealtimeScope::Active());
}

constexpr std::align_val_t kAlignment{64};

// The functions themselves: a compiler may leave out a `new` whose object nobody sees.
void AllocateAndFree() {
    ::operator delete(::operator new(1));
}

TEST(AllocationGuardTest, CountsAllocationsAndFreesInsideAScopeOnly) {
    const AllocationGuard guard;
    AllocateAndFree();
    {
        const RealtimeScope scope;
        AllocateAndFree();
        ::operator delete[](::operator new[](50));
        ::operator delete(::operator new(64, kAlignment), kAlignment);
    }
    AllocateAndFree();

    EXPECT_EQ(guard.Count(), 3U);
    EXPECT_EQ(guard.Frees(), 3U);
}

TEST(AllocationGuardTest, CountsFromItsBeginning) {
    {
        const RealtimeScope scope;
        AllocateAndFree();
    }
    const AllocationGuard guard;

    EXPECT_EQ(guard.Count(), 0U);
}

TEST(AllocationGuardTest, CountsOfEveryThread) {
    const AllocationGuard guard;

    std::thread([] {
        const RealtimeScope scope;
        AllocateAndFree();
    }).join();

    EXPECT_EQ(guard.Count(), 1U);
}

TEST(AllocationGuardDeathTest, StopsTheProgramWhereAsked) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            const AllocationGuard guard(AllocationGuard::OnViolation::Abort);
            const RealtimeScope scope;
            AllocateAndFree();
        },
        "");
}

TEST(AllocationGuardTest, AlignedBlocksAreAligned) {
    for (const std::size_t size :
         {std::size_t{1}, std::size_t{63}, std::size_t{64}, std::size_t{65}}) {
        Block block(size);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block.data()) % kBufferAlignment, 0U);
    }
}

TEST(FileCallGuardTest, CountsFileCallsOfTheLibraryInsideAScopeOnly) {
    const TempDirectory directory;
    const FileCallGuard guard;
    std::FILE* file = nullptr;

    ASSERT_EQ(_tfopen_s(&file, directory.File("a").c_str(), "wb"), 0);
    EXPECT_EQ(guard.Count(), 0U);
    {
        const RealtimeScope scope;
        std::fwrite("x", 1, 1, file);
    }
    EXPECT_EQ(guard.Count(), 1U);
    EXPECT_EQ(FileCallGuard::Last(), "fwrite");
    {
        const RealtimeScope scope;
        Trace("f", 1, "a log line is a file call, too");
    }
    EXPECT_EQ(guard.Count(), 2U);
    EXPECT_EQ(FileCallGuard::Last(), "write");
    std::fclose(file);
    EXPECT_EQ(guard.Count(), 2U);
}

TEST(FileCallGuardTest, OpensWithAndWithoutAMode) {
    const TempDirectory directory;
    const FileCallGuard guard;
    const RealtimeScope scope;

    const int made = ::open(directory.File("a").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    const int opened = ::open(directory.File("a").c_str(), O_RDONLY | O_CLOEXEC);

    EXPECT_GE(made, 0);
    EXPECT_GE(opened, 0);
    EXPECT_EQ(guard.Count(), 2U);
    ::close(made);
    ::close(opened);
    EXPECT_EQ(FileCallGuard::Last(), "close");
}

}  // namespace
}  // namespace vorrel

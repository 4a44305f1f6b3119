#include "writer/OutputFile.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <span>
#include <string>

#include "support/FileBytes.h"
#include "support/FileSizeLimit.h"
#include "support/TempDirectory.h"

namespace vorrel {
namespace {

using test::Bytes;
using test::FileSizeLimit;
using test::ReadBytes;
using test::TempDirectory;

constexpr std::size_t kMiB = 1 << 20;

class OutputFileTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(file.Open(path)); }

    /// Bytes that tell where they belong.
    static Bytes Numbered(std::size_t first, std::size_t count) {
        Bytes bytes(count);
        std::generate(bytes.begin(), bytes.end(), [position = first]() mutable {
            const std::size_t value = position++;
            return static_cast<std::uint8_t>(value ^ (value >> 8) ^ (value >> 16));
        });
        return bytes;
    }
    std::size_t OnDisk() const { return ReadBytes(path).size(); }

    const TempDirectory directory;
    const std::string path = directory.File("out");
    OutputFile file;
};

TEST_F(OutputFileTest, AFileThatCannotBeOpenedKeepsWhatWasThere) {
    const std::string program = directory.File("program");
    // A program that runs cannot be opened for writing, not even by the superuser.
    std::filesystem::copy_file("/bin/sleep", program);
    const Bytes before = ReadBytes(program);
    std::string seconds = "600";
    std::array<char*, 3> arguments = {const_cast<char*>(program.c_str()), seconds.data(), nullptr};
    pid_t child = 0;
    ASSERT_EQ(::posix_spawn(&child, program.c_str(), nullptr, nullptr, arguments.data(), environ),
              0);
    OutputFile refused;

    EXPECT_FALSE(refused.Open(program));

    EXPECT_EQ(ReadBytes(program), before);
    ASSERT_GT(child, 0);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
}

TEST_F(OutputFileTest, KeptBytesReachTheFileAMebibyteAtATime) {
    const Bytes all = Numbered(0, 3 * kMiB);
    const std::span<const std::uint8_t> bytes(all);

    ASSERT_TRUE(file.WriteKept(bytes.first(kMiB - 1)));
    EXPECT_EQ(file.KeptBytes(), kMiB - 1);
    EXPECT_EQ(OnDisk(), 0U);

    ASSERT_TRUE(file.WriteKept(bytes.subspan(kMiB - 1, 2)));
    EXPECT_EQ(file.KeptBytes(), 1U);
    EXPECT_EQ(OnDisk(), kMiB);

    ASSERT_TRUE(file.WriteKept(bytes.subspan(kMiB + 1)));
    EXPECT_EQ(file.KeptBytes(), 0U);
    EXPECT_EQ(OnDisk(), 3 * kMiB);
    ASSERT_TRUE(file.Close());
    EXPECT_EQ(ReadBytes(path), all);
}

TEST_F(OutputFileTest, CopiedAndKeptBytesAndTheStreamsFollowEachOther) {
    const Bytes all = Numbered(0, 2 * kMiB + 700);
    const std::span<const std::uint8_t> bytes(all);

    ASSERT_TRUE(file.Write(bytes.first(92)));
    ASSERT_TRUE(file.WriteKept(bytes.subspan(92, kMiB)));
    EXPECT_EQ(OnDisk(), kMiB);  // the copied bytes counted
    EXPECT_EQ(file.KeptBytes(), 92U);
    ASSERT_TRUE(file.Write(bytes.subspan(kMiB + 92, 8)));
    EXPECT_EQ(file.KeptBytes(), 0U);
    ASSERT_TRUE(file.WriteKept(bytes.subspan(kMiB + 100, kMiB)));
    std::FILE* const stream = file.Stream();
    EXPECT_EQ(file.KeptBytes(), 0U);
    ASSERT_EQ(std::fwrite(all.data() + 2 * kMiB + 100, 1, 600, stream), 600U);

    ASSERT_TRUE(file.Close());
    EXPECT_EQ(ReadBytes(path), all);
}

TEST_F(OutputFileTest, WhatIsKeptInManySmallPiecesArrivesInOrder) {
    const Bytes all = Numbered(0, 10'000);

    for (std::size_t first = 0; first < all.size(); ++first) {
        ASSERT_TRUE(file.WriteKept(std::span(all).subspan(first, 1)));
        ASSERT_LE(file.KeptBytes(), 1'024U);  // pieces that the system takes at once
    }

    ASSERT_TRUE(file.Close());
    EXPECT_EQ(ReadBytes(path), all);
}

TEST_F(OutputFileTest, AFailedWriteOfKeptBytesIsToldAndKeepsNothing) {
    const Bytes all = Numbered(0, 2 * kMiB);
    const FileSizeLimit limit(kMiB + 500);

    ASSERT_TRUE(file.WriteKept(std::span(all).first(kMiB)));
    EXPECT_FALSE(file.WriteKept(std::span(all).last(kMiB)));

    EXPECT_EQ(file.KeptBytes(), 0U);
    EXPECT_EQ(OnDisk(), kMiB + 500);
}

TEST_F(OutputFileTest, AFailedWriteIsToldAgainAtACloseThatGoesWell) {
    const Bytes all = Numbered(0, 2 * kMiB);
    {
        const FileSizeLimit limit(500);
        EXPECT_FALSE(file.Write(all));
    }

    EXPECT_FALSE(file.Close());
}

TEST_F(OutputFileTest, KeptBytesThatFailAtTheCloseAreAFailedFile) {
    const Bytes all = Numbered(0, 1'000);
    const FileSizeLimit limit(500);

    ASSERT_TRUE(file.WriteKept(all));

    EXPECT_FALSE(file.Close());
    EXPECT_EQ(OnDisk(), 500U);
}

TEST_F(OutputFileTest, ASingleKeptByteThatFillsTheMebibyteIsWritten) {
    const Bytes all = Numbered(0, kMiB);
    ASSERT_TRUE(file.Write(std::span(all).first(kMiB - 1)));

    EXPECT_TRUE(file.WriteKept(std::span(all).last(1)));

    EXPECT_EQ(file.KeptBytes(), 0U);
    EXPECT_EQ(OnDisk(), kMiB);
}

TEST_F(OutputFileTest, WhatIsNotOpenCannotBeClosed) {
    OutputFile never;

    EXPECT_FALSE(never.Close());
    ASSERT_TRUE(file.Close());
    EXPECT_FALSE(file.Close());
}

}  // namespace
}  // namespace vorrel

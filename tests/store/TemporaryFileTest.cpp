#include "store/TemporaryFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

#include "store/StoreTestSupport.h"
#include "support/FakeManager.h"
#include "support/FileSizeLimit.h"
#include "support/TempDirectory.h"

namespace vorrel::test {
namespace {

AlignedBytes Aligned(const Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

/// Puts a pipe in the place of the open file `path`: nothing can be sought in it any more.
void ReplaceByPipe(const std::string& path) {
    std::array<int, 2> pipe{};
    ASSERT_EQ(::pipe(pipe.data()), 0);
    int replaced = 0;
    for (int descriptor = 0; descriptor < pipe[0]; ++descriptor) {
        std::error_code error;
        const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
        if (std::filesystem::read_symlink(link, error) == path) {
            ASSERT_EQ(::dup2(pipe[0], descriptor), descriptor);
            ++replaced;
        }
    }
    ::close(pipe[0]);
    ::close(pipe[1]);
    ASSERT_EQ(replaced, 1);
}

class TemporaryFileTest : public ::testing::Test {
protected:
    TempDirectory directory;
    FakeManager manager{directory.Path()};
    TemporaryFile file{manager};

    std::vector<std::string> FilesLeft() const { return Files(directory.Path()); }
};

std::pair<std::uint64_t, std::uint64_t> Range(const TemporaryFile& file) {
    std::pair<std::uint64_t, std::uint64_t> range{99, 99};
    std::ignore = file.GetRange(range.first, range.second);
    return range;
}

bool IsOpen(const TemporaryFile& file) {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    return file.GetRange(start, end);
}

TEST_F(TemporaryFileTest, NamesTheFileTmpAndSixUniqueCharacters) {
    std::string path;

    std::FILE* const stream = TemporaryFile::CreateTemporaryFile(path, directory.Path());

    ASSERT_NE(stream, nullptr);
    std::fclose(stream);
    ASSERT_EQ(path.rfind(directory.Path() + "/tmp", 0), 0U) << path;
    const std::string unique = path.substr(directory.Path().size() + 4);
    EXPECT_EQ(unique.size(), 6U) << path;
    EXPECT_TRUE(std::all_of(unique.begin(), unique.end(), [](char character) {
        return std::isalnum(static_cast<unsigned char>(character)) != 0;
    })) << path;
    EXPECT_TRUE(std::filesystem::is_regular_file(path));
}

TEST_F(TemporaryFileTest, TakesTheDirectoryAsItStands) {
    std::string path;

    std::FILE* const stream = TemporaryFile::CreateTemporaryFile(path, directory.Path() + "/");

    ASSERT_NE(stream, nullptr);
    std::fclose(stream);
    EXPECT_EQ(path.rfind(directory.Path() + "//tmp", 0), 0U) << path;
}

TEST_F(TemporaryFileTest, MakesTheFileForItsOwnerAlone) {
    std::string path;

    std::FILE* const stream = TemporaryFile::CreateTemporaryFile(path, directory.Path());

    ASSERT_NE(stream, nullptr);
    struct stat status {};
    ASSERT_EQ(::fstat(::fileno(stream), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
    std::fclose(stream);
}

TEST_F(TemporaryFileTest, MakesTheFileForItsOwnerAloneWhateverTheMaskOfTheProcess) {
    std::string path;
    const mode_t mask = ::umask(0);

    std::FILE* const stream = TemporaryFile::CreateTemporaryFile(path, directory.Path());

    ::umask(mask);
    ASSERT_NE(stream, nullptr);
    struct stat status {};
    ASSERT_EQ(::lstat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, mode_t{S_IFREG | 0600U});
    EXPECT_EQ(status.st_nlink, 1U);
    std::fclose(stream);
}

TEST_F(TemporaryFileTest, ALinkThatHasTakenTheFilesPlaceIsDeletedAndNotFollowed) {
    const std::string precious = directory.File("precious");
    ASSERT_TRUE(std::filesystem::create_directory(precious));
    ASSERT_EQ(file.Init(0), VrSuccess);
    ASSERT_EQ(file.Add(Pattern(0, 10)), VrSuccess);
    std::string path;
    for (const auto& entry : std::filesystem::directory_iterator(directory.Path())) {
        if (entry.is_regular_file()) {
            path = entry.path();
        }
    }
    std::filesystem::remove(path);
    std::filesystem::create_symlink(precious, path);

    file.Release();

    EXPECT_FALSE(std::filesystem::is_symlink(path));
    EXPECT_TRUE(std::filesystem::is_directory(precious));
}

TEST_F(TemporaryFileTest, GivesNoDescriptorToAChildProcess) {
    std::string path;

    std::FILE* const stream = TemporaryFile::CreateTemporaryFile(path, directory.Path());

    ASSERT_NE(stream, nullptr);
    EXPECT_NE(::fcntl(::fileno(stream), F_GETFD) & FD_CLOEXEC, 0);
    std::fclose(stream);
}

TEST_F(TemporaryFileTest, OpensTheStreamForWritingAndReading) {
    std::string path;

    std::FILE* const stream = TemporaryFile::CreateTemporaryFile(path, directory.Path());

    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(std::fputc('v', stream), 'v');
    EXPECT_EQ(std::fseek(stream, 0, SEEK_SET), 0);
    EXPECT_EQ(std::fgetc(stream), 'v');
    std::fclose(stream);
}

TEST_F(TemporaryFileTest, LeavesThePathUnchangedWhenNoFileCanBeMade) {
    std::string path = "as it was";

    EXPECT_EQ(TemporaryFile::CreateTemporaryFile(path, directory.File("missing")), nullptr);

    EXPECT_EQ(path, "as it was");
}

TEST_F(TemporaryFileTest, BeginsClosedAndEmpty) {
    AlignedBytes out = {42};

    EXPECT_FALSE(IsOpen(file));
    EXPECT_EQ(Range(file), std::pair(std::uint64_t{0}, std::uint64_t{0}));
    EXPECT_EQ(file.GetLength(), 0U);
    EXPECT_EQ(file.Add(Pattern(0, 4)), VrErrorFailed);
    EXPECT_EQ(file.GetData(0, 1, out), VrErrorInvalidParameter);
    EXPECT_EQ(out, AlignedBytes{42});
}

TEST_F(TemporaryFileTest, InitOpensAnEmptySegmentAtThePosition) {
    ASSERT_EQ(file.Init(12'345), VrSuccess);

    EXPECT_TRUE(IsOpen(file));
    EXPECT_EQ(Range(file), std::pair(std::uint64_t{12'345}, std::uint64_t{12'345}));
    EXPECT_EQ(file.GetLength(), 0U);
    EXPECT_EQ(FilesLeft().size(), 1U);
}

TEST_F(TemporaryFileTest, AnAppendAdvancesTheEndByItsBytes) {
    ASSERT_EQ(file.Init(1000), VrSuccess);

    ASSERT_EQ(file.Add(Pattern(0, 10)), VrSuccess);
    ASSERT_EQ(file.Add(Pattern(10, 15)), VrSuccess);

    EXPECT_EQ(Range(file), std::pair(std::uint64_t{1000}, std::uint64_t{1015}));
    EXPECT_EQ(file.GetLength(), 15U);
}

TEST_F(TemporaryFileTest, RefusesAnEmptyReadAndLeavesTheOutputUntouched) {
    ASSERT_EQ(file.Init(100), VrSuccess);
    ASSERT_EQ(file.Add(Pattern(0, 10)), VrSuccess);
    AlignedBytes out = {1, 2, 3};

    EXPECT_EQ(file.GetData(105, 105, out), VrErrorInvalidParameter);
    EXPECT_EQ(file.GetData(106, 105, out), VrErrorInvalidParameter);

    EXPECT_EQ(out, (AlignedBytes{1, 2, 3}));
}

TEST_F(TemporaryFileTest, ReadsExactlyTheWholeSegment) {
    ASSERT_EQ(file.Init(100), VrSuccess);
    ASSERT_EQ(file.Add(Pattern(0, 10)), VrSuccess);
    AlignedBytes out(50, 0xEE);

    EXPECT_EQ(file.GetData(100, 110, out), VrSuccess);

    EXPECT_EQ(out, Aligned(Pattern(0, 10)));
}

TEST_F(TemporaryFileTest, RefusesARangeOneBytePastTheEndOrBeforeTheStart) {
    ASSERT_EQ(file.Init(100), VrSuccess);
    ASSERT_EQ(file.Add(Pattern(0, 10)), VrSuccess);
    AlignedBytes out = {42};

    EXPECT_EQ(file.GetData(100, 111, out), VrErrorInvalidParameter);
    EXPECT_EQ(file.GetData(99, 110, out), VrErrorInvalidParameter);

    EXPECT_EQ(out, AlignedBytes{42});
}

TEST_F(TemporaryFileTest, ReadsAPieceFromTheMiddle) {
    ASSERT_EQ(file.Init(1'000'000'000'000), VrSuccess);
    ASSERT_EQ(file.Add(Pattern(0, 100)), VrSuccess);
    AlignedBytes out;

    EXPECT_EQ(file.GetData(1'000'000'000'040, 1'000'000'000'043, out), VrSuccess);

    EXPECT_EQ(out, (AlignedBytes{40, 41, 42}));
}

TEST_F(TemporaryFileTest, RefusesToAppendNothing) {
    ASSERT_EQ(file.Init(0), VrSuccess);
    ASSERT_EQ(file.Add(Pattern(0, 3)), VrSuccess);

    EXPECT_EQ(file.Add({}), VrErrorFailed);

    EXPECT_EQ(file.GetLength(), 3U);
    ASSERT_EQ(file.Add(Pattern(3, 6)), VrSuccess);
    AlignedBytes out;
    ASSERT_EQ(file.GetData(0, 6, out), VrSuccess);
    EXPECT_EQ(out, Aligned(Pattern(0, 6)));
}

TEST_F(TemporaryFileTest, RefusesToAppendToAReleasedSegment) {
    ASSERT_EQ(file.Init(100), VrSuccess);
    ASSERT_EQ(file.Add(Pattern(0, 10)), VrSuccess);
    file.Release();

    EXPECT_EQ(file.Add(Pattern(0, 10)), VrErrorFailed);

    EXPECT_FALSE(IsOpen(file));
    EXPECT_EQ(Range(file), std::pair(std::uint64_t{0}, std::uint64_t{0}));
}

TEST_F(TemporaryFileTest, ReleaseDeletesTheFileAndMayBeRepeated) {
    ASSERT_EQ(file.Init(100), VrSuccess);

    file.Release();
    file.Release();

    EXPECT_TRUE(FilesLeft().empty());
}

TEST_F(TemporaryFileTest, DestructionDeletesTheFile) {
    {
        TemporaryFile scoped(manager);
        ASSERT_EQ(scoped.Init(0), VrSuccess);
        ASSERT_EQ(scoped.Add(Pattern(0, 10)), VrSuccess);
    }

    EXPECT_TRUE(FilesLeft().empty());
}

TEST_F(TemporaryFileTest, InitAgainReplacesTheOldFile) {
    ASSERT_EQ(file.Init(100), VrSuccess);
    ASSERT_EQ(file.Add(Pattern(0, 10)), VrSuccess);

    ASSERT_EQ(file.Init(500), VrSuccess);

    EXPECT_EQ(FileSizes(directory.Path()), std::vector<std::uint64_t>{0});
    EXPECT_EQ(Range(file), std::pair(std::uint64_t{500}, std::uint64_t{500}));
}

TEST_F(TemporaryFileTest, InitFailsWhenTheManagerHasNoTemporaryDirectory) {
    ASSERT_EQ(file.Init(100), VrSuccess);
    manager.tempDirectoryExists = false;

    EXPECT_EQ(file.Init(200), VrErrorFailed);

    EXPECT_FALSE(IsOpen(file));
    EXPECT_EQ(Range(file), std::pair(std::uint64_t{0}, std::uint64_t{0}));
    EXPECT_TRUE(FilesLeft().empty());  // released before anything was asked
}

TEST_F(TemporaryFileTest, InitFailsWhenTheTemporaryDirectoryHasBeenRemoved) {
    std::filesystem::remove(directory.Path());

    EXPECT_EQ(file.Init(200), VrErrorFailed);

    EXPECT_FALSE(IsOpen(file));
}

TEST_F(TemporaryFileTest, MovingLeavesTheSourceClosed) {
    ASSERT_EQ(file.Init(100), VrSuccess);
    ASSERT_EQ(file.Add(Pattern(0, 10)), VrSuccess);

    TemporaryFile target(std::move(file));

    EXPECT_FALSE(IsOpen(file));  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(Range(file), std::pair(std::uint64_t{0}, std::uint64_t{0}));
    EXPECT_EQ(file.Add(Pattern(0, 1)), VrErrorFailed);
    EXPECT_TRUE(IsOpen(target));
    EXPECT_EQ(Range(target), std::pair(std::uint64_t{100}, std::uint64_t{110}));
}

TEST_F(TemporaryFileTest, DestroyingAMovedSourceDeletesNothing) {
    TemporaryFile target(manager);
    {
        TemporaryFile source(manager);
        ASSERT_EQ(source.Init(100), VrSuccess);
        ASSERT_EQ(source.Add(Pattern(0, 10)), VrSuccess);
        target = std::move(source);
    }

    EXPECT_EQ(FilesLeft().size(), 1U);
    AlignedBytes out;
    ASSERT_EQ(target.GetData(100, 110, out), VrSuccess);
    EXPECT_EQ(out, Aligned(Pattern(0, 10)));
}

TEST_F(TemporaryFileTest, AMoveCarriesThePositionThatAReadLeft) {
    ASSERT_EQ(file.Init(0), VrSuccess);
    ASSERT_EQ(file.Add(Pattern(0, 10)), VrSuccess);
    AlignedBytes out;
    ASSERT_EQ(file.GetData(2, 4, out), VrSuccess);

    TemporaryFile target(std::move(file));

    ASSERT_EQ(target.Add(Pattern(10, 20)), VrSuccess);
    ASSERT_EQ(target.GetData(0, 20, out), VrSuccess);
    EXPECT_EQ(out, Aligned(Pattern(0, 20)));
}

TEST_F(TemporaryFileTest, MoveAssignmentDeletesTheOldFileOfTheTarget) {
    TemporaryFile target(manager);
    ASSERT_EQ(target.Init(0), VrSuccess);
    ASSERT_EQ(file.Init(7), VrSuccess);

    target = std::move(file);

    EXPECT_EQ(FilesLeft().size(), 1U);
    EXPECT_EQ(Range(target), std::pair(std::uint64_t{7}, std::uint64_t{7}));
    // NOLINTNEXTLINE(bugprone-use-after-move): it is left closed
    EXPECT_EQ(Range(file), std::pair(std::uint64_t{0}, std::uint64_t{0}));
}

TEST_F(TemporaryFileTest, MoveAssignmentToItselfKeepsTheFile) {
    ASSERT_EQ(file.Init(7), VrSuccess);
    TemporaryFile& same = file;

    file = std::move(same);

    EXPECT_TRUE(IsOpen(file));
    EXPECT_EQ(FilesLeft().size(), 1U);
}

TEST_F(TemporaryFileTest, ReadsThroughAStreamBufferOfOneMebibyte) {
    constexpr std::uint64_t kMebibyte = 1'048'576;
    ASSERT_EQ(file.Init(0), VrSuccess);
    ASSERT_EQ(file.Add(Pattern(0, 2 * kMebibyte)), VrSuccess);
    AlignedBytes out;
    ASSERT_EQ(file.GetData(0, 1, out), VrSuccess);
    // What was read ahead is served from memory, also after the file has changed behind it.
    std::filesystem::resize_file(FilesLeft().at(0), 0);
    std::filesystem::resize_file(FilesLeft().at(0), 2 * kMebibyte);

    ASSERT_EQ(file.GetData(kMebibyte - 1, kMebibyte, out), VrSuccess);
    EXPECT_EQ(out, Aligned({PatternByte(kMebibyte - 1)}));
    ASSERT_EQ(file.GetData(kMebibyte, kMebibyte + 1, out), VrSuccess);
    EXPECT_EQ(out, AlignedBytes{0});
}

TEST_F(TemporaryFileTest, FailsToReadWhatTheFileNoLongerHolds) {
    ASSERT_EQ(file.Init(0), VrSuccess);
    ASSERT_EQ(file.Add(Pattern(0, 100)), VrSuccess);
    std::filesystem::resize_file(FilesLeft().at(0), 50);
    AlignedBytes out;

    EXPECT_EQ(file.GetData(40, 60, out), VrErrorFailed);

    EXPECT_TRUE(IsOpen(file));
    EXPECT_EQ(file.GetLength(), 100U);
    ASSERT_EQ(file.GetData(0, 50, out), VrSuccess);
    EXPECT_EQ(out, Aligned(Pattern(0, 50)));
}

/// Appends below and above the size from which they go past the stream.
class TemporaryFileAppendTest : public TemporaryFileTest,
                                public ::testing::WithParamInterface<std::uint64_t> {};

INSTANTIATE_TEST_SUITE_P(Sizes, TemporaryFileAppendTest,
                         ::testing::Values(1, 3, 65'535, 65'536, 100'000, 1'048'576, 1'920'000),
                         ::testing::PrintToStringParamName());

TEST_P(TemporaryFileAppendTest, AppendsAtTheEndAfterARead) {
    const std::uint64_t size = GetParam();
    ASSERT_EQ(file.Init(100), VrSuccess);
    ASSERT_EQ(file.Add(Pattern(0, size)), VrSuccess);
    AlignedBytes out;
    ASSERT_EQ(file.GetData(100, 101, out), VrSuccess);

    ASSERT_EQ(file.Add(Pattern(size, 2 * size)), VrSuccess);

    EXPECT_EQ(file.GetLength(), 2 * size);
    ASSERT_EQ(file.GetData(100, 100 + 2 * size, out), VrSuccess);
    EXPECT_EQ(out, Aligned(Pattern(0, 2 * size)));
}

TEST_P(TemporaryFileAppendTest, MixesWithOtherSizes) {
    const std::uint64_t size = GetParam();
    ASSERT_EQ(file.Init(0), VrSuccess);
    std::uint64_t end = 0;
    for (const std::uint64_t next : {std::uint64_t{5}, size, std::uint64_t{70'000}, size,
                                     std::uint64_t{9}, std::uint64_t{2}, size}) {
        ASSERT_EQ(file.Add(Pattern(end, end + next)), VrSuccess);
        end += next;
    }

    AlignedBytes out;
    ASSERT_EQ(file.GetData(0, end, out), VrSuccess);
    EXPECT_EQ(out, Aligned(Pattern(0, end)));
    EXPECT_EQ(FileSizes(directory.Path()), std::vector<std::uint64_t>{end});
}

TEST_P(TemporaryFileAppendTest, AFailedAppendAdvancesNothingAndIsWrittenOver) {
    const std::uint64_t size = GetParam();
    ASSERT_EQ(file.Init(100), VrSuccess);
    ASSERT_EQ(file.Add(Pattern(0, size)), VrSuccess);
    {
        const FileSizeLimit full(size + size / 2);
        EXPECT_EQ(file.Add(Bytes(size, 0xEE)), VrErrorFailed);
    }

    EXPECT_TRUE(IsOpen(file));
    EXPECT_EQ(file.GetLength(), size);
    AlignedBytes out;
    // A read in between, which may read ahead into what the failed append left.
    ASSERT_EQ(file.GetData(100, 100 + size, out), VrSuccess);
    EXPECT_EQ(out, Aligned(Pattern(0, size)));
    ASSERT_EQ(file.Add(Pattern(size, 3 * size)), VrSuccess);
    ASSERT_EQ(file.GetData(100, 100 + 3 * size, out), VrSuccess);
    EXPECT_EQ(out, Aligned(Pattern(0, 3 * size)));
}

TEST_P(TemporaryFileAppendTest, RepeatedFailuresDoNotHarmWhatWasStored) {
    const std::uint64_t size = GetParam();
    ASSERT_EQ(file.Init(0), VrSuccess);
    ASSERT_EQ(file.Add(Pattern(0, size)), VrSuccess);
    {
        const FileSizeLimit full(size);
        EXPECT_EQ(file.Add(Bytes(size, 0xEE)), VrErrorFailed);
        EXPECT_EQ(file.Add(Bytes(size, 0xEE)), VrErrorFailed);
    }

    ASSERT_EQ(file.Add(Pattern(size, 2 * size)), VrSuccess);

    AlignedBytes out;
    ASSERT_EQ(file.GetData(0, 2 * size, out), VrSuccess);
    EXPECT_EQ(out, Aligned(Pattern(0, 2 * size)));
}

TEST_F(TemporaryFileTest, ARangeThatCannotBeSoughtFailsAndKeepsTheOutput) {
    ASSERT_EQ(file.Init(0), VrSuccess);
    ASSERT_EQ(file.Add(Pattern(0, 100)), VrSuccess);
    ReplaceByPipe(FilesLeft().at(0));
    AlignedBytes out = {42};

    EXPECT_EQ(file.GetData(0, 100, out), VrErrorFailed);

    EXPECT_EQ(out, AlignedBytes{42});
    EXPECT_EQ(file.Add(Pattern(100, 200)), VrErrorFailed);
    EXPECT_EQ(file.GetLength(), 100U);
}

}  // namespace
}  // namespace vorrel::test

#include "platform/SystemHelpers.h"

#include <gtest/gtest.h>
#include <mntent.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/TempDirectory.h"

namespace vorrel {
namespace {

namespace fs = std::filesystem;
using test::TempDirectory;

void MakeFile(const std::string& path, const std::string& contents = "x") {
    std::ofstream(path, std::ios::binary) << contents;
}

std::string Contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string VolumeName(const char* path) {
    std::array<char, 64> name{};
    EXPECT_EQ(
        GetVolumeInformation(path, nullptr, 0, nullptr, nullptr, nullptr, name.data(), name.size()),
        1);
    return name.data();
}

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

FileHandle Opened(const std::string& path) {
    return FileHandle(std::fopen(path.c_str(), "rb"));
}

// memcpy_s

TEST(SystemHelpersTest, MemcpyOfNothingSucceedsWithNullPointers) {
    EXPECT_EQ(memcpy_s(nullptr, 0, nullptr, 0), 0);
    EXPECT_EQ(memcpy_s(nullptr, 10, "abc", 0), 0);
}

TEST(SystemHelpersTest, MemcpyOfNothingCopiesNothing) {
    std::string destination = "abc";

    EXPECT_EQ(memcpy_s(destination.data(), 3, "xyz", 0), 0);
    EXPECT_EQ(destination, "abc");
}

TEST(SystemHelpersTest, MemcpyRefusesANullPointer) {
    char byte = 'a';

    EXPECT_EQ(memcpy_s(nullptr, 1, &byte, 1), 22);
    EXPECT_EQ(memcpy_s(&byte, 1, nullptr, 1), 22);
    EXPECT_EQ(byte, 'a');
}

TEST(SystemHelpersTest, MemcpyNamesANullPointerBeforeASmallDestination) {
    EXPECT_EQ(memcpy_s(nullptr, 0, "a", 1), 22);
}

TEST(SystemHelpersTest, MemcpyRefusesADestinationOneByteTooSmallAndLeavesIt) {
    std::string destination = "abc";

    EXPECT_EQ(memcpy_s(destination.data(), 2, "xyz", 3), 34);
    EXPECT_EQ(destination, "abc");
}

TEST(SystemHelpersTest, MemcpyFillsADestinationOfJustTheSize) {
    std::string destination = "abcd";

    EXPECT_EQ(memcpy_s(destination.data(), 3, "xyz", 3), 0);
    EXPECT_EQ(destination, "xyzd");
}

// _tfopen_s

TEST(SystemHelpersTest, OpenRefusesANullHandlePointer) {
    EXPECT_EQ(_tfopen_s(nullptr, "/dev/null", "rb"), 22);
}

TEST(SystemHelpersTest, OpenRefusesANullPathOrModeAndStoresNoFile) {
    std::FILE* file = stderr;

    EXPECT_EQ(_tfopen_s(&file, nullptr, "rb"), 22);
    EXPECT_EQ(file, nullptr);
    file = stderr;
    EXPECT_EQ(_tfopen_s(&file, "/dev/null", nullptr), 22);
    EXPECT_EQ(file, nullptr);
}

TEST(SystemHelpersTest, OpenStoresTheFile) {
    const TempDirectory directory;
    MakeFile(directory.File("a"), "hello");

    std::FILE* file = nullptr;
    const int result = _tfopen_s(&file, directory.File("a").c_str(), "rb");
    const FileHandle closing(file);

    ASSERT_EQ(result, 0);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(std::fgetc(file), 'h');
}

TEST(SystemHelpersTest, OpenAnswersTheErrorNumberAndStoresNull) {
    const TempDirectory directory;

    std::FILE* file = stderr;
    EXPECT_EQ(_tfopen_s(&file, directory.File("missing").c_str(), "rb"), ENOENT);
    EXPECT_EQ(file, nullptr);
    EXPECT_EQ(_tfopen_s(&file, directory.Path().c_str(), "wb"), EISDIR);
}

// fread_s

class FreadTest : public testing::Test {
protected:
    FreadTest() {
        MakeFile(directory.File("a"), "0123456789");
        file = Opened(directory.File("a"));
    }

    const TempDirectory directory;
    FileHandle file;
    std::array<char, 12> buffer{};
};

TEST_F(FreadTest, ReadsNothingWhereTheBufferHoldsFewerElements) {
    // 10 / 4 = 2 whole elements, 3 asked for.
    EXPECT_EQ(fread_s(buffer.data(), 10, 4, 3, file.get()), 0U);
    EXPECT_EQ(std::ftell(file.get()), 0);
    EXPECT_EQ(buffer[0], '\0');
}

TEST_F(FreadTest, ReadsAsManyElementsAsTheBufferHolds) {
    EXPECT_EQ(fread_s(buffer.data(), 10, 4, 2, file.get()), 2U);
    EXPECT_EQ(std::string(buffer.data()), "01234567");
}

TEST_F(FreadTest, AnswersTheWholeElementsOfAShortFile) {
    EXPECT_EQ(fread_s(buffer.data(), 12, 4, 3, file.get()), 2U);
}

TEST_F(FreadTest, ReadsNothingWithoutBufferSizeCountOrStream) {
    EXPECT_EQ(fread_s(nullptr, 10, 1, 1, file.get()), 0U);
    EXPECT_EQ(fread_s(buffer.data(), 10, 0, 1, file.get()), 0U);
    EXPECT_EQ(fread_s(buffer.data(), 10, 1, 0, file.get()), 0U);
    EXPECT_EQ(fread_s(buffer.data(), 10, 1, 1, nullptr), 0U);
    EXPECT_EQ(std::ftell(file.get()), 0);
}

TEST_F(FreadTest, IsNotFooledByAProductThatWraps) {
    constexpr std::size_t kHuge = std::numeric_limits<std::size_t>::max() / 2 + 2;

    EXPECT_EQ(fread_s(buffer.data(), 10, 2, kHuge, file.get()), 0U);
    EXPECT_EQ(std::ftell(file.get()), 0);
}

// CreateDirectory

TEST(SystemHelpersTest, CreateDirectoryMakesOneLevelWithMode0775) {
    const TempDirectory directory;
    const mode_t mask = ::umask(0);

    const int result = CreateDirectory(directory.File("new").c_str(), nullptr);

    ::umask(mask);
    EXPECT_EQ(result, 1);
    struct stat status {};
    ASSERT_EQ(::stat(directory.File("new").c_str(), &status), 0);
    EXPECT_TRUE(S_ISDIR(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777U, 0775U);
}

TEST(SystemHelpersTest, CreateDirectoryTakesASlashAtTheEnd) {
    const TempDirectory directory;

    EXPECT_EQ(CreateDirectory(directory.File("new/").c_str(), nullptr), 1);
    EXPECT_TRUE(fs::is_directory(directory.File("new")));
}

TEST(SystemHelpersTest, CreateDirectoryOnAnExistingDirectoryIsFalse) {
    const TempDirectory directory;

    EXPECT_EQ(CreateDirectory(directory.Path().c_str(), nullptr), 0);
}

TEST(SystemHelpersTest, CreateDirectoryMakesNoParents) {
    const TempDirectory directory;

    EXPECT_EQ(CreateDirectory(directory.File("a/b").c_str(), nullptr), 0);
    EXPECT_FALSE(fs::exists(directory.File("a")));
}

TEST(SystemHelpersTest, CreateDirectoryOfNullIsFalse) {
    EXPECT_EQ(CreateDirectory(nullptr, nullptr), 0);
}

// wcstombs_s, lstrlen

TEST(SystemHelpersTest, WcstombsConvertsAndNeverWritesTheCount) {
    std::size_t converted = 77;
    std::array<char, 8> text{};

    EXPECT_EQ(wcstombs_s(&converted, text.data(), text.size(), L"abc", 1), 3U);
    EXPECT_EQ(std::string(text.data()), "abc");
    EXPECT_EQ(converted, 77U);
    EXPECT_EQ(wcstombs_s(nullptr, text.data(), text.size(), L"de", 0), 2U);
}

TEST(SystemHelpersTest, WcstombsStopsAtTheDestinationsEndWithoutAZero) {
    std::array<char, 4> text = {'#', '#', '#', '#'};

    EXPECT_EQ(wcstombs_s(nullptr, text.data(), 3, L"abcdef", 100), 3U);
    EXPECT_EQ(std::string(text.data(), 4), "abc#");
}

TEST(SystemHelpersTest, WcstombsAnswersMinusOneForWhatTheLocaleLacks) {
    std::array<char, 8> text{};

    // Tests run in the "C" locale.
    EXPECT_EQ(wcstombs_s(nullptr, text.data(), text.size(), L"\x3042", 8),
              static_cast<std::size_t>(-1));
}

TEST(SystemHelpersTest, NarrowLstrlenCountsBytes) {
    EXPECT_EQ(lstrlen(""), 0U);
    EXPECT_EQ(lstrlen("a\xC3\xA9"), 3U);
}

TEST(SystemHelpersTest, WideLstrlenCountsBytes) {
    alignas(wchar_t) const char bytes[] = "seven by";

    EXPECT_EQ(lstrlen(reinterpret_cast<const wchar_t*>(bytes)), 8U);
    // A true wide text ends, for this count, at the first zero byte of its first character.
    EXPECT_EQ(lstrlen(L"AB"), 1U);
}

// Free space

struct Space {
    _ULARGE_INTEGER caller = 1;
    _ULARGE_INTEGER total = 2;
    _ULARGE_INTEGER free = 3;
    friend bool operator==(const Space&, const Space&) = default;
};

TEST(SystemHelpersTest, GetDiskFreeSpaceExReportsBlocksTimesFragmentSize) {
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

TEST(SystemHelpersTest, GetDiskFreeSpaceExTakesNullOutputs) {
    _ULARGE_INTEGER total = 0;

    EXPECT_EQ(GetDiskFreeSpaceEx("/", nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(GetDiskFreeSpaceEx("/", nullptr, &total, nullptr), 1);
    EXPECT_GT(total, 0U);
}

TEST(SystemHelpersTest, GetDiskFreeSpaceExIsFalseAndWritesNothingForNullMissingAndEmptyPaths) {
    const TempDirectory directory;
    Space space;

    for (const char* path : {static_cast<const char*>(nullptr), "", "/missing/directory"}) {
        EXPECT_EQ(GetDiskFreeSpaceEx(path, &space.caller, &space.total, &space.free), 0);
    }
    EXPECT_EQ(space, Space());
}

TEST(SystemHelpersTest, GetDiskFreeSpaceFillsOnlyTheTotal) {
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

TEST(SystemHelpersTest, GetDiskFreeSpaceTakesANullTotal) {
    EXPECT_EQ(GetDiskFreeSpace("/", nullptr, nullptr, nullptr, nullptr), 1);
}

TEST(SystemHelpersTest, GetDiskFreeSpaceIsFalseForNullAndMissingPaths) {
    std::uint64_t total = 14;

    EXPECT_EQ(GetDiskFreeSpace(nullptr, nullptr, nullptr, nullptr, &total), 0);
    EXPECT_EQ(GetDiskFreeSpace("/missing/directory", nullptr, nullptr, nullptr, &total), 0);
    EXPECT_EQ(total, 14U);
}

// localtime_s

/// Sets the environment's time zone while it lives; tells nobody.
class ZoneInEnvironment {
public:
    explicit ZoneInEnvironment(const char* zone) {
        if (const char* const before = std::getenv("TZ")) {
            saved = before;
        }
        ::setenv("TZ", zone, 1);
    }
    ~ZoneInEnvironment() {
        if (saved) {
            ::setenv("TZ", saved->c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
    }
    ZoneInEnvironment(const ZoneInEnvironment&) = delete;
    ZoneInEnvironment& operator=(const ZoneInEnvironment&) = delete;

private:
    std::optional<std::string> saved;
};

TEST(SystemHelpersTest, LocaltimeFillsTheWholeRecordWithZone) {
    // Five and a half hours ahead, no daylight saving.
    const ZoneInEnvironment zone("XYZ-05:30");
    const std::time_t time = 86'400 + 2;
    std::tm result;
    std::memset(&result, 0x55, sizeof(result));

    EXPECT_EQ(localtime_s(&result, &time), 0);

    EXPECT_EQ(result.tm_year, 70);
    EXPECT_EQ(result.tm_mon, 0);
    EXPECT_EQ(result.tm_mday, 2);
    EXPECT_EQ(result.tm_hour, 5);
    EXPECT_EQ(result.tm_min, 30);
    EXPECT_EQ(result.tm_sec, 2);
    EXPECT_EQ(result.tm_wday, 5);  // a Friday
    EXPECT_EQ(result.tm_yday, 1);
    EXPECT_EQ(result.tm_isdst, 0);
    EXPECT_EQ(result.tm_gmtoff, 19'800);
    EXPECT_STREQ(result.tm_zone, "XYZ");
}

TEST(SystemHelpersTest, LocaltimeSeesAZoneThatChanged) {
    const std::time_t time = 0;
    std::tm result{};
    for (const auto& [name, offset] :
         {std::pair("ABC-01", 3'600), std::pair("DEF+02", -7'200), std::pair("GHI-03", 10'800)}) {
        const ZoneInEnvironment zone(name);

        EXPECT_EQ(localtime_s(&result, &time), 0);

        EXPECT_EQ(result.tm_gmtoff, offset) << name;
        EXPECT_EQ(std::string(result.tm_zone), std::string(name, 3));
    }
}

TEST(SystemHelpersTest, LocaltimePastTheCalendarIsAnEmptyRecord) {
    const std::time_t time = std::numeric_limits<std::time_t>::max();
    std::tm result;
    std::memset(&result, 0x55, sizeof(result));

    EXPECT_EQ(localtime_s(&result, &time), 0);

    EXPECT_EQ(result.tm_year, 0);
    EXPECT_EQ(result.tm_mday, 0);
    EXPECT_EQ(result.tm_gmtoff, 0);
    EXPECT_EQ(result.tm_zone, nullptr);
}

TEST(SystemHelpersTest, LocaltimeGivesAnEmptyRecordForATimePastTheCalendar) {
    // 2^63 - 1 seconds are the year 292,277,026,596, for which tm_year has no room.
    const std::time_t time = std::numeric_limits<std::time_t>::max();
    std::tm result;
    std::memset(&result, 0x55, sizeof(result));

    EXPECT_EQ(localtime_s(&result, &time), 0);

    EXPECT_EQ(result.tm_year, 0);
    EXPECT_EQ(result.tm_mday, 0);
    EXPECT_EQ(result.tm_hour, 0);
    EXPECT_EQ(result.tm_gmtoff, 0);
    EXPECT_EQ(result.tm_zone, nullptr);
}

// DeleteFile

TEST(SystemHelpersTest, DeleteFileRemovesAFile) {
    const TempDirectory directory;
    MakeFile(directory.File("\xE9\x8C\xB2.wav"));

    EXPECT_EQ(DeleteFile(directory.File("\xE9\x8C\xB2.wav").c_str()), 1);
    EXPECT_TRUE(fs::is_empty(directory.Path()));
}

TEST(SystemHelpersTest, WideDeleteFileReadsBytes) {
    const TempDirectory directory;
    MakeFile(directory.File("a"));
    std::vector<wchar_t> wide(directory.File("a").size() / sizeof(wchar_t) + 1);
    std::memcpy(wide.data(), directory.File("a").c_str(), directory.File("a").size() + 1);

    EXPECT_EQ(DeleteFile(wide.data()), 1);
    EXPECT_FALSE(fs::exists(directory.File("a")));
}

TEST(SystemHelpersTest, DeleteFileOnADirectoryIsFalseAndLeavesIt) {
    const TempDirectory directory;
    fs::create_directory(directory.File("d"));

    EXPECT_EQ(DeleteFile(directory.File("d").c_str()), 0);
    EXPECT_TRUE(fs::is_directory(directory.File("d")));
}

TEST(SystemHelpersTest, DeleteFileOfNullOrAMissingPathIsFalse) {
    const TempDirectory directory;

    EXPECT_EQ(DeleteFile(static_cast<const char*>(nullptr)), 0);
    EXPECT_EQ(DeleteFile(static_cast<const wchar_t*>(nullptr)), 0);
    EXPECT_EQ(DeleteFile(directory.File("missing").c_str()), 0);
}

TEST(SystemHelpersTest, DeleteFileRemovesALinkAndNotItsTarget) {
    const TempDirectory directory;
    MakeFile(directory.File("target"));
    fs::create_symlink(directory.File("target"), directory.File("link"));

    EXPECT_EQ(DeleteFile(directory.File("link").c_str()), 1);
    EXPECT_FALSE(fs::exists(fs::symlink_status(directory.File("link"))));
    EXPECT_TRUE(fs::exists(directory.File("target")));
}

TEST(SystemHelpersTest, DeleteFileThatTheSystemRefusesIsFalse) {
    EXPECT_EQ(DeleteFile("/proc/version"), 0);
}

// PathIsDirectory, PathIsDirectoryEmpty

TEST(SystemHelpersTest, PathIsDirectoryTellsDirectoriesFromAllElse) {
    const TempDirectory directory;
    MakeFile(directory.File("file"));
    fs::create_directory_symlink(directory.Path(), directory.File("link"));

    EXPECT_EQ(PathIsDirectory(directory.Path().c_str()), 1);
    EXPECT_EQ(PathIsDirectory((directory.Path() + "/").c_str()), 1);
    EXPECT_EQ(PathIsDirectory(directory.File("link").c_str()), 1);
    EXPECT_EQ(PathIsDirectory(directory.File("file").c_str()), 0);
    EXPECT_EQ(PathIsDirectory(directory.File("missing").c_str()), 0);
    EXPECT_EQ(PathIsDirectory(""), 0);
    EXPECT_EQ(PathIsDirectory(nullptr), 0);
}

TEST(SystemHelpersTest, PathIsDirectoryEmptyLooksForEntries) {
    const TempDirectory directory;

    EXPECT_EQ(PathIsDirectoryEmpty(directory.Path().c_str()), 1);
    MakeFile(directory.File(".hidden"));
    EXPECT_EQ(PathIsDirectoryEmpty(directory.Path().c_str()), 0);
    EXPECT_EQ(PathIsDirectoryEmpty((directory.Path() + "/").c_str()), 0);
}

TEST(SystemHelpersTest, PathIsDirectoryEmptyIsTrueForAMissingPath) {
    const TempDirectory directory;

    EXPECT_EQ(PathIsDirectoryEmpty(directory.File("missing").c_str()), 1);
    EXPECT_EQ(PathIsDirectoryEmpty(""), 1);
    EXPECT_EQ(PathIsDirectoryEmpty(nullptr), 1);
}

TEST(SystemHelpersTest, PathIsDirectoryEmptyIsTrueForAFile) {
    const TempDirectory directory;
    MakeFile(directory.File("file"));

    EXPECT_EQ(PathIsDirectoryEmpty(directory.File("file").c_str()), 1);
}

// RemoveDirectory

TEST(SystemHelpersTest, RemoveDirectoryRemovesEverythingInIt) {
    const TempDirectory directory;
    fs::create_directories(directory.File("d/e/f"));
    MakeFile(directory.File("d/a"));
    MakeFile(directory.File("d/e/b"));

    EXPECT_EQ(RemoveDirectory(directory.File("d/").c_str()), 1);
    EXPECT_TRUE(fs::is_empty(directory.Path()));
}

TEST(SystemHelpersTest, RemoveDirectoryOnAFileIsFalseAndLeavesIt) {
    const TempDirectory directory;
    MakeFile(directory.File("file"), "kept");

    EXPECT_EQ(RemoveDirectory(directory.File("file").c_str()), 0);
    EXPECT_EQ(Contents(directory.File("file")), "kept");
}

TEST(SystemHelpersTest, RemoveDirectoryOfNullOrAMissingPathIsFalse) {
    const TempDirectory directory;

    EXPECT_EQ(RemoveDirectory(nullptr), 0);
    EXPECT_EQ(RemoveDirectory(""), 0);
    EXPECT_EQ(RemoveDirectory(directory.File("missing").c_str()), 0);
}

TEST(SystemHelpersTest, RemoveDirectoryFollowsNoLinkOutOfIt) {
    const TempDirectory directory;
    fs::create_directories(directory.File("outside"));
    MakeFile(directory.File("outside/kept"));
    fs::create_directory(directory.File("d"));
    fs::create_directory_symlink(directory.File("outside"), directory.File("d/link"));

    EXPECT_EQ(RemoveDirectory(directory.File("d").c_str()), 1);
    EXPECT_FALSE(fs::exists(directory.File("d")));
    EXPECT_TRUE(fs::exists(directory.File("outside/kept")));
}

TEST(SystemHelpersTest, RemoveDirectoryRemovesALinkInItsPlaceAndNotTheTarget) {
    const TempDirectory directory;
    fs::create_directories(directory.File("outside"));
    MakeFile(directory.File("outside/kept"));

    for (const char* name : {"link", "link/", "link//"}) {
        fs::create_directory_symlink(directory.File("outside"), directory.File("link"));
        EXPECT_EQ(RemoveDirectory(directory.File(name).c_str()), 1) << name;
        EXPECT_FALSE(fs::exists(fs::symlink_status(directory.File("link")))) << name;
        EXPECT_TRUE(fs::exists(directory.File("outside/kept"))) << name;
    }
}

TEST(SystemHelpersTest, RemoveDirectoryOfTheRootIsFalse) {
    EXPECT_EQ(RemoveDirectory("/"), 0);
    EXPECT_EQ(RemoveDirectory("//"), 0);
    EXPECT_EQ(RemoveDirectory("/proc/.."), 0);
}

TEST(SystemHelpersTest, RemoveDirectoryOfMoreLevelsThanFilesCanBeOpenIsFalse) {
    const TempDirectory directory;
    std::string deepest = directory.File("d");
    for (int level = 0; level < 40; ++level) {
        deepest += "/d";
    }
    fs::create_directories(deepest);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit few{30, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);

    const int result = RemoveDirectory(directory.File("d").c_str());

    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(fs::exists(directory.File("d")));
    EXPECT_EQ(RemoveDirectory(directory.File("d").c_str()), 1) << "and leaves none open";
}

TEST(SystemHelpersTest, RemoveDirectoryOfAPathThatIsTooLongIsFalse) {
    EXPECT_EQ(RemoveDirectory(("/tmp" + std::string(5'000, '/')).c_str()), 0);
    EXPECT_EQ(RemoveDirectory(std::string(5'000, 'x').c_str()), 0);
}

TEST(SystemHelpersTest, RemoveDirectoryThatTheSystemRefusesIsFalse) {
    EXPECT_EQ(RemoveDirectory("/proc/self/fdinfo"), 0);
}

// GetVolumeInformation

TEST(SystemHelpersTest, VolumeInformationNamesTheTmpfs) {
    constexpr long kTmpfsMagic = 0x01021994;
    struct statfs volume {};
    if (::statfs("/dev/shm", &volume) != 0 || volume.f_type != kTmpfsMagic) {
        GTEST_SKIP() << "no tmpfs at /dev/shm";
    }

    EXPECT_EQ(VolumeName("/dev/shm"), "tmpfs");
}

TEST(SystemHelpersTest, VolumeInformationNamesTheRootAsTheMountTableDoes) {
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

TEST(SystemHelpersTest, VolumeInformationNamesTheVolumeUnderAPathAndALink) {
    const TempDirectory directory;
    fs::create_directory_symlink("/proc", directory.File("link"));

    EXPECT_EQ(VolumeName("/proc/self"), "proc");
    EXPECT_EQ(VolumeName(directory.File("link").c_str()), "proc");
}

TEST(SystemHelpersTest, VolumeInformationIsFalseForNullAndMissingPaths) {
    std::array<char, 16> name = {'#'};

    for (const char* path : {static_cast<const char*>(nullptr), "", "/missing/directory"}) {
        EXPECT_EQ(GetVolumeInformation(path, nullptr, 0, nullptr, nullptr, nullptr, name.data(),
                                       name.size()),
                  0);
    }
    EXPECT_EQ(name[0], '#');
}

TEST(SystemHelpersTest, VolumeInformationIsTrueWithATooSmallBufferAndLeavesIt) {
    std::array<char, 16> name{};
    name.fill('#');

    for (const std::size_t size : {std::size_t{0}, std::size_t{3}}) {
        EXPECT_EQ(
            GetVolumeInformation("/", nullptr, 0, nullptr, nullptr, nullptr, name.data(), size), 1);
    }
    EXPECT_EQ(std::string(name.data(), name.size()), "################");
}

TEST(SystemHelpersTest, VolumeInformationIsTrueWithoutABuffer) {
    EXPECT_EQ(GetVolumeInformation("/", nullptr, 0, nullptr, nullptr, nullptr, nullptr, 100), 1);
}

TEST(SystemHelpersTest, VolumeInformationNeverWritesTheOtherOutputs) {
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

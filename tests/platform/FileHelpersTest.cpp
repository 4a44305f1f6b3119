#include "platform/SystemHelpers.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
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

// CreateDirectory

TEST(FileHelpersTest, CreateDirectoryMakesOneLevelWithMode0775) {
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

TEST(FileHelpersTest, CreateDirectoryTakesASlashAtTheEnd) {
    const TempDirectory directory;

    EXPECT_EQ(CreateDirectory(directory.File("new/").c_str(), nullptr), 1);
    EXPECT_TRUE(fs::is_directory(directory.File("new")));
}

TEST(FileHelpersTest, CreateDirectoryOnAnExistingDirectoryIsFalse) {
    const TempDirectory directory;

    EXPECT_EQ(CreateDirectory(directory.Path().c_str(), nullptr), 0);
}

TEST(FileHelpersTest, CreateDirectoryMakesNoParents) {
    const TempDirectory directory;

    EXPECT_EQ(CreateDirectory(directory.File("a/b").c_str(), nullptr), 0);
    EXPECT_FALSE(fs::exists(directory.File("a")));
}

TEST(FileHelpersTest, CreateDirectoryOfNullIsFalse) {
    EXPECT_EQ(CreateDirectory(nullptr, nullptr), 0);
}

// DeleteFile

TEST(FileHelpersTest, DeleteFileRemovesAFile) {
    const TempDirectory directory;
    MakeFile(directory.File("\xE9\x8C\xB2.wav"));

    EXPECT_EQ(DeleteFile(directory.File("\xE9\x8C\xB2.wav").c_str()), 1);
    EXPECT_TRUE(fs::is_empty(directory.Path()));
}

TEST(FileHelpersTest, WideDeleteFileReadsBytes) {
    const TempDirectory directory;
    MakeFile(directory.File("a"));
    std::vector<wchar_t> wide(directory.File("a").size() / sizeof(wchar_t) + 1);
    std::memcpy(wide.data(), directory.File("a").c_str(), directory.File("a").size() + 1);

    EXPECT_EQ(DeleteFile(wide.data()), 1);
    EXPECT_FALSE(fs::exists(directory.File("a")));
}

TEST(FileHelpersTest, DeleteFileOnADirectoryIsFalseAndLeavesIt) {
    const TempDirectory directory;
    fs::create_directory(directory.File("d"));

    EXPECT_EQ(DeleteFile(directory.File("d").c_str()), 0);
    EXPECT_TRUE(fs::is_directory(directory.File("d")));
}

TEST(FileHelpersTest, DeleteFileOfNullOrAMissingPathIsFalse) {
    const TempDirectory directory;

    EXPECT_EQ(DeleteFile(static_cast<const char*>(nullptr)), 0);
    EXPECT_EQ(DeleteFile(static_cast<const wchar_t*>(nullptr)), 0);
    EXPECT_EQ(DeleteFile(directory.File("missing").c_str()), 0);
}

TEST(FileHelpersTest, DeleteFileRemovesALinkAndNotItsTarget) {
    const TempDirectory directory;
    MakeFile(directory.File("target"));
    fs::create_symlink(directory.File("target"), directory.File("link"));

    EXPECT_EQ(DeleteFile(directory.File("link").c_str()), 1);
    EXPECT_FALSE(fs::exists(fs::symlink_status(directory.File("link"))));
    EXPECT_TRUE(fs::exists(directory.File("target")));
}

TEST(FileHelpersTest, DeleteFileThatTheSystemRefusesIsFalse) {
    EXPECT_EQ(DeleteFile("/proc/version"), 0);
}

// PathIsDirectory, PathIsDirectoryEmpty

TEST(FileHelpersTest, PathIsDirectoryTellsDirectoriesFromAllElse) {
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

TEST(FileHelpersTest, PathIsDirectoryEmptyLooksForEntries) {
    const TempDirectory directory;

    EXPECT_EQ(PathIsDirectoryEmpty(directory.Path().c_str()), 1);
    MakeFile(directory.File(".hidden"));
    EXPECT_EQ(PathIsDirectoryEmpty(directory.Path().c_str()), 0);
    EXPECT_EQ(PathIsDirectoryEmpty((directory.Path() + "/").c_str()), 0);
}

TEST(FileHelpersTest, PathIsDirectoryEmptyIsTrueForAMissingPath) {
    const TempDirectory directory;

    EXPECT_EQ(PathIsDirectoryEmpty(directory.File("missing").c_str()), 1);
    EXPECT_EQ(PathIsDirectoryEmpty(""), 1);
    EXPECT_EQ(PathIsDirectoryEmpty(nullptr), 1);
}

TEST(FileHelpersTest, PathIsDirectoryEmptyIsTrueForAFile) {
    const TempDirectory directory;
    MakeFile(directory.File("file"));

    EXPECT_EQ(PathIsDirectoryEmpty(directory.File("file").c_str()), 1);
}

// RemoveDirectory

TEST(FileHelpersTest, RemoveDirectoryRemovesEverythingInIt) {
    const TempDirectory directory;
    fs::create_directories(directory.File("d/e/f"));
    MakeFile(directory.File("d/a"));
    MakeFile(directory.File("d/e/b"));

    EXPECT_EQ(RemoveDirectory(directory.File("d/").c_str()), 1);
    EXPECT_TRUE(fs::is_empty(directory.Path()));
}

TEST(FileHelpersTest, RemoveDirectoryOnAFileIsFalseAndLeavesIt) {
    const TempDirectory directory;
    MakeFile(directory.File("file"), "kept");

    EXPECT_EQ(RemoveDirectory(directory.File("file").c_str()), 0);
    EXPECT_EQ(Contents(directory.File("file")), "kept");
}

TEST(FileHelpersTest, RemoveDirectoryOfNullOrAMissingPathIsFalse) {
    const TempDirectory directory;

    EXPECT_EQ(RemoveDirectory(nullptr), 0);
    EXPECT_EQ(RemoveDirectory(""), 0);
    EXPECT_EQ(RemoveDirectory(directory.File("missing").c_str()), 0);
}

TEST(FileHelpersTest, RemoveDirectoryFollowsNoLinkOutOfIt) {
    const TempDirectory directory;
    fs::create_directories(directory.File("outside"));
    MakeFile(directory.File("outside/kept"));
    fs::create_directory(directory.File("d"));
    fs::create_directory_symlink(directory.File("outside"), directory.File("d/link"));

    EXPECT_EQ(RemoveDirectory(directory.File("d").c_str()), 1);
    EXPECT_FALSE(fs::exists(directory.File("d")));
    EXPECT_TRUE(fs::exists(directory.File("outside/kept")));
}

TEST(FileHelpersTest, RemoveDirectoryRemovesALinkInItsPlaceAndNotTheTarget) {
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

TEST(FileHelpersTest, RemoveDirectoryOfTheRootIsFalse) {
    EXPECT_EQ(RemoveDirectory("/"), 0);
    EXPECT_EQ(RemoveDirectory("//"), 0);
    EXPECT_EQ(RemoveDirectory("/proc/.."), 0);
}

TEST(FileHelpersTest, RemoveDirectoryOfMoreLevelsThanFilesCanBeOpenIsFalse) {
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

TEST(FileHelpersTest, RemoveDirectoryOfAPathThatIsTooLongIsFalse) {
    EXPECT_EQ(RemoveDirectory(("/tmp" + std::string(5'000, '/')).c_str()), 0);
    EXPECT_EQ(RemoveDirectory(std::string(5'000, 'x').c_str()), 0);
}

TEST(FileHelpersTest, RemoveDirectoryThatTheSystemRefusesIsFalse) {
    EXPECT_EQ(RemoveDirectory("/proc/self/fdinfo"), 0);
}

}  // namespace
}  // namespace vorrel

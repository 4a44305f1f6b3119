#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/FileBytes.h"
#include "support/FileSizeLimit.h"
#include "writer/SaveThreadRig.h"

namespace vorrel {
namespace {

using test::CheckFields;
using test::FieldCheck;
using test::FileSizeLimit;
using test::Id;
using test::ReadBytes;
using test::SaveThreadTest;

/// Makes a directory the process's working directory.
class WorkingDirectory {
public:
    explicit WorkingDirectory(const std::string& path) : old(std::filesystem::current_path()) {
        std::filesystem::current_path(path);
    }
    ~WorkingDirectory() { std::filesystem::current_path(old); }
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;

private:
    const std::filesystem::path old;
};

class PreviewFileTest : public SaveThreadTest {
protected:
    /// Three stereo preview frames, and `more` frames of silence behind them.
    void MakePreview(std::size_t more) {
        ASSERT_TRUE(ranges.Reset());
        ranges.AddRecordEvent(0, kRecordEventRecord);
        ASSERT_EQ(preview.Init(2, 44'100, &ranges), VrSuccess);
        std::vector<std::int16_t> frames = {1, -1, 258, -32'768, 32'767, 0};
        frames.resize(frames.size() + 2 * more);
        ASSERT_EQ(preview.Add(frames), VrSuccess);
        ASSERT_EQ(thread.Start(nullptr, nullptr, &preview), VrSuccess);
        thread.WaitFinished();
    }

    RecordRangeManager ranges;
    PreviewData preview{manager};
};

TEST_F(PreviewFileTest, IsA16BitFileOfTheWholePreviewNamedAfterTheTime) {
    MakePreview(0);
    const WorkingDirectory inside(directory.Path());
    constexpr FieldCheck kPreview[] = {
        {0, 4, Id("RIFF"), "chunk id"},
        {4, 4, 12 + 36, "RIFF size"},
        {8, 4, Id("WAVE"), "form type"},
        {12, 4, Id("fmt "), "format chunk id"},
        {16, 4, 16, "format chunk size"},
        {20, 2, 1, "format tag"},
        {22, 2, 2, "channels"},
        {24, 4, 44'100, "sample rate"},
        {28, 4, 176'400, "byte rate"},
        {32, 2, 4, "block align"},
        {34, 2, 16, "bits per sample"},
        {36, 4, Id("data"), "data chunk id"},
        {40, 4, 12, "data size"},
        {44, 2, 1, "frame 0, left"},
        {46, 2, 65'535, "frame 0, right"},
        {48, 2, 258, "frame 1, left"},
        {50, 2, 32'768, "frame 1, right"},
        {52, 2, 32'767, "frame 2, left"},
        {54, 2, 0, "frame 2, right"},
    };

    EXPECT_EQ(thread.SavePreviewFile(), VrSuccess);

    const std::filesystem::directory_iterator first(directory.Path());
    ASSERT_NE(first, std::filesystem::directory_iterator());
    EXPECT_THAT(first->path().filename().string(),
                testing::MatchesRegex("[0-9]{8}_[0-9]{6}\\.wav"));
    CheckFields(ReadBytes(first->path().string()), kPreview);
}

TEST_F(PreviewFileTest, IsWrittenOverManyBlocks) {
    MakePreview(10'000);
    const WorkingDirectory inside(directory.Path());

    EXPECT_EQ(thread.SavePreviewFile(), VrSuccess);

    const std::filesystem::directory_iterator first(directory.Path());
    ASSERT_NE(first, std::filesystem::directory_iterator());
    EXPECT_EQ(std::filesystem::file_size(first->path()), 44U + 10'003 * 4);
}

TEST_F(PreviewFileTest, NeedsPreviewData) {
    const WorkingDirectory inside(directory.Path());

    EXPECT_EQ(thread.SavePreviewFile(), VrErrorFailed);

    EXPECT_TRUE(std::filesystem::is_empty(directory.Path()));
}

TEST_F(PreviewFileTest, IsNotGivenByASaveRequest) {
    MakePreview(0);
    MakeRecording(100);
    Save(List({}));
    const WorkingDirectory inside(directory.Path());

    EXPECT_EQ(thread.SavePreviewFile(), VrErrorFailed);
}

TEST_F(PreviewFileTest, FailsWhereItCannotBeOpened) {
    MakePreview(0);
    std::filesystem::create_directory(directory.File("gone"));
    const WorkingDirectory inside(directory.File("gone"));
    std::filesystem::remove(directory.File("gone"));

    EXPECT_EQ(thread.SavePreviewFile(), VrErrorFailed);
}

TEST_F(PreviewFileTest, OfAnEmptyPreviewIsAHeader) {
    ASSERT_EQ(thread.Start(nullptr, nullptr, &preview), VrSuccess);
    thread.WaitFinished();
    const WorkingDirectory inside(directory.Path());

    EXPECT_EQ(thread.SavePreviewFile(), VrSuccess);

    const std::filesystem::directory_iterator first(directory.Path());
    ASSERT_NE(first, std::filesystem::directory_iterator());
    EXPECT_EQ(std::filesystem::file_size(first->path()), 44U);
}

TEST_F(PreviewFileTest, FailsWhereThePreviewCannotBeRead) {
    MakePreview(2'000'000);  // 8 MB: more than stays in memory
    ASSERT_FALSE(std::filesystem::is_empty(spill.Path()));
    for (const auto& entry : std::filesystem::directory_iterator(spill.Path())) {
        std::filesystem::resize_file(entry.path(), 0);
    }
    const WorkingDirectory inside(directory.Path());

    EXPECT_EQ(thread.SavePreviewFile(), VrErrorFailed);
}

TEST_F(PreviewFileTest, FailsWhereItCannotBeWritten) {
    MakePreview(600'000);  // 2.4 MB: more than the stream buffers
    const WorkingDirectory inside(directory.Path());
    const FileSizeLimit limit(500'000);

    EXPECT_EQ(thread.SavePreviewFile(), VrErrorFailed);

    const std::filesystem::directory_iterator first(directory.Path());
    ASSERT_NE(first, std::filesystem::directory_iterator());
    EXPECT_EQ(std::filesystem::file_size(first->path()), 500'000U);
}

}  // namespace
}  // namespace vorrel

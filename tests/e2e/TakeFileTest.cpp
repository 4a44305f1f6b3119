#include "TakeFile.h"

#include <gtest/gtest.h>

#include <fstream>

#include "support/DsfBytes.h"
#include "support/TempDirectory.h"

namespace vorrel::e2e {
namespace {

using test::Bytes;

class TakeFileTest : public testing::Test {
protected:
    std::optional<TakeFile> Read(const Bytes& bytes) {
        std::ofstream file(directory.File("take"), std::ios::binary);
        for (const std::uint8_t byte : bytes) {
            file.put(static_cast<char>(byte));
        }
        file.close();
        return ReadTake(directory.File("take"));
    }

    /// 48 kHz, two channels, with an odd chunk before the format.
    static Bytes Wav(std::uint8_t bits, const Bytes& data) {
        Bytes bytes = test::ToBytes("RIFF....WAVEjunk");
        const auto append = [&bytes](const Bytes& more) {
            bytes.insert(bytes.end(), more.begin(), more.end());
        };
        append({3, 0, 0, 0, 'a', 'b', 'c', 0});
        append(test::ToBytes("fmt "));
        append({16, 0, 0, 0, 1, 0, 2, 0, 0x80, 0xBB, 0, 0});
        append({0, 0, 0, 0, static_cast<std::uint8_t>(bits / 4), 0, bits, 0});
        append(test::ToBytes("data"));
        append({static_cast<std::uint8_t>(data.size()), 0, 0, 0});
        append(data);
        return bytes;
    }

    test::TempDirectory directory;
};

TEST_F(TakeFileTest, ReadsSixteenBits) {
    const auto take = Read(Wav(16, {0x01, 0x02, 0xFF, 0xFE}));

    ASSERT_TRUE(take);
    EXPECT_EQ(take->rateHz, 48'000U);
    EXPECT_EQ(take->bits, 16U);
    EXPECT_EQ(take->patternBits, 16U);
    EXPECT_EQ(take->frames, (std::vector<Frame>{{0x0201, 0xFEFF}}));
}

TEST_F(TakeFileTest, ReadsTwentyFourBits) {
    const auto take = Read(Wav(24, {1, 2, 3, 4, 5, 6}));

    ASSERT_TRUE(take);
    EXPECT_EQ(take->frames, (std::vector<Frame>{{0x03'0201, 0x06'0504}}));
}

TEST_F(TakeFileTest, OfThirtyTwoBitsTheLowestEightHaveToBeZero) {
    const auto take = Read(Wav(32, {0, 2, 3, 4, 1, 5, 6, 7}));

    ASSERT_TRUE(take);
    EXPECT_EQ(take->patternBits, 24U);
    EXPECT_EQ(take->frames[0][0], 0x04'0302U);
    EXPECT_GT(take->frames[0][1], 0xFF'FFFFU);
}

TEST_F(TakeFileTest, ReadsWordsOfDsdInTheirOrderInTime) {
    test::DsfBytes file;
    file.channels = {{0x2C, 0x48}, {0x01, 0x80}};  // the earliest sample is bit 0

    const auto take = Read(file.Make());

    ASSERT_TRUE(take);
    EXPECT_EQ(take->mode, StreamMode::Dsd);
    EXPECT_EQ(take->rateHz, 2'822'400U);
    EXPECT_EQ(take->frames, (std::vector<Frame>{{0x1234, 0x0180}}));
}

TEST_F(TakeFileTest, ReadsDsdAcrossItsBlocks) {
    test::DsfBytes file;
    file.channels = {Bytes(4'098, 0x80), Bytes(4'098, 0x01)};
    file.channels[0][4'096] = 0xFF;

    const auto take = Read(file.Make());

    ASSERT_TRUE(take);
    ASSERT_EQ(take->frames.size(), 2'049U);
    EXPECT_EQ(take->frames[2'047], (Frame{0x0101, 0x8080}));
    EXPECT_EQ(take->frames[2'048], (Frame{0x01FF, 0x8080}));
}

TEST_F(TakeFileTest, APartOfAWordIsLeftOut) {
    test::DsfBytes file;
    file.channels = {Bytes(4, 0x69), Bytes(4, 0x69)};
    file.samples = 24;

    const auto take = Read(file.Make());

    ASSERT_TRUE(take);
    EXPECT_EQ(take->frames.size(), 1U);
}

TEST_F(TakeFileTest, RefusesWhatIsNoTake) {
    EXPECT_FALSE(Read({}));
    EXPECT_FALSE(Read(test::ToBytes("something else altogether")));
    EXPECT_FALSE(Read(Wav(8, {1, 2})));
    EXPECT_FALSE(ReadTake(directory.File("missing")));
    Bytes cut = test::DsfBytes{.channels = {Bytes(8, 0), Bytes(8, 0)}}.Make();
    cut.resize(1'000);
    EXPECT_FALSE(Read(cut));
}

}  // namespace
}  // namespace vorrel::e2e

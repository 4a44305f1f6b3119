#include "RecorderControl.h"

#include <gtest/gtest.h>

namespace vorrel::e2e {
namespace {

class RecorderControlTest : public testing::Test {
protected:
    std::optional<ByteVector> Get(std::uint8_t type, std::uint8_t request, std::uint16_t value,
                                  std::uint16_t index, std::uint16_t length = 512) {
        return control.Transfer({type, request, value, index, length}, {});
    }
    bool Set(std::uint8_t type, std::uint8_t request, std::uint16_t value, std::uint16_t index) {
        return control.Transfer({type, request, value, index, 0}, {}).has_value();
    }
    bool SetRate(std::uint32_t rateHz) {
        ByteVector data;
        AppendNumber(data, rateHz, 4);
        return control.Transfer({0x21, 1, 0x0100, 0x0100, 4}, data).has_value();
    }
    bool SetMode(std::uint16_t value) { return Set(0x41, 0, value, kStreamingInterface); }
    bool SetSetting(std::uint16_t setting) { return Set(0x01, 11, setting, kStreamingInterface); }

    RecorderControl control{RecorderModel{}};
};

TEST_F(RecorderControlTest, ADescriptorIsCutToTheLengthThatIsAskedFor) {
    EXPECT_EQ(Get(0x80, 6, 0x0100, 0, 8)->size(), 8U);
    EXPECT_EQ(Get(0x80, 6, 0x0100, 0, 64)->size(), 18U);
    EXPECT_EQ(Get(0x80, 6, 0x0200, 0, 9)->size(), 9U);
}

TEST_F(RecorderControlTest, TheClockTellsItsRatesOneByOne) {
    const std::optional<ByteVector> ranges = Get(0xA1, 2, 0x0100, 0x0100);

    ASSERT_TRUE(ranges);
    ASSERT_EQ(ranges->size(), 2U + 9 * 12);
    EXPECT_EQ((*ranges)[0], 9);
    // 44,100 = 0xAC44, from and to, in steps of 0
    EXPECT_EQ(ByteVector(ranges->begin() + 2, ranges->begin() + 14),
              (ByteVector{0x44, 0xAC, 0, 0, 0x44, 0xAC, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(Get(0xA1, 2, 0x0100, 0x0100, 2), (ByteVector{9, 0}));
}

TEST_F(RecorderControlTest, TheClockKeepsTheRateThatIsSet) {
    EXPECT_TRUE(SetRate(192'000));  // 0x2EE00

    EXPECT_EQ(control.RateHz(), 192'000U);
    EXPECT_EQ(Get(0xA1, 1, 0x0100, 0x0100), (ByteVector{0x00, 0xEE, 0x02, 0x00}));
    EXPECT_EQ(Get(0xA1, 1, 0x0200, 0x0100), (ByteVector{1})) << "the clock is valid";
}

TEST_F(RecorderControlTest, EachModeHasItsRates) {
    EXPECT_FALSE(SetRate(32'000));
    EXPECT_FALSE(SetRate(705'600));
    EXPECT_TRUE(SetRate(176'400));
    ASSERT_TRUE(SetMode(1));
    EXPECT_FALSE(SetRate(192'000));
    EXPECT_TRUE(SetRate(705'600));

    EXPECT_EQ(control.RateHz(), 705'600U);
}

TEST_F(RecorderControlTest, TheVendorRequestSwitchesTheMode) {
    EXPECT_EQ(control.Mode(), StreamMode::Pcm);
    EXPECT_TRUE(SetMode(1));
    EXPECT_EQ(control.Mode(), StreamMode::Dsd);
    EXPECT_TRUE(SetMode(0));
    EXPECT_EQ(control.Mode(), StreamMode::Pcm);
}

TEST_F(RecorderControlTest, AnyOtherVendorRequestIsStalled) {
    EXPECT_FALSE(SetMode(2));
    EXPECT_FALSE(Set(0x41, 1, 1, kStreamingInterface));
    EXPECT_FALSE(Set(0x41, 0, 1, kControlInterface));
    EXPECT_FALSE(Set(0x40, 0, 1, kStreamingInterface));
    EXPECT_FALSE(control.Transfer({0x41, 0, 1, kStreamingInterface, 2}, ByteVector{0, 0}));

    EXPECT_EQ(control.Mode(), StreamMode::Pcm);
}

TEST_F(RecorderControlTest, SettingsChooseTheFormat) {
    EXPECT_EQ(control.Format(), nullptr);
    EXPECT_TRUE(SetSetting(3));
    ASSERT_NE(control.Format(), nullptr);
    EXPECT_EQ(control.Format()->bits, 32U);
    EXPECT_EQ(Get(0x81, 10, 0, kStreamingInterface, 1), (ByteVector{3}));
    EXPECT_FALSE(SetSetting(4));
    EXPECT_TRUE(SetSetting(0));

    EXPECT_EQ(control.Format(), nullptr);
}

TEST_F(RecorderControlTest, DsdWordsHaveSixteenBits) {
    ASSERT_TRUE(SetMode(1));

    EXPECT_TRUE(SetSetting(1));
    EXPECT_FALSE(SetSetting(2));
    EXPECT_FALSE(SetSetting(3));
}

TEST_F(RecorderControlTest, EveryChangeMakesANewStream) {
    const std::uint64_t before = control.Generation();
    EXPECT_TRUE(SetSetting(1));
    EXPECT_TRUE(SetRate(96'000));
    EXPECT_TRUE(SetMode(1));
    EXPECT_FALSE(SetMode(9));
    EXPECT_TRUE(Get(0x80, 6, 0x0100, 0).has_value());

    EXPECT_EQ(control.Generation(), before + 3);
}

TEST_F(RecorderControlTest, UnknownRequestsAreStalled) {
    EXPECT_FALSE(Get(0x80, 6, 0x0600, 0)) << "the device has one speed only";
    EXPECT_FALSE(Get(0x80, 0x33, 0, 0));
    EXPECT_FALSE(Get(0xA1, 1, 0x0100, 0x0200)) << "no entity but the clock answers";
    EXPECT_FALSE(Get(0xC0, 0, 0, 0));
}

}  // namespace
}  // namespace vorrel::e2e

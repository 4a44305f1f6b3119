#include "convert/BitReversal.h"

#include <gtest/gtest.h>

#include <vector>

#include "convert/KernelSets.h"
#include "convert/PlainGain.h"

namespace vorrel {
namespace {

using test::GuardedBytes;

TEST(BitReversalTest, TheTableReversesTheBitsOfAByte) {
    EXPECT_EQ(m_br[0x01], 0x80);
    EXPECT_EQ(m_br[0xF0], 0x0F);
    EXPECT_EQ(m_br[0x00], 0x00);
    EXPECT_EQ(m_br[0xFF], 0xFF);
    EXPECT_EQ(m_br[0x12], 0x48);
    EXPECT_EQ(m_br[0x34], 0x2C);
}

TEST(BitReversalTest, TheTableTurnedTwiceIsTheByteItself) {
    for (unsigned value = 0; value < 256; ++value) {
        EXPECT_EQ(m_br[m_br[value]], value);
    }
}

TEST(BitReversalTest, EveryLengthAndPlaceIsReversedAndNothingBeside) {
    for (std::size_t length = 0; length <= 300; ++length) {
        const std::vector<std::uint8_t> bytes =
            test::RandomBits(length, static_cast<std::uint32_t>(length + 1));
        GuardedBytes place(length, length % 64);
        std::copy(bytes.begin(), bytes.end(), place.data());

        ReverseBits(place.data(), length);

        const std::vector<std::uint8_t> reversed = place.Contents();
        for (std::size_t i = 0; i < length; ++i) {
            ASSERT_EQ(reversed[i], m_br[bytes[i]]) << i << " of " << length;
        }
        ASSERT_TRUE(place.Intact()) << length;
    }
}

}  // namespace
}  // namespace vorrel

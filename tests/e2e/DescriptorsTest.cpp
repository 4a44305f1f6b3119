#include "Descriptors.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <span>

namespace vorrel::e2e {
namespace {

using Descriptor = std::span<const std::uint8_t>;

/// The descriptors in a row; fails where a length leads nowhere.
std::vector<Descriptor> Split(const ByteVector& bytes) {
    std::vector<Descriptor> descriptors;
    for (std::size_t offset = 0; offset < bytes.size();) {
        const std::size_t length = bytes[offset];
        if (length < 2 || offset + length > bytes.size()) {
            ADD_FAILURE() << "length " << length << " at " << offset;
            break;
        }
        descriptors.push_back(Descriptor(bytes).subspan(offset, length));
        offset += length;
    }
    return descriptors;
}

std::uint32_t WordAt(Descriptor descriptor, std::size_t offset) {
    return static_cast<std::uint32_t>(descriptor[offset] | descriptor[offset + 1] << 8);
}

TEST(DescriptorsTest, TheDeviceIsTheSupportedModel) {
    RecorderModel model;
    model.vendorId = 0x6666;
    model.productId = 0x0770;

    EXPECT_EQ(DeviceDescriptor(model),
              (ByteVector{18, 1, 0, 2, 0xEF, 2, 1, 64, 0x66, 0x66, 0x70, 0x07, 0, 1, 1, 2, 3, 1}));
    EXPECT_EQ(model.product, "KD-WV770");
}

TEST(DescriptorsTest, TheLengthsAreConsistent) {
    RecorderModel model;
    model.formats = {{16, 2}, {24, 3}, {24, 4}, {32, 4}};
    const ByteVector bytes = ConfigurationDescriptor(model);

    // Configuration 9, association 8, control interface 9 + (9 + 8 + 17 + 12), setting 0: 9, and
    // each format 9 + 16 + 6 + 7 + 8.
    EXPECT_EQ(bytes.size(), 9U + 8 + 9 + 46 + 9 + 4 * 46);
    EXPECT_EQ(WordAt(bytes, 2), bytes.size());
    const std::vector<Descriptor> all = Split(bytes);
    EXPECT_EQ(all.size(), 2U + 5 + 1 + 4 * 5);
    EXPECT_EQ(WordAt(all[3], 6), 46U) << "length of the control interface's class descriptors";
}

TEST(DescriptorsTest, EverySettingHasItsWidthAndRoomForTheFastestRate) {
    const RecorderModel model;
    struct Setting {
        unsigned bytes;
        unsigned bits;
        unsigned packetBytes;
    };
    std::vector<Setting> settings;
    const ByteVector bytes = ConfigurationDescriptor(model);
    for (const Descriptor descriptor : Split(bytes)) {
        if (descriptor[1] == 0x24 && descriptor.size() == 6) {
            settings.push_back({descriptor[4], descriptor[5], 0});
        } else if (descriptor[1] == 5) {
            ASSERT_FALSE(settings.empty());
            settings.back().packetBytes = WordAt(descriptor, 4);
            EXPECT_EQ(descriptor[2], 0x81);
            EXPECT_EQ(descriptor[3], 5);
        }
    }

    ASSERT_EQ(settings.size(), 3U);
    // 705,600 Hz are 88.2 frames a packet: 89, and one more.
    EXPECT_EQ(settings[0].bytes, 2U);
    EXPECT_EQ(settings[0].bits, 16U);
    EXPECT_EQ(settings[0].packetBytes, 360U);
    EXPECT_EQ(settings[1].bytes, 3U);
    EXPECT_EQ(settings[1].bits, 24U);
    EXPECT_EQ(settings[1].packetBytes, 540U);
    EXPECT_EQ(settings[2].bytes, 4U);
    EXPECT_EQ(settings[2].bits, 32U);
    EXPECT_EQ(settings[2].packetBytes, 720U);
}

TEST(DescriptorsTest, TheTextsAreThere) {
    RecorderModel model;
    model.product = "AB";

    EXPECT_EQ(StringDescriptor(model, 0), (ByteVector{4, 3, 0x09, 0x04}));
    EXPECT_EQ(StringDescriptor(model, 2), (ByteVector{6, 3, 'A', 0, 'B', 0}));
    EXPECT_TRUE(StringDescriptor(model, 3).has_value());
    EXPECT_FALSE(StringDescriptor(model, 4).has_value());
}

}  // namespace
}  // namespace vorrel::e2e

#include "convert/SampleTypeInfo.h"

#include <gtest/gtest.h>

#include <limits>

#include "convert/DsdToPcm.h"
#include "convert/PcmConverters.h"

namespace vorrel {
namespace {

TEST(SampleTypeInfoTest, IdZeroIsPcmAsNativeFloatsWithAllConverters) {
    const SampleTypeInfo* info = GetSampleTypeInfo(0);

    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->type, 0);
    EXPECT_EQ(info->toPreview, static_cast<PreviewConverter>(&Float32_To_Int16LSB<false>));
    EXPECT_EQ(info->toInt16, static_cast<SampleConverter>(&Float32_To_Int16LSB<false>));
    EXPECT_EQ(info->toInt24, &Float32_To_Int24LSB<false>);
    EXPECT_EQ(info->toInt32, &Float32_To_Int32LSB<false>);
    EXPECT_EQ(info->toFloat32, &Float32_To_Float32LSB<false>);
    EXPECT_EQ(info->bits, 32);
    EXPECT_EQ(info->padBits, 0);
    EXPECT_EQ(info->isDsd, 0);
    EXPECT_EQ(info->isFloat, 1);
    EXPECT_EQ(info->msbFirst, 0);
}

TEST(SampleTypeInfoTest, IdOneIsDsdMostSignificantBitFirstWithAPreviewConverterOnly) {
    const SampleTypeInfo* info = GetSampleTypeInfo(1);

    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->type, 1);
    EXPECT_EQ(info->toPreview, &DSD_To_Int16LSB<true>);
    EXPECT_EQ(info->toInt16, nullptr);
    EXPECT_EQ(info->toInt24, nullptr);
    EXPECT_EQ(info->toInt32, nullptr);
    EXPECT_EQ(info->toFloat32, nullptr);
    EXPECT_EQ(info->bits, 1);
    EXPECT_EQ(info->padBits, 0);
    EXPECT_EQ(info->isDsd, 1);
    EXPECT_EQ(info->isFloat, 0);
    EXPECT_EQ(info->msbFirst, 1);
}

TEST(SampleTypeInfoTest, EveryOtherIdGivesNull) {
    for (const std::int64_t id :
         {std::int64_t{2}, std::int64_t{-1}, std::int64_t{3}, std::int64_t{0x1'0000'0000},
          std::int64_t{0x1'0000'0001}, std::numeric_limits<std::int64_t>::min(),
          std::numeric_limits<std::int64_t>::max()}) {
        EXPECT_EQ(GetSampleTypeInfo(id), nullptr) << id;
    }
}

TEST(SampleTypeInfoTest, TheSameRecordComesEachTime) {
    EXPECT_EQ(GetSampleTypeInfo(0), GetSampleTypeInfo(0));
    EXPECT_NE(GetSampleTypeInfo(0), GetSampleTypeInfo(1));
}

}  // namespace
}  // namespace vorrel

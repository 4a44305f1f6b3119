#include <gtest/gtest.h>

#include <algorithm>
#include <cfenv>
#include <cstring>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

#include "convert/KernelSets.h"
#include "convert/PcmConverters.h"
#include "convert/SampleTypeInfo.h"

namespace vorrel {
namespace {

using test::GuardedBytes;
using test::PlacedBytes;
using Bytes = std::vector<std::uint8_t>;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double k16 = 32768.0;
constexpr double k24 = 8388608.0;
constexpr double k32 = 2147483648.0;

/// A sample format: how a value stands in memory, little-endian.
enum class Format { kInt16, kInt24, kInt32, kFloat32, kFloat64 };

Bytes Encode(Format format, double value) {
    Bytes bytes;
    if (format == Format::kFloat32) {
        const auto single = static_cast<float>(value);
        bytes.resize(sizeof single);
        std::memcpy(bytes.data(), &single, sizeof single);
    } else if (format == Format::kFloat64) {
        bytes.resize(sizeof value);
        std::memcpy(bytes.data(), &value, sizeof value);
    } else {
        const std::size_t width = format == Format::kInt16 ? 2 : format == Format::kInt24 ? 3 : 4;
        auto rest = static_cast<std::int64_t>(value);
        for (std::size_t i = 0; i < width; ++i) {
            bytes.push_back(static_cast<std::uint8_t>(rest & 0xFF));
            rest >>= 8;
        }
    }
    return bytes;
}

template <class Converter>
struct BothOrders {
    Converter little = nullptr;
    Converter big = nullptr;
};

/// A member of the family, what it makes of known values, and its twin where it has one.
struct Member {
    std::string name;
    Format source;
    Format target;
    BothOrders<SampleConverter> converters;
    std::vector<double> from;
    std::vector<double> to;
    BothOrders<PreviewConverter> twins{};
};

void PrintTo(const Member& member, std::ostream* stream) {
    *stream << member.name;
}

/// All members that do something, with values worked out by hand.
const std::vector<Member>& Members() {
    static const std::vector<Member> members = {
        {"Int16ToInt16",
         Format::kInt16,
         Format::kInt16,
         {&Int16_To_Int16LSB<false>, &Int16_To_Int16LSB<true>},
         {-32768, -32767, -256, -1, 0, 1, 255, 16384, 32767},
         {-32768, -32767, -256, -1, 0, 1, 255, 16384, 32767},
         {&Int16_To_Int16LSB<false>, &Int16_To_Int16LSB<true>}},
        {"Int24ToInt16",
         Format::kInt24,
         Format::kInt16,
         {&Int24_To_Int16LSB<false>, &Int24_To_Int16LSB<true>},
         {-8388608, -257, -256, -1, 0, 1, 255, 256, 4194304, 8388607},
         {-32768, -2, -1, -1, 0, 0, 0, 1, 16384, 32767},
         {&Int24_To_Int16LSB<false>, &Int24_To_Int16LSB<true>}},
        {"Int32With16BitsToInt16",
         Format::kInt32,
         Format::kInt16,
         {&Int32_To_Int16LSB<false, 16>, &Int32_To_Int16LSB<true, 16>},
         {-32768, -1, 0, 1, 16384, 32767},
         {-32768, -1, 0, 1, 16384, 32767},
         {&Int32_To_Int16LSB<false, 16>, &Int32_To_Int16LSB<true, 16>}},
        {"Int32With18BitsToInt16",
         Format::kInt32,
         Format::kInt16,
         {&Int32_To_Int16LSB<false, 18>, &Int32_To_Int16LSB<true, 18>},
         {-131072, -5, -1, 0, 1, 3, 4, 65536, 131071},
         {-32768, -2, -1, 0, 0, 0, 1, 16384, 32767},
         {&Int32_To_Int16LSB<false, 18>, &Int32_To_Int16LSB<true, 18>}},
        {"Int32With20BitsToInt16",
         Format::kInt32,
         Format::kInt16,
         {&Int32_To_Int16LSB<false, 20>, &Int32_To_Int16LSB<true, 20>},
         {-524288, -17, -1, 0, 1, 15, 16, 262144, 524287},
         {-32768, -2, -1, 0, 0, 0, 1, 16384, 32767},
         {&Int32_To_Int16LSB<false, 20>, &Int32_To_Int16LSB<true, 20>}},
        {"Int32With24BitsToInt16",
         Format::kInt32,
         Format::kInt16,
         {&Int32_To_Int16LSB<false, 24>, &Int32_To_Int16LSB<true, 24>},
         {-8388608, -257, -1, 0, 1, 255, 256, 4194304, 8388607},
         {-32768, -2, -1, 0, 0, 0, 1, 16384, 32767},
         {&Int32_To_Int16LSB<false, 24>, &Int32_To_Int16LSB<true, 24>}},
        {"Int32With32BitsToInt16",
         Format::kInt32,
         Format::kInt16,
         {&Int32_To_Int16LSB<false, 32>, &Int32_To_Int16LSB<true, 32>},
         {-2147483648, -65537, -1, 0, 1, 65535, 65536, 1073741824, 2147483647},
         {-32768, -2, -1, 0, 0, 0, 1, 16384, 32767},
         {&Int32_To_Int16LSB<false, 32>, &Int32_To_Int16LSB<true, 32>}},
        {"Float32ToInt16",
         Format::kFloat32,
         Format::kInt16,
         {&Float32_To_Int16LSB<false>, &Float32_To_Int16LSB<true>},
         {-1.0,      -1.0 / k16, 0.0,        1.0 / k16,  0.5,        32767.0 / k16, 1.0,
          1.5,       -1.5,       3e38,       -3e38,      kInfinity,  -kInfinity,    kNan,
          0.5 / k16, 1.5 / k16,  -0.5 / k16, -2.5 / k16, 0.75 / k16, 32766.5 / k16, 32767.5 / k16},
         {-32768, -1,     0, 1, 16384, 32767, 32767, 32767, -32768, 32767, -32768,
          32767,  -32768, 0, 0, 2,     0,     -2,    1,     32766,  32767},
         {&Float32_To_Int16LSB<false>, &Float32_To_Int16LSB<true>}},
        {"Float64ToInt16",
         Format::kFloat64,
         Format::kInt16,
         {&Float64_To_Int16LSB<false>, &Float64_To_Int16LSB<true>},
         {-1.0,          -1.0 / k16,
          0.0,           1.0 / k16,
          0.5,           32767.0 / k16,
          1.0,           1.5,
          -1.5,          3e38,
          -3e38,         kInfinity,
          -kInfinity,    kNan,
          0.5 / k16,     1.5 / k16,
          -0.5 / k16,    -2.5 / k16,
          0.75 / k16,    32766.5 / k16,
          32767.5 / k16, 0.50000000001 / k16,
          1e300,         -1e300},
         {-32768, -1, 0, 1, 16384, 32767, 32767, 32767, -32768, 32767, -32768, 32767,
          -32768, 0,  0, 2, 0,     -2,    1,     32766, 32767,  1,     32767,  -32768},
         {&Float64_To_Int16LSB<false>, &Float64_To_Int16LSB<true>}},
        {"Int16ToInt24",
         Format::kInt16,
         Format::kInt24,
         {&Int16_To_Int24LSB<false>, &Int16_To_Int24LSB<true>},
         {-32768, -1, 0, 1, 16384, 32767},
         {-8388608, -256, 0, 256, 4194304, 8388352}},
        {"Int24ToInt24",
         Format::kInt24,
         Format::kInt24,
         {&Int24_To_Int24LSB<false>, &Int24_To_Int24LSB<true>},
         {-8388608, -65536, -1, 0, 1, 256, 4194304, 8388607},
         {-8388608, -65536, -1, 0, 1, 256, 4194304, 8388607}},
        {"Int32With16BitsToInt24",
         Format::kInt32,
         Format::kInt24,
         {&Int32_To_Int24LSB<false, 16>, &Int32_To_Int24LSB<true, 16>},
         {-32768, -1, 0, 1, 16384, 32767, 32768, 40000, -40000},
         {-8388608, -256, 0, 256, 4194304, 8388352, -8388608, -6537216, 6537216}},
        {"Int32With18BitsToInt24",
         Format::kInt32,
         Format::kInt24,
         {&Int32_To_Int24LSB<false, 18>, &Int32_To_Int24LSB<true, 18>},
         {-131072, -1, 0, 1, 65536, 131071, 131072, -131073},
         {-8388608, -64, 0, 64, 4194304, 8388544, -8388608, 8388544}},
        {"Int32With20BitsToInt24",
         Format::kInt32,
         Format::kInt24,
         {&Int32_To_Int24LSB<false, 20>, &Int32_To_Int24LSB<true, 20>},
         {-524288, -1, 0, 1, 262144, 524287, 524288, -524289},
         {-8388608, -16, 0, 16, 4194304, 8388592, -8388608, 8388592}},
        {"Int32With24BitsToInt24",
         Format::kInt32,
         Format::kInt24,
         {&Int32_To_Int24LSB<false, 24>, &Int32_To_Int24LSB<true, 24>},
         {-8388608, -1, 0, 1, 4194304, 8388607, 8388608, -8388609, 16777216},
         {-8388608, -1, 0, 1, 4194304, 8388607, -8388608, 8388607, 0}},
        {"Int32With32BitsToInt24",
         Format::kInt32,
         Format::kInt24,
         {&Int32_To_Int24LSB<false, 32>, &Int32_To_Int24LSB<true, 32>},
         {-2147483648, -257, -1, 0, 1, 255, 256, 1073741824, 2147483647},
         {-8388608, -2, -1, 0, 0, 0, 1, 4194304, 8388607}},
        {"Float32ToInt24",
         Format::kFloat32,
         Format::kInt24,
         {&Float32_To_Int24LSB<false>, &Float32_To_Int24LSB<true>},
         {-1.0,       -1.0 / k24, 0.0,        1.0 / k24, 0.5,         8388607.0 / k24,
          1.0,        1.5,        -1.5,       3e38,      -3e38,       kInfinity,
          -kInfinity, kNan,       0.99 / k24, 1.5 / k24, -0.99 / k24, -1.99 / k24,
          0.99999994, 2.0},
         {-8388608, -1,      0,        1, 4194304, 8388607, 8388607, 8388607, -8388608, 8388607,
          -8388608, 8388607, -8388608, 0, 0,       1,       0,       -1,      8388607,  8388607}},
        {"Float64ToInt24",
         Format::kFloat64,
         Format::kInt24,
         {&Float64_To_Int24LSB<false>, &Float64_To_Int24LSB<true>},
         {-1.0,
          -1.0 / k24,
          0.0,
          1.0 / k24,
          0.5,
          8388607.0 / k24,
          1.0,
          1.5,
          -1.5,
          3e38,
          -3e38,
          kInfinity,
          -kInfinity,
          kNan,
          0.99 / k24,
          1.5 / k24,
          -0.99 / k24,
          -1.99 / k24,
          8388606.9999 / k24,
          0.99999999999,
          2.0,
          1e300,
          -1e300},
         {-8388608, -1,      0,        1,       4194304,  8388607, 8388607, 8388607,
          -8388608, 8388607, -8388608, 8388607, -8388608, 0,       0,       1,
          0,        -1,      8388606,  8388607, 8388607,  8388607, -8388608}},
        {"Int16ToInt32",
         Format::kInt16,
         Format::kInt32,
         {&Int16_To_Int32LSB<false>, &Int16_To_Int32LSB<true>},
         {-32768, -1, 0, 1, 16384, 32767},
         {-2147483648, -65536, 0, 65536, 1073741824, 2147418112}},
        {"Int24ToInt32",
         Format::kInt24,
         Format::kInt32,
         {&Int24_To_Int32LSB<false>, &Int24_To_Int32LSB<true>},
         {-8388608, -1, 0, 1, 4194304, 8388607},
         {-2147483648, -256, 0, 256, 1073741824, 2147483392}},
        {"Int32With16BitsToInt32",
         Format::kInt32,
         Format::kInt32,
         {&Int32_To_Int32LSB<false, 16>, &Int32_To_Int32LSB<true, 16>},
         {-32768, -1, 0, 1, 16384, 32767, 32768, 40000},
         {-2147483648, -65536, 0, 65536, 1073741824, 2147418112, -2147483648, -1673527296}},
        {"Int32With18BitsToInt32",
         Format::kInt32,
         Format::kInt32,
         {&Int32_To_Int32LSB<false, 18>, &Int32_To_Int32LSB<true, 18>},
         {-131072, -1, 0, 1, 65536, 131071, 131072, -131073},
         {-2147483648, -16384, 0, 16384, 1073741824, 2147467264, -2147483648, 2147467264}},
        {"Int32With20BitsToInt32",
         Format::kInt32,
         Format::kInt32,
         {&Int32_To_Int32LSB<false, 20>, &Int32_To_Int32LSB<true, 20>},
         {-524288, -1, 0, 1, 262144, 524287, 524288, -524289},
         {-2147483648, -4096, 0, 4096, 1073741824, 2147479552, -2147483648, 2147479552}},
        {"Int32With24BitsToInt32",
         Format::kInt32,
         Format::kInt32,
         {&Int32_To_Int32LSB<false, 24>, &Int32_To_Int32LSB<true, 24>},
         {-8388608, -1, 0, 1, 4194304, 8388607, 8388608, -8388609},
         {-2147483648, -256, 0, 256, 1073741824, 2147483392, -2147483648, 2147483392}},
        {"Int32With32BitsToInt32",
         Format::kInt32,
         Format::kInt32,
         {&Int32_To_Int32LSB<false, 32>, &Int32_To_Int32LSB<true, 32>},
         {-2147483648, -1, 0, 1, 65536, 1073741824, 2147483647},
         {-2147483648, -1, 0, 1, 65536, 1073741824, 2147483647}},
        {"Float32ToInt32",
         Format::kFloat32,
         Format::kInt32,
         {&Float32_To_Int32LSB<false>, &Float32_To_Int32LSB<true>},
         {-1.0, -1.0 / k32, 0.0, 1.0 / k32, 0.5, 2147483520.0 / k32, 1.0, 1.5, -1.5, 3e38, -3e38,
          kInfinity, -kInfinity, kNan, 0.5 / k32, 1.5 / k32, -0.5 / k32, -2.5 / k32, 0.75 / k32},
         {-2147483648, -1, 0, 1, 1073741824, 2147483520, 2147483647, 2147483647, -2147483648,
          2147483647, -2147483648, 2147483647, -2147483648, 0, 0, 2, 0, -2, 1}},
        {"Float64ToInt32",
         Format::kFloat64,
         Format::kInt32,
         {&Float64_To_Int32LSB<false>, &Float64_To_Int32LSB<true>},
         {-1.0,
          -1.0 / k32,
          0.0,
          1.0 / k32,
          0.5,
          2147483647.0 / k32,
          1.0,
          1.5,
          -1.5,
          3e38,
          -3e38,
          kInfinity,
          -kInfinity,
          kNan,
          0.5 / k32,
          1.5 / k32,
          -0.5 / k32,
          -2.5 / k32,
          0.75 / k32,
          2147483646.5 / k32,
          2147483647.5 / k32,
          -2147483647.5 / k32,
          -2147483649.0 / k32,
          1e300,
          -1e300},
         {-2147483648, -1,          0,          1,           1073741824, 2147483647,  2147483647,
          2147483647,  -2147483648, 2147483647, -2147483648, 2147483647, -2147483648, 0,
          0,           2,           0,          -2,          1,          2147483646,  2147483647,
          -2147483648, -2147483648, 2147483647, -2147483648}},
        {"Int16ToFloat32",
         Format::kInt16,
         Format::kFloat32,
         {&Int16_To_Float32LSB<false>, &Int16_To_Float32LSB<true>},
         {-32768, -1, 0, 1, 16384, 32767},
         {-1.0, -1.0 / k16, 0.0, 1.0 / k16, 0.5, 32767.0 / k16}},
        {"Int24ToFloat32",
         Format::kInt24,
         Format::kFloat32,
         {&Int24_To_Float32LSB<false>, &Int24_To_Float32LSB<true>},
         {-8388608, -1, 0, 1, 4194304, 8388607},
         {-1.0, -1.0 / k24, 0.0, 1.0 / k24, 0.5, 8388607.0 / k24}},
        {"Int32With16BitsToFloat32",
         Format::kInt32,
         Format::kFloat32,
         {&Int32_To_Float32LSB<false, 16>, &Int32_To_Float32LSB<true, 16>},
         {-32768, -1, 0, 1, 16384, 32767, 1073741824},
         {-32768.0 / k32, -1.0 / k32, 0.0, 1.0 / k32, 16384.0 / k32, 32767.0 / k32, 0.5}},
        {"Int32With18BitsToFloat32",
         Format::kInt32,
         Format::kFloat32,
         {&Int32_To_Float32LSB<false, 18>, &Int32_To_Float32LSB<true, 18>},
         {-131072, -1, 0, 1, 65536, 131071, 1073741824},
         {-131072.0 / k32, -1.0 / k32, 0.0, 1.0 / k32, 65536.0 / k32, 131071.0 / k32, 0.5}},
        {"Int32With20BitsToFloat32",
         Format::kInt32,
         Format::kFloat32,
         {&Int32_To_Float32LSB<false, 20>, &Int32_To_Float32LSB<true, 20>},
         {-524288, -1, 0, 1, 262144, 524287, 1073741824},
         {-524288.0 / k32, -1.0 / k32, 0.0, 1.0 / k32, 262144.0 / k32, 524287.0 / k32, 0.5}},
        {"Int32With24BitsToFloat32",
         Format::kInt32,
         Format::kFloat32,
         {&Int32_To_Float32LSB<false, 24>, &Int32_To_Float32LSB<true, 24>},
         {-8388608, -1, 0, 1, 4194304, 8388607, 1073741824},
         {-8388608.0 / k32, -1.0 / k32, 0.0, 1.0 / k32, 4194304.0 / k32, 8388607.0 / k32, 0.5}},
        {"Int32With32BitsToFloat32",
         Format::kInt32,
         Format::kFloat32,
         {&Int32_To_Float32LSB<false, 32>, &Int32_To_Float32LSB<true, 32>},
         {-2147483648, -1, 0, 1, 1073741824, 2147483647, 16777217, 16777219},
         {-1.0, -1.0 / k32, 0.0, 1.0 / k32, 0.5, 1.0, 16777216.0 / k32, 16777220.0 / k32}},
        {"Float32ToFloat32",
         Format::kFloat32,
         Format::kFloat32,
         {&Float32_To_Float32LSB<false>, nullptr},
         {-1.0, -1.0 / k16, 0.0, 1.0 / k16, 0.5, 1.0, 1.5, -3e38, kInfinity, kNan},
         {-1.0, -1.0 / k16, 0.0, 1.0 / k16, 0.5, 1.0, 1.5, -3e38, kInfinity, kNan}},
    };
    return members;
}

class PcmFamilyTest : public ::testing::TestWithParam<Member> {
protected:
    /// Sample i is value number (i + `first`), in a ring.
    static Bytes Stretch(Format format, const std::vector<double>& values, std::size_t first,
                         std::size_t count, bool bigEndian = false) {
        Bytes stretch;
        for (std::size_t i = 0; i < count; ++i) {
            Bytes sample = Encode(format, values[(i + first) % values.size()]);
            if (bigEndian) {
                std::reverse(sample.begin(), sample.end());
            }
            stretch.insert(stretch.end(), sample.begin(), sample.end());
        }
        return stretch;
    }
    static Bytes Source(std::size_t first, std::size_t count, bool bigEndian) {
        return Stretch(GetParam().source, GetParam().from, first, count, bigEndian);
    }
    static Bytes Target(std::size_t first, std::size_t count) {
        return Stretch(GetParam().target, GetParam().to, first, count);
    }

    /// Every known value at every place of blocks and tails, past two blocks of any size in use.
    template <class Converter>
    static void ExpectKnownValues(bool bigEndian, Converter convert) {
        ASSERT_EQ(GetParam().from.size(), GetParam().to.size());
        for (std::size_t count = 0; count <= 35; ++count) {
            for (std::size_t first = 0; first < GetParam().from.size(); ++first) {
                const Bytes source = Source(first, count, bigEndian);
                const Bytes target = Target(first, count);
                const PlacedBytes in(source.data(), source.size(), first % 2 == 0 ? 0 : 1);
                GuardedBytes out(target.size(), first % 2 == 0 ? 0 : 3);

                convert(out.data(), in.data(), count);

                ASSERT_EQ(out.Contents(), target) << count << " samples from value " << first;
                ASSERT_TRUE(out.Intact()) << count << " samples";
            }
        }
    }
};

std::string MemberName(const ::testing::TestParamInfo<Member>& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Members, PcmFamilyTest, ::testing::ValuesIn(Members()), &MemberName);

TEST_P(PcmFamilyTest, LittleEndianSourcesGiveTheKnownValues) {
    ExpectKnownValues(false, GetParam().converters.little);
}

TEST_P(PcmFamilyTest, BigEndianSourcesGiveTheSame) {
    if (GetParam().converters.big != nullptr) {
        ExpectKnownValues(true, GetParam().converters.big);
    }
}

TEST_P(PcmFamilyTest, TwinsOfFourArgumentsGiveTheSameAndIgnoreTheWorkBuffer) {
    ASSERT_EQ(GetParam().twins.little != nullptr, GetParam().target == Format::kInt16);
    if (GetParam().twins.little == nullptr) {
        return;
    }
    DsdToPcmWorkBuffer work{};
    work.stageRing[5] = 0.25F;
    work.stagePos = 8;
    const DsdToPcmWorkBuffer before = work;

    ExpectKnownValues(false, [&](std::uint8_t* out, const std::uint8_t* in, std::size_t count) {
        GetParam().twins.little(out, in, count, &work);
    });
    ExpectKnownValues(true, [](std::uint8_t* out, const std::uint8_t* in, std::size_t count) {
        GetParam().twins.big(out, in, count, nullptr);
    });

    EXPECT_EQ(std::memcmp(&work, &before, sizeof work), 0);
}

TEST_P(PcmFamilyTest, ACountOfZeroTouchesNothing) {
    GetParam().converters.little(nullptr, nullptr, 0);
    if (GetParam().converters.big != nullptr) {
        GetParam().converters.big(nullptr, nullptr, 0);
    }
    if (GetParam().twins.little != nullptr) {
        GetParam().twins.little(nullptr, nullptr, 0, nullptr);
        GetParam().twins.big(nullptr, nullptr, 0, nullptr);
    }
}

TEST_P(PcmFamilyTest, TheCallersRoundingModeHasNoSay) {
    for (const int mode : {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
        for (std::size_t first = 0; first < GetParam().from.size(); ++first) {
            const Bytes source = Source(first, 35, false);
            const Bytes target = Target(first, 35);
            GuardedBytes out(target.size());

            std::fesetround(mode);
            GetParam().converters.little(out.data(), source.data(), 35);
            const int after = std::fegetround();
            std::fesetround(FE_TONEAREST);

            ASSERT_EQ(out.Contents(), target);
            ASSERT_EQ(after, mode) << "the caller's mode is put back";
        }
    }
}

/// `count` samples of one 32-bit value, as 16-bit results.
std::vector<std::int16_t> To16(SampleConverter converter, std::int32_t value, std::size_t count,
                               bool bigEndian) {
    Bytes sample = Encode(Format::kInt32, value);
    if (bigEndian) {
        std::reverse(sample.begin(), sample.end());
    }
    Bytes source;
    for (std::size_t i = 0; i < count; ++i) {
        source.insert(source.end(), sample.begin(), sample.end());
    }
    std::vector<std::int16_t> result(count);
    converter(reinterpret_cast<std::uint8_t*>(result.data()), source.data(), count);
    return result;
}

TEST(PcmFamilyKeptTest, Int32ToInt16SaturatesInBlocksOfEightAndWrapsInTheTail) {
    struct Case {
        SampleConverter little;
        SampleConverter big;
        std::int32_t value;
        std::int16_t inBlock;
        std::int16_t inTail;
    };
    const Case cases[] = {
        {&Int32_To_Int16LSB<false, 16>, &Int32_To_Int16LSB<true, 16>, 40000, 32767, -25536},
        {&Int32_To_Int16LSB<false, 16>, &Int32_To_Int16LSB<true, 16>, -40000, -32768, 25536},
        {&Int32_To_Int16LSB<false, 16>, &Int32_To_Int16LSB<true, 16>, 2147483647, 32767, -1},
        {&Int32_To_Int16LSB<false, 18>, &Int32_To_Int16LSB<true, 18>, 131072, 32767, -32768},
        {&Int32_To_Int16LSB<false, 18>, &Int32_To_Int16LSB<true, 18>, -131073, -32768, 32767},
        {&Int32_To_Int16LSB<false, 20>, &Int32_To_Int16LSB<true, 20>, 524288, 32767, -32768},
        {&Int32_To_Int16LSB<false, 20>, &Int32_To_Int16LSB<true, 20>, -524289, -32768, 32767},
        {&Int32_To_Int16LSB<false, 24>, &Int32_To_Int16LSB<true, 24>, 8388608, 32767, -32768},
        {&Int32_To_Int16LSB<false, 24>, &Int32_To_Int16LSB<true, 24>, -8388609, -32768, 32767},
    };
    for (const Case& one : cases) {
        for (std::size_t count = 1; count <= 25; ++count) {
            const auto little = To16(one.little, one.value, count, false);
            const auto big = To16(one.big, one.value, count, true);

            for (std::size_t i = 0; i < count; ++i) {
                const bool inTail = i >= count - count % 8;
                ASSERT_EQ(little[i], inTail ? one.inTail : one.inBlock) << i << " of " << count;
                ASSERT_EQ(big[i], little[i]) << i << " of " << count;
            }
        }
    }
}

TEST(PcmFamilyKeptTest, Int32ToFloat32IgnoresTheNumberOfBits) {
    const std::int32_t value = 8388607;  // full scale of 24 bits
    for (const SampleConverter converter :
         {&Int32_To_Float32LSB<false, 16>, &Int32_To_Float32LSB<false, 18>,
          &Int32_To_Float32LSB<false, 20>, &Int32_To_Float32LSB<false, 24>,
          &Int32_To_Float32LSB<false, 32>}) {
        float result = 0;

        converter(reinterpret_cast<std::uint8_t*>(&result),
                  reinterpret_cast<const std::uint8_t*>(&value), 1);

        EXPECT_EQ(result, 8388607.0F / 2147483648.0F);  // 256 times smaller than 1.0 nearly
    }
}

TEST(PcmFamilyKeptTest, Float64ToInt24TruncatesTowardZero) {
    const double samples[] = {1.99 / k24, -1.99 / k24, 8388606.75 / k24, -8388607.75 / k24};
    Bytes result(12);

    Float64_To_Int24LSB<false>(result.data(), reinterpret_cast<const std::uint8_t*>(samples), 4);

    Bytes expected;
    for (const double value : {1.0, -1.0, 8388606.0, -8388607.0}) {
        const Bytes bytes = Encode(Format::kInt24, value);
        expected.insert(expected.end(), bytes.begin(), bytes.end());
    }
    EXPECT_EQ(result, expected);
}

TEST(PcmFamilyKeptTest, Float64ToFloat32LeavesTheDestinationAsItWas) {
    const std::vector<double> samples(33, 0.25);
    for (const SampleConverter converter :
         {&Float64_To_Float32LSB<false>, &Float64_To_Float32LSB<true>}) {
        GuardedBytes out(33 * 4);

        converter(out.data(), reinterpret_cast<const std::uint8_t*>(samples.data()), 33);

        EXPECT_EQ(out.Contents(), Bytes(33 * 4, GuardedBytes::kCanary));
    }
}

}  // namespace
}  // namespace vorrel

#include "writer/DsfHeader.h"

#include <limits>

#include "store/SaturatingProduct.h"
#include "writer/FileHeader.h"

namespace vorrel {

namespace {

struct DsfValues {
    DsfFormat format;
    DsfSizes sizes;
};

using DsfField = HeaderField<DsfValues>;
using Number = std::uint64_t;

template <std::uint32_t Constant>
constexpr Number Fixed(const DsfValues&) {
    return Constant;
}

constexpr std::uint32_t kFileChunkBytes = 28;
constexpr std::uint32_t kFormatChunkBytes = 52;
constexpr std::uint32_t kDataChunkHeadBytes = 12;
constexpr std::uint32_t kFormatVersion = 1;
constexpr std::uint32_t kRawDsd = 0;

constexpr std::array kDsfLayout = {
    DsfField{0, 4, Fixed<FourCharacters("DSD ")>},
    DsfField{4, 8, Fixed<kFileChunkBytes>},
    DsfField{12, 8, [](const DsfValues& values) -> Number { return values.sizes.FileBytes(); }},
    DsfField{20, 8, [](const DsfValues& values) -> Number { return values.sizes.TagPosition(); }},
    DsfField{28, 4, Fixed<FourCharacters("fmt ")>},
    DsfField{32, 8, Fixed<kFormatChunkBytes>},
    DsfField{40, 4, Fixed<kFormatVersion>},
    DsfField{44, 4, Fixed<kRawDsd>},
    DsfField{48, 4, [](const DsfValues& values) -> Number { return values.format.ChannelType(); }},
    DsfField{52, 4, [](const DsfValues& values) -> Number { return values.format.channels; }},
    DsfField{56, 4, [](const DsfValues& values) -> Number { return values.format.rateHz; }},
    DsfField{60, 4, [](const DsfValues& values) -> Number { return values.format.bitsPerSample; }},
    // The true number: the zeros that fill the last blocks are no samples.
    DsfField{64, 8, [](const DsfValues& values) -> Number { return values.sizes.frames; }},
    DsfField{72, 4, Fixed<kDsfBlockBytes>},
    DsfField{76, 4, Fixed<0>},
    DsfField{80, 4, Fixed<FourCharacters("data")>},
    DsfField{84, 8,
             [](const DsfValues& values) -> Number {
                 return values.sizes.payload + kDataChunkHeadBytes;
             }},
};
static_assert(CoversHeader(kDsfLayout, kDsfHeaderBytes));

std::uint64_t SaturatingSum(std::uint64_t left, std::uint64_t right) {
    constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();
    return left > kLargest - right ? kLargest : left + right;
}

}  // namespace

DsfSizes::DsfSizes(const DsfFormat& format, std::uint64_t frameCount, std::uint64_t tags)
    : frames(frameCount), payload(0), tagBytes(tags) {
    const std::uint64_t sampleBytes = SaturatingProduct(frames, format.bitsPerSample) / 8;
    const std::uint64_t blocks = (sampleBytes + kDsfBlockBytes - 1) / kDsfBlockBytes;
    payload = SaturatingProduct(blocks * kDsfBlockBytes, format.channels);
}

std::uint64_t DsfSizes::FileBytes() const {
    return SaturatingSum(SaturatingSum(kDsfHeaderBytes, payload), tagBytes);
}

std::uint64_t DsfSizes::TagPosition() const {
    return tagBytes == 0 ? 0 : SaturatingSum(kDsfHeaderBytes, payload);
}

std::array<std::uint8_t, kDsfHeaderBytes> BuildDsfHeader(const DsfFormat& format,
                                                         const DsfSizes& sizes) {
    return BuildHeader<kDsfHeaderBytes>(kDsfLayout, DsfValues{format, sizes});
}

}  // namespace vorrel

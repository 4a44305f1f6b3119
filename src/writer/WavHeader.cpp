#include "writer/WavHeader.h"

#include "writer/FileHeader.h"

namespace vorrel {

namespace {

struct WavValues {
    WavFormat format;
    WavSizes sizes;
};

using WavField = HeaderField<WavValues>;
using Number = std::uint64_t;

template <std::uint32_t Constant>
constexpr Number Fixed(const WavValues&) {
    return Constant;
}

constexpr std::uint32_t kFormatChunkBytes = 16;
constexpr std::uint32_t kIntegerPcm = 1;  // also for 32-bit samples

constexpr std::array kWavLayout = {
    WavField{0, 4, Fixed<FourCharacters("RIFF")>},
    WavField{4, 4, [](const WavValues& values) -> Number { return values.sizes.riff; }},
    WavField{8, 4, Fixed<FourCharacters("WAVE")>},
    WavField{12, 4, Fixed<FourCharacters("fmt ")>},
    WavField{16, 4, Fixed<kFormatChunkBytes>},
    WavField{20, 2, Fixed<kIntegerPcm>},
    WavField{22, 2, [](const WavValues& values) -> Number { return values.format.channels; }},
    WavField{24, 4, [](const WavValues& values) -> Number { return values.format.rateHz; }},
    WavField{28, 4,  // byte rate
             [](const WavValues& values) -> Number {
                 return std::uint64_t{values.format.rateHz} * values.format.BlockAlign();
             }},
    WavField{32, 2, [](const WavValues& values) -> Number { return values.format.BlockAlign(); }},
    WavField{34, 2, [](const WavValues& values) -> Number { return values.format.bits; }},
    WavField{36, 4, Fixed<FourCharacters("data")>},
    WavField{40, 4, [](const WavValues& values) -> Number { return values.sizes.data; }},
};
static_assert(CoversHeader(kWavLayout, kWavHeaderBytes));

}  // namespace

std::array<std::uint8_t, kWavHeaderBytes> BuildWavHeader(const WavFormat& format,
                                                         const WavSizes& sizes) {
    return BuildHeader<kWavHeaderBytes>(kWavLayout, WavValues{format, sizes});
}

}  // namespace vorrel

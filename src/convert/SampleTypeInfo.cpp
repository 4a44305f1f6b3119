#include "convert/SampleTypeInfo.h"

#include <array>

#include "convert/DsdToPcm.h"
#include "convert/PcmConverters.h"

namespace vorrel {
namespace {

constexpr std::array<SampleTypeInfo, 2> g_sampleTypeTable = {{
    {
        .type = kSampleTypePcm,
        .toPreview = &Float32_To_Int16LSB<false>,
        .toInt16 = &Float32_To_Int16LSB<false>,
        .toInt24 = &Float32_To_Int24LSB<false>,
        .toInt32 = &Float32_To_Int32LSB<false>,
        .toFloat32 = &Float32_To_Float32LSB<false>,
        .bits = 32,
        .padBits = 0,
        .isDsd = 0,
        .isFloat = 1,
        .msbFirst = 0,
    },
    {
        .type = kSampleTypeDsd,
        .toPreview = &DSD_To_Int16LSB<true>,
        .toInt16 = nullptr,
        .toInt24 = nullptr,
        .toInt32 = nullptr,
        .toFloat32 = nullptr,
        .bits = 1,
        .padBits = 0,
        .isDsd = 1,
        .isFloat = 0,
        .msbFirst = 1,
    },
}};

}  // namespace

const SampleTypeInfo* GetSampleTypeInfo(std::int64_t type) {
    for (const SampleTypeInfo& info : g_sampleTypeTable) {
        if (info.type == type) {
            return &info;
        }
    }
    return nullptr;
}

}  // namespace vorrel

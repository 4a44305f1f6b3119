// Descriptors and stream texts of any bytes: what is told of a card stays within what can be.
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "Require.h"
#include "device/alsa/CaptureSetting.h"
#include "device/alsa/ProcTexts.h"
#include "device/alsa/UsbAudioDescriptors.h"

namespace {

void RequireFormat(const vorrel::CaptureFormat& format) {
    using vorrel::fuzz::Require;
    Require(format.channels > 0);
    Require(format.containerBytes >= 2 && format.containerBytes <= 4);
    Require(format.bits > 0 && format.bits <= 8 * format.containerBytes);
    Require(format.minimumRateHz <= format.maximumRateHz);
    Require(format.ratesHz.empty() || format.maximumRateHz == 0);
}

void RequireSettings(const std::vector<vorrel::CaptureSetting>& settings, std::size_t size) {
    vorrel::fuzz::Require(settings.size() <= size);
    for (const vorrel::CaptureSetting& setting : settings) {
        if (setting.format.has_value()) {
            RequireFormat(*setting.format);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vorrel;
    const std::span bytes(data, size);
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    const std::vector<CaptureSetting> described = ParseCaptureSettings(bytes);
    const std::vector<CaptureSetting> told = ParseStreamText(text);
    RequireSettings(described, size);
    RequireSettings(told, size);
    RequireSettings(ParseCaptureSettings(bytes, 1), size);
    for (const CaptureSide& side :
         {MergeCaptureSettings(described, told), MergeCaptureSettings(told, described)}) {
        fuzz::Require(side.streamingInterface.has_value() == !(described.empty() && told.empty()));
        for (const CaptureFormat& format : side.formats) {
            RequireFormat(format);
        }
    }
    fuzz::Require(ParseCardLongName(text, 0).size() <= size);
    return 0;
}

#include "device/alsa/CaptureSetting.h"

#include <algorithm>

namespace vorrel {
namespace {

bool HasRates(const CaptureFormat& format) {
    return !format.ratesHz.empty() || format.maximumRateHz != 0;
}

void CopyRates(const CaptureFormat& from, CaptureFormat& to) {
    to.ratesHz = from.ratesHz;
    to.minimumRateHz = from.minimumRateHz;
    to.maximumRateHz = from.maximumRateHz;
}

bool IsSameLayout(const CaptureFormat& one, const CaptureFormat& other) {
    return one.channels == other.channels && one.bits == other.bits &&
           one.containerBytes == other.containerBytes;
}

/// The rates of both; a range takes the single rates in.
void AddRates(const CaptureFormat& from, CaptureFormat& to) {
    if (!HasRates(from)) {
        return;
    }
    if (!HasRates(to)) {
        CopyRates(from, to);
    } else if (!from.ratesHz.empty() && !to.ratesHz.empty()) {
        for (const std::uint32_t rateHz : from.ratesHz) {
            if (std::find(to.ratesHz.begin(), to.ratesHz.end(), rateHz) == to.ratesHz.end()) {
                to.ratesHz.push_back(rateHz);
            }
        }
    } else {
        const auto lowest = [](const CaptureFormat& format) {
            return format.ratesHz.empty()
                       ? format.minimumRateHz
                       : *std::min_element(format.ratesHz.begin(), format.ratesHz.end());
        };
        const auto highest = [](const CaptureFormat& format) {
            return format.ratesHz.empty()
                       ? format.maximumRateHz
                       : *std::max_element(format.ratesHz.begin(), format.ratesHz.end());
        };
        to.minimumRateHz = std::min(lowest(from), lowest(to));
        to.maximumRateHz = std::max(highest(from), highest(to));
        to.ratesHz.clear();
    }
}

void AddFormat(const CaptureFormat& format, std::vector<CaptureFormat>& formats) {
    const auto known =
        std::find_if(formats.begin(), formats.end(),
                     [&format](const CaptureFormat& other) { return IsSameLayout(format, other); });
    if (known == formats.end()) {
        formats.push_back(format);
    } else {
        AddRates(format, *known);
    }
}

/// The interface that the driver uses, if the descriptors know it as well.
std::optional<std::uint8_t> ChooseInterface(const std::vector<CaptureSetting>& ofDescriptors,
                                            const std::vector<CaptureSetting>& ofText) {
    if (ofDescriptors.empty()) {
        return ofText.empty() ? std::nullopt : std::optional(ofText.front().interfaceNumber);
    }
    for (const CaptureSetting& told : ofText) {
        const bool known = std::any_of(ofDescriptors.begin(), ofDescriptors.end(),
                                       [&told](const CaptureSetting& described) {
                                           return described.interfaceNumber == told.interfaceNumber;
                                       });
        if (known) {
            return told.interfaceNumber;
        }
    }
    return ofDescriptors.front().interfaceNumber;
}

}  // namespace

CaptureSide MergeCaptureSettings(const std::vector<CaptureSetting>& ofDescriptors,
                                 const std::vector<CaptureSetting>& ofText) {
    CaptureSide side;
    side.streamingInterface = ChooseInterface(ofDescriptors, ofText);
    for (CaptureSetting setting : ofDescriptors.empty() ? ofText : ofDescriptors) {
        if (setting.interfaceNumber != side.streamingInterface) {
            continue;
        }
        const auto told =
            std::find_if(ofText.begin(), ofText.end(), [&setting](const CaptureSetting& other) {
                return other.interfaceNumber == setting.interfaceNumber &&
                       other.alternateSetting == setting.alternateSetting;
            });
        if (told != ofText.end() && told->format.has_value()) {
            if (!setting.format.has_value()) {
                setting.format = told->format;
            } else if (HasRates(*told->format)) {
                CopyRates(*told->format, *setting.format);
            }
        }
        if (setting.format.has_value()) {
            AddFormat(*setting.format, side.formats);
        }
    }
    return side;
}

}  // namespace vorrel

#include "device/alsa/UsbAudioDescriptors.h"

#include <cstddef>
#include <utility>

namespace vorrel {
namespace {

using Bytes = std::span<const std::uint8_t>;

// bDescriptorType
constexpr std::uint8_t kConfiguration = 0x02;
constexpr std::uint8_t kInterface = 0x04;
constexpr std::uint8_t kEndpoint = 0x05;
constexpr std::uint8_t kClassSpecificInterface = 0x24;
// bDescriptorSubtype of a streaming interface
constexpr std::uint8_t kGeneral = 0x01;
constexpr std::uint8_t kFormatType = 0x02;

constexpr std::uint8_t kAudioClass = 0x01;
constexpr std::uint8_t kStreamingSubclass = 0x02;
constexpr std::uint8_t kProtocolClass1 = 0x00;
constexpr std::uint8_t kProtocolClass2 = 0x20;

constexpr std::uint8_t kFormatTypeI = 0x01;
constexpr std::uint16_t kClass1Undefined = 0x0000;  // what some devices state for PCM
constexpr std::uint16_t kClass1Pcm = 0x0001;
constexpr std::uint32_t kClass2Pcm = 0x0000'0001;

constexpr std::uint8_t kDirectionIn = 0x80;
constexpr unsigned kTransferTypeMask = 0x03;
constexpr unsigned kIsochronous = 0x01;
constexpr unsigned kUsageMask = 0x30;
constexpr unsigned kUsageFeedback = 0x10;

constexpr std::uint32_t kBitsPerByte = 8;
constexpr std::size_t kRateBytes = 3;

/// `count` bytes from `offset` on, the lowest first; they lie within `bytes`.
std::uint32_t LittleEndian(Bytes bytes, std::size_t offset, std::size_t count) {
    std::uint32_t value = 0;
    for (std::size_t index = 0; index < count; ++index) {
        value |= std::uint32_t{bytes[offset + index]} << (kBitsPerByte * index);
    }
    return value;
}

/// An alternate setting while its descriptors go by.
struct Setting {
    CaptureSetting result;
    std::uint8_t protocol = 0;
    bool hasGeneral = false;
    bool hasFormatType = false;
    bool isPcm = false;
    bool isTypeI = false;
    CaptureFormat format;
    std::optional<std::uint8_t> dataEndpoint;
};

/// Whether the setting has its description of that subtype already: as for the driver, the first
/// counts, and another one changes nothing of it.
bool IsRepeated(std::uint8_t subtype, Setting& setting) {
    bool* const has = subtype == kGeneral      ? &setting.hasGeneral
                      : subtype == kFormatType ? &setting.hasFormatType
                                               : nullptr;
    return has != nullptr && std::exchange(*has, true);
}

void ReadClass1(Bytes descriptor, Setting& setting) {
    const std::size_t length = descriptor.size();
    if (descriptor[2] == kGeneral && length >= 7) {
        const std::uint32_t tag = LittleEndian(descriptor, 5, 2);
        setting.isPcm = tag == kClass1Pcm || tag == kClass1Undefined;
    } else if (descriptor[2] == kFormatType && length >= 8) {
        setting.isTypeI = descriptor[3] == kFormatTypeI;
        setting.format.channels = descriptor[4];
        setting.format.containerBytes = descriptor[5];
        setting.format.bits = descriptor[6];
        const std::size_t rates = descriptor[7];
        constexpr std::size_t kFirst = 8;
        if (rates == 0 && length >= kFirst + 2 * kRateBytes) {
            const std::uint32_t lowest = LittleEndian(descriptor, kFirst, kRateBytes);
            const std::uint32_t highest = LittleEndian(descriptor, kFirst + kRateBytes, kRateBytes);
            if (lowest <= highest) {
                setting.format.minimumRateHz = lowest;
                setting.format.maximumRateHz = highest;
            }
        }
        for (std::size_t index = 0; index < rates && kFirst + (index + 1) * kRateBytes <= length;
             ++index) {
            const std::uint32_t rateHz =
                LittleEndian(descriptor, kFirst + index * kRateBytes, kRateBytes);
            if (rateHz != 0) {
                setting.format.ratesHz.push_back(rateHz);
            }
        }
    }
}

void ReadClass2(Bytes descriptor, Setting& setting) {
    if (descriptor[2] == kGeneral && descriptor.size() >= 16) {
        setting.isPcm = (LittleEndian(descriptor, 6, 4) & kClass2Pcm) != 0;
        setting.format.channels = descriptor[10];
    } else if (descriptor[2] == kFormatType && descriptor.size() >= 6) {
        setting.isTypeI = descriptor[3] == kFormatTypeI;
        setting.format.containerBytes = descriptor[4];
        setting.format.bits = descriptor[5];
    }
}

void ReadEndpoint(Bytes descriptor, Setting& setting) {
    const unsigned attributes = descriptor[3];
    // The first is the data endpoint; a feedback endpoint goes the other way and comes second.
    if (!setting.dataEndpoint.has_value() && (attributes & kTransferTypeMask) == kIsochronous &&
        (attributes & kUsageMask) != kUsageFeedback) {
        setting.dataEndpoint = descriptor[2];
    }
}

/// Keeps the setting if the device captures through it.
void Finish(std::optional<Setting>& setting, std::vector<CaptureSetting>& settings) {
    if (setting.has_value() && setting->dataEndpoint.has_value() &&
        (*setting->dataEndpoint & kDirectionIn) != 0) {
        CaptureFormat& format = setting->format;
        const std::uint32_t containerBits = format.containerBytes * kBitsPerByte;
        if (format.bits == 0 || format.bits > containerBits) {
            format.bits = containerBits;
        }
        if (setting->isPcm && setting->isTypeI && format.channels > 0 &&
            format.containerBytes >= 2 && format.containerBytes <= 4) {
            setting->result.format = std::move(format);
        }
        settings.push_back(std::move(setting->result));
    }
    setting.reset();
}

}  // namespace

std::vector<CaptureSetting> ParseCaptureSettings(std::span<const std::uint8_t> descriptors,
                                                 std::optional<std::uint8_t> activeConfiguration) {
    std::vector<CaptureSetting> settings;
    std::optional<Setting> setting;
    bool isActive = false;
    while (descriptors.size() >= 2) {
        const std::size_t length = descriptors[0];
        if (length < 2 || length > descriptors.size()) {
            break;
        }
        const Bytes descriptor = descriptors.first(length);
        descriptors = descriptors.subspan(length);
        const std::uint8_t type = descriptor[1];
        if (type == kConfiguration && length >= 9) {
            Finish(setting, settings);
            if (!activeConfiguration.has_value()) {
                activeConfiguration = descriptor[5];
            }
            isActive = descriptor[5] == *activeConfiguration;
        } else if (type == kInterface && length >= 9) {
            Finish(setting, settings);
            if (isActive && descriptor[5] == kAudioClass && descriptor[6] == kStreamingSubclass) {
                setting.emplace();
                setting->result.interfaceNumber = descriptor[2];
                setting->result.alternateSetting = descriptor[3];
                setting->protocol = descriptor[7];
            }
        } else if (setting.has_value() && type == kClassSpecificInterface && length >= 3) {
            if (IsRepeated(descriptor[2], *setting)) {
                continue;
            }
            if (setting->protocol == kProtocolClass1) {
                ReadClass1(descriptor, *setting);
            } else if (setting->protocol == kProtocolClass2) {
                ReadClass2(descriptor, *setting);
            }
        } else if (setting.has_value() && type == kEndpoint && length >= 7) {
            ReadEndpoint(descriptor, *setting);
        }
    }
    Finish(setting, settings);
    return settings;
}

}  // namespace vorrel

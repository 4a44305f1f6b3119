// Capture streams of any shape, told in USB descriptors and in the driver's text: both are read as
// what they were made of.
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "Input.h"
#include "Require.h"
#include "device/alsa/ProcTexts.h"
#include "device/alsa/UsbAudioDescriptors.h"
#include "support/UsbAudioBytes.h"

namespace {

using vorrel::CaptureFormat;
using vorrel::CaptureSetting;
using vorrel::fuzz::Input;
using vorrel::fuzz::Require;
using vorrel::test::UsbBytes;

void Append(UsbBytes& bytes, const std::vector<UsbBytes>& parts) {
    for (const UsbBytes& part : parts) {
        bytes.insert(bytes.end(), part.begin(), part.end());
    }
}

/// A descriptor that is about something else, with any contents: it is stepped over.
UsbBytes Other(Input& input) {
    UsbBytes bytes(2 + input.Below(6));
    bytes[0] = static_cast<std::uint8_t>(bytes.size());
    bytes[1] = static_cast<std::uint8_t>(0x26 + input.Below(0x20));
    for (std::size_t at = 2; at < bytes.size(); ++at) {
        bytes[at] = input.Byte();
    }
    return bytes;
}

/// The rates of a format in the text; noted in `format`.
std::string Rates(Input& input, CaptureFormat& format) {
    format.ratesHz.clear();
    format.minimumRateHz = format.maximumRateHz = 0;
    if (input.Below(2) != 0) {
        format.minimumRateHz = static_cast<std::uint32_t>(8'000 + 100 * input.Below(256));
        format.maximumRateHz =
            static_cast<std::uint32_t>(format.minimumRateHz + 1'000 * input.Below(256));
        return std::to_string(format.minimumRateHz) + " - " + std::to_string(format.maximumRateHz) +
               " (continuous)\n";
    }
    std::string text;
    const std::uint64_t count = 1 + input.Below(5);
    for (std::uint64_t rate = 0; rate < count; ++rate) {
        format.ratesHz.push_back(static_cast<std::uint32_t>(4'000 * (1 + input.Below(200))));
        text += (rate == 0 ? "" : ", ") + std::to_string(format.ratesHz.back());
    }
    return text + "\n";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vorrel;
    constexpr const char* kNames[] = {"S16_LE", "S24_3LE", "S32_LE"};
    Input input(data, size);
    UsbBytes bytes = test::Joined({test::kDeviceDescriptor, test::Configuration(1, 0, 2)});
    std::string text = "Any name : USB Audio\n\nCapture:\n  Status: Stop\n";
    std::vector<CaptureSetting> described;
    std::vector<CaptureSetting> told;
    const std::uint64_t settings = 1 + input.Below(6);
    for (std::uint64_t n = 0; n < settings; ++n) {
        const auto number = static_cast<std::uint8_t>(1 + input.Below(3));
        const auto alternate = static_cast<std::uint8_t>(1 + n);
        const auto channels = static_cast<std::uint8_t>(1 + input.Below(32));
        const auto container = static_cast<std::uint8_t>(2 + input.Below(3));
        const auto bits = static_cast<std::uint8_t>(1 + input.Below(std::uint64_t{8} * container));
        const bool captures = input.Below(4) != 0;
        const auto endpoint = static_cast<std::uint8_t>((captures ? 0x81 : 0x01) + input.Below(8));
        CaptureFormat format;
        format.channels = channels;
        format.bits = bits;
        format.containerBytes = container;
        if (input.Below(3) == 0) {
            Append(bytes, {Other(input)});
        }
        const std::uint64_t kind = input.Below(3);
        if (kind == 0) {
            Append(bytes,
                   {test::Interface(number, alternate, 1, 2, 0x20), test::General2(channels),
                    test::Format2(container, bits), test::Endpoint2(endpoint, test::kAsynchronous),
                    test::kEndpointGeneral2});
        } else {
            Append(bytes,
                   {test::Interface(number, alternate, 1, 2, 0x00), test::General1(1),
                    kind == 1 ? test::Format1Range(channels, container, bits)
                              : test::Format1(channels, container, bits),
                    test::Endpoint1(endpoint, test::kAsynchronous), test::kEndpointGeneral1});
            if (kind == 1) {
                format.minimumRateHz = 8'000;
                format.maximumRateHz = 192'000;
            } else {
                format.ratesHz = {44'100, 48'000, 96'000};
            }
        }
        if (captures) {
            described.push_back({number, alternate, format});
        }

        // The same once more, as the driver has it.
        text += "  Interface " + std::to_string(number) + "\n    Altset " +
                std::to_string(alternate) + "\n    Format: " + kNames[container - 2] +
                "\n    Channels: " + std::to_string(channels) +
                "\n    Rates: " + Rates(input, format) + "    Bits: " + std::to_string(bits) + "\n";
        told.push_back({number, alternate, format});
    }

    Require(ParseCaptureSettings(bytes) == described);
    Require(ParseStreamText(text) == told);
    // Of what is cut off in the middle, the settings before it stay.
    const std::size_t cut = input.Below(256) * bytes.size() / 256;
    const std::vector<CaptureSetting> fewer = ParseCaptureSettings(std::span(bytes).first(cut));
    Require(fewer.size() <= described.size());
    for (std::size_t n = 0; n + 1 < fewer.size(); ++n) {
        Require(fewer[n] == described[n]);
    }
    return 0;
}

#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

namespace vorrel::test {

using UsbBytes = std::vector<std::uint8_t>;

inline UsbBytes Joined(std::initializer_list<UsbBytes> parts) {
    UsbBytes whole;
    for (const UsbBytes& part : parts) {
        whole.insert(whole.end(), part.begin(), part.end());
    }
    return whole;
}

// Descriptors, byte by byte as the bus carries them: length and type first, numbers with the low
// byte first.

/// bDeviceClass 0xEF (functions told by associations), ids 6666:0770, one configuration.
inline const UsbBytes kDeviceDescriptor = {18,   0x01, 0x00, 0x02, 0xEF, 0x02, 0x01, 64, 0x66,
                                           0x66, 0x70, 0x07, 0x00, 0x01, 1,    2,    3,  1};

/// The start of configuration `value`; `totalLength` is that of all its descriptors.
inline UsbBytes Configuration(std::uint8_t value, std::uint16_t totalLength,
                              std::uint8_t interfaces) {
    return {9,
            0x02,
            static_cast<std::uint8_t>(totalLength & 0xFFU),
            static_cast<std::uint8_t>(totalLength >> 8U),
            interfaces,
            value,
            0,
            0x80,
            50};
}

/// An interface: class 1 is audio, subclass 1 control, 2 streaming; protocol 0x00 is class 1.0,
/// 0x20 class 2.0.
inline UsbBytes Interface(std::uint8_t number, std::uint8_t alternate, std::uint8_t endpoints,
                          std::uint8_t subclass, std::uint8_t protocol) {
    return {9, 0x04, number, alternate, endpoints, 0x01, subclass, protocol, 0};
}

// USB Audio Class 1.

/// AS_GENERAL of terminal 3, delay 1, with wFormatTag.
inline UsbBytes General1(std::uint8_t tag) {
    return {7, 0x24, 0x01, 3, 1, tag, 0x00};
}
/// FORMAT_TYPE I at 44,100 (0x00AC44), 48,000 (0x00BB80) and 96,000 Hz (0x017700).
inline UsbBytes Format1(std::uint8_t channels, std::uint8_t subframe, std::uint8_t bits) {
    return {17,   0x24, 0x02, 0x01, channels, subframe, bits, 3,   0x44,
            0xAC, 0x00, 0x80, 0xBB, 0x00,     0x00,     0x77, 0x01};
}
/// FORMAT_TYPE I at any rate from 8,000 (0x001F40) to 192,000 Hz (0x02EE00).
inline UsbBytes Format1Range(std::uint8_t channels, std::uint8_t subframe, std::uint8_t bits) {
    return {14, 0x24, 0x02, 0x01, channels, subframe, bits, 0, 0x40, 0x1F, 0x00, 0x00, 0xEE, 0x02};
}
/// An audio endpoint has two bytes more: bRefresh, bSynchAddress.
inline UsbBytes Endpoint1(std::uint8_t address, std::uint8_t attributes) {
    return {9, 0x05, address, attributes, 0x00, 0x01, 1, 0, 0};
}
/// EP_GENERAL with sampling frequency control.
inline const UsbBytes kEndpointGeneral1 = {7, 0x25, 0x01, 0x01, 0, 0x00, 0x00};

// USB Audio Class 2.

/// AS_GENERAL of terminal 0x16, type I; bmFormats bit 0 is PCM.
inline UsbBytes General2(std::uint8_t channels, std::uint8_t formats = 0x01) {
    return {16,   0x24, 0x01,     0x16, 0x00, 0x01, formats, 0x00,
            0x00, 0x00, channels, 0x03, 0x00, 0x00, 0x00,    0};
}
inline UsbBytes Format2(std::uint8_t subslot, std::uint8_t bits) {
    return {6, 0x24, 0x02, 0x01, subslot, bits};
}
inline UsbBytes Endpoint2(std::uint8_t address, std::uint8_t attributes) {
    return {7, 0x05, address, attributes, 0x00, 0x04, 1};
}
inline const UsbBytes kEndpointGeneral2 = {8, 0x25, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00};

inline constexpr std::uint8_t kAsynchronous = 0x05;  // isochronous, asynchronous, data
inline constexpr std::uint8_t kFeedback = 0x11;      // isochronous, feedback

/// One alternate setting of a class 2 stream.
inline UsbBytes Setting2(std::uint8_t number, std::uint8_t alternate, std::uint8_t subslot,
                         std::uint8_t bits, std::uint8_t endpoint) {
    return Joined({Interface(number, alternate, 1, 2, 0x20), General2(2), Format2(subslot, bits),
                   Endpoint2(endpoint, kAsynchronous), kEndpointGeneral2});
}

/// A recorder of USB Audio Class 2: interface 0 controls; interface 1 plays 24 bits through
/// endpoint 0x01 with feedback by 0x82; interface 2 captures through 0x83, two channels of 16, 24
/// (in 3 bytes) and 32 bits. 18 + 9 + 9 + 9 + 53 + 9 + 3 x 46 bytes.
inline UsbBytes RecorderDescriptors() {
    const UsbBytes playback =
        Joined({Interface(1, 1, 2, 2, 0x20), General2(2), Format2(4, 24),
                Endpoint2(0x01, kAsynchronous), kEndpointGeneral2, Endpoint2(0x82, kFeedback)});
    return Joined({kDeviceDescriptor, Configuration(1, 227, 3), Interface(0, 0, 0, 1, 0x20),
                   Interface(1, 0, 0, 2, 0x20), playback, Interface(2, 0, 0, 2, 0x20),
                   Setting2(2, 1, 2, 16, 0x83), Setting2(2, 2, 3, 24, 0x83),
                   Setting2(2, 3, 4, 32, 0x83)});
}

}  // namespace vorrel::test

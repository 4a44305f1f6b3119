#include "Descriptors.h"

#include <array>
#include <initializer_list>
#include <string>

#include "PacketPacer.h"
#include "Pattern.h"

namespace vorrel::e2e {
namespace {

// Names as USB and its Audio Class 2 have them.
constexpr std::uint32_t kDevice = 1;
constexpr std::uint32_t kConfiguration = 2;
constexpr std::uint32_t kString = 3;
constexpr std::uint32_t kInterface = 4;
constexpr std::uint32_t kEndpoint = 5;
constexpr std::uint32_t kInterfaceAssociation = 11;
constexpr std::uint32_t kClassInterface = 0x24;
constexpr std::uint32_t kClassEndpoint = 0x25;

constexpr std::uint32_t kAudioClass = 1;
constexpr std::uint32_t kAudioControl = 1;
constexpr std::uint32_t kAudioStreaming = 2;
constexpr std::uint32_t kProtocol2 = 0x20;
constexpr std::uint32_t kLineConnector = 0x0603;
constexpr std::uint32_t kUsbStreaming = 0x0101;
constexpr std::uint32_t kFrontLeftAndRight = 3;

constexpr std::uint32_t kEnglish = 0x0409;

/// A number of a descriptor, and how many bytes it takes.
struct Field {
    std::uint32_t value;
    unsigned bytes = 1;
};

constexpr Field Word(std::uint32_t value) {
    return {value, 2};
}

constexpr Field Long(std::uint32_t value) {
    return {value, 4};
}

/// Appends a descriptor: its length, worked out here, and then the fields.
void Append(ByteVector& out, std::initializer_list<Field> fields) {
    const std::size_t start = out.size();
    out.push_back(0);
    for (const Field& field : fields) {
        AppendNumber(out, field.value, field.bytes);
    }
    out[start] = static_cast<std::uint8_t>(out.size() - start);
}

void SetWord(ByteVector& out, std::size_t offset, std::size_t value) {
    out[offset] = static_cast<std::uint8_t>(value);
    out[offset + 1] = static_cast<std::uint8_t>(value >> 8);
}

void AppendControlInterface(ByteVector& out) {
    Append(out, {{kInterface},
                 {kControlInterface},
                 {0},  // alternate setting
                 {0},  // endpoints
                 {kAudioClass},
                 {kAudioControl},
                 {kProtocol2},
                 {0}});
    const std::size_t header = out.size();
    Append(out, {{kClassInterface},
                 {1},           // header
                 Word(0x0200),  // of the audio class
                 {3},           // a converter box; tells nothing but the icon
                 Word(0),       // length of these descriptors, below
                 {0}});
    Append(out, {{kClassInterface},
                 {0x0A},  // clock source
                 {kClockEntity},
                 {3},     // internal, programmable
                 {0x07},  // rate can be set, validity can be read
                 {0},
                 {0}});
    Append(out, {{kClassInterface},
                 {2},  // input terminal
                 {kInputTerminal},
                 Word(kLineConnector),
                 {0},
                 {kClockEntity},
                 {kChannels},
                 Long(kFrontLeftAndRight),
                 {0},
                 Word(0),
                 {0}});
    Append(out, {{kClassInterface},
                 {3},  // output terminal
                 {kOutputTerminal},
                 Word(kUsbStreaming),
                 {0},
                 {kInputTerminal},
                 {kClockEntity},
                 Word(0),
                 {0}});
    constexpr std::size_t kTotalLengthOffset = 6;
    SetWord(out, header + kTotalLengthOffset, out.size() - header);
}

void AppendStreamingInterface(ByteVector& out, std::uint32_t setting, const WireFormat* format) {
    Append(out, {{kInterface},
                 {kStreamingInterface},
                 {setting},
                 {format == nullptr ? 0U : 1U},  // endpoints
                 {kAudioClass},
                 {kAudioStreaming},
                 {kProtocol2},
                 {0}});
    if (format == nullptr) {
        return;  // setting 0 takes no bandwidth
    }
    Append(out, {{kClassInterface},
                 {1},  // general
                 {kOutputTerminal},
                 {0},
                 {1},      // format type I
                 Long(1),  // PCM
                 {kChannels},
                 Long(kFrontLeftAndRight),
                 {0}});
    Append(out, {{kClassInterface},
                 {2},  // format type
                 {1},  // I
                 {format->bytes},
                 {format->bits}});
    // One frame more than needed: an asynchronous source may run a little fast.
    const std::uint32_t packetBytes =
        (PacketPacer::MostFrames(kClockRatesHz.back()) + 1) * kChannels * format->bytes;
    Append(out, {{kEndpoint},
                 {0x80U | kCaptureEndpoint},
                 {0x05},  // isochronous, asynchronous
                 Word(packetBytes),
                 {1}});  // every microframe
    Append(out, {{kClassEndpoint}, {1}, {0}, {0}, {0}, Word(0)});
}

enum Text : std::uint8_t { kMakerText = 1, kProductText = 2, kSerialText = 3 };

}  // namespace

void AppendNumber(ByteVector& out, std::uint32_t value, unsigned bytes) {
    for (unsigned byte = 0; byte < bytes; ++byte) {
        out.push_back(static_cast<std::uint8_t>(value >> (8 * byte)));
    }
}

ByteVector DeviceDescriptor(const RecorderModel& model) {
    ByteVector out;
    Append(out, {{kDevice},
                 Word(0x0200),
                 {0xEF},  // functions are told by interface associations
                 {2},
                 {1},
                 {64},  // bytes of a packet on the default pipe
                 Word(model.vendorId),
                 Word(model.productId),
                 Word(0x0100),
                 {kMakerText},
                 {kProductText},
                 {kSerialText},
                 {1}});
    return out;
}

ByteVector ConfigurationDescriptor(const RecorderModel& model) {
    ByteVector out;
    Append(out, {{kConfiguration},
                 Word(0),  // length of everything, below
                 {2},      // interfaces
                 {1},      // its number
                 {0},
                 {0xC0},  // powered by itself
                 {0}});
    Append(
        out,
        {{kInterfaceAssociation}, {kControlInterface}, {2}, {kAudioClass}, {0}, {kProtocol2}, {0}});
    AppendControlInterface(out);
    AppendStreamingInterface(out, 0, nullptr);
    std::uint32_t setting = 0;
    for (const WireFormat& format : model.formats) {
        AppendStreamingInterface(out, ++setting, &format);
    }
    constexpr std::size_t kTotalLengthOffset = 2;
    SetWord(out, kTotalLengthOffset, out.size());
    return out;
}

std::optional<ByteVector> StringDescriptor(const RecorderModel& model, std::uint8_t index) {
    ByteVector out;
    if (index == 0) {
        Append(out, {{kString}, Word(kEnglish)});
        return out;
    }
    const std::array<std::string, 3> texts = {"libvorrel tests", model.product, model.serial};
    if (index > texts.size()) {
        return std::nullopt;
    }
    const std::string& text = texts[index - std::size_t{1}];
    out = {static_cast<std::uint8_t>(2 + 2 * text.size()), static_cast<std::uint8_t>(kString)};
    for (const char character : text) {
        AppendNumber(out, static_cast<std::uint8_t>(character), 2);
    }
    return out;
}

}  // namespace vorrel::e2e

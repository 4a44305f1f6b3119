#include <gtest/gtest.h>

#include <exception>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "device/alsa/UdevRegistry.h"
#include "faults/Tally.h"

namespace vorrel::test {
namespace {

/// One USB card with a streaming interface, and looks that can be made to fail.
class OneCard final : public SoundCards {
public:
    std::optional<std::vector<SoundCard>> Find() const override {
        if (fails) {
            return std::nullopt;
        }
        SoundCard card;
        card.number = 0;
        card.systemPath = "/sys/devices/test/card0";
        card.name = "a recorder";
        card.uid = "usb:1234:5678::1-2";
        card.captureDevice = 0;
        card.usb = UsbSide{};
        card.usb->portPath = "1-2";
        card.usb->streamingInterface = 1;
        return std::vector<SoundCard>{card};
    }
    bool fails = false;
};

io_object_t First(UdevRegistry& registry, const char* className) {
    io_iterator_t iterator = IO_OBJECT_NULL;
    EXPECT_EQ(registry.GetMatchingServices(className, &iterator), kIOReturnSuccess);
    const io_object_t first = registry.IteratorNext(iterator);
    registry.Release(iterator);
    return first;
}

TEST(UdevRegistryFaultsTest, ALookWithoutMemoryLeavesTheUsbSidesThatAreKnown) {
    Sweep("look of the registry", {.call = Call::Memory}, [](const Fault& fault) {
        const auto cards = std::make_shared<OneCard>();
        UdevRegistry registry(cards);
        const io_object_t interface = First(registry, "IOUSBInterface");
        io_iterator_t iterator = IO_OBJECT_NULL;
        ArmedFault armed(fault);
        try {
            const HostCall host;
            EXPECT_EQ(registry.GetMatchingServices("IOAudioEngine", &iterator), kIOReturnSuccess);
        } catch (const std::exception&) {
            iterator = IO_OBJECT_NULL;
        }
        armed.Disarm();
        registry.Release(iterator);

        cards->fails = true;

        EXPECT_NE(registry.CreateUsbInterface(interface), nullptr);
        registry.Release(interface);
        return armed.Met();
    });
}

}  // namespace
}  // namespace vorrel::test

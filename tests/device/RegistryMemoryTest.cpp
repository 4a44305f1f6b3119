#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>
#include <vector>

#include "device/backend/AudioRegistry.h"
#include "support/AllocationLimit.h"

namespace vorrel::test {
namespace {

/// The registry over one recorder that is always there.
class OneRecorderRegistry final : public AudioRegistry {
private:
    std::vector<RegistryDevice> Devices() override {
        RegistryDevice device;
        device.key = "a recorder, as it was plugged in the first time";
        device.uid = "recorder:0001, with a unique id of some length";
        device.name = "a recorder with a name of some length";
        device.usb = RegistryDevice::Usb{0x6666, 0x0770, 0, 1};
        device.hasInputStream = true;
        return {device};
    }
    std::unique_ptr<UsbInterface> OpenUsbInterface(const RegistryDevice&, std::uint8_t) override {
        return nullptr;
    }
};

std::size_t CountOf(AudioRegistry& registry, const char* className) {
    io_iterator_t iterator = IO_OBJECT_NULL;
    EXPECT_EQ(registry.GetMatchingServices(className, &iterator), kIOReturnSuccess);
    std::size_t count = 0;
    while (const io_object_t entry = registry.IteratorNext(iterator)) {
        registry.Release(entry);
        ++count;
    }
    registry.Release(iterator);
    return count;
}

TEST(RegistryMemoryTest, TheEntriesOfADeviceComeAllOrNone) {
    bool met = true;
    std::size_t nth = 0;
    while (met) {
        OneRecorderRegistry registry;
        {
            const RefusedAllocation refused(++nth);
            io_iterator_t iterator = IO_OBJECT_NULL;
            try {
                std::ignore = registry.GetMatchingServices("IOAudioEngine", &iterator);
            } catch (const std::bad_alloc&) {
                EXPECT_EQ(iterator, IO_OBJECT_NULL);
            }
            met = refused.WasMet();
            registry.Release(iterator);
        }

        EXPECT_EQ(CountOf(registry, "IOService"), 6U) << nth;
        EXPECT_EQ(CountOf(registry, "IOUSBDevice"), 1U) << nth;
        EXPECT_EQ(CountOf(registry, "IOUSBInterface"), 2U) << nth;
        EXPECT_EQ(CountOf(registry, "IOAudioEngine"), 1U) << nth;
        EXPECT_EQ(CountOf(registry, "IOAudioControl"), 1U) << nth;
        EXPECT_EQ(CountOf(registry, "IOAudioStream"), 1U) << nth;
        EXPECT_EQ(registry.References(), 0U) << nth;
    }
    EXPECT_GT(nth, 6U);  // an allocation for each entry at least
}

TEST(RegistryMemoryTest, AnIteratorWithoutMemoryStaysWhereItIs) {
    OneRecorderRegistry registry;
    io_iterator_t iterator = IO_OBJECT_NULL;
    ASSERT_EQ(registry.GetMatchingServices("IOService", &iterator), kIOReturnSuccess);
    std::vector<io_object_t> entries;
    entries.reserve(6);

    io_object_t entry = IO_OBJECT_NULL;
    do {
        const std::size_t allocations =
            RefuseEachAllocation([&] { entry = registry.IteratorNext(iterator); },
                                 [&] { EXPECT_EQ(registry.References(), entries.size() + 1); });
        if (entry != IO_OBJECT_NULL) {
            EXPECT_GE(allocations, 1U);
            EXPECT_EQ(registry.GetUserRetainCount(entry), 1U);
            entries.push_back(entry);
        }
    } while (entry != IO_OBJECT_NULL);

    EXPECT_EQ(entries.size(), 6U);
    for (const io_object_t held : entries) {
        registry.Release(held);
    }
    registry.Release(iterator);
    EXPECT_EQ(registry.References(), 0U);
    EXPECT_EQ(registry.ExcessReleases(), 0U);
}

}  // namespace
}  // namespace vorrel::test

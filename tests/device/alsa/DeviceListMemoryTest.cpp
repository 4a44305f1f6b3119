#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "device/alsa/AlsaAudioBackend.h"
#include "device/alsa/UdevRegistry.h"
#include "support/AllocationLimit.h"
#include "support/TraceCapture.h"

namespace vorrel::test {
namespace {

/// Cards that are nowhere but here.
class ListedCards final : public SoundCards {
public:
    std::optional<std::vector<SoundCard>> Find() const override {
        return fails ? std::nullopt : std::optional(found);
    }
    std::vector<SoundCard> found;
    bool fails = false;
};

SoundCard Card(int number) {
    SoundCard card;
    card.number = number;
    card.systemPath = "/sys/devices/of/this/test/card" + std::to_string(number);
    card.name = "a recorder with a name of some length";
    card.uid = "a unique id of some length:" + std::to_string(number);
    card.modelUid = "a model of some length";
    card.captureDevice = 0;
    card.usb = UsbSide{};
    card.usb->streamingInterface = 1;
    card.usb->deviceAddress = static_cast<std::uint8_t>(number);
    return card;
}

constexpr AudioObjectPropertyAddress kDevices = {kAudioHardwarePropertyDevices,
                                                 kAudioObjectPropertyScopeGlobal,
                                                 kAudioObjectPropertyElementMain};
constexpr AudioObjectPropertyAddress kIsAlive = {kAudioDevicePropertyDeviceIsAlive,
                                                 kAudioObjectPropertyScopeGlobal,
                                                 kAudioObjectPropertyElementMain};

OSStatus Count(AudioObjectID, UInt32, const AudioObjectPropertyAddress*, void* calls) {
    ++*static_cast<std::atomic<int>*>(calls);
    return kAudioHardwareNoError;
}

class DeviceListMemoryTest : public testing::Test {
protected:
    /// A new audio layer that knows the cards 1 and 2, of which the first is listened to.
    void Begin() {
        cards->found = {Card(1), Card(2)};
        audio = std::make_unique<AlsaAudioBackend>(cards);
        const std::vector<AudioDeviceID> devices = Devices();
        ASSERT_EQ(devices.size(), 2U);
        first = devices[0];
        second = devices[1];
        aliveCalls = 0;
        ASSERT_EQ(audio->AddPropertyListener(first, kIsAlive, &Count, &aliveCalls), 0);
    }
    std::vector<AudioDeviceID> Devices() {
        std::vector<AudioDeviceID> devices(8);
        UInt32 size = static_cast<UInt32>(devices.size() * sizeof(AudioDeviceID));
        EXPECT_EQ(audio->GetPropertyData(kAudioObjectSystemObject, kDevices, &size, devices.data()),
                  0);
        devices.resize(size / sizeof(AudioDeviceID));
        return devices;
    }
    bool IsPlugged(AudioDeviceID device) {
        const std::shared_ptr<AlsaDevice> found = audio->Find(device);
        return found != nullptr && found->IsPlugged();
    }
    /// @param threw  Whether the look ended for want of memory. @return Whether it wanted so much.
    bool LookWithout(std::size_t nth, bool& threw) {
        threw = false;
        const RefusedAllocation refused(nth);
        try {
            std::ignore = audio->LookAgain();
        } catch (const std::bad_alloc&) {
            threw = true;
        }
        return refused.WasMet();
    }

    TraceCapture trace;
    std::shared_ptr<ListedCards> cards = std::make_shared<ListedCards>();
    std::unique_ptr<AlsaAudioBackend> audio;
    AudioDeviceID first = kAudioObjectUnknown;
    AudioDeviceID second = kAudioObjectUnknown;
    std::atomic<int> aliveCalls{0};
};

TEST_F(DeviceListMemoryTest, ALookWithoutMemoryKeepsWhatIsKnownAndTheNextOneTellsAll) {
    std::size_t lost = 0;
    bool met = true;
    for (std::size_t nth = 1; met; ++nth) {
        Begin();
        cards->found = {Card(2), Card(3)};
        bool threw = false;

        met = LookWithout(nth, threw);

        if (threw) {
            ++lost;
            EXPECT_TRUE(IsPlugged(first)) << nth;
            EXPECT_TRUE(IsPlugged(second)) << nth;
        }
        const std::vector<AudioDeviceID> devices = Devices();
        ASSERT_EQ(devices.size(), 2U) << nth;
        EXPECT_EQ(devices[0], second) << nth;
        EXPECT_FALSE(IsPlugged(first)) << nth;
        EXPECT_NE(audio->Find(first), nullptr) << nth;  // somebody listens to it
        audio->FlushNotifications();
        if (threw || !met) {  // else it may be the word itself that was lost
            EXPECT_EQ(aliveCalls, 1) << nth;
        }
    }
    EXPECT_GT(lost, 2U);
}

TEST_F(DeviceListMemoryTest, ADeviceIsRetiredWhenItsSuccessorIsThere) {
    std::size_t lost = 0;
    bool met = true;
    for (std::size_t nth = 1; met; ++nth) {
        Begin();
        SoundCard complete = Card(2);
        complete.usb->controlInterface = 0;
        SoundCard another = Card(1);
        another.usb->controlInterface = 0;  // of the device that is listened to, and thus stays
        cards->found = {another, complete, Card(3)};
        bool threw = false;

        met = LookWithout(nth, threw);

        if (threw) {
            ++lost;
            EXPECT_TRUE(IsPlugged(first)) << nth;
            EXPECT_TRUE(IsPlugged(second)) << nth;
        }
        const std::vector<AudioDeviceID> devices = Devices();
        ASSERT_EQ(devices.size(), 3U) << nth;
        EXPECT_EQ(devices[0], first) << nth;
        EXPECT_NE(devices[1], second) << nth;
        EXPECT_EQ(audio->Find(second), nullptr) << nth;
    }
    EXPECT_GT(lost, 2U);
}

std::size_t EnginesOf(AudioRegistry& registry) {
    io_iterator_t iterator = IO_OBJECT_NULL;
    EXPECT_EQ(registry.GetMatchingServices("IOAudioEngine", &iterator), kIOReturnSuccess);
    std::size_t count = 0;
    while (const io_object_t engine = registry.IteratorNext(iterator)) {
        registry.Release(engine);
        ++count;
    }
    registry.Release(iterator);
    return count;
}

/// Whether the first USB interface that is found can be opened.
bool OpensAnInterface(AudioRegistry& registry) {
    io_iterator_t iterator = IO_OBJECT_NULL;
    EXPECT_EQ(registry.GetMatchingServices("IOUSBInterface", &iterator), kIOReturnSuccess);
    const io_object_t found = registry.IteratorNext(iterator);
    const bool opens = registry.CreateUsbInterface(found) != nullptr;
    registry.Release(found);
    registry.Release(iterator);
    return opens;
}

TEST_F(DeviceListMemoryTest, ARegistryThatLooksWithoutMemoryKeepsWhatIsKnown) {
    bool met = true;
    std::size_t nth = 0;
    while (met) {
        cards->fails = false;
        cards->found = {Card(1), Card(2)};
        UdevRegistry registry(cards);
        ASSERT_TRUE(OpensAnInterface(registry));
        cards->found = {Card(1), Card(2), Card(3)};
        bool threw = false;
        {
            const RefusedAllocation refused(++nth);
            io_iterator_t iterator = IO_OBJECT_NULL;
            try {
                std::ignore = registry.GetMatchingServices("IOAudioEngine", &iterator);
            } catch (const std::bad_alloc&) {
                threw = true;
            }
            met = refused.WasMet();
            registry.Release(iterator);
        }

        cards->fails = true;  // what is known has to serve
        EXPECT_GE(EnginesOf(registry), 2U) << nth;
        EXPECT_TRUE(OpensAnInterface(registry)) << nth;
        if (!threw) {
            EXPECT_EQ(EnginesOf(registry), 3U) << nth;
        }
    }
    EXPECT_GT(nth, 6U);
}

}  // namespace
}  // namespace vorrel::test

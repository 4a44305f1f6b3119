#include "device/alsa/AlsaBackends.h"

#include <chrono>
#include <memory>
#include <vector>

#include "device/CoreAudioManager.h"
#include "device/alsa/MockedCards.h"
#include "platform/Mutex.h"

namespace vorrel {
namespace {

constexpr AudioObjectPropertyAddress kDevices = {kAudioHardwarePropertyDevices,
                                                 kAudioObjectPropertyScopeGlobal,
                                                 kAudioObjectPropertyElementMain};

/// Counts what a listener is told, and lets a test wait for it.
class Calls {
public:
    static OSStatus Proc(AudioObjectID, UInt32, const AudioObjectPropertyAddress*, void* self) {
        auto& calls = *static_cast<Calls*>(self);
        const MutexLock lock(calls.mutex);
        ++calls.count;
        calls.changed.NotifyAll();
        return kAudioHardwareNoError;
    }
    bool WaitForOne() {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        const MutexLock lock(mutex);
        while (count == 0 && std::chrono::steady_clock::now() < end) {
            changed.WaitFor(mutex, std::chrono::milliseconds(200));
        }
        return count > 0;
    }

private:
    Mutex mutex;
    ConditionVariable changed;
    int count VORREL_GUARDED_BY(mutex) = 0;
};

/// The back ends as a host gets them, over cards that are not there.
class AlsaBackendsTest : public test::MockedCards {
protected:
    void SetUp() override {
        MockedCards::SetUp();
        if (system.has_value()) {
            backends = MakeAlsaBackends();
        }
    }
    /// Listens from here on.
    void Follow(AudioObjectID object, const AudioObjectPropertyAddress& address, Calls& calls) {
        EXPECT_EQ(backends.audio->AddPropertyListener(object, address, &Calls::Proc, &calls),
                  kAudioHardwareNoError);
    }
    std::vector<AudioDeviceID> Devices() {
        UInt32 size = 0;
        EXPECT_EQ(backends.audio->GetPropertyDataSize(kAudioObjectSystemObject, kDevices, &size),
                  kAudioHardwareNoError);
        std::vector<AudioDeviceID> devices(size / sizeof(AudioDeviceID));
        EXPECT_EQ(backends.audio->GetPropertyData(kAudioObjectSystemObject, kDevices, &size,
                                                  devices.data()),
                  kAudioHardwareNoError);
        return devices;
    }

    DeviceBackends backends;
};

TEST_F(AlsaBackendsTest, ACardThatIsPluggedInIsToldToWhoFollowsTheList) {
    Calls calls;
    Follow(kAudioObjectSystemObject, kDevices, calls);

    system->Add(Recorder());
    system->SendEvent(Recorder(), "change");

    EXPECT_TRUE(calls.WaitForOne());
    EXPECT_EQ(Devices().size(), 1U);
    EXPECT_EQ(backends.audio->RemovePropertyListener(kAudioObjectSystemObject, kDevices,
                                                     &Calls::Proc, &calls),
              kAudioHardwareNoError);
}

TEST_F(AlsaBackendsTest, AnUnpluggedCardIsToldToWhoFollowsItThoughNobodyLooks) {
    system->Add(Recorder());
    const std::vector<AudioDeviceID> devices = Devices();
    ASSERT_EQ(devices.size(), 1U);
    system->Add(SecondRecorder());
    constexpr AudioObjectPropertyAddress kAlive = {kAudioDevicePropertyDeviceIsAlive,
                                                   kAudioObjectPropertyScopeGlobal,
                                                   kAudioObjectPropertyElementMain};
    Calls calls;
    Follow(devices[0], kAlive, calls);

    system->Remove(Recorder());
    system->SendEvent(SecondRecorder(), "change");  // the other's event came while it was there yet

    EXPECT_TRUE(calls.WaitForOne());
    EXPECT_EQ(backends.audio->RemovePropertyListener(devices[0], kAlive, &Calls::Proc, &calls),
              kAudioHardwareBadDeviceError);
    const std::vector<AudioDeviceID> left = Devices();
    ASSERT_EQ(left.size(), 1U);
    EXPECT_NE(left[0], devices[0]);
}

TEST_F(AlsaBackendsTest, BothHalvesKnowTheSameCard) {
    system->Add(Recorder());
    CoreAudioManager manager([this] { return backends; });
    std::vector<FoundDeviceInfo> found;

    EXPECT_EQ(manager.GetAudioDevices(found), VrSuccess);

    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].name, "KD-WV770");
    EXPECT_EQ(found[0].vendorId, 0x6666);
    EXPECT_EQ(found[0].productId, 0x0770);
}

}  // namespace
}  // namespace vorrel

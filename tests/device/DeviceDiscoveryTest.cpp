#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "device/AudioDeviceList.h"
#include "device/CoreAudioManager.h"
#include "support/FakeDeviceNotify.h"
#include "support/FakeRecorder.h"

namespace vorrel {
namespace {

using test::FakeRecorder;

constexpr AudioDeviceID kOther = 60;

class DeviceDiscoveryTest : public testing::Test {
protected:
    void ListDevices(const std::vector<AudioDeviceID>& ids) {
        recorder.audio->SetValues(kAudioObjectSystemObject, kAudioHardwarePropertyDevices, ids);
    }

    FakeRecorder recorder;
    CoreAudioManager manager{recorder.Provider()};
    std::vector<FoundDeviceInfo> list{FoundDeviceInfo{}};  // never empty before a call
    std::int32_t vendorId = 5;
    std::int32_t productId = 5;
};

TEST_F(DeviceDiscoveryTest, ASystemWithoutDevicesGivesAnEmptyListAndSuccess) {
    ListDevices({});

    EXPECT_EQ(manager.GetAudioDevices(list), VrSuccess);
    EXPECT_TRUE(list.empty());
}

TEST_F(DeviceDiscoveryTest, WithoutBackEndsThereAreNoDevices) {
    CoreAudioManager none{[] { return DeviceBackends{}; }};
    CoreAudioManager noProvider{BackendProvider()};

    EXPECT_EQ(none.GetAudioDevices(list), VrSuccess);
    EXPECT_TRUE(list.empty());
    EXPECT_FALSE(none.GetVidPid("uid", vendorId, productId));
    EXPECT_EQ(none.SearchInterface("uid"), nullptr);
    EXPECT_EQ(noProvider.GetAudioDevices(list), VrSuccess);
}

TEST_F(DeviceDiscoveryTest, TheBackEndsAreAskedForOnceAndNotBeforeTheFirstCall) {
    int asked = 0;
    CoreAudioManager counting{[&] {
        ++asked;
        return recorder.Backends();
    }};
    double rate = 0;
    std::int64_t type = 0;
    EXPECT_EQ(counting.GetSampleRate(rate), VrErrorInvalidState);
    EXPECT_EQ(counting.GetSampleType(type), VrErrorInvalidState);
    EXPECT_EQ(asked, 0);

    EXPECT_EQ(counting.GetAudioDevices(list), VrSuccess);
    EXPECT_EQ(counting.GetAudioDevices(list), VrSuccess);
    EXPECT_TRUE(counting.GetVidPid(FakeRecorder::kUid, vendorId, productId));

    EXPECT_EQ(asked, 1);
}

TEST_F(DeviceDiscoveryTest, ListsADeviceWithAllThatItsRecordHolds) {
    EXPECT_EQ(manager.GetAudioDevices(list), VrSuccess);

    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0].name, "KD-WV770");
    EXPECT_EQ(list[0].uid, "KD-WV770:0001");
    EXPECT_EQ(list[0].modelUid, "KD-WV770:model");
    EXPECT_EQ(list[0].deviceId, 42U);
    EXPECT_EQ(list[0].vendorId, kSupportedVendorId);
    EXPECT_EQ(list[0].productId, kSupportedProductId);
    EXPECT_EQ(list[0].excludedRateMask, 0U);
}

TEST_F(DeviceDiscoveryTest, ListsDevicesInTheSystemsOrder) {
    recorder.AddDevice(kOther, "Speaker", "speaker");
    recorder.AddDevice(kOther + 1, "Microphone", "microphone");
    ListDevices({kOther + 1, FakeRecorder::kDevice, kOther});

    EXPECT_EQ(manager.GetAudioDevices(list), VrSuccess);

    ASSERT_EQ(list.size(), 3U);
    EXPECT_EQ(list[0].name, "Microphone");
    EXPECT_EQ(list[1].name, "KD-WV770");
    EXPECT_EQ(list[2].name, "Speaker");
}

TEST_F(DeviceDiscoveryTest, TwoRecordersOfTheModelAreFoundAndBothPassTheFilterInOrder) {
    recorder.AddDevice(kOther, "KD-WV770", "second");
    recorder.AddEngine("second", kSupportedVendorId, kSupportedProductId);
    ListDevices({kOther, FakeRecorder::kDevice});

    EXPECT_EQ(manager.GetAudioDevices(list), VrSuccess);
    AudioDeviceList().FilterDevices(list);

    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(list[0].uid, "second");
    EXPECT_EQ(list[1].uid, FakeRecorder::kUid);
}

TEST_F(DeviceDiscoveryTest, AFailureOfTheDeviceListIsReportedWithAnEmptyList) {
    const struct {
        OSStatus status;
        VrError expected;
    } cases[] = {{kAudioHardwareUnspecifiedError, VrErrorFailed},
                 {kAudioHardwareBadObjectError, VrErrorDeviceNotFound},
                 {kAudioHardwareUnsupportedOperationError, VrErrorNotSupported}};
    for (const auto& failure : cases) {
        list.assign(1, FoundDeviceInfo{});
        recorder.audio->FailGet(kAudioHardwarePropertyDevices, failure.status);

        EXPECT_EQ(manager.GetAudioDevices(list), failure.expected);
        EXPECT_TRUE(list.empty());
    }
}

TEST_F(DeviceDiscoveryTest, LeavesOutADeviceThatIsNotAlive) {
    recorder.AddDevice(kOther, "Speaker", "speaker");
    ListDevices({FakeRecorder::kDevice, kOther});
    recorder.audio->SetValue<UInt32>(FakeRecorder::kDevice, kAudioDevicePropertyDeviceIsAlive, 0);

    EXPECT_EQ(manager.GetAudioDevices(list), VrSuccess);

    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0].name, "Speaker");
}

TEST_F(DeviceDiscoveryTest, LeavesOutADeviceOfWhichAPropertyCannotBeRead) {
    for (const AudioObjectPropertySelector selector :
         {kAudioDevicePropertyDeviceIsAlive, kAudioObjectPropertyName,
          kAudioDevicePropertyDeviceUID, kAudioDevicePropertyModelUID}) {
        recorder.audio->FailGet(selector, kAudioHardwareUnspecifiedError);

        EXPECT_EQ(manager.GetAudioDevices(list), VrSuccess) << test::SelectorText(selector);
        EXPECT_TRUE(list.empty()) << test::SelectorText(selector);

        recorder.audio->FailGet(selector, kAudioHardwareNoError);
    }
}

TEST_F(DeviceDiscoveryTest, LeavesOutADeviceWhoseNameIsNotATextOrWhoseAliveFlagHasAnotherSize) {
    recorder.audio->SetValue<UInt32>(FakeRecorder::kDevice, kAudioObjectPropertyName, 5);
    EXPECT_EQ(manager.GetAudioDevices(list), VrSuccess);
    EXPECT_TRUE(list.empty());

    recorder.audio->SetText(FakeRecorder::kDevice, kAudioObjectPropertyName, "KD-WV770");
    recorder.audio->SetValue<UInt16>(FakeRecorder::kDevice, kAudioDevicePropertyDeviceIsAlive, 1);
    EXPECT_EQ(manager.GetAudioDevices(list), VrSuccess);
    EXPECT_TRUE(list.empty());
}

TEST_F(DeviceDiscoveryTest, ListsADeviceThatTheRegistryDoesNotKnowWithIdsOfMinusOne) {
    recorder.AddDevice(kOther, "Speaker", "speaker");
    ListDevices({kOther});

    EXPECT_EQ(manager.GetAudioDevices(list), VrSuccess);

    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0].vendorId, -1);
    EXPECT_EQ(list[0].productId, -1);
}

TEST_F(DeviceDiscoveryTest, ListsDevicesWithoutIdsWhenThereIsNoRegistry) {
    CoreAudioManager noRegistry{[this] { return DeviceBackends{recorder.audio, nullptr}; }};

    EXPECT_EQ(noRegistry.GetAudioDevices(list), VrSuccess);

    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0].vendorId, -1);
}

TEST_F(DeviceDiscoveryTest, GetVidPidOfAnIdThatNoEngineCarriesGivesMinusOneAndFalse) {
    EXPECT_FALSE(manager.GetVidPid("nobody", vendorId, productId));

    EXPECT_EQ(vendorId, -1);
    EXPECT_EQ(productId, -1);
}

TEST_F(DeviceDiscoveryTest, GetVidPidComparesTheIdByteForByte) {
    for (const char* uid : {"KD-WV770:0001 ", "kd-wv770:0001", "KD-WV770:000", ""}) {
        EXPECT_FALSE(manager.GetVidPid(uid, vendorId, productId)) << uid;
    }
    EXPECT_TRUE(manager.GetVidPid("KD-WV770:0001", vendorId, productId));
    EXPECT_EQ(vendorId, kSupportedVendorId);
    EXPECT_EQ(productId, kSupportedProductId);
}

TEST_F(DeviceDiscoveryTest, GetVidPidPassesOverAnEngineThatLacksAPropertyOrHasItInAnotherType) {
    for (const char* key : {"idVendor", "idProduct", "IOAudioEngineGlobalUniqueID"}) {
        for (const RegistryValue& value : {RegistryValue(), RegistryValue(RegistryOtherValue{})}) {
            FakeRecorder other;
            other.registry->SetProperty(other.engine, key, value);
            CoreAudioManager otherManager{other.Provider()};
            EXPECT_FALSE(otherManager.GetVidPid(FakeRecorder::kUid, vendorId, productId)) << key;
            EXPECT_EQ(vendorId, -1);

            // A later engine with the same id and all three properties is taken.
            other.AddEngine(FakeRecorder::kUid, 1, 2);
            EXPECT_TRUE(otherManager.GetVidPid(FakeRecorder::kUid, vendorId, productId)) << key;
            EXPECT_EQ(vendorId, 1);
            EXPECT_EQ(productId, 2);
        }
    }
}

TEST_F(DeviceDiscoveryTest, GetVidPidTakesTheFirstEngineThatFits) {
    recorder.AddEngine(FakeRecorder::kUid, 1, 2);

    EXPECT_TRUE(manager.GetVidPid(FakeRecorder::kUid, vendorId, productId));

    EXPECT_EQ(vendorId, kSupportedVendorId);
}

TEST_F(DeviceDiscoveryTest, GetVidPidGivesFalseWhenTheMatchFails) {
    recorder.registry->FailMatching(kIOReturnError);

    EXPECT_FALSE(manager.GetVidPid(FakeRecorder::kUid, vendorId, productId));
    EXPECT_EQ(vendorId, -1);
}

TEST_F(DeviceDiscoveryTest, SearchInterfaceFindsTheInterfaceOfTheInputStreamAndReleasesTheRest) {
    const std::unique_ptr<UsbInterface> found = manager.SearchInterface(FakeRecorder::kUid);

    ASSERT_NE(found, nullptr);
    EXPECT_EQ(recorder.registry->Outstanding(), 0U);
    std::uint8_t number = 0;
    EXPECT_EQ(found->GetInterfaceNumber(&number), kIOReturnSuccess);
    EXPECT_EQ(number, FakeRecorder::kInterfaceNumber);
}

TEST_F(DeviceDiscoveryTest, SearchInterfaceIsNullForAnIdThatNoEngineCarries) {
    EXPECT_EQ(manager.SearchInterface("nobody"), nullptr);
}

TEST_F(DeviceDiscoveryTest, SearchInterfaceStaysWithTheFirstEngineOfTheId) {
    FakeRecorder other;
    // The first engine with the id has no stream; a second one that has is not looked at.
    const io_registry_entry_t bare = other.AddEngine("double", 1, 2);
    const io_registry_entry_t full = other.AddEngine("double", 1, 2);
    other.registry->Link(full, other.inputStream);
    CoreAudioManager otherManager{other.Provider()};

    EXPECT_EQ(otherManager.SearchInterface("double"), nullptr);

    other.registry->Link(bare, other.inputStream);
    EXPECT_NE(otherManager.SearchInterface("double"), nullptr);
}

TEST_F(DeviceDiscoveryTest, SearchInterfacePassesOverChildrenThatAreNoInputStream) {
    FakeRecorder other;
    const io_registry_entry_t engine = other.AddEngine("mixed", 1, 2);
    const io_registry_entry_t control = other.registry->AddEntry({"IOAudioControl"});
    other.registry->SetProperty(control, "IOAudioStreamDirection", std::int64_t{1});
    const io_registry_entry_t output = other.registry->AddEntry({"IOAudioStream"});
    other.registry->SetProperty(output, "IOAudioStreamDirection", std::int64_t{0});
    const io_registry_entry_t unknown = other.registry->AddEntry({"IOAudioStream"});
    for (const io_registry_entry_t child : {control, output, unknown}) {
        other.registry->Link(engine, child);
        other.registry->Link(other.usbInterface, child);
    }
    CoreAudioManager otherManager{other.Provider()};
    EXPECT_EQ(otherManager.SearchInterface("mixed"), nullptr);

    other.registry->Link(engine, other.inputStream);
    EXPECT_NE(otherManager.SearchInterface("mixed"), nullptr);
}

TEST_F(DeviceDiscoveryTest, SearchInterfaceIsNullWhenTheInputStreamHasNoUsbParent) {
    FakeRecorder other;
    const io_registry_entry_t engine = other.AddEngine("built-in", 1, 2);
    const io_registry_entry_t stream = other.registry->AddEntry({"IOAudioStream"});
    other.registry->SetProperty(stream, "IOAudioStreamDirection", std::int64_t{1});
    other.registry->Link(engine, stream);
    CoreAudioManager otherManager{other.Provider()};

    EXPECT_EQ(otherManager.SearchInterface("built-in"), nullptr);
}

TEST_F(DeviceDiscoveryTest, SearchInterfaceTakesDirectParentsOnly) {
    FakeRecorder other;
    const io_registry_entry_t engine = other.AddEngine("far", 1, 2);
    const io_registry_entry_t stream = other.registry->AddEntry({"IOAudioStream"});
    other.registry->SetProperty(stream, "IOAudioStreamDirection", std::int64_t{1});
    other.registry->Link(engine, stream);
    other.registry->Link(other.usbInterface, engine);  // a grandparent of the stream
    CoreAudioManager otherManager{other.Provider()};

    EXPECT_EQ(otherManager.SearchInterface("far"), nullptr);
}

TEST_F(DeviceDiscoveryTest, SearchInterfaceIsNullForEveryFailureOnTheWay) {
    const std::function<void(test::FakeRegistryBackend&)> failures[] = {
        [](auto& registry) { registry.FailMatching(kIOReturnError); },
        [](auto& registry) { registry.FailChildren(kIOReturnError); },
        [](auto& registry) { registry.FailParents(kIOReturnError); },
        [](auto& registry) { registry.FailUsbInterface(true); },
    };
    for (const auto& fail : failures) {
        FakeRecorder other;
        fail(*other.registry);
        CoreAudioManager otherManager{other.Provider()};

        EXPECT_EQ(otherManager.SearchInterface(FakeRecorder::kUid), nullptr);
        EXPECT_EQ(other.registry->Outstanding(), 0U);
    }
}

}  // namespace
}  // namespace vorrel

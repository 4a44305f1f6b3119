#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "ManagerRig.h"

namespace vorrel::test {
namespace {

class DeviceSelectionTest : public ManagerRig {};

TEST_F(DeviceSelectionTest, GetAudioDevicesBeforeInitClearsTheList) {
    std::vector<std::string> names = {"left over"};

    EXPECT_EQ(manager.GetAudioDevices(&names), VrErrorNotInitialized);

    EXPECT_TRUE(names.empty());
    EXPECT_EQ(manager.GetAudioDevices(nullptr), VrErrorInvalidParameter);
}

TEST_F(DeviceSelectionTest, ListsTheSupportedDevicesInDiscoveryOrder) {
    Init();
    recorder.audio->SetValues<AudioDeviceID>(
        kAudioObjectSystemObject, kAudioHardwarePropertyDevices, {50, FakeRecorder::kDevice, 51});
    recorder.AddDevice(50, "Built-in Microphone", "built-in");
    recorder.AddDevice(51, kSupportedDeviceName, "second");
    recorder.AddEngine("second", kSupportedVendorId, kSupportedProductId);

    std::vector<std::string> names;
    ASSERT_EQ(manager.GetAudioDevices(&names), VrSuccess);

    EXPECT_EQ(names, (std::vector<std::string>{kSupportedDeviceName, kSupportedDeviceName}));
}

TEST_F(DeviceSelectionTest, NoDeviceIsAnEmptyListAndASuccess) {
    Init();
    recorder.audio->SetValues<AudioDeviceID>(kAudioObjectSystemObject,
                                             kAudioHardwarePropertyDevices, {});

    std::vector<std::string> names = {"left over"};
    EXPECT_EQ(manager.GetAudioDevices(&names), VrSuccess);

    EXPECT_TRUE(names.empty());
    EXPECT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrErrorDeviceNotFound);
}

TEST_F(DeviceSelectionTest, AFailingEnumerationClearsTheListAndIsReturned) {
    Init();
    recorder.audio->FailGet(kAudioHardwarePropertyDevices, kAudioHardwareBadObjectError);

    std::vector<std::string> names = {"left over"};
    EXPECT_EQ(manager.GetAudioDevices(&names), VrErrorDeviceNotFound);
    EXPECT_TRUE(names.empty());
    EXPECT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrErrorDeviceNotFound);
    EXPECT_EQ(manager.State(), ManagerState::Initialized);
}

TEST_F(DeviceSelectionTest, ANameThatDiffersInCaseIsNotFound) {
    Select();

    EXPECT_EQ(manager.SetAudioDevice("kd-wv770"), VrErrorDeviceNotFound);

    EXPECT_EQ(manager.State(), ManagerState::Initialized);
    EXPECT_EQ(recorder.HogOwner(), -1);
    std::shared_ptr<VrAudioDeviceInfo> info;
    EXPECT_EQ(manager.GetAudioDeviceInfo(&info), VrErrorInvalidState);
}

TEST_F(DeviceSelectionTest, SelectingChecksItsArgumentFirst) {
    EXPECT_EQ(manager.SetAudioDevice(nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrErrorNotInitialized);
    SelectPcm();
    StartRecording();
    EXPECT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrErrorInvalidState);
    EXPECT_EQ(manager.State(), ManagerState::Recording);
}

TEST_F(DeviceSelectionTest, ADeviceListThatCannotBeReadIsAFailureAndNotAnAbsence) {
    Init();
    recorder.audio->FailGet(kAudioHardwarePropertyDevices, kAudioHardwareUnspecifiedError);
    std::vector<std::string> names;

    EXPECT_EQ(manager.GetAudioDevices(&names), VrErrorFailed);
    EXPECT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrErrorFailed);

    EXPECT_EQ(manager.State(), ManagerState::Initialized);
}

TEST_F(DeviceSelectionTest, ASelectedDeviceIsDescribedWithoutTheExcludedRates) {
    Select();

    std::shared_ptr<VrAudioDeviceInfo> info;
    ASSERT_EQ(manager.GetAudioDeviceInfo(&info), VrSuccess);

    EXPECT_EQ(info->device_name, "KD-WV770");
    EXPECT_EQ(info->vid, kSupportedVendorId);
    EXPECT_EQ(info->pid, kSupportedProductId);
    EXPECT_EQ(info->i_ch, 2);
    EXPECT_EQ(info->o_ch, 0);
    EXPECT_EQ(info->PCM_supported_bits, 32);
    EXPECT_EQ(info->PCM_record_bits, 32);
    // The device accepts all eight rates; its mask, 65543, has bits 0, 1, 2 and 16.
    EXPECT_EQ(info->PCM_supported_freq,
              (std::vector<std::uint64_t>{44'100, 48'000, 96'000, 192'000, 384'000}));
    EXPECT_EQ(info->DSD_supported_freq,
              (std::vector<std::uint64_t>{2'822'400, 5'644'800, 11'289'600}));
}

TEST_F(DeviceSelectionTest, EachBitOfTheMaskTakesItsRateOff) {
    Select();
    const std::vector<std::uint64_t> allPcm = {44'100,  48'000,  88'200,  96'000,
                                               176'400, 192'000, 352'800, 384'000};
    const std::vector<std::uint64_t> allDsd = {2'822'400, 5'644'800, 11'289'600};
    struct Case {
        std::uint32_t mask;
        std::vector<std::uint64_t> pcm;
        std::vector<std::uint64_t> dsd;
    };
    const std::vector<Case> cases = {
        {0, allPcm, allDsd},
        {1U << 0, {44'100, 48'000, 96'000, 176'400, 192'000, 352'800, 384'000}, allDsd},
        {1U << 1, {44'100, 48'000, 88'200, 96'000, 192'000, 352'800, 384'000}, allDsd},
        {1U << 2, {44'100, 48'000, 88'200, 96'000, 176'400, 192'000, 384'000}, allDsd},
        {1U << 3, allPcm, allDsd},  // 705,600 is never offered
        {1U << 4, allPcm, {5'644'800, 11'289'600}},
        {1U << 5, allPcm, {2'822'400, 11'289'600}},
        {1U << 6, allPcm, {2'822'400, 5'644'800}},
        {0x7F, {44'100, 48'000, 96'000, 192'000, 384'000}, {}},
        {~0x7FU, allPcm, allDsd},  // the other bits stand for no rate
    };
    for (const Case& tried : cases) {
        SCOPED_TRACE(tried.mask);
        FoundDeviceInfo record = recorder.Found();
        record.excludedRateMask = tried.mask;

        ASSERT_EQ(VorrelManagerParts::Describe(manager, record), VrSuccess);

        std::shared_ptr<VrAudioDeviceInfo> info;
        ASSERT_EQ(manager.GetAudioDeviceInfo(&info), VrSuccess);
        EXPECT_EQ(info->PCM_supported_freq, tried.pcm);
        EXPECT_EQ(info->DSD_supported_freq, tried.dsd);
    }
}

TEST_F(DeviceSelectionTest, ADeviceWhoseChannelsCannotBeReadIsLetGo) {
    Init();
    for (const AudioObjectPropertyScope side :
         {kAudioObjectPropertyScopeInput, kAudioObjectPropertyScopeOutput}) {
        recorder.audio->FailGet(kAudioDevicePropertyStreamConfiguration,
                                kAudioHardwareUnsupportedOperationError, side);

        EXPECT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrErrorNotSupported);

        EXPECT_EQ(manager.State(), ManagerState::Initialized);
        EXPECT_EQ(recorder.HogOwner(), -1);
        EXPECT_TRUE(recorder.audio->IoProcs().empty());
        EXPECT_TRUE(recorder.audio->Listeners().empty());
        recorder.audio->FailGet(kAudioDevicePropertyStreamConfiguration, kAudioHardwareNoError,
                                side);
        EXPECT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);
    }
}

TEST_F(DeviceSelectionTest, ADeviceThatThrowsWhileItIsDescribedIsLetGo) {
    Init();
    recorder.audio->onGet = [](AudioObjectID, AudioObjectPropertySelector selector) {
        if (selector == kAudioDevicePropertyStreamConfiguration) {
            throw std::runtime_error("the bus is gone");
        }
    };

    EXPECT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrErrorFailed);

    EXPECT_EQ(manager.State(), ManagerState::Initialized);
    EXPECT_EQ(recorder.HogOwner(), -1);
    EXPECT_TRUE(recorder.audio->IoProcs().empty());
    recorder.audio->onGet = nullptr;
    EXPECT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);
}

TEST_F(DeviceSelectionTest, TheDescriptionIsTheSameObjectEachTime) {
    Select();
    std::shared_ptr<VrAudioDeviceInfo> first;
    std::shared_ptr<VrAudioDeviceInfo> second;
    ASSERT_EQ(manager.GetAudioDeviceInfo(&first), VrSuccess);
    ASSERT_EQ(manager.GetAudioDeviceInfo(&second), VrSuccess);
    EXPECT_EQ(first, second);

    ASSERT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);

    ASSERT_EQ(manager.GetAudioDeviceInfo(&second), VrSuccess);
    EXPECT_NE(first, second);
}

TEST_F(DeviceSelectionTest, DescriptionAndSettingAreThereDuringARecording) {
    SelectPcm(96'000, 24);
    StartRecording();
    std::shared_ptr<VrAudioDeviceInfo> info;
    std::shared_ptr<VrRecordSetting> setting;
    std::vector<std::string> names;

    EXPECT_EQ(manager.GetAudioDeviceInfo(&info), VrSuccess);
    EXPECT_EQ(manager.GetRecordSetting(&setting), VrSuccess);
    EXPECT_EQ(manager.GetAudioDevices(&names), VrSuccess);

    EXPECT_EQ(names.size(), 1U);
    EXPECT_EQ(setting->freq, 96'000U);
    EXPECT_EQ(setting->bits, 24);
}

TEST_F(DeviceSelectionTest, ADeviceThatRefusesDsdIsSelectedWithoutDsdRates) {
    Init();
    recorder.registry->RefuseUsbValue(1);  // what asks for DSD

    ASSERT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);

    std::shared_ptr<VrAudioDeviceInfo> info;
    ASSERT_EQ(manager.GetAudioDeviceInfo(&info), VrSuccess);
    EXPECT_TRUE(info->DSD_supported_freq.empty());
    EXPECT_EQ(info->PCM_supported_freq,
              (std::vector<std::uint64_t>{44'100, 48'000, 96'000, 192'000, 384'000}));
    EXPECT_EQ(info->PCM_supported_bits, 32);
    EXPECT_EQ(manager.State(), ManagerState::Ready);
}

TEST_F(DeviceSelectionTest, ADeviceThatRefusesBothModesIsSelectedWithoutRates) {
    Init();
    // The interface is there for the selection's own switch to PCM and refuses afterwards.
    recorder.audio->onListenerAdded = [this](AudioObjectID, AudioObjectPropertySelector) {
        recorder.registry->FailUsbRequest(kIOUSBPipeStalled);
    };

    ASSERT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);

    std::shared_ptr<VrAudioDeviceInfo> info;
    ASSERT_EQ(manager.GetAudioDeviceInfo(&info), VrSuccess);
    EXPECT_TRUE(info->DSD_supported_freq.empty());
    EXPECT_TRUE(info->PCM_supported_freq.empty());
    EXPECT_EQ(info->PCM_supported_bits, 0);
    EXPECT_EQ(info->PCM_record_bits, 0);
    EXPECT_EQ(manager.State(), ManagerState::Ready);
}

TEST_F(DeviceSelectionTest, ADeviceWithoutDsdFormatsHasNoDsdRates) {
    Init();
    recorder.SetFormats({Ranged(48'000, 24, 2), Ranged(176'400, 24, 2)});
    ASSERT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);

    std::shared_ptr<VrAudioDeviceInfo> info;
    ASSERT_EQ(manager.GetAudioDeviceInfo(&info), VrSuccess);

    EXPECT_TRUE(info->DSD_supported_freq.empty());
    EXPECT_EQ(info->PCM_supported_freq, (std::vector<std::uint64_t>{48'000}));
    EXPECT_EQ(info->PCM_supported_bits, 24);
    EXPECT_EQ(info->PCM_record_bits, 24);
}

TEST_F(DeviceSelectionTest, ADeviceWithoutAUsableFormatIsReleasedAgain) {
    Init();
    recorder.SetFormats({});

    EXPECT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrErrorNotSupported);

    EXPECT_EQ(manager.State(), ManagerState::Initialized);
    EXPECT_EQ(recorder.HogOwner(), -1);
}

TEST_F(DeviceSelectionTest, ADeviceThatIsInUseIsNotSelected) {
    Init();
    recorder.audio->FailSet(kAudioDevicePropertyHogMode, kAudioHardwareIllegalOperationError);

    EXPECT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrErrorFailed);

    EXPECT_EQ(manager.State(), ManagerState::Initialized);
    EXPECT_EQ(manager.Start(), VrErrorInvalidState);
}

TEST_F(DeviceSelectionTest, ADescriptionNeedsADevice) {
    std::shared_ptr<VrAudioDeviceInfo> info;
    std::shared_ptr<VrRecordSetting> setting;
    EXPECT_EQ(manager.GetAudioDeviceInfo(nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(manager.GetRecordSetting(nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(manager.GetAudioDeviceInfo(&info), VrErrorNotInitialized);
    EXPECT_EQ(manager.GetRecordSetting(&setting), VrErrorNotInitialized);
    Init();
    EXPECT_EQ(manager.GetAudioDeviceInfo(&info), VrErrorInvalidState);
    EXPECT_EQ(manager.GetRecordSetting(&setting), VrErrorInvalidState);
}

TEST_F(DeviceSelectionTest, DsdWithZeroBitsIsAcceptedAndReportedAsOne) {
    Select();
    const VrRecordSetting dsd{.rec_type = 1, .freq = 5'644'800, .bits = 0};

    ASSERT_EQ(manager.SetRecordSetting(&dsd), VrSuccess);

    std::shared_ptr<VrRecordSetting> setting;
    ASSERT_EQ(manager.GetRecordSetting(&setting), VrSuccess);
    EXPECT_EQ(setting->rec_type, 1);
    EXPECT_EQ(setting->freq, 5'644'800U);
    EXPECT_EQ(setting->bits, 1);
}

TEST_F(DeviceSelectionTest, PcmWithEightBitsIsRefusedEvenBeforeInit) {
    for (const std::uint16_t bits : std::vector<std::uint16_t>{0, 8, 15, 33}) {
        const VrRecordSetting setting{.rec_type = 0, .freq = 48'000, .bits = bits};
        EXPECT_EQ(manager.SetRecordSetting(&setting), VrErrorInvalidParameter) << bits;
    }
    const VrRecordSetting good{.rec_type = 0, .freq = 48'000, .bits = 16};
    EXPECT_EQ(manager.SetRecordSetting(&good), VrErrorNotInitialized);
    Init();
    EXPECT_EQ(manager.SetRecordSetting(&good), VrErrorInvalidState);
}

TEST_F(DeviceSelectionTest, AThirdRecordTypeIsRefused) {
    for (const std::int32_t type : {2, -1}) {
        const VrRecordSetting setting{.rec_type = type, .freq = 48'000, .bits = 16};
        EXPECT_EQ(manager.SetRecordSetting(&setting), VrErrorInvalidParameter) << type;
    }
    EXPECT_EQ(manager.SetRecordSetting(nullptr), VrErrorInvalidParameter);
}

TEST_F(DeviceSelectionTest, EveryWidthFromSixteenToThirtyTwoIsStored) {
    Select();
    for (const std::uint16_t bits : std::vector<std::uint16_t>{16, 17, 20, 24, 31, 32}) {
        Set(0, 48'000, bits);
        std::shared_ptr<VrRecordSetting> setting;
        ASSERT_EQ(manager.GetRecordSetting(&setting), VrSuccess);
        EXPECT_EQ(setting->bits, bits);
    }
}

TEST_F(DeviceSelectionTest, ARefusedRateLeavesTheNewTypeAndTheOldBits) {
    SelectPcm(48'000, 24);
    const VrRecordSetting setting{.rec_type = 1, .freq = 48'000, .bits = 16};

    EXPECT_EQ(manager.SetRecordSetting(&setting), VrErrorNotSupported);

    std::shared_ptr<VrRecordSetting> reported;
    ASSERT_EQ(manager.GetRecordSetting(&reported), VrSuccess);
    EXPECT_EQ(reported->rec_type, 1);
    // Back in PCM by a rate that is refused, too: the width is the one of the last success.
    EXPECT_EQ(TrySet(0, 47'999, 32), VrErrorNotSupported);
    ASSERT_EQ(manager.GetRecordSetting(&reported), VrSuccess);
    EXPECT_EQ(reported->rec_type, 0);
    EXPECT_EQ(reported->bits, 24);
}

TEST_F(DeviceSelectionTest, ARefusedTypeLeavesTheSettingAsItWas) {
    SelectPcm(48'000, 24);
    recorder.registry->RefuseUsbValue(1);  // what asks for DSD

    EXPECT_EQ(TrySet(1, 44'100, 1), VrErrorFailed);

    std::shared_ptr<VrRecordSetting> setting;
    ASSERT_EQ(manager.GetRecordSetting(&setting), VrSuccess);
    EXPECT_EQ(setting->rec_type, 0);
    EXPECT_EQ(setting->freq, 48'000U);
    EXPECT_EQ(setting->bits, 24);
}

TEST_F(DeviceSelectionTest, SettingsAreRefusedDuringARecording) {
    SelectPcm();
    StartRecording();
    const VrRecordSetting setting{.rec_type = 0, .freq = 96'000, .bits = 16};

    EXPECT_EQ(manager.SetRecordSetting(&setting), VrErrorInvalidState);

    EXPECT_EQ(recorder.PhysicalFormat().mSampleRate, 48'000);
}

TEST_F(DeviceSelectionTest, SelectingAgainReleasesAndRestoresTheDevice) {
    SelectPcm(192'000);
    ASSERT_EQ(recorder.PhysicalFormat().mSampleRate, 192'000);

    ASSERT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);

    EXPECT_EQ(recorder.PhysicalFormat().mSampleRate, 44'100);
    EXPECT_TRUE(recorder.IsHeldByThisProcess());
    EXPECT_EQ(manager.State(), ManagerState::Ready);
}

}  // namespace
}  // namespace vorrel::test

#include "device/alsa/UdevRegistry.h"

#include "device/AudioDeviceList.h"
#include "device/CoreAudioManager.h"
#include "device/alsa/MockedCards.h"

namespace vorrel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// The lookups of the device code over the registry of the mocked system.
class UdevRegistryTest : public test::MockedCards {
protected:
    void SetUp() override {
        MockedCards::SetUp();
        if (cards != nullptr) {
            registry = std::make_shared<UdevRegistry>(cards);
        }
    }
    void TearDown() override {
        if (registry != nullptr) {
            EXPECT_EQ(registry->References(), 0U);
            EXPECT_EQ(registry->ExcessReleases(), 0U);
        }
    }

    /// What discovery makes of a card.
    FoundDeviceInfo Found(const SoundCard& card) {
        FoundDeviceInfo record;
        record.name = card.name;
        record.uid = card.uid;
        record.modelUid = card.modelUid;
        std::ignore = manager.GetVidPid(card.uid, record.vendorId, record.productId);
        return record;
    }
    std::vector<io_object_t> Matching(const char* className) {
        io_iterator_t iterator = IO_OBJECT_NULL;
        EXPECT_EQ(registry->GetMatchingServices(className, &iterator), kIOReturnSuccess);
        std::vector<io_object_t> entries;
        while (const io_object_t entry = registry->IteratorNext(iterator)) {
            entries.push_back(entry);
        }
        registry->Release(iterator);
        return entries;
    }
    std::size_t Count(const char* className) {
        const std::vector<io_object_t> entries = Matching(className);
        for (const io_object_t entry : entries) {
            registry->Release(entry);
        }
        return entries.size();
    }

    std::shared_ptr<UdevRegistry> registry;
    CoreAudioManager manager{[this] { return DeviceBackends{nullptr, registry}; }};
};

TEST_F(UdevRegistryTest, TheUsbIdsOfARecorderAreFoundByItsUniqueId) {
    system->Add(Recorder());
    std::int32_t vendorId = 0;
    std::int32_t productId = 0;

    EXPECT_TRUE(manager.GetVidPid(OnlyCard().uid, vendorId, productId));

    EXPECT_EQ(vendorId, 0x6666);
    EXPECT_EQ(productId, 0x0770);
}

TEST_F(UdevRegistryTest, AUniqueIdThatNoCardHasLeavesBothIdsAtMinusOne) {
    system->Add(Recorder());
    std::int32_t vendorId = 0;
    std::int32_t productId = 0;

    EXPECT_FALSE(manager.GetVidPid("usb:6666:0770:0001:1-", vendorId, productId));

    EXPECT_EQ(vendorId, -1);
    EXPECT_EQ(productId, -1);
    EXPECT_EQ(manager.SearchInterface("usb:6666:0770:0001:1-"), nullptr);
}

TEST_F(UdevRegistryTest, ASwitchToDsdReachesTheStreamingInterface) {
    system->Add(Recorder());

    const std::unique_ptr<UsbInterface> usb = manager.SearchInterface(OnlyCard().uid);

    ASSERT_NE(usb, nullptr);
    std::uint8_t number = 0;
    EXPECT_EQ(usb->GetInterfaceNumber(&number), kIOReturnSuccess);
    EXPECT_EQ(number, 2);
    EXPECT_EQ(usb->ControlRequest({0x41, 0, 1, number, 0, nullptr}), kIOReturnSuccess);
    EXPECT_EQ(usb->ControlRequest({0x41, 0, 0, number, 0, nullptr}), kIOReturnSuccess);
    // Type, request, value 1 and 0, index 2, length 0.
    EXPECT_THAT(system->Requests(), ElementsAre(ElementsAre(0x41, 0, 1, 0, 2, 0, 0, 0),
                                                ElementsAre(0x41, 0, 0, 0, 2, 0, 0, 0)));
    EXPECT_EQ(system->Claims(), 0);
}

TEST_F(UdevRegistryTest, TwoRecordersPassTheFilterAndEachIsReachedByItself) {
    system->Add(Recorder());
    test::MockedUsbCard second = SecondRecorder();
    second.descriptors = test::Joined({test::kDeviceDescriptor, test::Configuration(1, 55, 1),
                                       test::Setting2(1, 1, 4, 32, 0x81)});
    system->Add(second);
    const std::vector<SoundCard> found = Find();
    std::vector<FoundDeviceInfo> list = {Found(found.at(0)), Found(found.at(1))};
    ASSERT_NE(list[0].uid, list[1].uid);

    AudioDeviceList().FilterDevices(list);

    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(list[0].uid, found[0].uid);
    EXPECT_EQ(list[1].uid, found[1].uid);
    std::uint8_t first = 0;
    std::uint8_t other = 0;
    EXPECT_EQ(manager.SearchInterface(list[0].uid)->GetInterfaceNumber(&first), kIOReturnSuccess);
    EXPECT_EQ(manager.SearchInterface(list[1].uid)->GetInterfaceNumber(&other), kIOReturnSuccess);
    EXPECT_EQ(first, 2);
    EXPECT_EQ(other, 1);
}

TEST_F(UdevRegistryTest, OtherNamesAndOtherProductIdsAreFilteredOut) {
    test::MockedUsbCard named = Recorder();
    named.product = "KD-WV770 ";
    test::MockedUsbCard numbered = SecondRecorder();
    numbered.productId = 0x0771;
    system->Add(named);
    system->Add(numbered);
    const std::vector<SoundCard> found = Find();
    std::vector<FoundDeviceInfo> list = {Found(found.at(0)), Found(found.at(1))};
    ASSERT_EQ(list[0].productId, 0x0770);
    ASSERT_EQ(list[1].productId, 0x0771);

    AudioDeviceList().FilterDevices(list);

    EXPECT_THAT(list, IsEmpty());
}

TEST_F(UdevRegistryTest, ACardWithoutACaptureStreamHasNoStreamEntryAndNoInterface) {
    test::MockedUsbCard player = Recorder();
    player.captures = false;
    system->Add(player);
    std::int32_t vendorId = 0;
    std::int32_t productId = 0;

    EXPECT_TRUE(manager.GetVidPid(OnlyCard().uid, vendorId, productId));
    EXPECT_EQ(manager.SearchInterface(OnlyCard().uid), nullptr);
    EXPECT_EQ(Count("IOAudioEngine"), 1U);
    EXPECT_EQ(Count("IOAudioStream"), 0U);
}

TEST_F(UdevRegistryTest, WithoutAStreamingInterfaceTheStreamIsNoUsbInterfacesChild) {
    test::MockedUsbCard recorder = Recorder();
    recorder.descriptors.clear();
    system->Add(recorder);

    EXPECT_EQ(manager.SearchInterface(OnlyCard().uid), nullptr);
    EXPECT_EQ(Count("IOAudioStream"), 1U);
    EXPECT_EQ(Count("IOUSBInterface"), 1U);
}

TEST_F(UdevRegistryTest, ACardThatIsNoUsbDeviceHasAnEngineWithoutIds) {
    system->AddPciCard(3, "PCH", true);
    std::int32_t vendorId = 0;
    std::int32_t productId = 0;

    EXPECT_FALSE(manager.GetVidPid(OnlyCard().uid, vendorId, productId));
    EXPECT_EQ(vendorId, -1);
    EXPECT_EQ(manager.SearchInterface(OnlyCard().uid), nullptr);
    EXPECT_EQ(Count("IOAudioEngine"), 1U);
    EXPECT_EQ(Count("IOUSBInterface"), 0U);
}

TEST_F(UdevRegistryTest, WhatCompletesACardLaterIsFoundToo) {
    // The card is there before its stream text and its PCM devices are.
    test::MockedUsbCard recorder = Recorder();
    recorder.descriptors.clear();
    system->Add(recorder);
    ASSERT_EQ(manager.SearchInterface(OnlyCard().uid), nullptr);

    system->WriteProc("card0/stream0", RecorderStreamText());

    EXPECT_NE(manager.SearchInterface(OnlyCard().uid), nullptr);
}

TEST_F(UdevRegistryTest, ACardRemovedDuringASearchEndsItWithNothing) {
    system->Add(Recorder());
    const std::vector<io_object_t> engines = Matching("IOAudioEngine");
    const std::vector<io_object_t> interfaces = Matching("IOUSBInterface");
    ASSERT_EQ(engines.size(), 1U);
    ASSERT_EQ(interfaces.size(), 2U);

    system->Remove(Recorder());

    io_iterator_t children = IO_OBJECT_NULL;
    EXPECT_EQ(registry->GetChildIterator(engines[0], "IOService", &children), kIOReturnSuccess);
    EXPECT_EQ(registry->IteratorNext(children), IO_OBJECT_NULL);
    EXPECT_EQ(registry->CreateUsbInterface(interfaces[1]), nullptr);
    EXPECT_EQ(registry->GetKernelRetainCount(engines[0]), 1U);
    EXPECT_EQ(Count("IOAudioEngine"), 0U);
    for (const io_object_t entry : {engines[0], interfaces[0], interfaces[1], children}) {
        registry->Release(entry);
    }
}

TEST_F(UdevRegistryTest, EntriesStayWhileTheCardsCannotBeLookedAt) {
    struct FailingCards final : SoundCards {
        using SoundCards::SoundCards;
        std::optional<std::vector<SoundCard>> Find() const override {
            return fails ? std::nullopt : SoundCards::Find();
        }
        bool fails = false;
    };
    const auto failing = std::make_shared<FailingCards>(system->ProcDirectory());
    registry = std::make_shared<UdevRegistry>(failing);
    system->Add(Recorder());
    ASSERT_EQ(Count("IOAudioEngine"), 1U);

    failing->fails = true;

    EXPECT_EQ(Count("IOAudioEngine"), 1U);
    EXPECT_NE(manager.SearchInterface(OnlyCard().uid), nullptr);
}

TEST_F(UdevRegistryTest, PluggedInAgainItHasNewEntries) {
    test::MockedUsbCard recorder = Recorder();
    system->Add(recorder);
    const std::vector<io_object_t> before = Matching("IOAudioEngine");

    system->Remove(recorder);
    recorder.address = 9;
    system->Add(recorder);

    const std::vector<io_object_t> after = Matching("IOAudioEngine");
    ASSERT_EQ(after.size(), 1U);
    EXPECT_NE(after[0], before.at(0));
    EXPECT_NE(manager.SearchInterface(OnlyCard().uid), nullptr);
    registry->Release(before[0]);
    registry->Release(after[0]);
}

}  // namespace
}  // namespace vorrel

#include "device/simulated/SimulatedRegistry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "device/simulated/SimulatedFixture.h"

namespace vorrel {
namespace {

constexpr char kPlane[] = "IOService";

class SimulatedRegistryTest : public test::SimulatedTest {
protected:
    ~SimulatedRegistryTest() override {
        EXPECT_EQ(registry.References(), 0U);
        EXPECT_EQ(registry.UsbInterfaces(), 0U);
    }

    std::vector<io_object_t> Drain(io_iterator_t iterator) {
        std::vector<io_object_t> entries;
        while (const io_object_t entry = registry.IteratorNext(iterator)) {
            entries.push_back(entry);
        }
        registry.Release(iterator);
        return entries;
    }
    std::vector<io_object_t> Matching(const char* className) {
        io_iterator_t iterator = IO_OBJECT_NULL;
        EXPECT_EQ(registry.GetMatchingServices(className, &iterator), kIOReturnSuccess);
        return Drain(iterator);
    }
    std::vector<io_object_t> Children(io_object_t entry) {
        io_iterator_t iterator = IO_OBJECT_NULL;
        EXPECT_EQ(registry.GetChildIterator(entry, kPlane, &iterator), kIOReturnSuccess);
        return Drain(iterator);
    }
    std::vector<io_object_t> Parents(io_object_t entry) {
        io_iterator_t iterator = IO_OBJECT_NULL;
        EXPECT_EQ(registry.GetParentIterator(entry, kPlane, &iterator), kIOReturnSuccess);
        return Drain(iterator);
    }
    void ReleaseAll(const std::vector<io_object_t>& entries) {
        for (const io_object_t entry : entries) {
            registry.Release(entry);
        }
    }
    RegistryValue Value(io_object_t entry, const char* key) {
        return registry.SearchProperty(entry, kPlane, key);
    }

    SimulatedRegistry& registry = backends.Registry();
};

TEST_F(SimulatedRegistryTest, TheEngineCarriesTheUniqueIdAndTheUsbIds) {
    const auto engines = Matching("IOAudioEngine");
    ASSERT_EQ(engines.size(), 1U);

    EXPECT_EQ(std::get<std::string>(Value(engines[0], "IOAudioEngineGlobalUniqueID")),
              recorder.Uid());
    EXPECT_EQ(std::get<std::int64_t>(Value(engines[0], "idVendor")), kSupportedVendorId);
    EXPECT_EQ(std::get<std::int64_t>(Value(engines[0], "idProduct")), kSupportedProductId);
    EXPECT_EQ(Value(engines[0], "nothing").index(), 0U);
    EXPECT_EQ(registry.SearchProperty(engines[0], "IOUSB", "idVendor").index(), 0U);
    ReleaseAll(engines);
}

TEST_F(SimulatedRegistryTest, TheInputStreamIsTheEnginesChildAndTheUsbInterfacesToo) {
    const auto engines = Matching("IOAudioEngine");
    const auto children = Children(engines.at(0));
    ASSERT_EQ(children.size(), 2U);
    EXPECT_FALSE(registry.ConformsTo(children[0], "IOAudioStream"));
    EXPECT_TRUE(registry.ConformsTo(children[1], "IOAudioStream"));
    EXPECT_EQ(std::get<std::int64_t>(Value(children[1], "IOAudioStreamDirection")), 1);

    const auto parents = Parents(children[1]);
    ASSERT_EQ(parents.size(), 2U);
    EXPECT_EQ(parents[0], engines[0]);
    EXPECT_FALSE(registry.ConformsTo(parents[0], "IOUSBInterface"));
    EXPECT_TRUE(registry.ConformsTo(parents[1], "IOUSBInterface"));
    const auto usb = registry.CreateUsbInterface(parents[1]);
    ASSERT_NE(usb, nullptr);
    EXPECT_EQ(registry.UsbInterfaces(), 1U);
    EXPECT_EQ(usb->ControlRequest(SwitchMode(true)), kIOReturnSuccess);
    EXPECT_TRUE(recorder.IsDsdMode());
    ReleaseAll(engines);
    ReleaseAll(children);
    ReleaseAll(parents);
}

TEST_F(SimulatedRegistryTest, EveryEntryConformsToTheClassesItDescendsFrom) {
    const auto engines = Matching("IOAudioEngine");
    for (const char* className : {"IOAudioEngine", "IOService", "IORegistryEntry", "OSObject"}) {
        EXPECT_TRUE(registry.ConformsTo(engines.at(0), className)) << className;
    }
    EXPECT_FALSE(registry.ConformsTo(engines.at(0), "IOAudioStream"));
    EXPECT_FALSE(registry.ConformsTo(4'711, "OSObject"));
    ReleaseAll(engines);

    const auto services = Matching("IOService");
    EXPECT_EQ(services.size(), 6U);
    ReleaseAll(services);
}

TEST_F(SimulatedRegistryTest, AClassThatNobodyHasGivesAnEmptyIterator) {
    EXPECT_TRUE(Matching("IOThunderstorm").empty());
}

TEST_F(SimulatedRegistryTest, FirstChildAndFirstParentAreFound) {
    const auto streams = Matching("IOAudioStream");
    io_registry_entry_t parent = IO_OBJECT_NULL;
    io_registry_entry_t child = IO_OBJECT_NULL;
    ASSERT_EQ(registry.GetParentEntry(streams.at(0), kPlane, &parent), kIOReturnSuccess);
    ASSERT_EQ(registry.GetChildEntry(parent, kPlane, &child), kIOReturnSuccess);

    EXPECT_TRUE(registry.ConformsTo(parent, "IOAudioEngine"));
    EXPECT_TRUE(registry.ConformsTo(child, "IOAudioControl"));
    EXPECT_EQ(registry.GetChildEntry(child, kPlane, &parent), kIOReturnNoDevice);
    ReleaseAll({child, parent});
    ReleaseAll(streams);
}

TEST_F(SimulatedRegistryTest, AnIteratorCanBeReset) {
    io_iterator_t iterator = IO_OBJECT_NULL;
    ASSERT_EQ(registry.GetMatchingServices("IOUSBInterface", &iterator), kIOReturnSuccess);
    const io_object_t first = registry.IteratorNext(iterator);
    const io_object_t second = registry.IteratorNext(iterator);
    EXPECT_NE(first, second);
    EXPECT_EQ(registry.IteratorNext(iterator), IO_OBJECT_NULL);

    registry.IteratorReset(iterator);

    EXPECT_EQ(registry.IteratorNext(iterator), first);
    ReleaseAll({first, first, second, iterator});
}

TEST_F(SimulatedRegistryTest, ReferencesAreCounted) {
    const auto engines = Matching("IOAudioEngine");
    const io_object_t engine = engines.at(0);
    EXPECT_EQ(registry.GetUserRetainCount(engine), 1U);
    EXPECT_EQ(registry.GetKernelRetainCount(engine), 2U);

    registry.Retain(engine);
    EXPECT_EQ(registry.GetUserRetainCount(engine), 2U);
    EXPECT_EQ(registry.References(), 2U);
    registry.Release(engine);
    registry.Release(engine);
    EXPECT_EQ(registry.GetUserRetainCount(engine), 0U);
    EXPECT_EQ(registry.GetKernelRetainCount(engine), 0U);
    EXPECT_EQ(registry.ExcessReleases(), 0U);

    registry.Release(engine);
    registry.Release(IO_OBJECT_NULL);
    EXPECT_EQ(registry.ExcessReleases(), 1U);
}

TEST_F(SimulatedRegistryTest, AnEntryThatWasReleasedAnswersNothing) {
    const auto engines = Matching("IOAudioEngine");
    ReleaseAll(engines);
    io_iterator_t iterator = IO_OBJECT_NULL;

    EXPECT_EQ(Value(engines.at(0), "idVendor").index(), 0U);
    EXPECT_EQ(registry.GetChildIterator(engines[0], kPlane, &iterator), kIOReturnError);
    EXPECT_EQ(registry.CreateUsbInterface(engines[0]), nullptr);
}

TEST_F(SimulatedRegistryTest, UnknownPlanesAndNullNamesAreRefused) {
    const auto engines = Matching("IOAudioEngine");
    io_iterator_t iterator = IO_OBJECT_NULL;
    io_registry_entry_t entry = IO_OBJECT_NULL;

    EXPECT_EQ(registry.GetMatchingServices(nullptr, &iterator), kIOReturnError);
    EXPECT_EQ(registry.GetChildIterator(engines.at(0), "IOUSB", &iterator), kIOReturnError);
    EXPECT_EQ(registry.GetParentIterator(engines[0], nullptr, &iterator), kIOReturnError);
    EXPECT_EQ(registry.GetChildEntry(engines[0], "IOUSB", &entry), kIOReturnNoDevice);
    ReleaseAll(engines);
}

TEST_F(SimulatedRegistryTest, OnlyUsbInterfacesGiveAHandle) {
    const auto services = Matching("IOService");
    int handles = 0;
    for (const io_object_t service : services) {
        handles += registry.CreateUsbInterface(service) != nullptr ? 1 : 0;
    }
    EXPECT_EQ(handles, 2);
    ReleaseAll(services);

    registry.SetUsbInterfaceAvailable(false);
    const auto interfaces = Matching("IOUSBInterface");
    EXPECT_EQ(registry.CreateUsbInterface(interfaces.at(1)), nullptr);
    ReleaseAll(interfaces);
}

TEST_F(SimulatedRegistryTest, TheControlInterfaceDoesNotSwitchTheMode) {
    const auto interfaces = Matching("IOUSBInterface");
    const auto control = registry.CreateUsbInterface(interfaces.at(0));
    std::uint8_t number = 9;

    EXPECT_EQ(control->GetInterfaceNumber(&number), kIOReturnSuccess);
    EXPECT_EQ(number, 0);
    EXPECT_EQ(control->ControlRequest({0x41, 0, 1, 0, 0, nullptr}), kIOUSBPipeStalled);
    ReleaseAll(interfaces);
}

TEST_F(SimulatedRegistryTest, ValuesCanBeMissingOrOfAnotherType) {
    registry.SetValue(0, RegistryRole::Engine, "idVendor", std::monostate{});
    registry.SetValue(0, RegistryRole::Engine, "idProduct", std::string("770"));
    registry.SetValue(0, RegistryRole::Engine, "IOAudioEngineGlobalUniqueID", RegistryOtherValue{});
    const auto engines = Matching("IOAudioEngine");

    EXPECT_EQ(Value(engines.at(0), "idVendor").index(), 0U);
    EXPECT_EQ(std::get<std::string>(Value(engines[0], "idProduct")), "770");
    EXPECT_TRUE(std::holds_alternative<RegistryOtherValue>(
        Value(engines[0], "IOAudioEngineGlobalUniqueID")));
    ReleaseAll(engines);
}

TEST_F(SimulatedRegistryTest, EntriesCanBeAbsent) {
    registry.SetPresent(0, RegistryRole::StreamingInterface, false);
    const auto streams = Matching("IOAudioStream");
    const auto parents = Parents(streams.at(0));
    EXPECT_EQ(parents.size(), 1U);

    registry.SetPresent(0, RegistryRole::Stream, false);
    EXPECT_TRUE(Matching("IOAudioStream").empty());
    registry.SetPresent(0, RegistryRole::Stream, true);
    ReleaseAll(Matching("IOAudioStream"));
    ReleaseAll(parents);
    ReleaseAll(streams);
}

TEST_F(SimulatedRegistryTest, TheSearchItselfCanFail) {
    registry.FailMatching(kIOReturnError);
    io_iterator_t iterator = IO_OBJECT_NULL;

    EXPECT_EQ(registry.GetMatchingServices("IOAudioEngine", &iterator), kIOReturnError);
    registry.FailMatching(kIOReturnSuccess);
    ReleaseAll(Matching("IOAudioEngine"));
}

TEST_F(SimulatedRegistryTest, UnpluggedItIsFoundNoMoreAndPluggedInAgainItIsNew) {
    const auto before = Matching("IOAudioEngine");
    recorder.Unplug();
    EXPECT_TRUE(Matching("IOAudioEngine").empty());
    EXPECT_TRUE(Children(before.at(0)).empty());
    EXPECT_EQ(registry.GetKernelRetainCount(before[0]), 1U);
    EXPECT_EQ(std::get<std::string>(Value(before[0], "IOAudioEngineGlobalUniqueID")),
              recorder.Uid());

    recorder.Plug();
    const auto after = Matching("IOAudioEngine");
    ASSERT_EQ(after.size(), 1U);
    EXPECT_NE(after[0], before[0]);
    EXPECT_EQ(std::get<std::string>(Value(after[0], "IOAudioEngineGlobalUniqueID")),
              recorder.Uid());
    ReleaseAll(before);
    ReleaseAll(after);
}

}  // namespace
}  // namespace vorrel

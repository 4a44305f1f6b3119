#include "device/simulated/SimulatedBackends.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "device/simulated/SimulatedFixture.h"
#include "platform/TraceSink.h"

namespace vorrel {
namespace {

using test::Global;
using testing::HasSubstr;

/// The trace lines of a scope.
class TraceLines {
public:
    TraceLines() {
        SetTraceSink([this](const std::string& line) { lines.push_back(line); });
    }
    ~TraceLines() { SetTraceSink({}); }
    std::vector<std::string> lines;
};

std::vector<AudioDeviceID> Devices(AudioBackend& audio) {
    const auto address = Global(kAudioHardwarePropertyDevices);
    UInt32 size = 0;
    EXPECT_EQ(audio.GetPropertyDataSize(kAudioObjectSystemObject, address, &size), 0);
    std::vector<AudioDeviceID> ids(size / sizeof(AudioDeviceID));
    EXPECT_EQ(audio.GetPropertyData(kAudioObjectSystemObject, address, &size, ids.data()), 0);
    return ids;
}

TEST(SimulatedBackendsTest, WithoutAConfigurationThereIsOneRecorder) {
    for (const char* text : {static_cast<const char*>(nullptr), ""}) {
        const DeviceBackends backends = MakeSimulatedBackends(text);

        ASSERT_NE(backends.audio, nullptr);
        ASSERT_NE(backends.registry, nullptr);
        EXPECT_EQ(Devices(*backends.audio).size(), 1U);
    }
}

TEST(SimulatedBackendsTest, SeveralRecordersHaveOneNameAndDifferentUniqueIds) {
    const DeviceBackends backends = MakeSimulatedBackends("recorders=2");
    const std::vector<AudioDeviceID> devices = Devices(*backends.audio);
    ASSERT_EQ(devices.size(), 2U);
    const auto text = [&](AudioDeviceID device, AudioObjectPropertySelector selector) {
        std::string value;
        EXPECT_EQ(backends.audio->GetPropertyString(device, Global(selector), &value), 0);
        return value;
    };

    EXPECT_EQ(text(devices[0], kAudioObjectPropertyName), "KD-WV770");
    EXPECT_EQ(text(devices[1], kAudioObjectPropertyName), "KD-WV770");
    EXPECT_EQ(text(devices[0], kAudioDevicePropertyModelUID),
              text(devices[1], kAudioDevicePropertyModelUID));
    EXPECT_NE(text(devices[0], kAudioDevicePropertyDeviceUID),
              text(devices[1], kAudioDevicePropertyDeviceUID));
}

TEST(SimulatedBackendsTest, EachRecorderHasItsOwnMode) {
    SimulatedBackends backends({{}, {}});
    SimulatedRegistry& registry = backends.Registry();
    io_iterator_t iterator = IO_OBJECT_NULL;
    ASSERT_EQ(registry.GetMatchingServices("IOUSBInterface", &iterator), 0);
    io_object_t last = IO_OBJECT_NULL;
    while (const io_object_t entry = registry.IteratorNext(iterator)) {
        registry.Release(last);
        last = entry;
    }
    const std::unique_ptr<UsbInterface> usb = registry.CreateUsbInterface(last);
    registry.Release(last);
    registry.Release(iterator);

    ASSERT_EQ(usb->ControlRequest({0x41, 0, 1, 1, 0, nullptr}), kIOReturnSuccess);

    EXPECT_FALSE(backends.Recorder(0).IsDsdMode());
    EXPECT_TRUE(backends.Recorder(1).IsDsdMode());
}

TEST(SimulatedBackendsTest, ABadTextIsTracedAndGivesNoBackEnds) {
    TraceLines trace;

    const DeviceBackends backends = MakeSimulatedBackends("source=tone,volume=11");

    EXPECT_EQ(backends.audio, nullptr);
    EXPECT_EQ(backends.registry, nullptr);
    ASSERT_EQ(trace.lines.size(), 1U);
    EXPECT_THAT(trace.lines[0], HasSubstr("volume=11"));
}

TEST(SimulatedBackendsTest, ARecorderThatCannotBeMadeIsTracedAndNotThere) {
    TraceLines trace;
    SimulatedRecorderConfig broken;
    broken.source = SimulatedSource::File;
    broken.filePath = "/nowhere.wav";

    SimulatedBackends backends({broken, {}});

    EXPECT_EQ(backends.RecorderCount(), 1U);
    EXPECT_EQ(Devices(backends.Audio()).size(), 1U);
    ASSERT_EQ(trace.lines.size(), 1U);
    EXPECT_THAT(trace.lines[0], HasSubstr("/nowhere.wav"));
}

TEST(SimulatedBackendsTest, WithoutRecordersTheListIsEmpty) {
    SimulatedBackends backends{std::vector<SimulatedRecorderConfig>{}};

    EXPECT_TRUE(Devices(backends.Audio()).empty());
}

TEST(SimulatedBackendsTest, TheBackEndsOutliveTheHandOnThem) {
    const DeviceBackends backends = SimulatedBackends().Backends();

    EXPECT_EQ(Devices(*backends.audio).size(), 1U);
}

TEST(SimulatedBackendsTest, AUsbHandleOutlivesTheBackEnds) {
    std::unique_ptr<UsbInterface> usb;
    {
        SimulatedBackends backends;
        SimulatedRegistry& registry = backends.Registry();
        io_iterator_t iterator = IO_OBJECT_NULL;
        ASSERT_EQ(registry.GetMatchingServices("IOUSBInterface", &iterator), 0);
        usb = registry.CreateUsbInterface(registry.IteratorNext(iterator));
    }
    std::uint8_t number = 9;
    EXPECT_EQ(usb->GetInterfaceNumber(&number), kIOReturnSuccess);
    EXPECT_EQ(number, 0);
}

}  // namespace
}  // namespace vorrel

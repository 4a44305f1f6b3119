#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "device/simulated/RecorderCaptureRig.h"
#include "support/WaitingCall.h"

namespace vorrel::test {
namespace {

TEST_F(ManualCaptureTest, UnpluggedItEndsEverythingAndSaysSoOnce) {
    CountingListener alive;
    CountingListener devices;
    Listen(Device(), kAudioDevicePropertyDeviceIsAlive, alive);
    Listen(kAudioObjectSystemObject, kAudioHardwarePropertyDevices, devices);
    const std::unique_ptr<UsbInterface> usb = OpenUsb();
    const AudioDeviceIOProcID proc = StartProc(collector);

    recorder.Unplug();
    recorder.Unplug();
    backends.FlushNotifications();

    EXPECT_EQ(alive.calls, 1);
    EXPECT_EQ(devices.calls, 1);
    EXPECT_FALSE(recorder.IsRunning());
    EXPECT_FALSE(recorder.DeliverBuffer());
    UInt32 size = 1;
    EXPECT_EQ(audio.GetPropertyDataSize(kAudioObjectSystemObject,
                                        Global(kAudioHardwarePropertyDevices), &size),
              0);
    EXPECT_EQ(size, 0U);
    UInt32 value = 1;
    EXPECT_EQ(Get(Device(), Global(kAudioDevicePropertyDeviceIsAlive), value), 0);
    EXPECT_EQ(value, 0U);
    EXPECT_EQ(Get(Device(), Global(kAudioDevicePropertyBufferFrameSize), value),
              kAudioHardwareBadDeviceError);
    EXPECT_EQ(Set(Device(), Global(kAudioDevicePropertyHogMode), std::int32_t{-1}),
              kAudioHardwareBadDeviceError);
    std::string text;
    EXPECT_EQ(audio.GetPropertyString(Device(), Global(kAudioObjectPropertyName), &text),
              kAudioHardwareBadDeviceError);
    AudioStreamBasicDescription format{};
    EXPECT_EQ(Get(Stream(), Global(kAudioStreamPropertyPhysicalFormat), format),
              kAudioHardwareBadObjectError);
    std::uint8_t number = 0;
    EXPECT_EQ(usb->GetInterfaceNumber(&number), kIOReturnNoDevice);
    EXPECT_EQ(usb->ControlRequest(SwitchMode(false)), kIOReturnNoDevice);
    EXPECT_EQ(audio.Start(Device(), proc), kAudioHardwareBadDeviceError);
}

TEST_F(ManualCaptureTest, WhatWasTakenOfAGoneDeviceCanStillBeGivenBack) {
    CountingListener alive;
    const auto address = Global(kAudioDevicePropertyDeviceIsAlive);
    ASSERT_EQ(audio.AddPropertyListener(Device(), address, &CountingListener::Proc, &alive), 0);
    const AudioDeviceIOProcID proc = StartProc(collector);
    recorder.Unplug();

    EXPECT_EQ(audio.Stop(Device(), proc), kAudioHardwareBadDeviceError);
    EXPECT_EQ(audio.RemovePropertyListener(Device(), address, &CountingListener::Proc, &alive),
              kAudioHardwareBadDeviceError);
    EXPECT_EQ(audio.DestroyIOProcID(Device(), proc), kAudioHardwareBadDeviceError);

    EXPECT_EQ(backends.ListenerCount(), 0U);
    EXPECT_EQ(recorder.IoProcCount(), 0U);
}

TEST_F(ManualCaptureTest, UnplugsItselfAfterSoManyBuffers) {
    recorder.UnplugAfterBuffers(3);
    StartProc(collector);

    EXPECT_EQ(recorder.DeliverBuffers(10), 3U);
    EXPECT_FALSE(recorder.IsPlugged());
}

TEST_F(ManualCaptureTest, PluggedInAgainItIsAnotherObjectInItsFirstState) {
    const AudioObjectID formerDevice = Device();
    const std::unique_ptr<UsbInterface> formerUsb = OpenUsb();
    ASSERT_EQ(formerUsb->ControlRequest(SwitchMode(true)), 0);
    ASSERT_EQ(Set(Device(), Global(kAudioDevicePropertyBufferFrameSize), UInt32{100}), 0);
    recorder.Unplug();

    recorder.Plug();

    EXPECT_NE(Device(), formerDevice);
    EXPECT_FALSE(recorder.IsDsdMode());
    EXPECT_EQ(recorder.BufferFrames(), 512U);
    UInt32 value = 0;
    EXPECT_EQ(Get(formerDevice, Global(kAudioDevicePropertyDeviceIsAlive), value),
              kAudioHardwareBadObjectError);
    EXPECT_EQ(formerUsb->ControlRequest(SwitchMode(true)), kIOReturnNoDevice);
    EXPECT_EQ(OpenUsb()->ControlRequest(SwitchMode(false)), 0);
    StartProc(collector);
}

TEST_F(ManualCaptureTest, PluggedInAgainItHasNoProcOfTheFormerPlugging) {
    const AudioObjectID formerDevice = Device();
    const AudioDeviceIOProcID proc = StartProc(collector);
    recorder.Unplug();

    recorder.Plug();

    EXPECT_EQ(recorder.IoProcCount(), 0U);
    EXPECT_EQ(audio.Stop(formerDevice, proc), kAudioHardwareBadObjectError);
    EXPECT_EQ(audio.DestroyIOProcID(formerDevice, proc), kAudioHardwareBadObjectError);
    Collector second;
    StartProc(second);
    recorder.DeliverBuffer();
    EXPECT_EQ(second.Count(), 1U);
    EXPECT_EQ(collector.Count(), 0U);
}

TEST_F(ManualCaptureTest, PluggingInWaitsForACallOfTheFormerPlugging) {
    std::promise<void> entered;
    std::promise<void> go;
    collector.onBuffer = [&] {
        entered.set_value();
        go.get_future().wait();
    };
    StartProc(collector);
    std::thread device([this] { recorder.DeliverBuffer(); });
    entered.get_future().wait();
    std::thread unplugger([this] { recorder.Unplug(); });
    while (recorder.IsPlugged()) {
        std::this_thread::yield();
    }

    test::WaitingCall plugging([this] { recorder.Plug(); });
    EXPECT_TRUE(plugging.Waits());
    go.set_value();
    plugging.Join();
    unplugger.join();
    device.join();

    EXPECT_TRUE(recorder.IsPlugged());
    EXPECT_EQ(recorder.IoProcCount(), 0U);
}

TEST_F(ManualCaptureTest, AnUnpluggingDoesNotEndTheRunOfThePluggingThatFollowsAtOnce) {
    for (int round = 0; round < 500; ++round) {
        std::thread plugger([this] {
            while (recorder.IsPlugged()) {
            }
            recorder.Plug();
            StartProc(collector);
        });

        recorder.Unplug();
        plugger.join();

        ASSERT_TRUE(recorder.IsRunning()) << round;
    }
}

TEST_F(ManualCaptureTest, TheBackEndsMayGoOutOfAListener) {
    auto going = std::make_unique<SimulatedBackends>(
        std::vector<SimulatedRecorderConfig>{Counter(1'000.0, false)});
    CountingListener listener;
    listener.onCall = [&going] { going.reset(); };
    const AudioObjectID device = going->Recorder().DeviceId();
    ASSERT_EQ(going->Audio().AddPropertyListener(device, Global(kAudioDeviceProcessorOverload),
                                                 &CountingListener::Proc, &listener),
              0);
    AudioDeviceIOProcID proc = nullptr;
    ASSERT_EQ(going->Audio().CreateIOProcID(device, &Collector::Proc, &collector, &proc), 0);
    ASSERT_EQ(going->Audio().Start(device, proc), 0);
    ASSERT_TRUE(collector.WaitForCount(1));

    going->Recorder().RaiseOverload();
    while (listener.calls == 0) {
        std::this_thread::yield();
    }

    EXPECT_EQ(going, nullptr);
}

}  // namespace
}  // namespace vorrel::test

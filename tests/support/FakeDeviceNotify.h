#pragma once

#include <atomic>
#include <functional>

#include "device/IAudioDeviceNotify.h"

namespace vorrel::test {

/// Counts what the device layer tells, and keeps the buffer lists of the last cycle.
class FakeDeviceNotify final : public IAudioDeviceNotify {
public:
    std::atomic<int> overloads{0};
    std::atomic<int> aliveChanges{0};
    std::atomic<int> cycles{0};
    std::atomic<const AudioBufferList*> lastInput{nullptr};
    std::atomic<AudioBufferList*> lastOutput{nullptr};
    std::function<void()> onCycle;  // set before the device starts

    void AudioDevice_ProcessorOverload() override { ++overloads; }
    void AudioDevice_DeviceIsAliveChanged() override { ++aliveChanges; }
    void AudioDevice_IOProc(const AudioBufferList* input, AudioBufferList* output) override {
        lastInput = input;
        lastOutput = output;
        if (onCycle) {
            onCycle();
        }
        ++cycles;
        cycles.notify_all();  // for a test that waits
    }
};

}  // namespace vorrel::test

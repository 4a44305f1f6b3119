#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "device/simulated/SimulatedBackends.h"
#include "platform/Mutex.h"

namespace vorrel::test {

inline constexpr AudioObjectPropertyAddress Global(AudioObjectPropertySelector selector) {
    return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}

/// An IO proc that keeps what it gets. Client data of `Proc`.
class Collector {
public:
    struct Buffer {
        UInt32 channels;
        std::vector<float> samples;
    };

    static OSStatus Proc(AudioObjectID device, const AudioTimeStamp*, const AudioBufferList* input,
                         const AudioTimeStamp*, AudioBufferList*, const AudioTimeStamp*,
                         void* clientData) {
        static_cast<Collector*>(clientData)->Take(device, *input);
        return 0;
    }

    /// The lists, each with its buffers; a copy.
    std::vector<std::vector<Buffer>> Lists() {
        const MutexLock lock(mutex);
        return lists;
    }
    /// The samples of the first buffers of all lists behind each other.
    std::vector<float> Samples() {
        std::vector<float> samples;
        for (const auto& list : Lists()) {
            if (!list.empty()) {
                samples.insert(samples.end(), list[0].samples.begin(), list[0].samples.end());
            }
        }
        return samples;
    }
    std::size_t Count() {
        const MutexLock lock(mutex);
        return lists.size();
    }
    bool WaitForCount(std::size_t count) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        const MutexLock lock(mutex);
        while (lists.size() < count) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            taken.WaitFor(mutex, std::chrono::milliseconds(100));
        }
        return true;
    }

    std::function<void()> onBuffer;  ///< Set before the start; called on the delivering thread.
    std::atomic<AudioObjectID> device{0};
    std::atomic<bool> keeps{true};  ///< Whether samples are kept.

private:
    void Take(AudioObjectID from, const AudioBufferList& list) {
        device = from;
        std::vector<Buffer> buffers;
        const auto* next = reinterpret_cast<const AudioBuffer*>(
            reinterpret_cast<const std::byte*>(&list) + offsetof(AudioBufferList, mBuffers));
        for (UInt32 i = 0; i < list.mNumberBuffers && keeps; ++i) {
            const auto* samples = static_cast<const float*>(next[i].mData);
            buffers.push_back({next[i].mNumberChannels,
                               {samples, samples + next[i].mDataByteSize / sizeof(float)}});
        }
        {
            const MutexLock lock(mutex);
            lists.push_back(std::move(buffers));
            taken.NotifyAll();
        }
        if (onBuffer) {
            onBuffer();
        }
    }

    Mutex mutex;
    ConditionVariable taken;
    std::vector<std::vector<Buffer>> lists VORREL_GUARDED_BY(mutex);
};

/// A property listener that counts its calls. Client data of `Proc`.
class CountingListener {
public:
    static OSStatus Proc(AudioObjectID object, UInt32 addressCount,
                         const AudioObjectPropertyAddress* addresses, void* clientData) {
        auto* self = static_cast<CountingListener*>(clientData);
        self->object = object;
        self->selector = addressCount == 1 ? addresses[0].mSelector : 0;
        self->thread = std::this_thread::get_id();
        if (self->onCall) {
            self->onCall();
        }
        ++self->calls;
        return 0;
    }

    std::function<void()> onCall;
    std::atomic<int> calls{0};
    std::atomic<AudioObjectID> object{0};
    std::atomic<AudioObjectPropertySelector> selector{0};
    std::atomic<std::thread::id> thread{};
};

/// A recorder over `config`, by default without a thread.
class SimulatedTest : public testing::Test {
protected:
    static SimulatedRecorderConfig Manual() {
        SimulatedRecorderConfig config;
        config.manual = true;
        return config;
    }

    explicit SimulatedTest(const SimulatedRecorderConfig& config = Manual()) : backends({config}) {}

    template <class T>
    OSStatus Get(AudioObjectID object, const AudioObjectPropertyAddress& address, T& value) {
        UInt32 size = sizeof value;
        return audio.GetPropertyData(object, address, &size, &value);
    }
    template <class T>
    OSStatus Set(AudioObjectID object, const AudioObjectPropertyAddress& address, const T& value) {
        return audio.SetPropertyData(object, address, sizeof value, &value);
    }
    /// Counts what the listeners of a property are called.
    void Listen(AudioObjectID object, AudioObjectPropertySelector selector,
                CountingListener& listener) {
        ASSERT_EQ(
            audio.AddPropertyListener(object, Global(selector), &CountingListener::Proc, &listener),
            0);
    }
    template <class T>
    std::vector<T> GetArray(AudioObjectID object, const AudioObjectPropertyAddress& address) {
        UInt32 size = 0;
        EXPECT_EQ(audio.GetPropertyDataSize(object, address, &size), 0);
        std::vector<T> values(size / sizeof(T));
        EXPECT_EQ(size % sizeof(T), 0U);
        EXPECT_EQ(audio.GetPropertyData(object, address, &size, values.data()), 0);
        return values;
    }

    AudioObjectID Device() { return recorder.DeviceId(); }
    AudioObjectID Stream() { return recorder.StreamId(); }
    std::vector<AudioStreamRangedDescription> Formats() {
        return GetArray<AudioStreamRangedDescription>(
            Stream(), Global(kAudioStreamPropertyAvailablePhysicalFormats));
    }
    /// The first offered format of that rate and width.
    AudioStreamBasicDescription Format(double rateHz, UInt32 bits) {
        for (const AudioStreamRangedDescription& ranged : Formats()) {
            if (ranged.mFormat.mSampleRate == rateHz && ranged.mFormat.mBitsPerChannel == bits) {
                return ranged.mFormat;
            }
        }
        ADD_FAILURE() << "no format of " << rateHz << " Hz, " << bits << " bits";
        return {};
    }
    OSStatus SetFormat(double rateHz, UInt32 bits) {
        return Set(Stream(), Global(kAudioStreamPropertyPhysicalFormat), Format(rateHz, bits));
    }

    AudioDeviceIOProcID CreateProc(Collector& collector) {
        AudioDeviceIOProcID id = nullptr;
        EXPECT_EQ(audio.CreateIOProcID(Device(), &Collector::Proc, &collector, &id), 0);
        return id;
    }
    AudioDeviceIOProcID StartProc(Collector& collector) {
        const AudioDeviceIOProcID id = CreateProc(collector);
        EXPECT_EQ(audio.Start(Device(), id), 0);
        return id;
    }

    std::unique_ptr<UsbInterface> OpenUsb() {
        SimulatedRegistry& registry = backends.Registry();
        io_iterator_t iterator = IO_OBJECT_NULL;
        EXPECT_EQ(registry.GetMatchingServices("IOUSBInterface", &iterator), 0);
        registry.Release(registry.IteratorNext(iterator));  // the control interface
        const io_object_t entry = registry.IteratorNext(iterator);
        std::unique_ptr<UsbInterface> usb = registry.CreateUsbInterface(entry);
        registry.Release(entry);
        registry.Release(iterator);
        return usb;
    }
    static UsbControlRequest SwitchMode(bool dsd) {
        return {0x41, 0, static_cast<std::uint16_t>(dsd ? 1 : 0), 1, 0, nullptr};
    }

    SimulatedBackends backends;
    AudioBackend& audio = backends.Audio();
    SimulatedRecorder& recorder = backends.Recorder();
};

}  // namespace vorrel::test

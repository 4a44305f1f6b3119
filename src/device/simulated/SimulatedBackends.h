#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "device/backend/DeviceBackends.h"
#include "device/simulated/CallHook.h"
#include "device/simulated/SimulatedAudioBackend.h"
#include "device/simulated/SimulatedRecorder.h"
#include "device/simulated/SimulatedRecorderConfig.h"
#include "device/simulated/SimulatedRegistry.h"

namespace vorrel {

/// Simulated recorders with both halves of a device layer over them, and the test's hand on them.
/// The back ends live on by themselves while somebody holds them.
class SimulatedBackends {
public:
    /// Makes the recorders. One that cannot be made is traced and not there; the order of the
    /// others stays.
    explicit SimulatedBackends(const std::vector<SimulatedRecorderConfig>& configs = {{}});

    DeviceBackends Backends() const { return {audio, registry}; }
    AudioBackend& Audio() { return *audio; }
    SimulatedRegistry& Registry() { return *registry; }
    SimulatedRecorder& Recorder(std::size_t index = 0) { return *recorders.at(index); }
    std::size_t RecorderCount() const { return recorders.size(); }

    /// The faults of the device list.
    PropertyFaults& SystemFaults() { return audio->SystemFaults(); }
    /// After `skip` more, the next `count` listeners added to recorders are refused.
    void FailAddListener(OSStatus status, std::uint32_t skip = 0, std::uint32_t count = 1) {
        audio->FailAddListener(status, skip, count);
    }
    /// Runs `action` before the `nth` call from now (1: the next one) of the audio layer, the
    /// registry and the USB interfaces together: between any two calls of a selection.
    void BeforeCall(std::uint64_t nth, std::function<void()> action) {
        hook->Before(nth, std::move(action));
    }
    /// Calls of these that have come so far.
    std::uint64_t CallCount() { return hook->Count(); }
    std::size_t ListenerCount() { return listeners->Count(); }
    /// Returns after every listener call due has been made. Not from a listener.
    void FlushNotifications() { listeners->Flush(); }

private:
    std::shared_ptr<CallHook> hook;
    std::shared_ptr<PropertyListeners> listeners;
    std::vector<std::shared_ptr<SimulatedRecorder>> recorders;
    std::shared_ptr<SimulatedAudioBackend> audio;
    std::shared_ptr<SimulatedRegistry> registry;
};

/// The back ends that a text (`ParseSimulatedConfiguration`) describes. A text in which anything
/// is wrong is traced and gives none.
DeviceBackends MakeSimulatedBackends(const char* configuration);

}  // namespace vorrel

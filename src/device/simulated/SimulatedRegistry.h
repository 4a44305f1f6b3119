#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "device/backend/AudioRegistry.h"
#include "device/simulated/CallHook.h"
#include "device/simulated/SimulatedRecorder.h"
#include "platform/Mutex.h"

namespace vorrel {

/// The device registry with the entries of the simulated recorders. Each has all of
/// `RegistryRole`: USB interface 0 for control, 1 for streaming.
class SimulatedRegistry final : public AudioRegistry {
public:
    SimulatedRegistry(std::vector<std::shared_ptr<SimulatedRecorder>> allRecorders,
                      std::shared_ptr<CallHook> callHook);

    // What a test sets, for the recorder `index`, counted from 0.

    /// The property has `value` from now on; `std::monostate` takes it away.
    void SetValue(std::size_t index, RegistryRole role, const std::string& key, RegistryValue value)
        VORREL_EXCLUDES(mutex);
    /// An entry that is not present is nobody's child or parent and is not found.
    void SetPresent(std::size_t index, RegistryRole role, bool present) VORREL_EXCLUDES(mutex);
    /// Matching services fails with `status`; 0 lets it succeed again.
    void FailMatching(kern_return_t status) VORREL_EXCLUDES(mutex);
    /// No handle is made for any USB interface.
    void SetUsbInterfaceAvailable(bool available) VORREL_EXCLUDES(mutex);

    // What a test looks at.

    /// USB interface handles alive.
    std::uint32_t UsbInterfaces() const { return *usbInterfaces; }

private:
    void CallBegins() override { hook->Pass(); }
    std::vector<RegistryDevice> Devices() VORREL_REQUIRES(mutex) override;
    std::unique_ptr<UsbInterface> OpenUsbInterface(const RegistryDevice& device,
                                                   std::uint8_t interfaceNumber)
        VORREL_REQUIRES(mutex) override;
    kern_return_t MatchingFault() VORREL_REQUIRES(mutex) override { return matchingFault; }
    bool IsPresent(const RegistryDevice& device, RegistryRole role) VORREL_REQUIRES(mutex) override;
    std::optional<RegistryValue> OtherValue(const RegistryDevice& device, RegistryRole role,
                                            const std::string& key) VORREL_REQUIRES(mutex) override;

    const std::vector<std::shared_ptr<SimulatedRecorder>> recorders;  // their mutexes come second
    const std::shared_ptr<std::atomic<std::uint32_t>> usbInterfaces;
    const std::shared_ptr<CallHook> hook;
    /// Which recorder a device is, and which plugging of it.
    std::map<std::string, std::pair<std::size_t, std::uint32_t>> pluggings VORREL_GUARDED_BY(mutex);
    std::map<std::tuple<std::size_t, RegistryRole, std::string>, RegistryValue> values
        VORREL_GUARDED_BY(mutex);
    std::map<std::pair<std::size_t, RegistryRole>, bool> absent VORREL_GUARDED_BY(mutex);
    kern_return_t matchingFault VORREL_GUARDED_BY(mutex) = kIOReturnSuccess;
    bool usbInterfaceAvailable VORREL_GUARDED_BY(mutex) = true;
};

}  // namespace vorrel

#include "device/simulated/SimulatedRegistry.h"

namespace vorrel {
namespace {

constexpr std::uint8_t kControlInterface = 0;

class SimulatedUsbInterface final : public UsbInterface {
public:
    SimulatedUsbInterface(std::shared_ptr<SimulatedRecorder> owner, std::uint32_t madeInPlugging,
                          std::uint8_t interfaceNumber,
                          std::shared_ptr<std::atomic<std::uint32_t>> aliveCount,
                          std::shared_ptr<CallHook> callHook)
        : recorder(std::move(owner)),
          plugging(madeInPlugging),
          number(interfaceNumber),
          count(std::move(aliveCount)),
          hook(std::move(callHook)) {
        ++*count;
    }
    ~SimulatedUsbInterface() override { --*count; }
    SimulatedUsbInterface(const SimulatedUsbInterface&) = delete;
    SimulatedUsbInterface& operator=(const SimulatedUsbInterface&) = delete;

    IOReturn GetInterfaceNumber(std::uint8_t* asked) override {
        hook->Pass();
        return recorder->GetInterfaceNumber(plugging, number, asked);
    }
    IOReturn ControlRequest(const UsbControlRequest& request) override {
        hook->Pass();
        return recorder->ControlRequest(plugging, number, request);
    }

private:
    const std::shared_ptr<SimulatedRecorder> recorder;
    const std::uint32_t plugging;
    const std::uint8_t number;
    const std::shared_ptr<std::atomic<std::uint32_t>> count;
    const std::shared_ptr<CallHook> hook;
};

}  // namespace

SimulatedRegistry::SimulatedRegistry(std::vector<std::shared_ptr<SimulatedRecorder>> allRecorders,
                                     std::shared_ptr<CallHook> callHook)
    : recorders(std::move(allRecorders)),
      usbInterfaces(std::make_shared<std::atomic<std::uint32_t>>(0)),
      hook(std::move(callHook)) {}

std::vector<RegistryDevice> SimulatedRegistry::Devices() {
    std::vector<RegistryDevice> devices;
    for (std::size_t index = 0; index < recorders.size(); ++index) {
        SimulatedRecorder& recorder = *recorders[index];
        if (!recorder.IsPlugged()) {
            continue;
        }
        const std::uint32_t plugging = recorder.Plugging();
        RegistryDevice device;
        device.key = std::to_string(index) + "/" + std::to_string(plugging);
        device.uid = recorder.Uid();
        device.name = recorder.Config().name;
        device.usb = {recorder.Config().vendorId, recorder.Config().productId, kControlInterface,
                      SimulatedRecorder::kStreamingInterface};
        device.hasInputStream = true;
        pluggings[device.key] = {index, plugging};
        devices.push_back(std::move(device));
    }
    return devices;
}

std::unique_ptr<UsbInterface> SimulatedRegistry::OpenUsbInterface(const RegistryDevice& device,
                                                                  std::uint8_t interfaceNumber) {
    if (!usbInterfaceAvailable) {
        return nullptr;
    }
    const auto [index, plugging] = pluggings.at(device.key);
    return std::make_unique<SimulatedUsbInterface>(recorders[index], plugging, interfaceNumber,
                                                   usbInterfaces, hook);
}

bool SimulatedRegistry::IsPresent(const RegistryDevice& device, RegistryRole role) {
    const auto found = absent.find({pluggings.at(device.key).first, role});
    return found == absent.end() || !found->second;
}

std::optional<RegistryValue> SimulatedRegistry::OtherValue(const RegistryDevice& device,
                                                           RegistryRole role,
                                                           const std::string& key) {
    const auto value = values.find({pluggings.at(device.key).first, role, key});
    return value == values.end() ? std::nullopt : std::optional(value->second);
}

void SimulatedRegistry::SetValue(std::size_t index, RegistryRole role, const std::string& key,
                                 RegistryValue value) {
    const MutexLock lock(mutex);
    values[{index, role, key}] = std::move(value);
}

void SimulatedRegistry::SetPresent(std::size_t index, RegistryRole role, bool present) {
    const MutexLock lock(mutex);
    absent[{index, role}] = !present;
}

void SimulatedRegistry::FailMatching(kern_return_t status) {
    const MutexLock lock(mutex);
    matchingFault = status;
}

void SimulatedRegistry::SetUsbInterfaceAvailable(bool available) {
    const MutexLock lock(mutex);
    usbInterfaceAvailable = available;
}

}  // namespace vorrel

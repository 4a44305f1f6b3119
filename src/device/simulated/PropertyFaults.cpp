#include "device/simulated/PropertyFaults.h"

namespace vorrel {

void PropertyFaults::Add(const PropertyFault& fault) {
    const MutexLock lock(mutex);
    faults.push_back(fault);
}

void PropertyFaults::SetSize(AudioObjectPropertySelector selector, UInt32 sizeBytes) {
    const MutexLock lock(mutex);
    sizes[selector] = sizeBytes;
}

void PropertyFaults::SetText(AudioObjectPropertySelector selector, const std::string& text) {
    const MutexLock lock(mutex);
    values[selector] = text;
}

void PropertyFaults::SetNumber(AudioObjectPropertySelector selector, UInt32 number) {
    const MutexLock lock(mutex);
    values[selector] = number;
}

void PropertyFaults::Clear() {
    const MutexLock lock(mutex);
    faults.clear();
    sizes.clear();
    values.clear();
}

OSStatus PropertyFaults::Check(PropertyOperation operation, AudioObjectPropertySelector selector) {
    const MutexLock lock(mutex);
    for (PropertyFault& fault : faults) {
        if (fault.selector != selector || fault.operation != operation) {
            continue;
        }
        if (fault.skip > 0) {
            --fault.skip;
        } else if (fault.count > 0) {
            --fault.count;
            return fault.status;
        }
    }
    return kAudioHardwareNoError;
}

bool PropertyFaults::Size(AudioObjectPropertySelector selector, UInt32& sizeBytes) {
    const MutexLock lock(mutex);
    const auto found = sizes.find(selector);
    if (found != sizes.end()) {
        sizeBytes = found->second;
    }
    return found != sizes.end();
}

PropertyFaults::OtherValue PropertyFaults::Value(AudioObjectPropertySelector selector) {
    const MutexLock lock(mutex);
    const auto found = values.find(selector);
    return found == values.end() ? OtherValue{} : found->second;
}

}  // namespace vorrel

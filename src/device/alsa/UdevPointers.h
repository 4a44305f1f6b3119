#pragma once

#include <libudev.h>

#include <memory>

namespace vorrel {

struct UdevRelease {
    void operator()(udev* object) const { ::udev_unref(object); }
    void operator()(udev_device* object) const { ::udev_device_unref(object); }
    void operator()(udev_enumerate* object) const { ::udev_enumerate_unref(object); }
    void operator()(udev_monitor* object) const { ::udev_monitor_unref(object); }
};

// Owned references of libudev's objects, each used by one thread at a time.
using UdevPointer = std::unique_ptr<udev, UdevRelease>;
using UdevDevicePointer = std::unique_ptr<udev_device, UdevRelease>;
using UdevEnumeratePointer = std::unique_ptr<udev_enumerate, UdevRelease>;
using UdevMonitorPointer = std::unique_ptr<udev_monitor, UdevRelease>;

}  // namespace vorrel

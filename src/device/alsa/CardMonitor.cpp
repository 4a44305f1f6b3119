#include "device/alsa/CardMonitor.h"

#include <libudev.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <exception>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "device/alsa/UdevPointers.h"
#include "platform/GuardedTask.h"
#include "platform/ThreadPriority.h"
#include "platform/Trace.h"

namespace vorrel {
namespace {

constexpr char kThreadName[] = "CardMonitor";

/// The card's part of a path in sysfs: the path of a device that belongs to it, or its own.
std::optional<std::string> CardPath(std::string_view path) {
    constexpr std::string_view kBefore = "/sound/card";
    const std::size_t found = path.rfind(kBefore);
    if (found == std::string_view::npos) {
        return std::nullopt;
    }
    return std::string(path.substr(0, path.find('/', found + kBefore.size())));
}

}  // namespace

struct CardMonitor::Sources {
    ~Sources() {
        if (stop >= 0) {
            ::close(stop);
        }
    }

    /// Adds one source of events; false where the system does not have it.
    bool Add(const char* name) {
        UdevMonitorPointer monitor(::udev_monitor_new_from_netlink(udev.get(), name));
        if (monitor == nullptr ||
            ::udev_monitor_filter_add_match_subsystem_devtype(monitor.get(), "sound", nullptr) <
                0 ||
            ::udev_monitor_enable_receiving(monitor.get()) < 0) {
            return false;
        }
        monitors.push_back(std::move(monitor));
        return true;
    }

    UdevPointer udev;  // used by the thread alone once it runs
    std::vector<UdevMonitorPointer> monitors;
    int stop = -1;  // an eventfd
};

CardMonitor::CardMonitor(Listener eventListener)
    : listener(std::move(eventListener)), sources(std::make_unique<Sources>()) {
    sources->udev.reset(::udev_new());
    sources->stop = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    // The kernel tells first and needs no device manager; the device manager tells once the nodes
    // of a new card have their permissions.
    const bool ready =
        sources->udev != nullptr && sources->stop >= 0 &&
        (static_cast<int>(sources->Add("kernel")) | static_cast<int>(sources->Add("udev"))) != 0;
    if (!ready) {
        Trace(__FILE__, __LINE__, "the system tells nothing of sound cards that come and go");
        sources.reset();
        return;
    }
    try {
        thread = std::thread([this] { RunGuarded([this] { Listen(); }, kThreadName); });
    } catch (const std::exception& failure) {
        Trace(__FILE__, __LINE__, "no thread listens for sound cards: %s", failure.what());
        sources.reset();
    }
}

CardMonitor::~CardMonitor() {
    if (thread.joinable()) {
        const std::uint64_t one = 1;
        // A counter that is full has woken the thread already.
        [[maybe_unused]] const ssize_t written = ::write(sources->stop, &one, sizeof one);
        thread.join();
    }
}

bool CardMonitor::IsListening() const {
    return thread.joinable();
}

void CardMonitor::Listen() {
    SetCurrentThreadName(kThreadName);
    std::vector<pollfd> waits = {{sources->stop, POLLIN, 0}};
    for (const UdevMonitorPointer& monitor : sources->monitors) {
        waits.push_back({::udev_monitor_get_fd(monitor.get()), POLLIN, 0});
    }
    const auto report = [this](CardEvent::Kind kind, std::string path) {
        RunGuarded([&] { listener({kind, std::move(path)}); }, kThreadName);
    };
    while (true) {
        if (::poll(waits.data(), waits.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if (waits[0].revents != 0) {
            return;
        }
        for (std::size_t index = 1; index < waits.size(); ++index) {
            if (waits[index].revents == 0) {
                continue;
            }
            errno = 0;
            const UdevDevicePointer device(
                ::udev_monitor_receive_device(sources->monitors[index - 1].get()));
            if (device == nullptr) {
                if (errno == ENOBUFS) {
                    report(CardEvent::Kind::Lost, {});
                } else if ((waits[index].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
                    waits[index].fd = -1;  // it would be ready for ever
                }
                continue;
            }
            const char* path = ::udev_device_get_syspath(device.get());
            const char* action = ::udev_device_get_action(device.get());
            const std::optional<std::string> card = CardPath(path == nullptr ? "" : path);
            if (!card.has_value() || action == nullptr) {
                continue;
            }
            // A card is complete when its last node is: each of them counts as news of the card.
            if (std::string_view(action) != "remove") {
                report(CardEvent::Kind::Added, *card);
            } else if (*card == path) {
                report(CardEvent::Kind::Removed, *card);
            }
        }
    }
}

}  // namespace vorrel

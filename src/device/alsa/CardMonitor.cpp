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
constexpr std::size_t kMostSources = 2;
/// What kept the listener from doing what it was asked for (no descriptor or memory left) lasts.
constexpr int kPauseMilliseconds = 1'000;

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
    Sources() = default;
    ~Sources() {
        if (stop >= 0) {
            ::close(stop);
        }
    }
    Sources(const Sources&) = delete;
    Sources& operator=(const Sources&) = delete;

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

bool CardMonitor::Receive(std::size_t source, bool& empty) {
    errno = 0;
    const UdevDevicePointer device(::udev_monitor_receive_device(sources->monitors[source].get()));
    if (device == nullptr) {
        empty = errno != ENOBUFS && errno != ENOMEM;
        return empty || listener({CardEvent::Kind::Lost, {}});
    }
    const char* path = ::udev_device_get_syspath(device.get());
    const char* action = ::udev_device_get_action(device.get());
    const std::optional<std::string> card = CardPath(path == nullptr ? "" : path);
    if (!card.has_value() || action == nullptr) {
        return true;
    }
    // A card is complete when its last node is: each of them counts as news of the card.
    if (std::string_view(action) != "remove") {
        return listener({CardEvent::Kind::Added, *card});
    }
    return *card != path || listener({CardEvent::Kind::Removed, *card});
}

void CardMonitor::Listen() {
    SetCurrentThreadName(kThreadName);
    std::array<pollfd, 1 + kMostSources> waits{};
    waits[0] = {sources->stop, POLLIN, 0};
    const std::size_t count = 1 + sources->monitors.size();
    for (std::size_t index = 1; index < count; ++index) {
        waits[index] = {::udev_monitor_get_fd(sources->monitors[index - 1].get()), POLLIN, 0};
    }
    bool behind = false;  // something could not be told
    const auto tell = [&behind](const auto& call) {
        bool told = false;
        RunGuarded([&] { told = call(); }, kThreadName);
        behind = behind || !told;
    };
    while (true) {
        const int ready = ::poll(waits.data(), count, behind ? kPauseMilliseconds : -1);
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if (waits[0].revents != 0) {
            return;
        }
        if (std::exchange(behind, false)) {
            tell([this] { return listener({CardEvent::Kind::Lost, {}}); });
        }
        for (std::size_t index = 1; index < count && ready > 0; ++index) {
            if (waits[index].revents == 0) {
                continue;
            }
            bool empty = false;
            tell([&] { return Receive(index - 1, empty); });
            if (empty && (waits[index].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
                waits[index].fd = -1;  // it would be ready for ever
            }
        }
    }
}

}  // namespace vorrel

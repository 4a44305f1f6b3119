// A recorder in user space: speaks USB/IP to the kernel's virtual host controller, which makes
// it a device of the bus as any other.
//   usb-recorder [--recorders N] [--port FIRST] [--formats 16,24,24in4,32] [--name TEXT]
//                [--product-id ID] [--unplug-after SECONDS]
// Runs until it is ended (which unplugs the recorders), or until a stream has run that long.
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "UsbIpServer.h"

namespace vorrel::e2e {
namespace {

constexpr const char* kAttachFile = "/sys/devices/platform/vhci_hcd.0/attach";
/// Number of "high speed" in the attach file.
constexpr int kHighSpeed = 3;
/// Above everything that records: a device does not wait for its host's scheduler.
constexpr int kPriority = 60;

struct Options {
    unsigned recorders = 1;
    unsigned firstPort = 0;  ///< of the virtual controller
    RecorderModel model;
    std::optional<std::chrono::duration<double>> unplugAfter;
};

const std::map<std::string_view, WireFormat> kFormatNames = {
    {"16", {16, 2}}, {"24", {24, 3}}, {"24in4", {24, 4}}, {"32", {32, 4}}};

std::optional<std::vector<WireFormat>> ParseFormats(const std::string& text) {
    std::vector<WireFormat> formats;
    std::istringstream list(text);
    for (std::string name; std::getline(list, name, ',');) {
        const auto found = kFormatNames.find(name);
        if (found == kFormatNames.end()) {
            return std::nullopt;
        }
        formats.push_back(found->second);
    }
    return formats;
}

std::optional<Options> ParseOptions(const std::vector<std::string>& arguments) {
    Options options;
    for (std::size_t index = 0; index + 1 < arguments.size(); index += 2) {
        const std::string& name = arguments[index];
        const std::string& value = arguments[index + 1];
        if (name == "--recorders") {
            options.recorders = static_cast<unsigned>(std::stoul(value));
        } else if (name == "--port") {
            options.firstPort = static_cast<unsigned>(std::stoul(value));
        } else if (name == "--name") {
            options.model.product = value;
        } else if (name == "--product-id") {
            options.model.productId = static_cast<std::uint16_t>(std::stoul(value, nullptr, 0));
        } else if (name == "--unplug-after") {
            options.unplugAfter = std::chrono::duration<double>(std::stod(value));
        } else if (const auto formats = ParseFormats(value); name == "--formats" && formats) {
            options.model.formats = *formats;
        } else {
            return std::nullopt;
        }
    }
    return arguments.size() % 2 == 0 ? std::optional(options) : std::nullopt;
}

/// A recorder that is plugged in for as long as it lives.
class PluggedRecorder {
public:
    PluggedRecorder(unsigned port, const RecorderModel& model) {
        std::array<int, 2> ends{};
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            return;
        }
        descriptor = ends[0];
        server.emplace(descriptor, model);
        // The kernel takes a reference of its own to the end that it is told of.
        const std::string line = std::to_string(port) + " " + std::to_string(ends[1]) + " " +
                                 std::to_string(port + 1) + " " + std::to_string(kHighSpeed);
        const int file = ::open(kAttachFile, O_WRONLY | O_CLOEXEC);
        isAttached = file >= 0 &&
                     ::write(file, line.data(), line.size()) == static_cast<ssize_t>(line.size());
        if (!isAttached) {
            std::fprintf(stderr, "usb-recorder: port %u: %s\n", port, std::strerror(errno));
        }
        if (file >= 0) {
            ::close(file);
        }
        ::close(ends[1]);
    }
    ~PluggedRecorder() {
        if (descriptor >= 0) {
            ::close(descriptor);
        }
    }
    PluggedRecorder(const PluggedRecorder&) = delete;
    PluggedRecorder& operator=(const PluggedRecorder&) = delete;

    bool IsAttached() const { return isAttached; }
    int Descriptor() const { return descriptor; }
    UsbIpServer& Server() { return *server; }

    /// Says once what each stream was, when it has ended or changed.
    void Report() {
        const std::uint64_t lost = server->LostPackets();
        if (lost != reportedLost) {
            std::printf("usb-recorder: %llu packets lost, the host came too late\n",
                        static_cast<unsigned long long>(lost - reportedLost));
            reportedLost = lost;
        }
        const std::uint64_t generation = server->Control().Generation();
        if (generation == reportedGeneration) {
            return;
        }
        reportedGeneration = generation;
        if (const WireFormat* format = server->Control().Format(); format != nullptr) {
            std::printf("usb-recorder: %s, %u Hz, %u bits in %u bytes\n",
                        server->Control().Mode() == StreamMode::Dsd ? "dsd" : "pcm",
                        server->Control().RateHz(), format->bits, format->bytes);
        }
    }

private:
    int descriptor = -1;
    bool isAttached = false;
    std::optional<UsbIpServer> server;
    std::uint64_t reportedGeneration = 0;
    std::uint64_t reportedLost = 0;
};

timespec ToTimespec(UsbIpServer::Clock::duration duration) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
    const auto rest = std::chrono::duration_cast<std::chrono::nanoseconds>(duration - seconds);
    return {static_cast<std::time_t>(seconds.count()), static_cast<long>(rest.count())};
}

/// Waits until a host speaks or a transfer is due.
bool Wait(std::vector<pollfd>& polled, std::vector<std::unique_ptr<PluggedRecorder>>& recorders) {
    std::optional<UsbIpServer::Clock::time_point> next;
    for (const auto& recorder : recorders) {
        if (const auto due = recorder->Server().NextDue(); due && (!next || *due < *next)) {
            next = due;
        }
    }
    timespec timeout{};
    if (next) {
        timeout = ToTimespec(
            std::max(*next - UsbIpServer::Clock::now(), UsbIpServer::Clock::duration::zero()));
    }
    const int count = ::ppoll(polled.data(), polled.size(), next ? &timeout : nullptr, nullptr);
    return count >= 0 || errno == EINTR;
}

int Run(const Options& options) {
    std::vector<std::unique_ptr<PluggedRecorder>> recorders;
    std::vector<pollfd> polled;
    for (unsigned port = options.firstPort; port < options.firstPort + options.recorders; ++port) {
        RecorderModel model = options.model;
        model.serial = "E2E-" + std::to_string(port + 1);
        recorders.push_back(std::make_unique<PluggedRecorder>(port, model));
        if (!recorders.back()->IsAttached()) {
            return 1;
        }
        polled.push_back({recorders.back()->Descriptor(), POLLIN, 0});
    }
    while (Wait(polled, recorders)) {
        for (std::size_t index = 0; index < recorders.size(); ++index) {
            PluggedRecorder& recorder = *recorders[index];
            const auto now = UsbIpServer::Clock::now();
            if (polled[index].revents != 0 && !recorder.Server().Receive(now)) {
                return 1;
            }
            if (!recorder.Server().CompleteDue(now)) {
                return 1;
            }
            recorder.Report();
            if (options.unplugAfter && recorder.Server().Streamed() >= *options.unplugAfter) {
                std::printf("usb-recorder: unplugged after %llu frames\n",
                            static_cast<unsigned long long>(recorder.Server().StreamedFrames()));
                return 0;
            }
        }
    }
    return 1;
}

}  // namespace
}  // namespace vorrel::e2e

int main(int count, char** arguments) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const auto options =
        vorrel::e2e::ParseOptions(std::vector<std::string>(arguments + 1, arguments + count));
    if (!options) {
        std::fputs("usb-recorder: the options are wrong\n", stderr);
        return 2;
    }
    const sched_param priority{vorrel::e2e::kPriority};
    if (::sched_setscheduler(0, SCHED_FIFO, &priority) != 0) {
        std::fputs("usb-recorder: no real-time priority\n", stderr);
    }
    return vorrel::e2e::Run(*options);
}

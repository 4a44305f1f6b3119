#include "support/MockedSystem.h"

#include <gtest/gtest.h>

#include <linux/usbdevice_fs.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <umockdev.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <utility>

#include "platform/Mutex.h"

#if defined(__SANITIZE_THREAD__)
#define VORREL_WITH_TSAN
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VORREL_WITH_TSAN
#endif
#endif
#if defined(VORREL_WITH_TSAN)
// What umockdev and GLib do among themselves, built without the sanitizer, is not looked at: it
// sees half of it and takes that for races. All that this project builds stays under watch.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options();
const char* __tsan_default_options() {
    return "ignore_noninstrumented_modules=1";
}
#endif

namespace vorrel::test {
namespace {

constexpr char kController[] = "/devices/pci0000:00/0000:00:14.0/usb1";

struct ObjectRelease {
    void operator()(gpointer object) const { ::g_object_unref(object); }
};
template <class Type>
using ObjectPointer = std::unique_ptr<Type, ObjectRelease>;

std::string Hexadecimal(const std::vector<std::uint8_t>& bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        constexpr char kDigits[] = "0123456789ABCDEF";
        text += kDigits[byte >> 4U];
        text += kDigits[byte & 0xFU];
    }
    return text;
}

std::string FourDigits(std::uint16_t number) {
    return Hexadecimal(
        {static_cast<std::uint8_t>(number >> 8U), static_cast<std::uint8_t>(number & 0xFFU)});
}

}  // namespace

struct MockedSystem::Bed {
    ObjectPointer<UMockdevTestbed> testbed{::umockdev_testbed_new()};
    std::map<std::string, ObjectPointer<UMockdevIoctlBase>> handlers;  // by node

    mutable Mutex mutex;  // below: shared with the thread that answers
    int answer VORREL_GUARDED_BY(mutex) = 0;
    int claims VORREL_GUARDED_BY(mutex) = 0;
    struct Request {
        std::string node;
        std::vector<std::uint8_t> bytes;
    };
    std::vector<Request> requests VORREL_GUARDED_BY(mutex);
    ObjectPointer<UMockdevIoctlData> pending VORREL_GUARDED_BY(mutex);  // a submitted URB
    bool discarded VORREL_GUARDED_BY(mutex) = false;

    std::string Root() const {
        gchar* root = ::umockdev_testbed_get_root_dir(testbed.get());
        std::string text = root;
        ::g_free(root);
        return text;
    }

    /// Waits until whoever listens for events has room for the next one: umockdev ends the process
    /// where somebody has not, which a listener comes to that is busy with the last ten.
    void AwaitRoomForAnEvent() const {
        for (const auto& entry : std::filesystem::directory_iterator(Root())) {
            sockaddr_un address{AF_UNIX, {}};
            const std::string path = entry.path().string();
            if (!entry.path().filename().string().starts_with("event") ||
                path.size() >= sizeof address.sun_path) {
                continue;
            }
            path.copy(address.sun_path, path.size());
            const int probe = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            if (::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
                0) {
                constexpr int kMinute = 60'000;
                pollfd room{probe, POLLOUT, 0};
                EXPECT_EQ(::poll(&room, 1, kMinute), 1) << "nobody reads " << path;
            }
            ::close(probe);
        }
    }

    /// One device, whose event is sent.
    void AddDescribed(const std::string& description) const {
        AwaitRoomForAnEvent();
        GError* error = nullptr;
        ::umockdev_testbed_add_from_string(testbed.get(), description.c_str(), &error);
        if (error != nullptr) {
            ADD_FAILURE() << error->message << "\n" << description;
            ::g_error_free(error);
        }
    }

    static gboolean OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self) {
        return static_cast<Bed*>(self)->Answer(client) ? TRUE : FALSE;
    }

    /// The memory that `data` points to at `offset`; null where it cannot be had.
    static ObjectPointer<UMockdevIoctlData> Resolve(UMockdevIoctlData* data, std::size_t offset,
                                                    std::size_t length) {
        return ObjectPointer<UMockdevIoctlData>(
            ::umockdev_ioctl_data_resolve(data, offset, length, nullptr));
    }
    template <class Value>
    static Value Read(const UMockdevIoctlData& data, std::size_t offset = 0) {
        Value value{};
        std::memcpy(&value, data.data + offset, sizeof value);
        return value;
    }
    template <class Value>
    static void Write(UMockdevIoctlData& data, const Value& value, std::size_t offset = 0) {
        std::memcpy(data.data + offset, &value, sizeof value);
    }

    bool Answer(UMockdevIoctlClient* client) {
        const MutexLock lock(mutex);
        const auto complete = [client](int errorNumber) {
            ::umockdev_ioctl_client_complete(client, errorNumber == 0 ? 0 : -1, errorNumber);
            return true;
        };
        UMockdevIoctlData* argument = ::umockdev_ioctl_client_get_arg(client);
        const gulong request = ::umockdev_ioctl_client_get_request(client);
        if (request == USBDEVFS_CONNECTINFO) {
            const auto info = Resolve(argument, 0, sizeof(usbdevfs_connectinfo));
            Write(*info, usbdevfs_connectinfo{4, 0});
            return complete(0);
        }
        if (request == USBDEVFS_GET_CAPABILITIES) {
            const auto capabilities = Resolve(argument, 0, sizeof(std::uint32_t));
            Write(*capabilities, std::uint32_t{USBDEVFS_CAP_REAP_AFTER_DISCONNECT});
            return complete(0);
        }
        if (request == USBDEVFS_GET_SPEED) {
            ::umockdev_ioctl_client_complete(client, 3, 0);
            return true;
        }
        if (request == USBDEVFS_CONTROL) {
            // libusb asks for the number of the configuration.
            const auto transfer = Resolve(argument, 0, sizeof(usbdevfs_ctrltransfer));
            const auto header = Read<usbdevfs_ctrltransfer>(*transfer);
            if (header.bRequestType != 0x80 || header.bRequest != 0x08 || header.wLength != 1) {
                return complete(EPIPE);
            }
            const auto buffer = Resolve(transfer.get(), offsetof(usbdevfs_ctrltransfer, data), 1);
            Write(*buffer, std::uint8_t{1});
            ::umockdev_ioctl_client_complete(client, 1, 0);
            return true;
        }
        if (request == USBDEVFS_SUBMITURB) {
            if (answer == ENODEV) {
                return complete(ENODEV);
            }
            auto urb = Resolve(argument, 0, sizeof(usbdevfs_urb));
            const auto length =
                static_cast<std::size_t>(Read<int>(*urb, offsetof(usbdevfs_urb, buffer_length)));
            const auto buffer = Resolve(urb.get(), offsetof(usbdevfs_urb, buffer), length);
            requests.push_back({::umockdev_ioctl_client_get_devnode(client),
                                {buffer->data, buffer->data + length}});
            pending = std::move(urb);
            discarded = false;
            return complete(0);
        }
        if (request == USBDEVFS_DISCARDURB) {
            discarded = true;
            return complete(0);
        }
        if (request == USBDEVFS_REAPURBNDELAY || request == USBDEVFS_REAPURB) {
            if (pending == nullptr || (answer == ETIMEDOUT && !discarded)) {
                return complete(EAGAIN);
            }
            Write(*pending, discarded ? -ENOENT : -answer, offsetof(usbdevfs_urb, status));
            Write(*pending, 0, offsetof(usbdevfs_urb, actual_length));
            const auto reaped = Resolve(argument, 0, sizeof(void*));
            ::umockdev_ioctl_data_set_ptr(reaped.get(), 0, pending.get());
            pending.reset();
            return complete(0);
        }
        ++claims;  // nothing else is asked of a device that others use
        return complete(ENOTTY);
    }
};

std::string MockedSystem::WhyNot() {
    const ObjectPointer<UMockdevTestbed> attempt(::umockdev_testbed_new());
    return ::umockdev_in_mock_environment() != FALSE
               ? std::string()
               : "umockdev's preload library does not work in this process";
}

MockedSystem::MockedSystem() : bed(std::make_unique<Bed>()) {}

MockedSystem::~MockedSystem() {
    for (const auto& [node, handler] : bed->handlers) {
        ::umockdev_testbed_detach_ioctl(bed->testbed.get(), node.c_str(), nullptr);
    }
}

std::string MockedSystem::UsbPath(const MockedUsbCard& card) {
    return std::string("/sys") + kController + "/" + card.port;
}

std::string MockedSystem::CardPath(const MockedUsbCard& card) {
    return UsbPath(card) + "/" + card.port + ":1." + std::to_string(card.controlInterface) +
           "/sound/card" + std::to_string(card.number);
}

std::string MockedSystem::Node(const MockedUsbCard& card) {
    char text[32];
    std::snprintf(text, sizeof text, "/dev/bus/usb/%03u/%03u", unsigned{card.busNumber},
                  unsigned{card.address});
    return text;
}

std::string MockedSystem::RealPath(const std::string& path) const {
    return bed->Root() + path;
}

void MockedSystem::WriteProc(const std::string& name, const std::string& content) const {
    const std::string path = proc.File(name);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

void MockedSystem::Add(const MockedUsbCard& card) {
    const std::string usb = UsbPath(card).substr(4);
    const std::string interface = usb + "/" + card.port + ":1.";
    const std::string node = Node(card);
    // libusb reads the descriptors from the node itself.
    bed->AddDescribed(
        "P: " + usb + "\nN: " + node.substr(5) + "=" +
        Hexadecimal(card.descriptors.empty() ? std::vector<std::uint8_t>{0} : card.descriptors) +
        "\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DEVNAME=" + node + "\nA: idVendor=" +
        FourDigits(card.vendorId) + "\\n\nA: idProduct=" + FourDigits(card.productId) +
        "\\n\nA: busnum=" + std::to_string(card.busNumber) +
        "\\n\nA: devnum=" + std::to_string(card.address) + "\\n\nA: bConfigurationValue=1\\n\n" +
        (card.descriptors.empty() ? std::string()
                                  : "H: descriptors=" + Hexadecimal(card.descriptors) + "\n") +
        "\n");
    ::umockdev_testbed_set_attribute(bed->testbed.get(), UsbPath(card).c_str(), "product",
                                     (card.product + "\n").c_str());
    if (card.serial.has_value()) {
        ::umockdev_testbed_set_attribute(bed->testbed.get(), UsbPath(card).c_str(), "serial",
                                         (*card.serial + "\n").c_str());
    }
    for (const char* number : {"0", "1", "2"}) {
        bed->AddDescribed("P: " + interface + number +
                          "\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_interface\nA: bInterfaceNumber=0" +
                          number + "\\n\n\n");
    }
    AddToDevice(card);
    // Once attached to a node a handler stays: taken off and put on again it is not found at times.
    auto& handler = bed->handlers[node];
    if (handler != nullptr) {
        return;
    }
    handler.reset(::umockdev_ioctl_base_new());
    ::g_signal_connect(handler.get(), "handle-ioctl", G_CALLBACK(&Bed::OnIoctl), bed.get());
    GError* error = nullptr;
    ::umockdev_testbed_attach_ioctl(bed->testbed.get(), node.c_str(), handler.get(), &error);
    if (error != nullptr) {
        ADD_FAILURE() << error->message;
        ::g_error_free(error);
    }
}

void MockedSystem::AddToDevice(const MockedUsbCard& card) {
    const std::string sound = CardPath(card).substr(4);
    const std::string name = std::to_string(card.number);
    bed->AddDescribed("P: " + sound + "\nE: SUBSYSTEM=sound\nA: number=" + name + "\\n\nA: id=USB" +
                      name + "\\n\n\n");
    bed->AddDescribed("P: " + sound + "/controlC" + name + "\nN: snd/controlC" + name +
                      "=00\nE: SUBSYSTEM=sound\nE: DEVNAME=/dev/snd/controlC" + name + "\n\n");
    if (card.captures) {
        bed->AddDescribed("P: " + sound + "/pcmC" + name + "D0c\nN: snd/pcmC" + name +
                          "D0c=00\nE: SUBSYSTEM=sound\nE: DEVNAME=/dev/snd/pcmC" + name +
                          "D0c\n\n");
    }
    if (!card.streamText.empty()) {
        WriteProc("card" + name + "/stream0", card.streamText);
    }
}

void MockedSystem::AddPciCard(int number, const std::string& id, bool captures) {
    const std::string pci = "/devices/pci0000:00/0000:00:1f." + std::to_string(number);
    const std::string name = std::to_string(number);
    const std::string sound = pci + "/sound/card" + name;
    bed->AddDescribed("P: " + pci + "\nE: SUBSYSTEM=pci\n\n");
    bed->AddDescribed("P: " + sound + "\nE: SUBSYSTEM=sound\nA: number=" + name +
                      "\\n\nA: id=" + id + "\\n\n\n");
    if (captures) {
        bed->AddDescribed("P: " + sound + "/pcmC" + name + "D0c\nN: snd/pcmC" + name +
                          "D0c=00\nE: SUBSYSTEM=sound\nE: DEVNAME=/dev/snd/pcmC" + name +
                          "D0c\n\n");
    }
}

void MockedSystem::SendEvent(const MockedUsbCard& card, const std::string& action) {
    bed->AwaitRoomForAnEvent();
    ::umockdev_testbed_uevent(bed->testbed.get(), CardPath(card).c_str(), action.c_str());
}

void MockedSystem::Remove(const MockedUsbCard& card) {
    const std::string name = std::to_string(card.number);
    SendEvent(card, "remove");
    std::error_code ignored;
    // The testbed's own removal leaves nodes of children; the directory goes as a whole instead.
    std::filesystem::remove_all(RealPath(UsbPath(card)), ignored);
    std::filesystem::remove(RealPath("/sys/class/sound/card" + name), ignored);
    std::filesystem::remove(RealPath("/sys/class/sound/controlC" + name), ignored);
    std::filesystem::remove(RealPath("/sys/class/sound/pcmC" + name + "D0c"), ignored);
    std::filesystem::remove(RealPath("/sys/bus/usb/devices/" + card.port), ignored);
    for (const char* number : {"0", "1", "2"}) {
        std::filesystem::remove(RealPath("/sys/bus/usb/devices/" + card.port + ":1." + number),
                                ignored);
    }
    std::filesystem::remove(RealPath(Node(card)), ignored);
    std::filesystem::remove_all(proc.File("card" + name), ignored);
}

void MockedSystem::Forbid(const MockedUsbCard& card) const {
    using std::filesystem::perms;
    // The mock itself stays open to everybody: who is refused is still to reach it.
    const perms everybody = perms::all;
    for (const char* path : {"", "/ioctl/_default"}) {
        std::filesystem::permissions(RealPath(path), everybody);
    }
    std::filesystem::permissions(RealPath("/ioctl" + Node(card)), everybody);
    std::filesystem::permissions(RealPath(Node(card)), perms::none);
}

void MockedSystem::AnswerRequests(int errorNumber) {
    const MutexLock lock(bed->mutex);
    bed->answer = errorNumber;
}

std::vector<std::vector<std::uint8_t>> MockedSystem::Requests() const {
    const MutexLock lock(bed->mutex);
    std::vector<std::vector<std::uint8_t>> requests;
    for (const Bed::Request& request : bed->requests) {
        requests.push_back(request.bytes);
    }
    return requests;
}

std::vector<std::vector<std::uint8_t>> MockedSystem::RequestsTo(const MockedUsbCard& card) const {
    const MutexLock lock(bed->mutex);
    std::vector<std::vector<std::uint8_t>> requests;
    for (const Bed::Request& request : bed->requests) {
        if (request.node == Node(card)) {
            requests.push_back(request.bytes);
        }
    }
    return requests;
}

int MockedSystem::Claims() const {
    const MutexLock lock(bed->mutex);
    return bed->claims;
}

}  // namespace vorrel::test

#include "device/alsa/SoundCards.h"

#include <dirent.h>
#include <fcntl.h>
#include <libudev.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <span>
#include <string_view>
#include <system_error>
#include <utility>

#include "device/alsa/CaptureSetting.h"
#include "device/alsa/ProcTexts.h"
#include "device/alsa/UdevPointers.h"
#include "device/alsa/UsbAudioDescriptors.h"
#include "platform/Trace.h"

namespace vorrel {
namespace {

constexpr std::string_view kSysfs = "/sys";
/// More than any file that is read here has: a device has a handful of configurations of at most
/// 65,535 bytes each.
constexpr std::size_t kMostBytes = 1U << 20U;

/// A number that is the whole text but for blanks before it; nothing when it does not fit.
template <class Number>
std::optional<Number> ParseWhole(std::string_view text, int base = 10) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(value)
                                                                    : std::nullopt;
}

/// Reads the files of one look, and keeps apart what a card does not tell and what this process has
/// no means to read: descriptors or memory. After the second kind the look tells nothing of cards.
class LookReader {
public:
    /// The whole file, or nothing where it cannot be read to its end.
    std::optional<std::string> ReadFile(const std::string& path) {
        const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (file < 0) {
            Note(errno);
            return std::nullopt;
        }
        std::string content;
        std::array<char, 4'096> part{};
        ssize_t count = 0;
        do {
            count = ::read(file, part.data(), part.size());
            if (count > 0) {
                content.append(part.data(), static_cast<std::size_t>(count));
            }
        } while ((count > 0 && content.size() < kMostBytes) || (count < 0 && errno == EINTR));
        if (count < 0) {
            Note(errno);
        }
        ::close(file);
        return count < 0 ? std::nullopt : std::optional(std::move(content));
    }

    /// An attribute in sysfs without the one line end that the kernel puts behind it.
    std::optional<std::string> ReadAttribute(const std::string& directory, const char* name) {
        std::optional<std::string> text = ReadFile(directory + "/" + name);
        if (text.has_value() && text->ends_with('\n')) {
            text->pop_back();
        }
        return text;
    }

    template <class Number>
    std::optional<Number> ReadNumber(const std::string& directory, const char* name,
                                     int base = 10) {
        const std::optional<std::string> text = ReadAttribute(directory, name);
        return text.has_value() ? ParseWhole<Number>(*text, base) : std::nullopt;
    }

    /// Takes note of what kept something from being read.
    void Note(int error) {
        if (error == EMFILE || error == ENFILE || error == ENOMEM) {
            lacking = error;
        }
    }
    /// Takes note where no file can be opened now: libudev does not always say what kept it from
    /// finding a parent.
    void NoteWhetherFilesOpen(const std::string& directory) {
        const int file = ::open(directory.c_str(), O_PATH | O_CLOEXEC);
        if (file < 0) {
            Note(errno);
        } else {
            ::close(file);
        }
    }
    /// What this process lacked, as an error number; 0 for nothing.
    int Lacking() const { return lacking; }

private:
    int lacking = 0;
};

std::string SystemPath(udev_device* device) {
    const char* path = device == nullptr ? nullptr : ::udev_device_get_syspath(device);
    return path == nullptr ? std::string() : std::string(path);
}

/// The number behind `before` in `name` up to `after`, which ends it; nothing for another name.
std::optional<int> NumberBetween(std::string_view name, std::string_view before,
                                 std::string_view after) {
    if (!name.starts_with(before) || !name.ends_with(after) ||
        name.size() < before.size() + after.size()) {
        return std::nullopt;
    }
    name.remove_prefix(before.size());
    name.remove_suffix(after.size());
    const std::optional<int> number = ParseWhole<int>(name);
    return number.has_value() && *number >= 0 ? number : std::nullopt;
}

/// The first of the card's PCM devices that captures.
std::optional<int> FindCaptureDevice(LookReader& reader, const std::string& systemPath, int card) {
    DIR* directory = ::opendir(systemPath.c_str());
    if (directory == nullptr) {
        reader.Note(errno);
        return std::nullopt;
    }
    const std::string before = "pcmC" + std::to_string(card) + "D";
    std::optional<int> first;
    // The stream is this call's own, so nothing else moves its position.
    while (const dirent* entry = ::readdir(directory)) {  // NOLINT(concurrency-mt-unsafe)
        const std::optional<int> device = NumberBetween(entry->d_name, before, "c");
        if (device.has_value() && (!first.has_value() || *device < *first)) {
            first = device;
        }
    }
    ::closedir(directory);
    return first;
}

std::string Hexadecimal(std::uint16_t number) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text;
    for (const unsigned shift : {12U, 8U, 4U, 0U}) {
        text += kDigits[(unsigned{number} >> shift) & 0xFU];
    }
    return text;
}

/// Nothing where the ids or the address cannot be read, which happens as a device goes away.
std::optional<UsbSide> ReadUsbSide(LookReader& reader, const std::string& usbPath,
                                   const std::string& controlPath) {
    // The address first: what is read behind it is this device's if the address is the same in the
    // end. Read last it would be that of a device that took the port's place meanwhile.
    const auto bus = reader.ReadNumber<std::uint8_t>(usbPath, "busnum");
    const auto address = reader.ReadNumber<std::uint8_t>(usbPath, "devnum");
    const auto vendorId = reader.ReadNumber<std::uint16_t>(usbPath, "idVendor", 16);
    const auto productId = reader.ReadNumber<std::uint16_t>(usbPath, "idProduct", 16);
    if (!vendorId.has_value() || !productId.has_value() || !bus.has_value() ||
        !address.has_value()) {
        return std::nullopt;
    }
    UsbSide side;
    side.vendorId = *vendorId;
    side.productId = *productId;
    side.serial = reader.ReadAttribute(usbPath, "serial").value_or("");
    side.portPath = usbPath.substr(usbPath.rfind('/') + 1);
    side.busNumber = *bus;
    side.deviceAddress = *address;
    if (!controlPath.empty()) {
        side.controlInterface =
            reader.ReadNumber<std::uint8_t>(controlPath, "bInterfaceNumber", 16);
    }
    return side;
}

CaptureSide ReadCaptureSide(LookReader& reader, const std::string& usbPath,
                            const std::string& procCard, int captureDevice) {
    const std::string descriptors = reader.ReadFile(usbPath + "/descriptors").value_or("");
    const std::string text =
        reader.ReadFile(procCard + "/stream" + std::to_string(captureDevice)).value_or("");
    return MergeCaptureSettings(
        ParseCaptureSettings(std::span(reinterpret_cast<const std::uint8_t*>(descriptors.data()),
                                       descriptors.size()),
                             reader.ReadNumber<std::uint8_t>(usbPath, "bConfigurationValue")),
        ParseStreamText(text));
}

/// Reads one card; nothing when it goes away meanwhile.
std::optional<SoundCard> ReadCard(LookReader& reader, udev_device* device,
                                  const std::string& proc) {
    SoundCard card;
    card.systemPath = SystemPath(device);
    const std::optional<int> number =
        NumberBetween(card.systemPath.substr(card.systemPath.rfind('/') + 1), "card", "");
    if (!number.has_value()) {
        return std::nullopt;
    }
    card.number = *number;
    card.captureDevice = FindCaptureDevice(reader, card.systemPath, card.number);
    const std::string id =
        reader.ReadAttribute(card.systemPath, "id").value_or("card" + std::to_string(card.number));
    const std::string procCard = proc + "/card" + std::to_string(card.number);

    const std::string usbPath =
        SystemPath(::udev_device_get_parent_with_subsystem_devtype(device, "usb", "usb_device"));
    if (usbPath.empty()) {
        reader.NoteWhetherFilesOpen(card.systemPath);
    } else {
        const std::string controlPath = SystemPath(
            ::udev_device_get_parent_with_subsystem_devtype(device, "usb", "usb_interface"));
        card.usb = ReadUsbSide(reader, usbPath, controlPath);
        if (!card.usb.has_value()) {
            return std::nullopt;
        }
        card.name = reader.ReadAttribute(usbPath, "product").value_or("");
        if (card.captureDevice.has_value()) {
            CaptureSide side = ReadCaptureSide(reader, usbPath, procCard, *card.captureDevice);
            card.usb->streamingInterface = side.streamingInterface;
            card.formats = std::move(side.formats);
        }
    }
    if (card.name.empty()) {
        card.name = ParseCardLongName(reader.ReadFile(proc + "/cards").value_or(""), card.number);
    }
    if (card.name.empty()) {
        card.name = id;
    }
    if (card.usb.has_value()) {
        const UsbSide& usb = *card.usb;
        const std::string ids = Hexadecimal(usb.vendorId) + ":" + Hexadecimal(usb.productId);
        card.uid = "usb:" + ids + ":" + usb.serial + ":" + usb.portPath;
        card.modelUid = card.name + ":" + ids;
    } else {
        // What the card sits on stays where it is; the card's number may be another next time.
        std::string place = SystemPath(::udev_device_get_parent(device));
        if (place.starts_with(kSysfs)) {
            place.erase(0, kSysfs.size());
        }
        card.uid = "card:" + place + ":" + id;
        card.modelUid = card.name;
    }

    // Read in a moment when the device went, a value may be another device's or missing.
    const bool isStillThere =
        ::access(card.systemPath.c_str(), F_OK) == 0 &&
        (!card.usb.has_value() ||
         reader.ReadNumber<std::uint8_t>(usbPath, "devnum") == card.usb->deviceAddress);
    return isStillThere ? std::optional(std::move(card)) : std::nullopt;
}

void TraceFailure(int error) {
    Trace(__FILE__, __LINE__, "the list of sound cards cannot be read: %s",
          std::generic_category().message(error).c_str());
}

}  // namespace

SoundCards::SoundCards(std::string procDirectory) : proc(std::move(procDirectory)) {}

std::optional<std::vector<SoundCard>> SoundCards::Find() const {
    std::vector<SoundCard> cards;
    errno = 0;
    const UdevPointer udev(::udev_new());
    const UdevEnumeratePointer search(udev == nullptr ? nullptr : ::udev_enumerate_new(udev.get()));
    int error = search == nullptr ? -errno : 0;
    if (search == nullptr ||
        (error = ::udev_enumerate_add_match_subsystem(search.get(), "sound")) < 0 ||
        (error = ::udev_enumerate_add_match_sysname(search.get(), "card*")) < 0 ||
        (error = ::udev_enumerate_scan_devices(search.get())) < 0) {
        TraceFailure(-error);
        return std::nullopt;
    }
    LookReader reader;
    for (udev_list_entry* entry = ::udev_enumerate_get_list_entry(search.get()); entry != nullptr;
         entry = ::udev_list_entry_get_next(entry)) {
        const char* path = ::udev_list_entry_get_name(entry);
        const UdevDevicePointer device(::udev_device_new_from_syspath(udev.get(), path));
        if (device == nullptr) {
            reader.NoteWhetherFilesOpen(path);
            continue;  // else it is gone since
        }
        if (std::optional<SoundCard> card = ReadCard(reader, device.get(), proc);
            card.has_value()) {
            cards.push_back(std::move(*card));
        }
    }
    if (reader.Lacking() != 0) {
        TraceFailure(reader.Lacking());
        return std::nullopt;
    }
    std::sort(cards.begin(), cards.end(),
              [](const SoundCard& a, const SoundCard& b) { return a.number < b.number; });
    // A device may have more than one card; each after the first is told apart by its place.
    for (auto card = cards.begin(); card != cards.end(); ++card) {
        const auto sameUid = std::count_if(cards.begin(), card, [&card](const SoundCard& other) {
            return other.uid == card->uid;
        });
        if (sameUid > 0 && card->usb.has_value() && card->usb->controlInterface.has_value()) {
            card->uid += ":" + std::to_string(*card->usb->controlInterface);
        }
    }
    return cards;
}

std::string PluggingKey(const SoundCard& card) {
    std::string key = card.systemPath + " " + card.uid;
    if (card.usb.has_value()) {
        key += " " + std::to_string(card.usb->busNumber) + "/" +
               std::to_string(card.usb->deviceAddress);
    }
    return key;
}

bool IsSamePlugging(const SoundCard& one, const SoundCard& other) {
    return PluggingKey(one) == PluggingKey(other);
}

}  // namespace vorrel

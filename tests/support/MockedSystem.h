#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/TempDirectory.h"

namespace vorrel::test {

/// A USB sound card of the mocked system.
struct MockedUsbCard {
    int number = 0;            // of the card
    std::string port = "1-2";  // bus and ports
    std::uint8_t busNumber = 1;
    std::uint8_t address = 4;
    std::uint16_t vendorId = 0x6666;
    std::uint16_t productId = 0x0770;
    std::string product = "KD-WV770";  // the USB product text
    std::optional<std::string> serial = "0001";
    std::vector<std::uint8_t> descriptors;  // empty: no such file
    std::string streamText;                 // empty: no such file
    bool captures = true;                   // has the PCM device 0 for capture
    int controlInterface = 0;               // that the card sits on
};

/// The part of the system that a test mocks: sysfs, device nodes and USB requests come from
/// umockdev, the texts of the sound drivers from a directory. One at a time in a process.
/// The program must be linked with umockdev's preload library (see `vorrel_test_mocked_system`).
class MockedSystem {
public:
    /// Why none can be made here; empty when one can.
    static std::string WhyNot();

    MockedSystem();
    ~MockedSystem();
    MockedSystem(const MockedSystem&) = delete;
    MockedSystem& operator=(const MockedSystem&) = delete;

    void Add(const MockedUsbCard& card);
    /// Another card of a USB device that is there already, at another of its interfaces.
    void AddToDevice(const MockedUsbCard& card);
    /// A card that sits on a PCI device.
    void AddPciCard(int number, const std::string& id, bool captures);
    /// Takes away the card, its USB device and its node, with the events of the device manager.
    void Remove(const MockedUsbCard& card);
    /// Only the event that the device manager sends for the card.
    void SendEvent(const MockedUsbCard& card, const std::string& action);

    /// Nobody but root may open the card's USB node any more.
    void Forbid(const MockedUsbCard& card) const;

    static std::string UsbPath(const MockedUsbCard& card);   // in sysfs
    static std::string CardPath(const MockedUsbCard& card);  // in sysfs
    static std::string Node(const MockedUsbCard& card);      // "/dev/bus/usb/001/004"
    /// Where `path` (in /sys or /dev) really is.
    std::string RealPath(const std::string& path) const;
    const std::string& ProcDirectory() const { return proc.Path(); }
    void WriteProc(const std::string& name, const std::string& content) const;

    /// What USB requests are answered with from now on: 0; an error number as the bus gives it
    /// (EPIPE: stalled); ENODEV: the device is gone; ETIMEDOUT: never.
    void AnswerRequests(int errorNumber);
    /// The requests that reached a device: the bytes of each as they stand on the bus.
    std::vector<std::vector<std::uint8_t>> Requests() const;
    /// Those of them that reached this one.
    std::vector<std::vector<std::uint8_t>> RequestsTo(const MockedUsbCard& card) const;
    /// Interfaces claimed and drivers detached; there is never one.
    int Claims() const;

private:
    struct Bed;

    TempDirectory proc;
    std::unique_ptr<Bed> bed;
};

}  // namespace vorrel::test

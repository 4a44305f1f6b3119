#include "device/alsa/UsbControl.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <thread>

#include "device/alsa/MockedCards.h"

namespace vorrel {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr UsbControlRequest kSwitchToDsd = {0x41, 0, 1, 2, 0, nullptr};
constexpr UsbControlRequest kSwitchToPcm = {0x41, 0, 0, 2, 0, nullptr};

class UsbControlTest : public test::MockedCards {
protected:
    void SetUp() override {
        MockedCards::SetUp();
        if (system.has_value()) {
            system->Add(Recorder());
            control = std::make_unique<UsbControl>(OnlyCard().usb.value(), std::uint8_t{2});
        }
    }

    std::unique_ptr<UsbControl> control;
};

TEST_F(UsbControlTest, ARequestReachesTheDeviceByteForByteAndClaimsNothing) {
    EXPECT_EQ(control->ControlRequest(kSwitchToDsd), kIOReturnSuccess);

    EXPECT_THAT(system->Requests(), ElementsAre(ElementsAre(0x41, 0, 1, 0, 2, 0, 0, 0)));
    EXPECT_EQ(system->Claims(), 0);
    EXPECT_THAT(trace.Lines(), IsEmpty());
}

TEST_F(UsbControlTest, ValuesAboveAByteGoOutWithTheLowByteFirst) {
    EXPECT_EQ(control->ControlRequest({0x41, 7, 0x1234, 0x0102, 0, nullptr}), kIOReturnSuccess);

    EXPECT_THAT(system->Requests(), ElementsAre(ElementsAre(0x41, 7, 0x34, 0x12, 2, 1, 0, 0)));
}

TEST_F(UsbControlTest, ARefusedRequestIsAStallAndTheNextOneGoesOut) {
    system->AnswerRequests(EPIPE);
    EXPECT_EQ(control->ControlRequest(kSwitchToDsd), kIOUSBPipeStalled);
    EXPECT_THAT(TraceLine("refuses"),
                HasSubstr("USB device 6666:0770 at 1-2: the device refuses request 0x41/0, value "
                          "1, index 2"));

    system->AnswerRequests(0);
    EXPECT_EQ(control->ControlRequest(kSwitchToPcm), kIOReturnSuccess);
}

TEST_F(UsbControlTest, ARequestToADeviceThatWasUnpluggedSinceSaysThatItIsGone) {
    ASSERT_EQ(control->ControlRequest(kSwitchToDsd), kIOReturnSuccess);
    system->AnswerRequests(ENODEV);

    EXPECT_EQ(control->ControlRequest(kSwitchToPcm), kIOReturnNoDevice);

    EXPECT_THAT(TraceLine("unplugged"), HasSubstr("1-2"));
    EXPECT_EQ(control->ControlRequest(kSwitchToPcm), kIOReturnNoDevice);
}

TEST_F(UsbControlTest, ADeviceWhoseNodeIsGoneIsGone) {
    system->Remove(Recorder());

    EXPECT_EQ(control->ControlRequest(kSwitchToDsd), kIOReturnNoDevice);

    EXPECT_THAT(TraceLine("gone"), HasSubstr("/dev/bus/usb/001/004"));
    EXPECT_THAT(system->Requests(), IsEmpty());
}

TEST_F(UsbControlTest, AnotherDeviceAtTheSameAddressIsToldNothing) {
    system->Remove(Recorder());
    test::MockedUsbCard other = Recorder();
    other.descriptors[10] = 0x71;  // idProduct
    other.productId = 0x0771;
    system->Add(other);

    EXPECT_EQ(control->ControlRequest(kSwitchToDsd), kIOReturnNoDevice);

    EXPECT_THAT(TraceLine("is a device 6666:0771 now"), HasSubstr("/dev/bus/usb/001/004"));
    EXPECT_THAT(system->Requests(), IsEmpty());
}

TEST_F(UsbControlTest, ADeviceThatDoesNotAnswerFailsTheRequestAfterASecond) {
    system->AnswerRequests(ETIMEDOUT);

    EXPECT_EQ(control->ControlRequest(kSwitchToDsd), kIOReturnError);

    EXPECT_THAT(TraceLine("no answer"), HasSubstr("within 1000 ms"));
}

TEST_F(UsbControlTest, AnyOtherFailureIsAnError) {
    system->AnswerRequests(EPROTO);

    EXPECT_EQ(control->ControlRequest(kSwitchToDsd), kIOReturnError);

    EXPECT_THAT(TraceLine("failed"), HasSubstr("LIBUSB_ERROR_IO"));
}

TEST_F(UsbControlTest, ANodeThatIsNoUsbDeviceIsAnError) {
    const std::string node = system->RealPath(test::MockedSystem::Node(Recorder()));
    std::ofstream(node, std::ios::trunc).close();

    EXPECT_EQ(control->ControlRequest(kSwitchToDsd), kIOReturnError);

    EXPECT_THAT(TraceLine("cannot be used"), HasSubstr("/dev/bus/usb/001/004"));
}

TEST_F(UsbControlTest, ANodeThatCannotBeOpenedIsAnErrorWithItsReason) {
    const std::string node = system->RealPath(test::MockedSystem::Node(Recorder()));
    std::filesystem::remove(node);
    std::filesystem::create_directory(node);

    EXPECT_EQ(control->ControlRequest(kSwitchToDsd), kIOReturnError);

    EXPECT_THAT(TraceLine("cannot be opened"),
                HasSubstr("/dev/bus/usb/001/004 cannot be opened: Is a directory"));
    EXPECT_THAT(system->Requests(), IsEmpty());
}

TEST_F(UsbControlTest, WithoutPermissionTheTraceNamesTheNodeAndTheRule) {
    system->Forbid(Recorder());
    IOReturn result = kIOReturnSuccess;
    bool isSomebodyElse = true;

    // Root may open anything: a thread of its own asks as nobody. The call, other than the C
    // library's function, changes its thread alone.
    std::thread([&] {
        constexpr long kKeep = -1;
        constexpr long kNobody = 65'534;
        isSomebodyElse = ::geteuid() != 0 || ::syscall(SYS_setresuid, kKeep, kNobody, kKeep) == 0;
        result = control->ControlRequest(kSwitchToDsd);
    }).join();

    if (!isSomebodyElse) {
        GTEST_SKIP() << "this system lets root be nobody but root";
    }
    EXPECT_EQ(result, kIOReturnError);
    const std::string line = TraceLine("no permission");
    EXPECT_THAT(line, HasSubstr("/dev/bus/usb/001/004"));
    EXPECT_THAT(line, HasSubstr("70-vorrel.rules"));
    EXPECT_THAT(system->Requests(), IsEmpty());
}

TEST_F(UsbControlTest, ANodeThatIsThereAgainServesTheNextRequest) {
    system->Remove(Recorder());
    ASSERT_EQ(control->ControlRequest(kSwitchToDsd), kIOReturnNoDevice);
    system->Add(Recorder());

    EXPECT_EQ(control->ControlRequest(kSwitchToDsd), kIOReturnSuccess);
}

TEST_F(UsbControlTest, RequestsOfSeveralThreadsAllArrive) {
    std::vector<std::thread> threads;
    std::atomic<int> succeeded{0};
    for (int count = 0; count < 4; ++count) {
        threads.emplace_back([&] {
            for (int request = 0; request < 5; ++request) {
                succeeded += control->ControlRequest(kSwitchToDsd) == kIOReturnSuccess ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(succeeded, 20);
    EXPECT_EQ(system->Requests().size(), 20U);
}

}  // namespace
}  // namespace vorrel

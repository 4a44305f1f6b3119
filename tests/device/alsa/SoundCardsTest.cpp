#include "device/alsa/SoundCards.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <libudev.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <thread>
#include <utility>

#include "device/alsa/MockedCards.h"

namespace {

constexpr int kNever = 1'000'000;
/// So many calls below still succeed; then one is refused for want of a descriptor.
std::atomic<int> callsUntilRefusal{kNever};

bool IsRefused() {
    if (callsUntilRefusal.fetch_sub(1) != 0) {
        return false;
    }
    errno = EMFILE;
    return true;
}

template <class Function>
Function Original(Function, const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

// They take the place of the system's for the code of this program, not for libraries. A limit of
// the process would also be one of umockdev, which ends the program then.
extern "C" int open(const char* path, int flags, ...) {
    static const auto original = Original(&open, "open");
    std::va_list arguments;
    va_start(arguments, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : mode_t{0};
    va_end(arguments);
    return IsRefused() ? -1 : original(path, flags, mode);
}

extern "C" DIR* opendir(const char* path) {
    static const auto original = Original(&opendir, "opendir");
    return IsRefused() ? nullptr : original(path);
}

extern "C" int udev_enumerate_scan_devices(udev_enumerate* search) {
    static const auto original =
        Original(&udev_enumerate_scan_devices, "udev_enumerate_scan_devices");
    return IsRefused() ? -EMFILE : original(search);
}

namespace vorrel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class SoundCardsTest : public test::MockedCards {};

CaptureFormat Format(std::uint32_t bits, std::uint32_t containerBytes,
                     std::vector<std::uint32_t> ratesHz, std::uint32_t minimumRateHz = 0,
                     std::uint32_t maximumRateHz = 0) {
    return {2, bits, containerBytes, std::move(ratesHz), minimumRateHz, maximumRateHz};
}

TEST_F(SoundCardsTest, ASystemWithoutCardsHasNone) {
    EXPECT_THAT(Find(), IsEmpty());
}

TEST_F(SoundCardsTest, TellsAllOfAUsbRecorder) {
    test::MockedUsbCard recorder = Recorder();
    recorder.streamText = RecorderStreamText();
    system->Add(recorder);

    const SoundCard card = OnlyCard();

    EXPECT_EQ(card.number, 0);
    EXPECT_EQ(card.systemPath, test::MockedSystem::CardPath(recorder));
    EXPECT_EQ(card.name, "KD-WV770");
    EXPECT_EQ(card.uid, "usb:6666:0770:0001:1-2");
    EXPECT_EQ(card.modelUid, "KD-WV770:6666:0770");
    EXPECT_EQ(card.captureDevice, 0);
    EXPECT_THAT(card.formats,
                ElementsAre(Format(16, 2, {176'400, 352'800, 705'600}),
                            Format(24, 3, {44'100, 48'000}), Format(32, 4, {}, 8'000, 384'000)));
    ASSERT_TRUE(card.usb.has_value());
    EXPECT_EQ(card.usb->vendorId, 0x6666);
    EXPECT_EQ(card.usb->productId, 0x0770);
    EXPECT_EQ(card.usb->serial, "0001");
    EXPECT_EQ(card.usb->portPath, "1-2");
    EXPECT_EQ(card.usb->busNumber, 1);
    EXPECT_EQ(card.usb->deviceAddress, 4);
    EXPECT_EQ(card.usb->streamingInterface, 2);
    EXPECT_EQ(card.usb->controlInterface, 0);
}

TEST_F(SoundCardsTest, WithoutAStreamTextTheDescriptorsStandAlone) {
    system->Add(Recorder());

    const SoundCard card = OnlyCard();

    EXPECT_THAT(card.formats, ElementsAre(Format(16, 2, {}), Format(24, 3, {}), Format(32, 4, {})));
    EXPECT_EQ(card.usb->streamingInterface, 2);
}

TEST_F(SoundCardsTest, WithoutDescriptorsTheStreamTextStandsAlone) {
    test::MockedUsbCard recorder = Recorder();
    recorder.descriptors.clear();
    recorder.streamText = RecorderStreamText();
    system->Add(recorder);

    const SoundCard card = OnlyCard();

    EXPECT_THAT(card.formats, SizeIs(3));
    EXPECT_EQ(card.usb->streamingInterface, 2);
}

TEST_F(SoundCardsTest, WithNeitherNoStreamingInterfaceIsKnown) {
    test::MockedUsbCard recorder = Recorder();
    recorder.descriptors.clear();
    system->Add(recorder);

    const SoundCard card = OnlyCard();

    EXPECT_EQ(card.captureDevice, 0);
    EXPECT_EQ(card.usb->streamingInterface, std::nullopt);
    EXPECT_THAT(card.formats, IsEmpty());
}

TEST_F(SoundCardsTest, TwoRecordersAreListedInOrderWithUniqueIdsOfTheirOwn) {
    system->Add(SecondRecorder());
    system->Add(Recorder());

    const std::vector<SoundCard> found = Find();

    ASSERT_THAT(found, SizeIs(2));
    EXPECT_EQ(found[0].uid, "usb:6666:0770:0001:1-2");
    EXPECT_EQ(found[1].uid, "usb:6666:0770:0002:1-3");
    EXPECT_EQ(found[0].modelUid, found[1].modelUid);
}

TEST_F(SoundCardsTest, RecordersWithoutSerialsAreToldApartByTheirPorts) {
    test::MockedUsbCard first = Recorder();
    test::MockedUsbCard second = SecondRecorder();
    first.serial.reset();
    second.serial.reset();
    system->Add(first);
    system->Add(second);

    const std::vector<SoundCard> found = Find();

    ASSERT_THAT(found, SizeIs(2));
    EXPECT_EQ(found[0].uid, "usb:6666:0770::1-2");
    EXPECT_EQ(found[1].uid, "usb:6666:0770::1-3");
}

TEST_F(SoundCardsTest, TwoCardsOfOneUsbDeviceAreToldApartByTheirInterfaces) {
    const test::MockedUsbCard first = Recorder();
    test::MockedUsbCard second = Recorder(1);
    second.controlInterface = 2;
    system->Add(first);
    system->AddToDevice(second);

    const std::vector<SoundCard> found = Find();

    ASSERT_THAT(found, SizeIs(2));
    EXPECT_EQ(found[0].uid, "usb:6666:0770:0001:1-2");
    EXPECT_EQ(found[1].uid, "usb:6666:0770:0001:1-2:2");
    EXPECT_EQ(found[1].usb->controlInterface, 2);
    EXPECT_EQ(found[0].usb->deviceAddress, found[1].usb->deviceAddress);
    EXPECT_FALSE(IsSamePlugging(found[0], found[1]));
}

TEST_F(SoundCardsTest, TheNameKeepsItsBlanks) {
    test::MockedUsbCard recorder = Recorder();
    recorder.product = " KD-WV770 ";
    system->Add(recorder);

    EXPECT_EQ(OnlyCard().name, " KD-WV770 ");
}

TEST_F(SoundCardsTest, OnlyTheLineEndOfTheKernelIsTakenOffTheName) {
    test::MockedUsbCard recorder = Recorder();
    recorder.product = "KD-WV770\n";
    system->Add(recorder);

    EXPECT_EQ(OnlyCard().name, "KD-WV770\n");
}

TEST_F(SoundCardsTest, ACardWithoutAProductTextHasItsLongName) {
    system->Add(Recorder());
    std::filesystem::remove(system->RealPath(test::MockedSystem::UsbPath(Recorder()) + "/product"));
    system->WriteProc("cards",
                      " 0 [USB0           ]: USB-Audio - USB Device\n"
                      "                      USB Device 0x6666:0x770 at usb-0000:00:14.0-2\n");

    EXPECT_EQ(OnlyCard().name, "USB Device 0x6666:0x770 at usb-0000:00:14.0-2");
}

TEST_F(SoundCardsTest, ACardWithoutAnyNameHasItsId) {
    system->AddPciCard(3, "PCH", true);

    EXPECT_EQ(OnlyCard().name, "PCH");
}

TEST_F(SoundCardsTest, ACardWithoutAnIdIsNamedByItsNumber) {
    system->AddPciCard(3, "PCH", true);
    std::filesystem::remove(
        system->RealPath("/sys/devices/pci0000:00/0000:00:1f.3/sound/card3/id"));

    EXPECT_EQ(OnlyCard().name, "card3");
}

TEST_F(SoundCardsTest, ACardThatIsNoUsbDeviceIsNamedByItsPlace) {
    system->AddPciCard(3, "PCH", true);

    const SoundCard card = OnlyCard();

    EXPECT_EQ(card.uid, "card:/devices/pci0000:00/0000:00:1f.3:PCH");
    EXPECT_EQ(card.captureDevice, 0);
    EXPECT_FALSE(card.usb.has_value());
}

TEST_F(SoundCardsTest, ACardThatOnlyPlaysHasNoCaptureDevice) {
    test::MockedUsbCard player = Recorder();
    player.captures = false;
    system->Add(player);

    const SoundCard card = OnlyCard();

    EXPECT_EQ(card.captureDevice, std::nullopt);
    EXPECT_EQ(card.usb->streamingInterface, std::nullopt);
    EXPECT_THAT(card.formats, IsEmpty());
}

TEST_F(SoundCardsTest, ACardThatIsGoneIsFoundNoMore) {
    system->Add(Recorder());
    system->Add(SecondRecorder());
    ASSERT_THAT(Find(), SizeIs(2));

    system->Remove(Recorder());

    EXPECT_EQ(OnlyCard().number, 1);
}

TEST_F(SoundCardsTest, ACardWhoseUsbDeviceIsHalfGoneIsLeftOut) {
    for (const char* attribute : {"idVendor", "idProduct", "busnum", "devnum"}) {
        SCOPED_TRACE(attribute);
        const test::MockedUsbCard recorder = Recorder();
        system->Add(recorder);
        std::filesystem::remove(
            system->RealPath(test::MockedSystem::UsbPath(recorder) + "/" + attribute));

        EXPECT_THAT(Find(), IsEmpty());
        system->Remove(recorder);
    }
}

/// Does something at the moment when a look reads the vendor id of a card.
class WhileIdsAreRead {
public:
    /// @param usb  Directory of the USB device, which is in the system already.
    WhileIdsAreRead(const std::string& usb, std::function<void()> action) {
        const std::string path = usb + "/idVendor";
        std::filesystem::remove(path);
        EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
        // Open for both, so that nobody waits in `open`: umockdev holds a lock there.
        const int ids = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        const int watch = ::inotify_init1(IN_CLOEXEC);
        EXPECT_GE(::inotify_add_watch(watch, path.c_str(), IN_OPEN), 0);
        thread = std::thread([ids, watch, action = std::move(action)] {
            std::array<char, 512> event{};
            EXPECT_GT(::read(watch, event.data(), event.size()), 0);
            action();
            EXPECT_EQ(::write(ids, "6666\n", 5), 5);
            ::close(ids);
            ::close(watch);
        });
    }
    ~WhileIdsAreRead() { thread.join(); }
    WhileIdsAreRead(const WhileIdsAreRead&) = delete;
    WhileIdsAreRead& operator=(const WhileIdsAreRead&) = delete;

private:
    std::thread thread;
};

TEST_F(SoundCardsTest, AReplugBetweenTwoReadsGivesNoMixtureOfBothDevices) {
    const test::MockedUsbCard recorder = Recorder();
    system->Add(recorder);
    const std::string usb = system->RealPath(test::MockedSystem::UsbPath(recorder));
    const WhileIdsAreRead replug(usb, [&usb] { std::ofstream(usb + "/devnum") << "5\n"; });

    EXPECT_THAT(Find(), IsEmpty());
}

TEST_F(SoundCardsTest, ALookThatLacksADescriptorAtAnyMomentIsNoLook) {
    test::MockedUsbCard recorder = Recorder();
    recorder.streamText = RecorderStreamText();
    system->Add(recorder);
    system->AddPciCard(3, "PCH", true);
    const std::vector<SoundCard> whole = Find();
    ASSERT_THAT(whole, SizeIs(2));

    int calls = 0;
    for (;; ++calls) {
        callsUntilRefusal = calls;
        const std::optional<std::vector<SoundCard>> found = cards->Find();
        if (callsUntilRefusal.exchange(kNever) >= 0) {
            EXPECT_EQ(found, whole);  // it made fewer calls
            break;
        }
        // Never a part of the cards, nor a part of one.
        EXPECT_EQ(found, std::nullopt) << calls;
    }

    EXPECT_GT(calls, 15);
    EXPECT_THAT(trace.Lines(), SizeIs(calls));
    EXPECT_NE(TraceLine("the list of sound cards cannot be read: Too many open files"), "");
    EXPECT_EQ(Find(), whole);
}

TEST_F(SoundCardsTest, DescriptorsOfAnyBytesDoNoHarm) {
    test::MockedUsbCard recorder = Recorder();
    recorder.descriptors.assign(1'000, 0);
    system->Add(recorder);

    EXPECT_EQ(OnlyCard().usb->streamingInterface, std::nullopt);
}

TEST_F(SoundCardsTest, PluggedInAgainItIsAnotherPluggingWithTheSameUniqueId) {
    test::MockedUsbCard recorder = Recorder();
    system->Add(recorder);
    const SoundCard before = OnlyCard();
    EXPECT_TRUE(IsSamePlugging(before, OnlyCard()));

    system->Remove(recorder);
    recorder.address = 6;
    system->Add(recorder);

    const SoundCard after = OnlyCard();
    EXPECT_EQ(after.systemPath, before.systemPath);
    EXPECT_EQ(after.uid, before.uid);
    EXPECT_FALSE(IsSamePlugging(before, after));
}

}  // namespace
}  // namespace vorrel

#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "device/alsa/SoundCards.h"
#include "device/backend/SupportedDevice.h"
#include "platform/Mutex.h"
#include "plugin/TestCardState.h"
#include "support/TempDirectory.h"

namespace vorrel::test {

// libasound's numbers.
inline constexpr std::uint32_t kS16 = 2;
inline constexpr std::uint32_t kS24In4 = 6;
inline constexpr std::uint32_t kS32 = 10;
inline constexpr std::uint32_t kS24In3 = 32;

/// The configuration under which every `hw:` card is one of the tests'. One for a process, because
/// libasound reads the environment once and for all.
class TestCardDirectory {
public:
    static const std::string& Path() {
        static TestCardDirectory instance;
        return instance.directory.Path();
    }

private:
    TestCardDirectory() {
        const std::string path = directory.File("alsa.conf");
        std::ofstream(path) << "pcm_type.vorreltest { lib \"" << VORREL_TEST_PCM << "\" }\n"
                            << "pcm.hw {\n"
                               "  @args [ CARD DEV SUBDEV ]\n"
                               "  @args.CARD { type string default \"0\" }\n"
                               "  @args.DEV { type integer default 0 }\n"
                               "  @args.SUBDEV { type integer default -1 }\n"
                               "  type vorreltest\n"
                               "  card $CARD\n"
                               "  device $DEV\n"
                            << "  directory \"" << directory.Path() << "\"\n}\n";
        ::setenv("ALSA_CONFIG_PATH", path.c_str(), 1);
    }
    TempDirectory directory;
};

/// A card that the plug-in opens, and the test's hand on it.
class TestCard {
public:
    TestCard() : number(NextNumber()), path(TestCardDirectory::Path() + "/card" + Text()) {
        file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (file < 0 || ::ftruncate(file, sizeof(TestCardState)) != 0) {
            std::abort();
        }
        void* mapping =
            ::mmap(nullptr, sizeof(TestCardState), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        if (mapping == MAP_FAILED) {
            std::abort();
        }
        state = new (mapping) TestCardState;
        SetRates({44'100, 48'000, 88'200, 96'000, 176'400, 192'000, 352'800, 384'000, 705'600});
        SetFormats({kS16, kS24In3, kS32});
    }
    ~TestCard() {
        ::munmap(state, sizeof *state);
        ::close(file);
    }
    TestCard(const TestCard&) = delete;
    TestCard& operator=(const TestCard&) = delete;

    void SetRates(const std::vector<std::uint32_t>& ratesHz) {
        state->rateCount = static_cast<std::uint32_t>(ratesHz.size());
        std::copy(ratesHz.begin(), ratesHz.end(), state->ratesHz.begin());
    }
    void SetFormats(const std::vector<std::uint32_t>& formats) {
        state->formatCount = static_cast<std::uint32_t>(formats.size());
        std::copy(formats.begin(), formats.end(), state->formats.begin());
    }
    /// Takes the card as another program would. @return What lets it go again when it is closed.
    std::shared_ptr<void> HeldByAnother() const {
        const int other = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        EXPECT_EQ(::flock(other, LOCK_EX | LOCK_NB), 0);
        return {nullptr, [other](void*) { ::close(other); }};
    }
    /// The card as it is found: a supported recorder.
    SoundCard Found() const {
        SoundCard card;
        card.number = number;
        card.systemPath = "/sys/devices/test/card" + Text();
        card.name = kSupportedDeviceName;
        card.uid = "test:" + Text();
        card.modelUid = "test";
        card.captureDevice = 0;
        card.usb = UsbSide{};
        card.usb->vendorId = static_cast<std::uint16_t>(kSupportedVendorId);
        card.usb->productId = static_cast<std::uint16_t>(kSupportedProductId);
        card.usb->streamingInterface = 1;
        card.usb->deviceAddress = address;
        return card;
    }
    TestCardState& State() const { return *state; }
    int Number() const { return number; }
    /// The same card, plugged in again.
    void PlugIn() {
        state->disconnected = 0;
        state->unplugAtFrame = 0;
        ++address;
    }

private:
    static int NextNumber() {
        static int last = 0;
        return last++;
    }
    std::string Text() const { return std::to_string(number); }

    const int number;
    const std::string path;
    int file = -1;
    TestCardState* state = nullptr;
    std::uint8_t address = 1;
};

/// The cards of a test, in place of the system's.
class TestCards final : public SoundCards {
public:
    std::optional<std::vector<SoundCard>> Find() const override {
        const MutexLock lock(mutex);
        return fails ? std::nullopt : std::optional(found);
    }
    /// Those that are there, also while looks fail.
    std::vector<SoundCard> All() const {
        const MutexLock lock(mutex);
        return found;
    }
    void Set(std::vector<SoundCard> cards) {
        const MutexLock lock(mutex);
        found = std::move(cards);
    }
    /// Whether looks fail from now on, as without a free descriptor.
    void SetFailing(bool failing) {
        const MutexLock lock(mutex);
        fails = failing;
    }

private:
    mutable Mutex mutex;
    std::vector<SoundCard> found VORREL_GUARDED_BY(mutex);
    bool fails VORREL_GUARDED_BY(mutex) = false;
};

}  // namespace vorrel::test

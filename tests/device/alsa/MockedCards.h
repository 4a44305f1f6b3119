#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "device/alsa/SoundCards.h"
#include "support/MockedSystem.h"
#include "support/TraceCapture.h"
#include "support/UsbAudioBytes.h"

namespace vorrel::test {

/// A system with the sound cards that the test plugs in.
class MockedCards : public ::testing::Test {
protected:
    void SetUp() override {
        if (const std::string why = MockedSystem::WhyNot(); !why.empty()) {
            GTEST_SKIP() << why;
        }
        system.emplace();
        cards = std::make_shared<const SoundCards>(system->ProcDirectory());
    }

    static MockedUsbCard Recorder(int number = 0) {
        MockedUsbCard card;
        card.number = number;
        card.descriptors = RecorderDescriptors();
        return card;
    }
    /// Another of the same model, with a serial of its own, at another port.
    static MockedUsbCard SecondRecorder() {
        MockedUsbCard card = Recorder(1);
        card.port = "1-3";
        card.address = 5;
        card.serial = "0002";
        return card;
    }
    /// What the driver tells of the capture stream of `RecorderDescriptors`.
    static std::string RecorderStreamText() {
        return "KD-WV770 at usb-0000:00:14.0-2, high speed : USB Audio\n"
               "\n"
               "Capture:\n"
               "  Status: Stop\n"
               "  Interface 2\n"
               "    Altset 1\n"
               "    Format: S16_LE\n"
               "    Channels: 2\n"
               "    Endpoint: 0x83 (3 IN) (ASYNC)\n"
               "    Rates: 176400, 352800, 705600\n"
               "    Bits: 16\n"
               "  Interface 2\n"
               "    Altset 2\n"
               "    Format: S24_3LE\n"
               "    Channels: 2\n"
               "    Endpoint: 0x83 (3 IN) (ASYNC)\n"
               "    Rates: 44100, 48000\n"
               "    Bits: 24\n"
               "  Interface 2\n"
               "    Altset 3\n"
               "    Format: S32_LE\n"
               "    Channels: 2\n"
               "    Endpoint: 0x83 (3 IN) (ASYNC)\n"
               "    Rates: 8000 - 384000 (continuous)\n"
               "    Bits: 32\n";
    }
    /// The cards that a look finds; a look that fails is a failure.
    std::vector<SoundCard> Find() const {
        std::optional<std::vector<SoundCard>> found = cards->Find();
        EXPECT_TRUE(found.has_value());
        return std::move(found).value_or(std::vector<SoundCard>());
    }
    SoundCard OnlyCard() const {
        std::vector<SoundCard> found = Find();
        EXPECT_EQ(found.size(), 1U);
        return found.empty() ? SoundCard() : found.front();
    }
    /// A line of the trace that contains `part`, or an empty text.
    std::string TraceLine(const std::string& part) {
        const std::vector<std::string> lines = trace.Lines();
        const auto found = std::find_if(lines.begin(), lines.end(), [&part](const auto& line) {
            return line.find(part) != std::string::npos;
        });
        return found == lines.end() ? std::string() : *found;
    }

    TraceCapture trace;
    std::optional<MockedSystem> system;
    std::shared_ptr<const SoundCards> cards;
};

}  // namespace vorrel::test

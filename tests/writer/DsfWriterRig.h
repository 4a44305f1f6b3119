#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/FileBytes.h"
#include "support/HeldFile.h"
#include "writer/DsfHeader.h"
#include "writer/DsfWriter.h"
#include "writer/PlainDsfWriter.h"
#include "writer/SaveRunRig.h"

namespace vorrel::test {

using Messages = std::vector<FakeManager::Message>;

/// Samples a second, so that a second is a block: 4096 bytes of each channel.
inline constexpr std::uint64_t kBlockRate = 32'768;
inline constexpr std::uint64_t kBlockFrames = 32'768;
/// The stream buffer of a file that is written.
inline constexpr std::size_t kStreamBytes = 1'048'576;

inline const SampleTypeInfo* DsdType() {
    return GetSampleTypeInfo(kSampleTypeDsd);
}

inline Bytes RandomBytes(std::size_t count, std::uint32_t seed) {
    std::mt19937 random(seed);
    Bytes bytes(count);
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
    }
    return bytes;
}

/// All that a save leaves behind.
struct Outcome {
    VrError result = VrSuccess;
    std::uint64_t fileLength = 0;
    std::uint64_t filePosition = 0;
    std::uint64_t overallPosition = 0;
    Messages messages;
    Bytes file;
};

inline void ExpectSame(const Outcome& real, const Outcome& plain) {
    EXPECT_EQ(real.result, plain.result);
    EXPECT_EQ(real.fileLength, plain.fileLength);
    EXPECT_EQ(real.filePosition, plain.filePosition);
    EXPECT_EQ(real.overallPosition, plain.overallPosition);
    EXPECT_EQ(real.messages, plain.messages);
    EXPECT_EQ(real.file.size(), plain.file.size());
    EXPECT_TRUE(real.file == plain.file);
}

/// Saves of one file from a recording of random bytes.
class DsfWriterTest : public SaveRunTest {
protected:
    VrSaveSettingInternal Setting(double start, double end,
                                  const std::string& name = "take.dsf") const {
        return {directory.File(name), start, end, 0.0, {}};
    }
    VrError SaveFile(const VrSaveSettingInternal* setting) {
        run.recording = recording.data.GetLayout();
        return SaveDsfFile(setting, run);
    }
    /// Saves frames from `start` to `end` seconds.
    VrError Save(double start, double end) {
        const VrSaveSettingInternal setting = Setting(start, end);
        return SaveFile(&setting);
    }
    Bytes Saved() const { return ReadBytes(directory.File("take.dsf")); }
    Bytes SavedBytes(std::size_t from, std::size_t count) const {
        const Bytes bytes = Saved();
        if (bytes.size() < from + count) {
            return {};
        }
        const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(from);
        return {first, first + static_cast<std::ptrdiff_t>(count)};
    }

    /// A recording of random bytes.
    void MakeRecording(std::uint16_t channels, std::size_t bytes, std::uint64_t rateHz = kBlockRate,
                       const SampleTypeInfo* type = DsdType()) {
        recording.Begin(channels, rateHz, type);
        for (std::uint16_t channel = 0; channel < channels; ++channel) {
            recording.Add<std::uint8_t>(channel, RandomBytes(bytes, channel + 1U));
        }
    }

    /// What `save` leaves behind; nothing is left of the runs before.
    Outcome OutcomeOf(const std::function<VrError(SaveRun&)>& save) {
        FakeManager reported;
        SaveProgress counted;
        SaveRun fresh{reported, recording.data, bits, cancelState, counted, {}};
        fresh.volumeTakes = run.volumeTakes;
        std::filesystem::remove(directory.File("take.dsf"));
        const VrError result = save(fresh);
        return {result,
                counted.fileLength,
                counted.filePosition,
                counted.overallPosition,
                reported.Messages(),
                Saved()};
    }
    void ExpectLikeBlockByBlock(const VrSaveSettingInternal& setting) {
        ExpectSame(OutcomeOf([&](SaveRun& real) { return SaveDsfFile(&setting, real); }),
                   OutcomeOf([&](SaveRun& plain) { return PlainSaveDsfFile(&setting, plain); }));
    }

    /// Saves into a pipe, does `inTheMiddle` when the writer is stuck in the block that overruns
    /// its stream buffer, and lets it go on.
    /// @param stuckBlock  Receives that block, counted from 0.
    Outcome OutcomeOfHeldSave(const VrSaveSettingInternal& setting, std::size_t& stuckBlock,
                              const std::function<void()>& inTheMiddle) {
        FakeManager reported;
        SaveProgress counted;
        SaveRun held{reported, recording.data, bits, cancelState, counted, {}};
        stuckBlock = (kStreamBytes - kDsfHeaderBytes) / (kDsfBlockBytes * held.recording.channels);
        const std::uint64_t frames = (stuckBlock + 1) * kBlockFrames;
        Outcome outcome;
        const HeldFile file(setting.path);
        std::thread saver([&] { outcome.result = SaveDsfFile(&setting, held); });
        EXPECT_TRUE(reported.WaitUntil([&] { return counted.overallPosition >= frames; }));
        EXPECT_EQ(counted.overallPosition, frames);
        inTheMiddle();
        outcome.file = file.ReadToEnd();
        saver.join();
        outcome.fileLength = counted.fileLength;
        outcome.filePosition = counted.filePosition;
        outcome.overallPosition = counted.overallPosition;
        outcome.messages = reported.Messages();
        return outcome;
    }
};

}  // namespace vorrel::test

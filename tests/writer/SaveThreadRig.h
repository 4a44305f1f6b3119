#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/FakeManager.h"
#include "support/FileBytes.h"
#include "support/Recording.h"
#include "support/TempDirectory.h"
#include "writer/SaveThread.h"

namespace vorrel::test {

using Log = std::vector<std::string>;
using Messages = std::vector<FakeManager::Message>;

inline constexpr const char* kFinished = "operation 3";

/// A float sample type whose converter calls the test: on the save thread, once for each block of
/// each channel, so that something can happen in a certain block.
inline std::function<void(int block)> onBlock;
inline int blockCount = 0;

inline void ConvertAndCall(std::uint8_t* destination, const std::uint8_t* source,
                           std::size_t count) {
    if (onBlock) {
        onBlock(++blockCount);
    }
    GetSampleTypeInfo(kSampleTypePcm)->toFloat32(destination, source, count);
}

/// Requests for a recording of one channel, in a directory of their own.
class SaveThreadTest : public testing::Test {
protected:
    SaveThreadTest() {
        onBlock = nullptr;
        blockCount = 0;
        callingType.type = 77;
        callingType.toFloat32 = &ConvertAndCall;
    }

    /// One channel at 1,000 Hz: blocks of 100 frames, 200 bytes as 16 bits.
    void MakeRecording(std::size_t frames, bool calling = false) {
        recording.Make(1, 1'000, frames, Recording::Steps,
                       calling ? &callingType : GetSampleTypeInfo(kSampleTypePcm));
        thread.SetBits(16);
    }
    VrSaveSettingInternal Setting(const std::string& name, double end, double start = 0) const {
        return {directory.File(name), start, end, 0.0, {}};
    }
    static SaveList List(std::vector<VrSaveSettingInternal> files) {
        return std::make_shared<const std::vector<VrSaveSettingInternal>>(std::move(files));
    }
    /// Runs a request to its very end.
    void Save(const SaveList& list) {
        ASSERT_EQ(thread.SaveFiles(list, recording.data), VrSuccess);
        thread.WaitFinished();
    }
    bool Exists(const std::string& name) const {
        return std::filesystem::exists(directory.File(name));
    }
    std::size_t SizeOf(const std::string& name) const {
        return ReadBytes(directory.File(name)).size();
    }

    const TempDirectory directory;
    const TempDirectory spill;
    FakeManager manager{spill.Path()};
    SampleTypeInfo callingType = *GetSampleTypeInfo(kSampleTypePcm);
    Recording recording{manager};
    SaveThread thread{manager};
};

}  // namespace vorrel::test

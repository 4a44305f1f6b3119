#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>

#include "support/FakeManager.h"
#include "support/Recording.h"
#include "support/TempDirectory.h"
#include "writer/SaveRun.h"

namespace vorrel::test {

/// A save request over a recording, as the writer of one file gets it.
class SaveRunTest : public testing::Test {
protected:
    const TempDirectory directory;
    const TempDirectory spill;
    FakeManager manager{spill.Path()};
    Recording recording{manager};
    std::atomic<std::uint16_t> bits{16};
    std::atomic<std::int32_t> cancelState{kSaveCancelNone};
    SaveProgress progress;
    SaveRun run{manager, recording.data, bits, cancelState, progress, {}};
};

}  // namespace vorrel::test

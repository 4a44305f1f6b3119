#pragma once

#include <chrono>
#include <memory>
#include <utility>
#include <vector>

#include "store/RecordData.h"
#include "support/FakeManager.h"
#include "writer/SaveThread.h"

namespace vorrel::bench {

using Clock = std::chrono::steady_clock;

inline double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Saves one file of what is recorded. @return Whether it is there, whole.
inline bool SaveAndWait(SaveThread& thread, test::FakeManager& manager, RecordData& record,
                        VrSaveSettingInternal file) {
    const auto list =
        std::make_shared<const std::vector<VrSaveSettingInternal>>(1, std::move(file));
    return thread.SaveFiles(list, record) == VrSuccess &&
           manager.WaitUntil([&] { return !manager.Operations().empty(); }) &&
           manager.Messages().empty();
}

}  // namespace vorrel::bench

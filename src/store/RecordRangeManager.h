#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "platform/Mutex.h"

namespace vorrel {

/// Events of the range log. Every other code is ignored.
enum RecordEvent : int {
    kRecordEventRecord = 0,
    kRecordEventPause = 1,
    kRecordEventResume = 2,
    kRecordEventStop = 3,
};

/// A pair of positions. `second > first` is the half-open span [first, second); `second == first`
/// is open: from `first` to the end of what is asked about.
using PositionRange = std::pair<std::uint64_t, std::uint64_t>;

/// The log of record and pause events of one recording, as ranges of frames that count as
/// recorded. Thread-safe: events come from the host's thread, queries from the workers.
class RecordRangeManager {
public:
    virtual ~RecordRangeManager() = default;

    /// Forgets all events. @return true.
    bool Reset() VORREL_EXCLUDES(mutex);
    /// Logs an event at frame `position`. An event that does not fit the present state (pause
    /// while paused, resume while recording) and unknown codes are ignored.
    void AddRecordEvent(std::uint64_t position, int event) VORREL_EXCLUDES(mutex);
    /// The recorded parts of frames [start, end), clipped to it; an open part stays open.
    std::vector<PositionRange> GetAvailableRange_Frames(std::uint64_t start, std::uint64_t end)
        VORREL_EXCLUDES(mutex);
    /// The same in bytes; positions are rounded down to whole frames. Empty for a frame size of 0.
    std::vector<PositionRange> GetAvailableRange_Bytes(std::uint64_t start, std::uint64_t end,
                                                       std::uint32_t bytesPerFrame)
        VORREL_EXCLUDES(mutex);

private:
    Mutex mutex;  // short: no file, callback or other lock under it
    std::vector<PositionRange> ranges VORREL_GUARDED_BY(mutex);
    std::int32_t recording VORREL_GUARDED_BY(mutex) = 0;  // 1 while the last range is open
};

}  // namespace vorrel

#include "store/RecordRangeManager.h"

#include <algorithm>

namespace vorrel {

bool RecordRangeManager::Reset() {
    const MutexLock lock(mutex);
    std::vector<PositionRange>().swap(ranges);  // gives the storage back; clear() would keep it
    recording = 0;
    return true;
}

void RecordRangeManager::AddRecordEvent(std::uint64_t position, int event) {
    const MutexLock lock(mutex);
    switch (event) {
        case kRecordEventRecord: {
            // Always a new log, whatever came before; made first, so that a want of memory leaves
            // the old one whole.
            std::vector<PositionRange> fresh{{position, position}};
            ranges.swap(fresh);
            recording = 1;
            break;
        }
        case kRecordEventPause:
        case kRecordEventStop:
            if (recording == 1) {
                // Kept: a pause at the frame where the range begins leaves it reading as open
                // (RecordRangeManagerTest.ReportsARangePausedWhereItBeganAsOpen).
                ranges.back().second = position;
                recording = 0;
            }
            break;
        case kRecordEventResume:
            if (recording == 0) {
                ranges.emplace_back(position, position);
                recording = 1;
            }
            break;
        default:
            break;
    }
}

std::vector<PositionRange> RecordRangeManager::GetAvailableRange_Frames(std::uint64_t start,
                                                                        std::uint64_t end) {
    std::vector<PositionRange> result;
    if (end <= start) {
        return result;
    }
    const MutexLock lock(mutex);
    for (const auto& [first, second] : ranges) {
        if (first >= end) {
            break;  // in order of position: all later ones lie beyond the span
        }
        if (first == second) {
            const std::uint64_t open = std::max(first, start);
            result.emplace_back(open, open);  // to the end of the span: nothing follows it
            break;
        }
        if (second > start) {
            result.emplace_back(std::max(first, start), std::min(second, end));
        }
    }
    return result;
}

std::vector<PositionRange> RecordRangeManager::GetAvailableRange_Bytes(
    std::uint64_t start, std::uint64_t end, std::uint32_t bytesPerFrame) {
    if (bytesPerFrame == 0) {
        return {};
    }
    std::vector<PositionRange> result =
        GetAvailableRange_Frames(start / bytesPerFrame, end / bytesPerFrame);
    for (auto& [first, second] : result) {
        first *= bytesPerFrame;
        second *= bytesPerFrame;
    }
    return result;
}

}  // namespace vorrel

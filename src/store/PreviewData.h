#pragma once

#include <cstdint>
#include <vector>

#include "store/ReadWriteMutex.h"
#include "store/RecordRangeManager.h"
#include "store/TemporaryData.h"

namespace vorrel {

/// The 16-bit preview of a recording: signed little-endian samples, frames interleaved in channel
/// order. Positions and lengths are frames. Thread-safe, also while a new recording begins:
/// `Init` and `TemporaryClear` wait for calls under way.
///
/// Locks, in this order: layout lock, then either the store's mutex or the range log's.
class PreviewData : public TemporaryData {
public:
    explicit PreviewData(IVorrelManager& manager);

    /// Begins a recording, with memory buffers of five seconds. `rangeManager` is not owned and
    /// may be null: then `Add` refuses.
    /// @return `VrErrorInvalidParameter` (no channel or rate, or five seconds are no 32-bit number
    ///         of bytes) changes nothing; `VrErrorFailed` (no memory) leaves an empty store.
    VrError Init(std::uint16_t channels, std::uint64_t sampleRate, RecordRangeManager* rangeManager)
        VORREL_EXCLUDES(layout);
    /// Appends interleaved frames, cutting them by the range log. One thread adds.
    /// @return `VrErrorFailed` before `Init` or without a range log, or as `TemporaryData::Add`.
    VrError Add(const std::vector<std::int16_t>& frames) VORREL_EXCLUDES(layout);
    /// Reads frames [from, to) of the chosen stream. @return As `TemporaryData::GetData`.
    VrError GetData(std::uint64_t from, std::uint64_t to, std::vector<std::int16_t>& out,
                    bool available) VORREL_EXCLUDES(layout);
    /// Whole frames in the chosen stream; 0 without channels.
    std::uint64_t GetLength(bool available) const VORREL_EXCLUDES(layout);
    /// Empties the store, deleting its spill files, and shrinks its buffers. The channels stay.
    VrError TemporaryClear() VORREL_EXCLUDES(layout);

    std::uint16_t GetChannels() const VORREL_EXCLUDES(layout);
    std::uint64_t GetSampleRate() const VORREL_EXCLUDES(layout);

private:
    mutable ReadWriteMutex layout;
    std::uint16_t channels VORREL_GUARDED_BY(layout) = 0;
    std::uint64_t sampleRate VORREL_GUARDED_BY(layout) = 0;
    std::uint32_t bytesPerFrame VORREL_GUARDED_BY(layout) = 0;
    RecordRangeManager* rangeManager VORREL_GUARDED_BY(layout) = nullptr;
};

}  // namespace vorrel

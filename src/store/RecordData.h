#pragma once

#include <cstdint>
#include <vector>

#include "convert/SampleTypeInfo.h"
#include "platform/AlignedBytes.h"
#include "store/ReadWriteMutex.h"
#include "store/RecordRangeManager.h"
#include "store/TemporaryData.h"

namespace vorrel {

/// What a recording is made of, as one reading of it.
struct RecordLayout {
    std::uint16_t channels = 0;
    std::uint64_t sampleRate = 0;                // Hz
    const SampleTypeInfo* sampleType = nullptr;  // null before the first `Init`, after a failed one
    std::uint64_t generation = 0;                // another one once the data were discarded
};

/// The recording of all channels in the capture format, one channel store each. Positions and
/// lengths are samples of one channel: 4-byte floats for PCM, single bits for DSD. Thread-safe,
/// also while a new recording begins: `Init` and `TemporaryClear` wait for calls under way.
///
/// Locks, in this order: turn lock, layout lock, then either a store's mutex or the range log's.
class RecordData {
public:
    explicit RecordData(IVorrelManager& manager);

    /// Begins a recording: new stores with memory buffers of five seconds each; what the old ones
    /// held is gone. `rangeManager` is not owned and may be null: then `Add` refuses.
    /// @return `VrErrorInvalidParameter` (no channel, rate or sample type; five seconds are less
    ///         than a byte or no 32-bit number of bytes) changes nothing; `VrErrorFailed` (no
    ///         memory) leaves what there is before the first `Init`: no channels, no rate, no
    ///         sample type. The old recording is gone then, too.
    VrError Init(std::uint16_t channels, std::uint64_t sampleRate, const SampleTypeInfo* sampleType,
                 RecordRangeManager* rangeManager) VORREL_EXCLUDES(layout);
    /// Stores one block of `channel`, cutting it by the range log. One thread adds.
    /// @return `VrErrorInvalidParameter` (no such channel, or no range log), or as
    ///         `TemporaryData::Add`.
    VrError Add(std::uint16_t channel, const std::vector<std::uint8_t>& block)
        VORREL_EXCLUDES(layout);
    VrError Add(std::uint16_t channel, const AlignedBytes& block) VORREL_EXCLUDES(layout);
    /// Reads samples [from, to) of `channel` from the chosen stream; for DSD, the whole bytes from
    /// `from` / 8 to `to` / 8, both rounded down.
    /// @return `VrErrorInvalidParameter` (no such channel, or as `TemporaryData::GetData`);
    ///         `VrErrorFailed`.
    VrError GetData(std::uint16_t channel, std::uint64_t from, std::uint64_t to,
                    std::vector<std::uint8_t>& out, bool available) VORREL_EXCLUDES(layout);
    VrError GetData(std::uint16_t channel, std::uint64_t from, std::uint64_t to, AlignedBytes& out,
                    bool available) VORREL_EXCLUDES(layout);
    /// Samples of the shortest channel; 0 without channels. The channels are asked one after
    /// another, so it may lag behind one that is being added to.
    std::uint64_t GetLength(bool available) const VORREL_EXCLUDES(layout);
    /// Empties every store, deleting all spill files, and shrinks its buffers. The channels stay.
    /// @return `VrErrorFailed` if any store failed (no memory).
    VrError TemporaryClear() VORREL_EXCLUDES(layout);

    /// All that the following ones give, read at once. Who reads for longer than one call takes it
    /// first, and drops what it has read when the generation has changed since: another take has
    /// begun, or `TemporaryClear` has been called.
    RecordLayout GetLayout() const VORREL_EXCLUDES(layout);
    std::uint16_t GetChannels() const VORREL_EXCLUDES(layout);
    std::uint64_t GetSampleRate() const VORREL_EXCLUDES(layout);
    /// Null before the first `Init` and after one that had no memory.
    const SampleTypeInfo* GetSampleTypeInfo() const VORREL_EXCLUDES(layout);

    /// Held by the record worker around one turn (one block of every channel) and by the manager
    /// around "take the length, log the event", so that no event falls between two channels of one
    /// device buffer. Never taken by the device's thread. Taken alone (`ExclusiveLock`), and of a
    /// kind whose owner lets the one who waits go first: a worker that falls behind the device
    /// takes it again at once, turn after turn, and the host still gets in behind the turn under
    /// way.
    ReadWriteMutex& TurnLock() VORREL_THREAD_ANNOTATION(lock_returned(turn)) { return turn; }

private:
    template <class Container>
    VrError AddBlock(std::uint16_t channel, const Container& block) VORREL_EXCLUDES(layout);
    template <class Container>
    VrError Read(std::uint16_t channel, std::uint64_t from, std::uint64_t to, Container& out,
                 bool available) VORREL_EXCLUDES(layout);

    /// What the stores hold. One record, so that a failed `Init` leaves nothing of the old one.
    struct Form {
        std::uint16_t bitsPerSample = 0;
        std::uint32_t bytesPerFrame = 0;  // of one channel
        std::uint64_t sampleRate = 0;
        const SampleTypeInfo* sampleType = nullptr;
        RecordRangeManager* rangeManager = nullptr;
    };

    IVorrelManager& manager;
    ReadWriteMutex turn;
    mutable ReadWriteMutex layout;  // shared: the stores' own mutexes do the rest
    std::vector<TemporaryData> stores VORREL_GUARDED_BY(layout);
    std::uint64_t generation VORREL_GUARDED_BY(layout) = 0;
    Form form VORREL_GUARDED_BY(layout);
};

}  // namespace vorrel

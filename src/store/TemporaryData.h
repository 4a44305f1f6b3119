#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/AlignedBytes.h"
#include "platform/Mutex.h"
#include "store/RecordRangeManager.h"
#include "store/TemporaryFile.h"

namespace vorrel {

/// The byte stream of one channel, as two streams side by side: raw (`available` false; all that
/// was captured, of which the two latest memory buffers are kept) and available (`available`
/// true; only what lies in record ranges, complete, in memory and spill segments). Positions are
/// bytes from the first byte added since `Init`. Thread-safe by one mutex, held for the whole of
/// every call, file work included. No operation throws; a want of memory is `VrErrorFailed`.
class TemporaryData {
public:
    /// Data bytes of one spill segment at most.
    static constexpr std::uint64_t kSegmentBytes = std::uint64_t{1} << 30;

    /// An empty store; it takes no data before `Init`.
    /// @param segmentBytes  Cap of one segment. A segment takes one memory buffer in any case.
    explicit TemporaryData(IVorrelManager& manager, std::uint64_t segmentBytes = kSegmentBytes);
    TemporaryData(TemporaryData&& other) noexcept;  // leaves `other` empty, as constructed
    TemporaryData& operator=(TemporaryData&& other) noexcept;
    virtual ~TemporaryData();
    TemporaryData(const TemporaryData&) = delete;
    TemporaryData& operator=(const TemporaryData&) = delete;

    /// Discards everything, deleting the spill files.
    /// @param memorySize  Bytes of one memory buffer. 0: `VrErrorInvalidParameter`, nothing
    /// changes.
    /// @return `VrErrorFailed` (no memory): the store is empty and takes no data.
    VrError Init(std::uint32_t memorySize) VORREL_EXCLUDES(mutex);

    /// Appends a block to the raw stream and its recorded part to the available stream.
    /// @param block   No bytes: `VrSuccess`, nothing changes.
    /// @param ranges  Recorded parts on the raw stream, from `GetAvailableRange_Bytes`.
    /// @return `VrErrorFailed` before `Init`, or when there is no memory for the block (nothing
    ///         changes), or when a spill failed: the available stream has taken its part of the
    ///         block whole, the raw stream up to the memory buffer in hand; all that was stored
    ///         stays readable and the next `Add` tries the spill again.
    VrError Add(const std::vector<std::int16_t>& block, std::span<const PositionRange> ranges)
        VORREL_EXCLUDES(mutex);
    VrError Add(const std::vector<std::uint8_t>& block, std::span<const PositionRange> ranges)
        VORREL_EXCLUDES(mutex);
    VrError Add(const AlignedBytes& block, std::span<const PositionRange> ranges)
        VORREL_EXCLUDES(mutex);

    /// Fills `out` with exactly the bytes [from, to) of the chosen stream; as 16-bit samples, with
    /// the whole ones among them.
    /// @return `VrErrorInvalidParameter` (empty range, past the stream's length, raw data no
    ///         longer kept, or a block that no segment holds); `VrErrorFailed` (a read failed, or
    ///         no memory). After a failure `out` holds what was found before it.
    VrError GetData(std::uint64_t from, std::uint64_t to, std::vector<std::int16_t>& out,
                    bool available) VORREL_EXCLUDES(mutex);
    VrError GetData(std::uint64_t from, std::uint64_t to, std::vector<std::uint8_t>& out,
                    bool available) VORREL_EXCLUDES(mutex);
    VrError GetData(std::uint64_t from, std::uint64_t to, AlignedBytes& out, bool available)
        VORREL_EXCLUDES(mutex);

    /// Bytes added to the chosen stream since `Init`.
    std::uint64_t GetLength(bool available) const VORREL_EXCLUDES(mutex);

    /// Copies the recorded pieces of one block, whose end on the raw stream is `endPos`. No piece
    /// reaches past the block; sizes are 32-bit and wrap. May throw std::bad_alloc.
    /// Kept: pieces come from the front of the block, one after another, whatever their position
    /// (TemporaryDataTest.TakesPiecesFromTheFrontOfTheBlock).
    /// @param out  Resized to the pieces; untouched when there is none.
    /// @return false at the first malformed pair (second < first); what was copied stays in `out`.
    static bool ExtractRecordData(AlignedBytes& out, std::span<const std::uint8_t> data,
                                  std::uint64_t endPos, std::span<const PositionRange> ranges);

private:
    /// One stream's part in memory. A buffer holds the bytes from its `bufferStart` on.
    struct Stream {
        std::array<AlignedBytes, 2> buffer;
        std::array<std::uint64_t, 2> bufferStart{};
        std::uint32_t readIndex = 0;   // buffer that served the latest read; writing spares it
        std::uint32_t writeIndex = 0;  // buffer that receives new bytes
        std::uint64_t length = 0;
    };
    struct State {
        IVorrelManager* manager;
        std::uint64_t segmentBytes;
        std::vector<TemporaryFile> files{};  // of the available stream, in its order
        std::uint32_t memorySize = 0;
        Stream raw{}, available{};
    };

    VrError AddBytes(std::span<const std::uint8_t> block, std::span<const PositionRange> ranges)
        VORREL_EXCLUDES(mutex);
    void AppendRaw(std::span<const std::uint8_t> bytes) VORREL_REQUIRES(mutex);
    VrError Spill() VORREL_REQUIRES(mutex);
    VrError WriteBlock(std::span<const std::uint8_t> block, std::uint64_t position)
        VORREL_REQUIRES(mutex);

    template <class Container>
    VrError Read(std::uint64_t from, std::uint64_t to, Container& out, bool available)
        VORREL_EXCLUDES(mutex);
    VrError ReadInto(std::uint64_t from, std::uint64_t to, std::span<std::uint8_t> out,
                     std::size_t& served, bool available) VORREL_REQUIRES(mutex);
    VrError LoadBlock(std::uint64_t position) VORREL_REQUIRES(mutex);

    mutable Mutex mutex;
    State state VORREL_GUARDED_BY(mutex);
};

}  // namespace vorrel

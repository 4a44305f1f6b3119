#include "store/TemporaryData.h"

#include <algorithm>
#include <new>
#include <tuple>
#include <utility>

#include "platform/SystemHelpers.h"

namespace vorrel {
namespace {

/// The recorded part of a block: its first `bytes` bytes, because every piece is taken from where
/// the one before it ended.
struct RecordedPart {
    std::uint32_t bytes = 0;
    bool anyPiece = false;
    bool wellFormed = true;
};

RecordedPart FindRecordedPart(std::uint64_t blockBytes, std::uint64_t endPos,
                              std::span<const PositionRange> ranges) {
    RecordedPart part;
    for (const auto& [first, second] : ranges) {
        if (second < first) {
            part.wellFormed = false;
            break;
        }
        const std::uint64_t piece = (second > first ? second : endPos) - first;
        // A start that is not on a whole frame is rounded down and asks for more than there is.
        const std::uint64_t taken = std::min(piece, blockBytes - part.bytes);
        part.bytes = static_cast<std::uint32_t>(part.bytes + taken);
        part.anyPiece = true;
    }
    return part;
}

/// Makes room for `bytes` in `buffer`. Grows by no less than a quarter, so that a buffer that
/// cannot be spilled is not copied at every block, and one that can stays near its size.
void Reserve(AlignedBytes& buffer, std::size_t bytes) {
    if (bytes > buffer.capacity()) {
        buffer.reserve(std::max(bytes, buffer.capacity() + buffer.capacity() / 4));
    }
}

/// Copies in one piece: `insert` and `assign` construct byte by byte where the allocator is not the
/// standard one, at a fraction of the speed. Throws before it changes anything, or not at all.
void Append(AlignedBytes& buffer, std::span<const std::uint8_t> bytes) {
    const std::size_t size = buffer.size();
    Reserve(buffer, size + bytes.size());
    buffer.resize(size + bytes.size());
    std::ignore = memcpy_s(buffer.data() + size, bytes.size(), bytes.data(), bytes.size());
}

}  // namespace

TemporaryData::TemporaryData(IVorrelManager& manager, std::uint64_t segmentBytes)
    : state{&manager, segmentBytes} {}

TemporaryData::TemporaryData(TemporaryData&& other) noexcept : state{} {
    const MutexLock lock(other.mutex);
    state = std::exchange(other.state, State{other.state.manager, other.state.segmentBytes});
}

TemporaryData& TemporaryData::operator=(TemporaryData&& other) noexcept {
    if (this == &other) {
        return *this;
    }
    // One lock after the other, never both: two stores may be moved into each other.
    State taken{};
    {
        const MutexLock lock(other.mutex);
        taken = std::exchange(other.state, State{other.state.manager, other.state.segmentBytes});
    }
    const MutexLock lock(mutex);
    state = std::move(taken);
    return *this;
}

TemporaryData::~TemporaryData() = default;

VrError TemporaryData::Init(std::uint32_t memorySize) {
    if (memorySize == 0) {
        return VrErrorInvalidParameter;
    }
    const MutexLock lock(mutex);
    // What is old goes first: old and new buffers together could be more than there is memory.
    state = State{state.manager, state.segmentBytes};
    try {
        for (AlignedBytes& buffer : state.raw.buffer) {
            buffer.reserve(memorySize);
        }
        // An available buffer holds its last block whole before it is spilled; a block is a small
        // part of it, so that it is not moved to a larger place in the middle of a take.
        for (AlignedBytes& buffer : state.available.buffer) {
            buffer.reserve(std::size_t{memorySize} + memorySize / 16);
        }
    } catch (const std::bad_alloc&) {
        return VrErrorFailed;
    }
    state.memorySize = memorySize;
    return VrSuccess;
}

VrError TemporaryData::Add(const std::vector<std::int16_t>& block,
                           std::span<const PositionRange> ranges) {
    return AddBytes({reinterpret_cast<const std::uint8_t*>(block.data()), block.size() * 2},
                    ranges);
}

VrError TemporaryData::Add(const std::vector<std::uint8_t>& block,
                           std::span<const PositionRange> ranges) {
    return AddBytes(block, ranges);
}

VrError TemporaryData::Add(const AlignedBytes& block, std::span<const PositionRange> ranges) {
    return AddBytes(block, ranges);
}

VrError TemporaryData::AddBytes(std::span<const std::uint8_t> block,
                                std::span<const PositionRange> ranges) {
    if (block.empty()) {
        return VrSuccess;
    }
    const MutexLock lock(mutex);
    if (state.memorySize == 0) {
        return VrErrorFailed;
    }
    // The recorded pieces are the front of the block, so they need no vector of their own.
    const std::uint64_t endPos = state.raw.bufferStart[state.raw.writeIndex] +
                                 state.raw.buffer[state.raw.writeIndex].size() + block.size();
    const std::size_t recorded = FindRecordedPart(block.size(), endPos, ranges).bytes;
    try {
        Append(state.available.buffer[state.available.writeIndex], block.first(recorded));
    } catch (const std::bad_alloc&) {
        return VrErrorFailed;
    }
    state.available.length += recorded;

    // One spill for each turn is enough: no more than `memorySize` bytes come with one.
    while (!block.empty()) {
        const std::size_t room = state.memorySize - state.raw.buffer[state.raw.writeIndex].size();
        const std::size_t bytes = std::min(room, block.size());
        AppendRaw(block.first(bytes));
        if (state.available.buffer[state.available.writeIndex].size() >= state.memorySize) {
            if (const VrError error = Spill(); error != VrSuccess) {
                return error;
            }
        }
        block = block.subspan(bytes);
    }
    return VrSuccess;
}

void TemporaryData::AppendRaw(std::span<const std::uint8_t> bytes) {
    Stream& raw = state.raw;
    AlignedBytes& buffer = raw.buffer[raw.writeIndex];
    Append(buffer, bytes);  // inside what Init reserved: never allocates
    raw.length += bytes.size();
    if (buffer.size() == state.memorySize) {
        // Kept: always the buffer that did not serve the latest read, so that without reads the
        // first one stays (TemporaryDataTest.KeepsTheFirstBufferWhileNothingIsRead).
        raw.writeIndex = raw.readIndex ^ 1;
        raw.bufferStart[raw.writeIndex] = raw.length;
        raw.buffer[raw.writeIndex].clear();
    }
}

/// Writes the first `memorySize` bytes of the write buffer to a segment and goes on in the buffer
/// that did not serve the latest read, with the bytes in excess. Changes nothing on failure.
VrError TemporaryData::Spill() {
    Stream& stream = state.available;
    const std::uint32_t next = stream.readIndex ^ 1;
    AlignedBytes& full = stream.buffer[stream.writeIndex];
    const std::span<const std::uint8_t> block(full.data(), state.memorySize);
    const std::span<const std::uint8_t> excess(full.data() + state.memorySize,
                                               full.size() - state.memorySize);
    try {
        // First, so that nothing can fail behind the write.
        Reserve(stream.buffer[next], excess.size());
        if (state.files.size() == state.files.capacity()) {
            state.files.reserve(state.files.size() * 2 + 1);
        }
    } catch (const std::bad_alloc&) {
        return VrErrorFailed;
    }
    if (const VrError error = WriteBlock(block, stream.bufferStart[stream.writeIndex]);
        error != VrSuccess) {
        return error;
    }

    const std::uint64_t nextStart = stream.length - excess.size();
    if (next == stream.writeIndex) {
        full.erase(full.begin(), full.begin() + state.memorySize);
    } else {
        stream.buffer[next].clear();
        Append(stream.buffer[next], excess);
        full.resize(state.memorySize);  // stays as a cache of the block just written
    }
    stream.writeIndex = next;
    stream.bufferStart[next] = nextStart;
    return VrSuccess;
}

VrError TemporaryData::WriteBlock(std::span<const std::uint8_t> block, std::uint64_t position) {
    if (!state.files.empty() &&
        state.files.back().GetLength() + block.size() <= state.segmentBytes) {
        return state.files.back().Add(block);
    }
    TemporaryFile segment(*state.manager);  // deleted again unless it holds the block
    if (const VrError error = segment.Init(position); error != VrSuccess) {
        return error;
    }
    if (const VrError error = segment.Add(block); error != VrSuccess) {
        return error;
    }
    state.files.push_back(std::move(segment));
    return VrSuccess;
}

VrError TemporaryData::GetData(std::uint64_t from, std::uint64_t to, std::vector<std::int16_t>& out,
                               bool available) {
    return Read(from, to, out, available);
}

VrError TemporaryData::GetData(std::uint64_t from, std::uint64_t to, std::vector<std::uint8_t>& out,
                               bool available) {
    return Read(from, to, out, available);
}

VrError TemporaryData::GetData(std::uint64_t from, std::uint64_t to, AlignedBytes& out,
                               bool available) {
    return Read(from, to, out, available);
}

template <class Container>
VrError TemporaryData::Read(std::uint64_t from, std::uint64_t to, Container& out, bool available) {
    constexpr std::size_t kElementBytes = sizeof(typename Container::value_type);
    out.clear();
    const MutexLock lock(mutex);
    const Stream& stream = available ? state.available : state.raw;
    if (to <= from || to > stream.length) {
        return VrErrorInvalidParameter;
    }
    // The raw stream gives no more than its two buffers, however much is asked for.
    const std::uint64_t most =
        available
            ? to - from
            : std::min<std::uint64_t>(to - from, stream.buffer[0].size() + stream.buffer[1].size());
    try {
        out.resize(static_cast<std::size_t>(most / kElementBytes));
    } catch (const std::bad_alloc&) {
        return VrErrorFailed;
    }
    std::size_t served = 0;
    const VrError error = ReadInto(
        from, to, {reinterpret_cast<std::uint8_t*>(out.data()), out.size() * kElementBytes}, served,
        available);
    out.resize(served / kElementBytes);  // shorter after a failure only
    return error;
}

/// @param out     Takes the bytes as far as it reaches.
/// @param served  Receives how many it took.
VrError TemporaryData::ReadInto(std::uint64_t from, std::uint64_t to, std::span<std::uint8_t> out,
                                std::size_t& served, bool available) {
    Stream& stream = available ? state.available : state.raw;
    const auto holds = [&stream](std::uint32_t index, std::uint64_t position) {
        return position >= stream.bufferStart[index] &&
               position - stream.bufferStart[index] < stream.buffer[index].size();
    };
    std::uint64_t position = from;
    do {
        if (holds(0, position)) {
            stream.readIndex = 0;
        } else if (holds(1, position)) {
            stream.readIndex = 1;
        } else if (!available) {
            return VrErrorInvalidParameter;
        } else if (const VrError error = LoadBlock(position); error != VrSuccess) {
            return error;
        }
        const AlignedBytes& buffer = stream.buffer[stream.readIndex];
        const std::uint64_t blockStart = stream.bufferStart[stream.readIndex];
        // A buffer that could not be spilled is longer than a block.
        const std::uint64_t blockEnd =
            blockStart + std::max<std::uint64_t>(state.memorySize, buffer.size());
        const std::size_t bytes =
            std::min(static_cast<std::size_t>(std::min(blockEnd, to) - position),
                     out.size() - served);  // less for half a sample at the end
        std::ignore = memcpy_s(out.data() + served, out.size() - served,
                               buffer.data() + (position - blockStart), bytes);
        served += bytes;
        position = blockEnd;
    } while (position < to);
    return VrSuccess;
}

/// Reads the spilled block around `position` into the buffer that is not written to, which becomes
/// the one that served the latest read. That buffer is empty after a failure.
VrError TemporaryData::LoadBlock(std::uint64_t position) {
    Stream& stream = state.available;
    const std::uint32_t index = stream.writeIndex ^ 1;
    AlignedBytes& buffer = stream.buffer[index];
    const std::uint64_t blockStart = position - position % state.memorySize;
    stream.readIndex = index;
    stream.bufferStart[index] = blockStart;

    const auto segment = std::lower_bound(state.files.begin(), state.files.end(), blockStart,
                                          [](const TemporaryFile& file, std::uint64_t sought) {
                                              std::uint64_t start = 0;
                                              std::uint64_t end = 0;
                                              std::ignore = file.GetRange(start, end);
                                              return end <= sought;
                                          });
    const VrError error = segment == state.files.end()
                              ? VrErrorInvalidParameter
                              : segment->GetData(blockStart, blockStart + state.memorySize, buffer);
    if (error != VrSuccess) {
        buffer.clear();
    }
    return error;
}

std::uint64_t TemporaryData::GetLength(bool available) const {
    const MutexLock lock(mutex);
    return available ? state.available.length : state.raw.length;
}

bool TemporaryData::ExtractRecordData(AlignedBytes& out, std::span<const std::uint8_t> data,
                                      std::uint64_t endPos, std::span<const PositionRange> ranges) {
    const RecordedPart part = FindRecordedPart(data.size(), endPos, ranges);
    if (part.anyPiece) {
        out.clear();
        Append(out, data.first(part.bytes));
    }
    return part.wellFormed;
}

}  // namespace vorrel

#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace vorrel::test {

/// A channel store that keeps both streams whole in plain vectors and only counts what the real one
/// holds in buffers and files. It never reads or writes a file, so a wrong byte cannot hide in it.
class TemporaryDataModel {
public:
    TemporaryDataModel(std::uint64_t bufferSize, std::uint64_t segmentCap)
        : memorySize(bufferSize), segmentBytes(segmentCap) {}

    /// @param canCreate   Whether a new segment's file can be made.
    /// @param fileLimit   Bytes that a file can have.
    /// @return false when a spill failed.
    bool Add(const std::vector<std::uint8_t>& block,
             const std::vector<std::pair<std::uint64_t, std::uint64_t>>& ranges, bool canCreate,
             std::uint64_t fileLimit = ~std::uint64_t{0}) {
        const std::uint64_t end = raw.size() + block.size();
        std::uint64_t recorded = 0;
        for (const auto& [first, second] : ranges) {
            if (second < first) {
                break;
            }
            recorded += first == second ? end - first : second - first;
            recorded = std::min<std::uint64_t>(recorded, block.size());
        }
        const auto begin = block.begin();
        available.insert(available.end(), begin, begin + static_cast<std::ptrdiff_t>(recorded));
        for (std::uint64_t consumed = 0; consumed < block.size();) {
            const std::uint64_t count =
                std::min(memorySize - slots[writing].size, block.size() - consumed);
            raw.insert(raw.end(), begin + static_cast<std::ptrdiff_t>(consumed),
                       begin + static_cast<std::ptrdiff_t>(consumed + count));
            slots[writing].size += count;
            if (slots[writing].size == memorySize) {
                writing = 1 - lastRead;
                slots[writing] = {raw.size(), 0};
            }
            if (available.size() - spilled >= memorySize && !Spill(canCreate, fileLimit)) {
                return false;
            }
            consumed += count;
        }
        return true;
    }

    /// Bytes [from, to) of the raw stream, or nothing when part of them is no longer kept.
    std::optional<std::vector<std::uint8_t>> Raw(std::uint64_t from, std::uint64_t to) {
        if (to <= from || to > raw.size()) {
            return std::nullopt;
        }
        for (std::uint64_t position = from; position < to;) {
            const auto slot = std::find_if(slots.begin(), slots.end(), [position](const Slot& at) {
                return position >= at.start && position < at.start + at.size;
            });
            if (slot == slots.end()) {
                return std::nullopt;
            }
            lastRead = static_cast<std::size_t>(slot - slots.begin());
            position = slot->start + memorySize;
        }
        return Slice(raw, from, to);
    }

    std::optional<std::vector<std::uint8_t>> Available(std::uint64_t from, std::uint64_t to) const {
        if (to <= from || to > available.size()) {
            return std::nullopt;
        }
        return Slice(available, from, to);
    }

    std::uint64_t RawLength() const { return raw.size(); }
    std::uint64_t AvailableLength() const { return available.size(); }
    /// Bytes of each segment, in order.
    const std::vector<std::uint64_t>& Segments() const { return segments; }

private:
    struct Slot {
        std::uint64_t start = 0, size = 0;
    };

    static std::vector<std::uint8_t> Slice(const std::vector<std::uint8_t>& bytes,
                                           std::uint64_t from, std::uint64_t to) {
        return {bytes.begin() + static_cast<std::ptrdiff_t>(from),
                bytes.begin() + static_cast<std::ptrdiff_t>(to)};
    }

    bool Spill(bool canCreate, std::uint64_t fileLimit) {
        const bool appends = !segments.empty() && segments.back() + memorySize <= segmentBytes;
        if (!appends && !canCreate) {
            return false;
        }
        const std::uint64_t bytes = (appends ? segments.back() : 0) + memorySize;
        if (bytes > fileLimit) {
            return false;
        }
        if (!appends) {
            segments.push_back(0);
        }
        segments.back() = bytes;
        spilled += memorySize;
        return true;
    }

    std::uint64_t memorySize, segmentBytes;
    std::vector<std::uint8_t> raw, available;
    std::array<Slot, 2> slots{};  // of the raw stream
    std::size_t writing = 0, lastRead = 0;
    std::uint64_t spilled = 0;
    std::vector<std::uint64_t> segments;
};

}  // namespace vorrel::test

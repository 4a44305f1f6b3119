#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

namespace vorrel::test {

/// What waits in a capture queue: of every block its size and the mark that it bears.
class CaptureQueueModel {
public:
    struct Block {
        std::size_t bytes = 0;
        std::uint8_t mark = 0;
    };

    void Init(std::size_t channels) { queues.assign(channels, {}); }
    std::size_t Channels() const { return queues.size(); }
    /// The block's size stands for that of all that wait: ten mebibytes are not reached.
    bool Takes(std::size_t channel, const Block& block) const {
        return block.bytes * queues[channel].size() < std::size_t{10} * 1024 * 1024;
    }
    void Push(std::size_t channel, const Block& block) { queues[channel].push_back(block); }
    std::optional<Block> Pop(std::size_t channel) {
        if (queues[channel].empty()) {
            return std::nullopt;
        }
        const Block front = queues[channel].front();
        queues[channel].pop_front();
        return front;
    }

private:
    std::vector<std::deque<Block>> queues;
};

}  // namespace vorrel::test

#include <gtest/gtest.h>

#include <utility>

#include "pipeline/AsioDataQueue.h"
#include "support/Property.h"
#include "support/models/CaptureQueueModel.h"

namespace vorrel::test {
namespace {

// So many that a few blocks fill a queue, and so few that many fit.
constexpr std::size_t kSizes[] = {0, 1, 4'096, 65'536, 1 << 20, (1 << 20) + 1, 5 << 20, 10'485'759};

class QueueRun {
public:
    std::optional<std::string> Do(const Step& step) {
        switch (step.kind) {
            case 0:
                return step.Between(0, 0, 9) == 0 ? Init(step) : Dequeue(step);
            case 1:
                return step.Between(0, 0, 4) == 0 ? Reserve(step) : Dequeue(step);
            case 2:
                return Enqueue(step, true);
            case 3:
                return Enqueue(step, false);
            case 4:
            case 5:
            case 6:
                return EnqueueBuffer(step);
            default:
                return Dequeue(step);
        }
    }
    /// All that waits, in its order.
    std::optional<std::string> Drain() {
        for (std::size_t channel = 0; channel < model.Channels(); ++channel) {
            for (bool more = true; more;) {
                if (auto wrong = DequeueFrom(static_cast<std::uint16_t>(channel), more)) {
                    return wrong;
                }
            }
        }
        return std::nullopt;
    }

private:
    static std::size_t SizeOf(const Step& step, std::size_t index) {
        return kSizes[step.Between(index, 0, std::size(kSizes) - 1)];
    }
    static void Mark(Block& block, std::uint8_t mark) {
        if (!block.empty()) {
            block.front() = mark;
            block.back() = mark;
        }
    }
    static bool Bears(const Block& block, std::uint8_t mark) {
        return block.empty() || (block.front() == mark && block.back() == mark);
    }

    std::optional<std::string> Init(const Step& step) {
        const auto channels = static_cast<std::uint16_t>(step.Between(1, 0, 4));
        const VrError result = queue.Init(channels);
        if (channels == 0) {
            return result == VrErrorInvalidParameter ? std::nullopt
                                                     : std::optional("no channel is let pass");
        }
        model.Init(channels);
        return result == VrSuccess ? std::nullopt : std::optional("an init that fails");
    }
    std::optional<std::string> Reserve(const Step& step) {
        queue.ReserveBlocks(SizeOf(step, 1));
        return std::nullopt;
    }

    std::optional<std::string> Enqueue(const Step& step, bool moves) {
        const auto channel = static_cast<std::uint16_t>(step.Between(0, 0, 5));
        const std::size_t bytes = SizeOf(step, 1);
        const auto mark = static_cast<std::uint8_t>(step.number[2]);
        Block block = queue.TakeBlock(bytes);
        if (block.size() != bytes) {
            return "a block from the pool is " + std::to_string(block.size()) + " bytes long";
        }
        Mark(block, mark);
        const VrError result = moves ? queue.Enqueue(channel, std::move(block))
                                     : queue.Enqueue(channel, static_cast<const Block&>(block));
        // NOLINTNEXTLINE(bugprone-use-after-move): left empty by contract
        if (moves ? !block.empty() : block.size() != bytes || !Bears(block, mark)) {
            return "the caller's block is not as it should be";
        }
        VrError expected = VrErrorInvalidParameter;
        if (channel < model.Channels()) {
            expected = model.Takes(channel, {bytes, mark}) ? VrSuccess : VrErrorFailed;
        }
        if (expected == VrSuccess) {
            model.Push(channel, {bytes, mark});
        }
        return result == expected ? std::nullopt
                                  : std::optional("an enqueue of " + std::to_string(bytes) +
                                                  " bytes gives " + std::to_string(result));
    }

    /// One device buffer, with fewer or more channels than the queue has, alike or not.
    std::optional<std::string> EnqueueBuffer(const Step& step) {
        std::vector<Block> blocks(step.Between(0, 0, 5));
        queue.TakeBlocks(SizeOf(step, 1), blocks);
        bool accepted = true;
        std::vector<CaptureQueueModel::Block> pushed;
        for (std::size_t channel = 0; channel < blocks.size(); ++channel) {
            if (channel == 1 && step.Between(3, 0, 2) == 0) {
                blocks[channel].resize(SizeOf(step, 2));
            }
            const auto mark = static_cast<std::uint8_t>(step.number[2] + channel);
            Mark(blocks[channel], mark);
            pushed.push_back({blocks[channel].size(), mark});
            accepted =
                accepted && (channel >= model.Channels() || model.Takes(channel, pushed.back()));
        }
        const VrError result = queue.EnqueueBuffer(blocks);
        for (std::size_t channel = 0; accepted && channel < pushed.size(); ++channel) {
            if (channel < model.Channels()) {
                model.Push(channel, pushed[channel]);
            }
        }
        return result == (accepted ? VrSuccess : VrErrorFailed)
                   ? std::nullopt
                   : std::optional("a device buffer gives " + std::to_string(result));
    }

    std::optional<std::string> Dequeue(const Step& step) {
        bool ignored = false;
        return DequeueFrom(static_cast<std::uint16_t>(step.Between(0, 0, 4)), ignored);
    }
    std::optional<std::string> DequeueFrom(std::uint16_t channel, bool& found) {
        const std::string where = "channel " + std::to_string(channel) + ": ";
        const std::size_t before = out.size();
        const VrError result = queue.Dequeue(channel, out);
        if (channel >= model.Channels()) {
            return result == VrErrorInvalidParameter && out.size() == before
                       ? std::nullopt
                       : std::optional(where + "is there");
        }
        const auto expected = model.Pop(channel);
        found = expected.has_value();
        const CaptureQueueModel::Block block = expected.value_or(CaptureQueueModel::Block{});
        if (result != VrSuccess || out.size() != block.bytes || !Bears(out, block.mark)) {
            return where + "a block of " + std::to_string(out.size()) + " bytes instead of " +
                   std::to_string(block.bytes);
        }
        return std::nullopt;
    }

    AsioDataQueue queue;
    CaptureQueueModel model;
    Block out;  // what was dequeued last goes back to the pool with the next
};

TEST(CaptureQueuePropertyTest, GivesTheBlocksThatTheModelGives) {
    CheckProperty(30, 300, 10, [](const Steps& steps) -> std::optional<std::string> {
        QueueRun run;
        for (std::size_t index = 0; index < steps.size(); ++index) {
            if (const auto wrong = run.Do(steps[index])) {
                return "step " + std::to_string(index) + ": " + *wrong;
            }
        }
        return run.Drain();
    });
}

}  // namespace
}  // namespace vorrel::test

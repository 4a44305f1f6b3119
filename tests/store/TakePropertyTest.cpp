#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "store/PreviewData.h"
#include "store/RecordData.h"
#include "store/StoreTestSupport.h"
#include "support/FakeManager.h"
#include "support/Property.h"
#include "support/models/TakeModel.h"

namespace vorrel::test {
namespace {

constexpr std::uint64_t kDsdBitsPerFrame = 64;

/// A record store, a preview store and their range log beside a plain account of the same take, at
/// rates so low that five seconds are some dozens of bytes.
class TakeRun {
public:
    TakeRun(const Step& form, bool takesDsd, const std::string& directory)
        : isDsd(takesDsd),
          channels(static_cast<std::uint16_t>(form.Between(0, 1, 3))),
          manager(directory) {
        Begin(form);
    }

    std::optional<std::string> Do(const Step& step) {
        switch (step.kind) {
            case 0:
            case 1:
            case 2:
            case 3:
                return AddTurn(step);
            case 4:
                return AddPreview(step);
            case 5:
                Event(step);
                return std::nullopt;
            case 6:
            case 7:
                return ReadRecord(step);
            case 8:
                return ReadPreview(step);
            default:
                return step.Between(0, 0, 19) == 0 ? BeginAgain(step) : ReadRecord(step);
        }
    }

    std::optional<std::string> All() {
        for (std::uint16_t channel = 0; channel < channels; ++channel) {
            if (auto wrong = CompareRecord(channel, 0, Units(models[channel].available))) {
                return wrong;
            }
        }
        return Lengths();
    }

private:
    std::uint64_t BitsPerSample() const { return isDsd ? 1 : 32; }
    /// Whole samples, of which a DSD channel has eight in a byte.
    std::uint64_t Units(const Bytes& bytes) const { return bytes.size() * 8 / BitsPerSample(); }

    void Begin(const Step& form) {
        rateHz = isDsd ? form.Between(1, 2, 60) * 8 : form.Between(1, 1, 12);
        const std::uint64_t previewHz = form.Between(2, 1, 12);
        std::ignore = record.Init(channels, rateHz,
                                  GetSampleTypeInfo(isDsd ? kSampleTypeDsd : kSampleTypePcm), &log);
        std::ignore = preview.Init(channels, previewHz, &log);
        log.Reset();
        logModel.Reset();
        lastEvent = 0;
        models.assign(channels, {});
        previewModel = {};
    }
    std::optional<std::string> BeginAgain(const Step& step) {
        Begin(step);
        return Lengths();
    }

    Bytes Block(std::uint64_t bytes) {
        Bytes block(bytes);
        for (std::uint8_t& byte : block) {
            byte = PatternByte(added += 7);
        }
        return block;
    }

    /// A block of every channel, of which one may be longer than the others, or of fewer channels.
    std::optional<std::string> AddTurn(const Step& step) {
        const std::uint64_t width = isDsd ? 2 : 4;
        const std::uint64_t length = step.Between(0, 1, 30) * width;
        const std::uint64_t longer = step.Between(1, 0, 7) == 0 ? width : 0;
        const std::uint16_t count = step.Between(2, 0, 9) == 0 ? std::uint16_t{1} : channels;
        for (std::uint16_t channel = 0; channel < count; ++channel) {
            const Bytes block = Block(length + (channel == 0 ? longer : 0));
            models[channel].Add(block, logModel, isDsd ? 2 : 4);
            if (record.Add(channel, block) != VrSuccess) {
                return "a block is not taken";
            }
        }
        return Lengths();
    }

    std::optional<std::string> AddPreview(const Step& step) {
        std::vector<std::int16_t> samples(step.Between(0, 1, 40) * channels);
        const Bytes block = Block(samples.size() * 2);
        std::memcpy(samples.data(), block.data(), block.size());
        previewModel.Add(block, logModel, std::uint64_t{channels} * 2);
        return preview.Add(samples) == VrSuccess ? Lengths() : "a preview block is not taken";
    }

    /// At the length of the shortest channel, or at any place behind the last event.
    void Event(const Step& step) {
        std::uint64_t position = record.GetLength(false);
        if (isDsd) {
            position /= kDsdBitsPerFrame;
        }
        position += step.Between(2, 0, 3) == 0 ? step.Between(3, 0, 40) : 0;
        lastEvent = std::max(position, lastEvent);
        // Record events, which begin a new log, are rarer than the others.
        const int event = static_cast<int>(step.Between(0, 0, 9) == 0 ? 0 : step.Between(1, 1, 3));
        log.AddRecordEvent(lastEvent, event);
        logModel.Event(lastEvent, event);
    }

    std::optional<std::string> Lengths() {
        std::uint64_t raw = ~std::uint64_t{0};
        std::uint64_t available = raw;
        for (const ChannelModel& model : models) {
            raw = std::min(raw, Units(model.raw));
            available = std::min(available, Units(model.available));
        }
        if (record.GetLength(false) != raw || record.GetLength(true) != available) {
            return "the record is " + std::to_string(record.GetLength(false)) + " and " +
                   std::to_string(record.GetLength(true)) + " samples long instead of " +
                   std::to_string(raw) + " and " + std::to_string(available);
        }
        const std::uint64_t frameBytes = std::uint64_t{channels} * 2;
        if (preview.GetLength(false) != previewModel.raw.size() / frameBytes ||
            preview.GetLength(true) != previewModel.available.size() / frameBytes) {
            return "the preview is not as long as it should be";
        }
        return std::nullopt;
    }

    std::optional<std::string> ReadRecord(const Step& step) {
        const auto channel = static_cast<std::uint16_t>(step.Between(0, 0, channels - 1U));
        const std::uint64_t length = Units(models[channel].available);
        const std::uint64_t from = step.Between(1, 0, length);
        return CompareRecord(channel, from, step.Between(2, from, length));
    }
    std::optional<std::string> CompareRecord(std::uint16_t channel, std::uint64_t from,
                                             std::uint64_t to) {
        const std::uint64_t fromByte = from * BitsPerSample() / 8;
        const std::uint64_t toByte = to * BitsPerSample() / 8;
        const Bytes& whole = models[channel].available;
        Bytes out;
        const VrError result = record.GetData(channel, from, to, out, true);
        if (toByte <= fromByte) {
            return result == VrErrorInvalidParameter ? std::nullopt
                                                     : std::optional("an empty range is read");
        }
        if (result != VrSuccess ||
            out != Bytes(whole.begin() + static_cast<std::ptrdiff_t>(fromByte),
                         whole.begin() + static_cast<std::ptrdiff_t>(toByte))) {
            return "channel " + std::to_string(channel) + ", samples " + std::to_string(from) +
                   " to " + std::to_string(to) + " give " + std::to_string(result);
        }
        return std::nullopt;
    }

    std::optional<std::string> ReadPreview(const Step& step) {
        const std::uint64_t frameBytes = std::uint64_t{channels} * 2;
        const std::uint64_t length = previewModel.available.size() / frameBytes;
        const std::uint64_t from = step.Between(1, 0, length);
        const std::uint64_t to = step.Between(2, from, length);
        std::vector<std::int16_t> out;
        const VrError result = preview.GetData(from, to, out, true);
        if (to == from) {
            return result == VrErrorInvalidParameter ? std::nullopt
                                                     : std::optional("no frames are read");
        }
        const std::uint64_t bytes = (to - from) * frameBytes;
        if (result != VrSuccess || out.size() * 2 != bytes ||
            std::memcmp(out.data(), previewModel.available.data() + from * frameBytes, bytes) !=
                0) {
            return "preview frames " + std::to_string(from) + " to " + std::to_string(to);
        }
        return std::nullopt;
    }

    const bool isDsd;
    const std::uint16_t channels;
    FakeManager manager;
    RecordRangeManager log;
    RecordData record{manager};
    PreviewData preview{manager};
    std::uint64_t rateHz = 1;
    std::uint64_t added = 0;
    std::uint64_t lastEvent = 0;
    RangeLogModel logModel;
    std::vector<ChannelModel> models;
    ChannelModel previewModel;
};

TEST(TakePropertyTest, APcmTakeWithPausesAnywhereIsTheOneOfThePlainAccount) {
    CheckProperty(60, 300, 10, ReplayOf<TakeRun>(false));
}

TEST(TakePropertyTest, ADsdTakeWithPausesAnywhereIsTheOneOfThePlainAccount) {
    CheckProperty(60, 300, 10, ReplayOf<TakeRun>(true));
}

}  // namespace
}  // namespace vorrel::test

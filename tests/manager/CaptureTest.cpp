#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <vector>

#include "ManagerRig.h"
#include "support/AsioDataQueueParts.h"
#include "support/Await.h"
#include "support/WaitingCall.h"

namespace vorrel::test {
namespace {

/// A list of several buffers, as some devices deliver them.
class BufferList {
public:
    void Add(std::uint32_t channels, std::vector<float>& samples) {
        buffers.push_back(
            {channels, static_cast<UInt32>(samples.size() * sizeof(float)), samples.data()});
    }
    const AudioBufferList* Get() {
        bytes.resize(offsetof(AudioBufferList, mBuffers) + buffers.size() * sizeof(AudioBuffer) +
                     sizeof(AudioBufferList));
        auto* list = reinterpret_cast<AudioBufferList*>(bytes.data());
        list->mNumberBuffers = static_cast<UInt32>(buffers.size());
        std::ranges::copy(buffers, list->mBuffers);
        return list;
    }

private:
    std::vector<AudioBuffer> buffers;
    alignas(AudioBufferList) std::vector<std::uint8_t> bytes;
};

class CaptureTest : public ManagerRig {
protected:
    void SetChannels(const std::vector<UInt32>& buffers) {
        recorder.audio->SetBuffers(FakeRecorder::kDevice, kAudioObjectPropertyScopeInput, buffers);
    }
    /// All that is stored of a channel, byte for byte.
    std::vector<std::uint8_t> StoredDsd(std::uint16_t channel) {
        RecordData& record = VorrelManagerParts::Record(manager);
        std::vector<std::uint8_t> stored;
        EXPECT_EQ(record.GetData(channel, 0, record.GetLength(false), stored, false), VrSuccess);
        return stored;
    }
    std::vector<std::int16_t> Preview(std::uint64_t frames, std::size_t channels) {
        std::vector<std::int16_t> samples(frames * channels);
        EXPECT_EQ(manager.GetPreviewData(0, frames, samples.data(), true), VrSuccess);
        return samples;
    }
};

TEST_F(CaptureTest, AnEmptyBufferListQueuesNothingAndWakesTheRecordWorker) {
    SelectPcm();
    StartRecording();
    // Queued behind the callback's back, so that only the empty list can wake the worker.
    AsioDataQueue& queue = VorrelManagerParts::Queue(manager);
    ASSERT_EQ(queue.Enqueue(0, Block(4 * 96, 0)), VrSuccess);
    ASSERT_EQ(queue.Enqueue(1, Block(4 * 96, 0)), VrSuccess);
    const AudioBufferList none{0, {}};

    ASSERT_TRUE(recorder.Deliver(&none));

    EXPECT_TRUE(DispatchUntil([&] { return Length(false) == 96; }));
    ASSERT_EQ(manager.Stop(true), VrSuccess);
    EXPECT_EQ(Length(false), 96U);
}

TEST_F(CaptureTest, NoBufferListAtAllQueuesNothing) {
    SelectPcm();
    StartRecording();

    manager.AudioDevice_IOProc(nullptr, nullptr);

    ASSERT_EQ(manager.Stop(true), VrSuccess);
    EXPECT_EQ(Length(false), 0U);
}

TEST_F(CaptureTest, ChannelsAreNumberedAcrossTheBuffersOfAList) {
    SetChannels({2, 2});
    SelectPcm();
    StartRecording();
    std::vector<float> front = {1 / 32768.0F, 2 / 32768.0F, 11 / 32768.0F, 12 / 32768.0F};
    std::vector<float> rear = {3 / 32768.0F, 4 / 32768.0F, 13 / 32768.0F, 14 / 32768.0F};
    BufferList list;
    list.Add(2, front);
    list.Add(2, rear);

    ASSERT_TRUE(recorder.Deliver(list.Get()));
    ASSERT_EQ(manager.Stop(true), VrSuccess);

    EXPECT_EQ(Preview(2, 4), (std::vector<std::int16_t>{1, 2, 3, 4, 11, 12, 13, 14}));
}

TEST_F(CaptureTest, ABufferWithoutChannelsIsSkipped) {
    SelectPcm();
    StartRecording();
    std::vector<float> nothing;
    std::vector<float> samples = {1 / 32768.0F, 2 / 32768.0F};
    BufferList list;
    list.Add(0, nothing);
    list.Add(2, samples);

    ASSERT_TRUE(recorder.Deliver(list.Get()));
    ASSERT_EQ(manager.Stop(true), VrSuccess);

    EXPECT_EQ(Preview(1, 2), (std::vector<std::int16_t>{1, 2}));
}

TEST_F(CaptureTest, TwoChannelsIn800BytesAreAHundredFrames) {
    SelectPcm();
    StartRecording();
    std::vector<float> samples;
    std::vector<std::int16_t> expected;
    for (std::int16_t frame = 0; frame < 100; ++frame) {
        for (const std::int16_t value :
             {static_cast<std::int16_t>(1 + frame), static_cast<std::int16_t>(-1 - frame)}) {
            samples.push_back(static_cast<float>(value) / 32768.0F);
            expected.push_back(value);
        }
    }
    ASSERT_EQ(samples.size() * sizeof(float), 800U);

    ASSERT_TRUE(recorder.Deliver(2, samples));
    ASSERT_EQ(manager.Stop(true), VrSuccess);

    EXPECT_EQ(Length(false), 100U);
    EXPECT_EQ(Preview(100, 2), expected);
    for (std::uint16_t channel = 0; channel < 2; ++channel) {
        std::vector<std::uint8_t> stored;
        ASSERT_EQ(VorrelManagerParts::Record(manager).GetData(channel, 0, 100, stored, false),
                  VrSuccess);
        EXPECT_EQ(stored.size(), 400U);
    }
}

TEST_F(CaptureTest, FloatWordsArePassedOnBitForBit) {
    SelectPcm();
    StartRecording();
    // A signalling not-a-number, a subnormal, minus zero, infinity, the largest number.
    const std::vector<std::uint32_t> words = {0x7F80'0001, 0x0000'0001, 0x8000'0000,
                                              0xFF80'0000, 0x7F7F'FFFF, 0xFFC1'2345};
    std::vector<float> samples(words.size());
    std::memcpy(samples.data(), words.data(), words.size() * sizeof(float));

    ASSERT_TRUE(recorder.Deliver(2, samples));
    ASSERT_EQ(manager.Stop(true), VrSuccess);

    for (std::uint16_t channel = 0; channel < 2; ++channel) {
        std::vector<std::uint8_t> stored;
        ASSERT_EQ(VorrelManagerParts::Record(manager).GetData(channel, 0, 3, stored, false),
                  VrSuccess);
        std::vector<std::uint32_t> read(3);
        std::memcpy(read.data(), stored.data(), stored.size());
        EXPECT_EQ(read, (std::vector<std::uint32_t>{words[channel], words[channel + 2U],
                                                    words[channel + 4U]}));
    }
}

TEST_F(CaptureTest, ChannelsBeyondThoseOfTheRecordingAreDropped) {
    SelectPcm();
    StartRecording();
    std::vector<float> samples = {1 / 32768.0F, 2 / 32768.0F, 3 / 32768.0F};

    ASSERT_TRUE(recorder.Deliver(3, samples));
    ASSERT_EQ(manager.Stop(true), VrSuccess);

    EXPECT_EQ(Preview(1, 2), (std::vector<std::int16_t>{1, 2}));
    MainQueue::Dispatch();
    EXPECT_TRUE(delegate->messages.empty());
}

TEST_F(CaptureTest, MoreChannelsThanASplitTakesAtOnceArriveWhole) {
    constexpr std::uint32_t kChannels = 40;
    SetChannels({kChannels});
    SelectPcm();
    StartRecording();
    std::vector<float> samples;
    std::vector<std::int16_t> expected;
    for (std::int16_t sample = 1; sample <= 3 * 40; ++sample) {
        samples.push_back(static_cast<float>(sample) / 32768.0F);
        expected.push_back(sample);
    }

    ASSERT_TRUE(recorder.Deliver(kChannels, samples));
    ASSERT_EQ(manager.Stop(true), VrSuccess);

    EXPECT_EQ(Preview(3, kChannels), expected);
}

TEST_F(CaptureTest, DsdFloatWordsBecomeSaturatedSixteenBitWords) {
    const std::vector<float> source = {0.5F,  -1.0F,        1.0F,  0.0F,   2.0F,
                                       -2.0F, 1 / 32768.0F, 1e30F, -1e30F, -0.5F};
    std::vector<std::int16_t> words(source.size());

    VorrelManager::Float_To_DSD16(words.data(), source.data(), source.size());

    EXPECT_EQ(words, (std::vector<std::int16_t>{16'384, -32'768, 32'767, 0, 32'767, -32'768, 1,
                                                32'767, -32'768, -16'384}));
}

TEST_F(CaptureTest, EveryDsdWordSurvivesTheDevicesFloats) {
    std::vector<float> source;
    std::vector<std::int16_t> expected;
    for (int word = -32'768; word <= 32'767; ++word) {
        source.push_back(static_cast<float>(word) / 32768.0F);
        expected.push_back(static_cast<std::int16_t>(word));
    }
    std::vector<std::int16_t> words(source.size());

    VorrelManager::Float_To_DSD16(words.data(), source.data(), source.size());

    EXPECT_EQ(words, expected);
}

TEST_F(CaptureTest, ADsdBufferIsStoredAsSixteenBitsAFrame) {
    Select();
    Set(1, 2'822'400, 0);
    StartRecording();
    std::vector<float> samples(2 * 4, 0.5F);  // 4 frames of 2 channels: 64 one-bit samples each

    ASSERT_TRUE(recorder.Deliver(2, samples));
    ASSERT_EQ(manager.Stop(true), VrSuccess);

    EXPECT_EQ(Length(false), 1U);
}

TEST_F(CaptureTest, ABufferWithoutSamplesIsSilence) {
    SelectPcm();
    StartRecording();
    Deliver(4);
    const AudioBufferList list{1, {{2, 4 * 2 * sizeof(float), nullptr}}};

    ASSERT_TRUE(recorder.Deliver(&list));
    delivered += 4;
    StopRecording();

    const auto preview = Preview(8, 2);
    EXPECT_EQ(std::vector(preview.begin() + 8, preview.end()), std::vector<std::int16_t>(8, 0));
    std::vector<std::uint8_t> stored;
    ASSERT_EQ(VorrelManagerParts::Record(manager).GetData(1, 4, 8, stored, true), VrSuccess);
    EXPECT_EQ(stored, std::vector<std::uint8_t>(4 * sizeof(float), 0));
}

TEST_F(CaptureTest, BytesPastTheLastWholeFrameAreLeftOut) {
    SelectPcm();
    StartRecording();
    std::vector<float> samples = {1 / 32768.0F, 2 / 32768.0F, 3 / 32768.0F};

    ASSERT_TRUE(recorder.Deliver(2, samples));
    ASSERT_EQ(manager.Stop(true), VrSuccess);

    EXPECT_EQ(Length(false), 1U);
    EXPECT_EQ(Preview(1, 2), (std::vector<std::int16_t>{1, 2}));
}

TEST_F(CaptureTest, TheRawPreviewHoldsWhatIsPaused) {
    SelectPcm();
    StartPreRecording();
    Deliver(10);
    AwaitStored();

    std::vector<std::int16_t> samples(20);
    ASSERT_EQ(manager.GetPreviewData(0, 10, samples.data(), false), VrSuccess);

    EXPECT_EQ(samples.front(), Sample16(0, 0));
    EXPECT_EQ(samples.back(), Sample16(9, 1));
    EXPECT_EQ(manager.GetPreviewData(0, 10, samples.data(), true), VrErrorInvalidParameter);
}

TEST_F(CaptureTest, NoNumberIsNoDsdWord) {
    const float none = std::numeric_limits<float>::quiet_NaN();
    const float infinite = std::numeric_limits<float>::infinity();
    const std::vector<float> source = {none, infinite, -infinite, none, 0.5F,
                                       none, none,     infinite,  none, -infinite};
    std::vector<std::int16_t> words(source.size(), 1);

    VorrelManager::Float_To_DSD16(words.data(), source.data(), source.size());

    EXPECT_EQ(words,
              (std::vector<std::int16_t>{0, 32'767, -32'768, 0, 16'384, 0, 0, 32'767, 0, -32'768}));
}

TEST_F(CaptureTest, ADsdBuffersWordsReachTheStoreOfTheirChannel) {
    Select();
    Set(1, 2'822'400, 0);
    StartRecording();
    // More frames than are gathered at a time; every word tells its frame and channel.
    constexpr std::int32_t kFrames = 3'000;
    std::vector<float> samples;
    for (std::int32_t frame = 0; frame < kFrames; ++frame) {
        samples.push_back(static_cast<float>(frame) / 32768.0F);
        samples.push_back(static_cast<float>(-frame - 1) / 32768.0F);
    }

    ASSERT_TRUE(recorder.Deliver(2, samples));
    ASSERT_EQ(manager.Stop(true), VrSuccess);

    for (std::uint16_t channel = 0; channel < 2; ++channel) {
        AlignedBytes stored;
        ASSERT_EQ(
            VorrelManagerParts::Record(manager).GetData(channel, 0, kFrames * 16, stored, false),
            VrSuccess);
        ASSERT_EQ(stored.size(), 2U * kFrames);
        for (std::int32_t frame = 0; frame < kFrames; ++frame) {
            const std::int32_t word = channel == 0 ? frame : -frame - 1;
            // The low byte is the earlier one.
            ASSERT_EQ(stored[static_cast<std::size_t>(2 * frame)], word & 0xFF) << frame;
            ASSERT_EQ(stored[static_cast<std::size_t>(2 * frame + 1)], (word >> 8) & 0xFF) << frame;
        }
    }
}

TEST_F(CaptureTest, EveryCountOfDsdWordsIsConvertedAndNoWordBesideThem) {
    std::vector<float> source;
    for (int word = -20; word < 21; ++word) {
        source.push_back(static_cast<float>(word) / 32768.0F);
    }
    for (std::size_t first = 0; first < 5; ++first) {
        for (std::size_t count = 0; count <= 36; ++count) {
            std::vector<std::int16_t> words(40, 7'777);

            VorrelManager::Float_To_DSD16(words.data() + first, source.data() + first, count);

            for (std::size_t i = 0; i < words.size(); ++i) {
                const bool converted = i >= first && i < first + count;
                ASSERT_EQ(words[i], converted ? static_cast<int>(i) - 20 : 7'777)
                    << count << " words from " << first << ", word " << i;
            }
        }
    }
}

TEST_F(CaptureTest, DsdChannelsAreNumberedAcrossTheBuffersOfAList) {
    SetChannels({2, 1, 2});
    Select();
    Set(1, 5'644'800, 0);
    StartRecording();
    std::vector<float> front = {1 / 32768.0F, 2 / 32768.0F, 11 / 32768.0F, 12 / 32768.0F};
    std::vector<float> middle = {3 / 32768.0F, 13 / 32768.0F};
    std::vector<float> rear = {4 / 32768.0F, 5 / 32768.0F, 14 / 32768.0F, 15 / 32768.0F};
    BufferList list;
    list.Add(2, front);
    list.Add(1, middle);
    list.Add(2, rear);

    ASSERT_TRUE(recorder.Deliver(list.Get()));
    ASSERT_EQ(manager.Stop(true), VrSuccess);

    for (std::uint16_t channel = 0; channel < 5; ++channel) {
        const auto number = static_cast<std::uint8_t>(channel + 1);
        EXPECT_EQ(StoredDsd(channel), (std::vector<std::uint8_t>{
                                          number, 0, static_cast<std::uint8_t>(10 + number), 0}));
    }
}

TEST_F(CaptureTest, MoreDsdChannelsThanASplitTakesAtOnceArriveWhole) {
    constexpr std::uint16_t kChannels = 40;
    SetChannels({kChannels});
    Select();
    Set(1, 2'822'400, 0);
    StartRecording();
    constexpr int kFrames = 1'001;  // more than are gathered at a time
    std::vector<float> samples;
    for (int word = 0; word < kFrames * kChannels; ++word) {
        samples.push_back(static_cast<float>(word % 32'749) / 32768.0F);
    }

    ASSERT_TRUE(recorder.Deliver(kChannels, samples));
    ASSERT_EQ(manager.Stop(true), VrSuccess);

    for (std::uint16_t channel = 0; channel < kChannels; ++channel) {
        std::vector<std::uint8_t> expected;
        for (int frame = 0; frame < kFrames; ++frame) {
            const int word = (frame * kChannels + channel) % 32'749;
            expected.push_back(static_cast<std::uint8_t>(word & 0xFF));
            expected.push_back(static_cast<std::uint8_t>(word >> 8));
        }
        EXPECT_EQ(StoredDsd(channel), expected) << channel;
    }
}

TEST_F(CaptureTest, DsdChannelsBeyondThoseOfTheRecordingAreDropped) {
    SetChannels({2});
    Select();
    Set(1, 2'822'400, 0);
    StartRecording();
    std::vector<float> samples;  // of three channels
    for (int word = 0; word < 3 * 1'500; ++word) {
        samples.push_back(static_cast<float>(word) / 32768.0F);
    }

    ASSERT_TRUE(recorder.Deliver(3, samples));
    ASSERT_EQ(manager.Stop(true), VrSuccess);

    for (std::uint16_t channel = 0; channel < 2; ++channel) {
        std::vector<std::uint8_t> expected;
        for (int frame = 0; frame < 1'500; ++frame) {
            const int word = 3 * frame + channel;
            expected.push_back(static_cast<std::uint8_t>(word & 0xFF));
            expected.push_back(static_cast<std::uint8_t>(word >> 8));
        }
        EXPECT_EQ(StoredDsd(channel), expected) << channel;
    }
}

TEST_F(CaptureTest, DsdBytesPastTheLastWholeFrameAreLeftOut) {
    Select();
    Set(1, 2'822'400, 0);
    StartRecording();
    std::vector<float> samples = {1 / 32768.0F, 2 / 32768.0F, 3 / 32768.0F};
    const AudioBufferList list{
        1, {{2, static_cast<UInt32>(samples.size() * sizeof(float)), samples.data()}}};

    ASSERT_TRUE(recorder.Deliver(&list));
    ASSERT_EQ(manager.Stop(true), VrSuccess);

    EXPECT_EQ(StoredDsd(0), (std::vector<std::uint8_t>{1, 0}));
    EXPECT_EQ(StoredDsd(1), (std::vector<std::uint8_t>{2, 0}));
}

TEST_F(CaptureTest, EachDsdBufferOfAListHasItsOwnFrames) {
    SetChannels({1, 1});
    Select();
    Set(1, 2'822'400, 0);
    StartRecording();
    std::vector<float> one = {1 / 32768.0F};
    std::vector<float> two = {2 / 32768.0F, 3 / 32768.0F};
    BufferList list;
    list.Add(1, one);
    list.Add(1, two);

    ASSERT_TRUE(recorder.Deliver(list.Get()));
    ASSERT_EQ(manager.Stop(true), VrSuccess);

    // The recording is as long as its shortest channel.
    EXPECT_EQ(VorrelManagerParts::Record(manager).GetLength(false), 16U);
    std::vector<std::uint8_t> stored;
    ASSERT_EQ(VorrelManagerParts::Record(manager).GetData(1, 0, 32, stored, false), VrSuccess);
    EXPECT_EQ(stored, (std::vector<std::uint8_t>{2, 0, 3, 0}));
}

TEST_F(CaptureTest, ADsdBufferWithoutSamplesIsDsdSilence) {
    Select();
    Set(1, 2'822'400, 0);
    StartRecording();
    const AudioBufferList list{1, {{2, 3 * 2 * sizeof(float), nullptr}}};

    ASSERT_TRUE(recorder.Deliver(&list));
    ASSERT_EQ(manager.Stop(true), VrSuccess);

    for (std::uint16_t channel = 0; channel < 2; ++channel) {
        EXPECT_EQ(StoredDsd(channel), std::vector<std::uint8_t>(6, 0x69));
    }
}

TEST_F(CaptureTest, AnEmptyBufferListQueuesNothingAtDsdAndWakesTheRecordWorker) {
    Select();
    Set(1, 2'822'400, 0);
    StartRecording();
    // Queued behind the callback's back, so that only the empty list can wake the worker.
    AsioDataQueue& queue = VorrelManagerParts::Queue(manager);
    ASSERT_EQ(queue.Enqueue(0, Block(2 * 96, 0)), VrSuccess);
    ASSERT_EQ(queue.Enqueue(1, Block(2 * 96, 0)), VrSuccess);
    const AudioBufferList none{0, {}};

    ASSERT_TRUE(recorder.Deliver(&none));

    EXPECT_TRUE(DispatchUntil(
        [&] { return VorrelManagerParts::Record(manager).GetLength(false) == 96 * 16; }));
    ASSERT_EQ(manager.Stop(true), VrSuccess);
    EXPECT_EQ(VorrelManagerParts::Record(manager).GetLength(false), 96U * 16);
}

TEST_F(CaptureTest, ChannelsStayInStepWhenTheQueueIsFull) {
    SelectPcm(48'000);
    StartRecording();
    // One channel's queue is full, the other's is empty, as when the worker is between the two.
    AsioDataQueue& queue = VorrelManagerParts::Queue(manager);
    const AudioBufferList none{0, {}};
    {
        const ExclusiveLock stall(VorrelManagerParts::TurnLock(manager));  // as a disk that stalls
        // The worker takes one turn into its hands and waits there.
        Deliver(262'144);
        Await([&] { return AsioDataQueueParts::IsEmpty(queue); });
        while (queue.Enqueue(1, Block(1U << 20, 0)) == VrSuccess) {
        }
        std::vector<float> lost(2 * 262'144, 0.5F);
        ASSERT_TRUE(recorder.Deliver(2, lost));
    }
    ASSERT_TRUE(recorder.Deliver(&none));
    ASSERT_TRUE(DispatchUntil([&] { return Length(false) == delivered; }));

    // Nothing of the refused buffer went into the channel that had room.
    Block block;
    ASSERT_EQ(queue.Dequeue(0, block), VrSuccess);
    EXPECT_TRUE(block.empty());
    MainQueue::Dispatch();
    EXPECT_EQ(delegate->Count(VrMessageBufferOverflow), 1U);
    ASSERT_EQ(manager.Stop(true), VrSuccess);
}

TEST_F(CaptureTest, RecordStartedComesAfterTheBufferInWhichItWasSeen) {
    SelectPcm();
    StartPreRecording();
    Deliver(10);
    ASSERT_EQ(manager.Start(), VrSuccess);
    MainQueue::Dispatch();
    ASSERT_FALSE(delegate->Has(VrRecOperationRecordStarted));

    Deliver(10);

    MainQueue::Dispatch();
    EXPECT_EQ(delegate->Count(VrRecOperationRecordStarted), 1U);
    Deliver(10);
    MainQueue::Dispatch();
    EXPECT_EQ(delegate->Count(VrRecOperationRecordStarted), 1U);
}

TEST_F(CaptureTest, RecordStartedIsNotSentBeforeItsBufferIsQueued) {
    SelectPcm();
    StartPreRecording();
    Deliver(10);
    AwaitStored();
    ASSERT_EQ(manager.Start(), VrSuccess);
    MainQueue::Dispatch();
    std::optional<WaitingCall> device;
    {
        // The callback comes no further than the queue.
        const MutexLock full(AsioDataQueueParts::MutexOf(VorrelManagerParts::Queue(manager)));
        device.emplace([&] { Deliver(10); });
        ASSERT_TRUE(device->Waits());

        EXPECT_FALSE(MainQueue::Wait(std::chrono::milliseconds(0)));
    }
    device->Join();

    MainQueue::Dispatch();
    EXPECT_EQ(delegate->Count(VrRecOperationRecordStarted), 1U);
    StopRecording();
    EXPECT_EQ(RecordedFrames(), Frames({{10, 20}}));
}

TEST_F(CaptureTest, AFullQueueIsReportedOnceARecording) {
    SelectPcm();
    StartRecording();
    std::vector<float> samples(2 * 262'144, 0.25F);  // 1 MiB a channel: ten fit
    const auto overflow = [&] {
        for (int buffer = 0; buffer < 30; ++buffer) {
            ASSERT_TRUE(recorder.Deliver(2, samples));
        }
    };
    {
        const ExclusiveLock stall(VorrelManagerParts::TurnLock(manager));  // as a disk that stalls
        overflow();
    }
    MainQueue::Dispatch();
    EXPECT_EQ(delegate->Count(VrMessageBufferOverflow), 1U);
    EXPECT_EQ(delegate->messages.front().second, "");
    ASSERT_EQ(manager.Stop(true), VrSuccess);
    AwaitOperation(VrRecOperationStopped);
    delegate->operations.clear();

    StartRecording();
    {
        const ExclusiveLock stall(VorrelManagerParts::TurnLock(manager));  // as a disk that stalls
        overflow();
    }
    MainQueue::Dispatch();
    EXPECT_EQ(delegate->Count(VrMessageBufferOverflow), 2U);
    ASSERT_EQ(manager.Stop(true), VrSuccess);
}

TEST_F(CaptureTest, AtDsdAnEventStandsAtAFrameOfThePreview) {
    Select();
    Set(1, 2'822'400, 0);
    StartRecording();
    std::vector<float> samples(2 * 260, 0.5F);  // 260 words: 4,160 one-bit samples, 65 frames
    ASSERT_TRUE(recorder.Deliver(2, samples));
    ASSERT_TRUE(DispatchUntil(
        [&] { return VorrelManagerParts::Record(manager).GetLength(false) == 4'160; }));

    ASSERT_EQ(manager.Pause(), VrSuccess);

    EXPECT_EQ(VorrelManagerParts::Ranges(manager).GetAvailableRange_Frames(0, 1'000),
              (std::vector<PositionRange>{{0, 65}}));
    ASSERT_EQ(manager.Stop(true), VrSuccess);
}

}  // namespace
}  // namespace vorrel::test

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "store/PreviewData.h"
#include "store/RecordData.h"
#include "store/StoreTestSupport.h"
#include "support/FakeManager.h"
#include "support/TempDirectory.h"

// What these assert is also what ThreadSanitizer sees: no data race between the threads that enter
// the stores, and no answer that is torn between two recordings.

namespace vorrel::test {
namespace {

/// The first position in `bytes` that is not the test stream from `from` on, or its size.
std::uint64_t Agreement(const Bytes& bytes, std::uint64_t from) {
    std::uint64_t index = 0;
    while (index < bytes.size() && bytes[index] == PatternByte(from + index)) {
        ++index;
    }
    return index;
}

/// What a reader has come to, so that a test's own work falls between its passes.
class Passes {
public:
    void Count() {
        ++count;
        count.notify_all();
    }
    /// Waits until the reader has been through once more; it is on its next way then.
    void AwaitNext() const { count.wait(count.load()); }

private:
    std::atomic<unsigned> count{0};
};

TEST(StoreThreadsTest, ReadersSeeEveryByteWhileAnotherThreadAdds) {
    const TempDirectory directory;
    FakeManager manager(directory.Path());
    TemporaryData store(manager, 1000);
    ASSERT_EQ(store.Init(100), VrSuccess);
    std::atomic<bool> done{false};

    std::thread adder([&] {
        for (std::uint64_t position = 0; position < 20'000; position += 37) {
            EXPECT_EQ(store.Add(Pattern(position, position + 37), kAll), VrSuccess);
        }
        done = true;
    });
    const auto readAll = [&](std::uint64_t step) {
        std::uint64_t position = 0;
        for (bool last = false; !last;) {
            last = done;
            const std::uint64_t length = store.GetLength(true);
            EXPECT_LE(length, store.GetLength(false));  // all is recorded: raw is never behind
            while (position < length) {
                const std::uint64_t to = std::min(position + step, length);
                Bytes out;
                ASSERT_EQ(store.GetData(position, to, out, true), VrSuccess);
                ASSERT_EQ(Agreement(out, position), to - position);
                position = to;
            }
        }
    };
    std::thread small([&] { readAll(13); });
    std::thread large([&] { readAll(450); });
    std::thread raw([&] {
        while (!done) {
            const std::uint64_t length = store.GetLength(false);
            Bytes out;
            if (length >= 10 && store.GetData(length - 10, length, out, false) == VrSuccess) {
                ASSERT_EQ(Agreement(out, length - 10), 10U);
            }
        }
    });
    for (std::thread* thread : {&adder, &small, &large, &raw}) {
        thread->join();
    }

    EXPECT_EQ(store.GetLength(true), 20'017U);  // 541 blocks
}

TEST(StoreThreadsTest, ANewRecordingMayBeginWhileTheOldOneIsRead) {
    const TempDirectory directory;
    FakeManager manager(directory.Path());
    RecordRangeManager log;
    log.AddRecordEvent(0, kRecordEventRecord);
    RecordData data(manager);
    const SampleTypeInfo* const pcm = GetSampleTypeInfo(kSampleTypePcm);
    ASSERT_EQ(data.Init(2, 100, pcm, &log), VrSuccess);
    std::atomic<bool> done{false};
    Passes passes;

    std::thread adder([&] {
        const Bytes block = Pattern(0, 251 * 4);  // whole periods: every block begins at 0
        while (!done) {
            const ExclusiveLock turn(data.TurnLock());
            for (std::uint16_t channel = 0; channel < 8; ++channel) {
                const VrError result = data.Add(channel, block);
                EXPECT_TRUE(result == VrSuccess || result == VrErrorInvalidParameter);
            }
        }
    });
    std::thread reader([&] {
        Bytes out;
        while (!done) {
            for (std::uint16_t channel = 0; channel < 8; ++channel) {
                if (data.GetData(channel, 0, 251, out, true) == VrSuccess) {
                    EXPECT_EQ(Agreement(out, 0), 251U * 4);
                }
            }
            passes.Count();
        }
    });
    std::thread asker([&] {
        while (!done) {
            std::ignore = data.GetLength(true);
            const std::uint16_t channels = data.GetChannels();
            EXPECT_TRUE(channels >= 1 && channels <= 8);
            EXPECT_GE(data.GetSampleRate(), 100U);
            EXPECT_EQ(data.GetSampleTypeInfo(), pcm);
        }
    });
    for (std::uint16_t round = 0; round < 200; ++round) {
        passes.AwaitNext();
        EXPECT_EQ(data.Init(static_cast<std::uint16_t>(1 + round % 8), 100U + round, pcm, &log),
                  VrSuccess);
        if (round % 10 == 9) {
            EXPECT_EQ(data.TemporaryClear(), VrSuccess);
        }
    }
    done = true;
    for (std::thread* thread : {&adder, &reader, &asker}) {
        thread->join();
    }
}

TEST(StoreThreadsTest, ThePreviewMayBeginAgainWhileItIsRead) {
    const TempDirectory directory;
    FakeManager manager(directory.Path());
    RecordRangeManager log;
    log.AddRecordEvent(0, kRecordEventRecord);
    PreviewData data(manager);
    std::atomic<bool> done{false};
    Passes passes;

    std::thread adder([&] {
        while (!done) {
            const VrError result = data.Add(std::vector<std::int16_t>(256, 77));
            EXPECT_TRUE(result == VrSuccess || result == VrErrorFailed);
        }
    });
    std::thread reader([&] {
        std::vector<std::int16_t> out;
        while (!done) {
            if (data.GetData(0, 10, out, true) == VrSuccess) {
                // As many samples as one of the two recordings has channels, never a mixture.
                EXPECT_TRUE(out.size() == 10 || out.size() == 20);
                EXPECT_EQ(out, std::vector<std::int16_t>(out.size(), 77));
            }
            std::ignore = data.GetLength(false);
            EXPECT_LE(data.GetChannels(), 2U);
            std::ignore = data.GetSampleRate();
            passes.Count();
        }
    });
    for (std::uint16_t round = 0; round < 200; ++round) {
        passes.AwaitNext();
        EXPECT_EQ(data.Init(static_cast<std::uint16_t>(1 + round % 2), 50, &log), VrSuccess);
        if (round % 10 == 9) {
            EXPECT_EQ(data.TemporaryClear(), VrSuccess);
        }
    }
    done = true;
    adder.join();
    reader.join();
}

TEST(StoreThreadsTest, EventsAndQueriesMeetInTheRangeLog) {
    RecordRangeManager log;
    std::atomic<bool> done{false};
    Passes passes;

    std::thread worker([&] {
        while (!done) {
            for (const auto& [first, second] : log.GetAvailableRange_Bytes(0, 40'000, 4)) {
                EXPECT_LE(first, second);
                EXPECT_LE(second, 40'000U);
            }
            passes.Count();
        }
    });
    for (std::uint64_t round = 0; round < 2000; ++round) {
        passes.AwaitNext();
        log.AddRecordEvent(round, kRecordEventRecord);
        log.AddRecordEvent(round + 10, kRecordEventPause);
        log.AddRecordEvent(round + 20, kRecordEventResume);
        log.AddRecordEvent(round + 30, kRecordEventStop);
        EXPECT_TRUE(log.Reset());
    }
    done = true;
    worker.join();
}

TEST(StoreThreadsTest, AnEventUnderTheTurnLockCutsAllChannelsAtTheSamePlace) {
    const TempDirectory directory;
    FakeManager manager(directory.Path());
    RecordRangeManager log;
    log.AddRecordEvent(0, kRecordEventRecord);
    RecordData data(manager);
    ASSERT_EQ(data.Init(2, 48'000, GetSampleTypeInfo(kSampleTypePcm), &log), VrSuccess);

    std::thread worker([&] {
        const Bytes block(400);
        for (int turns = 0; turns < 2000; ++turns) {
            const ExclusiveLock turn(data.TurnLock());
            EXPECT_EQ(data.Add(0, block), VrSuccess);
            EXPECT_EQ(data.Add(1, block), VrSuccess);
        }
    });
    for (int events = 0; events < 200; ++events) {
        const ExclusiveLock turn(data.TurnLock());
        log.AddRecordEvent(data.GetLength(false),
                           events % 2 == 0 ? kRecordEventPause : kRecordEventResume);
    }
    worker.join();

    Bytes out;
    const std::uint64_t shortest = data.GetLength(true);
    if (shortest > 0) {
        EXPECT_EQ(data.GetData(0, 0, shortest, out, true), VrSuccess);
        EXPECT_EQ(data.GetData(1, 0, shortest, out, true), VrSuccess);
    }
    EXPECT_EQ(data.GetData(0, shortest, shortest + 1, out, true), VrErrorInvalidParameter);
    EXPECT_EQ(data.GetData(1, shortest, shortest + 1, out, true), VrErrorInvalidParameter);
}

}  // namespace
}  // namespace vorrel::test

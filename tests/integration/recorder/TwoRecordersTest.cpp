// Two recorders of one name, told apart by their place in the list.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "PluggedRecorder.h"
#include "device/AudioDeviceList.h"
#include "device/CoreAudioManager.h"
#include "device/alsa/AlsaBackends.h"
#include "device/alsa/AlsaPcm.h"
#include "platform/Mutex.h"
#include "support/FakeDeviceNotify.h"

namespace vorrel::test {
namespace {

using testing::Each;
using testing::IsEmpty;

/// Keeps the first samples that a device delivers.
class Capture {
public:
    explicit Capture(std::size_t samples) : wanted(samples) {
        collected.reserve(samples);
        notify.onCycle = [this] { Take(*notify.lastInput.load()); };
    }
    /// @return The samples, or those that have come within a minute.
    std::vector<float> Await() {
        const MutexLock lock(mutex);
        while (collected.size() < wanted && changed.WaitFor(mutex, std::chrono::minutes(1))) {
        }
        return collected;
    }

    FakeDeviceNotify notify;

private:
    void Take(const AudioBufferList& input) {
        const MutexLock lock(mutex);
        const AudioBuffer& buffer = input.mBuffers[0];
        const auto* samples = static_cast<const float*>(buffer.mData);
        collected.insert(
            collected.end(), samples,
            samples + std::min(wanted - collected.size(), buffer.mDataByteSize / sizeof(float)));
        changed.NotifyAll();
    }

    const std::size_t wanted;
    Mutex mutex;
    ConditionVariable changed;
    std::vector<float> collected VORREL_GUARDED_BY(mutex);
};

class TwoRecordersTest : public testing::Test {
protected:
    static constexpr std::size_t kFrames = 9'600;

    void SetUp() override {
        if (const std::string why = MockedSystem::WhyNot(); !why.empty()) {
            GTEST_SKIP() << why;
        }
        system.emplace();
        first.emplace(*system);
        second.emplace(*system);
        manager.emplace([] { return MakeAlsaBackends(); });
        ASSERT_EQ(manager->GetAudioDevices(found), VrSuccess);
        AudioDeviceList().FilterDevices(found);
        ASSERT_EQ(found.size(), 2U);
    }
    /// What an open of the card answers somebody else: 0 or a negative error number.
    static int OpenedByAnother(const PluggedRecorder& recorder) {
        std::unique_ptr<AlsaPcm> pcm;
        return AlsaPcm::Open(recorder.card.Number(), 0, pcm);
    }
    /// Selects one and captures, and compares all samples with those that its card has heard.
    void ExpectCaptures(const FoundDeviceInfo& record) {
        Capture capture(2 * kFrames);
        ASSERT_EQ(manager->SetAudioDevice(record, &capture.notify), VrSuccess);
        ASSERT_EQ(manager->SetSampleRate(48'000), VrSuccess);
        ASSERT_EQ(manager->Start(), VrSuccess);
        const std::vector<float> samples = capture.Await();
        ASSERT_EQ(manager->Stop(), VrSuccess);
        ASSERT_EQ(samples.size(), 2 * kFrames);
        for (std::size_t i = 0; i < samples.size(); ++i) {
            const auto heard =
                static_cast<std::int32_t>(TestSample(i / 2, static_cast<std::uint32_t>(i % 2), 2));
            ASSERT_EQ(samples[i], static_cast<float>(heard >> 8) / 8'388'608.0F) << i;
        }
    }

    std::optional<MockedSystem> system;
    std::optional<PluggedRecorder> first;
    std::optional<PluggedRecorder> second;
    std::optional<CoreAudioManager> manager;
    std::vector<FoundDeviceInfo> found;
};

TEST_F(TwoRecordersTest, AreBothFoundInTheOrderOfTheirCardsUnderOneName) {
    EXPECT_EQ(found[0].name, "KD-WV770");
    EXPECT_EQ(found[1].name, "KD-WV770");
    EXPECT_EQ(found[0].modelUid, found[1].modelUid);
    EXPECT_NE(found[0].uid, found[1].uid);
    EXPECT_THAT(found[0].uid, testing::HasSubstr(*first->usb.serial));
    EXPECT_THAT(found[1].uid, testing::HasSubstr(*second->usb.serial));
}

TEST_F(TwoRecordersTest, TheSecondIsSelectedAndCapturesWhileTheFirstStaysIdleAndFree) {
    ExpectCaptures(found[1]);

    EXPECT_EQ(OpenedByAnother(*second), -EBUSY);
    EXPECT_EQ(OpenedByAnother(*first), 0);
    EXPECT_EQ(first->card.State().starts, 0U);
    EXPECT_EQ(second->card.State().starts, 1U);
    EXPECT_THAT(system->RequestsTo(first->usb), IsEmpty());
    EXPECT_THAT(system->RequestsTo(second->usb), testing::ElementsAre(SwitchTo(0)));

    ASSERT_EQ(manager->ReleaseDevice(), VrSuccess);
    EXPECT_EQ(OpenedByAnother(*second), 0);
    EXPECT_THAT(system->RequestsTo(second->usb), testing::ElementsAre(SwitchTo(0), SwitchTo(0)));
}

TEST_F(TwoRecordersTest, TheFirstIsSelectedAndCapturesWhileTheSecondStaysIdleAndFree) {
    ExpectCaptures(found[0]);

    EXPECT_EQ(OpenedByAnother(*first), -EBUSY);
    EXPECT_EQ(OpenedByAnother(*second), 0);
    EXPECT_EQ(second->card.State().starts, 0U);
    EXPECT_THAT(system->RequestsTo(second->usb), IsEmpty());
}

TEST_F(TwoRecordersTest, TheSecondIsSelectedThoughTheFirstIsInUse) {
    const std::shared_ptr<void> other = first->card.HeldByAnother();
    FakeDeviceNotify notify;
    EXPECT_EQ(manager->SetAudioDevice(found[0], &notify), VrErrorFailed);

    ExpectCaptures(found[1]);
}

TEST_F(TwoRecordersTest, ARefusedSwitchOfTheSecondLeavesBothFree) {
    FakeDeviceNotify notify;
    for (const int refusal : {EPIPE, ENODEV}) {
        system->AnswerRequests(refusal);

        EXPECT_EQ(manager->SetAudioDevice(found[1], &notify), VrErrorFailed);

        EXPECT_EQ(OpenedByAnother(*first), 0);
        EXPECT_EQ(OpenedByAnother(*second), 0);
    }
    system->AnswerRequests(0);
    ExpectCaptures(found[1]);
}

}  // namespace
}  // namespace vorrel::test

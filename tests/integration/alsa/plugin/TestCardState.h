#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace vorrel::test {

/// Frames that an overrun on command takes out of the stream.
inline constexpr std::uint64_t kGapFrames = 1'000;
/// Frames that the card writes over the oldest in a full ring before it notices that nobody reads.
inline constexpr std::uint64_t kOverwrittenFrames = 100;

/// A test's card, in a file that the test and the plug-in share. Numbers of formats are
/// libasound's.
struct TestCardState {
    // What the card is; set before it is opened.
    std::array<std::uint32_t, 16> ratesHz{};
    std::uint32_t rateCount = 0;
    std::array<std::uint32_t, 8> formats{};
    std::uint32_t formatCount = 0;
    std::uint32_t fewestChannels = 2;
    std::uint32_t mostChannels = 2;
    std::uint32_t mapped = 1;  ///< 0: frames are read by calls only
    std::uint32_t leastPeriodBytes = 64;
    std::uint32_t mostPeriodBytes = 1U << 20;
    std::uint32_t mostRingBytes = 1U << 23;
    double speed = 1.0;

    // What happens to it.
    std::atomic<std::uint32_t> overruns{0};          ///< so many are still to come, one at a look
    std::atomic<std::uint32_t> suspensions{0};       ///< the same
    std::atomic<std::uint32_t> disconnected{0};      ///< 1: unplugged
    std::atomic<std::uint64_t> unplugAtFrame{0};     ///< unplugs itself when it has got there
    std::atomic<std::uint32_t> resumable{0};         ///< 1: goes on where it was suspended
    std::atomic<std::uint32_t> resumesToRefuse{0};   ///< so many "not yet" before
    std::atomic<std::uint32_t> preparesToRefuse{0};  ///< so many fail with EIO
    std::atomic<std::uint32_t> overrunsAtResume{0};  ///< so many resumes are followed by one
    std::atomic<std::uint32_t> silentStarts{0};      ///< so many starts are followed by nothing
    std::atomic<std::uint32_t> unpreparedStarts{0};  ///< the same, and it is prepared only
    std::atomic<std::uint32_t> vainErrors{0};   ///< 1: every look tells an error that there is not
    std::atomic<std::uint32_t> vainWakeUps{0};  ///< 1: it is always ready, with nothing to read
    std::atomic<std::uint32_t> unwaitable{0};   ///< 1: no descriptor to wait on
    std::atomic<std::int32_t> openError{0};     ///< error numbers that calls answer
    std::atomic<std::uint32_t> openErrors{0};   ///< so many opens answer it; 0: all
    std::atomic<std::int32_t> parametersError{0};
    std::atomic<std::int32_t> startError{0};
    std::atomic<std::int32_t> readError{0};   ///< of a read call, once; the stream goes on
    std::atomic<std::int32_t> stopError{0};   ///< stops the stream once
    std::atomic<std::uint32_t> heldFrees{0};  ///< 1: who frees its parameters waits until it is 0

    // What it has seen.
    std::atomic<std::uint32_t> opens{0};
    std::atomic<std::uint32_t> closes{0};
    std::atomic<std::uint32_t> parameterCalls{0};
    std::atomic<std::uint32_t> frees{0};
    std::atomic<std::uint32_t> prepares{0};
    std::atomic<std::uint32_t> starts{0};
    std::atomic<std::uint32_t> resumes{0};
    std::atomic<std::uint32_t> stops{0};
    std::atomic<std::uint32_t> lateReaders{0};  ///< overruns because nobody read in time
    std::atomic<std::uint32_t> looks{0};        ///< polls that were looked at
    std::atomic<std::uint32_t> rateHz{0};
    std::atomic<std::uint32_t> format{0};
    std::atomic<std::uint32_t> channels{0};
    std::atomic<std::uint64_t> brokenOff{0};  ///< the stream's next frame when it stopped by itself
    std::atomic<std::uint32_t> periodFrames{0};
    std::atomic<std::uint32_t> ringFrames{0};
};

/// What the card hears in a channel of its nth frame since its parameters were set, as 32 bits, of
/// which narrower formats take the upper ones.
inline std::uint32_t TestSample(std::uint64_t frame, std::uint32_t channel,
                                std::uint32_t channels) {
    auto value = static_cast<std::uint32_t>((frame * channels + channel) * 2'654'435'761U);
    value ^= value >> 15;
    value *= 2'246'822'519U;
    return value ^ (value >> 13);
}

}  // namespace vorrel::test

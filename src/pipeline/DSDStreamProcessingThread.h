#pragma once

#include <atomic>
#include <cstdint>

#include "pipeline/DSDStreamProcessing.h"
#include "pipeline/ThreadBase.h"
#include "vorrel/VrError.h"

namespace vorrel {

/// Runs one `DSDStreamProcessing` on a thread of its own, so that the channels of a block are
/// processed in parallel: `RunProcess` for each channel, then `WaitProcess` for each. All calls
/// come from the one thread that owns it.
class DSDStreamProcessingThread final : public ThreadBase {
public:
    DSDStreamProcessingThread();
    ~DSDStreamProcessingThread() override;  // stops
    DSDStreamProcessingThread(const DSDStreamProcessingThread&) = delete;
    DSDStreamProcessingThread& operator=(const DSDStreamProcessingThread&) = delete;

    /// Begins a stream and starts the worker.
    /// @param sampleRate  As for `DSDStreamProcessing::Init`, like `lsbFirst`.
    /// @param decibels    As for `DSDStreamProcessing::SetGain`.
    /// @return `VrErrorFailed` (running already, which changes nothing; or no thread to be had).
    VrError Start(std::int32_t sampleRate, std::int32_t lsbFirst, float decibels);
    /// Hands `length` bytes over to be processed in place; they stay, and are not touched, until
    /// `WaitProcess`. What is handed over at 0 dB is done already: the worker is not even woken.
    /// Nothing while not running.
    ///
    /// Kept: a second call before `WaitProcess` is dropped
    /// (DSDStreamProcessingThreadTest.ACallWhileBusyIsDropped).
    void RunProcess(std::uint8_t* bytes, std::uint32_t length);
    /// Waits until what was handed over is done; returns at once where nothing was.
    void WaitProcess();
    /// Ends the worker and waits for it; a buffer whose turn has not begun stays as it is. Nothing
    /// while not running.
    void Stop();

private:
    friend struct DSDStreamProcessingThreadParts;  // for tests
    static constexpr unsigned kWorkReady = 0;
    static constexpr unsigned kWorkDone = 1;

    void ThreadImpl() override;

    std::atomic<bool> stop{false};  // set by Stop before SetEvent, read by the worker
    bool busy = false;              // the owner's; the worker does not look at it
    std::int32_t sampleRate = 0;
    std::int32_t lsbFirst = 0;
    float decibels = 0;
    // Handed over by event 0 and back by event 1.
    std::uint8_t* pending = nullptr;
    std::uint32_t pendingLength = 0;
    DSDStreamProcessing processing;
};

}  // namespace vorrel

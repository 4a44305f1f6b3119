#pragma once

#include <vorrel/Vorrel.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace example {

/// What is to be recorded, and what the program wants to be told of.
struct Take {
    std::filesystem::path out;                      ///< A WAV file that does not exist yet.
    std::optional<double> seconds;                  ///< Stops by itself; none = at `Stop`.
    std::function<void(double seconds)> onPreview;  ///< So much can be drawn now. May be empty.
    std::function<void()> onRecorded;               ///< Stopped, nothing saved yet. May be empty.
    std::function<void(bool saved)> onDone;         ///< The last of all: leave the loop here.
};

/// A host whose decisions are all made in notifications, so that any loop can drive it that calls
/// `vorrel::MainQueue::Dispatch` when `vorrel::MainQueue::Descriptor` is readable. Once a process,
/// and on one thread.
class TakeHost final : public IVorrelDelegate {
public:
    /// Selects the first recorder and starts it.
    /// @return Held by the engine until the process ends, too.
    /// @throws std::runtime_error  Says what is not possible; nothing runs then.
    static std::shared_ptr<TakeHost> Start(Take wish);

    /// Ends the recording and saves it. Without effect when it has ended already.
    void Stop();

    std::uint16_t Channels() const { return channels; }
    std::uint64_t RateHz() const { return rateHz; }

    void Vorrel_NotifyOperationProc(VrRecOperation operation) override;
    void Vorrel_NotifyStreamPosProc(double seconds) override;
    void Vorrel_NotifyConvertPosProc(double seconds) override;
    void Vorrel_NotifyErrorMessageProc(VrMessageKind kind, const std::string& text) override;

private:
    enum class State { Starting, Recording, Stopping, Saving, Done };

    explicit TakeHost(Take wish);
    void Open();
    void Save();
    void JudgeFile();
    void Finish(bool saved, const std::string& text);

    Take take;
    std::filesystem::path staging;         // beside `out`, so that a rename is one step
    std::filesystem::path spillDirectory;  // "" = none was made
    State state = State::Starting;
    std::uint16_t channels = 0;
    std::uint64_t rateHz = 0;
    std::uint64_t frames = 0;
};

}  // namespace example

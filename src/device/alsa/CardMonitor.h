#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace vorrel {

/// What happened to the sound cards.
struct CardEvent {
    enum class Kind {
        Added,
        Removed,
        Lost,  ///< events were lost, or what came of one: anything may have happened to any card
    };
    Kind kind = Kind::Lost;
    std::string systemPath;  ///< of the card in sysfs; empty for `Lost`
};

/// Tells when sound cards come and go. An event may come twice (from the kernel and from the
/// device manager behind it), and it is a hint: who gets one looks at `SoundCards` again. One
/// thread of its own ("CardMonitor"), on which the listener is called, no lock held.
class CardMonitor {
public:
    /// @return False where it could not do what the event asks for: it is called again, with
    /// `Lost`,
    ///         after a pause or with the next event. So it is when it throws.
    using Listener = std::function<bool(const CardEvent&)>;

    /// Begins to listen; events from here on are reported. Where the system offers no events that
    /// is traced, and none come.
    explicit CardMonitor(Listener eventListener);
    /// After it the listener is not called any more. Not from the listener.
    ~CardMonitor();
    CardMonitor(const CardMonitor&) = delete;
    CardMonitor& operator=(const CardMonitor&) = delete;

    /// False where the system offers no events.
    bool IsListening() const;

private:
    struct Sources;

    void Listen();
    /// Takes an event from a source and tells of it.
    /// @param empty  Set where the source has none. @return False where it is to be told again.
    bool Receive(std::size_t source, bool& empty);

    const Listener listener;
    std::unique_ptr<Sources> sources;
    std::thread thread;
};

}  // namespace vorrel

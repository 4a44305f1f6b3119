#pragma once

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
        Lost,  ///< events were lost: anything may have happened to any card
    };
    Kind kind = Kind::Lost;
    std::string systemPath;  ///< of the card in sysfs; empty for `Lost`
};

/// Tells when sound cards come and go. An event may come twice (from the kernel and from the
/// device manager behind it), and it is a hint: who gets one looks at `SoundCards` again. One
/// thread of its own ("CardMonitor"), on which the listener is called, no lock held.
class CardMonitor {
public:
    using Listener = std::function<void(const CardEvent&)>;

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

    const Listener listener;
    std::unique_ptr<Sources> sources;
    std::thread thread;
};

}  // namespace vorrel

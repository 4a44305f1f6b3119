#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace vorrel::cli {

/// Text on its way to a descriptor that may block for ever: a pipe nobody reads, a terminal that
/// Ctrl-S holds. A thread of its own writes it, so that the caller never waits. What is queued is
/// bounded: passing text is dropped early, lasting text late. One caller's thread.
class Output {
public:
    enum class Kind {
        Lasting,  ///< Messages and results: kept while a mebibyte has room for them.
        Passing,  ///< Positions, levels, the moving line: the next one makes up for it.
    };

    /// @param descriptor  Not owned.
    /// @param error       An errno that is known from the start (a closed stream), 0 = none.
    explicit Output(int descriptor, int error = 0);
    /// Gives what is queued a short time to be written.
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    void Write(std::string text, Kind kind);
    /// Whether all of it has been handed over to the system.
    bool Idle() const;
    /// Waits until it has, or nothing more can be written, at most `limit` (none = without limit).
    /// @return Whether everything was written; false also after a failed write.
    bool Flush(std::optional<std::chrono::milliseconds> limit);
    /// The errno of the first failed write, 0 = none. After it, everything is dropped.
    int Error() const;

private:
    struct Shared;

    /// The thread outlives this object when its last write never returns.
    const std::shared_ptr<Shared> shared;
};

}  // namespace vorrel::cli

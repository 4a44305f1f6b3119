#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace vorrel::cli {

/// Brings what the engine stores, and the journal beside it, to the disk while a take runs, so that
/// it outlives the power as well as the program. A thread of its own does it: the engine and the
/// session never wait for the disk because of it, and neither does the end of this object, which a
/// last file may outlive.
class SpillSync {
public:
    /// Of an open file, as `fdatasync`.
    using Sync = std::function<int(int)>;

    /// @param directory  The take's private one.
    /// @param period     Between two looks at what has grown.
    explicit SpillSync(const std::string& directory,
                       std::chrono::milliseconds period = std::chrono::seconds(1),
                       Sync sync = DataSync);
    ~SpillSync();
    SpillSync(const SpillSync&) = delete;
    SpillSync& operator=(const SpillSync&) = delete;

    /// Why something did not come to the disk, in the system's words: the first time, and to the
    /// first who asks. "" = nothing new.
    std::string TakeFailure();

private:
    struct Shared;
    static int DataSync(int descriptor);

    const std::shared_ptr<Shared> shared;
};

}  // namespace vorrel::cli

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vorrel::cli {

/// A directory of an earlier run that was killed.
struct Leftover {
    std::string path;
    std::uint64_t bytes = 0;  ///< Of what the engine has stored in it.
    /// Name of the machine where that run may still live, "" = this one, or unknown.
    std::string elsewhere;
};

/// Where temporary directories are made: `named`, absolute; "" = "vorrel" in the user's cache
/// directory ($XDG_CACHE_HOME, else ~/.cache; made where it is missing), because a disk holds more
/// than a /tmp in memory; where there is none, $TMPDIR or /tmp.
/// @throws Failure (usage): no directory.
std::string TemporaryBase(const std::string& named);

/// Keeps a directory that was left behind from being taken for one by anybody else.
class LeftoverLock {
public:
    /// @throws Failure (storage): it is gone, or somebody uses it.
    explicit LeftoverLock(const std::string& path);
    ~LeftoverLock();
    LeftoverLock(const LeftoverLock&) = delete;
    LeftoverLock& operator=(const LeftoverLock&) = delete;

    /// Deletes the take's files in it, and nothing else. The directory itself stays.
    /// @return Names of what stays.
    /// @throws Failure (storage): it cannot be looked at.
    std::vector<std::string> DeleteTake() const;

private:
    int descriptor;
};

/// A fresh directory that only this process uses, removed with the engine's files and the journal;
/// what else is put there keeps it, and stays. The engine clears its directory of other people's
/// leftovers, so it must never be given a shared one. It is locked for the life of the process, so
/// that another run can tell it from one left behind.
class PrivateDirectory {
public:
    /// @param base  As `TemporaryBase` gave it.
    /// @throws Failure: usage (it takes no directory), storage (it is full, or descriptors are).
    explicit PrivateDirectory(const std::string& base);
    ~PrivateDirectory() { Remove(); }
    PrivateDirectory(const PrivateDirectory&) = delete;
    PrivateDirectory& operator=(const PrivateDirectory&) = delete;

    const std::string& Path() const { return path; }
    void Remove() noexcept;
    /// Leaves it, with what is in it, to the user. `Path` stays.
    void Keep() noexcept { kept = true; }

    /// Directories in `base` whose process is gone: called and owned as ours, and holding nothing
    /// but files of a take; with anything else in them only if a journal of ours is there, too. By
    /// path. Nothing is changed.
    static std::vector<Leftover> FindLeftovers(const std::string& base);
    /// Paths of those that a program uses: one that still records, or salvages.
    static std::vector<std::string> FindUsed(const std::string& base);

private:
    std::string path;
    int lock = -1;
    bool kept = false;
};

}  // namespace vorrel::cli

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace vorrel::cli {

/// The absolute path of a file to be written, links in it followed, so that two spellings of one
/// file are equal.
/// @throws Failure (usage): empty, a directory's name, a directory on the way that is missing, a
///         relative name where the current directory has been deleted.
std::string ResolveTarget(const std::string& path);

/// A file on its way: the engine writes it under a name of its own beside the target, and only a
/// complete one takes the target's name. What is not committed is deleted.
class OutputFile {
public:
    /// @param target  As `ResolveTarget` gave it.
    /// @param force   Whether an existing file may be replaced.
    OutputFile(std::string target, bool force);
    ~OutputFile();
    OutputFile(OutputFile&& other) noexcept;
    OutputFile& operator=(OutputFile&&) = delete;
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// Finds out now what would fail after the recording: a target that exists (without `force`)
    /// or is no regular file, a directory that takes no file. Leaves nothing behind.
    /// @throws Failure (usage; storage when the volume is full), naming the path and the reason.
    void Check() const;

    const std::string& Target() const { return target; }
    /// What the engine is to write: ".NAME.partial-PID" in the target's directory, or a free name
    /// after that one.
    const std::string& StagingPath() const { return staging; }

    /// Bytes of the staged file; 0 where there is none.
    double StagedBytes() const;
    /// Puts an empty file beside the staged one until the end of this object, so that the directory
    /// does not become empty. @return Whether that worked.
    bool GuardDirectory();
    /// Deletes what is not committed, now. Nothing else may be asked of this object any more.
    void Discard() noexcept;

    /// Brings the staged file safely to the disk and gives it the target's name. When somebody has
    /// made a file of that name meanwhile (and without `force`), or the old one cannot be replaced,
    /// it takes the next free name, so that a recording is never lost to a name.
    /// @return The name that it has now.
    /// @throws Failure (storage): it could not be brought to the disk; or it has no name but its
    ///         own, which it then keeps (`IsKept`).
    std::string Commit();
    /// Whether a complete file stays under the staging name.
    bool IsKept() const { return keepStaged; }

private:
    std::string target;
    std::string staging;
    bool force = false;
    bool keepStaged = false;  // a complete file that could not be renamed
    std::string guard;        // "" = none
};

/// Whether a file that belongs to `fileOwner`, in a directory of this mode and owner, can be
/// replaced by `user` (0 = anybody's).
bool MayReplace(unsigned directoryMode, unsigned directoryOwner, unsigned fileOwner, unsigned user);

/// Volume and number: the same for all names that lead to one file (links, a directory that is
/// mounted twice, spellings of a volume that takes upper for lower case).
using FileIdentity = std::pair<std::uint64_t, std::uint64_t>;

/// Which file stands at `path`; none where there is none.
std::optional<FileIdentity> IdentityOf(const std::string& path);

/// `path`, or the first of its `PartPath`s at which there is nothing.
std::string FreeName(const std::string& path);

/// What stands in the header of a file, as far as it tells whether the file is complete.
struct FileSummary {
    bool complete = false;  ///< A header of its kind, and as many bytes as it announces.
    std::uint64_t bytes = 0;
    std::uint64_t frames = 0;
};

/// A missing or foreign file gives an incomplete summary.
FileSummary SummarizeWav(const std::string& path);

/// The same of a DSF file: all its sizes must agree, the samples be padded to whole blocks of every
/// channel, and a tag stand where it is announced.
FileSummary SummarizeDsf(const std::string& path);

}  // namespace vorrel::cli

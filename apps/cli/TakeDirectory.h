#pragma once

#include <dirent.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vorrel::cli {

/// The file of a take's directory in which the program writes down what the engine's files do not
/// say.
inline constexpr const char* kJournalName = "journal.jsonl";

/// Whether a name is one that the engine gives its files: "tmp" and six letters or digits.
bool IsSpillName(std::string_view name);
/// Whether a name is one that a take's directory has: "vorrel-" and six letters or digits. It is no
/// proof: anybody may call a directory so.
bool IsTakeName(std::string_view name);

/// What is in a take's directory.
struct TakeContents {
    std::vector<std::string> ours;     ///< The journal, and files that the engine names so.
    std::vector<std::string> foreign;  ///< Everything else: links and directories, too.
    bool hasJournal = false;
    std::uint64_t spillBytes = 0;
};

/// A take's directory that is open: whatever its path becomes meanwhile, what is looked at and
/// deleted is in here.
class TakeDirectory {
public:
    /// @param descriptor  Of a directory; closed with this object. -1 = one that holds nothing.
    explicit TakeDirectory(int descriptor) noexcept;
    ~TakeDirectory();
    TakeDirectory(const TakeDirectory&) = delete;
    TakeDirectory& operator=(const TakeDirectory&) = delete;

    /// Regular files of our naming, and the rest. Changes nothing.
    TakeContents Look();
    /// Deletes what `Look` calls ours, the journal last, and nothing else: follows no link, enters
    /// no directory.
    /// @return Names of what stays: what is not ours, and what cannot be deleted.
    std::vector<std::string> DeleteOurs();

private:
    DIR* directory;
};

}  // namespace vorrel::cli

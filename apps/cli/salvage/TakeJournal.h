#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "SavePlan.h"
#include "TakeDirectory.h"
#include "salvage/Machine.h"

namespace vorrel::cli {

/// What a take's directory says of it besides the samples: enough to make a file of what the engine
/// has stored when the program could not.
struct TakeRecord {
    std::time_t started = 0;
    std::string device;
    TakeFormat format;
    std::string out;  ///< Where it was to be saved, "" = only ranges of it.
    double gain = 0.0;
    std::map<std::string, std::string> tags;
    std::uint64_t startFrame = 0;      ///< Where the take begins in what is stored.
    std::vector<std::uint64_t> marks;  ///< Frames from there.
    std::vector<std::string> spills;   ///< Names of the engine's files, as they were made.
    bool guessed = false;              ///< The order of some is by the clock alone.
    std::string state;                 ///< The last that was entered.
    /// Files that were being written, by the process of this machine that did: absolute paths under
    /// their names of the meantime.
    std::map<long, std::string> writing;
    std::set<long> ended;  ///< Those of them that a new start of the machine has ended.
    Machine machine;       ///< On which it was recorded.
};

/// When a file was made, in nanoseconds (the last change where the volume does not know), and its
/// number, which mostly grows: clocks of file systems have steps in which several files are made.
using FileAge = std::pair<std::int64_t, std::uint64_t>;
FileAge AgeOf(const std::string& path);

/// The journal of a take that runs: a file beside the spill files, a JSON object a line, each
/// written at once, so that a killed process has left all of it; what brings it to the disk is
/// `SpillSync`, so that nobody waits for that here. What a full disk does not take is
/// written as soon as there is room, and half a line is none. It also sees the engine's files
/// come and go. One thread.
class TakeJournal {
public:
    /// @param directory  The take's private one. A journal that cannot be kept is no reason not to
    ///                   record: nothing is written then.
    explicit TakeJournal(const std::string& directory);
    ~TakeJournal();
    TakeJournal(const TakeJournal&) = delete;
    TakeJournal& operator=(const TakeJournal&) = delete;

    /// Once, before the recording runs.
    void Begin(const TakeRecord& record);
    void State(const std::string& name, double seconds);
    /// The take begins at this frame of what is stored.
    void Start(std::uint64_t frame);
    void Mark(std::uint64_t frame);
    /// What is stored from now on is another recording: what was before is gone.
    void Restart();
    void Saved(const std::string& file);
    /// A file is being written under a name of its own, in any bytes; the one before it is not any
    /// more.
    void Writing(const std::string& path);
    /// The file has the name that it was to have, or is told to the user: nobody's to delete.
    void Written();

    /// The same of this process, which saves a take that another has left.
    static void NoteWriting(const std::string& directory, const std::string& path);
    static void NoteWritten(const std::string& directory);

    /// Readable when the engine has made or deleted a file; -1 where that cannot be told.
    int Descriptor() const { return watch; }
    /// Writes down what it has made or deleted. Where the kernel does not tell, it is looked for:
    /// to be called now and then.
    void Look();

    /// Whatever stands in the file, what comes back can be calculated with: each name in `spills`
    /// is one of the engine's and there once.
    /// @return None where there is no journal, or none of a format that this program knows; a link
    ///         is none.
    static std::optional<TakeRecord> Read(const std::string& directory);

    static constexpr const char* kName = kJournalName;

private:
    void Write(const std::string& line);
    void LookAtNames();

    const std::string place;
    std::set<std::string> seen;  // names, where the kernel tells of none
    std::string unwritten;       // whole lines that the disk has not taken
    bool torn = false;           // the file ends with half a line
    int file = -1;
    int watch = -1;
};

}  // namespace vorrel::cli

#pragma once

#include <string>
#include <vector>

namespace vorrel::cli {

/// What standard error was when the program began: where people read. Kept open; asked for before
/// the first `EngineTrace` is made.
int PeoplesDescriptor();

/// What the engine says on standard error, and nowhere else: why it has no recorder, that the
/// recorder's stream has a gap. While this lives, such lines come here, and a reader of standard
/// error that does not read can hold none of the engine's threads up. What nobody has taken goes to
/// people in the end, at an abort too. Without descriptors all stays as it is. One at a time; main
/// thread.
class EngineTrace {
public:
    EngineTrace();
    ~EngineTrace();
    EngineTrace(const EngineTrace&) = delete;
    EngineTrace& operator=(const EngineTrace&) = delete;

    /// Readable when `Take` has something; -1 when nothing comes here.
    int Descriptor() const { return source; }
    /// Whole lines that came since the last call, without their ends.
    std::vector<std::string> Take();

    /// Lines as one sentence, without the places in the source.
    static std::string Sentence(const std::vector<std::string>& lines);
    /// Whether a line tells that the recorder has lost sound.
    static bool TellsOfGap(const std::string& line);

private:
    int source = -1;
    std::string rest;  // of a line whose end has not come yet
};

}  // namespace vorrel::cli

#pragma once

#include <string>
#include <vector>

#include "salvage/TakeJournal.h"

namespace vorrel::cli {

/// Whether a name is one that `OutputFile` gives a file that this process writes:
/// ".NAME.partial-PID", or a free name after that one.
bool IsStagingName(const std::string& name, long process);

/// The half-written files that a take's journal names and that are there: regular, this user's, of
/// such a name, and of a process that has died. Their paths.
std::vector<std::string> FindHalfWritten(const TakeRecord& record);

/// Any bytes of a path as printable ASCII, "%" and two digits of base 16 for the others: a name is
/// bytes, and a text in JSON is not.
std::string EncodePath(const std::string& path);
/// @return "" when the text is none that `EncodePath` makes, or no absolute path.
std::string DecodePath(const std::string& text);

}  // namespace vorrel::cli

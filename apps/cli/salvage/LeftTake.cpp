#include "salvage/LeftTake.h"

#include <algorithm>
#include <exception>
#include <filesystem>

#include "salvage/HalfWritten.h"
#include "salvage/SpillFiles.h"

namespace vorrel::cli {

double LeftTake::Seconds() const {
    return record ? static_cast<double>(frames) / static_cast<double>(record->format.rateHz) : 0.0;
}

LeftTake ReadLeftTake(const Leftover& leftover) {
    const std::string& directory = leftover.path;
    LeftTake take;
    take.directory = directory;
    take.name = std::filesystem::path(directory).filename().string();
    take.bytes = leftover.bytes;
    take.elsewhere = leftover.elsewhere;
    try {
        take.record = TakeJournal::Read(directory);
        if (take.record) {
            const std::uint64_t stored = SpillFiles(directory, *take.record).Frames();
            take.frames = stored - std::min(stored, take.record->startFrame);
            take.halfWritten = FindHalfWritten(*take.record);
        }
    } catch (const std::exception&) {
        take.record.reset();  // a damaged one costs only its own line
    }
    return take;
}

std::vector<LeftTake> FindLeftTakes(const std::string& base) {
    std::vector<LeftTake> takes;
    for (const Leftover& leftover : PrivateDirectory::FindLeftovers(base)) {
        takes.push_back(ReadLeftTake(leftover));
    }
    return takes;
}

}  // namespace vorrel::cli

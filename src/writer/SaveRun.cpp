#include "writer/SaveRun.h"

#include <cmath>
#include <limits>

namespace vorrel {

bool SaveRun::CancelRequested() const {
    return cancelState.load() != kSaveCancelNone;
}

bool SaveRun::RecordingHolds() const {
    return recordData.GetLayout().generation == recording.generation;
}

void SaveRun::BeginFile() {
    progress.filePosition = 0;
    progress.fileLength = 0;
    fileIsOurs = false;
}

void SaveRun::Advance(std::uint64_t frames) {
    progress.overallPosition += frames;
    progress.filePosition += frames;
}

void SaveRun::BeginBlock(std::uint64_t filePosition, std::uint64_t frames) {
    progress.filePosition = filePosition;
    progress.overallPosition += frames;
}

void SaveRun::SkipFile(const std::string& path, std::uint64_t frames) {
    manager.NotifyErrorMessageProc(VrMessageFileSkipped, path.c_str());
    progress.overallPosition += frames;
}

std::uint64_t FramesFromSeconds(std::uint64_t rateHz, double seconds) {
    constexpr double kTwoTo64 = 18446744073709551616.0;
    const double frames = static_cast<double>(rateHz) * seconds;
    if (!(frames > 0.0)) {  // so written, it takes not-a-number along
        return 0;
    }
    if (frames >= kTwoTo64) {
        return std::numeric_limits<std::uint64_t>::max();
    }
    return static_cast<std::uint64_t>(frames);
}

float SinglePrecisionGain(double decibels) {
    if (std::abs(decibels) > static_cast<double>(std::numeric_limits<float>::max())) {
        return static_cast<float>(std::copysign(HUGE_VAL, decibels));
    }
    return static_cast<float>(decibels);
}

}  // namespace vorrel

#include "doctor/StorageCheck.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <stdlib.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <optional>
#include <vector>

#include "PrivateDirectory.h"
#include "TimeRange.h"
#include "Volumes.h"

namespace vorrel::cli {
namespace {

using Clock = std::chrono::steady_clock;

constexpr double kTrialBytes = 256.0 * (1 << 20);
constexpr std::size_t kPieceBytes = 4 << 20;
constexpr std::chrono::milliseconds kTrialTime(1'000);
// Stereo at the highest rate: samples and preview, a second.
constexpr double kHighestBytes = 2 * 384'000 * (4.0 + 2.0);
// Stereo at 96 kHz, likewise.
constexpr double kCommonBytes = 2 * 96'000 * (4.0 + 2.0);
// A disk is shared with the saving of the take before, and with others.
constexpr double kSafety = 4;
constexpr double kLeastSeconds = 3'600;

struct Trial {
    double bytesPerSecond = 0;
    std::string failure;  // "" = it went well
};

/// Writes to a file that has no name any more, so that nothing stays.
Trial TryWriting(const std::string& directory, double freeBytes) {
    std::string path = directory + "/vorrel-trial-XXXXXX";
    const int file = ::mkostemp(path.data(), O_CLOEXEC);
    if (file < 0) {
        return {0, std::strerror(errno)};
    }
    ::unlink(path.c_str());
    const std::vector<char> piece(kPieceBytes, 'v');
    const double wanted = std::clamp(freeBytes / 10, 0.0, kTrialBytes);
    double written = 0;
    std::string failure;
    const Clock::time_point start = Clock::now();
    while (written < wanted && Clock::now() - start < kTrialTime) {
        const ssize_t result = ::write(file, piece.data(), piece.size());
        if (result < 0 && errno == EINTR) {
            continue;
        }
        if (result <= 0) {
            failure = std::strerror(errno);
            break;
        }
        written += static_cast<double>(result);
        // Piece by piece, so that a slow disk is waited for no longer than the trial is to last.
        if (::fdatasync(file) != 0) {
            failure = std::strerror(errno);
            break;
        }
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    ::close(file);
    return {written / std::max(seconds, 1e-6), failure};
}

bool IsInMemory(const std::string& directory) {
    struct statfs volume {};
    return ::statfs(directory.c_str(), &volume) == 0 &&
           (volume.f_type == TMPFS_MAGIC || volume.f_type == RAMFS_MAGIC);
}

void CheckRoom(const std::string& directory, double freeBytes, Findings& findings) {
    const double seconds = freeBytes / kCommonBytes;
    const bool enough = seconds >= kLeastSeconds;
    findings.push_back(
        {"storage", enough ? Verdict::Good : Verdict::Problem,
         directory + " has room for " + ClockText(std::floor(seconds)) + " of stereo at 96 kHz",
         enough ? "" : "make room, or name another place with --temp-dir"});
    if (IsInMemory(directory)) {
        findings.push_back({"storage", Verdict::Note,
                            directory + " is kept in memory: a long recording fills it",
                            "name a place on a disk with --temp-dir, or in TMPDIR"});
    }
}

void CheckSpeed(const std::string& directory, double freeBytes, Findings& findings) {
    const Trial trial = TryWriting(directory, freeBytes);
    if (!trial.failure.empty()) {
        findings.push_back({"storage", Verdict::Problem,
                            "nothing can be written to " + directory + ": " + trial.failure,
                            "name another place with --temp-dir, or in TMPDIR"});
        return;
    }
    if (trial.bytesPerSecond == 0) {
        return;  // without room there is no speed
    }
    findings.push_back(JudgeSpeed(trial.bytesPerSecond));
}

}  // namespace

Finding JudgeSpeed(double bytesPerSecond) {
    const std::string speed = std::to_string(std::llround(bytesPerSecond / 1e6)) + " MB/s";
    if (bytesPerSecond >= kSafety * kHighestBytes) {
        return {"storage", Verdict::Good, "it takes " + speed + ", enough for stereo at every rate",
                ""};
    }
    const bool usable = bytesPerSecond >= kSafety * kCommonBytes;
    return {"storage", usable ? Verdict::Note : Verdict::Problem,
            "it takes only " + speed +
                (usable ? ": too slow to be safe at the highest rates" : ": too slow to be safe"),
            "name a faster place with --temp-dir, or in TMPDIR"};
}

Findings CheckStorage(const std::string& directory) {
    Findings findings;
    const std::optional<double> freeBytes = FreeBytes(directory);
    if (!freeBytes) {
        findings.push_back({"storage", Verdict::Problem,
                            "the room in " + directory + " cannot be told",
                            "name another place with --temp-dir, or in TMPDIR"});
        return findings;
    }
    CheckRoom(directory, *freeBytes, findings);
    CheckSpeed(directory, *freeBytes, findings);
    for (const Leftover& leftover : PrivateDirectory::FindLeftovers(directory)) {
        if (!leftover.elsewhere.empty()) {
            continue;  // it may well be alive there
        }
        findings.push_back(
            {"storage", Verdict::Note,
             "a run that was killed has left " + SizeText(leftover.bytes) + " in " + leftover.path,
             "\"vorrel salvage\" lists, saves or removes it"});
    }
    return findings;
}

}  // namespace vorrel::cli

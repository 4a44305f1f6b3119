// What is looked at while a recording runs.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>

#include "EngineTrace.h"
#include "RecordSession.h"
#include "Volumes.h"
#include "vorrel/Vorrel.h"

namespace vorrel::cli {
namespace {

constexpr std::uint64_t kMeterShare = 10;  // a meter looks at the newest tenth of a second
constexpr int kLooksAColumn = 2;           // of the scrolling waveform
constexpr std::size_t kMostColumns = 400;

// One word for all gaps in so much of the recording.
constexpr double kGapSeconds = 1.0;

// The engine's memory holds five seconds of every channel before it spills them at once.
constexpr double kSpillStepSeconds = 6.0;
// What a target may still have to take after the look that found it full.
constexpr double kTargetReserveSeconds = 2.0;
constexpr double kReserveLooks = 4.0;
constexpr double kTargetReserveBytes = 64.0 * 1024.0;  // a few blocks of the file system
constexpr double kNoLimit = std::numeric_limits<double>::max();

}  // namespace

std::uint64_t RecordSession::RecordedFrames() const {
    std::uint64_t previewFrames = 0;
    if (Vorrel_GetPreviewDataLength(&previewFrames) != VrSuccess) {
        previewFrames = 0;
    }
    return SavableFrames(format, previewFrames, position, stretches);
}

/// Of what counts as recorded, as far as its preview is there: the newest moment to speak of.
std::uint64_t RecordSession::StoredFrames() const {
    std::uint64_t previewFrames = 0;
    if (Vorrel_GetPreviewDataLength(&previewFrames) != VrSuccess) {
        previewFrames = 0;
    }
    // The preview is behind while storing is: then the position, of whole tenths, is further on.
    return std::max(previewFrames * (format.dsd ? TakeFormat::kDsdFramesPerPreview : 1),
                    FrameAt(position, format));
}

double RecordSession::TakePosition() const {
    return std::max(position - static_cast<double>(takeStart) / static_cast<double>(format.rateHz),
                    0.0);
}

std::vector<RecordSession::Volume> RecordSession::MeasureVolumes() const {
    std::vector<Volume> volumes;
    std::vector<std::optional<dev_t>> known;
    const auto volumeOf = [&](const std::string& directory) -> VolumeState& {
        const std::optional<dev_t> number = VolumeOf(directory);
        const auto found = std::find(known.begin(), known.end(), number);
        if (found != known.end()) {
            return volumes[static_cast<std::size_t>(found - known.begin())].state;
        }
        known.push_back(number);
        Volume volume;
        volume.directory = directory;
        volume.state.free = FreeBytes(directory).value_or(kNoLimit);
        return volumes.emplace_back(std::move(volume)).state;
    };
    const double ahead = kReserveLooks * growthPerLook;

    VolumeState& spill = volumeOf(spillDirectory->Path());
    spill.rate = format.SpillRate();
    spill.reserve = std::max(kSpillStepSeconds, ahead) * format.SpillRate();
    const auto recorded = static_cast<std::uint64_t>(
        std::llround(TakePosition() * static_cast<double>(format.rateHz)));
    const double extra =
        static_cast<double>(FileBytes(format, 0, TagBytesBound(record.tags))) + kTargetReserveBytes;
    for (const WantedFile& wish : wanted) {
        VolumeState& target = volumeOf(DirectoryOf(wish.path));
        target.reserve += extra;
        if (!taken && IsArming()) {
            continue;  // nothing goes there yet
        }
        const std::uint64_t end = std::min(recorded, wish.end.value_or(recorded));
        if (end > wish.start) {
            target.needed += static_cast<double>(format.PayloadBytes(end - wish.start));
        }
        if (recorded >= wish.start && (!wish.end || recorded < *wish.end)) {
            target.rate += format.FileRate();
            target.reserve += std::max(kTargetReserveSeconds, ahead) * format.FileRate();
        }
    }
    ShareRoom(volumes);
    return volumes;
}

/// What goes to one volume is missing on those that have its room as well.
void RecordSession::ShareRoom(std::vector<Volume>& volumes) {
    if (volumes.size() < 2) {
        return;
    }
    const MountTable mounts;
    for (Volume& volume : volumes) {
        const std::optional<Place> place = PlaceOf(volume.directory);
        volume.pool = place ? mounts.PoolOf(*place) : "";
    }
    for (Volume& volume : volumes) {
        std::vector<VolumeState> sharing;
        for (const Volume& other : volumes) {
            if (!volume.pool.empty() && other.pool == volume.pool) {
                sharing.push_back(other.state);
            }
        }
        if (sharing.size() > 1) {
            volume.room = Together(sharing);
        }
    }
}

double RecordSession::Volume::SecondsLeft() const {
    return cli::SecondsLeft(room ? std::vector<VolumeState>{state, *room}
                                 : std::vector<VolumeState>{state});
}

/// While it can still be put back.
void RecordSession::WarnOfLostPlaces() {
    for (const auto& [directory, place] : targetPlaces) {
        const bool lost = !IsSamePlace(place, PlaceOf(directory).value_or(Place{}));
        if (lost && lostPlaces.insert(directory).second) {
            reporter.Warning("the volume of " + directory +
                             " is gone, or another has come over it; it is looked for again when "
                             "the recording is saved");
        }
        if (!lost) {
            lostPlaces.erase(directory);
        }
    }
}

RecordSession::Room RecordSession::MeasureRoom() const {
    Room room;
    room.seconds = room.saveSeconds = std::numeric_limits<double>::infinity();
    const std::vector<Volume> volumes = MeasureVolumes();
    for (const Volume& volume : volumes) {
        const double left = volume.SecondsLeft();
        if (left < room.seconds || room.fullest.empty()) {
            room.seconds = left;
            room.fullest = volume.directory;
        }
    }
    room.takeSeconds = volumes.front().SecondsLeft();
    for (const WantedFile& wish : wanted) {
        const std::string directory = DirectoryOf(wish.path);
        const std::optional<dev_t> number = VolumeOf(directory);
        const auto found = std::find_if(volumes.begin(), volumes.end(), [&](const Volume& volume) {
            return VolumeOf(volume.directory) == number;
        });
        if (found != volumes.end()) {
            room.saveSeconds = std::min(room.saveSeconds, found->SecondsLeft());
        }
    }
    return room;
}

std::string RecordSession::WhyNotStored() const {
    const double block = format.SpillRate() * kSpillStepSeconds;
    std::string reason = WhyNotWritten(spillDirectory->Path() + "/", block, block);
    if (reason.empty() && LargestFile(spillDirectory->Path()) < kNoLimit) {
        reason = std::strerror(EFBIG);
    }
    return reason.empty() ? "" : ": " + reason;
}

void RecordSession::MeasureLevels() {
    std::uint64_t length = 0;
    if (Vorrel_GetRecordingPreviewDataLength(&length) != VrSuccess || length == previewSeen) {
        return;
    }
    previewSeen = length;
    const std::uint64_t frames = std::min(length, format.PreviewRateHz() / kMeterShare);
    std::vector<std::int16_t> samples(static_cast<std::size_t>(frames * format.channels));
    if (frames == 0 ||
        Vorrel_GetRecordingPreviewData(length - frames, length, samples.data()) != VrSuccess) {
        return;
    }
    const std::vector<Level> levels = cli::MeasureLevels(samples, format.channels);
    for (const Level& level : levels) {
        waveMost = std::max(waveMost, std::pow(10.0, level.peakDbfs / 20.0));
    }
    status.levels = clips.Hold(levels, Clock::now());
    if (++waveLooks == kLooksAColumn) {
        status.wave.push_back(waveMost);
        if (status.wave.size() > kMostColumns) {
            status.wave.pop_front();
        }
        waveMost = 0.0;
        waveLooks = 0;
    }
}

/// A line of the engine's is no reason to end anything.
void RecordSession::LookAtTrace() {
    for (const std::string& line : trace->Take()) {
        reporter.Trace(line);
        if (!EngineTrace::TellsOfGap(line)) {
            continue;
        }
        if (taken && lastGap && position - *lastGap < kGapSeconds) {
            continue;
        }
        lastGap = position;
        // What a pause leaves out may have gaps; what came while armed is looked at when it begins.
        if (taken && state != State::Paused) {
            TellGap(position);
        }
    }
}

/// @param engineSeconds  Where the gap is, about; a pre-roll counts.
void RecordSession::TellGap(double engineSeconds) {
    const double seconds = std::max(engineSeconds - SecondsOfFrame(takeStart, format.rateHz), 0.0);
    buffersLost = status.lostBuffers = true;
    reporter.Lost(seconds);
    reporter.Warning("sound is missing near " + ClockText(seconds) +
                     ": the recorder was not read in time, or stopped by itself");
}

void RecordSession::ShowStatus() {
    status.position = TakePosition();
    status.state = StateName(state);
    status.keys = state == State::Armed || state == State::Waiting ? "r record   q quit"
                  : state == State::Recording ? "space pause   m mark   q stop and save"
                  : state == State::Paused    ? "space resume   m mark   q stop and save"
                                              : "";
    status.marks = tracks->Count();
    if (state == State::Saving && !queue.empty()) {
        std::int32_t file = 0;
        std::int32_t total = 0;
        // Straight after a request the figures are still those of the one before it; its thousand
        // would be a lie, and our own is told when the file has its name.
        if (Vorrel_SaveFileProgress(&file, &total) == VrSuccess && file < 1000) {
            const PlannedFile& front = queue.front();
            reporter.Progress(front.path, file / 10.0);
            const double done = static_cast<double>(framesSaved) +
                                file / 1000.0 * static_cast<double>(front.end - front.start);
            status.savePercent = 100.0 * done / static_cast<double>(framesToSave);
        }
    }
    reporter.Status(status);
}

}  // namespace vorrel::cli

// The picture of the recording.
#include <algorithm>
#include <vector>

#include "OptionValues.h"
#include "RecordSession.h"
#include "Volumes.h"
#include "WaveformPicture.h"
#include "vorrel/Vorrel.h"

namespace vorrel::cli {
namespace {

constexpr std::uint64_t kPictureBlock = 65'536;  // preview frames read at once

}  // namespace

/// Preview frames [first, end) folded into columns; none after a second signal.
std::optional<PeakSummary> RecordSession::SummarizeTake(std::uint64_t first, std::uint64_t end) {
    PeakSummary peaks(end - first, kPictureColumns, format.channels);
    std::vector<std::int16_t> samples;
    for (std::uint64_t frame = first; frame < end;) {
        const std::uint64_t count = std::min(kPictureBlock, end - frame);
        samples.resize(static_cast<std::size_t>(count * format.channels));
        if (Vorrel_GetPreviewData(frame, frame + count, samples.data()) != VrSuccess) {
            throw Failure(ExitCode::Storage,
                          record.waveform + ": the preview can no longer be read");
        }
        peaks.Add(samples);
        frame += count;
        for (const SignalCame& came : signals.Take()) {
            HandleSignal(came);
        }
        if (pictureUnwanted) {
            return std::nullopt;
        }
    }
    return peaks;
}

/// What the engine has of the take, as its preview tells it.
void RecordSession::DrawPicture() {
    const std::uint64_t perFrame = format.dsd ? TakeFormat::kDsdFramesPerPreview : 1;
    const std::uint64_t first = takeStart / perFrame;
    std::uint64_t end = 0;
    if (Vorrel_GetPreviewDataLength(&end) != VrSuccess || end <= first) {
        reporter.Skipped(record.waveform, "nothing was recorded");
        filesSkipped = true;
        return;
    }
    if (stopAfter) {
        end = std::min(end, first + *stopAfter / perFrame);
    }
    const std::optional<PeakSummary> peaks = SummarizeTake(first, end);
    if (!peaks) {
        reporter.Skipped(record.waveform, "left out by a second signal; the files are saved");
        filesSkipped = true;
        return;
    }
    const auto rate = static_cast<double>(format.PreviewRateHz());
    PictureTexts texts;
    texts.seconds = static_cast<double>(end - first) / rate;
    texts.title = pictureTitle;
    if (!IsUtf8(texts.title)) {
        // A name is any bytes, a text is not.
        std::replace_if(
            texts.title.begin(), texts.title.end(), [](char c) { return (c & 0x80) != 0; }, '?');
    }
    texts.title += "   " + ClockText(texts.seconds);
    for (const std::uint64_t start : trackStarts) {
        texts.marks.push_back(static_cast<double>(start) / static_cast<double>(format.rateHz));
    }
    const bool elsewhere = LeadsElsewhere(DirectoryOf(picturePath));
    const std::string target = elsewhere ? FreeName(picturePath) : FreshName(picturePath);
    OutputFile file(target, record.force && !elsewhere && target == picturePath);
    journal->Writing(file.StagingPath());
    try {
        DrawWaveform(*peaks, texts, file.StagingPath(),
                     EndingOf(target) == ".svg" ? PictureKind::Svg : PictureKind::Png);
    } catch (const Failure& failure) {
        const std::string reason = WhyNotWritten(target, 0.0, 0.0);
        throw Failure(ExitCode::Storage, target + " could not be drawn: " +
                                             (reason.empty() ? failure.what() : reason));
    }
    journal->Written();
    const std::string name = file.Commit();
    reporter.Drawn(name);
    FailIfElsewhere(name);
    if (name != target) {
        throw Failure(ExitCode::Storage,
                      target + " is another file by now; the picture is " + name);
    }
}

}  // namespace vorrel::cli

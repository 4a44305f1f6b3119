#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "manager/IVorrelManager.h"
#include "store/RecordData.h"
#include "writer/SaveChecks.h"

namespace vorrel {

/// What a host asked of the running save. The first request wins.
enum SaveCancelState : std::int32_t {
    kSaveCancelNone = 0,
    kSaveCancelDelete = 1,  ///< Stop and delete the partial file.
    kSaveCancelKeep = 2,    ///< Stop and keep it.
};

/// Frames of one save request: advanced by the save thread, read by the host's.
struct SaveProgress {
    std::atomic<std::uint64_t> overallPosition{0};  ///< Of all files; skipped ones count whole.
    std::atomic<std::uint64_t> overallLength{0};    ///< As asked for, not clipped to the recording.
    std::atomic<std::uint64_t> filePosition{0};
    std::atomic<std::uint64_t> fileLength{0};
};

/// One running save request as its file writers see it. Lives on the save thread.
struct SaveRun {
    IVorrelManager& manager;
    RecordData& recordData;
    const std::atomic<std::uint16_t>& bits;        ///< Bits per sample of PCM files.
    const std::atomic<std::int32_t>& cancelState;  ///< A `SaveCancelState`.
    SaveProgress& progress;
    std::string createdDirectory;  ///< The last one made for this request, with its "/"; or empty.
    /// The recording that the request is for.
    RecordLayout recording = recordData.GetLayout();

    /// Whether the volume of `path` takes a file of `bytes` bytes; a test may put another in.
    bool (*volumeTakes)(const std::string& path,
                        std::uint64_t bytes) = &CheckFileSystemFileSizeLimit;

    bool fileIsOurs = false;  ///< The current file has been opened; before that, a file of its name
                              ///< is somebody else's.

    /// False once another recording has begun, or this one has been discarded: what is read is not
    /// of the take that was to be saved, and may be of another form.
    bool RecordingHolds() const;

    bool CancelRequested() const;
    /// Sets position and length of the current file to 0.
    void BeginFile();
    /// Counts `frames` of the current file as written.
    void Advance(std::uint64_t frames);
    /// Says that the block at `filePosition` of the current file is in hand, and counts its
    /// `frames` in the request, but not in the file.
    void BeginBlock(std::uint64_t filePosition, std::uint64_t frames);
    /// Reports that the file at `path` is left out, and counts its `frames` as done.
    void SkipFile(const std::string& path, std::uint64_t frames);
};

/// The whole frames in `seconds`. Negative seconds and not-a-number count as 0; a product past
/// 2^64 - 1 counts as 2^64 - 1.
std::uint64_t FramesFromSeconds(std::uint64_t rateHz, double seconds);

/// A gain in decibels as the file writers take it. What single precision cannot hold counts as
/// infinite.
float SinglePrecisionGain(double decibels);

}  // namespace vorrel

#pragma once

#include <atomic>
#include <cstdint>

#include "manager/IVorrelManager.h"
#include "pipeline/ThreadBase.h"
#include "store/PreviewData.h"
#include "store/RecordData.h"
#include "writer/SaveRun.h"
#include "writer/VrSaveSettingInternal.h"

namespace vorrel {

/// The save worker: writes one save request, a list of files, on a thread of its own; WAV for a
/// PCM recording, DSF for a DSD one. Used again for every request.
///
/// Every accepted request ends with exactly one `NotifyOperationProc(VrRecOperationSaveFinished)`,
/// whether it succeeded, failed, was cancelled or had nothing to write; the next may be started
/// from within it. After a failure, `NotifyErrorMessageProc` follows: `VrMessageSaveFailed` with
/// the path of the failed file, or `VrMessageTempDirectoryMissing` without a text. A failed file
/// stays on the disk as far as it was written, and the files before it; the files after it are not
/// written. A directory that the request made is removed again if it is empty.
///
/// A request is for the recording of the moment in which it comes: when the next one begins or the
/// data are discarded meanwhile, the file being written fails.
///
/// Unless it is said otherwise, the operations are for the owner's thread and do not block.
class SaveThread final : public ThreadBase {
public:
    explicit SaveThread(IVorrelManager& manager);
    /// Waits until the request is written to its end or, after `SaveCancel`, given up.
    ~SaveThread() override;
    SaveThread(const SaveThread&) = delete;
    SaveThread& operator=(const SaveThread&) = delete;

    /// `Start` without preview data.
    VrError SaveFiles(SaveList list, RecordData& recordData);
    /// Begins a request.
    /// @param list         Null or empty: a request with nothing to write. A share of it is held
    ///                     until the end.
    /// @param recordData   Null: nothing to write. Outlives the request.
    /// @param previewData  For `SavePreviewFile` only; may be null. Outlives its use.
    /// @return `VrErrorFailed` (a save is running, which goes on; or no thread could be made).
    VrError Start(SaveList list, RecordData* recordData, PreviewData* previewData);
    /// Asks the running save to stop before its next block. The first request of a save wins.
    /// @param deleteFile  The partial file is deleted, and its directory if that is then empty;
    ///                    else it is kept. A file of its name that this save has not opened stays.
    /// @return `VrSuccess`, always. Any thread.
    VrError SaveCancel(bool deleteFile);
    /// @param fileProgress   Receives how much of the current file is done, in per mille.
    /// @param totalProgress  Receives the same of the whole request, whose length is that of the
    ///                       ranges asked for: with ranges past the recording's end it ends below
    ///                       1000.
    /// @return `VrErrorInvalidState` (no request so far, or one of no length): nothing is written.
    ///         Any thread.
    VrError GetProgress(int& fileProgress, int& totalProgress) const;
    /// Bits per sample of WAV files from the next file on: 16, 24 or 32; others make every WAV
    /// file fail. 32 at first. Any thread.
    void SetBits(std::uint16_t bits);
    std::uint16_t GetBits() const;

    /// A diagnostic that no request uses: writes the whole recorded preview as a 16-bit WAV file,
    /// named after the local time, into the process's working directory. Blocks.
    /// @return `VrErrorFailed` (no preview data were given to `Start`; a failed read or write).
    VrError SavePreviewFile();

protected:
    void ThreadImpl() override;

private:
    /// How the files of a request ended.
    struct Outcome {
        VrError result;
        const VrSaveSettingInternal* file;  // where it ended with a failure or a cancel
        bool fileIsOurs;                    // and this save has opened it
    };
    Outcome WriteFiles(const std::vector<VrSaveSettingInternal>& files, SaveRun& run);
    void SetOverallLength(const std::vector<VrSaveSettingInternal>& files, std::uint64_t rateHz);
    void NotifyFailed(const std::string& path);

    IVorrelManager& manager;
    std::atomic<std::uint16_t> bits{32};

    // Written by `Start` while no thread is joinable; taken by the body as its first act.
    SaveList saveList;
    RecordData* recordData = nullptr;
    RecordLayout recording;  // that of the moment in which the request came
    PreviewData* previewData = nullptr;

    // Belong to the run up to its `Detach`, then to the next one.
    std::atomic<std::int32_t> cancelState{kSaveCancelNone};
    SaveProgress progress;
};

}  // namespace vorrel

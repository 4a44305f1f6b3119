#pragma once

#include <cstdint>

/// Result of every operation of the library: 0 is success, every failure is negative. A result
/// of an internal component reaches the host unchanged.
enum [[nodiscard]] VrError : std::int32_t{
    /// The call succeeded.
    VrSuccess = 0,
    /// `Vorrel_Init` has not succeeded yet.
    VrErrorNotInitialized = -1,
    /// A required object or out-pointer is null, or a field is out of range.
    VrErrorInvalidParameter = -2,
    /// General failure: an unrecognised platform error, an unknown sample type, no disk space, a
    /// missing temporary directory, a failed file operation.
    VrErrorFailed = -3,
    /// The named device is not among the accepted devices, or the platform reports a bad device,
    /// object or stream.
    VrErrorDeviceNotFound = -4,
    /// `Vorrel_Init` was called after a successful `Vorrel_Init`.
    VrErrorAlreadyInitialized = -5,
    /// The call is not allowed in the present state; also save progress before any save.
    VrErrorInvalidState = -6,
    /// The platform reports an unsupported format or operation, or the operation is a placeholder.
    VrErrorNotSupported = -99,
    /// A save ended because the host cancelled it. Within the engine only: no call returns it, the
    /// host is told of the end of a save alone.
    VrErrorCanceled = -100,
};

/// What `IVorrelDelegate::Vorrel_NotifyOperationProc` reports.
enum VrRecOperation : std::int32_t {
    /// The first device buffer after `Vorrel_Start` turned a pre-recording into a recording.
    VrRecOperationRecordStarted = 0,
    /// A start request has completed: the device runs.
    VrRecOperationDeviceStarted = 1,
    /// A stop request has completed: device and workers have stopped.
    VrRecOperationStopped = 2,
    /// The save worker has ended; sent exactly once per accepted save request.
    VrRecOperationSaveFinished = 3,
};

/// First argument of `IVorrelDelegate::Vorrel_NotifyErrorMessageProc`.
enum VrMessageKind : std::int32_t {
    /// An accepted start request failed, or the device changed its alive state. Text: "".
    VrMessageDeviceError = 0,
    /// A channel's capture queue was full and a device buffer was dropped; at most once per
    /// recording. Text: "".
    VrMessageBufferOverflow = 1,
    /// Captured data could not be stored although the temporary directory exists. Text: "".
    VrMessageRecordWriteFailed = 2,
    /// A save failed although the temporary directory exists. Text: the path of the failed file.
    VrMessageSaveFailed = 3,
    /// A file of a save request was skipped: it could not be created or would be too large. Text:
    /// its path.
    VrMessageFileSkipped = 4,
    /// Storing or saving failed and the temporary directory no longer exists. Text: "".
    VrMessageTempDirectoryMissing = 5,
};

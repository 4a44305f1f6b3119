#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "vorrel/Export.h"
#include "vorrel/IVorrelDelegate.h"
#include "vorrel/MainQueue.h"
#include "vorrel/VrError.h"
#include "vorrel/VrRecords.h"

// The recording engine: one per process, driven by these 22 functions.
//
// Threads: all of them are meant for one thread, the host's main thread, the one that also calls
// `vorrel::MainQueue::Dispatch`; so no notification arrives while a call is running.
//
// Order of the checks, unless a function says otherwise: arguments, then `VrErrorNotInitialized`
// (no `Vorrel_Init` yet), then `VrErrorInvalidState`. A call that fails a check changes nothing.
//
// States: after `Vorrel_Init` no device is selected; `Vorrel_SetAudioDevice` makes it ready; a
// start makes it starting, then recording or (pre-recording, pause) paused; a stop makes it
// stopping, then ready again. Every function may also return `VrErrorFailed` when memory is
// exhausted.

extern "C" {
// The functions have C names, so that `nm -D` and dlsym find them, and C++ arguments.
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif

/// Gives the engine its delegate. To be called first, once.
/// @param delegate  Told of everything that happens; held until the process ends.
/// @return `VrSuccess`; `VrErrorInvalidParameter` (null); `VrErrorAlreadyInitialized` (an earlier
///         call succeeded; the first delegate stays).
VORREL_EXPORT VrError Vorrel_Init(std::shared_ptr<IVorrelDelegate> delegate) noexcept;

/// Discards the recorded data, its preview and its spill files. Device and settings stay.
/// @return `VrSuccess`; `VrErrorNotInitialized`; `VrErrorInvalidState` (a recording runs, or is
///         starting or stopping: the data stay).
VORREL_EXPORT VrError Vorrel_New() noexcept;

/// Lists the supported recorders. Any state, recording too.
/// @param names  Receives one name per recorder (UTF-8), in the platform's order; cleared when the
///               call fails.
/// @return `VrSuccess`, also with no recorder; `VrErrorInvalidParameter` (null);
///         `VrErrorNotInitialized`; an error of the platform's device list.
VORREL_EXPORT VrError Vorrel_GetAudioDevices(std::vector<std::string>* names) noexcept;

/// Selects a recorder: releases the present one, takes the first of that name for exclusive use
/// and leaves it in PCM mode. Stops nothing: refused while a recording runs.
/// @param name  As listed, compared byte for byte.
/// @return `VrSuccess`; `VrErrorInvalidParameter` (null); `VrErrorNotInitialized`;
///         `VrErrorInvalidState` (a recording runs); `VrErrorDeviceNotFound` (no such name, or the
///         device is gone); `VrErrorNotSupported` (no input stream, or no usable format);
///         `VrErrorFailed` (in use by another process, no control interface, other platform
///         errors). After a failure past the state check no device is selected.
/// @note May wait for the device.
VORREL_EXPORT VrError Vorrel_SetAudioDevice(const char* name) noexcept;

/// What the selected recorder can do. Recording or not.
/// @param info  Receives the library's own object, the same each time while the device stays
///              selected.
/// @return `VrSuccess`; `VrErrorInvalidParameter` (null); `VrErrorNotInitialized`;
///         `VrErrorInvalidState` (no device selected).
VORREL_EXPORT VrError Vorrel_GetAudioDeviceInfo(std::shared_ptr<VrAudioDeviceInfo>* info) noexcept;

/// Chooses PCM or DSD, the sampling rate and the width of saved WAV files. Selecting a device
/// leaves it in PCM mode, so a host that wants DSD calls this after it.
/// @param setting  Not kept.
/// @return `VrSuccess`; `VrErrorInvalidParameter` (null, `rec_type` not 0 or 1, PCM `bits` outside
///         16..32); `VrErrorNotInitialized`; `VrErrorInvalidState` (no device, or a recording
///         runs); `VrErrorNotSupported` (type or rate not offered); `VrErrorDeviceNotFound`
///         (gone); `VrErrorFailed`. A refused rate leaves the new type in force.
VORREL_EXPORT VrError Vorrel_SetRecordSetting(const VrRecordSetting* setting) noexcept;

/// The settings in force. Recording or not.
/// @param setting  Receives a new record; `bits` is 1 for DSD.
/// @return `VrSuccess`; `VrErrorInvalidParameter` (null); `VrErrorNotInitialized`;
///         `VrErrorInvalidState` (no device selected); `VrErrorFailed` (the device cannot be read).
VORREL_EXPORT VrError Vorrel_GetRecordSetting(std::shared_ptr<VrRecordSetting>* setting) noexcept;

/// Starts the device without recording: what arrives is kept, but counts as paused until
/// `Vorrel_Start`. Returns at once; `VrRecOperationDeviceStarted` or `VrMessageDeviceError` tells
/// how it went. The data of an earlier recording are discarded.
/// @return `VrSuccess`; `VrErrorNotInitialized`; `VrErrorInvalidState` (no device, or busy).
VORREL_EXPORT VrError Vorrel_StartPreRecording() noexcept;

/// Ready: starts a recording, as `Vorrel_StartPreRecording` starts a pre-recording. Paused or
/// pre-recording: what arrives from now on counts as recorded; `VrRecOperationRecordStarted` tells
/// of the first device buffer after it.
/// @note  An ordinary pause ends this way, too, with that notification; `Vorrel_Resume` ends it
///        without. In a pause or a pre-recording it may wait for the disk, as `Vorrel_Stop`.
/// @return `VrSuccess`; `VrErrorNotInitialized`; `VrErrorInvalidState` (no device, recording,
///         starting or stopping).
VORREL_EXPORT VrError Vorrel_Start() noexcept;

/// Stops. All that the capture queue took is stored before `VrRecOperationStopped` is sent, unless
/// storing has failed, which a message has told; the data stay for saving and preview until
/// `Vorrel_New` or the next start.
/// @param wait  true returns after the stop has completed, false at once.
/// @note  May wait for the disk: the moment is logged between two blocks that are being stored.
/// @return `VrSuccess`; `VrErrorNotInitialized`; `VrErrorInvalidState` (nothing to stop).
VORREL_EXPORT VrError Vorrel_Stop(bool wait) noexcept;

/// From now on what arrives does not count as recorded. May wait for the disk, as `Vorrel_Stop`.
/// @return `VrSuccess`; `VrErrorNotInitialized`; `VrErrorInvalidState` (not recording).
VORREL_EXPORT VrError Vorrel_Pause() noexcept;

/// From now on what arrives counts as recorded again. Turns a pre-recording into a recording, too.
/// May wait for the disk, as `Vorrel_Stop`.
/// @return `VrSuccess`; `VrErrorNotInitialized`; `VrErrorInvalidState` (not paused).
VORREL_EXPORT VrError Vorrel_Resume() noexcept;

/// A placeholder: the engine offers no loopback.
/// @return `VrErrorNotSupported`, always.
VORREL_EXPORT VrError Vorrel_EnableLoopback(bool enable) noexcept;

/// A placeholder: the engine offers no playback.
/// @return `VrErrorNotSupported`, always.
VORREL_EXPORT VrError Vorrel_StartPlay(double position) noexcept;

/// Copies frames [start, end) of the recorded preview (pauses cut out) into `samples`.
/// @param start    First preview frame, counted from 0.
/// @param end      One past the last frame: start < end <= `Vorrel_GetPreviewDataLength`.
/// @param samples  Receives (end - start) x channels signed 16-bit samples, interleaved
///                 frame by frame, channel 0 first. Owned by the host, not kept.
/// @return `VrSuccess`; `VrErrorInvalidParameter` (null buffer, empty or unbuilt range);
///         `VrErrorNotInitialized`; `VrErrorFailed` (a spill file cannot be read, or a start has
///         just discarded the data).
/// @note Writes only on success. Recording or not; may wait for the disk. A preview frame is one
///       sample at PCM and 64 one-bit samples at DSD.
VORREL_EXPORT VrError Vorrel_GetPreviewData(std::uint64_t start, std::uint64_t end,
                                            std::int16_t* samples) noexcept;

/// The same of everything captured, pauses and pre-recording included, of which two memory buffers
/// of five seconds each are kept: the first and the newest until something has been read, later the
/// one read last and the newest.
/// @param start    First preview frame since the device started.
/// @param end      One past the last frame: start < end <= `Vorrel_GetRecordingPreviewDataLength`.
/// @param samples  As for `Vorrel_GetPreviewData`.
/// @return As `Vorrel_GetPreviewData`; `VrErrorInvalidParameter` also for frames no longer kept.
VORREL_EXPORT VrError Vorrel_GetRecordingPreviewData(std::uint64_t start, std::uint64_t end,
                                                     std::int16_t* samples) noexcept;

/// @param length  Receives the length of the recorded preview in frames.
/// @return `VrSuccess`; `VrErrorInvalidParameter` (null); `VrErrorNotInitialized`.
VORREL_EXPORT VrError Vorrel_GetPreviewDataLength(std::uint64_t* length) noexcept;

/// @param length  Receives the length in frames of the preview of everything captured.
/// @return `VrSuccess`; `VrErrorInvalidParameter` (null); `VrErrorNotInitialized`.
VORREL_EXPORT VrError Vorrel_GetRecordingPreviewDataLength(std::uint64_t* length) noexcept;

/// Writes ranges of the recording as files, one after another, on a thread of the library.
/// `VrRecOperationSaveFinished` ends every accepted request, a failure message follows it.
/// @param settings  Copied; may be empty.
/// @return `VrSuccess`; `VrErrorInvalidParameter` (null); `VrErrorNotInitialized`; `VrErrorFailed`
///         (a save is running: it goes on undisturbed; or no thread can be made).
/// @note  A save that still runs when the process exits is waited for.
VORREL_EXPORT VrError Vorrel_SaveFile(const std::vector<VrSaveSetting>* settings) noexcept;

/// How far the save is, in per mille, 0 to 1000.
/// @param file   Receives the progress of the file being written.
/// @param total  Receives the progress of the whole request.
/// @return `VrSuccess`; `VrErrorInvalidParameter` (null); `VrErrorNotInitialized`;
///         `VrErrorInvalidState` (no request yet, or the last one had nothing to write): both stay
///         as they are. Until the worker of a new request has begun, the last one's are given.
VORREL_EXPORT VrError Vorrel_SaveFileProgress(std::int32_t* file, std::int32_t* total) noexcept;

/// Asks the running save to stop at its next block. The first request wins; the next save
/// clears it.
/// @param deleteFile  true deletes the file being written, and its directory if that is then
///                    empty; false keeps what is written (with the sizes of the whole file).
/// @return `VrSuccess`, in every state and with no save running, too.
VORREL_EXPORT VrError Vorrel_SaveFileCancel(bool deleteFile) noexcept;

/// Chooses the directory for spill files, and deletes in the one used so far (the first time: in
/// the new one) the regular files whose names begin with "tmp": give the engine a directory of its
/// own.
/// @param path  UTF-8, an existing directory.
/// @return `VrSuccess`; `VrErrorNotInitialized`; `VrErrorInvalidState` (a recording runs);
///         `VrErrorInvalidParameter` (null or no directory; the first path is kept all the same, so
///         that storing fails cleanly instead of writing elsewhere). Here the state is checked
///         before the argument.
VORREL_EXPORT VrError Vorrel_SetTempDirectory(const char* path) noexcept;

#if defined(__clang__)
#pragma clang diagnostic pop
#endif
}  // extern "C"

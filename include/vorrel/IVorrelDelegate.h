#pragma once

#include <string>

#include "vorrel/Export.h"
#include "vorrel/VrError.h"

/// What the host implements to be told of a recording. All four are called from
/// `vorrel::MainQueue::Dispatch`, on the thread that calls it and in the order in which the
/// library submitted them; the library never waits for them. They may call any exported function.
class VORREL_EXPORT IVorrelDelegate {
public:
    virtual ~IVorrelDelegate() = default;

    /// An operation has completed (see `VrRecOperation`).
    virtual void Vorrel_NotifyOperationProc(VrRecOperation operation) = 0;
    /// The recorded length in seconds, in steps of 0.1 s, each time the tenth changes.
    virtual void Vorrel_NotifyStreamPosProc(double seconds) = 0;
    /// The length of the preview built so far in seconds, in steps of 0.1 s.
    virtual void Vorrel_NotifyConvertPosProc(double seconds) = 0;
    /// A failure on a thread of the library, or a skipped file (see `VrMessageKind`).
    /// @param message  UTF-8; "" where the kind has no text.
    virtual void Vorrel_NotifyErrorMessageProc(VrMessageKind kind, const std::string& message) = 0;
};

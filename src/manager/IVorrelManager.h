#pragma once

#include "vorrel/VrError.h"

namespace vorrel {

/// What workers and stores may ask of the manager, and all they know of it. Every operation may
/// be called on any thread; none blocks on the host.
class IVorrelManager {
public:
    /// Wakes the convert worker; does nothing while it is not running.
    virtual void ConvertThread_AddDataNotify() = 0;
    /// Submits a notification for the host's main thread.
    virtual void NotifyOperationProc(VrRecOperation operation) = 0;
    /// @param seconds  Recorded length.
    virtual void NotifyStreamPosProc(double seconds) = 0;
    /// @param seconds  Length of the preview built.
    virtual void NotifyConvertPosProc(double seconds) = 0;
    /// @param kind     A `VrMessageKind`.
    /// @param message  UTF-8, copied; null is delivered as "".
    virtual void NotifyErrorMessageProc(int kind, const char* message) = 0;
    /// The temporary directory as a zero-terminated UTF-8 text; "" while none is set. Valid until
    /// the directory is changed, which is refused while a recording runs.
    virtual const char* GetTempDirectory() = 0;
    /// True when that path names an existing directory.
    virtual bool IsTempDirectoryExists() = 0;

protected:
    ~IVorrelManager() = default;  // nobody deletes through it
};

}  // namespace vorrel

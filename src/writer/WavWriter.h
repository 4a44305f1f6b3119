#pragma once

#include "vorrel/VrError.h"
#include "writer/SaveRun.h"
#include "writer/VrSaveSettingInternal.h"

namespace vorrel {

/// Writes one range of a PCM recording as a WAV file: header, interleaved little-endian samples of
/// `run.bits` bits with the gain applied, tag chunks. The end is clipped to the recorded length
/// (the shortest channel's). Advances the run's progress; looks for a cancel before every block of
/// a tenth of a second.
///
/// A file that would reach 4 GiB, that its file system cannot hold or that cannot be opened is
/// skipped: reported as such, counted as done, result `VrSuccess`.
/// @return `VrErrorInvalidParameter` (null; the end lies before the start);
///         `VrErrorFailed` (no channels, no sample type or no "/" in the path; too little space, or
///         a missing directory: no file was made; a width other than 16, 24 and 32 bits or a sample
///         type without converters: the header stands on the disk; a read or write failed: what was
///         written stays);
///         `VrErrorCanceled` (what was written stays).
///         The header carries the sizes of the complete file from the beginning.
VrError SaveWavFile(const VrSaveSettingInternal* setting, SaveRun& run);

/// The linear factor of a gain in decibels, in single precision; 0 dB is exactly 1.
float GainFactor(double decibels);

}  // namespace vorrel

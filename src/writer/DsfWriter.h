#pragma once

#include "vorrel/VrError.h"
#include "writer/SaveRun.h"
#include "writer/VrSaveSettingInternal.h"

namespace vorrel {

/// Writes one range of a DSD recording as a DSF file: header, blocks of 4096 bytes a channel, least
/// significant bit first, passed through one gain processor a channel, ID3v2.3 tag. Advances the
/// run's progress and looks for a cancel before every block.
///
/// The end is not clipped to the recorded length: a range that reaches past it fails where the
/// recording ends. So does a last block whose samples make no whole byte, because it reads nothing.
///
/// A file that its file system cannot hold or that cannot be opened is skipped: reported as such,
/// counted as done, result `VrSuccess` (of one that cannot be opened `VrErrorCanceled`, if a cancel
/// is pending).
///
/// Kept: a cancel that deletes stops before the next block, and the tag is written all the same; a
/// cancel that keeps does not stop at all, the file is completed and the cancel reported then
/// (DsfWriterTest.ACancelThatDeletesStopsBeforeTheNextBlock,
/// DsfWriterTest.ACancelThatKeepsCompletesTheFile).
/// Kept: the file position is that of the block in hand, so that of a whole file it ends short of
/// the file's length (DsfWriterTest.TheFilePositionEndsWithTheStartOfTheLastBlock).
/// @return `VrErrorInvalidParameter` (null; the end lies before the start);
///         `VrErrorFailed` (no channels, no sample type or one that no block of whole samples
///         takes; no "/" in the path; too little space, or a missing directory: no file was made;
///         no threads for the processors: the header stands on the disk; a read or write failed, or
///         another recording began: the blocks before stay, without a tag);
///         `VrErrorCanceled` (a cancel was pending when the file was closed, whatever the result).
///         The header carries the sizes of the complete file from the beginning.
VrError SaveDsfFile(const VrSaveSettingInternal* setting, SaveRun& run);

}  // namespace vorrel

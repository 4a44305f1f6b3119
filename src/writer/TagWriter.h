#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "vorrel/VrError.h"
#include "writer/VrSaveSettingInternal.h"

// Writes a file's tags at the current position of a stream: a LIST/INFO chunk in Shift-JIS and an
// "id3 " chunk for WAV, the bare ID3v2.3 tag for DSF. The sizes are computed in advance, because
// file headers carry them. Empty values are left out; nothing is rolled back after a failure.
//
// Results: `VrErrorInvalidParameter` (null stream, or nothing to write where that is said);
// `VrErrorFailed` (a write failed). Save thread.
namespace vorrel {

/// Bytes that `SaveID3Tags` writes; 0 when all four known values are empty.
std::uint64_t CalculateSaveID3TagSize(const TagMap& tags);
/// Bytes that `SaveTags` writes; 0 when "Title", "Alubum" and "Artist" are all empty.
std::uint64_t CalculateSaveTagSize(const TagMap& tags);

/// Writes the LIST/INFO chunk and the "id3 " chunk.
/// Kept: an "AlbumArtist" alone writes nothing, for INFO has no place for it
/// (TagWriterTest.AlbumArtistAloneGivesNoTagChunks).
/// @return A failure of the "id3 " chunk does not show here but when the file is closed.
VrError SaveTags(const TagMap& tags, std::FILE* file);
/// Writes one sub-chunk of INFO. @param id Four characters. `VrErrorInvalidParameter`: empty value.
VrError SaveTag(const std::string& value, const char* id, std::FILE* file);
/// Writes the "id3 " chunk. `VrErrorInvalidParameter`: all four values are empty.
/// Kept: `VrErrorFailed` after a pad byte that was written well; no caller looks at the result
/// (TagWriterTest.AnOddId3ChunkReportsFailureAfterItsPadByte).
VrError SaveID3TagAsRIFF(const TagMap& tags, std::FILE* file);
/// Writes the ID3v2.3 tag; with all four values empty, nothing.
VrError SaveID3Tags(const TagMap& tags, std::FILE* file);
/// Writes one frame. @param id Four characters. `VrErrorInvalidParameter`: empty value.
VrError SaveID3Tag(const std::string& value, const char* id, std::FILE* file);

}  // namespace vorrel

#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <optional>
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

/// The texts of an ID3v2.3 tag as they stand in its frames. Who writes a file makes it once, and
/// takes the size and the bytes from it: two conversions of a text need not end alike.
struct Id3Texts {
    Id3Texts() = default;
    /// Implicit: tags are what is to be written, and this is their form.
    /// @throws std::bad_alloc, std::system_error  As the conversions of TextEncoding.h.
    Id3Texts(const TagMap& tags);  // NOLINT(google-explicit-constructor)

    /// In the order of the frames; nothing for a value that is empty or missing.
    std::array<std::optional<std::string>, 4> frames;
};

/// The texts of a WAV file's two chunks, in the same way.
struct RiffTexts {
    RiffTexts() = default;
    /// @throws std::bad_alloc, std::system_error  As the conversions of TextEncoding.h.
    RiffTexts(const TagMap& tags);  // NOLINT(google-explicit-constructor)

    /// In the order of the sub-chunks, each with what ends and pads it.
    std::array<std::optional<std::string>, 3> info;
    Id3Texts id3;  ///< Empty where INFO is: then neither chunk is written.
};

/// Bytes that `SaveID3Tags` writes; 0 when all four known values are empty.
std::uint64_t CalculateSaveID3TagSize(const Id3Texts& tags);
/// Bytes that `SaveTags` writes; 0 when "Title", "Alubum" and "Artist" are all empty.
std::uint64_t CalculateSaveTagSize(const RiffTexts& tags);

/// Writes the LIST/INFO chunk and the "id3 " chunk.
/// Kept: an "AlbumArtist" alone writes nothing, for INFO has no place for it
/// (TagWriterTest.AlbumArtistAloneGivesNoTagChunks).
/// @return A failure of the "id3 " chunk does not show here but when the file is closed.
VrError SaveTags(const RiffTexts& tags, std::FILE* file);
/// Writes one sub-chunk of INFO. @param id Four characters. `VrErrorInvalidParameter`: empty value.
/// @throws std::bad_alloc, std::system_error  As the conversions of TextEncoding.h.
VrError SaveTag(const std::string& value, const char* id, std::FILE* file);
/// Writes the "id3 " chunk. `VrErrorInvalidParameter`: all four values are empty.
/// Kept: `VrErrorFailed` after a pad byte that was written well; no caller looks at the result
/// (TagWriterTest.AnOddId3ChunkReportsFailureAfterItsPadByte).
VrError SaveID3TagAsRIFF(const Id3Texts& tags, std::FILE* file);
/// Writes the ID3v2.3 tag; with all four values empty, nothing.
VrError SaveID3Tags(const Id3Texts& tags, std::FILE* file);
/// Writes one frame. @param id Four characters. `VrErrorInvalidParameter`: empty value.
/// @throws std::bad_alloc, std::system_error  As the conversions of TextEncoding.h.
VrError SaveID3Tag(const std::string& value, const char* id, std::FILE* file);

}  // namespace vorrel

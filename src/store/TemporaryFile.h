#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>

#include "manager/IVorrelManager.h"
#include "platform/AlignedBytes.h"

namespace vorrel {

/// One spill segment: a contiguous run of a channel's byte stream in a file that it owns and
/// deletes. Positions are bytes of the whole stream; file offset = position - `start`.
/// No lock of its own: the channel store calls it under its mutex.
class TemporaryFile {
public:
    /// A closed segment: no path, no file, start = end = 0.
    explicit TemporaryFile(IVorrelManager& manager);
    TemporaryFile(TemporaryFile&& other) noexcept;             // leaves `other` closed
    TemporaryFile& operator=(TemporaryFile&& other) noexcept;  // releases, then the same
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    /// Creates and opens a file named "tmp" and six unique characters in `directory`, for its
    /// owner alone (mode 0600) and closed on exec.
    /// @param path       Receives its full path; unchanged when no file could be made.
    /// @param directory  Taken as it stands; one "/" is put behind it.
    /// @return The stream, mode "w+b", or null (then no file is left behind).
    static std::FILE* CreateTemporaryFile(std::string& path, const std::string& directory);

    /// Releases any file and opens a new, empty one at stream position `position`.
    /// @return `VrErrorFailed` (the temporary directory is missing, no file can be made there, or
    ///         no memory): the segment stays closed.
    VrError Init(std::uint64_t position);
    /// Appends all of `bytes`; on success they are with the system, not in the stream's buffer.
    /// @return `VrErrorFailed` (closed, no bytes, seek or write failed): the end does not advance,
    ///         earlier bytes stay readable, and a later `Add` writes at the same place again.
    VrError Add(std::span<const std::uint8_t> bytes);
    /// Reads [from, to) into `out`. `VrErrorInvalidParameter` (empty range, or one that leaves the
    /// segment) keeps `out`; `VrErrorFailed` (seek or read failed, no memory) leaves its contents
    /// undefined.
    VrError GetData(std::uint64_t from, std::uint64_t to, AlignedBytes& out);
    /// @return true when a file is open; the positions are written in every case.
    bool GetRange(std::uint64_t& startPosition, std::uint64_t& endPosition) const;
    /// Bytes in the segment.
    std::uint64_t GetLength() const;
    /// Closes and deletes the file and resets all fields.
    void Release();

private:
    bool WriteBuffered(std::span<const std::uint8_t> bytes);
    bool WriteDirectly(std::span<const std::uint8_t> bytes);

    IVorrelManager* manager;
    std::string path;  // empty while closed
    std::FILE* file = nullptr;
    std::uint64_t start = 0, end = 0;
    bool needSeekToEnd = false;  // the stream's position is not the end; the next append seeks
    // Of `file`, until it is closed. Not left to setvbuf: given a null buffer, the C library
    // ignores the size and stays with a few KiB.
    std::unique_ptr<char[]> streamBuffer;
};

}  // namespace vorrel

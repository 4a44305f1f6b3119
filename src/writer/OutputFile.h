#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace vorrel {

/// A file being written: fully buffered, closed on every path. Used by one thread. The system is
/// asked to write 1 MiB at a time, whichever of the two ways the bytes come.
class OutputFile {
public:
    OutputFile() = default;
    ~OutputFile() { Release(); }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// Creates the file or empties an existing one. Call once.
    /// @return false if it cannot be opened.
    bool Open(const std::string& path);
    /// @return false when not all bytes could be taken.
    bool Write(std::span<const std::uint8_t> bytes);
    /// As `Write`, without a copy: the bytes stay as they are until they count no more in
    /// `KeptBytes`.
    bool WriteKept(std::span<const std::uint8_t> bytes);
    /// How many of the latest bytes given to `WriteKept` are still looked at.
    std::size_t KeptBytes() const { return keptBytes; }
    /// For the writers that append to an open stream; null while closed. Nothing is kept any more.
    std::FILE* Stream();
    /// Writes out what is buffered and closes the file.
    /// @return false if this or any write before it failed.
    bool Close();

private:
    void Release();
    bool MoveKeptToStream();
    bool WriteKeptToFile();

    // The stream's buffer is our own: the C library ignores the size of a buffer that it makes
    // itself. It outlives the stream.
    std::unique_ptr<char[]> buffer;
    std::FILE* file = nullptr;
    std::size_t streamBytes = 0;  // in the stream's buffer
    std::vector<iovec> kept;      // behind those of the stream
    std::size_t keptBytes = 0;
};

}  // namespace vorrel

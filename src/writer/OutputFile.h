#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>

namespace vorrel {

/// A file being written: fully buffered, closed on every path. Used by one thread.
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
    /// For the writers that append to an open stream; null while closed.
    std::FILE* Stream() const { return file; }
    /// Writes out what is buffered and closes the file.
    /// @return false if this or any write before it failed.
    bool Close();

private:
    void Release();

    // The stream's buffer is our own: the C library ignores the size of a buffer that it makes
    // itself. It outlives the stream.
    std::unique_ptr<char[]> buffer;
    std::FILE* file = nullptr;
};

}  // namespace vorrel

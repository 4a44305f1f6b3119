#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace vorrel::cli {

/// The SHA-256 of a file, a piece at a time, so that signals are still met between two of a large
/// one.
class FileDigest {
public:
    explicit FileDigest(const std::string& path);
    ~FileDigest();
    FileDigest(const FileDigest&) = delete;
    FileDigest& operator=(const FileDigest&) = delete;

    /// Reads on, at most `bytes`. @return Whether it has come to the end, or can go no further.
    bool Step(std::size_t bytes);
    /// After the end: 64 digits in lower case; "" = the file could not be read.
    std::string Text();

private:
    struct State;
    std::unique_ptr<State> state;
};

}  // namespace vorrel::cli

#include "writer/OutputFile.h"

#include <algorithm>
#include <cerrno>
#include <tuple>

#include "platform/SystemHelpers.h"

namespace vorrel {

namespace {

constexpr std::size_t kStreamBufferBytes = 1 << 20;  // many small appends, few system writes
constexpr std::size_t kMostPieces = 1'024;           // that the system takes in one call

/// Writes all of `pieces`, which are used up meanwhile.
bool WriteAll(int descriptor, std::span<iovec> pieces) {
    while (!pieces.empty()) {
        const ssize_t result = ::writev(descriptor, pieces.data(), static_cast<int>(pieces.size()));
        if (result < 0 && errno == EINTR) {
            continue;
        }
        if (result <= 0) {
            return false;
        }
        auto written = static_cast<std::size_t>(result);
        while (!pieces.empty() && written >= pieces.front().iov_len) {
            written -= pieces.front().iov_len;
            pieces = pieces.subspan(1);
        }
        if (written != 0) {
            pieces.front().iov_base = static_cast<std::uint8_t*>(pieces.front().iov_base) + written;
            pieces.front().iov_len -= written;
        }
    }
    return true;
}

}  // namespace

bool OutputFile::Open(const std::string& path) {
    buffer = std::make_unique_for_overwrite<char[]>(kStreamBufferBytes);
    kept.reserve(kMostPieces);
    if (_tfopen_s(&file, path.c_str(), "wb") != 0 || file == nullptr) {
        file = nullptr;
        return false;
    }
    // A refusal leaves the library's own, smaller buffer: slower, not wrong.
    std::ignore = std::setvbuf(file, buffer.get(), _IOFBF, kStreamBufferBytes);
    return true;
}

bool OutputFile::Write(std::span<const std::uint8_t> bytes) {
    if (!MoveKeptToStream()) {
        return false;
    }
    streamBytes = (streamBytes + bytes.size()) % kStreamBufferBytes;
    return std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
}

bool OutputFile::WriteKept(std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const std::size_t room = kStreamBufferBytes - streamBytes - keptBytes;
        const std::span<const std::uint8_t> piece = bytes.first(std::min(room, bytes.size()));
        // The system's record of a piece serves reading too, and so is not const.
        kept.push_back({const_cast<std::uint8_t*>(piece.data()), piece.size()});
        keptBytes += piece.size();
        bytes = bytes.subspan(piece.size());
        if ((piece.size() == room || kept.size() == kMostPieces) && !WriteKeptToFile()) {
            return false;
        }
    }
    return true;
}

std::FILE* OutputFile::Stream() {
    // What fails here fails again at the next write to the stream, or at the close.
    std::ignore = MoveKeptToStream();
    return file;
}

/// Puts the kept bytes into the stream's buffer, which has room for them.
bool OutputFile::MoveKeptToStream() {
    bool moved = true;
    for (const iovec& piece : kept) {
        moved = moved && std::fwrite(piece.iov_base, 1, piece.iov_len, file) == piece.iov_len;
    }
    streamBytes += keptBytes;
    kept.clear();
    keptBytes = 0;
    return moved;
}

/// Writes what is in the stream's buffer, and the kept bytes behind it, past the stream. A stream
/// that is only appended to does not look at the file's position.
bool OutputFile::WriteKeptToFile() {
    const bool written = std::fflush(file) == 0 && WriteAll(::fileno(file), kept);
    streamBytes = 0;
    kept.clear();
    keptBytes = 0;
    return written;
}

bool OutputFile::Close() {
    if (file == nullptr) {
        return false;
    }
    // Most of a short file reaches the disk only here, so that here its failures show.
    const bool moved = MoveKeptToStream();
    const bool written = moved && std::ferror(file) == 0;
    const bool closed = std::fclose(file) == 0;
    file = nullptr;
    return written && closed;
}

void OutputFile::Release() {
    if (file != nullptr) {
        // Whose they are may have gone on the way here.
        kept.clear();
        keptBytes = 0;
        std::ignore = Close();
    }
}

}  // namespace vorrel

#include "writer/OutputFile.h"

#include <tuple>

#include "platform/SystemHelpers.h"

namespace vorrel {

namespace {

constexpr std::size_t kStreamBufferBytes = 1 << 20;  // many small appends, few system writes

}  // namespace

bool OutputFile::Open(const std::string& path) {
    buffer = std::make_unique_for_overwrite<char[]>(kStreamBufferBytes);
    if (_tfopen_s(&file, path.c_str(), "wb") != 0 || file == nullptr) {
        file = nullptr;
        return false;
    }
    // A refusal leaves the library's own, smaller buffer: slower, not wrong.
    std::ignore = std::setvbuf(file, buffer.get(), _IOFBF, kStreamBufferBytes);
    return true;
}

bool OutputFile::Write(std::span<const std::uint8_t> bytes) {
    return std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
}

bool OutputFile::Close() {
    if (file == nullptr) {
        return false;
    }
    // Most of a short file reaches the disk only here, so that here its failures show.
    const bool written = std::ferror(file) == 0;
    const bool closed = std::fclose(file) == 0;
    file = nullptr;
    return written && closed;
}

void OutputFile::Release() {
    if (file != nullptr) {
        std::ignore = Close();
    }
}

}  // namespace vorrel

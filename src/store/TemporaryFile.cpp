#include "store/TemporaryFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <system_error>
#include <tuple>
#include <utility>

#include "platform/SystemHelpers.h"
#include "platform/Trace.h"

namespace vorrel {
namespace {

constexpr std::size_t kStreamBufferBytes = 1 << 20;  // a read fetches at least this much

/// Appends from this size on go straight from the caller's memory to the file: through the stream
/// the part of a block that fills no whole stream buffer is copied once more, which costs 15 % of
/// the rate of 1,920,000-byte blocks on a memory file system (0.85 of write(2); this way 1.0).
constexpr std::size_t kDirectWriteBytes = 1 << 16;

/// Why the last file could not be made, 0 = it could.
std::atomic<int> saidReason{0};

}  // namespace

TemporaryFile::TemporaryFile(IVorrelManager& owner) : manager(&owner) {}

TemporaryFile::TemporaryFile(TemporaryFile&& other) noexcept
    : manager(other.manager),
      path(std::exchange(other.path, {})),
      file(std::exchange(other.file, nullptr)),
      start(std::exchange(other.start, 0)),
      end(std::exchange(other.end, 0)),
      needSeekToEnd(std::exchange(other.needSeekToEnd, false)),
      streamBuffer(std::move(other.streamBuffer)) {}

TemporaryFile& TemporaryFile::operator=(TemporaryFile&& other) noexcept {
    if (this != &other) {
        Release();
        manager = other.manager;
        path = std::exchange(other.path, {});
        file = std::exchange(other.file, nullptr);
        start = std::exchange(other.start, 0);
        end = std::exchange(other.end, 0);
        needSeekToEnd = std::exchange(other.needSeekToEnd, false);
        streamBuffer = std::move(other.streamBuffer);
    }
    return *this;
}

TemporaryFile::~TemporaryFile() {
    Release();
}

std::FILE* TemporaryFile::CreateTemporaryFile(std::string& path, const std::string& directory) {
    std::string name = directory + "/tmpXXXXXX";
    // Closed on exec from the first moment on: a host's child process must not keep the disk space.
    const int descriptor = ::mkostemp(name.data(), O_CLOEXEC);
    if (descriptor == -1) {
        // Once for a reason: who goes on without it asks again with every block.
        if (const int reason = errno; saidReason.exchange(reason) != reason) {
            Trace(__FILE__, __LINE__, "no further spill file in %s: %s", directory.c_str(),
                  std::generic_category().message(reason).c_str());
        }
        return nullptr;
    }
    saidReason = 0;
    std::FILE* const stream = ::fdopen(descriptor, "w+b");
    if (stream == nullptr) {
        ::close(descriptor);
        ::unlink(name.c_str());
        return nullptr;
    }
    path = std::move(name);
    return stream;
}

VrError TemporaryFile::Init(std::uint64_t position) {
    Release();
    if (!manager->IsTempDirectoryExists()) {
        return VrErrorFailed;
    }
    try {
        // Before the file, so that a want of memory leaves none behind.
        auto buffer = std::make_unique_for_overwrite<char[]>(kStreamBufferBytes);
        file = CreateTemporaryFile(path, manager->GetTempDirectory());
        if (file == nullptr) {
            return VrErrorFailed;
        }
        streamBuffer = std::move(buffer);
    } catch (const std::bad_alloc&) {
        return VrErrorFailed;
    }
    // A refusal leaves the stream with its own small buffer: slower, and still right.
    std::ignore = std::setvbuf(file, streamBuffer.get(), _IOFBF, kStreamBufferBytes);
    start = position;
    end = position;
    return VrSuccess;
}

VrError TemporaryFile::Add(std::span<const std::uint8_t> bytes) {
    // Kept: no bytes are one item of size 0, of which a stream writes none
    // (TemporaryFileTest.RefusesToAppendNothing).
    if (file == nullptr || bytes.empty()) {
        return VrErrorFailed;
    }
    const bool written =
        bytes.size() < kDirectWriteBytes ? WriteBuffered(bytes) : WriteDirectly(bytes);
    if (!written) {
        needSeekToEnd = true;  // part of the bytes may stand behind the end
        std::clearerr(file);
        return VrErrorFailed;
    }
    end += bytes.size();
    return VrSuccess;
}

bool TemporaryFile::WriteBuffered(std::span<const std::uint8_t> bytes) {
    if (needSeekToEnd) {
        needSeekToEnd = false;
        // The end of what was appended, and not of the file: a failed append is written over.
        if (::fseeko(file, static_cast<off_t>(end - start), SEEK_SET) != 0) {
            return false;
        }
    }
    // Flushed each time: a stream that cannot write out its buffer drops it, and with it earlier
    // appends that were reported as stored.
    return std::fwrite(bytes.data(), bytes.size(), 1, file) == 1 && std::fflush(file) == 0;
}

bool TemporaryFile::WriteDirectly(std::span<const std::uint8_t> bytes) {
    // The stream forgets what it read ahead, of which the write may replace a part, ...
    if (std::fflush(file) != 0) {
        return false;
    }
    auto offset = static_cast<off_t>(end - start);
    while (!bytes.empty()) {
        const ssize_t count = ::pwrite(::fileno(file), bytes.data(), bytes.size(), offset);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(count));
        offset += count;
    }
    needSeekToEnd = true;  // ... and its own position stays where it was
    return true;
}

VrError TemporaryFile::GetData(std::uint64_t from, std::uint64_t to, AlignedBytes& out) {
    if (to <= from || from < start || to > end) {
        return VrErrorInvalidParameter;
    }
    // Set before the seek: a failed seek, too, leaves the position unknown.
    needSeekToEnd = true;
    if (::fseeko(file, static_cast<off_t>(from - start), SEEK_SET) != 0) {
        return VrErrorFailed;
    }
    try {
        out.resize(static_cast<std::size_t>(to - from));
    } catch (const std::bad_alloc&) {
        return VrErrorFailed;
    }
    // One item of the whole size, so that a short read is a failure and never a half result.
    if (fread_s(out.data(), out.size(), out.size(), 1, file) != 1) {
        std::clearerr(file);
        return VrErrorFailed;
    }
    return VrSuccess;
}

bool TemporaryFile::GetRange(std::uint64_t& startPosition, std::uint64_t& endPosition) const {
    startPosition = start;
    endPosition = end;
    return file != nullptr;
}

std::uint64_t TemporaryFile::GetLength() const {
    return end - start;
}

void TemporaryFile::Release() {
    if (file != nullptr) {
        std::ignore =
            std::fclose(file);  // what it may still fail to write out is deleted in the next line
        ::unlink(path.c_str());
    }
    path.clear();
    file = nullptr;
    streamBuffer.reset();
    start = 0;
    end = 0;
    needSeekToEnd = false;
}

}  // namespace vorrel

#include "OutputFile.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <utility>
#include <vector>

#include "ExitCode.h"
#include "SavePlan.h"

namespace vorrel::cli {
namespace {

constexpr std::size_t kLongestStagedName = 200;  // of 255, the rest for our own additions
constexpr int kMostFreeNames = 1000;

std::string SystemReason(int error) {
    return std::strerror(error);  // one thread calls it
}

std::pair<std::string, std::string> SplitPath(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return {path.substr(0, slash + 1), path.substr(slash + 1)};
}

bool Exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

bool Synchronize(const std::string& path, int flags) {
    const int descriptor = ::open(path.c_str(), flags | O_CLOEXEC);
    if (descriptor < 0) {
        return false;
    }
    const bool done = ::fsync(descriptor) == 0;
    return ::close(descriptor) == 0 && done;
}

/// The first `count` bytes of a file, empty when it has not so many; `bytes` receives its length.
std::vector<unsigned char> ReadStart(const std::string& path, std::size_t count,
                                     std::uint64_t& bytes) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return {};
    }
    bytes = static_cast<std::uint64_t>(status.st_size);
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"),
                                                               &std::fclose);
    std::vector<unsigned char> start(count);
    if (file == nullptr || std::fread(start.data(), start.size(), 1, file.get()) != 1) {
        return {};
    }
    return start;
}

std::uint64_t Number(const std::vector<unsigned char>& bytes, std::size_t offset,
                     std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t index = 0; index < width; ++index) {
        value |= std::uint64_t{bytes[offset + index]} << (8 * index);
    }
    return value;
}

bool Holds(const std::vector<unsigned char>& bytes, std::size_t offset, const char* id) {
    return std::memcmp(bytes.data() + offset, id, 4) == 0;
}

/// Renames without ever replacing a file. @return 0 or an errno, EEXIST among them.
int RenameToFreeName(const std::string& from, const std::string& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return 0;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return errno;
    }
    // A file system that has no such rename: a second name, which never replaces one.
    if (::link(from.c_str(), to.c_str()) == 0) {
        return ::unlink(from.c_str()) == 0 ? 0 : errno;
    }
    if (errno == EEXIST) {
        return errno;
    }
    // Nor links (FAT): the name is taken first, then exchanged.
    const int descriptor = ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (descriptor < 0) {
        return errno;
    }
    ::close(descriptor);
    return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

}  // namespace

std::string ResolveTarget(const std::string& path) {
    if (path.empty()) {
        throw Failure(ExitCode::Usage, "the name of the file to be written is empty");
    }
    std::string absolute = path;
    if (absolute.front() != '/') {
        std::error_code error;
        const std::filesystem::path current = std::filesystem::current_path(error);
        if (error) {
            throw Failure(ExitCode::Usage, path + ": the current directory no longer exists");
        }
        absolute = current.string() + "/" + path;
    }
    // An existing file by its real name: a link is written through, not replaced.
    const std::unique_ptr<char, void (*)(void*)> real(::realpath(absolute.c_str(), nullptr),
                                                      &std::free);
    if (real != nullptr) {
        return real.get();
    }
    const int reason = errno;
    const auto [directory, name] = SplitPath(absolute);
    if (name.empty() || name == "." || name == "..") {
        throw Failure(ExitCode::Usage, path + ": there is no such directory");
    }
    if (reason == ELOOP) {
        throw Failure(ExitCode::Usage, path + ": " + SystemReason(reason));
    }
    const std::unique_ptr<char, void (*)(void*)> realDirectory(
        ::realpath(directory.c_str(), nullptr), &std::free);
    if (realDirectory == nullptr) {
        const std::string given = SplitPath(path).first;
        const std::string shown = given.size() > 1 ? given.substr(0, given.size() - 1) : given;
        throw Failure(ExitCode::Usage, errno == ENOENT
                                           ? path + ": there is no directory " + shown
                                           : path + ": the directory " + shown +
                                                 " cannot be used: " + SystemReason(errno));
    }
    std::string resolved = realDirectory.get();
    if (resolved.back() != '/') {
        resolved += '/';
    }
    return resolved + name;
}

OutputFile::OutputFile(std::string targetPath, bool mayReplace)
    : target(std::move(targetPath)), force(mayReplace) {
    const auto [directory, name] = SplitPath(target);
    const std::string stem = directory + "." + name.substr(0, kLongestStagedName) + ".partial-" +
                             std::to_string(::getpid());
    staging = stem;
    // A file of an earlier process with our number may be somebody's last copy.
    for (int attempt = 2; Exists(staging); ++attempt) {
        staging = stem + "-" + std::to_string(attempt);
    }
}

OutputFile::OutputFile(OutputFile&& other) noexcept
    : target(std::move(other.target)),
      staging(std::exchange(other.staging, {})),
      force(other.force),
      keepStaged(other.keepStaged),
      guard(std::exchange(other.guard, {})) {}

OutputFile::~OutputFile() {
    Discard();
}

void OutputFile::Discard() noexcept {
    if (!staging.empty() && !keepStaged) {
        ::unlink(staging.c_str());
    }
    if (!guard.empty()) {
        ::unlink(guard.c_str());
    }
    staging.clear();
    guard.clear();
}

double OutputFile::StagedBytes() const {
    struct stat status {};
    return ::lstat(staging.c_str(), &status) == 0 ? static_cast<double>(status.st_size) : 0.0;
}

bool OutputFile::GuardDirectory() {
    const std::string path = staging + ".abandoned";
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (descriptor < 0) {
        return false;
    }
    ::close(descriptor);
    guard = path;
    return true;
}

void OutputFile::Check() const {
    struct stat status {};
    if (::stat(target.c_str(), &status) == 0) {
        if (S_ISDIR(status.st_mode)) {
            throw Failure(ExitCode::Usage, target + " is a directory");
        }
        if (!S_ISREG(status.st_mode)) {
            throw Failure(ExitCode::Usage, target + " is not a regular file");
        }
        if (!force) {
            throw Failure(ExitCode::Usage, target + " exists; --force replaces it");
        }
        struct stat parent {};
        if (::stat(SplitPath(target).first.c_str(), &parent) == 0 &&
            !MayReplace(parent.st_mode, parent.st_uid, status.st_uid, ::geteuid())) {
            throw Failure(ExitCode::Usage,
                          target + " is somebody else's and cannot be replaced in its directory");
        }
    } else if (Exists(target)) {
        throw Failure(ExitCode::Usage, target + " is a link to a file that does not exist");
    }
    const auto [directory, name] = SplitPath(target);
    if (const long longest = ::pathconf(directory.c_str(), _PC_NAME_MAX);
        longest > 0 && name.size() > static_cast<std::size_t>(longest)) {
        throw Failure(ExitCode::Usage, target + ": the name is too long");
    }
    // Only the attempt tells: permissions, read-only volumes, places that take no files.
    const int descriptor = ::open(staging.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (descriptor < 0) {
        // Nothing that another command line would mend.
        const bool exhausted =
            errno == ENOSPC || errno == EDQUOT || errno == EMFILE || errno == ENFILE;
        throw Failure(exhausted ? ExitCode::Storage : ExitCode::Usage,
                      target + " cannot be written: " + SystemReason(errno));
    }
    ::close(descriptor);
    ::unlink(staging.c_str());
}

std::string OutputFile::Commit() {
    if (!Synchronize(staging, O_RDONLY)) {
        throw Failure(ExitCode::Storage, target + ": the file could not be brought to the disk: " +
                                             SystemReason(errno));
    }
    std::string name = target;
    int error = EEXIST;
    int attempt = 0;
    if (force) {
        error = ::rename(staging.c_str(), name.c_str()) == 0 ? 0 : errno;
        attempt = 1;
    }
    // After a refused replacement, too, a name beside it is better than a hidden one.
    const int refused = force ? error : EEXIST;
    for (; attempt < kMostFreeNames && (error == EEXIST || (error != 0 && error == refused));
         ++attempt) {
        name = PartPath(target, static_cast<std::size_t>(attempt));
        error = RenameToFreeName(staging, name);
    }
    if (error != 0) {
        keepStaged = true;
        throw Failure(ExitCode::Storage,
                      target + ": the file could not be given its name: " + SystemReason(error) +
                          "; the recording is in " + staging);
    }
    staging.clear();
    // The name, too, is to survive a power cut; a file system that cannot promise it is no error.
    std::ignore = Synchronize(SplitPath(name).first, O_RDONLY | O_DIRECTORY);
    return name;
}

bool MayReplace(unsigned directoryMode, unsigned directoryOwner, unsigned fileOwner,
                unsigned user) {
    return (directoryMode & S_ISVTX) == 0 || user == 0 || user == directoryOwner ||
           user == fileOwner;
}

std::optional<FileIdentity> IdentityOf(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return FileIdentity(status.st_dev, status.st_ino);
}

std::string FreeName(const std::string& path) {
    std::string name = path;
    for (std::size_t part = 1; Exists(name); ++part) {
        name = PartPath(path, part);
    }
    return name;
}

FileSummary SummarizeWav(const std::string& path) {
    constexpr std::size_t kHeaderBytes = 44;
    constexpr std::size_t kRiffSize = 4;
    constexpr std::size_t kBlockAlign = 32;
    constexpr std::size_t kDataSize = 40;
    FileSummary summary;
    const std::vector<unsigned char> header = ReadStart(path, kHeaderBytes, summary.bytes);
    if (header.empty() || !Holds(header, 0, "RIFF") || !Holds(header, 8, "WAVE")) {
        return summary;
    }
    if (const std::uint64_t frameBytes = Number(header, kBlockAlign, 2); frameBytes > 0) {
        summary.frames = Number(header, kDataSize, 4) / frameBytes;
        summary.complete = Number(header, kRiffSize, 4) + 8 == summary.bytes;
    }
    return summary;
}

FileSummary SummarizeDsf(const std::string& path) {
    constexpr std::size_t kHeaderBytes = 92;
    constexpr std::size_t kTotalSize = 12;
    constexpr std::size_t kTagPosition = 20;
    constexpr std::size_t kFormat = 28;
    constexpr std::size_t kChannels = 52;
    constexpr std::size_t kSamples = 64;
    constexpr std::size_t kBlockSize = 72;
    constexpr std::size_t kData = 80;
    constexpr std::size_t kDataSize = 84;
    constexpr std::uint64_t kDataChunkHead = 12;
    FileSummary summary;
    const std::vector<unsigned char> header = ReadStart(path, kHeaderBytes, summary.bytes);
    if (header.empty() || !Holds(header, 0, "DSD ") || !Holds(header, kFormat, "fmt ") ||
        !Holds(header, kData, "data")) {
        return summary;
    }
    summary.frames = Number(header, kSamples, 8);
    TakeFormat format;
    format.dsd = true;
    format.channels = static_cast<std::uint32_t>(Number(header, kChannels, 4));
    const std::uint64_t end = kHeaderBytes + format.PayloadBytes(summary.frames);
    const std::uint64_t tag = Number(header, kTagPosition, 8);
    summary.complete = Number(header, kTotalSize, 8) == summary.bytes &&
                       Number(header, kBlockSize, 4) == TakeFormat::kDsfBlockBytes &&
                       Number(header, kDataSize, 8) == end - kHeaderBytes + kDataChunkHead &&
                       (tag == 0 ? summary.bytes == end : tag == end && summary.bytes > end);
    return summary;
}

}  // namespace vorrel::cli

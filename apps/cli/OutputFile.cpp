#include "OutputFile.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <utility>

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
        absolute = std::filesystem::current_path(error).string() + "/" + path;
    }
    // An existing file by its real name: a link is written through, not replaced.
    const std::unique_ptr<char, void (*)(void*)> real(::realpath(absolute.c_str(), nullptr),
                                                      &std::free);
    if (real != nullptr) {
        return real.get();
    }
    const auto [directory, name] = SplitPath(absolute);
    if (name.empty() || name == "." || name == "..") {
        throw Failure(ExitCode::Usage, path + ": there is no such directory");
    }
    const std::unique_ptr<char, void (*)(void*)> realDirectory(
        ::realpath(directory.c_str(), nullptr), &std::free);
    if (realDirectory == nullptr) {
        throw Failure(ExitCode::Usage,
                      path + ": the directory " + directory + ": " + SystemReason(errno));
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
      keepStaged(other.keepStaged) {}

OutputFile::~OutputFile() {
    if (!staging.empty() && !keepStaged) {
        ::unlink(staging.c_str());
    }
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
        throw Failure(ExitCode::Usage, target + " cannot be written: " + SystemReason(errno));
    }
    ::close(descriptor);
    ::unlink(staging.c_str());
}

std::string OutputFile::Commit() {
    const auto fail = [this](const std::string& what, int error) {
        keepStaged = true;
        return Failure(ExitCode::Storage, target + ": " + what + ": " + SystemReason(error) +
                                              "; the recording is in " + staging);
    };
    if (!Synchronize(staging, O_RDONLY)) {
        throw fail("the file could not be brought to the disk", errno);
    }
    std::string name = target;
    int error = EEXIST;
    if (force) {
        error = ::rename(staging.c_str(), name.c_str()) == 0 ? 0 : errno;
    } else {
        for (int attempt = 0; attempt < kMostFreeNames && error == EEXIST; ++attempt) {
            name = PartPath(target, static_cast<std::size_t>(attempt));
            error = RenameToFreeName(staging, name);
        }
    }
    if (error != 0) {
        throw fail("the file could not be given its name", error);
    }
    staging.clear();
    // The name, too, is to survive a power cut; a file system that cannot promise it is no error.
    std::ignore = Synchronize(SplitPath(name).first, O_RDONLY | O_DIRECTORY);
    return name;
}

WavSummary SummarizeWav(const std::string& path) {
    constexpr std::size_t kHeaderBytes = 44;
    constexpr std::size_t kRiffSize = 4;
    constexpr std::size_t kBlockAlign = 32;
    constexpr std::size_t kDataSize = 40;
    WavSummary summary;
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return summary;
    }
    summary.bytes = static_cast<std::uint64_t>(status.st_size);
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"),
                                                               &std::fclose);
    std::array<unsigned char, kHeaderBytes> header{};
    if (file == nullptr || std::fread(header.data(), header.size(), 1, file.get()) != 1 ||
        std::memcmp(header.data(), "RIFF", 4) != 0 ||
        std::memcmp(header.data() + 8, "WAVE", 4) != 0) {
        return summary;
    }
    const auto number = [&header](std::size_t offset, std::size_t width) {
        std::uint64_t value = 0;
        for (std::size_t index = 0; index < width; ++index) {
            value |= std::uint64_t{header[offset + index]} << (8 * index);
        }
        return value;
    };
    if (const std::uint64_t frameBytes = number(kBlockAlign, 2); frameBytes > 0) {
        summary.frames = number(kDataSize, 4) / frameBytes;
        summary.complete = number(kRiffSize, 4) + 8 == summary.bytes;
    }
    return summary;
}

}  // namespace vorrel::cli

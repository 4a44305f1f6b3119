#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <string_view>
#include <tuple>
#include <utility>

#include "manager/VorrelManager.h"
#include "platform/SystemHelpers.h"

namespace vorrel {
namespace {

constexpr std::string_view kSpillFilePrefix = "tmp";

}  // namespace

VrError VorrelManager::SaveFile(const std::vector<VrSaveSetting>* settings) {
    if (settings == nullptr) {
        return VrErrorInvalidParameter;
    }
    if (State() == ManagerState::Uninitialized) {
        return VrErrorNotInitialized;
    }
    std::vector<VrSaveSettingInternal> files;
    files.reserve(settings->size());
    for (const VrSaveSetting& setting : *settings) {
        files.push_back({setting.path, setting.start, setting.end, setting.gain, setting.tags});
    }
    // Kept: the list is replaced before the worker is asked whether it is busy; a worker that is
    // has its own share of the old one (SaveRequestTest.ASaveDuringASaveFailsAndHarmsNothing).
    saveSettings = std::make_shared<const std::vector<VrSaveSettingInternal>>(std::move(files));
    return saveThread.SaveFiles(saveSettings, recordData);
}

VrError VorrelManager::SaveFileProgress(std::int32_t* fileProgress, std::int32_t* totalProgress) {
    if (fileProgress == nullptr || totalProgress == nullptr) {
        return VrErrorInvalidParameter;
    }
    if (State() == ManagerState::Uninitialized) {
        return VrErrorNotInitialized;
    }
    return saveThread.GetProgress(*fileProgress, *totalProgress);
}

VrError VorrelManager::SaveFileCancel(bool deleteFile) {
    std::ignore = saveThread.SaveCancel(deleteFile);
    return VrSuccess;
}

VrError VorrelManager::GetPreviewData(std::uint64_t start, std::uint64_t end, std::int16_t* buffer,
                                      bool available) {
    if (buffer == nullptr) {
        return VrErrorInvalidParameter;
    }
    if (State() == ManagerState::Uninitialized) {
        return VrErrorNotInitialized;
    }
    std::vector<std::int16_t> frames;
    if (const VrError error = previewData.GetData(start, end, frames, available);
        error != VrSuccess) {
        return error;
    }
    const std::size_t sizeBytes = frames.size() * sizeof(std::int16_t);
    const std::uint64_t capacityBytes = previewData.GetChannels() * (end - start) * 2;
    // Bounded by what the host was promised, should a start have changed the channels meanwhile.
    return memcpy_s(buffer, static_cast<std::size_t>(capacityBytes), frames.data(), sizeBytes) == 0
               ? VrSuccess
               : VrErrorFailed;
}

VrError VorrelManager::GetPreviewDataLength(std::uint64_t* length, bool available) {
    if (length == nullptr) {
        return VrErrorInvalidParameter;
    }
    if (State() == ManagerState::Uninitialized) {
        return VrErrorNotInitialized;
    }
    *length = previewData.GetLength(available);
    return VrSuccess;
}

VrError VorrelManager::SetTempDirectory(const char* path) {
    if (State() == ManagerState::Uninitialized) {
        return VrErrorNotInitialized;
    }
    if (State() != ManagerState::Initialized && State() != ManagerState::Ready) {
        return VrErrorInvalidState;
    }
    const bool isFirst = *GetTempDirectory() == '\0';
    const bool isDirectory = PathIsDirectory(path) != 0;
    if (path == nullptr || (!isDirectory && !isFirst)) {
        return VrErrorInvalidParameter;
    }
    // All that memory may be short for comes first: files that are deleted do not come back.
    const std::string& kept = KeepTempDirectory(path);
    if (!isDirectory) {
        // Kept: the first path stays although it is refused, so that storing fails cleanly with a
        // missing directory (SaveRequestTest.KeepsTheFirstTempDirectoryAlthoughItIsRefused).
        tempDirectory = &kept;
        return VrErrorInvalidParameter;
    }
    if (isFirst) {
        tempDirectory = &kept;
    }
    if (IsTempDirectoryExists()) {
        // Errors are silent: what cannot be deleted is no reason to refuse the directory.
        DeleteLeftoverSpillFiles();
    }
    tempDirectory = &kept;
    return VrSuccess;
}

void VorrelManager::DeleteLeftoverSpillFiles() {
    // The system's own listing: that of the C++ library ends the process when memory is short.
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(GetTempDirectory()), &::closedir);
    if (directory == nullptr) {
        return;
    }
    // In the directory that was opened, whatever its path may lead to by now.
    const int descriptor = ::dirfd(directory.get());
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread has this listing
    while (const dirent* const entry = ::readdir(directory.get())) {
        const char* const name = entry->d_name;
        struct stat status {};
        // The link's own status: what a link points to is not ours.
        if (std::string_view(name).starts_with(kSpillFilePrefix) &&
            ::fstatat(descriptor, name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(status.st_mode)) {
            std::ignore = ::unlinkat(descriptor, name, 0);
        }
    }
}

const std::string& VorrelManager::KeepTempDirectory(const char* path) {
    const auto known = std::ranges::find(tempDirectories, std::string_view(path));
    return known != tempDirectories.end() ? *known : tempDirectories.emplace_back(path);
}

const char* VorrelManager::GetTempDirectory() {
    const std::string* directory = tempDirectory.load();
    return directory == nullptr ? "" : directory->c_str();
}

bool VorrelManager::IsTempDirectoryExists() {
    return PathIsDirectory(GetTempDirectory());
}

}  // namespace vorrel

#include "TakeHost.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <stdexcept>
#include <utility>
#include <vector>

namespace example {
namespace {

constexpr std::uint64_t kUsualRateHz = 48'000;
constexpr std::uint16_t kBits = 24;
constexpr std::uint64_t kWavHeaderBytes = 44;  // nothing else is in the file, without tags

void Require(VrError error, const char* what) {
    if (error != VrSuccess) {
        throw std::runtime_error(std::string(what) + " failed with " + std::to_string(error));
    }
}

/// Brings a complete file safely to the disk.
bool Synchronise(const std::filesystem::path& path) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const bool done = descriptor >= 0 && ::fsync(descriptor) == 0;
    if (descriptor >= 0) {
        ::close(descriptor);
    }
    return done;
}

}  // namespace

TakeHost::TakeHost(Take wish) : take(std::move(wish)) {
    take.out = std::filesystem::absolute(take.out);  // the engine wants a directory in front
    staging = take.out;
    staging.replace_filename("." + take.out.filename().string() + ".partial");
}

std::shared_ptr<TakeHost> TakeHost::Start(Take wish) {
    std::shared_ptr<TakeHost> host(new TakeHost(std::move(wish)));
    try {
        Require(Vorrel_Init(host), "Vorrel_Init");
        host->Open();
        // Accepted at once; a notification tells how it went.
        Require(Vorrel_Start(), "Vorrel_Start");
    } catch (...) {
        std::error_code ignored;
        std::filesystem::remove_all(host->spillDirectory, ignored);
        throw;
    }
    return host;
}

void TakeHost::Open() {
    if (std::filesystem::exists(take.out)) {
        throw std::runtime_error(take.out.string() + " exists");  // now, not after the concert
    }
    // The engine clears its directory of files named tmp*: it gets one of its own.
    std::string pattern = (std::filesystem::temp_directory_path() / "take-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("no temporary directory can be made: " + pattern);
    }
    spillDirectory = pattern;
    Require(Vorrel_SetTempDirectory(pattern.c_str()), "Vorrel_SetTempDirectory");

    std::vector<std::string> names;
    Require(Vorrel_GetAudioDevices(&names), "Vorrel_GetAudioDevices");
    if (names.empty()) {
        throw std::runtime_error("no recorder is connected");
    }
    Require(Vorrel_SetAudioDevice(names.front().c_str()), "Vorrel_SetAudioDevice");
    std::shared_ptr<VrAudioDeviceInfo> info;
    Require(Vorrel_GetAudioDeviceInfo(&info), "Vorrel_GetAudioDeviceInfo");
    const std::vector<std::uint64_t>& rates = info->PCM_supported_freq;
    if (rates.empty()) {
        throw std::runtime_error("the recorder offers no PCM rate");
    }
    channels = info->i_ch;
    rateHz = std::find(rates.begin(), rates.end(), kUsualRateHz) != rates.end() ? kUsualRateHz
                                                                                : rates.front();
    const VrRecordSetting setting{.rec_type = 0, .freq = rateHz, .bits = kBits};
    Require(Vorrel_SetRecordSetting(&setting), "Vorrel_SetRecordSetting");
}

void TakeHost::Stop() {
    // Refused where nothing runs: then the start has failed, and its message is on the way.
    if ((state == State::Starting || state == State::Recording) &&
        Vorrel_Stop(false) == VrSuccess) {
        state = State::Stopping;
    }
}

void TakeHost::Vorrel_NotifyOperationProc(VrRecOperation operation) {
    if (operation == VrRecOperationDeviceStarted && state == State::Starting) {
        state = State::Recording;
    } else if (operation == VrRecOperationStopped) {
        Save();
    } else if (operation == VrRecOperationSaveFinished) {
        JudgeFile();
    }
}

void TakeHost::Vorrel_NotifyStreamPosProc(double seconds) {
    if (take.seconds && seconds >= *take.seconds) {
        Stop();
    }
}

void TakeHost::Vorrel_NotifyConvertPosProc(double seconds) {
    if (take.onPreview) {
        take.onPreview(seconds);
    }
}

void TakeHost::Vorrel_NotifyErrorMessageProc(VrMessageKind kind, const std::string& text) {
    std::cerr << "the engine reports message " << kind << ' ' << text << '\n';
    const bool storageFailed =
        kind == VrMessageRecordWriteFailed || kind == VrMessageTempDirectoryMissing;
    if (kind == VrMessageDeviceError && state == State::Starting) {
        Finish(false, "the recorder could not be started");
    } else if (kind == VrMessageDeviceError || storageFailed) {
        Stop();  // what has been recorded is saved; while saving, a lost recorder means nothing
    }
}

void TakeHost::Save() {
    if (take.onRecorded) {
        take.onRecorded();
    }
    if (Vorrel_GetPreviewDataLength(&frames) != VrSuccess || frames == 0) {
        Finish(false, "nothing was recorded");
        return;
    }
    VrSaveSetting file;
    file.path = staging.string();
    // The engine cuts fractions off; the middle of a frame cannot become its neighbour.
    file.end = (static_cast<double>(frames) + 0.5) / static_cast<double>(rateHz);
    const std::vector<VrSaveSetting> request{file};
    state = State::Saving;
    if (Vorrel_SaveFile(&request) != VrSuccess) {
        Finish(false, "the file cannot be saved");
    }
}

void TakeHost::JudgeFile() {
    // Of success there is no notification, and a failure's may come later: the file itself tells.
    const std::uintmax_t complete = kWavHeaderBytes + frames * channels * (kBits / 8);
    std::error_code error;
    if (std::filesystem::file_size(staging, error) != complete || !Synchronise(staging)) {
        std::filesystem::remove(staging, error);
        Finish(false, take.out.string() + " could not be saved");
        return;
    }
    std::filesystem::rename(staging, take.out, error);
    if (error) {
        Finish(true, "saved as " + staging.string() + ": " + error.message());
        return;
    }
    Finish(true, take.out.string() + " is saved");
}

void TakeHost::Finish(bool saved, const std::string& text) {
    state = State::Done;
    (saved ? std::cout : std::cerr) << text << '\n';
    // A real host asks for another place before it gives up the only copy of a recording.
    if (Vorrel_New() == VrSuccess) {
        std::error_code ignored;
        std::filesystem::remove_all(spillDirectory, ignored);
    }
    take.onDone(saved);
}

}  // namespace example

#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/Process.h"
#include "support/TempDirectory.h"

namespace vorrel::test {

/// Places for one run of the program: a directory for its files, one for its temporary data. Both
/// are looked at afterwards.
class CliPlaces {
public:
    std::string File(const std::string& name) const { return files.File(name); }
    const std::string& FilesPath() const { return files.Path(); }
    const std::string& TempPath() const { return temp.Path(); }

    /// Names in the directory of files.
    std::set<std::string> Files() const { return Names(files.Path()); }
    /// Whether no temporary data is left.
    bool TempIsEmpty() const { return std::filesystem::is_empty(temp.Path()); }

    /// `program record ... --temp-dir TEMP --json` with further arguments.
    Process::Setup Record(const std::string& program, std::vector<std::string> arguments) const {
        Process::Setup setup;
        setup.arguments = {program, "record", "--json", "--temp-dir", temp.Path()};
        setup.arguments.insert(setup.arguments.end(), arguments.begin(), arguments.end());
        return setup;
    }

    /// Names of what was rescued to the temporary place; throws when there is anything else.
    std::set<std::string> Rescued() const {
        std::set<std::string> names = Names(temp.Path());
        for (const std::string& name : names) {
            if (name.find("-rescued") == std::string::npos) {
                throw std::runtime_error("left in the temporary place: " + name);
            }
        }
        return names;
    }
    std::string TempFile(const std::string& name) const { return temp.File(name); }

private:
    static std::set<std::string> Names(const std::string& path) {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path)) {
            names.insert(entry.path().filename().string());
        }
        return names;
    }

    TempDirectory files;
    TempDirectory temp;
};

/// The same started by a shell that runs `preparation` first: limits, closed streams, directories.
inline Process::Setup After(const std::string& preparation, Process::Setup setup) {
    std::vector<std::string> arguments = {"/bin/sh", "-c", preparation + "\nexec \"$@\"", "sh"};
    arguments.insert(arguments.end(), setup.arguments.begin(), setup.arguments.end());
    setup.arguments = std::move(arguments);
    return setup;
}

/// A pipe with a name that is full and that nobody reads.
class FullPipe {
public:
    explicit FullPipe(const std::string& path) {
        if (::mkfifo(path.c_str(), 0600) != 0 ||
            (descriptor = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)) < 0) {
            std::abort();
        }
        const std::string block(4096, 'x');
        while (::write(descriptor, block.data(), block.size()) > 0) {
        }
    }
    ~FullPipe() { ::close(descriptor); }
    FullPipe(const FullPipe&) = delete;
    FullPipe& operator=(const FullPipe&) = delete;

private:
    int descriptor = -1;
};

/// Reads on until the recording stands at a position of at least so many seconds; which ones are
/// told depends on the recorder's buffers.
inline bool AwaitPosition(Process& program, double seconds) {
    constexpr std::string_view kBegin = "\"position\",\"seconds\":";
    while (program.AwaitOut(std::string(kBegin)) && program.AwaitOut("}")) {
        const std::size_t begin = program.Out().rfind(kBegin) + kBegin.size();
        if (std::strtod(program.Out().c_str() + begin, nullptr) >= seconds) {
            return true;
        }
    }
    return false;
}

/// Reads on until the recording stands so many seconds further than the last position that has been
/// read: surely behind a pause that has just ended.
inline bool AwaitAdvance(Process& program, double seconds) {
    constexpr std::string_view kBegin = "\"position\",\"seconds\":";
    const std::size_t last = program.Out().rfind(kBegin);
    const double now = last == std::string::npos
                           ? 0.0
                           : std::strtod(program.Out().c_str() + last + kBegin.size(), nullptr);
    return AwaitPosition(program, now + seconds);
}

/// Reads on, from one `event` to the next, until a signal is no longer taken for the one before,
/// whose answer in stdout has just been awaited. The event has to come again and again.
inline bool AwaitNextRequest(Process& program, const std::string& event) {
    // It comes after the answer, so the signal is handled by now.
    bool came = program.AwaitOut(event);
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (came && std::chrono::steady_clock::now() < until) {
        came = program.AwaitOut(event);
    }
    return came;
}

/// A time of day that is so many seconds away, as --start-at has it.
inline std::string In(std::time_t seconds) {
    const std::time_t moment = std::time(nullptr) + seconds;
    std::tm local{};
    ::localtime_r(&moment, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

/// The objects of a --json output, in order; a line that is none fails with an exception.
inline std::vector<nlohmann::json> JsonLines(const std::string& text) {
    std::vector<nlohmann::json> objects;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = text.find('\n', start);
        objects.push_back(nlohmann::json::parse(text.substr(start, end - start)));
        start = end == std::string::npos ? text.size() : end + 1;
    }
    return objects;
}

/// Those of one event.
inline std::vector<nlohmann::json> Events(const std::string& text, const std::string& event) {
    std::vector<nlohmann::json> events;
    for (const nlohmann::json& object : JsonLines(text)) {
        if (object.at("event") == event) {
            events.push_back(object);
        }
    }
    return events;
}

}  // namespace vorrel::test

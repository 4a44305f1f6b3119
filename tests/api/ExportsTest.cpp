#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <string>

namespace {

/// Names of what the shared library defines for others, as `nm` reads them.
std::set<std::string> ExportedNames(const std::string& options) {
    const std::string command = "nm -D --defined-only " + options + " '" VORREL_LIBRARY "'";
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pipe(::popen(command.c_str(), "r"),
                                                               ::pclose);
    std::string output;
    std::array<char, 4096> chunk{};
    while (const std::size_t count = std::fread(chunk.data(), 1, chunk.size(), pipe.get())) {
        output.append(chunk.data(), count);
    }
    std::set<std::string> names;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        // address, type, name; the name may hold blanks when demangled
        const std::size_t type = line.find(' ');
        names.insert(line.substr(type + 3));
    }
    return names;
}

const std::set<std::string> kFunctions = {
    "Vorrel_EnableLoopback",
    "Vorrel_GetAudioDeviceInfo",
    "Vorrel_GetAudioDevices",
    "Vorrel_GetPreviewData",
    "Vorrel_GetPreviewDataLength",
    "Vorrel_GetRecordSetting",
    "Vorrel_GetRecordingPreviewData",
    "Vorrel_GetRecordingPreviewDataLength",
    "Vorrel_Init",
    "Vorrel_New",
    "Vorrel_Pause",
    "Vorrel_Resume",
    "Vorrel_SaveFile",
    "Vorrel_SaveFileCancel",
    "Vorrel_SaveFileProgress",
    "Vorrel_SetAudioDevice",
    "Vorrel_SetRecordSetting",
    "Vorrel_SetTempDirectory",
    "Vorrel_Start",
    "Vorrel_StartPlay",
    "Vorrel_StartPreRecording",
    "Vorrel_Stop",
};

TEST(ExportsTest, ExportsExactlyTwentyTwoFunctionsWithCNames) {
    std::set<std::string> functions;
    for (const std::string& name : ExportedNames("")) {
        if (name.starts_with("Vorrel_")) {
            functions.insert(name);
        }
    }

    EXPECT_EQ(kFunctions.size(), 22U);
    EXPECT_EQ(functions, kFunctions);
}

TEST(ExportsTest, ExportsNothingElseButTheMarkedClasses) {
    for (const std::string& name : ExportedNames("-C")) {
        if (!kFunctions.contains(name)) {
            EXPECT_TRUE(name.starts_with("vorrel::MainQueue::") ||
                        name.find("IVorrelDelegate") != std::string::npos)
                << name;
        }
    }
}

TEST(ExportsTest, ExportsTheThreeCallsOfTheMainQueue) {
    const std::set<std::string> names = ExportedNames("-C");

    EXPECT_TRUE(names.contains("vorrel::MainQueue::Descriptor()"));
    EXPECT_TRUE(names.contains("vorrel::MainQueue::Dispatch()"));
    EXPECT_EQ(std::ranges::count_if(
                  names, [](const auto& name) { return name.starts_with("vorrel::MainQueue::"); }),
              3);
}

}  // namespace

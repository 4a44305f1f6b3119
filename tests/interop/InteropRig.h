#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/FakeManager.h"
#include "support/Recording.h"
#include "support/TempDirectory.h"
#include "support/Tool.h"
#include "writer/SaveThread.h"

namespace vorrel::test {

inline const TagMap kJapaneseTags = {
    {"Title", "日本語"}, {"Artist", "①歌手"}, {"Alubum", "録音"}, {"AlbumArtist", "楽団"}};

inline bool Has(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

/// What mediainfo makes of tags: the kind of file, title, album, artist, album's artist.
inline ToolResult MediainfoOfTags(const std::string& file) {
    return RunTool(
        "mediainfo --Inform='General;%Format%|%Track%|%Album%|%Performer%|%Album/Performer%' " +
        file);
}

/// Reads files with a class of the python module mutagen.
class Mutagen {
public:
    /// @param module  The one of mutagen that has the class `type`.
    Mutagen(std::string module, std::string type)
        : moduleName(std::move(module)), typeName(std::move(type)) {}

    bool IsInstalled() const {
        return RunTool(kPython + (" -c 'import mutagen." + moduleName) + "' 2>&1").exitCode == 0;
    }
    /// A line with channels, rate, bits and samples of a channel; then a line with name, text and
    /// encoding of each tag, or an empty one.
    ToolResult Read(const std::string& file) const {
        const std::string script =
            "import sys; from mutagen." + moduleName + " import " + typeName + " as T;" +
            "f = T(sys.argv[1]);"
            "print(f.info.channels, f.info.sample_rate, f.info.bits_per_sample,"
            " round(f.info.length * f.info.sample_rate));"
            "print(*(k + \"=\" + str(v) + \"|\" + str(int(v.encoding))"
            " for k, v in sorted(f.tags.items())) if f.tags else (), sep=\"\\n\")";
        return RunTool(std::string("PYTHONIOENCODING=utf-8 ") + kPython + " -c " + Quoted(script) +
                       " " + file + " 2>&1");
    }

private:
    static constexpr const char* kPython = "/usr/bin/python3";
    const std::string moduleName;
    const std::string typeName;
};

/// A directory with one file that a save wrote.
class SavedFile {
protected:
    explicit SavedFile(const std::string& name) : path(directory.File(name)) {}

    /// Saves a recording as `setting` says. @return The file's path as a word for the shell.
    std::string SaveRecording(Recording& recording, const VrSaveSettingInternal& setting,
                              std::uint16_t bits = 16) {
        SaveThread thread(manager);
        thread.SetBits(bits);
        const auto list = std::make_shared<const std::vector<VrSaveSettingInternal>>(1, setting);
        EXPECT_EQ(thread.SaveFiles(list, recording.data), VrSuccess);
        thread.WaitFinished();
        EXPECT_TRUE(manager.Messages().empty());
        return Quoted(path);
    }

    const TempDirectory directory;
    FakeManager manager{directory.Path()};
    const std::string path;
};

}  // namespace vorrel::test

#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace vorrel {

/// Tag key to UTF-8 value. Known keys: "Title", "Alubum" (spelt so on purpose; "Album" is not
/// known), "Artist", "AlbumArtist". A missing key counts as an empty value.
using TagMap = std::map<std::string, std::string>;

/// One file to write, as the save worker keeps it.
struct VrSaveSettingInternal {
    std::string path;    ///< UTF-8; the directory part is everything up to the last "/".
    double start = 0.0;  ///< Seconds from the beginning of the recording.
    double end = 0.0;    ///< Seconds.
    double gain = 0.0;   ///< Decibels; 0 means unity.
    TagMap tags;
};

/// The files of one save request; manager and save worker each hold a share.
using SaveList = std::shared_ptr<const std::vector<VrSaveSettingInternal>>;

}  // namespace vorrel

#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "device/alsa/CaptureSetting.h"

namespace vorrel {

// Texts that the sound drivers keep for people (/proc/asound). Any bytes may come.

/// The settings under "Capture:" in the text of a USB card's stream ("card0/stream0"). Bits are
/// those of the "Bits:" line where there is one, else those of the format's name.
std::vector<CaptureSetting> ParseStreamText(std::string_view text);

/// The long name of a card in the list of cards ("cards"); empty where it is not told.
std::string ParseCardLongName(std::string_view cardList, int number);

}  // namespace vorrel

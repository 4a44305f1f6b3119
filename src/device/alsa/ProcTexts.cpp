#include "device/alsa/ProcTexts.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <optional>

namespace vorrel {
namespace {

constexpr std::string_view kBlanks = " \t\r";
constexpr std::uint32_t kBitsPerByte = 8;

struct NamedLayout {
    std::string_view name;
    std::uint32_t bits;
    std::uint32_t containerBytes;
};
constexpr std::array kLayouts = {
    NamedLayout{"S16_LE", 16, 2},  NamedLayout{"S16_BE", 16, 2},  NamedLayout{"S18_3LE", 18, 3},
    NamedLayout{"S18_3BE", 18, 3}, NamedLayout{"S20_3LE", 20, 3}, NamedLayout{"S20_3BE", 20, 3},
    NamedLayout{"S24_3LE", 24, 3}, NamedLayout{"S24_3BE", 24, 3}, NamedLayout{"S24_LE", 24, 4},
    NamedLayout{"S24_BE", 24, 4},  NamedLayout{"S32_LE", 32, 4},  NamedLayout{"S32_BE", 32, 4},
};

std::string_view TrimLeft(std::string_view text) {
    const std::size_t first = text.find_first_not_of(kBlanks);
    return first == std::string_view::npos ? std::string_view() : text.substr(first);
}

/// The next line, without its end, taken off the text.
std::string_view TakeLine(std::string_view& text) {
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

/// A decimal number that `text` begins with, taken off it with the blanks before it.
template <class Number>
std::optional<Number> TakeNumber(std::string_view& text) {
    text = TrimLeft(text);
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc()) {
        return std::nullopt;
    }
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return value;
}

/// What follows `prefix`, or nothing when the line does not begin with it.
std::optional<std::string_view> After(std::string_view line, std::string_view prefix) {
    if (!line.starts_with(prefix)) {
        return std::nullopt;
    }
    return line.substr(prefix.size());
}

/// "44100, 48000" or "8000 - 192000 (continuous)".
void ReadRates(std::string_view text, CaptureFormat& format) {
    format.ratesHz.clear();
    format.minimumRateHz = 0;
    format.maximumRateHz = 0;
    while (const auto rateHz = TakeNumber<std::uint32_t>(text)) {
        text = TrimLeft(text);
        if (text.starts_with('-')) {
            text.remove_prefix(1);
            const auto highest = TakeNumber<std::uint32_t>(text);
            if (highest.has_value() && *rateHz <= *highest) {
                format.ratesHz.clear();
                format.minimumRateHz = *rateHz;
                format.maximumRateHz = *highest;
            }
            return;
        }
        if (*rateHz != 0) {
            format.ratesHz.push_back(*rateHz);
        }
        if (!text.starts_with(',')) {
            return;
        }
        text.remove_prefix(1);
    }
}

/// The first name of the line that is an integer format.
void ReadLayout(std::string_view names, CaptureFormat& format) {
    while (!(names = TrimLeft(names)).empty()) {
        const std::string_view name = names.substr(0, names.find_first_of(kBlanks));
        names.remove_prefix(name.size());
        for (const NamedLayout& layout : kLayouts) {
            if (layout.name == name) {
                format.bits = layout.bits;
                format.containerBytes = layout.containerBytes;
                return;
            }
        }
    }
}

/// An alternate setting while its lines go by.
struct Setting {
    CaptureSetting result;
    CaptureFormat format;
    std::uint32_t bits = 0;  // of the "Bits:" line
};

void Finish(std::optional<Setting>& setting, std::vector<CaptureSetting>& settings) {
    if (setting.has_value()) {
        CaptureFormat& format = setting->format;
        if (format.containerBytes != 0 && format.channels != 0) {
            if (setting->bits != 0 && setting->bits <= format.containerBytes * kBitsPerByte) {
                format.bits = setting->bits;
            }
            setting->result.format = std::move(format);
        }
        settings.push_back(std::move(setting->result));
    }
    setting.reset();
}

void ReadLine(std::string_view line, Setting& setting) {
    if (const auto names = After(line, "Format:")) {
        ReadLayout(*names, setting.format);
    } else if (auto channels = After(line, "Channels:")) {
        setting.format.channels = TakeNumber<std::uint32_t>(*channels).value_or(0);
    } else if (auto bits = After(line, "Bits:")) {
        setting.bits = TakeNumber<std::uint32_t>(*bits).value_or(0);
    } else if (const auto rates = After(line, "Rates:")) {
        ReadRates(*rates, setting.format);
    }
}

}  // namespace

std::vector<CaptureSetting> ParseStreamText(std::string_view text) {
    std::vector<CaptureSetting> settings;
    std::optional<Setting> setting;
    bool isInInterface = false;
    std::uint8_t interfaceNumber = 0;
    bool captures = false;
    while (!text.empty()) {
        const std::string_view whole = TakeLine(text);
        const std::string_view line = TrimLeft(whole);
        // Sections begin at the margin; what a running stream tells of itself has "=" in it and
        // is taken for no number.
        if (!whole.empty() && line.size() == whole.size()) {
            Finish(setting, settings);
            isInInterface = false;
            captures = line.starts_with("Capture:");
        } else if (!captures) {
            continue;
        } else if (auto number = After(line, "Interface ")) {
            if (const auto found = TakeNumber<std::uint8_t>(*number)) {
                Finish(setting, settings);
                isInInterface = true;
                interfaceNumber = *found;
            }
        } else if (auto alternate = After(line, "Altset ")) {
            const auto found = TakeNumber<std::uint8_t>(*alternate);
            if (found.has_value() && isInInterface) {
                Finish(setting, settings);
                setting.emplace();
                setting->result.interfaceNumber = interfaceNumber;
                setting->result.alternateSetting = *found;
            }
        } else if (setting.has_value()) {
            ReadLine(line, *setting);
        }
    }
    Finish(setting, settings);
    return settings;
}

std::string ParseCardLongName(std::string_view cardList, int number) {
    while (!cardList.empty()) {
        std::string_view line = TakeLine(cardList);
        if (TakeNumber<int>(line) == number && TrimLeft(line).starts_with('[')) {
            return std::string(TrimLeft(TakeLine(cardList)));
        }
    }
    return {};
}

}  // namespace vorrel

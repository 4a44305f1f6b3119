#include "Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "ExitCode.h"

namespace vorrel::cli {
namespace {

constexpr const char* kBareFlag = "true";  // what CLI11 makes of a flag without a value
constexpr double kMostGain = 200.0;  // decibels; beyond any use and far inside the number range

void AddCommonOptions(CLI::App& command, CommonOptions& options) {
    command.add_flag("--json", options.json, "One JSON object a line on stdout")
        ->disable_flag_override();
    // The value only with "=": a bare --simulate must not swallow the file's name.
    command
        .add_flag("--simulate", options.simulated,
                  "Record from a simulated recorder; --simulate=CONFIG sets it up,\n"
                  "for example --simulate=source=sweep,channels=2,speed=1")
        ->type_name("[=CONFIG]");
}

/// The tags that the engine writes, by option.
constexpr std::pair<const char*, const char*> kTagOptions[] = {
    {"--title", "Title"},
    {"--artist", "Artist"},
    {"--album", "Alubum"},  // the engine's spelling of the key
    {"--album-artist", "AlbumArtist"},
};

double RequireDuration(const std::string& text) {
    const std::optional<double> seconds = ParseTime(text);
    if (!seconds) {
        throw Failure(ExitCode::Usage, "--duration \"" + text + "\" " + TimeRefusal(text));
    }
    if (*seconds <= 0.0) {
        throw Failure(ExitCode::Usage, "--duration \"" + text + "\" is no length of time");
    }
    return *seconds;
}

/// Digits that make a number above zero.
std::uint64_t RequireRate(const std::string& text) {
    std::uint64_t rate = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), rate);
    if (result.ec == std::errc::result_out_of_range && result.ptr == text.data() + text.size()) {
        throw Failure(ExitCode::Usage, "--rate " + text + " is higher than any recorder's");
    }
    if (result.ec != std::errc{} || result.ptr != text.data() + text.size() || rate == 0) {
        throw Failure(ExitCode::Usage, "--rate \"" + text + "\" is no sampling rate in Hz");
    }
    return rate;
}

std::uint32_t RequireBits(const std::string& text) {
    for (const std::uint32_t bits : {16U, 24U, 32U}) {
        if (text == std::to_string(bits)) {
            return bits;
        }
    }
    throw Failure(ExitCode::Usage, "--bits \"" + text + "\" is no sample width: 16, 24 or 32");
}

double RequireGain(const std::string& text) {
    const char* const end = text.data() + text.size();
    const bool signedTwice = text.rfind("+-", 0) == 0;
    const char* const start = text.data() + (text.rfind('+', 0) == 0 ? 1 : 0);
    double gain = 0.0;
    const auto result = std::from_chars(start, end, gain);
    if (result.ec == std::errc::invalid_argument || result.ptr != end || std::isnan(gain) ||
        signedTwice) {
        throw Failure(ExitCode::Usage, "--gain \"" + text + "\" is no number of decibels");
    }
    if (result.ec != std::errc{}) {
        gain = std::strtod(start, nullptr);  // tells too large from too small
    }
    if (!(std::abs(gain) <= kMostGain)) {
        throw Failure(ExitCode::Usage, "--gain is to be between -200 and 200 decibels");
    }
    return gain;
}

/// An option whose empty text would silently mean its default.
void RefuseEmpty(const CLI::App& command, const std::string& option, const std::string& text) {
    if (command.get_option(option)->count() > 0 && text.empty()) {
        throw Failure(ExitCode::Usage, option + " is empty");
    }
}

/// Whether a text is UTF-8 throughout: nothing overlong, no half of a surrogate pair.
bool IsUtf8(const std::string& text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto byte = [&text](std::size_t index) {
            return index < text.size() ? static_cast<unsigned char>(text[index]) : 0U;
        };
        const unsigned first = byte(i);
        const unsigned second = byte(i + 1);
        const std::size_t length = first < 0x80   ? 1
                                   : first < 0xC2 ? 0
                                   : first < 0xE0 ? 2
                                   : first < 0xF0 ? 3
                                   : first < 0xF5 ? 4
                                                  : 0;
        const bool badSecond = (first == 0xE0 && second < 0xA0) ||
                               (first == 0xED && second > 0x9F) ||
                               (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
        if (length == 0 || badSecond) {
            return false;
        }
        for (std::size_t next = 1; next < length; ++next) {
            if ((byte(i + next) & 0xC0U) != 0x80) {
                return false;
            }
        }
        i += length;
    }
    return true;
}

/// A file whose name says another format than the one it will have.
void CheckEnding(const std::string& file, bool dsd) {
    const std::size_t name = file.rfind('/') + 1;  // 0 without a "/"
    const std::size_t dot = file.find_last_of('.');
    std::string ending = dot == std::string::npos || dot < name ? "" : file.substr(dot);
    std::transform(ending.begin(), ending.end(), ending.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (const char* other : {".wav", ".wave", ".dsf", ".dff", ".wv", ".w64", ".rf64", ".flac",
                              ".aif", ".aiff", ".caf", ".mp3", ".ogg", ".opus", ".m4a", ".raw"}) {
        const bool fits = dsd ? ending == ".dsf" : ending == ".wav" || ending == ".wave";
        if (ending == other && !fits) {
            throw Failure(ExitCode::Usage,
                          file + (dsd ? ": a DSD recording becomes a DSF file; call it *.dsf, or "
                                        "record with --type pcm"
                                      : ": a PCM recording becomes a WAV file; call it *.wav, or "
                                        "record with --type dsd"));
        }
    }
}

void CheckRanges(const RecordOptions& record) {
    if (record.out.empty() && record.ranges.empty()) {
        throw Failure(ExitCode::Usage,
                      "record needs the name of a file to write, or --range START-END=FILE");
    }
    for (const Range& range : record.ranges) {
        if (!record.duration) {
            continue;
        }
        if (range.start >= *record.duration || range.end.value_or(0.0) > *record.duration) {
            throw Failure(ExitCode::Usage, "--range for " + range.file +
                                               " goes beyond --duration " +
                                               ClockText(*record.duration));
        }
    }
}

/// Arguments that are no command's: the first is what somebody took for one.
std::string UnknownCommand(const std::vector<std::string>& arguments) {
    for (const std::string& argument : arguments) {
        if (argument == "devices" || argument == "info" || argument == "record" ||
            argument == "doctor") {
            break;
        }
        if (!argument.empty() && argument.front() != '-') {
            return argument;
        }
    }
    return "";
}

/// What CLI11 has to say, as one line.
std::string OneLine(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    while (!text.empty() && text.back() == ' ') {
        text.pop_back();
    }
    return text;
}

}  // namespace

Options ParseOptions(const std::vector<std::string>& arguments) {
    Options options;
    CLI::App app("Records from a USB recorder to WAV and DSF files.", "vorrel");
    app.set_version_flag("--version", std::string("vorrel ") + VORREL_CLI_VERSION);
    app.require_subcommand(1);

    CLI::App* devices = app.add_subcommand("devices", "List the recorders");
    CLI::App* info = app.add_subcommand("info", "Show what a recorder can do");
    CLI::App* record = app.add_subcommand("record", "Record, then save");
    CLI::App* doctor = app.add_subcommand("doctor", "Look for what recording may fail at");
    for (CLI::App* command : {devices, info, record, doctor}) {
        AddCommonOptions(*command, options.common);
    }
    for (CLI::App* command : {info, record, doctor}) {
        command
            ->add_option("--device", options.common.device,
                         "The recorder's name (default: the first)")
            ->type_name("NAME");
    }

    std::string type = "pcm";
    std::string rate;
    std::string bits;
    std::string duration;
    std::string gain;
    std::vector<std::string> ranges;
    record->add_option("OUT", options.record.out,
                       "The file for the whole recording: WAV, with --type dsd DSF");
    record->add_option("--type", type, "pcm or dsd (default: pcm)")->type_name("TYPE");
    record->add_option("--rate", rate, "Sampling rate in Hz (default: 48000; with dsd 2822400)")
        ->type_name("HZ");
    record->add_option("--bits", bits, "Sample width: 16, 24 or 32 (default: 24); pcm only")
        ->type_name("BITS");
    record->add_option("--duration", duration, "Stop by itself after so much recording")
        ->type_name("SECONDS");
    record->add_option("--gain", gain, "Gain of the saved files in decibels")->type_name("DB");
    std::map<std::string, std::string> tagTexts;
    for (const auto& [option, key] : kTagOptions) {
        record->add_option(option, tagTexts[key], "Tag of the saved files")->type_name("TEXT");
    }
    record
        ->add_option("--range", ranges,
                     "Save a stretch to a file of its own; times as 90, 90.5 or 1:30.5;\n"
                     "no END = to the end; may be repeated")
        ->type_name("START-END=FILE")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->allow_extra_args(false);
    for (CLI::App* command : {record, doctor}) {
        command
            ->add_option("--temp-dir", options.record.tempDirectory,
                         "Where the recording is kept until it is saved")
            ->type_name("DIR");
    }
    record->add_flag("--force", options.record.force, "Replace existing files")
        ->disable_flag_override();
    record->add_flag("--quiet", options.common.quiet, "Say nothing but warnings and errors")
        ->disable_flag_override();

    if (arguments.empty()) {
        throw Failure(ExitCode::Usage,
                      "say what to do: devices, info, record or doctor (or --help)");
    }
    for (const std::string& argument : arguments) {
        for (const char* flag : {"--json", "--force", "--quiet"}) {
            if (argument.rfind(std::string(flag) + "=", 0) == 0) {
                throw Failure(ExitCode::Usage, std::string(flag) + " takes no value");
            }
        }
    }
    if (const std::string bogus = UnknownCommand(arguments); !bogus.empty()) {
        throw Failure(ExitCode::Usage, "there is no command \"" + bogus +
                                           "\"; there are devices, info, record and doctor");
    }

    try {
        // CLI11 takes its vector from the back.
        app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    } catch (const CLI::CallForHelp&) {
        const std::vector<CLI::App*> chosen = app.get_subcommands();
        options.text = chosen.empty() ? app.help() : chosen.front()->help("vorrel");
        return options;
    } catch (const CLI::CallForVersion& version) {
        options.text = std::string(version.what()) + "\n";
        return options;
    } catch (const CLI::ExtrasError&) {
        std::string texts;
        for (const std::string& text : app.remaining(true)) {
            texts += (texts.empty() ? "" : " ") + text;
        }
        throw Failure(ExitCode::Usage, "not expected: " + texts);
    } catch (const CLI::ParseError& error) {
        throw Failure(ExitCode::Usage, OneLine(error.what()));
    }

    const std::pair<CLI::App*, Command> commands[] = {{devices, Command::Devices},
                                                      {info, Command::Info},
                                                      {record, Command::Record},
                                                      {doctor, Command::Doctor}};
    for (const auto& [app_, command] : commands) {
        if (!app_->parsed()) {
            continue;
        }
        options.command = command;
        const CLI::Option* simulate = app_->get_option("--simulate");
        options.common.simulate = simulate->count() > 0;
        if (options.common.simulated == kBareFlag) {
            options.common.simulated.clear();
        }
    }
    if (options.command == Command::Info) {
        RefuseEmpty(*info, "--device", options.common.device);
    }
    if (options.command == Command::Doctor) {
        RefuseEmpty(*doctor, "--device", options.common.device);
        RefuseEmpty(*doctor, "--temp-dir", options.record.tempDirectory);
    }
    if (options.command != Command::Record) {
        return options;
    }

    RefuseEmpty(*record, "--device", options.common.device);
    RefuseEmpty(*record, "--temp-dir", options.record.tempDirectory);
    if (type != "pcm" && type != "dsd") {
        throw Failure(ExitCode::Usage, "--type \"" + type + "\" is neither pcm nor dsd");
    }
    options.record.dsd = type == "dsd";
    if (record->get_option("--rate")->count() > 0) {
        options.record.rateHz = RequireRate(rate);
    }
    if (record->get_option("--bits")->count() > 0) {
        if (options.record.dsd) {
            throw Failure(ExitCode::Usage, "--bits is for --type pcm: a DSD sample is one bit");
        }
        options.record.bits = RequireBits(bits);
    }
    if (record->get_option("--duration")->count() > 0) {
        options.record.duration = RequireDuration(duration);
    }
    if (record->get_option("--gain")->count() > 0) {
        options.record.gain = RequireGain(gain);
    }
    if (record->get_option("OUT")->count() > 0 && options.record.out.empty()) {
        throw Failure(ExitCode::Usage, "the name of the file to be written is empty");
    }
    for (const auto& [option, key] : kTagOptions) {
        // Without characters that can be counted, no file takes it.
        if (!IsUtf8(tagTexts[key])) {
            throw Failure(ExitCode::Usage, std::string(option) + " is no UTF-8 text");
        }
    }
    for (const auto& [key, text] : tagTexts) {
        if (!text.empty()) {
            options.record.tags[key] = text;
        }
    }
    for (const std::string& range : ranges) {
        options.record.ranges.push_back(ParseRange(range));
    }
    CheckRanges(options.record);
    CheckEnding(options.record.out, options.record.dsd);
    for (const Range& range : options.record.ranges) {
        CheckEnding(range.file, options.record.dsd);
    }
    return options;
}

}  // namespace vorrel::cli

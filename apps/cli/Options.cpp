#include "Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <utility>

#include "ExitCode.h"
#include "OptionValues.h"

namespace vorrel::cli {
namespace {

constexpr const char* kBareFlag = "true";  // what CLI11 makes of a flag without a value
constexpr double kLongestPreRoll = 600.0;  // seconds

struct NamedCommand {
    const char* name;
    Command command;
    const char* help;
};
constexpr std::array<NamedCommand, 5> kCommands = {{
    {"devices", Command::Devices, "List the recorders"},
    {"info", Command::Info, "Show what a recorder can do"},
    {"record", Command::Record, "Record, then save"},
    {"salvage", Command::Salvage, "Save what a recording that was killed has left"},
    {"doctor", Command::Doctor, "Look for what recording may fail at"},
}};
constexpr const char* kCommandNames = "devices, info, record, salvage and doctor";

/// The tags that the engine writes, by option.
constexpr std::pair<const char*, const char*> kTagOptions[] = {
    {"--title", "Title"},
    {"--artist", "Artist"},
    {"--album", "Alubum"},  // the engine's spelling of the key
    {"--album-artist", "AlbumArtist"},
};

/// What stands behind the options of `record`, before it is understood.
struct RecordTexts {
    std::string type = "pcm";
    std::string rate, bits, duration, gain, splitAt, maxFileTime, preRoll, startAt;
    std::vector<std::string> ranges, tags;
    std::map<std::string, std::string> tagOptions;
};

Failure Refusal(const std::string& text) {
    return Failure(ExitCode::Usage, text);
}

bool IsGiven(const CLI::App& command, const char* option) {
    return command.get_option(option)->count() > 0;
}

/// An option whose empty text would silently mean its default.
void RefuseEmpty(const CLI::App& command, const char* option, const std::string& text) {
    const CLI::Option* known = command.get_option_no_throw(option);
    if (known != nullptr && known->count() > 0 && text.empty()) {
        throw Refusal(std::string(option) + " is empty");
    }
}

// ---- What there is

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

void AddRecordOptions(CLI::App& command, Options& options, RecordTexts& texts) {
    RecordOptions& record = options.record;
    command.add_option("OUT", record.out,
                       "The file for the whole recording: WAV, with --type dsd DSF");
    const auto text = [&command](const char* name, std::string& value, const char* help,
                                 const char* type) {
        return command.add_option(name, value, help)->type_name(type);
    };
    // Given once or several times, one value each.
    const auto list = [&command](const char* name, std::vector<std::string>& values,
                                 const char* help, const char* type) {
        command.add_option(name, values, help)
            ->type_name(type)
            ->expected(1)
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
            ->allow_extra_args(false);
    };
    text("--type", texts.type, "pcm or dsd (default: pcm)", "TYPE");
    text("--rate", texts.rate, "Sampling rate in Hz (default: 48000; with dsd 2822400)", "HZ");
    text("--bits", texts.bits, "Sample width: 16, 24 or 32 (default: 24); pcm only", "BITS");
    text("--duration", texts.duration, "Stop by itself after so much recording", "SECONDS");
    text("--start-at", texts.startAt,
         "Begin by itself at a time (20:15, 20:15:30, 2026-11-21 20:15)", "TIME");
    command
        .add_flag("--pre-record", record.preRecord,
                  "The recorder runs; the recording begins with the key r or SIGUSR1")
        ->disable_flag_override();
    text("--pre-roll", texts.preRoll, "The same, but the recording begins so long before",
         "SECONDS");
    text("--gain", texts.gain, "Gain of the saved files in decibels", "DB");
    for (const auto& [option, key] : kTagOptions) {
        text(option, texts.tagOptions[key], "Tag of the saved files", "TEXT");
    }
    list("--tag", texts.tags, "The same by name: title, artist, album, album-artist", "KEY=VALUE");
    list("--range", texts.ranges,
         "Save a stretch to a file of its own; times as 90, 90.5 or 1:30.5;\n"
         "no END = to the end; may be repeated",
         "START-END=FILE");
    text("--split-at", texts.splitAt, "Go on in a new file at these times: OUT-01, OUT-02, ...",
         "TIME,...");
    text("--max-file-time", texts.maxFileTime, "Go on in a new file whenever one is so long",
         "SECONDS");
    text("--waveform", record.waveform, "Draw the recording: a *.png or *.svg", "FILE");
    text("--hook", record.hook, "Run a shell command at every event (VORREL_EVENT says which)",
         "COMMAND");
    command.add_flag("--force", record.force, "Replace existing files")->disable_flag_override();
    command.add_flag("--quiet", options.common.quiet, "Say nothing but warnings and errors")
        ->disable_flag_override();
}

void AddSalvageOptions(CLI::App& command, SalvageOptions& salvage, std::string& bits) {
    command.add_option("TAKE", salvage.take, "Which one (default: list what there is)");
    command.add_option("OUT", salvage.out, "The file to save it to");
    command
        .add_option("--bits", bits, "Sample width: 16, 24 or 32 (default: as it was to be saved)")
        ->type_name("BITS");
    command.add_flag("--force", salvage.force, "Replace an existing file")->disable_flag_override();
    command
        .add_flag("--remove", salvage.remove,
                  "Delete what it has left, once it is saved; without OUT at once")
        ->disable_flag_override();
}

// ---- What is refused

void CheckRanges(const RecordOptions& record) {
    if (record.out.empty() && record.ranges.empty()) {
        throw Refusal("record needs the name of a file to write, or --range START-END=FILE");
    }
    for (const Range& range : record.ranges) {
        if (!record.duration) {
            continue;
        }
        if (range.start >= *record.duration || range.end.value_or(0.0) > *record.duration) {
            throw Refusal("--range for " + range.file + " goes beyond --duration " +
                          ClockText(*record.duration));
        }
    }
}

void CheckSplits(const RecordOptions& record) {
    if (record.out.empty() && (!record.splitAt.empty() || record.maxFileTime)) {
        throw Refusal(std::string(record.maxFileTime ? "--max-file-time" : "--split-at") +
                      " cuts the whole recording: give it the name of a file");
    }
    if (record.duration && !record.splitAt.empty() && record.splitAt.back() >= *record.duration) {
        throw Refusal("--split-at goes beyond --duration " + ClockText(*record.duration));
    }
}

/// Arguments that are no command's: the first is what somebody took for one.
std::string UnknownCommand(const std::vector<std::string>& arguments) {
    for (const std::string& argument : arguments) {
        if (std::any_of(kCommands.begin(), kCommands.end(),
                        [&argument](const auto& known) { return argument == known.name; })) {
            break;
        }
        if (!argument.empty() && argument.front() != '-') {
            return argument;
        }
    }
    return "";
}

/// What CLI11 takes for something else.
void CheckArguments(const std::vector<std::string>& arguments) {
    if (arguments.empty()) {
        throw Refusal("say what to do: devices, info, record, salvage or doctor (or --help)");
    }
    for (const std::string& argument : arguments) {
        for (const char* flag : {"--json", "--force", "--quiet", "--pre-record", "--remove"}) {
            if (argument.rfind(std::string(flag) + "=", 0) == 0) {
                throw Refusal(std::string(flag) + " takes no value");
            }
        }
    }
    if (const std::string bogus = UnknownCommand(arguments); !bogus.empty()) {
        throw Refusal("there is no command \"" + bogus + "\"; there are " + kCommandNames);
    }
}

/// Whether an option of any command takes the argument behind it.
bool TakesNext(const CLI::App& app, const std::string& argument) {
    const std::vector<const CLI::App*> commands = app.get_subcommands(nullptr);
    return std::any_of(commands.begin(), commands.end(), [&](const CLI::App* command) {
        const CLI::Option* option =
            argument.rfind("--", 0) == 0 ? command->get_option_no_throw(argument) : nullptr;
        return option != nullptr && option->get_items_expected_min() > 0;
    });
}

/// "--title=" as "--title" and an empty text: CLI11 takes an empty value for none, and the next
/// argument for the value. A bare --simulate takes nothing in any case.
std::vector<std::string> WithEmptyValues(const CLI::App& app,
                                         const std::vector<std::string>& arguments) {
    std::vector<std::string> clear;
    for (auto argument = arguments.begin(); argument != arguments.end(); ++argument) {
        if (*argument == "--") {
            clear.insert(clear.end(), argument, arguments.end());
            break;
        }
        const std::string name =
            argument->substr(0, argument->size() - (argument->empty() ? 0 : 1));
        if (argument->find('=') == name.size() && TakesNext(app, name)) {
            clear.push_back(name);
            clear.emplace_back();
            continue;
        }
        clear.push_back(*argument);
        if (TakesNext(app, *argument) && argument + 1 != arguments.end()) {
            clear.push_back(*++argument);  // a value, whatever it looks like
        }
    }
    return clear;
}

/// What CLI11 has to say, as one line.
std::string OneLine(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    while (!text.empty() && text.back() == ' ') {
        text.pop_back();
    }
    return text;
}

// ---- What it means

void ReadTags(const RecordTexts& texts, RecordOptions& record) {
    const auto put = [&record](const std::string& option, const std::string& key,
                               const std::string& text) {
        // Without characters that can be counted, no file takes it.
        if (!IsUtf8(text)) {
            throw Refusal(option + " is no UTF-8 text");
        }
        if (text.empty()) {
            return;
        }
        if (!record.tags.emplace(key, text).second) {
            throw Refusal(option + ": the tag is given twice");
        }
    };
    for (const auto& [option, key] : kTagOptions) {
        put(option, key, texts.tagOptions.at(key));
    }
    for (const std::string& tag : texts.tags) {
        const auto [key, value] = RequireTag(tag);
        put("--tag \"" + tag + "\"", key, value);
    }
}

void ReadStart(const CLI::App& command, const RecordTexts& texts, RecordOptions& record) {
    if (IsGiven(command, "--pre-roll")) {
        if (record.preRecord) {
            throw Refusal(
                "--pre-roll is --pre-record that keeps what came before: give one of them");
        }
        record.preRoll = RequireLength("--pre-roll", texts.preRoll);
        if (*record.preRoll > kLongestPreRoll) {
            throw Refusal("--pre-roll is ten minutes at most");
        }
    }
    if (IsGiven(command, "--start-at")) {
        record.startAt = RequireMoment(texts.startAt, std::time(nullptr));
    }
}

void CheckWaveform(const RecordOptions& record) {
    const std::string ending = EndingOf(record.waveform);
    if (!record.waveform.empty() && ending != ".png" && ending != ".svg") {
        throw Refusal("--waveform " + record.waveform + ": call it *.png or *.svg");
    }
}

void ReadRecord(const CLI::App& command, const RecordTexts& texts, RecordOptions& record) {
    RefuseEmpty(command, "--waveform", record.waveform);
    RefuseEmpty(command, "--hook", record.hook);
    if (texts.type != "pcm" && texts.type != "dsd") {
        throw Refusal("--type \"" + texts.type + "\" is neither pcm nor dsd");
    }
    record.dsd = texts.type == "dsd";
    if (IsGiven(command, "--rate")) {
        record.rateHz = RequireRate(texts.rate);
    }
    if (IsGiven(command, "--bits")) {
        if (record.dsd) {
            throw Refusal("--bits is for --type pcm: a DSD sample is one bit");
        }
        record.bits = RequireBits(texts.bits);
    }
    if (IsGiven(command, "--duration")) {
        record.duration = RequireLength("--duration", texts.duration);
    }
    if (IsGiven(command, "--gain")) {
        record.gain = RequireGain(texts.gain);
    }
    if (IsGiven(command, "OUT") && record.out.empty()) {
        throw Refusal("the name of the file to be written is empty");
    }
    ReadTags(texts, record);
    ReadStart(command, texts, record);
    for (const std::string& range : texts.ranges) {
        record.ranges.push_back(ParseRange(range));
    }
    if (IsGiven(command, "--split-at")) {
        record.splitAt = RequireSplits(texts.splitAt);
    }
    if (IsGiven(command, "--max-file-time")) {
        record.maxFileTime = RequireLength("--max-file-time", texts.maxFileTime);
        if (*record.maxFileTime < 1.0) {
            throw Refusal("--max-file-time is one second at least");
        }
    }
    CheckRanges(record);
    CheckSplits(record);
    CheckWaveform(record);
    CheckEnding(record.out, record.dsd);
    for (const Range& range : record.ranges) {
        CheckEnding(range.file, record.dsd);
    }
}

void ReadSalvage(const CLI::App& command, const std::string& bits, SalvageOptions& salvage) {
    if (IsGiven(command, "TAKE") && salvage.take.empty()) {
        throw Refusal("the name of the take is empty");
    }
    if (IsGiven(command, "OUT") && salvage.out.empty()) {
        throw Refusal("the name of the file to be written is empty");
    }
    if (IsGiven(command, "--bits")) {
        salvage.bits = RequireBits(bits);
    }
    for (const char* option : {"--bits", "--force", "--remove"}) {
        if (salvage.take.empty() && IsGiven(command, option)) {
            throw Refusal(std::string(option) + ": say which take");
        }
    }
}

}  // namespace

Options ParseOptions(const std::vector<std::string>& arguments) {
    Options options;
    CLI::App app("Records from a USB recorder to WAV and DSF files.", "vorrel");
    app.set_version_flag("--version", std::string("vorrel ") + VORREL_CLI_VERSION);
    app.require_subcommand(1);

    RecordTexts recordTexts;
    std::string salvageBits;
    std::array<CLI::App*, kCommands.size()> apps{};
    for (std::size_t index = 0; index < kCommands.size(); ++index) {
        const Command kind = kCommands[index].command;
        CLI::App* command = app.add_subcommand(kCommands[index].name, kCommands[index].help);
        apps[index] = command;
        if (kind == Command::Salvage) {
            command->add_flag("--json", options.common.json, "One JSON object a line on stdout")
                ->disable_flag_override();
        } else {
            AddCommonOptions(*command, options.common);
        }
        if (kind == Command::Info || kind == Command::Record || kind == Command::Doctor) {
            command
                ->add_option("--device", options.common.device,
                             "The recorder's name (default: the first)")
                ->type_name("NAME");
        }
        if (kind == Command::Record) {
            AddRecordOptions(*command, options, recordTexts);
        }
        if (kind == Command::Salvage) {
            AddSalvageOptions(*command, options.salvage, salvageBits);
        }
        if (kind != Command::Devices && kind != Command::Info) {
            command
                ->add_option("--temp-dir", options.tempDirectory,
                             "Where a recording is kept until it is saved")
                ->type_name("DIR");
        }
    }

    CheckArguments(arguments);
    try {
        std::vector<std::string> clear = WithEmptyValues(app, arguments);
        std::reverse(clear.begin(), clear.end());  // CLI11 takes its vector from the back
        app.parse(std::move(clear));
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
        throw Refusal("not expected: " + texts);
    } catch (const CLI::ParseError& error) {
        throw Refusal(OneLine(error.what()));
    }

    const auto chosen = static_cast<std::size_t>(
        std::find_if(apps.begin(), apps.end(), [](const CLI::App* one) { return one->parsed(); }) -
        apps.begin());
    const CLI::App& command = *apps[chosen];
    options.command = kCommands[chosen].command;
    if (const CLI::Option* simulate = command.get_option_no_throw("--simulate")) {
        options.common.simulate = simulate->count() > 0;
        if (options.common.simulated == kBareFlag) {
            options.common.simulated.clear();
        }
    }
    RefuseEmpty(command, "--device", options.common.device);
    RefuseEmpty(command, "--temp-dir", options.tempDirectory);
    if (options.command == Command::Record) {
        ReadRecord(command, recordTexts, options.record);
    }
    if (options.command == Command::Salvage) {
        ReadSalvage(command, salvageBits, options.salvage);
    }
    return options;
}

}  // namespace vorrel::cli

#include "Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <utility>

#include "ExitCode.h"

namespace vorrel::cli {
namespace {

constexpr const char* kBareFlag = "true";  // what CLI11 makes of a flag without a value
constexpr double kMostGain = 200.0;  // decibels; beyond any use and far inside the number range

void AddCommonOptions(CLI::App& command, CommonOptions& options) {
    command.add_flag("--json", options.json, "One JSON object a line on stdout");
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
    if (!seconds || *seconds <= 0.0) {
        throw Failure(ExitCode::Usage,
                      "--duration \"" + text + "\" is no length of time (seconds, or 1:30.5)");
    }
    return *seconds;
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
    CLI::App app("Records from a USB recorder to WAV files.", "vorrel");
    app.set_version_flag("--version", std::string("vorrel ") + VORREL_CLI_VERSION);
    app.require_subcommand(1);

    CLI::App* devices = app.add_subcommand("devices", "List the recorders");
    CLI::App* info = app.add_subcommand("info", "Show what a recorder can do");
    CLI::App* record = app.add_subcommand("record", "Record, then save");
    for (CLI::App* command : {devices, info, record}) {
        AddCommonOptions(*command, options.common);
    }
    for (CLI::App* command : {info, record}) {
        command
            ->add_option("--device", options.common.device,
                         "The recorder's name (default: the first)")
            ->type_name("NAME");
    }

    std::string type = "pcm";
    std::string duration;
    std::vector<std::string> ranges;
    record->add_option("OUT", options.record.out, "The file for the whole recording (WAV)");
    record->add_option("--type", type, "pcm or dsd (default: pcm)")
        ->type_name("TYPE")
        ->check(CLI::IsMember({"pcm", "dsd"}));
    record->add_option("--rate", options.record.rateHz, "Sampling rate in Hz (default: 48000)")
        ->type_name("HZ")
        ->check(CLI::PositiveNumber);
    record->add_option("--bits", options.record.bits, "Sample width: 16, 24 or 32 (default: 24)")
        ->type_name("BITS")
        ->check(CLI::IsMember({16U, 24U, 32U}));
    record->add_option("--duration", duration, "Stop by itself after so much recording")
        ->type_name("SECONDS");
    record->add_option("--gain", options.record.gain, "Gain of the saved files in decibels")
        ->type_name("DB");
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
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    record
        ->add_option("--temp-dir", options.record.tempDirectory,
                     "Where the recording is kept until it is saved")
        ->type_name("DIR");
    record->add_flag("--force", options.record.force, "Replace existing files");
    record->add_flag("--quiet", options.common.quiet, "Say nothing but warnings and errors");

    try {
        // CLI11 takes its vector from the back.
        app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    } catch (const CLI::CallForHelp&) {
        const std::vector<CLI::App*> chosen = app.get_subcommands();
        options.text = (chosen.empty() ? &app : chosen.front())->help();
        return options;
    } catch (const CLI::CallForVersion& version) {
        options.text = std::string(version.what()) + "\n";
        return options;
    } catch (const CLI::ParseError& error) {
        throw Failure(ExitCode::Usage, OneLine(error.what()));
    }

    const std::pair<CLI::App*, Command> commands[] = {
        {devices, Command::Devices}, {info, Command::Info}, {record, Command::Record}};
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
    if (options.command != Command::Record) {
        return options;
    }

    if (type == "dsd") {
        throw Failure(ExitCode::Usage, "--type dsd is not yet possible; --type pcm is");
    }
    if (record->get_option("--duration")->count() > 0) {
        options.record.duration = RequireDuration(duration);
    }
    if (!std::isfinite(options.record.gain) || std::abs(options.record.gain) > kMostGain) {
        throw Failure(ExitCode::Usage, "--gain is to be between -200 and 200 decibels");
    }
    if (record->get_option("OUT")->count() > 0 && options.record.out.empty()) {
        throw Failure(ExitCode::Usage, "the name of the file to be written is empty");
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
    return options;
}

}  // namespace vorrel::cli

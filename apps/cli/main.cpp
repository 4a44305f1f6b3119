#include <algorithm>
#include <exception>
#include <string>
#include <tuple>
#include <vector>

#include "Commands.h"
#include "ExitCode.h"
#include "Options.h"
#include "ProcessSetup.h"
#include "Reporter.h"

int main(int argumentCount, char** argumentValues) {
    using namespace vorrel::cli;
    const bool stdoutClosed = PrepareProcess();
    const std::vector<std::string> arguments(argumentValues + std::min(argumentCount, 1),
                                             argumentValues + argumentCount);
    // Wanted even where the command line cannot be understood.
    const bool json = std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();
    const bool quiet = std::find(arguments.begin(), arguments.end(), "--quiet") != arguments.end();
    Reporter reporter(json, quiet, stdoutClosed);
    ExitCode code = ExitCode::Usage;
    try {
        return RunCommand(ParseOptions(arguments), reporter);
    } catch (const Failure& failure) {
        reporter.Error(failure);
        code = failure.exit;
    } catch (const std::exception& error) {
        const Failure failure(ExitCode::Storage, error.what(), VrErrorFailed);
        reporter.Error(failure);
        code = failure.exit;
    }
    std::ignore = reporter.Finish(static_cast<int>(code));
    return static_cast<int>(code);
}

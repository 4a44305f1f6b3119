#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CliProgram.h"

namespace vorrel::test {

/// The program with a stand-in for the engine, in places of its own. FakeEngine.cpp tells what the
/// stand-in can be set to.
class FaultsTest : public testing::Test {
protected:
    Process::Setup Record(const std::string& engine,
                          const std::vector<std::string>& arguments) const {
        Process::Setup setup = places.Record(VORREL_CLI_FAKE, arguments);
        setup.arguments.emplace_back("--simulate");  // known, and no reason for a warning
        setup.environment["FAKE_ENGINE"] = engine;
        return setup;
    }

    CliPlaces places;
};

}  // namespace vorrel::test

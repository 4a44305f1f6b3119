#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "device/simulated/SimulatedRecorderConfig.h"

namespace vorrel {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class ConfigurationTest : public testing::Test {
protected:
    bool Parse(const char* text) { return ParseSimulatedConfiguration(text, configs, problem); }

    std::vector<SimulatedRecorderConfig> configs;
    std::string problem;
};

TEST_F(ConfigurationTest, NothingStandsForAStereoToneInRealTime) {
    for (const char* text :
         {static_cast<const char*>(nullptr), "", "source=tone,channels=2,speed=1"}) {
        ASSERT_TRUE(Parse(text)) << problem;
        ASSERT_EQ(configs.size(), 1U);
        EXPECT_EQ(configs[0].source, SimulatedSource::Tone);
        EXPECT_EQ(configs[0].frequencyHz, 1000.0);
        EXPECT_EQ(configs[0].channels, 2U);
        EXPECT_EQ(configs[0].speed, 1.0);
        EXPECT_FALSE(configs[0].manual);
    }
}

TEST_F(ConfigurationTest, ReadsEveryKey) {
    ASSERT_TRUE(
        Parse("source=noise,frequency=440.5,level=-12.5,seed=18446744073709551615,channels=8,"
              "speed=0.5,recorders=3,manual=1,loop=1,dsd=0,bits=24,unplug=100"))
        << problem;

    ASSERT_EQ(configs.size(), 3U);
    for (const SimulatedRecorderConfig& config : configs) {
        EXPECT_EQ(config.source, SimulatedSource::Noise);
        EXPECT_EQ(config.frequencyHz, 440.5);
        EXPECT_EQ(config.levelDb, -12.5);
        EXPECT_EQ(config.seed, 18'446'744'073'709'551'615U);
        EXPECT_EQ(config.channels, 8U);
        EXPECT_EQ(config.speed, 0.5);
        EXPECT_TRUE(config.manual);
        EXPECT_TRUE(config.loop);
        EXPECT_FALSE(config.dsd);
        EXPECT_THAT(config.pcmBits, ElementsAre(24U));
        EXPECT_EQ(config.unplugAfterBuffers, 100U);
    }
}

TEST_F(ConfigurationTest, KnowsTheFiveNamedSources) {
    const std::pair<const char*, SimulatedSource> sources[] = {
        {"source=tone", SimulatedSource::Tone},       {"source=sweep", SimulatedSource::Sweep},
        {"source=noise", SimulatedSource::Noise},     {"source=counter", SimulatedSource::Counter},
        {"source=silence", SimulatedSource::Silence},
    };
    for (const auto& [text, source] : sources) {
        ASSERT_TRUE(Parse(text)) << problem;
        EXPECT_EQ(configs[0].source, source);
    }
}

TEST_F(ConfigurationTest, RefusesWhatIsNotWellFormedOrNotInRange) {
    for (const char* text : {
             "source",
             "source=",
             "source=Tone",
             "source=tone,",
             ",source=tone",
             "source=tone,,speed=1",
             "source=tone;speed=1",
             " source=tone",
             "source=tone ",
             "colour=red",
             "=1",
             "source=tone,source=tone",
             "channels=0",
             "channels=9",
             "channels=-1",
             "channels=2.5",
             "channels=two",
             "speed=0",
             "speed=-1",
             "speed=nan",
             "speed=inf",
             "speed=1x",
             "speed=1e7",
             "level=0.5",
             "level=nan",
             "frequency=0",
             "frequency=22050",
             "seed=-1",
             "recorders=0",
             "recorders=17",
             "manual=yes",
             "loop=2",
             "dsd=",
             "bits=20",
             "bits=",
             "unplug=soon",
             "source=file:",
         }) {
        EXPECT_FALSE(Parse(text)) << text;
        EXPECT_TRUE(configs.empty()) << text;
        EXPECT_FALSE(problem.empty()) << text;
    }
}

TEST_F(ConfigurationTest, SaysWhichPairIsWrong) {
    ASSERT_FALSE(Parse("source=tone,volume=11"));

    EXPECT_THAT(problem, HasSubstr("\"volume=11\""));
}

TEST_F(ConfigurationTest, RefusesAFileThatIsNotThereByItsName) {
    ASSERT_FALSE(Parse("source=file:/nowhere/at=all:x.wav,speed=2"));

    EXPECT_THAT(problem, HasSubstr("/nowhere/at=all:x.wav"));
}

TEST_F(ConfigurationTest, RefusesBuffersThatDoNotShareOutTheChannels) {
    SimulatedRecorderConfig config;
    config.channels = 4;
    config.bufferChannels = {2, 1};

    EXPECT_FALSE(CompleteConfig(config, problem));
}

TEST_F(ConfigurationTest, RefusesABufferSizeOutsideItsRange) {
    SimulatedRecorderConfig config;
    config.bufferFramesMaximum = 511;

    EXPECT_FALSE(CompleteConfig(config, problem));
}

}  // namespace
}  // namespace vorrel

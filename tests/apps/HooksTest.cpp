#include "Hooks.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "support/Await.h"
#include "support/TempDirectory.h"

namespace vorrel::cli {
namespace {

using namespace std::chrono_literals;

std::string Text(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

/// Waits until what was written to a pipe has been read.
void AwaitEmpty(int pipe) {
    test::Await([pipe] {
        int left = 0;
        return ::ioctl(pipe, FIONREAD, &left) == 0 && left == 0;
    });
}

TEST(HooksTest, EventsRunOneAfterTheOtherWithWhatHappened) {
    const test::TempDirectory directory;
    const std::string log = directory.File("log");
    Hooks hooks("echo \"$VORREL_EVENT $VORREL_FILE\" >> '" + log + "'");
    hooks.Run("state", {});
    for (int number = 0; number < 10; ++number) {
        hooks.Run("saved", {{"VORREL_FILE", "it's \"" + std::to_string(number) + "\" $HOME"}});
    }

    EXPECT_EQ(hooks.Finish(60s), "");

    std::string expected = "state \n";
    for (int number = 0; number < 10; ++number) {
        expected += "saved it's \"" + std::to_string(number) + "\" $HOME\n";
    }
    EXPECT_EQ(Text(log), expected);
    EXPECT_EQ(hooks.Descriptor(), -1);
}

TEST(HooksTest, AHookThatFailsIsSaidWithItsEventAndTheNextOneRuns) {
    Hooks hooks("exit 3");
    hooks.Run("mark", {});
    pollfd source = {hooks.Descriptor(), POLLIN, 0};
    ASSERT_EQ(::poll(&source, 1, 60'000), 1);

    EXPECT_EQ(hooks.Reap(), "the hook ended with 3 at the event mark");
    EXPECT_EQ(hooks.Reap(), "");

    Hooks killed("kill -9 $$");
    killed.Run("saved", {});
    EXPECT_EQ(killed.Finish(60s), "the hook was ended by signal 9 at the event saved");
}

TEST(HooksTest, AHookThatHangsHoldsNothingUp) {
    const test::TempDirectory directory;
    ASSERT_EQ(::mkfifo(directory.File("pipe").c_str(), 0600), 0);
    const int pipe = ::open(directory.File("pipe").c_str(), O_RDWR | O_CLOEXEC);
    {
        Hooks hooks("read line < '" + directory.File("pipe") + "'");
        hooks.Run("state", {});
        hooks.Run("finish", {});

        EXPECT_EQ(hooks.Reap(), "");
        EXPECT_EQ(hooks.Finish(1ms),
                  "the hook at the event state still runs; it is not run for 1 more event");
    }
    // Lets it end; it may only be about to open the pipe.
    ASSERT_EQ(::write(pipe, "x\n", 2), 2);
    AwaitEmpty(pipe);
    ::close(pipe);
}

TEST(HooksTest, AHookHasNoneOfTheProgramsFilesAndNoInput) {
    const test::TempDirectory directory;
    const int open = ::open(directory.File("spill").c_str(), O_RDWR | O_CREAT, 0600);
    Hooks hooks("ls -l /proc/$$/fd > '" + directory.File("fds") + "'; cat > '" +
                directory.File("input") + "'");
    hooks.Run("state", {});

    EXPECT_EQ(hooks.Finish(60s), "");

    EXPECT_EQ(Text(directory.File("fds")).find("spill"), std::string::npos);
    EXPECT_NE(Text(directory.File("fds")).find("/dev/null"), std::string::npos);
    EXPECT_EQ(Text(directory.File("input")), "");
    ::close(open);
}

TEST(HooksTest, AKeyThatInterruptsIsNotForTheHook) {
    const test::TempDirectory directory;
    Hooks hooks("ps -o pgid= -p $$ > '" + directory.File("group") + "'");
    hooks.Run("state", {});

    EXPECT_EQ(hooks.Finish(60s), "");

    EXPECT_NE(std::stoi(Text(directory.File("group"))), ::getpgrp());
}

}  // namespace
}  // namespace vorrel::cli

#include "platform/Trace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/TraceCapture.h"

namespace vorrel {
namespace {

using test::TraceCapture;

/// Puts a pipe in the place of standard error, in which every write stays one packet.
class StandardErrorPipe {
public:
    explicit StandardErrorPipe(int flags = O_DIRECT | O_NONBLOCK) {
        EXPECT_EQ(::pipe2(ends.data(), flags | O_CLOEXEC), 0);
        if ((flags & O_DIRECT) != 0) {
            ::fcntl(ends[1], F_SETPIPE_SZ, 1 << 20);  // a packet takes a page
        }
        ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
        saved = ::dup(STDERR_FILENO);
        ::dup2(ends[1], STDERR_FILENO);
    }
    ~StandardErrorPipe() {
        ::dup2(saved, STDERR_FILENO);
        for (const int descriptor : {saved, ends[0], ends[1]}) {
            ::close(descriptor);
        }
    }
    StandardErrorPipe(const StandardErrorPipe&) = delete;
    StandardErrorPipe& operator=(const StandardErrorPipe&) = delete;

    /// What was written so far, one string a write.
    std::vector<std::string> Writes() const {
        std::vector<std::string> writes;
        std::array<char, 4096> buffer{};
        ssize_t length = 0;
        while ((length = ::read(ends[0], buffer.data(), buffer.size())) > 0) {
            writes.emplace_back(buffer.data(), static_cast<std::size_t>(length));
        }
        return writes;
    }

    /// What was written so far, as one string.
    std::string Bytes() const {
        std::string bytes;
        for (const std::string& part : Writes()) {
            bytes += part;
        }
        return bytes;
    }
    void Empty() const { std::ignore = Bytes(); }
    bool TakesMore() const {
        pollfd end{ends[1], POLLOUT, 0};
        return ::poll(&end, 1, 0) == 1;
    }

private:
    std::array<int, 2> ends{};
    int saved = -1;
};

TEST(TraceTest, WritesFileLineAndMessageInOneWriteToStandardError) {
    const StandardErrorPipe standardError;

    Trace("device/Some.cpp", 42, "%s has %d channels", "card", 2);

    EXPECT_EQ(standardError.Writes(),
              std::vector<std::string>{"device/Some.cpp(42): card has 2 channels\n"});
}

TEST(TraceTest, LinesOfSeveralThreadsDoNotMix) {
    constexpr int kThreads = 4;
    constexpr int kLines = 25;
    const StandardErrorPipe standardError;

    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([thread] {
            for (int line = 0; line < kLines; ++line) {
                Trace("f", line, "thread %d", thread);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    std::multiset<std::string> expected;
    for (int thread = 0; thread < kThreads; ++thread) {
        for (int line = 0; line < kLines; ++line) {
            expected.insert("f(" + std::to_string(line) + "): thread " + std::to_string(thread) +
                            "\n");
        }
    }
    const std::vector<std::string> writes = standardError.Writes();
    EXPECT_EQ(std::multiset<std::string>(writes.begin(), writes.end()), expected);
}

TEST(TraceTest, AStandardErrorThatTakesNothingHoldsNobodyUpAndTheLostLinesAreCounted) {
    const StandardErrorPipe standardError(0);  // a write to it waits while it is full
    while (standardError.TakesMore()) {
        Trace("f", 1, "filling");
    }

    Trace("f", 2, "lost");
    Trace("f", 3, "lost too");

    standardError.Empty();
    Trace("f", 4, "read again");
    Trace("f", 5, "as usual");
    EXPECT_EQ(standardError.Bytes(),
              "(2 lines lost: standard error took none)\nf(4): read again\nf(5): as usual\n");
}

TEST(TraceTest, ALineThatIsCutByAFullPipeIsEndedBeforeTheNext) {
    const StandardErrorPipe standardError(0);
    const std::string message(200'000, 'm');  // more than a pipe holds

    Trace("f", 1, "%s", message.c_str());

    standardError.Empty();
    Trace("f", 2, "the next");
    EXPECT_EQ(standardError.Bytes(),
              "\n(1 lines lost: standard error took none)\nf(2): the next\n");
}

TEST(TraceTest, ATerminalThatIsHeldHoldsNobodyUp) {
    int terminal = -1;
    int held = -1;
    ASSERT_EQ(::openpty(&terminal, &held, nullptr, nullptr, nullptr), 0);
    const int saved = ::dup(STDERR_FILENO);
    ::dup2(held, STDERR_FILENO);
    ASSERT_EQ(::tcflow(held, TCOOFF), 0);  // as Ctrl-S

    Trace("f", 1, "lost");

    ::tcflow(held, TCOON);
    Trace("f", 2, "seen");
    ::dup2(saved, STDERR_FILENO);
    std::array<char, 4096> bytes{};
    const ssize_t count = ::read(terminal, bytes.data(), bytes.size());
    EXPECT_EQ(std::string(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))),
              "(1 lines lost: standard error took none)\r\nf(2): seen\r\n");
    for (const int descriptor : {saved, terminal, held}) {
        ::close(descriptor);
    }
}

TEST(TraceTest, OutputDebugStringWritesTheTextAndALineEnd) {
    const StandardErrorPipe standardError;

    OutputDebugString("100%s");
    OutputDebugString("with its own\n");
    OutputDebugString(nullptr);

    EXPECT_EQ(standardError.Writes(), (std::vector<std::string>{"100%s\n", "with its own\n"}));
}

TEST(TraceTest, AnEntryIsOneLine) {
    TraceCapture trace;

    Trace("f", 1, "two\nlines\r\n");

    EXPECT_EQ(trace.Lines(), std::vector<std::string>{"f(1): two lines"});
}

TEST(TraceTest, LongMessagesComeWhole) {
    TraceCapture trace;
    const std::string message(10'000, 'm');

    Trace("f", 1, "%s", message.c_str());

    EXPECT_EQ(trace.Lines(), std::vector<std::string>{"f(1): " + message});
}

TEST(TraceTest, NullFileAndEmptyMessageAreTaken) {
    TraceCapture trace;

    Trace(nullptr, 7, "%s", "");

    EXPECT_EQ(trace.Lines(), std::vector<std::string>{"(7): "});
}

TEST(TraceTest, KeepsTheErrorNumber) {
    TraceCapture trace;
    errno = ENOSPC;

    Trace("f", 1, "%s", "a message");
    const int after = errno;

    EXPECT_EQ(after, ENOSPC);
    EXPECT_EQ(trace.Lines(), std::vector<std::string>{"f(1): a message"});
}

TEST(TraceTest, TheSinkGivesStandardErrorBack) {
    const StandardErrorPipe standardError;
    {
        TraceCapture trace;
        Trace("f", 1, "captured");
    }

    Trace("f", 2, "not captured");

    EXPECT_EQ(standardError.Writes(), std::vector<std::string>{"f(2): not captured\n"});
}

}  // namespace
}  // namespace vorrel

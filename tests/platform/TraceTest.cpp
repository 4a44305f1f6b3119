#include "platform/Trace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/TraceCapture.h"

namespace vorrel {
namespace {

using test::TraceCapture;

/// Puts a pipe in the place of standard error, in which every write stays one packet.
class StandardErrorPipe {
public:
    StandardErrorPipe() {
        EXPECT_EQ(::pipe2(ends.data(), O_DIRECT | O_NONBLOCK | O_CLOEXEC), 0);
        ::fcntl(ends[1], F_SETPIPE_SZ, 1 << 20);  // a packet takes a page
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

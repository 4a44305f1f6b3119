#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace vorrel::test {

/// A program run by a test: its output is collected, lines of it can be awaited, signals and keys
/// sent. Killed when it outlives the object. One thread.
class Process {
public:
    struct Setup {
        std::vector<std::string> arguments;              ///< The program's path first.
        std::map<std::string, std::string> environment;  ///< Added to the test's own.
        bool terminal = false;  ///< stdin and stderr are a terminal instead of nothing and a pipe.
        unsigned short rows = 24, columns = 100;  ///< Of the terminal.
    };

    explicit Process(const Setup& setup) {
        std::array<int, 2> outPipe{};
        std::array<int, 2> errorPipe{};
        if (::pipe2(outPipe.data(), O_CLOEXEC) != 0 || ::pipe2(errorPipe.data(), O_CLOEXEC) != 0) {
            std::abort();
        }
        if (setup.terminal) {
            winsize size{};
            size.ws_row = setup.rows;
            size.ws_col = setup.columns;
            if (::openpty(&terminal, &terminalOfChild, nullptr, nullptr, &size) != 0 ||
                ::tcgetattr(terminalOfChild, &terminalBefore) != 0) {
                std::abort();
            }
        }
        // All memory before the fork: after it only calls that a signal handler may make.
        std::vector<std::string> texts = setup.arguments;
        std::vector<char*> arguments;
        for (std::string& text : texts) {
            arguments.push_back(text.data());
        }
        arguments.push_back(nullptr);
        std::vector<std::string> variables;
        for (char** variable = environ; *variable != nullptr; ++variable) {
            const std::string entry = *variable;
            if (setup.environment.count(entry.substr(0, entry.find('='))) == 0) {
                variables.push_back(entry);
            }
        }
        for (const auto& [name, value] : setup.environment) {
            variables.push_back(name + "=" + value);
        }
        std::vector<char*> environment;
        for (std::string& variable : variables) {
            environment.push_back(variable.data());
        }
        environment.push_back(nullptr);

        child = ::fork();
        if (child == 0) {
            if (setup.terminal) {
                ::close(terminal);
                ::setsid();
                ::ioctl(terminalOfChild, TIOCSCTTY, 0);
                ::dup2(terminalOfChild, STDIN_FILENO);
                ::dup2(terminalOfChild, STDERR_FILENO);
            } else {
                const int nothing = ::open("/dev/null", O_RDONLY);
                ::dup2(nothing, STDIN_FILENO);
                ::dup2(errorPipe[1], STDERR_FILENO);
            }
            ::dup2(outPipe[1], STDOUT_FILENO);
            ::execve(arguments.front(), arguments.data(), environment.data());
            ::_exit(127);
        }
        ::close(outPipe[1]);
        ::close(errorPipe[1]);
        outStream.descriptor = outPipe[0];
        errorStream.descriptor = errorPipe[0];
        if (setup.terminal) {
            ::close(errorPipe[0]);
            errorStream.descriptor = terminal;
        }
    }

    ~Process() {
        if (!reaped) {
            ::kill(child, SIGKILL);
            ::waitpid(child, nullptr, 0);
        }
        for (const int descriptor :
             {outStream.descriptor, errorStream.descriptor, terminalOfChild}) {
            if (descriptor >= 0) {
                ::close(descriptor);
            }
        }
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    const std::string& Out() const { return outStream.text; }
    const std::string& Error() const { return errorStream.text; }

    /// Reads on until the program's output holds `text` behind what an earlier call has found.
    /// @return false when the output ends, or after a minute.
    bool AwaitOut(const std::string& text) { return Await(outStream, text); }
    bool AwaitError(const std::string& text) { return Await(errorStream, text); }

    void Send(int signal) const { ::kill(child, signal); }
    /// Keys, when there is a terminal.
    bool Type(const std::string& keys) const {
        return ::write(terminal, keys.data(), keys.size()) == static_cast<ssize_t>(keys.size());
    }

    /// Another program's text on the same terminal.
    bool WriteBeside(const std::string& text) const {
        return ::write(terminalOfChild, text.data(), text.size()) ==
               static_cast<ssize_t>(text.size());
    }

    /// Waits until a signal has stopped (not ended) the program.
    bool AwaitStopped() const {
        int status = 0;
        return ::waitpid(child, &status, WUNTRACED) == child && WIFSTOPPED(status);
    }

    /// Collects all further output and the end. @return The exit code; minus the signal's number
    /// when one ended it; -1000 when it has not ended after a minute.
    int Wait() {
        const auto deadline = Deadline();
        while (outStream.open || errorStream.open) {
            if (!ReadOn(deadline)) {
                return -1000;
            }
            // A terminal that the test itself holds open never ends; the program's stdout does.
            if (!outStream.open && terminal >= 0) {
                break;
            }
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        reaped = true;
        while (terminal >= 0 && ReadNow(errorStream)) {
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

    /// Whether the terminal's modes are those from before the program.
    bool TerminalRestored() const {
        termios now{};
        return ::tcgetattr(terminalOfChild, &now) == 0 && now.c_lflag == terminalBefore.c_lflag &&
               now.c_iflag == terminalBefore.c_iflag && now.c_oflag == terminalBefore.c_oflag;
    }
    /// Whether it hands over single keys, unseen.
    bool TerminalTakesSingleKeys() const {
        termios now{};
        return ::tcgetattr(terminalOfChild, &now) == 0 && (now.c_lflag & (ICANON | ECHO)) == 0;
    }

private:
    using Clock = std::chrono::steady_clock;
    struct Stream {
        int descriptor = -1;
        bool open = true;
        std::string text;
        std::size_t seen = 0;
    };

    static Clock::time_point Deadline() { return Clock::now() + std::chrono::minutes(1); }

    /// Takes what is there. @return false when nothing is.
    static bool ReadNow(Stream& stream) {
        pollfd source{stream.descriptor, POLLIN, 0};
        if (!stream.open || ::poll(&source, 1, 0) <= 0) {
            return false;
        }
        return ReadSome(stream);
    }
    static bool ReadSome(Stream& stream) {
        std::array<char, 4096> bytes{};
        const ssize_t count = ::read(stream.descriptor, bytes.data(), bytes.size());
        if (count > 0) {
            stream.text.append(bytes.data(), static_cast<std::size_t>(count));
            return true;
        }
        stream.open = count < 0 && errno == EINTR;
        return stream.open;
    }

    /// Waits for output of either stream and takes it. @return false after the deadline.
    bool ReadOn(Clock::time_point deadline) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        std::array<pollfd, 2> sources = {
            {{outStream.open ? outStream.descriptor : -1, POLLIN, 0},
             {errorStream.open ? errorStream.descriptor : -1, POLLIN, 0}}};
        if (left <= 0 || ::poll(sources.data(), sources.size(), static_cast<int>(left)) == 0) {
            return false;
        }
        if (sources[0].revents != 0) {
            ReadSome(outStream);
        }
        if (sources[1].revents != 0) {
            ReadSome(errorStream);
        }
        return true;
    }

    bool Await(Stream& stream, const std::string& text) {
        const auto deadline = Deadline();
        for (;;) {
            const std::size_t found = stream.text.find(text, stream.seen);
            if (found != std::string::npos) {
                stream.seen = found + text.size();
                return true;
            }
            if (!stream.open || (!outStream.open && terminal >= 0) || !ReadOn(deadline)) {
                return false;
            }
        }
    }

    pid_t child = -1;
    bool reaped = false;
    Stream outStream;
    Stream errorStream;
    int terminal = -1;         // the test's end
    int terminalOfChild = -1;  // kept open, so that its modes can be looked at after the end
    termios terminalBefore{};
};

}  // namespace vorrel::test

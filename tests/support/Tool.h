#pragma once

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace vorrel::test {

/// What a command of the shell printed and how it ended.
struct ToolResult {
    int exitCode = -1;
    std::string output;  ///< Standard output, byte for byte; add "2>&1" for the rest.
};

/// Runs a command of the shell.
inline ToolResult RunTool(const std::string& command) {
    ToolResult result;
    std::FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    std::array<char, 65'536> buffer{};
    for (std::size_t count = 0; (count = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) {
        result.output.append(buffer.data(), count);
    }
    const int status = ::pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

/// True when the shell finds a program of that name.
inline bool HasTool(const std::string& name) {
    return RunTool("command -v " + name + " 2>/dev/null").exitCode == 0;
}

/// A word for the shell, whatever characters it has.
inline std::string Quoted(const std::string& text) {
    std::string quoted = "'";
    for (const char character : text) {
        quoted += character == '\'' ? std::string("'\\''") : std::string(1, character);
    }
    return quoted + "'";
}

}  // namespace vorrel::test

/// Skips the test where somebody else's program is not installed.
#define VORREL_NEEDS_TOOL(name)                                 \
    if (!::vorrel::test::HasTool(name)) {                       \
        GTEST_SKIP() << "the tool " << (name) << " is missing"; \
    }

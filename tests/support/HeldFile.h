#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/FileBytes.h"

namespace vorrel::test {

/// A pipe in the place of a file to be written: its writer comes no further than the pipe and its
/// own stream buffer hold until the test reads, so that something can happen in the middle of a
/// file.
class HeldFile {
public:
    /// Takes the place at once, so that a writer need not wait to open it.
    explicit HeldFile(const std::string& path) {
        if (::mkfifo(path.c_str(), 0600) != 0) {
            std::abort();
        }
        descriptor = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        // A test that gives up closes its end: that is a failed write, not the end of the process.
        std::signal(SIGPIPE, SIG_IGN);
        // From here on reading waits for the writer.
        if (descriptor < 0 || ::fcntl(descriptor, F_SETFL, 0) != 0) {
            std::abort();
        }
    }
    ~HeldFile() { ::close(descriptor); }
    HeldFile(const HeldFile&) = delete;
    HeldFile& operator=(const HeldFile&) = delete;

    /// All that is written until the writer, who may still be to come, closes the file.
    Bytes ReadToEnd() const {
        Bytes bytes;
        pollfd written{descriptor, POLLIN, 0};
        while (::poll(&written, 1, -1) < 0 && errno == EINTR) {
        }
        std::array<std::uint8_t, 65'536> piece{};
        for (;;) {
            const ssize_t count = ::read(descriptor, piece.data(), piece.size());
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count <= 0) {
                return bytes;
            }
            bytes.insert(bytes.end(), piece.begin(), piece.begin() + count);
        }
    }

private:
    int descriptor = -1;
};

}  // namespace vorrel::test

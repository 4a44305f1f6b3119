#pragma once

#include <sys/resource.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>

namespace vorrel::test {

/// Lets no file of this process grow past `bytes` while it lives: a write up to there is cut
/// short, one from there on fails, as on a full disk.
class FileSizeLimit {
public:
    explicit FileSizeLimit(std::uint64_t bytes) {
        oldHandler = std::signal(SIGXFSZ, SIG_IGN);
        if (::getrlimit(RLIMIT_FSIZE, &oldLimit) != 0) {
            std::abort();
        }
        rlimit limit = oldLimit;
        limit.rlim_cur = bytes;
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) {
            std::abort();
        }
    }
    ~FileSizeLimit() {
        if (::setrlimit(RLIMIT_FSIZE, &oldLimit) != 0 ||
            std::signal(SIGXFSZ, oldHandler) == SIG_ERR) {
            std::abort();
        }
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit oldLimit{};
    void (*oldHandler)(int) = SIG_DFL;
};

}  // namespace vorrel::test

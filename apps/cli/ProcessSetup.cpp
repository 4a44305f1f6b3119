#include "ProcessSetup.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <initializer_list>
#include <tuple>

namespace vorrel::cli {

bool PrepareProcess() {
    bool stdoutClosed = false;
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) < 0) {
            stdoutClosed = stdoutClosed || descriptor == STDOUT_FILENO;
            // The lowest free number, and that is this one.
            std::ignore = ::open("/dev/null", O_RDWR);
        }
    }
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGXFSZ, SIG_IGN);
    ::signal(SIGTTOU, SIG_IGN);  // a recording in the background must not be stopped by a message
    // A spill file of each channel is open for every gibibyte: a long take of many channels passes
    // the usual 1024.
    if (rlimit limit{}; ::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        std::ignore = ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    return stdoutClosed;
}

}  // namespace vorrel::cli

#include "salvage/Machine.h"

#include <limits.h>
#include <unistd.h>

#include <array>
#include <fstream>

namespace vorrel::cli {

Machine ThisMachine() {
    Machine machine;
    std::array<char, HOST_NAME_MAX + 1> name{};
    if (::gethostname(name.data(), name.size() - 1) == 0) {
        machine.host = name.data();
    }
    std::ifstream("/proc/sys/kernel/random/boot_id") >> machine.boot;
    return machine;
}

bool IsElsewhere(const Machine& one, const Machine& now) {
    const bool known = !one.host.empty() && !now.host.empty() && !one.boot.empty();
    return known && one.host != now.host && one.boot != now.boot;
}

bool HasRestarted(const Machine& one, const Machine& now) {
    const bool known = !one.host.empty() && !one.boot.empty() && !now.boot.empty();
    return known && one.host == now.host && one.boot != now.boot;
}

}  // namespace vorrel::cli

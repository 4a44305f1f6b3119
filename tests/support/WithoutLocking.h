#pragma once

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <thread>

namespace vorrel::test {

/// Runs `work` on a thread of its own, which may lock no memory: it has neither the right to lock
/// beyond the limit nor, while it runs, a limit above 0.
inline void WithoutLocking(const std::function<void()>& work) {
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_MEMLOCK, &limit), 0);
    std::thread([&] {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        std::array<__user_cap_data_struct, 2> rights{};
        EXPECT_EQ(::syscall(SYS_capget, &header, rights.data()), 0);
        rights[0].effective &= ~(1U << CAP_IPC_LOCK);
        EXPECT_EQ(::syscall(SYS_capset, &header, rights.data()), 0);
        const rlimit none{0, limit.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_MEMLOCK, &none), 0);
        work();
        EXPECT_EQ(::setrlimit(RLIMIT_MEMLOCK, &limit), 0);
    }).join();
}

}  // namespace vorrel::test

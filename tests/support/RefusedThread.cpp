#include "support/RefusedThread.h"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace {

std::atomic<std::int64_t> toTheRefused{0};  // threads, with the refused one; 0 and less: none

}  // namespace

// What the C++ library calls finds the program's symbols before those of the C library, if they can
// be seen.
#pragma GCC visibility push(default)
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*body)(void*), void* argument) noexcept {
    static const auto next =
        reinterpret_cast<int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>(
            ::dlsym(RTLD_NEXT, "pthread_create"));
    return toTheRefused.fetch_sub(1) == 1 ? EAGAIN : next(thread, attributes, body, argument);
}
#pragma GCC visibility pop

namespace vorrel::test {

RefusedThread::RefusedThread(std::size_t nth) {
    toTheRefused = static_cast<std::int64_t>(nth);
}
RefusedThread::~RefusedThread() {
    toTheRefused = 0;
}
bool RefusedThread::WasMet() const {
    return toTheRefused <= 0;
}

}  // namespace vorrel::test

#pragma once

#include <pthread.h>

#include <cstddef>

namespace vorrel::test {

/// No thread can be made while it lives: its stack would be too large for any address space.
class NoNewThreads {
public:
    NoNewThreads() {
        ::pthread_attr_init(&former);
        ::pthread_getattr_default_np(&former);
        pthread_attr_t huge;
        ::pthread_attr_init(&huge);
        ::pthread_attr_setstacksize(&huge, std::size_t{1} << 60);
        ::pthread_setattr_default_np(&huge);
        ::pthread_attr_destroy(&huge);
    }
    ~NoNewThreads() {
        ::pthread_setattr_default_np(&former);
        ::pthread_attr_destroy(&former);
    }
    NoNewThreads(const NoNewThreads&) = delete;
    NoNewThreads& operator=(const NoNewThreads&) = delete;

private:
    pthread_attr_t former{};
};

}  // namespace vorrel::test

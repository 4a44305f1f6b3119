#include "platform/Mutex.h"

#include <pthread.h>

namespace vorrel {

void Mutex::SetPriorityInheritance(std::mutex& mutex) {
    pthread_mutexattr_t attributes;
    if (::pthread_mutexattr_init(&attributes) != 0) {
        return;
    }
    if (::pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT) == 0) {
        // Nobody has taken it yet, so it may be made once more, in place.
        ::pthread_mutex_init(mutex.native_handle(), &attributes);
    }
    ::pthread_mutexattr_destroy(&attributes);
}

}  // namespace vorrel

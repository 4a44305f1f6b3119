// A callback that does what none may, for the check itself to be checked: it allocates, and three
// calls further on, past a table of functions, it waits for a lock that is not its own.
#include <pthread.h>

namespace vorrel {

struct AudioBufferList;

class VorrelManager {
public:
    void AudioDevice_IOProc(const AudioBufferList* input, AudioBufferList* output);
    int* last = nullptr;
};

void WaitForSomebody(pthread_mutex_t* mutex) {
    ::pthread_mutex_lock(mutex);
}

using Waits = void (*)(pthread_mutex_t*);
extern const Waits kWays[];
const Waits kWays[] = {&WaitForSomebody, &WaitForSomebody};

void VorrelManager::AudioDevice_IOProc(const AudioBufferList*, AudioBufferList* output) {
    last = new int(1);
    kWays[output == nullptr ? 0 : 1](nullptr);
}

}  // namespace vorrel

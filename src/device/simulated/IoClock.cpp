#include "device/simulated/IoClock.h"

namespace vorrel {
namespace {

class SteadyClock final : public IoClock {
public:
    Time Now() override { return std::chrono::steady_clock::now(); }
    void WaitUntil(ConditionVariable& wake, Mutex& mutex, Time due)
        VORREL_REQUIRES(mutex) override {
        wake.WaitFor(mutex, due - Now());
    }
};

}  // namespace

std::shared_ptr<IoClock> MakeSteadyClock() {
    return std::make_shared<SteadyClock>();
}

}  // namespace vorrel

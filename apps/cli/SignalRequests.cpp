#include "SignalRequests.h"

namespace vorrel::cli {

bool SignalRequests::Hear(Clock::time_point came) {
    if (count > 0 && (!handled || !IsFurther(came - *handled))) {
        return false;
    }
    ++count;
    handled.reset();
    return true;
}

}  // namespace vorrel::cli

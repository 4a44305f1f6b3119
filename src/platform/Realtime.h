#pragma once

/// Stands on every function that the device's thread can reach: such a function takes the capture
/// queue's mutex and the record worker's event and no other lock, does not allocate once blocks
/// are pooled, does not log or touch a file, and its work is bounded by its arguments.
#define VORREL_REALTIME

namespace vorrel {

/// Marks the calling thread as being inside the device callback for the life of a scope, so that
/// a test can turn an allocation or a file call in there into a failure.
class RealtimeScope {
public:
    RealtimeScope() noexcept { ++depth; }
    ~RealtimeScope() { --depth; }
    RealtimeScope(const RealtimeScope&) = delete;
    RealtimeScope& operator=(const RealtimeScope&) = delete;

    static bool Active() noexcept { return depth > 0; }

private:
    static inline thread_local int depth = 0;
};

}  // namespace vorrel

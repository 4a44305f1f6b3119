#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>

namespace vorrel::test {

/// What the engine asks of the system and a test may make fail.
enum class Call : unsigned {
    Open,             // fopen
    MakeFile,         // mkostemp
    Adopt,            // fdopen
    Write,            // what a stream writes out
    WriteAt,          // pwrite
    WriteMany,        // writev
    Read,             // what a stream reads in
    Seek,             // where a stream goes
    Close,            // of a stream's file
    Stat,             // stat
    FreeSpace,        // statvfs
    FileSystem,       // statfs
    MakeDirectory,    // mkdir
    RemoveDirectory,  // rmdir
    Unlink,           // unlink
    Remove,           // remove, unlinkat
    List,             // opendir
    Encoding,         // iconv_open
    Thread,           // pthread_create
    Memory,           // operator new, outside the device's callback
    AnyFileCall,      // every one of them but the last two
};
const char* NameOf(Call call);

/// One thing that goes wrong.
struct Fault {
    Call call = Call::Write;
    int error = EIO;
    std::uint64_t nth = 1;  ///< Which of the calls from the arming on it meets.
    /// A write takes half of the bytes, at least one, and succeeds.
    bool isShort = false;
    /// Goes on: every call behind it fails with `error`, also where it was itself only short.
    bool forGood = false;
    /// Run in the call that it meets, which then goes on and does not fail. No memory is refused
    /// and nothing fails while it runs.
    std::function<void()> action{};
    /// The call fails when the action has run.
    bool failsToo = false;
};

/// While it lives, the fault is armed. One at a time.
///
/// The thread that `main` runs on is the test's: what it does itself is let alone, but for what it
/// does inside a `HostCall`. All other threads are the engine's.
class ArmedFault {
public:
    explicit ArmedFault(const Fault& fault);
    ~ArmedFault();
    ArmedFault(const ArmedFault&) = delete;
    ArmedFault& operator=(const ArmedFault&) = delete;

    /// From now on nothing fails any more. Waits for an action that is being run.
    void Disarm();
    /// How many calls failed, or were cut short, or ran the action.
    std::uint64_t Met() const;
};

/// While it lives, what the test's thread does is the engine's.
class HostCall {
public:
    HostCall();
    ~HostCall();
    HostCall(const HostCall&) = delete;
    HostCall& operator=(const HostCall&) = delete;
};

}  // namespace vorrel::test

#pragma once

#include <sys/types.h>
#include <string>

namespace vorrel {

/// The process that has a capture PCM open.
struct DeviceHolder {
    pid_t processId = -1;  ///< -1: nobody, or nobody that this process may know of.
    std::string command;   ///< Its name; empty where it cannot be read.
};

/// Asks the sound drivers, who tell of a thread that is mapped to its process; where they do not
/// tell, or that thread has ended, looks through the processes' open files (of other users'
/// processes it sees none).
/// @param proc  Where the process file system is.
DeviceHolder FindDeviceHolder(int card, int device, const std::string& proc = "/proc");

/// "process 4711 (name)", or "another process".
std::string HolderText(const DeviceHolder& holder);

}  // namespace vorrel

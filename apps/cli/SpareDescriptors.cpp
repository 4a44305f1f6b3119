#include "SpareDescriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "ExitCode.h"

namespace vorrel::cli {

void SpareDescriptors::Reserve(std::size_t count) {
    descriptors.reserve(count);
    while (descriptors.size() < count) {
        const int descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (descriptor < 0) {
            const int error = errno;
            const std::size_t missing = count - descriptors.size();
            Release(0);
            throw Failure(ExitCode::Storage,
                          "too few files can be open to save a recording, " +
                              std::to_string(missing) +
                              " more are needed (ulimit -n): " + std::strerror(error));
        }
        descriptors.push_back(descriptor);
    }
}

void SpareDescriptors::Release(std::size_t rest) {
    while (descriptors.size() > rest) {
        ::close(descriptors.back());
        descriptors.pop_back();
    }
}

}  // namespace vorrel::cli

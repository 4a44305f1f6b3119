#include "PrivateDirectory.h"

#include <stdlib.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "ExitCode.h"

namespace vorrel::cli {

PrivateDirectory::PrivateDirectory(const std::string& base) {
    std::error_code error;
    std::string parent = base;
    if (parent.empty()) {
        const char* configured = std::getenv("TMPDIR");
        parent = configured != nullptr && std::filesystem::is_directory(configured, error)
                     ? configured
                     : "/tmp";
    } else if (!std::filesystem::is_directory(parent, error)) {
        throw Failure(ExitCode::Usage, "--temp-dir " + parent + ": there is no such directory");
    }
    // Absolute, because the engine keeps the path longer than anybody keeps the working directory.
    std::string pattern = (std::filesystem::absolute(parent, error) / "vorrel-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw Failure(
            base.empty() ? ExitCode::Storage : ExitCode::Usage,
            "no temporary directory can be made in " + parent + ": " + std::strerror(errno));
    }
    path = pattern;
}

void PrivateDirectory::Remove() noexcept {
    if (!path.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
        path.clear();
    }
}

}  // namespace vorrel::cli

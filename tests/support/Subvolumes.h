#pragma once

#include <sys/mount.h>

#include <cstdlib>
#include <string>
#include <tuple>

#include "support/TempDirectory.h"

namespace vorrel::test {

/// A fresh file system of 256 MiB with two subvolumes, each a volume by its number, where the
/// test's rights and the tools that are there allow one.
class Subvolumes {
public:
    Subvolumes() {
        const std::string script = "cd '" + place.Path() +
                                   "' && truncate -s 256M image && mkfs.btrfs -q image"
                                   " && mkdir whole && mount -o loop image whole"
                                   " && btrfs -q subvolume create whole/a"
                                   " && btrfs -q subvolume create whole/b";
        made = std::system(("{ " + script + "; } >/dev/null 2>&1").c_str()) == 0;
    }
    ~Subvolumes() { std::ignore = ::umount2(place.File("whole").c_str(), MNT_DETACH); }
    Subvolumes(const Subvolumes&) = delete;
    Subvolumes& operator=(const Subvolumes&) = delete;

    bool Made() const { return made; }
    std::string A() const { return place.File("whole/a"); }
    std::string B() const { return place.File("whole/b"); }

private:
    const TempDirectory place;
    bool made = false;
};

}  // namespace vorrel::test

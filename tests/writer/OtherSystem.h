#pragma once

#include <cerrno>
#include <cstdint>

namespace vorrel::test {

/// While it lives, the C library begins no conversion.
class NoEncodings {
public:
    /// @param cause  What it says; `EINVAL`: it comes without its tables of encodings.
    explicit NoEncodings(int cause = EINVAL);
    ~NoEncodings();
    NoEncodings(const NoEncodings&) = delete;
    NoEncodings& operator=(const NoEncodings&) = delete;
};

/// While it lives, every volume is of the FAT family and has `blocks` blocks.
class FatVolume {
public:
    explicit FatVolume(std::uint64_t blocks);
    ~FatVolume();
    FatVolume(const FatVolume&) = delete;
    FatVolume& operator=(const FatVolume&) = delete;
};

}  // namespace vorrel::test

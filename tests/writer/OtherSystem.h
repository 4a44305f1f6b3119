#pragma once

#include <cstdint>

namespace vorrel::test {

/// While it lives, the C library comes without its tables of encodings.
class NoEncodings {
public:
    NoEncodings();
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

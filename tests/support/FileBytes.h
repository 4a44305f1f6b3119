#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vorrel::test {

using Bytes = std::vector<std::uint8_t>;

/// All bytes of a file; empty when it cannot be read.
inline Bytes ReadBytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

inline Bytes ToBytes(std::string_view text) {
    return Bytes(text.begin(), text.end());
}

/// Up to eight bytes as a number, least significant first.
inline std::uint64_t LittleEndian(std::span<const std::uint8_t> bytes, std::size_t offset,
                                  std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t index = 0; index < size && offset + index < bytes.size(); ++index) {
        value |= std::uint64_t{bytes[offset + index]} << (8 * index);
    }
    return value;
}

/// Up to eight characters as the number that `LittleEndian` reads from them.
constexpr std::uint64_t Id(std::string_view text) {
    std::uint64_t value = 0;
    for (std::size_t index = 0; index < text.size(); ++index) {
        value |= std::uint64_t{static_cast<std::uint8_t>(text[index])} << (8 * index);
    }
    return value;
}

/// A number of up to eight bytes, most significant first, as the number that `LittleEndian`
/// reads from them.
constexpr std::uint64_t BigEndian(std::uint64_t value, std::size_t size) {
    std::uint64_t turned = 0;
    for (std::size_t index = 0; index < size; ++index) {
        turned |= ((value >> (8 * index)) & 0xFFU) << (8 * (size - 1 - index));
    }
    return turned;
}

/// What one field of a file has to hold.
struct FieldCheck {
    std::size_t offset;
    std::size_t size;
    std::uint64_t value;  ///< Little-endian.
    const char* name;
};

/// Expects that the fields cover the bytes without a gap and hold their values.
inline void CheckFields(std::span<const std::uint8_t> bytes, std::span<const FieldCheck> fields) {
    std::size_t next = 0;
    for (const FieldCheck& field : fields) {
        EXPECT_EQ(field.offset, next) << "gap before " << field.name;
        EXPECT_EQ(LittleEndian(bytes, field.offset, field.size), field.value) << field.name;
        next = field.offset + field.size;
    }
    EXPECT_EQ(next, bytes.size());
}

}  // namespace vorrel::test

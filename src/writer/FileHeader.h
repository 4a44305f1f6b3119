#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vorrel {

/// Four characters as the number that little-endian order stores as these characters.
constexpr std::uint32_t FourCharacters(const char (&text)[5]) {
    std::uint32_t id = 0;
    for (std::size_t index = 0; index < 4; ++index) {
        id |= std::uint32_t{static_cast<std::uint8_t>(text[index])} << (8 * index);
    }
    return id;
}
static_assert(FourCharacters("RIFF") == 0x46464952);

/// Stores the low `size` bytes of `value`, least significant first.
constexpr void PutLittleEndian(std::uint8_t* out, std::uint64_t value, std::size_t size) {
    for (std::size_t index = 0; index < size; ++index) {
        out[index] = static_cast<std::uint8_t>(value >> (8 * index));
    }
}

/// Stores the low `size` bytes of `value`, most significant first.
constexpr void PutBigEndian(std::uint8_t* out, std::uint64_t value, std::size_t size) {
    for (std::size_t index = 0; index < size; ++index) {
        out[index] = static_cast<std::uint8_t>(value >> (8 * (size - 1 - index)));
    }
}

/// One little-endian field of a file header, whose number is taken from a `Values` record.
template <class Values>
struct HeaderField {
    std::size_t offset;
    std::size_t size;
    std::uint64_t (*value)(const Values& values);
};

/// True when the fields follow each other without gap or overlap and end at `size`.
template <class Values, std::size_t Count>
constexpr bool CoversHeader(const std::array<HeaderField<Values>, Count>& layout,
                            std::size_t size) {
    std::size_t next = 0;
    for (const HeaderField<Values>& field : layout) {
        if (field.offset != next) {
            return false;
        }
        next += field.size;
    }
    return next == size;
}

/// The header that `layout` describes, filled from `values`; a number too wide for its field
/// loses its upper bytes.
template <std::size_t Size, class Values, std::size_t Count>
constexpr std::array<std::uint8_t, Size> BuildHeader(
    const std::array<HeaderField<Values>, Count>& layout, const Values& values) {
    std::array<std::uint8_t, Size> header{};
    for (const HeaderField<Values>& field : layout) {
        PutLittleEndian(header.data() + field.offset, field.value(values), field.size);
    }
    return header;
}

}  // namespace vorrel

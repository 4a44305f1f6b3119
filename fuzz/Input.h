#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace vorrel::fuzz {

/// Numbers and texts out of the fuzzer's bytes; zeros behind their end.
class Input {
public:
    Input(const std::uint8_t* bytes, std::size_t count) : next(bytes), left(count) {}

    bool Ended() const { return left == 0; }
    std::uint8_t Byte() {
        if (left == 0) {
            return 0;
        }
        --left;
        return *next++;
    }
    /// Below 256 and below `limit`.
    std::uint64_t Below(std::uint64_t limit) {
        return left == 0 || limit == 0 ? 0 : Byte() % limit;
    }
    /// Any number whatever: infinities and what is no number, too.
    double AnyDouble() {
        std::uint64_t bits = 0;
        for (int byte = 0; byte < 8; ++byte) {
            bits = bits << 8U | Byte();
        }
        double value = 0.0;
        std::memcpy(&value, &bits, sizeof(value));
        return value;
    }
    /// The bytes up to the next `end`, which is left out.
    std::string Until(std::uint8_t end) {
        std::string text;
        while (left > 0) {
            const std::uint8_t byte = Byte();
            if (byte == end) {
                break;
            }
            text.push_back(static_cast<char>(byte));
        }
        return text;
    }
    std::string Rest() {
        std::string text(reinterpret_cast<const char*>(next), left);
        next += left;
        left = 0;
        return text;
    }

private:
    const std::uint8_t* next;
    std::size_t left;
};

}  // namespace vorrel::fuzz

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

namespace vorrel {

/// Allocates storage aligned to `Alignment` bytes and leaves trivial elements uninitialised when
/// a container only grows (`resize(n)`): the buffers of this engine are always overwritten whole.
template <class T, std::size_t Alignment>
class AlignedAllocator {
public:
    using value_type = T;
    template <class U>
    struct rebind {
        using other = AlignedAllocator<U, Alignment>;
    };

    AlignedAllocator() = default;
    template <class U>
    AlignedAllocator(  // NOLINT(google-explicit-constructor): what an allocator has to offer
        const AlignedAllocator<U, Alignment>&) noexcept {}

    T* allocate(std::size_t count) {
        return static_cast<T*>(::operator new (count * sizeof(T), std::align_val_t{Alignment}));
    }
    void deallocate(T* pointer, std::size_t) noexcept {
        ::operator delete (pointer, std::align_val_t{Alignment});
    }

    template <class U, class... Arguments>
    void construct(U* place, Arguments&&... arguments) {
        if constexpr (sizeof...(Arguments) == 0) {
            ::new (static_cast<void*>(place)) U;  // default-, not value-initialised
        } else {
            ::new (static_cast<void*>(place)) U(std::forward<Arguments>(arguments)...);
        }
    }

    friend bool operator==(const AlignedAllocator&, const AlignedAllocator&) { return true; }
};

/// Wide enough for every vector register that a kernel uses.
inline constexpr std::size_t kBufferAlignment = 64;

/// Bytes for the vector kernels. `resize` leaves new bytes uninitialised.
using AlignedBytes = std::vector<std::uint8_t, AlignedAllocator<std::uint8_t, kBufferAlignment>>;

/// One channel's samples of one device buffer on its way from the callback to the store.
using Block = AlignedBytes;

}  // namespace vorrel

// The global operators new and delete in all their forms, on top of `malloc` and `free`, so that
// the sanitizers go on seeing every block. Included by one file of a program, which before that has
// defined in an unnamed namespace
//     bool Grants(std::size_t bytes) noexcept;  // false: there is no memory for this allocation
//     void Allocated(void* block) noexcept;
//     void BeforeFree(void* block) noexcept;
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

// NOLINTBEGIN(misc-definitions-in-headers): one file of a program includes it
namespace {

void* Told(void* block) noexcept {
    if (block != nullptr) {
        Allocated(block);
    }
    return block;
}

void* Allocate(std::size_t bytes) noexcept {
    return Grants(bytes) ? Told(std::malloc(bytes == 0 ? 1 : bytes)) : nullptr;
}

void* Allocate(std::size_t bytes, std::align_val_t alignment) noexcept {
    if (!Grants(bytes)) {
        return nullptr;
    }
    const auto boundary = static_cast<std::size_t>(alignment);
    // The size that `aligned_alloc` takes is a multiple of the alignment.
    const std::size_t rounded = (bytes + boundary - 1) / boundary * boundary;
    return Told(std::aligned_alloc(boundary, rounded == 0 ? boundary : rounded));
}

void* OrThrow(void* block) {
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void Free(void* block) noexcept {
    if (block != nullptr) {
        BeforeFree(block);
        std::free(block);
    }
}

}  // namespace

void* operator new(std::size_t bytes) {
    return OrThrow(Allocate(bytes));
}
void* operator new[](std::size_t bytes) {
    return OrThrow(Allocate(bytes));
}
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
    return Allocate(bytes);
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
    return Allocate(bytes);
}
void* operator new(std::size_t bytes, std::align_val_t alignment) {
    return OrThrow(Allocate(bytes, alignment));
}
void* operator new[](std::size_t bytes, std::align_val_t alignment) {
    return OrThrow(Allocate(bytes, alignment));
}
void* operator new(std::size_t bytes, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return Allocate(bytes, alignment);
}
void* operator new[](std::size_t bytes, std::align_val_t alignment,
                     const std::nothrow_t&) noexcept {
    return Allocate(bytes, alignment);
}

void operator delete(void* block) noexcept {
    Free(block);
}
void operator delete[](void* block) noexcept {
    Free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    Free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    Free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    Free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    Free(block);
}
void operator delete(void* block, std::align_val_t) noexcept {
    Free(block);
}
void operator delete[](void* block, std::align_val_t) noexcept {
    Free(block);
}
void operator delete(void* block, std::size_t, std::align_val_t) noexcept {
    Free(block);
}
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept {
    Free(block);
}
void operator delete(void* block, std::align_val_t, const std::nothrow_t&) noexcept {
    Free(block);
}
void operator delete[](void* block, std::align_val_t, const std::nothrow_t&) noexcept {
    Free(block);
}
// NOLINTEND(misc-definitions-in-headers)

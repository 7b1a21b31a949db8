// Allocation through malloc and friends; the flags select zero-filling.
#include "gnr_system/CKvAlloc.h"

#include <cstdlib>
#include <cstring>

void* CKvAlloc::Alloc(uint32_t flags, uint64_t size) {
    if (size == 0 || size > SIZE_MAX) return nullptr;
    return (flags & kZeroFill) ? std::calloc(1, static_cast<size_t>(size)) : std::malloc(static_cast<size_t>(size));
}

void* CKvAlloc::ReAlloc(void* pointer, uint64_t size, uint32_t flags, uint64_t oldSize) {
    if (!pointer) return Alloc(flags, size);
    if (size == 0) {
        std::free(pointer);
        return nullptr;
    }
    if (size > SIZE_MAX) return nullptr;
    void* grown = std::realloc(pointer, static_cast<size_t>(size));
    if (grown && (flags & kZeroFill) && size > oldSize)
        std::memset(static_cast<char*>(grown) + oldSize, 0, static_cast<size_t>(size - oldSize));
    return grown;
}

void CKvAlloc::Free(void* pointer) { std::free(pointer); }

void CKvAlloc::FreeAndSetNull(void** pointer) {
    if (!pointer) return;
    std::free(*pointer);
    *pointer = nullptr;
}

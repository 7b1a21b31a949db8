// The thin allocation layer under the byte array and the library's buffers.
#pragma once

#include <cstdint>

class CKvAlloc {
public:
    static constexpr uint32_t kZeroFill = 0x2;  // flag bit 1: zero-filled memory

    // Size 0 gives null.
    static void* Alloc(uint32_t flags, uint64_t size);
    // A null pointer allocates; size 0 frees and gives null. On failure the
    // old block is untouched and null is returned. kZeroFill clears the
    // bytes beyond `oldSize` when the block grows.
    static void* ReAlloc(void* pointer, uint64_t size, uint32_t flags, uint64_t oldSize = 0);
    static void Free(void* pointer);
    static void FreeAndSetNull(void** pointer);
};

// A growable owned byte buffer with a size, a capacity, a growth step and a
// read/write offset kept for its users (the lite-variant reader derives from it).
#pragma once

#include <cstdint>

#include "gnr_system/KvResult.h"

class CKvByteArray {
public:
    // Values of SetData's `op` argument.
    enum EKvByteArrayModeOp { eOpSet = 0, eOpAppend = 1 };
    // Values of SetData's `alloc` argument.
    enum EKvByteArrayModeAlloc { eAllocExact = 0, eAllocNever = 1, eAllocIncrement = 2 };

    static constexpr uint64_t kDefaultIncrement = 1024;

    explicit CKvByteArray(uint64_t increment = kDefaultIncrement);
    // A copy of `size` bytes at `data` (nothing when `data` is null).
    CKvByteArray(const void* data, uint64_t size, uint64_t increment = kDefaultIncrement);
    CKvByteArray(const CKvByteArray& other);
    CKvByteArray(CKvByteArray&& other) noexcept;
    virtual ~CKvByteArray();

    CKvByteArray& operator=(const CKvByteArray& other);
    CKvByteArray& operator=(CKvByteArray&& other) noexcept;
    bool operator==(const CKvByteArray& other) const;
    bool operator!=(const CKvByteArray& other) const { return !(*this == other); }

    // Frees the data and sets the growth step.
    void Init(uint64_t increment);
    void SetIncrement(uint64_t increment) { m_nIncrement = increment ? increment : 1; }
    uint64_t GetIncrement() const { return m_nIncrement; }

    // Writes `size` bytes at the end of the valid bytes (op 1) or at the start
    // (any other op). alloc 1 never grows the buffer, 2 grows it in whole
    // increments, anything else to exactly the size needed. A null `data`
    // only reserves. Answers 0, KV_ERR_OUT_OF_MEMORY when the buffer cannot grow (it is left as
    // it was), KV_ERR_CANCELLED when only part of the data fit, KV_ERR_FAILED when none of it did.
    kv_result SetData(const void* data, uint64_t size, int op = eOpSet, int alloc = eAllocExact);
    // Sets the number of valid bytes, growing the capacity to exactly `size`
    // when needed; new bytes are not initialised. KV_ERR_OUT_OF_MEMORY when it cannot grow.
    kv_result SetSize(uint64_t size);
    // Makes the capacity at least `capacity` without changing the content.
    kv_result Reserve(uint64_t capacity);
    // Releases the buffer: size, capacity and offset become 0.
    void FreeData();
    // Exchanges content with another array (no copy of the bytes).
    void Swap(CKvByteArray& other) noexcept;

    uint8_t* GetData() { return m_pData; }
    const uint8_t* GetData() const { return m_pData; }
    // Pointer `offset` bytes into the data; null when that is past the size.
    uint8_t* GetData(uint64_t offset) { return offset <= m_nSize && m_pData ? m_pData + offset : nullptr; }
    const uint8_t* GetData(uint64_t offset) const { return offset <= m_nSize && m_pData ? m_pData + offset : nullptr; }
    uint64_t GetSize() const { return m_nSize; }
    uint64_t GetAllocated() const { return m_nAllocated; }

    void SetCurrentOffset(uint64_t offset) { m_nCurrentOffset = offset; }
    // Sets the offset to the position of `p` inside the data.
    void SetCurrentOffsetPtr(const void* p) {
        m_nCurrentOffset = static_cast<uint64_t>(static_cast<const uint8_t*>(p) - m_pData);
    }
    uint64_t GetCurrentOffset() const { return m_nCurrentOffset; }
    uint8_t* GetCurrentOffsetPtr() { return m_pData ? m_pData + m_nCurrentOffset : nullptr; }
    const uint8_t* GetCurrentOffsetPtr() const { return m_pData ? m_pData + m_nCurrentOffset : nullptr; }

protected:
    // Grows or shrinks the block to exactly `capacity` bytes; KV_ERR_OUT_OF_MEMORY on failure.
    kv_result Reallocate(uint64_t capacity);

    uint8_t* m_pData = nullptr;
    uint64_t m_nCurrentOffset = 0;
    uint64_t m_nSize = 0;
    uint64_t m_nAllocated = 0;
    uint64_t m_nIncrement = kDefaultIncrement;
};

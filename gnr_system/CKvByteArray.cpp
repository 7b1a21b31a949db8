// Growable byte buffer.
#include "gnr_system/CKvByteArray.h"

#include <cstring>
#include <utility>

#include "gnr_system/CKvAlloc.h"

CKvByteArray::CKvByteArray(uint64_t increment) { SetIncrement(increment); }

CKvByteArray::CKvByteArray(const void* data, uint64_t size, uint64_t increment) {
    SetIncrement(increment);
    if (data && size) SetData(data, size);
}

CKvByteArray::CKvByteArray(const CKvByteArray& other) : m_nIncrement(other.m_nIncrement) {
    if (other.m_nSize) SetData(other.m_pData, other.m_nSize);
    m_nCurrentOffset = other.m_nCurrentOffset;
}

CKvByteArray::CKvByteArray(CKvByteArray&& other) noexcept { Swap(other); }

CKvByteArray::~CKvByteArray() { CKvAlloc::Free(m_pData); }

CKvByteArray& CKvByteArray::operator=(const CKvByteArray& other) {
    if (this == &other) return *this;
    m_nIncrement = other.m_nIncrement;
    if (other.m_nSize == 0) {
        m_nSize = 0;
    } else if (SetData(other.m_pData, other.m_nSize) != KV_OK) {
        return *this;  // out of memory: the old content stays
    }
    m_nCurrentOffset = other.m_nCurrentOffset;
    return *this;
}

CKvByteArray& CKvByteArray::operator=(CKvByteArray&& other) noexcept {
    if (this != &other) {
        CKvByteArray empty(other.m_nIncrement);
        Swap(other);
        other.Swap(empty);
    }
    return *this;
}

bool CKvByteArray::operator==(const CKvByteArray& other) const {
    if (m_nSize != other.m_nSize) return false;
    return m_nSize == 0 || std::memcmp(m_pData, other.m_pData, static_cast<size_t>(m_nSize)) == 0;
}

void CKvByteArray::Init(uint64_t increment) {
    FreeData();
    SetIncrement(increment);
}

kv_result CKvByteArray::Reallocate(uint64_t capacity) {
    void* grown = CKvAlloc::ReAlloc(m_pData, capacity, 0);
    if (!grown && capacity) return KV_ERR_OUT_OF_MEMORY;
    m_pData = static_cast<uint8_t*>(grown);
    m_nAllocated = capacity;
    if (m_nSize > capacity) m_nSize = capacity;
    return KV_OK;
}

kv_result CKvByteArray::SetData(const void* data, uint64_t size, int op, int alloc) {
    const uint64_t start = (op == eOpAppend) ? m_nSize : 0;
    kv_result result = KV_OK;
    if (m_nAllocated - start < size && alloc != eAllocNever) {
        const uint64_t needed = start + size;
        if (needed < start) return KV_ERR_OUT_OF_MEMORY;  // the sum overflowed
        uint64_t capacity = needed;
        if (alloc == eAllocIncrement) {
            const uint64_t steps = (size - (m_nAllocated - start)) / m_nIncrement + 1;
            if (steps > (UINT64_MAX - m_nAllocated) / m_nIncrement) return KV_ERR_OUT_OF_MEMORY;
            capacity = m_nAllocated + m_nIncrement * steps;
        }
        result = Reallocate(capacity);
        if (result != KV_OK) return result;
    }
    if (!data) return result;

    const uint64_t room = m_nAllocated - start;
    const uint64_t copied = room < size ? room : size;
    if (copied) std::memmove(m_pData + start, data, static_cast<size_t>(copied));
    m_nSize = start + copied;
    if (copied < size) return copied == 0 ? KV_ERR_FAILED : KV_ERR_CANCELLED;
    return result;
}

kv_result CKvByteArray::SetSize(uint64_t size) {
    if (size > m_nAllocated) {
        kv_result r = Reallocate(size);
        if (r != KV_OK) return r;
    }
    m_nSize = size;
    return KV_OK;
}

kv_result CKvByteArray::Reserve(uint64_t capacity) {
    return capacity > m_nAllocated ? Reallocate(capacity) : KV_OK;
}

void CKvByteArray::FreeData() {
    CKvAlloc::Free(m_pData);
    m_pData = nullptr;
    m_nSize = m_nAllocated = m_nCurrentOffset = 0;
}

void CKvByteArray::Swap(CKvByteArray& other) noexcept {
    std::swap(m_pData, other.m_pData);
    std::swap(m_nCurrentOffset, other.m_nCurrentOffset);
    std::swap(m_nSize, other.m_nSize);
    std::swap(m_nAllocated, other.m_nAllocated);
    std::swap(m_nIncrement, other.m_nIncrement);
}

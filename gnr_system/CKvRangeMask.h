// A set of selected indices (planes, channels, frames): the selection that
// channel merge and extraction take. Kept sorted and free of duplicates, so
// iteration runs in ascending index order.
#pragma once

#include <cstdint>
#include <vector>

#include "gnr_system/KvResult.h"

class CKvRangeMask {
public:
    CKvRangeMask() = default;

    // Selects one index, or every index of first..last (both included; nothing
    // when last < first). KV_ERR_OUT_OF_MEMORY when memory runs out.
    kv_result Add(uint32_t index);
    kv_result AddRange(uint32_t first, uint32_t last);
    void Remove(uint32_t index);
    void Clear() { m_aIndices.clear(); }

    bool IsSet(uint32_t index) const;
    bool IsEmpty() const { return m_aIndices.empty(); }
    uint32_t GetCount() const { return static_cast<uint32_t>(m_aIndices.size()); }
    // The i-th selected index in ascending order; i must be below GetCount().
    uint32_t GetAt(uint32_t i) const { return m_aIndices[i]; }
    // How many selected indices lie below `limit`.
    uint32_t CountBelow(uint32_t limit) const;

    std::vector<uint32_t>::const_iterator begin() const { return m_aIndices.begin(); }
    std::vector<uint32_t>::const_iterator end() const { return m_aIndices.end(); }

    bool operator==(const CKvRangeMask& other) const { return m_aIndices == other.m_aIndices; }
    bool operator!=(const CKvRangeMask& other) const { return !(*this == other); }

private:
    std::vector<uint32_t> m_aIndices;
};

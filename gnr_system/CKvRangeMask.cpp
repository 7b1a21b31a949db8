#include "gnr_system/CKvRangeMask.h"

#include <algorithm>

kv_result CKvRangeMask::Add(uint32_t index) {
    return KvNoThrow([&] {
        const auto at = std::lower_bound(m_aIndices.begin(), m_aIndices.end(), index);
        if (at == m_aIndices.end() || *at != index) m_aIndices.insert(at, index);
        return KV_OK;
    });
}

kv_result CKvRangeMask::AddRange(uint32_t first, uint32_t last) {
    if (last < first) return KV_OK;
    return KvNoThrow([&] {
        std::vector<uint32_t> merged;
        // In size_t: the range of every index has one more element than uint32_t counts.
        merged.reserve(m_aIndices.size() + static_cast<size_t>(last - first) + 1);
        auto old = m_aIndices.begin();
        for (; old != m_aIndices.end() && *old < first; ++old) merged.push_back(*old);
        for (uint64_t i = first; i <= last; ++i) merged.push_back(static_cast<uint32_t>(i));
        for (; old != m_aIndices.end(); ++old) {
            if (*old > last) merged.push_back(*old);
        }
        m_aIndices.swap(merged);
        return KV_OK;
    });
}

void CKvRangeMask::Remove(uint32_t index) {
    const auto at = std::lower_bound(m_aIndices.begin(), m_aIndices.end(), index);
    if (at != m_aIndices.end() && *at == index) m_aIndices.erase(at);
}

bool CKvRangeMask::IsSet(uint32_t index) const {
    return std::binary_search(m_aIndices.begin(), m_aIndices.end(), index);
}

uint32_t CKvRangeMask::CountBelow(uint32_t limit) const {
    return static_cast<uint32_t>(std::lower_bound(m_aIndices.begin(), m_aIndices.end(), limit) - m_aIndices.begin());
}

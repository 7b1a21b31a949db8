// The in-memory chunk map: a sorted array over the loaded map bytes plus a
// node per name added later.
#include "fileformat/CKvChunkMap.h"

#include <algorithm>
#include <stdexcept>

#include "gnr_system/KvBytes.h"

namespace {

// Bytes of an entry after its name: position and size.
constexpr size_t kEntryNumbersSize = 16;

}  // namespace

// ---- iteration

bool CKvChunkMap::const_iterator::LoadedIsNext() const {
    if (m_nLoaded == m_pMap->m_aLoaded.size()) return false;
    if (m_itAdded == m_pMap->m_mapAdded.end()) return true;
    return m_pMap->LoadedName(m_nLoaded) < std::string_view(m_itAdded->first);
}

CKvChunkMap::Entry CKvChunkMap::const_iterator::operator*() const {
    if (LoadedIsNext()) return Entry(m_pMap->LoadedName(m_nLoaded), m_pMap->LoadedMember(m_nLoaded));
    return Entry(m_itAdded->first, m_itAdded->second);
}

CKvChunkMap::const_iterator& CKvChunkMap::const_iterator::operator++() {
    if (LoadedIsNext()) ++m_nLoaded;
    else ++m_itAdded;
    return *this;
}

CKvChunkMap::const_iterator CKvChunkMap::lower_bound(std::string_view name) const {
    return const_iterator(this, LowerBoundLoaded(name), m_mapAdded.lower_bound(name));
}

CKvChunkMap::const_iterator CKvChunkMap::upper_bound(std::string_view name) const {
    size_t loaded = LowerBoundLoaded(name);
    if (loaded < m_aLoaded.size() && LoadedName(loaded) == name) ++loaded;
    return const_iterator(this, loaded, m_mapAdded.upper_bound(name));
}

// ---- loading

kv_result CKvChunkMap::Load(std::vector<uint8_t>&& data, std::string_view entriesEnd, size_t maxNameLength) {
    Clear();
    if (data.size() > UINT32_MAX) return KV_ERR_FAILED;  // name offsets are 32-bit
    m_aBytes = std::move(data);
    // At least a "!" and two numbers per entry: a bound that never over-reserves much.
    m_aLoaded.reserve(m_aBytes.size() / (1 + kEntryNumbersSize));  // untouched room costs no pages
    CKvByteCursor cursor(m_aBytes.data(), m_aBytes.size());
    bool descending = true;  // as writers store them; anything else is sorted afterwards
    while (!cursor.AtEnd()) {
        const size_t length = cursor.FindByte('!', maxNameLength + 1);
        const size_t offset = m_aBytes.size() - cursor.Remaining();
        const std::string_view text(reinterpret_cast<const char*>(cursor.Current()),
                                    std::min(length, cursor.Remaining()));
        if (text == entriesEnd) {
            FinishLoading(descending);
            return KV_OK;
        }
        // The name must end in "!" within the length limit, and its position
        // and size must follow in full.
        if (length >= cursor.Remaining()) break;
        if (!cursor.Skip(length + 1) || !cursor.Skip(kEntryNumbersSize)) break;
        m_aLoaded.push_back(SLoadedEntry{static_cast<uint32_t>(offset), static_cast<uint32_t>(length + 1)});
        const size_t n = m_aLoaded.size();
        if (descending && n > 1 && !(LoadedName(n - 1) < LoadedName(n - 2))) descending = false;
    }
    // The entries ran out without the closing text, or one was cut short:
    // those read before stay.
    FinishLoading(descending);
    return KV_ERR_FAILED;
}

void CKvChunkMap::FinishLoading(bool descending) {
    if (descending) std::reverse(m_aLoaded.begin(), m_aLoaded.end());
    else SortLoaded();
}

// Sorts entries stored in any order and keeps, of a name stored twice, the
// entry that came first.
void CKvChunkMap::SortLoaded() {
    std::stable_sort(m_aLoaded.begin(), m_aLoaded.end(), [this](const SLoadedEntry& a, const SLoadedEntry& b) {
        return std::string_view(reinterpret_cast<const char*>(m_aBytes.data()) + a.nameOffset, a.nameLength) <
               std::string_view(reinterpret_cast<const char*>(m_aBytes.data()) + b.nameOffset, b.nameLength);
    });
    size_t kept = 0;
    for (size_t i = 0; i < m_aLoaded.size(); ++i) {
        if (kept > 0 && LoadedName(kept - 1) == LoadedName(i)) continue;
        m_aLoaded[kept++] = m_aLoaded[i];
    }
    m_aLoaded.resize(kept);
}

void CKvChunkMap::Clear() {
    m_aBytes.clear();
    m_aLoaded.clear();
    m_mapAdded.clear();
}

// ---- look-up and change

size_t CKvChunkMap::LowerBoundLoaded(std::string_view name) const {
    size_t low = 0, high = m_aLoaded.size();
    while (low < high) {
        const size_t mid = low + (high - low) / 2;
        if (LoadedName(mid) < name) low = mid + 1;
        else high = mid;
    }
    return low;
}

SKvChunkMapMember CKvChunkMap::LoadedMember(size_t i) const {
    const uint8_t* numbers = m_aBytes.data() + m_aLoaded[i].nameOffset + m_aLoaded[i].nameLength;
    return SKvChunkMapMember{kvbytes::LoadU64(numbers), kvbytes::LoadU64(numbers + 8)};
}

bool CKvChunkMap::Find(std::string_view name, SKvChunkMapMember& member) const {
    const size_t i = LowerBoundLoaded(name);
    if (i < m_aLoaded.size() && LoadedName(i) == name) {
        member = LoadedMember(i);
        return true;
    }
    auto it = m_mapAdded.find(name);
    if (it == m_mapAdded.end()) return false;
    member = it->second;
    return true;
}

void CKvChunkMap::Set(std::string_view name, const SKvChunkMapMember& member) {
    const size_t i = LowerBoundLoaded(name);
    if (i < m_aLoaded.size() && LoadedName(i) == name) {
        // The loaded bytes are this map's own copy: re-pointing writes there.
        uint8_t* numbers = m_aBytes.data() + m_aLoaded[i].nameOffset + m_aLoaded[i].nameLength;
        kvbytes::StoreU64(numbers, member.position);
        kvbytes::StoreU64(numbers + 8, member.size);
        return;
    }
    auto it = m_mapAdded.find(name);
    if (it != m_mapAdded.end()) it->second = member;
    else m_mapAdded.emplace(std::string(name), member);
}

SKvChunkMapMember CKvChunkMap::at(std::string_view name) const {
    SKvChunkMapMember member;
    if (!Find(name, member)) throw std::out_of_range("no such chunk");
    return member;
}

// The in-memory chunk map: a hash index over the loaded map bytes, a sorted
// view of them made on demand, and a node per name added later.
#include "fileformat/CKvChunkMap.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "gnr_system/KvBytes.h"

namespace {

// Bytes of an entry after its name: position and size.
constexpr size_t kEntryNumbersSize = 16;
// Bytes a typical entry takes (an indexed frame name and its numbers): sizes
// the index before the entries are counted; it grows when they are more.
constexpr size_t kTypicalEntrySize = 36;
// Longest run of occupied slots a name may probe. Names crafted to collide
// cannot make opening quadratic: past this the index is dropped and look-ups
// fall back to binary search over the sorted names.
constexpr size_t kMaxProbes = 64;

// Hashes a name from its first and last eight bytes and its length: cheap,
// and enough for names that differ in their ends, as the indexed names of
// frames and metadata do. Names that collide only make the probes longer.
uint64_t HashName(std::string_view name) {
    uint64_t head = 0, tail = 0;
    const size_t n = name.size();
    if (n >= 8) {
        std::memcpy(&head, name.data(), 8);
        std::memcpy(&tail, name.data() + n - 8, 8);
    } else {
        std::memcpy(&head, name.data(), n);
    }
    uint64_t h = (head ^ 0x9E3779B97F4A7C15ull) * 0xFF51AFD7ED558CCDull;
    h ^= (tail + n) * 0xC4CEB9FE1A85EC53ull;
    h ^= h >> 32;
    h *= 0xFF51AFD7ED558CCDull;
    return h ^ (h >> 29);
}

uint64_t Tag(uint64_t hash) { return hash >> 32; }

}  // namespace

// ---- iteration

bool CKvChunkMap::const_iterator::LoadedIsNext() const {
    if (m_nLoaded == m_pMap->m_aLoaded.size()) return false;
    if (m_itAdded == m_pMap->m_mapAdded.end()) return true;
    return m_pMap->LoadedName(m_nLoaded) < std::string_view(m_itAdded->first);
}

CKvChunkMap::Entry CKvChunkMap::const_iterator::operator*() const {
    if (LoadedIsNext()) {
        const SLoadedEntry& e = m_pMap->m_aLoaded[m_nLoaded];
        return Entry(m_pMap->LoadedName(m_nLoaded), m_pMap->MemberAt(e.nameOffset, e.nameLength));
    }
    return Entry(m_itAdded->first, m_itAdded->second);
}

CKvChunkMap::const_iterator& CKvChunkMap::const_iterator::operator++() {
    if (LoadedIsNext()) ++m_nLoaded;
    else ++m_itAdded;
    return *this;
}

CKvChunkMap::const_iterator CKvChunkMap::begin() const {
    EnsureSorted();
    return const_iterator(this, 0, m_mapAdded.begin());
}

CKvChunkMap::const_iterator CKvChunkMap::end() const {
    EnsureSorted();
    return const_iterator(this, m_aLoaded.size(), m_mapAdded.end());
}

CKvChunkMap::const_iterator CKvChunkMap::lower_bound(std::string_view name) const {
    EnsureSorted();
    return const_iterator(this, LowerBoundLoaded(name), m_mapAdded.lower_bound(name));
}

CKvChunkMap::const_iterator CKvChunkMap::upper_bound(std::string_view name) const {
    EnsureSorted();
    size_t loaded = LowerBoundLoaded(name);
    if (loaded < m_aLoaded.size() && LoadedName(loaded) == name) ++loaded;
    return const_iterator(this, loaded, m_mapAdded.upper_bound(name));
}

size_t CKvChunkMap::size() const {
    if (m_bIndexDropped) EnsureSorted();  // twins are only known once sorted
    return (m_bIndexDropped ? m_aLoaded.size() : m_nIndexed) + m_mapAdded.size();
}

// ---- loading

template <typename Visit>
bool CKvChunkMap::WalkEntries(Visit&& visit) const {
    CKvByteCursor cursor(m_aBytes.data(), m_aBytes.size());
    while (!cursor.AtEnd()) {
        const size_t length = cursor.FindByte('!', m_nMaxNameLength + 1);
        const size_t offset = m_aBytes.size() - cursor.Remaining();
        const std::string_view text(reinterpret_cast<const char*>(cursor.Current()),
                                    std::min(length, cursor.Remaining()));
        if (text == m_strEntriesEnd) return true;
        // The name must end in "!" within the length limit, and its position
        // and size must follow in full.
        if (length >= cursor.Remaining()) return false;
        if (!cursor.Skip(length + 1) || !cursor.Skip(kEntryNumbersSize)) return false;
        visit(static_cast<uint32_t>(offset), static_cast<uint32_t>(length + 1));
    }
    return false;  // the entries ran out without the closing text
}

kv_result CKvChunkMap::Load(std::vector<uint8_t>&& data, std::string_view entriesEnd, size_t maxNameLength) {
    Clear();
    if (data.size() > UINT32_MAX - 1) return KV_ERR_FAILED;  // name offsets are 32-bit
    m_aBytes = std::move(data);
    m_strEntriesEnd = entriesEnd;
    m_nMaxNameLength = maxNameLength;
    size_t slots = 16;
    while (slots < (m_aBytes.size() / kTypicalEntrySize) * 3 / 2) slots *= 2;
    m_aSlots.assign(slots, 0);
    m_bSorted = false;
    // One pass: every entry goes into the index as it is parsed. Entries
    // before any damage are kept.
    const bool whole = WalkEntries([this](uint32_t offset, uint32_t length) {
        if (!m_bIndexDropped) m_bIndexDropped = !IndexEntry(offset, length);
    });
    if (m_bIndexDropped) m_aSlots.clear();
    return whole ? KV_OK : KV_ERR_FAILED;
}

// Adds a name to the index unless it is there already (of twins the first
// stored wins).
bool CKvChunkMap::IndexEntry(uint32_t offset, uint32_t length) {
    if ((m_nIndexed + 1) * 3 > m_aSlots.size() * 2) GrowIndex();
    const std::string_view name = NameAt(offset, length);
    const uint64_t hash = HashName(name);
    const size_t mask = m_aSlots.size() - 1;
    size_t slot = static_cast<size_t>(hash) & mask;
    for (size_t probe = 0; m_aSlots[slot] != 0; ++probe, slot = (slot + 1) & mask) {
        if (probe == kMaxProbes) return false;
        const uint64_t held = m_aSlots[slot];
        if ((held >> 32) != Tag(hash)) continue;
        const uint32_t heldOffset = static_cast<uint32_t>(held) - 1;
        // A stored name has one "!", at its end: equal bytes up to the
        // query's "!" mean equal names.
        if (std::memcmp(m_aBytes.data() + heldOffset, name.data(), length) == 0) return true;
    }
    m_aSlots[slot] = (Tag(hash) << 32) | (static_cast<uint64_t>(offset) + 1);
    ++m_nIndexed;
    return true;
}

void CKvChunkMap::GrowIndex() {
    std::vector<uint64_t> old;
    old.swap(m_aSlots);
    m_aSlots.assign(old.size() * 2, 0);
    const size_t mask = m_aSlots.size() - 1;
    for (uint64_t held : old) {
        if (held == 0) continue;
        const uint32_t offset = static_cast<uint32_t>(held) - 1;
        const size_t length = static_cast<const uint8_t*>(std::memchr(m_aBytes.data() + offset, '!',
                                                                      m_aBytes.size() - offset)) -
                              (m_aBytes.data() + offset) + 1;
        size_t slot = static_cast<size_t>(HashName(NameAt(offset, static_cast<uint32_t>(length)))) & mask;
        while (m_aSlots[slot] != 0) slot = (slot + 1) & mask;
        m_aSlots[slot] = held;
    }
}

// Writers store entries in descending order, so they usually only need
// reversing; anything else is sorted, keeping the first of twins.
void CKvChunkMap::EnsureSorted() const {
    if (m_bSorted) return;
    m_aLoaded.clear();
    bool descending = true;
    WalkEntries([&](uint32_t offset, uint32_t length) {
        m_aLoaded.push_back(SLoadedEntry{offset, length});
        const size_t n = m_aLoaded.size();
        if (descending && n > 1 && !(LoadedName(n - 1) < LoadedName(n - 2))) descending = false;
    });
    if (descending) {
        std::reverse(m_aLoaded.begin(), m_aLoaded.end());
    } else {
        std::stable_sort(m_aLoaded.begin(), m_aLoaded.end(), [this](const SLoadedEntry& a, const SLoadedEntry& b) {
            return NameAt(a.nameOffset, a.nameLength) < NameAt(b.nameOffset, b.nameLength);
        });
        size_t kept = 0;
        for (size_t i = 0; i < m_aLoaded.size(); ++i) {
            if (kept > 0 && LoadedName(kept - 1) == LoadedName(i)) continue;
            m_aLoaded[kept++] = m_aLoaded[i];
        }
        m_aLoaded.resize(kept);
    }
    m_bSorted = true;
}

void CKvChunkMap::Clear() {
    m_aBytes.clear();
    m_aSlots.clear();
    m_nIndexed = 0;
    m_bIndexDropped = false;
    m_aLoaded.clear();
    m_bSorted = true;
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

bool CKvChunkMap::FindLoaded(std::string_view name, SLoadedEntry& entry) const {
    if (m_bIndexDropped || m_aSlots.empty()) {
        if (m_aBytes.empty()) return false;
        EnsureSorted();
        const size_t i = LowerBoundLoaded(name);
        if (i == m_aLoaded.size() || LoadedName(i) != name) return false;
        entry = m_aLoaded[i];
        return true;
    }
    // Only names with their one "!" at the end can be stored ones.
    if (name.empty() || name.find('!') != name.size() - 1) return false;
    const uint64_t hash = HashName(name);
    const size_t mask = m_aSlots.size() - 1;
    for (size_t slot = static_cast<size_t>(hash) & mask;; slot = (slot + 1) & mask) {
        const uint64_t held = m_aSlots[slot];
        if (held == 0) return false;
        if ((held >> 32) != Tag(hash)) continue;
        const uint32_t offset = static_cast<uint32_t>(held) - 1;
        if (m_aBytes.size() - offset >= name.size() &&
            std::memcmp(m_aBytes.data() + offset, name.data(), name.size()) == 0) {
            entry = SLoadedEntry{offset, static_cast<uint32_t>(name.size())};
            return true;
        }
    }
}

SKvChunkMapMember CKvChunkMap::MemberAt(uint32_t nameOffset, uint32_t nameLength) const {
    const uint8_t* numbers = m_aBytes.data() + nameOffset + nameLength;
    return SKvChunkMapMember{kvbytes::LoadU64(numbers), kvbytes::LoadU64(numbers + 8)};
}

bool CKvChunkMap::Find(std::string_view name, SKvChunkMapMember& member) const {
    SLoadedEntry entry;
    if (FindLoaded(name, entry)) {
        member = MemberAt(entry.nameOffset, entry.nameLength);
        return true;
    }
    auto it = m_mapAdded.find(name);
    if (it == m_mapAdded.end()) return false;
    member = it->second;
    return true;
}

void CKvChunkMap::Set(std::string_view name, const SKvChunkMapMember& member) {
    SLoadedEntry entry;
    if (FindLoaded(name, entry)) {
        // The loaded bytes are this map's own copy: re-pointing writes there.
        uint8_t* numbers = m_aBytes.data() + entry.nameOffset + entry.nameLength;
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

// The chunk map in memory: chunk name (with its "!") -> where the chunk is.
// Opening a file must cost neither a heap allocation per chunk nor more than
// one pass over the entries: the entries stay in the map chunk's own bytes,
// indexed by one hash table built while they are parsed. The names in order,
// which only listings and prefix searches need, are sorted on first use.
// Chunks written afterwards under new names go into a node per name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "gnr_system/KvResult.h"

// Where a chunk is. `size` is the data length for chunks written by the
// container and header + name + data for chunks found by a recovery scan;
// readers take lengths from the chunk header and use only the position.
struct SKvChunkMapMember {
    uint64_t position = 0;  // file offset of the chunk header
    uint64_t size = 0;
};

class CKvChunkMap {
public:
    using Entry = std::pair<std::string_view, SKvChunkMapMember>;

    // Visits the names in ascending byte order, merging both stores.
    class const_iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = Entry;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = Entry;

        Entry operator*() const;
        const_iterator& operator++();
        bool operator==(const const_iterator& o) const { return m_nLoaded == o.m_nLoaded && m_itAdded == o.m_itAdded; }
        bool operator!=(const const_iterator& o) const { return !(*this == o); }

    private:
        friend class CKvChunkMap;
        using AddedIterator = std::map<std::string, SKvChunkMapMember, std::less<>>::const_iterator;
        const_iterator(const CKvChunkMap* map, size_t loaded, AddedIterator added)
            : m_pMap(map), m_nLoaded(loaded), m_itAdded(added) {}
        bool LoadedIsNext() const;

        const CKvChunkMap* m_pMap;
        size_t m_nLoaded;        // next entry of the loaded array
        AddedIterator m_itAdded; // next entry of the added names
    };

    // Replaces the contents with the entries of a map chunk's data: each a
    // name ending in "!" (at most `maxNameLength` bytes before it), then the
    // position and size as little-endian 64-bit numbers, until the text
    // `entriesEnd`. Of a name stored twice the first entry wins. KV_ERR_FAILED for
    // malformed data; the entries before the damage are kept.
    kv_result Load(std::vector<uint8_t>&& data, std::string_view entriesEnd, size_t maxNameLength);
    void Clear();

    // The entry of exactly `name`: false when there is none.
    bool Find(std::string_view name, SKvChunkMapMember& member) const;
    // Adds `name` or re-points it.
    void Set(std::string_view name, const SKvChunkMapMember& member);

    size_t size() const;
    bool empty() const { return size() == 0; }
    const_iterator begin() const;
    const_iterator end() const;
    // The first entry whose name is not less than `name`.
    const_iterator lower_bound(std::string_view name) const;
    // The first entry whose name is greater than `name`.
    const_iterator upper_bound(std::string_view name) const;
    // The entry of `name` (an unknown name throws std::out_of_range).
    SKvChunkMapMember at(std::string_view name) const;

private:
    // A loaded entry: where its name is in m_aBytes. Position and size stay
    // in the bytes right after the name.
    struct SLoadedEntry {
        uint32_t nameOffset;
        uint32_t nameLength;  // with the "!"
    };
    std::string_view NameAt(uint32_t offset, uint32_t length) const {
        return std::string_view(reinterpret_cast<const char*>(m_aBytes.data()) + offset, length);
    }
    std::string_view LoadedName(size_t i) const { return NameAt(m_aLoaded[i].nameOffset, m_aLoaded[i].nameLength); }
    SKvChunkMapMember MemberAt(uint32_t nameOffset, uint32_t nameLength) const;
    // Walks the entries of m_aBytes up to the closing text, calling `visit`
    // with each name's offset and length; false when the walk met damage.
    template <typename Visit>
    bool WalkEntries(Visit&& visit) const;
    bool IndexEntry(uint32_t offset, uint32_t length);  // false when the index had to be dropped
    void GrowIndex();
    // The loaded entry of `name`: false when absent.
    bool FindLoaded(std::string_view name, SLoadedEntry& entry) const;
    // Makes m_aLoaded the loaded names in ascending order, each once.
    void EnsureSorted() const;
    size_t LowerBoundLoaded(std::string_view name) const;

    std::vector<uint8_t> m_aBytes;    // the map chunk's data the loaded names point into
    std::string_view m_strEntriesEnd; // the text that closes the entries
    size_t m_nMaxNameLength = 0;
    std::vector<uint64_t> m_aSlots;   // open addressing: hash tag << 32 | (name offset + 1); 0 is empty
    size_t m_nIndexed = 0;            // distinct names in m_aSlots
    bool m_bIndexDropped = false;     // names collided too much: look-ups search m_aLoaded
    mutable std::vector<SLoadedEntry> m_aLoaded;  // ascending, unique, once sorted
    mutable bool m_bSorted = true;
    std::map<std::string, SKvChunkMapMember, std::less<>> m_mapAdded;  // names not among the loaded
};

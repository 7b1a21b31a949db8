// The in-memory chunk map: loading stored entries in any order, look-up,
// re-pointing, and ordered iteration across loaded and added names.
#include "fileformat/CKvChunkMap.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "gnr_system/KvBytes.h"

namespace {

constexpr std::string_view kEnd = "END OF ENTRIES";
using Listing = std::vector<std::tuple<std::string, uint64_t, uint64_t>>;

std::vector<uint8_t> Entries(const Listing& entries, bool closed = true) {
    std::vector<uint8_t> out;
    for (const auto& [name, position, size] : entries) {
        out.insert(out.end(), name.begin(), name.end());
        uint8_t numbers[16];
        kvbytes::StoreU64(numbers, position);
        kvbytes::StoreU64(numbers + 8, size);
        out.insert(out.end(), numbers, numbers + 16);
    }
    if (closed) out.insert(out.end(), kEnd.begin(), kEnd.end());
    return out;
}

Listing List(const CKvChunkMap& map) {
    Listing out;
    for (const auto& [name, member] : map) out.emplace_back(std::string(name), member.position, member.size);
    return out;
}

}  // namespace

TEST(ChunkMap, LoadsEntriesInAnyOrderFirstOfTwinsWins) {
    const Listing ascending = {{"a!", 1, 10}, {"b|10!", 2, 20}, {"b|9!", 3, 30}};
    for (const Listing& stored : {Listing{ascending.rbegin(), ascending.rend()},  // as writers store them
                                  Listing{ascending[1], ascending[0], ascending[2], {"a!", 99, 99}}}) {
        CKvChunkMap map;
        ASSERT_EQ(map.Load(Entries(stored), kEnd, 64), KV_OK);
        EXPECT_EQ(List(map), ascending);
        SKvChunkMapMember m;
        ASSERT_TRUE(map.Find("b|9!", m));
        EXPECT_EQ(m.position, 3u);
        EXPECT_FALSE(map.Find("b|9", m));
        EXPECT_FALSE(map.Find("", m));
    }
}

TEST(ChunkMap, DamagedEntriesKeepThoseBeforeAndRefuseLongNames) {
    CKvChunkMap map;
    std::vector<uint8_t> cut = Entries({{"b!", 2, 20}, {"a!", 1, 10}}, false);
    cut.resize(cut.size() - 3);  // the last entry's size is cut
    EXPECT_EQ(map.Load(std::move(cut), kEnd, 64), KV_ERR_FAILED);
    EXPECT_EQ(List(map), (Listing{{"b!", 2, 20}}));

    EXPECT_EQ(map.Load(Entries({{std::string(65, 'x') + "!", 1, 1}}), kEnd, 64), KV_ERR_FAILED);
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(map.Load(Entries({{std::string(64, 'x') + "!", 1, 1}}), kEnd, 64), KV_OK);
    EXPECT_EQ(map.size(), 1u);
    EXPECT_EQ(map.Load({}, kEnd, 64), KV_ERR_FAILED);
}

TEST(ChunkMap, SetRepointsLoadedNamesAndMergesAddedOnesInOrder) {
    CKvChunkMap map;
    ASSERT_EQ(map.Load(Entries({{"d!", 4, 4}, {"b!", 2, 2}}), kEnd, 64), KV_OK);
    map.Set("b!", {20, 22});
    map.Set("c!", {3, 3});
    map.Set("a!", {1, 1});
    map.Set("e!", {5, 5});
    map.Set("c!", {30, 33});
    EXPECT_EQ(List(map), (Listing{{"a!", 1, 1}, {"b!", 20, 22}, {"c!", 30, 33}, {"d!", 4, 4}, {"e!", 5, 5}}));
    EXPECT_EQ(map.size(), 5u);
    EXPECT_EQ((*map.upper_bound("b!")).first, "c!");
    EXPECT_EQ((*map.upper_bound("c")).first, "c!");
    EXPECT_EQ((*map.lower_bound("d!")).first, "d!");
    EXPECT_TRUE(map.upper_bound("e!") == map.end());
    EXPECT_EQ(map.at("d!").position, 4u);
    EXPECT_THROW(map.at("zz!"), std::out_of_range);

    // A copy is independent of the original.
    CKvChunkMap copy = map;
    copy.Set("d!", {40, 44});
    EXPECT_EQ(map.at("d!").position, 4u);
    EXPECT_EQ(copy.at("d!").position, 40u);
}

// Names that differ only in their middle all hash alike; past a bounded run
// of collisions the map stops hashing and still finds every name, once.
TEST(ChunkMap, NamesThatAllCollideAreStillFound) {
    Listing stored;
    for (int i = 0; i < 200; ++i) {
        char middle[8];
        std::snprintf(middle, sizeof middle, "%05d", i);
        stored.emplace_back("HEADHEAD" + std::string(middle) + "TAILTAIL!", i, i);
    }
    stored.push_back(stored[7]);  // a twin, stored last: the first one wins
    std::get<1>(stored.back()) = 999;
    CKvChunkMap map;
    ASSERT_EQ(map.Load(Entries(stored), kEnd, 64), KV_OK);
    EXPECT_EQ(map.size(), 200u);
    for (int i = 0; i < 200; ++i) {
        SKvChunkMapMember m;
        ASSERT_TRUE(map.Find(std::get<0>(stored[i]), m)) << i;
        EXPECT_EQ(m.position, static_cast<uint64_t>(i));
    }
    SKvChunkMapMember m;
    EXPECT_FALSE(map.Find("HEADHEAD00200TAILTAIL!", m));
}

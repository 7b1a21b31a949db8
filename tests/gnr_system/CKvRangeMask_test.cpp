#include "gnr_system/CKvRangeMask.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

std::vector<uint32_t> Indices(const CKvRangeMask& mask) { return std::vector<uint32_t>(mask.begin(), mask.end()); }

TEST(CKvRangeMask, StaysSortedWithoutDuplicates) {
    CKvRangeMask mask;
    EXPECT_TRUE(mask.IsEmpty());
    for (uint32_t index : {7u, 3u, 7u, 0u}) EXPECT_EQ(KV_OK, mask.Add(index));
    EXPECT_EQ((std::vector<uint32_t>{0, 3, 7}), Indices(mask));
    // Overlapping ranges merge; a reversed range adds nothing.
    EXPECT_EQ(KV_OK, mask.AddRange(2, 5));
    EXPECT_EQ(KV_OK, mask.AddRange(9, 8));
    EXPECT_EQ((std::vector<uint32_t>{0, 2, 3, 4, 5, 7}), Indices(mask));
    mask.Remove(4);
    mask.Remove(100);
    EXPECT_EQ(5u, mask.GetCount());
    EXPECT_EQ(5u, mask.GetAt(3));
    EXPECT_TRUE(mask.IsSet(5) && !mask.IsSet(4) && !mask.IsSet(6));
    EXPECT_EQ(0u, mask.CountBelow(0));
    EXPECT_EQ(3u, mask.CountBelow(4));
    EXPECT_EQ(5u, mask.CountBelow(UINT32_MAX));
    mask.Clear();
    EXPECT_TRUE(mask.IsEmpty());
}

TEST(CKvRangeMask, RangeAtTheTopOfTheIndicesEnds) {
    CKvRangeMask mask;
    EXPECT_EQ(KV_OK, mask.AddRange(UINT32_MAX - 2, UINT32_MAX));
    EXPECT_EQ((std::vector<uint32_t>{UINT32_MAX - 2, UINT32_MAX - 1, UINT32_MAX}), Indices(mask));
    EXPECT_EQ(KV_OK, mask.AddRange(UINT32_MAX, UINT32_MAX));
    EXPECT_EQ(3u, mask.GetCount());
    CKvRangeMask same;
    same.Add(UINT32_MAX);
    EXPECT_NE(mask, same);
    same.AddRange(UINT32_MAX - 2, UINT32_MAX - 1);
    EXPECT_EQ(mask, same);
}

}  // namespace

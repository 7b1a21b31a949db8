#include "gnr_system/CKvByteArray.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>

namespace {

std::string Content(const CKvByteArray& a) {
    return a.GetSize() ? std::string(reinterpret_cast<const char*>(a.GetData()), a.GetSize()) : std::string();
}

// An array holding `content` in a buffer of exactly `capacity` bytes.
CKvByteArray Make(const std::string& content, uint64_t capacity, uint64_t increment) {
    CKvByteArray a(increment);
    EXPECT_EQ(KV_OK, a.SetData(nullptr, capacity));
    EXPECT_EQ(KV_OK, a.SetData(content.data(), content.size(), CKvByteArray::eOpSet, CKvByteArray::eAllocNever));
    EXPECT_EQ(capacity, a.GetAllocated());
    return a;
}

// op 1 appends, any other sets; alloc 1 never grows, 2 grows in whole
// increments, any other to the exact size. A null pointer only reserves.
TEST(CKvByteArray, SetDataModes) {
    const std::string data = "0123456789";
    const struct { std::string initial; uint64_t capacity, increment; int op, alloc; bool withData;
                   uint64_t count; kv_result result; uint64_t size, allocated; } cases[] = {
        // Never grow: part fits, nothing fits, nothing to write, fills the buffer exactly.
        {"abcdef", 8, 4, 1, 1, true, 10, KV_ERR_CANCELLED, 8, 8}, {"abcdefgh", 8, 4, 1, 1, true, 3, KV_ERR_FAILED, 8, 8},
        {"abcdefgh", 8, 4, 1, 1, true, 0, KV_OK, 8, 8},           {"abcdef", 8, 4, 1, 1, true, 2, KV_OK, 8, 8},
        // Exact: grows, or keeps a large enough buffer; unknown alloc is exact, unknown op sets.
        {"abcdef", 8, 4, 1, 0, true, 10, KV_OK, 16, 16},          {"abcdef", 8, 4, 0, 0, true, 10, KV_OK, 10, 10},
        {"abcdef", 8, 4, 0, 0, true, 3, KV_OK, 3, 8},             {"abcdef", 8, 4, 1, 7, true, 10, KV_OK, 16, 16},
        {"abcdef", 8, 4, 5, 0, true, 10, KV_OK, 10, 10},
        // Steps: capacity + increment * ((count - room) / increment + 1).
        {"abcdef", 8, 4, 1, 2, true, 10, KV_OK, 16, 8 + 4 * 3},   {"abcdef", 8, 3, 1, 2, true, 10, KV_OK, 16, 8 + 3 * 3},
        {"abcdef", 8, 4, 0, 2, true, 10, KV_OK, 10, 8 + 4 * 1},   {"", 0, 1, 1, 2, true, 10, KV_OK, 10, 11},
        // Reserving only.
        {"abcdef", 8, 4, 1, 0, false, 10, KV_OK, 6, 16},          {"abcdef", 8, 4, 1, 2, false, 10, KV_OK, 6, 20},
        {"abcdef", 8, 4, 1, 1, false, 10, KV_OK, 6, 8},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        SCOPED_TRACE(i);
        CKvByteArray a = Make(c.initial, c.capacity, c.increment);
        EXPECT_EQ(c.result, a.SetData(c.withData ? data.data() : nullptr, c.count, c.op, c.alloc));
        EXPECT_EQ(c.size, a.GetSize());
        EXPECT_EQ(c.allocated, a.GetAllocated());
        const size_t start = c.op == 1 ? c.initial.size() : 0;
        EXPECT_EQ(c.withData ? c.initial.substr(0, start) + data.substr(0, c.size - start) : c.initial, Content(a));
    }
}

// Sizes that overflow are refused before the allocator, the last two fail in
// it; either way the buffer is left as it was.
TEST(CKvByteArray, FailedGrowthLeavesTheBufferAsItWas) {
    const struct { int op, alloc; uint64_t increment, count; } cases[] = {
        {1, 0, 4, UINT64_MAX}, {1, 2, 4, UINT64_MAX - 2}, {0, 2, uint64_t{1} << 40, UINT64_MAX - 4},
        {0, 0, 4, UINT64_MAX - 1}, {0, 2, UINT64_MAX / 2, 100}};
#if defined(__SANITIZE_ADDRESS__)
    // The address sanitizer aborts on a huge malloc unless told to fail it.
    const char* options = std::getenv("ASAN_OPTIONS");
    const size_t tested = options && std::strstr(options, "allocator_may_return_null=1") ? 5 : 3;
#else
    const size_t tested = 5;
#endif
    for (size_t i = 0; i < tested; ++i) {
        const auto& c = cases[i];
        CKvByteArray a = Make("abcdef", 8, c.increment);
        const uint8_t* before = a.GetData();
        EXPECT_EQ(KV_ERR_OUT_OF_MEMORY, a.SetData(nullptr, c.count, c.op, c.alloc)) << i;
        EXPECT_TRUE(a.GetData() == before && a.GetAllocated() == 8 && Content(a) == "abcdef") << i;
    }
}

TEST(CKvByteArray, IncrementZeroIsStoredAsOne) {
    CKvByteArray a(0), b("x", 1, 0), c(9), d(9);
    c.SetIncrement(0);
    d.Init(0);
    for (const CKvByteArray* x : {&a, &b, &c, &d}) EXPECT_EQ(1u, x->GetIncrement());
}

TEST(CKvByteArray, SizeOffsetsAndFree) {
    CKvByteArray a("abc", 3);
    EXPECT_EQ(KV_OK, a.SetSize(10));
    EXPECT_TRUE(a.GetSize() == 10 && a.GetAllocated() >= 10 && std::memcmp(a.GetData(), "abc", 3) == 0);
    const uint64_t allocated = a.GetAllocated();
    EXPECT_EQ(KV_OK, a.SetSize(2));
    EXPECT_EQ("ab", Content(a));
    EXPECT_EQ(allocated, a.GetAllocated());  // shrinking keeps the buffer
    EXPECT_EQ(a.GetData() + 2, a.GetData(2));  // one past the end is still a position
    EXPECT_EQ(nullptr, a.GetData(3));
    a.SetCurrentOffsetPtr(a.GetData(1));
    EXPECT_EQ(1u, a.GetCurrentOffset());
    EXPECT_EQ(a.GetData() + 1, a.GetCurrentOffsetPtr());
    a.FreeData();
    EXPECT_TRUE(!a.GetData() && !a.GetData(0) && !a.GetCurrentOffsetPtr());
    EXPECT_EQ(0u, a.GetSize() + a.GetAllocated() + a.GetCurrentOffset());
    EXPECT_EQ(0u, CKvByteArray(nullptr, 5).GetSize());
}

TEST(CKvByteArray, CopyMoveAndCompare) {
    CKvByteArray a("hello", 5, 16);
    a.SetCurrentOffset(2);
    CKvByteArray copy(a), assigned("a much longer content", 21);
    EXPECT_TRUE(copy == a && copy.GetCurrentOffset() == 2 && copy.GetIncrement() == 16);
    copy.GetData()[0] = 'j';
    EXPECT_NE(a, copy);
    EXPECT_EQ("hello", Content(a));
    assigned = a;
    EXPECT_TRUE(Content(assigned) == "hello" && assigned.GetCurrentOffset() == 2);
    const CKvByteArray empty;
    assigned = empty;
    EXPECT_EQ(0u, assigned.GetSize());

    const uint8_t* bytes = a.GetData();
    CKvByteArray moved(std::move(a)), target("xy", 2);
    EXPECT_TRUE(moved.GetData() == bytes && !a.GetData() && a.GetSize() == 0);  // the buffer changes hands
    target = std::move(moved);
    EXPECT_TRUE(target.GetData() == bytes && Content(target) == "hello" && moved.GetSize() == 0);
    // Equality is size and bytes, not capacity.
    EXPECT_EQ(target, Make("hello", 64, 1));
    EXPECT_NE(target, CKvByteArray("hell", 4));
    EXPECT_EQ(CKvByteArray(), Make("", 8, 1));
}

}  // namespace

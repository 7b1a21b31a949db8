#include "gnr_system/CKvByteArray.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
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

TEST(CKvByteArray, SetDataModes) {
    const std::string data = "0123456789";
    const struct {
        const char* name;
        std::string initial;  // content before the call
        uint64_t capacity, increment;
        int op, alloc;
        bool withData;  // false: a null pointer, which only reserves
        uint64_t count;
        kv_result result;
        uint64_t size, allocated;
    } cases[] = {
        {"append, never grow, truncated", "abcdef", 8, 4, 1, 1, true, 10, KV_ERR_CANCELLED, 8, 8},
        {"set, never grow, truncated", "abcdef", 8, 4, 0, 1, true, 10, KV_ERR_CANCELLED, 8, 8},
        {"set, never grow, fits", "abcdef", 8, 4, 0, 1, true, 5, KV_OK, 5, 8},
        {"append, never grow, fills", "abcdef", 8, 4, 1, 1, true, 2, KV_OK, 8, 8},
        {"append to full, never grow", "abcdefgh", 8, 4, 1, 1, true, 3, KV_ERR_FAILED, 8, 8},
        {"append nothing to full", "abcdefgh", 8, 4, 1, 1, true, 0, KV_OK, 8, 8},
        {"append, exact", "abcdef", 8, 4, 1, 0, true, 10, KV_OK, 16, 16},
        {"set, exact", "abcdef", 8, 4, 0, 0, true, 10, KV_OK, 10, 10},
        {"set, exact, no growth needed", "abcdef", 8, 4, 0, 0, true, 3, KV_OK, 3, 8},
        {"append, unknown alloc is exact", "abcdef", 8, 4, 1, 7, true, 10, KV_OK, 16, 16},
        {"unknown op sets", "abcdef", 8, 4, 5, 0, true, 10, KV_OK, 10, 10},
        // Growth in steps: capacity + increment * ((count - capacity + start) / increment + 1).
        {"append, steps of 4", "abcdef", 8, 4, 1, 2, true, 10, KV_OK, 16, 8 + 4 * 3},
        {"append, steps of 3", "abcdef", 8, 3, 1, 2, true, 10, KV_OK, 16, 8 + 3 * 3},
        {"set, steps of 4", "abcdef", 8, 4, 0, 2, true, 10, KV_OK, 10, 8 + 4 * 1},
        {"set, steps of 100", "ab", 2, 100, 0, 2, true, 10, KV_OK, 10, 2 + 100},
        {"append to empty, steps of 1", "", 0, 1, 1, 2, true, 10, KV_OK, 10, 11},
        {"reserve by append, exact", "abcdef", 8, 4, 1, 0, false, 10, KV_OK, 6, 16},
        {"reserve by append, steps", "abcdef", 8, 4, 1, 2, false, 10, KV_OK, 6, 20},
        {"reserve, never grow", "abcdef", 8, 4, 1, 1, false, 10, KV_OK, 6, 8},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CKvByteArray a = Make(c.initial, c.capacity, c.increment);
        EXPECT_EQ(c.result, a.SetData(c.withData ? data.data() : nullptr, c.count, c.op, c.alloc));
        EXPECT_EQ(c.size, a.GetSize());
        EXPECT_EQ(c.allocated, a.GetAllocated());
        const size_t start = c.op == 1 ? c.initial.size() : 0;
        const std::string expected =
            c.withData ? c.initial.substr(0, start) + data.substr(0, c.size - start) : c.initial;
        EXPECT_EQ(expected, Content(a));
    }
}

TEST(CKvByteArray, FailedGrowthLeavesTheBufferAsItWas) {
    const struct { const char* name; int op, alloc; uint64_t increment, count; } cases[] = {
        {"append overflows the end", 1, 0, 4, UINT64_MAX},
        {"append in steps overflows", 1, 2, 4, UINT64_MAX - 2},
        {"whole steps overflow", 0, 2, uint64_t{1} << 40, UINT64_MAX - 4},
        {"exact size too large", 0, 0, 4, UINT64_MAX - 1},
        {"one step too large", 0, 2, UINT64_MAX / 2, 100},
    };
#if defined(__SANITIZE_ADDRESS__)
    // The address sanitizer aborts on a huge malloc unless told to fail it.
    const char* options = std::getenv("ASAN_OPTIONS");
    const bool mallocMayFail = options && std::strstr(options, "allocator_may_return_null=1");
#else
    const bool mallocMayFail = true;
#endif
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CKvByteArray a = Make("abcdef", 8, c.increment);
        const uint8_t* before = a.GetData();
        // The last two cases reach the allocator; the others must refuse before it.
        if (!mallocMayFail && std::strstr(c.name, "large")) continue;
        EXPECT_EQ(KV_ERR_OUT_OF_MEMORY, a.SetData(nullptr, c.count, c.op, c.alloc));
        EXPECT_EQ(before, a.GetData());
        EXPECT_EQ(8u, a.GetAllocated());
        EXPECT_EQ("abcdef", Content(a));
    }
}

TEST(CKvByteArray, IncrementZeroIsStoredAsOne) {
    CKvByteArray a(0);
    EXPECT_EQ(1u, a.GetIncrement());
    a.SetIncrement(9);
    a.SetIncrement(0);
    EXPECT_EQ(1u, a.GetIncrement());
    a.SetIncrement(9);
    a.Init(0);
    EXPECT_EQ(1u, a.GetIncrement());
    EXPECT_EQ(1u, CKvByteArray("x", 1, 0).GetIncrement());
}

TEST(CKvByteArray, SizeOffsetsAndFree) {
    CKvByteArray a("abc", 3);
    EXPECT_EQ(KV_OK, a.SetSize(10));
    EXPECT_EQ(10u, a.GetSize());
    EXPECT_GE(a.GetAllocated(), 10u);
    EXPECT_EQ(0, std::memcmp(a.GetData(), "abc", 3));
    const uint64_t allocated = a.GetAllocated();
    EXPECT_EQ(KV_OK, a.SetSize(2));
    EXPECT_EQ("ab", Content(a));
    EXPECT_EQ(allocated, a.GetAllocated());  // shrinking keeps the buffer

    EXPECT_EQ(a.GetData() + 2, a.GetData(2));  // one past the end is still a position
    EXPECT_EQ(nullptr, a.GetData(3));
    EXPECT_EQ(nullptr, a.GetData(UINT64_MAX));
    a.SetCurrentOffsetPtr(a.GetData(1));
    EXPECT_EQ(1u, a.GetCurrentOffset());
    EXPECT_EQ(a.GetData() + 1, a.GetCurrentOffsetPtr());

    a.FreeData();
    EXPECT_EQ(nullptr, a.GetData());
    EXPECT_EQ(nullptr, a.GetData(0));
    EXPECT_EQ(nullptr, a.GetCurrentOffsetPtr());
    EXPECT_EQ(0u, a.GetSize() + a.GetAllocated() + a.GetCurrentOffset());
    EXPECT_EQ(0u, CKvByteArray(nullptr, 5).GetSize());
}

TEST(CKvByteArray, CopyMoveAndCompare) {
    CKvByteArray a("hello", 5, 16);
    a.SetCurrentOffset(2);

    CKvByteArray copy(a);
    EXPECT_NE(a.GetData(), copy.GetData());
    EXPECT_EQ(a, copy);
    EXPECT_EQ(2u, copy.GetCurrentOffset());
    EXPECT_EQ(16u, copy.GetIncrement());
    copy.GetData()[0] = 'j';
    EXPECT_NE(a, copy);
    EXPECT_EQ("hello", Content(a));

    CKvByteArray assigned("a much longer content", 21);
    assigned = a;
    EXPECT_EQ("hello", Content(assigned));
    EXPECT_EQ(2u, assigned.GetCurrentOffset());
    assigned = *&assigned;  // self-assignment keeps the content
    EXPECT_EQ("hello", Content(assigned));
    const CKvByteArray empty;
    assigned = empty;
    EXPECT_EQ(0u, assigned.GetSize());

    const uint8_t* bytes = a.GetData();
    CKvByteArray moved(std::move(a));
    EXPECT_EQ(bytes, moved.GetData());  // the buffer changes hands, no copy
    EXPECT_EQ(0u, a.GetSize());
    EXPECT_EQ(nullptr, a.GetData());
    CKvByteArray target("xy", 2);
    target = std::move(moved);
    EXPECT_EQ(bytes, target.GetData());
    EXPECT_EQ("hello", Content(target));
    EXPECT_EQ(0u, moved.GetSize());

    // Equality is size and bytes, not capacity.
    CKvByteArray roomy = Make("hello", 64, 1);
    EXPECT_EQ(target, roomy);
    EXPECT_NE(target, CKvByteArray("hell", 4));
    EXPECT_EQ(CKvByteArray(), Make("", 8, 1));
}

}  // namespace

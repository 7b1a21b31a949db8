#include "gnr_system/CKvLiteVariant.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "gnr_system/CKvAlloc.h"
#include "gnr_system/CKvVariant.h"
#include "gnr_system/KvBytes.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Content(const CKvLiteVariantR& r) {
    return r.GetSize() ? Bytes(r.GetData(), r.GetData() + r.GetSize()) : Bytes();
}

// A reader owning a copy of `bytes`.
void Load(CKvLiteVariantR& r, const Bytes& bytes) {
    void* copy = bytes.empty() ? nullptr : CKvAlloc::Alloc(0, bytes.size());
    if (copy) std::memcpy(copy, bytes.data(), bytes.size());
    r.SetPointer(copy, bytes.size(), bytes.size());
}

CKvLiteVariantR Reader(const Bytes& bytes) {
    CKvLiteVariantR r;
    Load(r, bytes);
    return r;
}

// Expects every call of a sequence to have succeeded.
void ExpectOk(std::initializer_list<kv_result> results) {
    int call = 0;
    for (kv_result r : results) EXPECT_EQ(KV_OK, r) << "call " << call++;
}

Bytes Finish(CKvLiteVariantW& w, int compress = 0) {
    CKvLiteVariantR r;
    EXPECT_EQ(KV_OK, w.Finalize(r, compress));
    return Content(r);
}

void PutItemHeader(Bytes& out, uint8_t type, const std::string& name) {
    out.push_back(type);
    out.push_back(static_cast<uint8_t>(name.empty() ? 0 : name.size() + 1));
    for (char c : name) out.insert(out.end(), {static_cast<uint8_t>(c), 0});
    if (!name.empty()) out.insert(out.end(), {0, 0});
}

void PutU64(Bytes& out, uint64_t v) {
    for (int i = 0; i < 8; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

// A calibration record with four values, checked byte for byte below.
Bytes WriteCalibration() {
    CKvLiteVariantW w;
    ExpectOk({w.LevelBegin(L"SKvCalibration"), w.Set(0.5, L"dCalibration"), w.Set(1.0, L"dAspect"),
              w.Set(true, L"bValid"), w.Set(L"", L"sObjective"), w.LevelEnd()});
    return Finish(w);
}

TEST(CKvLiteVariant, CalibrationExampleIsByteExact) {
    Bytes expected;
    PutItemHeader(expected, eLvLevel, "SKvCalibration");
    expected.insert(expected.end(), {4, 0, 0, 0});
    PutU64(expected, 149);
    PutItemHeader(expected, eLvDouble, "dCalibration");
    expected.insert(expected.end(), {0, 0, 0, 0, 0, 0, 0xE0, 0x3F});
    PutItemHeader(expected, eLvDouble, "dAspect");
    expected.insert(expected.end(), {0, 0, 0, 0, 0, 0, 0xF0, 0x3F});
    PutItemHeader(expected, eLvBool, "bValid");
    expected.push_back(1);
    PutItemHeader(expected, eLvString, "sObjective");
    expected.insert(expected.end(), {0, 0});
    for (uint64_t offset : {106, 80, 44, 123}) PutU64(expected, offset);
    ASSERT_EQ(181u, expected.size());
    EXPECT_EQ(expected, WriteCalibration());
}

// Values read back backwards and through paths; the trace shows them all.
TEST(CKvLiteVariant, ReadsBackThroughPathsAndTraces) {
    CKvLiteVariantR r = Reader(WriteCalibration());
    ASSERT_EQ(KV_OK, r.LevelBegin(L"SKvCalibration"));
    EXPECT_EQ(L"", r.Get(L"sObjective", L"x").Std());
    EXPECT_EQ(0.5, r.Get(L"\\SKvCalibration\\dCalibration", 0.0));
    EXPECT_EQ(L"dAspect", r.GetCurrentName().Std());  // stepped past dCalibration
    EXPECT_EQ(7.0, r.Get(L"\\Nowhere\\dAspect", 7.0));

    ASSERT_EQ(KV_OK, r.LevelBegin(L"\\SKvCalibration"));
    CKvStringW text;
    const uint64_t position = r.GetCurrentOffset();
    ASSERT_EQ(KV_OK, r.Trace(text));
    EXPECT_EQ(L"SKvCalibration (level), 4 children\n  dCalibration (double) = 0.5\n  dAspect (double) = 1\n"
              L"  bValid (bool) = 1\n  sObjective (string) = \"\"\n",
              text.Std());
    EXPECT_EQ(position, r.GetCurrentOffset());
}

// Found by the fast path in written order, by binary search in any other.
TEST(CKvLiteVariant, FindInWrittenAndRandomOrder) {
    std::vector<int> order(200);
    std::iota(order.begin(), order.end(), 0);
    std::mt19937 random(7);
    std::shuffle(order.begin(), order.end(), random);
    auto name = [](int i) { return L"i" + std::to_wstring(i); };

    CKvLiteVariantW w;
    ASSERT_EQ(KV_OK, w.LevelBegin(L"Top"));
    for (int i : order) {
        ASSERT_EQ(KV_OK, w.Set(int32_t{i * 3}, name(i).c_str()));
        if (i % 50 == 0) ExpectOk({w.LevelBegin(name(i + 1000).c_str()), w.Set(uint64_t(i), L"uiInner"), w.LevelEnd()});
    }
    CKvLiteVariantR r;
    Load(r, Finish(w));  // the last level is closed by Finalize
    ASSERT_EQ(KV_OK, r.LevelBegin(L"Top"));
    for (int pass = 0; pass < 2; ++pass) {
        for (int i : order) {
            SCOPED_TRACE(i);
            EXPECT_EQ(i * 3, r.Get(name(i).c_str(), -1));
            if (i % 50 == 0) {
                ASSERT_EQ(KV_OK, r.LevelBegin(name(i + 1000).c_str()));
                EXPECT_EQ(uint64_t(i), r.Get(L"uiInner", uint64_t{99}));
                ASSERT_EQ(KV_OK, r.LevelEnd());
                ASSERT_EQ(KV_OK, r.NextValue());
            }
        }
        std::shuffle(order.begin(), order.end(), random);
    }
    EXPECT_EQ(150u, r.Get(L"\\Top\\i1150\\uiInner", uint64_t{0}));
    EXPECT_EQ(-1, r.Get(L"i5", -1));  // not inside i1150
}

// Every getter against every stored type: only the same type, or an integer of
// the same width and other signedness, is read; otherwise the default.
TEST(CKvLiteVariant, GetReturnsDefaultOnMismatch) {
    CKvLiteVariantW w;
    ASSERT_EQ(KV_OK, w.LevelBegin(L"L"));
    int anchor = 0;
    ExpectOk({w.Set(true, L"b"), w.Set(int32_t{-2}, L"i"), w.Set(uint32_t{3000000000u}, L"ui"), w.Set(int64_t{-4}, L"l"),
              w.Set(uint64_t{5}, L"ul"), w.Set(6.5, L"d"), w.Set(static_cast<const void*>(&anchor), L"p"),
              w.Set(L"text\U0001F600", L"s"), w.Set("abc", 3, L"a")});
    CKvLiteVariantR r = Reader(Finish(w));
    ASSERT_EQ(KV_OK, r.CurrentLevelBegin());
    const wchar_t* names[] = {L"b", L"i", L"ui", L"l", L"ul", L"d", L"p", L"s", L"a", L"missing"};
    for (int t = 0; t < 10; ++t) {
        SCOPED_TRACE(t);
        const wchar_t* n = names[t];
        EXPECT_EQ(t == 0, r.Get(n, false));
        EXPECT_EQ(t == 1 ? -2 : t == 2 ? static_cast<int32_t>(3000000000u) : 9, r.Get(n, int32_t{9}));
        EXPECT_EQ(t == 1 ? 0xFFFFFFFEu : t == 2 ? 3000000000u : 9u, r.Get(n, uint32_t{9}));
        EXPECT_EQ(t == 3 ? -4 : t == 4 ? 5 : 9, r.Get(n, int64_t{9}));
        EXPECT_EQ(t == 3 ? uint64_t(-4) : t == 4 ? 5u : 9u, r.Get(n, uint64_t{9}));
        EXPECT_EQ(t == 5 ? 6.5 : 9.0, r.Get(n, 9.0));
        EXPECT_EQ(t == 6 ? static_cast<void*>(&anchor) : nullptr, r.Get(n, static_cast<void*>(nullptr)));
        EXPECT_EQ(t == 7 ? L"text\U0001F600" : L"-", r.Get(n, L"-").Std());
        uint64_t size = 0;
        const uint8_t* bytes = r.Get(n, &size);
        EXPECT_EQ(t == 8 ? "abc" : "null", bytes ? std::string(reinterpret_cast<const char*>(bytes), size) : "null");
    }
    char two[2] = {};
    EXPECT_EQ(KV_OK, r.Get(L"a", two, 2));  // a shorter buffer takes the first bytes
    EXPECT_EQ('b', two[1]);
    // A failed read leaves the position where it was.
    r.Reset();
    ASSERT_EQ(KV_OK, r.CurrentLevelBegin());
    const uint64_t position = r.GetCurrentOffset();
    double d = 0;
    EXPECT_EQ(KV_ERR_FAILED, r.Read(eLvDouble, L"b", &d, sizeof d));
    EXPECT_EQ(position, r.GetCurrentOffset());
}

// Long names are cut to 254 units; empty names are reached only by position.
TEST(CKvLiteVariant, NameLengths) {
    const std::wstring longName(300, L'n');
    CKvLiteVariantW w;
    ExpectOk({w.LevelBegin(L"L"), w.Set(int32_t{1}, longName.c_str()), w.Set(int32_t{2}, L""), w.Set(int32_t{3}, nullptr)});
    const Bytes bytes = Finish(w);
    const size_t first = 2 + 4 + 12;
    EXPECT_EQ(255, bytes[first + 1]);
    EXPECT_EQ('n', bytes[first + 2 + 253 * 2]);
    EXPECT_EQ(0, bytes[first + 2 + 254 * 2]);
    const size_t second = first + 2 + 255 * 2 + 4;
    EXPECT_EQ(Bytes({eLvInt32, 0, 2, 0, 0, 0, eLvInt32, 0, 3, 0, 0, 0}), Bytes(&bytes[second], &bytes[second + 12]));

    CKvLiteVariantR r = Reader(bytes);
    ASSERT_EQ(KV_OK, r.CurrentLevelBegin());
    EXPECT_EQ(std::wstring(254, L'n'), r.GetCurrentName().Std());
    wchar_t small[4];
    EXPECT_EQ(KV_OK, r.GetCurrentName(small, 4));
    EXPECT_EQ(std::wstring(L"nnn"), small);
    EXPECT_EQ(0, r.Get(L"", 0));                // not at the position: not found by name
    EXPECT_EQ(1, r.Get(longName.c_str(), 0));  // the cut name and the look-up agree
    EXPECT_EQ(2, r.GetCurrentValue(0));
    EXPECT_EQ(2, r.Get(L"", 0));                // at the position
    EXPECT_EQ(3, r.Get(nullptr, 0));
}

TEST(CKvLiteVariant, EmptyLevelAndDuplicates) {
    CKvLiteVariantW w;
    ASSERT_EQ(KV_OK, w.LevelBegin(L"E"));
    const Bytes empty = Finish(w);
    EXPECT_EQ(Bytes({eLvLevel, 2, 'E', 0, 0, 0, 0, 0, 0, 0, 18, 0, 0, 0, 0, 0, 0, 0}), empty);  // no children, no index
    CKvLiteVariantR r = Reader(empty);
    uint32_t count = 7;
    ASSERT_EQ(KV_OK, r.LevelBegin(L"E", &count));
    EXPECT_EQ(0u, count);
    EXPECT_FALSE(r.IsNextValue());

    ASSERT_EQ(KV_OK, w.LevelBegin(L"D"));
    for (int i = 0; i < 5; ++i) ASSERT_EQ(KV_OK, w.Set(int32_t{i}, i % 2 ? L"x" : L"y"));
    Load(r, Finish(w));
    ASSERT_EQ(KV_OK, r.CurrentLevelBegin(&count));
    EXPECT_EQ(5u, count);
    ASSERT_EQ(KV_OK, r.NextValue());
    ASSERT_EQ(KV_OK, r.NextValue());  // y=2 is current; x is found through the index
    const int x = r.Get(L"x", -1);
    EXPECT_TRUE(x == 1 || x == 3) << x;
}

TEST(CKvLiteVariant, WriterRefusals) {
    CKvLiteVariantW w;
    EXPECT_EQ(KV_ERR_FAILED, w.LevelEnd());
    EXPECT_EQ(KV_ERR_FAILED, w.Set(static_cast<const wchar_t*>(nullptr), L"s"));
    EXPECT_EQ(KV_ERR_FAILED, w.Write(eLvInt32, L"i", "ab", 2));
    EXPECT_EQ(KV_ERR_FAILED, w.Write(eLvLevel, L"l", nullptr, 0));
    EXPECT_EQ(KV_ERR_FAILED, w.Write(eLvString, L"s", "a\0b", 3));
    EXPECT_EQ(0u, w.GetSize());
    ASSERT_EQ(KV_OK, w.Set(true, L"b"));
    EXPECT_EQ(KV_ERR_FAILED, w.LevelBegin(L"late"));
    ASSERT_EQ(KV_OK, w.Set(false, L"c"));  // plain items may follow at the top level
    CKvLiteVariantR r = Reader(Finish(w));
    EXPECT_TRUE(r.Get(L"b", false));
    EXPECT_FALSE(r.Get(L"c", true));
}

// Rewrites a current-form encoding into the old form: levels of code 10
// whose index offset and entries count from the buffer start.
void MakeOldForm(Bytes& b, uint64_t pos) {
    const uint64_t fields = pos + 2 + 2 * b[pos + 1];
    const uint32_t count = kvbytes::LoadU32(&b[fields]);
    const uint64_t index = pos + kvbytes::LoadU64(&b[fields + 4]);
    for (uint32_t i = 0; i < count; ++i) {
        const uint64_t child = pos + kvbytes::LoadU64(&b[index + 8 * i]);
        if (b[child] == eLvLevel) MakeOldForm(b, child);
        kvbytes::StoreU64(&b[index + 8 * i], child);
    }
    kvbytes::StoreU64(&b[fields + 4], index);
    b[pos] = eLvLevelOld;
}

Bytes WriteNested(int compress = 0) {
    CKvLiteVariantW w;
    ExpectOk({w.LevelBegin(L"Root"), w.Set(uint32_t{7}, L"uiA"), w.LevelBegin(L"pEmpty"), w.LevelEnd(),
              w.LevelBegin(L"pInner"), w.Set(L"value", L"sText"), w.LevelBegin(L"pDeep"), w.Set(2.5, L"dX"),
              w.LevelEnd(), w.LevelEnd(), w.Set(int64_t{-3}, L"iB")});
    return Finish(w, compress);
}

TEST(CKvLiteVariant, OldFormReadsAsCurrentForm) {
    const Bytes current = WriteNested();
    Bytes old = current;
    MakeOldForm(old, 0);
    ASSERT_NE(current, old);
    CKvLiteVariantR r = Reader(old);
    EXPECT_EQ(2.5, r.Get(L"\\Root\\pInner\\pDeep\\dX", 0.0));
    EXPECT_EQ(-3, r.Get(L"\\Root\\iB", int64_t{0}));
    EXPECT_EQ(current, Content(r));
    Load(r, old);
    ASSERT_EQ(KV_OK, r.NextValue());  // steps over the whole converted level
    EXPECT_EQ(current.size(), r.GetCurrentOffset());
    // An entry pointing outside its level stops the conversion and the read.
    Bytes bad = old;
    kvbytes::StoreU64(&bad[bad.size() - 8], bad.size());
    Load(r, bad);
    EXPECT_EQ(KV_ERR_FAILED, r.CurrentLevelBegin());
    EXPECT_EQ(KV_ERR_FAILED, r.ConvertLV31toLV32());
}

TEST(CKvLiteVariant, CompressedEnvelope) {
    const Bytes plain = WriteNested();
    const Bytes packed = WriteNested(1);
    ASSERT_EQ(0, std::memcmp(packed.data(), "LV0Z", 4));
    EXPECT_EQ(plain.size(), kvbytes::LoadU64(&packed[4]));

    CKvLiteVariantR r = Reader(packed);
    EXPECT_EQ(L"value", r.Get(L"\\Root\\pInner\\sText", L"").Std());  // expanded on first access
    EXPECT_EQ(plain, Content(r));

    // Left as they are, and then no valid item: too short, declared length 0.
    Bytes shortOne(packed.begin(), packed.begin() + 12);
    Bytes zeroLength = packed;
    kvbytes::StoreU64(&zeroLength[4], 0);
    for (const Bytes& b : {shortOne, zeroLength}) {
        Load(r, b);
        EXPECT_EQ(KV_OK, r.Decompress());
        EXPECT_EQ(b, Content(r));
        EXPECT_EQ(KV_ERR_FAILED, r.CurrentLevelBegin());
        EXPECT_EQ(KV_ERR_FAILED, r.NextValue());
    }
    // Refused: a damaged stream, a length deflate cannot reach.
    Bytes damaged = packed;
    damaged[14] ^= 0xFF;
    Bytes huge = packed;
    kvbytes::StoreU64(&huge[4], (packed.size() - 12 + 1) * kLvMaxInflateRatio);
    for (const Bytes& b : {damaged, huge}) {
        Load(r, b);
        EXPECT_EQ(KV_ERR_FAILED, r.Decompress());
        EXPECT_EQ(KV_ERR_FAILED, r.CurrentLevelBegin());
    }
}

TEST(CKvLiteVariant, ExtractAndAppend) {
    CKvLiteVariantR r = Reader(WriteNested());
    CKvLiteVariantR inner;
    ASSERT_EQ(KV_OK, r.LevelBegin(L"Root"));
    ASSERT_EQ(KV_OK, r.Extract(L"pInner", inner));
    EXPECT_EQ(2.5, inner.Get(L"\\pInner\\pDeep\\dX", 0.0));

    // Copy every item of Root into a new level, the nested ones whole.
    CKvLiteVariantW w;
    ASSERT_EQ(KV_OK, w.LevelBegin(L"Root"));
    for (; r.IsNextValue(); r.NextValue()) ASSERT_EQ(KV_OK, w.Append(r));
    EXPECT_EQ(WriteNested(), Finish(w));
    EXPECT_EQ(KV_ERR_FAILED, w.Append(static_cast<const CKvLiteVariantR&>(CKvLiteVariantR())));
}

Bytes WriteLevel(const std::vector<std::pair<std::wstring, int32_t>>& values, bool withChild, int32_t childValue) {
    CKvLiteVariantW w;
    w.LevelBegin(L"M");
    for (const auto& v : values) w.Set(v.second, v.first.c_str());
    if (withChild) ExpectOk({w.LevelBegin(L"pChild"), w.Set(childValue, childValue > 0 ? L"iPlus" : L"iMinus"), w.LevelEnd()});
    return Finish(w);
}

// a wins on shared names, b adds what a lacks (unnamed items of b are dropped),
// and levels present on both sides are merged recursively.
TEST(CKvLiteVariant, Merge) {
    CKvLiteVariantR a = Reader(WriteLevel({{L"iShared", 1}, {L"iOnlyA", 2}, {L"", 3}}, true, 5)),
                    b = Reader(WriteLevel({{L"iShared", 10}, {L"iOnlyB", 20}, {L"", 30}}, true, -6));
    ASSERT_EQ(KV_OK, a.Merge(b));
    uint32_t count = 0;
    ASSERT_EQ(KV_OK, a.LevelBegin(L"M", &count));
    EXPECT_EQ(5u, count);
    EXPECT_EQ(1, a.Get(L"iShared", 0));
    EXPECT_EQ(2, a.Get(L"iOnlyA", 0));
    EXPECT_EQ(3, a.GetCurrentValue(0));  // a's unnamed item stays in place
    EXPECT_EQ(20, a.Get(L"iOnlyB", 0));
    EXPECT_EQ(5, a.Get(L"\\M\\pChild\\iPlus", 0));
    EXPECT_EQ(-6, a.Get(L"\\M\\pChild\\iMinus", 0));

    // b without the level.
    Bytes renamed = WriteLevel({}, false, 0);
    renamed[2] = 'N';
    Load(b, renamed);
    EXPECT_EQ(KV_ERR_FAILED, a.Merge(b));
}

TEST(CKvLiteVariant, MergeLevelExAndReplace) {
    CKvLiteVariantR a = Reader(WriteLevel({{L"iX", 1}}, true, 5)), b = Reader(WriteLevel({{L"iY", 2}}, true, -6));
    ASSERT_EQ(KV_OK, a.LevelBegin(L"M"));
    ASSERT_EQ(KV_OK, b.LevelBegin(L"M"));
    CKvLiteVariantW w;
    ASSERT_EQ(KV_OK, w.LevelBegin(L"Out"));
    ASSERT_EQ(KV_OK, CKvLiteVariantR::MergeLevelEx(w, a, b, L"pChild"));
    ASSERT_EQ(KV_OK, CKvLiteVariantR::MergeLevelEx(w, a, b, L"iY"));
    EXPECT_EQ(KV_ERR_FAILED, CKvLiteVariantR::MergeLevelEx(w, a, b, L"iNone"));
    CKvLiteVariantR out = Reader(Finish(w));
    EXPECT_EQ(-6, out.Get(L"\\Out\\pChild\\iMinus", 0));
    EXPECT_EQ(5, out.Get(L"\\Out\\pChild\\iPlus", 0));
    EXPECT_EQ(2, out.Get(L"\\Out\\iY", 0));

    CKvLiteVariantW one;
    ASSERT_EQ(KV_OK, one.Set(int32_t{42}, L"iX"));
    CKvLiteVariantR replacement = Reader(Finish(one));
    a.Reset();
    ASSERT_EQ(KV_OK, a.Replace(L"iX", replacement));
    EXPECT_EQ(42, a.Get(L"\\M\\iX", 0));
}

// Copies are shared until one is made unique.
TEST(CKvLiteVariant, SharedReaders) {
    CKvLiteVariantRHolder holder;
    ASSERT_EQ(KV_OK, holder.MakeNotNull());
    Load(*holder.Get(), WriteCalibration());
    CKvLiteVariantRHolder shared = holder;
    EXPECT_EQ(holder.Get(), shared.Get());
    ASSERT_EQ(KV_OK, shared.MakeNotNullAndUnique());
    EXPECT_NE(holder.Get(), shared.Get());
    EXPECT_EQ(Content(*holder.Get()), Content(*shared.Get()));
}

// Walks every level it can enter, reading every value; returns the items seen.
int Walk(CKvLiteVariantR& r, int depth) {
    int seen = 0;
    for (int guard = 0; r.IsNextValue() && guard < 10000; ++guard) {
        ++seen;
        CKvStringW s;
        r.GetCurrentName(), r.GetCurrentValue(0.0), r.GetCurrentValue(s);
        if (r.GetCurrentType() == eLvLevel && depth < 200 && r.CurrentLevelBegin() == KV_OK) {
            seen += Walk(r, depth + 1);
            r.LevelEnd();
        }
        if (r.NextValue() != KV_OK) break;
    }
    return seen;
}

// Truncated or damaged input is refused, never read out of bounds (the sanitizers watch).
TEST(CKvLiteVariant, SurvivesDamagedInput) {
    const Bytes good = WriteNested();
    CKvLiteVariantR r;
    for (size_t n = 0; n < good.size(); ++n) {
        Load(r, Bytes(good.begin(), good.begin() + n));
        Walk(r, 0);
        EXPECT_EQ(0.0, r.Get(L"\\Root\\pInner\\pDeep\\dX", 0.0));
    }
    for (size_t i = 0; i < good.size(); ++i) {
        for (uint8_t flip : {0x01, 0x80, 0xFF}) {
            Bytes bad = good;
            bad[i] ^= flip;
            for (int pass = 0; pass < 2; ++pass, bad[0] = eLvLevelOld) {  // then as the old form
                Load(r, bad);
                Walk(r, 0);
                r.Get(L"\\Root\\pInner\\pDeep\\dX", 0.0);
            }
        }
    }
    // A level nested deeper than the reader enters.
    CKvLiteVariantW w;
    for (int i = 0; i < 300; ++i) ASSERT_EQ(KV_OK, w.LevelBegin(L"p"));
    Load(r, Finish(w));
    int entered = 0;
    while (r.CurrentLevelBegin() == KV_OK) ++entered;
    EXPECT_EQ(kLvMaxLevelDepth, entered);
}

// ---- Variant trees

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

const CKvVariant* const kNoMore = nullptr;

// A point {dX, dY} and a shape {wsLabel, pOrigin (a point), uiCount}.
void RegisterShape() {
    CKvVariant dX(0.0, L"dX"), dY(0.0, L"dY");
    CKvVariant point = CKvVariant::CreateStructNamed("RKvLvPoint", L"RKvLvPoint", &dX, &dY, kNoMore);
    CKvVariant::RegisterRunType(point);
    CKvVariant label(L"", L"wsLabel"), count(0u, L"uiCount");
    point.SetName(L"pOrigin");
    CKvVariant::RegisterRunType(
        CKvVariant::CreateStructNamed("RKvLvShape", L"RKvLvShape", &label, &point, &count, kNoMore));
}

// A tree with every scalar kind, nested and empty plain lists and a shape.
CKvVariant MakeTree() {
    RegisterShape();
    CKvByteArray bytes;
    bytes.SetData("\x00\x01\xFF", 3);
    CKvVariant tree(CKvListVariant(), L"Root");
    for (const CKvVariant& v :
         {CKvVariant(true, L"bFlag"), CKvVariant(-5, L"iSigned"), CKvVariant(4000000000u, L"uiBig"),
          CKvVariant(-1L - INT32_MAX * 3L, L"llSigned"), CKvVariant(UINT64_MAX, L"ullMax"), CKvVariant(-0.25, L"dValue"),
          CKvVariant(reinterpret_cast<void*>(uintptr_t{0x1234}), L"pHandle"), CKvVariant(L"x\U0001F600y", L"wsText"),
          CKvVariant(bytes, L"baBytes"), CKvVariant(CKvByteArray(), L"baEmpty"), CKvVariant(CKvListVariant(), L"lEmpty")})
        tree.Append(v);
    CKvVariant inner(CKvListVariant(), L"lInner"), innermost(CKvListVariant(), L"lInnermost");
    innermost.Append(CKvVariant(L"deep", L"wsDeep"));
    inner.Append(CKvVariant(7, L"iSeven"));
    inner.Append(innermost);
    tree.Append(inner);
    CKvVariant shape(CKvVariantRunType("RKvLvShape"), L"shape");
    shape[L"wsLabel"] = L"square";
    shape[L"pOrigin"][L"dY"] = 2.5;
    shape[L"uiCount"] = 4u;
    tree.Append(shape);
    return tree;
}

TEST(CKvLiteVariant, VariantTreeRoundTrips) {
    const CKvVariant tree = MakeTree();
    for (int compress : {0, 1}) {
        CKvLiteVariantW w;
        ASSERT_EQ(KV_OK, w.Set(tree));
        CKvLiteVariantR r;
        ASSERT_EQ(KV_OK, w.Finalize(r, compress));
        CKvVariant back(1, L"target");
        ASSERT_EQ(KV_OK, r.GetCurrentValue(back));
        EXPECT_TRUE(back == tree);  // run types of the structures included
        EXPECT_EQ(CKvStringW(L"target"), back.GetName());  // the target keeps its name

        // Only the structured levels record their run type, as their first child.
        ASSERT_EQ(KV_OK, r.CurrentLevelBegin());
        EXPECT_EQ(CKvStringW(L"bFlag"), r.GetCurrentName());
        ASSERT_EQ(KV_OK, r.LevelBegin(L"shape"));
        EXPECT_EQ(CKvStringW(kLvRunTypeItemName), r.GetCurrentName());
        EXPECT_EQ(CKvStringW(L"RKvLvShape"), r.Get(kLvRunTypeItemName, L""));
        // By name: read, then stepped past.
        CKvVariant origin;
        ASSERT_EQ(KV_OK, r.Get(L"pOrigin", origin));
        EXPECT_TRUE(origin == tree[L"shape"][L"pOrigin"]);
        EXPECT_EQ(CKvStringW(L"uiCount"), r.GetCurrentName());
        EXPECT_EQ(KV_ERR_FAILED, r.Get(L"pMissing", origin));
    }
}

// Older or newer layouts of a structure are brought to the registered one.
TEST(CKvLiteVariant, VariantStructureReadCompatibly) {
    RegisterShape();
    CKvLiteVariantW w;
    ExpectOk({w.LevelBegin(L"shape"), w.Set(L"RKvLvShape", kLvRunTypeItemName), w.Set(true, L"bExtra"),
              w.Set(L"old", L"wsLabel"), w.Set(3u, L"uiCount"), w.LevelBegin(L"unknown"),
              w.Set(L"RKvLvNowhere", kLvRunTypeItemName), w.Set(1, L"iKept")});
    CKvLiteVariantR r;
    ASSERT_EQ(KV_OK, w.Finalize(r, 0));
    CKvVariant shape;
    CaptureStdout();
    ASSERT_EQ(KV_OK, r.GetCurrentValue(shape));
    EXPECT_NE(std::string::npos, GetCapturedStdout().find("RKvLvNowhere"));
    EXPECT_EQ(0, CKvVariant::CompareStructure(shape, CKvVariant::GetRunTypeSample("RKvLvShape"), true));
    EXPECT_TRUE(shape[L"wsLabel"] == L"old");
    EXPECT_EQ(3u, shape[L"uiCount"].GetKv_uint32());

    // An unknown run type leaves a plain list of what was stored.
    ASSERT_EQ(KV_OK, r.CurrentLevelBegin());
    CKvVariant unknown;
    CaptureStdout();
    ASSERT_EQ(KV_OK, r.Get(L"unknown", unknown));
    GetCapturedStdout();
    EXPECT_EQ(CKvVariantRunType("CKvListVariant"), unknown.GetRunType());
    EXPECT_TRUE(unknown[L"iKept"] == 1);
}

TEST(CKvLiteVariant, VariantEdgeCases) {
    // A node of no item kind (here null) keeps only a name, as an empty level.
    CKvVariant null;
    CKvLiteVariantW w;
    null.SetName(L"nothing");
    EXPECT_EQ(KV_OK, w.Set(null, L""));  // an explicit empty name wins
    EXPECT_EQ(0u, w.GetSize());
    EXPECT_EQ(KV_OK, w.Set(null));
    CKvLiteVariantR r;
    ASSERT_EQ(KV_OK, w.Finalize(r, 0));
    EXPECT_EQ(CKvStringW(L"nothing"), r.GetCurrentName());
    CKvVariant back(5, L"back");
    ASSERT_EQ(KV_OK, r.GetCurrentValue(back));
    ASSERT_EQ(KV_OK, r.NextValue());
    EXPECT_EQ(KV_ERR_FAILED, r.GetCurrentValue(back));  // nothing left: the target stays as it is
    EXPECT_EQ(0, back.GetCount());

    // A plain list starting with a string named like the run-type item, and an unnamed element.
    CKvVariant list(CKvListVariant(), L"list"), unnamed;
    unnamed = 3;
    list.Append(CKvVariant(L"CKvByteArray", kLvRunTypeItemName));
    list.Append(unnamed);
    ASSERT_EQ(KV_OK, w.Set(list));
    ASSERT_EQ(KV_OK, w.Finalize(r, 0));
    ASSERT_EQ(KV_OK, r.GetCurrentValue(back));
    list[1].SetName(L"no_name");
    EXPECT_TRUE(back == list);
}

// Trees deeper than the reader enters are refused by the writer, skipped when read.
TEST(CKvLiteVariant, VariantDepthIsBounded) {
    CKvVariant deep(CKvListVariant(), L"p");
    CKvVariant* node = &deep;
    for (int i = 1; i < kLvMaxLevelDepth; ++i) node = node->Append(CKvVariant(CKvListVariant(), L"p"));
    node->Append(CKvVariant(1, L"leaf"));
    CKvLiteVariantW w;
    ASSERT_EQ(KV_OK, w.Set(deep));
    CKvLiteVariantR r;
    ASSERT_EQ(KV_OK, w.Finalize(r, 0));
    CKvVariant back;
    ASSERT_EQ(KV_OK, r.GetCurrentValue(back));
    EXPECT_TRUE(back == deep);

    ASSERT_EQ(KV_OK, w.LevelBegin(L"outer"));
    ASSERT_EQ(KV_OK, w.Set(1, L"a"));
    const uint64_t before = w.GetSize();
    EXPECT_EQ(KV_ERR_FAILED, w.Set(deep));
    EXPECT_EQ(before, w.GetSize());
    ASSERT_EQ(KV_OK, w.Set(2, L"b"));
    ASSERT_EQ(KV_OK, w.Finalize(r, 0));
    ASSERT_EQ(KV_OK, r.GetCurrentValue(back));
    EXPECT_EQ(2, back.GetCount());

    // Levels written deeper than that are cut where the reader stops.
    for (int i = 0; i < 300; ++i) ASSERT_EQ(KV_OK, w.LevelBegin(L"p"));
    ASSERT_EQ(KV_OK, w.Finalize(r, 0));
    ASSERT_EQ(KV_OK, r.GetCurrentValue(back));
    int lists = 0;
    for (const CKvVariant* n = &back; n; n = n->IndexPtr(0)) ++lists;
    EXPECT_EQ(kLvMaxLevelDepth, lists);
}

}  // namespace

// The XML view of an encoding reads back into the same encoding.
TEST(CKvLiteVariantXml, EncodingThroughXmlAndBack) {
    CKvLiteVariantW writer;
    ExpectOk({writer.LevelBegin(L"SKvCalibration"), writer.Set(0.5, L"dCalibration"), writer.Set(true, L"bValid"),
              writer.Set(L"line\nbreak <&> \x01", L"sObjective"), writer.Set(uint32_t{7}, L"uiCount"), writer.LevelEnd()});
    CKvLiteVariantR original;
    ASSERT_EQ(writer.Finalize(original, 1), KV_OK);  // compressed: expanded on the way

    CKvStringW xml;
    ASSERT_EQ(original.LiteVariantToXML(xml), KV_OK);
    EXPECT_EQ(xml.Find(L"<?xml version=\"1.0\" encoding=\"UTF-16\"?><variant version=\"1.0\"><SKvCalibration"), 0);
    CKvLiteVariantR back;
    ASSERT_EQ(back.LiteVariantFromXML(xml), KV_OK);
    original.Reset();
    EXPECT_EQ(Content(original), Content(back));
    EXPECT_EQ(back.LiteVariantFromXML(CKvStringW(L"<wrong/>")), KV_ERR_FAILED);
}

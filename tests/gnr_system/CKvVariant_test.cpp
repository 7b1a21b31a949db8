#include "gnr_system/CKvVariant.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <optional>
#include <string>

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

std::wstring Text(const CKvVariant& v) {
    CKvStringW text;
    v.Write(text);
    return text.GetString();
}

CKvByteArray Bytes(const void* data, size_t size) { return CKvByteArray(data, size); }

// Terminators of the null-terminated argument lists.
const CKvVariant* const kEnd = nullptr;
const wchar_t* const kLast = nullptr;

TEST(CKvVariant, TextFormsRoundTripThroughANodeOfTheSameRunType) {
    double twoAndHalf = 2.5;
    CKvListVariant list;
    list.Add(CKvVariant(1, L"a0"));
    list.Add(CKvVariant(L"x", L"a1"));
    const struct { CKvVariant value; const char* runType; std::wstring text; } cases[] = {
        {CKvVariant(-5, L"i"), "kv_int32", L"-5"},
        {CKvVariant(4294967295u, L"ui"), "kv_uint32", L"4294967295"},
        {CKvVariant(INT64_MIN, L"i"), "kv_int64", L"-9223372036854775808"},
        {CKvVariant(UINT64_MAX, L"ui"), "kv_uint64", L"18446744073709551615"},
        {CKvVariant(0.1, L"d"), "double", L"0.100000000000000"},
        {CKvVariant(-1e20, L"d"), "double", L"-100000000000000000000.000000000000000"},
        {CKvVariant(true, L"b"), "bool", L"true"},
        {CKvVariant(false, L"b"), "bool", L"false"},
        {CKvVariant(reinterpret_cast<void*>(0xDEADBEEF12ULL), L"p"), "voidPtr", L"deadbeef12"},
        {CKvVariant(L"ä <b>", L"s"), "CKvStringW", L"ä <b>"},
        {CKvVariant(Bytes("foo", 3), L"a"), "CKvByteArray", L"Zm9v"},
        {CKvVariant(Bytes(&twoAndHalf, 8), L"a"), "CKvByteArray", L"AAAAAAAABEA="},
        {CKvVariant(list, L"l"), "CKvListVariant", L"1 x"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(CKvVariantRunType(c.runType), c.value.GetRunType()) << c.runType;
        EXPECT_EQ(c.text, Text(c.value)) << c.runType;
        CKvVariant parsed(CKvVariantRunType(c.runType), L"parsed");
        if (parsed.GetCount() >= 0) {
            EXPECT_EQ(KV_ERR_NOT_PROVIDED, parsed.Read(c.text.c_str()));  // lists have no parse
            continue;
        }
        EXPECT_EQ(KV_OK, parsed.Read(c.text.c_str())) << c.runType;
        EXPECT_TRUE(parsed == c.value) << c.runType;
    }
    // Only the exact text "true" reads as true; a null node has no text.
    CKvVariant flag(true, L"b");
    EXPECT_EQ(KV_OK, flag.Read(L"TRUE"));
    EXPECT_FALSE(flag.GetBool());
    CKvStringW text(L"old");
    EXPECT_EQ(KV_ERR_FAILED, CKvVariant().Write(text));
    EXPECT_TRUE(text.IsEmpty());
}

TEST(CKvVariant, NamesAreRestrictedToXmlElementCharacters) {
    const struct { const wchar_t* name; const wchar_t* valid; } cases[] = {
        {L"3D view", L"_D_view"}, {L"", L"no_name"}, {L"a.b-c_9Z", L"a.b-c_9Z"},
        {L"-x", L"_x"}, {L".x", L"_x"}, {L"_", L"_"}, {L"größe", L"gr__e"}, {L"a/b\\c", L"a_b_c"},
    };
    for (const auto& c : cases) {
        CKvStringW name(c.name);
        EXPECT_EQ(std::wcscmp(c.name, c.valid) != 0, CKvVariant::ValidateName(name)) << c.name;
        EXPECT_EQ(std::wstring(c.valid), name.GetString());
        EXPECT_EQ(std::wstring(c.valid), CKvVariant(1, c.name).GetName().GetString());
    }
}

// Expected result of each getter; nullopt means the getter refuses the node.
struct Conversion {
    const char* label;
    CKvVariant source;
    std::optional<bool> b;
    std::optional<kv_int32> i32;
    std::optional<kv_uint32> u32;
    std::optional<kv_int64> i64;
    std::optional<kv_uint64> u64;
    std::optional<double> d;
};

template <typename T>
void ExpectGetter(const Conversion& c, const char* getter, std::optional<T> expected, T failure,
                  const std::function<T(bool*)>& get) {
    bool ok = !expected;  // the getter must set it either way
    const T value = get(&ok);
    EXPECT_EQ(expected.has_value(), ok) << c.label << " " << getter;
    EXPECT_EQ(expected.value_or(failure), value) << c.label << " " << getter;
}

TEST(CKvVariant, TypedGettersConvertOrRefuseWithTheirFailureValues) {
    const double twoAndHalf = 2.5;
    const uint64_t twoAndHalfBits = 0x4004000000000000ULL;
    const uint8_t four[] = {1, 2, 3, 4};
    const auto none = std::nullopt;
    const Conversion cases[] = {
        {"int32 -7", CKvVariant(-7, L"v"), true, -7, 4294967289u, -7, UINT64_MAX - 6, -7.0},
        {"uint32 max", CKvVariant(UINT32_MAX, L"v"), true, -1, UINT32_MAX, 4294967295, 4294967295u, 4294967295.0},
        {"int64", CKvVariant(0x100000002L, L"v"), true, 2, 2u, 0x100000002, 0x100000002u, 4294967298.0},
        {"uint64 max", CKvVariant(UINT64_MAX, L"v"), true, -1, UINT32_MAX, -1, UINT64_MAX, none},
        {"bool", CKvVariant(true, L"v"), true, 1, 1u, 1, 1u, 1.0},
        {"double -2.9", CKvVariant(-2.9, L"v"), true, -2, 4294967294u, -2, UINT64_MAX - 1, -2.9},
        {"double 0", CKvVariant(0.0, L"v"), false, 0, 0u, 0, 0u, 0.0},
        {"double 0.5", CKvVariant(0.5, L"v"), true, 0, 0u, 0, 0u, 0.5},
        {"double nan", CKvVariant(std::nan(""), L"v"), true, 0, 0u, 0, 0u, none},  // d checked below
        {"double 1e30", CKvVariant(1e30, L"v"), true, -1, UINT32_MAX, -1, UINT64_MAX, 1e30},
        {"voidPtr", CKvVariant(reinterpret_cast<void*>(16), L"v"), true, 16, 16u, 16, 16u, none},
        {"string 12", CKvVariant(L"12", L"v"), false, 12, 12u, 12, 12u, 12.0},
        {"string abc", CKvVariant(L"abc", L"v"), false, 0, 0u, 0, 0u, 0.0},
        {"string true", CKvVariant(L"true", L"v"), true, 0, 0u, 0, 0u, 0.0},
        {"string -1", CKvVariant(L"-1", L"v"), false, -1, UINT32_MAX, -1, UINT64_MAX, -1.0},
        {"8 bytes", CKvVariant(Bytes(&twoAndHalf, 8), L"v"), false, 0, 0u, twoAndHalfBits, twoAndHalfBits, 2.5},
        {"4 bytes", CKvVariant(Bytes(four, 4), L"v"), true, 0x04030201, 0x04030201u, none, none, none},
        {"list", CKvVariant(CKvListVariant(), L"v"), none, none, none, none, none, none},
        {"null", CKvVariant(), none, none, none, none, none, none},
    };
    for (const auto& c : cases) {
        const CKvVariant& v = c.source;
        ExpectGetter<bool>(c, "bool", c.b, false, [&](bool* ok) { return v.GetBool(ok); });
        ExpectGetter<kv_int32>(c, "int32", c.i32, -1, [&](bool* ok) { return v.GetKv_int32(ok); });
        ExpectGetter<kv_uint32>(c, "uint32", c.u32, 0, [&](bool* ok) { return v.GetKv_uint32(ok); });
        ExpectGetter<kv_int64>(c, "int64", c.i64, -1, [&](bool* ok) { return v.GetKv_int64(ok); });
        ExpectGetter<kv_uint64>(c, "uint64", c.u64, 0, [&](bool* ok) { return v.GetKv_uint64(ok); });
        if (std::string(c.label) != "double nan") {
            ExpectGetter<double>(c, "double", c.d, 0.0, [&](bool* ok) { return v.GetDouble(ok); });
        }
    }
    bool ok = false;
    EXPECT_TRUE(std::isnan(CKvVariant(std::nan(""), L"v").GetDouble(&ok)));
    EXPECT_TRUE(ok);
    CKvVariant bytes(Bytes(four, 4), L"v");
    EXPECT_EQ(bytes.GetCKvByteArray().GetData(), bytes.GetVoidPtr(&ok));
    EXPECT_TRUE(ok);
    EXPECT_EQ(0u, CKvVariant(1, L"v").GetCKvByteArray(&ok).GetSize());
    EXPECT_FALSE(ok);
}

TEST(CKvVariant, ComparisonNeedsTheSameRunTypeAndValue) {
    CKvVariant v(5, L"a");
    EXPECT_TRUE(v != 6);
    EXPECT_TRUE(v != 5u);  // no conversion between run types
    EXPECT_TRUE(v == CKvVariant(5, L"other name"));
    EXPECT_TRUE(CKvVariant() != v);
    CKvVariant a = CKvVariant::CreateStruct(L"s", &v, kEnd);
    CKvVariant b = CKvVariant::CreateStruct(L"s", &v, kEnd);
    EXPECT_TRUE(a == b);
    b[0].SetName(L"renamed");  // elements compare by name too
    EXPECT_TRUE(a != b);
    CKvVariant c = CKvVariant::CreateStructNamed(CKvVariantRunType("RKvSomething"), L"s", &v, kEnd);
    EXPECT_TRUE(a != c);  // and lists by run type
}

TEST(CKvVariant, AssignmentChangesTypeAndReportsWhenTypeChangeIsDisabled) {
    // From a value: replaced without a word.
    CKvVariant v(1, L"v");
    CaptureStdout();
    v = 3.5;
    EXPECT_EQ(3.5, v.GetDouble());
    EXPECT_EQ("", GetCapturedStdout());

    // From a variant: the value, not the name; another type is reported, then done all the same.
    CKvVariant target(7, L"target");
    CaptureStdout();
    target = CKvVariant(0.5, L"source");
    EXPECT_EQ("Error: can't do assignment from type: kv_int32 to: double, type change not enabled!\n",
              GetCapturedStdout());
    EXPECT_EQ(0.5, target.GetDouble());
    EXPECT_EQ(CKvStringW(L"target"), target.GetName());

    CaptureStdout();
    EXPECT_FALSE(target.EnableTypeChange(true));
    target = CKvVariant(L"s", L"source");
    CKvVariant fresh;
    fresh = CKvVariant(1, L"source");  // a null target has no type to protect
    EXPECT_EQ("", GetCapturedStdout());
    EXPECT_TRUE(target == L"s");

    // A source that lives inside the target.
    CKvVariant inner = CKvVariant::CreateStruct(L"inner", &v, kEnd);
    CKvVariant outer = CKvVariant::CreateStruct(L"outer", &inner, kEnd);
    outer.EnableTypeChange(true);
    outer = outer[0];
    EXPECT_EQ(1, outer.GetCount());
    EXPECT_EQ(3.5, outer[0].GetDouble());
    outer = outer[0];
    EXPECT_EQ(3.5, outer.GetDouble());
}

TEST(CKvVariant, RegistryKnowsTheBuiltInTypesAndKeepsTheFirstSample) {
    CKvVariant::RegisterKnownTypes();
    CKvVariant::RegisterKnownTypes();
    const char* builtIn[] = {"kv_int32", "kv_uint32", "kv_int64", "kv_uint64", "double",
                             "bool", "voidPtr", "CKvStringW", "CKvByteArray", "CKvListVariant"};
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(i, CKvVariant::GetRunTypeIndex(builtIn[i]));
        EXPECT_EQ(CKvVariantRunType(builtIn[i]), CKvVariant(CKvVariantRunType(builtIn[i]), L"made").GetRunType());
    }

    CKvVariant x(1.0, L"dX");
    ASSERT_EQ(KV_OK, CKvVariant::RegisterRunType(CKvVariant::CreateStructNamed("RKvTestFirst", L"RKvTestFirst", &x, kEnd)));
    const int index = CKvVariant::GetRunTypeIndex("RKvTestFirst");
    EXPECT_GE(index, 10);
    CKvVariant y(2, L"iY");
    CKvVariant::RegisterRunType(CKvVariant::CreateStructNamed("RKvTestFirst", L"RKvTestFirst", &y, kEnd));
    EXPECT_EQ(index, CKvVariant::GetRunTypeIndex("RKvTestFirst"));
    EXPECT_EQ(0, CKvVariant(CKvVariantRunType("RKvTestFirst"), L"made").IndexOf(L"dX"));
    EXPECT_EQ(KV_ERR_INVALID_ARG, CKvVariant::RegisterRunType(CKvVariant()));

    CaptureStdout();
    EXPECT_EQ(-1, CKvVariant::GetRunTypeIndex("RKvNowhere", false));
    EXPECT_EQ(0, CKvVariant::GetRunTypeIndex("RKvNowhere", true));
    EXPECT_TRUE(CKvVariant(CKvVariantRunType("RKvNowhere"), L"n").IsNull());
    EXPECT_EQ("Error: CKvVariant::GetRunTypeIndex(), can't find: 'RKvNowhere' runtype!\n"
              "Error: CKvVariant::GetRunTypeSample(), can't find: 'RKvNowhere' runtype!\n",
              GetCapturedStdout());
}

// A registered point {dX, dY} and a shape {wsLabel, pOrigin (a point), uiCount}.
void RegisterTestTypes() {
    CKvVariant dX(0.0, L"dX"), dY(0.0, L"dY");
    const CKvVariant point = CKvVariant::CreateStructNamed("RKvTestPoint", L"RKvTestPoint", &dX, &dY, kEnd);
    CKvVariant::RegisterRunType(point);
    CKvVariant label(L"", L"wsLabel"), origin(point), count(0u, L"uiCount");
    origin.SetName(L"pOrigin");
    CKvVariant::RegisterRunType(CKvVariant::CreateStructNamed("RKvTestShape", L"RKvTestShape", &label, &origin, &count, kEnd));
}

TEST(CKvVariant, SetRunTypeKeepsMatchingValuesAndReplacesDifferentStructures) {
    RegisterTestTypes();
    CKvVariant a(1.5, L"first"), b(2.5, L"second");
    CKvVariant node = CKvVariant::CreateStruct(L"node", &a, &b, kEnd);
    EXPECT_EQ(KV_ERR_FAILED, node.SetRunType("RKvTestPoint"));
    node.EnableTypeChange(true);
    CaptureStdout();
    EXPECT_EQ(KV_ERR_INVALID_ARG, node.SetRunType("RKvUnknown"));
    GetCapturedStdout();
    EXPECT_EQ(CKvVariantRunType("CKvListVariant"), node.GetRunType());
    EXPECT_EQ(2, node.GetCount());

    // Same member structure: values stay, names and run type come from the sample.
    EXPECT_EQ(KV_OK, node.SetRunType("RKvTestPoint"));
    EXPECT_EQ(CKvVariantRunType("RKvTestPoint"), node.GetRunType());
    EXPECT_EQ(1.5, node[L"dX"].GetDouble());
    EXPECT_EQ(2.5, node[L"dY"].GetDouble());

    // A different structure: the node becomes the sample, values lost.
    CKvVariant shape = CKvVariant::CreateStruct(L"shape", &a, kEnd);
    shape.EnableTypeChange(true);
    EXPECT_EQ(KV_OK, shape.SetRunType("RKvTestShape"));
    EXPECT_EQ(3, shape.GetCount());
    EXPECT_EQ(0.0, shape.Search(L"dX", kLast)->GetDouble());

}

TEST(CKvVariant, SetRunTypeCompatibleCarriesValuesByNameAndRunType) {
    RegisterTestTypes();
    // An older layout: a label, an origin with only dY, a count of the wrong
    // type and an extra member the type no longer has.
    CKvVariant dY(4.0, L"dY"), label(L"old", L"wsLabel"), count(3, L"uiCount"), extra(true, L"bExtra");
    CKvVariant origin = CKvVariant::CreateStructNamed("RKvTestPoint", L"pOrigin", &dY, kEnd);
    CKvVariant node = CKvVariant::CreateStruct(L"shape", &extra, &origin, &label, &count, kEnd);
    node.EnableTypeChange(true);
    EXPECT_EQ(KV_OK, node.SetRunTypeCompatible("RKvTestShape"));
    EXPECT_EQ(CKvVariantRunType("RKvTestShape"), node.GetRunType());
    EXPECT_EQ(-9, node.IndexOf(L"bExtra"));
    EXPECT_TRUE(node[L"wsLabel"] == L"old");
    EXPECT_EQ(0u, node[L"uiCount"].GetKv_uint32());  // kv_int32 is not kv_uint32
    EXPECT_EQ(0.0, node.SearchFixed(L"pOrigin", L"dX", kLast)->GetDouble());
    EXPECT_EQ(4.0, node.SearchFixed(L"pOrigin", L"dY", kLast)->GetDouble());
    EXPECT_EQ(0, CKvVariant::CompareStructure(node, CKvVariant::GetRunTypeSample("RKvTestShape"), true));
}

TEST(CKvVariant, CompareStructureLooksIntoMembersOnlyWhenDeep) {
    CKvVariant i(1, L"i"), d(1.0, L"d");
    CKvVariant withInt = CKvVariant::CreateStruct(L"l", &i, kEnd);
    CKvVariant withDouble = CKvVariant::CreateStruct(L"l", &d, kEnd);
    CKvVariant a = CKvVariant::CreateStruct(L"a", &withInt, kEnd);
    CKvVariant b = CKvVariant::CreateStruct(L"b", &withDouble, kEnd);
    EXPECT_EQ(0, CKvVariant::CompareStructure(a, b, false));
    EXPECT_NE(0, CKvVariant::CompareStructure(a, b, true));
    EXPECT_EQ(0, CKvVariant::CompareStructure(CKvVariant(1, L"x"), CKvVariant(2, L"y"), true));
    EXPECT_NE(0, CKvVariant::CompareStructure(CKvVariant(1, L"x"), CKvVariant(2u, L"x"), true));
    EXPECT_NE(0, CKvVariant::CompareStructure(a, CKvVariant(), false));
}

TEST(CKvVariant, ListOperations) {
    CKvVariant v(1, L"scalar");
    EXPECT_EQ(-1, v.GetCount());
    EXPECT_EQ(-1, v.IndexOf(L"x"));
    CaptureStdout();
    CKvVariant* first = v.Append(CKvVariant(10, L"a"));
    EXPECT_EQ("Error: invalid variant type (kv_int32) for array operation.\n", GetCapturedStdout());
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(CKvStringW(L"a"), first->GetName());

    v.Append(CKvVariant(30, L"c"));
    v.Insert(CKvVariant(20, L"b"), 1);
    v.Insert(CKvVariant(0, L"z"), -5);  // clamped to the front
    v.Append(v);                        // a copy of itself as it was
    ASSERT_EQ(5, v.GetCount());
    EXPECT_EQ(4, v[4].GetCount());
    const wchar_t* order[] = {L"z", L"a", L"b", L"c"};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(CKvStringW(order[i]), v[i].GetName());
    EXPECT_EQ(-9, v.IndexOf(L"missing"));
    EXPECT_EQ(&v[1], v.Member(CKvVariant(0.0, L"a")));

    EXPECT_EQ(KV_ERR_INVALID_ARG, v.Delete(5));
    EXPECT_EQ(KV_OK, v.Delete(4));

    // SetOrAppend assigns to the named element or appends under that name.
    EXPECT_EQ(&v[2], v.SetOrAppend(L"b", CKvVariant(21, L"ignored")));
    EXPECT_EQ(21, v[L"b"].GetKv_int32());
    CKvVariant* added = v.SetOrAppend(L"d", CKvVariant(40, L"other"));
    EXPECT_EQ(CKvStringW(L"d"), added->GetName());

    // A miss hands out a null variant; what is written to it goes nowhere.
    EXPECT_TRUE(v[99].IsNull());
    v[L"nothing"] = 5;
    EXPECT_TRUE(v[L"nothing"].IsNull());
    EXPECT_EQ(nullptr, v.IndexPtr(-1));

    // A structured list loses its run type.
    CKvVariant structured = CKvVariant::CreateStructNamed("RKvAny", L"s", kEnd);
    CaptureStdout();
    structured.Append(CKvVariant(1, L"x"));
    GetCapturedStdout();
    EXPECT_EQ(CKvVariantRunType("CKvListVariant"), structured.GetRunType());
}

TEST(CKvVariant, SearchIsBreadthFirstAndSearchFixedFollowsAPath) {
    //   root { deep { x = 1 (deep) }, x = 2 (shallow), box { y { x = 3 } } }
    CKvVariant x1(1, L"x"), x2(2, L"x"), x3(3, L"x");
    CKvVariant deep = CKvVariant::CreateStruct(L"deep", &x1, kEnd);
    CKvVariant y = CKvVariant::CreateStruct(L"y", &x3, kEnd);
    CKvVariant box = CKvVariant::CreateStruct(L"box", &y, kEnd);
    CKvVariant root = CKvVariant::CreateStruct(L"root", &deep, &x2, &box, kEnd);

    EXPECT_EQ(2, root.Search(L"x", kLast)->GetKv_int32());
    EXPECT_EQ(3, root.Search(L"y", L"x", kLast)->GetKv_int32());
    EXPECT_EQ(&root, root.Search(L"root", kLast));  // the node itself takes part
    EXPECT_EQ(nullptr, root.Search(L"y", L"deep", kLast));

    EXPECT_EQ(3, root.SearchFixed(L"box", L"y", L"x", kLast)->GetKv_int32());
    EXPECT_EQ(nullptr, root.SearchFixed(L"y", kLast));
    EXPECT_EQ(nullptr, root.SearchFixed(L"box", L"x", kLast));
    EXPECT_EQ(1, root.SearchFixed(L"deep", L"x", kLast)->GetKv_int32());
}

TEST(CKvVariant, TraceText) {
    CKvVariant flag(true, L"bOn"), label(L"a b", L"sLabel"), empty(CKvByteArray(), L"aData");
    CKvVariant inner = CKvVariant::CreateStructNamed("RKvInner", L"pInner", &label, &empty, kEnd);
    CKvVariant root = CKvVariant::CreateStruct(L"root", &flag, &inner, kEnd);
    CKvStringW text;
    CKvVariant::Trace(text, root);
    EXPECT_EQ(std::wstring(L"<variant version=\"1.0\">\r\n"
                           L"<root runtype=\"CKvListVariant\">\r\n"
                           L" <bOn runtype=\"bool\" value=\"true\"/>\r\n"
                           L" <pInner runtype=\"RKvInner\">\r\n"
                           L"  <sLabel runtype=\"CKvStringW\" value=\"a b\"/>\r\n"
                           L"  <aData runtype=\"CKvByteArray\" value=\"\"/>\r\n"
                           L" </pInner>\r\n"
                           L"</root>\r\n"
                           L"</variant>\r\n"),
              text.GetString());
}

}  // namespace

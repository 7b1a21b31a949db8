#include "gnr_system/CKvSerializerXMLString.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

// Every table runs through both document forms: wide and UTF-8.
const bool kWideForms[] = {true, false};
const char* FormName(bool wide) { return wide ? "wide" : "utf8"; }

// A written document, and as UTF-8 for searching (wide control escapes shown as "<U+c>").
struct Document {
    CKvStringW wide;
    CKvStringA utf8;
    std::string shown;
};

Document Write(bool wide, const CKvVariant& tree) {
    Document d;
    if (!wide) {
        EXPECT_EQ(KV_OK, CKvSerializerXMLString::DocumentToXML_UTF8(d.utf8, tree));
        d.shown = d.utf8.Std();
        return d;
    }
    EXPECT_EQ(KV_OK, CKvSerializerXMLString::DocumentToXML(d.wide, tree));
    for (wchar_t c : d.wide.Std()) {
        if (c >= 0xDC00 && c <= 0xDFFF) d.shown += "<U+" + std::to_string(c - 0xDC00) + ">";
        else d.shown += CKvStringUtils::WtoUTF8(&c, 1).Std();
    }
    return d;
}

// Reads a document given as UTF-8 text in either form.
kv_result Read(bool wide, CKvVariant& tree, const std::string& text) {
    return wide ? CKvSerializerXMLString::VariantFromXML(tree, CKvStringUtils::UTF8toW(text.c_str()))
                : CKvSerializerXMLString::VariantFromXML_UTF8(tree, CKvStringA(text.c_str()));
}

// Writes `tree` and reads it back; the document is left in `document`.
CKvVariant RoundTrip(bool wide, const CKvVariant& tree, std::string* document = nullptr) {
    const Document d = Write(wide, tree);
    CKvVariant back;
    EXPECT_EQ(KV_OK, wide ? CKvSerializerXMLString::VariantFromXML(back, d.wide)
                          : CKvSerializerXMLString::VariantFromXML_UTF8(back, d.utf8))
        << d.shown;
    if (document) *document = d.shown;
    return back;
}

std::string Doc(const std::string& body) { return "<variant version=\"1.0\">" + body + "</variant>"; }

TEST(CKvSerializerXML, AttributeEscapingIsTheDocumentedTableAndItsInverse) {
    const struct { std::wstring plain, escaped; bool reversible; } cases[] = {
        {L"a\nb<c", L"a&#x000a;b&#x003C;c", true},   {L"\"q\"\r", L"&#x0022;q&#x0022;&#x000d;", true},
        {L"a&b", L"a&#x0026;b", true},               {L"\t", L"\t", true},
        {L"\x01-\x1f-\x7f", L"\xDC01-\xDC1F-\x7f", true}, {L"ü€\U0001F600", L"ü€\U0001F600", true},
        // An ampersand before '#', or at the very end, is kept as it is.
        {L"&#x41;", L"&#x41;", true}, {L"a&", L"a&", true}, {L"&#x0026;", L"&#x0026;", false},
    };
    for (const auto& c : cases) {
        const CKvStringW escaped = CKvXMLAPI::ValidateXML_AttValue(CKvStringW(c.plain.c_str()));
        EXPECT_EQ(c.escaped, escaped.Std());
        if (c.reversible) { EXPECT_EQ(c.plain, CKvXMLAPI::RevalidateXML_AttValue(escaped).Std()); }
    }
    // Escapes of tab, LF and CR are never written and stay; so does a low surrogate of a pair.
    EXPECT_EQ(L"\xDC09\xDC0A\xDC0D\xD800\xDC01", CKvXMLAPI::RevalidateXML_AttValue(L"\xDC09\xDC0A\xDC0D\xD800\xDC01").Std());
}

TEST(CKvSerializerXML, StringsWithMarkupAndControlCharactersRoundTripInBothForms) {
    const struct { std::wstring value; const char* written; } cases[] = {
        {L"line\nfeed <b>", "line&#x000a;feed &#x003C;b>"},
        {L"say \"x\" & y\r", "say &#x0022;x&#x0022; &#x0026; y&#x000d;"},
        {L"ctl \x02\x0b\x1f end", nullptr},
        // The noncharacter the reader uses internally, alone and before an escape.
        {L"\xFDD0@\xFDD0\x01\xFDD0\xFDD0", nullptr},
        {L"ünï € \U0001F600", "ünï € \U0001F600"},
        // What the escaping keeps but a parser would change or refuse.
        {L"tab\t, &# &#xD800; &", "tab&#x0009;, &#x0026;# &#x0026;#xD800; &#x0026;\""},
        {L"", "value=\"\""},
    };
    for (const bool wide : kWideForms) {
        for (const auto& c : cases) {
            std::string document;
            const CKvVariant back = RoundTrip(wide, CKvVariant(c.value.c_str(), L"s"), &document);
            EXPECT_EQ(c.value, back.GetCKvStringW().Std()) << FormName(wide) << ": " << document;
            if (c.written) { EXPECT_NE(std::string::npos, document.find(c.written)) << document; }
        }
    }
    // 0x01 is written as the single character U+DC01, in UTF-8 its three bytes.
    CKvStringW wide;
    CKvSerializerXMLString::VariantToXML(wide, CKvVariant(L"\x01", L"s"));
    EXPECT_EQ(L"<s runtype=\"CKvStringW\" value=\"\xDC01\"/>", wide.Std());
    CKvStringA utf8;
    CKvSerializerXMLString::VariantToXML_UTF8(utf8, CKvVariant(L"\x01", L"s"));
    EXPECT_EQ("<s runtype=\"CKvStringW\" value=\"\xED\xB0\x81\"/>", utf8.Std());
}

TEST(CKvSerializerXML, ScalarsAreWrittenInTheirTextFormWithoutEscapingBase64) {
    const uint8_t raw[] = {0xFB, 0xFF, 0xBF, 0x00, 0x3E};  // Base64 with '+', '/' and '='
    const struct { CKvVariant value; const char* wide; const char* utf8; } cases[] = {
        {CKvVariant(CKvByteArray(raw, sizeof raw), L"a"), "value=\"+/+/AD4=\"", "value=\"+/+/AD4=\""},
        {CKvVariant(0.1, L"d"), "value=\"0.100000000000000\"", "value=\"0.1\""},
        {CKvVariant(-2.5e10, L"d"), "value=\"-25000000000.000000000000000\"", "value=\"-25000000000\""},
        {CKvVariant(true, L"b"), "runtype=\"bool\" value=\"true\"", "runtype=\"bool\" value=\"true\""},
    };
    for (const auto& c : cases) {
        for (const bool wide : kWideForms) {
            std::string document;
            const CKvVariant back = RoundTrip(wide, c.value, &document);
            EXPECT_NE(std::string::npos, document.find(wide ? c.wide : c.utf8)) << document;
            EXPECT_TRUE(back == c.value) << document;
        }
    }
    EXPECT_EQ("<?xml version=\"1.0\" encoding=\"UTF-16\"?><variant version=\"1.0\">"
              "<i runtype=\"kv_int32\" value=\"7\"/></variant>", Write(true, CKvVariant(7, L"i")).shown);
    EXPECT_EQ("<?xml version=\"1.0\" encoding=\"UTF-8\"?><variant version=\"1.0\">"
              "<l runtype=\"CKvListVariant\"></l></variant>", Write(false, CKvVariant(CKvListVariant(), L"l")).shown);
}

TEST(CKvSerializerXML, RootAndAttributesAreCheckedWithoutRegardToCase) {
    // The parser's own errors are reported, with their line, by the wide form only.
    const struct { std::string document; kv_result result; const char* wideError; } cases[] = {
        {"<VARIANT VERSION=\"1.0\"><x RunType=\"kv_int32\" VALUE=\"7\"/></VARIANT>", KV_OK, ""},
        {"<?xml version=\"1.0\"?>\n<Variant version=\"1.0\">\n <x runtype=\"kv_int32\" value=\"7\"/>\n</Variant>", KV_OK, ""},
        {"<tree version=\"1.0\"><x runtype=\"kv_int32\" value=\"7\"/></tree>", KV_ERR_FAILED, nullptr},
        {"<variant version=\"2.0\"><x runtype=\"kv_int32\" value=\"7\"/></variant>", KV_ERR_FAILED, nullptr},
        {"<variant><x runtype=\"kv_int32\" value=\"7\"/></variant>", KV_ERR_FAILED, nullptr},
        {"<variant version=\"1.0\"><x runtype=\"kv_int32\" value=\"7\"/>", KV_ERR_FAILED, nullptr},
        {"<!DOCTYPE variant []><variant version=\"1.0\"><x runtype=\"kv_int32\" value=\"7\"/></variant>", KV_ERR_FAILED, nullptr},
        {"", KV_ERR_FAILED, nullptr},
        {"<variant version=\"1.0\">\n<x runtype=\"kv_int32\" value=\"7\">\n</variant>", KV_ERR_FAILED,
         "Error: CKvSerializerXMLString::VariantFromXML(); mismatched tag at line 3\n"},
    };
    for (const bool wide : kWideForms) {
        for (const auto& c : cases) {
            CKvVariant tree;
            CaptureStdout();
            EXPECT_EQ(c.result, Read(wide, tree, c.document)) << FormName(wide) << ": " << c.document;
            const std::string printed = GetCapturedStdout();
            if (c.wideError) { EXPECT_EQ(wide ? c.wideError : "", printed) << FormName(wide) << ": " << c.document; }
            if (c.result == KV_OK) { EXPECT_TRUE(tree == CKvVariant(7, L"x")) << c.document; }
        }
    }
}

TEST(CKvSerializerXML, SaveAndLoadFindTheirBuffersInTheOptions) {
    const CKvVariant tree(L"text <&>", L"s");
    CKvStringW wide;
    CKvStringA utf8("old content");
    CKvSerializerXMLString serializer;
    auto options = [](std::initializer_list<CKvVariant> members) {
        CKvListVariant list;
        for (const CKvVariant& m : members) list.Add(m);
        return CKvVariant(list, L"options");
    };
    auto ptr = [](const void* p, const wchar_t* name) { return CKvVariant(const_cast<void*>(p), name); };

    CKvVariant none = options({CKvVariant(1, L"unrelated")});
    EXPECT_EQ(KV_ERR_INVALID_ARG, serializer.Save(none, tree));
    CKvVariant both = options({ptr(&utf8, L"stringUTF8"), ptr(&wide, L"string")}), narrow = options({ptr(&utf8, L"stringUTF8")});
    EXPECT_EQ(KV_OK, serializer.Save(both, tree));  // "string" is preferred
    EXPECT_EQ(0, wide.Find(L"<?xml version=\"1.0\" encoding=\"UTF-16\"?>"));
    EXPECT_EQ("old content", utf8.Std());
    EXPECT_EQ(KV_OK, serializer.Save(narrow, tree));
    EXPECT_EQ(0, utf8.Find("<?xml version=\"1.0\" encoding=\"UTF-8\"?>"));

    const CKvVariant wideLength(static_cast<unsigned>(wide.Size()), L"rawStringLen");
    const CKvVariant utf8Length(static_cast<unsigned>(utf8.Size()), L"rawStringLen");
    const struct { CKvVariant options; kv_result result; } cases[] = {
        {options({ptr(&wide, L"string")}), KV_OK},
        {options({ptr(&utf8, L"stringUTF8")}), KV_OK},
        {options({ptr(wide.c_str(), L"rawString"), wideLength}), KV_OK},
        {options({ptr(utf8.c_str(), L"rawStringUTF8"), utf8Length}), KV_OK},
        // The wide document is taken before the broken UTF-8 one.
        {options({ptr(&wide, L"string"), ptr(&none, L"stringUTF8")}), KV_OK},
        {options({ptr(wide.c_str(), L"rawString")}), KV_ERR_INVALID_ARG},
        {options({CKvVariant(L"not a pointer", L"string")}), KV_ERR_INVALID_ARG},
        {options({}), KV_ERR_INVALID_ARG},
    };
    for (const auto& c : cases) {
        CKvVariant back;
        EXPECT_EQ(c.result, serializer.Load(back, c.options));
        if (c.result == KV_OK) { EXPECT_TRUE(back == tree); }
    }
}

// A structured run type of the tests, registered once.
const CKvVariantRunType kPoint("RKvXmlTestPoint");
void RegisterPoint() {
    CKvListVariant members;
    for (const CKvVariant& m : {CKvVariant(0.0, L"dX"), CKvVariant(0.0, L"dY"), CKvVariant(L"none", L"sLabel")}) members.Add(m);
    CKvVariant sample(members, L"RKvXmlTestPoint");
    sample.GetData()->SetRunType(kPoint);
    CKvVariant::RegisterRunType(sample);
}

TEST(CKvSerializerXML, ATreeOfEveryValueTypeRoundTripsInBothForms) {
    RegisterPoint();
    CKvVariant point(kPoint, L"pPoint");
    point[L"dX"] = 1.5;
    point[L"sLabel"] = L"p\t<1>";
    CKvListVariant inner;
    inner.Add(CKvVariant(L"deep \x01", L"a0"));
    inner.Add(CKvVariant(CKvListVariant(), L"a1"));
    const uint8_t raw[] = {0, 1, 2, 0xFF};
    CKvListVariant top;
    for (const CKvVariant& v :
         {CKvVariant(INT32_MIN, L"iMin"), CKvVariant(UINT32_MAX, L"uiMax"), CKvVariant(static_cast<long>(INT64_MIN), L"i64"),
          CKvVariant(static_cast<unsigned long>(UINT64_MAX), L"ui64"), CKvVariant(-1234.0625, L"dValue"),
          CKvVariant(false, L"bFlag"), CKvVariant(reinterpret_cast<void*>(0xABCDEF01ULL), L"pVoid"),
          CKvVariant(L"wörds & \"quotes\"\r\n", L"wsText"), CKvVariant(CKvByteArray(raw, sizeof raw), L"baData"),
          CKvVariant(CKvByteArray(), L"baEmpty"), CKvVariant(inner, L"pList"), point})
        top.Add(v);
    const CKvVariant tree(top, L"pRoot");
    for (const bool wide : kWideForms) {
        const CKvVariant back = RoundTrip(wide, tree);
        EXPECT_TRUE(back == tree) << FormName(wide);
        EXPECT_EQ(L"pRoot", back.GetName().Std());
        EXPECT_EQ(kPoint, back[L"pPoint"].GetRunType()) << FormName(wide);
        EXPECT_EQ(0, CKvVariant::CompareStructure(back, tree, true)) << FormName(wide);
    }
}

TEST(CKvSerializerXML, ReadingIsLenientButBounded) {
    RegisterPoint();
    // A structured node keeps the sample's defaults for missing members; an unknown run type becomes
    // a plain list; elements in a scalar and a second top-level node are skipped.
    const std::string document = Doc(
        "<pRoot runtype=\"CKvListVariant\">"
        "<pPoint runtype=\"RKvXmlTestPoint\"><dY runtype=\"double\" value=\"2\"/></pPoint>"
        "<mystery runtype=\"RKvNeverRegistered\" value=\"x\"><i runtype=\"kv_int32\" value=\"3\"/></mystery>"
        "<bare><i runtype=\"kv_int32\" value=\"4\"/></bare>"
        "<n runtype=\"kv_int32\" value=\"5\"><i runtype=\"kv_int32\" value=\"6\"/></n>"
        "</pRoot><second runtype=\"kv_int32\" value=\"9\"/>");
    for (const bool wide : kWideForms) {
        CKvVariant tree;
        CaptureStdout();
        ASSERT_EQ(KV_OK, Read(wide, tree, document)) << FormName(wide);
        EXPECT_EQ("", GetCapturedStdout());
        ASSERT_EQ(4, tree.GetCount());
        const CKvVariant& point = tree[L"pPoint"];
        EXPECT_EQ(kPoint, point.GetRunType());
        EXPECT_EQ(3, point.GetCount());
        EXPECT_EQ(2.0, point[L"dY"].GetDouble());
        EXPECT_EQ(L"none", point[L"sLabel"].GetCKvStringW().Std());
        EXPECT_EQ(CKvVariantRunType("CKvListVariant"), tree[L"mystery"].GetRunType());
        EXPECT_EQ(3, tree[L"mystery"][L"i"].GetKv_int32());
        EXPECT_EQ(4, tree[L"bare"][L"i"].GetKv_int32());
        EXPECT_EQ(5, tree[L"n"].GetKv_int32());
    }
    // Nesting is bounded: the deepest allowed nesting reads, one level more fails.
    for (const int depth : {kXmlMaxNodeDepth, kXmlMaxNodeDepth + 1}) {
        std::string open, close;
        for (int i = 0; i < depth; ++i) open += "<l runtype=\"CKvListVariant\">", close += "</l>";
        for (const bool wide : kWideForms) {
            CKvVariant tree;
            EXPECT_EQ(depth > kXmlMaxNodeDepth ? KV_ERR_FAILED : KV_OK, Read(wide, tree, Doc(open + close))) << depth;
        }
    }
}

}  // namespace

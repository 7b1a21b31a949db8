#include "gnr_system/CKvString.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

int Sign(int v) { return (v > 0) - (v < 0); }

TEST(CKvString, FormatsOutputsLongerThanAFirstBuffer) {
    const std::string narrow(300, 'n');
    const std::wstring wide(1000, L'w');

    CKvStringA a;
    a.Format("%s|%d|%ls", narrow.c_str(), -42, L"wide");
    EXPECT_EQ(narrow + "|-42|wide", a.Std());
    a.AppendFormat("%0300d", 7);
    EXPECT_EQ(309u + 300u, a.Size());
    EXPECT_EQ('7', a.GetAt(a.GetLength() - 1));

    CKvStringW w;
    w.Format(L"%ls|%s|%05.1f", wide.c_str(), narrow.c_str(), 2.25);
    EXPECT_EQ(wide + L"|" + std::wstring(narrow.begin(), narrow.end()) + L"|002.2", w.Std());
    w.Format(L"%ls", L"\U0001F600\u00E9");
    EXPECT_EQ(L"\U0001F600\u00E9", w.Std());
    w.AppendFormat(L"%d", 5);
    EXPECT_EQ(L"\U0001F600\u00E95", w.Std());
}

// Narrow strings of this library are UTF-8. Formatting one into a wide string,
// or a wide one into a narrow string, converts like the constructors do and
// does not depend on the process locale.
TEST(CKvString, FormatConvertsNonAsciiArgumentsAsUtf8) {
    CKvStringW w;
    w.Format(L"<%s>", "caf\xC3\xA9");
    EXPECT_EQ(L"<caf\u00E9>", w.Std());
    CKvStringA a;
    a.Format("<%ls>", L"caf\u00E9\U0001F600");
    EXPECT_EQ("<caf\xC3\xA9\xF0\x9F\x98\x80>", a.Std());
}

TEST(CKvString, CompareNoCase) {
    const struct { const char* a; const char* b; int sign; } cases[] = {
        {"abc", "ABC", 0}, {"aBc", "AbD", -1}, {"ABD", "abc", 1}, {"ab", "ABC", -1},
        {"", "", 0},       {"a", nullptr, 1},  {"", nullptr, 0},
        {"_", "A", -1},    // letters are lowered before comparing: '_' < 'a'
        {"z", "\xC0", -1}, {"\xE9", "\xC9", 1},  // bytes >= 0x80 are unsigned and not letters
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.a) + " / " + (c.b ? c.b : "null"));
        EXPECT_EQ(c.sign, Sign(CKvStringA(c.a).CompareNoCase(c.b)));
        const CKvStringW wa(c.a), wb(c.b ? c.b : "");
        if (c.b && static_cast<unsigned char>(c.a[0]) < 0x80 && static_cast<unsigned char>(c.b[0]) < 0x80) {
            EXPECT_EQ(c.sign, Sign(wa.CompareNoCase(wb)));
        }
    }
    EXPECT_LT(CKvStringW(L"b").CompareNoCase(L"\U0001F600"), 0);
}

TEST(CKvString, FindAndReverseFind) {
    const CKvStringA s("abcabc");
    const struct { int got, expected; } cases[] = {
        {s.Find('b'), 1},      {s.Find('b', 2), 4},    {s.Find('a', -5), 0},  {s.Find('a', 100), -1},
        {s.Find('z'), -1},     {s.Find("ca"), 2},      {s.Find("abc", 1), 3}, {s.Find("abcd"), -1},
        {s.Find(""), 0},       {s.Find("c", 6), -1},   {s.ReverseFind('b'), 4}, {s.ReverseFind('z'), -1},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) EXPECT_EQ(cases[i].expected, cases[i].got) << "case " << i;
    const CKvStringW w(L"x\U0001F600y\U0001F600");
    EXPECT_EQ(3, w.Find(L"\U0001F600", 2));
    EXPECT_EQ(3, w.ReverseFind(L'\U0001F600'));
}

TEST(CKvString, TrimAndReplace) {
    CKvStringA a(" \t a b \r\n\v\f");
    a.Trim();
    EXPECT_EQ("a b", a.Std());
    a = "  \n ";
    a.Trim();
    EXPECT_TRUE(a.IsEmpty());
    CKvStringW w(L"  x  ");
    w.TrimLeft();
    EXPECT_EQ(L"x  ", w.Std());
    w.TrimRight();
    EXPECT_EQ(L"x", w.Std());

    const struct { const char *s, *from, *to, *result; int count; } cases[] = {
        {"aaa", "a", "bb", "bbbbbb", 3}, {"abab", "ab", "", "", 2},
        {"aa", "a", "aa", "aaaa", 2},    // the replacement is not searched again
        {"abc", "", "x", "abc", 0},      {"abc", "z", "y", "abc", 0},
        {"abc", "b", nullptr, "ac", 1},  {"a.b.c", ".", "::", "a::b::c", 2},
    };
    for (const auto& c : cases) {
        CKvStringA s(c.s);
        EXPECT_EQ(c.count, s.Replace(c.from, c.to)) << c.s << " " << c.from;
        EXPECT_EQ(c.result, s.Std()) << c.s << " " << c.from;
    }
}

TEST(CKvString, SubstringsClampOutOfRangeArguments) {
    const CKvStringA s("hello");
    const struct { CKvStringA got; const char* expected; } cases[] = {
        {s.Left(2), "he"},       {s.Left(-1), ""},        {s.Left(99), "hello"},
        {s.Mid(2), "llo"},       {s.Mid(2, 2), "ll"},     {s.Mid(1, 100), "ello"},
        {s.Mid(5), ""},          {s.Mid(10, 3), ""},      {s.Mid(-3, 2), "he"},
        {s.Mid(1, 0), ""},       {s.Right(2), "lo"},      {s.Right(99), "hello"},
        {s.Right(-1), ""},       {s.Right(0), ""},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i)
        EXPECT_EQ(cases[i].expected, cases[i].got.Std()) << "case " << i;
    EXPECT_EQ(L"\U0001F600", CKvStringW(L"a\U0001F600b").Mid(1, 1).Std());
}

TEST(CKvString, Utf8RoundTripsAndReplacesInvalidBytes) {
    const wchar_t* wide = L"a\u00E9\u20AC\U0001F600\U0010FFFF";
    const char* utf8 = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF";
    EXPECT_EQ(utf8, CKvStringA(wide).Std());
    EXPECT_EQ(utf8, CKvStringUtils::WtoUTF8(wide).Std());
    EXPECT_EQ(wide, CKvStringW(utf8).Std());
    EXPECT_EQ(wide, CKvStringUtils::UTF8toW(utf8).Std());
    // Values that are not characters are written as U+FFFD.
    const wchar_t bad[] = {0xD800, 0x110000, static_cast<wchar_t>(-1)};
    EXPECT_EQ("\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD", CKvStringUtils::WtoUTF8(bad, 3).Std());
    // A zero inside counted text is kept.
    EXPECT_EQ(std::wstring(L"a\0b", 3), CKvStringUtils::UTF8toW("a\0b", 3).Std());

    const struct { const char* in; const wchar_t* out; } cases[] = {
        {"a\xFF" "b", L"a\uFFFDb"},
        {"\xC3", L"\uFFFD"},                               // truncated at the end
        {"\xC0\xAF", L"\uFFFD\uFFFD"},                     // overlong '/'
        {"\xED\xA0\x80", L"\uFFFD\uFFFD\uFFFD"},           // an encoded surrogate
        {"\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD"}, // above U+10FFFF
        {"\x80z", L"\uFFFDz"},                             // a lone continuation byte
    };
    for (const auto& c : cases) EXPECT_EQ(c.out, CKvStringW(c.in).Std()) << c.in;
    // A sequence cut short does not swallow the character after it.
    const std::wstring cut = CKvStringW("\xE2\x82x\xF0\x9F\x98").Std();
    EXPECT_EQ(std::wstring::npos, cut.find_first_not_of(L"\uFFFDx"));
    EXPECT_EQ(1u, std::count(cut.begin(), cut.end(), L'x'));
    EXPECT_EQ(L"\uFFFD", cut.substr(cut.size() - 1));
}

TEST(CKvString, Utf16ConversionsWithSurrogates) {
    const std::u16string pair = u"A\xD83D\xDE00\xDBFF\xDFFF\xFFFF";
    EXPECT_EQ(pair, GetZEMWideStringFromSysString(L"A\U0001F600\U0010FFFF\uFFFF"));
    EXPECT_EQ(L"A\U0001F600\U0010FFFF\uFFFF", GetSysWideStringFromZEMString(pair.c_str()).Std());
    const wchar_t bad[] = {L'x', 0xDC00, 0x110000};
    EXPECT_EQ(u"x\xFFFD\xFFFD", GetZEMWideStringFromSysString(bad, 3));

    const struct { std::u16string in; const wchar_t* out; } cases[] = {
        {u"\xD83Dx", L"\uFFFDx"},            // high surrogate without its low half
        {u"a\xD83D", L"a\uFFFD"},            // ... at the end
        {u"\xDE00", L"\uFFFD"},              // low surrogate alone
        {u"\xDE00\xD83D", L"\uFFFD\uFFFD"},  // halves in the wrong order
        {u"\xD83D\xD83D\xDE00", L"\uFFFD\U0001F600"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.out, GetSysWideStringFromZEMString(c.in.data(), c.in.size()).Std());
        EXPECT_EQ(c.out, GetSysWideStringFromZEMString(c.in.c_str()).Std());
    }
    EXPECT_EQ(std::wstring(L"a\0b", 3), GetSysWideStringFromZEMString(u"a\0b", 3).Std());
}

TEST(CKvString, NarrowOrderingIsByteWise) {
    const char* const texts[] = {"", "a", "A", "ab", "\x7F", "\x80", "\xFF", "a\xC3\xA9", "a\x01"};
    const std::vector<CKvStringA> values(std::begin(texts), std::end(texts));
    const CKvStringALess less;
    for (const auto& a : values) {
        for (const auto& b : values) {
            SCOPED_TRACE(a.Std() + " / " + b.Std());
            const bool expected = std::strcmp(a, b) < 0;
            EXPECT_EQ(expected, a < b);
            EXPECT_EQ(expected, b > a);
            EXPECT_EQ(expected, less(a, b));
            EXPECT_EQ(expected, less(a.View(), b));
            EXPECT_EQ(expected, less(a, b.View()));
            EXPECT_EQ(std::strcmp(a, b) == 0, a == b);
            EXPECT_EQ(Sign(std::strcmp(a, b)), Sign(a.Compare(b)));
        }
    }
    // A map ordered by it is searched with a view, without building a key.
    std::map<CKvStringA, int, CKvStringALess> map = {{CKvStringA("\x80"), 1}, {CKvStringA("z"), 2}};
    EXPECT_EQ("z", map.begin()->first.Std());
    EXPECT_EQ(1, map.find(std::string_view("\x80"))->second);
}

}  // namespace

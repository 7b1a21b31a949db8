#include "gnr_system/CKvString.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

namespace {

int Sign(int v) { return (v > 0) - (v < 0); }

// Output longer than a first buffer; narrow arguments of wide formats and wide
// arguments of narrow ones are UTF-8 whatever the process locale.
TEST(CKvString, Format) {
    const std::string narrow(300, 'n');
    const std::wstring wide(1000, L'w');
    CKvStringA a;
    a.Format("%s|%d|%ls", narrow.c_str(), -42, L"caf\u00E9\U0001F600");
    a.AppendFormat("%0300d", 7);
    EXPECT_EQ(narrow + "|-42|caf\xC3\xA9\xF0\x9F\x98\x80" + std::string(299, '0') + "7", a.Std());

    CKvStringW w;
    w.Format(L"%ls|%s|%05.1f", wide.c_str(), "caf\xC3\xA9", 2.25);
    EXPECT_EQ(wide + L"|caf\u00E9|002.2", w.Std());
    w.Format(L"%ls", L"\U0001F600");
    w.AppendFormat(L"%d", 5);
    EXPECT_EQ(L"\U0001F6005", w.Std());

    // Appending a string's own text to it: the arguments are read before the
    // string grows.
    a = CKvStringA(std::string(100, 'x').c_str());
    a.AppendFormat("%s%s", a.c_str(), a.c_str());
    EXPECT_EQ(std::string(300, 'x'), a.Std());
    w = CKvStringW(std::wstring(100, L'y').c_str());
    w.AppendFormat(L"%ls", w.c_str());
    EXPECT_EQ(std::wstring(200, L'y'), w.Std());
}

TEST(CKvString, CompareNoCase) {
    const struct { const char* a; const char* b; int sign; } cases[] = {
        {"abc", "ABC", 0}, {"aBc", "AbD", -1}, {"ab", "ABC", -1}, {"a", nullptr, 1},
        {"_", "A", -1},         // letters are lowered before comparing: '_' < 'a'
        {"z", "\xC0", -1}, {"\xE9", "\xC9", 1},  // bytes >= 0x80 are unsigned and not letters
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.a) + " / " + (c.b ? c.b : "null"));
        EXPECT_EQ(c.sign, Sign(CKvStringA(c.a).CompareNoCase(c.b)));
        if (c.b && static_cast<unsigned char>(c.a[0]) < 0x80) {
            EXPECT_EQ(c.sign, Sign(CKvStringW(c.a).CompareNoCase(CKvStringW(c.b))));
        }
    }
    EXPECT_LT(CKvStringW(L"b").CompareNoCase(L"\U0001F600"), 0);
}

// Positions found, -1 for none, out-of-range starts and lengths clamped.
TEST(CKvString, FindAndSubstrings) {
    const CKvStringA s("abcabc");
    const int found[] = {s.Find('b', 2), s.Find('a', -5), s.Find('a', 100), s.Find("abc", 1), s.Find("abcd"),
                         s.Find(""), s.ReverseFind('b'), s.ReverseFind('z')};
    EXPECT_EQ(std::vector<int>(std::begin(found), std::end(found)), (std::vector<int>{4, 0, -1, 3, -1, 0, 4, -1}));
    const CKvStringA h("hello");
    const CKvStringA parts[] = {h.Left(-1), h.Left(99), h.Mid(2, 2), h.Mid(1, 100), h.Mid(10, 3), h.Mid(-3, 2),
                                h.Right(2), h.Right(99), h.Right(-1)};
    std::vector<std::string> texts;
    for (const CKvStringA& p : parts) texts.push_back(p.Std());
    EXPECT_EQ(texts, (std::vector<std::string>{"", "hello", "ll", "ello", "", "he", "lo", "hello", ""}));
    const CKvStringW w(L"x\U0001F600y\U0001F600");
    EXPECT_EQ(3, w.Find(L"\U0001F600", 2));
    EXPECT_EQ(L"\U0001F600y", w.Mid(1, 2).Std());
}

TEST(CKvString, TrimAndReplace) {
    CKvStringA a(" \t a b \r\n\v\f");
    a.Trim();
    EXPECT_EQ("a b", a.Std());
    CKvStringW w(L"  x  ");
    w.TrimLeft();
    EXPECT_EQ(L"x  ", w.Std());
    w.TrimRight();
    EXPECT_EQ(L"x", w.Std());

    const struct { const char *s, *from, *to, *result; int count; } cases[] = {
        {"aaa", "a", "bb", "bbbbbb", 3}, {"abab", "ab", "", "", 2},
        {"aa", "a", "aa", "aaaa", 2},    // the replacement is not searched again
        {"abc", "", "x", "abc", 0},      {"abc", "b", nullptr, "ac", 1},
    };
    for (const auto& c : cases) {
        CKvStringA s(c.s);
        EXPECT_EQ(c.count, s.Replace(c.from, c.to)) << c.s << " " << c.from;
        EXPECT_EQ(c.result, s.Std()) << c.s << " " << c.from;
    }
}

TEST(CKvString, Utf8RoundTripsAndReplacesInvalidBytes) {
    const wchar_t* wide = L"a\u00E9\u20AC\U0001F600\U0010FFFF";
    const char* utf8 = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF";
    EXPECT_EQ(utf8, CKvStringA(wide).Std());
    EXPECT_EQ(wide, CKvStringW(utf8).Std());
    const wchar_t bad[] = {0xD800, 0x110000, static_cast<wchar_t>(-1)};  // not characters
    EXPECT_EQ("\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD", CKvStringUtils::WtoUTF8(bad, 3).Std());
    EXPECT_EQ(std::wstring(L"a\0b", 3), CKvStringUtils::UTF8toW("a\0b", 3).Std());  // counted text keeps zeros

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
    EXPECT_TRUE(cut.find_first_not_of(L"\uFFFDx") == std::wstring::npos && cut.back() == L'\uFFFD' &&
                std::count(cut.begin(), cut.end(), L'x') == 1);
}

TEST(CKvString, Utf16ConversionsWithSurrogates) {
    const std::u16string pair = u"A\xD83D\xDE00\xDBFF\xDFFF\xFFFF";
    EXPECT_EQ(pair, GetZEMWideStringFromSysString(L"A\U0001F600\U0010FFFF\uFFFF"));
    EXPECT_EQ(L"A\U0001F600\U0010FFFF\uFFFF", GetSysWideStringFromZEMString(pair.c_str()).Std());
    const wchar_t bad[] = {L'x', 0xDC00, 0x110000};
    EXPECT_EQ(u"x\xFFFD\xFFFD", GetZEMWideStringFromSysString(bad, 3));

    const struct { std::u16string in; std::wstring out; } cases[] = {
        {u"\xD83Dx", L"\uFFFDx"},            // high surrogate without its low half
        {u"a\xD83D", L"a\uFFFD"},            // ... at the end
        {u"\xDE00\xD83D", L"\uFFFD\uFFFD"},  // halves in the wrong order
        {u"\xD83D\xD83D\xDE00", L"\uFFFD\U0001F600"},
        {std::u16string(u"a\0b", 3), std::wstring(L"a\0b", 3)},
    };
    for (const auto& c : cases) EXPECT_EQ(c.out, GetSysWideStringFromZEMString(c.in.data(), c.in.size()).Std());
}

TEST(CKvString, NarrowOrderingIsByteWise) {
    const char* const texts[] = {"", "a", "A", "ab", "\x7F", "\x80", "\xFF", "a\xC3\xA9", "a\x01"};
    const CKvStringALess less;
    for (const CKvStringA a : texts) {
        for (const CKvStringA b : texts) {
            SCOPED_TRACE(a.Std() + " / " + b.Std());
            const int order = Sign(std::strcmp(a, b));
            EXPECT_TRUE((a < b) == (order < 0) && (b > a) == (order < 0) && (a == b) == (order == 0));
            EXPECT_TRUE(less(a, b) == (order < 0) && less(a.View(), b) == (order < 0) && less(a, b.View()) == (order < 0));
            EXPECT_EQ(order, Sign(a.Compare(b)));
        }
    }
}

}  // namespace

// String classes and the conversions between wide, UTF-8 and UTF-16 text.
#include "gnr_system/CKvString.h"

#include <cstdio>
#include <cwchar>
#include <cwctype>
#include <locale.h>
#include <wctype.h>
#include <vector>

namespace {

constexpr char32_t kReplacement = 0xFFFD;
// Longest text a wide Format produces, in characters.
constexpr size_t kMaxFormattedLength = size_t{1} << 22;

// The library's narrow text is UTF-8 whatever locale the client program set:
// formatting and case mapping run under a UTF-8 character locale of their own.
locale_t Utf8Locale() {
    static const locale_t locale = [] {
        locale_t l = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
        if (!l) l = newlocale(LC_CTYPE_MASK, "C.utf8", static_cast<locale_t>(nullptr));
        return l;
    }();
    return locale;
}

// Switches the calling thread to the UTF-8 locale for its lifetime.
class ScopedUtf8Locale {
public:
    ScopedUtf8Locale() : m_previous(Utf8Locale() ? uselocale(Utf8Locale()) : nullptr) {}
    ~ScopedUtf8Locale() {
        if (m_previous) uselocale(m_previous);
    }
    ScopedUtf8Locale(const ScopedUtf8Locale&) = delete;
    ScopedUtf8Locale& operator=(const ScopedUtf8Locale&) = delete;

private:
    locale_t m_previous;
};

bool IsScalarValue(char32_t c) { return c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF); }

void AppendUTF8(std::string& out, char32_t c) {
    if (!IsScalarValue(c)) c = kReplacement;
    if (c < 0x80) {
        out.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (c >> 6)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (c >> 12)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (c >> 18)));
        out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
}

// Decodes one UTF-8 sequence starting at s[i]; advances i past it (by one
// byte for an invalid sequence, which yields U+FFFD).
char32_t DecodeUTF8(const unsigned char* s, size_t n, size_t& i) {
    unsigned char b = s[i];
    if (b < 0x80) {
        ++i;
        return b;
    }
    size_t len;
    char32_t c, min;
    if ((b & 0xE0) == 0xC0) { len = 2; c = b & 0x1F; min = 0x80; }
    else if ((b & 0xF0) == 0xE0) { len = 3; c = b & 0x0F; min = 0x800; }
    else if ((b & 0xF8) == 0xF0) { len = 4; c = b & 0x07; min = 0x10000; }
    else { ++i; return kReplacement; }
    if (n - i < len) { ++i; return kReplacement; }
    for (size_t k = 1; k < len; ++k) {
        unsigned char t = s[i + k];
        if ((t & 0xC0) != 0x80) { ++i; return kReplacement; }
        c = (c << 6) | (t & 0x3F);
    }
    if (c < min || !IsScalarValue(c)) { ++i; return kReplacement; }
    i += len;
    return c;
}

std::wstring UTF8ToWide(const char* s, size_t n) {
    std::wstring out;
    out.reserve(n);
    const auto* u = reinterpret_cast<const unsigned char*>(s);
    for (size_t i = 0; i < n;) out.push_back(static_cast<wchar_t>(DecodeUTF8(u, n, i)));
    return out;
}

template <typename Ch>
Ch LowerChar(Ch c);
template <>
char LowerChar<char>(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }
template <>
wchar_t LowerChar<wchar_t>(wchar_t c) {
    if (c < 0x80) return (c >= L'A' && c <= L'Z') ? static_cast<wchar_t>(c - L'A' + L'a') : c;
    locale_t l = Utf8Locale();
    if (!l) return c;
    return iswupper_l(static_cast<wint_t>(c), l) ? static_cast<wchar_t>(towlower_l(static_cast<wint_t>(c), l)) : c;
}
template <typename Ch>
Ch UpperChar(Ch c);
template <>
char UpperChar<char>(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }
template <>
wchar_t UpperChar<wchar_t>(wchar_t c) {
    if (c < 0x80) return (c >= L'a' && c <= L'z') ? static_cast<wchar_t>(c - L'a' + L'A') : c;
    locale_t l = Utf8Locale();
    if (!l) return c;
    return iswlower_l(static_cast<wint_t>(c), l) ? static_cast<wchar_t>(towupper_l(static_cast<wint_t>(c), l)) : c;
}

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }
bool IsSpace(wchar_t c) { return std::iswspace(static_cast<wint_t>(c)) != 0; }

}  // namespace

template <typename Ch>
int CKvStringBase<Ch>::CompareNoCase(const Ch* other) const {
    view_type b = other ? view_type(other) : view_type();
    size_t n = m_str.size() < b.size() ? m_str.size() : b.size();
    for (size_t i = 0; i < n; ++i) {
        Ch x = LowerChar(m_str[i]), y = LowerChar(b[i]);
        if (x != y) return static_cast<std::make_unsigned_t<Ch>>(x) < static_cast<std::make_unsigned_t<Ch>>(y) ? -1 : 1;
    }
    return m_str.size() == b.size() ? 0 : (m_str.size() < b.size() ? -1 : 1);
}

template <typename Ch>
void CKvStringBase<Ch>::TrimLeft() {
    size_t i = 0;
    while (i < m_str.size() && IsSpace(m_str[i])) ++i;
    m_str.erase(0, i);
}

template <typename Ch>
void CKvStringBase<Ch>::TrimRight() {
    size_t n = m_str.size();
    while (n > 0 && IsSpace(m_str[n - 1])) --n;
    m_str.resize(n);
}

template <typename Ch>
void CKvStringBase<Ch>::MakeLower() {
    for (auto& c : m_str) c = LowerChar(c);
}

template <typename Ch>
void CKvStringBase<Ch>::MakeUpper() {
    for (auto& c : m_str) c = UpperChar(c);
}

template <typename Ch>
int CKvStringBase<Ch>::Replace(const Ch* from, const Ch* to) {
    if (!from || !*from) return 0;
    view_type f(from), t(to ? to : EmptyLiteral());
    int count = 0;
    size_t pos = 0;
    while ((pos = m_str.find(f, pos)) != std::basic_string<Ch>::npos) {
        m_str.replace(pos, f.size(), t);
        pos += t.size();
        ++count;
    }
    return count;
}

template class CKvStringBase<char>;
template class CKvStringBase<wchar_t>;

// ---- CKvStringW ----

CKvStringW::CKvStringW(const char* utf8) {
    if (utf8) m_str = UTF8ToWide(utf8, std::char_traits<char>::length(utf8));
}

CKvStringW::CKvStringW(const CKvStringA& utf8) : CKvStringW() {
    m_str = UTF8ToWide(utf8.c_str(), utf8.Size());
}

void CKvStringW::AppendFormatV(const wchar_t* fmt, va_list args) {
    if (!fmt) return;
    // vswprintf answers only "failed" both for a short buffer and for text it
    // cannot convert, so the buffer grows up to a bound and then gives up.
    const ScopedUtf8Locale utf8;
    std::vector<wchar_t> buf(256);
    for (;;) {
        va_list copy;
        va_copy(copy, args);
        int n = std::vswprintf(buf.data(), buf.size(), fmt, copy);
        va_end(copy);
        if (n >= 0 && static_cast<size_t>(n) < buf.size()) {
            m_str.append(buf.data(), static_cast<size_t>(n));
            return;
        }
        if (buf.size() >= kMaxFormattedLength) return;
        buf.resize(buf.size() * 4);
    }
}

void CKvStringW::Format(const wchar_t* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    FormatV(fmt, args);
    va_end(args);
}

void CKvStringW::AppendFormat(const wchar_t* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    AppendFormatV(fmt, args);
    va_end(args);
}

// ---- CKvStringA ----

CKvStringA::CKvStringA(const wchar_t* wide) {
    if (wide) m_str = CKvStringUtils::WtoUTF8(wide).Std();
}

CKvStringA::CKvStringA(const CKvStringW& wide) : CKvStringA() {
    m_str = CKvStringUtils::WtoUTF8(wide.c_str(), wide.Size()).Std();
}

void CKvStringA::AppendFormatV(const char* fmt, va_list args) {
    if (!fmt) return;
    const ScopedUtf8Locale utf8;
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (n <= 0) return;
    // Formatted apart first: an argument may point into this very string.
    std::string text(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(&text[0], text.size(), fmt, args);
    m_str.append(text.data(), static_cast<size_t>(n));
}

void CKvStringA::Format(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    FormatV(fmt, args);
    va_end(args);
}

void CKvStringA::AppendFormat(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    AppendFormatV(fmt, args);
    va_end(args);
}

// ---- conversions ----

CKvStringA CKvStringUtils::WtoUTF8(const wchar_t* wide) {
    return wide ? WtoUTF8(wide, std::wcslen(wide)) : CKvStringA();
}

CKvStringA CKvStringUtils::WtoUTF8(const wchar_t* wide, size_t length) {
    std::string out;
    if (wide) {
        out.reserve(length);
        for (size_t i = 0; i < length; ++i) AppendUTF8(out, static_cast<char32_t>(wide[i]));
    }
    return CKvStringA(out);
}

CKvStringW CKvStringUtils::UTF8toW(const char* utf8) {
    return utf8 ? UTF8toW(utf8, std::char_traits<char>::length(utf8)) : CKvStringW();
}

CKvStringW CKvStringUtils::UTF8toW(const char* utf8, size_t length) {
    return utf8 ? CKvStringW(UTF8ToWide(utf8, length)) : CKvStringW();
}

std::u16string GetZEMWideStringFromSysString(const wchar_t* wide) {
    return wide ? GetZEMWideStringFromSysString(wide, std::wcslen(wide)) : std::u16string();
}

std::u16string GetZEMWideStringFromSysString(const wchar_t* wide, size_t length) {
    std::u16string out;
    if (!wide) return out;
    out.reserve(length);
    for (size_t i = 0; i < length; ++i) {
        char32_t c = static_cast<char32_t>(wide[i]);
        if (!IsScalarValue(c)) c = kReplacement;
        if (c < 0x10000) {
            out.push_back(static_cast<char16_t>(c));
        } else {
            c -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 | (c >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 | (c & 0x3FF)));
        }
    }
    return out;
}

CKvStringW GetSysWideStringFromZEMString(const char16_t* utf16) {
    return utf16 ? GetSysWideStringFromZEMString(utf16, std::char_traits<char16_t>::length(utf16)) : CKvStringW();
}

CKvStringW GetSysWideStringFromZEMString(const char16_t* utf16, size_t length) {
    std::wstring out;
    if (!utf16) return CKvStringW();
    out.reserve(length);
    for (size_t i = 0; i < length; ++i) {
        char32_t c = utf16[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < length && utf16[i + 1] >= 0xDC00 && utf16[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (utf16[i + 1] - 0xDC00);
            ++i;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = kReplacement;
        }
        out.push_back(static_cast<wchar_t>(c));
    }
    return CKvStringW(out);
}

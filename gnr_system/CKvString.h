// The library's two owned string types: CKvStringW (wide, 32-bit wchar_t) for
// file names and metadata texts, CKvStringA (bytes) for chunk names and format
// identifiers; plus conversions to UTF-8 and to 16-bit wide strings.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Common part of both string classes: an owned character sequence with
// CString-like operations. Positions are character indexes; -1 means "none".
template <typename Ch>
class CKvStringBase {
public:
    using char_type = Ch;
    using view_type = std::basic_string_view<Ch>;

    CKvStringBase() = default;
    CKvStringBase(const Ch* s) : m_str(s ? s : EmptyLiteral()) {}
    CKvStringBase(const Ch* s, size_t n) : m_str(s ? view_type(s, n) : view_type()) {}
    explicit CKvStringBase(view_type v) : m_str(v) {}
    explicit CKvStringBase(const std::basic_string<Ch>& s) : m_str(s) {}

    int GetLength() const { return static_cast<int>(m_str.size()); }
    size_t Size() const { return m_str.size(); }
    bool IsEmpty() const { return m_str.empty(); }
    void Empty() { m_str.clear(); }
    const Ch* GetString() const { return m_str.c_str(); }
    const Ch* c_str() const { return m_str.c_str(); }
    operator const Ch*() const { return m_str.c_str(); }
    view_type View() const { return m_str; }
    std::basic_string<Ch>& Std() { return m_str; }
    const std::basic_string<Ch>& Std() const { return m_str; }

    Ch GetAt(int i) const { return m_str[static_cast<size_t>(i)]; }
    void SetAt(int i, Ch c) { m_str[static_cast<size_t>(i)] = c; }

    // Ordinal comparison (<0, 0, >0), and one that lowers letters first.
    int Compare(const Ch* other) const { return CompareViews(m_str, other ? view_type(other) : view_type()); }
    int CompareNoCase(const Ch* other) const;

    int Find(Ch c, int start = 0) const { return ToIndex(m_str.find(c, ClampStart(start))); }
    int Find(const Ch* sub, int start = 0) const { return ToIndex(m_str.find(sub ? sub : EmptyLiteral(), ClampStart(start))); }
    int ReverseFind(Ch c) const { return ToIndex(m_str.rfind(c)); }
    bool StartsWith(view_type prefix) const { return m_str.compare(0, prefix.size(), prefix) == 0; }
    bool EndsWith(view_type suffix) const {
        return m_str.size() >= suffix.size() && m_str.compare(m_str.size() - suffix.size(), suffix.size(), suffix) == 0;
    }

    // Substrings; out-of-range arguments are clamped, never an error.
    std::basic_string<Ch> LeftStd(int n) const { return m_str.substr(0, Clamp(n)); }
    std::basic_string<Ch> MidStd(int first, int n = -1) const {
        size_t f = Clamp(first);
        return m_str.substr(f, n < 0 ? std::basic_string<Ch>::npos : static_cast<size_t>(n));
    }
    std::basic_string<Ch> RightStd(int n) const {
        size_t k = Clamp(n);
        return m_str.substr(m_str.size() - k);
    }

    void TrimLeft();
    void TrimRight();
    void Trim() { TrimRight(); TrimLeft(); }
    void MakeLower();
    void MakeUpper();
    // Replaces every occurrence of `from` by `to`; answers how many were replaced.
    int Replace(const Ch* from, const Ch* to);

    void Append(const Ch* s, size_t n) { if (s) m_str.append(s, n); }
    void Append(const Ch* s) { if (s) m_str.append(s); }
    void AppendChar(Ch c) { m_str.push_back(c); }

protected:
    static const Ch* EmptyLiteral() {
        static const Ch empty[1] = {0};
        return empty;
    }
    static int CompareViews(view_type a, view_type b) {
        int c = a.compare(b);
        return c < 0 ? -1 : (c > 0 ? 1 : 0);
    }
    static int ToIndex(size_t pos) { return pos == std::basic_string<Ch>::npos ? -1 : static_cast<int>(pos); }
    size_t ClampStart(int start) const { return start < 0 ? 0 : static_cast<size_t>(start); }
    size_t Clamp(int n) const {
        if (n < 0) return 0;
        return static_cast<size_t>(n) > m_str.size() ? m_str.size() : static_cast<size_t>(n);
    }

    std::basic_string<Ch> m_str;
};

class CKvStringA;

class CKvStringW : public CKvStringBase<wchar_t> {
public:
    using CKvStringBase<wchar_t>::CKvStringBase;
    CKvStringW() = default;
    // Bytes are taken as UTF-8 (invalid sequences become U+FFFD).
    CKvStringW(const char* utf8);
    CKvStringW(const CKvStringA& utf8);

    // printf-style formatting (%ls for wide strings, %s for narrow ones, which
    // are taken as UTF-8 whatever the process locale).
    void Format(const wchar_t* fmt, ...);
    void FormatV(const wchar_t* fmt, va_list args) { m_str.clear(); AppendFormatV(fmt, args); }
    void AppendFormat(const wchar_t* fmt, ...);
    void AppendFormatV(const wchar_t* fmt, va_list args);

    CKvStringW Left(int n) const { return CKvStringW(LeftStd(n)); }
    CKvStringW Mid(int first, int n = -1) const { return CKvStringW(MidStd(first, n)); }
    CKvStringW Right(int n) const { return CKvStringW(RightStd(n)); }

    CKvStringW& operator=(const wchar_t* s) { m_str = s ? s : L""; return *this; }
    CKvStringW& operator+=(const CKvStringW& s) { m_str += s.m_str; return *this; }
    CKvStringW& operator+=(const wchar_t* s) { Append(s); return *this; }
    CKvStringW& operator+=(wchar_t c) { m_str.push_back(c); return *this; }
};

class CKvStringA : public CKvStringBase<char> {
public:
    using CKvStringBase<char>::CKvStringBase;
    CKvStringA() = default;
    // The narrow form of a wide string is its UTF-8 encoding.
    CKvStringA(const wchar_t* wide);
    CKvStringA(const CKvStringW& wide);

    // printf-style formatting; %ls arguments are written as UTF-8.
    void Format(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void FormatV(const char* fmt, va_list args) { m_str.clear(); AppendFormatV(fmt, args); }
    void AppendFormat(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void AppendFormatV(const char* fmt, va_list args);

    CKvStringA Left(int n) const { return CKvStringA(LeftStd(n)); }
    CKvStringA Mid(int first, int n = -1) const { return CKvStringA(MidStd(first, n)); }
    CKvStringA Right(int n) const { return CKvStringA(RightStd(n)); }

    CKvStringA& operator=(const char* s) { m_str = s ? s : ""; return *this; }
    CKvStringA& operator+=(const CKvStringA& s) { m_str += s.m_str; return *this; }
    CKvStringA& operator+=(const char* s) { Append(s); return *this; }
    CKvStringA& operator+=(char c) { m_str.push_back(c); return *this; }
};

// Comparisons are ordinal over the whole content (byte order for CKvStringA,
// the order strcmp uses).
#define KV_STRING_COMPARISONS(S, Ch)                                                              \
    inline bool operator==(const S& a, const S& b) { return a.View() == b.View(); }               \
    inline bool operator!=(const S& a, const S& b) { return a.View() != b.View(); }               \
    inline bool operator<(const S& a, const S& b) { return a.View() < b.View(); }                 \
    inline bool operator>(const S& a, const S& b) { return a.View() > b.View(); }                 \
    inline bool operator==(const S& a, const Ch* b) { return a.Compare(b) == 0; }                 \
    inline bool operator!=(const S& a, const Ch* b) { return a.Compare(b) != 0; }                 \
    inline bool operator==(const Ch* a, const S& b) { return b.Compare(a) == 0; }                 \
    inline bool operator!=(const Ch* a, const S& b) { return b.Compare(a) != 0; }                 \
    inline S operator+(const S& a, const S& b) { S r(a); r += b; return r; }                      \
    inline S operator+(const S& a, const Ch* b) { S r(a); r += b; return r; }                     \
    inline S operator+(const Ch* a, const S& b) { S r(a); r += b; return r; }
KV_STRING_COMPARISONS(CKvStringW, wchar_t)
KV_STRING_COMPARISONS(CKvStringA, char)
#undef KV_STRING_COMPARISONS

// Orders chunk names and identifiers byte-wise, and lets maps be searched
// with a string_view or a plain char pointer without building a key.
struct CKvStringALess {
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const { return a < b; }
    bool operator()(const CKvStringA& a, const CKvStringA& b) const { return a.View() < b.View(); }
    bool operator()(const CKvStringA& a, std::string_view b) const { return a.View() < b; }
    bool operator()(std::string_view a, const CKvStringA& b) const { return a < b.View(); }
    bool operator()(const CKvStringA& a, const char* b) const { return a.View() < std::string_view(b); }
    bool operator()(const char* a, const CKvStringA& b) const { return std::string_view(a) < b.View(); }
};

class CKvStringUtils {
public:
    // UTF-8 of a wide string. Values that are not Unicode scalar values
    // (surrogates, above U+10FFFF) are written as U+FFFD.
    static CKvStringA WtoUTF8(const wchar_t* wide);
    static CKvStringA WtoUTF8(const wchar_t* wide, size_t length);
    // Wide string of UTF-8 bytes; every invalid or truncated sequence gives U+FFFD.
    static CKvStringW UTF8toW(const char* utf8);
    static CKvStringW UTF8toW(const char* utf8, size_t length);
};

// 32-bit wide strings to the 16-bit wide strings stored in files (UTF-16,
// characters outside the Basic Multilingual Plane as surrogate pairs), and back.
// An unpaired surrogate read back becomes U+FFFD.
std::u16string GetZEMWideStringFromSysString(const wchar_t* wide);
std::u16string GetZEMWideStringFromSysString(const wchar_t* wide, size_t length);
CKvStringW GetSysWideStringFromZEMString(const char16_t* utf16);
CKvStringW GetSysWideStringFromZEMString(const char16_t* utf16, size_t length);

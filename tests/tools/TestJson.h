// A small strict JSON parser for the tool tests: reads a whole document into
// a tree and throws std::runtime_error on anything that is not JSON.
#pragma once

#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

struct STestJson {
    enum EKind { eNull, eBool, eNumber, eString, eArray, eObject };
    EKind kind = eNull;
    bool boolean = false;
    double number = 0.0;
    std::string text;
    std::vector<STestJson> items;
    std::map<std::string, STestJson> members;

    bool IsNull() const { return kind == eNull; }
    bool Has(const std::string& key) const { return members.count(key) != 0; }
    // Member `key` of an object; throws when it is missing.
    const STestJson& operator[](const std::string& key) const {
        const auto it = members.find(key);
        if (kind != eObject || it == members.end()) throw std::runtime_error("no member \"" + key + "\"");
        return it->second;
    }
    const STestJson& operator[](size_t index) const {
        if (kind != eArray || index >= items.size()) throw std::runtime_error("no item " + std::to_string(index));
        return items[index];
    }
    double Number() const { return Expect(eNumber).number; }
    const std::string& Text() const { return Expect(eString).text; }
    bool Bool() const { return Expect(eBool).boolean; }
    size_t Size() const { return kind == eArray ? items.size() : members.size(); }

    static STestJson Parse(const std::string& document);

private:
    const STestJson& Expect(EKind wanted) const {
        if (kind != wanted) throw std::runtime_error("JSON value of another kind");
        return *this;
    }
};

namespace test_json_detail {

class CParser {
public:
    explicit CParser(const std::string& text) : m_text(text) {}

    STestJson Document() {
        STestJson value = Value();
        SkipSpace();
        if (m_pos != m_text.size()) Fail("text after the document");
        return value;
    }

private:
    [[noreturn]] void Fail(const std::string& what) const {
        throw std::runtime_error("JSON: " + what + " at offset " + std::to_string(m_pos));
    }
    void SkipSpace() {
        while (m_pos < m_text.size() && (m_text[m_pos] == ' ' || m_text[m_pos] == '\n' || m_text[m_pos] == '\r' ||
                                         m_text[m_pos] == '\t'))
            ++m_pos;
    }
    bool Take(char c) {
        SkipSpace();
        if (m_pos < m_text.size() && m_text[m_pos] == c) {
            ++m_pos;
            return true;
        }
        return false;
    }
    void Need(char c) {
        if (!Take(c)) Fail(std::string("expected '") + c + "'");
    }
    bool Word(const char* word) {
        const std::string w(word);
        if (m_text.compare(m_pos, w.size(), w) != 0) return false;
        m_pos += w.size();
        return true;
    }

    STestJson Value() {
        SkipSpace();
        if (m_pos >= m_text.size()) Fail("unexpected end");
        STestJson v;
        const char c = m_text[m_pos];
        if (c == '{') return Object();
        if (c == '[') return Array();
        if (c == '"') {
            v.kind = STestJson::eString;
            v.text = String();
        } else if (Word("true")) {
            v.kind = STestJson::eBool;
            v.boolean = true;
        } else if (Word("false")) {
            v.kind = STestJson::eBool;
        } else if (Word("null")) {
            v.kind = STestJson::eNull;
        } else {
            v.kind = STestJson::eNumber;
            v.number = Number();
        }
        return v;
    }

    STestJson Object() {
        STestJson v;
        v.kind = STestJson::eObject;
        Need('{');
        if (Take('}')) return v;
        do {
            SkipSpace();
            if (m_pos >= m_text.size() || m_text[m_pos] != '"') Fail("expected a member name");
            const std::string key = String();
            Need(':');
            if (!v.members.emplace(key, Value()).second) Fail("member \"" + key + "\" twice");
        } while (Take(','));
        Need('}');
        return v;
    }

    STestJson Array() {
        STestJson v;
        v.kind = STestJson::eArray;
        Need('[');
        if (Take(']')) return v;
        do v.items.push_back(Value());
        while (Take(','));
        Need(']');
        return v;
    }

    double Number() {
        const size_t start = m_pos;
        if (m_pos < m_text.size() && m_text[m_pos] == '-') ++m_pos;
        const size_t digits = m_pos;
        while (m_pos < m_text.size() && std::string("0123456789.eE+-").find(m_text[m_pos]) != std::string::npos) ++m_pos;
        if (m_pos == digits || m_text[digits] < '0' || m_text[digits] > '9') Fail("not a value");
        if (m_text[digits] == '0' && m_pos > digits + 1 && m_text[digits + 1] >= '0' && m_text[digits + 1] <= '9')
            Fail("leading zero");
        char* end = nullptr;
        const std::string token = m_text.substr(start, m_pos - start);
        const double value = std::strtod(token.c_str(), &end);
        if (*end != '\0') Fail("malformed number");
        return value;
    }

    unsigned Hex4() {
        if (m_pos + 4 > m_text.size()) Fail("short \\u escape");
        const std::string digits = m_text.substr(m_pos, 4);
        if (digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) Fail("bad \\u escape");
        m_pos += 4;
        return static_cast<unsigned>(std::strtoul(digits.c_str(), nullptr, 16));
    }

    static void AppendUtf8(std::string& out, unsigned code) {
        if (code < 0x80) {
            out += static_cast<char>(code);
        } else if (code < 0x800) {
            out += static_cast<char>(0xC0 | (code >> 6));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else if (code < 0x10000) {
            out += static_cast<char>(0xE0 | (code >> 12));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (code >> 18));
            out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        }
    }

    void Escape(std::string& out) {
        if (m_pos >= m_text.size()) Fail("unfinished escape");
        const char c = m_text[m_pos++];
        const std::string simple = "\"\\/bfnrt", meaning = "\"\\/\b\f\n\r\t";
        const size_t at = simple.find(c);
        if (at != std::string::npos) {
            out += meaning[at];
            return;
        }
        if (c != 'u') Fail("unknown escape");
        unsigned code = Hex4();
        if (code >= 0xD800 && code < 0xDC00) {  // a surrogate pair
            if (!Word("\\u")) Fail("lone surrogate");
            const unsigned low = Hex4();
            if (low < 0xDC00 || low >= 0xE000) Fail("bad surrogate pair");
            code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
        }
        AppendUtf8(out, code);
    }

    std::string String() {
        ++m_pos;  // the opening quote
        std::string out;
        while (true) {
            if (m_pos >= m_text.size()) Fail("unfinished string");
            const unsigned char c = static_cast<unsigned char>(m_text[m_pos++]);
            if (c == '"') return out;
            if (c < 0x20) Fail("control character in a string");
            if (c == '\\') Escape(out);
            else out += static_cast<char>(c);
        }
    }

    const std::string& m_text;
    size_t m_pos = 0;
};

}  // namespace test_json_detail

inline STestJson STestJson::Parse(const std::string& document) {
    return test_json_detail::CParser(document).Document();
}

// The JSON writer of the qv8 commands.
#include "tools/qv8/Qv8Json.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

std::string JsonString(std::string_view utf8) {
    std::string out = "\"";
    out.reserve(utf8.size() + 2);
    for (unsigned char c : utf8) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20 || c == 0x7F) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                    out += escaped;
                } else {
                    out += static_cast<char>(c);  // UTF-8 passes through unchanged
                }
        }
    }
    return out + "\"";
}

std::string JsonNumber(double value) {
    if (!std::isfinite(value)) return "null";
    // The shortest of 15 or 17 significant digits that reads back as the same double.
    char text[40];
    std::snprintf(text, sizeof text, "%.15g", value);
    if (std::strtod(text, nullptr) != value) std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

CQv8JsonWriter& CQv8JsonWriter::Key(std::string_view name) {
    Separate();
    m_text += JsonString(name);
    m_text += ": ";
    m_afterKey = true;
    return *this;
}

CQv8JsonWriter& CQv8JsonWriter::Open(char bracket) {
    Separate();
    m_text += bracket;
    m_hasMembers.push_back(false);
    return *this;
}

CQv8JsonWriter& CQv8JsonWriter::Close(char bracket) {
    const bool hadMembers = !m_hasMembers.empty() && m_hasMembers.back();
    if (!m_hasMembers.empty()) m_hasMembers.pop_back();
    if (hadMembers) {
        m_text += '\n';
        Indent();
    }
    m_text += bracket;
    return *this;
}

CQv8JsonWriter& CQv8JsonWriter::Raw(std::string_view token) {
    Separate();
    m_text += token;
    return *this;
}

void CQv8JsonWriter::Separate() {
    if (m_afterKey) {
        m_afterKey = false;
        return;
    }
    if (m_hasMembers.empty()) return;  // the top-level value
    if (m_hasMembers.back()) m_text += ',';
    m_hasMembers.back() = true;
    m_text += '\n';
    Indent();
}

void CQv8JsonWriter::Indent() { m_text.append(m_hasMembers.size() * 2, ' '); }

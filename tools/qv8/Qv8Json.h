// A small streaming JSON writer for the machine-readable output of the qv8
// commands: indented, strings escaped, numbers that are not finite as null.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

// A JSON string literal (quotes included) of UTF-8 text.
std::string JsonString(std::string_view utf8);
// A JSON number; NaN and infinities, which JSON lacks, become null.
std::string JsonNumber(double value);

class CQv8JsonWriter {
public:
    CQv8JsonWriter& BeginObject() { return Open('{'); }
    CQv8JsonWriter& EndObject() { return Close('}'); }
    CQv8JsonWriter& BeginArray() { return Open('['); }
    CQv8JsonWriter& EndArray() { return Close(']'); }
    // The name of the next member of the current object.
    CQv8JsonWriter& Key(std::string_view name);

    CQv8JsonWriter& Value(std::string_view utf8) { return Raw(JsonString(utf8)); }
    CQv8JsonWriter& Value(const char* utf8) { return Value(std::string_view(utf8)); }
    CQv8JsonWriter& Value(const std::string& utf8) { return Value(std::string_view(utf8)); }
    CQv8JsonWriter& Value(bool value) { return Raw(value ? "true" : "false"); }
    CQv8JsonWriter& Value(double value) { return Raw(JsonNumber(value)); }
    template <typename T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>, int> = 0>
    CQv8JsonWriter& Value(T value) {
        return Raw(std::to_string(value));
    }
    CQv8JsonWriter& Null() { return Raw("null"); }

    // Key and value in one call.
    template <typename T>
    CQv8JsonWriter& Field(std::string_view name, const T& value) {
        Key(name);
        return Value(value);
    }
    CQv8JsonWriter& NullField(std::string_view name) { return Key(name).Null(); }

    // The document so far; complete once every container is closed. Ends in a newline.
    std::string Text() const { return m_text + "\n"; }

private:
    CQv8JsonWriter& Open(char bracket);
    CQv8JsonWriter& Close(char bracket);
    CQv8JsonWriter& Raw(std::string_view token);
    // Comma, line break and indentation before a value or key, unless the
    // value follows its key.
    void Separate();
    void Indent();

    std::string m_text;
    std::vector<bool> m_hasMembers;  // one per open container
    bool m_afterKey = false;
};

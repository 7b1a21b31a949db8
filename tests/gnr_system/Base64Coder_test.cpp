#include "gnr_system/Base64Coder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

namespace {

std::string Encoded(Base64Coder& coder) {
    uint64_t length = 99;
    const char* text = coder.EncodedBuffer(&length);
    EXPECT_EQ(std::strlen(text), length);
    return std::string(text, length);
}

std::string Decoded(const Base64Coder& coder) {
    uint64_t length = 99;
    const uint8_t* bytes = coder.DecodedBuffer(&length);
    return length ? std::string(reinterpret_cast<const char*>(bytes), length) : std::string();
}

kv_result DecodeNarrow(Base64Coder& coder, const std::string& text) {
    return coder.DecodeA(reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned>(text.size()));
}

std::wstring Widen(const std::string& s) {
    std::wstring w;
    for (unsigned char c : s) w.push_back(static_cast<wchar_t>(c));
    return w;
}

TEST(Base64Coder, EncodesKnownVectorsAndDecodesThemBack) {
    const struct { std::string bytes, text; } cases[] = {
        {"", ""},           {"f", "Zg=="},          {"fo", "Zm8="},
        {"foo", "Zm9v"},    {"foob", "Zm9vYg=="},   {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"}, {"\xFB\xFF", "+/8="}, {"\xFF\xFF\xFF", "////"},
        {std::string(3, '\0'), "AAAA"},
    };
    Base64Coder coder;  // one coder for all: each call replaces the last result
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(KV_OK, coder.Encode(c.bytes.data(), c.bytes.size()));
        EXPECT_EQ(c.text, Encoded(coder));
        EXPECT_EQ(KV_OK, coder.DecodeA(CKvStringA(c.text.c_str())));
        EXPECT_EQ(c.bytes, Decoded(coder));
        EXPECT_EQ(KV_OK, coder.DecodeW(Widen(c.text).c_str()));
        EXPECT_EQ(c.bytes, Decoded(coder));
    }
}

TEST(Base64Coder, RoundTripsEveryLengthAndByteValue) {
    std::mt19937 random(7);
    Base64Coder coder;
    for (size_t n = 0; n <= 256; ++n) {
        // Random bytes of every length up to 255, then every byte value once.
        std::string bytes(n, '\0');
        for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<char>(n == 256 ? i : random());
        ASSERT_EQ(KV_OK, coder.Encode(bytes.data(), n));
        const std::string text = Encoded(coder);
        ASSERT_EQ((n + 2) / 3 * 4, text.size());
        ASSERT_EQ(std::string::npos, text.find_first_not_of(
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/="));
        ASSERT_EQ(KV_OK, DecodeNarrow(coder, text));
        ASSERT_EQ(bytes, Decoded(coder)) << "length " << n;
    }
}

// Decoding leniencies and malformed texts; every case runs through both the
// narrow and the wide decoder.
TEST(Base64Coder, DecodesPaddingShortGroupsAndStopsAtInvalidCharacters) {
    const struct { std::string text, bytes; kv_result result; } cases[] = {
        {"TWFuTWFuTQ==", "ManManM", KV_OK},
        {"TQ=", "M", KV_OK},                 // pad in the third place, text ends
        {"TWE", "Ma", KV_OK},                // short final groups
        {"TQ", "M", KV_OK},
        {"T", "", KV_OK},
        {"TWFuT", "Man", KV_OK},
        {"TQ==TWFu", "MMan", KV_OK},          // a padded group does not end the text
        {"\xD4\xD7\xC6\xF5", "Man", KV_OK},   // "TWFu" with bit 7 set on every character
        {"TQ\xBD\xBD", "M", KV_OK},           // '=' with bit 7 set is a pad too
        {"TWFu TWFu", "Man", KV_ERR_FAILED},  // no character is skipped
        {"TWFu\nTWFu", "Man", KV_ERR_FAILED},
        {"TWFu\r\n", "Man", KV_ERR_FAILED},
        {"TWFuTW!u", "ManM", KV_ERR_FAILED},  // the partial group before the stop counts
        {"TWF!", "Ma", KV_ERR_FAILED},
        {"TWFu\x80", "Man", KV_ERR_FAILED},   // bit 7 on a byte that is not in the alphabet
        {"=AAA", "", KV_ERR_FAILED},          // pads in the first places are malformed
        {"T=AA", "", KV_ERR_FAILED},
        {"TQ=u", "M", KV_ERR_FAILED},         // only pads may follow a pad
        {"TQ===", "M", KV_ERR_FAILED},
    };
    Base64Coder coder;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(c.result, DecodeNarrow(coder, c.text));
        EXPECT_EQ(c.bytes, Decoded(coder));
        EXPECT_EQ(c.result, coder.DecodeW(Widen(c.text).c_str()));
        EXPECT_EQ(c.bytes, Decoded(coder));
    }
    // A zero byte is invalid for the counted decoder; wide characters beyond
    // one byte are invalid even when their low byte is in the alphabet.
    EXPECT_EQ(KV_ERR_FAILED, coder.DecodeA(CKvStringA("TW\0u", 4)));
    EXPECT_EQ("M", Decoded(coder));
    for (const wchar_t* text : {L"TWFu\u0154WFu", L"TWFu\u0254WFu", L"TWFu\U00010054WFu"}) {
        EXPECT_EQ(KV_ERR_FAILED, coder.DecodeW(text));
        EXPECT_EQ("Man", Decoded(coder));
    }
}

TEST(Base64Coder, NullArguments) {
    Base64Coder coder;
    ASSERT_EQ(KV_OK, coder.Encode("x", 1));
    EXPECT_EQ(KV_ERR_INVALID_ARG, coder.Encode(nullptr, 3));
    EXPECT_EQ("", Encoded(coder));
    EXPECT_EQ(KV_OK, coder.Encode(nullptr, 0));
    EXPECT_EQ(KV_ERR_INVALID_ARG, coder.DecodeA(nullptr, 4));
    EXPECT_EQ(KV_OK, coder.DecodeA(nullptr, 0));
    EXPECT_EQ(KV_ERR_INVALID_ARG, coder.DecodeW(nullptr));
    EXPECT_EQ("", Decoded(coder));
}

}  // namespace

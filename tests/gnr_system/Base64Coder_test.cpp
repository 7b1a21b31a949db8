#include "gnr_system/Base64Coder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

namespace {

std::string Encoded(const Base64Coder& coder) {
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
// Decodes with both decoders, which must agree; answers the narrow result.
kv_result DecodeBoth(Base64Coder& coder, const std::string& text) {
    std::wstring widened;
    for (unsigned char c : text) widened.push_back(c);
    const kv_result wide = coder.DecodeW(widened.c_str());
    const std::string bytes = Decoded(coder);
    const auto* bytesOfText = reinterpret_cast<const unsigned char*>(text.data());
    const kv_result narrow = coder.DecodeA(bytesOfText, static_cast<unsigned>(text.size()));
    EXPECT_EQ(narrow, wide) << text;
    EXPECT_EQ(Decoded(coder), bytes) << text;
    return narrow;
}

TEST(Base64Coder, KnownVectorsAndRoundTrips) {
    const struct { std::string bytes, text; } cases[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"},
        {"\xFB\xFF", "+/8="}, {"\xFF\xFF\xFF", "////"}, {std::string(3, '\0'), "AAAA"},
    };
    Base64Coder coder;  // one coder for all: each call replaces the last result
    for (const auto& c : cases) {
        EXPECT_EQ(KV_OK, coder.Encode(c.bytes.data(), c.bytes.size()));
        EXPECT_EQ(c.text, Encoded(coder));
        EXPECT_EQ(KV_OK, DecodeBoth(coder, c.text));
        EXPECT_EQ(c.bytes, Decoded(coder)) << c.text;
    }
    // Random bytes of every length up to 255, then every byte value once.
    std::mt19937 random(7);
    for (size_t n = 0; n <= 256; ++n) {
        std::string bytes(n, '\0');
        for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<char>(n == 256 ? i : random());
        ASSERT_EQ(KV_OK, coder.Encode(bytes.data(), n));
        ASSERT_EQ((n + 2) / 3 * 4, Encoded(coder).size());
        ASSERT_EQ(KV_OK, coder.DecodeA(CKvStringA(Encoded(coder))));
        ASSERT_EQ(bytes, Decoded(coder)) << "length " << n;
    }
}

TEST(Base64Coder, DecodesPaddingShortGroupsAndStopsAtInvalidCharacters) {
    const struct { std::string text, bytes; kv_result result; } cases[] = {
        {"TWFuTWFuTQ==", "ManManM", KV_OK},
        {"TQ=", "M", KV_OK},                  // pad in the third place, text ends
        {"TWE", "Ma", KV_OK},                 // short final groups
        {"T", "", KV_OK},
        {"TQ==TWFu", "MMan", KV_OK},          // a padded group does not end the text
        {"\xD4\xD7\xC6\xF5", "Man", KV_OK},   // "TWFu" with bit 7 set on every character
        {"TQ\xBD\xBD", "M", KV_OK},           // '=' with bit 7 set is a pad too
        {"TWFu TWFu", "Man", KV_ERR_FAILED},  // no character is skipped
        {"TWFuTW!u", "ManM", KV_ERR_FAILED},  // the partial group before the stop counts
        {"TWFu\x80", "Man", KV_ERR_FAILED},   // bit 7 on a byte that is not in the alphabet
        {"T===", "", KV_ERR_FAILED},          // pads in the first places are malformed
        {"TQ=u", "M", KV_ERR_FAILED},         // only pads may follow a pad
        {"TQ===", "M", KV_ERR_FAILED},
    };
    Base64Coder coder;
    for (const auto& c : cases) {
        EXPECT_EQ(c.result, DecodeBoth(coder, c.text)) << c.text;
        EXPECT_EQ(c.bytes, Decoded(coder)) << c.text;
    }
    // A zero byte is invalid for the counted decoder; wide characters beyond
    // one byte are invalid even when their low byte is in the alphabet.
    EXPECT_EQ(KV_ERR_FAILED, coder.DecodeA(CKvStringA("TW\0u", 4)));
    EXPECT_EQ("M", Decoded(coder));
    for (const wchar_t* text : {L"TWFu\u0154WFu", L"TWFu\U00010054WFu"}) {
        EXPECT_EQ(KV_ERR_FAILED, coder.DecodeW(text));
        EXPECT_EQ("Man", Decoded(coder));
    }
}

TEST(Base64Coder, NullArguments) {
    Base64Coder coder;
    ASSERT_EQ(KV_OK, coder.Encode("x", 1));
    EXPECT_EQ(KV_ERR_INVALID_ARG, coder.Encode(nullptr, 3));
    EXPECT_EQ("", Encoded(coder));
    EXPECT_TRUE(coder.Encode(nullptr, 0) == KV_OK && coder.DecodeA(nullptr, 0) == KV_OK);
    ASSERT_EQ(KV_OK, coder.DecodeA(CKvStringA("TWFu")));
    EXPECT_TRUE(coder.DecodeA(nullptr, 4) == KV_ERR_INVALID_ARG && coder.DecodeW(nullptr) == KV_ERR_INVALID_ARG);
    EXPECT_EQ("", Decoded(coder));
}

}  // namespace

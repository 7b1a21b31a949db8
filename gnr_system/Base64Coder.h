// Base64 text of bytes and back, as used for byte arrays in the text and XML
// forms of metadata. The coder owns its output buffers.
#pragma once

#include <cstdint>
#include <vector>

#include "gnr_system/CKvString.h"
#include "gnr_system/KvResult.h"

class Base64Coder {
public:
    // Encodes `count` bytes with the standard alphabet and '=' padding, no
    // line breaks. KV_ERR_INVALID_ARG for a null pointer with a non-zero count.
    kv_result Encode(const void* bytes, uint64_t count);
    // The text of the last Encode, zero-terminated; `*length` (if given)
    // receives its length without the terminator.
    const char* EncodedBuffer(uint64_t* length) const;

    // Decode Base64 text in groups of four characters. A character with bit 7
    // set decodes like the same character without it; '=' in the third place
    // of a group ends it with one byte, in the fourth with two. A short final
    // group decodes as far as it goes. Decoding stops at the first character
    // outside the alphabet: what stands before it is decoded (a partial group
    // as far as it goes) and KV_ERR_FAILED is returned.
    kv_result DecodeW(const wchar_t* text);
    kv_result DecodeA(const unsigned char* text, unsigned length);
    kv_result DecodeA(const CKvStringA& text);
    // The bytes of the last decode; `*length` (if given) receives their count.
    const uint8_t* DecodedBuffer(uint64_t* length) const;

private:
    std::vector<char> m_encoded{'\0'};
    std::vector<uint8_t> m_decoded;
};

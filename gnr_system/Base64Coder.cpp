// Base64 with the standard alphabet and '=' padding; the decoder accepts a
// character whose top bit was damaged as the character itself.
#include "gnr_system/Base64Coder.h"

#include <array>
#include <cwchar>
#include <new>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kPad = '=';
constexpr uint8_t kInvalid = 254;  // decode-table mark of a byte outside the alphabet
constexpr uint8_t kPadMark = 255;  // decode-table mark of '='

using DecodeTable = std::array<uint8_t, 256>;

DecodeTable BuildDecodeTable() {
    DecodeTable table;
    table.fill(kInvalid);
    for (uint8_t value = 0; value < 64; ++value) {
        const auto c = static_cast<uint8_t>(kAlphabet[value]);
        table[c] = value;
        table[c | 0x80] = value;
    }
    table[static_cast<uint8_t>(kPad)] = kPadMark;
    table[static_cast<uint8_t>(kPad) | 0x80] = kPadMark;
    return table;
}

const DecodeTable& GetDecodeTable() {
    static const DecodeTable table = BuildDecodeTable();
    return table;
}

// Table entry of one text character; wide characters beyond a byte are invalid.
inline uint8_t Lookup(const DecodeTable& table, unsigned char c) { return table[c]; }
inline uint8_t Lookup(const DecodeTable& table, wchar_t c) {
    return (c >= 0 && c <= 0xFF) ? table[static_cast<size_t>(c)] : kInvalid;
}

// Writes the bytes carried by the first `count` values of a group (2 values
// carry one byte, 3 carry two, 4 carry three) and returns the new end.
inline uint8_t* EmitGroup(const uint8_t* v, int count, uint8_t* out) {
    if (count >= 2) *out++ = static_cast<uint8_t>((v[0] << 2) | (v[1] >> 4));
    if (count >= 3) *out++ = static_cast<uint8_t>((v[1] << 4) | (v[2] >> 2));
    if (count >= 4) *out++ = static_cast<uint8_t>((v[2] << 6) | v[3]);
    return out;
}

// Decodes `length` characters into `out`, which has room for 3 bytes per
// started group. Answers the number of bytes written through `written`.
//
// Inside a group a pad may stand only in the third or fourth place, and only
// pads may follow it; the group then ends and decoding goes on with the next
// one, so concatenated padded texts decode as a whole. Anything else that is
// not an alphabet character is malformed: the values of the group gathered
// so far are decoded as far as they go and KV_ERR_FAILED is returned.
template <typename Ch>
kv_result DecodeChars(const Ch* text, size_t length, uint8_t* out, size_t* written) {
    const DecodeTable& table = GetDecodeTable();
    uint8_t* const begin = out;
    size_t i = 0;

    // Fast path over whole groups made only of alphabet characters.
    while (length - i >= 4) {
        const uint8_t a = Lookup(table, text[i]), b = Lookup(table, text[i + 1]);
        const uint8_t c = Lookup(table, text[i + 2]), d = Lookup(table, text[i + 3]);
        if ((a | b | c | d) & 0xC0) break;  // a pad or an invalid character
        *out++ = static_cast<uint8_t>((a << 2) | (b >> 4));
        *out++ = static_cast<uint8_t>((b << 4) | (c >> 2));
        *out++ = static_cast<uint8_t>((c << 6) | d);
        i += 4;
    }

    kv_result result = KV_OK;
    uint8_t group[4];
    int count = 0;        // alphabet values gathered in the current group
    int position = 0;     // characters consumed of the current group
    bool padded = false;  // the current group has seen a pad
    for (; i < length; ++i) {
        const uint8_t value = Lookup(table, text[i]);
        if (value == kPadMark && position >= 2) {
            padded = true;
        } else if (value < 64 && !padded) {
            group[count++] = value;
        } else {
            result = KV_ERR_FAILED;
            break;
        }
        if (++position == 4) {
            out = EmitGroup(group, count, out);
            count = position = 0;
            padded = false;
        }
    }
    out = EmitGroup(group, count, out);
    *written = static_cast<size_t>(out - begin);
    return result;
}

// Sizes `buffer` for the decoded bytes of `length` characters, decodes into
// it and trims it to what was written.
template <typename Ch>
kv_result DecodeInto(std::vector<uint8_t>& buffer, const Ch* text, size_t length) {
    buffer.clear();
    if (length == 0) return KV_OK;
    try {
        buffer.resize((length / 4 + 1) * 3);
    } catch (const std::bad_alloc&) {
        return KV_ERR_OUT_OF_MEMORY;
    }
    size_t written = 0;
    const kv_result result = DecodeChars(text, length, buffer.data(), &written);
    buffer.resize(written);
    return result;
}

}  // namespace

kv_result Base64Coder::Encode(const void* bytes, uint64_t count) {
    m_encoded.assign(1, '\0');
    if (count == 0) return KV_OK;
    if (!bytes) return KV_ERR_INVALID_ARG;
    if (count / 3 >= (SIZE_MAX - 8) / 4) return KV_ERR_OUT_OF_MEMORY;
    const size_t textLength = static_cast<size_t>((count + 2) / 3 * 4);
    try {
        m_encoded.resize(textLength + 1);
    } catch (const std::bad_alloc&) {
        m_encoded.assign(1, '\0');
        return KV_ERR_OUT_OF_MEMORY;
    }

    const auto* in = static_cast<const uint8_t*>(bytes);
    char* out = m_encoded.data();
    const uint64_t whole = count - count % 3;
    for (uint64_t i = 0; i < whole; i += 3) {
        const uint32_t triple = (uint32_t{in[i]} << 16) | (uint32_t{in[i + 1]} << 8) | in[i + 2];
        out[0] = kAlphabet[triple >> 18];
        out[1] = kAlphabet[(triple >> 12) & 0x3F];
        out[2] = kAlphabet[(triple >> 6) & 0x3F];
        out[3] = kAlphabet[triple & 0x3F];
        out += 4;
    }
    if (const uint64_t rest = count - whole) {
        const uint32_t first = in[whole];
        const uint32_t second = rest == 2 ? in[whole + 1] : 0;
        out[0] = kAlphabet[first >> 2];
        out[1] = kAlphabet[((first & 0x03) << 4) | (second >> 4)];
        out[2] = rest == 2 ? kAlphabet[(second & 0x0F) << 2] : kPad;
        out[3] = kPad;
        out += 4;
    }
    *out = '\0';
    return KV_OK;
}

const char* Base64Coder::EncodedBuffer(uint64_t* length) const {
    if (length) *length = m_encoded.size() - 1;
    return m_encoded.data();
}

kv_result Base64Coder::DecodeW(const wchar_t* text) {
    if (!text) {
        m_decoded.clear();
        return KV_ERR_INVALID_ARG;
    }
    return DecodeInto(m_decoded, text, std::wcslen(text));
}

kv_result Base64Coder::DecodeA(const unsigned char* text, unsigned length) {
    if (!text && length) {
        m_decoded.clear();
        return KV_ERR_INVALID_ARG;
    }
    return DecodeInto(m_decoded, text, length);
}

kv_result Base64Coder::DecodeA(const CKvStringA& text) {
    return DecodeInto(m_decoded, reinterpret_cast<const unsigned char*>(text.c_str()), text.Size());
}

const uint8_t* Base64Coder::DecodedBuffer(uint64_t* length) const {
    if (length) *length = m_decoded.size();
    return m_decoded.empty() ? nullptr : m_decoded.data();
}

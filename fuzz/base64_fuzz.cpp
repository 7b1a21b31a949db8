// Decodes arbitrary bytes as Base64 text, narrow and widened, and checks that
// encoding the input and decoding the text gives the input back.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "gnr_system/Base64Coder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Base64Coder coder;
    uint64_t length = 0;

    const kv_result narrowResult = coder.DecodeA(data, static_cast<unsigned>(size));
    const uint8_t* decoded = coder.DecodedBuffer(&length);
    if (length > size / 4 * 3 + 2 || (length && !decoded)) std::abort();
    const std::vector<uint8_t> narrow(decoded, decoded + length);

    // Widened bytes decode like the bytes, up to the first zero, which ends
    // the wide text.
    std::vector<wchar_t> wide(size + 1, L'\0');
    for (size_t i = 0; i < size; ++i) wide[i] = static_cast<wchar_t>(data[i]);
    const kv_result wideResult = coder.DecodeW(wide.data());
    decoded = coder.DecodedBuffer(&length);
    if (!std::memchr(data, 0, size)) {
        if (wideResult != narrowResult || length != narrow.size()) std::abort();
        if (length && std::memcmp(decoded, narrow.data(), length) != 0) std::abort();
    }
    // Characters beyond one byte are invalid: decoding stops at index 6 at the latest.
    for (size_t i = 6; i < size; i += 7) wide[i] |= 0x100;
    coder.DecodeW(wide.data());
    coder.DecodedBuffer(&length);
    if (length > 4) std::abort();

    if (coder.Encode(data, size) != KV_OK) std::abort();
    const char* text = coder.EncodedBuffer(&length);
    if (length != (size + 2) / 3 * 4 || std::strlen(text) != length) std::abort();
    if (coder.DecodeA(reinterpret_cast<const unsigned char*>(text), static_cast<unsigned>(length)) != KV_OK)
        std::abort();
    decoded = coder.DecodedBuffer(&length);
    if (length != size || (size && std::memcmp(decoded, data, size) != 0)) std::abort();
    return 0;
}

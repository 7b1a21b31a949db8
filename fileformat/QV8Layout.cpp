// Chunk names of a QV8 file: built for writing and looking up, parsed when
// the map is searched; and the zlib level of a compression setting.
#include "fileformat/QV8Layout.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <string>

int KvQV8ZlibLevel(double compressionParam) {
    if (std::isnan(compressionParam) || compressionParam < kMinZlibLevel) return kDefaultZlibLevel;
    if (compressionParam > kMaxZlibLevel) return kMaxZlibLevel;
    return static_cast<int>(compressionParam);
}

SKvFrameChunkName::SKvFrameChunkName(uint32_t index) {
    std::memcpy(text, kFrameChunkPrefix.data(), kFrameChunkPrefix.size());
    char* end = std::to_chars(text + kFrameChunkPrefix.size(), text + sizeof text - 2, index).ptr;
    end[0] = '!';
    end[1] = '\0';
}

CKvStringA KvQV8ChunkName(const char* pattern, uint32_t index) {
    CKvStringA name;
    name.Format(pattern, index);
    return name;
}

CKvStringA KvQV8CustomChunkName(const char* pattern, const wchar_t* name, uint32_t index) {
    // The name is put in by hand rather than by printf, whose wide conversion
    // depends on the locale; the index is searched for after the name, whose
    // own '%' must stay as it is.
    std::string result(pattern);
    const size_t at = result.find("%ls");
    const std::string utf8 = CKvStringUtils::WtoUTF8(name).Std();
    result.replace(at, 3, utf8);
    const size_t indexAt = result.find("%u", at + utf8.size());
    if (indexAt != std::string::npos) result.replace(indexAt, 2, std::to_string(index));
    return CKvStringA(result.c_str());
}

bool KvQV8ParseIndexedName(std::string_view name, std::string_view prefix, uint32_t& index) {
    if (name.size() < prefix.size() + 2 || name.substr(0, prefix.size()) != prefix || name.back() != '!') return false;
    const std::string_view digits = name.substr(prefix.size(), name.size() - prefix.size() - 1);
    if (digits.size() > 10 || (digits.size() > 1 && digits[0] == '0')) return false;
    uint64_t value = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<uint64_t>(c - '0');
    }
    if (value > UINT32_MAX) return false;
    index = static_cast<uint32_t>(value);
    return true;
}

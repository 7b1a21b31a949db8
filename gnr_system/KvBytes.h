// Little-endian encoding and decoding, and a cursor over a byte range that
// refuses to read past its end. Every parser of the library reads through it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace kvbytes {

template <typename T>
inline T LoadLE(const void* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    if constexpr (sizeof(T) == 2) v = static_cast<T>(__builtin_bswap16(static_cast<uint16_t>(v)));
    if constexpr (sizeof(T) == 4) v = static_cast<T>(__builtin_bswap32(static_cast<uint32_t>(v)));
    if constexpr (sizeof(T) == 8) v = static_cast<T>(__builtin_bswap64(static_cast<uint64_t>(v)));
#endif
    return v;
}

template <typename T>
inline void StoreLE(void* p, T v) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    if constexpr (sizeof(T) == 2) v = static_cast<T>(__builtin_bswap16(static_cast<uint16_t>(v)));
    if constexpr (sizeof(T) == 4) v = static_cast<T>(__builtin_bswap32(static_cast<uint32_t>(v)));
    if constexpr (sizeof(T) == 8) v = static_cast<T>(__builtin_bswap64(static_cast<uint64_t>(v)));
#endif
    std::memcpy(p, &v, sizeof v);
}

inline uint16_t LoadU16(const void* p) { return LoadLE<uint16_t>(p); }
inline uint32_t LoadU32(const void* p) { return LoadLE<uint32_t>(p); }
inline uint64_t LoadU64(const void* p) { return LoadLE<uint64_t>(p); }
inline double LoadF64(const void* p) {
    uint64_t bits = LoadU64(p);
    double d;
    std::memcpy(&d, &bits, sizeof d);
    return d;
}
inline void StoreU16(void* p, uint16_t v) { StoreLE(p, v); }
inline void StoreU32(void* p, uint32_t v) { StoreLE(p, v); }
inline void StoreU64(void* p, uint64_t v) { StoreLE(p, v); }
inline void StoreF64(void* p, double d) {
    uint64_t bits;
    std::memcpy(&bits, &d, sizeof bits);
    StoreU64(p, bits);
}
// Big-endian, for the few formats that store integers that way (zlib's checksum).
inline void StoreU32BE(void* p, uint32_t v) {
    const uint8_t bytes[4] = {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16),
                              static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
    std::memcpy(p, bytes, sizeof bytes);
}

}  // namespace kvbytes

// A read position over [data, data + size). Every read checks that the bytes
// are there first; a failed read leaves the position where it was.
class CKvByteCursor {
public:
    CKvByteCursor(const void* data, size_t size)
        : m_pData(static_cast<const uint8_t*>(data)), m_nSize(data ? size : 0) {}

    size_t Position() const { return m_nPos; }
    size_t Size() const { return m_nSize; }
    size_t Remaining() const { return m_nSize - m_nPos; }
    bool AtEnd() const { return m_nPos == m_nSize; }
    const uint8_t* Current() const { return m_pData + m_nPos; }

    bool Seek(size_t pos) {
        if (pos > m_nSize) return false;
        m_nPos = pos;
        return true;
    }
    bool Skip(size_t n) {
        if (n > Remaining()) return false;
        m_nPos += n;
        return true;
    }
    bool ReadU8(uint8_t& v) {
        if (Remaining() < 1) return false;
        v = m_pData[m_nPos++];
        return true;
    }
    bool ReadU16(uint16_t& v) { return ReadLE(v); }
    bool ReadU32(uint32_t& v) { return ReadLE(v); }
    bool ReadU64(uint64_t& v) { return ReadLE(v); }
    bool ReadI32(int32_t& v) { return ReadLE(v); }
    bool ReadI64(int64_t& v) { return ReadLE(v); }
    bool ReadF64(double& v) {
        if (Remaining() < 8) return false;
        v = kvbytes::LoadF64(Current());
        m_nPos += 8;
        return true;
    }
    bool ReadBytes(void* out, size_t n) {
        if (n > Remaining()) return false;
        if (n) std::memcpy(out, Current(), n);
        m_nPos += n;
        return true;
    }
    // Points `out` at the next n bytes without copying them.
    bool ReadView(const uint8_t*& out, size_t n) {
        if (n > Remaining()) return false;
        out = Current();
        m_nPos += n;
        return true;
    }
    // Offset of the next occurrence of `byte` at or after the position,
    // searching at most `limit` bytes; Remaining() when it is not there.
    size_t FindByte(uint8_t byte, size_t limit) const {
        size_t n = Remaining() < limit ? Remaining() : limit;
        const void* hit = n ? std::memchr(Current(), byte, n) : nullptr;
        return hit ? static_cast<size_t>(static_cast<const uint8_t*>(hit) - Current()) : Remaining();
    }

private:
    template <typename T>
    bool ReadLE(T& v) {
        if (Remaining() < sizeof(T)) return false;
        v = kvbytes::LoadLE<T>(Current());
        m_nPos += sizeof(T);
        return true;
    }

    const uint8_t* m_pData;
    size_t m_nSize;
    size_t m_nPos = 0;
};

// Lite-variant writer and reader. The reader trusts nothing in the buffer:
// every offset, count and length is checked against the buffer and the
// enclosing level before it is used.
#include "gnr_system/CKvLiteVariant.h"

#include "gnr_system/CKvSerializerXMLString.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <string>

#include "gnr_system/CKvAlloc.h"
#include "gnr_system/CKvVariant.h"
#include "gnr_system/KvBytes.h"

namespace {

// A name in stored form held in its own storage.
struct SNameBuffer {
    uint8_t bytes[(kLvMaxNameUnits + 1) * 2];
    SKvLvName name;
};

void PutUnit(SNameBuffer& out, uint32_t& n, uint16_t unit) { kvbytes::StoreU16(out.bytes + 2 * n++, unit); }

// UTF-16 of `name` cut to 254 units, plus the terminator; an empty or null
// name stays without units (length 0).
void EncodeName(const wchar_t* name, SNameBuffer& out) {
    uint32_t n = 0;
    for (const wchar_t* p = name; p && *p; ++p) {
        uint32_t c = static_cast<uint32_t>(*p);
        if (c > 0x10FFFF) c = 0xFFFD;
        if (c >= 0x10000) {
            if (n + 2 > kLvMaxNameUnits) break;
            c -= 0x10000;
            PutUnit(out, n, static_cast<uint16_t>(0xD800 + (c >> 10)));
            PutUnit(out, n, static_cast<uint16_t>(0xDC00 + (c & 0x3FF)));
        } else {
            if (n + 1 > kLvMaxNameUnits) break;
            PutUnit(out, n, static_cast<uint16_t>(c));
        }
    }
    out.name.units = out.bytes;
    out.name.length = 0;
    if (n) {
        PutUnit(out, n, 0);
        out.name.length = static_cast<uint8_t>(n);
    }
}

// Index order: unit by unit over the shorter name, then the shorter first.
int CompareNames(const SKvLvName& a, const SKvLvName& b) {
    const uint32_t n = std::min(a.length, b.length);
    for (uint32_t i = 0; i < n; ++i) {
        const uint16_t ua = kvbytes::LoadU16(a.units + 2 * i);
        const uint16_t ub = kvbytes::LoadU16(b.units + 2 * i);
        if (ua != ub) return ua < ub ? -1 : 1;
    }
    return a.length == b.length ? 0 : (a.length < b.length ? -1 : 1);
}

// Width of the value of a fixed-size type; 0 for the others.
uint64_t FixedWidth(uint8_t type) {
    switch (type) {
        case eLvBool: return 1;
        case eLvInt32: case eLvUInt32: return 4;
        case eLvInt64: case eLvUInt64: case eLvDouble: case eLvPointer: return 8;
        default: return 0;
    }
}

// Signed and unsigned integers of one width are read as each other.
bool TypeFits(uint8_t stored, uint8_t requested) {
    if (stored == requested) return true;
    const auto pair = [](uint8_t a, uint8_t b, uint8_t x, uint8_t y) { return (a == x && b == y) || (a == y && b == x); };
    return pair(stored, requested, eLvInt32, eLvUInt32) || pair(stored, requested, eLvInt64, eLvUInt64);
}

CKvStringW NameToString(const SKvLvName& name) {
    std::u16string units;
    for (uint32_t i = 0; i + 1 < name.length; ++i) units.push_back(kvbytes::LoadU16(name.units + 2 * i));
    return GetSysWideStringFromZEMString(units.data(), units.size());
}

}  // namespace

// ---------------------------------------------------------------- writer

CKvLiteVariantW::~CKvLiteVariantW() { FreeBuffer(); }

void CKvLiteVariantW::FreeBuffer() {
    CKvAlloc::Free(m_pBuffer);
    m_pBuffer = nullptr;
    m_nCapacity = m_nUsed = 0;
}

kv_result CKvLiteVariantW::Reserve(uint64_t bytes) {
    if (bytes > UINT64_MAX - m_nUsed) return KV_ERR_OUT_OF_MEMORY;
    const uint64_t needed = m_nUsed + bytes;
    if (needed <= m_nCapacity) return KV_OK;
    uint64_t capacity = m_nCapacity ? m_nCapacity : kLvInitialBufferSize;
    while (capacity < needed) {
        if (capacity > UINT64_MAX / 2) return KV_ERR_OUT_OF_MEMORY;
        capacity *= 2;
    }
    void* grown = CKvAlloc::ReAlloc(m_pBuffer, capacity, 0);
    if (!grown) return KV_ERR_OUT_OF_MEMORY;
    m_pBuffer = static_cast<uint8_t*>(grown);
    m_nCapacity = capacity;
    return KV_OK;
}

void CKvLiteVariantW::RecordChild() {
    if (m_aLevels.empty()) return;
    SLevel& level = m_aLevels.back();
    if (level.children.size() == level.children.capacity())
        level.children.reserve(level.children.capacity() + kLvChildArrayStep);
    level.children.push_back(m_nUsed - level.start);
}

void CKvLiteVariantW::WriteHeader(uint8_t type, const SKvLvName& name) {
    m_pBuffer[m_nUsed++] = type;
    m_pBuffer[m_nUsed++] = name.length;
    if (name.length) std::memcpy(m_pBuffer + m_nUsed, name.units, 2u * name.length);
    m_nUsed += 2u * name.length;
}

kv_result CKvLiteVariantW::WriteItem(uint8_t type, const SKvLvName& name, const void* data, uint64_t size) {
    const uint64_t prefix = type == eLvByteArray ? 8 : 0;
    if (size > UINT64_MAX - 1024) return KV_ERR_OUT_OF_MEMORY;
    return KvNoThrow([&]() -> kv_result {
        kv_result r = Reserve(kLvItemHeaderSize + 2u * name.length + prefix + size);
        if (r != KV_OK) return r;
        RecordChild();
        WriteHeader(type, name);
        if (prefix) {
            kvbytes::StoreU64(m_pBuffer + m_nUsed, size);
            m_nUsed += prefix;
        }
        if (size) std::memcpy(m_pBuffer + m_nUsed, data, static_cast<size_t>(size));
        m_nUsed += size;
        return KV_OK;
    });
}

kv_result CKvLiteVariantW::Write(uint8_t type, const wchar_t* name, const void* data, uint64_t size) {
    if (type < eLvBool || type > eLvByteArray || (size && !data)) return KV_ERR_FAILED;
    const uint64_t width = FixedWidth(type);
    if (width && size != width) return KV_ERR_FAILED;
    if (type == eLvString &&
        (size < 2 || size % 2 || kvbytes::LoadU16(static_cast<const uint8_t*>(data) + size - 2) != 0))
        return KV_ERR_FAILED;
    SNameBuffer stored;
    EncodeName(name, stored);
    return WriteItem(type, stored.name, data, size);
}

kv_result CKvLiteVariantW::Set(bool value, const wchar_t* name) {
    const uint8_t byte = value ? 1 : 0;
    return Write(eLvBool, name, &byte, 1);
}

namespace {

template <typename T>
kv_result SetInteger(CKvLiteVariantW& writer, uint8_t type, T value, const wchar_t* name) {
    uint8_t bytes[sizeof(T)];
    kvbytes::StoreLE(bytes, value);
    return writer.Write(type, name, bytes, sizeof bytes);
}

}  // namespace

kv_result CKvLiteVariantW::Set(int32_t value, const wchar_t* name) { return SetInteger(*this, eLvInt32, value, name); }
kv_result CKvLiteVariantW::Set(uint32_t value, const wchar_t* name) { return SetInteger(*this, eLvUInt32, value, name); }
kv_result CKvLiteVariantW::Set(int64_t value, const wchar_t* name) { return SetInteger(*this, eLvInt64, value, name); }
kv_result CKvLiteVariantW::Set(uint64_t value, const wchar_t* name) { return SetInteger(*this, eLvUInt64, value, name); }

kv_result CKvLiteVariantW::Set(double value, const wchar_t* name) {
    uint8_t bytes[8];
    kvbytes::StoreF64(bytes, value);
    return Write(eLvDouble, name, bytes, 8);
}

kv_result CKvLiteVariantW::Set(const void* value, const wchar_t* name) {
    return SetInteger(*this, eLvPointer, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(value)), name);
}

kv_result CKvLiteVariantW::Set(const wchar_t* value, const wchar_t* name) {
    if (!value) return KV_ERR_FAILED;
    return KvNoThrow([&]() -> kv_result {
        const std::u16string units = GetZEMWideStringFromSysString(value);
        std::string bytes((units.size() + 1) * 2, '\0');
        for (size_t i = 0; i < units.size(); ++i) kvbytes::StoreU16(&bytes[2 * i], units[i]);
        return Write(eLvString, name, bytes.data(), bytes.size());
    });
}

kv_result CKvLiteVariantW::Set(const CKvByteArray& value, const wchar_t* name) {
    return Write(eLvByteArray, name, value.GetData(), value.GetSize());
}

kv_result CKvLiteVariantW::Set(const void* data, uint64_t size, const wchar_t* name) {
    return Write(eLvByteArray, name, data, size);
}

kv_result CKvLiteVariantW::BeginLevel(const SKvLvName& name) {
    if (m_aLevels.empty() && m_nUsed) return KV_ERR_FAILED;
    return KvNoThrow([&]() -> kv_result {
        kv_result r = Reserve(kLvItemHeaderSize + 2u * name.length + kLvLevelFieldsSize);
        if (r != KV_OK) return r;
        if (m_aLevels.size() == m_aLevels.capacity())
            m_aLevels.reserve((m_aLevels.size() / kLvLevelStackStep + 1) * kLvLevelStackStep);
        SLevel level;
        level.children.reserve(kLvChildArrayStep);
        level.start = m_nUsed;
        RecordChild();
        m_aLevels.push_back(std::move(level));
        WriteHeader(eLvLevel, name);
        std::memset(m_pBuffer + m_nUsed, 0, kLvLevelFieldsSize);  // count and index offset, set at LevelEnd
        m_nUsed += kLvLevelFieldsSize;
        return KV_OK;
    });
}

kv_result CKvLiteVariantW::LevelBegin(const wchar_t* name) {
    SNameBuffer stored;
    EncodeName(name, stored);
    return BeginLevel(stored.name);
}

int CKvLiteVariantW::CompareItems(const uint8_t* a, const uint8_t* b) {
    return CompareNames({a[1], a + kLvItemHeaderSize}, {b[1], b + kLvItemHeaderSize});
}

kv_result CKvLiteVariantW::LevelEnd() {
    if (m_aLevels.empty()) return KV_ERR_FAILED;
    SLevel& level = m_aLevels.back();
    const uint64_t count = level.children.size();
    kv_result r = Reserve(count * 8);
    if (r != KV_OK) return r;
    uint8_t* start = m_pBuffer + level.start;
    uint8_t* fields = start + kLvItemHeaderSize + 2u * start[1];
    kvbytes::StoreU32(fields, static_cast<uint32_t>(count));
    kvbytes::StoreU64(fields + 4, m_nUsed - level.start);
    std::sort(level.children.begin(), level.children.end(),
              [start](uint64_t x, uint64_t y) { return CompareItems(start + x, start + y) < 0; });
    for (uint64_t offset : level.children) {
        kvbytes::StoreU64(m_pBuffer + m_nUsed, offset);
        m_nUsed += 8;
    }
    m_aLevels.pop_back();
    if (m_aLevels.empty()) std::vector<SLevel>().swap(m_aLevels);
    return KV_OK;
}

kv_result CKvLiteVariantW::AppendBytes(const uint8_t* item, uint64_t size) {
    return KvNoThrow([&]() -> kv_result {
        kv_result r = Reserve(size);
        if (r != KV_OK) return r;
        RecordChild();
        std::memcpy(m_pBuffer + m_nUsed, item, static_cast<size_t>(size));
        m_nUsed += size;
        return KV_OK;
    });
}

kv_result CKvLiteVariantW::Append(const CKvLiteVariantR& reader) {
    const uint8_t* item = nullptr;
    uint64_t size = 0;
    kv_result r = reader.GetCurrentItem(item, size);
    if (r != KV_OK) return r;
    // A top-level level must stay the first item, like one opened here.
    if (m_aLevels.empty() && m_nUsed && item[0] == eLvLevel) return KV_ERR_FAILED;
    return AppendBytes(item, size);
}

kv_result CKvLiteVariantW::Append(CKvLiteVariantR& reader) {
    kv_result r = reader.PrepareCurrent();
    if (r != KV_OK) return r;
    return Append(static_cast<const CKvLiteVariantR&>(reader));
}

kv_result CKvLiteVariantW::Finalize(CKvLiteVariantR& out, int compress) {
    while (!m_aLevels.empty()) {
        kv_result r = LevelEnd();
        if (r != KV_OK) return r;
    }
    if (compress != 1 || !m_nUsed) {
        out.SetPointer(m_pBuffer, m_nUsed, m_nCapacity);
        m_pBuffer = nullptr;
        m_nCapacity = m_nUsed = 0;
        return KV_OK;
    }
    const uint64_t bound = std::max<uint64_t>(m_nUsed + m_nUsed / 5 + 24, compressBound(static_cast<uLong>(m_nUsed)));
    uint8_t* envelope = static_cast<uint8_t*>(CKvAlloc::Alloc(0, bound));
    if (!envelope) return KV_ERR_OUT_OF_MEMORY;
    std::memcpy(envelope, kLvEnvelopeMagic, sizeof kLvEnvelopeMagic);
    kvbytes::StoreU64(envelope + 4, m_nUsed);
    uLongf packed = static_cast<uLongf>(bound - kLvEnvelopeHeaderSize);
    if (compress2(envelope + kLvEnvelopeHeaderSize, &packed, m_pBuffer, static_cast<uLong>(m_nUsed),
                  kLvCompressionLevel) != Z_OK) {
        CKvAlloc::Free(envelope);
        return KV_ERR_FAILED;
    }
    out.SetPointer(envelope, packed + kLvEnvelopeHeaderSize, bound);
    FreeBuffer();
    return KV_OK;
}

// ---------------------------------------------------------------- reader

CKvLiteVariantR::CKvLiteVariantR(const CKvLiteVariantR& other)
    : CKvByteArray(other), m_aLevels(other.m_aLevels), m_bEnvelopeTried(other.m_bEnvelopeTried) {}

CKvLiteVariantR& CKvLiteVariantR::operator=(const CKvLiteVariantR& other) {
    if (this == &other) return *this;
    CKvByteArray::operator=(other);
    if (GetSize() != other.GetSize()) {  // the copy failed: keep a consistent empty reader
        Clear();
        return *this;
    }
    m_aLevels = other.m_aLevels;
    m_bEnvelopeTried = other.m_bEnvelopeTried;
    return *this;
}

void CKvLiteVariantR::SetPointer(void* data, uint64_t size, uint64_t capacity) {
    if (data != m_pData) CKvAlloc::Free(m_pData);
    m_pData = static_cast<uint8_t*>(data);
    m_nSize = data ? size : 0;
    m_nAllocated = data ? std::max(size, capacity) : 0;
    m_bEnvelopeTried = false;
    Reset();
}

void CKvLiteVariantR::Reset() {
    m_nCurrentOffset = 0;
    m_aLevels.clear();
}

void CKvLiteVariantR::Clear() {
    FreeData();
    std::vector<SLevel>().swap(m_aLevels);
    m_bEnvelopeTried = false;
}

void CKvLiteVariantR::Adopt(CKvLiteVariantR& other) {
    CKvByteArray::Swap(static_cast<CKvByteArray&>(other));
    other.Clear();
    m_bEnvelopeTried = false;
    Reset();
}

kv_result CKvLiteVariantR::Decompress() {
    if (m_bEnvelopeTried || m_nSize < kLvMinEnvelopeSize ||
        std::memcmp(m_pData, kLvEnvelopeMagic, sizeof kLvEnvelopeMagic) != 0)
        return KV_OK;
    const uint64_t declared = kvbytes::LoadU64(m_pData + 4);
    if (declared == 0) return KV_OK;
    m_bEnvelopeTried = true;
    const uint64_t packed = m_nSize - kLvEnvelopeHeaderSize;
    if (declared / kLvMaxInflateRatio > packed || declared > static_cast<uLongf>(-1)) return KV_ERR_FAILED;
    uint8_t* plain = static_cast<uint8_t*>(CKvAlloc::Alloc(0, declared));
    if (!plain) return KV_ERR_OUT_OF_MEMORY;
    uLongf length = static_cast<uLongf>(declared);
    if (uncompress(plain, &length, m_pData + kLvEnvelopeHeaderSize, static_cast<uLong>(packed)) != Z_OK) {
        CKvAlloc::Free(plain);
        return KV_ERR_FAILED;
    }
    CKvAlloc::Free(m_pData);
    m_pData = plain;
    m_nSize = length;
    m_nAllocated = declared;
    Reset();
    return KV_OK;
}

kv_result CKvLiteVariantR::PrepareCurrent() {
    const uint64_t pos = m_nCurrentOffset;
    if (pos < m_nSize && m_pData[pos] == kLvEnvelopeMagic[0]) {
        kv_result r = Decompress();
        if (r != KV_OK) return r;
    }
    if (m_nCurrentOffset < m_nSize && m_pData[m_nCurrentOffset] == eLvLevelOld) ConvertLV31toLV32();
    return KV_OK;
}

uint64_t CKvLiteVariantR::Limit() const { return m_aLevels.empty() ? m_nSize : m_aLevels.back().childrenEnd; }

bool CKvLiteVariantR::ParseName(uint64_t pos, uint64_t limit, SKvLvName& name) const {
    CKvByteCursor cursor(m_pData, static_cast<size_t>(std::min(limit, m_nSize)));
    uint8_t type = 0;
    if (!cursor.Seek(pos) || !cursor.ReadU8(type) || !cursor.ReadU8(name.length)) return false;
    return cursor.ReadView(name.units, 2u * name.length);
}

bool CKvLiteVariantR::ParseItem(uint64_t pos, uint64_t limit, SItem& item) const {
    CKvByteCursor cursor(m_pData, static_cast<size_t>(std::min(limit, m_nSize)));
    item = SItem();
    item.start = pos;
    if (!cursor.Seek(pos) || !cursor.ReadU8(item.type) || !cursor.ReadU8(item.name.length) ||
        !cursor.ReadView(item.name.units, 2u * item.name.length))
        return false;
    item.value = cursor.Position();
    switch (item.type) {
        case eLvString: {
            uint16_t unit = 1;
            while (unit != 0)
                if (!cursor.ReadU16(unit)) return false;
            item.valueSize = cursor.Position() - item.value;
            break;
        }
        case eLvByteArray:
            if (!cursor.ReadU64(item.valueSize) || !cursor.Skip(item.valueSize)) return false;
            item.value = cursor.Position() - item.valueSize;
            break;
        case eLvLevel: {
            if (!cursor.ReadU32(item.count) || !cursor.ReadU64(item.indexOffset)) return false;
            const uint64_t header = cursor.Position() - pos;
            const uint64_t room = cursor.Size() - pos;
            if (item.indexOffset < header || item.indexOffset > room ||
                uint64_t{item.count} * 8 > room - item.indexOffset)
                return false;
            item.length = item.indexOffset + uint64_t{item.count} * 8;
            return true;
        }
        default: {
            const uint64_t width = FixedWidth(item.type);
            if (!width || !cursor.Skip(width)) return false;
            item.valueSize = width;
        }
    }
    item.length = cursor.Position() - pos;
    return true;
}

bool CKvLiteVariantR::ParseCurrent(SItem& item) {
    if (PrepareCurrent() != KV_OK) return false;
    return ParseItem(m_nCurrentOffset, Limit(), item);
}

kv_result CKvLiteVariantR::GetCurrentItem(const uint8_t*& data, uint64_t& size) const {
    SItem item;
    if (!ParseItem(m_nCurrentOffset, Limit(), item)) return KV_ERR_FAILED;
    data = m_pData + item.start;
    size = item.length;
    return KV_OK;
}

bool CKvLiteVariantR::IsNextValue() {
    if (m_nCurrentOffset > m_nSize || m_nSize - m_nCurrentOffset < 5) return false;
    if (PrepareCurrent() != KV_OK) return false;
    return m_nCurrentOffset < Limit();
}

kv_result CKvLiteVariantR::NextValue() {
    SItem item;
    if (!ParseCurrent(item)) return KV_ERR_FAILED;
    m_nCurrentOffset += item.length;
    return KV_OK;
}

uint8_t CKvLiteVariantR::GetCurrentType() {
    if (PrepareCurrent() != KV_OK || m_nCurrentOffset >= Limit()) return eLvNone;
    return m_pData[m_nCurrentOffset];
}

CKvStringW CKvLiteVariantR::GetCurrentName() {
    SKvLvName name;
    if (PrepareCurrent() != KV_OK || !ParseName(m_nCurrentOffset, Limit(), name)) return CKvStringW();
    return NameToString(name);
}

kv_result CKvLiteVariantR::GetCurrentName(wchar_t* buffer, uint32_t capacity) {
    if (!buffer || !capacity) return KV_ERR_INVALID_ARG;
    buffer[0] = 0;
    SKvLvName name;
    if (PrepareCurrent() != KV_OK || !ParseName(m_nCurrentOffset, Limit(), name)) return KV_ERR_FAILED;
    return KvNoThrow([&]() -> kv_result {
        const CKvStringW text = NameToString(name);
        const size_t n = std::min<size_t>(text.Size(), capacity - 1);
        std::wmemcpy(buffer, text.GetString(), n);
        buffer[n] = 0;
        return KV_OK;
    });
}

kv_result CKvLiteVariantR::EnterLevelAt(uint64_t pos, uint32_t* count) {
    SItem item;
    if (!ParseItem(pos, Limit(), item) || item.type != eLvLevel) return KV_ERR_FAILED;
    if (GetLevelIndex() + 1 >= kLvMaxLevelDepth) return KV_ERR_FAILED;
    return KvNoThrow([&]() -> kv_result {
        if (m_aLevels.size() == m_aLevels.capacity())
            m_aLevels.reserve((m_aLevels.size() / kLvLevelStackStep + 1) * kLvLevelStackStep);
        SLevel level;
        level.start = pos;
        level.childrenBegin = pos + kLvItemHeaderSize + 2u * item.name.length + kLvLevelFieldsSize;
        level.childrenEnd = pos + item.indexOffset;
        level.count = item.count;
        m_aLevels.push_back(level);
        m_nCurrentOffset = level.childrenBegin;
        if (count) *count = item.count;
        return KV_OK;
    });
}

kv_result CKvLiteVariantR::CurrentLevelBegin(uint32_t* count) {
    if (!m_nSize) return KV_ERR_FAILED;
    kv_result r = PrepareCurrent();
    if (r != KV_OK) return r;
    return EnterLevelAt(m_nCurrentOffset, count);
}

kv_result CKvLiteVariantR::LevelBegin(const wchar_t* name, uint32_t* count) {
    uint64_t offset = 0;
    kv_result r = Find(name, offset);
    if (r != KV_OK) return r;
    const uint64_t saved = m_nCurrentOffset;
    m_nCurrentOffset = offset;
    r = CurrentLevelBegin(count);
    if (r != KV_OK) m_nCurrentOffset = saved;
    return r;
}

kv_result CKvLiteVariantR::LevelEnd() {
    if (m_aLevels.empty()) return KV_ERR_FAILED;
    m_nCurrentOffset = m_aLevels.back().start;
    m_aLevels.pop_back();
    return KV_OK;
}

kv_result CKvLiteVariantR::FindStored(const SKvLvName& name, uint64_t& offset, SItem* found) {
    if (PrepareCurrent() != KV_OK) return KV_ERR_FAILED;
    SKvLvName stored;
    SItem item;
    const uint64_t limit = Limit();
    if (m_nCurrentOffset < limit && ParseName(m_nCurrentOffset, limit, stored) && CompareNames(stored, name) == 0 &&
        ParseItem(m_nCurrentOffset, limit, item)) {
        offset = m_nCurrentOffset;
        if (found) *found = item;
        return KV_OK;
    }
    // Unnamed items are not looked up through the index: only by position.
    if (m_aLevels.empty() || !name.length) return KV_ERR_FAILED;
    const SLevel& level = m_aLevels.back();
    uint32_t low = 0, high = level.count;
    while (low < high) {
        const uint32_t mid = low + (high - low) / 2;
        const uint64_t entry = kvbytes::LoadU64(m_pData + level.childrenEnd + uint64_t{mid} * 8);
        if (entry < level.childrenBegin - level.start || entry >= level.childrenEnd - level.start) return KV_ERR_FAILED;
        const uint64_t child = level.start + entry;
        if (!ParseName(child, level.childrenEnd, stored)) return KV_ERR_FAILED;
        const int order = CompareNames(stored, name);
        if (order == 0) {
            if (!ParseItem(child, level.childrenEnd, item)) return KV_ERR_FAILED;
            offset = child;
            if (found) *found = item;
            return KV_OK;
        }
        if (order < 0)
            low = mid + 1;
        else
            high = mid;
    }
    return KV_ERR_FAILED;
}

kv_result CKvLiteVariantR::Find(const wchar_t* name, uint64_t& offset) { return Locate(name, offset, nullptr); }

kv_result CKvLiteVariantR::Locate(const wchar_t* name, uint64_t& offset, SItem* found) {
    if (name && name[0] == L'\\') {
        return KvNoThrow([&]() -> kv_result {
            Reset();
            const std::wstring path(name + 1);
            size_t begin = 0;
            for (size_t end = path.find(L'\\'); end != std::wstring::npos; end = path.find(L'\\', begin)) {
                if (LevelBegin(path.substr(begin, end - begin).c_str()) != KV_OK) return KV_ERR_FAILED;
                begin = end + 1;
            }
            return Locate(path.c_str() + begin, offset, found);
        });
    }
    SNameBuffer stored;
    EncodeName(name, stored);
    return FindStored(stored.name, offset, found);
}

bool CKvLiteVariantR::IsValueSet(const wchar_t* name) {
    uint64_t offset = 0;
    return Find(name, offset) == KV_OK;
}

kv_result CKvLiteVariantR::FindItem(const wchar_t* name, SItem& item) {
    uint64_t offset = 0;
    return Locate(name, offset, &item);
}

kv_result CKvLiteVariantR::FindValue(uint8_t type, const wchar_t* name, SItem& item) {
    kv_result r = FindItem(name, item);
    if (r == KV_OK && !TypeFits(item.type, type)) r = KV_ERR_FAILED;
    return r;
}

kv_result CKvLiteVariantR::ReadFixed(const SItem& item, uint8_t type, void* dest, uint64_t size) const {
    const uint64_t width = FixedWidth(type);
    if (!width || !dest || size != width || !TypeFits(item.type, type)) return KV_ERR_FAILED;
    const uint8_t* p = m_pData + item.value;
    if (width == 4) {
        const uint32_t v = kvbytes::LoadU32(p);
        std::memcpy(dest, &v, 4);
    } else if (width == 8) {
        const uint64_t v = kvbytes::LoadU64(p);
        std::memcpy(dest, &v, 8);
    } else {
        std::memcpy(dest, p, 1);
    }
    return KV_OK;
}

kv_result CKvLiteVariantR::Read(uint8_t type, const wchar_t* name, void* dest, uint64_t size) {
    SItem item;
    kv_result r = FindValue(type, name, item);
    if (r == KV_OK) r = ReadFixed(item, type, dest, size);
    if (r == KV_OK) m_nCurrentOffset = item.start + item.length;
    return r;
}

template <typename T>
T CKvLiteVariantR::GetFixed(const wchar_t* name, uint8_t type, T def) {
    T value;
    return Read(type, name, &value, sizeof value) == KV_OK ? value : def;
}

template <typename T>
T CKvLiteVariantR::GetCurrentFixed(uint8_t type, T def) {
    SItem item;
    T value;
    if (!ParseCurrent(item) || ReadFixed(item, type, &value, sizeof value) != KV_OK) return def;
    return value;
}

bool CKvLiteVariantR::Get(const wchar_t* name, bool def) { return GetFixed<uint8_t>(name, eLvBool, def) != 0; }
int32_t CKvLiteVariantR::Get(const wchar_t* name, int32_t def) { return GetFixed(name, eLvInt32, def); }
uint32_t CKvLiteVariantR::Get(const wchar_t* name, uint32_t def) { return GetFixed(name, eLvUInt32, def); }
int64_t CKvLiteVariantR::Get(const wchar_t* name, int64_t def) { return GetFixed(name, eLvInt64, def); }
uint64_t CKvLiteVariantR::Get(const wchar_t* name, uint64_t def) { return GetFixed(name, eLvUInt64, def); }
double CKvLiteVariantR::Get(const wchar_t* name, double def) { return GetFixed(name, eLvDouble, def); }
void* CKvLiteVariantR::Get(const wchar_t* name, void* def) {
    return reinterpret_cast<void*>(
        static_cast<uintptr_t>(GetFixed<uint64_t>(name, eLvPointer, reinterpret_cast<uintptr_t>(def))));
}

bool CKvLiteVariantR::GetCurrentValue(bool def) { return GetCurrentFixed<uint8_t>(eLvBool, def) != 0; }
int32_t CKvLiteVariantR::GetCurrentValue(int32_t def) { return GetCurrentFixed(eLvInt32, def); }
uint32_t CKvLiteVariantR::GetCurrentValue(uint32_t def) { return GetCurrentFixed(eLvUInt32, def); }
int64_t CKvLiteVariantR::GetCurrentValue(int64_t def) { return GetCurrentFixed(eLvInt64, def); }
uint64_t CKvLiteVariantR::GetCurrentValue(uint64_t def) { return GetCurrentFixed(eLvUInt64, def); }
double CKvLiteVariantR::GetCurrentValue(double def) { return GetCurrentFixed(eLvDouble, def); }
void* CKvLiteVariantR::GetCurrentValue(void* def) {
    return reinterpret_cast<void*>(
        static_cast<uintptr_t>(GetCurrentFixed<uint64_t>(eLvPointer, reinterpret_cast<uintptr_t>(def))));
}

namespace {

CKvStringW StringOfUnits(const uint8_t* units, uint64_t size) {
    std::u16string text;
    for (uint64_t i = 0; i + 2 < size; i += 2) text.push_back(kvbytes::LoadU16(units + i));
    return GetSysWideStringFromZEMString(text.data(), text.size());
}

}  // namespace

CKvStringW CKvLiteVariantR::Get(const wchar_t* name, const wchar_t* def) {
    CKvStringW result;
    GetCKvStringW(result, name, def);
    return result;
}

kv_result CKvLiteVariantR::GetCKvStringW(CKvStringW& result, const wchar_t* name, const wchar_t* def) {
    return KvNoThrow([&]() -> kv_result {
        SItem item;
        kv_result r = FindValue(eLvString, name, item);
        if (r != KV_OK) {
            result = def;
            return r;
        }
        result = StringOfUnits(m_pData + item.value, item.valueSize);
        m_nCurrentOffset = item.start + item.length;
        return KV_OK;
    });
}

kv_result CKvLiteVariantR::GetCurrentValue(CKvStringW& result, const wchar_t* def) {
    return KvNoThrow([&]() -> kv_result {
        SItem item;
        if (!ParseCurrent(item) || item.type != eLvString) {
            result = def;
            return KV_ERR_FAILED;
        }
        result = StringOfUnits(m_pData + item.value, item.valueSize);
        return KV_OK;
    });
}

const uint8_t* CKvLiteVariantR::Get(const wchar_t* name, uint64_t* size) {
    SItem item;
    if (FindValue(eLvByteArray, name, item) != KV_OK) return nullptr;
    m_nCurrentOffset = item.start + item.length;
    if (size) *size = item.valueSize;
    return m_pData + item.value;
}

kv_result CKvLiteVariantR::Get(const wchar_t* name, void* dest, uint64_t size) {
    if (!dest && size) return KV_ERR_INVALID_ARG;
    uint64_t stored = 0;
    const uint8_t* bytes = Get(name, &stored);
    if (!bytes) return KV_ERR_FAILED;
    const uint64_t n = std::min(stored, size);
    if (n) std::memcpy(dest, bytes, static_cast<size_t>(n));
    return KV_OK;
}

kv_result CKvLiteVariantR::Get(const wchar_t* name, CKvByteArray& value) {
    uint64_t size = 0;
    const uint8_t* bytes = Get(name, &size);
    if (!bytes) return KV_ERR_FAILED;
    if (!size) {
        value.SetSize(0);
        return KV_OK;
    }
    return value.SetData(bytes, size);
}

kv_result CKvLiteVariantR::GetCurrentValue(CKvByteArray& value) {
    SItem item;
    if (!ParseCurrent(item) || item.type != eLvByteArray) return KV_ERR_FAILED;
    if (!item.valueSize) return value.SetSize(0);
    return value.SetData(m_pData + item.value, item.valueSize);
}

// ---------------------------------------------------------------- variant trees

namespace {

// Writes `data` as one item when it is of the scalar class `Data`.
template <typename Data>
bool SetIfOfClass(CKvLiteVariantW& writer, const CKvVariantData& data, const wchar_t* name, kv_result& result) {
    const auto* node = dynamic_cast<const Data*>(&data);
    if (node) result = writer.Set(node->Value(), name);
    return node != nullptr;
}

// Writes `data` as one item of its type when it is one of the nine scalar
// kinds; false when it is none of them.
bool SetScalar(CKvLiteVariantW& writer, const CKvVariantData& data, const wchar_t* name, kv_result& result) {
    return SetIfOfClass<CKvVariantDataBool>(writer, data, name, result) ||
           SetIfOfClass<CKvVariantDataKv_int32>(writer, data, name, result) ||
           SetIfOfClass<CKvVariantDataKv_uint32>(writer, data, name, result) ||
           SetIfOfClass<CKvVariantDataKv_int64>(writer, data, name, result) ||
           SetIfOfClass<CKvVariantDataKv_uint64>(writer, data, name, result) ||
           SetIfOfClass<CKvVariantDataDouble>(writer, data, name, result) ||
           SetIfOfClass<CKvVariantDataVoidPtr>(writer, data, name, result) ||
           SetIfOfClass<CKvVariantDataCKvByteArray>(writer, data, name, result) ||
           SetIfOfClass<CKvVariantDataCKvStringW>(writer, data, name, result);
}

// A list whose first element is a string named like the run-type item would
// lose that element to it when read back, unless its run type is written too.
bool StartsLikeRunTypeItem(const CKvVariant& list) {
    const CKvVariant* first = list.IndexPtr(0);
    return first && dynamic_cast<const CKvVariantDataCKvStringW*>(first->GetData()) &&
           first->GetName().Compare(kLvRunTypeItemName) == 0;
}

// Whether a stored name spells `text` (characters below U+10000), terminator included.
bool NameEquals(const SKvLvName& name, const wchar_t* text) {
    const size_t length = std::wcslen(text);
    if (name.length != length + 1 || kvbytes::LoadU16(name.units + 2 * length) != 0) return false;
    for (size_t i = 0; i < length; ++i)
        if (kvbytes::LoadU16(name.units + 2 * i) != static_cast<uint16_t>(text[i])) return false;
    return true;
}

}  // namespace

kv_result CKvLiteVariantW::Set(const CKvVariant& value, const wchar_t* name) {
    const uint64_t used = m_nUsed;
    const size_t levels = m_aLevels.size();
    const size_t children = levels ? m_aLevels.back().children.size() : 0;
    const kv_result result =
        KvNoThrow([&] { return WriteVariant(value, name ? name : value.GetName().GetString()); });
    if (result != KV_OK) Truncate(used, levels, children);
    return result;
}

void CKvLiteVariantW::Truncate(uint64_t used, size_t levels, size_t children) {
    m_aLevels.resize(levels);
    if (levels) m_aLevels.back().children.resize(children);
    m_nUsed = used;
}

kv_result CKvLiteVariantW::WriteVariant(const CKvVariant& value, const wchar_t* name) {
    if (value.GetCount() >= 0) return WriteList(value, name);
    kv_result result = KV_OK;
    if (value.GetData() && SetScalar(*this, *value.GetData(), name, result)) return result;
    // A null node or a kind without an item type keeps only its name.
    if (!name || !*name) return KV_OK;
    result = LevelBegin(name);
    return result == KV_OK ? LevelEnd() : result;
}

kv_result CKvLiteVariantW::WriteList(const CKvVariant& list, const wchar_t* name) {
    if (GetLevelIndex() + 1 >= kLvMaxLevelDepth) return KV_ERR_FAILED;
    kv_result result = LevelBegin(name);
    if (result != KV_OK) return result;
    const CKvVariantRunType runType = list.GetRunType();
    if (runType != CKvVariantRunType(CKvVariantDataCKvListVariant::m_runTypeOrig) || StartsLikeRunTypeItem(list))
        result = Set(CKvStringW(runType.GetName()), kLvRunTypeItemName);
    for (int i = 0; result == KV_OK && i < list.GetCount(); ++i) {
        const CKvVariant& element = list[i];
        result = WriteVariant(element, element.GetName().GetString());
    }
    return result == KV_OK ? LevelEnd() : result;
}

kv_result CKvLiteVariantR::GetCurrentValue(CKvVariant& value) {
    SItem item;
    if (!ParseCurrent(item)) return KV_ERR_FAILED;
    return ReadVariant(item, value);
}

kv_result CKvLiteVariantR::Get(const wchar_t* name, CKvVariant& value) {
    SItem item;
    kv_result result = FindItem(name, item);
    if (result != KV_OK) return result;
    const uint64_t position = m_nCurrentOffset;
    m_nCurrentOffset = item.start;
    result = ReadVariant(item, value);
    m_nCurrentOffset = result == KV_OK ? item.start + item.length : position;
    return result;
}

kv_result CKvLiteVariantR::ReadVariant(const SItem& item, CKvVariant& value) {
    const bool typeChange = value.EnableTypeChange(true);
    const kv_result result = KvNoThrow([&] {
        value.MakeNull();
        return item.type == eLvLevel ? ReadLevel(item, value) : ReadScalar(item, value);
    });
    value.EnableTypeChange(typeChange);
    return result;
}

kv_result CKvLiteVariantR::ReadScalar(const SItem& item, CKvVariant& value) const {
    const uint8_t* bytes = m_pData + item.value;
    switch (item.type) {
        case eLvBool: value = bytes[0] != 0; break;
        case eLvInt32: value = static_cast<kv_int32>(kvbytes::LoadU32(bytes)); break;
        case eLvUInt32: value = kv_uint32{kvbytes::LoadU32(bytes)}; break;
        case eLvInt64: value = static_cast<kv_int64>(kvbytes::LoadU64(bytes)); break;
        case eLvUInt64: value = kv_uint64{kvbytes::LoadU64(bytes)}; break;
        case eLvDouble: value = kvbytes::LoadF64(bytes); break;
        case eLvPointer: value = reinterpret_cast<void*>(static_cast<uintptr_t>(kvbytes::LoadU64(bytes))); break;
        case eLvString: value = StringOfUnits(bytes, item.valueSize); break;
        case eLvByteArray: {
            // Filled in place: the bytes are copied once, not again by the assignment.
            value = CKvByteArray();
            auto* node = dynamic_cast<CKvVariantDataCKvByteArray*>(value.GetData());
            return item.valueSize ? node->Value().SetData(bytes, item.valueSize) : KV_OK;
        }
        default: return KV_ERR_FAILED;
    }
    return KV_OK;
}

kv_result CKvLiteVariantR::ReadLevel(const SItem& level, CKvVariant& value) {
    kv_result result = EnterLevelAt(level.start, nullptr);
    if (result != KV_OK) return result;
    result = KvNoThrow([&] { return ReadElements(value); });
    LevelEnd();  // back on the level's own item
    return result;
}

kv_result CKvLiteVariantR::ReadElements(CKvVariant& list) {
    list = CKvListVariant();  // an empty level is an empty list
    SItem item;
    CKvStringW runType;
    const bool structured = ParseCurrent(item) && item.type == eLvString && NameEquals(item.name, kLvRunTypeItemName);
    if (structured) {
        runType = StringOfUnits(m_pData + item.value, item.valueSize);
        m_nCurrentOffset = item.start + item.length;
    }
    for (; ParseCurrent(item); m_nCurrentOffset = item.start + item.length) {
        CKvVariant* element = list.Append(CKvVariant());
        if (!element) return KV_ERR_OUT_OF_MEMORY;
        element->SetName(NameToString(item.name));
        const kv_result result = ReadVariant(item, *element);
        if (result != KV_OK) list.Delete(static_cast<unsigned>(list.GetCount() - 1));
        if (result == KV_ERR_OUT_OF_MEMORY) return result;
    }
    // An unknown run type leaves a plain list (and the registry's diagnostic).
    if (structured) list.SetRunTypeCompatible(CKvVariantRunType(CKvStringA(runType)));
    return KV_OK;
}

// ---------------------------------------------------------------- old form

kv_result CKvLiteVariantR::ConvertLV31toLV32() {
    if (!m_nSize || m_pData[0] != eLvLevelOld) return KV_ERR_FAILED;
    return ConvertOldLevel(0, m_nSize, 0);
}

// Converts the code-10 level at `pos` and its code-10 descendants. Children
// are converted before their parent, and a level is rewritten only once all
// its offsets proved valid, so a failure leaves every level consistent.
kv_result CKvLiteVariantR::ConvertOldLevel(uint64_t pos, uint64_t limit, int32_t depth) {
    if (depth >= kLvMaxLevelDepth) return KV_ERR_FAILED;
    CKvByteCursor cursor(m_pData, static_cast<size_t>(limit));
    uint8_t type = 0, nameLength = 0;
    uint32_t count = 0;
    uint64_t index = 0;
    if (!cursor.Seek(pos) || !cursor.ReadU8(type) || type != eLvLevelOld || !cursor.ReadU8(nameLength) ||
        !cursor.Skip(2u * nameLength) || !cursor.ReadU32(count) || !cursor.ReadU64(index))
        return KV_ERR_FAILED;
    const uint64_t first = cursor.Position();
    if (index < first || index > limit || uint64_t{count} * 8 > limit - index) return KV_ERR_FAILED;
    for (uint64_t child = first; child < index;) {
        if (m_pData[child] == eLvLevelOld) {
            kv_result r = ConvertOldLevel(child, index, depth + 1);
            if (r != KV_OK) return r;
        }
        SItem item;
        if (!ParseItem(child, index, item)) return KV_ERR_FAILED;
        child += item.length;
    }
    uint8_t* table = m_pData + index;
    for (uint32_t i = 0; i < count; ++i) {
        const uint64_t entry = kvbytes::LoadU64(table + 8 * i);
        if (entry < first || entry >= index) return KV_ERR_FAILED;
    }
    for (uint32_t i = 0; i < count; ++i) kvbytes::StoreU64(table + 8 * i, kvbytes::LoadU64(table + 8 * i) - pos);
    kvbytes::StoreU64(m_pData + first - 8, index - pos);
    m_pData[pos] = eLvLevel;
    return KV_OK;
}

// ---------------------------------------------------------------- extraction

kv_result CKvLiteVariantR::CopyItem(const SItem& item, CKvLiteVariantR& out) const {
    uint8_t* copy = static_cast<uint8_t*>(CKvAlloc::Alloc(0, item.length));
    if (!copy) return KV_ERR_OUT_OF_MEMORY;
    std::memcpy(copy, m_pData + item.start, static_cast<size_t>(item.length));
    out.SetPointer(copy, item.length, item.length);
    return KV_OK;
}

kv_result CKvLiteVariantR::ExtractCurrent(CKvLiteVariantR& out) {
    SItem item;
    if (!ParseCurrent(item)) return KV_ERR_FAILED;
    return CopyItem(item, out);
}

kv_result CKvLiteVariantR::Extract(const wchar_t* name, CKvLiteVariantR& out) {
    SItem item;
    kv_result r = FindItem(name, item);
    return r == KV_OK ? CopyItem(item, out) : r;
}

// ---------------------------------------------------------------- merging

// Writes a level `name` holding the merge of a's level at `inA` and b's at `inB`.
kv_result CKvLiteVariantR::MergePair(CKvLiteVariantW& writer, CKvLiteVariantR& a, uint64_t inA, CKvLiteVariantR& b,
                                     uint64_t inB, const SKvLvName& name) {
    kv_result r = writer.BeginLevel(name);
    if (r != KV_OK) return r;
    r = a.EnterLevelAt(inA, nullptr);
    if (r == KV_OK) {
        r = b.EnterLevelAt(inB, nullptr);
        if (r == KV_OK) {
            r = MergeLevel(writer, a, b);
            b.LevelEnd();
        }
        a.LevelEnd();
    }
    return r == KV_OK ? writer.LevelEnd() : r;
}

kv_result CKvLiteVariantR::MergeLevel(CKvLiteVariantW& writer, CKvLiteVariantR& a, CKvLiteVariantR& b) {
    if (a.m_aLevels.empty() || b.m_aLevels.empty()) return KV_ERR_FAILED;
    SItem item;
    // Every item of a, merged with b's level of the same name where b has one.
    for (; a.IsNextValue(); a.m_nCurrentOffset += item.length) {
        if (!a.ParseCurrent(item)) return KV_ERR_FAILED;
        uint64_t inB = 0;
        const bool merge = item.type == eLvLevel && item.name.length && b.FindStored(item.name, inB) == KV_OK &&
                           b.m_pData[inB] == eLvLevel;
        if (!merge) {
            kv_result r = writer.Append(a);
            if (r != KV_OK) return r;
            continue;
        }
        const uint64_t bPosition = b.m_nCurrentOffset;
        kv_result r = MergePair(writer, a, item.start, b, inB, item.name);
        b.m_nCurrentOffset = bPosition;
        if (r != KV_OK) return r;
    }
    // The named items of b that a lacks.
    a.m_nCurrentOffset = a.m_aLevels.back().childrenBegin;
    b.m_nCurrentOffset = b.m_aLevels.back().childrenBegin;
    for (; b.IsNextValue(); b.m_nCurrentOffset += item.length) {
        if (!b.ParseCurrent(item)) return KV_ERR_FAILED;
        uint64_t inA = 0;
        if (!item.name.length || a.FindStored(item.name, inA) == KV_OK) continue;
        kv_result r = writer.Append(b);
        if (r != KV_OK) return r;
    }
    return KV_OK;
}

kv_result CKvLiteVariantR::Merge(CKvLiteVariantR& other) {
    Reset();
    other.Reset();
    SItem item;
    if (!ParseCurrent(item) || item.type != eLvLevel) return KV_ERR_FAILED;
    uint64_t inOther = 0;
    CKvLiteVariantW writer;
    kv_result r = other.FindStored(item.name, inOther);
    if (r == KV_OK) r = MergePair(writer, *this, item.start, other, inOther, item.name);
    CKvLiteVariantR result;
    if (r == KV_OK) r = writer.Finalize(result, 0);
    if (r == KV_OK) Adopt(result);
    Reset();
    other.Reset();
    return r;
}

kv_result CKvLiteVariantR::MergeLevelEx(CKvLiteVariantW& writer, CKvLiteVariantR& a, CKvLiteVariantR& b,
                                        const wchar_t* name) {
    uint64_t inA = 0, inB = 0;
    const bool hasA = a.Find(name, inA) == KV_OK;
    const bool hasB = b.Find(name, inB) == KV_OK;
    if (!hasA && !hasB) return KV_ERR_FAILED;
    if (!hasB || (hasA && (a.m_pData[inA] != eLvLevel || b.m_pData[inB] != eLvLevel))) {
        a.m_nCurrentOffset = inA;
        return writer.Append(a);
    }
    if (!hasA) {
        b.m_nCurrentOffset = inB;
        return writer.Append(b);
    }
    SItem item;
    if (!a.ParseItem(inA, a.Limit(), item)) return KV_ERR_FAILED;
    return MergePair(writer, a, inA, b, inB, item.name);
}

kv_result CKvLiteVariantR::Replace(const wchar_t* name, CKvLiteVariantR& other) {
    Reset();
    SItem top;
    if (!ParseCurrent(top) || top.type != eLvLevel) return KV_ERR_FAILED;
    kv_result r = other.PrepareCurrent();
    const uint8_t* replacement = nullptr;
    uint64_t replacementSize = 0;
    if (r == KV_OK) r = other.GetCurrentItem(replacement, replacementSize);
    if (r != KV_OK) return r;
    SNameBuffer wanted;
    EncodeName(name, wanted);
    CKvLiteVariantW writer;
    r = writer.BeginLevel(top.name);
    if (r == KV_OK) r = EnterLevelAt(top.start, nullptr);
    bool replaced = false;
    SItem item;
    for (; r == KV_OK && IsNextValue(); m_nCurrentOffset += item.length) {
        if (!ParseCurrent(item)) {
            r = KV_ERR_FAILED;
        } else if (!replaced && CompareNames(item.name, wanted.name) == 0) {
            r = writer.AppendBytes(replacement, replacementSize);
            replaced = true;
        } else {
            r = writer.Append(*this);
        }
    }
    if (r == KV_OK && !replaced) r = writer.AppendBytes(replacement, replacementSize);
    CKvLiteVariantR result;
    if (r == KV_OK) r = writer.Finalize(result, 0);
    if (r == KV_OK) Adopt(result);
    Reset();
    return r;
}

// ---------------------------------------------------------------- diagnostics

void CKvLiteVariantR::TraceLevel(CKvStringW& text, int depth) {
    static const wchar_t* const kTypeNames[] = {L"none", L"bool", L"int32", L"uint32", L"int64", L"uint64",
                                                L"double", L"pointer", L"string", L"bytes", L"level", L"level"};
    SItem item;
    for (; IsNextValue(); m_nCurrentOffset += item.length) {
        if (!ParseCurrent(item)) {
            text.AppendFormat(L"%*ls<invalid item at %llu>\n", 2 * depth, L"",
                              static_cast<unsigned long long>(m_nCurrentOffset));
            return;
        }
        text.AppendFormat(L"%*ls%ls (%ls)", 2 * depth, L"", NameToString(item.name).GetString(), kTypeNames[item.type]);
        const uint8_t* value = m_pData + item.value;
        switch (item.type) {
            case eLvBool: text.AppendFormat(L" = %d\n", value[0]); break;
            case eLvInt32: text.AppendFormat(L" = %d\n", static_cast<int32_t>(kvbytes::LoadU32(value))); break;
            case eLvUInt32: text.AppendFormat(L" = %u\n", kvbytes::LoadU32(value)); break;
            case eLvInt64: text.AppendFormat(L" = %lld\n", static_cast<long long>(kvbytes::LoadU64(value))); break;
            case eLvUInt64:
            case eLvPointer:
                text.AppendFormat(L" = %llu\n", static_cast<unsigned long long>(kvbytes::LoadU64(value)));
                break;
            case eLvDouble: text.AppendFormat(L" = %.17g\n", kvbytes::LoadF64(value)); break;
            case eLvString:
                text.AppendFormat(L" = \"%ls\"\n", StringOfUnits(value, item.valueSize).GetString());
                break;
            case eLvByteArray:
                text.AppendFormat(L" = %llu bytes\n", static_cast<unsigned long long>(item.valueSize));
                break;
            default:
                text.AppendFormat(L", %u children\n", item.count);
                if (EnterLevelAt(item.start, nullptr) == KV_OK) {
                    TraceLevel(text, depth + 1);
                    LevelEnd();
                }
        }
    }
}

kv_result CKvLiteVariantR::Trace(CKvStringW& text) {
    return KvNoThrow([&]() -> kv_result {
        const uint64_t position = m_nCurrentOffset;
        const std::vector<SLevel> levels = m_aLevels;
        text.Empty();
        Reset();
        TraceLevel(text, 0);
        m_nCurrentOffset = position;
        m_aLevels = levels;
        return KV_OK;
    });
}

// ---------------------------------------------------------------- sharing

uint32_t CKvRefLiteVariantR::Release() {
    const uint32_t count = --m_nRefCount;
    if (count == 0) delete this;
    return count;
}

CKvLiteVariantRHolder::CKvLiteVariantRHolder(const CKvLiteVariantRHolder& other) : m_pReader(other.m_pReader) {
    if (m_pReader) m_pReader->AddRef();
}

CKvLiteVariantRHolder& CKvLiteVariantRHolder::operator=(const CKvLiteVariantRHolder& other) {
    if (other.m_pReader) other.m_pReader->AddRef();
    if (m_pReader) m_pReader->Release();
    m_pReader = other.m_pReader;
    return *this;
}

CKvLiteVariantRHolder::~CKvLiteVariantRHolder() {
    if (m_pReader) m_pReader->Release();
}

kv_result CKvLiteVariantRHolder::MakeNotNull() {
    if (m_pReader) return KV_OK;
    m_pReader = new (std::nothrow) CKvRefLiteVariantR();
    return m_pReader ? KV_OK : KV_ERR_OUT_OF_MEMORY;
}

kv_result CKvLiteVariantRHolder::MakeNotNullAndUnique() {
    if (!m_pReader) return MakeNotNull();
    if (m_pReader->AddRef() == 2) {  // only this holder had it
        m_pReader->Release();
        return KV_OK;
    }
    m_pReader->Release();
    CKvRefLiteVariantR* copy = new (std::nothrow) CKvRefLiteVariantR(*m_pReader);
    if (!copy || copy->GetSize() != m_pReader->GetSize()) {
        if (copy) copy->Release();
        return KV_ERR_OUT_OF_MEMORY;
    }
    m_pReader->Release();
    m_pReader = copy;
    return KV_OK;
}

// ---- XML form ----

kv_result CKvLiteVariantR::LiteVariantToXML(CKvStringW& xml) {
    return KvNoThrow([&]() -> kv_result {
        Reset();
        CKvVariant tree;
        tree.SetName(GetCurrentName());  // the document's root is the item itself
        kv_result r = GetCurrentValue(tree);
        Reset();
        if (r != KV_OK) return r;
        CKvStringW document;
        r = CKvSerializerXMLString::DocumentToXML(document, tree);
        if (r == KV_OK) xml = std::move(document);
        return r;
    });
}

kv_result CKvLiteVariantR::LiteVariantFromXML(const CKvStringW& xml) {
    return KvNoThrow([&]() -> kv_result {
        CKvVariant tree;
        kv_result r = CKvSerializerXMLString::VariantFromXML(tree, xml);
        if (r != KV_OK) return r;
        CKvLiteVariantW writer;
        r = writer.Set(tree);
        return r == KV_OK ? writer.Finalize(*this, 0) : r;
    });
}

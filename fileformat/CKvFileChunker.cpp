// Chunk container: reading, writing, appending and map recovery.
#include "fileformat/CKvFileChunker.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "gnr_system/KvBytes.h"

namespace {

uint64_t RoundUpToPage(uint64_t n) { return (n + kPageSize - 1) / kPageSize * kPageSize; }

// Bytes of zero name padding that make a chunk's first data part end on a
// page boundary (so a second part starts on one).
uint64_t NamePadding(uint64_t nameLength, uint64_t firstPartSize) {
    const uint64_t total = kChunkHeaderSize + nameLength + firstPartSize;
    return RoundUpToPage(total) - total;
}

void EncodeHeader(uint8_t* out, const SKvChunkHeader& h) {
    kvbytes::StoreU32(out, h.magic);
    kvbytes::StoreU32(out + 4, h.nameLength);
    kvbytes::StoreU64(out + 8, h.dataLength);
}

SKvChunkHeader DecodeHeader(const uint8_t* in) {
    SKvChunkHeader h;
    h.magic = kvbytes::LoadU32(in);
    h.nameLength = kvbytes::LoadU32(in + 4);
    h.dataLength = kvbytes::LoadU64(in + 8);
    return h;
}

// The map text that ends the entries: the map signature without its "!".
constexpr std::string_view kMapEntriesEnd = kChunkMapSignature.substr(0, kChunkMapSignature.size() - 1);

// A chunk name with its trailing "!", built without allocating for the
// lengths a valid name can have.
class NormalisedName {
public:
    explicit NormalisedName(const char* name) {
        std::string_view v(name ? name : "");
        if (!v.empty() && v.back() == '!') {
            m_view = v;
        } else if (v.size() + 1 <= sizeof m_buffer) {
            std::memcpy(m_buffer, v.data(), v.size());
            m_buffer[v.size()] = '!';
            m_view = std::string_view(m_buffer, v.size() + 1);
        } else {
            m_long.assign(v).push_back('!');
            m_view = m_long;
        }
    }
    std::string_view View() const { return m_view; }
    bool IsValidForWriting() const;

private:
    char m_buffer[kMaxChunkNameLength + 2];
    std::string m_long;
    std::string_view m_view;
};

// A name the map can hold: it ends in its only "!", is not too long, and is
// not the text that ends the map's entries.
bool IsStorableName(std::string_view name) {
    if (name.empty() || name.back() != '!') return false;
    const std::string_view body = name.substr(0, name.size() - 1);
    return body.size() <= kMaxChunkNameLength && body.find('!') == std::string_view::npos && body != kMapEntriesEnd;
}

bool NormalisedName::IsValidForWriting() const { return IsStorableName(m_view); }

// Whether `got` bytes read at a chunk start hold the header `h` and the name
// field of the chunk `name`: the magic, the name, and a zero after it unless
// the field ends with it.
bool CarriesName(const uint8_t* raw, uint64_t got, const SKvChunkHeader& h, std::string_view name) {
    if (h.magic != kChunkMagic || h.nameLength < name.size() || got < kChunkHeaderSize + name.size()) return false;
    if (std::memcmp(raw + kChunkHeaderSize, name.data(), name.size()) != 0) return false;
    const uint64_t end = kChunkHeaderSize + name.size();
    return h.nameLength == name.size() || (got > end && raw[end] == 0);
}

}  // namespace

CKvFileChunker::CKvFileChunker() : m_aPage(kPageSize), m_aAssembly(kPageSize) {
    m_aPage.SetSize(kPageSize);
    std::memset(m_aPage.GetData(), 0, kPageSize);
}

CKvFileChunker::CKvFileChunker(const CKvFileChunker& other) : CKvFileChunker() { *this = other; }

CKvFileChunker& CKvFileChunker::operator=(const CKvFileChunker& other) {
    if (this == &other) return *this;
    m_mapChunks = other.m_mapChunks;
    m_storage = other.m_storage;
    m_bFinalized = other.m_bFinalized;
    m_bChunkMapMissing = other.m_bChunkMapMissing;
    m_nPendingBytes = 0;
    std::memset(m_aPage.GetData(), 0, kPageSize);
    m_strStreamedChunk.Empty();
    m_nReadOnlySize = other.m_nReadOnlySize;
    m_nAppendPosition = other.m_nAppendPosition;
    return *this;
}

CKvFileChunker::~CKvFileChunker() = default;

void CKvFileChunker::ResetState() {
    m_bFinalized = false;
    m_bChunkMapMissing = false;
    m_nPendingBytes = 0;
    std::memset(m_aPage.GetData(), 0, kPageSize);
    m_strStreamedChunk.Empty();
    m_nReadOnlySize = 0;
    m_nAppendPosition = 0;
    m_bHeldByWriter = false;
}

// ---- opening ----

kv_result CKvFileChunker::Initialize_File(const wchar_t* fileName, bool readOnly, bool openExisting,
                                          CKvStringA& version) {
    return KvNoThrow([&]() -> kv_result {
        ResetState();
        if (!fileName) return KV_ERR_INVALID_ARG;
        if (m_storage.Initialize(fileName, readOnly, openExisting) != KV_OK) {
            m_bHeldByWriter = m_storage.IsHeldByWriter();
            return KV_ERR_FAILED;
        }
        return FinishOpening(OpenCommon(readOnly, openExisting, version));
    });
}

kv_result CKvFileChunker::Initialize_Memory(CKvByteArray& buffer, bool readOnly, bool openExisting,
                                            CKvStringA& version) {
    return KvNoThrow([&]() -> kv_result {
        ResetState();
        m_storage.Initialize(buffer, readOnly, openExisting);
        return FinishOpening(OpenCommon(readOnly, openExisting, version));
    });
}

kv_result CKvFileChunker::Initialize_Storage(std::shared_ptr<IKvStorage> storage, bool readOnly, bool openExisting,
                                             CKvStringA& version) {
    return KvNoThrow([&]() -> kv_result {
        ResetState();
        if (m_storage.Initialize(std::move(storage), readOnly) != KV_OK) return KV_ERR_INVALID_ARG;
        return FinishOpening(OpenCommon(readOnly, openExisting, version));
    });
}

// A storage that failed to open as a container is closed, so that nothing is
// written to it afterwards; one whose map is missing stays open for recovery.
kv_result CKvFileChunker::FinishOpening(kv_result result) {
    if (result != KV_OK && result != KV_ERR_NOT_FOUND) {
        m_storage.Finalize();
        m_bFinalized = true;
    }
    return result;
}

kv_result CKvFileChunker::OpenCommon(bool readOnly, bool openExisting, CKvStringA& version) {
    if (readOnly) {
        if (m_storage.IsFile() && m_storage.GetSize(&m_nReadOnlySize) != KV_OK) return KV_ERR_FAILED;
        kv_result r = CheckSignature(version);
        if (r != KV_OK) return r;
        if (m_mapChunks.empty() && ReadChunkMap() != KV_OK) {
            m_bChunkMapMissing = true;
            return KV_ERR_NOT_FOUND;
        }
        return KV_OK;
    }
    if (openExisting) return OpenForAppending(version);

    // A new container: whatever the storage held before is replaced.
    m_mapChunks.Clear();
    kv_result r = WriteSignature(version);
    if (r == KV_OK) r = m_storage.Truncate(m_nAppendPosition);
    return r;
}

kv_result CKvFileChunker::OpenForAppending(CKvStringA& version) {
    uint64_t size = 0;
    if (StorageSize(size) != KV_OK) return KV_ERR_FAILED;
    if (size == 0) {
        m_mapChunks.Clear();
        return WriteSignature(version);
    }

    // Existing bytes are never overwritten: a storage that is not a container
    // is refused, and a container without a map must be repaired first.
    CKvStringA existing;
    if (CheckSignature(existing) != KV_OK) return KV_ERR_FAILED;
    version = existing;
    if (ReadChunkMap() != KV_OK) {
        m_mapChunks.Clear();
        m_bChunkMapMissing = true;
        return KV_ERR_NOT_FOUND;
    }
    // New chunks go after the old map chunk, which becomes dead space.
    m_nAppendPosition = RoundUpToPage(size);
    return KV_OK;
}

kv_result CKvFileChunker::CheckSignature(CKvStringA& version) {
    uint8_t block[kSignatureBlockSize];
    if (ReadExact(0, block, sizeof block) != KV_OK) return KV_ERR_FAILED;
    const SKvChunkHeader h = DecodeHeader(block);
    if (h.magic != kChunkMagic || h.nameLength != kSignatureChunkName.size() || h.dataLength != kSignatureDataSize ||
        std::memcmp(block + kChunkHeaderSize, kSignatureChunkName.data(), kSignatureChunkName.size()) != 0)
        return KV_ERR_FAILED;
    const char* text = reinterpret_cast<const char*>(block + kChunkHeaderSize + kSignatureChunkName.size());
    version = CKvStringA(text, strnlen(text, kSignatureDataSize));
    return KV_OK;
}

kv_result CKvFileChunker::WriteSignature(const CKvStringA& version) {
    uint8_t page[kPageSize] = {};
    EncodeHeader(page, SKvChunkHeader{kChunkMagic, static_cast<uint32_t>(kSignatureChunkName.size()), kSignatureDataSize});
    std::memcpy(page + kChunkHeaderSize, kSignatureChunkName.data(), kSignatureChunkName.size());
    const size_t n = version.Size() < kMaxVersionLength ? version.Size() : kMaxVersionLength;
    std::memcpy(page + kChunkHeaderSize + kSignatureChunkName.size(), version.c_str(), n);
    if (WriteExact(0, page, sizeof page) != KV_OK) return KV_ERR_FAILED;
    m_nAppendPosition = kPageSize;
    return KV_OK;
}

// ---- the chunk map ----

kv_result CKvFileChunker::ReadChunkMap() {
    uint64_t size = 0;
    if (StorageSize(size) != KV_OK || size < kChunkMapTrailerSize) return KV_ERR_FAILED;
    uint8_t trailer[kChunkMapTrailerSize];
    if (ReadExact(size - kChunkMapTrailerSize, trailer, sizeof trailer) != KV_OK) return KV_ERR_FAILED;
    if (std::memcmp(trailer, kChunkMapSignature.data(), kChunkMapSignature.size()) != 0) return KV_ERR_FAILED;
    uint64_t position = kvbytes::LoadU64(trailer + kChunkMapSignature.size());

    // Header and name are checked against the storage; the data is read
    // once into the array the map keeps its names in.
    SKvChunkHeader header;
    CKvStringA name;
    kv_result r = ReadChunkAt(position, header, name, nullptr, true);
    if (r != KV_OK) return r;
    if (header.dataLength > UINT32_MAX) return KV_ERR_FAILED;
    std::vector<uint8_t> data(static_cast<size_t>(header.dataLength));
    if (ReadExact(position + kChunkHeaderSize + header.nameLength, data.data(), data.size()) != KV_OK)
        return KV_ERR_FAILED;
    return m_mapChunks.Load(std::move(data), kMapEntriesEnd, kMaxChunkNameLength);
}

kv_result CKvFileChunker::WriteChunkMap() {
    uint64_t entriesSize = 0;
    for (const auto& entry : m_mapChunks) entriesSize += entry.first.size() + 16;
    const uint64_t position = m_nAppendPosition;
    const uint64_t fixed = kChunkHeaderSize + kChunkMapChunkName.size() + 2 * kChunkMapTrailerSize;
    const uint64_t zeros = RoundUpToPage(fixed + entriesSize) - (fixed + entriesSize);
    const uint64_t dataSize = entriesSize + 2 * kChunkMapTrailerSize + zeros;
    if (dataSize > UINT32_MAX) return KV_ERR_FAILED;

    std::vector<uint8_t> buffer(static_cast<size_t>(dataSize), 0);
    // Entries are stored in descending order: the map is walked upwards and
    // filled from the end of the entries back.
    uint8_t* const out = buffer.data() + entriesSize;
    uint8_t* entry = out;
    for (const auto& [name, member] : m_mapChunks) {
        entry -= name.size() + 16;
        std::memcpy(entry, name.data(), name.size());
        kvbytes::StoreU64(entry + name.size(), member.position);
        kvbytes::StoreU64(entry + name.size() + 8, member.size);
    }
    for (uint8_t* block : {out, buffer.data() + dataSize - kChunkMapTrailerSize}) {
        std::memcpy(block, kChunkMapSignature.data(), kChunkMapSignature.size());
        kvbytes::StoreU64(block + kChunkMapSignature.size(), position);
    }
    const kv_result r = WriteChunk(buffer.data(), dataSize, nullptr, 0, kChunkMapChunkName);
    return r != KV_OK ? r : m_storage.Truncate(m_nAppendPosition);
}

// ---- low-level access ----

kv_result CKvFileChunker::StorageSize(uint64_t& size) {
    if (m_storage.IsFile() && m_storage.GetReadOnly()) {
        size = m_nReadOnlySize;
        return KV_OK;
    }
    return m_storage.GetSize(&size);
}

kv_result CKvFileChunker::ReadExact(uint64_t position, void* buffer, uint64_t size) {
    if (size == 0) return KV_OK;
    uint64_t got = 0;
    if (m_storage.ReadAt(position, buffer, size, &got) != KV_OK || got != size) return KV_ERR_FAILED;
    return KV_OK;
}

kv_result CKvFileChunker::WriteExact(uint64_t position, const void* buffer, uint64_t size) {
    if (size == 0) return KV_OK;
    const SKvIoPart part{buffer, size};
    return m_storage.WriteAt(position, &part, 1) == KV_OK ? KV_OK : KV_ERR_FAILED;
}

// Reads the header at `position`; when its magic is wrong, KV_ERR_FAILED, or with
// `resynchronise` the next magic after it is taken as the chunk start and
// `position` moves there.
kv_result CKvFileChunker::ReadHeader(SKvChunkHeader& header, uint64_t& position, bool resynchronise) {
    uint8_t raw[kChunkHeaderSize];
    if (ReadExact(position, raw, sizeof raw) != KV_OK) return KV_ERR_FAILED;
    header = DecodeHeader(raw);
    if (header.magic == kChunkMagic) return KV_OK;
    return resynchronise ? ResynchroniseHeader(header, position) : KV_ERR_FAILED;
}

// The header of the chunk the map places at `position` under `name`: it
// must be there, named so (the name field's text up to its first zero),
// or the entry does not describe what the storage holds and KV_ERR_FAILED.
kv_result CKvFileChunker::ReadNamedHeader(SKvChunkHeader& header, uint64_t position, std::string_view name) {
    uint8_t raw[kChunkHeaderSize + kMaxChunkNameLength + 2];
    if (name.size() > kMaxChunkNameLength + 1) return KV_ERR_FAILED;
    // The byte after the name is read too, where the field has one: it must end the text.
    uint64_t got = 0;
    if (m_storage.ReadAt(position, raw, kChunkHeaderSize + name.size() + 1, &got) != KV_OK ||
        got < kChunkHeaderSize + name.size())
        return KV_ERR_FAILED;
    const SKvChunkHeader found = DecodeHeader(raw);
    if (!CarriesName(raw, got, found, name)) return KV_ERR_FAILED;
    header = found;
    return KV_OK;
}

// The header of the chunk that starts at the next magic after `position`,
// which moves there.
kv_result CKvFileChunker::ResynchroniseHeader(SKvChunkHeader& header, uint64_t& position) {
    uint64_t found = 0;
    if (Resynchronise(position, found) != KV_OK) return KV_ERR_FAILED;
    uint8_t raw[kChunkHeaderSize];
    if (ReadExact(found, raw, sizeof raw) != KV_OK) return KV_ERR_FAILED;
    header = DecodeHeader(raw);
    if (header.magic != kChunkMagic) return KV_ERR_FAILED;
    position = found;
    return KV_OK;
}

// Finds the next chunk magic at or after `from`, a page of storage at a time.
// The last three bytes of each block are kept in front of the next one so a
// magic that straddles two blocks is found.
kv_result CKvFileChunker::Resynchronise(uint64_t from, uint64_t& found) {
    uint8_t magic[4];
    kvbytes::StoreU32(magic, kChunkMagic);
    uint8_t buffer[kPageSize + kChunkHeaderSize];
    constexpr size_t kOverlap = sizeof magic - 1;
    size_t carried = 0;
    uint64_t bufferStart = from;
    uint64_t next = from;
    for (;;) {
        uint64_t got = 0;
        if (m_storage.ReadAt(next, buffer + carried, kPageSize, &got) != KV_OK || got == 0) return KV_ERR_FAILED;
        next += got;
        const size_t total = carried + static_cast<size_t>(got);
        const void* hit = memmem(buffer, total, magic, sizeof magic);
        if (hit) {
            found = bufferStart + static_cast<uint64_t>(static_cast<const uint8_t*>(hit) - buffer);
            return KV_OK;
        }
        carried = total < kOverlap ? total : kOverlap;
        std::memmove(buffer, buffer + total - carried, carried);
        bufferStart += total - carried;
    }
}

// Reads the chunk at `position` (moved to the chunk's real start when the
// reader may resynchronise and had to): its header, its name, and its data when
// `data` is given. Every length is checked against the storage first.
kv_result CKvFileChunker::ReadChunkAt(uint64_t& position, SKvChunkHeader& header, CKvStringA& name,
                                      CKvByteArray* data, bool resynchronise) {
    kv_result r = ReadHeader(header, position, resynchronise);
    if (r != KV_OK) return r;
    uint64_t size = 0;
    if (StorageSize(size) != KV_OK || size < position || size - position < kChunkHeaderSize) return KV_ERR_FAILED;
    uint64_t available = size - position - kChunkHeaderSize;
    if (header.nameLength > available) return KV_ERR_FAILED;
    available -= header.nameLength;
    if (header.dataLength > available) return KV_ERR_FAILED;

    m_strNameField.resize(header.nameLength);
    if (ReadExact(position + kChunkHeaderSize, &m_strNameField[0], header.nameLength) != KV_OK) return KV_ERR_FAILED;
    name = CKvStringA(m_strNameField.c_str(), strnlen(m_strNameField.c_str(), m_strNameField.size()));

    if (!data) return KV_OK;
    // Whole chunks are read into one array of at most 4 GiB.
    if (header.dataLength > UINT32_MAX) return KV_ERR_FAILED;
    const uint64_t previousSize = data->GetSize();
    if (data->SetSize(header.dataLength) != KV_OK) return KV_ERR_OUT_OF_MEMORY;
    if (ReadExact(position + kChunkHeaderSize + header.nameLength, data->GetData(), header.dataLength) != KV_OK) {
        data->SetSize(previousSize);
        return KV_ERR_FAILED;
    }
    return KV_OK;
}

kv_result CKvFileChunker::FindChunk(const char* name, SKvChunkMapMember& member) const {
    if (!name) return KV_ERR_INVALID_ARG;
    const NormalisedName key(name);
    return m_mapChunks.Find(key.View(), member) ? KV_OK : KV_ERR_NOT_FOUND;
}

// ---- reading ----

kv_result CKvFileChunker::GetChunk(CKvByteArray& data, const char* name) {
    return KvNoThrow([&]() -> kv_result {
        SKvChunkMapMember member;
        kv_result r = FindChunk(name, member);
        if (r != KV_OK) return r;
        // The name is checked before the data is read, so that the caller's
        // array is left alone when the entry points at another chunk.
        SKvChunkHeader header;
        r = ReadNamedHeader(header, member.position, NormalisedName(name).View());
        if (r != KV_OK) return r;
        CKvStringA found;
        uint64_t position = member.position;
        return ReadChunkAt(position, header, found, &data, false);
    });
}

kv_result CKvFileChunker::LocatePart(SKvChunkHeader& header, uint64_t offset, uint64_t size, const char* name,
                                     uint64_t& at) {
    SKvChunkMapMember member;
    kv_result r = FindChunk(name, member);
    if (r != KV_OK) return r;
    return LocateInChunk(header, member.position, offset, size, at, NormalisedName(name).View());
}

// Where `size` bytes at `offset` into the data of the chunk `name` at
// `position` lie in the storage. The header is read, and must be that
// chunk's, unless `header` vouches for it.
kv_result CKvFileChunker::LocateInChunk(SKvChunkHeader& header, uint64_t position, uint64_t offset, uint64_t size,
                                        uint64_t& at, std::string_view name) {
    if (header.magic == 0) {
        SKvChunkHeader read;
        const kv_result r = ReadNamedHeader(read, position, name);
        if (r != KV_OK) return r;
        header = read;
    }
    // The range inside the chunk's data, and the chunk's data inside the storage.
    uint64_t storageSize = 0;
    if (StorageSize(storageSize) != KV_OK) return KV_ERR_FAILED;
    if (offset > header.dataLength || size > header.dataLength - offset) return KV_ERR_FAILED;
    if (position > storageSize || storageSize - position < kChunkHeaderSize + header.nameLength) return KV_ERR_FAILED;
    const uint64_t dataStart = position + kChunkHeaderSize + header.nameLength;
    if (offset > storageSize - dataStart || size > storageSize - dataStart - offset) return KV_ERR_FAILED;
    at = dataStart + offset;
    return KV_OK;
}

// One read of the head of the chunk `name` at `position` (header, name field
// and the data before `offset`) and of `size` bytes after it into `buffer`,
// laid out as the writer lays out a chunk whose data at `offset` starts a
// page: the head then fills whole pages. AsWritten when the header read
// agrees with that layout, `header` then holding it and `got` the bytes that
// reached `buffer`; WrongChunk when the position holds no chunk or another
// one; OtherLayout when this read cannot tell (the slower path decides).
CKvFileChunker::EHeadRead CKvFileChunker::ReadHeadAndPart(uint64_t position, std::string_view name, uint64_t offset,
                                                          void* buffer, uint64_t size, SKvChunkHeader& header,
                                                          uint64_t& got) {
    header = SKvChunkHeader{};
    got = 0;
    if (offset > kPageSize) return EHeadRead::OtherLayout;
    const uint64_t head = RoundUpToPage(kChunkHeaderSize + name.size() + offset);
    uint8_t headPage[kPageSize];
    if (head > sizeof headPage) return EHeadRead::OtherLayout;
    const SKvIoSpan spans[] = {{headPage, head}, {buffer, size}};
    uint64_t read = 0;
    if (m_storage.ReadAt(position, spans, size ? 2 : 1, &read) != KV_OK || read < kChunkHeaderSize)
        return EHeadRead::OtherLayout;
    // Bytes that went into the caller's buffer, whatever the header says.
    got = read > head ? read - head : 0;
    const SKvChunkHeader found = DecodeHeader(headPage);
    if (found.magic != kChunkMagic) return EHeadRead::WrongChunk;
    const uint64_t inHead = std::min(read, head);
    if (!CarriesName(headPage, inHead, found, name))
        return inHead > kChunkHeaderSize + name.size() ? EHeadRead::WrongChunk : EHeadRead::OtherLayout;
    header = found;
    const bool asWritten = kChunkHeaderSize + found.nameLength + offset == head && found.dataLength >= offset;
    return asWritten ? EHeadRead::AsWritten : EHeadRead::OtherLayout;
}

kv_result CKvFileChunker::ReadAlignedPart(SKvChunkHeader& header, void* buffer, uint64_t offset, uint64_t size,
                                          const char* name) {
    if (!buffer && size) return KV_ERR_INVALID_ARG;
    if (!name) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&]() -> kv_result {
        const NormalisedName key(name);
        SKvChunkMapMember member;
        if (!m_mapChunks.Find(key.View(), member)) return KV_ERR_NOT_FOUND;
        const uint64_t position = member.position;
        SKvChunkHeader found;
        // The map entry vouches for the length of the data, so a chunk too
        // short for the part is refused before the caller's buffer is touched.
        if (size > 0 && offset <= member.size && size <= member.size - offset) {
            uint64_t got = 0;
            const EHeadRead head = ReadHeadAndPart(position, key.View(), offset, buffer, size, found, got);
            if (head == EHeadRead::AsWritten && size <= found.dataLength - offset && got == size) {
                header = found;
                return KV_OK;
            }
            // The read went straight into the caller's buffer: what it brought
            // is not the part asked for, and no bytes of another chunk stay.
            std::memset(buffer, 0, static_cast<size_t>(got));
            if (head == EHeadRead::WrongChunk) return KV_ERR_FAILED;
        }
        // Another layout, or damage: the header is read again on its own.
        found = SKvChunkHeader{};
        uint64_t at = 0;
        kv_result r = LocateInChunk(found, position, offset, size, at, key.View());
        if (r == KV_OK) header = found;
        if (r != KV_OK || size == 0) return r;
        return ReadExact(at, buffer, size);
    });
}

kv_result CKvFileChunker::ReadAlignedRest(SKvChunkHeader& header, std::vector<uint8_t>& data, uint64_t offset,
                                          uint64_t& size, const char* name) {
    if (!name) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&]() -> kv_result {
        const NormalisedName key(name);
        SKvChunkMapMember member;
        if (!m_mapChunks.Find(key.View(), member)) return KV_ERR_NOT_FOUND;
        const uint64_t position = member.position;
        uint64_t storageSize = 0;
        if (StorageSize(storageSize) != KV_OK) return KV_ERR_FAILED;
        SKvChunkHeader found;
        const uint64_t head = RoundUpToPage(kChunkHeaderSize + key.View().size() + offset);
        if (member.size > offset && position <= storageSize && head <= storageSize - position) {
            // The map's size is the data length for chunks written here and a
            // little more in a recovered map; the storage bounds it either way.
            const uint64_t guess = std::min(member.size - offset, storageSize - position - head);
            if (guess > SIZE_MAX) return KV_ERR_FAILED;
            if (data.size() < guess) data.resize(static_cast<size_t>(guess));
            uint64_t got = 0;
            const EHeadRead head = ReadHeadAndPart(position, key.View(), offset, data.data(), guess, found, got);
            if (head == EHeadRead::WrongChunk) return KV_ERR_FAILED;
            if (head == EHeadRead::AsWritten && found.dataLength - offset <= got) {
                header = found;
                size = found.dataLength - offset;
                return KV_OK;
            }
        }
        found = SKvChunkHeader{};
        uint64_t at = 0;
        kv_result r = LocateInChunk(found, position, offset, 0, at, key.View());
        if (r != KV_OK) return r;
        const uint64_t length = found.dataLength - offset;
        r = LocateInChunk(found, position, offset, length, at, key.View());
        if (r != KV_OK) return r;
        if (length > SIZE_MAX) return KV_ERR_FAILED;
        if (data.size() < length) data.resize(static_cast<size_t>(length));
        r = ReadExact(at, data.data(), length);
        if (r != KV_OK) return r;
        header = found;
        size = length;
        return KV_OK;
    });
}

kv_result CKvFileChunker::GetChunkPart(SKvChunkHeader& header, CKvByteArray& data, uint64_t offset, uint32_t size,
                                       const char* name) {
    return KvNoThrow([&]() -> kv_result {
        // Everything is checked before the caller's array is touched.
        uint64_t at = 0;
        const kv_result r = LocatePart(header, offset, size, name, at);
        if (r != KV_OK) return r;
        if (size == 0) return data.SetSize(0);
        const uint64_t previousSize = data.GetSize();
        if (data.SetSize(size) != KV_OK) return KV_ERR_OUT_OF_MEMORY;
        if (ReadExact(at, data.GetData(), size) != KV_OK) {
            data.SetSize(previousSize);
            return KV_ERR_FAILED;
        }
        return KV_OK;
    });
}

kv_result CKvFileChunker::ReadChunkPart(SKvChunkHeader& header, void* buffer, uint64_t offset, uint64_t size,
                                        const char* name) {
    if (!buffer && size) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&]() -> kv_result {
        uint64_t at = 0;
        const kv_result r = LocatePart(header, offset, size, name, at);
        if (r != KV_OK || size == 0) return r;
        return ReadExact(at, buffer, size);
    });
}

kv_result CKvFileChunker::GetChunkHeader(SKvChunkHeader& header, const char* name) {
    return KvNoThrow([&]() -> kv_result {
        SKvChunkMapMember member;
        kv_result r = FindChunk(name, member);
        if (r != KV_OK) return r;
        SKvChunkHeader read;
        const NormalisedName key(name);
        uint64_t at = 0;
        r = LocateInChunk(read, member.position, 0, 0, at, key.View());
        // The data is all there.
        if (r == KV_OK) r = LocateInChunk(read, member.position, 0, read.dataLength, at, key.View());
        if (r == KV_OK) header = read;
        return r;
    });
}

bool CKvFileChunker::ExistChunk(const char* name) const {
    SKvChunkMapMember member;
    return name && m_mapChunks.Find(std::string_view(name), member);
}

kv_result CKvFileChunker::GetNextChunkID(CKvStringA& name, const char* after) const {
    return KvNoThrow([&]() -> kv_result {
        auto it = m_mapChunks.begin();
        if (after && *after) {
            SKvChunkMapMember member;
            if (!m_mapChunks.Find(std::string_view(after), member)) return KV_ERR_NOT_FOUND;
            it = m_mapChunks.upper_bound(std::string_view(after));
        }
        if (it == m_mapChunks.end()) return KV_ERR_NOT_FOUND;
        const std::string_view next = (*it).first;
        name = CKvStringA(next.data(), next.size());
        return KV_OK;
    });
}

// ---- writing ----

// The checks of every write, made before the storage is touched.
kv_result CKvFileChunker::CheckWritable(const char* name) const {
    if (!name || !NormalisedName(name).IsValidForWriting()) return KV_ERR_INVALID_ARG;
    if (m_bChunkMapMissing) return KV_ERR_NOT_FOUND;  // appending to an unrepaired container
    if (m_bFinalized || !m_storage.IsOpen()) return KV_ERR_FAILED;
    return KV_OK;
}

kv_result CKvFileChunker::SetChunk(const void* data, uint32_t size, const char* name) {
    return SetChunk(data, size, nullptr, 0, name);
}

kv_result CKvFileChunker::SetChunk(const CKvByteArray& data, const char* name) {
    if (data.GetSize() > UINT32_MAX) return KV_ERR_INVALID_ARG;
    return SetChunk(data.GetData(), static_cast<uint32_t>(data.GetSize()), nullptr, 0, name);
}

kv_result CKvFileChunker::SetChunk(const void* data1, uint32_t size1, const void* data2, uint32_t size2,
                                   const char* name) {
    return KvNoThrow([&]() -> kv_result {
        kv_result r = CheckWritable(name);
        if (r != KV_OK) return r;
        const NormalisedName key(name);
        return WriteChunk(data1, size1, data2, size2, key.View());
    });
}

// Builds in the scratch array the pages that hold a chunk's header, name,
// name padding and the start of its first part; answers their length.
// `firstInHead` gets the bytes of the first part they hold: the rest of it
// is whole pages by construction.
uint64_t CKvFileChunker::AssembleHead(const void* data1, uint64_t size1, bool moreData, uint64_t dataLength,
                                      std::string_view name, uint64_t& firstInHead) {
    const uint64_t first = data1 ? size1 : 0;
    // Padding makes the first part end on a page boundary; a chunk with only
    // later parts is padded too, so that they start on one.
    const uint64_t padding = (first > 0 || moreData) ? NamePadding(name.size(), first) : 0;
    const uint64_t headBlock = kChunkHeaderSize + name.size() + padding;
    firstInHead = first == 0 ? 0 : std::min(first, RoundUpToPage(headBlock) - headBlock);
    const uint64_t headPages = RoundUpToPage(headBlock + firstInHead);

    if (m_aAssembly.SetSize(headPages) != KV_OK) return 0;
    uint8_t* out = m_aAssembly.GetData();
    std::memset(out, 0, static_cast<size_t>(headPages));
    EncodeHeader(out, SKvChunkHeader{kChunkMagic, static_cast<uint32_t>(name.size() + padding), dataLength});
    std::memcpy(out + kChunkHeaderSize, name.data(), name.size());
    if (firstInHead) std::memcpy(out + headBlock, data1, static_cast<size_t>(firstInHead));
    return headPages;
}

// Writes the start of a streamed chunk: header pages and its first part.
kv_result CKvFileChunker::WriteChunkStart(const void* data1, uint64_t size1, bool moreData, uint64_t dataLength,
                                          std::string_view name, uint64_t& position) {
    position = m_nAppendPosition;
    const uint64_t first = data1 ? size1 : 0;
    uint64_t firstInHead = 0;
    const uint64_t headPages = AssembleHead(data1, first, moreData, dataLength, name, firstInHead);
    if (headPages == 0) return KV_ERR_OUT_OF_MEMORY;
    const SKvIoPart parts[] = {
        {m_aAssembly.GetData(), headPages},
        {first > firstInHead ? static_cast<const uint8_t*>(data1) + firstInHead : nullptr, first - firstInHead},
    };
    const kv_result r = m_storage.WriteAt(position, parts, sizeof parts / sizeof parts[0]);
    if (r != KV_OK) return r;
    m_nAppendPosition = position + headPages + (first - firstInHead);
    return KV_OK;
}

// A whole chunk in one gathered write: header pages, the rest of the first
// part, the whole pages of the second part and its last page zero-padded.
kv_result CKvFileChunker::WriteChunk(const void* data1, uint64_t size1, const void* data2, uint64_t size2,
                                     std::string_view name) {
    const uint64_t first = data1 ? size1 : 0;
    const uint64_t second = data2 ? size2 : 0;
    const uint64_t position = m_nAppendPosition;
    uint64_t firstInHead = 0;
    const uint64_t headPages = AssembleHead(data1, first, second > 0, first + second, name, firstInHead);
    if (headPages == 0) return KV_ERR_OUT_OF_MEMORY;

    const uint64_t secondWhole = second / kPageSize * kPageSize;
    const uint64_t secondRest = second - secondWhole;
    uint8_t tail[kPageSize];
    if (secondRest) {
        std::memcpy(tail, static_cast<const uint8_t*>(data2) + secondWhole, static_cast<size_t>(secondRest));
        std::memset(tail + secondRest, 0, static_cast<size_t>(kPageSize - secondRest));
    }
    const SKvIoPart parts[] = {
        {m_aAssembly.GetData(), headPages},
        {first > firstInHead ? static_cast<const uint8_t*>(data1) + firstInHead : nullptr, first - firstInHead},
        {data2, secondWhole},
        {tail, secondRest ? kPageSize : 0},
    };
    kv_result r = m_storage.WriteAt(position, parts, sizeof parts / sizeof parts[0]);
    if (r != KV_OK) return r;
    m_nAppendPosition = position + headPages + (first - firstInHead) + RoundUpToPage(second);
    m_mapChunks.Set(name, SKvChunkMapMember{position, first + second});
    return KV_OK;
}

kv_result CKvFileChunker::FlushPendingPage() {
    if (m_nPendingBytes == 0) return KV_OK;
    const kv_result r = WriteExact(m_nAppendPosition, m_aPage.GetData(), kPageSize);
    if (r != KV_OK) return r;
    m_nAppendPosition += kPageSize;
    std::memset(m_aPage.GetData(), 0, kPageSize);
    m_nPendingBytes = 0;
    return KV_OK;
}

kv_result CKvFileChunker::SetChunkPart(const void* data1, uint32_t size1, const void* data2, uint32_t size2,
                                       uint64_t restSize, bool flush, const char* name) {
    return KvNoThrow([&]() -> kv_result {
        kv_result r = CheckWritable(name);
        if (r != KV_OK) return r;
        const NormalisedName key(name);

        if (m_strStreamedChunk.View() != key.View()) {
            // A new chunk; the unflushed tail of a previous one is written first.
            r = FlushPendingPage();
            if (r != KV_OK) return r;
            const uint64_t first = data1 ? size1 : 0;
            if (first + restSize < first) return KV_ERR_INVALID_ARG;
            uint64_t position = 0;
            r = WriteChunkStart(data1, first, restSize > 0, first + restSize, key.View(), position);
            if (r != KV_OK) return r;
            m_mapChunks.Set(key.View(), SKvChunkMapMember{position, first + restSize});
            m_strStreamedChunk = CKvStringA(key.View().data(), key.View().size());
        }

        if (data2 && size2) {
            const auto* in = static_cast<const uint8_t*>(data2);
            uint8_t* page = m_aPage.GetData();
            if (m_nPendingBytes + static_cast<uint64_t>(size2) < kPageSize) {
                std::memcpy(page + m_nPendingBytes, in, size2);
                m_nPendingBytes += size2;
            } else {
                uint64_t used = 0;
                if (m_nPendingBytes) {
                    used = kPageSize - m_nPendingBytes;
                    std::memcpy(page + m_nPendingBytes, in, static_cast<size_t>(used));
                    m_nPendingBytes = static_cast<uint32_t>(kPageSize);
                    r = FlushPendingPage();
                    if (r != KV_OK) return r;
                }
                const uint64_t whole = (size2 - used) / kPageSize * kPageSize;
                r = WriteExact(m_nAppendPosition, in + used, whole);
                if (r != KV_OK) return r;
                m_nAppendPosition += whole;
                m_nPendingBytes = static_cast<uint32_t>(size2 - used - whole);
                std::memcpy(page, in + used + whole, m_nPendingBytes);
            }
        }

        if (flush) {
            r = FlushPendingPage();
            m_strStreamedChunk.Empty();  // the chunk is complete
        }
        return r;
    });
}

kv_result CKvFileChunker::Reserve(uint64_t size) {
    if (!m_storage.IsOpen()) return KV_ERR_FAILED;
    uint64_t current = 0;
    kv_result r = m_storage.GetSize(&current);
    if (r != KV_OK || current >= size) return r;
    // The new bytes read as zeros, in a file and in memory alike.
    return m_storage.Truncate(size);
}

kv_result CKvFileChunker::SetMapChunk(const CKvFileChunker* other) {
    if (!other) return KV_ERR_INVALID_ARG;
    if (other != this) m_mapChunks = other->m_mapChunks;
    return KV_OK;
}

kv_result CKvFileChunker::Finalize() {
    return KvNoThrow([&]() -> kv_result {
        kv_result r = KV_OK;
        if (!m_bFinalized && m_storage.IsOpen() && !m_storage.GetReadOnly() && !m_bChunkMapMissing) {
            r = FlushPendingPage();
            if (r == KV_OK) r = WriteChunkMap();
            // Success means the file survives a power cut: its bytes (and the
            // name of a new file) are on the disk before the answer.
            if (r == KV_OK && m_storage.Sync() != KV_OK) r = KV_ERR_FAILED;
        }
        const kv_result closed = m_storage.Finalize();
        m_bFinalized = true;
        return r != KV_OK ? r : closed;
    });
}

// ---- recovery ----

// Opens the storage again, for reading or for writing. A file is opened anew
// before its old descriptor is closed, so a refused open (another writer
// holds the file, say) leaves the chunker as it was.
kv_result CKvFileChunker::ReopenStorage(bool readOnly) {
    if (!m_storage.IsFile()) {
        // Memory has nothing to reopen: only the container's view of it changes.
        const std::shared_ptr<IKvStorage> storage = m_storage.GetStorage();
        if (!storage) return KV_ERR_FAILED;
        return m_storage.Initialize(storage, readOnly);
    }
    CKvFileMemoWrapper reopened;
    if (reopened.Initialize(m_storage.GetFileName(), readOnly, true) != KV_OK) {
        m_bHeldByWriter = reopened.IsHeldByWriter();
        return KV_ERR_FAILED;
    }
    m_storage.Finalize();
    m_storage = reopened;
    if (readOnly && m_storage.GetSize(&m_nReadOnlySize) != KV_OK) return KV_ERR_FAILED;
    return KV_OK;
}

// Reads what the scan needs of a chunk at `position` in storage of `total`
// bytes: KV_OK with its header and name when a whole chunk starts there,
// KV_ERR_NOT_FOUND when nothing that can be taken for one does (no magic, a
// length that runs past the end, a name that is not ended by "!"),
// KV_ERR_FAILED when the storage cannot be read.
kv_result CKvFileChunker::ReadScannedChunk(uint64_t position, uint64_t total, SKvChunkHeader& header,
                                           CKvStringA& name) {
    if (position > total || total - position < kChunkHeaderSize) return KV_ERR_NOT_FOUND;
    uint8_t raw[kChunkHeaderSize];
    if (ReadExact(position, raw, sizeof raw) != KV_OK) return KV_ERR_FAILED;
    header = DecodeHeader(raw);
    const uint64_t available = total - position - kChunkHeaderSize;
    if (header.magic != kChunkMagic || header.nameLength > available ||
        header.dataLength > available - header.nameLength)
        return KV_ERR_NOT_FOUND;
    // Only the start of the field is read: a chunk name is short, and the
    // rest of the field is padding.
    const size_t look = static_cast<size_t>(std::min<uint64_t>(header.nameLength, kMaxChunkNameLength + 2));
    m_strNameField.resize(look);
    if (ReadExact(position + kChunkHeaderSize, &m_strNameField[0], look) != KV_OK) return KV_ERR_FAILED;
    const size_t length = strnlen(m_strNameField.c_str(), look);
    const bool cutShort = length == look && look < header.nameLength;
    if (length == 0 || cutShort || m_strNameField[length - 1] != '!') return KV_ERR_NOT_FOUND;
    name = CKvStringA(m_strNameField.c_str(), length);
    return KV_OK;
}

// Walks the storage from the signature to its end, looking for a chunk at
// every page start: a chunk found is entered in the map and the walk goes on
// after it; anything else is passed over one page at a time, so damage in
// one chunk hides none of the chunks after it.
kv_result CKvFileChunker::ScanChunks(KvChunkCallback onChunk, void* userData, KvProgressCallback progress,
                                     uint64_t total) {
    CKvStringA version;
    if (CheckSignature(version) != KV_OK) return KV_ERR_FAILED;
    // Progress is told of every chunk found and of every so many pages passed over.
    constexpr uint64_t kProgressStride = 256 * kPageSize;

    CKvByteArray data;
    uint64_t position = 0;
    while (position < total) {
        SKvChunkHeader header;
        CKvStringA name;
        uint64_t next = position + kPageSize;
        const kv_result found = ReadScannedChunk(position, total, header, name);
        if (found == KV_OK) {
            const uint64_t length = kChunkHeaderSize + header.nameLength + header.dataLength;
            // The data is read only for a callback that wants to see it, and
            // only when it fits the array it is handed over in.
            if (onChunk && header.dataLength <= UINT32_MAX) {
                if (data.SetSize(header.dataLength) != KV_OK) return KV_ERR_OUT_OF_MEMORY;
                if (ReadExact(position + kChunkHeaderSize + header.nameLength, data.GetData(), header.dataLength) !=
                    KV_OK)
                    return KV_ERR_FAILED;
                onChunk(header, name, data, userData);
            }
            // A chunk whose name the map cannot hold was not written by a
            // chunker; it is passed over whole all the same.
            if (IsStorableName(name.View())) m_mapChunks.Set(name.View(), SKvChunkMapMember{position, length});
            next = RoundUpToPage(position + length);
        } else if (found != KV_ERR_NOT_FOUND) {
            return found;
        }
        const bool report = found == KV_OK || next / kProgressStride != position / kProgressStride;
        position = next;
        if (progress && report) {
            const double fraction = total ? static_cast<double>(position) / static_cast<double>(total) : 1.0;
            if (progress(fraction < 1.0 ? fraction : 1.0, userData)) return KV_ERR_CANCELLED;
        }
    }
    return KV_OK;
}

kv_result CKvFileChunker::AddChunksFromCallback(KvChunkCallback onChunk, void* userData) {
    for (int counter = 0;; ++counter) {
        SKvChunkHeader header;
        CKvStringA name;
        name.Format(kAddNewChunksName, counter);
        CKvByteArray data;
        const int answer = onChunk(header, name, data, userData);
        if (answer == KV_ERR_CANCELLED) return KV_OK;
        if (answer != KV_OK) continue;
        const NormalisedName key(name.c_str());
        if (!key.IsValidForWriting() || data.GetSize() > UINT32_MAX) return KV_ERR_INVALID_ARG;
        kv_result r = WriteChunk(data.GetData(), data.GetSize(), nullptr, 0, key.View());
        if (r != KV_OK) return r;
    }
}

kv_result CKvFileChunker::CreateMissingChunkMap(KvChunkCallback onChunk, void* userData,
                                                KvProgressCallback progress) {
    return KvNoThrow([&]() -> kv_result {
        m_bHeldByWriter = false;
        if (!m_storage.IsOpen()) return KV_ERR_FAILED;
        // The file is opened for writing before the scan, so that a writer
        // still at work is seen at once (its lock refuses the open) and none
        // can start while the map is rebuilt.
        kv_result r = ReopenStorage(false);
        if (r != KV_OK) return r;
        r = RebuildChunkMap(onChunk, userData, progress);
        const kv_result reopened = ReopenStorage(true);
        if (r != KV_OK) return r;
        if (reopened != KV_OK) return reopened;
        if (progress) progress(1.0, userData);
        return KV_OK;
    });
}

// Scans the storage, lets the callback add chunks and writes the map after
// the last byte the storage holds, so that nothing in it is cut, not even
// what the scan could not make sense of.
kv_result CKvFileChunker::RebuildChunkMap(KvChunkCallback onChunk, void* userData, KvProgressCallback progress) {
    m_mapChunks.Clear();
    m_nPendingBytes = 0;
    m_strStreamedChunk.Empty();
    uint64_t total = 0;
    if (StorageSize(total) != KV_OK) return KV_ERR_FAILED;
    kv_result r = ScanChunks(onChunk, userData, progress, total);
    if (r != KV_OK) return r;

    m_nAppendPosition = RoundUpToPage(total);
    m_bFinalized = false;
    if (onChunk) {
        r = AddChunksFromCallback(onChunk, userData);
        if (r != KV_OK) return r;
    }
    m_bChunkMapMissing = false;
    r = WriteChunkMap();
    // A repaired file is as durable as one closed by its writer.
    if (r == KV_OK && m_storage.Sync() != KV_OK) r = KV_ERR_FAILED;
    return r;
}

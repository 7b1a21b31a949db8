// The chunk container under every QV8 file: a signature page, named chunks
// each starting on a page boundary, and a chunk map written last that indexes
// them by name. Lives in a file or in a CKvByteArray.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include <string_view>

#include "fileformat/CKvChunkMap.h"
#include "fileformat/CKvFileMemoWrapper.h"
#include "gnr_system/CKvByteArray.h"
#include "gnr_system/CKvString.h"
#include "gnr_system/KvProgress.h"
#include "gnr_system/KvResult.h"

// Every chunk starts at a multiple of this; all writes are whole pages.
constexpr uint64_t kPageSize = 4096;
// First four bytes of every chunk header.
constexpr uint32_t kChunkMagic = 0x0ABECEDA;
// Bytes of SKvChunkHeader on disk: magic, name length, data length.
constexpr uint64_t kChunkHeaderSize = 16;
// Name of the chunk at offset 0. Writers do not enter it in the chunk map;
// a recovery scan does, like every chunk it finds.
constexpr std::string_view kSignatureChunkName = "QV8 FILE SIGNATURE CHUNK NAME01!";
// Bytes of the signature chunk's data: the zero-filled version text.
constexpr uint64_t kSignatureDataSize = 64;
// The version text holds at most this many characters.
constexpr size_t kMaxVersionLength = 63;
// Header, name and version text of the signature chunk.
constexpr uint64_t kSignatureBlockSize = kChunkHeaderSize + 32 + kSignatureDataSize;
// Name of the chunk map chunk, always the last chunk of a finished file.
constexpr std::string_view kChunkMapChunkName = "QV8 FILEMAP SIGNATURE NAME 0001!";
// Written after the map entries and again at the very end of the file, each
// time followed by the 64-bit offset of the map chunk.
constexpr std::string_view kChunkMapSignature = "QV8 CHUNK MAP SIGNATURE 0000001!";
// The last bytes of a finished file: map signature and map chunk offset.
constexpr uint64_t kChunkMapTrailerSize = 32 + 8;
// Longest chunk name the map reader accepts, without its "!".
constexpr size_t kMaxChunkNameLength = 511;
// Names of chunks added by a recovery callback: formatted with a counter.
constexpr const char* kAddNewChunksName = "##ADD_NEW_CHUNKS##%i";

// Chunk header as stored (little-endian on disk).
struct SKvChunkHeader {
    uint32_t magic = 0;       // kChunkMagic
    uint32_t nameLength = 0;  // bytes of the name field: name text plus zero padding
    uint64_t dataLength = 0;  // bytes of data after the name field
};

// Called for every chunk a recovery scan finds, and afterwards to add chunks.
typedef int (*KvChunkCallback)(SKvChunkHeader& header, CKvStringA& name, CKvByteArray& data, void* userData);

class CKvFileChunker {
public:
    using ChunkMap = CKvChunkMap;

    CKvFileChunker();
    // Copies the storage (sharing its file or array), the map and the flags.
    CKvFileChunker(const CKvFileChunker& other);
    CKvFileChunker& operator=(const CKvFileChunker& other);
    // Does not write the map: a writer must call Finalize first.
    virtual ~CKvFileChunker();

    // Opens a file. Read-only: checks the signature (KV_ERR_FAILED when it is not a
    // container), returns its version text in `version` and reads the map
    // (KV_ERR_NOT_FOUND and IsChunkMapMissing() when there is none) unless the chunker
    // already holds one (set by SetMapChunk). Writing a new file:
    // writes the signature with `version`. Appending (`openExisting`): the
    // map is read and new chunks go after the old map; an empty file is
    // started anew; a container without a map answers KV_ERR_NOT_FOUND and accepts no
    // writes until repaired; anything else KV_ERR_FAILED, and the file is not touched.
    // A file opened for writing is locked against other writers until
    // Finalize; one that another writer holds is KV_ERR_FAILED with IsHeldByWriter().
    kv_result Initialize_File(const wchar_t* fileName, bool readOnly, bool openExisting, CKvStringA& version);
    // The same over a byte array, which must outlive the chunker.
    kv_result Initialize_Memory(CKvByteArray& buffer, bool readOnly, bool openExisting, CKvStringA& version);
    // The same over any storage, which is kept as long as the chunker needs it.
    kv_result Initialize_Storage(std::shared_ptr<IKvStorage> storage, bool readOnly, bool openExisting,
                                 CKvStringA& version);

    // Reads through the map: the chunk must start where its map entry says and
    // carry the name the entry gives it, or the read fails with KV_ERR_FAILED (it
    // never goes on to another chunk).
    //
    // Reads the whole data of a chunk ("!" is appended to `name` if missing).
    // KV_ERR_NOT_FOUND for an unknown name, KV_ERR_FAILED for a damaged chunk; `data` is left as it
    // was on failure when the damage is seen before reading the data.
    kv_result GetChunk(CKvByteArray& data, const char* name);
    // Reads `size` bytes at `offset` into the data of a chunk. A non-zero
    // `header.magic` vouches that `header` already holds this chunk's header,
    // which is then not read again; otherwise it is read into `header`.
    // KV_ERR_FAILED when offset + size passes the data length (nothing is read).
    kv_result GetChunkPart(SKvChunkHeader& header, CKvByteArray& data, uint64_t offset, uint32_t size, const char* name);
    // The same into the caller's `buffer` of at least `size` bytes, with no
    // copy in between; the buffer is untouched on failure before the read.
    kv_result ReadChunkPart(SKvChunkHeader& header, void* buffer, uint64_t offset, uint64_t size, const char* name);
    // For parts that start on a page boundary, as the second part of a
    // two-part chunk does (a frame's pixels): one look-up in the map, and the
    // header read in the same storage read as the part, checked against the
    // layout the writer gives such a chunk. `header` receives it. Any other
    // layout falls back to reading as ReadChunkPart does. A chunk the map says
    // is too short is refused before `buffer` is touched; one whose header
    // disagrees with its map entry, or that is not the chunk named, may have
    // written `buffer` before it is refused.
    kv_result ReadAlignedPart(SKvChunkHeader& header, void* buffer, uint64_t offset, uint64_t size, const char* name);
    // The same for all data from `offset` to the end of the chunk: `data`
    // grows to hold it (it never shrinks) and `size` gets its length. The
    // length is taken from the map entry before the read.
    kv_result ReadAlignedRest(SKvChunkHeader& header, std::vector<uint8_t>& data, uint64_t offset, uint64_t& size,
                              const char* name);
    // The header of a chunk (its data length, say): KV_ERR_NOT_FOUND unknown, KV_ERR_FAILED damaged,
    // which includes data that would run past the end of the storage.
    kv_result GetChunkHeader(SKvChunkHeader& header, const char* name);
    // True when the map holds exactly `name`; no "!" is appended here.
    bool ExistChunk(const char* name) const;
    // The name after `after` in ascending order (the first with an empty or
    // null `after`); KV_ERR_NOT_FOUND at the end or when `after` is not in the map.
    kv_result GetNextChunkID(CKvStringA& name, const char* after) const;

    // Write a complete chunk at the end of the storage and point the map at
    // it (an older chunk of the same name stays in the file as dead space).
    // Names may not contain "!" except as their last character, nor be longer
    // than kMaxChunkNameLength: KV_ERR_INVALID_ARG.
    kv_result SetChunk(const void* data, uint32_t size, const char* name);
    kv_result SetChunk(const CKvByteArray& data, const char* name);
    // Two parts: the first ends on a page boundary, so the second starts on
    // one and is written straight from the caller's buffer.
    kv_result SetChunk(const void* data1, uint32_t size1, const void* data2, uint32_t size2, const char* name);
    // Streams one chunk in several calls. The first call for a name writes
    // the header for size1 + restSize data bytes and data1; data2 of this and
    // later calls is appended; `flush` writes the last partial page and ends
    // the chunk. The parts must add up to restSize.
    kv_result SetChunkPart(const void* data1, uint32_t size1, const void* data2, uint32_t size2, uint64_t restSize,
                           bool flush, const char* name);
    // Makes the storage at least `size` bytes long; the position is kept.
    kv_result Reserve(uint64_t size);
    // Replaces this map with a copy of another chunker's.
    kv_result SetMapChunk(const CKvFileChunker* other);
    // Rebuilds the map of a container that has none by scanning it to its
    // end for chunks at page starts (what cannot be read as a chunk is passed
    // over), writes the map after the last byte of the storage, so nothing in
    // it is cut, and reopens the storage read-only. `onChunk` sees every chunk
    // found whose data fits a CKvByteArray, then may add chunks (see
    // kAddNewChunksName). KV_ERR_CANCELLED when `progress` cancels (nothing is written),
    // KV_ERR_FAILED when the storage is not a container or cannot be written,
    // which includes a file that a writer still holds (IsHeldByWriter()).
    kv_result CreateMissingChunkMap(KvChunkCallback onChunk, void* userData, KvProgressCallback progress);
    // Writes the map when the storage is writable and not yet finalized,
    // syncs the storage, then closes it. Answers the error of a failed map
    // write, KV_ERR_FAILED for a failed sync. The storage is closed either way.
    kv_result Finalize();

    const ChunkMap& GetChunkMap() const { return m_mapChunks; }
    bool IsChunkMapMissing() const { return m_bChunkMapMissing; }
    bool IsFinalized() const { return m_bFinalized; }
    // True when the file could not be opened for writing, by Initialize_File or
    // by CreateMissingChunkMap, because another writer holds it.
    bool IsHeldByWriter() const { return m_bHeldByWriter; }
    CKvFileMemoWrapper& Storage() { return m_storage; }

private:
    void ResetState();
    kv_result OpenCommon(bool readOnly, bool openExisting, CKvStringA& version);
    kv_result FinishOpening(kv_result result);
    kv_result OpenForAppending(CKvStringA& version);
    kv_result CheckSignature(CKvStringA& version);
    kv_result WriteSignature(const CKvStringA& version);
    kv_result ReadChunkMap();
    kv_result WriteChunkMap();
    kv_result RebuildChunkMap(KvChunkCallback onChunk, void* userData, KvProgressCallback progress);
    kv_result ReadScannedChunk(uint64_t position, uint64_t total, SKvChunkHeader& header, CKvStringA& name);
    kv_result ScanChunks(KvChunkCallback onChunk, void* userData, KvProgressCallback progress, uint64_t total);
    kv_result AddChunksFromCallback(KvChunkCallback onChunk, void* userData);

    kv_result StorageSize(uint64_t& size);
    kv_result ReadExact(uint64_t position, void* buffer, uint64_t size);
    kv_result WriteExact(uint64_t position, const void* buffer, uint64_t size);
    // What one read of a chunk's head tells about the chunk a map entry names.
    enum class EHeadRead { AsWritten, OtherLayout, WrongChunk };

    kv_result ReadHeader(SKvChunkHeader& header, uint64_t& position, bool resynchronise);
    kv_result ReadNamedHeader(SKvChunkHeader& header, uint64_t position, std::string_view name);
    kv_result ResynchroniseHeader(SKvChunkHeader& header, uint64_t& position);
    kv_result Resynchronise(uint64_t from, uint64_t& found);
    kv_result ReadChunkAt(uint64_t& position, SKvChunkHeader& header, CKvStringA& name, CKvByteArray* data,
                          bool resynchronise);
    kv_result FindChunk(const char* name, SKvChunkMapMember& member) const;
    kv_result LocatePart(SKvChunkHeader& header, uint64_t offset, uint64_t size, const char* name, uint64_t& at);
    kv_result LocateInChunk(SKvChunkHeader& header, uint64_t position, uint64_t offset, uint64_t size, uint64_t& at,
                            std::string_view name);
    EHeadRead ReadHeadAndPart(uint64_t position, std::string_view name, uint64_t offset, void* buffer, uint64_t size,
                              SKvChunkHeader& header, uint64_t& got);
    kv_result CheckWritable(const char* name) const;
    kv_result WriteChunk(const void* data1, uint64_t size1, const void* data2, uint64_t size2, std::string_view name);
    kv_result WriteChunkStart(const void* data1, uint64_t size1, bool moreData, uint64_t dataLength,
                              std::string_view name, uint64_t& position);
    uint64_t AssembleHead(const void* data1, uint64_t size1, bool moreData, uint64_t dataLength,
                          std::string_view name, uint64_t& firstInHead);
    kv_result FlushPendingPage();
    kv_result ReopenStorage(bool readOnly);

    ChunkMap m_mapChunks;
    CKvFileMemoWrapper m_storage;
    bool m_bFinalized = false;
    CKvByteArray m_aPage;              // scratch page: the unwritten tail of a streamed chunk, zero beyond it
    bool m_bChunkMapMissing = false;
    uint32_t m_nPendingBytes = 0;      // streamed bytes waiting in m_aPage
    CKvStringA m_strStreamedChunk;     // the chunk SetChunkPart is filling
    CKvByteArray m_aAssembly;          // header, name and first data pages of a chunk being written
    std::string m_strNameField;        // name field of the chunk being read
    uint64_t m_nReadOnlySize = 0;      // size of read-only file storage, taken when it was opened
    uint64_t m_nAppendPosition = 0;    // where the next chunk is written: the end of the chunks
    bool m_bHeldByWriter = false;      // the last open for writing was refused: another writer holds the file
};

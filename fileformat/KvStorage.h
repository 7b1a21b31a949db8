// Positional storage under the chunk container: bytes read and written at
// explicit offsets, with no position of its own, over a file descriptor or
// over a CKvByteArray in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "gnr_system/CKvByteArray.h"
#include "gnr_system/KvResult.h"

// One piece of a gathered write.
struct SKvIoPart {
    const void* data;
    uint64_t size;
};

// One piece of a scattered read.
struct SKvIoSpan {
    void* data;
    uint64_t size;
};

class IKvStorage {
public:
    // Most pieces one ReadAt or WriteAt takes: a chunk is written as header
    // pages, two data parts and a tail page; a frame is read as head and data.
    static constexpr size_t kMaxParts = 8;

    virtual ~IKvStorage() = default;

    // Fills `count` spans one after the other with the bytes from `position`
    // on. `*read` gets the bytes read, short only at the end of the storage;
    // KV_ERR_FAILED for an I/O error, KV_ERR_INVALID_ARG for more than kMaxParts spans.
    virtual kv_result ReadAt(uint64_t position, const SKvIoSpan* spans, size_t count, uint64_t* read) = 0;
    // Writes `count` parts one after the other from `position` on, extending
    // the storage as needed (a gap reads as zeros). KV_ERR_FAILED unless all was written;
    // `*written` (if given) gets the bytes that were.
    virtual kv_result WriteAt(uint64_t position, const SKvIoPart* parts, size_t count, uint64_t* written) = 0;
    virtual kv_result Size(uint64_t* size) = 0;
    // Cuts or extends (with zeros) the storage to `size` bytes.
    virtual kv_result Truncate(uint64_t size) = 0;
    // Makes written data durable: once it returns KV_OK the bytes survive a
    // power cut. KV_ERR_FAILED when the system could not write them out.
    virtual kv_result Sync() = 0;
    // Releases the bytes; every operation afterwards fails with KV_ERR_FAILED.
    virtual kv_result Close() = 0;
    virtual bool IsOpen() const = 0;

    // One span.
    kv_result ReadAt(uint64_t position, void* buffer, uint64_t size, uint64_t* read) {
        const SKvIoSpan span{buffer, size};
        return ReadAt(position, &span, 1, read);
    }
    // One part.
    kv_result WriteAt(uint64_t position, const void* buffer, uint64_t size, uint64_t* written = nullptr) {
        const SKvIoPart part{buffer, size};
        return WriteAt(position, &part, 1, written);
    }
};

// A file on disk through its POSIX descriptor: preadv and pwritev, nothing
// buffered, so reads always see what was written before them.
class CKvPosixStorage final : public IKvStorage {
public:
    // How Open treats the file.
    enum class EKvOpenMode {
        ReadOnly,       // must exist; writes are refused
        UpdateExisting, // must exist; opened for reading and writing
        UpdateOrCreate, // created when missing (never truncated); reading and writing
    };

    CKvPosixStorage() = default;
    CKvPosixStorage(const CKvPosixStorage&) = delete;
    CKvPosixStorage& operator=(const CKvPosixStorage&) = delete;
    ~CKvPosixStorage() override;

    // `path` is the file name as the system takes it (UTF-8). KV_ERR_FAILED when the
    // file cannot be opened. Opened for update, the file is locked against
    // other writers (an advisory exclusive lock, held until Close): when one
    // already holds it the open fails with KV_ERR_FAILED and IsHeldByWriter()
    // says so. Readers take no lock.
    kv_result Open(const char* path, EKvOpenMode mode);
    // True when the last Open failed because another writer holds the file.
    bool IsHeldByWriter() const { return m_bHeldByWriter; }

    kv_result ReadAt(uint64_t position, const SKvIoSpan* spans, size_t count, uint64_t* read) override;
    kv_result WriteAt(uint64_t position, const SKvIoPart* parts, size_t count, uint64_t* written) override;
    // KV_ERR_FILE_SIZE when fstat fails.
    kv_result Size(uint64_t* size) override;
    // KV_ERR_SET_EOF when ftruncate fails.
    kv_result Truncate(uint64_t size) override;
    // fdatasync of the file; for a file this storage created, the first
    // successful Sync also syncs the parent directory, so that the new name
    // survives along with the bytes. KV_ERR_FAILED when either fails.
    kv_result Sync() override;
    // KV_ERR_FAILED when close fails; the descriptor is given up all the same.
    kv_result Close() override;
    bool IsOpen() const override { return m_nDescriptor >= 0; }
    int Descriptor() const { return m_nDescriptor; }

    using IKvStorage::ReadAt;
    using IKvStorage::WriteAt;

private:
    int m_nDescriptor = -1;
    bool m_bReadOnly = false;
    bool m_bHeldByWriter = false;
    std::string m_strPath;           // as given to Open: its directory is synced for a new file
    bool m_bDirectoryPending = false; // created by Open and its directory entry not yet synced
};

// A CKvByteArray that behaves like a file: writes land at their position and
// extend it, a gap reads as zeros. The array is not owned and must outlive
// the storage; its own current offset is left alone.
class CKvMemoryStorage final : public IKvStorage {
public:
    explicit CKvMemoryStorage(CKvByteArray& array) : m_pArray(&array) {}

    kv_result ReadAt(uint64_t position, const SKvIoSpan* spans, size_t count, uint64_t* read) override;
    kv_result WriteAt(uint64_t position, const SKvIoPart* parts, size_t count, uint64_t* written) override;
    kv_result Size(uint64_t* size) override;
    kv_result Truncate(uint64_t size) override;
    kv_result Sync() override { return m_pArray ? KV_OK : KV_ERR_FAILED; }
    kv_result Close() override {
        m_pArray = nullptr;
        return KV_OK;
    }
    bool IsOpen() const override { return m_pArray != nullptr; }

    using IKvStorage::ReadAt;
    using IKvStorage::WriteAt;

private:
    // Makes the array at least `end` bytes long, zeros in the new bytes.
    kv_result GrowTo(uint64_t end);

    CKvByteArray* m_pArray;
};

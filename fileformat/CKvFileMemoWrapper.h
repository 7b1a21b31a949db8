// The storage of the chunk container as one object: a file on disk or a
// CKvByteArray in memory behind a positional IKvStorage, with the stream-like
// read, write, seek and position operations kept on top of it.
#pragma once

#include <cstdint>
#include <memory>

#include "fileformat/KvStorage.h"
#include "gnr_system/CKvByteArray.h"
#include "gnr_system/CKvString.h"
#include "gnr_system/KvFile.h"
#include "gnr_system/KvResult.h"

class CKvFileMemoWrapper {
public:
    static constexpr size_t kMaxFileName = 4096;         // wide characters kept of a file name
    static constexpr uint64_t kWritePiece = 0x2000000;   // 32 MiB: retry unit of a failed large write

    CKvFileMemoWrapper();

    // File storage. Read-only opens the file for reading; for writing it is
    // opened for update: it must exist with `openExisting`, otherwise it is
    // created when missing (never truncated here), and locked against other
    // writers while it is open. KV_ERR_FAILED when it cannot be opened, with
    // IsHeldByWriter() true when another writer holds it.
    kv_result Initialize(const wchar_t* fileName, bool readOnly, bool openExisting);
    // Memory storage over the caller's array, which must outlive the wrapper.
    kv_result Initialize(CKvByteArray& buffer, bool readOnly, bool openExisting);
    // Any other storage, shared with whoever else holds it; behaves as memory
    // storage does (short reads are not failures, SetEOF only cuts).
    kv_result Initialize(std::shared_ptr<IKvStorage> storage, bool readOnly);

    const wchar_t* GetFileName() const { return m_szFileName; }
    bool GetReadOnly() const { return m_bReadOnly; }
    bool IsFile() const { return m_nIsFile != 0; }
    bool IsOpen() const { return m_pStorage && m_pStorage->IsOpen(); }
    // True when the last file Initialize failed because another writer holds the file.
    bool IsHeldByWriter() const { return m_bHeldByWriter; }
    // The storage itself, shared by copies of this wrapper; null before
    // Initialize and after a memory storage was finalized.
    const std::shared_ptr<IKvStorage>& GetStorage() const { return m_pStorage; }
    // The last diagnostic text of opening, closing or a refused write. The
    // texts are kept for whoever asks; nothing prints them.
    const CKvStringW& GetLastDiagnostic() const { return m_strDiagnostic; }

    // Reads up to `size` bytes at the position and moves it past them; `*read`
    // gets the count. KV_ERR_INVALID_ARG for a zero size or null pointers; a file read that
    // comes up short is KV_ERR_FAILED (a memory read simply reports fewer bytes).
    kv_result ReadFile(void* buffer, uint64_t size, uint64_t* read, _KvIOASYNCINFO* async = nullptr);
    // Writes at the position, extending the storage when needed, and moves
    // the position past the bytes. A zero size is 0 at once; a null buffer
    // KV_ERR_INVALID_ARG; nothing written KV_ERR_FAILED; a read-only file KV_ERR_FAILED.
    kv_result WriteFile(const void* buffer, uint64_t size, uint64_t* written, _KvIOASYNCINFO* async = nullptr);
    // Origin 0 from the start, 1 from the current position, 2 from the end.
    // A file takes any position at or after 0 (origin 2 adds `offset` to the
    // size), else KV_ERR_SEEK_FILE. Memory refuses positions outside [0, size] for
    // origins 1 and 2 (origin 2 goes back `offset` bytes from the size) and
    // other origins with KV_ERR_FAILED. A refused seek keeps the position.
    kv_result SeekFile(int64_t offset, uint32_t origin);
    kv_result FilePosition(uint64_t* position);
    // Cuts a file at the position (KV_ERR_SET_EOF on failure); cuts memory there when
    // the position is inside it. Nothing to cut is 0.
    kv_result SetEOF();
    // Closes the file (KV_ERR_FAILED when that fails; it is given up all the same) or
    // forgets the array. Copies of this wrapper see a file closed too.
    kv_result Finalize();

    // Positional access for the container; the position above is neither
    // used nor moved. `*read` gets the count, short only at the end.
    kv_result ReadAt(uint64_t position, void* buffer, uint64_t size, uint64_t* read);
    kv_result ReadAt(uint64_t position, const SKvIoSpan* spans, size_t count, uint64_t* read);
    // KV_ERR_FAILED unless everything was written.
    kv_result WriteAt(uint64_t position, const SKvIoPart* parts, size_t count);
    // Current size of the storage in bytes.
    kv_result GetSize(uint64_t* size);
    // Cuts or extends the storage to `size` bytes.
    kv_result Truncate(uint64_t size);
    kv_result Sync();

private:
    void Reset();
    // The storage to write to, or null (with the diagnostic) when it must
    // not be written.
    IKvStorage* WritableStorage();
    kv_result SeekInFile(int64_t offset, uint32_t origin);
    kv_result SeekInMemory(int64_t offset, uint32_t origin);

    int32_t m_nIsFile = 0;
    wchar_t m_szFileName[kMaxFileName + 1];
    std::shared_ptr<IKvStorage> m_pStorage;
    CKvByteArray* m_pByteArray = nullptr;  // the caller's array of memory storage
    bool m_bReadOnly = false;
    bool m_bHeldByWriter = false;
    uint64_t m_nPosition = 0;              // where ReadFile and WriteFile work
    CKvStringW m_strDiagnostic;
};

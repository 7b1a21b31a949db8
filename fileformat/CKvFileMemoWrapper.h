// One set of read, write, seek and position operations over two kinds of
// storage: a file on disk or a CKvByteArray in memory. The chunk container
// reaches its bytes only through this class.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>

#include "gnr_system/CKvByteArray.h"
#include "gnr_system/KvFile.h"
#include "gnr_system/KvResult.h"

// One piece of a gathered write.
struct SKvIoPart {
    const void* data;
    uint64_t size;
};

class CKvFileMemoWrapper {
public:
    static constexpr size_t kMaxFileName = 4096;         // wide characters kept of a file name
    static constexpr uint64_t kWritePiece = 0x2000000;   // 32 MiB: retry unit of a failed large write
    static constexpr uint64_t kReadPiece = 0xFFFFFFFF;   // largest single fread

    CKvFileMemoWrapper();

    // File storage. Read-only opens with fopen "rb"; for writing the file is
    // opened for update: it must exist with `openExisting`, otherwise it is
    // created when missing (never truncated here). -9 when it cannot be opened.
    kv_result Initialize(const wchar_t* fileName, bool readOnly, bool openExisting);
    // Memory storage over the caller's array, which must outlive the wrapper.
    kv_result Initialize(CKvByteArray& buffer, bool readOnly, bool openExisting);

    const wchar_t* GetFileName() const { return m_szFileName; }
    bool GetReadOnly() const { return m_bReadOnly; }
    bool IsFile() const { return m_nIsFile != 0; }
    bool IsOpen() const { return IsFile() ? Stream() != nullptr : m_pByteArray != nullptr; }
    FILE* Stream() const { return m_pFile ? m_pFile->stream : nullptr; }

    // Reads up to `size` bytes at the position; `*read` gets the count. -4 for
    // a zero size or null pointers; a file read that comes up short is -9 (a
    // memory read simply reports fewer bytes).
    kv_result ReadFile(void* buffer, uint64_t size, uint64_t* read, _KvIOASYNCINFO* async = nullptr);
    // Writes at the position, extending the storage when needed. A zero size
    // is 0 at once; a null buffer -4; nothing written -9.
    kv_result WriteFile(const void* buffer, uint64_t size, uint64_t* written, _KvIOASYNCINFO* async = nullptr);
    // Origin 0 from the start, 1 from the current position, 2 back from the
    // end (memory: size - offset). Memory refuses positions outside [0, size]
    // for origins 1 and 2 with -9 and keeps the position.
    kv_result SeekFile(int64_t offset, uint32_t origin);
    // Reads up to `size` bytes at `position` without using the stream's
    // position: one pread for a file (stdio output not yet written is
    // flushed first, and buffered input dropped). `*read` gets the count,
    // short only at the end of the storage; -9 for an I/O error.
    kv_result ReadAt(uint64_t position, void* buffer, uint64_t size, uint64_t* read);
    // Writes `count` parts one after the other at `position`, for a file in
    // one pwritev where the system allows. The stream position is not
    // defined afterwards: seek before the next ReadFile or WriteFile.
    // -9 when not everything was written.
    kv_result WriteAt(uint64_t position, const SKvIoPart* parts, size_t count);
    kv_result FilePosition(uint64_t* position);
    // Current size of the storage in bytes.
    kv_result GetSize(uint64_t* size);
    // Cuts the storage at the current position.
    kv_result SetEOF();
    // Closes the file (-9 when fclose fails, the stream is kept) or forgets
    // the array. Copies of this wrapper see the stream closed too.
    kv_result Finalize();

private:
    // Shared by copies of a wrapper: closing through one closes it for all,
    // and the last copy closes a stream nobody finalized.
    struct SharedStream {
        FILE* stream = nullptr;
        ~SharedStream() {
            if (stream) std::fclose(stream);
        }
    };

    int32_t m_nIsFile = 0;
    wchar_t m_szFileName[kMaxFileName + 1];
    std::shared_ptr<SharedStream> m_pFile;
    CKvByteArray* m_pByteArray = nullptr;
    bool m_bReadOnly = false;
};

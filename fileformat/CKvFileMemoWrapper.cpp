// Storage of the chunk container: a position kept here over a positional
// storage, so that files and byte arrays answer the same operations alike.
#include "fileformat/CKvFileMemoWrapper.h"

#include <cwchar>

namespace {

// Diagnostic texts of opening and closing.
constexpr const wchar_t* kWriteRefused = L"CKvFileChunker::getFileHandle_WRITE() : File opened but not for write!";
constexpr const wchar_t* kWriteOpenFailed = L"CKvFileChunker::getFileHandle_WRITE() : Error KV_OpenFile(%ls) returned: %i";
constexpr const wchar_t* kWriteOpened = L"CKvFileChunker::getFileHandle_WRITE() : File opened KV_OpenFile(%ls)";
constexpr const wchar_t* kReadOpenFailed = L"CKvFileMemoWrapper::getFileHandle_READ() : Error KV_OpenFile(%ls) returned: %i";
constexpr const wchar_t* kReadOpened = L"CKvFileMemoWrapper::getFileHandle_READ() : File opened KV_OpenFile(%ls)";
constexpr const wchar_t* kClosing = L"CKvFileMemoWrapper::CloseFile()";

}  // namespace

CKvFileMemoWrapper::CKvFileMemoWrapper() { m_szFileName[0] = L'\0'; }

void CKvFileMemoWrapper::Reset() {
    m_szFileName[0] = L'\0';
    m_pStorage.reset();
    m_pByteArray = nullptr;
    m_nPosition = 0;
    m_bHeldByWriter = false;
}

kv_result CKvFileMemoWrapper::Initialize(const wchar_t* fileName, bool readOnly, bool openExisting) {
    if (!fileName) return KV_ERR_INVALID_ARG;
    Reset();
    m_nIsFile = 1;
    std::wcsncpy(m_szFileName, fileName, kMaxFileName);
    m_szFileName[kMaxFileName] = L'\0';
    m_bReadOnly = readOnly;

    using Mode = CKvPosixStorage::EKvOpenMode;
    const Mode mode = readOnly ? Mode::ReadOnly : openExisting ? Mode::UpdateExisting : Mode::UpdateOrCreate;
    auto file = std::make_shared<CKvPosixStorage>();
    // The name takes the same UTF-8 form for reading and for writing, so a
    // file created by a writer is found again by a reader.
    const kv_result opened = file->Open(CKvStringUtils::WtoUTF8(m_szFileName).c_str(), mode);
    if (opened != KV_OK) {
        m_bHeldByWriter = file->IsHeldByWriter();
        m_strDiagnostic.Format(readOnly ? kReadOpenFailed : kWriteOpenFailed, m_szFileName, KV_ERR_OPEN_FILE);
        return KV_ERR_FAILED;
    }
    m_strDiagnostic.Format(readOnly ? kReadOpened : kWriteOpened, m_szFileName);
    m_pStorage = std::move(file);
    return KV_OK;
}

kv_result CKvFileMemoWrapper::Initialize(CKvByteArray& buffer, bool readOnly, bool /*openExisting*/) {
    Initialize(std::make_shared<CKvMemoryStorage>(buffer), readOnly);
    m_pByteArray = &buffer;
    return KV_OK;
}

kv_result CKvFileMemoWrapper::Initialize(std::shared_ptr<IKvStorage> storage, bool readOnly) {
    Reset();
    m_nIsFile = 0;
    m_bReadOnly = readOnly;
    m_pStorage = std::move(storage);
    return m_pStorage ? KV_OK : KV_ERR_INVALID_ARG;
}

IKvStorage* CKvFileMemoWrapper::WritableStorage() {
    if (!m_pStorage) return nullptr;
    // Only a file knows read-only: a read-only array still takes writes, and
    // only the container leaves it alone.
    if (IsFile() && m_bReadOnly) {
        m_strDiagnostic = kWriteRefused;
        return nullptr;
    }
    return m_pStorage.get();
}

// ---- stream-like operations ----

kv_result CKvFileMemoWrapper::ReadFile(void* buffer, uint64_t size, uint64_t* read, _KvIOASYNCINFO*) {
    if (size == 0 || !buffer || !read) return KV_ERR_INVALID_ARG;
    *read = 0;
    if (!m_pStorage) return KV_ERR_FAILED;
    const kv_result r = m_pStorage->ReadAt(m_nPosition, buffer, size, read);
    m_nPosition += *read;
    if (r != KV_OK) return KV_ERR_FAILED;
    return IsFile() && *read != size ? KV_ERR_FAILED : KV_OK;
}

kv_result CKvFileMemoWrapper::WriteFile(const void* buffer, uint64_t size, uint64_t* written, _KvIOASYNCINFO*) {
    if (size == 0) return KV_OK;
    if (!buffer) return KV_ERR_INVALID_ARG;
    IKvStorage* storage = WritableStorage();
    if (!storage) return KV_ERR_FAILED;
    uint64_t count = 0;
    // As with the file layer, a write that moved any bytes counts as done;
    // the count tells the caller how many.
    if (storage->WriteAt(m_nPosition, buffer, size, &count) == KV_OK || count > 0) {
        m_nPosition += count;
        if (written) *written = count;
        return KV_OK;
    }
    if (!IsFile() || size <= kWritePiece) return KV_ERR_FAILED;
    // A large write that wrote nothing is retried in pieces.
    const auto* in = static_cast<const uint8_t*>(buffer);
    uint64_t done = 0;
    kv_result r = KV_OK;
    while (done < size) {
        const uint64_t piece = size - done < kWritePiece ? size - done : kWritePiece;
        uint64_t n = 0;
        storage->WriteAt(m_nPosition + done, in + done, piece, &n);
        done += n;
        if (n == 0) {
            r = KV_ERR_FAILED;
            break;
        }
    }
    m_nPosition += done;
    if (written) *written = done;
    return r;
}

kv_result CKvFileMemoWrapper::SeekFile(int64_t offset, uint32_t origin) {
    if (!m_pStorage) return KV_ERR_FAILED;
    return IsFile() ? SeekInFile(offset, origin) : SeekInMemory(offset, origin);
}

// A file, like a stream, takes any position from 0 on, also past its end.
kv_result CKvFileMemoWrapper::SeekInFile(int64_t offset, uint32_t origin) {
    int64_t base = 0;
    if (origin == 2) {
        uint64_t size = 0;
        if (m_pStorage->Size(&size) != KV_OK || size > static_cast<uint64_t>(INT64_MAX)) return KV_ERR_SEEK_FILE;
        base = static_cast<int64_t>(size);
    } else if (origin != 0) {
        if (m_nPosition > static_cast<uint64_t>(INT64_MAX)) return KV_ERR_SEEK_FILE;
        base = static_cast<int64_t>(m_nPosition);
    }
    int64_t target = 0;
    if (__builtin_add_overflow(base, offset, &target) || target < 0) return KV_ERR_SEEK_FILE;
    m_nPosition = static_cast<uint64_t>(target);
    return KV_OK;
}

kv_result CKvFileMemoWrapper::SeekInMemory(int64_t offset, uint32_t origin) {
    uint64_t size = 0;
    if (m_pStorage->Size(&size) != KV_OK) return KV_ERR_FAILED;
    const uint64_t pos = m_nPosition;
    uint64_t target;
    switch (origin) {
    case 0:
        if (offset < 0) return KV_ERR_FAILED;
        target = static_cast<uint64_t>(offset);
        break;
    case 1:
        if (offset < 0) {
            const uint64_t back = static_cast<uint64_t>(-(offset + 1)) + 1;
            if (back > pos) return KV_ERR_FAILED;
            target = pos - back;
        } else {
            if (pos > size || static_cast<uint64_t>(offset) > size - pos) return KV_ERR_FAILED;
            target = pos + static_cast<uint64_t>(offset);
        }
        if (target > size) return KV_ERR_FAILED;
        break;
    case 2:
        if (offset < 0 || static_cast<uint64_t>(offset) > size) return KV_ERR_FAILED;
        target = size - static_cast<uint64_t>(offset);
        break;
    default:
        return KV_ERR_FAILED;
    }
    m_nPosition = target;
    return KV_OK;
}

kv_result CKvFileMemoWrapper::FilePosition(uint64_t* position) {
    if (!position) return KV_ERR_INVALID_ARG;
    if (!m_pStorage) return KV_ERR_FAILED;
    *position = m_nPosition;
    return KV_OK;
}

kv_result CKvFileMemoWrapper::SetEOF() {
    if (!m_pStorage || !m_pStorage->IsOpen()) return KV_OK;
    if (IsFile()) return m_pStorage->Truncate(m_nPosition);
    uint64_t size = 0;
    if (m_pStorage->Size(&size) == KV_OK && m_nPosition < size) return m_pStorage->Truncate(m_nPosition);
    return KV_OK;
}

kv_result CKvFileMemoWrapper::Finalize() {
    if (!IsFile()) {
        // Forgets the array; copies keep theirs, as they kept the pointer.
        m_pStorage.reset();
        m_pByteArray = nullptr;
        return KV_OK;
    }
    if (!m_pStorage || !m_pStorage->IsOpen()) return KV_OK;
    m_strDiagnostic = kClosing;
    return m_pStorage->Close() == KV_OK ? KV_OK : KV_ERR_FAILED;
}

// ---- positional operations ----

kv_result CKvFileMemoWrapper::ReadAt(uint64_t position, void* buffer, uint64_t size, uint64_t* read) {
    const SKvIoSpan span{buffer, size};
    return ReadAt(position, &span, 1, read);
}

kv_result CKvFileMemoWrapper::ReadAt(uint64_t position, const SKvIoSpan* spans, size_t count, uint64_t* read) {
    if (!read) return KV_ERR_INVALID_ARG;
    *read = 0;
    if (!m_pStorage) return KV_ERR_FAILED;
    return m_pStorage->ReadAt(position, spans, count, read);
}

kv_result CKvFileMemoWrapper::WriteAt(uint64_t position, const SKvIoPart* parts, size_t count) {
    IKvStorage* storage = WritableStorage();
    if (!storage) return KV_ERR_FAILED;
    return storage->WriteAt(position, parts, count, nullptr);
}

kv_result CKvFileMemoWrapper::GetSize(uint64_t* size) {
    if (!size) return KV_ERR_INVALID_ARG;
    return m_pStorage ? m_pStorage->Size(size) : KV_ERR_FAILED;
}

// A read-only file is not refused here: its descriptor refuses the cut.
kv_result CKvFileMemoWrapper::Truncate(uint64_t size) { return m_pStorage ? m_pStorage->Truncate(size) : KV_ERR_FAILED; }

kv_result CKvFileMemoWrapper::Sync() { return m_pStorage ? m_pStorage->Sync() : KV_ERR_FAILED; }

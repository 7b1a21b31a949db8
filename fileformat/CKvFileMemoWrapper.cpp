// Storage of the chunk container: a stdio stream, or a byte array in memory
// that behaves like a file (writes at the position, extends it, can be cut).
#include "fileformat/CKvFileMemoWrapper.h"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <cwchar>

#include "gnr_system/CKvString.h"

namespace {

// KV_OpenFile flags: open an existing file for update, or create it when missing.
constexpr int kOpenExistingForUpdate = 11;
constexpr int kOpenOrCreateForUpdate = 15;
constexpr int kShareReadWrite = 3;
constexpr int kReservedArgument = -1;

}  // namespace

CKvFileMemoWrapper::CKvFileMemoWrapper() { m_szFileName[0] = L'\0'; }

kv_result CKvFileMemoWrapper::Initialize(const wchar_t* fileName, bool readOnly, bool openExisting) {
    if (!fileName) return KV_ERR_INVALID_ARG;
    m_nIsFile = 1;
    m_pByteArray = nullptr;
    std::wcsncpy(m_szFileName, fileName, kMaxFileName);
    m_szFileName[kMaxFileName] = L'\0';
    m_bReadOnly = readOnly;
    m_pFile.reset();

    FILE* stream = nullptr;
    if (readOnly) {
        // Both conversions of a wide name give its UTF-8 form, so a file
        // created for writing is found again for reading.
        stream = std::fopen(CKvStringA(m_szFileName).c_str(), "rb");
    } else if (KV_OpenFile(m_szFileName, openExisting ? kOpenExistingForUpdate : kOpenOrCreateForUpdate,
                           kShareReadWrite, kReservedArgument, &stream) != KV_OK) {
        stream = nullptr;
    }
    if (!stream) return KV_ERR_FAILED;
    m_pFile = std::make_shared<SharedStream>();
    m_pFile->stream = stream;
    return KV_OK;
}

kv_result CKvFileMemoWrapper::Initialize(CKvByteArray& buffer, bool readOnly, bool /*openExisting*/) {
    m_nIsFile = 0;
    m_szFileName[0] = L'\0';
    m_pFile.reset();
    m_pByteArray = &buffer;
    m_bReadOnly = readOnly;
    return KV_OK;
}

kv_result CKvFileMemoWrapper::ReadFile(void* buffer, uint64_t size, uint64_t* read, _KvIOASYNCINFO*) {
    if (size == 0 || !buffer || !read) return KV_ERR_INVALID_ARG;
    *read = 0;
    if (!IsFile()) {
        if (!m_pByteArray) return KV_ERR_FAILED;
        const uint64_t have = m_pByteArray->GetSize();
        const uint64_t pos = m_pByteArray->GetCurrentOffset();
        if (pos >= have) return KV_OK;
        const uint64_t n = have - pos < size ? have - pos : size;
        std::memcpy(buffer, m_pByteArray->GetData() + pos, static_cast<size_t>(n));
        m_pByteArray->SetCurrentOffset(pos + n);
        *read = n;
        return KV_OK;
    }
    FILE* stream = Stream();
    if (!stream) return KV_ERR_FAILED;
    auto* out = static_cast<uint8_t*>(buffer);
    while (*read < size) {
        const uint64_t left = size - *read;
        const size_t piece = static_cast<size_t>(left < kReadPiece ? left : kReadPiece);
        const size_t got = std::fread(out + *read, 1, piece, stream);
        *read += got;
        if (got != piece) return KV_ERR_FAILED;
    }
    return KV_OK;
}

kv_result CKvFileMemoWrapper::WriteFile(const void* buffer, uint64_t size, uint64_t* written, _KvIOASYNCINFO* async) {
    if (size == 0) return KV_OK;
    if (!buffer) return KV_ERR_INVALID_ARG;
    uint64_t count = 0;
    if (!IsFile()) {
        if (!m_pByteArray) return KV_ERR_FAILED;
        CKvByteArray& a = *m_pByteArray;
        const uint64_t pos = a.GetCurrentOffset();
        if (size > UINT64_MAX - pos) return KV_ERR_FAILED;
        const uint64_t end = pos + size;
        if (end > a.GetAllocated()) {
            // Grow geometrically so that a container written chunk by chunk
            // costs amortised constant time per byte.
            const uint64_t doubled = a.GetAllocated() * 2;
            if (a.Reserve(end > doubled ? end : doubled) != KV_OK && a.Reserve(end) != KV_OK) return KV_ERR_FAILED;
        }
        // Like a file, a write past the end leaves zeros in between.
        if (pos > a.GetSize()) std::memset(a.GetData() + a.GetSize(), 0, static_cast<size_t>(pos - a.GetSize()));
        std::memcpy(a.GetData() + pos, buffer, static_cast<size_t>(size));
        if (end > a.GetSize()) a.SetSize(end);
        a.SetCurrentOffset(end);
        if (written) *written = size;
        return KV_OK;
    }
    FILE* stream = Stream();
    if (!stream) return KV_ERR_FAILED;
    // KV_WriteFile answers non-zero when it wrote something; the count decides.
    if (KV_WriteFile(stream, buffer, size, &count, async) != KV_OK || count > 0) {
        if (written) *written = count;
        return KV_OK;
    }
    if (size <= kWritePiece) return KV_ERR_FAILED;
    // A large write that wrote nothing is retried in pieces.
    const auto* in = static_cast<const uint8_t*>(buffer);
    uint64_t done = 0;
    while (done < size) {
        const uint64_t piece = size - done < kWritePiece ? size - done : kWritePiece;
        uint64_t n = 0;
        KV_WriteFile(stream, in + done, piece, &n, async);
        if (n == 0) {
            if (written) *written = done;
            return KV_ERR_FAILED;
        }
        done += n;
    }
    if (written) *written = done;
    return KV_OK;
}

kv_result CKvFileMemoWrapper::SeekFile(int64_t offset, uint32_t origin) {
    if (IsFile()) {
        FILE* stream = Stream();
        return stream ? KV_SeekFile(stream, offset, origin) : KV_ERR_FAILED;
    }
    if (!m_pByteArray) return KV_ERR_FAILED;
    const uint64_t size = m_pByteArray->GetSize();
    const uint64_t pos = m_pByteArray->GetCurrentOffset();
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
    m_pByteArray->SetCurrentOffset(target);
    return KV_OK;
}

kv_result CKvFileMemoWrapper::ReadAt(uint64_t position, void* buffer, uint64_t size, uint64_t* read) {
    if (!read || (!buffer && size)) return KV_ERR_INVALID_ARG;
    *read = 0;
    if (!IsFile()) {
        if (!m_pByteArray) return KV_ERR_FAILED;
        const uint64_t have = m_pByteArray->GetSize();
        if (position >= have || size == 0) return KV_OK;
        const uint64_t n = std::min(have - position, size);
        std::memcpy(buffer, m_pByteArray->GetData() + position, static_cast<size_t>(n));
        *read = n;
        return KV_OK;
    }
    FILE* stream = Stream();
    if (!stream || position > static_cast<uint64_t>(INT64_MAX)) return KV_ERR_FAILED;
    // The stream may hold bytes written but not yet passed to the system.
    if (!m_bReadOnly && std::fflush(stream) != 0) return KV_ERR_FAILED;
    const int fd = fileno(stream);
    auto* out = static_cast<uint8_t*>(buffer);
    while (*read < size) {
        const size_t piece = static_cast<size_t>(std::min<uint64_t>(size - *read, kReadPiece));
        const ssize_t got = pread(fd, out + *read, piece, static_cast<off_t>(position + *read));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return KV_ERR_FAILED;
        if (got == 0) break;  // the end of the file
        *read += static_cast<uint64_t>(got);
    }
    return KV_OK;
}

kv_result CKvFileMemoWrapper::WriteAt(uint64_t position, const SKvIoPart* parts, size_t count) {
    if (!parts && count) return KV_ERR_INVALID_ARG;
    if (!IsFile()) {
        if (SeekFile(static_cast<int64_t>(std::min<uint64_t>(position, INT64_MAX)), 0) != KV_OK) return KV_ERR_FAILED;
        for (size_t i = 0; i < count; ++i) {
            uint64_t written = 0;
            if (parts[i].size && (WriteFile(parts[i].data, parts[i].size, &written) != KV_OK || written != parts[i].size))
                return KV_ERR_FAILED;
        }
        return KV_OK;
    }
    FILE* stream = Stream();
    if (!stream || m_bReadOnly || position > static_cast<uint64_t>(INT64_MAX)) return KV_ERR_FAILED;
    if (std::fflush(stream) != 0) return KV_ERR_FAILED;
    constexpr size_t kMaxParts = 8;
    if (count > kMaxParts) return KV_ERR_INVALID_ARG;
    iovec vectors[kMaxParts];
    size_t used = 0;
    for (size_t i = 0; i < count; ++i) {
        if (parts[i].size == 0) continue;
        if (parts[i].size > static_cast<uint64_t>(SSIZE_MAX)) return KV_ERR_INVALID_ARG;
        vectors[used++] = iovec{const_cast<void*>(parts[i].data), static_cast<size_t>(parts[i].size)};
    }
    const int fd = fileno(stream);
    iovec* next = vectors;
    uint64_t at = position;
    while (used > 0) {
        const ssize_t done = pwritev(fd, next, static_cast<int>(used), static_cast<off_t>(at));
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return KV_ERR_FAILED;
        at += static_cast<uint64_t>(done);
        // A short write: step over what went out and go on with the rest.
        size_t left = static_cast<size_t>(done);
        while (used > 0 && left >= next->iov_len) {
            left -= next->iov_len;
            ++next;
            --used;
        }
        if (used > 0) {
            next->iov_base = static_cast<uint8_t*>(next->iov_base) + left;
            next->iov_len -= left;
        }
    }
    return KV_OK;
}

kv_result CKvFileMemoWrapper::FilePosition(uint64_t* position) {
    if (!position) return KV_ERR_INVALID_ARG;
    if (IsFile()) {
        FILE* stream = Stream();
        if (!stream) return KV_ERR_FAILED;
        const off_t pos = ftello(stream);
        if (pos < 0) return KV_ERR_FAILED;
        *position = static_cast<uint64_t>(pos);
        return KV_OK;
    }
    if (!m_pByteArray) return KV_ERR_FAILED;
    *position = m_pByteArray->GetCurrentOffset();
    return KV_OK;
}

kv_result CKvFileMemoWrapper::GetSize(uint64_t* size) {
    if (!size) return KV_ERR_INVALID_ARG;
    if (IsFile()) {
        FILE* stream = Stream();
        return stream ? KV_GetFileSize(stream, size) : KV_ERR_FAILED;
    }
    if (!m_pByteArray) return KV_ERR_FAILED;
    *size = m_pByteArray->GetSize();
    return KV_OK;
}

kv_result CKvFileMemoWrapper::SetEOF() {
    if (IsFile()) {
        FILE* stream = Stream();
        return stream ? KV_SetEOF(stream) : KV_OK;
    }
    if (m_pByteArray && m_pByteArray->GetCurrentOffset() < m_pByteArray->GetSize())
        m_pByteArray->SetSize(m_pByteArray->GetCurrentOffset());
    return KV_OK;
}

kv_result CKvFileMemoWrapper::Finalize() {
    if (!IsFile()) {
        m_pByteArray = nullptr;
        return KV_OK;
    }
    if (!m_pFile || !m_pFile->stream) return KV_OK;
    // A stream whose fclose failed is gone all the same; it must not be closed twice.
    const int closed = std::fclose(m_pFile->stream);
    m_pFile->stream = nullptr;
    return closed == 0 ? KV_OK : KV_ERR_FAILED;
}

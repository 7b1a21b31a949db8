// Positional storage over a file descriptor and over a byte array.
#include "fileformat/KvStorage.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

namespace {

// Steps over the first `done` bytes of `vectors`, dropping the pieces that
// are complete and shortening the one that is not.
void Advance(iovec*& vectors, size_t& count, size_t done) {
    while (count > 0 && done >= vectors->iov_len) {
        done -= vectors->iov_len;
        ++vectors;
        --count;
    }
    if (count > 0) {
        vectors->iov_base = static_cast<uint8_t*>(vectors->iov_base) + done;
        vectors->iov_len -= done;
    }
}

// Copies pieces into `vectors`, leaving out the empty ones; false when a
// piece is larger than one system call can move or there are too many.
template <typename Piece>
bool ToVectors(const Piece* pieces, size_t count, iovec* vectors, size_t& used) {
    used = 0;
    if (count > IKvStorage::kMaxParts) return false;
    for (size_t i = 0; i < count; ++i) {
        if (pieces[i].size == 0) continue;
        if (pieces[i].size > static_cast<uint64_t>(SSIZE_MAX) || !pieces[i].data) return false;
        vectors[used++] = iovec{const_cast<void*>(static_cast<const void*>(pieces[i].data)),
                                static_cast<size_t>(pieces[i].size)};
    }
    return true;
}

// Takes the writer's lock on `fd` without waiting; false (and `heldByWriter`
// set) when another open of the file holds it. A file system that cannot
// lock is written all the same, as it was before locks were taken.
bool LockForWriting(int fd, bool& heldByWriter) {
    int r;
    do {
        r = ::flock(fd, LOCK_EX | LOCK_NB);
    } while (r != 0 && errno == EINTR);
    heldByWriter = r != 0 && errno == EWOULDBLOCK;
    return !heldByWriter;
}

int OpenRetrying(const char* path, int flags) {
    int fd;
    do {
        fd = ::open(path, flags, 0666);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// Opens `path`; `created` tells whether this call made the file, which only
// an exclusive create can tell for sure.
int OpenDescriptor(const char* path, int flags, bool& created) {
    created = false;
    if (flags & O_CREAT) {
        const int fd = OpenRetrying(path, flags | O_EXCL);
        if (fd >= 0 || errno != EEXIST) {
            created = fd >= 0;
            return fd;
        }
    }
    return OpenRetrying(path, flags);
}

// The directory that holds `path`: what comes before its last slash.
std::string ParentDirectory(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// fsync of a directory, so that names made in it survive a power cut. A file
// system that cannot sync directories (EINVAL) has nothing more to offer.
bool SyncDirectory(const std::string& directory) {
    const int fd = OpenRetrying(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool synced = ::fsync(fd) == 0 || errno == EINVAL;
    ::close(fd);
    return synced;
}

}  // namespace

// ---- file ----

CKvPosixStorage::~CKvPosixStorage() {
    if (m_nDescriptor >= 0) ::close(m_nDescriptor);
}

kv_result CKvPosixStorage::Open(const char* path, EKvOpenMode mode) {
    Close();
    m_bHeldByWriter = false;
    if (!path) return KV_ERR_INVALID_ARG;
    int flags = O_CLOEXEC;
    switch (mode) {
    case EKvOpenMode::ReadOnly: flags |= O_RDONLY; break;
    case EKvOpenMode::UpdateExisting: flags |= O_RDWR; break;
    case EKvOpenMode::UpdateOrCreate: flags |= O_RDWR | O_CREAT; break;
    }
    bool created = false;
    const int fd = OpenDescriptor(path, flags, created);
    if (fd < 0) return KV_ERR_FAILED;
    if (mode != EKvOpenMode::ReadOnly && !LockForWriting(fd, m_bHeldByWriter)) {
        ::close(fd);
        return KV_ERR_FAILED;
    }
    m_nDescriptor = fd;
    m_bReadOnly = mode == EKvOpenMode::ReadOnly;
    m_strPath = path;
    m_bDirectoryPending = created;
    return KV_OK;
}

kv_result CKvPosixStorage::ReadAt(uint64_t position, const SKvIoSpan* spans, size_t count, uint64_t* read) {
    if (!read || (!spans && count)) return KV_ERR_INVALID_ARG;
    *read = 0;
    iovec vectors[kMaxParts];
    size_t used = 0;
    if (!ToVectors(spans, count, vectors, used)) return KV_ERR_INVALID_ARG;
    if (m_nDescriptor < 0 || position > static_cast<uint64_t>(INT64_MAX)) return KV_ERR_FAILED;
    iovec* next = vectors;
    while (used > 0) {
        const ssize_t got = ::preadv(m_nDescriptor, next, static_cast<int>(used), static_cast<off_t>(position + *read));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return KV_ERR_FAILED;
        if (got == 0) break;  // the end of the file
        *read += static_cast<uint64_t>(got);
        Advance(next, used, static_cast<size_t>(got));
    }
    return KV_OK;
}

kv_result CKvPosixStorage::WriteAt(uint64_t position, const SKvIoPart* parts, size_t count, uint64_t* written) {
    if (written) *written = 0;
    if (!parts && count) return KV_ERR_INVALID_ARG;
    iovec vectors[kMaxParts];
    size_t used = 0;
    if (!ToVectors(parts, count, vectors, used)) return KV_ERR_INVALID_ARG;
    if (m_nDescriptor < 0 || m_bReadOnly || position > static_cast<uint64_t>(INT64_MAX)) return KV_ERR_FAILED;
    iovec* next = vectors;
    uint64_t done = 0;
    while (used > 0) {
        const ssize_t n = ::pwritev(m_nDescriptor, next, static_cast<int>(used), static_cast<off_t>(position + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<uint64_t>(n);
        // A short write: go on with the rest.
        Advance(next, used, static_cast<size_t>(n));
    }
    if (written) *written = done;
    return used == 0 ? KV_OK : KV_ERR_FAILED;
}

kv_result CKvPosixStorage::Size(uint64_t* size) {
    if (!size) return KV_ERR_INVALID_ARG;
    if (m_nDescriptor < 0) return KV_ERR_FAILED;
    struct stat st;
    if (::fstat(m_nDescriptor, &st) != 0) return KV_ERR_FILE_SIZE;
    *size = static_cast<uint64_t>(st.st_size);
    return KV_OK;
}

kv_result CKvPosixStorage::Truncate(uint64_t size) {
    if (m_nDescriptor < 0) return KV_ERR_FAILED;
    if (size > static_cast<uint64_t>(INT64_MAX) || ::ftruncate(m_nDescriptor, static_cast<off_t>(size)) != 0)
        return KV_ERR_SET_EOF;
    return KV_OK;
}

kv_result CKvPosixStorage::Sync() {
    if (m_nDescriptor < 0) return KV_ERR_FAILED;
    int synced;
    do {
        synced = ::fdatasync(m_nDescriptor);
    } while (synced != 0 && errno == EINTR);
    if (synced != 0) return KV_ERR_FAILED;
    // The bytes of a new file are of no use after a power cut unless its
    // directory entry survives as well.
    if (m_bDirectoryPending) {
        if (!SyncDirectory(ParentDirectory(m_strPath))) return KV_ERR_FAILED;
        m_bDirectoryPending = false;
    }
    return KV_OK;
}

kv_result CKvPosixStorage::Close() {
    if (m_nDescriptor < 0) return KV_OK;
    // A descriptor whose close failed is gone all the same (retrying could
    // close one the process has opened since); it must not be closed twice.
    // Closing it also gives up the writer's lock.
    const int closed = ::close(m_nDescriptor);
    m_nDescriptor = -1;
    return closed == 0 ? KV_OK : KV_ERR_FAILED;
}

// ---- memory ----

kv_result CKvMemoryStorage::ReadAt(uint64_t position, const SKvIoSpan* spans, size_t count, uint64_t* read) {
    if (!read || (!spans && count)) return KV_ERR_INVALID_ARG;
    *read = 0;
    if (count > kMaxParts) return KV_ERR_INVALID_ARG;
    if (!m_pArray) return KV_ERR_FAILED;
    const uint64_t have = m_pArray->GetSize();
    for (size_t i = 0; i < count && position < have; ++i) {
        const uint64_t n = std::min(have - position, spans[i].size);
        if (n == 0) continue;
        if (!spans[i].data) return KV_ERR_INVALID_ARG;
        std::memcpy(spans[i].data, m_pArray->GetData() + position, static_cast<size_t>(n));
        position += n;
        *read += n;
    }
    return KV_OK;
}

kv_result CKvMemoryStorage::GrowTo(uint64_t end) {
    CKvByteArray& a = *m_pArray;
    const uint64_t size = a.GetSize();
    if (end <= size) return KV_OK;
    if (end > a.GetAllocated()) {
        // Grow geometrically so that a container written chunk by chunk
        // costs amortised constant time per byte.
        const uint64_t doubled = a.GetAllocated() * 2;
        if (a.Reserve(end > doubled ? end : doubled) != KV_OK && a.Reserve(end) != KV_OK)
            return KV_ERR_OUT_OF_MEMORY;
    }
    std::memset(a.GetData() + size, 0, static_cast<size_t>(end - size));
    return a.SetSize(end);
}

kv_result CKvMemoryStorage::WriteAt(uint64_t position, const SKvIoPart* parts, size_t count, uint64_t* written) {
    if (written) *written = 0;
    if (!parts && count) return KV_ERR_INVALID_ARG;
    if (count > kMaxParts) return KV_ERR_INVALID_ARG;
    if (!m_pArray) return KV_ERR_FAILED;
    uint64_t total = 0;
    for (size_t i = 0; i < count; ++i) {
        if (parts[i].size && !parts[i].data) return KV_ERR_INVALID_ARG;
        if (parts[i].size > UINT64_MAX - total) return KV_ERR_FAILED;
        total += parts[i].size;
    }
    if (total == 0) return KV_OK;
    if (total > UINT64_MAX - position || total + position > SIZE_MAX) return KV_ERR_FAILED;
    if (GrowTo(position + total) != KV_OK) return KV_ERR_FAILED;
    uint8_t* out = m_pArray->GetData() + position;
    for (size_t i = 0; i < count; ++i) {
        if (parts[i].size == 0) continue;
        std::memcpy(out, parts[i].data, static_cast<size_t>(parts[i].size));
        out += parts[i].size;
    }
    if (written) *written = total;
    return KV_OK;
}

kv_result CKvMemoryStorage::Size(uint64_t* size) {
    if (!size) return KV_ERR_INVALID_ARG;
    if (!m_pArray) return KV_ERR_FAILED;
    *size = m_pArray->GetSize();
    return KV_OK;
}

kv_result CKvMemoryStorage::Truncate(uint64_t size) {
    if (!m_pArray) return KV_ERR_FAILED;
    if (size <= m_pArray->GetSize()) return m_pArray->SetSize(size);
    if (size > SIZE_MAX) return KV_ERR_OUT_OF_MEMORY;
    // Grown like a file: exactly to the size asked for, the new bytes zeros.
    if (m_pArray->Reserve(size) != KV_OK) return KV_ERR_OUT_OF_MEMORY;
    return GrowTo(size);
}

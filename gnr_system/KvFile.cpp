// The KV_* file layer over stdio streams and POSIX calls. Wide names become
// UTF-8 paths; every failure is answered with a kv_result code.
#include "gnr_system/KvFile.h"

#include <fcntl.h>
#include <omp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <cwctype>
#include <string>

#include "gnr_system/CKvString.h"

namespace {


// KV_AccessFile's mode bits.
constexpr int kAccessRead = 0x1;
constexpr int kAccessWrite = 0x2;
constexpr int kAccessExecute = 0x4;

// The recursive KV_CreateDirectory works on a copy of the path of this many
// bytes, terminator included; longer paths are cut.
constexpr size_t kDirectoryPathBuffer = 256;

constexpr size_t kCopyBlockSize = 4096;

// tempnam keeps this many characters of the prefix and uses "file" without one.
constexpr size_t kTempPrefixLength = 5;
constexpr const char* kDefaultTempPrefix = "file";
constexpr const char* kDefaultTempDirectory = "/tmp";
constexpr const wchar_t* kTempPath = L"/tmp/";

CKvStringA Utf8Path(const wchar_t* name) { return CKvStringUtils::WtoUTF8(name); }

// Copies `text` into `buffer` of `length` characters, terminator included.
// False when it does not fit whole.
bool CopyWide(const wchar_t* text, size_t textLength, wchar_t* buffer, uint32_t length) {
    if (length == 0) return false;
    size_t copied = textLength < length ? textLength : length - 1;
    std::wmemcpy(buffer, text, copied);
    buffer[copied] = L'\0';
    return copied == textLength;
}

bool IsWritableDirectory(const char* path) {
    struct stat info;
    return stat(path, &info) == 0 && S_ISDIR(info.st_mode) && access(path, W_OK) == 0;
}

// Writes all of `data`, going on after partial writes and signals.
bool WriteAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool CopyDescriptor(int from, int to) {
    char block[kCopyBlockSize];
    for (;;) {
        ssize_t n = read(from, block, sizeof block);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) return true;
        if (!WriteAll(to, block, static_cast<size_t>(n))) return false;
    }
}

}  // namespace

kv_result KV_OpenFile(const wchar_t* name, int flags, int /*share*/, int /*reserved*/, FILE** file) {
    if (file) *file = nullptr;
    if (!name || !file) return KV_ERR_INVALID_ARG;
    const char* mode = "r+b";
    if (flags & KV_OPEN_TRUNCATE) {
        mode = (flags & KV_OPEN_READWRITE) ? "w+b" : "wb";
    } else if (flags & KV_OPEN_CREATE) {
        mode = KV_AccessFile(name, 0) != KV_OK ? "w+b" : "r+b";
    }
    *file = std::fopen(Utf8Path(name).c_str(), mode);
    return *file ? KV_OK : KV_ERR_OPEN_FILE;
}

kv_result KV_CloseFile(FILE* file) {
    if (!file) return KV_ERR_INVALID_ARG;
    return std::fclose(file) == 0 ? KV_OK : KV_ERR_CLOSE_FILE;
}

kv_result KV_ReadFile(FILE* file, void* buffer, uint64_t size, uint64_t* read) {
    if (read) *read = 0;
    if (!file || (!buffer && size)) return KV_ERR_INVALID_ARG;
    size_t count = std::fread(buffer, 1, static_cast<size_t>(size), file);
    if (read) *read = count;
    return count == size ? KV_OK : KV_ERR_READ_FILE;
}

kv_result KV_WriteFile(FILE* file, const void* buffer, uint64_t size, uint64_t* written, _KvIOASYNCINFO* /*async*/) {
    if (written) *written = 0;
    if (!file || (!buffer && size)) return KV_ERR_INVALID_ARG;
    size_t count = std::fwrite(buffer, 1, static_cast<size_t>(size), file);
    // Bytes that stay in the stream's buffer because the flush failed (a full
    // disk, a size limit) are not written.
    if (std::fflush(file) != 0) count = 0;
    if (written) *written = count;
    // The only caller takes a non-zero answer as "written" and checks the count.
    return count > 0 ? KV_WRITE_FILE_WROTE : KV_OK;
}

kv_result KV_SeekFile(FILE* file, int64_t offset, uint32_t origin) {
    if (!file) return KV_ERR_INVALID_ARG;
    int whence = origin == 0 ? SEEK_SET : origin == 2 ? SEEK_END : SEEK_CUR;
    if (fseeko(file, static_cast<off_t>(offset), whence) != 0) return KV_ERR_SEEK_FILE;
    std::fflush(file);
    return KV_OK;
}

kv_result KV_FilePosition(FILE* file, uint64_t* position) {
    if (!file || !position) return KV_ERR_INVALID_ARG;
    off_t at = ftello(file);
    *position = at < 0 ? 0 : static_cast<uint64_t>(at);
    return KV_OK;
}

kv_result KV_SetEOF(FILE* file) {
    if (!file) return KV_ERR_INVALID_ARG;
    // Nothing buffered may land beyond the new end after the cut.
    std::fflush(file);
    off_t at = ftello(file);
    if (at < 0 || ftruncate(fileno(file), at) != 0) return KV_ERR_SET_EOF;
    return KV_OK;
}

kv_result KV_GetFileSize(FILE* file, uint64_t* size) {
    if (!file || !size) return KV_ERR_INVALID_ARG;
    int fd = fileno(file);
    struct stat info;
    if (fd <= 0 || fstat(fd, &info) != 0) return KV_ERR_FILE_SIZE;
    *size = static_cast<uint64_t>(info.st_size);
    return KV_OK;
}

kv_result KV_GetFileSizeFromName(const wchar_t* name, uint64_t* size) {
    if (!name || !size) return KV_ERR_INVALID_ARG;
    struct stat info;
    if (stat(Utf8Path(name).c_str(), &info) != 0) return KV_ERR_FILE_SIZE;
    *size = static_cast<uint64_t>(info.st_size);
    return KV_OK;
}

kv_result KV_RemoveFile(const wchar_t* name, int reportError) {
    if (!name) return KV_ERR_INVALID_ARG;
    if (unlink(Utf8Path(name).c_str()) != 0 && reportError) return KV_ERR_READ_FILE;
    return KV_OK;
}

kv_result KV_AccessFile(const wchar_t* name, int mode) {
    if (!name) return KV_ERR_INVALID_ARG;
    int how = F_OK;
    if (mode & kAccessRead) how |= R_OK;
    if (mode & kAccessWrite) how |= W_OK;
    if (mode & kAccessExecute) how |= X_OK;
    return access(CKvStringA(name).c_str(), how) == 0 ? KV_OK : KV_ERR_READ_FILE;
}

kv_result KV_CreateDirectory(const wchar_t* name, int recursive, uint32_t permissions) {
    if (!name) return KV_ERR_INVALID_ARG;
    const mode_t mode = static_cast<mode_t>(permissions);
    if (!recursive) return mkdir(CKvStringA(name).c_str(), mode) == 0 ? KV_OK : KV_ERR_CREATE_DIRECTORY;

    std::string path = CKvStringA(name).Std();
    if (path.size() >= kDirectoryPathBuffer) path.resize(kDirectoryPathBuffer - 1);
    if (!path.empty() && path.back() == '/') path.pop_back();
    // Every prefix is made, existing ones included: a component that already
    // exists ends the call with a failure.
    for (size_t i = 1; i < path.size(); ++i) {
        if (path[i] != '/') continue;
        if (mkdir(path.substr(0, i).c_str(), mode) != 0) return KV_ERR_CREATE_DIRECTORY;
    }
    return mkdir(path.c_str(), mode) == 0 ? KV_OK : KV_ERR_CREATE_DIRECTORY;
}

kv_result KV_CopyFile(const wchar_t* from, const wchar_t* to) {
    if (!from || !to) {
        errno = EINVAL;
        return KV_ERR_COPY_FILE;
    }
    int source = open(Utf8Path(from).c_str(), O_RDONLY);
    if (source < 0) return KV_ERR_COPY_FILE;
    int target = open(Utf8Path(to).c_str(), O_WRONLY | O_CREAT | O_EXCL, 0666);
    if (target < 0) {
        int cause = errno;
        close(source);
        errno = cause;
        return KV_ERR_COPY_FILE;
    }
    bool copied = CopyDescriptor(source, target);
    int cause = errno;
    close(source);
    // A late write error (full disk, network file system) shows at close.
    if (close(target) != 0 && copied) {
        copied = false;
        cause = errno;
    }
    errno = cause;
    return copied ? KV_OK : KV_ERR_COPY_FILE;
}

kv_result KV_MoveFile(const wchar_t* /*from*/, const wchar_t* /*to*/) { return KV_ERR_FAILED; }

kv_result KV_GetTempPath(wchar_t* buffer, uint32_t length) {
    if (!buffer) return KV_ERR_INVALID_ARG;
    CopyWide(kTempPath, std::wcslen(kTempPath), buffer, length);
    return KV_OK;
}

kv_result KV_GetTempFileName(const wchar_t* directory, const wchar_t* prefix, int create, wchar_t* buffer,
                             uint32_t length) {
    if (!buffer) return KV_ERR_INVALID_ARG;
    std::string path = directory ? Utf8Path(directory).Std() : std::string();
    if (path.empty() || !IsWritableDirectory(path.c_str())) path = kDefaultTempDirectory;
    if (path.back() != '/') path += '/';
    if (prefix) {
        path += CKvStringUtils::WtoUTF8(prefix, wcsnlen(prefix, kTempPrefixLength)).Std();
    } else {
        path += kDefaultTempPrefix;
    }
    path += "XXXXXX";

    int fd = mkstemp(&path[0]);
    if (fd < 0) return KV_ERR_TEMP_FILE;
    close(fd);
    CKvStringW wide = CKvStringUtils::UTF8toW(path.c_str(), path.size());
    // A cut name would point somewhere else: refuse it rather than hand it out.
    bool fits = CopyWide(wide.c_str(), wide.Size(), buffer, length);
    if (!create || !fits) unlink(path.c_str());
    return fits ? KV_OK : KV_ERR_TEMP_FILE;
}

int KV_GetProcessorCount() { return omp_get_num_procs(); }

int KV_Sstricmp(const wchar_t* a, const wchar_t* b) {
    if (!a) a = L"";
    if (!b) b = L"";
    for (;; ++a, ++b) {
        if (*a != *b) {
            wint_t la = std::iswupper(static_cast<wint_t>(*a)) ? std::towlower(static_cast<wint_t>(*a)) : *a;
            wint_t lb = std::iswupper(static_cast<wint_t>(*b)) ? std::towlower(static_cast<wint_t>(*b)) : *b;
            // Widened so that far-apart values cannot overflow.
            int64_t difference = static_cast<int64_t>(static_cast<wchar_t>(la)) - static_cast<wchar_t>(lb);
            if (difference > INT32_MAX) return INT32_MAX;
            if (difference < INT32_MIN) return INT32_MIN;
            if (difference != 0) return static_cast<int>(difference);
        }
        if (*a == L'\0') return 0;
    }
}

// The KV_* file layer: thin functions over standard streams and POSIX calls
// that take wide file names and answer kv_result codes. Every file access of
// the library goes through here or through CKvFileMemoWrapper.
#pragma once

#include <cstdint>
#include <cstdio>

#include "gnr_system/KvResult.h"

// Parameter of an asynchronous write mode that this platform does not offer;
// callers pass null and the functions ignore it.
struct _KvIOASYNCINFO;

// Values of KV_OpenFile's flags.
constexpr int KV_OPEN_READWRITE = 0x1;   // with KV_OPEN_TRUNCATE: "w+b" instead of "wb"
constexpr int KV_OPEN_CREATE = 0x4;      // "w+b" when the file is missing, "r+b" when it exists
constexpr int KV_OPEN_TRUNCATE = 0x10;   // "wb": create or truncate

// Opens a stream. Mode from the flag values: 16 gives "wb" ("w+b" with 1
// too); otherwise 4 gives "w+b" for a missing file and "r+b" for an existing
// one; with neither, "r+b". So 15 opens for update and creates a missing file,
// 11 opens an existing file for update only. `share` and `reserved` are
// ignored. KV_ERR_OPEN_FILE when fopen fails.
kv_result KV_OpenFile(const wchar_t* name, int flags, int share, int reserved, FILE** file);
// KV_ERR_CLOSE_FILE when fclose fails.
kv_result KV_CloseFile(FILE* file);
// Reads `size` bytes; `*read` (if given) gets the count. KV_ERR_READ_FILE on a short read.
kv_result KV_ReadFile(FILE* file, void* buffer, uint64_t size, uint64_t* read);
// Writes and flushes. Answers KV_WRITE_FILE_WROTE when at least one byte was written and 0
// when none was: callers test `*written`, not the result.
kv_result KV_WriteFile(FILE* file, const void* buffer, uint64_t size, uint64_t* written, _KvIOASYNCINFO* async);
// Origin 0 from the start, 2 from the end, anything else from the current
// position; flushes after seeking. KV_ERR_SEEK_FILE when fseeko fails.
kv_result KV_SeekFile(FILE* file, int64_t offset, uint32_t origin);
// Current position; always 0.
kv_result KV_FilePosition(FILE* file, uint64_t* position);
// Truncates the file at the current position. KV_ERR_SET_EOF when ftruncate fails.
kv_result KV_SetEOF(FILE* file);
// KV_ERR_FILE_SIZE when fstat fails or the stream is on descriptor 0.
kv_result KV_GetFileSize(FILE* file, uint64_t* size);
kv_result KV_GetFileSizeFromName(const wchar_t* name, uint64_t* size);
// unlink; a failure is reported (KV_ERR_READ_FILE) only when `reportError` is non-zero.
kv_result KV_RemoveFile(const wchar_t* name, int reportError);
// access(): mode bit 0 read, bit 1 write, bit 2 execute, 0 existence. KV_ERR_READ_FILE on failure.
kv_result KV_AccessFile(const wchar_t* name, int mode);
// One mkdir, or with `recursive` one per path prefix and then the whole path.
// Any failing mkdir answers KV_ERR_CREATE_DIRECTORY at once, an existing parent included, so the
// recursive form succeeds only when no component exists yet.
kv_result KV_CreateDirectory(const wchar_t* name, int recursive, uint32_t permissions);
// Copies to a destination that must not exist yet; KV_ERR_COPY_FILE with errno kept on failure.
kv_result KV_CopyFile(const wchar_t* from, const wchar_t* to);
// Not supported on this platform: always KV_ERR_FAILED.
kv_result KV_MoveFile(const wchar_t* from, const wchar_t* to);
// Copies "/tmp/" into `buffer` (at most `length` characters, terminator
// included).
kv_result KV_GetTempPath(wchar_t* buffer, uint32_t length);
// A fresh file name in `directory` (in "/tmp" when it is null or not a
// writable directory) starting with at most 5 characters of `prefix`, copied
// into `buffer` of `length` characters, terminator included; with `create` the
// file is left behind empty. KV_ERR_TEMP_FILE when no name could be made or it does not
// fit in `buffer`.
kv_result KV_GetTempFileName(const wchar_t* directory, const wchar_t* prefix, int create, wchar_t* buffer,
                             uint32_t length);
// Number of processors as the OpenMP runtime reports it.
int KV_GetProcessorCount();
// Case-insensitive wide comparison: the difference of the first differing
// characters after lowering, 0 for equal strings.
int KV_Sstricmp(const wchar_t* a, const wchar_t* b);

// Result codes of the library's internal operations. Every operation that can
// fail answers a kv_result: 0 for success, one of the negative values below.
#pragma once

#include <cstdint>
#include <new>
#include <utility>

typedef int32_t kv_result;

constexpr kv_result KV_OK = 0;
constexpr kv_result KV_ERR_REFUSED_VERSION = -1;    // a file version this library refuses
constexpr kv_result KV_ERR_NOT_SUPPORTED = -2;      // not supported by this reader
constexpr kv_result KV_ERR_OUT_OF_MEMORY = -3;
constexpr kv_result KV_ERR_INVALID_ARG = -4;        // invalid argument or unknown run type
constexpr kv_result KV_ERR_NOT_PROVIDED = -5;       // operation not provided
constexpr kv_result KV_ERR_CANCELLED = -8;          // stopped by a progress callback
constexpr kv_result KV_ERR_FAILED = -9;             // I/O failure, malformed data or type mismatch
constexpr kv_result KV_ERR_NOT_FOUND = -13;

// Codes of the KV_* file layer.
constexpr kv_result KV_ERR_COPY_FILE = -1;          // KV_CopyFile: any failure, errno keeps the cause
constexpr kv_result KV_ERR_OPEN_FILE = -1000;
constexpr kv_result KV_ERR_CLOSE_FILE = -1001;
constexpr kv_result KV_ERR_READ_FILE = -1002;       // short read, failed unlink or failed access
constexpr kv_result KV_WRITE_FILE_WROTE = -1003;    // KV_WriteFile: at least one byte was written
constexpr kv_result KV_ERR_SEEK_FILE = -1004;
constexpr kv_result KV_ERR_SET_EOF = -1009;
constexpr kv_result KV_ERR_FILE_SIZE = -1012;
constexpr kv_result KV_ERR_CREATE_DIRECTORY = -1014;
constexpr kv_result KV_ERR_TEMP_FILE = -1023;

// Codes of the format registry.
constexpr kv_result KV_ERR_FORMAT_NOT_SUPPORTED = -1506;
constexpr kv_result KV_ERR_FORMAT_REGISTERED_TWICE = -1513;

// Folds one step's result into `first`, keeping the first failure of a
// sequence of steps that all run (closing a level after a failed fill, say).
inline void KvKeepFirstFailure(kv_result& first, kv_result step) {
    if (first == KV_OK && step != KV_OK) first = step;
}

inline bool KV_SUCCEEDED(kv_result r) { return r >= 0; }
inline bool KV_FAILED(kv_result r) { return r < 0; }

// Runs `body` and turns an escaping exception into a result code, so that no
// exception leaves the library: allocation failures become KV_ERR_OUT_OF_MEMORY, anything else KV_ERR_FAILED.
template <typename Body>
kv_result KvNoThrow(Body&& body) noexcept {
    try {
        return std::forward<Body>(body)();
    } catch (const std::bad_alloc&) {
        return KV_ERR_OUT_OF_MEMORY;
    } catch (...) {
        return KV_ERR_FAILED;
    }
}

// Compression of frame pixels as zlib streams. Large frames are deflated in
// blocks on every core and joined into one ordinary zlib stream; frames are
// inflated with libdeflate straight into the caller's buffer, with zlib as the
// fallback for any stream libdeflate refuses.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "gnr_system/KvResult.h"

struct libdeflate_decompressor;

// Input bytes each block of a block-deflated frame holds (the last may be
// longer, up to twice this): big enough that per-block costs vanish, small
// enough that a frame of a few MiB keeps two cores busy.
constexpr uint64_t kDeflateBlockSize = 256 * 1024;
// Each block after the first is deflated with this many preceding input bytes
// as its dictionary, the whole of deflate's window, so block boundaries cost
// almost nothing in ratio.
constexpr uint64_t kDeflateDictionarySize = 32 * 1024;
// Frames shorter than this stay one compress2 stream: splitting them would not
// pay for the threads.
constexpr uint64_t kBlockDeflateMinimum = 2 * kDeflateBlockSize;

// Threads that block deflate may use in this process; 0 (the default) means
// every core. Any value is clamped to at least 1.
void KvSetFrameCodecThreads(int threads);
// The number of threads block deflate uses now (never 0).
int KvGetFrameCodecThreads();

// The zlib level stated by the two header bytes that zlib itself writes for
// `level` (1..9): the header of every stream the deflater writes.
void KvZlibHeader(int level, uint8_t header[2]);

// Deflates frames into zlib streams. One object per writer: it keeps the
// per-thread deflate states and block buffers between frames.
class CKvFrameDeflater {
public:
    CKvFrameDeflater();
    ~CKvFrameDeflater();
    CKvFrameDeflater(const CKvFrameDeflater&) = delete;
    CKvFrameDeflater& operator=(const CKvFrameDeflater&) = delete;

    // Bytes of output room Compress needs for `size` input bytes, whatever
    // the content and the thread count.
    static uint64_t Bound(uint64_t size);

    // Compresses `size` bytes at `level` (1..9, others clamped) into `out`
    // of `capacity` bytes; `packed` gets the stream's length. Uses up to
    // `threads` threads (0: KvGetFrameCodecThreads()); frames of at least
    // kBlockDeflateMinimum bytes with more than one thread are deflated in
    // blocks. KV_ERR_INVALID_ARG for null pointers, KV_ERR_OUT_OF_MEMORY when memory runs out, KV_ERR_FAILED when the
    // stream does not fit `capacity`; `packed` is unchanged on failure.
    kv_result Compress(const void* src, uint64_t size, int level, uint8_t* out, uint64_t capacity,
                       uint64_t& packed, int threads = 0);

private:
    struct SBlockState;
    kv_result CompressBlocks(const uint8_t* src, uint64_t size, int level, uint8_t* out, uint64_t capacity,
                             uint64_t& packed, int threads);
    static int DeflateBlock(SBlockState& state, int level, const uint8_t* src, uint64_t begin, uint64_t length,
                            bool last, std::vector<uint8_t>& block, uint64_t& written);
    std::vector<std::unique_ptr<SBlockState>> m_aStates;  // one per thread, reused between frames
    std::vector<std::vector<uint8_t>> m_aBlocks;          // each block's deflated bytes
};

// Inflates zlib streams of a known decoded size into the caller's buffer.
// One object per reader: it keeps libdeflate's decompressor between frames.
class CKvFrameInflater {
public:
    CKvFrameInflater();
    virtual ~CKvFrameInflater();
    CKvFrameInflater(const CKvFrameInflater&) = delete;
    CKvFrameInflater& operator=(const CKvFrameInflater&) = delete;

    // Inflates the stream `src` of `srcSize` bytes into exactly `dstSize`
    // bytes at `dst`. The stream must be one valid zlib stream whose output is
    // exactly `dstSize` bytes: KV_ERR_FAILED otherwise (the content of `dst` is then
    // unspecified). KV_ERR_INVALID_ARG for null pointers.
    kv_result Inflate(const void* src, uint64_t srcSize, void* dst, uint64_t dstSize);

protected:
    // The fast path: true when libdeflate produced exactly `dstSize` bytes.
    // Anything else (a refused stream, no decompressor) sends the stream to
    // zlib, whose verdict is final.
    virtual bool InflateFast(const void* src, uint64_t srcSize, void* dst, uint64_t dstSize);

private:
    libdeflate_decompressor* m_pDecompressor = nullptr;
    bool m_bDecompressorFailed = false;  // allocation failed once: zlib only from then on
};

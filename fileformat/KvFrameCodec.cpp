// Frame compression: block-parallel deflate joined into one zlib stream, and
// libdeflate inflate with a zlib fallback.
#include "fileformat/KvFrameCodec.h"

#include <libdeflate.h>
#include <omp.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cstring>

#include "gnr_system/KvBytes.h"

namespace {

constexpr int kMinLevel = 1;
constexpr int kMaxLevel = 9;
constexpr int kWindowBits = 15;  // deflate's 32 KiB window, as compress2 uses
constexpr int kMemLevel = 8;     // compress2's default
constexpr uint64_t kZlibHeaderSize = 2;
constexpr uint64_t kAdlerSize = 4;
// A sync flush ends a block with an empty stored block (at most 5 bytes with
// the bits that align it); a little more covers the final block's end.
constexpr uint64_t kFlushSlack = 16;

std::atomic<int> g_codecThreads{0};

int ClampLevel(int level) { return std::min(std::max(level, kMinLevel), kMaxLevel); }

// zlib's level class in the header: 0 fastest, 1 fast, 2 default, 3 best.
int LevelClass(int level) {
    if (level <= 1) return 0;
    if (level <= 5) return 1;
    if (level == 6) return 2;
    return 3;
}

// Largest length zlib's 32-bit interfaces take in one call.
constexpr uint64_t kMaxZlibChunk = 0xFFFFFFFFu;

}  // namespace

void KvSetFrameCodecThreads(int threads) { g_codecThreads.store(std::max(threads, 0)); }

int KvGetFrameCodecThreads() {
    const int set = g_codecThreads.load();
    return set > 0 ? set : std::max(omp_get_num_procs(), 1);
}

void KvZlibHeader(int level, uint8_t header[2]) {
    const unsigned cmf = 0x78;  // deflate with a 32 KiB window
    unsigned flg = static_cast<unsigned>(LevelClass(ClampLevel(level))) << 6;
    flg += 31 - ((cmf << 8) + flg) % 31;  // check bits: the 16-bit header is a multiple of 31
    header[0] = static_cast<uint8_t>(cmf);
    header[1] = static_cast<uint8_t>(flg);
}

// ---- deflate

// One thread's raw-deflate state, kept across blocks and frames; re-made only
// when the level changes.
struct CKvFrameDeflater::SBlockState {
    z_stream stream{};
    int level = 0;
    bool ready = false;

    ~SBlockState() {
        if (ready) deflateEnd(&stream);
    }
    int Prepare(int wanted) {
        if (ready && level == wanted) return deflateReset(&stream);
        if (ready) deflateEnd(&stream);
        ready = false;
        stream = z_stream{};
        const int z = deflateInit2(&stream, wanted, Z_DEFLATED, -kWindowBits, kMemLevel, Z_DEFAULT_STRATEGY);
        if (z != Z_OK) return z;
        ready = true;
        level = wanted;
        return Z_OK;
    }
};

CKvFrameDeflater::CKvFrameDeflater() = default;
CKvFrameDeflater::~CKvFrameDeflater() = default;

uint64_t CKvFrameDeflater::Bound(uint64_t size) {
    // compressBound for one stream; for blocks, each block's stored-block
    // worst case plus its flush marker. Both fit in this.
    const uint64_t blocks = size / kDeflateBlockSize + 1;
    return compressBound(static_cast<uLong>(size)) + blocks * (kFlushSlack + 8) + kZlibHeaderSize + kAdlerSize;
}

kv_result CKvFrameDeflater::Compress(const void* src, uint64_t size, int level, uint8_t* out, uint64_t capacity,
                                     uint64_t& packed, int threads) {
    if ((!src && size) || !out) return KV_ERR_INVALID_ARG;
    if (size > kMaxZlibChunk || capacity > kMaxZlibChunk) return KV_ERR_INVALID_ARG;
    level = ClampLevel(level);
    if (threads <= 0) threads = KvGetFrameCodecThreads();
    return KvNoThrow([&]() -> kv_result {
        if (threads > 1 && size >= kBlockDeflateMinimum)
            return CompressBlocks(static_cast<const uint8_t*>(src), size, level, out, capacity, packed, threads);
        uLongf length = static_cast<uLongf>(capacity);
        const int z = compress2(out, &length, static_cast<const Bytef*>(src), static_cast<uLong>(size), level);
        if (z == Z_MEM_ERROR) return KV_ERR_OUT_OF_MEMORY;
        if (z != Z_OK) return KV_ERR_FAILED;
        packed = length;
        return KV_OK;
    });
}

// Deflates blocks in parallel. Block i is a raw deflate of its bytes with the
// 32 KiB before it as dictionary, ended by a sync flush (the last by finish),
// so the blocks joined behind a zlib header form one valid deflate stream.
// The Adler-32 of the whole frame is combined from the blocks' checksums.
kv_result CKvFrameDeflater::CompressBlocks(const uint8_t* src, uint64_t size, int level, uint8_t* out,
                                           uint64_t capacity, uint64_t& packed, int threads) {
    const size_t blockCount = static_cast<size_t>(size / kDeflateBlockSize);  // the last takes the remainder
    const int workers = static_cast<int>(std::min<uint64_t>(static_cast<uint64_t>(threads), blockCount));
    if (m_aStates.size() < static_cast<size_t>(workers)) m_aStates.resize(static_cast<size_t>(workers));
    for (auto& state : m_aStates)
        if (!state) state = std::make_unique<SBlockState>();
    if (m_aBlocks.size() < blockCount) m_aBlocks.resize(blockCount);
    const uint64_t longest = size - (blockCount - 1) * kDeflateBlockSize;
    const size_t room = static_cast<size_t>(deflateBound(nullptr, static_cast<uLong>(longest)) + kFlushSlack);
    for (size_t i = 0; i < blockCount; ++i)
        if (m_aBlocks[i].size() < room) m_aBlocks[i].resize(room);
    std::vector<uLong> adlers(blockCount);
    std::vector<uint64_t> lengths(blockCount, 0);
    std::vector<int> results(blockCount, Z_OK);

    const int64_t count = static_cast<int64_t>(blockCount);
#pragma omp parallel for num_threads(workers) schedule(dynamic, 1)
    for (int64_t i = 0; i < count; ++i) {
        const size_t b = static_cast<size_t>(i);
        const uint64_t begin = b * kDeflateBlockSize;
        const uint64_t length = b + 1 < blockCount ? kDeflateBlockSize : size - begin;
        results[b] = DeflateBlock(*m_aStates[static_cast<size_t>(omp_get_thread_num())], level, src, begin,
                                  length, b + 1 == blockCount, m_aBlocks[b], lengths[b]);
        adlers[b] = adler32(adler32(0, nullptr, 0), src + begin, static_cast<uInt>(length));
    }

    uint64_t total = kZlibHeaderSize + kAdlerSize;
    for (size_t i = 0; i < blockCount; ++i) {
        if (results[i] == Z_MEM_ERROR) return KV_ERR_OUT_OF_MEMORY;
        if (results[i] != Z_OK) return KV_ERR_FAILED;
        total += lengths[i];
    }
    if (total > capacity) return KV_ERR_FAILED;

    KvZlibHeader(level, out);
    uint8_t* cursor = out + kZlibHeaderSize;
    uLong adler = adlers[0];
    for (size_t i = 0; i < blockCount; ++i) {
        std::memcpy(cursor, m_aBlocks[i].data(), static_cast<size_t>(lengths[i]));
        cursor += lengths[i];
        if (i > 0) {
            const uint64_t length = i + 1 < blockCount ? kDeflateBlockSize : size - i * kDeflateBlockSize;
            adler = adler32_combine(adler, adlers[i], static_cast<z_off_t>(length));
        }
    }
    kvbytes::StoreU32BE(cursor, static_cast<uint32_t>(adler));
    packed = total;
    return KV_OK;
}

// Deflates one block into `block`; `length` gets the bytes written. The state
// is reset (or made at `level`) first, so a block never depends on another
// thread's history except through its dictionary.
int CKvFrameDeflater::DeflateBlock(SBlockState& state, int level, const uint8_t* src, uint64_t begin,
                                   uint64_t length, bool last, std::vector<uint8_t>& block, uint64_t& written) {
    int z = state.Prepare(level);
    if (z == Z_OK && begin > 0)
        z = deflateSetDictionary(&state.stream, src + begin - kDeflateDictionarySize,
                                 static_cast<uInt>(kDeflateDictionarySize));
    if (z != Z_OK) return z;
    state.stream.next_in = const_cast<Bytef*>(src + begin);
    state.stream.avail_in = static_cast<uInt>(length);
    state.stream.next_out = block.data();
    state.stream.avail_out = static_cast<uInt>(block.size());
    z = deflate(&state.stream, last ? Z_FINISH : Z_SYNC_FLUSH);
    // Finishing must end the stream; a flush must take all input and leave
    // room behind it (a full buffer may hide an unfinished flush).
    if (last) z = (z == Z_STREAM_END) ? Z_OK : Z_BUF_ERROR;
    else if (z == Z_OK && (state.stream.avail_in != 0 || state.stream.avail_out == 0)) z = Z_BUF_ERROR;
    written = block.size() - state.stream.avail_out;
    return z;
}

// ---- inflate

CKvFrameInflater::CKvFrameInflater() = default;

CKvFrameInflater::~CKvFrameInflater() {
    if (m_pDecompressor) libdeflate_free_decompressor(m_pDecompressor);
}

bool CKvFrameInflater::InflateFast(const void* src, uint64_t srcSize, void* dst, uint64_t dstSize) {
    if (!m_pDecompressor && !m_bDecompressorFailed) {
        m_pDecompressor = libdeflate_alloc_decompressor();
        m_bDecompressorFailed = (m_pDecompressor == nullptr);
    }
    if (!m_pDecompressor) return false;
    size_t produced = 0;
    const libdeflate_result r = libdeflate_zlib_decompress(m_pDecompressor, src, static_cast<size_t>(srcSize), dst,
                                                           static_cast<size_t>(dstSize), &produced);
    return r == LIBDEFLATE_SUCCESS && produced == dstSize;
}

kv_result CKvFrameInflater::Inflate(const void* src, uint64_t srcSize, void* dst, uint64_t dstSize) {
    if ((!src && srcSize) || (!dst && dstSize)) return KV_ERR_INVALID_ARG;
    if (srcSize > SIZE_MAX || dstSize > SIZE_MAX) return KV_ERR_INVALID_ARG;
    if (InflateFast(src, srcSize, dst, dstSize)) return KV_OK;
    // zlib decides every stream libdeflate did not take, in pieces its
    // 32-bit lengths can hold.
    z_stream stream{};
    if (inflateInit(&stream) != Z_OK) return KV_ERR_OUT_OF_MEMORY;
    const uint8_t* in = static_cast<const uint8_t*>(src);
    uint8_t* outBytes = static_cast<uint8_t*>(dst);
    uint64_t inLeft = srcSize, outLeft = dstSize;
    int z = Z_OK;
    while (z == Z_OK) {
        if (stream.avail_in == 0 && inLeft) {
            stream.next_in = const_cast<Bytef*>(in);
            stream.avail_in = static_cast<uInt>(std::min<uint64_t>(inLeft, kMaxZlibChunk));
            in += stream.avail_in;
            inLeft -= stream.avail_in;
        }
        if (stream.avail_out == 0 && outLeft) {
            stream.next_out = outBytes;
            stream.avail_out = static_cast<uInt>(std::min<uint64_t>(outLeft, kMaxZlibChunk));
            outBytes += stream.avail_out;
            outLeft -= stream.avail_out;
        }
        z = inflate(&stream, Z_NO_FLUSH);
    }
    const bool whole = (z == Z_STREAM_END) && stream.avail_out == 0 && outLeft == 0;
    inflateEnd(&stream);
    if (z == Z_MEM_ERROR) return KV_ERR_OUT_OF_MEMORY;
    return whole ? KV_OK : KV_ERR_FAILED;
}

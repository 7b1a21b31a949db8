// Inflates arbitrary bytes as a compressed frame of a size the input names,
// and checks that the fast decoder and plain zlib agree on every stream: both
// accept it with the same pixels, or both refuse it. Then deflates the bytes
// and checks that they come back.
#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "fileformat/KvFrameCodec.h"
#include "gnr_system/KvBytes.h"

namespace {

constexpr uint32_t kMaxFrame = 1u << 20;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    const uint32_t frameSize = kvbytes::LoadU32(data) % kMaxFrame;
    const uint8_t* stream = data + 4;
    const size_t streamSize = size - 4;

    static CKvFrameInflater inflater;
    std::vector<uint8_t> ours(frameSize), plain(frameSize + 1);
    const kv_result r = inflater.Inflate(stream, streamSize, ours.data(), ours.size());
    uLongf produced = static_cast<uLongf>(plain.size());
    const int z = uncompress(plain.data(), &produced, stream, static_cast<uLong>(streamSize));
    const bool zlibTakesIt = (z == Z_OK && produced == frameSize);
    if ((r == KV_OK) != zlibTakesIt) __builtin_trap();
    if (r == KV_OK && std::memcmp(ours.data(), plain.data(), frameSize) != 0) __builtin_trap();

    static CKvFrameDeflater deflater;
    std::vector<uint8_t> packed(static_cast<size_t>(CKvFrameDeflater::Bound(size)));
    uint64_t length = 0;
    const int level = 1 + data[0] % 9;
    if (deflater.Compress(data, size, level, packed.data(), packed.size(), length, 2) != KV_OK) __builtin_trap();
    std::vector<uint8_t> back(size);
    if (inflater.Inflate(packed.data(), length, back.data(), back.size()) != KV_OK) __builtin_trap();
    if (std::memcmp(back.data(), data, size) != 0) __builtin_trap();
    return 0;
}

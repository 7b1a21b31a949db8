// Frame compression: block-deflated streams are ordinary zlib streams, and
// inflate gives zlib's answer whichever decoder produced it.
#include "fileformat/KvFrameCodec.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <random>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// 16-bit samples: a smooth ramp with noise in the low bits, so that deflate
// finds matches (within and across blocks) and literals alike.
Bytes FrameLike(size_t size, uint32_t seed) {
    Bytes out(size);
    std::mt19937 random(seed);
    for (size_t i = 0; i + 1 < size; i += 2) {
        const uint16_t v = static_cast<uint16_t>(((i / 2) % 1024) * 3 + (random() & 7));
        out[i] = static_cast<uint8_t>(v);
        out[i + 1] = static_cast<uint8_t>(v >> 8);
    }
    if (size % 2) out.back() = 0x5A;
    return out;
}

Bytes Noise(size_t size, uint32_t seed) {
    Bytes out(size);
    std::mt19937 random(seed);
    for (uint8_t& b : out) b = static_cast<uint8_t>(random());
    return out;
}

Bytes Compress(CKvFrameDeflater& deflater, const Bytes& frame, int level, int threads) {
    Bytes out(static_cast<size_t>(CKvFrameDeflater::Bound(frame.size())));
    uint64_t packed = 0;
    EXPECT_EQ(deflater.Compress(frame.data(), frame.size(), level, out.data(), out.size(), packed, threads), KV_OK);
    out.resize(static_cast<size_t>(packed));
    return out;
}

// What plain zlib makes of a stream: the frame, or empty when it refuses.
Bytes ZlibInflate(const Bytes& stream, size_t frameSize) {
    Bytes out(frameSize + 1);
    uLongf produced = static_cast<uLongf>(out.size());
    if (uncompress(out.data(), &produced, stream.data(), static_cast<uLong>(stream.size())) != Z_OK) return {};
    out.resize(produced);
    return out;
}

// Fails its fast path after scribbling over the output, as a decoder that
// gives up half-way would.
class FailingInflater : public CKvFrameInflater {
protected:
    bool InflateFast(const void*, uint64_t, void* dst, uint64_t dstSize) override {
        std::memset(dst, 0xEE, static_cast<size_t>(dstSize));
        return false;
    }
};

}  // namespace

TEST(FrameDeflate, BlockStreamsInflateWithPlainZlibAtEveryLevel) {
    CKvFrameDeflater deflater;
    const Bytes frame = FrameLike(3 * kDeflateBlockSize + 12345, 1);
    for (int level = 1; level <= 9; ++level) {
        SCOPED_TRACE(level);
        const Bytes stream = Compress(deflater, frame, level, 2);
        EXPECT_EQ(ZlibInflate(stream, frame.size()), frame);
        // The header states the level class exactly as zlib's own does.
        Bytes reference(compressBound(static_cast<uLong>(frame.size())));
        uLongf length = static_cast<uLongf>(reference.size());
        ASSERT_EQ(compress2(reference.data(), &length, frame.data(), static_cast<uLong>(frame.size()), level), Z_OK);
        EXPECT_EQ(stream[0], reference[0]);
        EXPECT_EQ(stream[1], reference[1]);
        // Splitting costs almost nothing in ratio.
        EXPECT_LT(stream.size(), length + length / 50 + 64);
    }
}

TEST(FrameDeflate, SizesAroundBlockBoundariesAndThreadCounts) {
    CKvFrameDeflater deflater;
    const uint64_t b = kDeflateBlockSize;
    for (uint64_t size : {kBlockDeflateMinimum - 1, kBlockDeflateMinimum, kBlockDeflateMinimum + 1, 3 * b - 1, 3 * b,
                          3 * b + 1, 5 * b + b / 2}) {
        for (int threads : {1, 2, 3, 7}) {
            SCOPED_TRACE(::testing::Message() << size << " bytes, " << threads << " threads");
            const Bytes frame = FrameLike(static_cast<size_t>(size), static_cast<uint32_t>(size));
            for (int level : {1, 6}) EXPECT_EQ(ZlibInflate(Compress(deflater, frame, level, threads), frame.size()), frame);
        }
    }
}

TEST(FrameDeflate, IncompressibleFramesFitTheBoundAndSmallRoomFails) {
    CKvFrameDeflater deflater;
    for (uint64_t size : {uint64_t{1}, uint64_t{4096}, 4 * kDeflateBlockSize + 3}) {
        const Bytes noise = Noise(static_cast<size_t>(size), 7);
        for (int threads : {1, 2}) {
            const Bytes stream = Compress(deflater, noise, 9, threads);
            EXPECT_LE(stream.size(), CKvFrameDeflater::Bound(size));
            EXPECT_EQ(ZlibInflate(stream, noise.size()), noise);
        }
    }
    // Too little room: a failure, and `packed` keeps its value.
    const Bytes frame = Noise(3 * kDeflateBlockSize, 8);
    Bytes out(1000);
    uint64_t packed = 77;
    for (int threads : {1, 2}) {
        EXPECT_EQ(deflater.Compress(frame.data(), frame.size(), 6, out.data(), out.size(), packed, threads),
                  KV_ERR_FAILED);
        EXPECT_EQ(packed, 77u);
    }
    EXPECT_EQ(deflater.Compress(nullptr, 10, 6, out.data(), out.size(), packed), KV_ERR_INVALID_ARG);
}

TEST(FrameDeflate, LevelsOutsideTheRangeAreClampedAndThreadsSettingIsKept) {
    uint8_t header[2];
    KvZlibHeader(0, header);
    EXPECT_EQ(header[1], 0x01);  // as level 1
    KvZlibHeader(42, header);
    EXPECT_EQ(header[1], 0xDA);  // as level 9
    KvSetFrameCodecThreads(3);
    EXPECT_EQ(KvGetFrameCodecThreads(), 3);
    KvSetFrameCodecThreads(0);
    EXPECT_GE(KvGetFrameCodecThreads(), 1);
}

TEST(FrameInflate, BothDecodersGiveTheFrameOrRefuse) {
    CKvFrameDeflater deflater;
    const Bytes frame = FrameLike(3 * kDeflateBlockSize + 1, 3);
    const Bytes stream = Compress(deflater, frame, 6, 2);
    CKvFrameInflater fast;
    FailingInflater fallback;
    for (CKvFrameInflater* inflater : {&fast, static_cast<CKvFrameInflater*>(&fallback)}) {
        Bytes out(frame.size());
        ASSERT_EQ(inflater->Inflate(stream.data(), stream.size(), out.data(), out.size()), KV_OK);
        EXPECT_EQ(out, frame);

        // A stream that is damaged, cut short, or whose output is longer or
        // shorter than the frame is refused.
        Bytes badChecksum = stream;
        badChecksum.back() ^= 1;
        Bytes cut(stream.begin(), stream.end() - 10);
        EXPECT_EQ(inflater->Inflate(badChecksum.data(), badChecksum.size(), out.data(), out.size()), KV_ERR_FAILED);
        EXPECT_EQ(inflater->Inflate(cut.data(), cut.size(), out.data(), out.size()), KV_ERR_FAILED);
        EXPECT_EQ(inflater->Inflate(stream.data(), stream.size(), out.data(), out.size() - 1), KV_ERR_FAILED);
        Bytes longer(frame.size() + 1);
        EXPECT_EQ(inflater->Inflate(stream.data(), stream.size(), longer.data(), longer.size()), KV_ERR_FAILED);
        EXPECT_EQ(inflater->Inflate(nullptr, 4, out.data(), out.size()), KV_ERR_INVALID_ARG);
    }
}

TEST(FrameInflate, StreamsOfOtherWritersInflate) {
    // Plain compress2 output, and a stream made of stored blocks only.
    const Bytes frame = FrameLike(100000, 4);
    for (int level : {0, 1, 9}) {
        Bytes stream(compressBound(static_cast<uLong>(frame.size())));
        uLongf length = static_cast<uLongf>(stream.size());
        ASSERT_EQ(compress2(stream.data(), &length, frame.data(), static_cast<uLong>(frame.size()), level), Z_OK);
        Bytes out(frame.size());
        CKvFrameInflater inflater;
        EXPECT_EQ(inflater.Inflate(stream.data(), length, out.data(), out.size()), KV_OK);
        EXPECT_EQ(out, frame);
    }
}

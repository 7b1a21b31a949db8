// Readers of QV8 files over containers built chunk by chunk in memory, the
// way the writer lays them out, including containers whose chunks lie.
#include "fileformat/CKvQV8InputFile.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <vector>

#include "gnr_system/CKvSerializerXMLString.h"
#include "gnr_system/KvBytes.h"
#include "tests/TestSupport.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint8_t kGuard = 0xAB;
constexpr size_t kGuardSize = 32;

SKvImageAttributes Shape(uint32_t width, uint32_t height, uint32_t comp, uint8_t bpc, uint32_t compression,
                         uint32_t sequences = 1, uint32_t widthBytes = 0) {
    SKvImageAttributes a;
    a.uiWidth = width;
    a.uiHeight = height;
    a.uiComp = comp;
    a.uiBpcInMemory = a.uiBpcSignificant = bpc;
    a.uiWidthBytes = widthBytes ? widthBytes : width * comp * (bpc / 8);
    a.eCompression = compression;
    a.uiSequenceCount = sequences;
    return a;
}

Bytes Pattern(size_t size, uint8_t seed = 1) {
    Bytes b(size);
    for (size_t i = 0; i < size; ++i) b[i] = static_cast<uint8_t>(seed + i * 7);
    return b;
}

// A caller's buffer with guard bytes on both sides.
struct CGuarded {
    explicit CGuarded(size_t size) : bytes(size + 2 * kGuardSize, kGuard), size(size) {}
    uint8_t* data() { return bytes.data() + kGuardSize; }
    Bytes Inner() const { return Bytes(bytes.begin() + kGuardSize, bytes.end() - kGuardSize); }
    bool GuardsIntact() const {
        for (size_t i = 0; i < kGuardSize; ++i) {
            if (bytes[i] != kGuard || bytes[bytes.size() - 1 - i] != kGuard) return false;
        }
        return true;
    }
    bool Untouched() const { return GuardsIntact() && Inner() == Bytes(size, kGuard); }
    Bytes bytes;
    size_t size;
};

// Builds a container in memory and opens a reader over it.
class CFileBuilder {
public:
    CFileBuilder() {
        CKvStringA version("Ver3.0");
        EXPECT_EQ(KV_OK, m_writer.Initialize_Memory(m_buffer, false, false, version));
    }
    void Chunk(const char* name, const void* data, size_t size) {
        ASSERT_EQ(KV_OK, m_writer.SetChunk(data, static_cast<uint32_t>(size), name));
    }
    void Lite(const char* name, const std::function<void(CKvLiteVariantW&)>& write) {
        CKvLiteVariantW writer;
        write(writer);
        CKvLiteVariantR out;
        ASSERT_EQ(KV_OK, writer.Finalize(out, 0));
        Chunk(name, out.GetData(), out.GetSize());
    }
    void Xml(const char* name, const CKvVariant& tree) {
        CKvStringA text;
        ASSERT_EQ(KV_OK, CKvSerializerXMLString::DocumentToXML_UTF8(text, tree));
        Chunk(name, text.c_str(), text.Size());
    }
    void Attributes(const SKvImageAttributes& a) {
        Lite(kChunkAttributesLV, [&](CKvLiteVariantW& w) { SKvImageAttributes::SaveToLiteVariant(w, a); });
    }
    // Prefix and pixels as two parts, so that the pixels start on a page.
    void Frame(uint32_t index, const Bytes& pixels, double time = 0.0) {
        uint8_t prefix[kFramePrefixSize];
        kvbytes::StoreF64(prefix, time);
        CKvStringA name;
        name.Format(kChunkFrame, index);
        ASSERT_EQ(KV_OK, m_writer.SetChunk(prefix, kFramePrefixSize, pixels.data(),
                                           static_cast<uint32_t>(pixels.size()), name.c_str()));
    }
    void Times(const std::vector<double>& times, size_t extraBytes = 0) {
        Bytes b(times.size() * 8 + extraBytes, 0x11);
        for (size_t i = 0; i < times.size(); ++i) kvbytes::StoreF64(b.data() + 8 * i, times[i]);
        Chunk(kChunkAcqTimes, b.data(), b.size());
    }
    template <typename Reader>
    Reader* Open() {
        if (!m_writer.IsFinalized()) {
            EXPECT_EQ(KV_OK, m_writer.Finalize());
        }
        auto chunker = std::make_unique<CKvFileChunker>();
        CKvStringA version;
        EXPECT_EQ(KV_OK, chunker->Initialize_Memory(m_buffer, true, false, version));
        return new Reader(nullptr, std::move(chunker));
    }

private:
    CKvByteArray m_buffer;
    CKvFileChunker m_writer;
};

// Releases a reader at the end of a test.
template <typename Reader>
struct COpened {
    explicit COpened(Reader* r) : reader(r) {}
    ~COpened() { EXPECT_EQ(0u, reader->Release()); }
    Reader* operator->() { return reader; }
    Reader* reader;
};

SKvPictureMetadata Metadata(double objectiveMag) {
    SKvPictureMetadata meta;
    meta.dObjectiveMag = objectiveMag;
    meta.dTimeAbsolute = 42.0;
    meta.dTimeMSec = 7.0;
    return meta;
}

void WriteLiteMetadata(CFileBuilder& b, uint32_t index, const SKvPictureMetadata& meta) {
    CKvStringA name;
    name.Format(kChunkPictureMetaLV, index);
    b.Lite(name.c_str(), [&](CKvLiteVariantW& w) { SKvPictureMetadata::SaveToLiteVariant(w, meta); });
}

}  // namespace

// Frames whose chunks or attributes lie are refused without writing outside
// the caller's frame; a frame that is missing leaves the buffer untouched.
TEST(QV8InputFrames, DamagedFramesAreRefusedWithinTheCallersBuffer) {
    const SKvImageAttributes raw = Shape(100, 10, 1, 8, kCompressionNone);
    const SKvImageAttributes packed = Shape(100, 10, 1, 8, kCompressionZlib);
    struct Case {
        const char* what;
        SKvImageAttributes attributes;
        Bytes stored;
        kv_result expected;
        bool untouched;
    } cases[] = {
        {"missing frame", raw, {}, KV_ERR_NOT_FOUND, true},
        {"frame chunk shorter than the frame", raw, Pattern(999), KV_ERR_FAILED, true},
        {"zero row stride", raw, Pattern(1000), KV_ERR_FAILED, true},
        {"stride below the pixels of a row", Shape(100, 10, 3, 16, kCompressionNone, 1, 100), Pattern(1000),
         KV_ERR_FAILED, true},
        {"zero height", Shape(100, 0, 1, 8, kCompressionNone), Pattern(1000), KV_ERR_FAILED, true},
        {"no bits per component", raw, Pattern(1000), KV_ERR_FAILED, true},
        {"inflates to more than a frame", packed, TestDeflate(Pattern(2000)), KV_ERR_FAILED, false},
        {"inflates to less than a frame", packed, TestDeflate(Pattern(500)), KV_ERR_FAILED, false},
        {"no zlib stream", packed, Pattern(300), KV_ERR_FAILED, false},
    };
    cases[2].attributes.uiWidthBytes = 0;
    cases[5].attributes.uiBpcInMemory = 0;
    for (const Case& c : cases) {
        CFileBuilder b;
        b.Attributes(c.attributes);
        if (!c.stored.empty()) b.Frame(0, c.stored);
        COpened<CKvQV8InputFile_V03> f(b.Open<CKvQV8InputFile_V03>());
        CGuarded buffer(1000);
        EXPECT_EQ(c.expected, f->GetData(0, buffer.data(), nullptr, nullptr)) << c.what;
        EXPECT_TRUE(c.untouched ? buffer.Untouched() : buffer.GuardsIntact()) << c.what;
        if (c.stored.empty()) {
            EXPECT_EQ(KV_ERR_INVALID_ARG, f->GetData(0, nullptr, nullptr, nullptr));
        }
    }
}

TEST(QV8InputFrames, ComponentDataTakesOneComponent) {
    CFileBuilder b;
    b.Attributes(Shape(3, 2, 3, 8, kCompressionNone, 1, 12));
    const Bytes pixels = Pattern(24);
    b.Frame(0, pixels);
    COpened<CKvQV8InputFile_V03> f(b.Open<CKvQV8InputFile_V03>());

    CGuarded green(2 * 4);
    ASSERT_EQ(KV_OK, f->GetComponentData(0, 1, green.data(), 4, 0));
    for (size_t y = 0; y < 2; ++y) {
        for (size_t x = 0; x < 3; ++x) EXPECT_EQ(pixels[y * 12 + x * 3 + 1], green.data()[y * 4 + x]);
        EXPECT_EQ(kGuard, green.data()[y * 4 + 3]);  // row padding is not written
    }
    CGuarded other(6);
    EXPECT_EQ(KV_ERR_INVALID_ARG, f->GetComponentData(0, 3, other.data(), 0, 0));
    EXPECT_EQ(KV_ERR_INVALID_ARG, f->GetComponentData(0, 0, nullptr, 0, 0));
    EXPECT_TRUE(other.Untouched());
}

TEST(QV8InputRect, RawFramesAreResampledRowByRow) {
    CFileBuilder b;
    b.Attributes(Shape(4, 4, 1, 8, kCompressionNone, 1, 8));
    Bytes pixels(32, 0);
    for (uint8_t y = 0; y < 4; ++y)
        for (uint8_t x = 0; x < 4; ++x) pixels[y * 8 + x] = static_cast<uint8_t>(10 * y + x);
    b.Frame(0, pixels);
    COpened<CKvQV8InputFile_V03> f(b.Open<CKvQV8InputFile_V03>());

    // The 2 x 2 rectangle at (1, 2) doubled: each source pixel fills 2 x 2.
    uint8_t up[16];
    ASSERT_EQ(KV_OK, f->GetRectData(0, 1, 2, 2, 2, 4, 4, up, 0, 0, nullptr, nullptr));
    const uint8_t expectedUp[16] = {21, 21, 22, 22, 21, 21, 22, 22, 31, 31, 32, 32, 31, 31, 32, 32};
    EXPECT_EQ(0, std::memcmp(up, expectedUp, 16));
    // The whole frame halved, into rows of 3 bytes: the centre of each 2 x 2 cell.
    CGuarded down(6);
    ASSERT_EQ(KV_OK, f->GetRectData(0, 0, 0, 4, 4, 2, 2, down.data(), 3, 0, nullptr, nullptr));
    EXPECT_EQ((Bytes{11, 13, kGuard, 31, 33, kGuard}), down.Inner());

    CGuarded refused(16);
    EXPECT_EQ(KV_ERR_INVALID_ARG, f->GetRectData(0, 3, 0, 2, 1, 2, 1, refused.data(), 0, 0, nullptr, nullptr));
    EXPECT_EQ(KV_ERR_INVALID_ARG, f->GetRectData(0, 0, 0, 4, 4, 0, 4, refused.data(), 0, 0, nullptr, nullptr));
    EXPECT_EQ(KV_ERR_INVALID_ARG, f->GetRectData(0, 0, 0, 4, 4, 4, 4, nullptr, 0, 0, nullptr, nullptr));
    EXPECT_EQ(KV_ERR_NOT_FOUND, f->GetRectData(1, 0, 0, 4, 4, 4, 4, refused.data(), 0, 0, nullptr, nullptr));
    EXPECT_TRUE(refused.Untouched());

    int calls = 0;
    auto cancelSecond = [](double, void* user) { return ++*static_cast<int*>(user) == 2; };
    EXPECT_EQ(KV_ERR_CANCELLED, f->GetRectData(0, 0, 0, 4, 4, 4, 4, up, 0, 0, cancelSecond, &calls));
    EXPECT_EQ(2, calls);
}

TEST(QV8InputRect, CompressedFramesOnlyAtFullSizeFromTheThumbnail) {
    CFileBuilder b;
    b.Attributes(Shape(4, 2, 1, 8, kCompressionZlib));
    b.Frame(0, TestDeflate(Pattern(8)));
    COpened<CKvQV8InputFile_V03> noThumbnail(b.Open<CKvQV8InputFile_V03>());
    uint8_t out[8];
    EXPECT_EQ(KV_ERR_NOT_SUPPORTED, noThumbnail->GetRectData(0, 0, 0, 4, 2, 2, 1, out, 0, 0, nullptr, nullptr));
    EXPECT_EQ(KV_ERR_NOT_SUPPORTED, noThumbnail->GetRectData(0, 0, 0, 4, 2, 4, 2, out, 0, 0, nullptr, nullptr));

    CFileBuilder t;
    t.Attributes(Shape(4, 2, 1, 8, kCompressionZlib));
    CKvListVariant members;
    members.Add(CKvVariant(1u, L"uiComp"));
    members.Add(CKvVariant(8u, L"uiBpc"));
    members.Add(CKvVariant(4u, L"uiWidthBytes"));
    members.Add(CKvVariant(2u, L"uiHeight"));
    members.Add(CKvVariant(4u, L"uiWidth"));
    members.Add(CKvVariant(CKvByteArray("ABCDEFGH", 8), L"pData"));
    const CKvVariant thumbnail(members, L"Thumbnail");
    t.Lite("CustomDataVar|Thumbnail_V1_0!", [&](CKvLiteVariantW& w) { w.Set(thumbnail); });
    COpened<CKvQV8InputFile_V03> f(t.Open<CKvQV8InputFile_V03>());
    ASSERT_EQ(KV_OK, f->GetRectData(0, 1, 0, 2, 2, 2, 2, out, 0, 0, nullptr, nullptr));
    EXPECT_EQ(0, std::memcmp(out, "BCFG", 4));
}

// The first picture-metadata chunk serves every frame, with each frame's
// time from the cache when the cache has one.
TEST(QV8InputMetadata, SharedMetadataWithCachedTimes) {
    CFileBuilder b;
    b.Attributes(Shape(2, 2, 1, 8, kCompressionNone, 6));
    WriteLiteMetadata(b, 2, Metadata(40.0));
    b.Times({1000.0, 1500.0, 2500.0}, 5);  // trailing bytes of no whole double are ignored
    COpened<CKvQV8InputFile_V03> f(b.Open<CKvQV8InputFile_V03>());

    for (uint32_t frame = 0; frame < 6; ++frame) {
        SKvPictureMetadata meta;
        ASSERT_EQ(KV_OK, f->GetImageMetadata(frame, meta, nullptr)) << frame;
        EXPECT_EQ(40.0, meta.dObjectiveMag);
        const double absolute = frame < 3 ? std::vector<double>{1000.0, 1500.0, 2500.0}[frame] : 42.0;
        EXPECT_EQ(absolute, meta.dTimeAbsolute) << frame;
        EXPECT_EQ(frame < 3 ? absolute - 1000.0 : 7.0, meta.dTimeMSec) << frame;
    }
    double time = 0.0;
    EXPECT_EQ(KV_OK, f->GetAcqTime(time));
    EXPECT_EQ(1000.0, time);
}

// A sequence count of four billion must not make the search probe every name.
TEST(QV8InputMetadata, HugeSequenceCountIsSearchedQuickly) {
    CFileBuilder b;
    b.Attributes(Shape(2, 2, 1, 8, kCompressionNone, 4000000000u));
    WriteLiteMetadata(b, 3999999999u, Metadata(60.0));
    WriteLiteMetadata(b, 17, Metadata(20.0));
    b.Chunk("ImageMetadataSeqLV|017!", "x", 1);  // not a name the writer makes
    COpened<CKvQV8InputFile_V03> f(b.Open<CKvQV8InputFile_V03>());
    const auto start = std::chrono::steady_clock::now();
    SKvPictureMetadata meta;
    ASSERT_EQ(KV_OK, f->GetImageMetadata(123456789u, meta, nullptr));
    EXPECT_EQ(20.0, meta.dObjectiveMag);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));

    CFileBuilder none;
    none.Attributes(Shape(2, 2, 1, 8, kCompressionNone, 4000000000u));
    COpened<CKvQV8InputFile_V03> empty(none.Open<CKvQV8InputFile_V03>());
    EXPECT_EQ(KV_ERR_NOT_FOUND, empty->GetImageMetadata(0, meta, nullptr));
}

// Version-3 readers fall back to the XML chunks older files carry.
TEST(QV8InputMetadata, Version3FallsBackToXmlChunks) {
    SKvImageTextInfo info;
    info.aItems[3] = L"description";
    SKvExperimentRecord record;
    SKvExperimentEvent event;
    SKvExperimentEvent::Init(event, 5.0, SKvExperimentEvent::eMeaningUserMark, L"mark", nullptr, 0);
    SKvExperimentRecord::AddEvent(record, event);
    CKvVariant infoTree, recordTree;
    ASSERT_EQ(KV_OK, SKvImageTextInfo::SaveToVariant(infoTree, info));
    ASSERT_EQ(KV_OK, SKvExperimentRecord::SaveToVariant(recordTree, record));

    CFileBuilder b;
    b.Xml(kChunkTextInfo, infoTree);
    b.Xml(kChunkEvents, recordTree);
    COpened<CKvQV8InputFile_V03> f(b.Open<CKvQV8InputFile_V03>());
    SKvImageTextInfo readInfo;
    ASSERT_EQ(KV_OK, f->GetImageTextInfo(readInfo));
    EXPECT_EQ(info, readInfo);
    SKvExperimentRecord readRecord;
    ASSERT_EQ(KV_OK, f->GetImageEvents(readRecord, nullptr));
    ASSERT_EQ(1u, readRecord.GetCount());
    EXPECT_EQ(5.0, readRecord[0].dTime);
    SKvExperiment experiment;
    EXPECT_EQ(KV_ERR_NOT_FOUND, f->GetImageMetadata(experiment, nullptr));
}

// The frames found in the map, by index (not by name, which puts 10 before
// 2), with what their pixels take as stored; names that are no frame's and
// chunks too short for the time prefix are left out.
TEST(QV8InputFrames, StoredFramesComeFromTheMap) {
    CFileBuilder b;
    b.Attributes(Shape(10, 10, 1, 8, kCompressionZlib, 1000));
    const Bytes packed = TestDeflate(Pattern(100));
    for (uint32_t index : {10u, 2u, 0u}) b.Frame(index, packed);
    b.Chunk("ImageDataSeq|7!", "1234", 4);    // shorter than the prefix
    b.Chunk("ImageDataSeq|03!", "12345678", 8);  // not as "%u" writes 3
    b.Chunk("ImageDataSeq|x!", "12345678", 8);
    b.Chunk("ImageDataSeqLV|4!", "12345678", 8);
    COpened<CKvQV8InputFile_V03> f(b.Open<CKvQV8InputFile_V03>());
    std::vector<SKvStoredFrame> frames = {{99, 99}};
    ASSERT_EQ(KV_OK, f->GetStoredFrames(frames));
    ASSERT_EQ(3u, frames.size());
    for (size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ((std::vector<uint32_t>{0, 2, 10})[i], frames[i].uiIndex);
        EXPECT_EQ(packed.size(), frames[i].nStoredBytes);
    }
    EXPECT_STREQ("", f->GetVersionText().GetString()) << "not given by this opener";
}

// A per-frame variant tree of another frame is not found even when the
// file-wide tree of the same tag exists.
TEST(QV8InputCustomData, RawVariantAndBinaryForms) {
    CFileBuilder b;
    b.Chunk("CustomData|Gr\xC3\xB6\xC3\x9F" "e!", "abc", 3);
    b.Chunk("CustomDataSeq|Tag|4!", "seq", 3);
    b.Chunk(kChunkBinary, "bin", 3);
    b.Lite("CustomDataVar|Tag!", [&](CKvLiteVariantW& w) { w.Set(CKvVariant(7u, L"Tag")); });
    COpened<CKvQV8InputFile_V03> f(b.Open<CKvQV8InputFile_V03>());

    CKvByteArray data;
    ASSERT_EQ(KV_OK, f->GetCustomData(L"Gr\u00F6\u00DFe", data));
    EXPECT_EQ(CKvByteArray("abc", 3), data);
    ASSERT_EQ(KV_OK, f->GetCustomDataSeq(L"Tag", 4, data));
    EXPECT_EQ(CKvByteArray("seq", 3), data);
    EXPECT_EQ(KV_ERR_NOT_FOUND, f->GetCustomDataSeq(L"Tag", 5, data));
    EXPECT_EQ(CKvByteArray("seq", 3), data);
    EXPECT_EQ(KV_ERR_INVALID_ARG, f->GetCustomData(nullptr, data));

    CKvVariant read;
    EXPECT_EQ(KV_ERR_NOT_FOUND, f->GetCustomDataVarSeq(L"Tag", 0, read));
    EXPECT_EQ(KV_OK, f->GetImageBinary(nullptr));
    CKvByteArray binary;
    ASSERT_EQ(KV_OK, f->GetImageBinary(&binary));
    EXPECT_EQ(CKvByteArray("bin", 3), binary);
}

// Frames, metadata and custom trees of version 2 are covered by the round
// trips; here the attributes from XML, the caller's sequence count, and the
// lite-variant chunks that mean nothing to this version.
TEST(QV8InputVersion2, XmlAttributesAndSequenceCountOverride) {
    const SKvImageAttributes shape = Shape(8, 2, 1, 8, kCompressionZlib, 3);
    CKvVariant attributes;
    ASSERT_EQ(KV_OK, SKvImageAttributes::SaveToVariant(attributes, shape));
    SKvImageTextInfo info;
    info.aItems[0] = L"lite";
    CFileBuilder b;
    b.Xml(kChunkAttributes, attributes);
    b.Lite(kChunkTextInfoLV, [&](CKvLiteVariantW& w) { SKvImageTextInfo::SaveToLiteVariant(w, info); });
    COpened<CKvQV8InputFile_V02> f(b.Open<CKvQV8InputFile_V02>());

    SKvImageAttributes read;
    ASSERT_EQ(KV_OK, f->GetImageAttributes(read));
    EXPECT_EQ(shape, read);
    f->SetTotalSequenceCount(9);
    ASSERT_EQ(KV_OK, f->GetImageAttributes(read));
    EXPECT_EQ(9u, read.uiSequenceCount);
    EXPECT_EQ(KV_ERR_NOT_FOUND, f->GetImageTextInfo(info));
}

TEST(QV8InputVersion1, EveryReadFailsAndWritesNothing) {
    CFileBuilder b;
    b.Attributes(Shape(2, 2, 1, 8, kCompressionNone));
    b.Frame(0, Pattern(4));
    COpened<CKvQV8InputFile_V01> f(b.Open<CKvQV8InputFile_V01>());

    CGuarded buffer(4);
    SKvImageAttributes attributes;
    SKvPictureMetadata meta = Metadata(3.0);
    CKvByteArray data("keep", 4);
    CKvVariant tree(5u, L"keep");
    EXPECT_EQ(KV_ERR_FAILED, f->GetData(0, buffer.data(), nullptr, nullptr));
    EXPECT_EQ(KV_ERR_FAILED, f->GetComponentData(0, 0, buffer.data(), 0, 0));
    EXPECT_EQ(KV_ERR_FAILED, f->GetRectData(0, 0, 0, 2, 2, 2, 2, buffer.data(), 0, 0, nullptr, nullptr));
    EXPECT_EQ(KV_ERR_FAILED, f->GetImageAttributes(attributes));
    EXPECT_EQ(KV_ERR_FAILED, f->GetImageMetadata(0, meta, &tree));
    EXPECT_EQ(KV_ERR_FAILED, f->GetCustomData(L"a", data));
    EXPECT_EQ(KV_ERR_FAILED, f->GetCustomDataVar(L"a", tree));
    EXPECT_TRUE(buffer.Untouched());
    EXPECT_EQ(SKvImageAttributes(), attributes);
    EXPECT_EQ(3.0, meta.dObjectiveMag);
    EXPECT_EQ(CKvByteArray("keep", 4), data);
    EXPECT_TRUE(tree == CKvVariant(5u, L"keep"));
}

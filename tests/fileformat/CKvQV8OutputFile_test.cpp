// Tests of the QV8 writers: files are written through a container opened on
// a temporary file, then their chunks are read with a separate container and
// decoded here, independently of the readers.
#include "fileformat/CKvQV8OutputFile.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fileformat/CKvQV8InputFile.h"
#include "gnr_system/CKvSerializerXMLString.h"
#include "gnr_system/KvBytes.h"
#include "tests/TestSupport.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Pattern(size_t size, uint8_t seed) {
    Bytes b(size);
    for (size_t i = 0; i < size; ++i) b[i] = static_cast<uint8_t>(seed + (i * 31 + (i >> 7)) % 23);
    return b;
}

SKvImageAttributes Attributes(uint32_t compression, double parameter = 0.0) {
    SKvImageAttributes a;
    a.uiWidth = 64;
    a.uiHeight = 32;
    a.uiComp = 1;
    a.uiBpcInMemory = 8;
    a.uiBpcSignificant = 8;
    a.eCompression = compression;
    a.dCompressionParam = parameter;
    return a;
}

// Releases the writer at the end of a test; Finalize is the test's business.
struct WriterDeleter {
    void operator()(CKvQV8OutputFile_V02* w) const { w->Release(); }
};
using WriterPtr = std::unique_ptr<CKvQV8OutputFile_V02, WriterDeleter>;

class OutputFileTest : public ::testing::Test {
protected:
    std::wstring Path() const { return m_dir.WideFile("out.qv8"); }

    WriterPtr Open(const char* version = "Ver3.0", bool existed = false) {
        auto chunker = std::make_unique<CKvFileChunker>();
        CKvStringA text(version);
        EXPECT_EQ(KV_OK, chunker->Initialize_File(Path().c_str(), false, existed, text));
        const CKvStringW name(Path().c_str());
        if (text == "Ver2.0") return WriterPtr(new CKvQV8OutputFile_V02(nullptr, name, existed, std::move(chunker)));
        return WriterPtr(new CKvQV8OutputFile_V03(nullptr, name, existed, std::move(chunker)));
    }

    // A fresh read-only container over the written file.
    std::unique_ptr<CKvFileChunker> Chunks() {
        auto chunker = std::make_unique<CKvFileChunker>();
        CKvStringA version;
        EXPECT_EQ(KV_OK, chunker->Initialize_File(Path().c_str(), true, false, version));
        return chunker;
    }

    Bytes Chunk(const char* name) {
        CKvByteArray data;
        if (Chunks()->GetChunk(data, name) != KV_OK) return {};
        return Bytes(data.GetData(), data.GetData() + data.GetSize());
    }
    bool HasChunk(const char* name) { return Chunks()->ExistChunk(name); }
    Bytes Frame(uint32_t index) {
        CKvStringA name;
        name.Format(kChunkFrame, index);
        return Chunk(name.c_str());
    }

    SKvImageAttributes LiteAttributes() {
        SKvImageAttributes a;
        CKvLiteVariantR reader;
        EXPECT_EQ(KV_OK, Chunks()->GetChunk(reader, kChunkAttributesLV));
        EXPECT_EQ(KV_OK, SKvImageAttributes::LoadFromLiteVariant(a, reader));
        return a;
    }
    CKvVariant XmlTree(const char* name) {
        const Bytes doc = Chunk(name);
        CKvVariant tree;
        EXPECT_EQ(KV_OK, CKvSerializerXMLString::VariantFromXML_UTF8(
                             tree, reinterpret_cast<const char*>(doc.data()), static_cast<unsigned>(doc.size())));
        return tree;
    }
    std::vector<double> Times() {
        const Bytes data = Chunk(kChunkAcqTimes);
        std::vector<double> times;
        for (size_t at = 0; at + 8 <= data.size(); at += 8) times.push_back(kvbytes::LoadF64(data.data() + at));
        return times;
    }

    CTestTempDir m_dir;
};

void Flush(const WriterPtr& w, uint32_t index, const Bytes& pixels) {
    ASSERT_EQ(KV_OK, w->FlushData(index, const_cast<uint8_t*>(pixels.data()), nullptr, nullptr));
}

double Prefix(const Bytes& frame) { return frame.size() >= kFramePrefixSize ? kvbytes::LoadF64(frame.data()) : -99; }

TEST_F(OutputFileTest, RawFramesAreCallerBytesOnPageBoundariesAndCountTheHighestIndex) {
    auto w = Open();
    ASSERT_EQ(KV_OK, w->SetImageAttributes(Attributes(kCompressionNone)));
    const Bytes f0 = Pattern(64 * 32, 1), f1 = Pattern(64 * 32, 2), f2 = Pattern(64 * 32, 3);
    Flush(w, 0, f0);
    Flush(w, 2, f2);
    Flush(w, 1, f1);
    ASSERT_EQ(KV_OK, w->Finalize());

    EXPECT_EQ(3u, LiteAttributes().uiSequenceCount);
    const std::string file = ReadWholeFile(m_dir.File("out.qv8"));
    auto chunks = Chunks();
    const Bytes* frames[] = {&f0, &f1, &f2};
    for (uint32_t i = 0; i < 3; ++i) {
        CKvStringA name;
        name.Format(kChunkFrame, i);
        SKvChunkHeader header;
        ASSERT_EQ(KV_OK, chunks->GetChunkHeader(header, name.c_str()));
        EXPECT_EQ(kFramePrefixSize + frames[i]->size(), header.dataLength);
        const uint64_t pixels = chunks->GetChunkMap().at(name.View()).position + kChunkHeaderSize + header.nameLength +
                                kFramePrefixSize;
        EXPECT_EQ(0u, pixels % kPageSize) << name.c_str();
        ASSERT_LE(pixels + frames[i]->size(), file.size());
        EXPECT_EQ(0, std::memcmp(file.data() + pixels, frames[i]->data(), frames[i]->size())) << name.c_str();
    }
}

TEST_F(OutputFileTest, CompressionParameterChoosesTheZlibLevel) {
    const std::pair<double, int> cases[] = {{0.0, 6}, {12.0, 9}, {3.7, 3}, {1.0, 1}, {-5.0, 6}};
    const Bytes pixels = Pattern(64 * 32, 9);
    for (const auto& [parameter, level] : cases) {
        SCOPED_TRACE(parameter);
        {
            auto w = Open();
            ASSERT_EQ(KV_OK, w->SetImageAttributes(Attributes(kCompressionZlib, parameter)));
            Flush(w, 0, pixels);
            Flush(w, 1, pixels);
            ASSERT_EQ(KV_OK, w->Finalize());
        }
        Bytes expected(compressBound(pixels.size()));
        uLongf size = expected.size();
        ASSERT_EQ(Z_OK, compress2(expected.data(), &size, pixels.data(), pixels.size(), level));
        expected.resize(size);
        for (uint32_t i = 0; i < 2; ++i) {  // the second frame reuses the buffer
            const Bytes frame = Frame(i);
            ASSERT_GT(frame.size(), kFramePrefixSize);
            EXPECT_EQ(expected, Bytes(frame.begin() + kFramePrefixSize, frame.end()));
        }
        std::remove(m_dir.File("out.qv8").c_str());
    }
}

// Frames big enough to be deflated in blocks on several threads still hold one
// zlib stream that plain zlib inflates.
TEST_F(OutputFileTest, LargeCompressedFramesAreOrdinaryZlibStreams) {
    SKvImageAttributes a = Attributes(kCompressionZlib, 2);
    a.uiWidth = 1000;
    a.uiHeight = 700;  // 700,000 bytes: more than two blocks, not a whole number of them
    const Bytes f0 = Pattern(700000, 4), f1 = Pattern(700000, 5);
    KvSetFrameCodecThreads(3);
    {
        auto w = Open();
        ASSERT_EQ(KV_OK, w->SetImageAttributes(a));
        Flush(w, 0, f0);
        Flush(w, 1, f1);
        ASSERT_EQ(KV_OK, w->Finalize());
    }
    KvSetFrameCodecThreads(0);
    for (uint32_t i = 0; i < 2; ++i) {
        const Bytes chunk = Frame(i);
        ASSERT_GT(chunk.size(), kFramePrefixSize);
        Bytes out(700001);
        uLongf produced = out.size();
        ASSERT_EQ(Z_OK, uncompress(out.data(), &produced, chunk.data() + kFramePrefixSize,
                                   chunk.size() - kFramePrefixSize));
        out.resize(produced);
        EXPECT_EQ(out, i == 0 ? f0 : f1);
    }
}

TEST_F(OutputFileTest, AttributesAreNormalisedWhenSaved) {
    SKvImageAttributes a = Attributes(kCompressionNone);
    a.uiBpcInMemory = 12;
    a.uiBpcSignificant = 12;
    a.uiComp = 3;
    a.uiWidthBytes = 10;  // too small for 64 x 3 x 2 bytes
    auto w = Open();
    ASSERT_EQ(KV_OK, w->SetImageAttributes(a));
    const Bytes pixels = Pattern(64 * 3 * 2 * 32, 4);
    Flush(w, 0, pixels);
    ASSERT_EQ(KV_OK, w->Finalize());

    const SKvImageAttributes saved = LiteAttributes();
    EXPECT_EQ(16u, saved.uiBpcInMemory);
    EXPECT_EQ(12u, saved.uiBpcSignificant);
    EXPECT_EQ(64u * 3 * 2, saved.uiWidthBytes);
    EXPECT_EQ(64u, saved.uiTileWidth);
    EXPECT_EQ(32u, saved.uiTileHeight);
    EXPECT_EQ(kFramePrefixSize + pixels.size(), Frame(0).size());
}

TEST_F(OutputFileTest, TimesReachPrefixesAndCacheOnlyForWrittenFrames) {
    auto w = Open();
    ASSERT_EQ(KV_OK, w->SetImageAttributes(Attributes(kCompressionNone)));
    const Bytes pixels = Pattern(64 * 32, 5);
    ASSERT_EQ(KV_OK, w->SetAcqTime(100.5));  // frame 0, set before its FlushData
    Flush(w, 0, pixels);
    Flush(w, 1, pixels);  // no time
    SKvPictureMetadata meta;
    meta.dTimeAbsolute = 300.25;
    ASSERT_EQ(KV_OK, w->SetImageMetadata(2, meta, nullptr));
    Flush(w, 2, pixels);
    ASSERT_EQ(KV_OK, w->SetAcqTime(400.0));  // frame 3, never written
    EXPECT_EQ(KV_ERR_INVALID_ARG, w->setTimeToAcqTimesCache(kMaxAcqTimeIndex + 1, 1.0, true));
    ASSERT_EQ(KV_OK, w->Finalize());

    EXPECT_EQ(100.5, Prefix(Frame(0)));
    EXPECT_EQ(0.0, Prefix(Frame(1)));
    EXPECT_EQ(300.25, Prefix(Frame(2)));
    EXPECT_EQ((std::vector<double>{100.5, -1.0, 300.25, -1.0}), Times());
    EXPECT_TRUE(HasChunk("ImageMetadataSeqLV|2!"));
}

TEST_F(OutputFileTest, RefusesBadInputAndFinalizesOnceWithoutUnusedTimes) {
    auto w = Open();
    SKvImageAttributes oneBit = Attributes(kCompressionNone);
    oneBit.uiBpcSignificant = 1;
    EXPECT_EQ(KV_ERR_FAILED, w->SetImageAttributes(oneBit));
    Bytes pixels = Pattern(64 * 32, 7);
    EXPECT_EQ(KV_ERR_FAILED, w->FlushData(0, pixels.data(), nullptr, nullptr));  // no shape yet
    ASSERT_EQ(KV_OK, w->SetImageAttributes(Attributes(kCompressionNone)));
    EXPECT_EQ(KV_ERR_INVALID_ARG, w->FlushData(0, nullptr, nullptr, nullptr));
    EXPECT_EQ(KV_ERR_INVALID_ARG, w->SetCustomData(nullptr, "x", 1));
    EXPECT_EQ(KV_ERR_INVALID_ARG, w->SetCustomData(L"big", pixels.data(), 0x100000000ull));
    EXPECT_EQ(KV_ERR_INVALID_ARG, w->SetImageBinary(nullptr));
    Flush(w, 0, pixels);
    ASSERT_EQ(KV_OK, w->SetAcqTime(5.0));  // for a frame that never comes: no cache chunk
    EXPECT_EQ(KV_OK, w->Finalize());
    EXPECT_EQ(KV_OK, w->Finalize());
    EXPECT_TRUE(HasChunk("ImageDataSeq|0!"));
    EXPECT_FALSE(HasChunk(kChunkAcqTimes));
}

TEST_F(OutputFileTest, FinalizeReportsInvalidAttributesButStillClosesTheFile) {
    auto w = Open();
    EXPECT_EQ(KV_ERR_FAILED, w->Finalize());
    EXPECT_EQ(KV_OK, w->Finalize());
    auto chunks = Chunks();
    EXPECT_FALSE(chunks->IsChunkMapMissing());
    EXPECT_FALSE(chunks->ExistChunk(kChunkAttributesLV));
}

TEST_F(OutputFileTest, AppendingKeepsOldFramesAndTimes) {
    const Bytes a = Pattern(64 * 32, 10), b = Pattern(64 * 32, 11), c = Pattern(64 * 32, 12);
    for (const char* version : {"Ver2.0", "Ver3.0"}) {
        SCOPED_TRACE(version);
        {
            auto w = Open(version);
            ASSERT_EQ(KV_OK, w->SetImageAttributes(Attributes(kCompressionNone)));
            ASSERT_EQ(KV_OK, w->SetAcqTime(1.0));
            Flush(w, 0, a);
            Flush(w, 1, b);
            ASSERT_EQ(KV_OK, w->Finalize());
        }
        {
            auto w = Open("Ver9.9", true);  // an existing file keeps its own version
            SKvImageAttributes kept;
            ASSERT_EQ(KV_OK, w->_GetImageAttributes(kept));
            EXPECT_EQ(2u, kept.uiSequenceCount);
            ASSERT_EQ(KV_OK, w->SetImageAttributes(Attributes(kCompressionNone)));
            ASSERT_EQ(KV_OK, w->SetAcqTime(3.0));  // the frame after the old ones
            Flush(w, 2, c);
            ASSERT_EQ(KV_OK, w->Finalize());
            ASSERT_EQ(KV_OK, w->_GetImageAttributes(kept));
            EXPECT_EQ(3u, kept.uiSequenceCount);
        }
        if (std::string(version) == "Ver3.0") EXPECT_EQ(3u, LiteAttributes().uiSequenceCount);
        else EXPECT_TRUE(HasChunk(kChunkAttributes));
        EXPECT_EQ((std::vector<double>{1.0, -1.0, 3.0}), Times());
        const Bytes* frames[] = {&a, &b, &c};
        for (uint32_t i = 0; i < 3; ++i) {
            const Bytes frame = Frame(i);
            ASSERT_EQ(kFramePrefixSize + frames[i]->size(), frame.size());
            EXPECT_EQ(*frames[i], Bytes(frame.begin() + kFramePrefixSize, frame.end()));
        }
        std::remove(m_dir.File("out.qv8").c_str());
    }
}

TEST_F(OutputFileTest, Version2WritesXmlAndVersion3LiteMetadata) {
    SKvImageTextInfo info;
    info.aItems[3] = L"description";
    CKvVariant custom{CKvListVariant(), CKvStringW(L"tree")};
    custom.Append(CKvVariant(7u, CKvStringW(L"uiSeven")));
    for (const char* version : {"Ver2.0", "Ver3.0"}) {
        SCOPED_TRACE(version);
        const bool v2 = std::string(version) == "Ver2.0";
        {
            auto w = Open(version);
            ASSERT_EQ(KV_OK, w->SetImageAttributes(Attributes(kCompressionNone)));
            ASSERT_EQ(KV_OK, w->SetImageTextInfo(info));
            ASSERT_EQ(KV_OK, w->SetImageMetadata(0, SKvPictureMetadata(), nullptr));
            ASSERT_EQ(KV_OK, w->SetImageEvents(SKvExperimentRecord(), nullptr));
            ASSERT_EQ(KV_OK, w->SetImageCalibration(4, 0.5, 2.0, false, CKvStringW(L"obj")));
            ASSERT_EQ(KV_OK, w->SetCustomData(L"Name\u00e9", "abc", 3));
            ASSERT_EQ(KV_OK, w->SetCustomDataSeq(L"Per", 5, "de", 2));
            ASSERT_EQ(KV_OK, w->SetCustomDataVar(L"Var", &custom));
            Flush(w, 0, Pattern(64 * 32, 13));
            ASSERT_EQ(KV_OK, w->Finalize());
        }
        EXPECT_EQ(v2, HasChunk(kChunkAttributes));
        EXPECT_EQ(!v2, HasChunk(kChunkAttributesLV));
        EXPECT_EQ(v2, HasChunk("ImageMetadataSeq|0!"));
        EXPECT_EQ(!v2, HasChunk("ImageMetadataSeqLV|0!"));
        EXPECT_TRUE(HasChunk(kChunkEvents));
        EXPECT_FALSE(HasChunk(kChunkEventsLV));
        EXPECT_EQ((Bytes{'a', 'b', 'c'}), Chunk("CustomData|Name\xc3\xa9!"));
        EXPECT_EQ((Bytes{'d', 'e'}), Chunk("CustomDataSeq|Per|5!"));

        SKvImageTextInfo readInfo;
        if (v2) {
            ASSERT_EQ(KV_OK, SKvImageTextInfo::LoadFromVariant(readInfo, XmlTree(kChunkTextInfo)));
            EXPECT_EQ(7u, XmlTree("CustomDataVar|Var!")[L"uiSeven"].GetKv_uint32());
            SKvImageAttributes attributes;
            ASSERT_EQ(KV_OK, SKvImageAttributes::LoadFromVariant(attributes, XmlTree(kChunkAttributes)));
            EXPECT_EQ(1u, attributes.uiSequenceCount);
        } else {
            CKvLiteVariantR reader;
            ASSERT_EQ(KV_OK, Chunks()->GetChunk(reader, kChunkTextInfoLV));
            ASSERT_EQ(KV_OK, SKvImageTextInfo::LoadFromLiteVariant(readInfo, reader));
            CKvLiteVariantR var;
            ASSERT_EQ(KV_OK, Chunks()->GetChunk(var, "CustomDataVar|Var!"));
            ASSERT_EQ(KV_OK, var.LevelBegin(L"Var"));
            EXPECT_EQ(7u, var.Get(L"uiSeven", 0u));
        }
        EXPECT_EQ(info, readInfo);

        const CKvVariant calibration = XmlTree("ImageCalibration|4!");
        EXPECT_EQ(0.0, calibration[L"dCalibration"].GetDouble());
        EXPECT_EQ(1.0, calibration[L"dAspect"].GetDouble());
        EXPECT_FALSE(calibration[L"bValid"].GetBool());
        EXPECT_EQ(CKvStringW(L"obj"), calibration[L"sObjective"].GetCKvStringW());
        std::remove(m_dir.File("out.qv8").c_str());
    }
}

TEST_F(OutputFileTest, ReaderOverAnUnfinishedFileSeesTheFramesWritten) {
    auto w = Open();
    ASSERT_EQ(KV_OK, w->SetImageAttributes(Attributes(kCompressionZlib, 3)));
    const Bytes f1 = Pattern(64 * 32, 21);
    Flush(w, 0, Pattern(64 * 32, 20));
    Flush(w, 1, f1);

    IKvInputImageFile* file = nullptr;
    EXPECT_EQ(KV_ERR_INVALID_ARG, w->CreateInputImageFile(1, file, nullptr));
    EXPECT_EQ(nullptr, file);
    ASSERT_EQ(KV_OK, w->CreateInputImageFile(0, file, nullptr));
    ASSERT_NE(nullptr, file);
    SKvImageAttributes read;
    EXPECT_EQ(KV_OK, file->GetImageAttributes(read));
    EXPECT_EQ(2u, read.uiSequenceCount);
    Bytes back(f1.size());
    EXPECT_EQ(KV_OK, file->GetData(1, back.data(), nullptr, nullptr));
    EXPECT_EQ(f1, back);
    EXPECT_STREQ("Ver3.0", dynamic_cast<CKvQV8InputFile_V02&>(*file).GetVersionText().GetString())
        << "a reader of a file being written tells its version too";
    file->Release();
    EXPECT_EQ(KV_OK, w->Finalize());
}

}  // namespace

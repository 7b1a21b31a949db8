// Whole files written through the format's output file and read back through
// its input file: pixels of every sample size, raw and compressed, and every
// kind of metadata, in both file versions.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "../TestSupport.h"
#include "fileformat/CKvImageFormatQV8.h"
#include "fileformat/CKvQV8InputFile.h"
#include "fileformat/CKvQV8OutputFile.h"
#include "gnr_metaformats/ExperimentAPI.h"

namespace {

SKvImageAttributes Shape(uint32_t width, uint32_t height, uint32_t comps, uint8_t bits, uint32_t compression,
                         double param = 0) {
    SKvImageAttributes a;
    a.uiWidth = width;
    a.uiHeight = height;
    a.uiComp = comps;
    a.uiBpcInMemory = bits;
    a.uiBpcSignificant = bits;
    a.uiWidthBytes = (width * comps * (bits / 8) + 3) / 4 * 4;
    a.eCompression = compression;
    a.dCompressionParam = param;
    return a;
}

// Deterministic pixels that compress: a ramp per frame with some noise.
std::vector<uint8_t> Frame(const SKvImageAttributes& a, uint32_t index) {
    std::vector<uint8_t> pixels(a.FrameSize());
    uint32_t state = 12345 + index;
    for (size_t i = 0; i < pixels.size(); ++i) {
        state = state * 1103515245 + 12345;
        pixels[i] = static_cast<uint8_t>((i / 7 + index * 3) + ((state >> 16) & 3));
    }
    return pixels;
}

// time x XY x Z
SKvExperiment* Experiment() {
    SKvExperiment* time = nullptr;
    SKvExperiment::Alloc(&time);
    SKvExperiment::Init(*time, SKvExperiment::eExpTimeLoop, 2);
    time->uLoopPars.TimeLoop.dPeriod = 500;
    SKvExperiment* xy = nullptr;
    SKvExperiment::Alloc(&xy);
    SKvExperiment::Init(*xy, SKvExperiment::eExpXYPosLoop, 2);
    xy->uLoopPars.XYPosLoop.Points[1].dPosX = 100;
    SKvExperiment* z = nullptr;
    SKvExperiment::Alloc(&z);
    SKvExperiment::Init(*z, SKvExperiment::eExpZStackLoop, 3);
    z->uLoopPars.ZStackLoop.dZStep = 0.5;
    SKvExperiment::AllocNextLevels(*xy, 1);
    xy->ppNextLevelEx[0] = z;
    SKvExperiment::AllocNextLevels(*time, 1);
    time->ppNextLevelEx[0] = xy;
    return time;
}

IKvOutputImageFile* Create(const std::wstring& path) {
    IKvOutputImageFile* out = nullptr;
    EXPECT_EQ(KV_OK, CKvImageFormatQV8::Shared()->CreateOutputImageFile(CKvStringW(path.c_str()), out));
    return out;
}

IKvInputImageFile* Read(const std::wstring& path, kv_result expected = KV_OK) {
    IKvInputImageFile* in = nullptr;
    EXPECT_EQ(expected, CKvImageFormatQV8::Shared()->CreateInputImageFile(CKvStringW(path.c_str()), in));
    return in;
}

struct SWritten {
    SKvImageAttributes attributes;
    std::vector<std::vector<uint8_t>> frames;
};

// Writes `frames` frames with all metadata through `out`, which is finalized and released.
SWritten WriteAll(IKvOutputImageFile* out, const SKvImageAttributes& attributes, uint32_t frames) {
    SWritten written{attributes, {}};
    EXPECT_EQ(KV_OK, out->SetImageAttributes(attributes));
    SKvPictureMetadata meta;
    meta.wsObjectiveName = L"Plan Apo 20x";
    SKvPicturePlanes::MakeCompatible(meta.sPicturePlanes, attributes.uiComp);
    EXPECT_EQ(KV_OK, out->SetImageMetadata(0, meta, nullptr));
    std::unique_ptr<SKvExperiment> experiment(Experiment());
    EXPECT_EQ(KV_OK, out->SetImageMetadata(*experiment, nullptr));
    SKvImageTextInfo info;
    info.aItems[0] = L"sample: HeLa";
    info.aItems[13] = L"last item";
    EXPECT_EQ(KV_OK, out->SetImageTextInfo(info));
    SKvExperimentRecord record;
    SKvExperimentEvent event;
    SKvExperimentEvent::Init(event, 250.0, SKvExperimentEvent::eMeaningUserMark, L"drug added", nullptr, 0);
    SKvExperimentRecord::AddEvent(record, event);
    EXPECT_EQ(KV_OK, out->SetImageEvents(record, nullptr));
    const uint8_t raw[] = {1, 2, 3};
    EXPECT_EQ(KV_OK, out->SetCustomData(L"raw", raw, sizeof raw));
    EXPECT_EQ(KV_OK, out->SetCustomDataSeq(L"perframe", 1, raw, 2));
    CKvVariant tree(CKvListVariant(), CKvStringW(L"settings"));
    tree.Append(CKvVariant(42u, CKvStringW(L"uiGain")));
    EXPECT_EQ(KV_OK, out->SetCustomDataVar(L"settings", &tree));
    EXPECT_EQ(KV_OK, out->SetImageCalibration(0, 0.325, 1.0, true, CKvStringW(L"20x")));
    for (uint32_t i = 0; i < frames; ++i) {
        written.frames.push_back(Frame(attributes, i));
        EXPECT_EQ(KV_OK, out->SetAcqTime(1000.0 + 100.0 * i));
        EXPECT_EQ(KV_OK, out->FlushData(i, written.frames.back().data(), nullptr, nullptr));
    }
    EXPECT_EQ(KV_OK, out->Finalize());
    out->Release();
    return written;
}

void CheckAll(IKvInputImageFile* in, const SWritten& w) {
    SKvImageAttributes attributes;
    ASSERT_EQ(KV_OK, in->GetImageAttributes(attributes));
    EXPECT_EQ(w.frames.size(), attributes.uiSequenceCount);
    EXPECT_EQ(w.attributes.eCompression, attributes.eCompression);
    for (uint32_t i = 0; i < w.frames.size(); ++i) {
        std::vector<uint8_t> back(w.frames[i].size() + 16, 0xEE);
        ASSERT_EQ(KV_OK, in->GetData(i, back.data(), nullptr, nullptr)) << i;
        EXPECT_TRUE(std::equal(w.frames[i].begin(), w.frames[i].end(), back.begin())) << i;
        EXPECT_EQ(0xEE, back[w.frames[i].size()]);
    }
    std::vector<uint8_t> spare(w.attributes.FrameSize());
    EXPECT_EQ(KV_ERR_NOT_FOUND, in->GetData(static_cast<uint32_t>(w.frames.size()), spare.data(), nullptr, nullptr));

    SKvPictureMetadata meta;
    ASSERT_EQ(KV_OK, in->GetImageMetadata(1, meta, nullptr));
    EXPECT_EQ(CKvStringW(L"Plan Apo 20x"), meta.wsObjectiveName);
    EXPECT_EQ(1100.0, meta.dTimeAbsolute);
    EXPECT_EQ(100.0, meta.dTimeMSec);
    SKvExperiment experiment;
    ASSERT_EQ(KV_OK, in->GetImageMetadata(experiment, nullptr));
    std::unique_ptr<SKvExperiment> expected(Experiment());
    EXPECT_TRUE(SKvExperiment::IsEqual(expected.get(), &experiment, true, true));
    EXPECT_EQ(12u, CKvExperimentAPI::GetAllImagesCount(&experiment));
    SKvImageTextInfo info;
    ASSERT_EQ(KV_OK, in->GetImageTextInfo(info));
    EXPECT_EQ(CKvStringW(L"sample: HeLa"), info.aItems[0]);
    EXPECT_EQ(CKvStringW(L"last item"), info.aItems[13]);
    SKvExperimentRecord record;
    ASSERT_EQ(KV_OK, in->GetImageEvents(record, nullptr));
    ASSERT_EQ(1u, record.GetCount());
    ASSERT_TRUE(record[0].pDescription);
    EXPECT_EQ(CKvStringW(L"drug added"), *record[0].pDescription);
    CKvByteArray raw;
    ASSERT_EQ(KV_OK, in->GetCustomData(L"raw", raw));
    EXPECT_EQ(3u, raw.GetSize());
    ASSERT_EQ(KV_OK, in->GetCustomDataSeq(L"perframe", 1, raw));
    EXPECT_EQ(2u, raw.GetSize());
    EXPECT_EQ(KV_ERR_NOT_FOUND, in->GetCustomDataSeq(L"perframe", 0, raw));
    CKvVariant tree;
    ASSERT_EQ(KV_OK, in->GetCustomDataVar(L"settings", tree));
    const CKvVariant* gain = tree.SearchFixedOneLevel(L"uiGain");
    ASSERT_TRUE(gain);
    EXPECT_EQ(42u, gain->GetKv_uint32());
}

}  // namespace

TEST(QV8File, EverySampleSizeRoundTripsRawAndCompressed) {
    CTestTempDir dir;
    int n = 0;
    for (uint8_t bits : {8, 16, 32}) {
        for (uint32_t comps : {1u, 3u}) {
            for (uint32_t compression : {kCompressionNone, kCompressionZlib}) {
                SCOPED_TRACE(::testing::Message() << int(bits) << " bits, " << comps << " comps, " << compression);
                const std::wstring path = dir.WideFile(("f" + std::to_string(n++) + ".qv8").c_str());
                const SWritten w = WriteAll(Create(path), Shape(37, 11, comps, bits, compression, 3), 4);
                IKvInputImageFile* in = Read(path);
                ASSERT_NE(nullptr, dynamic_cast<CKvQV8InputFile_V03*>(in));
                CheckAll(in, w);
                in->Release();
            }
        }
    }
}

TEST(QV8File, VersionTwoFilesRoundTripThroughTheirOwnClasses) {
    CTestTempDir dir;
    const std::wstring path = dir.WideFile("v2.qv8");
    {
        CKvFileChunker empty;
        CKvStringA version("Ver2.0");
        ASSERT_EQ(KV_OK, empty.Initialize_File(path.c_str(), false, false, version));
        ASSERT_EQ(KV_OK, empty.Finalize());
    }
    IKvOutputImageFile* out = Create(path);
    ASSERT_EQ(nullptr, dynamic_cast<CKvQV8OutputFile_V03*>(out));
    const SWritten w = WriteAll(out, Shape(16, 8, 1, 16, kCompressionZlib, 0), 3);
    IKvInputImageFile* in = Read(path);
    ASSERT_NE(nullptr, in);
    EXPECT_EQ(nullptr, dynamic_cast<CKvQV8InputFile_V03*>(in));
    CheckAll(in, w);
    in->Release();
}

TEST(QV8File, UnfinishedFileIsReadableOnceItsMapIsRebuilt) {
    CTestTempDir dir;
    const std::wstring path = dir.WideFile("crash.qv8");
    IKvOutputImageFile* out = Create(path);
    const SKvImageAttributes shape = Shape(64, 4, 1, 8, kCompressionNone);
    ASSERT_EQ(KV_OK, out->SetImageAttributes(shape));
    const std::vector<uint8_t> pixels = Frame(shape, 0);
    ASSERT_EQ(KV_OK, out->FlushData(0, const_cast<uint8_t*>(pixels.data()), nullptr, nullptr));
    out->Release();  // never finalized

    EXPECT_EQ(nullptr, Read(path, KV_ERR_REFUSED_VERSION));
    {
        CKvFileChunker repair;
        CKvStringA version;
        ASSERT_EQ(KV_ERR_NOT_FOUND, repair.Initialize_File(path.c_str(), true, false, version));
        ASSERT_EQ(KV_OK, repair.CreateMissingChunkMap(nullptr, nullptr, nullptr));
        repair.Finalize();
    }
    // Appending to the repaired file keeps its frame.
    out = Create(path);
    ASSERT_NE(nullptr, out);
    const std::vector<uint8_t> second = Frame(shape, 1);
    ASSERT_EQ(KV_OK, out->FlushData(1, const_cast<uint8_t*>(second.data()), nullptr, nullptr));
    ASSERT_EQ(KV_OK, out->Finalize());
    out->Release();
    IKvInputImageFile* in = Read(path);
    ASSERT_NE(nullptr, in);
    std::vector<uint8_t> back(pixels.size());
    SKvImageAttributes attributes;
    ASSERT_EQ(KV_OK, in->GetImageAttributes(attributes));
    EXPECT_EQ(2u, attributes.uiSequenceCount);
    ASSERT_EQ(KV_OK, in->GetData(0, back.data(), nullptr, nullptr));
    EXPECT_EQ(pixels, back);
    ASSERT_EQ(KV_OK, in->GetData(1, back.data(), nullptr, nullptr));
    EXPECT_EQ(second, back);
    in->Release();
}

TEST(QV8File, LoadPictureFromFileTakesFrameZero) {
    CTestTempDir dir;
    const std::wstring path = dir.WideFile("one.qv8");
    const SWritten w = WriteAll(Create(path), Shape(9, 5, 3, 8, kCompressionZlib, 1), 2);
    SKvPicBuf picture;
    double calibration = 7, aspect = 7;
    SKvPictureMetadata meta;
    SKvImageTextInfo info;
    ASSERT_EQ(KV_OK, KV_LoadPictureFromFile(path.c_str(), &picture, &calibration, &aspect, &meta, &info));
    EXPECT_EQ(9u, picture.uiWidth);
    EXPECT_EQ(3u, picture.uiComponents);
    EXPECT_EQ(w.frames[0], picture.aData);
    EXPECT_EQ(0.0, calibration);
    EXPECT_EQ(1.0, aspect);
    EXPECT_EQ(CKvStringW(L"Plan Apo 20x"), meta.wsObjectiveName);
    EXPECT_EQ(CKvStringW(L"sample: HeLa"), info.aItems[0]);
}

#include "fileformat/CKvImageFormatQV8.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>

#include "../TestSupport.h"
#include "fileformat/CKvQV8InputFile.h"
#include "fileformat/CKvQV8OutputFile.h"
#include "gnr_system/ImageFormatManager.h"

namespace {

// A finished container with the given signature version and no chunks,
// or without its map when `finish` is false.
void MakeContainer(const std::wstring& path, const char* version, bool finish = true) {
    CKvFileChunker chunker;
    CKvStringA text(version);
    ASSERT_EQ(KV_OK, chunker.Initialize_File(path.c_str(), false, false, text));
    SKvImageAttributes attributes;
    attributes.uiWidth = attributes.uiWidthBytes = attributes.uiHeight = attributes.uiComp = 1;
    attributes.uiBpcInMemory = attributes.uiBpcSignificant = 8;
    CKvLiteVariantW writer;
    ASSERT_EQ(KV_OK, SKvImageAttributes::SaveToLiteVariant(writer, attributes));
    CKvLiteVariantR bytes;
    ASSERT_EQ(KV_OK, writer.Finalize(bytes, 0));
    ASSERT_EQ(KV_OK, chunker.SetChunk(bytes.GetData(), static_cast<uint32_t>(bytes.GetSize()), kChunkAttributesLV));
    // Without Finalize the storage is left without its map, as a crashed writer leaves it.
    if (finish) {
        ASSERT_EQ(KV_OK, chunker.Finalize());
    }
}

struct SInputFile {
    IKvInputImageFile* file = nullptr;
    ~SInputFile() {
        if (file) file->Release();
    }
};

}  // namespace

TEST(ImageFormatQV8, VersionTextChoosesTheReader) {
    CTestTempDir dir;
    CKvImageFormatQV8 format;
    struct SCase {
        const char* version;
        kv_result result;
        int reader;  // 2, 3, or 0 for none
    };
    for (const SCase& c : {SCase{"Ver2.0", KV_OK, 2}, SCase{"Ver3.0", KV_OK, 3}, SCase{"Ver7", KV_OK, 3},
                           SCase{"Verx", KV_OK, 3}, SCase{"Ver1.0", KV_ERR_REFUSED_VERSION, 0},
                           SCase{"Ve", KV_ERR_REFUSED_VERSION, 0}}) {
        SCOPED_TRACE(c.version);
        const std::wstring path = dir.WideFile((std::string(c.version) + ".qv8").c_str());
        MakeContainer(path, c.version);
        SInputFile input;
        EXPECT_EQ(c.result, format.CreateInputImageFile(CKvStringW(path.c_str()), input.file));
        if (c.reader == 0) {
            EXPECT_EQ(nullptr, input.file);
            continue;
        }
        ASSERT_NE(nullptr, input.file);
        EXPECT_EQ(c.reader == 3, dynamic_cast<CKvQV8InputFile_V03*>(input.file) != nullptr);
        const auto* reader = dynamic_cast<CKvQV8InputFile_V02*>(input.file);
        ASSERT_NE(nullptr, reader);
        EXPECT_STREQ(c.version, reader->GetVersionText().GetString()) << "the reader tells the version it was opened for";
        EXPECT_EQ(CKvImageFormatQV8::Shared(), input.file->GetImageFormat());
    }

    // A container that lost its map is refused until it is rebuilt.
    const std::wstring unfinished = dir.WideFile("unfinished.qv8");
    MakeContainer(unfinished, "Ver3.0", false);
    SInputFile refused;
    EXPECT_EQ(KV_ERR_REFUSED_VERSION, format.CreateInputImageFile(CKvStringW(unfinished.c_str()), refused.file));
    EXPECT_EQ(nullptr, refused.file);
    {
        CKvFileChunker repair;
        CKvStringA version;
        EXPECT_EQ(KV_ERR_NOT_FOUND, repair.Initialize_File(unfinished.c_str(), true, false, version));
        ASSERT_EQ(KV_OK, repair.CreateMissingChunkMap(nullptr, nullptr, nullptr));
        repair.Finalize();
    }
    SInputFile repaired;
    ASSERT_EQ(KV_OK, format.CreateInputImageFile(CKvStringW(unfinished.c_str()), repaired.file));
    SKvImageAttributes attributes;
    EXPECT_EQ(KV_OK, repaired.file->GetImageAttributes(attributes));
    EXPECT_EQ(1u, attributes.uiWidth);

    // Not a container at all, and no file.
    const std::string text = dir.File("text.qv8");
    FILE* f = std::fopen(text.c_str(), "wb");
    ASSERT_TRUE(f);
    std::fputs("just some text, not a container", f);
    std::fclose(f);
    SInputFile other;
    EXPECT_EQ(KV_ERR_FAILED, format.CreateInputImageFile(CKvStringW(dir.WideFile("text.qv8").c_str()), other.file));
    EXPECT_EQ(KV_ERR_FAILED, format.CreateInputImageFile(CKvStringW(dir.WideFile("none.qv8").c_str()), other.file));
    EXPECT_EQ(nullptr, other.file);

    EXPECT_EQ(3, KvQV8VersionNumber(CKvStringA("Ver3.0")));
    EXPECT_EQ(0, KvQV8VersionNumber(CKvStringA("Ver.")));
    EXPECT_EQ(-1, KvQV8VersionNumber(CKvStringA("Ver")));
    EXPECT_EQ(-1, KvQV8VersionNumber(CKvStringA("ver3")));
}

TEST(ImageFormatQV8, WriterFollowsTheFileItAppendsTo) {
    CTestTempDir dir;
    CKvImageFormatQV8 format;
    IKvOutputImageFile* out = nullptr;
    const std::wstring fresh = dir.WideFile("new.qv8");
    ASSERT_EQ(KV_OK, format.CreateOutputImageFile(CKvStringW(fresh.c_str()), out));
    EXPECT_NE(nullptr, dynamic_cast<CKvQV8OutputFile_V03*>(out));
    out->Finalize();
    out->Release();
    CKvFileChunker check;
    CKvStringA version;
    ASSERT_EQ(KV_OK, check.Initialize_File(fresh.c_str(), true, false, version));
    EXPECT_EQ(CKvStringA("Ver3.0"), version);
    check.Finalize();

    const std::wstring old = dir.WideFile("old.qv8");
    MakeContainer(old, "Ver2.0");
    ASSERT_EQ(KV_OK, format.CreateOutputImageFile(CKvStringW(old.c_str()), out));
    EXPECT_EQ(nullptr, dynamic_cast<CKvQV8OutputFile_V03*>(out));
    EXPECT_NE(nullptr, dynamic_cast<CKvQV8OutputFile_V02*>(out));
    out->Finalize();
    out->Release();

    const std::wstring first = dir.WideFile("first.qv8");
    MakeContainer(first, "Ver1.0");
    EXPECT_EQ(KV_ERR_FAILED, format.CreateOutputImageFile(CKvStringW(first.c_str()), out));
    EXPECT_EQ(nullptr, out);
}

TEST(ImageFormatQV8, AnswersWhatItSupports) {
    CKvImageFormatQV8 format;
    CKvStringA id;
    CKvStringW text, extensions;
    format.GetID(id);
    format.GetTextDescription(text);
    format.GetExtensions(extensions);
    EXPECT_EQ(CKvStringA("NDIMX"), id);
    EXPECT_EQ(CKvStringW(L"QV8 Image File Format"), text);
    EXPECT_EQ(CKvStringW(L".qv8"), extensions);
    using F = IKvImageFormat::_EKvImageFormatFeature;
    EXPECT_EQ(KV_OK, format.IsFeatureSupported(F(24)));
    EXPECT_EQ(KV_ERR_FORMAT_NOT_SUPPORTED, format.IsFeatureSupported(F(1)));
    EXPECT_EQ(KV_ERR_FORMAT_NOT_SUPPORTED, format.IsFeatureSupported(F(0xFFFFFFFF)));
    for (uint8_t bits : {7, 8, 16, 17}) {
        EXPECT_EQ(bits == 8 || bits == 16 ? KV_OK : KV_ERR_FORMAT_NOT_SUPPORTED,
                  format.IsDataFormatSupported(1, 1, bits, 1));
    }
    SKvImageAttributes attributes;
    attributes.uiBpcInMemory = 32;
    EXPECT_EQ(KV_ERR_FORMAT_NOT_SUPPORTED, format.IsFormatSupported(attributes));
    EXPECT_EQ(KV_OK, format.AdjustFormat(attributes));
    EXPECT_EQ(16, attributes.uiBpcInMemory);
}

TEST(ImageFormatManager, RegistersFindsAndRefuses) {
    IKvImageFormatManager* manager = nullptr;
    ASSERT_EQ(KV_OK, KvCreateObject("CKvImageFormatManagerImpl", "IKvImageFormatManager",
                                    reinterpret_cast<void**>(&manager)));
    std::unique_ptr<IKvImageFormatManager> owned(manager);
    void* none = nullptr;
    EXPECT_EQ(KV_ERR_NOT_FOUND, KvCreateObject("CKvImageFormatManagerImpl", "IKvSerializer", &none));
    EXPECT_EQ(nullptr, none);
    EXPECT_EQ(KV_ERR_INVALID_ARG, KvCreateObject("NoSuchClass", "IKvImageFormatManager", &none));

    ASSERT_EQ(KV_OK, manager->LoadAllImageFormats(true));
    ASSERT_EQ(1u, manager->GetImageFormatCount());
    IKvImageFormat* format = nullptr;
    ASSERT_EQ(KV_OK, manager->GetImageFormatByFilename(CKvStringW(L"/data/a.B.QV8"), format));
    EXPECT_EQ(CKvImageFormatQV8::Shared(), format);
    EXPECT_EQ(KV_ERR_INVALID_ARG, manager->GetImageFormatByFilename(CKvStringW(L"a.qv8.tif"), format));
    EXPECT_EQ(KV_ERR_INVALID_ARG, manager->GetImageFormatByFilename(CKvStringW(L"qv8"), format));
    EXPECT_EQ(KV_OK, manager->GetImageFormatByID(CKvStringA("NDIMX"), format));
    EXPECT_EQ(KV_ERR_INVALID_ARG, manager->GetImageFormatByID(CKvStringA("ndimx"), format));
    EXPECT_EQ(KV_ERR_INVALID_ARG, manager->GetImageFormat(1, format));

    CKvImageFormatQV8 second;
    uint32_t index = 99;
    EXPECT_EQ(KV_ERR_FORMAT_REGISTERED_TWICE, manager->RegisterImageFormat(&second, &index));
    EXPECT_EQ(99u, index);
    EXPECT_EQ(1u, manager->GetImageFormatCount());
    EXPECT_EQ(KV_ERR_INVALID_ARG, manager->RegisterImageFormat(nullptr, &index));

    EXPECT_EQ(KV_ERR_NOT_PROVIDED, manager->CopyImageFile(L"a.qv8", L"b.qv8", 0, nullptr, nullptr, nullptr));
    EXPECT_EQ(KV_ERR_NOT_PROVIDED, manager->RemoveImageFile(L"a.qv8", 0));
    uint64_t size = 0;
    EXPECT_EQ(KV_ERR_NOT_PROVIDED, manager->GetImageFileSize(L"a.qv8", &size));

    IKvInputImageFile* file = reinterpret_cast<IKvInputImageFile*>(1);
    EXPECT_EQ(KV_ERR_INVALID_ARG, CKvImageFormatAPI::CreateInputImageFile(nullptr, L"a.qv8", file));
    EXPECT_EQ(nullptr, file);
}

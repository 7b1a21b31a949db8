#include "fileformat/CKvImageFormatQV8.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "fileformat/CKvQV8InputFile.h"
#include "fileformat/CKvQV8OutputFile.h"
#include "gnr_system/KvFile.h"

namespace {

// Feature numbers the format supports, ended by kFeatureEnd.
constexpr uint32_t kFeatureEnd = 0xFFFFFFFF;
constexpr uint32_t kSupportedFeatures[] = {0, 2, 4, 5, 8, 9, 10, 11, 12, 13, 14, 15, 20, 21, 23, 24, kFeatureEnd};
constexpr uint8_t kMinBits = 8;
constexpr uint8_t kMaxBits = 16;

}  // namespace

long KvQV8VersionNumber(const CKvStringA& version) {
    const char* text = version.GetString();
    if (!text || std::strlen(text) < 4 || std::strncmp(text, "Ver", 3) != 0) return -1;
    return std::strtol(text + 3, nullptr, 10);
}

CKvImageFormatQV8* CKvImageFormatQV8::Shared() {
    static CKvImageFormatQV8* const s_format = new CKvImageFormatQV8();
    return s_format;
}

kv_result CKvImageFormatQV8::GetID(CKvStringA& id) {
    return KvNoThrow([&] {
        id = CKvStringA("NDIMX");
        return KV_OK;
    });
}

kv_result CKvImageFormatQV8::GetTextDescription(CKvStringW& text) {
    return KvNoThrow([&] {
        text = CKvStringW(L"QV8 Image File Format");
        return KV_OK;
    });
}

kv_result CKvImageFormatQV8::GetExtensions(CKvStringW& extensions) {
    return KvNoThrow([&] {
        extensions = CKvStringW(L".qv8");
        return KV_OK;
    });
}

kv_result CKvImageFormatQV8::IsFeatureSupported(_EKvImageFormatFeature feature) {
    for (const uint32_t* f = kSupportedFeatures; *f != kFeatureEnd; ++f)
        if (*f == static_cast<uint32_t>(feature)) return KV_OK;
    return KV_ERR_FORMAT_NOT_SUPPORTED;
}

kv_result CKvImageFormatQV8::IsDataFormatSupported(uint32_t, uint32_t, uint8_t bitsPerComponent, uint32_t) {
    return bitsPerComponent >= kMinBits && bitsPerComponent <= kMaxBits ? KV_OK : KV_ERR_FORMAT_NOT_SUPPORTED;
}

kv_result CKvImageFormatQV8::AdjustDataFormat(uint32_t&, uint32_t&, uint8_t& bitsPerComponent, uint32_t&) {
    if (bitsPerComponent < kMinBits) bitsPerComponent = kMinBits;
    if (bitsPerComponent > kMaxBits) bitsPerComponent = kMaxBits;
    return KV_OK;
}

kv_result CKvImageFormatQV8::IsFormatSupported(SKvImageAttributes& attributes) {
    return IsDataFormatSupported(attributes.uiWidth, attributes.uiHeight, attributes.uiBpcInMemory, attributes.uiComp);
}

kv_result CKvImageFormatQV8::AdjustFormat(SKvImageAttributes& attributes) {
    return AdjustDataFormat(attributes.uiWidth, attributes.uiHeight, attributes.uiBpcInMemory, attributes.uiComp);
}

kv_result CKvImageFormatQV8::CreateInputImageFile(CKvStringW fileName, IKvInputImageFile*& file) {
    file = nullptr;
    return KvNoThrow([&]() -> kv_result {
        auto chunker = std::make_unique<CKvFileChunker>();
        CKvStringA version;
        const kv_result opened = chunker->Initialize_File(fileName.GetString(), true, false, version);
        if (opened != KV_OK && opened != KV_ERR_NOT_FOUND) {
            // Not a container: no other format reads it.
            chunker->Finalize();
            return KV_ERR_FAILED;
        }
        const long number = KvQV8VersionNumber(version);
        if (number < 0 || number == 1 || opened == KV_ERR_NOT_FOUND) {
            chunker->Finalize();
            return KV_ERR_REFUSED_VERSION;
        }
        if (number == 2)
            file = new CKvQV8InputFile_V02(Shared(), std::move(chunker), version);
        else
            file = new CKvQV8InputFile_V03(Shared(), std::move(chunker), version);
        return KV_OK;
    });
}

kv_result CKvImageFormatQV8::CreateOutputImageFile(CKvStringW fileName, IKvOutputImageFile*& file) {
    file = nullptr;
    return KvNoThrow([&]() -> kv_result {
        const bool existed = KV_AccessFile(fileName.GetString(), 0) == KV_OK;
        auto chunker = std::make_unique<CKvFileChunker>();
        CKvStringA version("Ver3.0");
        const kv_result opened = chunker->Initialize_File(fileName.GetString(), false, existed, version);
        if (opened != KV_OK && opened != KV_ERR_NOT_FOUND) return KV_ERR_FAILED;
        const long number = KvQV8VersionNumber(version);
        if (number < 0 || number == 1) {
            chunker->Finalize();
            return KV_ERR_FAILED;
        }
        if (number == 2)
            file = new CKvQV8OutputFile_V02(Shared(), fileName, existed, std::move(chunker));
        else
            file = new CKvQV8OutputFile_V03(Shared(), fileName, existed, std::move(chunker));
        return KV_OK;
    });
}

kv_result KV_LoadPictureFromFile(const wchar_t* fileName, SKvPicBuf* picture, double* calibration, double* aspect,
                                 SKvPictureMetadata* metadata, SKvImageTextInfo* textInfo) {
    if (!fileName || !picture) return KV_ERR_FAILED;
    IKvInputImageFile* file = nullptr;
    if (CKvImageFormatQV8().CreateInputImageFile(CKvStringW(fileName), file) != KV_OK || !file) return KV_ERR_FAILED;
    const kv_result result = KvNoThrow([&]() -> kv_result {
        SKvImageAttributes attributes;
        if (file->GetImageAttributes(attributes) != KV_OK) return KV_ERR_FAILED;
        SKvPicBuf loaded;
        if (loaded.Create(attributes.uiWidth, attributes.uiHeight, attributes.uiComp, attributes.uiBpcInMemory,
                          attributes.uiWidthBytes) != KV_OK)
            return KV_ERR_FAILED;
        if (file->GetData(0, loaded.aData.data(), nullptr, nullptr) != KV_OK) return KV_ERR_FAILED;
        if (metadata && file->GetImageMetadata(0, *metadata, nullptr) != KV_OK) return KV_ERR_FAILED;
        if (textInfo) file->GetImageTextInfo(*textInfo);
        *picture = std::move(loaded);
        if (calibration) *calibration = 0.0;
        if (aspect) *aspect = 1.0;
        return KV_OK;
    });
    file->Release();
    return result;
}

kv_result CKvImageFormatQV8::RepairFile(const wchar_t* fileName, SKvQV8RepairReport& report,
                                        KvProgressCallback progress, void* userData) {
    return KvQV8RepairFile(fileName, report, progress, userData);
}

// The QV8 image format: identifies itself, answers what it supports, and
// opens QV8 files for reading and writing with the reader or writer class
// that the version text of the file's signature calls for.
#pragma once

#include <cstdint>

#include "fileformat/IKvImageFile.h"
#include "fileformat/QV8Repair.h"
#include "gnr_picture/SKvPicBuf.h"

class CKvImageFormatQV8 : public IKvImageFormat {
public:
    CKvImageFormatQV8() = default;
    ~CKvImageFormatQV8() override = default;

    // The one format object the readers and writers point to; created on
    // first use and never destroyed.
    static CKvImageFormatQV8* Shared();

    const char* GetClass() override { return "CKvImageFormatQV8"; }
    const SKvClassInfo* GetCKvClassInfo() const override { return nullptr; }
    void* QueryInterface(const char*) override { return this; }
    // Not reference counted: both answer 0.
    uint32_t AddRef() override { return 0; }
    uint32_t Release() override { return 0; }

    // "NDIMX", "QV8 Image File Format", ".qv8".
    kv_result GetID(CKvStringA& id) override;
    kv_result GetTextDescription(CKvStringW& text) override;
    kv_result GetExtensions(CKvStringW& extensions) override;
    // 0 for the features of the supported table, else KV_ERR_FORMAT_NOT_SUPPORTED.
    kv_result IsFeatureSupported(_EKvImageFormatFeature feature) override;
    // 0 for 8 to 16 bits per component, else KV_ERR_FORMAT_NOT_SUPPORTED.
    kv_result IsDataFormatSupported(uint32_t width, uint32_t height, uint8_t bitsPerComponent,
                                    uint32_t components) override;
    // Brings bits per component into 8..16; always 0.
    kv_result AdjustDataFormat(uint32_t& width, uint32_t& height, uint8_t& bitsPerComponent,
                               uint32_t& components) override;
    kv_result IsFormatSupported(SKvImageAttributes& attributes) override;
    kv_result AdjustFormat(SKvImageAttributes& attributes) override;
    // Version Ver2.0 gives the version-2 writer; a new file, or any other
    // version but 1, the version-3 writer. KV_ERR_FAILED when the file cannot be opened
    // or holds version 1 or an unreadable version text.
    kv_result CreateOutputImageFile(CKvStringW fileName, IKvOutputImageFile*& file) override;
    // Version 2 gives the version-2 reader; 3, later or unparsable numbers
    // the version-3 reader. KV_ERR_REFUSED_VERSION for version 1, a version text that is not
    // "Ver" and a number, or a container without its map; KV_ERR_FAILED for a file that
    // is not a container. The reader keeps the version text it was opened
    // for, and lists the frames stored (CKvQV8InputFile_V02::GetVersionText,
    // GetStoredFrames), so a caller need not open the container itself.
    kv_result CreateInputImageFile(CKvStringW fileName, IKvInputImageFile*& file) override;

    // Recovers a file whose writer never finished, in place, so that it reads
    // like a file closed normally; see KvQV8RepairFile for what is kept,
    // rebuilt and reported.
    static kv_result RepairFile(const wchar_t* fileName, SKvQV8RepairReport& report, KvProgressCallback progress,
                                void* userData);
};

// Version number of a signature version text: the decimal number after
// "Ver" as strtol reads it (0 when none); -1 when the text does not begin
// with "Ver" or is shorter than 4 characters.
long KvQV8VersionNumber(const CKvStringA& version);

// Reads frame 0 of a QV8 file into `picture` (shaped from the attributes),
// sets `*calibration` to 0.0 and `*aspect` to 1.0 (when given), and fills
// the frame's picture metadata and the text information when asked. KV_ERR_FAILED on
// any failure.
kv_result KV_LoadPictureFromFile(const wchar_t* fileName, SKvPicBuf* picture, double* calibration, double* aspect,
                                 SKvPictureMetadata* metadata, SKvImageTextInfo* textInfo);

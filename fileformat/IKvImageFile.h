// The abstract image format and its input and output files. Callers reach
// files only through these; the QV8 classes implement them. The virtual
// operations are declared in their fixed slot order.
#pragma once

#include <cstdint>

#include "fileformat/SKvImageAttributes.h"
#include "gnr_metaformats/ExperimentRecord.h"
#include "gnr_metaformats/PictureMetadata.h"
#include "gnr_metaformats/PictureSequence.h"
#include "gnr_system/CKvByteArray.h"
#include "gnr_system/CKvString.h"
#include "gnr_system/CKvVariant.h"
#include "gnr_system/KvClass.h"
#include "gnr_system/KvProgress.h"
#include "gnr_system/KvResult.h"

class IKvInputImageFile;
class IKvOutputImageFile;

class IKvImageFormat : public CKvClass {
public:
    // Feature numbers; this library gives them no names of their own.
    enum _EKvImageFormatFeature : uint32_t {};

    virtual kv_result GetID(CKvStringA& id) = 0;
    virtual kv_result GetTextDescription(CKvStringW& text) = 0;
    // Extensions with their dot, separated by ";".
    virtual kv_result GetExtensions(CKvStringW& extensions) = 0;
    virtual kv_result IsFeatureSupported(_EKvImageFormatFeature feature) = 0;
    virtual kv_result IsDataFormatSupported(uint32_t width, uint32_t height, uint8_t bitsPerComponent,
                                            uint32_t components) = 0;
    virtual kv_result AdjustDataFormat(uint32_t& width, uint32_t& height, uint8_t& bitsPerComponent,
                                       uint32_t& components) = 0;
    virtual kv_result IsFormatSupported(SKvImageAttributes& attributes) = 0;
    virtual kv_result AdjustFormat(SKvImageAttributes& attributes) = 0;
    // On failure `file` is null.
    virtual kv_result CreateOutputImageFile(CKvStringW fileName, IKvOutputImageFile*& file) = 0;
    virtual kv_result CreateInputImageFile(CKvStringW fileName, IKvInputImageFile*& file) = 0;
};

// A readable image file. Ends through Release (no public destructor).
class IKvInputImageFile {
public:
    virtual uint32_t AddRef() = 0;
    // At zero references the object destroys itself; answers the count left.
    virtual uint32_t Release() = 0;
    virtual IKvImageFormat* GetImageFormat() = 0;
    // One whole frame into `buffer`, which holds FrameSize() bytes of the
    // attributes. `progress` may be null.
    virtual kv_result GetData(uint32_t sequenceIndex, void* buffer, KvProgressCallback progress, void* userData) = 0;
    virtual kv_result GetImageAttributes(SKvImageAttributes& attributes) = 0;
    // The experiment; `tree`, when given, receives the decoded tree.
    virtual kv_result GetImageMetadata(SKvExperiment& experiment, CKvVariant* tree) = 0;
    // The picture metadata of a frame, with that frame's times.
    virtual kv_result GetImageMetadata(uint32_t sequenceIndex, SKvPictureMetadata& metadata, CKvVariant* tree) = 0;
    virtual kv_result GetCustomData(const wchar_t* name, CKvByteArray& data) = 0;
    virtual kv_result GetCustomDataSeq(const wchar_t* name, uint32_t sequenceIndex, CKvByteArray& data) = 0;
    // Component `component` of frame `sequenceIndex`, samples packed into
    // rows of `rowBytes` bytes (0: width x sample size); `flags` must be 0.
    virtual kv_result GetComponentData(uint32_t sequenceIndex, uint32_t component, void* buffer, uint32_t rowBytes,
                                       uint32_t flags) = 0;
    virtual kv_result SetConversionParameters(int) { return KV_ERR_NOT_SUPPORTED; }
    virtual kv_result GetCustomDataVar(const wchar_t* name, CKvVariant& tree) = 0;
    virtual kv_result GetCustomDataVarSeq(const wchar_t* name, uint32_t sequenceIndex, CKvVariant& tree) = 0;
    virtual kv_result GetImageTextInfo(SKvImageTextInfo& info) = 0;
    // `data` is a CKvByteArray* that receives the binary-layer bytes, or null
    // to ask only whether the file has them (0 yes, KV_ERR_NOT_FOUND no).
    virtual kv_result GetImageBinary(void* data) = 0;
    // The rectangle (left, top, width, height) of a frame resampled to
    // dstWidth x dstHeight pixels into `buffer`, rows `dstRowBytes` apart
    // (0: dstWidth x pixel size); `flags` must be 0.
    virtual kv_result GetRectData(uint32_t sequenceIndex, uint32_t left, uint32_t top, uint32_t width, uint32_t height,
                                  uint32_t dstWidth, uint32_t dstHeight, void* buffer, uint32_t dstRowBytes, int flags,
                                  KvProgressCallback progress, void* userData) = 0;
    virtual kv_result GetImageEvents(SKvExperimentRecord& record, CKvVariant* tree) = 0;
    virtual kv_result GetAcqTime(double& time) {
        time = 0.0;
        return KV_ERR_NOT_SUPPORTED;
    }

protected:
    ~IKvInputImageFile() = default;
};

// Marks the QV8 readers.
class IKvQV8InputFile : public IKvInputImageFile {
protected:
    ~IKvQV8InputFile() = default;
};

// A writable image file. Ends through Release; Finalize completes the file.
class IKvOutputImageFile {
public:
    virtual uint32_t AddRef() = 0;
    virtual uint32_t Release() = 0;
    virtual kv_result Finalize() = 0;
    virtual IKvImageFormat* GetImageFormat() = 0;
    // `data` is a const CKvByteArray* with the binary-layer bytes.
    virtual kv_result SetImageBinary(void*) { return KV_ERR_NOT_SUPPORTED; }
    virtual kv_result SetImageCalibration(uint32_t, double, double, bool, const CKvStringW&) {
        return KV_ERR_NOT_SUPPORTED;
    }
    virtual kv_result SetImageAttributes(const SKvImageAttributes& attributes) = 0;
    virtual kv_result SetImageMetadata(const SKvExperiment& experiment, const CKvVariant* tree) = 0;
    virtual kv_result SetImageMetadata(uint32_t sequenceIndex, const SKvPictureMetadata& metadata,
                                       const CKvVariant* tree) = 0;
    virtual kv_result SetCustomData(const wchar_t* name, const void* data, uint64_t size) = 0;
    // Writes frame `sequenceIndex` from `buffer` (FrameSize() bytes).
    virtual kv_result FlushData(uint32_t sequenceIndex, void* buffer, KvProgressCallback progress, void* userData) = 0;
    virtual kv_result SetCustomDataSeq(const wchar_t* name, uint32_t sequenceIndex, const void* data,
                                       uint64_t size) = 0;
    // A reader of what the writer has written so far.
    virtual kv_result CreateInputImageFile(uint32_t flags, IKvInputImageFile*& file,
                                           const SKvExperiment* experiment) = 0;
    virtual kv_result SetCustomDataVar(const wchar_t* name, const CKvVariant* tree) = 0;
    virtual kv_result SetImageTextInfo(const SKvImageTextInfo& info) = 0;
    virtual kv_result SetAcqTime(double time) = 0;
    virtual kv_result SetImageEvents(const SKvExperimentRecord& record, const CKvVariant* tree) = 0;

protected:
    ~IKvOutputImageFile() = default;
};

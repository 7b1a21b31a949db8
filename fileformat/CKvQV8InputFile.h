// Readers of QV8 files: version 3 (lite-variant metadata chunks), version 2
// (XML metadata chunks; the base of version 3) and the refusing placeholder
// of version 1. Each owns the container it was given, opened read-only.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "fileformat/CKvFileChunker.h"
#include "fileformat/IKvImageFile.h"
#include "fileformat/KvFrameCodec.h"
#include "fileformat/QV8Layout.h"
#include "gnr_system/CKvSerializerXMLString.h"

// A frame that has a chunk in the file, and the bytes its pixels take there
// (after the time prefix: the zlib stream of a compressed frame).
struct SKvStoredFrame {
    uint32_t uiIndex = 0;
    uint64_t nStoredBytes = 0;
};

// Marker of picture metadata not loaded yet.
constexpr const wchar_t* kMetadataNotInitialized = L"##not_initialized##";

// Version 1: recognised, never read. Every operation that reads answers KV_ERR_FAILED
// and leaves its arguments alone.
class CKvQV8InputFile_V01 : public IKvQV8InputFile {
public:
    CKvQV8InputFile_V01(IKvImageFormat* format, std::unique_ptr<CKvFileChunker> chunker);

    uint32_t AddRef() override;
    uint32_t Release() override;
    IKvImageFormat* GetImageFormat() override;
    kv_result GetData(uint32_t, void*, KvProgressCallback, void*) override;
    kv_result GetImageAttributes(SKvImageAttributes&) override;
    kv_result GetImageMetadata(SKvExperiment&, CKvVariant*) override;
    kv_result GetImageMetadata(uint32_t, SKvPictureMetadata&, CKvVariant*) override;
    kv_result GetCustomData(const wchar_t*, CKvByteArray&) override;
    kv_result GetCustomDataSeq(const wchar_t*, uint32_t, CKvByteArray&) override;
    kv_result GetComponentData(uint32_t, uint32_t, void*, uint32_t, uint32_t) override;
    kv_result GetCustomDataVar(const wchar_t*, CKvVariant&) override;
    kv_result GetCustomDataVarSeq(const wchar_t*, uint32_t, CKvVariant&) override;
    kv_result GetImageTextInfo(SKvImageTextInfo&) override;
    kv_result GetImageBinary(void*) override;
    kv_result GetRectData(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, void*, uint32_t, int,
                          KvProgressCallback, void*) override;
    kv_result GetImageEvents(SKvExperimentRecord&, CKvVariant*) override;
    kv_result Finalize();

private:
    virtual ~CKvQV8InputFile_V01();

    std::unique_ptr<CKvFileChunker> m_pChunker;
    uint32_t m_uiRefCount = 1;
    IKvImageFormat* m_pFormat = nullptr;
};

// Version 2, and every operation version 3 inherits.
class CKvQV8InputFile_V02 : public IKvQV8InputFile {
public:
    // Takes over `chunker`, opened read-only with its map; `version` is the
    // version text of its signature, when the opener knows it.
    CKvQV8InputFile_V02(IKvImageFormat* format, std::unique_ptr<CKvFileChunker> chunker,
                        const CKvStringA& version = CKvStringA());

    uint32_t AddRef() override;
    uint32_t Release() override;
    IKvImageFormat* GetImageFormat() override;
    kv_result GetData(uint32_t sequenceIndex, void* buffer, KvProgressCallback progress, void* userData) override;
    kv_result GetImageAttributes(SKvImageAttributes& attributes) override;
    kv_result GetImageMetadata(SKvExperiment& experiment, CKvVariant* tree) override;
    kv_result GetImageMetadata(uint32_t sequenceIndex, SKvPictureMetadata& metadata, CKvVariant* tree) override;
    kv_result GetCustomData(const wchar_t* name, CKvByteArray& data) override;
    kv_result GetCustomDataSeq(const wchar_t* name, uint32_t sequenceIndex, CKvByteArray& data) override;
    kv_result GetComponentData(uint32_t sequenceIndex, uint32_t component, void* buffer, uint32_t rowBytes,
                               uint32_t flags) override;
    kv_result GetCustomDataVar(const wchar_t* name, CKvVariant& tree) override;
    kv_result GetCustomDataVarSeq(const wchar_t* name, uint32_t sequenceIndex, CKvVariant& tree) override;
    kv_result GetImageTextInfo(SKvImageTextInfo& info) override;
    kv_result GetImageBinary(void* data) override;
    kv_result GetRectData(uint32_t sequenceIndex, uint32_t left, uint32_t top, uint32_t width, uint32_t height,
                          uint32_t dstWidth, uint32_t dstHeight, void* buffer, uint32_t dstRowBytes, int flags,
                          KvProgressCallback progress, void* userData) override;
    kv_result GetImageEvents(SKvExperimentRecord& record, CKvVariant* tree) override;
    kv_result GetAcqTime(double& time) override;
    kv_result Finalize();

    // The total-sequence-count override: once set, GetImageAttributes
    // reports `count` as the sequence count whatever the file says.
    void SetTotalSequenceCount(uint32_t count);
    CKvFileChunker& Chunker() { return *m_pChunker; }
    // The version text of the file's signature ("Ver3.0"); empty when the
    // opener did not give it (a reader made by a writer).
    const CKvStringA& GetVersionText() const { return m_strVersion; }
    // Every frame with a readable frame chunk, by ascending index. Found in
    // the chunk map rather than from the announced frame count, which a
    // damaged file may inflate; a chunk whose header cannot be read or is
    // shorter than the time prefix is left out.
    kv_result GetStoredFrames(std::vector<SKvStoredFrame>& frames);

protected:
    virtual ~CKvQV8InputFile_V02();

    // Shared pieces of both versions.
    // Frame `sequenceIndex` into `buffer`: raw pixels read straight into it,
    // or one read of the zlib stream inflated into it; the output never
    // exceeds the frame size of the attributes (read first when not yet known).
    kv_result ReadFrame(uint32_t sequenceIndex, void* buffer);
    // Sets the frame's absolute and relative times from the time cache.
    void ApplyAcqTimes(uint32_t sequenceIndex, SKvPictureMetadata& metadata);
    // Decodes an XML chunk into `tree`: KV_ERR_NOT_FOUND missing, KV_ERR_FAILED not a document.
    kv_result ReadXmlChunk(const char* name, CKvVariant& tree);
    // Decodes a lite-variant chunk and hands its reader to `load`.
    template <typename Load>
    kv_result ReadLiteChunk(const char* name, Load&& load);
    // One metadata record in either encoding: the lite-variant chunk
    // `liteName` when given and present, else the XML chunk `xmlName` when
    // given, decoded and handed to `loadXml`. Either name may be null.
    template <typename LoadLite, typename LoadXml>
    kv_result ReadLiteOrXmlChunk(const char* liteName, const char* xmlName, LoadLite&& loadLite, LoadXml&& loadXml);

    // True for readers whose metadata chunks are lite variants (version 3).
    virtual bool IsLiteVariant() const { return false; }
    // Reads the attributes once, so that frame requests know the frame shape.
    kv_result EnsureAttributes();
    // Validates freshly loaded attributes, caches them (the override applied)
    // and hands them to the caller; KV_ERR_FAILED for a zero dimension.
    kv_result AcceptAttributes(const SKvImageAttributes& loaded, SKvImageAttributes& attributes);
    // Full-size rectangles of compressed frames, served from the thumbnail.
    kv_result CopyFromThumbnail(uint32_t left, uint32_t top, uint32_t width, uint32_t height, uint8_t* out,
                                uint64_t stride, KvProgressCallback progress, void* userData);
    // The shared picture metadata of the first metadata chunk, with the frame's times.
    kv_result ReadFrameMetadata(uint32_t sequenceIndex, SKvPictureMetadata& metadata, CKvVariant* tree);
    kv_result DecodePictureMetadata(const char* name, SKvPictureMetadata& metadata, CKvVariant* tree);
    // Fills m_aAcqTimes from the time-cache chunk while it is empty.
    void LoadAcqTimes();
    kv_result ReadRawChunk(const char* name, CKvByteArray& data);
    kv_result ReadVariantChunk(const char* name, CKvVariant& tree);

    std::unique_ptr<CKvFileChunker> m_pChunker;
    CKvStringA m_strVersion;                  // of the signature, when known
    CKvByteArray m_aAcqTimes;                 // doubles, one per frame, once loaded
    SKvPictureMetadata m_sMetadata;           // the shared picture metadata, once loaded
    CKvStringW m_strMetadataMarker{kMetadataNotInitialized};
    SKvImageAttributes m_sAttributes;         // as last read; valid when m_bAttributesRead
    bool m_bAttributesRead = false;
    uint32_t m_uiSequenceCount = 0;           // 0 until known
    uint32_t m_uiCompression = 0xFFFFFFFF;    // until known
    CKvSerializerXMLString m_serializer;
    IKvImageFormat* m_pFormat = nullptr;
    uint32_t m_uiRefCount = 1;
    bool m_bTotalSequenceOverride = false;
    uint32_t m_uiTotalSequenceCount = 0;
    CKvStringA m_strMetadataChunk;           // chunk of the cached picture metadata
    CKvFrameInflater m_inflater;             // keeps its decompressor between frames
    std::vector<uint8_t> m_aPacked;          // a compressed frame's stream, reused between frames
};

// Version 3 (and any version number other than 1 and 2).
class CKvQV8InputFile_V03 : public CKvQV8InputFile_V02 {
public:
    CKvQV8InputFile_V03(IKvImageFormat* format, std::unique_ptr<CKvFileChunker> chunker,
                        const CKvStringA& version = CKvStringA());

    kv_result GetData(uint32_t sequenceIndex, void* buffer, KvProgressCallback progress, void* userData) override;
    kv_result GetImageAttributes(SKvImageAttributes& attributes) override;
    kv_result GetImageMetadata(uint32_t sequenceIndex, SKvPictureMetadata& metadata, CKvVariant* tree) override;
    kv_result GetRectData(uint32_t sequenceIndex, uint32_t left, uint32_t top, uint32_t width, uint32_t height,
                          uint32_t dstWidth, uint32_t dstHeight, void* buffer, uint32_t dstRowBytes, int flags,
                          KvProgressCallback progress, void* userData) override;
    // The experiment, text information and events come from the base, which
    // reads their lite chunks first for this version.
    using CKvQV8InputFile_V02::GetImageMetadata;

protected:
    ~CKvQV8InputFile_V03() override;
    bool IsLiteVariant() const override { return true; }
};

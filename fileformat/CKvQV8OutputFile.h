// Writers of QV8 files: version 2 (XML metadata chunks) and version 3
// (lite-variant metadata chunks; replaces only the operations that produce
// metadata chunks). Frames are appended as they arrive; the attributes, the
// acquisition times and the chunk map are completed by Finalize.
#pragma once

#include <cstdint>
#include <memory>

#include "fileformat/CKvFileChunker.h"
#include "fileformat/IKvImageFile.h"
#include "fileformat/KvFrameCodec.h"
#include "fileformat/QV8Layout.h"

class CKvQV8InputFile_V02;

// Highest frame index the acquisition-time cache takes.
constexpr uint32_t kMaxAcqTimeIndex = 10000000;
// States of a frame in the acquisition-time cache.
constexpr uint8_t kAcqTimeNone = 0;     // no time
constexpr uint8_t kAcqTimeSet = 1;      // time set, frame not written yet
constexpr uint8_t kAcqTimeWritten = 2;  // time set and its frame written

// The bytes of the attributes chunk as the writers save it: `attributes`
// normalised (bits in memory rounded up to whole bytes, zero tile sizes
// filled, widthBytes raised to what a row needs), then encoded as a lite
// variant (`lite`, version 3) or a UTF-8 XML document (version 2).
kv_result KvQV8EncodeImageAttributes(SKvImageAttributes& attributes, bool lite, CKvByteArray& bytes);
// The rule the writers close the time cache with: every time whose state
// (one kAcqTime* byte per double of `times`) is not kAcqTimeWritten becomes
// -1.0, as a time of a frame never written cannot be trusted. True when at
// least one frame keeps its time: only then is the time chunk written.
bool KvQV8SettleAcqTimes(CKvByteArray& times, const CKvByteArray& states);

class CKvQV8OutputFile_V02 : public IKvOutputImageFile {
public:
    // Takes over `chunker`, opened for writing. `existed`: the file was there
    // before and is appended to (its frames, sequence count and times are kept).
    CKvQV8OutputFile_V02(IKvImageFormat* format, const CKvStringW& fileName, bool existed,
                         std::unique_ptr<CKvFileChunker> chunker);

    uint32_t AddRef() override;
    uint32_t Release() override;
    kv_result Finalize() override;
    IKvImageFormat* GetImageFormat() override;
    kv_result SetImageBinary(void* data) override;
    // "ImageCalibration|%u!": XML of level "SKvCalibration" with
    // "dCalibration", "dAspect", "bValid", "sObjective" (0.0 and 1.0 when not valid).
    kv_result SetImageCalibration(uint32_t index, double calibration, double aspect, bool valid,
                                  const CKvStringW& objective) override;
    kv_result SetImageAttributes(const SKvImageAttributes& attributes) override;
    kv_result SetImageMetadata(const SKvExperiment& experiment, const CKvVariant* tree) override;
    // Also gives the frame's time (the metadata's absolute time, when it is
    // a number) to the time cache, as SetAcqTime does.
    kv_result SetImageMetadata(uint32_t sequenceIndex, const SKvPictureMetadata& metadata,
                               const CKvVariant* tree) override;
    kv_result SetCustomData(const wchar_t* name, const void* data, uint64_t size) override;
    kv_result FlushData(uint32_t sequenceIndex, void* buffer, KvProgressCallback progress, void* userData) override;
    kv_result SetCustomDataSeq(const wchar_t* name, uint32_t sequenceIndex, const void* data, uint64_t size) override;
    // A reader over the chunks written so far (the file need not be
    // finalized); `flags` must be 0 and `experiment` is not used.
    kv_result CreateInputImageFile(uint32_t flags, IKvInputImageFile*& file, const SKvExperiment* experiment) override;
    kv_result SetCustomDataVar(const wchar_t* name, const CKvVariant* tree) override;
    kv_result SetImageTextInfo(const SKvImageTextInfo& info) override;
    // The time of the frame the next FlushData writes (the frame after the
    // highest written so far, frame 0 at first).
    kv_result SetAcqTime(double time) override;
    kv_result SetImageEvents(const SKvExperimentRecord& record, const CKvVariant* tree) override;

    // Normalises the attributes and writes the attributes chunk.
    virtual kv_result saveImageAttributes();
    virtual kv_result _GetImageAttributes(SKvImageAttributes& attributes);
    // Puts `time` for frame `index` into the cache with state kAcqTimeSet
    // (when `isSet`) or kAcqTimeNone; KV_ERR_INVALID_ARG above kMaxAcqTimeIndex.
    kv_result setTimeToAcqTimesCache(uint32_t index, double time, bool isSet);

protected:
    // `liteAttributes`: an existing file keeps its attributes as a lite
    // variant (version 3) rather than as XML (version 2).
    CKvQV8OutputFile_V02(IKvImageFormat* format, const CKvStringW& fileName, bool existed,
                         std::unique_ptr<CKvFileChunker> chunker, bool liteAttributes);
    virtual ~CKvQV8OutputFile_V02();

    // Writes a custom-data variant tree under `chunkName`: XML here, lite
    // variant named `name` in version 3.
    virtual kv_result writeVariantChunk(const CKvVariant& tree, const wchar_t* name, const char* chunkName);
    // The reader matching this writer's version, over `chunker`.
    virtual CKvQV8InputFile_V02* newInputFile(std::unique_ptr<CKvFileChunker> chunker, const CKvStringA& version);

    // Rounds the bits in memory up to whole bytes, fills zero tile sizes and
    // raises widthBytes to what one row needs.
    void normaliseAttributes();
    // Reads the attributes and the time cache of the file being appended to.
    void loadExistingFile(bool liteAttributes);
    // The chunk of one frame: prefix, then raw or compressed pixels.
    kv_result writeFrame(uint32_t sequenceIndex, const void* pixels, uint32_t frameSize, double time);
    // Bytes of `size` under `name`; KV_ERR_INVALID_ARG above what a chunk can hold.
    kv_result writeBytesChunk(const void* data, uint64_t size, const char* name);
    // A whole UTF-8 XML document of `tree`.
    kv_result writeXmlChunk(const CKvVariant& tree, const char* name);
    // Finishes `writer` and writes its bytes.
    kv_result writeLiteChunk(CKvLiteVariantW& writer, const char* name);
    double acqTime(uint32_t index) const;
    uint8_t acqTimeState(uint32_t index) const;

    std::unique_ptr<CKvFileChunker> m_pChunker;
    CKvStringW m_strFileName;
    SKvImageAttributes m_sAttributes;
    CKvByteArray m_aAcqTimes;       // doubles by frame
    CKvByteArray m_aAcqTimeStates;  // one kAcqTime* byte by frame
    bool m_bFinalized = false;
    bool m_bAcqTimesWritten = false;
    uint32_t m_uiRefCount = 1;
    IKvImageFormat* m_pFormat = nullptr;
    uint32_t m_uiNextFrame = 0;  // highest frame index written + 1: the frame SetAcqTime applies to
    std::unique_ptr<uint8_t[]> m_pCompressBuffer;  // reused by every compressed frame
    uint64_t m_nCompressCapacity = 0;
    CKvFrameDeflater m_deflater;                   // its per-thread states live across frames
};

class CKvQV8OutputFile_V03 : public CKvQV8OutputFile_V02 {
public:
    CKvQV8OutputFile_V03(IKvImageFormat* format, const CKvStringW& fileName, bool existed,
                         std::unique_ptr<CKvFileChunker> chunker);

    kv_result SetImageMetadata(const SKvExperiment& experiment, const CKvVariant* tree) override;
    kv_result SetImageMetadata(uint32_t sequenceIndex, const SKvPictureMetadata& metadata,
                               const CKvVariant* tree) override;
    kv_result SetImageTextInfo(const SKvImageTextInfo& info) override;
    kv_result saveImageAttributes() override;

protected:
    ~CKvQV8OutputFile_V03() override;

    kv_result writeVariantChunk(const CKvVariant& tree, const wchar_t* name, const char* chunkName) override;
    CKvQV8InputFile_V02* newInputFile(std::unique_ptr<CKvFileChunker> chunker, const CKvStringA& version) override;
};

// Writers of QV8 files. Version 2 stores its metadata chunks as XML
// documents, version 3 as lite variants; frames, custom data, the time cache
// and the container handling are shared.
#include "fileformat/CKvQV8OutputFile.h"

#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <new>
#include <string>

#include "fileformat/CKvQV8InputFile.h"
#include "gnr_system/CKvSerializerXMLString.h"
#include "gnr_system/KvBytes.h"

namespace {

// Largest byte count one chunk call takes.
constexpr uint64_t kMaxChunkBytes = 0xFFFFFFFFull;
// Time stored for frames whose time is unknown.
constexpr double kNoAcqTime = -1.0;

// Names the trees of the XML chunks carry: the record they hold. The record
// savers keep the name the tree already has, so it is given first.
constexpr const wchar_t* kAttributesTreeName = L"SKvImageAttributes";
constexpr const wchar_t* kTextInfoTreeName = L"SKvImageTextInfo";
constexpr const wchar_t* kExperimentTreeName = L"SKvExperiment";
constexpr const wchar_t* kPictureMetaTreeName = L"SKvPictureMetadata";
constexpr const wchar_t* kEventsTreeName = L"SKvExperimentRecord";
constexpr const wchar_t* kCalibrationTreeName = L"SKvCalibration";

// Saves a record into a tree named after it, for the XML chunks.
template <typename Save>
kv_result BuildNamedTree(CKvVariant& tree, const wchar_t* name, Save&& save) {
    tree.SetName(CKvStringW(name));
    return save(tree);
}

}  // namespace

// ---- construction and reference counting ----

CKvQV8OutputFile_V02::CKvQV8OutputFile_V02(IKvImageFormat* format, const CKvStringW& fileName, bool existed,
                                           std::unique_ptr<CKvFileChunker> chunker)
    : CKvQV8OutputFile_V02(format, fileName, existed, std::move(chunker), false) {}

CKvQV8OutputFile_V02::CKvQV8OutputFile_V02(IKvImageFormat* format, const CKvStringW& fileName, bool existed,
                                           std::unique_ptr<CKvFileChunker> chunker, bool liteAttributes)
    : m_pChunker(std::move(chunker)), m_strFileName(fileName), m_pFormat(format) {
    if (existed && m_pChunker) loadExistingFile(liteAttributes);
}

// Not finalizing here is deliberate: a writer dropped without Finalize
// leaves a file without chunk map, which the container can recover.
CKvQV8OutputFile_V02::~CKvQV8OutputFile_V02() = default;

uint32_t CKvQV8OutputFile_V02::AddRef() { return ++m_uiRefCount; }

uint32_t CKvQV8OutputFile_V02::Release() {
    const uint32_t left = m_uiRefCount ? --m_uiRefCount : 0;
    if (left == 0) delete this;
    return left;
}

IKvImageFormat* CKvQV8OutputFile_V02::GetImageFormat() { return m_pFormat; }

void CKvQV8OutputFile_V02::loadExistingFile(bool liteAttributes) {
    KvNoThrow([&]() -> kv_result {
        CKvByteArray data;
        if (liteAttributes) {
            CKvLiteVariantR reader;
            if (m_pChunker->GetChunk(reader, kChunkAttributesLV) == KV_OK)
                SKvImageAttributes::LoadFromLiteVariant(m_sAttributes, reader);
        } else if (m_pChunker->GetChunk(data, kChunkAttributes) == KV_OK && data.GetSize()) {
            CKvVariant tree;
            if (CKvSerializerXMLString::VariantFromXML_UTF8(tree, reinterpret_cast<const char*>(data.GetData()),
                                                            static_cast<unsigned>(data.GetSize())) == KV_OK)
                SKvImageAttributes::LoadFromVariant(m_sAttributes, tree);
        }
        m_uiNextFrame = m_sAttributes.uiSequenceCount;

        // The old frames keep their times: they count as written.
        CKvByteArray times;
        if (m_pChunker->GetChunk(times, kChunkAcqTimes) != KV_OK) return KV_OK;
        const uint32_t count = static_cast<uint32_t>(times.GetSize() / sizeof(double));
        if (count == 0) return KV_OK;
        for (uint32_t i = 0; i < count; ++i) {
            const double time = kvbytes::LoadF64(times.GetData() + i * sizeof(double));
            setTimeToAcqTimesCache(i, time, true);
            if (time != kNoAcqTime) m_aAcqTimeStates.GetData()[i] = kAcqTimeWritten;
            else m_aAcqTimeStates.GetData()[i] = kAcqTimeNone;
        }
        m_bAcqTimesWritten = true;
        return KV_OK;
    });
}

// ---- attributes ----

kv_result CKvQV8OutputFile_V02::SetImageAttributes(const SKvImageAttributes& attributes) {
    if (attributes.uiBpcSignificant == 1) return KV_ERR_FAILED;
    // An appended file keeps the frames it has.
    const uint32_t existing = m_sAttributes.uiSequenceCount;
    m_sAttributes = attributes;
    if (m_sAttributes.uiSequenceCount < existing) m_sAttributes.uiSequenceCount = existing;
    return KV_OK;
}

kv_result CKvQV8OutputFile_V02::_GetImageAttributes(SKvImageAttributes& attributes) {
    attributes = m_sAttributes;
    return KV_OK;
}

namespace {

void NormaliseAttributes(SKvImageAttributes& a) {
    a.uiBpcInMemory = static_cast<uint8_t>((a.uiBpcInMemory + 7u) / 8u * 8u);
    if (a.uiTileWidth == 0) a.uiTileWidth = a.uiWidth;
    if (a.uiTileHeight == 0) a.uiTileHeight = a.uiHeight;
    const uint64_t rowBytes = static_cast<uint64_t>(a.uiWidth) * a.uiComp * (a.uiBpcInMemory / 8u);
    if (a.uiWidthBytes < rowBytes && rowBytes <= 0xFFFFFFFFull) a.uiWidthBytes = static_cast<uint32_t>(rowBytes);
}

}  // namespace

kv_result KvQV8EncodeImageAttributes(SKvImageAttributes& attributes, bool lite, CKvByteArray& bytes) {
    return KvNoThrow([&]() -> kv_result {
        NormaliseAttributes(attributes);
        if (lite) {
            CKvLiteVariantW writer;
            CKvLiteVariantR encoded;
            kv_result r = SKvImageAttributes::SaveToLiteVariant(writer, attributes);
            if (r == KV_OK) r = writer.Finalize(encoded, 0);
            if (r == KV_OK) bytes = encoded;
            return r;
        }
        CKvVariant tree;
        kv_result r = BuildNamedTree(tree, kAttributesTreeName,
                                     [&](CKvVariant& t) { return SKvImageAttributes::SaveToVariant(t, attributes); });
        CKvStringA document;
        if (r == KV_OK) r = CKvSerializerXMLString::DocumentToXML_UTF8(document, tree);
        if (r == KV_OK) r = bytes.SetData(document.c_str(), document.Size());
        return r;
    });
}

void CKvQV8OutputFile_V02::normaliseAttributes() { NormaliseAttributes(m_sAttributes); }

kv_result CKvQV8OutputFile_V02::saveImageAttributes() {
    CKvByteArray bytes;
    const kv_result r = KvQV8EncodeImageAttributes(m_sAttributes, false, bytes);
    return r != KV_OK ? r : writeBytesChunk(bytes.GetData(), bytes.GetSize(), kChunkAttributes);
}

kv_result CKvQV8OutputFile_V03::saveImageAttributes() {
    CKvByteArray bytes;
    const kv_result r = KvQV8EncodeImageAttributes(m_sAttributes, true, bytes);
    return r != KV_OK ? r : writeBytesChunk(bytes.GetData(), bytes.GetSize(), kChunkAttributesLV);
}

// ---- frames and times ----

double CKvQV8OutputFile_V02::acqTime(uint32_t index) const {
    if (static_cast<uint64_t>(index + 1ull) * sizeof(double) > m_aAcqTimes.GetSize()) return kNoAcqTime;
    return kvbytes::LoadF64(m_aAcqTimes.GetData() + static_cast<uint64_t>(index) * sizeof(double));
}

uint8_t CKvQV8OutputFile_V02::acqTimeState(uint32_t index) const {
    return index < m_aAcqTimeStates.GetSize() ? m_aAcqTimeStates.GetData()[index] : kAcqTimeNone;
}

kv_result CKvQV8OutputFile_V02::setTimeToAcqTimesCache(uint32_t index, double time, bool isSet) {
    if (index > kMaxAcqTimeIndex) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&]() -> kv_result {
        const uint64_t oldCount = m_aAcqTimeStates.GetSize();
        if (index >= oldCount) {
            const uint64_t count = static_cast<uint64_t>(index) + 1;
            if (m_aAcqTimes.SetSize(count * sizeof(double)) != KV_OK) return KV_ERR_OUT_OF_MEMORY;
            if (m_aAcqTimeStates.SetSize(count) != KV_OK) return KV_ERR_OUT_OF_MEMORY;
            for (uint64_t i = oldCount; i < count; ++i) {
                kvbytes::StoreF64(m_aAcqTimes.GetData() + i * sizeof(double), kNoAcqTime);
                m_aAcqTimeStates.GetData()[i] = kAcqTimeNone;
            }
        }
        kvbytes::StoreF64(m_aAcqTimes.GetData() + static_cast<uint64_t>(index) * sizeof(double), time);
        m_aAcqTimeStates.GetData()[index] = isSet ? kAcqTimeSet : kAcqTimeNone;
        m_bAcqTimesWritten = false;
        return KV_OK;
    });
}

kv_result CKvQV8OutputFile_V02::SetAcqTime(double time) {
    return setTimeToAcqTimesCache(m_uiNextFrame, time, true);
}

kv_result CKvQV8OutputFile_V02::FlushData(uint32_t sequenceIndex, void* buffer, KvProgressCallback, void*) {
    if (!buffer) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&]() -> kv_result {
        const SKvImageAttributes& a = m_sAttributes;
        if (!a.uiWidth || !a.uiHeight || !a.uiComp || !a.uiBpcInMemory) return KV_ERR_FAILED;
        kv_result r = KV_OK;
        if (a.uiSequenceCount == 0) r = saveImageAttributes();
        else normaliseAttributes();
        if (r != KV_OK) return r;
        const uint64_t frameSize = a.FrameSize();
        if (frameSize == 0 || frameSize > kMaxChunkBytes) return KV_ERR_INVALID_ARG;

        double time = 0.0;
        if (acqTimeState(sequenceIndex) != kAcqTimeNone) {
            time = acqTime(sequenceIndex);
            m_aAcqTimeStates.GetData()[sequenceIndex] = kAcqTimeWritten;
        } else if (sequenceIndex <= kMaxAcqTimeIndex) {
            // Frames past the cache's bound are written all the same, with no time.
            r = setTimeToAcqTimesCache(sequenceIndex, kNoAcqTime, false);
            if (r != KV_OK) return r;
        }
        r = writeFrame(sequenceIndex, buffer, static_cast<uint32_t>(frameSize), time);
        if (r != KV_OK) return r;
        if (m_sAttributes.uiSequenceCount < sequenceIndex + 1ull) m_sAttributes.uiSequenceCount = sequenceIndex + 1;
        if (m_uiNextFrame < sequenceIndex + 1ull) m_uiNextFrame = sequenceIndex + 1;
        return KV_OK;
    });
}

kv_result CKvQV8OutputFile_V02::writeFrame(uint32_t sequenceIndex, const void* pixels, uint32_t frameSize,
                                           double time) {
    uint8_t prefix[kFramePrefixSize];
    kvbytes::StoreF64(prefix, time);
    const SKvFrameChunkName name(sequenceIndex);
    if (m_sAttributes.eCompression != kCompressionZlib)
        return m_pChunker->SetChunk(prefix, kFramePrefixSize, pixels, frameSize, name.c_str());

    const uint64_t capacity = CKvFrameDeflater::Bound(frameSize);
    if (capacity > m_nCompressCapacity) {
        m_pCompressBuffer.reset(new (std::nothrow) uint8_t[capacity]);
        m_nCompressCapacity = m_pCompressBuffer ? capacity : 0;
        if (!m_pCompressBuffer) return KV_ERR_OUT_OF_MEMORY;
    }
    uint64_t packed = 0;
    const kv_result r = m_deflater.Compress(pixels, frameSize, KvQV8ZlibLevel(m_sAttributes.dCompressionParam),
                                            m_pCompressBuffer.get(), capacity, packed);
    if (r != KV_OK) return r;
    if (packed > kMaxChunkBytes) return KV_ERR_FAILED;
    return m_pChunker->SetChunk(prefix, kFramePrefixSize, m_pCompressBuffer.get(), static_cast<uint32_t>(packed),
                                name.c_str());
}

bool KvQV8SettleAcqTimes(CKvByteArray& times, const CKvByteArray& states) {
    const uint64_t count = std::min<uint64_t>(times.GetSize() / sizeof(double), states.GetSize());
    bool anyWritten = false;
    for (uint64_t i = 0; i < count; ++i) {
        if (states.GetData()[i] == kAcqTimeWritten) anyWritten = true;
        else kvbytes::StoreF64(times.GetData() + i * sizeof(double), kNoAcqTime);
    }
    return anyWritten;
}

kv_result CKvQV8OutputFile_V02::Finalize() {
    if (m_bFinalized) return KV_OK;
    // A container closed by a failed Finalize cannot be completed any more;
    // answering KV_OK now would promise a file that is not there.
    if (!m_pChunker || m_pChunker->IsFinalized()) return KV_ERR_FAILED;
    return KvNoThrow([&]() -> kv_result {
        const SKvImageAttributes& a = m_sAttributes;
        const kv_result valid =
            a.uiWidth && a.uiHeight && a.uiComp && a.uiBpcInMemory && a.uiBpcSignificant ? KV_OK : KV_ERR_FAILED;
        kv_result r = KV_OK;
        if (a.uiSequenceCount != 0) {
            r = saveImageAttributes();
            if (r != KV_OK) return r;
        }

        const bool anyWritten = KvQV8SettleAcqTimes(m_aAcqTimes, m_aAcqTimeStates);
        if (anyWritten && !m_bAcqTimesWritten) {
            const uint64_t count = std::min<uint64_t>(m_aAcqTimes.GetSize() / sizeof(double), m_aAcqTimeStates.GetSize());
            r = writeBytesChunk(m_aAcqTimes.GetData(), count * sizeof(double), kChunkAcqTimes);
            if (r != KV_OK) return r;
            m_bAcqTimesWritten = true;
        }

        r = m_pChunker->Finalize();
        if (r != KV_OK) return r;
        m_bFinalized = true;
        return valid;
    });
}

// ---- chunk helpers ----

kv_result CKvQV8OutputFile_V02::writeBytesChunk(const void* data, uint64_t size, const char* name) {
    if (size > kMaxChunkBytes) return KV_ERR_INVALID_ARG;
    if (size && !data) return KV_ERR_INVALID_ARG;
    return m_pChunker->SetChunk(data, static_cast<uint32_t>(size), name);
}

kv_result CKvQV8OutputFile_V02::writeXmlChunk(const CKvVariant& tree, const char* name) {
    CKvStringA document;
    const kv_result r = CKvSerializerXMLString::DocumentToXML_UTF8(document, tree);
    if (r != KV_OK) return r;
    return writeBytesChunk(document.c_str(), document.Size(), name);
}

kv_result CKvQV8OutputFile_V02::writeLiteChunk(CKvLiteVariantW& writer, const char* name) {
    CKvLiteVariantR encoded;
    const kv_result r = writer.Finalize(encoded, 0);
    if (r != KV_OK) return r;
    return writeBytesChunk(encoded.GetData(), encoded.GetSize(), name);
}

// ---- metadata ----

kv_result CKvQV8OutputFile_V02::SetImageMetadata(const SKvExperiment& experiment, const CKvVariant*) {
    return KvNoThrow([&]() -> kv_result {
        CKvVariant tree;
        const kv_result r = BuildNamedTree(tree, kExperimentTreeName,
                                           [&](CKvVariant& t) { return SKvExperiment::SaveToVariant(t, experiment); });
        return r != KV_OK ? r : writeXmlChunk(tree, kChunkExperiment);
    });
}

kv_result CKvQV8OutputFile_V03::SetImageMetadata(const SKvExperiment& experiment, const CKvVariant*) {
    return KvNoThrow([&]() -> kv_result {
        CKvLiteVariantW writer;
        const kv_result r = SKvExperiment::SaveToLiteVariant(writer, experiment);
        return r != KV_OK ? r : writeLiteChunk(writer, kChunkExperimentLV);
    });
}

// The frame's time comes with its metadata; a frame already written keeps
// the state that marks its time as valid.
static kv_result FeedMetadataTime(CKvQV8OutputFile_V02& file, uint32_t index, const SKvPictureMetadata& metadata,
                                  CKvByteArray& states) {
    if (std::isnan(metadata.dTimeAbsolute)) return KV_OK;
    const bool written = index < states.GetSize() && states.GetData()[index] == kAcqTimeWritten;
    const kv_result r = file.setTimeToAcqTimesCache(index, metadata.dTimeAbsolute, true);
    if (r == KV_OK && written) states.GetData()[index] = kAcqTimeWritten;
    return r;
}

kv_result CKvQV8OutputFile_V02::SetImageMetadata(uint32_t sequenceIndex, const SKvPictureMetadata& metadata,
                                                 const CKvVariant*) {
    return KvNoThrow([&]() -> kv_result {
        kv_result r = FeedMetadataTime(*this, sequenceIndex, metadata, m_aAcqTimeStates);
        if (r != KV_OK) return r;
        CKvVariant tree;
        r = BuildNamedTree(tree, kPictureMetaTreeName,
                           [&](CKvVariant& t) { return SKvPictureMetadata::SaveToVariant(t, metadata); });
        return r != KV_OK ? r : writeXmlChunk(tree, KvQV8ChunkName(kChunkPictureMeta, sequenceIndex).c_str());
    });
}

kv_result CKvQV8OutputFile_V03::SetImageMetadata(uint32_t sequenceIndex, const SKvPictureMetadata& metadata,
                                                 const CKvVariant*) {
    return KvNoThrow([&]() -> kv_result {
        kv_result r = FeedMetadataTime(*this, sequenceIndex, metadata, m_aAcqTimeStates);
        if (r != KV_OK) return r;
        CKvLiteVariantW writer;
        r = SKvPictureMetadata::SaveToLiteVariant(writer, metadata);
        return r != KV_OK ? r : writeLiteChunk(writer, KvQV8ChunkName(kChunkPictureMetaLV, sequenceIndex).c_str());
    });
}

kv_result CKvQV8OutputFile_V02::SetImageTextInfo(const SKvImageTextInfo& info) {
    return KvNoThrow([&]() -> kv_result {
        CKvVariant tree;
        const kv_result r = BuildNamedTree(tree, kTextInfoTreeName,
                                           [&](CKvVariant& t) { return SKvImageTextInfo::SaveToVariant(t, info); });
        return r != KV_OK ? r : writeXmlChunk(tree, kChunkTextInfo);
    });
}

kv_result CKvQV8OutputFile_V03::SetImageTextInfo(const SKvImageTextInfo& info) {
    return KvNoThrow([&]() -> kv_result {
        CKvLiteVariantW writer;
        const kv_result r = SKvImageTextInfo::SaveToLiteVariant(writer, info);
        return r != KV_OK ? r : writeLiteChunk(writer, kChunkTextInfoLV);
    });
}

// Events are XML in both versions.
kv_result CKvQV8OutputFile_V02::SetImageEvents(const SKvExperimentRecord& record, const CKvVariant*) {
    return KvNoThrow([&]() -> kv_result {
        CKvVariant tree;
        const kv_result r = BuildNamedTree(
            tree, kEventsTreeName, [&](CKvVariant& t) { return SKvExperimentRecord::SaveToVariant(t, record); });
        return r != KV_OK ? r : writeXmlChunk(tree, kChunkEvents);
    });
}

kv_result CKvQV8OutputFile_V02::SetImageCalibration(uint32_t index, double calibration, double aspect, bool valid,
                                                    const CKvStringW& objective) {
    return KvNoThrow([&]() -> kv_result {
        CKvVariant tree{CKvListVariant(), CKvStringW(kCalibrationTreeName)};
        const bool appended = tree.Append(CKvVariant(valid ? calibration : 0.0, CKvStringW(L"dCalibration"))) &&
                              tree.Append(CKvVariant(valid ? aspect : 1.0, CKvStringW(L"dAspect"))) &&
                              tree.Append(CKvVariant(valid, CKvStringW(L"bValid"))) &&
                              tree.Append(CKvVariant(objective, CKvStringW(L"sObjective")));
        if (!appended) return KV_ERR_OUT_OF_MEMORY;
        return writeXmlChunk(tree, KvQV8ChunkName(kChunkCalibration, index).c_str());
    });
}

kv_result CKvQV8OutputFile_V02::SetImageBinary(void* data) {
    if (!data) return KV_ERR_INVALID_ARG;
    const CKvByteArray& bytes = *static_cast<const CKvByteArray*>(data);
    return KvNoThrow([&] { return writeBytesChunk(bytes.GetData(), bytes.GetSize(), kChunkBinary); });
}

// ---- custom data ----

kv_result CKvQV8OutputFile_V02::SetCustomData(const wchar_t* name, const void* data, uint64_t size) {
    if (!name) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&] { return writeBytesChunk(data, size, KvQV8CustomChunkName(kChunkCustomData, name).c_str()); });
}

kv_result CKvQV8OutputFile_V02::SetCustomDataSeq(const wchar_t* name, uint32_t sequenceIndex, const void* data,
                                                 uint64_t size) {
    if (!name) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&] {
        return writeBytesChunk(data, size, KvQV8CustomChunkName(kChunkCustomDataSeq, name, sequenceIndex).c_str());
    });
}

kv_result CKvQV8OutputFile_V02::SetCustomDataVar(const wchar_t* name, const CKvVariant* tree) {
    if (!name || !tree) return KV_ERR_INVALID_ARG;
    return KvNoThrow(
        [&] { return writeVariantChunk(*tree, name, KvQV8CustomChunkName(kChunkCustomDataVar, name).c_str()); });
}

kv_result CKvQV8OutputFile_V02::writeVariantChunk(const CKvVariant& tree, const wchar_t*, const char* chunkName) {
    return writeXmlChunk(tree, chunkName);
}

kv_result CKvQV8OutputFile_V03::writeVariantChunk(const CKvVariant& tree, const wchar_t* name,
                                                  const char* chunkName) {
    CKvLiteVariantW writer;
    const kv_result r = writer.Set(tree, name);
    return r != KV_OK ? r : writeLiteChunk(writer, chunkName);
}

// ---- reading back ----

CKvQV8InputFile_V02* CKvQV8OutputFile_V02::newInputFile(std::unique_ptr<CKvFileChunker> chunker,
                                                         const CKvStringA& version) {
    return new CKvQV8InputFile_V02(m_pFormat, std::move(chunker), version);
}

CKvQV8InputFile_V02* CKvQV8OutputFile_V03::newInputFile(std::unique_ptr<CKvFileChunker> chunker,
                                                         const CKvStringA& version) {
    return new CKvQV8InputFile_V03(m_pFormat, std::move(chunker), version);
}

kv_result CKvQV8OutputFile_V02::CreateInputImageFile(uint32_t flags, IKvInputImageFile*& file, const SKvExperiment*) {
    file = nullptr;
    if (flags != 0) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&]() -> kv_result {
        // The reader opens the file on a descriptor of its own; the writer
        // buffers nothing, so it sees every chunk written so far.
        // The map comes from the writer: the file has none until Finalize.
        auto chunker = std::make_unique<CKvFileChunker>();
        kv_result r = chunker->SetMapChunk(m_pChunker.get());
        if (r != KV_OK) return r;
        CKvStringA version;
        r = chunker->Initialize_File(m_strFileName.c_str(), true, false, version);
        if (r != KV_OK) return r;
        CKvQV8InputFile_V02* reader = newInputFile(std::move(chunker), version);
        // The stored attributes may predate the last frames.
        reader->SetTotalSequenceCount(m_sAttributes.uiSequenceCount);
        file = reader;
        return KV_OK;
    });
}

// ---- version 3 ----

CKvQV8OutputFile_V03::CKvQV8OutputFile_V03(IKvImageFormat* format, const CKvStringW& fileName, bool existed,
                                           std::unique_ptr<CKvFileChunker> chunker)
    : CKvQV8OutputFile_V02(format, fileName, existed, std::move(chunker), true) {}

CKvQV8OutputFile_V03::~CKvQV8OutputFile_V03() = default;

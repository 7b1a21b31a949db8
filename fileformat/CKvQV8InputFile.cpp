// Readers of QV8 files. Every request maps to named chunks of the container;
// frames are read straight into the caller's buffer and never past the frame
// size the attributes give.
#include "fileformat/CKvQV8InputFile.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "gnr_metaformats/KvMetaIO.h"
#include "gnr_system/KvBytes.h"

namespace {

// Bytes per sample by (bits + 7) / 8: 8-bit samples take 1 byte, 12 and 16
// bits 2, 24 and 32 bits 4, up to 64 bits 8.
constexpr uint32_t kBytesPerSample[] = {0, 1, 2, 4, 4, 8, 8, 8, 8};
// Size of one cached acquisition time.
constexpr uint64_t kAcqTimeSize = sizeof(double);

uint32_t BytesPerSample(uint8_t bits) {
    const uint32_t index = (static_cast<uint32_t>(bits) + 7) / 8;
    return index < std::size(kBytesPerSample) ? kBytesPerSample[index] : 0;
}

// Bytes of the pixels of one row without padding; 0 when the attributes
// cannot describe a frame (a zero field, an unknown sample size, or a row
// stride shorter than the pixels it must hold).
uint64_t CheckedPixelRowBytes(const SKvImageAttributes& a) {
    if (!a.HasShape()) return 0;
    const uint32_t sample = BytesPerSample(a.uiBpcInMemory);
    if (sample == 0) return 0;
    const unsigned __int128 row = static_cast<unsigned __int128>(a.uiWidth) * a.uiComp * sample;
    if (row > a.uiWidthBytes) return 0;
    // Frames larger than the address space cannot be held by any caller.
    if (a.FrameSize() > static_cast<uint64_t>(SIZE_MAX / 2)) return 0;
    return static_cast<uint64_t>(row);
}

// Reads a chunk into a lite-variant reader, expanded when it is compressed.
kv_result LoadLiteChunk(CKvFileChunker& chunker, const char* name, CKvLiteVariantR& reader) {
    kv_result r = chunker.GetChunk(static_cast<CKvByteArray&>(reader), name);
    if (r != KV_OK) return r;
    reader.Reset();
    r = reader.Decompress();
    return r == KV_OK ? KV_OK : KV_ERR_FAILED;
}

// Loads a record of the attributes or text-information kind from an XML
// tree. Documents whose root element was written without the record's name
// are read as that record too.
template <typename Record>
kv_result LoadNamedRecord(Record& record, CKvVariant& tree, const wchar_t* recordName) {
    if (Record::LoadFromVariant(record, tree) == KV_OK) return KV_OK;
    if (tree.GetName() == CKvStringW(recordName)) return KV_ERR_FAILED;
    tree.SetName(CKvStringW(recordName));
    return Record::LoadFromVariant(record, tree) == KV_OK ? KV_OK : KV_ERR_FAILED;
}

// Hands a decoded tree to the caller's node whatever type that node had.
void HandOverTree(CKvVariant& target, const CKvVariant& decoded) {
    const bool previous = target.EnableTypeChange(true);
    target = decoded;
    target.EnableTypeChange(previous);
}

// Gives the caller, when it asks, the whole tree a record was just loaded
// from by `reader`.
kv_result CopyLiteTree(CKvLiteVariantR& reader, CKvVariant* tree) {
    if (!tree) return KV_OK;
    reader.Reset();
    return reader.GetCurrentValue(*tree) == KV_OK ? KV_OK : KV_ERR_FAILED;
}

// A record that did not load: for want of memory, or else from damage.
kv_result LoadFailure(kv_result r) { return r == KV_ERR_OUT_OF_MEMORY ? r : KV_ERR_FAILED; }

}  // namespace

// ---- Version 1

CKvQV8InputFile_V01::CKvQV8InputFile_V01(IKvImageFormat* format, std::unique_ptr<CKvFileChunker> chunker)
    : m_pChunker(std::move(chunker)), m_pFormat(format) {}

CKvQV8InputFile_V01::~CKvQV8InputFile_V01() {
    if (m_pChunker) m_pChunker->Finalize();
}

uint32_t CKvQV8InputFile_V01::AddRef() { return ++m_uiRefCount; }

uint32_t CKvQV8InputFile_V01::Release() {
    const uint32_t left = --m_uiRefCount;
    if (left == 0) delete this;
    return left;
}

IKvImageFormat* CKvQV8InputFile_V01::GetImageFormat() { return m_pFormat; }
kv_result CKvQV8InputFile_V01::GetData(uint32_t, void*, KvProgressCallback, void*) { return KV_ERR_FAILED; }
kv_result CKvQV8InputFile_V01::GetImageAttributes(SKvImageAttributes&) { return KV_ERR_FAILED; }
kv_result CKvQV8InputFile_V01::GetImageMetadata(SKvExperiment&, CKvVariant*) { return KV_ERR_FAILED; }
kv_result CKvQV8InputFile_V01::GetImageMetadata(uint32_t, SKvPictureMetadata&, CKvVariant*) { return KV_ERR_FAILED; }
kv_result CKvQV8InputFile_V01::GetCustomData(const wchar_t*, CKvByteArray&) { return KV_ERR_FAILED; }
kv_result CKvQV8InputFile_V01::GetCustomDataSeq(const wchar_t*, uint32_t, CKvByteArray&) { return KV_ERR_FAILED; }
kv_result CKvQV8InputFile_V01::GetComponentData(uint32_t, uint32_t, void*, uint32_t, uint32_t) {
    return KV_ERR_FAILED;
}
kv_result CKvQV8InputFile_V01::GetCustomDataVar(const wchar_t*, CKvVariant&) { return KV_ERR_FAILED; }
kv_result CKvQV8InputFile_V01::GetCustomDataVarSeq(const wchar_t*, uint32_t, CKvVariant&) { return KV_ERR_FAILED; }
kv_result CKvQV8InputFile_V01::GetImageTextInfo(SKvImageTextInfo&) { return KV_ERR_FAILED; }
kv_result CKvQV8InputFile_V01::GetImageBinary(void*) { return KV_ERR_FAILED; }
kv_result CKvQV8InputFile_V01::GetRectData(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, void*,
                                           uint32_t, int, KvProgressCallback, void*) {
    return KV_ERR_FAILED;
}
kv_result CKvQV8InputFile_V01::GetImageEvents(SKvExperimentRecord&, CKvVariant*) { return KV_ERR_FAILED; }
kv_result CKvQV8InputFile_V01::Finalize() { return KV_OK; }

// ---- Version 2: reference counting and state

CKvQV8InputFile_V02::CKvQV8InputFile_V02(IKvImageFormat* format, std::unique_ptr<CKvFileChunker> chunker,
                                         const CKvStringA& version)
    : m_pChunker(std::move(chunker)), m_strVersion(version), m_pFormat(format) {
    m_aAcqTimes.Reserve(1024);
    if (!m_pChunker) m_pChunker = std::make_unique<CKvFileChunker>();
}

CKvQV8InputFile_V02::~CKvQV8InputFile_V02() { m_pChunker->Finalize(); }

uint32_t CKvQV8InputFile_V02::AddRef() { return ++m_uiRefCount; }

uint32_t CKvQV8InputFile_V02::Release() {
    const uint32_t left = --m_uiRefCount;
    if (left == 0) delete this;
    return left;
}

IKvImageFormat* CKvQV8InputFile_V02::GetImageFormat() { return m_pFormat; }

kv_result CKvQV8InputFile_V02::Finalize() { return KV_OK; }

void CKvQV8InputFile_V02::SetTotalSequenceCount(uint32_t count) {
    m_bTotalSequenceOverride = true;
    m_uiTotalSequenceCount = count;
    if (m_bAttributesRead) {
        m_uiSequenceCount = count;
        m_sAttributes.uiSequenceCount = count;
    }
}

kv_result CKvQV8InputFile_V02::GetStoredFrames(std::vector<SKvStoredFrame>& frames) {
    return KvNoThrow([&]() -> kv_result {
        std::vector<SKvStoredFrame> found;
        KvQV8ForEachIndexedChunk(m_pChunker->GetChunkMap(), kFrameChunkPrefix, [&](std::string_view name, uint32_t index) {
            SKvChunkHeader header;
            if (m_pChunker->GetChunkHeader(header, std::string(name).c_str()) != KV_OK ||
                header.dataLength < kFramePrefixSize)
                return;
            found.push_back({index, header.dataLength - kFramePrefixSize});
        });
        std::sort(found.begin(), found.end(),
                  [](const SKvStoredFrame& a, const SKvStoredFrame& b) { return a.uiIndex < b.uiIndex; });
        frames.swap(found);
        return KV_OK;
    });
}

// ---- Decoding helpers

template <typename Load>
kv_result CKvQV8InputFile_V02::ReadLiteChunk(const char* name, Load&& load) {
    return KvNoThrow([&]() -> kv_result {
        CKvLiteVariantR reader;
        const kv_result r = LoadLiteChunk(*m_pChunker, name, reader);
        if (r != KV_OK) return r;
        return load(reader);
    });
}

template <typename LoadLite, typename LoadXml>
kv_result CKvQV8InputFile_V02::ReadLiteOrXmlChunk(const char* liteName, const char* xmlName, LoadLite&& loadLite,
                                                  LoadXml&& loadXml) {
    if (liteName) {
        const kv_result r = ReadLiteChunk(liteName, loadLite);
        if (r != KV_ERR_NOT_FOUND || !xmlName) return r;
    }
    return KvNoThrow([&]() -> kv_result {
        CKvVariant decoded;
        const kv_result r = ReadXmlChunk(xmlName, decoded);
        return r == KV_OK ? loadXml(decoded) : r;
    });
}

kv_result CKvQV8InputFile_V02::ReadXmlChunk(const char* name, CKvVariant& tree) {
    return KvNoThrow([&]() -> kv_result {
        CKvByteArray bytes;
        kv_result r = m_pChunker->GetChunk(bytes, name);
        if (r != KV_OK) return r;
        if (bytes.GetSize() > UINT32_MAX) return KV_ERR_FAILED;
        // The serializer takes the bytes where they are: address and count.
        CKvListVariant members;
        members.Add(CKvVariant(static_cast<void*>(bytes.GetData()), L"rawStringUTF8"));
        members.Add(CKvVariant(static_cast<unsigned int>(bytes.GetSize()), L"rawStringLen"));
        const CKvVariant options(members, L"options");
        r = m_serializer.Load(tree, options);
        return r == KV_ERR_OUT_OF_MEMORY ? r : (r == KV_OK ? KV_OK : KV_ERR_FAILED);
    });
}

kv_result CKvQV8InputFile_V02::AcceptAttributes(const SKvImageAttributes& loaded, SKvImageAttributes& attributes) {
    if (!loaded.HasShape()) return KV_ERR_FAILED;
    m_sAttributes = loaded;
    if (m_bTotalSequenceOverride) m_sAttributes.uiSequenceCount = m_uiTotalSequenceCount;
    m_uiSequenceCount = m_sAttributes.uiSequenceCount;
    m_uiCompression = m_sAttributes.eCompression;
    m_bAttributesRead = true;
    attributes = m_sAttributes;
    return KV_OK;
}

kv_result CKvQV8InputFile_V02::EnsureAttributes() {
    if (m_bAttributesRead && m_uiCompression != 0xFFFFFFFF) return KV_OK;
    SKvImageAttributes attributes;
    return GetImageAttributes(attributes);
}

// ---- Frames

kv_result CKvQV8InputFile_V02::ReadFrame(uint32_t sequenceIndex, void* buffer) {
    if (!buffer) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&]() -> kv_result {
        kv_result r = EnsureAttributes();
        if (r != KV_OK) return r < 0 ? r : KV_ERR_FAILED;
        if (CheckedPixelRowBytes(m_sAttributes) == 0) return KV_ERR_FAILED;
        const uint64_t frameSize = m_sAttributes.FrameSize();
        const SKvFrameChunkName name(sequenceIndex);

        // One look-up in the map and one read: the pixels start on the page
        // after the chunk's head, so the header comes with them.
        SKvChunkHeader header;
        if (m_uiCompression != kCompressionZlib) {
            // Raw rows, straight into the caller's buffer. A chunk the map
            // says is too short for the frame is refused before the read.
            return m_pChunker->ReadAlignedPart(header, buffer, kFramePrefixSize, frameSize, name.c_str());
        }

        // One zlib stream after the prefix, read into a buffer kept between
        // frames and inflated into the caller's; the output must be exactly
        // one frame.
        uint64_t packed = 0;
        r = m_pChunker->ReadAlignedRest(header, m_aPacked, kFramePrefixSize, packed, name.c_str());
        if (r != KV_OK) return r;
        return m_inflater.Inflate(m_aPacked.data(), packed, buffer, frameSize);
    });
}

kv_result CKvQV8InputFile_V02::GetData(uint32_t sequenceIndex, void* buffer, KvProgressCallback, void*) {
    return ReadFrame(sequenceIndex, buffer);
}

kv_result CKvQV8InputFile_V02::GetComponentData(uint32_t sequenceIndex, uint32_t component, void* buffer,
                                                uint32_t rowBytes, uint32_t flags) {
    if (!buffer || flags != 0) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&]() -> kv_result {
        kv_result r = EnsureAttributes();
        if (r != KV_OK) return r < 0 ? r : KV_ERR_FAILED;
        const SKvImageAttributes& a = m_sAttributes;
        if (CheckedPixelRowBytes(a) == 0) return KV_ERR_FAILED;
        if (component >= a.uiComp) return KV_ERR_INVALID_ARG;
        const uint64_t sample = BytesPerSample(a.uiBpcInMemory);
        const uint64_t tight = a.uiWidth * sample;
        const uint64_t stride = rowBytes ? rowBytes : tight;
        if (stride < tight) return KV_ERR_INVALID_ARG;

        std::vector<uint8_t> frame(static_cast<size_t>(a.FrameSize()));
        r = ReadFrame(sequenceIndex, frame.data());
        if (r != KV_OK) return r;
        const uint64_t pixel = a.uiComp * sample;
        auto* out = static_cast<uint8_t*>(buffer);
        for (uint64_t y = 0; y < a.uiHeight; ++y) {
            const uint8_t* src = frame.data() + y * a.uiWidthBytes + component * sample;
            uint8_t* dst = out + y * stride;
            for (uint64_t x = 0; x < a.uiWidth; ++x) std::memcpy(dst + x * sample, src + x * pixel, sample);
        }
        return KV_OK;
    });
}

// Source position of each destination position: the centre of the
// destination cell mapped into the source span, capped at its last element.
static std::vector<uint32_t> SourcePositions(uint32_t start, uint32_t sourceSize, uint32_t destSize) {
    std::vector<uint32_t> table(destSize);
    for (uint32_t i = 0; i < destSize; ++i) {
        const uint64_t offset = (2 * static_cast<uint64_t>(i) + 1) * sourceSize / (2 * static_cast<uint64_t>(destSize));
        table[i] = start + static_cast<uint32_t>(std::min<uint64_t>(offset, sourceSize - 1));
    }
    return table;
}

kv_result CKvQV8InputFile_V02::GetRectData(uint32_t sequenceIndex, uint32_t left, uint32_t top, uint32_t width,
                                           uint32_t height, uint32_t dstWidth, uint32_t dstHeight, void* buffer,
                                           uint32_t dstRowBytes, int flags, KvProgressCallback progress,
                                           void* userData) {
    if (!buffer || flags != 0 || width == 0 || height == 0 || dstWidth == 0 || dstHeight == 0) {
        return KV_ERR_INVALID_ARG;
    }
    return KvNoThrow([&]() -> kv_result {
        kv_result r = EnsureAttributes();
        if (r != KV_OK) return r < 0 ? r : KV_ERR_FAILED;
        const SKvImageAttributes& a = m_sAttributes;
        if (CheckedPixelRowBytes(a) == 0) return KV_ERR_FAILED;
        if (static_cast<uint64_t>(left) + width > a.uiWidth || static_cast<uint64_t>(top) + height > a.uiHeight) {
            return KV_ERR_INVALID_ARG;
        }
        const uint64_t pixel = static_cast<uint64_t>(a.uiComp) * BytesPerSample(a.uiBpcInMemory);
        const uint64_t tight = dstWidth * pixel;
        const uint64_t stride = dstRowBytes ? dstRowBytes : tight;
        if (stride < tight) return KV_ERR_INVALID_ARG;

        if (m_uiCompression == kCompressionZlib && dstWidth == width && dstHeight == height) {
            return CopyFromThumbnail(left, top, width, height, static_cast<uint8_t*>(buffer), stride, progress,
                                     userData);
        }
        if (m_uiCompression != kCompressionNone) return KV_ERR_NOT_SUPPORTED;

        const SKvFrameChunkName name(sequenceIndex);
        SKvChunkHeader header;
        r = m_pChunker->GetChunkHeader(header, name.c_str());
        if (r != KV_OK) return r;
        if (header.dataLength < kFramePrefixSize || header.dataLength - kFramePrefixSize < a.FrameSize()) {
            return KV_ERR_FAILED;
        }
        const std::vector<uint32_t> columns = SourcePositions(0, width, dstWidth);
        const std::vector<uint32_t> rows = SourcePositions(top, height, dstHeight);
        // Only the rectangle's span of a source row is read; consecutive
        // destination rows that share a source row read it once.
        std::vector<uint8_t> span(static_cast<size_t>(width * pixel));
        uint64_t loadedRow = UINT64_MAX;
        auto* out = static_cast<uint8_t*>(buffer);
        for (uint32_t y = 0; y < dstHeight; ++y) {
            if (rows[y] != loadedRow) {
                const uint64_t offset = kFramePrefixSize + rows[y] * static_cast<uint64_t>(a.uiWidthBytes) + left * pixel;
                r = m_pChunker->ReadChunkPart(header, span.data(), offset, span.size(), name.c_str());
                if (r != KV_OK) return r;
                loadedRow = rows[y];
            }
            uint8_t* dst = out + y * stride;
            for (uint32_t x = 0; x < dstWidth; ++x) std::memcpy(dst + x * pixel, span.data() + columns[x] * pixel, pixel);
            if (progress && progress(static_cast<double>(y + 1) / dstHeight, userData)) return KV_ERR_CANCELLED;
        }
        return KV_OK;
    });
}

kv_result CKvQV8InputFile_V02::CopyFromThumbnail(uint32_t left, uint32_t top, uint32_t width, uint32_t height,
                                                 uint8_t* out, uint64_t stride, KvProgressCallback progress,
                                                 void* userData) {
    CKvVariant tree;
    const kv_result r = GetCustomDataVar(kThumbnailName, tree);
    if (r == KV_ERR_NOT_FOUND) return KV_ERR_NOT_SUPPORTED;
    if (r != KV_OK) return r;
    // The keys sit in the level "Thumbnail", or in the tree itself when the
    // decoded tree is that level.
    const CKvVariant* level = KvMeta::Find(tree, L"Thumbnail");
    if (!level) level = &tree;
    uint32_t comp = 0, bpc = 0, widthBytes = 0, thumbHeight = 0, thumbWidth = 0;
    CKvByteArray pixels;
    if (!KvMeta::Get(*level, L"uiComp", comp) || !KvMeta::Get(*level, L"uiBpc", bpc) ||
        !KvMeta::Get(*level, L"uiWidthBytes", widthBytes) || !KvMeta::Get(*level, L"uiHeight", thumbHeight) ||
        !KvMeta::Get(*level, L"uiWidth", thumbWidth) || !KvMeta::Get(*level, L"pData", pixels)) {
        return KV_ERR_FAILED;
    }
    // The thumbnail must have the frame's pixel layout and cover the rectangle.
    const uint64_t sample = BytesPerSample(m_sAttributes.uiBpcInMemory);
    const uint64_t pixel = comp * sample;
    if (comp != m_sAttributes.uiComp || bpc > 255 || BytesPerSample(static_cast<uint8_t>(bpc)) != sample ||
        static_cast<uint64_t>(left) + width > thumbWidth || static_cast<uint64_t>(top) + height > thumbHeight ||
        static_cast<uint64_t>(thumbWidth) * pixel > widthBytes ||
        pixels.GetSize() < static_cast<uint64_t>(widthBytes) * thumbHeight) {
        return KV_ERR_FAILED;
    }
    for (uint32_t y = 0; y < height; ++y) {
        std::memcpy(out + y * stride, pixels.GetData() + (top + y) * static_cast<uint64_t>(widthBytes) + left * pixel,
                    static_cast<size_t>(width * pixel));
        if (progress && progress(static_cast<double>(y + 1) / height, userData)) return KV_ERR_CANCELLED;
    }
    return KV_OK;
}

// ---- Attributes and metadata, version 2 (XML)

kv_result CKvQV8InputFile_V02::GetImageAttributes(SKvImageAttributes& attributes) {
    return KvNoThrow([&]() -> kv_result {
        CKvVariant tree;
        kv_result r = ReadXmlChunk(kChunkAttributes, tree);
        if (r != KV_OK) return r;
        SKvImageAttributes loaded = attributes;
        if (LoadNamedRecord(loaded, tree, L"SKvImageAttributes") != KV_OK) return KV_ERR_FAILED;
        return AcceptAttributes(loaded, attributes);
    });
}

// Version 3 reads the lite chunk, and the XML chunk of older files without it.
kv_result CKvQV8InputFile_V02::GetImageMetadata(SKvExperiment& experiment, CKvVariant* tree) {
    return KvNoThrow([&]() -> kv_result {
        SKvExperiment loaded;
        const kv_result r = ReadLiteOrXmlChunk(
            IsLiteVariant() ? kChunkExperimentLV : nullptr, kChunkExperiment,
            [&](CKvLiteVariantR& reader) -> kv_result {
                if (SKvExperiment::LoadFromLiteVariant(loaded, reader) != KV_OK) return KV_ERR_FAILED;
                return CopyLiteTree(reader, tree);
            },
            [&](CKvVariant& decoded) -> kv_result {
                const kv_result loadResult = SKvExperiment::LoadFromVariant(loaded, decoded);
                if (loadResult != KV_OK) return LoadFailure(loadResult);
                if (tree) HandOverTree(*tree, decoded);
                return KV_OK;
            });
        if (r == KV_OK) SKvExperiment::Swap(experiment, loaded);
        return r;
    });
}

kv_result CKvQV8InputFile_V02::GetImageMetadata(uint32_t sequenceIndex, SKvPictureMetadata& metadata,
                                                CKvVariant* tree) {
    return ReadFrameMetadata(sequenceIndex, metadata, tree);
}

kv_result CKvQV8InputFile_V02::DecodePictureMetadata(const char* name, SKvPictureMetadata& metadata,
                                                     CKvVariant* tree) {
    const bool lite = IsLiteVariant();
    return ReadLiteOrXmlChunk(
        lite ? name : nullptr, lite ? nullptr : name,
        [&](CKvLiteVariantR& reader) -> kv_result {
            if (SKvPictureMetadata::LoadFromLiteVariant(metadata, reader) != KV_OK) return KV_ERR_FAILED;
            return CopyLiteTree(reader, tree);
        },
        [&](CKvVariant& decoded) -> kv_result {
            if (SKvPictureMetadata::LoadFromVariant(metadata, decoded) != KV_OK) return KV_ERR_FAILED;
            if (tree) HandOverTree(*tree, decoded);
            return KV_OK;
        });
}

kv_result CKvQV8InputFile_V02::ReadFrameMetadata(uint32_t sequenceIndex, SKvPictureMetadata& metadata,
                                                 CKvVariant* tree) {
    return KvNoThrow([&]() -> kv_result {
        const bool loaded = m_strMetadataMarker != CKvStringW(kMetadataNotInitialized);
        if (!loaded) {
            if (m_uiSequenceCount == 0) EnsureAttributes();
            // The first picture-metadata chunk of the file serves every frame.
            // The map is searched by prefix: probing every index up to a
            // sequence count of billions would take forever.
            bool found = false;
            uint32_t first = 0;
            KvQV8ForEachIndexedChunk(m_pChunker->GetChunkMap(),
                                     IsLiteVariant() ? kPictureMetaLVPrefix : kPictureMetaPrefix,
                                     [&](std::string_view, uint32_t index) {
                                         if (index < m_uiSequenceCount && (!found || index < first)) {
                                             first = index;
                                             found = true;
                                         }
                                     });
            if (!found) return KV_ERR_NOT_FOUND;
            const CKvStringA name = KvQV8ChunkName(IsLiteVariant() ? kChunkPictureMetaLV : kChunkPictureMeta, first);
            SKvPictureMetadata decoded;
            const kv_result r = DecodePictureMetadata(name.c_str(), decoded, tree);
            if (r != KV_OK) return r;
            swap(m_sMetadata, decoded);
            m_strMetadataChunk = name;
            m_strMetadataMarker = CKvStringUtils::UTF8toW(name.c_str());
        } else if (tree) {
            SKvPictureMetadata ignored;
            const kv_result r = DecodePictureMetadata(m_strMetadataChunk.c_str(), ignored, tree);
            if (r != KV_OK) return r;
        }
        SKvPictureMetadata copy;
        const kv_result r = SKvPictureMetadata::Copy(copy, m_sMetadata);
        if (r != KV_OK) return r;
        ApplyAcqTimes(sequenceIndex, copy);
        swap(metadata, copy);
        return KV_OK;
    });
}

void CKvQV8InputFile_V02::LoadAcqTimes() {
    if (m_aAcqTimes.GetSize() >= kAcqTimeSize) return;
    CKvByteArray times;
    if (m_pChunker->GetChunk(times, kChunkAcqTimes) == KV_OK) m_aAcqTimes.Swap(times);
}

void CKvQV8InputFile_V02::ApplyAcqTimes(uint32_t sequenceIndex, SKvPictureMetadata& metadata) {
    LoadAcqTimes();
    // A chunk whose size is no multiple of a double holds only its whole doubles.
    const uint64_t count = m_aAcqTimes.GetSize() / kAcqTimeSize;
    if (sequenceIndex >= count) return;
    const double time = kvbytes::LoadF64(m_aAcqTimes.GetData() + sequenceIndex * kAcqTimeSize);
    metadata.dTimeAbsolute = time;
    metadata.dTimeMSec = time - kvbytes::LoadF64(m_aAcqTimes.GetData());
}

kv_result CKvQV8InputFile_V02::GetAcqTime(double& time) {
    return KvNoThrow([&]() -> kv_result {
        LoadAcqTimes();
        if (m_aAcqTimes.GetSize() < kAcqTimeSize) return KV_ERR_NOT_SUPPORTED;
        time = kvbytes::LoadF64(m_aAcqTimes.GetData());
        return KV_OK;
    });
}

kv_result CKvQV8InputFile_V02::GetImageTextInfo(SKvImageTextInfo& info) {
    return KvNoThrow([&]() -> kv_result {
        SKvImageTextInfo loaded = info;
        const kv_result r = ReadLiteOrXmlChunk(
            IsLiteVariant() ? kChunkTextInfoLV : nullptr, kChunkTextInfo,
            [&](CKvLiteVariantR& reader) { return SKvImageTextInfo::LoadFromLiteVariant(loaded, reader); },
            [&](CKvVariant& decoded) {
                loaded = info;  // keeps nothing of a lite chunk that did not load
                return LoadNamedRecord(loaded, decoded, L"SKvImageTextInfo");
            });
        if (r == KV_OK) info = std::move(loaded);
        return r;
    });
}

// Writers of both versions store the events as XML ("ImageEvents!"); the
// lite chunk is read when a file has one.
kv_result CKvQV8InputFile_V02::GetImageEvents(SKvExperimentRecord& record, CKvVariant* tree) {
    return KvNoThrow([&]() -> kv_result {
        SKvExperimentRecord loaded;
        const kv_result r = ReadLiteOrXmlChunk(
            IsLiteVariant() ? kChunkEventsLV : nullptr, kChunkEvents,
            [&](CKvLiteVariantR& reader) -> kv_result {
                const kv_result loadResult = SKvExperimentRecord::LoadFromLiteVariant(loaded, reader);
                return loadResult != KV_OK ? LoadFailure(loadResult) : CopyLiteTree(reader, tree);
            },
            [&](CKvVariant& decoded) -> kv_result {
                const kv_result loadResult = SKvExperimentRecord::LoadFromVariant(loaded, decoded);
                if (loadResult != KV_OK) return LoadFailure(loadResult);
                if (tree) HandOverTree(*tree, decoded);
                return KV_OK;
            });
        if (r == KV_OK) record = std::move(loaded);
        return r;
    });
}

// ---- Custom data and binary layers

kv_result CKvQV8InputFile_V02::ReadRawChunk(const char* name, CKvByteArray& data) {
    return KvNoThrow([&]() -> kv_result {
        CKvByteArray bytes;
        const kv_result r = m_pChunker->GetChunk(bytes, name);
        if (r == KV_OK) data.Swap(bytes);
        return r;
    });
}

kv_result CKvQV8InputFile_V02::GetCustomData(const wchar_t* name, CKvByteArray& data) {
    if (!name) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&]() { return ReadRawChunk(KvQV8CustomChunkName(kChunkCustomData, name).c_str(), data); });
}

kv_result CKvQV8InputFile_V02::GetCustomDataSeq(const wchar_t* name, uint32_t sequenceIndex, CKvByteArray& data) {
    if (!name) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&]() {
        return ReadRawChunk(KvQV8CustomChunkName(kChunkCustomDataSeq, name, sequenceIndex).c_str(), data);
    });
}

kv_result CKvQV8InputFile_V02::ReadVariantChunk(const char* name, CKvVariant& tree) {
    const bool lite = IsLiteVariant();
    return ReadLiteOrXmlChunk(
        lite ? name : nullptr, lite ? nullptr : name,
        [&](CKvLiteVariantR& reader) -> kv_result {
            const kv_result r = reader.GetCurrentValue(tree);
            return r == KV_OK || r == KV_ERR_OUT_OF_MEMORY ? r : KV_ERR_FAILED;
        },
        [&](CKvVariant& decoded) -> kv_result {
            HandOverTree(tree, decoded);
            return KV_OK;
        });
}

kv_result CKvQV8InputFile_V02::GetCustomDataVar(const wchar_t* name, CKvVariant& tree) {
    if (!name) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&]() { return ReadVariantChunk(KvQV8CustomChunkName(kChunkCustomDataVar, name).c_str(), tree); });
}

kv_result CKvQV8InputFile_V02::GetCustomDataVarSeq(const wchar_t* name, uint32_t sequenceIndex, CKvVariant& tree) {
    if (!name) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&]() {
        return ReadVariantChunk(KvQV8CustomChunkName(kChunkCustomDataVarSeq, name, sequenceIndex).c_str(), tree);
    });
}

kv_result CKvQV8InputFile_V02::GetImageBinary(void* data) {
    if (!data) return m_pChunker->ExistChunk(kChunkBinary) ? KV_OK : KV_ERR_NOT_FOUND;
    return ReadRawChunk(kChunkBinary, *static_cast<CKvByteArray*>(data));
}

// ---- Version 3 (lite variant), falling back to the XML chunks of older files

CKvQV8InputFile_V03::CKvQV8InputFile_V03(IKvImageFormat* format, std::unique_ptr<CKvFileChunker> chunker,
                                         const CKvStringA& version)
    : CKvQV8InputFile_V02(format, std::move(chunker), version) {}

CKvQV8InputFile_V03::~CKvQV8InputFile_V03() = default;

kv_result CKvQV8InputFile_V03::GetData(uint32_t sequenceIndex, void* buffer, KvProgressCallback, void*) {
    return ReadFrame(sequenceIndex, buffer);
}

kv_result CKvQV8InputFile_V03::GetImageAttributes(SKvImageAttributes& attributes) {
    SKvImageAttributes loaded = attributes;
    const kv_result r = ReadLiteChunk(kChunkAttributesLV, [&](CKvLiteVariantR& reader) {
        return SKvImageAttributes::LoadFromLiteVariant(loaded, reader);
    });
    // Without its attributes a file cannot be read at all.
    if (r == KV_ERR_OUT_OF_MEMORY) return r;
    if (r != KV_OK) return KV_ERR_FAILED;
    return AcceptAttributes(loaded, attributes);
}

kv_result CKvQV8InputFile_V03::GetImageMetadata(uint32_t sequenceIndex, SKvPictureMetadata& metadata,
                                                CKvVariant* tree) {
    return ReadFrameMetadata(sequenceIndex, metadata, tree);
}

kv_result CKvQV8InputFile_V03::GetRectData(uint32_t sequenceIndex, uint32_t left, uint32_t top, uint32_t width,
                                           uint32_t height, uint32_t dstWidth, uint32_t dstHeight, void* buffer,
                                           uint32_t dstRowBytes, int flags, KvProgressCallback progress,
                                           void* userData) {
    return CKvQV8InputFile_V02::GetRectData(sequenceIndex, left, top, width, height, dstWidth, dstHeight, buffer,
                                            dstRowBytes, flags, progress, userData);
}

// The layout of a QV8 file above its chunk container: the names of its
// chunks, the bytes in front of a frame's pixels and the zlib level a
// compression setting stands for. Readers, writers and tools take them here.
#pragma once

#include <cstdint>
#include <string_view>

#include "fileformat/CKvChunkMap.h"
#include "gnr_system/CKvString.h"

// ---- Chunk names
// Patterns take a decimal frame index (%u) and a custom-data name (%ls).
// Version-2 files use the names without "LV" and hold XML where version 3
// holds lite variants.

// Frame %u: kFramePrefixSize bytes of time, then the pixel rows, raw or as
// one zlib stream.
constexpr const char* kChunkFrame = "ImageDataSeq|%u!";
// kChunkFrame up to its index: frame chunks are found in the map by it.
constexpr std::string_view kFrameChunkPrefix = "ImageDataSeq|";
// The image attributes: shape, sample size, sequence count, compression.
constexpr const char* kChunkAttributes = "ImageAttributes!";
constexpr const char* kChunkAttributesLV = "ImageAttributesLV!";
// The experiment: the acquisition loops.
constexpr const char* kChunkExperiment = "ImageMetadata!";
constexpr const char* kChunkExperimentLV = "ImageMetadataLV!";
// Picture metadata, written for frame %u. The first of them in index order
// serves every frame of the file.
constexpr const char* kChunkPictureMeta = "ImageMetadataSeq|%u!";
constexpr const char* kChunkPictureMetaLV = "ImageMetadataSeqLV|%u!";
// The picture-metadata patterns up to their index, for finding the first.
constexpr std::string_view kPictureMetaPrefix = "ImageMetadataSeq|";
constexpr std::string_view kPictureMetaLVPrefix = "ImageMetadataSeqLV|";
// The fourteen text items.
constexpr const char* kChunkTextInfo = "ImageTextInfo!";
constexpr const char* kChunkTextInfoLV = "ImageTextInfoLV!";
// The event record. Writers of both versions write the XML form.
constexpr const char* kChunkEvents = "ImageEvents!";
constexpr const char* kChunkEventsLV = "ImageEventsLV!";
// Acquisition times: one little-endian double per frame, -1.0 for a frame
// without. It is the custom data kChunkCustomData named kAcqTimesName.
constexpr const char* kChunkAcqTimes = "CustomData|AcqTimesCache!";
constexpr const wchar_t* kAcqTimesName = L"AcqTimesCache";
// Custom data: raw bytes, for the file or for frame %u.
constexpr const char* kChunkCustomData = "CustomData|%ls!";
constexpr const char* kChunkCustomDataSeq = "CustomDataSeq|%ls|%u!";
// Custom data as a variant tree, in the metadata encoding of the file's
// version: in version 3 the lite-variant bytes of the tree as
// CKvLiteVariantW::Set(tree, name) writes them (one item, a level for a
// list), read back with CKvLiteVariantR::GetCurrentValue; in version 2 the
// UTF-8 XML document of the tree written by CKvSerializerXMLString.
constexpr const char* kChunkCustomDataVar = "CustomDataVar|%ls!";
constexpr const char* kChunkCustomDataVarSeq = "CustomDataVarSeq|%ls|%u!";
// The binary-layer bytes.
constexpr const char* kChunkBinary = "ImageBinary!";
// A calibration record %u (XML in both versions); no reader asks for it.
constexpr const char* kChunkCalibration = "ImageCalibration|%u!";

static_assert(std::string_view(kChunkFrame).substr(0, kFrameChunkPrefix.size()) == kFrameChunkPrefix);
static_assert(std::string_view(kChunkPictureMeta).substr(0, kPictureMetaPrefix.size()) == kPictureMetaPrefix);
static_assert(std::string_view(kChunkPictureMetaLV).substr(0, kPictureMetaLVPrefix.size()) == kPictureMetaLVPrefix);

// ---- Custom data the file format itself gives a meaning

// The picture served for full-size rectangles of compressed frames: level
// "Thumbnail" with "uiComp", "uiBpc", "uiWidthBytes", "uiHeight", "uiWidth"
// and the pixel bytes "pData".
constexpr const wchar_t* kThumbnailName = L"Thumbnail_V1_0";
// The writing application: a level whose kAppInfoVersionKey holds its
// version text.
constexpr const wchar_t* kAppInfoName = L"AppInfo_V1_0";
constexpr const wchar_t* kAppInfoVersionKey = L"m_VersionString";

// ---- Frames

// Bytes before the pixels of a frame chunk: the frame's time, a
// little-endian double. The container pads the chunk name so that they end
// on a page boundary and the pixel rows start on one.
constexpr uint64_t kFramePrefixSize = 8;

// The zlib level frames are compressed at, from the compression parameter
// of the attributes: 1 to 9 as given (fractions cut off), above 9 the
// highest level, below 1 (and NaN) zlib's own default.
constexpr int kMinZlibLevel = 1;
constexpr int kMaxZlibLevel = 9;
constexpr int kDefaultZlibLevel = 6;
int KvQV8ZlibLevel(double compressionParam);

// ---- Naming and parsing

// The frame chunk's name without printf, for the paths that run per frame:
// kChunkFrame with `index` put in.
struct SKvFrameChunkName {
    explicit SKvFrameChunkName(uint32_t index);
    const char* c_str() const { return text; }
    char text[32];
};

// `pattern` with one %u put in: kChunkPictureMeta, kChunkCalibration.
CKvStringA KvQV8ChunkName(const char* pattern, uint32_t index);
// `pattern` holding one %ls and, after it, optionally one %u: the custom-data
// names. The wide name goes in as UTF-8 whatever the process locale, and a
// '%' in it is taken as it is.
CKvStringA KvQV8CustomChunkName(const char* pattern, const wchar_t* name, uint32_t index = 0);
// The index of a chunk named `prefix` + decimal digits + "!", as "%u" writes
// it (no sign, no leading zero, no overflow); false for any other name.
bool KvQV8ParseIndexedName(std::string_view name, std::string_view prefix, uint32_t& index);

// Calls `visit(name, index)` for every chunk of `map` named `prefix` +
// index + "!" (kFrameChunkPrefix, kPictureMetaLVPrefix), in the map's byte
// order of the names, which puts index 10 before index 2.
template <typename Visit>
void KvQV8ForEachIndexedChunk(const CKvChunkMap& map, std::string_view prefix, Visit&& visit) {
    for (auto it = map.lower_bound(prefix); it != map.end(); ++it) {
        const std::string_view name = (*it).first;
        if (name.substr(0, prefix.size()) != prefix) break;
        uint32_t index = 0;
        if (KvQV8ParseIndexedName(name, prefix, index)) visit(name, index);
    }
}

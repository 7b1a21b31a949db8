// The shape of the frames of an image file (SKvImageAttributes) and its free
// text items (SKvImageTextInfo), with their stored forms: a lite-variant
// level (version-3 files) and a variant tree for XML (version-2 files), both
// named after the record and holding the same keys.
#pragma once

#include <cstdint>

#include "gnr_system/CKvLiteVariant.h"
#include "gnr_system/CKvString.h"
#include "gnr_system/CKvVariant.h"
#include "gnr_system/KvResult.h"

// Values of SKvImageAttributes::eCompression.
constexpr uint32_t kCompressionZlib = 0;  // each frame's pixels are one zlib stream
constexpr uint32_t kCompressionLossy = 1; // never written by this library; read as raw
constexpr uint32_t kCompressionNone = 2;  // raw pixel rows

struct SKvImageAttributes {
    uint32_t uiWidth = 0;
    uint32_t uiWidthBytes = 0;  // bytes of one pixel row, padding included
    uint32_t uiHeight = 0;
    uint32_t uiComp = 0;        // components per pixel
    uint8_t uiBpcInMemory = 0;  // bits per component as stored: 8, 16 or 32
    uint8_t uiBpcSignificant = 0;
    uint32_t ePixelType = 1;
    uint32_t uiSequenceCount = 0;  // frames
    uint32_t uiTileWidth = 0;
    uint32_t uiTileHeight = 0;
    uint32_t eCompression = kCompressionNone;
    double dCompressionParam = 0.0;  // zlib level for kCompressionZlib (see the output file)

    // Bytes of one frame: uiWidthBytes x uiHeight, in 64 bits.
    uint64_t FrameSize() const { return static_cast<uint64_t>(uiWidthBytes) * uiHeight; }
    // The five fields a frame cannot do without are non-zero.
    bool HasShape() const { return uiWidth && uiWidthBytes && uiHeight && uiComp && uiBpcInMemory; }
    bool operator==(const SKvImageAttributes& o) const;
    bool operator!=(const SKvImageAttributes& o) const { return !(*this == o); }

    // Lite form: level "SKvImageAttributes" with "uiWidth", "uiWidthBytes",
    // "uiHeight", "uiComp", "uiBpcInMemory", "uiBpcSignificant", "ePixelType",
    // "uiSequenceCount", "uiTileWidth", "uiTileHeight", "eCompression",
    // "dCompressionParam". Loading takes each key that is present and keeps
    // the caller's value otherwise, except "eCompression" (0 when absent)
    // and "ePixelType" (1 when absent). KV_ERR_FAILED when the level is missing.
    static kv_result SaveToLiteVariant(CKvLiteVariantW& writer, const SKvImageAttributes& attributes);
    static kv_result LoadFromLiteVariant(SKvImageAttributes& attributes, CKvLiteVariantR& reader);
    // Tree form: a list named "SKvImageAttributes" with the same keys and the
    // same loading rules; a tree whose own name differs is searched for a
    // member of that name. KV_ERR_FAILED when neither is found.
    static kv_result SaveToVariant(CKvVariant& node, const SKvImageAttributes& attributes);
    static kv_result LoadFromVariant(SKvImageAttributes& attributes, const CKvVariant& node);
};

// Number of text items a file stores ("TextInfoItem_0" .. "TextInfoItem_13").
constexpr uint32_t kTextInfoItemCount = 14;

struct SKvImageTextInfo {
    CKvStringW aItems[kTextInfoItemCount];  // the stored text items, in key order
    CKvStringW wsAppVersion;                // version text of the writing program; not stored with the items

    bool operator==(const SKvImageTextInfo& o) const;
    bool operator!=(const SKvImageTextInfo& o) const { return !(*this == o); }

    // Level (lite) or list (tree) "SKvImageTextInfo" with the fourteen item
    // keys; an absent key gives an empty text; a missing level is KV_ERR_FAILED.
    static kv_result SaveToLiteVariant(CKvLiteVariantW& writer, const SKvImageTextInfo& info);
    static kv_result LoadFromLiteVariant(SKvImageTextInfo& info, CKvLiteVariantR& reader);
    static kv_result SaveToVariant(CKvVariant& node, const SKvImageTextInfo& info);
    static kv_result LoadFromVariant(SKvImageTextInfo& info, const CKvVariant& node);
};

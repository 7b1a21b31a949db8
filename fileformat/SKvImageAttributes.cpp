#include "fileformat/SKvImageAttributes.h"

#include "gnr_metaformats/KvMetaIO.h"

namespace {

const wchar_t kAttributesLevel[] = L"SKvImageAttributes";
const wchar_t kTextInfoLevel[] = L"SKvImageTextInfo";

// The 8-bit fields are stored as 32-bit numbers; a stored value that does
// not fit keeps the field.
template <typename Visit>
struct SNarrow {
    Visit& visit;
    void operator()(const wchar_t* key, uint8_t& field) {
        uint32_t wide = field;
        visit(key, wide);
        if (wide <= UINT8_MAX) field = static_cast<uint8_t>(wide);
    }
    void operator()(const wchar_t* key, const uint8_t& field) { visit(key, static_cast<uint32_t>(field)); }
    template <typename T>
    void operator()(const wchar_t* key, T& field) {
        visit(key, field);
    }
};

// The keys in their stored order.
template <typename A, typename Visit>
void VisitAttributes(A& a, Visit& visit) {
    SNarrow<Visit> v{visit};
    v(L"uiWidth", a.uiWidth);
    v(L"uiWidthBytes", a.uiWidthBytes);
    v(L"uiHeight", a.uiHeight);
    v(L"uiComp", a.uiComp);
    v(L"uiBpcInMemory", a.uiBpcInMemory);
    v(L"uiBpcSignificant", a.uiBpcSignificant);
    v(L"ePixelType", a.ePixelType);
    v(L"uiSequenceCount", a.uiSequenceCount);
    v(L"uiTileWidth", a.uiTileWidth);
    v(L"uiTileHeight", a.uiTileHeight);
    v(L"eCompression", a.eCompression);
    v(L"dCompressionParam", a.dCompressionParam);
}

// Loading: every key falls back to the caller's value, except the two
// enumerations, which fall back to their defaults.
template <typename Visit>
void LoadAttributes(SKvImageAttributes& attributes, Visit& visit) {
    SKvImageAttributes loaded = attributes;
    loaded.eCompression = kCompressionZlib;
    loaded.ePixelType = 1;
    VisitAttributes(loaded, visit);
    attributes = loaded;
}

CKvStringW ItemKey(uint32_t i) {
    CKvStringW key;
    key.Format(L"TextInfoItem_%u", i);
    return key;
}

// A tree named `name`, or its member of that name.
const CKvVariant* FindRecord(const CKvVariant& node, const wchar_t* name) {
    if (node.GetCount() >= 0 && node.GetName() == CKvStringW(name)) return &node;
    const CKvVariant* member = KvMeta::Find(node, name);
    return member && member->GetCount() >= 0 ? member : nullptr;
}

}  // namespace

bool SKvImageAttributes::operator==(const SKvImageAttributes& o) const {
    return uiWidth == o.uiWidth && uiWidthBytes == o.uiWidthBytes && uiHeight == o.uiHeight && uiComp == o.uiComp &&
           uiBpcInMemory == o.uiBpcInMemory && uiBpcSignificant == o.uiBpcSignificant && ePixelType == o.ePixelType &&
           uiSequenceCount == o.uiSequenceCount && uiTileWidth == o.uiTileWidth && uiTileHeight == o.uiTileHeight &&
           eCompression == o.eCompression && dCompressionParam == o.dCompressionParam;
}

kv_result SKvImageAttributes::SaveToLiteVariant(CKvLiteVariantW& writer, const SKvImageAttributes& attributes) {
    KvMeta::CLvLevelWriter level(writer, kAttributesLevel);
    if (level.Result() != KV_OK) return KV_ERR_FAILED;
    KvMeta::CLiteSaver save{writer};
    VisitAttributes(attributes, save);
    const kv_result closed = level.Close();
    return save.result != KV_OK ? save.result : closed;
}

kv_result SKvImageAttributes::LoadFromLiteVariant(SKvImageAttributes& attributes, CKvLiteVariantR& reader) {
    KvMeta::CLvLevelReader level(reader, kAttributesLevel);
    if (!level.IsOpen()) return KV_ERR_FAILED;
    KvMeta::CLiteLoader load{reader};
    LoadAttributes(attributes, load);
    return KV_OK;
}

kv_result SKvImageAttributes::SaveToVariant(CKvVariant& node, const SKvImageAttributes& attributes) {
    return KvNoThrow([&] {
        CKvVariant built{CKvListVariant(), CKvStringW(kAttributesLevel)};
        KvMeta::CTreeSaver save{built};
        VisitAttributes(attributes, save);
        if (save.result == KV_OK) {
            node = built;
            node.SetName(CKvStringW(kAttributesLevel));
        }
        return save.result;
    });
}

kv_result SKvImageAttributes::LoadFromVariant(SKvImageAttributes& attributes, const CKvVariant& node) {
    const CKvVariant* record = FindRecord(node, kAttributesLevel);
    if (!record) return KV_ERR_FAILED;
    KvMeta::CTreeLoader load{*record};
    LoadAttributes(attributes, load);
    return KV_OK;
}

bool SKvImageTextInfo::operator==(const SKvImageTextInfo& o) const {
    for (uint32_t i = 0; i < kTextInfoItemCount; ++i)
        if (aItems[i] != o.aItems[i]) return false;
    return wsAppVersion == o.wsAppVersion;
}

kv_result SKvImageTextInfo::SaveToLiteVariant(CKvLiteVariantW& writer, const SKvImageTextInfo& info) {
    return KvNoThrow([&] {
        KvMeta::CLvLevelWriter level(writer, kTextInfoLevel);
        if (level.Result() != KV_OK) return KV_ERR_FAILED;
        KvMeta::CLiteSaver save{writer};
        for (uint32_t i = 0; i < kTextInfoItemCount; ++i) save(ItemKey(i).GetString(), info.aItems[i]);
        const kv_result closed = level.Close();
        return save.result != KV_OK ? save.result : closed;
    });
}

kv_result SKvImageTextInfo::LoadFromLiteVariant(SKvImageTextInfo& info, CKvLiteVariantR& reader) {
    return KvNoThrow([&] {
        KvMeta::CLvLevelReader level(reader, kTextInfoLevel);
        if (!level.IsOpen()) return KV_ERR_FAILED;
        SKvImageTextInfo loaded;
        loaded.wsAppVersion = info.wsAppVersion;
        for (uint32_t i = 0; i < kTextInfoItemCount; ++i) KvMeta::LvGet(reader, ItemKey(i).GetString(), loaded.aItems[i]);
        info = loaded;
        return KV_OK;
    });
}

kv_result SKvImageTextInfo::SaveToVariant(CKvVariant& node, const SKvImageTextInfo& info) {
    return KvNoThrow([&] {
        CKvVariant built{CKvListVariant(), CKvStringW(kTextInfoLevel)};
        KvMeta::CTreeSaver save{built};
        for (uint32_t i = 0; i < kTextInfoItemCount; ++i) save(ItemKey(i).GetString(), info.aItems[i]);
        if (save.result == KV_OK) {
            node = built;
            node.SetName(CKvStringW(kTextInfoLevel));
        }
        return save.result;
    });
}

kv_result SKvImageTextInfo::LoadFromVariant(SKvImageTextInfo& info, const CKvVariant& node) {
    const CKvVariant* record = FindRecord(node, kTextInfoLevel);
    if (!record) return KV_ERR_FAILED;
    return KvNoThrow([&] {
        SKvImageTextInfo loaded;
        loaded.wsAppVersion = info.wsAppVersion;
        for (uint32_t i = 0; i < kTextInfoItemCount; ++i) KvMeta::Get(*record, ItemKey(i).GetString(), loaded.aItems[i]);
        info = loaded;
        return KV_OK;
    });
}

// Loads a picture-metadata record from arbitrary bytes: as a lite variant
// when the first byte is even, as an XML document otherwise. Whatever loads
// must save in both encodings, and the lite encoding must be stable: saving
// what was loaded from our own bytes gives the same bytes again.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "gnr_metaformats/PictureMetadata.h"
#include "gnr_system/CKvAlloc.h"
#include "gnr_system/CKvSerializerXMLString.h"

namespace {

void Load(CKvLiteVariantR& r, const uint8_t* data, size_t size) {
    void* copy = size ? CKvAlloc::Alloc(0, size) : nullptr;
    if (copy) std::memcpy(copy, data, size);
    r.SetPointer(copy, copy ? size : 0, size);
}

CKvLiteVariantR Save(const SKvPictureMetadata& meta) {
    CKvLiteVariantW writer;
    CKvLiteVariantR out;
    if (SKvPictureMetadata::SaveToLiteVariant(writer, meta) != KV_OK) std::abort();
    if (writer.Finalize(out, 0) != KV_OK) std::abort();
    return out;
}

bool SameBytes(const CKvLiteVariantR& a, const CKvLiteVariantR& b) {
    return a.GetSize() == b.GetSize() && (a.GetSize() == 0 || std::memcmp(a.GetData(), b.GetData(), a.GetSize()) == 0);
}

// Saves, reloads and saves again: the second save must equal the first.
void CheckStable(const SKvPictureMetadata& meta) {
    CKvLiteVariantR first = Save(meta);
    SKvPictureMetadata again;
    if (SKvPictureMetadata::LoadFromLiteVariant(again, first) != KV_OK) std::abort();
    if (!SameBytes(first, Save(again))) std::abort();

    CKvVariant tree;
    if (SKvPictureMetadata::SaveToVariant(tree, meta) != KV_OK) std::abort();
    SKvPictureMetadata fromTree;
    if (SKvPictureMetadata::LoadFromVariant(fromTree, tree) != KV_OK) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    SKvPictureMetadata meta;
    kv_result loaded = KV_ERR_FAILED;
    if ((data[0] & 1) == 0) {
        CKvLiteVariantR reader;
        Load(reader, data + 1, size - 1);
        loaded = SKvPictureMetadata::LoadFromLiteVariant(meta, reader);
    } else {
        CKvVariant tree;
        if (CKvSerializerXMLString::VariantFromXML_UTF8(tree, reinterpret_cast<const char*>(data + 1),
                                                        static_cast<unsigned>(size - 1)) == KV_OK) {
            loaded = SKvPictureMetadata::LoadFromVariant(meta, tree);
        }
    }
    if (loaded == KV_OK) CheckStable(meta);
    return 0;
}

// Hands arbitrary bytes to the experiment reader; whatever loads must count
// its frames, convert indices to loop coordinates and back, copy, compare
// equal to its copy and save again.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "gnr_metaformats/ExperimentAPI.h"
#include "gnr_metaformats/PictureSequence.h"
#include "gnr_system/CKvAlloc.h"
#include "gnr_system/CKvLiteVariant.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CKvLiteVariantR reader;
    void* copy = size ? CKvAlloc::Alloc(0, size) : nullptr;
    if (copy) std::memcpy(copy, data, size);
    reader.SetPointer(copy, copy ? size : 0, size);
    SKvExperiment exp;
    if (SKvExperiment::LoadFromLiteVariant(exp, reader) != KV_OK) return 0;

    const uint32_t images = CKvExperimentAPI::GetAllImagesCount(&exp);
    uint32_t levels = 0;
    CKvExperimentAPI::CalcPosFromIdx(&exp, 0, nullptr, &levels);
    if (levels <= kExpMaxDepth * 2) {
        std::vector<uint32_t> pos(levels + 1);
        for (uint32_t index : {0u, 1u, images / 2, images - 1}) {
            if (index >= images) continue;
            uint32_t count = 0;
            if (CKvExperimentAPI::CalcPosFromIdx(&exp, index, pos.data(), &count) != KV_OK) continue;
            uint32_t back = 0;
            if (CKvExperimentAPI::CalcIdxFromPos(&exp, pos.data(), count, back) == KV_OK && back != index) std::abort();
        }
    }

    SKvExperiment dup;
    if (SKvExperiment::CopyRecursive(dup, exp) == KV_OK && !SKvExperiment::IsEqual(&exp, &dup, true, true))
        std::abort();
    CKvLiteVariantW writer;
    SKvExperiment::SaveToLiteVariant(writer, exp);
    CKvVariant tree;
    SKvExperiment::SaveToVariant(tree, exp);
    return 0;
}

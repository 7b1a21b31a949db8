// Hands arbitrary bytes to the experiment reader and to the event-log reader.
// Whatever experiment loads must count its frames, turn indices into loop
// coordinates and back to the same index, copy to an equal tree, save and
// load again to the same encoding, and repair to the frame count asked for.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "gnr_metaformats/ExperimentAPI.h"
#include "gnr_metaformats/ExperimentRecord.h"
#include "gnr_metaformats/PictureSequence.h"
#include "gnr_system/CKvAlloc.h"
#include "gnr_system/CKvLiteVariant.h"

namespace {

void Load(CKvLiteVariantR& r, const uint8_t* data, size_t size) {
    void* copy = size ? CKvAlloc::Alloc(0, size) : nullptr;
    if (copy) std::memcpy(copy, data, size);
    r.SetPointer(copy, copy ? size : 0, size);
}

std::vector<uint8_t> Encode(const SKvExperiment& exp) {
    CKvLiteVariantW writer;
    if (SKvExperiment::SaveToLiteVariant(writer, exp) != KV_OK) std::abort();
    CKvLiteVariantR out;
    if (writer.Finalize(out, 0) != KV_OK) std::abort();
    return std::vector<uint8_t>(out.GetData(), out.GetData() + out.GetSize());
}

void CheckCoordinates(const SKvExperiment& exp, uint32_t images) {
    uint32_t levels = 0;
    if (CKvExperimentAPI::CalcPosFromIdx(&exp, 0, nullptr, &levels) != KV_OK) return;
    std::vector<uint32_t> pos(levels + 1);
    // Up to 64 indices spread over the experiment, both ends included.
    const uint32_t step = std::max<uint32_t>(1, images / 64);
    for (uint64_t i = 0; i < images; i += step) {
        for (uint32_t index : {static_cast<uint32_t>(i), images - 1}) {
            uint32_t count = 0;
            if (CKvExperimentAPI::CalcPosFromIdx(&exp, index, pos.data(), &count) != KV_OK) continue;
            uint32_t back = 0;
            if (CKvExperimentAPI::CalcIdxFromPos(&exp, pos.data(), count, back) == KV_OK && back != index) std::abort();
        }
    }
    uint32_t count = 0;
    if (images < UINT32_MAX && CKvExperimentAPI::CalcPosFromIdx(&exp, images, pos.data(), &count) == KV_OK) std::abort();
}

kv_result CountItems(const SKvExperiment* exp, void* context, uint32_t) {
    *static_cast<uint64_t*>(context) += exp->uLoopPars.uiCount;
    return KV_OK;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CKvLiteVariantR recordReader;
    Load(recordReader, data, size);
    SKvExperimentRecord record;
    if (SKvExperimentRecord::LoadFromLiteVariant(record, recordReader) == KV_OK && record.GetCount()) {
        uint32_t at = 0;
        SKvExperimentRecord::GetNext(record, record[0].dTime, &at);
        SKvExperimentRecord::GetPrevious(record, record[record.GetCount() - 1].dTime, &at);
    }

    CKvLiteVariantR reader;
    Load(reader, data, size);
    SKvExperiment exp;
    if (SKvExperiment::LoadFromLiteVariant(exp, reader) != KV_OK) return 0;

    const uint32_t images = CKvExperimentAPI::GetAllImagesCount(&exp);
    CheckCoordinates(exp, images);
    if (images > 0 && images <= 4096) {
        std::vector<uint32_t> comps, frames;
        CKvExperimentAPI::GetCompIndexes(&exp, images - 1, 4, comps);
        CKvExperimentAPI::GetCompSeqIndexes(&exp, 3, 4, frames);
    }
    CKvExperimentAPI::HasSameLambdaChannels(&exp);
    uint32_t comps = 0;
    CKvExperimentAPI::GetSpectCompCount(&exp, comps);
    double z = 0;
    CKvExperimentAPI::GetZStackPositionForDisplay(&exp, 1, z);
    CKvExperimentAPI::GetZStackFirstMovePosition(&exp, z);

    SKvExperiment dup;
    if (SKvExperiment::CopyRecursive(dup, exp) == KV_OK) {
        if (!SKvExperiment::IsEqual(&exp, &dup, true, true)) std::abort();
        const uint32_t wanted = images / 2 + 1;
        if (CKvExperimentAPI::RepairExperiment(&dup, wanted) == KV_OK &&
            CKvExperimentAPI::GetAllImagesCount(&dup) != wanted)
            std::abort();
    }

    // Saving what loaded and loading it again is stable.
    const std::vector<uint8_t> first = Encode(exp);
    CKvLiteVariantR again;
    Load(again, first.data(), first.size());
    SKvExperiment reloaded;
    if (SKvExperiment::LoadFromLiteVariant(reloaded, again) != KV_OK || Encode(reloaded) != first) std::abort();
    // The tree form holds a node per item: only for trees of modest size.
    uint64_t items = 0;
    CKvExperimentAPI::WalkExperiment(&exp, CountItems, &items);
    if (items > 100000) return 0;
    CKvVariant tree;
    if (SKvExperiment::SaveToVariant(tree, exp) != KV_OK) return 0;
    SKvExperiment fromTree;
    if (SKvExperiment::LoadFromVariant(fromTree, tree) != KV_OK) std::abort();
    if (CKvExperimentAPI::GetAllImagesCount(&fromTree) != images) std::abort();
    return 0;
}

// Hands arbitrary bytes to the loaders of the event log, the recorded-data
// description and the device setup, searches what loaded by time and ID,
// and checks that saving it and loading it again gives the same encoding.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "gnr_metaformats/ExperimentRecord.h"
#include "gnr_system/CKvAlloc.h"

namespace {

void Load(CKvLiteVariantR& r, const uint8_t* data, size_t size) {
    void* copy = size ? CKvAlloc::Alloc(0, size) : nullptr;
    if (copy) std::memcpy(copy, data, size);
    r.SetPointer(copy, copy ? size : 0, size);
}

std::vector<uint8_t> Bytes(CKvLiteVariantW& writer) {
    CKvLiteVariantR out;
    if (writer.Finalize(out, 0) != KV_OK) std::abort();
    return std::vector<uint8_t>(out.GetData(), out.GetData() + out.GetSize());
}

std::vector<uint8_t> Encode(const SKvExperimentRecord& record) {
    CKvLiteVariantW writer;
    if (SKvExperimentRecord::SaveToLiteVariant(writer, record) != KV_OK) std::abort();
    return Bytes(writer);
}

template <typename Struct>
std::vector<uint8_t> EncodeInLevel(const Struct& value) {
    CKvLiteVariantW writer;
    if (writer.LevelBegin(L"level") != KV_OK || Struct::SaveToLiteVariant(writer, value) != KV_OK) std::abort();
    return Bytes(writer);
}

// What one encoding loads saves to the same encoding again.
template <typename Struct>
void CheckLevelRoundTrip(const Struct& value) {
    const std::vector<uint8_t> once = EncodeInLevel(value);
    CKvLiteVariantR reader;
    Load(reader, once.data(), once.size());
    Struct again;
    if (reader.CurrentLevelBegin() != KV_OK || Struct::LoadFromLiteVariant(again, reader) != KV_OK) std::abort();
    if (EncodeInLevel(again) != once) std::abort();
}

void Search(const SKvExperimentRecord& record) {
    const uint32_t count = record.GetCount();
    for (uint32_t i = 0; i < count && i < 64; ++i) {
        const SKvExperimentEvent& event = record[i];
        uint32_t index = 0;
        if (!SKvExperimentRecord::FindEvent(record, event.uiID, &index) || index >= count) std::abort();
        if (SKvExperimentRecord::FindFirst(record, event.dTime) >= count) std::abort();
        const int32_t next = SKvExperimentRecord::GetNext(record, event.dTime, &index);
        if (next >= 0 && (static_cast<uint32_t>(next) >= count || index != static_cast<uint32_t>(next))) std::abort();
        const int32_t previous = SKvExperimentRecord::GetPrevious(record, event.dTime);
        if (previous >= 0 && static_cast<uint32_t>(previous) >= count) std::abort();
        // Strictly earlier; a NaN time counts as earlier than any other.
        if (previous >= 0) {
            const double earlier = record[previous].dTime;
            if (std::isnan(event.dTime) || (!std::isnan(earlier) && !(earlier < event.dTime))) std::abort();
        }
    }
    if (count > 0 && SKvExperimentRecord::GetNext(record, INFINITY) != KV_ERR_FAILED) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CKvLiteVariantR reader;
    Load(reader, data, size);

    SKvExperimentRecord record;
    if (SKvExperimentRecord::LoadFromLiteVariant(record, reader) == KV_OK) {
        Search(record);
        const std::vector<uint8_t> once = Encode(record);
        CKvLiteVariantR again;
        Load(again, once.data(), once.size());
        SKvExperimentRecord reloaded;
        if (SKvExperimentRecord::LoadFromLiteVariant(reloaded, again) != KV_OK || Encode(reloaded) != once) {
            std::abort();
        }
        const uint32_t before = record.GetCount();
        SKvExperimentEvent event;
        SKvExperimentEvent::Init(event, 1.0, SKvExperimentEvent::eMeaningUserMark, L"fuzz", nullptr, 0);
        if (SKvExperimentRecord::AddEvent(record, event) != 0 && record.GetCount() != before + 1) std::abort();
        if (record.GetCount() > 0 && SKvExperimentRecord::RemoveEvent(record, 0) != KV_OK) std::abort();
        CKvVariant tree;
        SKvExperimentRecord::SaveToVariant(tree, record);
    }

    reader.Reset();
    if (reader.CurrentLevelBegin() == KV_OK) {
        SKvRecordedData recorded;
        if (SKvRecordedData::LoadFromLiteVariant(recorded, reader) != KV_OK) std::abort();
        CheckLevelRoundTrip(recorded);
        SKvExperimentNI ni;
        if (SKvExperimentNI::LoadFromLiteVariant(ni, reader) != KV_OK) std::abort();
        CheckLevelRoundTrip(ni);
    }
    return 0;
}

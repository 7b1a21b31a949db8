#include "gnr_metaformats/PicturePlanes.h"

#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "gnr_metaformats/KvMetaIO.h"
#include "gnr_system/KvTrace.h"

namespace {

constexpr char kRunTypePlanes[] = "RKvPicturePlanes";
constexpr char kRunTypeDescV1[] = "RKvPicturePlaneDesc";
constexpr char kRunTypeDescV1_1[] = "RKvPicturePlaneDescV1_1";
constexpr char kRunTypeDescV1_2[] = "RKvPicturePlaneDescV1_2";
constexpr wchar_t kDescRunTypesText[] =
    L"'RKvPicturePlaneDesc', 'RKvPicturePlaneDescV1_1' or 'RKvPicturePlaneDescV1_2'";

constexpr uint32_t kWhite = 0xFFFFFF;
constexpr uint64_t kModalityMarker5 = 0x10000;
constexpr uint64_t kModalityKind10 = 0x400000;
constexpr uint64_t kModalityKind11 = 0x800000;
constexpr uint64_t kModalityDetectorB = 0x400;
constexpr uint64_t kModalityDetectorC = 0x800;
constexpr uint64_t kModalityDetectorD = 0x1000;
constexpr uint64_t kModalityDetectorUnused = 0x2000;
constexpr uint64_t kModalityDetectorsButCamera = kModalityDetectorField & ~kModalityCamera;

// Mask of each value of the old modality enumeration, by value.
constexpr uint64_t kModalityMasks[] = {
    0x101, 0x102, 0x201, 0x401, 0x801, 0x10201, 0x11, 0x21, 0x200201, 0x800201, 0x400201, 0x800201,
};
constexpr uint32_t kModalityCount = sizeof(kModalityMasks) / sizeof(kModalityMasks[0]);

// Colours given to rebuilt fluorescence planes, in the 0x00BBGGRR layout of
// display colours: the usual order of channels in a multi-label picture.
constexpr uint32_t kChannelPalette[] = {0x0000FF, 0x00FF00, 0xFF0000, 0xFFFF00, 0xFF00FF, 0x00FFFF};
constexpr uint32_t kChannelPaletteSize = sizeof(kChannelPalette) / sizeof(kChannelPalette[0]);
// Beyond this many components a rebuilt set describes them as one plane: no
// acquisition has that many channels, so the count comes from a damaged file.
constexpr uint32_t kMaxChannelPlanes = 1024;

CKvStringW ElementName(uint32_t index) {
    CKvStringW name;
    name.Format(L"a%i", static_cast<int>(index));
    return name;
}

// Sample-setting slots live in malloc'ed memory so that a failed allocation
// answers null instead of throwing.
uint8_t* AllocSettings(uint32_t count) {
    return count ? static_cast<uint8_t*>(std::calloc(count, 1)) : nullptr;
}

bool IsSelected(const CKvRangeMask* mask, uint32_t index) { return !mask || mask->IsSet(index); }

void RepairMask(SKvPicturePlaneDesc& desc) {
    if (!SKvPicturePlaneDesc::IsModalityMaskValid(desc.uiModalityMask)) {
        desc.uiModalityMask = SKvPicturePlaneDesc::RepairedModalityMask(desc.uiCompCount);
    }
}

// ---- Tree helpers

// Fills `node` as a structure of `runType`: members are appended while it is
// still a plain list (appending to a structured list makes it plain again)
// and the run type is set by Finish. Remembers whether memory ran out.
class CTreeOut {
public:
    CTreeOut(CKvVariant& node, const char* runType) : m_node(node), m_runType(runType) {
        KvMeta::BeginStruct(node, CKvVariantDataCKvListVariant::m_runTypeOrig);
    }
    template <typename T>
    void Put(const wchar_t* key, const T& value) {
        if (!KvMeta::Put(m_node, key, value)) m_result = KV_ERR_OUT_OF_MEMORY;
    }
    // An empty plain list; null (and the failure noted) out of memory.
    CKvVariant* List(const wchar_t* key) {
        CKvVariant* list = KvMeta::PutList(m_node, key);
        if (!list) m_result = KV_ERR_OUT_OF_MEMORY;
        return list;
    }
    template <typename Saver>
    void Sub(const wchar_t* key, Saver&& save) {
        CKvVariant* sub = List(key);
        if (sub && save(*sub) != KV_OK) KV_TRACE_FAILURE();
    }
    kv_result Finish() {
        m_node.GetData()->SetRunType(CKvVariantRunType(m_runType));
        return m_result;
    }

private:
    CKvVariant& m_node;
    const char* m_runType;
    kv_result m_result = KV_OK;
};

void SaveProbeAndPath(CTreeOut& out, const SKvPicturePlaneDesc& desc) {
    out.Sub(L"pFluorescentProbe", [&](CKvVariant& sub) { return desc.pFluorescentProbe.SaveToVariant(sub); });
    out.Sub(L"pFilterPath", [&](CKvVariant& sub) { return desc.pFilterPath.SaveToVariant(sub); });
}

// The members every stored version shares: components, probe, path, lamp,
// fading correction, colour and name.
void LoadCommon(SKvPicturePlaneDesc& desc, const CKvVariant& node) {
    KvMeta::Get(node, L"uiCompCount", desc.uiCompCount);
    if (const CKvVariant* probe = KvMeta::Find(node, L"pFluorescentProbe")) {
        if (desc.pFluorescentProbe.LoadFromVariant(*probe) != KV_OK) KV_TRACE_FAILURE();
    }
    if (const CKvVariant* path = KvMeta::Find(node, L"pFilterPath")) {
        if (desc.pFilterPath.LoadFromVariant(*path) != KV_OK) KV_TRACE_FAILURE();
    }
    KvMeta::Get(node, L"dLampVoltage", desc.dLampVoltage);
    KvMeta::Get(node, L"dFadingCorr", desc.dFadingCorr);
    KvMeta::Get(node, L"uiColor", desc.uiColor);
    KvMeta::Get(node, L"sDescription", desc.sDescription);
}

void LoadOldModality(SKvPicturePlaneDesc& desc, const CKvVariant& node) {
    uint32_t modality = 0;
    if (KvMeta::Get(node, L"eModality", modality)) {
        desc.uiModalityMask = SKvPicturePlaneDesc::TranslateModalityToMask(modality);
    }
}

void LoadObjectiveFields(SKvPicturePlaneDesc& desc, const CKvVariant& node) {
    KvMeta::Get(node, L"dObjCalibration1to1", desc.dObjCalibration1to1);
    KvMeta::Get(node, L"sizeObjFullChip.cx", desc.sizeObjFullChipCx);
    KvMeta::Get(node, L"sizeObjFullChip.cy", desc.sizeObjFullChipCy);
}

// ---- Lite helpers

// Writes items and keeps the first failure; later items are skipped.
class CLiteOut {
public:
    explicit CLiteOut(CKvLiteVariantW& writer) : m_writer(writer) {}
    template <typename T>
    void Set(const wchar_t* key, const T& value) {
        if (m_result == KV_OK) m_result = m_writer.Set(value, key);
    }
    // A level filled by `save`; a failing fill is traced and writing goes on.
    template <typename Saver>
    void Level(const wchar_t* key, Saver&& save) {
        if (m_result != KV_OK) return;
        KvMeta::CLvLevelWriter level(m_writer, key);
        m_result = level.Result();
        if (m_result != KV_OK) return;
        if (save() != KV_OK) KV_TRACE_FAILURE();
        m_result = level.Close();
    }
    kv_result Result() const { return m_result; }
    void Reset() { m_result = KV_OK; }

private:
    CKvLiteVariantW& m_writer;
    kv_result m_result = KV_OK;
};

void SaveLiteProbeAndPath(CLiteOut& out, CKvLiteVariantW& writer, const SKvPicturePlaneDesc& desc) {
    out.Level(L"pFluorescentProbe", [&] { return desc.pFluorescentProbe.SaveToVariantNew(writer); });
    out.Level(L"pFilterPath", [&] { return desc.pFilterPath.SaveToLiteVariant(writer); });
}

// Loads the planes from the list level `listName`. `opened` tells whether the
// level exists; `array` receives the descriptors (null when the level's count
// disagrees with `count` or both are 0).
kv_result LoadLitePlaneList(CKvLiteVariantR& reader, const wchar_t* listName, uint32_t count, bool& opened,
                            SKvPicturePlaneDesc*& array) {
    array = nullptr;
    KvMeta::CLvLevelReader level(reader, listName);
    opened = level.IsOpen();
    if (!opened || level.Count() != count || count == 0) return KV_OK;
    const kv_result result = SKvPicturePlaneDesc::AllocArray(array, count);
    if (result != KV_OK) return result;
    for (uint32_t i = 0; i < count; ++i) {
        if (KvMeta::LvEnterElement(reader, ElementName(i).GetString())) {
            if (SKvPicturePlaneDesc::LoadFromLiteVariant(array[i], reader) != KV_OK) KV_TRACE_FAILURE();
            reader.LevelEnd();
        } else {
            KV_TRACE_FAILURE();
        }
        reader.NextValue();
    }
    return KV_OK;
}

// One plane taken into a new set: the set it comes from and its index there.
struct SPlanePick {
    const SKvPicturePlanes* set;
    uint32_t index;
};

// Settings slots a set needs so that every plane has the one at its sample index.
uint32_t NeededSlots(const SKvPicturePlanes& planes) {
    uint32_t slots = 0;
    for (uint32_t i = 0; i < planes.uiCount; ++i) {
        const uint32_t index = planes.pPlanes[i].uiSampleIndex;
        if (index >= slots) slots = index == UINT32_MAX ? UINT32_MAX : index + 1;
    }
    return slots;
}

// Sample indices that follow each other; answers the total of components.
uint64_t RenumberSamples(SKvPicturePlanes& planes) {
    uint64_t sample = 0;
    for (uint32_t i = 0; i < planes.uiCount; ++i) {
        planes.pPlanes[i].uiSampleIndex = static_cast<uint32_t>(sample);
        sample += planes.pPlanes[i].uiCompCount;
    }
    return sample;
}

// Makes sure `planes` has at least `count` settings slots, keeping the old ones.
kv_result GrowSettings(SKvPicturePlanes& planes, uint32_t count) {
    if (planes.uiSampleCount >= count) return KV_OK;
    uint8_t* grown = AllocSettings(count);
    if (!grown) return KV_ERR_OUT_OF_MEMORY;
    if (planes.pSampleSettings) std::memcpy(grown, planes.pSampleSettings, planes.uiSampleCount);
    std::free(planes.pSampleSettings);
    planes.pSampleSettings = grown;
    planes.uiSampleCount = count;
    return KV_OK;
}

// Fills the empty set `out` with copies of the picked planes: sample indices
// follow each other, the whole pixel has the sum of the components, and each
// plane keeps the settings slot it had where it came from.
kv_result BuildFromPicks(SKvPicturePlanes& out, const std::vector<SPlanePick>& picks) {
    uint64_t components = 0;
    for (const SPlanePick& pick : picks) components += pick.set->pPlanes[pick.index].uiCompCount;
    if (components > UINT32_MAX) return KV_ERR_INVALID_ARG;
    const uint32_t count = static_cast<uint32_t>(picks.size());
    kv_result result = SKvPicturePlanes::Alloc(out, count, 0);
    if (result != KV_OK) return result;
    result = KvNoThrow([&] {
        for (uint32_t i = 0; i < count; ++i) out.pPlanes[i] = picks[i].set->pPlanes[picks[i].index];
        return KV_OK;
    });
    if (result != KV_OK) return result;
    out.uiCompCount = static_cast<uint32_t>(RenumberSamples(out));
    result = GrowSettings(out, NeededSlots(out));
    if (result != KV_OK) return result;
    for (uint32_t i = 0; i < count; ++i) {
        if (const uint8_t* slot = picks[i].set->GetPlaneSettings(picks[i].index)) *out.GetPlaneSettings(i) = *slot;
    }
    return KV_OK;
}

kv_result MakeFluorescenceChannels(SKvPicturePlanes& planes, uint32_t componentCount) {
    SKvPicturePlanes built;
    kv_result result = SKvPicturePlanes::Alloc(built, componentCount, componentCount);
    if (result != KV_OK) return result;
    result = KvNoThrow([&] {
        for (uint32_t i = 0; i < componentCount; ++i) {
            SKvPicturePlaneDesc& plane = built.pPlanes[i];
            plane.uiSampleIndex = i;
            plane.uiColor = kChannelPalette[i % kChannelPaletteSize];
            plane.sDescription.Format(L"Channel %u", i + 1);
        }
        return KV_OK;
    });
    if (result != KV_OK) return result;
    built.uiCompCount = componentCount;
    SKvPicturePlanes::Swap(planes, built);
    return KV_OK;
}

kv_result MakeSinglePlane(SKvPicturePlanes& planes, uint32_t components, uint64_t mask, const wchar_t* name) {
    SKvPicturePlanes built;
    const kv_result result = SKvPicturePlanes::Alloc(built, 1, 1);
    if (result != KV_OK) return result;
    SKvPicturePlaneDesc& plane = built.pPlanes[0];
    plane.uiCompCount = components;
    plane.uiModalityMask = mask;
    plane.uiColor = kWhite;
    plane.sDescription = name;
    built.uiCompCount = components;
    SKvPicturePlanes::Swap(planes, built);
    return KV_OK;
}

// A tree read from a lite variant keeps, inside a member that is a non-empty
// structure in the sample, only what that structure knows. The probe and path
// vary in shape (any number of filters and points), so the samples hold them
// as empty structures, which take over whatever was read.
void EmptyProbeAndPath(CKvVariant& sample) {
    for (const wchar_t* key : {L"pFluorescentProbe", L"pFilterPath"}) {
        if (CKvVariant* member = sample.SearchFixedOneLevel(key)) member->ClearList();
    }
}

// Run types restored to trees read from XML and lite variants.
struct SRegisterSamples {
    SRegisterSamples() {
        KvNoThrow([] {
            CKvVariant sample;
            SKvPicturePlanes planes;
            SKvPicturePlanes::SaveToVariant(sample, planes);
            KvMeta::RegisterSample(kRunTypePlanes, sample);

            const SKvPicturePlaneDesc desc;
            CKvVariant first;
            CTreeOut out(first, kRunTypeDescV1);
            out.Put(L"uiCompCount", desc.uiCompCount);
            out.Put(L"eModality", SKvPicturePlaneDesc::TranslateMaskToModality(desc.uiModalityMask));
            SaveProbeAndPath(out, desc);
            out.Put(L"dLampVoltage", desc.dLampVoltage);
            out.Put(L"dFadingCorr", desc.dFadingCorr);
            out.Put(L"uiColor", desc.uiColor);
            out.Put(L"sDescription", desc.sDescription);
            out.Finish();
            EmptyProbeAndPath(first);
            KvMeta::RegisterSample(kRunTypeDescV1, first);

            CKvVariant old;
            if (SKvPicturePlanes::Alloc(planes, 1, 0) == KV_OK &&
                SKvPicturePlaneDesc::SaveToVariantOld(old, planes, 0) == KV_OK) {
                EmptyProbeAndPath(old);
                KvMeta::RegisterSample(kRunTypeDescV1_1, old);
            }
            CKvVariant current;
            if (SKvPicturePlaneDesc::SaveToVariant(current, desc) == KV_OK) {
                EmptyProbeAndPath(current);
                KvMeta::RegisterSample(kRunTypeDescV1_2, current);
            }
            return KV_OK;
        });
    }
};
const SRegisterSamples s_registerSamples;

}  // namespace

// ======================================================================
// SKvPicturePlaneDesc

bool SKvPicturePlaneDesc::IsModalityChangeAllowed() const {
    return uiModalityMask == 0x1 || uiModalityMask == 0x2 || uiModalityMask == 0x101 || uiModalityMask == 0x102;
}

uint64_t SKvPicturePlaneDesc::TranslateModalityToMask(uint32_t modality) {
    return modality < kModalityCount ? kModalityMasks[modality] : kModalityMasks[eModFluorescence];
}

uint32_t SKvPicturePlaneDesc::TranslateMaskToModality(uint64_t mask) {
    if (mask & kModalityMarker5) return eModMultiPhoton;
    if (mask & kModalitySpectral) return eModSpectral;
    if (mask & kModalityKind10) return eModKind10;
    if (mask & kModalityKind11) return eModKind11;
    if (mask & kModalityDetectorB) return eModConfocalB;
    if (mask & (kModalityDetectorC | kModalityDetectorD)) return eModConfocalC;
    if (mask & kModalityDetectorsButCamera) return eModConfocal;
    if (mask & kModalityContrastA) return eModContrastA;
    if (mask & kModalityContrastB) return eModContrastB;
    return (mask & kModalityBrightfield) ? eModBrightfield : eModFluorescence;
}

bool SKvPicturePlaneDesc::IsModalityMaskValid(uint64_t mask) {
    const uint64_t light = mask & (kModalityFluorescence | kModalityBrightfield);
    if (light != kModalityFluorescence && light != kModalityBrightfield) return false;
    if ((mask & kModalityContrastA) && (mask & kModalityContrastB)) return false;
    // Each field holds at most one bit: zero, or a single power of two. The
    // top bit of the detector field names no detector.
    const uint64_t detector = mask & kModalityDetectorField;
    if ((detector & (detector - 1)) || detector == kModalityDetectorUnused) return false;
    const uint64_t kind = mask & kModalityKindField;
    return (kind & (kind - 1)) == 0;
}

uint64_t SKvPicturePlaneDesc::RepairedModalityMask(uint32_t componentCount) {
    return componentCount == 3 ? kModalityBrightfield : kModalityFluorescence;
}

kv_result SKvPicturePlaneDesc::AllocArray(SKvPicturePlaneDesc*& array, uint32_t count) {
    array = nullptr;
    if (count == 0) return KV_OK;
    return KvNoThrow([&] {
        array = new SKvPicturePlaneDesc[count];
        return KV_OK;
    });
}

void SKvPicturePlaneDesc::FreeArray(SKvPicturePlaneDesc*& array) {
    delete[] array;
    array = nullptr;
}

void SKvPicturePlaneDesc::CopyArray(SKvPicturePlaneDesc* dst, const SKvPicturePlaneDesc* src, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) Copy(dst[i], src[i]);
}

kv_result SKvPicturePlaneDesc::SaveToVariant(CKvVariant& node, const SKvPicturePlaneDesc& desc) {
    CTreeOut out(node, kRunTypeDescV1_2);
    out.Put(L"uiCompCount", desc.uiCompCount);
    out.Put(L"uiSampleIndex", desc.uiSampleIndex);
    out.Put(L"uiModalityMask", desc.uiModalityMask);
    SaveProbeAndPath(out, desc);
    out.Put(L"dLampVoltage", desc.dLampVoltage);
    out.Put(L"dFadingCorr", desc.dFadingCorr);
    out.Put(L"uiColor", desc.uiColor);
    out.Put(L"sDescription", desc.sDescription);
    out.Put(L"dAcqTime", desc.dAcqTime);
    out.Put(L"dPinholeDiameter", desc.dPinholeDiameter);
    out.Put(L"iChannelSeriesIndex", desc.iChannelSeriesIndex);
    out.Put(L"dObjCalibration1to1", desc.dObjCalibration1to1);
    out.Put(L"sizeObjFullChip.cx", desc.sizeObjFullChipCx);
    out.Put(L"sizeObjFullChip.cy", desc.sizeObjFullChipCy);
    return out.Finish();
}

kv_result SKvPicturePlaneDesc::SaveToVariantOld(CKvVariant& node, const SKvPicturePlanes& planes, uint32_t index) {
    if (index >= planes.uiCount) return KV_ERR_FAILED;
    const SKvPicturePlaneDesc& desc = planes.pPlanes[index];
    CTreeOut out(node, kRunTypeDescV1_1);
    out.Put(L"uiCompCount", desc.uiCompCount);
    out.Put(L"sOpticalConfigName", SKvPicturePlanes::GetPlaneOCName(planes, index));
    out.Put(L"eModality", TranslateMaskToModality(desc.uiModalityMask));
    SaveProbeAndPath(out, desc);
    if (index == 0 && planes.GetPlaneSettings(0)) out.List(L"sCameraSetting");
    out.Put(L"dLampVoltage", desc.dLampVoltage);
    out.Put(L"dFadingCorr", desc.dFadingCorr);
    out.Put(L"uiColor", desc.uiColor);
    out.Put(L"sDescription", desc.sDescription);
    out.Put(L"dAcqTime", desc.dAcqTime);
    out.Put(L"dObjCalibration1to1", desc.dObjCalibration1to1);
    out.Put(L"sizeObjFullChip.cx", desc.sizeObjFullChipCx);
    out.Put(L"sizeObjFullChip.cy", desc.sizeObjFullChipCy);
    return out.Finish();
}

kv_result SKvPicturePlaneDesc::LoadFromVariant(SKvPicturePlaneDesc& desc, const CKvVariant& node) {
    const CKvVariantRunType runType = node.GetRunType();
    if (runType == CKvVariantRunType(kRunTypeDescV1_2)) {
        LoadCommon(desc, node);
        KvMeta::Get(node, L"uiSampleIndex", desc.uiSampleIndex);
        KvMeta::Get(node, L"uiModalityMask", desc.uiModalityMask);
        KvMeta::Get(node, L"dAcqTime", desc.dAcqTime);
        KvMeta::Get(node, L"dPinholeDiameter", desc.dPinholeDiameter);
        KvMeta::Get(node, L"iChannelSeriesIndex", desc.iChannelSeriesIndex);
        LoadObjectiveFields(desc, node);
        RepairMask(desc);
        return KV_OK;
    }
    if (runType == CKvVariantRunType(kRunTypeDescV1_1)) {
        LoadCommon(desc, node);
        LoadOldModality(desc, node);
        RepairMask(desc);
        KvMeta::Get(node, L"dAcqTime", desc.dAcqTime);
        LoadObjectiveFields(desc, node);
        desc.dPinholeDiameter = -1.0;
        desc.iChannelSeriesIndex = -1;
        desc.uiSampleIndex = 0;
        return KV_OK;
    }
    if (runType == CKvVariantRunType(kRunTypeDescV1)) {
        // Every mask of the old enumeration is valid, so this version needs no repair.
        LoadCommon(desc, node);
        LoadOldModality(desc, node);
        desc.iChannelSeriesIndex = -1;
        desc.dAcqTime = -1.0;
        desc.dPinholeDiameter = -1.0;
        desc.uiSampleIndex = 0;
        return KV_OK;
    }
    return KvMeta::ReportWrongRunType(node, kDescRunTypesText);
}

kv_result SKvPicturePlaneDesc::SaveToLiteVariant(CKvLiteVariantW& writer, const SKvPicturePlaneDesc& desc) {
    CLiteOut out(writer);
    out.Set(L"uiCompCount", desc.uiCompCount);
    out.Set(L"uiSampleIndex", desc.uiSampleIndex);
    out.Set(L"uiModalityMask", desc.uiModalityMask);
    SaveLiteProbeAndPath(out, writer, desc);
    out.Set(L"dLampVoltage", desc.dLampVoltage);
    out.Set(L"dFadingCorr", desc.dFadingCorr);
    out.Set(L"uiColor", desc.uiColor);
    out.Set(L"sDescription", desc.sDescription);
    out.Set(L"dAcqTime", desc.dAcqTime);
    out.Set(L"dPinholeDiameter", desc.dPinholeDiameter);
    out.Set(L"iChannelSeriesIndex", desc.iChannelSeriesIndex);
    out.Set(L"dObjCalibration1to1", desc.dObjCalibration1to1);
    out.Set(L"sizeObjFullChip.cx", desc.sizeObjFullChipCx);
    out.Set(L"sizeObjFullChip.cy", desc.sizeObjFullChipCy);
    return out.Result();
}

kv_result SKvPicturePlaneDesc::SaveToLiteVariantOld(CKvLiteVariantW& writer, const SKvPicturePlanes& planes,
                                                    uint32_t index) {
    if (index >= planes.uiCount) return KV_ERR_FAILED;
    const SKvPicturePlaneDesc& desc = planes.pPlanes[index];
    CLiteOut out(writer);
    out.Set(L"uiCompCount", desc.uiCompCount);
    out.Set(L"sOpticalConfigName", SKvPicturePlanes::GetPlaneOCName(planes, index));
    out.Set(L"eModality", TranslateMaskToModality(desc.uiModalityMask));
    SaveLiteProbeAndPath(out, writer, desc);
    if (index == 0 && planes.GetPlaneSettings(0)) out.Level(L"sCameraSetting", [] { return KV_OK; });
    out.Set(L"dLampVoltage", desc.dLampVoltage);
    out.Set(L"dFadingCorr", desc.dFadingCorr);
    out.Set(L"uiColor", desc.uiColor);
    out.Set(L"sDescription", desc.sDescription);
    out.Set(L"dAcqTime", desc.dAcqTime);
    out.Set(L"dObjCalibration1to1", desc.dObjCalibration1to1);
    out.Set(L"sizeObjFullChip.cx", desc.sizeObjFullChipCx);
    out.Set(L"sizeObjFullChip.cy", desc.sizeObjFullChipCy);
    return out.Result();
}

kv_result SKvPicturePlaneDesc::LoadFromLiteVariant(SKvPicturePlaneDesc& desc, CKvLiteVariantR& reader) {
    desc.uiCompCount = reader.Get(L"uiCompCount", uint32_t{0});
    desc.uiSampleIndex = reader.Get(L"uiSampleIndex", uint32_t{0});
    if (reader.IsValueSet(L"eModality")) {
        desc.uiModalityMask = TranslateModalityToMask(reader.Get(L"eModality", uint32_t{eModFluorescence}));
    } else {
        desc.uiModalityMask = reader.Get(L"uiModalityMask", kModalityFluorescence);
    }
    RepairMask(desc);
    {
        KvMeta::CLvLevelReader probe(reader, L"pFluorescentProbe");
        if (probe.IsOpen() && desc.pFluorescentProbe.LoadFromVariantNew(reader) != KV_OK) KV_TRACE_FAILURE();
    }
    {
        KvMeta::CLvLevelReader path(reader, L"pFilterPath");
        if (path.IsOpen() && desc.pFilterPath.LoadFromLiteVariant(reader) != KV_OK) KV_TRACE_FAILURE();
    }
    desc.dLampVoltage = reader.Get(L"dLampVoltage", 0.0);
    desc.dFadingCorr = reader.Get(L"dFadingCorr", 0.0);
    desc.uiColor = reader.Get(L"uiColor", kWhite);
    desc.sDescription.Empty();
    KvMeta::LvGet(reader, L"sDescription", desc.sDescription);
    desc.dAcqTime = reader.Get(L"dAcqTime", 0.0);
    desc.dPinholeDiameter = reader.Get(L"dPinholeDiameter", -1.0);
    desc.iChannelSeriesIndex = reader.Get(L"iChannelSeriesIndex", int32_t{-1});
    desc.dObjCalibration1to1 = reader.Get(L"dObjCalibration1to1", 0.0);
    desc.sizeObjFullChipCx = reader.Get(L"sizeObjFullChip.cx", int32_t{0});
    desc.sizeObjFullChipCy = reader.Get(L"sizeObjFullChip.cy", int32_t{0});
    return KV_OK;
}

// ======================================================================
// SKvPicturePlanes: memory

SKvPicturePlanes::SKvPicturePlanes(const SKvPicturePlanes& other) { Copy(*this, other); }

SKvPicturePlanes& SKvPicturePlanes::operator=(const SKvPicturePlanes& other) {
    Copy(*this, other);
    return *this;
}

SKvPicturePlanes::~SKvPicturePlanes() { Free(*this); }

kv_result SKvPicturePlanes::Alloc(SKvPicturePlanes& planes, uint32_t planeCount, uint32_t sampleCount) {
    Free(planes);
    SKvPicturePlaneDesc* array = nullptr;
    kv_result result = SKvPicturePlaneDesc::AllocArray(array, planeCount);
    if (result != KV_OK) return result;
    uint8_t* settings = AllocSettings(sampleCount);
    if (sampleCount && !settings) {
        SKvPicturePlaneDesc::FreeArray(array);
        return KV_ERR_OUT_OF_MEMORY;
    }
    planes.pPlanes = array;
    planes.uiCount = planeCount;
    planes.pSampleSettings = settings;
    planes.uiSampleCount = sampleCount;
    return KV_OK;
}

void SKvPicturePlanes::Free(SKvPicturePlanes& planes) {
    SKvPicturePlaneDesc::FreeArray(planes.pPlanes);
    std::free(planes.pSampleSettings);
    planes.pSampleSettings = nullptr;
    planes.uiCount = 0;
    planes.uiCompCount = 0;
    planes.uiSampleCount = 0;
}

kv_result SKvPicturePlanes::Copy(SKvPicturePlanes& dst, const SKvPicturePlanes& src) {
    if (&dst == &src) return KV_OK;
    SKvPicturePlanes copy;
    kv_result result = Alloc(copy, src.uiCount, src.uiSampleCount);
    if (result != KV_OK) return result;
    result = KvNoThrow([&] {
        SKvPicturePlaneDesc::CopyArray(copy.pPlanes, src.pPlanes, src.uiCount);
        copy.sDescription = src.sDescription;
        return KV_OK;
    });
    if (result != KV_OK) return result;
    if (src.uiSampleCount) std::memcpy(copy.pSampleSettings, src.pSampleSettings, src.uiSampleCount);
    copy.uiCompCount = src.uiCompCount;
    copy.eRepresentation = src.eRepresentation;
    SKvPicturePlanes::Swap(dst, copy);
    return KV_OK;
}

const uint8_t* SKvPicturePlanes::GetPlaneSettings(uint32_t index) const {
    if (index >= uiCount || !pSampleSettings) return nullptr;
    const uint32_t sample = pPlanes[index].uiSampleIndex;
    return sample < uiSampleCount ? pSampleSettings + sample : nullptr;
}

uint8_t* SKvPicturePlanes::GetPlaneSettings(uint32_t index) {
    return const_cast<uint8_t*>(static_cast<const SKvPicturePlanes&>(*this).GetPlaneSettings(index));
}

CKvStringW SKvPicturePlanes::GetPlaneOCName(const SKvPicturePlanes&, uint32_t) { return CKvStringW(); }

CKvStringW SKvPicturePlanes::GetPlaneCameraUserName(const SKvPicturePlanes&, uint32_t) { return CKvStringW(); }

// ======================================================================
// SKvPicturePlanes: questions and conversions

bool SKvPicturePlanes::IsSpectral() const {
    if (IsHDR() || uiCount == 0) return false;
    bool anySpectral = false;
    for (uint32_t i = 0; i < uiCount; ++i) {
        const SKvPicturePlaneDesc& plane = pPlanes[i];
        if (!plane.IsSpectral() && !plane.IsTD()) return false;
        anySpectral = anySpectral || plane.IsSpectral();
    }
    return anySpectral;
}

kv_result SKvPicturePlanes::ConvertToSpectral() {
    for (uint32_t i = 0; i < uiCount; ++i) {
        SKvPicturePlaneDesc& plane = pPlanes[i];
        if (plane.IsSpectral()) continue;
        if (plane.IsBrightfield()) {
            if (plane.uiCompCount > 1) return KV_ERR_FAILED;
            continue;
        }
        plane.uiModalityMask = (plane.uiModalityMask & ~kModalityKindField) | kModalitySpectral;
    }
    eRepresentation = 0;
    return KV_OK;
}

bool SKvPicturePlanes::IsCompatible(const SKvPicturePlanes& a, const SKvPicturePlanes& b) {
    if (a.uiCount != b.uiCount) return false;
    for (uint32_t i = 0; i < a.uiCount; ++i) {
        if (a.pPlanes[i].uiCompCount != b.pPlanes[i].uiCompCount) return false;
    }
    return true;
}

bool SKvPicturePlanes::IsEqual(const SKvPicturePlanes& a, const SKvPicturePlanes& b) {
    if (a.uiCount == 0 || a.uiCount != b.uiCount) return false;
    for (uint32_t i = 0; i < a.uiCount; ++i) {
        if (!IsPlaneEqual(a, i, b, i)) return false;
    }
    return true;
}

bool SKvPicturePlanes::IsPlaneEqual(const SKvPicturePlanes& a, uint32_t indexA, const SKvPicturePlanes& b,
                                    uint32_t indexB) {
    if (!a.GetPlaneSettings(indexA) || !b.GetPlaneSettings(indexB)) return false;
    const SKvPicturePlaneDesc& pa = a.pPlanes[indexA];
    const SKvPicturePlaneDesc& pb = b.pPlanes[indexB];
    return pa.uiCompCount == pb.uiCompCount && pa.uiModalityMask == pb.uiModalityMask && pa.uiColor == pb.uiColor &&
           pa.sDescription == pb.sDescription;
}

uint32_t SKvPicturePlanes::GetNonTransmittedPlanesCount(const SKvPicturePlanes& planes, const CKvRangeMask* mask) {
    uint32_t count = 0;
    for (uint32_t i = 0; i < planes.uiCount; ++i) {
        if (IsSelected(mask, i) && !planes.pPlanes[i].IsBrightfield()) ++count;
    }
    return count;
}

uint32_t SKvPicturePlanes::GetNonTransmittedChannelCount(const SKvPicturePlanes& planes, const CKvRangeMask* mask) {
    return GetNonTransmittedPlanesCount(planes, mask);
}

uint32_t SKvPicturePlanes::GetPlaneColors(const SKvPicturePlanes& planes, uint32_t* colours, const CKvRangeMask* mask,
                                          uint32_t flag, const uint32_t* lut) {
    if (!colours) return 0;
    uint32_t written = 0;
    for (uint32_t i = 0; i < planes.uiCount; ++i) {
        if (!IsSelected(mask, i)) continue;
        const SKvPicturePlaneDesc& plane = planes.pPlanes[i];
        uint32_t colour = plane.uiColor;
        if (lut) {
            colour = lut[i];
        } else if ((flag & kPlaneColorsFromProbe) && plane.pFluorescentProbe.IsValid()) {
            colour = plane.pFluorescentProbe.GetColor();
        }
        if ((flag & kPlaneColorsWhiteTD) && plane.IsTD()) colour = kWhite;
        colours[written++] = colour & kWhite;
    }
    return written;
}

uint32_t SKvPicturePlanes::MaskedSampleCount(const SKvPicturePlanes& planes, const CKvRangeMask& mask) {
    uint32_t count = 0;
    for (uint32_t index : mask) {
        if (index >= planes.uiCount) break;
        count += planes.pPlanes[index].uiCompCount;
    }
    return count;
}

kv_result SKvPicturePlanes::MakeMono(SKvPicturePlanes& planes) {
    return MakeSinglePlane(planes, 1, kModalityFluorescence, L"Mono");
}

kv_result SKvPicturePlanes::MakeRGB(SKvPicturePlanes& planes) {
    return MakeSinglePlane(planes, 3, kModalityBrightfield, L"Brightfield");
}

kv_result SKvPicturePlanes::MakeCompatible(SKvPicturePlanes& planes, uint32_t componentCount) {
    if (componentCount == 0) {
        Free(planes);
        return KV_OK;
    }
    bool anyEmpty = false;
    uint64_t components = 0;
    for (uint32_t i = 0; i < planes.uiCount; ++i) {
        components += planes.pPlanes[i].uiCompCount;
        anyEmpty = anyEmpty || planes.pPlanes[i].uiCompCount == 0;
    }
    const bool keep = planes.uiCount > 0 && components == componentCount && !anyEmpty;
    if (!keep && planes.uiCount == componentCount) {
        for (uint32_t i = 0; i < planes.uiCount; ++i) {
            SKvPicturePlaneDesc& plane = planes.pPlanes[i];
            plane.uiCompCount = 1;
            RepairMask(plane);
        }
    } else if (!keep) {
        if (componentCount == 1) return MakeMono(planes);
        if (componentCount == 3) return MakeRGB(planes);
        if (componentCount > kMaxChannelPlanes) {
            return MakeSinglePlane(planes, componentCount, kModalityFluorescence, L"Channels");
        }
        return MakeFluorescenceChannels(planes, componentCount);
    }
    RenumberSamples(planes);
    planes.uiCompCount = componentCount;
    return GrowSettings(planes, NeededSlots(planes));
}

kv_result SKvPicturePlanes::MergePlanes(SKvPicturePlanes& dst, const SKvPicturePlanes& src) {
    CKvRangeMask all;
    if (src.uiCount && all.AddRange(0, src.uiCount - 1) != KV_OK) return KV_ERR_OUT_OF_MEMORY;
    return MergePlanes(dst, src, all);
}

kv_result SKvPicturePlanes::MergePlanes(SKvPicturePlanes& dst, const SKvPicturePlanes& src, const CKvRangeMask& mask) {
    SKvPicturePlanes merged;
    kv_result result = KvNoThrow([&] {
        std::vector<SPlanePick> picks;
        picks.reserve(dst.uiCount + mask.CountBelow(src.uiCount));
        for (uint32_t i = 0; i < dst.uiCount; ++i) picks.push_back({&dst, i});
        for (uint32_t index : mask) {
            if (index >= src.uiCount) break;
            picks.push_back({&src, index});
        }
        kv_result built = BuildFromPicks(merged, picks);
        if (built == KV_OK) {
            const SKvPicturePlanes& named = dst.uiCount ? dst : src;
            merged.sDescription = named.sDescription;
            merged.eRepresentation = named.eRepresentation;
        }
        return built;
    });
    if (result != KV_OK) return result;
    SKvPicturePlanes::Swap(dst, merged);
    return KV_OK;
}

kv_result SKvPicturePlanes::ExtractPlanes(SKvPicturePlanes& dst, const SKvPicturePlanes& src, const CKvRangeMask& mask,
                                          uint32_t flag) {
    SKvPicturePlanes extracted;
    kv_result result = KvNoThrow([&] {
        std::vector<SPlanePick> picks;
        picks.reserve(mask.CountBelow(src.uiCount));
        for (uint32_t index : mask) {
            if (index >= src.uiCount) break;
            picks.push_back({&src, index});
        }
        kv_result built = BuildFromPicks(extracted, picks);
        if (built == KV_OK) {
            extracted.sDescription = src.sDescription;
            extracted.eRepresentation = src.eRepresentation;
        }
        return built;
    });
    if (result != KV_OK) return result;
    if (flag & kExtractPlanesWhite) {
        for (uint32_t i = 0; i < extracted.uiCount; ++i) extracted.pPlanes[i].uiColor = kWhite;
    }
    SKvPicturePlanes::Swap(dst, extracted);
    return KV_OK;
}

// ======================================================================
// SKvPicturePlanes: serialisation

kv_result SKvPicturePlanes::SaveToVariant(CKvVariant& node, const SKvPicturePlanes& planes) {
    CTreeOut out(node, kRunTypePlanes);
    out.Put(L"uiCount", planes.uiCount);
    out.Put(L"uiCompCount", planes.uiCompCount);
    if (CKvVariant* list = out.List(L"sPlane")) {
        for (uint32_t i = 0; i < planes.uiCount; ++i) {
            CKvVariant* element = KvMeta::PutList(*list, ElementName(i).GetString());
            if (!element || SKvPicturePlaneDesc::SaveToVariantOld(*element, planes, i) != KV_OK) KV_TRACE_FAILURE();
        }
    }
    if (CKvVariant* list = out.List(L"sPlaneNew")) {
        for (uint32_t i = 0; i < planes.uiCount; ++i) {
            CKvVariant* element = KvMeta::PutList(*list, ElementName(i).GetString());
            if (!element || SKvPicturePlaneDesc::SaveToVariant(*element, planes.pPlanes[i]) != KV_OK) {
                KV_TRACE_FAILURE();
            }
        }
    }
    out.Put(L"uiSampleCount", planes.uiSampleCount);
    if (CKvVariant* list = out.List(L"sSampleSetting")) {
        for (uint32_t i = 0; i < planes.uiSampleCount; ++i) {
            if (!KvMeta::PutList(*list, ElementName(i).GetString())) KV_TRACE_FAILURE();
        }
    }
    out.Put(L"sDescription", planes.sDescription);
    out.Put(L"eRepresentation", planes.eRepresentation);
    return out.Finish();
}

kv_result SKvPicturePlanes::LoadFromVariant(SKvPicturePlanes& planes, const CKvVariant& node) {
    kv_result result = KvMeta::CheckRunType(node, kRunTypePlanes);
    if (result != KV_OK) return result;
    uint32_t compCount = planes.uiCompCount;
    uint32_t count = planes.uiCount;
    KvMeta::Get(node, L"uiCompCount", compCount);
    KvMeta::Get(node, L"uiCount", count);

    // Older writers filled only "sPlane"; take whichever list holds more.
    const CKvVariant* oldList = KvMeta::Find(node, L"sPlane");
    const CKvVariant* newList = KvMeta::Find(node, L"sPlaneNew");
    const int oldLength = oldList ? oldList->GetCount() : -1;
    const int newLength = newList ? newList->GetCount() : -1;
    const CKvVariant* list = oldLength > newLength ? oldList : newList;
    const int length = list ? list->GetCount() : 0;

    SKvPicturePlanes loaded;
    if (length > 0 && static_cast<uint32_t>(length) == count) {
        result = SKvPicturePlaneDesc::AllocArray(loaded.pPlanes, count);
        if (result != KV_OK) return result;
        loaded.uiCount = count;
        loaded.uiCompCount = compCount;
        for (uint32_t i = 0; i < count; ++i) {
            const CKvVariant* element =
                KvMeta::ElementByNameOrPosition(*list, ElementName(i).GetString(), static_cast<int>(i));
            if (!element || SKvPicturePlaneDesc::LoadFromVariant(loaded.pPlanes[i], *element) != KV_OK) {
                KV_TRACE_FAILURE();
            }
        }
    } else if (length == 0 && count == 0) {
        loaded.uiCompCount = compCount;
    }
    // The sample settings are not stored with content, so none are read back.
    loaded.sDescription = planes.sDescription;
    loaded.eRepresentation = planes.eRepresentation;
    KvMeta::Get(node, L"sDescription", loaded.sDescription);
    KvMeta::Get(node, L"eRepresentation", loaded.eRepresentation);
    SKvPicturePlanes::Swap(planes, loaded);
    return KV_OK;
}

kv_result SKvPicturePlanes::SaveToLiteVariant(CKvLiteVariantW& writer, const SKvPicturePlanes& planes) {
    CLiteOut out(writer);
    out.Set(L"uiCount", planes.uiCount);
    out.Set(L"uiCompCount", planes.uiCompCount);
    out.Level(L"sPlaneNew", [&] {
        kv_result result = KV_OK;
        for (uint32_t i = 0; i < planes.uiCount && result == KV_OK; ++i) {
            KvMeta::CLvLevelWriter element(writer, ElementName(i).GetString());
            result = element.Result();
            if (result == KV_OK && SKvPicturePlaneDesc::SaveToLiteVariant(writer, planes.pPlanes[i]) != KV_OK) {
                KV_TRACE_FAILURE();
            }
        }
        return result;
    });
    out.Level(L"sPlane", [&] {
        kv_result result = KV_OK;
        for (uint32_t i = 0; i < planes.uiCount && result == KV_OK; ++i) {
            KvMeta::CLvLevelWriter element(writer, ElementName(i).GetString());
            result = element.Result();
            if (result == KV_OK && SKvPicturePlaneDesc::SaveToLiteVariantOld(writer, planes, i) != KV_OK) {
                KV_TRACE_FAILURE();
            }
        }
        return result;
    });
    out.Set(L"uiSampleCount", planes.uiSampleCount);
    out.Level(L"sSampleSetting", [&] {
        kv_result result = KV_OK;
        for (uint32_t i = 0; i < planes.uiSampleCount && result == KV_OK; ++i) {
            KvMeta::CLvLevelWriter element(writer, ElementName(i).GetString());
            result = element.Result();
        }
        return result;
    });
    // The description and representation are written even when the settings level failed.
    const kv_result before = out.Result();
    out.Reset();
    out.Set(L"sDescription", planes.sDescription);
    out.Set(L"eRepresentation", planes.eRepresentation);
    return before != KV_OK ? before : out.Result();
}

kv_result SKvPicturePlanes::LoadFromLiteVariant(SKvPicturePlanes& planes, CKvLiteVariantR& reader) {
    const uint32_t compCount = reader.Get(L"uiCompCount", planes.uiCompCount);
    const uint32_t count = reader.Get(L"uiCount", planes.uiCount);
    bool opened = false;
    SKvPicturePlaneDesc* array = nullptr;
    kv_result result = LoadLitePlaneList(reader, L"sPlaneNew", count, opened, array);
    if (result == KV_OK && !opened) result = LoadLitePlaneList(reader, L"sPlane", count, opened, array);
    if (result != KV_OK) return result;
    if (opened) {
        Free(planes);
        if (array) {
            planes.pPlanes = array;
            planes.uiCount = count;
            planes.uiCompCount = compCount;
        }
    }
    KvMeta::LvGet(reader, L"sDescription", planes.sDescription);
    planes.eRepresentation = reader.Get(L"eRepresentation", planes.eRepresentation);
    return KV_OK;
}

void SKvPicturePlanes::Swap(SKvPicturePlanes& a, SKvPicturePlanes& b) noexcept {
    std::swap(a.uiCount, b.uiCount);
    std::swap(a.uiCompCount, b.uiCompCount);
    std::swap(a.pPlanes, b.pPlanes);
    std::swap(a.uiSampleCount, b.uiSampleCount);
    std::swap(a.pSampleSettings, b.pSampleSettings);
    a.sDescription.Std().swap(b.sDescription.Std());
    std::swap(a.eRepresentation, b.eRepresentation);
}

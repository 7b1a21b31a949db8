#include "gnr_metaformats/PictureMetadata.h"

#include <cmath>
#include <ctime>
#include <limits>
#include <new>
#include <utility>

#include "gnr_metaformats/KvMetaIO.h"
#include "gnr_system/KvTrace.h"

namespace {

const char kRunType[] = "RKvPictureMetadata";
// Run type of one physical-variable element, spelled as stored by every writer.
const char kPhysicalVarRunType[] = "RKvPictureMetadata.RKvPictureMetadata";
const wchar_t kLiteLevel[] = L"SKvPictureMetadata";
const wchar_t kPlanesKey[] = L"sPicturePlanes";
const wchar_t kPhysicalVarsKey[] = L"pPhysicalVar";
const wchar_t kPhysicalVarCountKey[] = L"uiPhysicalVarCount";
const wchar_t kAbsoluteTimeKey[] = L"dTimeAbsolute";
// Older writers kept one pinhole radius for the whole picture.
const wchar_t kPinholeRadiusKey[] = L"dPinholeRadius";
// The column is "uiCol" in the tree but "uiCon20(L" in the lite form; both
// spellings are what existing files hold.
const wchar_t kColumnTreeKey[] = L"uiCol";
const wchar_t kColumnLiteKey[] = L"uiCon20(L";

// Sets every plane's pinhole diameter from an old per-picture radius.
void ApplyPinholeRadius(SKvPicturePlanes& planes, double radius) {
    if (!(radius > 0.0)) return;
    for (uint32_t i = 0; i < planes.uiCount; ++i) planes.pPlanes[i].dPinholeDiameter = 2.0 * radius;
}

// Everything but the planes and the physical variables, which own memory.
void CopyPlainFields(SKvPictureMetadata& dst, const SKvPictureMetadata& src) {
    dst.dTimeAbsolute = src.dTimeAbsolute;
    dst.dTimeMSec = src.dTimeMSec;
    dst.dXPos = src.dXPos;
    dst.dYPos = src.dYPos;
    dst.uiRow = src.uiRow;
    dst.uiCol = src.uiCol;
    dst.dZPos = src.dZPos;
    dst.bZPosAbsolute = src.bZPosAbsolute;
    dst.dAngle = src.dAngle;
    dst.dTemperK = src.dTemperK;
    dst.dCalibration = src.dCalibration;
    dst.dAspect = src.dAspect;
    dst.bCalibrated = src.bCalibrated;
    dst.wsObjectiveName = src.wsObjectiveName;
    dst.dObjectiveMag = src.dObjectiveMag;
    dst.dObjectiveNA = src.dObjectiveNA;
    dst.dRefractIndex1 = src.dRefractIndex1;
    dst.dRefractIndex2 = src.dRefractIndex2;
    dst.dZoom = src.dZoom;
    dst.dProjectiveMag = src.dProjectiveMag;
    dst.wsCustomData = src.wsCustomData;
    dst.ePictureXAxis = src.ePictureXAxis;
    dst.ePictureYAxis = src.ePictureYAxis;
    dst.dTimeAxisCalibration = src.dTimeAxisCalibration;
    dst.dZAxisCalibration = src.dZAxisCalibration;
    dst.dStgLgCT11 = src.dStgLgCT11;
    dst.dStgLgCT21 = src.dStgLgCT21;
    dst.dStgLgCT12 = src.dStgLgCT12;
    dst.dStgLgCT22 = src.dStgLgCT22;
}

// A stored absolute time that is no number stands for none (see the samples below).
void KeepAbsoluteTimeIfAbsent(SKvPictureMetadata& loaded, const SKvPictureMetadata& before) {
    if (std::isnan(loaded.dTimeAbsolute)) loaded.dTimeAbsolute = before.dTimeAbsolute;
}

CKvStringW ElementName(uint32_t index) {
    CKvStringW name;
    name.Format(L"a%u", index);
    return name;
}

kv_result AllocPhysicalVariables(SKvPhysicalVariable*& array, uint32_t count) {
    array = nullptr;
    if (count == 0) return KV_OK;
    array = new (std::nothrow) SKvPhysicalVariable[count];
    return array ? KV_OK : KV_ERR_OUT_OF_MEMORY;
}

// ---- The fields in stored order, shared by the tree and the lite form. Each
// visitor gets the key and the field; the planes and the physical variables
// are handled by the callers between the two halves.

template <typename Meta, typename Visit>
void VisitHead(Meta& m, const wchar_t* columnKey, Visit&& visit) {
    visit(L"dTimeMSec", m.dTimeMSec);
    visit(kAbsoluteTimeKey, m.dTimeAbsolute);
    visit(L"dXPos", m.dXPos);
    visit(L"dYPos", m.dYPos);
    visit(L"uiRow", m.uiRow);
    visit(columnKey, m.uiCol);
    visit(L"dZPos", m.dZPos);
    visit(L"bZPosAbsolute", m.bZPosAbsolute);
    visit(L"dAngle", m.dAngle);
}

template <typename Meta, typename Visit>
void VisitObjective(Meta& m, Visit&& visit) {
    visit(L"dTemperK", m.dTemperK);
    visit(L"dCalibration", m.dCalibration);
    visit(L"dAspect", m.dAspect);
    visit(L"bCalibrated", m.bCalibrated);
    visit(L"wsObjectiveName", m.wsObjectiveName);
    visit(L"dObjectiveMag", m.dObjectiveMag);
    visit(L"dObjectiveNA", m.dObjectiveNA);
    visit(L"dRefractIndex1", m.dRefractIndex1);
    visit(L"dRefractIndex2", m.dRefractIndex2);
    visit(L"dZoom", m.dZoom);
    visit(L"dProjectiveMag", m.dProjectiveMag);
}

template <typename Meta, typename Visit>
void VisitTail(Meta& m, Visit&& visit) {
    visit(L"wsCustomData", m.wsCustomData);
    visit(L"ePictureXAxis", m.ePictureXAxis);
    visit(L"ePictureYAxis", m.ePictureYAxis);
    visit(L"dTimeAxisCalibration", m.dTimeAxisCalibration);
    visit(L"dZAxisCalibration", m.dZAxisCalibration);
    visit(L"dStgLgCT11", m.dStgLgCT11);
    visit(L"dStgLgCT12", m.dStgLgCT12);
    visit(L"dStgLgCT21", m.dStgLgCT21);
    visit(L"dStgLgCT22", m.dStgLgCT22);
}

template <typename Variable, typename Visit>
void VisitPhysicalVariable(Variable& v, Visit&& visit) {
    visit(L"wsName", v.wsName);
    visit(L"uiIntepretation", v.uiIntepretation);
    visit(L"dValue", v.dValue);
}

using TreePut = KvMeta::CTreeSaver;
using TreeGet = KvMeta::CTreeLoader;
using LitePut = KvMeta::CLiteSaver;
using LiteGet = KvMeta::CLiteLoader;

// ---- Physical variables

kv_result SavePhysicalVariablesToTree(CKvVariant& node, const SKvPictureMetadata& meta) {
    CKvVariant* list = KvMeta::PutList(node, kPhysicalVarsKey);
    if (!list) return KV_ERR_OUT_OF_MEMORY;
    for (uint32_t i = 0; i < meta.uiPhysicalVarCount; ++i) {
        CKvVariant* element = KvMeta::PutList(*list, ElementName(i).GetString());
        if (!element) return KV_ERR_OUT_OF_MEMORY;
        KvMeta::BeginStruct(*element, kPhysicalVarRunType);
        TreePut put{*element};
        VisitPhysicalVariable(meta.pPhysicalVar[i], put);
        if (put.result != KV_OK) return put.result;
    }
    return KV_OK;
}

// Replaces the variables when the count key is present; never allocates more
// entries than the list holds.
kv_result LoadPhysicalVariablesFromTree(SKvPictureMetadata& meta, const CKvVariant& node) {
    uint32_t declared = 0;
    if (!KvMeta::Get(node, kPhysicalVarCountKey, declared)) return KV_OK;
    const CKvVariant* list = KvMeta::Find(node, kPhysicalVarsKey);
    const uint32_t present = list && list->GetCount() > 0 ? static_cast<uint32_t>(list->GetCount()) : 0;
    const uint32_t count = present < declared ? present : declared;
    SKvPhysicalVariable* array = nullptr;
    const kv_result result = AllocPhysicalVariables(array, count);
    if (result != KV_OK) return result;
    for (uint32_t i = 0; i < count; ++i) {
        const CKvVariant* element = KvMeta::ElementByNameOrPosition(*list, ElementName(i).GetString(), static_cast<int>(i));
        if (element) VisitPhysicalVariable(array[i], TreeGet{*element});
    }
    delete[] meta.pPhysicalVar;
    meta.pPhysicalVar = array;
    meta.uiPhysicalVarCount = count;
    return KV_OK;
}

kv_result SavePhysicalVariablesToLite(CKvLiteVariantW& writer, const SKvPictureMetadata& meta) {
    KvMeta::CLvLevelWriter level(writer, kPhysicalVarsKey);
    if (level.Result() != KV_OK) return level.Result();
    kv_result result = KV_OK;
    for (uint32_t i = 0; i < meta.uiPhysicalVarCount && result == KV_OK; ++i) {
        KvMeta::CLvLevelWriter element(writer, ElementName(i).GetString());
        LitePut put{writer};
        VisitPhysicalVariable(meta.pPhysicalVar[i], put);
        result = element.Result() != KV_OK ? element.Result() : put.result;
        if (result == KV_OK) result = element.Close();
    }
    const kv_result closed = level.Close();
    return result != KV_OK ? result : closed;
}

kv_result LoadPhysicalVariablesFromLite(SKvPictureMetadata& meta, CKvLiteVariantR& reader) {
    if (!reader.IsValueSet(kPhysicalVarCountKey)) return KV_OK;
    const uint32_t declared = reader.Get(kPhysicalVarCountKey, uint32_t{0});
    KvMeta::CLvLevelReader level(reader, kPhysicalVarsKey);
    const uint32_t count = level.IsOpen() ? (level.Count() < declared ? level.Count() : declared) : 0;
    SKvPhysicalVariable* array = nullptr;
    const kv_result result = AllocPhysicalVariables(array, count);
    if (result != KV_OK) return result;
    for (uint32_t i = 0; i < count; ++i) {
        if (!KvMeta::LvEnterElement(reader, ElementName(i).GetString())) break;
        VisitPhysicalVariable(array[i], LiteGet{reader});
        reader.LevelEnd();
        reader.NextValue();
    }
    delete[] meta.pPhysicalVar;
    meta.pPhysicalVar = array;
    meta.uiPhysicalVarCount = count;
    return KV_OK;
}

// ---- Run-type samples, so that trees read back from XML and lite variants
// get their run types again. A tree read back takes the sample's value for a
// member it lacks; the sample's absolute time is NaN, which the loader takes
// as absent, so a tree from a writer that never stored it keeps the caller's.
const bool s_samplesRegistered = [] {
    KvNoThrow([] {
        SKvPictureMetadata meta;
        meta.dTimeAbsolute = std::numeric_limits<double>::quiet_NaN();
        CKvVariant sample;
        if (SKvPictureMetadata::SaveToVariant(sample, meta) != KV_OK) return KV_ERR_FAILED;
        KvMeta::RegisterSample(kRunType, sample);

        CKvVariant variable;
        KvMeta::BeginStruct(variable, kPhysicalVarRunType);
        SKvPhysicalVariable empty;
        VisitPhysicalVariable(empty, TreePut{variable});
        KvMeta::RegisterSample(kPhysicalVarRunType, variable);
        return KV_OK;
    });
    return true;
}();

}  // namespace

// ---- Construction and copies

SKvPictureMetadata::SKvPictureMetadata(const SKvPictureMetadata& other) {
    SetToDefault();
    // A constructor has no result code: out of memory leaves the defaults.
    Copy(*this, other);
}

SKvPictureMetadata& SKvPictureMetadata::operator=(const SKvPictureMetadata& other) {
    Copy(*this, other);
    return *this;
}

SKvPictureMetadata::~SKvPictureMetadata() { FreePhysicalVariables(); }

void SKvPictureMetadata::FreePhysicalVariables() {
    delete[] pPhysicalVar;
    pPhysicalVar = nullptr;
    uiPhysicalVarCount = 0;
}

void swap(SKvPictureMetadata& a, SKvPictureMetadata& b) noexcept {
    using std::swap;
    swap(a.dTimeAbsolute, b.dTimeAbsolute);
    swap(a.dTimeMSec, b.dTimeMSec);
    swap(a.dXPos, b.dXPos);
    swap(a.dYPos, b.dYPos);
    swap(a.uiRow, b.uiRow);
    swap(a.uiCol, b.uiCol);
    swap(a.dZPos, b.dZPos);
    swap(a.bZPosAbsolute, b.bZPosAbsolute);
    swap(a.dAngle, b.dAngle);
    SKvPicturePlanes::Swap(a.sPicturePlanes, b.sPicturePlanes);
    swap(a.dTemperK, b.dTemperK);
    swap(a.dCalibration, b.dCalibration);
    swap(a.dAspect, b.dAspect);
    swap(a.bCalibrated, b.bCalibrated);
    a.wsObjectiveName.Std().swap(b.wsObjectiveName.Std());
    swap(a.dObjectiveMag, b.dObjectiveMag);
    swap(a.dObjectiveNA, b.dObjectiveNA);
    swap(a.dRefractIndex1, b.dRefractIndex1);
    swap(a.dRefractIndex2, b.dRefractIndex2);
    swap(a.dZoom, b.dZoom);
    swap(a.dProjectiveMag, b.dProjectiveMag);
    swap(a.uiPhysicalVarCount, b.uiPhysicalVarCount);
    swap(a.pPhysicalVar, b.pPhysicalVar);
    a.wsCustomData.Std().swap(b.wsCustomData.Std());
    swap(a.ePictureXAxis, b.ePictureXAxis);
    swap(a.ePictureYAxis, b.ePictureYAxis);
    swap(a.dTimeAxisCalibration, b.dTimeAxisCalibration);
    swap(a.dZAxisCalibration, b.dZAxisCalibration);
    swap(a.dStgLgCT11, b.dStgLgCT11);
    swap(a.dStgLgCT21, b.dStgLgCT21);
    swap(a.dStgLgCT12, b.dStgLgCT12);
    swap(a.dStgLgCT22, b.dStgLgCT22);
}

void SKvPictureMetadata::SetToDefault() {
    dTimeAbsolute = static_cast<double>(std::time(nullptr)) * 1000.0;
    dTimeMSec = 0.0;
    dXPos = dYPos = 0.0;
    uiRow = uiCol = 0;
    dZPos = 0.0;
    bZPosAbsolute = false;
    dAngle = 0.0;
    SKvPicturePlanes::Free(sPicturePlanes);
    dTemperK = kDefaultTemperatureK;
    dCalibration = -1.0;
    dAspect = -1.0;
    bCalibrated = false;
    wsObjectiveName.Empty();
    dObjectiveMag = dObjectiveNA = -1.0;
    dRefractIndex1 = dRefractIndex2 = -1.0;
    dZoom = dProjectiveMag = -1.0;
    FreePhysicalVariables();
    wsCustomData.Empty();
    ePictureXAxis = kPictureAxisX;
    ePictureYAxis = kPictureAxisY;
    dTimeAxisCalibration = -1.0;
    dZAxisCalibration = -1.0;
    dStgLgCT11 = 1.0;
    dStgLgCT21 = 0.0;
    dStgLgCT12 = 0.0;
    dStgLgCT22 = 1.0;
}

kv_result SKvPictureMetadata::SetPhysicalVariables(SKvPictureMetadata& meta, const SKvPhysicalVariable* variables,
                                                   uint32_t count) {
    if (count > 0 && !variables) return KV_ERR_INVALID_ARG;
    SKvPhysicalVariable* array = nullptr;
    kv_result result = AllocPhysicalVariables(array, count);
    if (result != KV_OK) return result;
    result = KvNoThrow([&] {
        for (uint32_t i = 0; i < count; ++i) array[i] = variables[i];
        return KV_OK;
    });
    if (result != KV_OK) {
        delete[] array;
        return result;
    }
    delete[] meta.pPhysicalVar;
    meta.pPhysicalVar = array;
    meta.uiPhysicalVarCount = count;
    return KV_OK;
}

kv_result SKvPictureMetadata::Copy(SKvPictureMetadata& dst, const SKvPictureMetadata& src) {
    if (&dst == &src) return KV_OK;
    return KvNoThrow([&] {
        // Build the whole copy aside, so that a failure leaves `dst` as it was.
        SKvPictureMetadata staged;
        kv_result result = SKvPicturePlanes::Copy(staged.sPicturePlanes, src.sPicturePlanes);
        if (result == KV_OK) result = SetPhysicalVariables(staged, src.pPhysicalVar, src.uiPhysicalVarCount);
        if (result != KV_OK) return result;
        CopyPlainFields(staged, src);
        swap(dst, staged);
        return KV_OK;
    });
}

kv_result SKvPictureMetadata::SetCalibration(SKvPictureMetadata& meta, double calibration, double aspect,
                                             const wchar_t* objectiveName, double magA, double magB,
                                             double projectiveMag, double zoom) {
    return KvNoThrow([&] {
        meta.dProjectiveMag = projectiveMag != 0.0 ? projectiveMag : 1.0;
        meta.dZoom = zoom != 0.0 ? zoom : 1.0;
        meta.bCalibrated = calibration != 0.0;
        const double a = magA > 0.0 ? magA : 1.0;
        const double b = magB > 0.0 ? magB : 1.0;
        meta.dCalibration = calibration * a / (meta.dZoom * meta.dProjectiveMag);
        meta.dAspect = (b / a) * aspect;
        meta.wsObjectiveName = objectiveName ? objectiveName : L"";
        if (!meta.bCalibrated) {
            meta.ePictureXAxis = kPictureAxisX;
            meta.ePictureYAxis = kPictureAxisY;
            meta.dTimeAxisCalibration = -1.0;
            meta.dZAxisCalibration = -1.0;
        }
        return KV_OK;
    });
}

// ---- Tree form

kv_result SKvPictureMetadata::SaveToVariant(CKvVariant& node, const SKvPictureMetadata& meta) {
    return KvNoThrow([&] {
        KvMeta::BeginStruct(node, kRunType);
        TreePut put{node};
        VisitHead(meta, kColumnTreeKey, put);
        CKvVariant* planes = KvMeta::PutList(node, kPlanesKey);
        if (!planes) return KV_ERR_OUT_OF_MEMORY;
        if (SKvPicturePlanes::SaveToVariant(*planes, meta.sPicturePlanes) != KV_OK) KV_TRACE_FAILURE();
        VisitObjective(meta, put);
        put(kPhysicalVarCountKey, meta.uiPhysicalVarCount);
        kv_result result = SavePhysicalVariablesToTree(node, meta);
        if (result != KV_OK) return result;
        VisitTail(meta, put);
        return put.result;
    });
}

kv_result SKvPictureMetadata::LoadFromVariant(SKvPictureMetadata& meta, const CKvVariant& node) {
    const kv_result checked = KvMeta::CheckRunType(node, kRunType);
    if (checked != KV_OK) return checked;
    return KvNoThrow([&] {
        // Read into a copy so that a failure leaves the caller's record as it was.
        SKvPictureMetadata loaded;
        kv_result result = Copy(loaded, meta);
        if (result != KV_OK) return result;
        TreeGet get{node};
        VisitHead(loaded, kColumnTreeKey, get);
        KeepAbsoluteTimeIfAbsent(loaded, meta);
        if (const CKvVariant* planes = KvMeta::Find(node, kPlanesKey)) {
            if (SKvPicturePlanes::LoadFromVariant(loaded.sPicturePlanes, *planes) != KV_OK) KV_TRACE_FAILURE();
        }
        VisitObjective(loaded, get);
        double radius = -1.0;
        if (KvMeta::Get(node, kPinholeRadiusKey, radius)) ApplyPinholeRadius(loaded.sPicturePlanes, radius);
        result = LoadPhysicalVariablesFromTree(loaded, node);
        if (result != KV_OK) return result;
        VisitTail(loaded, get);
        swap(meta, loaded);
        return KV_OK;
    });
}

// ---- Lite form

kv_result SKvPictureMetadata::SaveToLiteVariant(CKvLiteVariantW& writer, const SKvPictureMetadata& meta) {
    return KvNoThrow([&] {
        KvMeta::CLvLevelWriter level(writer, kLiteLevel);
        if (level.Result() != KV_OK) return level.Result();
        LitePut put{writer};
        VisitHead(meta, kColumnLiteKey, put);
        {
            KvMeta::CLvLevelWriter planes(writer, kPlanesKey);
            if (planes.Result() != KV_OK) return planes.Result();
            if (SKvPicturePlanes::SaveToLiteVariant(writer, meta.sPicturePlanes) != KV_OK) KV_TRACE_FAILURE();
            const kv_result closed = planes.Close();
            if (closed != KV_OK) return closed;
        }
        VisitObjective(meta, put);
        put(kPhysicalVarCountKey, meta.uiPhysicalVarCount);
        const kv_result variables = SavePhysicalVariablesToLite(writer, meta);
        if (variables != KV_OK) return variables;
        VisitTail(meta, put);
        if (put.result != KV_OK) return put.result;
        return level.Close();
    });
}

kv_result SKvPictureMetadata::LoadFromLiteVariant(SKvPictureMetadata& meta, CKvLiteVariantR& reader) {
    return KvNoThrow([&] {
        KvMeta::CLvLevelReader level(reader, kLiteLevel);
        if (!level.IsOpen()) return KV_ERR_FAILED;
        SKvPictureMetadata loaded;
        kv_result result = Copy(loaded, meta);
        if (result != KV_OK) return result;
        LiteGet get{reader};
        VisitHead(loaded, kColumnLiteKey, get);
        KeepAbsoluteTimeIfAbsent(loaded, meta);
        {
            KvMeta::CLvLevelReader planes(reader, kPlanesKey);
            if (planes.IsOpen() && SKvPicturePlanes::LoadFromLiteVariant(loaded.sPicturePlanes, reader) != KV_OK) {
                KV_TRACE_FAILURE();
            }
        }
        VisitObjective(loaded, get);
        ApplyPinholeRadius(loaded.sPicturePlanes, reader.Get(kPinholeRadiusKey, -1.0));
        result = LoadPhysicalVariablesFromLite(loaded, reader);
        if (result != KV_OK) return result;
        VisitTail(loaded, get);
        swap(meta, loaded);
        return KV_OK;
    });
}

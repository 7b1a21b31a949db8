#include "gnr_metaformats/PictureSequence.h"

#include <algorithm>
#include <new>
#include <utility>

#include "gnr_metaformats/ExperimentAPI.h"
#include "gnr_metaformats/KvMetaIO.h"
#include "gnr_system/KvTrace.h"

namespace {

using Exp = SKvExperiment;

const char kRunType[] = "RKvExperiment";
const char kRunTypeTime[] = "RKvExperiment.RKvExpTimeLoop";
const char kRunTypeXYPos[] = "RKvExperiment.RKvExpXYPosLoop";
const char kRunTypeXYDiscr[] = "RKvExperiment.RKvExpXYDiscrLoop";
const char kRunTypeZStack[] = "RKvExperiment.RKvExpZStackLoop";
const char kRunTypePolar[] = "RKvExperiment.RKvExpPolarLoop";
const char kRunTypeSpect[] = "RKvExperiment.RKvExpSpectLoop";
const char kRunTypeCustom[] = "RKvExperiment.RKvExpCustomLoop";
const char kRunTypeNETime[] = "RKvExperiment.RKvExpNETimeLoop";
const char kRunTypeLI[] = "RKvExperiment.RKvLIDesc";
const char kRunTypeAF[] = "RKvExpAutoFocus";
const char kRunTypeParallel[] = "RKvParallelExperiment";
const char kRunTypeTask[] = "RKvParallelTask";
const char kRunTypeEvent[] = "RKvParallelEvent";
const wchar_t kLiteLevel[] = L"SKvExperiment";
const wchar_t kLoopParsKey[] = L"uLoopPars";
const wchar_t kItemValidKey[] = L"pItemValid";
const wchar_t kNextLevelsKey[] = L"ppNextLevelEx";
const wchar_t kNextCountKey[] = L"uiNextLevelCount";
const wchar_t kCountKey[] = L"uiCount";

struct SResult {
    kv_result value = KV_OK;
    void operator()(kv_result r) {
        if (value == KV_OK && r < 0) value = r;
    }
};

// Channel descriptions are stored without their per-sample settings slots,
// which every plane needs to be compared. A loaded set of channels whose
// component counts are sound gets them back, with sample indices that follow
// each other; a damaged set (an empty plane, absurd counts) is left as read.
void RestorePlaneSettings(SKvPicturePlanes& planes) {
    constexpr uint64_t kMaxComponents = 1024;
    uint64_t components = 0;
    for (uint32_t i = 0; i < planes.uiCount; ++i) {
        if (planes.pPlanes[i].uiCompCount == 0) return;
        components += planes.pPlanes[i].uiCompCount;
    }
    if (components == 0 || components > kMaxComponents) return;
    SKvPicturePlanes::MakeCompatible(planes, static_cast<uint32_t>(components));
}

// Two channel descriptions are the same channel: components, modality,
// colour and name. Settings slots play no part.
bool SamePlane(const SKvPicturePlaneDesc& a, const SKvPicturePlaneDesc& b) {
    return a.uiCompCount == b.uiCompCount && a.uiModalityMask == b.uiModalityMask && a.uiColor == b.uiColor &&
           a.sDescription == b.sDescription;
}

// ---- Field visitors: one key list per record serves the lite and the tree form.

struct SLiteSaver {
    CKvLiteVariantW& w;
    SResult& r;
    template <typename T>
    void operator()(const wchar_t* key, const T& v) { r(w.Set(v, key)); }
};
struct SLiteLoader {
    CKvLiteVariantR& rd;
    template <typename T>
    void operator()(const wchar_t* key, T& v) { KvMeta::LvGet(rd, key, v); }
};
struct STreeSaver {
    CKvVariant& node;
    SResult& r;
    template <typename T>
    void operator()(const wchar_t* key, const T& v) {
        if (!KvMeta::Put(node, key, v)) r(KV_ERR_OUT_OF_MEMORY);
    }
};
struct STreeLoader {
    const CKvVariant& node;
    template <typename T>
    void operator()(const wchar_t* key, T& v) { KvMeta::Get(node, key, v); }
};

template <typename S, typename V>
void VisitAF(S& a, V&& v) {
    v(L"eType", a.eType);
    v(L"dRange", a.dRange);
    v(L"dStep", a.dStep);
    v(L"dOffset", a.dOffset);
}

template <typename S, typename V>
void VisitLI(S& d, V&& v) {
    v(L"iMethod", d.iMethod);
    v(L"iXFields", d.iXFields);
    v(L"iYFields", d.iYFields);
    v(L"dXmm", d.dXmm);
    v(L"dYmm", d.dYmm);
    v(L"bStitch", d.bStitch);
    v(L"bValid", d.bValid);
    v(L"bControlShutter", d.bControlShutter);
    v(L"dOverlap", d.dOverlap);
    v(L"uiOrder", d.uiOrder);
    v(L"uiStitchingChannel", d.uiStitchingChannel);
    v(L"sPattern", d.sPattern);
}

template <typename S, typename V>
void VisitTask(S& t, V&& v) {
    v(L"uiID", t.uiID);
    v(L"wsName", t.wsName);
    v(L"wsCommand", t.wsCommand);
}
template <typename S, typename V>
void VisitEvent(S& e, V&& v) {
    v(L"uiID", e.uiID);
    v(L"uiTaskID", e.uiTaskID);
    v(L"dTime", e.dTime);
}

template <typename S, typename V>
void VisitHead(S& e, V&& v) {
    v(L"eType", e.eType);
    v(L"wsApplicationDesc", e.wsApplicationDesc);
    v(L"wsUserDesc", e.wsUserDesc);
    v(L"aMeasProbesBase64", e.aMeasProbesBase64);
    v(L"wsCameraName", e.wsCameraName);
}
// Commands and flags; the tree spells the commands with "s" where the lite form has "ws".
template <typename S, typename V>
void VisitCommandsAndFlags(S& e, V&& v, bool tree) {
    v(tree ? L"sCommandBeforeLoop" : L"wsCommandBeforeLoop", e.wsCommandBeforeLoop);
    v(tree ? L"sCommandBeforeCapture" : L"wsCommandBeforeCapture", e.wsCommandBeforeCapture);
    v(tree ? L"sCommandAfterCapture" : L"wsCommandAfterCapture", e.wsCommandAfterCapture);
    v(tree ? L"sCommandAfterLoop" : L"wsCommandAfterLoop", e.wsCommandAfterLoop);
    v(L"bControlShutter", e.bControlShutter);
    v(L"bControlLight", e.bControlLight);
    v(L"bUseHZL", e.bUseHZL);
    v(L"bUseHWSequencer", e.bUseHWSequencer);
    v(L"bUseQoRecipe", e.bUseQoRecipe);
    v(L"bUseIntenzityCorrection", e.bUseIntenzityCorrection);
}

template <typename S, typename V>
void VisitTimeLite(S& t, V&& v) {
    v(L"dStart", t.dStart);
    v(L"dPeriod", t.dPeriod);
    v(L"dDuration", t.dDuration);
    v(L"bDurationPref", t.bDurationPref);
    v(L"dMaxPeriodDiff", t.dMaxPeriodDiff);
    v(L"dMinPeriodDiff", t.dMinPeriodDiff);
    v(L"dAvgPeriodDiff", t.dAvgPeriodDiff);
}
template <typename S, typename V>
void VisitPhaseLite(S& t, V&& v) {
    v(kCountKey, t.uiCount);
    v(L"dStart", t.dStart);
    v(L"dPeriod", t.dPeriod);
    v(L"dDuration", t.dDuration);
    v(L"uiGroup", t.uiGroup);
    v(L"uiStimulationCount", t.uiStimulationCount);
    v(L"bDurationPref", t.bDurationPref);
    v(L"uiLoopType", t.uiLoopType);
    v(L"dMaxPeriodDiff", t.dMaxPeriodDiff);
    v(L"dMinPeriodDiff", t.dMinPeriodDiff);
    v(L"dAvgPeriodDiff", t.dAvgPeriodDiff);
    v(L"wsPhaseName", t.wsPhaseName);
}
// The tree keeps the phase count too, so that a phase reads back whole.
template <typename S, typename V>
void VisitTimeTree(S& t, V&& v) {
    v(L"dStart", t.dStart);
    v(L"dPeriod", t.dPeriod);
    v(L"dDuration", t.dDuration);
    v(L"dMinPeriodDiff", t.dMinPeriodDiff);
    v(L"dMaxPeriodDiff", t.dMaxPeriodDiff);
    v(L"dAvgPeriodDiff", t.dAvgPeriodDiff);
    v(L"wsPhaseName", t.wsPhaseName);
    v(L"uiLoopType", t.uiLoopType);
    v(L"uiGroup", t.uiGroup);
    v(L"uiStimulationCount", t.uiStimulationCount);
    v(L"bDurationPref", t.bDurationPref);
    v(kCountKey, t.uiCount);
}
template <typename S, typename V>
void VisitXYPosLite(S& x, V&& v) {
    v(L"bRelativeXY", x.bRelativeXY);
    v(L"dReferenceX", x.dReferenceX);
    v(L"dReferenceY", x.dReferenceY);
    v(L"bRedefineAfterHZL", x.bRedefineAfterHZL);
    v(L"bRedefineAfterAutoFocus", x.bRedefineAfterAutoFocus);
    v(L"bKeepHZLOn", x.bKeepHZLOn);
    v(L"bSplitMultipoints", x.bSplitMultipoints);
    v(L"bUseZ", x.bUseZ);
    v(L"sZDevice", x.sZDevice);
}
template <typename S, typename V>
void VisitPoint(S& p, V&& v) {
    v(L"dHZLOffset", p.dHZLOffset);
    v(L"dPosX", p.dPosX);
    v(L"dPosY", p.dPosY);
    v(L"dPosZ", p.dPosZ);
    v(L"dPosName", p.dPosName);
}
// "dZLow" twice in a row: older readers take the second occurrence.
template <typename S, typename V>
void VisitZLite(S& z, V&& v) {
    v(L"bAbsolute", z.bAbsolute);
    v(L"bTriggeredPiezo", z.bTriggeredPiezo);
    v(L"bZInverted", z.bZInverted);
    v(L"dReferencePosition", z.dReferencePosition);
    v(L"dTIRFPosition", z.dTIRFPosition);
    v(L"dTIRFHZLOffset", z.dTIRFHZLOffset);
    v(L"bTIRF", z.bTIRF);
    v(L"dZHigh", z.dZHigh);
    v(L"dZHome", z.dZHome);
    v(L"dZLow", z.dZLow);
    v(L"dZLow", z.dZLow);
    v(L"dZStep", z.dZStep);
    v(L"iType", z.iType);
    v(L"wsCommandAfterCapture", z.wsCommandAfterCapture);
    v(L"wsCommandBeforeCapture", z.wsCommandBeforeCapture);
    v(L"wsZDevice", z.wsZDevice);
}
template <typename S, typename V>
void VisitZTree(S& z, V&& v) {
    v(L"dZLow", z.dZLow);
    v(L"dZLowHZLOffset", z.dZLowHZLOffset);
    v(L"dZHigh", z.dZHigh);
    v(L"dZHighHZLOffset", z.dZHighHZLOffset);
    v(L"dZHome", z.dZHome);
    v(L"dZStep", z.dZStep);
    v(L"bTriggeredPiezo", z.bTriggeredPiezo);
    v(L"iType", z.iType);
    v(L"bAbsolute", z.bAbsolute);
    v(L"bZInverted", z.bZInverted);
    v(L"dReferencePosition", z.dReferencePosition);
    v(L"dTIRFPosition", z.dTIRFPosition);
    v(L"dTIRFHZLOffset", z.dTIRFHZLOffset);
    v(L"bTIRF", z.bTIRF);
    v(L"sZDevice", z.wsZDevice);
    v(L"sCommandBeforeCapture", z.wsCommandBeforeCapture);
    v(L"sCommandAfterCapture", z.wsCommandAfterCapture);
}
template <typename S, typename V>
void VisitSpectPoint(S& p, V&& v) {
    v(L"wsCommandAfterCapture", p.wsCommandAfterCapture);
    v(L"wsCommandBeforeCapture", p.wsCommandBeforeCapture);
    v(L"pZStackPos", p.pZStackPos);
}

// ---- Memory helpers

void FreeLevelArray(uint32_t& count, Exp**& array) {
    for (uint32_t i = 0; array && i < count; ++i) delete array[i];
    delete[] array;
    array = nullptr;
    count = 0;
}

// A new array of `count` null slots, or null for 0 / out of memory (`ok` false then).
Exp** NewLevelArray(uint32_t count, bool& ok) {
    ok = true;
    if (count == 0) return nullptr;
    Exp** array = new (std::nothrow) Exp*[count]();
    ok = array != nullptr;
    return array;
}

// Appends `child` (owned) to a growing level array; false out of memory.
bool PushLevel(uint32_t& count, Exp**& array, std::unique_ptr<Exp> child) {
    Exp** grown = new (std::nothrow) Exp*[count + 1];
    if (!grown) return false;
    std::copy(array, array + count, grown);
    grown[count] = child.release();
    delete[] array;
    array = grown;
    ++count;
    return true;
}

// Level-only copy of the loop parameters; may throw std::bad_alloc.
void CopyLoopPars(SKvExpLoopPars& d, const SKvExpLoopPars& s) {
    d.uiCount = s.uiCount;
    d.TimeLoop = s.TimeLoop;
    d.XYPosLoop = s.XYPosLoop;
    d.XYDiscrLoop = s.XYDiscrLoop;
    d.ZStackLoop = s.ZStackLoop;
    d.PolarLoop = s.PolarLoop;
    d.SpectLoop.bMergeCameras = s.SpectLoop.bMergeCameras;
    d.SpectLoop.Points = s.SpectLoop.Points;
    d.SpectLoop.pPlanes.reset();
    if (s.SpectLoop.pPlanes) d.SpectLoop.pPlanes = std::make_unique<SKvPicturePlanes>(*s.SpectLoop.pPlanes);
    d.CustomLoop = s.CustomLoop;
    const SKvExpNETimeLoop& sn = s.NETimeLoop;
    SKvExpNETimeLoop& dn = d.NETimeLoop;
    dn.pPeriod = sn.pPeriod;
    dn.wsCommandBeforePeriod = sn.wsCommandBeforePeriod;
    dn.wsCommandAfterPeriod = sn.wsCommandAfterPeriod;
    dn.pPeriodValid = sn.pPeriodValid;
    dn.pSubLoops.clear();
    dn.sAutoFocusBeforeCapture = sn.sAutoFocusBeforeCapture;
    dn.sAutoFocusBeforePeriod = sn.sAutoFocusBeforePeriod;
}

// Everything of the level but its next levels and sub-loops; may throw.
void CopyLevel(Exp& d, const Exp& s, uint32_t flags) {
    d.eType = s.eType;
    d.wsApplicationDesc = s.wsApplicationDesc;
    d.wsUserDesc = s.wsUserDesc;
    d.aMeasProbesBase64 = s.aMeasProbesBase64;
    d.wsCameraName = s.wsCameraName;
    CopyLoopPars(d.uLoopPars, s.uLoopPars);
    if (s.pItemValid && !(flags & kExpCopyNoItemValid) && s.uLoopPars.uiCount) {
        if (Exp::AllocItemValid(d, s.uLoopPars.uiCount) != KV_OK) throw std::bad_alloc();
        std::copy(s.pItemValid, s.pItemValid + s.uLoopPars.uiCount, d.pItemValid);
    }
    d.sAutoFocusBeforeLoop = s.sAutoFocusBeforeLoop;
    d.wsCommandBeforeLoop = s.wsCommandBeforeLoop;
    d.wsCommandBeforeCapture = s.wsCommandBeforeCapture;
    d.wsCommandAfterCapture = s.wsCommandAfterCapture;
    d.wsCommandAfterLoop = s.wsCommandAfterLoop;
    d.bControlShutter = s.bControlShutter;
    d.bControlLight = s.bControlLight;
    d.bUseHZL = s.bUseHZL;
    d.bUseHWSequencer = s.bUseHWSequencer;
    d.bUseQoRecipe = s.bUseQoRecipe;
    d.bUseIntenzityCorrection = s.bUseIntenzityCorrection;
    if (!(flags & kExpCopyNoRecords)) {
        if (s.pLargeImage) d.pLargeImage = std::make_unique<SKvExpLargeImage>(*s.pLargeImage);
        if (s.pNIExperiment) d.pNIExperiment = std::make_unique<SKvExperimentNI>(*s.pNIExperiment);
        if (s.pRecordedData) d.pRecordedData = std::make_unique<SKvRecordedData>(*s.pRecordedData);
    }
    d.sParallelExperiment = s.sParallelExperiment;
    d.uiRepeatCount = s.uiRepeatCount;
}

// Copies an array of levels recursively; may throw; -9 too deep.
kv_result CopyTree(Exp& d, const Exp& s, uint32_t flags, uint32_t depth);
kv_result CopyLevels(uint32_t& dCount, Exp**& dArray, uint32_t sCount, Exp* const* sArray, uint32_t flags,
                     uint32_t depth) {
    if (!sArray) return KV_OK;
    bool ok = true;
    dArray = NewLevelArray(sCount, ok);
    if (!ok) throw std::bad_alloc();
    dCount = sCount;
    for (uint32_t i = 0; i < sCount; ++i) {
        if (!sArray[i]) continue;
        dArray[i] = new Exp;
        const kv_result r = CopyTree(*dArray[i], *sArray[i], flags, depth + 1);
        if (r != KV_OK) return r;
    }
    return KV_OK;
}
kv_result CopyTree(Exp& d, const Exp& s, uint32_t flags, uint32_t depth) {
    if (depth >= kExpMaxDepth) return KV_ERR_FAILED;
    CopyLevel(d, s, flags);
    if (s.ppNextLevelEx) {
        // An array without entries still marks "next levels exist".
        if (s.uiNextLevelCount == 0) {
            d.ppNextLevelEx = new Exp*[1]();
        } else {
            const kv_result r = CopyLevels(d.uiNextLevelCount, d.ppNextLevelEx, s.uiNextLevelCount, s.ppNextLevelEx,
                                           flags, depth);
            if (r != KV_OK) return r;
        }
    }
    const auto& subs = s.uLoopPars.NETimeLoop.pSubLoops;
    auto& dsubs = d.uLoopPars.NETimeLoop.pSubLoops;
    dsubs.resize(subs.size());
    for (size_t i = 0; i < subs.size(); ++i) {
        const kv_result r = CopyLevels(dsubs[i].uiNextLevelCount, dsubs[i].ppNextLevelEx, subs[i].uiNextLevelCount,
                                       subs[i].ppNextLevelEx, flags, depth);
        if (r != KV_OK) return r;
    }
    return KV_OK;
}

// ---- Normalisation after loading: counts never exceed what backs them.

void ClampToPresent(Exp& e, const uint8_t* valid, uint64_t validSize, bool hasValid) {
    SKvExpLoopPars& p = e.uLoopPars;
    switch (e.eType) {
    case Exp::eExpXYPosLoop: p.uiCount = static_cast<uint32_t>(p.XYPosLoop.Points.size()); break;
    case Exp::eExpSpectLoop: p.uiCount = static_cast<uint32_t>(p.SpectLoop.Points.size()); break;
    case Exp::eExpXYDiscrLoop: {
        auto& x = p.XYDiscrLoop;
        if (!x.uiRow.empty() || !x.uiCol.empty()) {
            const size_t n = std::min(x.uiRow.size(), x.uiCol.size());
            x.uiRow.resize(n);
            x.uiCol.resize(n);
            p.uiCount = static_cast<uint32_t>(n);
        }
        break;
    }
    default: break;
    }
    auto& ne = p.NETimeLoop;
    const size_t phases = ne.pPeriod.size();
    auto fit = [phases](auto& v, auto fill) {
        if (!v.empty()) v.resize(phases, fill);
    };
    fit(ne.wsCommandBeforePeriod, CKvStringW());
    fit(ne.wsCommandAfterPeriod, CKvStringW());
    fit(ne.pPeriodValid, uint8_t{1});
    if (!ne.pSubLoops.empty()) ne.pSubLoops.resize(phases);
    if (!hasValid) return;
    const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(p.uiCount, validSize));
    p.uiCount = n;
    if (p.XYPosLoop.Points.size() > n) p.XYPosLoop.Points.resize(n);
    if (p.SpectLoop.Points.size() > n) p.SpectLoop.Points.resize(n);
    if (p.XYDiscrLoop.uiRow.size() > n) p.XYDiscrLoop.uiRow.resize(n);
    if (p.XYDiscrLoop.uiCol.size() > n) p.XYDiscrLoop.uiCol.resize(n);
    if (n == 0) return;
    if (Exp::AllocItemValid(e, n) != KV_OK) throw std::bad_alloc();
    std::copy(valid, valid + n, e.pItemValid);
}

// ---- Lite form

void LiteSaveAF(CKvLiteVariantW& w, SResult& r, const wchar_t* key, const SKvExpAutoFocus& af) {
    if (r.value != KV_OK) return;
    KvMeta::CLvLevelWriter level(w, key);
    r(level.Result());
    if (r.value != KV_OK) return;
    VisitAF(af, SLiteSaver{w, r});
    r(level.Close());
}
void LiteLoadAF(CKvLiteVariantR& rd, const wchar_t* key, SKvExpAutoFocus& af) {
    KvMeta::CLvLevelReader level(rd, key);
    if (level.IsOpen()) VisitAF(af, SLiteLoader{rd});
}

// Runs `body` inside a new level `key` (null: unnamed).
template <typename Body>
void LiteLevel(CKvLiteVariantW& w, SResult& r, const wchar_t* key, Body&& body) {
    if (r.value != KV_OK) return;
    KvMeta::CLvLevelWriter level(w, key);
    r(level.Result());
    if (r.value != KV_OK) return;
    body();
    r(level.Close());
}

// Calls `body` in every unnamed element level of level `key`; stops at the
// first error `body` answers, which it returns.
template <typename Body>
kv_result LiteElements(CKvLiteVariantR& rd, const wchar_t* key, Body&& body) {
    KvMeta::CLvLevelReader list(rd, key);
    if (!list.IsOpen()) return KV_OK;
    while (rd.IsNextValue()) {
        if (KvMeta::LvEnterElement(rd, nullptr)) {
            const kv_result r = body();
            rd.LevelEnd();
            if (r != KV_OK) return r;
        }
        if (rd.NextValue() != KV_OK) break;
    }
    return KV_OK;
}

kv_result WriteLite(CKvLiteVariantW& w, const Exp& e, uint32_t depth);
kv_result ReadLite(Exp& e, CKvLiteVariantR& rd, uint32_t depth);

void WriteLiteLevels(CKvLiteVariantW& w, SResult& r, uint32_t count, Exp* const* array, uint32_t depth) {
    uint32_t present = 0;
    for (uint32_t i = 0; i < count; ++i) present += array[i] ? 1 : 0;
    r(w.Set(present, kNextCountKey));
    LiteLevel(w, r, kNextLevelsKey, [&] {
        for (uint32_t i = 0; i < count && r.value == KV_OK; ++i)
            if (array[i]) LiteLevel(w, r, nullptr, [&] { r(WriteLite(w, *array[i], depth + 1)); });
    });
}

// Reads the next levels present (the stored count only caps nothing: a
// larger count shrinks to what is there). `exists` tells whether the level was found.
kv_result ReadLiteLevels(CKvLiteVariantR& rd, uint32_t& count, Exp**& array, uint32_t depth, bool& exists) {
    exists = rd.IsValueSet(kNextLevelsKey);
    return LiteElements(rd, kNextLevelsKey, [&]() -> kv_result {
        auto child = std::make_unique<Exp>();
        const kv_result r = ReadLite(*child, rd, depth + 1);
        if (r != KV_OK) return r;
        return PushLevel(count, array, std::move(child)) ? KV_OK : KV_ERR_OUT_OF_MEMORY;
    });
}

void WriteLiteLoopPars(CKvLiteVariantW& w, SResult& r, const Exp& e, uint32_t depth) {
    const SKvExpLoopPars& p = e.uLoopPars;
    SLiteSaver save{w, r};
    if (e.eType != Exp::eExpSpectLoop) save(kCountKey, p.uiCount);
    switch (e.eType) {
    case Exp::eExpTimeLoop:
        VisitTimeLite(p.TimeLoop, save);
        LiteSaveAF(w, r, L"sAutoFocusBeforeCapture", p.TimeLoop.sAutoFocusBeforeCapture);
        break;
    case Exp::eExpXYPosLoop:
        VisitXYPosLite(p.XYPosLoop, save);
        LiteSaveAF(w, r, L"sAFBefore", p.XYPosLoop.sAFBefore);
        LiteLevel(w, r, L"Points", [&] {
            for (const auto& pt : p.XYPosLoop.Points) LiteLevel(w, r, nullptr, [&] { VisitPoint(pt, save); });
        });
        break;
    case Exp::eExpZStackLoop: VisitZLite(p.ZStackLoop, save); break;
    case Exp::eExpSpectLoop: {
        const SKvPicturePlanes* planes = p.SpectLoop.pPlanes.get();
        if (planes) LiteLevel(w, r, L"pPlanes", [&] { r(SKvPicturePlanes::SaveToLiteVariant(w, *planes)); });
        save(L"bMergeCameras", p.SpectLoop.bMergeCameras);
        LiteLevel(w, r, L"Points", [&] {
            for (uint32_t i = 0; i < p.SpectLoop.Points.size(); ++i) {
                const SKvExpSpectPoint& pt = p.SpectLoop.Points[i];
                LiteLevel(w, r, nullptr, [&] {
                    LiteSaveAF(w, r, L"pAutoFocus", pt.pAutoFocus);
                    // The per-plane form is for older readers; this one reads "pPlanes".
                    if (planes && i < planes->uiCount)
                        LiteLevel(w, r, L"pPlaneDesc",
                                  [&] { r(SKvPicturePlaneDesc::SaveToLiteVariantOld(w, *planes, i)); });
                    VisitSpectPoint(pt, save);
                });
            }
        });
        break;
    }
    case Exp::eExpNETimeLoop: {
        const SKvExpNETimeLoop& ne = p.NETimeLoop;
        save(L"uiPeriodCount", static_cast<uint32_t>(ne.pPeriod.size()));
        LiteLevel(w, r, L"pPeriod", [&] {
            for (const auto& ph : ne.pPeriod)
                LiteLevel(w, r, nullptr, [&] {
                    VisitPhaseLite(ph, save);
                    LiteSaveAF(w, r, L"sAutoFocusBeforeCapture", ph.sAutoFocusBeforeCapture);
                    LiteSaveAF(w, r, L"sAutoFocusBeforePeriod", ph.sAutoFocusBeforePeriod);
                });
        });
        auto strings = [&](const wchar_t* key, const std::vector<CKvStringW>& list) {
            if (!list.empty())
                LiteLevel(w, r, key, [&] {
                    for (const auto& s : list) r(w.Set(s, nullptr));
                });
        };
        strings(L"wsCommandAfterPeriod", ne.wsCommandAfterPeriod);
        strings(L"wsCommandBeforePeriod", ne.wsCommandBeforePeriod);
        if (!ne.pPeriodValid.empty())
            r(w.Set(ne.pPeriodValid.data(), ne.pPeriodValid.size(), L"pPeriodValid"));
        if (!ne.pSubLoops.empty())
            LiteLevel(w, r, L"pSubLoops", [&] {
                for (const auto& sub : ne.pSubLoops)
                    LiteLevel(w, r, nullptr,
                              [&] { WriteLiteLevels(w, r, sub.uiNextLevelCount, sub.ppNextLevelEx, depth); });
            });
        LiteSaveAF(w, r, L"sAutoFocusBeforeCapture", ne.sAutoFocusBeforeCapture);
        LiteSaveAF(w, r, L"sAutoFocusBeforePeriod", ne.sAutoFocusBeforePeriod);
        break;
    }
    default: break;  // kinds 3, 5, 7, 9 and unknown: the count alone
    }
}

kv_result ReadLiteLoopPars(CKvLiteVariantR& rd, Exp& e, uint32_t depth) {
    SKvExpLoopPars& p = e.uLoopPars;
    SLiteLoader load{rd};
    load(kCountKey, p.uiCount);
    switch (e.eType) {
    case Exp::eExpTimeLoop:
        VisitTimeLite(p.TimeLoop, load);
        LiteLoadAF(rd, L"sAutoFocusBeforeCapture", p.TimeLoop.sAutoFocusBeforeCapture);
        return KV_OK;
    case Exp::eExpXYPosLoop:
        VisitXYPosLite(p.XYPosLoop, load);
        LiteLoadAF(rd, L"sAFBefore", p.XYPosLoop.sAFBefore);
        return LiteElements(rd, L"Points", [&] {
            SKvExpXYPos pt;
            VisitPoint(pt, load);
            p.XYPosLoop.Points.push_back(std::move(pt));
            return KV_OK;
        });
    case Exp::eExpZStackLoop: VisitZLite(p.ZStackLoop, load); return KV_OK;
    case Exp::eExpSpectLoop: {
        {
            KvMeta::CLvLevelReader level(rd, L"pPlanes");
            if (level.IsOpen()) {
                auto planes = std::make_unique<SKvPicturePlanes>();
                if (SKvPicturePlanes::LoadFromLiteVariant(*planes, rd) == KV_OK) {
                    RestorePlaneSettings(*planes);
                    p.SpectLoop.pPlanes = std::move(planes);
                }
            }
        }
        load(L"bMergeCameras", p.SpectLoop.bMergeCameras);
        return LiteElements(rd, L"Points", [&] {
            SKvExpSpectPoint pt;
            LiteLoadAF(rd, L"pAutoFocus", pt.pAutoFocus);
            VisitSpectPoint(pt, load);
            p.SpectLoop.Points.push_back(std::move(pt));
            return KV_OK;
        });
    }
    case Exp::eExpNETimeLoop: {
        SKvExpNETimeLoop& ne = p.NETimeLoop;
        kv_result r = LiteElements(rd, L"pPeriod", [&] {
            SKvExpTimeLoop ph;
            VisitPhaseLite(ph, load);
            LiteLoadAF(rd, L"sAutoFocusBeforeCapture", ph.sAutoFocusBeforeCapture);
            LiteLoadAF(rd, L"sAutoFocusBeforePeriod", ph.sAutoFocusBeforePeriod);
            ne.pPeriod.push_back(std::move(ph));
            return KV_OK;
        });
        auto strings = [&](const wchar_t* key, std::vector<CKvStringW>& list) {
            KvMeta::CLvLevelReader level(rd, key);
            while (level.IsOpen() && rd.IsNextValue()) {
                CKvStringW s;
                rd.GetCurrentValue(s);
                list.push_back(std::move(s));
                if (rd.NextValue() != KV_OK) break;
            }
        };
        strings(L"wsCommandAfterPeriod", ne.wsCommandAfterPeriod);
        strings(L"wsCommandBeforePeriod", ne.wsCommandBeforePeriod);
        uint64_t size = 0;
        if (const uint8_t* bytes = rd.Get(L"pPeriodValid", &size))
            ne.pPeriodValid.assign(bytes, bytes + std::min<uint64_t>(size, ne.pPeriod.size()));
        if (r == KV_OK)
            r = LiteElements(rd, L"pSubLoops", [&] {
                SKvExpSubLoop sub;
                bool exists = false;
                const kv_result rr = ReadLiteLevels(rd, sub.uiNextLevelCount, sub.ppNextLevelEx, depth, exists);
                ne.pSubLoops.push_back(std::move(sub));
                return rr;
            });
        LiteLoadAF(rd, L"sAutoFocusBeforeCapture", ne.sAutoFocusBeforeCapture);
        LiteLoadAF(rd, L"sAutoFocusBeforePeriod", ne.sAutoFocusBeforePeriod);
        return r;
    }
    default: return KV_OK;
    }
}

void LiteSaveLI(CKvLiteVariantW& w, SResult& r, const wchar_t* key, const SKvLIDesc& d) {
    LiteLevel(w, r, key, [&] {
        VisitLI(d, SLiteSaver{w, r});
        r(w.Set(d.sPattern, L"sCamera"));
    });
}
void LiteLoadLI(CKvLiteVariantR& rd, const wchar_t* key, SKvLIDesc& d) {
    KvMeta::CLvLevelReader level(rd, key);
    if (!level.IsOpen()) return;
    KvMeta::LvGet(rd, L"sCamera", d.sPattern);
    VisitLI(d, SLiteLoader{rd});
}

kv_result WriteLite(CKvLiteVariantW& w, const Exp& e, uint32_t depth) {
    if (depth >= kExpMaxDepth) return KV_ERR_FAILED;
    SResult r;
    SLiteSaver save{w, r};
    VisitHead(e, save);
    LiteLevel(w, r, kLoopParsKey, [&] { WriteLiteLoopPars(w, r, e, depth); });
    if (e.pItemValid && e.uLoopPars.uiCount) r(w.Set(e.pItemValid, e.uLoopPars.uiCount, kItemValidKey));
    LiteSaveAF(w, r, L"sAutoFocusBeforeLoop", e.sAutoFocusBeforeLoop);
    VisitCommandsAndFlags(e, save, false);
    if (e.pLargeImage) {
        LiteSaveLI(w, r, L"pLargeImage", e.pLargeImage->sLargeImage);
        LiteSaveLI(w, r, L"pLargeImageEx", e.pLargeImage->sLargeImageEx);
    }
    if (e.pNIExperiment)
        LiteLevel(w, r, L"pNIExperiment", [&] { r(SKvExperimentNI::SaveToLiteVariant(w, *e.pNIExperiment)); });
    if (e.pRecordedData)
        LiteLevel(w, r, L"pRecordedData", [&] { r(SKvRecordedData::SaveToLiteVariant(w, *e.pRecordedData)); });
    LiteLevel(w, r, L"sParallelExperiment", [&] {
        LiteLevel(w, r, L"Tasks", [&] {
            for (const auto& t : e.sParallelExperiment.aTasks) LiteLevel(w, r, nullptr, [&] { VisitTask(t, save); });
        });
        LiteLevel(w, r, L"Events", [&] {
            for (const auto& ev : e.sParallelExperiment.aEvents)
                LiteLevel(w, r, nullptr, [&] { VisitEvent(ev, save); });
        });
    });
    if (e.ppNextLevelEx) WriteLiteLevels(w, r, e.uiNextLevelCount, e.ppNextLevelEx, depth);
    save(L"uiRepeatCount", e.uiRepeatCount);
    return r.value;
}

kv_result ReadLite(Exp& e, CKvLiteVariantR& rd, uint32_t depth) {
    if (depth >= kExpMaxDepth) return KV_ERR_FAILED;
    SLiteLoader load{rd};
    VisitHead(e, load);
    kv_result r = KV_OK;
    {
        KvMeta::CLvLevelReader level(rd, kLoopParsKey);
        if (level.IsOpen()) r = ReadLiteLoopPars(rd, e, depth);
    }
    if (r != KV_OK) return r;
    uint64_t validSize = 0;
    const uint8_t* valid = rd.Get(kItemValidKey, &validSize);
    ClampToPresent(e, valid, validSize, valid != nullptr);
    LiteLoadAF(rd, L"sAutoFocusBeforeLoop", e.sAutoFocusBeforeLoop);
    VisitCommandsAndFlags(e, load, false);
    if (rd.IsValueSet(L"pLargeImage") || rd.IsValueSet(L"pLargeImageEx")) {
        e.pLargeImage = std::make_unique<SKvExpLargeImage>();
        LiteLoadLI(rd, L"pLargeImage", e.pLargeImage->sLargeImage);
        LiteLoadLI(rd, L"pLargeImageEx", e.pLargeImage->sLargeImageEx);
    }
    {
        KvMeta::CLvLevelReader level(rd, L"pNIExperiment");
        if (level.IsOpen()) {
            e.pNIExperiment = std::make_unique<SKvExperimentNI>();
            SKvExperimentNI::LoadFromLiteVariant(*e.pNIExperiment, rd);
        }
    }
    {
        KvMeta::CLvLevelReader level(rd, L"pRecordedData");
        if (level.IsOpen()) {
            e.pRecordedData = std::make_unique<SKvRecordedData>();
            SKvRecordedData::LoadFromLiteVariant(*e.pRecordedData, rd);
        }
    }
    {
        KvMeta::CLvLevelReader level(rd, L"sParallelExperiment");
        if (level.IsOpen()) {
            LiteElements(rd, L"Tasks", [&] {
                SKvParallelTask t;
                VisitTask(t, load);
                e.sParallelExperiment.aTasks.push_back(std::move(t));
                return KV_OK;
            });
            LiteElements(rd, L"Events", [&] {
                SKvParallelEvent ev;
                VisitEvent(ev, load);
                e.sParallelExperiment.aEvents.push_back(ev);
                return KV_OK;
            });
        }
    }
    bool exists = false;
    r = ReadLiteLevels(rd, e.uiNextLevelCount, e.ppNextLevelEx, depth, exists);
    if (r != KV_OK) return r;
    // An existing but empty next-level list keeps its meaning ("levels exist, none here").
    if (exists && !e.ppNextLevelEx) {
        bool ok = true;
        e.ppNextLevelEx = new (std::nothrow) Exp*[1]();
        ok = e.ppNextLevelEx != nullptr;
        if (!ok) return KV_ERR_OUT_OF_MEMORY;
    }
    load(L"uiRepeatCount", e.uiRepeatCount);
    return KV_OK;
}

// ---- Tree form

CKvStringW FormatName(const wchar_t* format, uint32_t i) {
    CKvStringW name;
    name.Format(format, i);
    return name;
}

// A new structured member `key` of `node` with run type `runType`; null out of memory.
CKvVariant* PutStruct(CKvVariant& node, const wchar_t* key, const char* runType) {
    CKvVariant* child = KvMeta::PutList(node, key);
    if (child) KvMeta::BeginStruct(*child, runType);
    return child;
}
// The member `key` when it is a list (of any run type), else null.
const CKvVariant* FindList(const CKvVariant& node, const wchar_t* key) {
    const CKvVariant* m = KvMeta::Find(node, key);
    return m && m->GetCount() >= 0 ? m : nullptr;
}

template <typename S, typename Visit>
void TreeSaveStruct(CKvVariant& node, SResult& r, const wchar_t* key, const char* runType, const S& s, Visit visit) {
    if (r.value != KV_OK) return;
    CKvVariant* child = PutStruct(node, key, runType);
    if (!child) return r(KV_ERR_OUT_OF_MEMORY);
    visit(s, STreeSaver{*child, r});
}
template <typename S, typename Visit>
void TreeLoadStruct(const CKvVariant& node, const wchar_t* key, S& s, Visit visit) {
    if (const CKvVariant* child = FindList(node, key)) visit(s, STreeLoader{*child});
}
struct SAF {
    template <typename S, typename V>
    void operator()(S& s, V&& v) const { VisitAF(s, v); }
};
struct SLI {
    template <typename S, typename V>
    void operator()(S& s, V&& v) const {
        VisitLI(s, v);
        v(L"sCamera", s.sPattern);
    }
};
struct SLILoad {
    template <typename V>
    void operator()(SKvLIDesc& s, V&& v) const {
        v(L"sCamera", s.sPattern);
        VisitLI(s, v);
    }
};

// A list member `key` with one element per value, named by `format`.
template <typename T>
void TreeSaveValues(CKvVariant& node, SResult& r, const wchar_t* key, const wchar_t* format, const std::vector<T>& values) {
    CKvVariant* list = KvMeta::PutList(node, key);
    if (!list) return r(KV_ERR_OUT_OF_MEMORY);
    for (uint32_t i = 0; i < values.size(); ++i) STreeSaver{*list, r}(FormatName(format, i).GetString(), values[i]);
}
template <typename T>
void TreeLoadValues(const CKvVariant& node, const wchar_t* key, std::vector<T>& values) {
    const CKvVariant* list = FindList(node, key);
    const int n = list ? list->GetCount() : 0;
    for (int i = 0; i < n; ++i) {
        const CKvVariant* el = list->IndexPtr(i);
        if (!el) continue;
        T v{};
        KvMeta::GetValue(*el, v);
        values.push_back(std::move(v));
    }
}

kv_result SaveTree(CKvVariant& node, const Exp& e, uint32_t depth);
kv_result LoadTree(Exp& e, const CKvVariant& node, uint32_t depth);

void TreeSaveLevels(CKvVariant& node, SResult& r, uint32_t count, Exp* const* array, uint32_t depth) {
    CKvVariant* list = KvMeta::PutList(node, kNextLevelsKey);
    if (!list) return r(KV_ERR_OUT_OF_MEMORY);
    uint32_t n = 0;
    for (uint32_t i = 0; i < count && r.value == KV_OK; ++i) {
        if (!array[i]) continue;
        CKvVariant* child = KvMeta::PutList(*list, FormatName(L"a%u", n++).GetString());
        if (!child) return r(KV_ERR_OUT_OF_MEMORY);
        r(SaveTree(*child, *array[i], depth + 1));
    }
}
// Takes the elements of run type "RKvExperiment" that load without error;
// -9 only for nesting too deep, which fails the whole load.
kv_result TreeLoadLevels(const CKvVariant& node, uint32_t& count, Exp**& array, uint32_t depth) {
    const CKvVariant* list = FindList(node, kNextLevelsKey);
    const int n = list ? list->GetCount() : 0;
    for (int i = 0; i < n; ++i) {
        const CKvVariant* el = list->IndexPtr(i);
        if (!el || el->GetRunType() != CKvVariantRunType(kRunType)) continue;
        auto child = std::make_unique<Exp>();
        const kv_result r = LoadTree(*child, *el, depth + 1);
        if (r == KV_ERR_FAILED && depth + 1 >= kExpMaxDepth) return r;
        if (r == KV_ERR_FAILED && !child) return r;
        if (r != KV_OK) {
            if (r == KV_ERR_FAILED) return r;
            continue;
        }
        if (!PushLevel(count, array, std::move(child))) return KV_ERR_OUT_OF_MEMORY;
    }
    return KV_OK;
}

const char* LoopRunType(uint32_t type) {
    switch (type) {
    case Exp::eExpXYPosLoop: return kRunTypeXYPos;
    case Exp::eExpXYDiscrLoop: return kRunTypeXYDiscr;
    case Exp::eExpZStackLoop: return kRunTypeZStack;
    case Exp::eExpPolarLoop: return kRunTypePolar;
    case Exp::eExpSpectLoop: return kRunTypeSpect;
    case Exp::eExpCustomLoop: return kRunTypeCustom;
    case Exp::eExpNETimeLoop: return kRunTypeNETime;
    default: return kRunTypeTime;  // kinds 0, 1, 9 and unknown
    }
}

void TreeSaveTime(CKvVariant& node, SResult& r, const SKvExpTimeLoop& t) {
    VisitTimeTree(t, STreeSaver{node, r});
    TreeSaveStruct(node, r, L"sAutoFocusBeforePeriod", kRunTypeAF, t.sAutoFocusBeforePeriod, SAF{});
    TreeSaveStruct(node, r, L"sAutoFocusBeforeCapture", kRunTypeAF, t.sAutoFocusBeforeCapture, SAF{});
}
void TreeLoadTime(const CKvVariant& node, SKvExpTimeLoop& t) {
    VisitTimeTree(t, STreeLoader{node});
    TreeLoadStruct(node, L"sAutoFocusBeforePeriod", t.sAutoFocusBeforePeriod, SAF{});
    TreeLoadStruct(node, L"sAutoFocusBeforeCapture", t.sAutoFocusBeforeCapture, SAF{});
}

void TreeSaveLoopPars(CKvVariant& lp, SResult& r, const Exp& e, uint32_t depth) {
    const SKvExpLoopPars& p = e.uLoopPars;
    STreeSaver save{lp, r};
    const wchar_t* item = L"item_%05u";
    switch (e.eType) {
    case Exp::eExpXYPosLoop: {
        const auto& x = p.XYPosLoop;
        save(kCountKey, p.uiCount);
        std::vector<double> xs, ys, zs, hs;
        std::vector<CKvStringW> names;
        for (const auto& pt : x.Points) {
            xs.push_back(pt.dPosX), ys.push_back(pt.dPosY), zs.push_back(pt.dPosZ), hs.push_back(pt.dHZLOffset);
            names.push_back(pt.dPosName);
        }
        TreeSaveValues(lp, r, L"dPosX", item, xs);
        TreeSaveValues(lp, r, L"dPosY", item, ys);
        TreeSaveValues(lp, r, L"dPosZ", item, zs);
        TreeSaveValues(lp, r, L"dHZLOffset", item, hs);
        TreeSaveValues(lp, r, L"pPosName", item, names);
        VisitXYPosLite(x, save);
        TreeSaveStruct(lp, r, L"sAutoFocusBeforeCapture", kRunTypeAF, x.sAFBefore, SAF{});
        break;
    }
    case Exp::eExpXYDiscrLoop:
        TreeSaveValues(lp, r, L"uiRow", item, p.XYDiscrLoop.uiRow);
        TreeSaveValues(lp, r, L"uiCol", item, p.XYDiscrLoop.uiCol);
        save(L"bUseZ", p.XYDiscrLoop.bUseZ);
        save(L"dPosZ", p.XYDiscrLoop.dPosZ);
        break;
    case Exp::eExpZStackLoop: VisitZTree(p.ZStackLoop, save); break;
    case Exp::eExpPolarLoop:
        save(L"dAngleStart", p.PolarLoop.dAngleStart);
        save(L"dAngleFinish", p.PolarLoop.dAngleFinish);
        save(L"bSceneRotates", p.PolarLoop.bSceneRotates);
        break;
    case Exp::eExpSpectLoop: {
        const auto& s = p.SpectLoop;
        save(L"bMergeCameras", s.bMergeCameras);
        CKvVariant* descs = KvMeta::PutList(lp, L"pPlaneDesc");
        if (!descs) return r(KV_ERR_OUT_OF_MEMORY);
        for (uint32_t i = 0; s.pPlanes && i < s.pPlanes->uiCount && i < s.Points.size(); ++i) {
            CKvVariant* d = KvMeta::PutList(*descs, FormatName(item, i).GetString());
            if (!d) return r(KV_ERR_OUT_OF_MEMORY);
            r(SKvPicturePlaneDesc::SaveToVariantOld(*d, *s.pPlanes, i));
        }
        if (s.pPlanes) {
            CKvVariant* planes = KvMeta::PutList(lp, L"pPlanes");
            if (!planes) return r(KV_ERR_OUT_OF_MEMORY);
            r(SKvPicturePlanes::SaveToVariant(*planes, *s.pPlanes));
        }
        CKvVariant* afs = KvMeta::PutList(lp, L"pAutoFocus");
        if (!afs) return r(KV_ERR_OUT_OF_MEMORY);
        std::vector<CKvStringW> before, after;
        std::vector<int32_t> zpos;
        for (uint32_t i = 0; i < s.Points.size(); ++i) {
            TreeSaveStruct(*afs, r, FormatName(item, i).GetString(), kRunTypeAF, s.Points[i].pAutoFocus, SAF{});
            before.push_back(s.Points[i].wsCommandBeforeCapture);
            after.push_back(s.Points[i].wsCommandAfterCapture);
            zpos.push_back(s.Points[i].pZStackPos);
        }
        TreeSaveValues(lp, r, L"szCommandBeforeCapture", item, before);
        TreeSaveValues(lp, r, L"szCommandAfterCapture", item, after);
        TreeSaveValues(lp, r, L"pZStackPos", item, zpos);
        break;
    }
    case Exp::eExpCustomLoop: save(L"wsDescription", p.CustomLoop.wsDescription); break;
    case Exp::eExpNETimeLoop: {
        const auto& ne = p.NETimeLoop;
        save(L"uiPeriodCount", static_cast<uint32_t>(ne.pPeriod.size()));
        TreeSaveStruct(lp, r, L"sAutoFocusBeforePeriod", kRunTypeAF, ne.sAutoFocusBeforePeriod, SAF{});
        TreeSaveStruct(lp, r, L"sAutoFocusBeforeCapture", kRunTypeAF, ne.sAutoFocusBeforeCapture, SAF{});
        CKvVariant* subs = KvMeta::PutList(lp, L"pSubLoops");
        if (!subs) return r(KV_ERR_OUT_OF_MEMORY);
        for (uint32_t i = 0; i < ne.pSubLoops.size() && r.value == KV_OK; ++i) {
            CKvVariant* sub = KvMeta::PutList(*subs, FormatName(item, i).GetString());
            if (!sub) return r(KV_ERR_OUT_OF_MEMORY);
            TreeSaveLevels(*sub, r, ne.pSubLoops[i].uiNextLevelCount, ne.pSubLoops[i].ppNextLevelEx, depth);
        }
        CKvVariant* periods = KvMeta::PutList(lp, L"pPeriod");
        if (!periods) return r(KV_ERR_OUT_OF_MEMORY);
        for (uint32_t i = 0; i < ne.pPeriod.size() && r.value == KV_OK; ++i) {
            CKvVariant* ph = PutStruct(*periods, FormatName(item, i).GetString(), kRunTypeTime);
            if (!ph) return r(KV_ERR_OUT_OF_MEMORY);
            TreeSaveTime(*ph, r, ne.pPeriod[i]);
        }
        TreeSaveValues(lp, r, L"szCommandBeforePeriod", item, ne.wsCommandBeforePeriod);
        TreeSaveValues(lp, r, L"szCommandAfterPeriod", item, ne.wsCommandAfterPeriod);
        std::vector<bool> valid(ne.pPeriodValid.begin(), ne.pPeriodValid.end());
        CKvVariant* vlist = KvMeta::PutList(lp, L"pPeriodValid");
        if (!vlist) return r(KV_ERR_OUT_OF_MEMORY);
        for (uint32_t i = 0; i < ne.pPeriodValid.size(); ++i)
            STreeSaver{*vlist, r}(FormatName(item, i).GetString(), ne.pPeriodValid[i] != 0);
        break;
    }
    default: TreeSaveTime(lp, r, p.TimeLoop); break;
    }
}

bool SameLI(const SKvLIDesc& a, const SKvLIDesc& b) {
    return a.iMethod == b.iMethod && a.iXFields == b.iXFields && a.iYFields == b.iYFields && KvSameValue(a.dXmm, b.dXmm) &&
           KvSameValue(a.dYmm, b.dYmm) && a.bStitch == b.bStitch && a.bValid == b.bValid &&
           a.bControlShutter == b.bControlShutter && KvSameValue(a.dOverlap, b.dOverlap) && a.uiOrder == b.uiOrder &&
           a.uiStitchingChannel == b.uiStitchingChannel && a.sPattern == b.sPattern;
}

// A large image is empty when both descriptors hold only defaults; an empty
// one and none describe the same acquisition.
bool IsEmptyLI(const SKvExpLargeImage* li) {
    return !li || (SameLI(li->sLargeImage, SKvLIDesc()) && SameLI(li->sLargeImageEx, SKvLIDesc()));
}

// A tree read back from XML or from lite-variant bytes gets every member of
// the registered sample, so an optional record that was never written comes
// back holding defaults. A record holding nothing but defaults is taken as
// absent, in every form, so that all forms load to the same experiment.
void DropEmptyRecords(Exp& e) {
    if (IsEmptyLI(e.pLargeImage.get())) e.pLargeImage.reset();
    if (e.pNIExperiment && !e.pNIExperiment->bIgnoreSetup && e.pNIExperiment->aInputs.empty() &&
        e.pNIExperiment->aOutputs.empty())
        e.pNIExperiment.reset();
    if (e.pRecordedData && *e.pRecordedData == SKvRecordedData()) e.pRecordedData.reset();
}

kv_result TreeLoadLoopPars(const CKvVariant& lp, Exp& e, uint32_t depth) {
    SKvExpLoopPars& p = e.uLoopPars;
    STreeLoader load{lp};
    switch (e.eType) {
    case Exp::eExpXYPosLoop: {
        auto& x = p.XYPosLoop;
        std::vector<double> xs, ys, zs, hs;
        std::vector<CKvStringW> names;
        TreeLoadValues(lp, L"dPosX", xs);
        TreeLoadValues(lp, L"dPosY", ys);
        TreeLoadValues(lp, L"dPosZ", zs);
        TreeLoadValues(lp, L"dHZLOffset", hs);
        TreeLoadValues(lp, L"pPosName", names);
        // A point is whatever the X list holds; shorter lists leave defaults.
        x.Points.resize(xs.size());
        for (size_t i = 0; i < xs.size(); ++i) {
            x.Points[i].dPosX = xs[i];
            if (i < ys.size()) x.Points[i].dPosY = ys[i];
            if (i < zs.size()) x.Points[i].dPosZ = zs[i];
            if (i < hs.size()) x.Points[i].dHZLOffset = hs[i];
            if (i < names.size()) x.Points[i].dPosName = names[i];
        }
        VisitXYPosLite(x, load);
        TreeLoadStruct(lp, L"sAutoFocusBeforeCapture", x.sAFBefore, SAF{});
        return KV_OK;
    }
    case Exp::eExpXYDiscrLoop:
        TreeLoadValues(lp, L"uiRow", p.XYDiscrLoop.uiRow);
        TreeLoadValues(lp, L"uiCol", p.XYDiscrLoop.uiCol);
        load(L"bUseZ", p.XYDiscrLoop.bUseZ);
        load(L"dPosZ", p.XYDiscrLoop.dPosZ);
        return KV_OK;
    case Exp::eExpZStackLoop: VisitZTree(p.ZStackLoop, load); return KV_OK;
    case Exp::eExpPolarLoop:
        load(L"dAngleStart", p.PolarLoop.dAngleStart);
        load(L"dAngleFinish", p.PolarLoop.dAngleFinish);
        load(L"bSceneRotates", p.PolarLoop.bSceneRotates);
        return KV_OK;
    case Exp::eExpSpectLoop: {
        auto& s = p.SpectLoop;
        load(L"bMergeCameras", s.bMergeCameras);
        if (const CKvVariant* planes = FindList(lp, L"pPlanes")) {
            auto loaded = std::make_unique<SKvPicturePlanes>();
            // An empty set is what the registered sample brings in when the
            // channels were never described: none.
            if (SKvPicturePlanes::LoadFromVariant(*loaded, *planes) == KV_OK && loaded->uiCount > 0) {
                RestorePlaneSettings(*loaded);
                s.pPlanes = std::move(loaded);
            }
        }
        std::vector<CKvStringW> before, after;
        std::vector<int32_t> zpos;
        TreeLoadValues(lp, L"szCommandBeforeCapture", before);
        TreeLoadValues(lp, L"szCommandAfterCapture", after);
        TreeLoadValues(lp, L"pZStackPos", zpos);
        const CKvVariant* afs = FindList(lp, L"pAutoFocus");
        const int n = afs ? afs->GetCount() : 0;
        s.Points.resize(static_cast<size_t>(n));
        for (int i = 0; i < n; ++i) {
            if (const CKvVariant* af = afs->IndexPtr(i)) {
                if (af->GetCount() >= 0) VisitAF(s.Points[i].pAutoFocus, STreeLoader{*af});
            }
            if (static_cast<size_t>(i) < before.size()) s.Points[i].wsCommandBeforeCapture = before[i];
            if (static_cast<size_t>(i) < after.size()) s.Points[i].wsCommandAfterCapture = after[i];
            if (static_cast<size_t>(i) < zpos.size()) s.Points[i].pZStackPos = zpos[i];
        }
        return KV_OK;
    }
    case Exp::eExpCustomLoop: load(L"wsDescription", p.CustomLoop.wsDescription); return KV_OK;
    case Exp::eExpNETimeLoop: {
        auto& ne = p.NETimeLoop;
        TreeLoadStruct(lp, L"sAutoFocusBeforePeriod", ne.sAutoFocusBeforePeriod, SAF{});
        TreeLoadStruct(lp, L"sAutoFocusBeforeCapture", ne.sAutoFocusBeforeCapture, SAF{});
        const CKvVariant* periods = FindList(lp, L"pPeriod");
        for (int i = 0, n = periods ? periods->GetCount() : 0; i < n; ++i) {
            const CKvVariant* ph = periods->IndexPtr(i);
            if (!ph || ph->GetCount() < 0) continue;
            SKvExpTimeLoop t;
            TreeLoadTime(*ph, t);
            ne.pPeriod.push_back(std::move(t));
        }
        TreeLoadValues(lp, L"szCommandBeforePeriod", ne.wsCommandBeforePeriod);
        TreeLoadValues(lp, L"szCommandAfterPeriod", ne.wsCommandAfterPeriod);
        std::vector<bool> valid;
        TreeLoadValues(lp, L"pPeriodValid", valid);
        for (bool v : valid) ne.pPeriodValid.push_back(v ? 1 : 0);
        const CKvVariant* subs = FindList(lp, L"pSubLoops");
        for (int i = 0, n = subs ? subs->GetCount() : 0; i < n; ++i) {
            const CKvVariant* sub = subs->IndexPtr(i);
            SKvExpSubLoop loop;
            if (sub && sub->GetCount() >= 0) {
                const kv_result r = TreeLoadLevels(*sub, loop.uiNextLevelCount, loop.ppNextLevelEx, depth);
                if (r != KV_OK) return r;
            }
            ne.pSubLoops.push_back(std::move(loop));
        }
        return KV_OK;
    }
    default: TreeLoadTime(lp, p.TimeLoop); return KV_OK;
    }
}

kv_result SaveTreeOld(CKvVariant& node, const Exp& e, uint32_t depth) {
    if (depth >= kExpMaxDepth || e.uLoopPars.uiCount > kExpMaxTreeItems) return KV_ERR_FAILED;
    KvMeta::BeginStruct(node, kRunType);
    SResult r;
    STreeSaver save{node, r};
    VisitHead(e, save);
    // Every item gets a flag, so that the tree carries the item count.
    CKvVariant* valid = KvMeta::PutList(node, kItemValidKey);
    if (!valid) return KV_ERR_OUT_OF_MEMORY;
    for (uint32_t i = 0; i < e.uLoopPars.uiCount && r.value == KV_OK; ++i)
        STreeSaver{*valid, r}(FormatName(L"%03u", i).GetString(), !e.pItemValid || e.pItemValid[i] != 0);
    CKvVariant* lp = PutStruct(node, kLoopParsKey, LoopRunType(e.eType));
    if (!lp) return KV_ERR_OUT_OF_MEMORY;
    TreeSaveLoopPars(*lp, r, e, depth);
    VisitCommandsAndFlags(e, save, true);
    if (e.pLargeImage) {
        TreeSaveStruct(node, r, L"pLargeImage", kRunTypeLI, e.pLargeImage->sLargeImage, SLI{});
        TreeSaveStruct(node, r, L"pLargeImageEx", kRunTypeLI, e.pLargeImage->sLargeImageEx, SLI{});
    }
    if (e.pNIExperiment) {
        CKvVariant* ni = KvMeta::PutList(node, L"pNIExperiment");
        if (!ni) return KV_ERR_OUT_OF_MEMORY;
        r(SKvExperimentNI::SaveToVariant(*ni, *e.pNIExperiment));
    }
    if (e.pRecordedData) {
        CKvVariant* rec = KvMeta::PutList(node, L"pRecordedData");
        if (!rec) return KV_ERR_OUT_OF_MEMORY;
        r(SKvRecordedData::SaveToVariant(*rec, *e.pRecordedData));
    }
    TreeSaveStruct(node, r, L"sAutoFocusBeforeLoop", kRunTypeAF, e.sAutoFocusBeforeLoop, SAF{});
    CKvVariant* pe = PutStruct(node, L"sParallelExperiment", kRunTypeParallel);
    if (!pe) return KV_ERR_OUT_OF_MEMORY;
    CKvVariant* tasks = KvMeta::PutList(*pe, L"aTasks");
    CKvVariant* events = KvMeta::PutList(*pe, L"aEvents");
    if (!tasks || !events) return KV_ERR_OUT_OF_MEMORY;
    struct STask {
        void operator()(const SKvParallelTask& t, STreeSaver v) const { VisitTask(t, v); }
    };
    struct SEvent {
        void operator()(const SKvParallelEvent& t, STreeSaver v) const { VisitEvent(t, v); }
    };
    for (uint32_t i = 0; i < e.sParallelExperiment.aTasks.size(); ++i)
        TreeSaveStruct(*tasks, r, FormatName(L"a%u", i).GetString(), kRunTypeTask, e.sParallelExperiment.aTasks[i],
                       STask{});
    for (uint32_t i = 0; i < e.sParallelExperiment.aEvents.size(); ++i)
        TreeSaveStruct(*events, r, FormatName(L"a%u", i).GetString(), kRunTypeEvent,
                       e.sParallelExperiment.aEvents[i], SEvent{});
    return r.value;
}

kv_result SaveTree(CKvVariant& node, const Exp& e, uint32_t depth) {
    kv_result res = SaveTreeOld(node, e, depth);
    if (res != KV_OK) return res;
    SResult r;
    STreeSaver{node, r}(L"uiRepeatCount", e.uiRepeatCount);
    TreeSaveLevels(node, r, e.uiNextLevelCount, e.ppNextLevelEx, depth);
    return r.value;
}

kv_result LoadTreeOld(Exp& e, const CKvVariant& node, uint32_t depth) {
    if (depth >= kExpMaxDepth) return KV_ERR_FAILED;
    if (KvMeta::CheckRunType(node, kRunType) != KV_OK) return KV_ERR_INVALID_ARG;
    STreeLoader load{node};
    VisitHead(e, load);
    std::vector<bool> valid;
    TreeLoadValues(node, kItemValidKey, valid);
    e.uLoopPars.uiCount = static_cast<uint32_t>(valid.size());
    const uint32_t treeCount = e.uLoopPars.uiCount;
    if (const CKvVariant* lp = FindList(node, kLoopParsKey)) {
        const kv_result r = TreeLoadLoopPars(*lp, e, depth);
        if (r != KV_OK) return r;
    }
    ClampToPresent(e, nullptr, 0, false);
    // Per-item kinds may hold fewer records than flags; the smaller wins.
    if (e.eType == Exp::eExpXYPosLoop || e.eType == Exp::eExpSpectLoop ||
        (e.eType == Exp::eExpXYDiscrLoop && !e.uLoopPars.XYDiscrLoop.uiRow.empty()))
        e.uLoopPars.uiCount = std::min(e.uLoopPars.uiCount, treeCount);
    else
        e.uLoopPars.uiCount = treeCount;
    std::vector<uint8_t> bytes(valid.begin(), valid.end());
    const bool anySkipped = std::find(bytes.begin(), bytes.end(), 0) != bytes.end();
    ClampToPresent(e, bytes.data(), bytes.size(), anySkipped);
    VisitCommandsAndFlags(e, load, true);
    if (FindList(node, L"pLargeImage") || FindList(node, L"pLargeImageEx")) {
        e.pLargeImage = std::make_unique<SKvExpLargeImage>();
        TreeLoadStruct(node, L"pLargeImage", e.pLargeImage->sLargeImage, SLILoad{});
        TreeLoadStruct(node, L"pLargeImageEx", e.pLargeImage->sLargeImageEx, SLILoad{});
    }
    if (const CKvVariant* ni = FindList(node, L"pNIExperiment")) {
        auto loaded = std::make_unique<SKvExperimentNI>();
        if (SKvExperimentNI::LoadFromVariant(*loaded, *ni) == KV_OK) e.pNIExperiment = std::move(loaded);
    }
    if (const CKvVariant* rec = FindList(node, L"pRecordedData")) {
        auto loaded = std::make_unique<SKvRecordedData>();
        if (SKvRecordedData::LoadFromVariant(*loaded, *rec) == KV_OK) e.pRecordedData = std::move(loaded);
    }
    DropEmptyRecords(e);
    TreeLoadStruct(node, L"sAutoFocusBeforeLoop", e.sAutoFocusBeforeLoop, SAF{});
    if (const CKvVariant* pe = FindList(node, L"sParallelExperiment")) {
        auto each = [](const CKvVariant* list, auto add) {
            for (int i = 0, n = list ? list->GetCount() : 0; i < n; ++i)
                if (const CKvVariant* el = list->IndexPtr(i)) add(*el);
        };
        each(FindList(*pe, L"aTasks"), [&](const CKvVariant& el) {
            SKvParallelTask t;
            VisitTask(t, STreeLoader{el});
            e.sParallelExperiment.aTasks.push_back(std::move(t));
        });
        each(FindList(*pe, L"aEvents"), [&](const CKvVariant& el) {
            SKvParallelEvent ev;
            VisitEvent(ev, STreeLoader{el});
            e.sParallelExperiment.aEvents.push_back(ev);
        });
    }
    return KV_OK;
}

kv_result LoadTree(Exp& e, const CKvVariant& node, uint32_t depth) {
    kv_result r = LoadTreeOld(e, node, depth);
    if (r != KV_OK) return r;
    KvMeta::Get(node, L"uiRepeatCount", e.uiRepeatCount);
    return TreeLoadLevels(node, e.uiNextLevelCount, e.ppNextLevelEx, depth);
}

// ---- Comparison

bool SameValidity(const Exp& a, const Exp& b) {
    if (!a.pItemValid && !b.pItemValid) return true;  // counts from files need not be backed by memory
    for (uint32_t i = 0; i < a.uLoopPars.uiCount; ++i) {
        const bool va = !a.pItemValid || a.pItemValid[i];
        const bool vb = !b.pItemValid || b.pItemValid[i];
        if (va != vb) return false;
    }
    return true;
}
bool SamePoint(const SKvExpXYPos& a, const SKvExpXYPos& b, bool all) {
    return KvSameValue(a.dPosX, b.dPosX) && KvSameValue(a.dPosY, b.dPosY) && KvSameValue(a.dPosZ, b.dPosZ) && KvSameValue(a.dHZLOffset, b.dHZLOffset) &&
           (!all || a.dPosName == b.dPosName);
}
bool SameTime(const SKvExpTimeLoop& a, const SKvExpTimeLoop& b, bool all) {
    return a.uiCount == b.uiCount && KvSameValue(a.dStart, b.dStart) && KvSameValue(a.dPeriod, b.dPeriod) && KvSameValue(a.dDuration, b.dDuration) &&
           a.uiLoopType == b.uiLoopType &&
           (!all || (a.wsPhaseName == b.wsPhaseName && a.uiGroup == b.uiGroup && a.bDurationPref == b.bDurationPref &&
                     a.uiStimulationCount == b.uiStimulationCount &&
                     a.sAutoFocusBeforeCapture == b.sAutoFocusBeforeCapture &&
                     a.sAutoFocusBeforePeriod == b.sAutoFocusBeforePeriod));
}

bool Equal(const Exp* a, const Exp* b, bool rec, bool all, uint32_t depth);
bool SameLevels(uint32_t na, Exp* const* a, uint32_t nb, Exp* const* b, bool rec, bool all, uint32_t depth) {
    if (na != nb || (a == nullptr) != (b == nullptr)) return false;
    for (uint32_t i = 0; rec && i < na; ++i)
        if (!Equal(a[i], b[i], rec, all, depth + 1)) return false;
    return true;
}

// Kind-specific rules: items and where they are always; descriptive settings with `all`.
bool SameLoop(const Exp& a, const Exp& b, bool rec, bool all, uint32_t depth) {
    const SKvExpLoopPars& p = a.uLoopPars;
    const SKvExpLoopPars& q = b.uLoopPars;
    switch (a.eType) {
    case Exp::eExpTimeLoop:
    case Exp::eExpManualTimeLoop: {
        SKvExpTimeLoop x = p.TimeLoop, y = q.TimeLoop;
        x.uiCount = y.uiCount = 0;
        return SameTime(x, y, all);
    }
    case Exp::eExpXYPosLoop: {
        const auto &x = p.XYPosLoop, &y = q.XYPosLoop;
        if (x.Points.size() != y.Points.size() || x.bUseZ != y.bUseZ || x.bRelativeXY != y.bRelativeXY) return false;
        for (size_t i = 0; i < x.Points.size(); ++i)
            if (!SamePoint(x.Points[i], y.Points[i], all)) return false;
        return !all || (x.sZDevice == y.sZDevice && x.sAFBefore == y.sAFBefore && KvSameValue(x.dReferenceX, y.dReferenceX) &&
                        KvSameValue(x.dReferenceY, y.dReferenceY));
    }
    case Exp::eExpXYDiscrLoop:
        return p.XYDiscrLoop.uiRow == q.XYDiscrLoop.uiRow && p.XYDiscrLoop.uiCol == q.XYDiscrLoop.uiCol &&
               p.XYDiscrLoop.bUseZ == q.XYDiscrLoop.bUseZ && KvSameValue(p.XYDiscrLoop.dPosZ, q.XYDiscrLoop.dPosZ);
    case Exp::eExpZStackLoop: {
        const auto &x = p.ZStackLoop, &y = q.ZStackLoop;
        return KvSameValue(x.dZLow, y.dZLow) && KvSameValue(x.dZHigh, y.dZHigh) && KvSameValue(x.dZStep, y.dZStep) && KvSameValue(x.dZHome, y.dZHome) &&
               x.bAbsolute == y.bAbsolute && x.bZInverted == y.bZInverted && x.iType == y.iType &&
               (!all || (x.wsZDevice == y.wsZDevice && x.bTIRF == y.bTIRF && KvSameValue(x.dTIRFPosition, y.dTIRFPosition) &&
                         x.wsCommandAfterCapture == y.wsCommandAfterCapture &&
                         x.wsCommandBeforeCapture == y.wsCommandBeforeCapture));
    }
    case Exp::eExpPolarLoop:
        return KvSameValue(p.PolarLoop.dAngleStart, q.PolarLoop.dAngleStart) &&
               KvSameValue(p.PolarLoop.dAngleFinish, q.PolarLoop.dAngleFinish) &&
               p.PolarLoop.bSceneRotates == q.PolarLoop.bSceneRotates;
    case Exp::eExpSpectLoop: {
        const auto &x = p.SpectLoop, &y = q.SpectLoop;
        // No channel descriptions and an empty set of them are the same.
        const uint32_t nx = x.pPlanes ? x.pPlanes->uiCount : 0, ny = y.pPlanes ? y.pPlanes->uiCount : 0;
        if (nx != ny || x.Points.size() != y.Points.size()) return false;
        for (uint32_t i = 0; i < nx; ++i)
            if (!SamePlane(x.pPlanes->pPlanes[i], y.pPlanes->pPlanes[i])) return false;
        for (size_t i = 0; all && i < x.Points.size(); ++i)
            if (x.Points[i].pAutoFocus != y.Points[i].pAutoFocus || x.Points[i].pZStackPos != y.Points[i].pZStackPos)
                return false;
        return !all || x.bMergeCameras == y.bMergeCameras;
    }
    case Exp::eExpCustomLoop: return !all || p.CustomLoop.wsDescription == q.CustomLoop.wsDescription;
    case Exp::eExpNETimeLoop: {
        const auto &x = p.NETimeLoop, &y = q.NETimeLoop;
        if (x.pPeriod.size() != y.pPeriod.size() || x.pPeriodValid != y.pPeriodValid ||
            x.pSubLoops.size() != y.pSubLoops.size())
            return false;
        for (size_t i = 0; i < x.pPeriod.size(); ++i)
            if (!SameTime(x.pPeriod[i], y.pPeriod[i], all)) return false;
        for (size_t i = 0; i < x.pSubLoops.size(); ++i)
            if (!SameLevels(x.pSubLoops[i].uiNextLevelCount, x.pSubLoops[i].ppNextLevelEx,
                            y.pSubLoops[i].uiNextLevelCount, y.pSubLoops[i].ppNextLevelEx, rec, all, depth))
                return false;
        return !all || (x.wsCommandBeforePeriod == y.wsCommandBeforePeriod &&
                        x.wsCommandAfterPeriod == y.wsCommandAfterPeriod);
    }
    default: return true;
    }
}

uint32_t ComparedKind(uint32_t type) { return type == Exp::eExpManualTimeLoop ? Exp::eExpTimeLoop : type; }

bool Equal(const Exp* a, const Exp* b, bool rec, bool all, uint32_t depth) {
    if (!a || !b) return a == b;
    if (depth >= kExpMaxDepth) return false;
    if (ComparedKind(a->eType) != ComparedKind(b->eType) || a->uLoopPars.uiCount != b->uLoopPars.uiCount ||
        a->uiRepeatCount != b->uiRepeatCount || !SameValidity(*a, *b) || !SameLoop(*a, *b, rec, all, depth))
        return false;
    if (!SameLevels(a->uiNextLevelCount, a->ppNextLevelEx, b->uiNextLevelCount, b->ppNextLevelEx, rec, all, depth))
        return false;
    if (!all) return true;
    const bool sameLI = (IsEmptyLI(a->pLargeImage.get()) && IsEmptyLI(b->pLargeImage.get())) ||
                        (a->pLargeImage && b->pLargeImage &&
                         SameLI(a->pLargeImage->sLargeImage, b->pLargeImage->sLargeImage) &&
                         SameLI(a->pLargeImage->sLargeImageEx, b->pLargeImage->sLargeImageEx));
    return sameLI && a->wsApplicationDesc == b->wsApplicationDesc && a->wsUserDesc == b->wsUserDesc &&
           a->aMeasProbesBase64 == b->aMeasProbesBase64 && a->wsCameraName == b->wsCameraName &&
           a->sAutoFocusBeforeLoop == b->sAutoFocusBeforeLoop && a->wsCommandBeforeLoop == b->wsCommandBeforeLoop &&
           a->wsCommandBeforeCapture == b->wsCommandBeforeCapture &&
           a->wsCommandAfterCapture == b->wsCommandAfterCapture && a->wsCommandAfterLoop == b->wsCommandAfterLoop &&
           a->bControlShutter == b->bControlShutter && a->bControlLight == b->bControlLight &&
           a->bUseHZL == b->bUseHZL && a->bUseHWSequencer == b->bUseHWSequencer &&
           a->bUseQoRecipe == b->bUseQoRecipe && a->bUseIntenzityCorrection == b->bUseIntenzityCorrection &&
           a->sParallelExperiment == b->sParallelExperiment;
}

}  // namespace

// ---- SKvExpSubLoop

SKvExpSubLoop::SKvExpSubLoop(SKvExpSubLoop&& o) noexcept
    : uiNextLevelCount(o.uiNextLevelCount), ppNextLevelEx(o.ppNextLevelEx) {
    o.uiNextLevelCount = 0;
    o.ppNextLevelEx = nullptr;
}
SKvExpSubLoop& SKvExpSubLoop::operator=(SKvExpSubLoop&& o) noexcept {
    if (this != &o) {
        FreeLevelArray(uiNextLevelCount, ppNextLevelEx);
        std::swap(uiNextLevelCount, o.uiNextLevelCount);
        std::swap(ppNextLevelEx, o.ppNextLevelEx);
    }
    return *this;
}
SKvExpSubLoop::~SKvExpSubLoop() { FreeLevelArray(uiNextLevelCount, ppNextLevelEx); }

// ---- SKvParallelExperiment

bool SKvParallelExperiment::operator==(const SKvParallelExperiment& o) const {
    if (aTasks.size() != o.aTasks.size() || aEvents.size() != o.aEvents.size()) return false;
    for (size_t i = 0; i < aTasks.size(); ++i)
        if (aTasks[i].uiID != o.aTasks[i].uiID || aTasks[i].wsName != o.aTasks[i].wsName ||
            aTasks[i].wsCommand != o.aTasks[i].wsCommand)
            return false;
    for (size_t i = 0; i < aEvents.size(); ++i)
        if (aEvents[i].uiID != o.aEvents[i].uiID || aEvents[i].uiTaskID != o.aEvents[i].uiTaskID ||
            !KvSameValue(aEvents[i].dTime, o.aEvents[i].dTime))
            return false;
    return true;
}

namespace {
// IDs are one more than the largest in use, so a removed entry's ID is not
// reissued while a later one exists; 0 when they are exhausted.
template <typename T>
uint32_t NextID(const std::vector<T>& entries) {
    uint32_t top = 0;
    for (const auto& e : entries) top = std::max(top, e.uiID);
    return top == UINT32_MAX ? 0 : top + 1;
}
template <typename T>
bool FindByID(const std::vector<T>& entries, uint32_t id, uint32_t* index) {
    for (size_t i = 0; i < entries.size(); ++i)
        if (entries[i].uiID == id) {
            if (index) *index = static_cast<uint32_t>(i);
            return true;
        }
    return false;
}
template <typename T>
uint32_t AddEntry(std::vector<T>& entries, const T& entry) {
    const uint32_t id = NextID(entries);
    if (id == 0) return 0;
    const kv_result r = KvNoThrow([&] {
        entries.push_back(entry);
        entries.back().uiID = id;
        return KV_OK;
    });
    return r == KV_OK ? id : 0;
}
}  // namespace

uint32_t SKvParallelExperiment::AddTask(SKvParallelExperiment& pe, const SKvParallelTask& task) {
    return AddEntry(pe.aTasks, task);
}
uint32_t SKvParallelExperiment::AddEvent(SKvParallelExperiment& pe, const SKvParallelEvent& event) {
    if (!FindTask(pe, event.uiTaskID)) return 0;
    return AddEntry(pe.aEvents, event);
}
bool SKvParallelExperiment::FindTask(const SKvParallelExperiment& pe, uint32_t id, uint32_t* index) {
    return FindByID(pe.aTasks, id, index);
}
bool SKvParallelExperiment::FindEvent(const SKvParallelExperiment& pe, uint32_t id, uint32_t* index) {
    return FindByID(pe.aEvents, id, index);
}
kv_result SKvParallelExperiment::RemoveTask(SKvParallelExperiment& pe, uint32_t id) {
    uint32_t index = 0;
    if (!FindTask(pe, id, &index)) return KV_ERR_NOT_FOUND;
    pe.aTasks.erase(pe.aTasks.begin() + index);
    pe.aEvents.erase(std::remove_if(pe.aEvents.begin(), pe.aEvents.end(),
                                    [id](const SKvParallelEvent& e) { return e.uiTaskID == id; }),
                     pe.aEvents.end());
    return KV_OK;
}
kv_result SKvParallelExperiment::RemoveEvent(SKvParallelExperiment& pe, uint32_t id) {
    uint32_t index = 0;
    if (!FindEvent(pe, id, &index)) return KV_ERR_NOT_FOUND;
    pe.aEvents.erase(pe.aEvents.begin() + index);
    return KV_OK;
}

// ---- SKvExperiment: memory

SKvExperiment::SKvExperiment(SKvExperiment&& other) noexcept { Swap(*this, other); }
SKvExperiment& SKvExperiment::operator=(SKvExperiment&& other) noexcept {
    if (this != &other) {
        SKvExperiment old;
        Swap(old, other);
        Swap(*this, old);
    }
    return *this;
}
SKvExperiment::~SKvExperiment() {
    FreeItemValid(*this);
    FreeNextLevels(*this);
}

void SKvExperiment::Swap(SKvExperiment& a, SKvExperiment& b) noexcept {
    using std::swap;
    swap(a.eType, b.eType);
    a.wsApplicationDesc.Std().swap(b.wsApplicationDesc.Std());
    a.wsUserDesc.Std().swap(b.wsUserDesc.Std());
    a.aMeasProbesBase64.Std().swap(b.aMeasProbesBase64.Std());
    a.wsCameraName.Std().swap(b.wsCameraName.Std());
    swap(a.uLoopPars, b.uLoopPars);
    swap(a.pItemValid, b.pItemValid);
    swap(a.sAutoFocusBeforeLoop, b.sAutoFocusBeforeLoop);
    a.wsCommandBeforeLoop.Std().swap(b.wsCommandBeforeLoop.Std());
    a.wsCommandBeforeCapture.Std().swap(b.wsCommandBeforeCapture.Std());
    a.wsCommandAfterCapture.Std().swap(b.wsCommandAfterCapture.Std());
    a.wsCommandAfterLoop.Std().swap(b.wsCommandAfterLoop.Std());
    swap(a.bControlShutter, b.bControlShutter);
    swap(a.bControlLight, b.bControlLight);
    swap(a.bUseHZL, b.bUseHZL);
    swap(a.bUseHWSequencer, b.bUseHWSequencer);
    swap(a.bUseQoRecipe, b.bUseQoRecipe);
    swap(a.bUseIntenzityCorrection, b.bUseIntenzityCorrection);
    swap(a.pLargeImage, b.pLargeImage);
    swap(a.pNIExperiment, b.pNIExperiment);
    swap(a.pRecordedData, b.pRecordedData);
    swap(a.sParallelExperiment, b.sParallelExperiment);
    swap(a.uiNextLevelCount, b.uiNextLevelCount);
    swap(a.ppNextLevelEx, b.ppNextLevelEx);
    swap(a.uiRepeatCount, b.uiRepeatCount);
}

kv_result SKvExperiment::Alloc(SKvExperiment** pp) {
    if (!pp) return KV_ERR_INVALID_ARG;
    *pp = new (std::nothrow) SKvExperiment;
    return *pp ? KV_OK : KV_ERR_OUT_OF_MEMORY;
}

void SKvExperiment::Free(SKvExperiment* p) {
    if (!p) return;
    delete[] p->ppNextLevelEx;
    p->ppNextLevelEx = nullptr;
    p->uiNextLevelCount = 0;
    for (auto& sub : p->uLoopPars.NETimeLoop.pSubLoops) {
        delete[] sub.ppNextLevelEx;
        sub.ppNextLevelEx = nullptr;
        sub.uiNextLevelCount = 0;
    }
    delete p;
}

void SKvExperiment::FreeRecursive(SKvExperiment* p) { delete p; }

kv_result SKvExperiment::AllocItemValid(SKvExperiment& exp, uint32_t count, uint8_t value) {
    FreeItemValid(exp);
    if (count == 0) return KV_OK;
    exp.pItemValid = new (std::nothrow) uint8_t[count];
    if (!exp.pItemValid) return KV_ERR_OUT_OF_MEMORY;
    std::fill(exp.pItemValid, exp.pItemValid + count, value);
    return KV_OK;
}
void SKvExperiment::FreeItemValid(SKvExperiment& exp) {
    delete[] exp.pItemValid;
    exp.pItemValid = nullptr;
}
kv_result SKvExperiment::AllocNextLevels(SKvExperiment& exp, uint32_t count) {
    FreeNextLevels(exp);
    bool ok = true;
    exp.ppNextLevelEx = NewLevelArray(count, ok);
    if (!ok) return KV_ERR_OUT_OF_MEMORY;
    exp.uiNextLevelCount = count;
    return KV_OK;
}
void SKvExperiment::FreeNextLevels(SKvExperiment& exp) { FreeLevelArray(exp.uiNextLevelCount, exp.ppNextLevelEx); }

kv_result SKvExperiment::Init(SKvExperiment& exp, uint32_t type, uint32_t count) {
    Uninit(exp);
    return KvNoThrow([&] {
        SKvExperiment fresh;
        fresh.eType = type;
        fresh.uLoopPars.uiCount = count;
        SKvExpLoopPars& p = fresh.uLoopPars;
        switch (type) {
        case eExpTimeLoop:
        case eExpManualTimeLoop: p.TimeLoop = SKvExpTimeLoop(); break;
        case eExpXYPosLoop: p.XYPosLoop.Points.resize(count); break;
        case eExpXYDiscrLoop:
            p.XYDiscrLoop.uiRow.resize(count);
            p.XYDiscrLoop.uiCol.resize(count);
            break;
        case eExpSpectLoop: p.SpectLoop.Points.resize(count); break;
        case eExpNETimeLoop:
            p.uiCount = 0;
            p.NETimeLoop.pPeriod.resize(count);
            break;
        default: break;
        }
        Swap(exp, fresh);
        return KV_OK;
    });
}

void SKvExperiment::Uninit(SKvExperiment& exp) {
    SKvExperiment fresh;
    Swap(exp, fresh);
}

kv_result SKvExperiment::Copy(SKvExperiment& dst, const SKvExperiment& src) {
    if (&dst == &src) return KV_OK;
    return KvNoThrow([&] {
        SKvExperiment staged;
        CopyLevel(staged, src, 0);
        Swap(dst, staged);
        return KV_OK;
    });
}

kv_result SKvExperiment::CopyRecursive(SKvExperiment& dst, const SKvExperiment& src, uint32_t flags) {
    if (&dst == &src) return KV_OK;
    return KvNoThrow([&] {
        SKvExperiment staged;
        const kv_result r = CopyTree(staged, src, flags, 0);
        if (r == KV_OK) Swap(dst, staged);
        return r;
    });
}

kv_result SKvExperiment::Duplicate(SKvExperiment** pp, const SKvExperiment& src, uint32_t flags) {
    if (!pp) return KV_ERR_INVALID_ARG;
    SKvExperiment* copy = nullptr;
    kv_result r = Alloc(&copy);
    if (r == KV_OK) r = CopyRecursive(*copy, src, flags);
    if (r != KV_OK) {
        delete copy;
        return r;
    }
    *pp = copy;
    return KV_OK;
}

bool SKvExperiment::IsEqual(const SKvExperiment* a, const SKvExperiment* b, bool bRecursive, bool bAll) {
    return Equal(a, b, bRecursive, bAll, 0);
}

kv_result SKvExperiment::ExtractValidPlanes(SKvPicturePlanes& planes, const SKvExperiment& exp) {
    const SKvPicturePlanes* all = exp.uLoopPars.SpectLoop.pPlanes.get();
    if (exp.eType != eExpSpectLoop || !all) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&] {
        CKvRangeMask mask;
        const uint32_t n = std::min(all->uiCount, exp.uLoopPars.uiCount);
        for (uint32_t i = 0; i < all->uiCount; ++i)
            if (!exp.pItemValid || (i < n && exp.pItemValid[i])) mask.Add(i);
        SKvPicturePlanes out;
        const kv_result r = SKvPicturePlanes::ExtractPlanes(out, *all, mask, 0);
        if (r == KV_OK) planes = out;
        return r;
    });
}

uint32_t SKvExperiment::GetPictureCount(const SKvExperiment* exp) {
    return exp ? CKvExperimentAPI::GetAllImagesCount(exp) : 0;
}

// ---- SKvExperiment: serialisation

kv_result SKvExperiment::SaveToLiteVariant(CKvLiteVariantW& writer, const SKvExperiment& exp) {
    return KvNoThrow([&] {
        KvMeta::CLvLevelWriter level(writer, kLiteLevel);
        if (level.Result() != KV_OK) return KV_ERR_FAILED;
        const kv_result r = WriteLite(writer, exp, 0);
        const kv_result closed = level.Close();
        return r != KV_OK ? r : closed;
    });
}

kv_result SKvExperiment::LoadFromLiteVariant(SKvExperiment& exp, CKvLiteVariantR& reader) {
    return KvNoThrow([&] {
        KvMeta::CLvLevelReader level(reader, kLiteLevel);
        if (!level.IsOpen()) return KV_ERR_FAILED;
        return ReadFromLiteVariant(exp, reader);
    });
}

kv_result SKvExperiment::WriteToLiteVariant(CKvLiteVariantW& writer, const SKvExperiment& exp) {
    return KvNoThrow([&] { return WriteLite(writer, exp, 0); });
}

kv_result SKvExperiment::ReadFromLiteVariant(SKvExperiment& exp, CKvLiteVariantR& reader) {
    return KvNoThrow([&] {
        SKvExperiment staged;
        const kv_result r = ReadLite(staged, reader, 0);
        if (r == KV_OK) Swap(exp, staged);
        return r;
    });
}

kv_result SKvExperiment::SaveToVariant(CKvVariant& node, const SKvExperiment& exp) {
    return KvNoThrow([&] { return SaveTree(node, exp, 0); });
}
kv_result SKvExperiment::SaveToVariantOld(CKvVariant& node, const SKvExperiment& exp) {
    return KvNoThrow([&] { return SaveTreeOld(node, exp, 0); });
}
kv_result SKvExperiment::LoadFromVariant(SKvExperiment& exp, const CKvVariant& node) {
    return KvNoThrow([&] {
        SKvExperiment staged;
        const kv_result r = LoadTree(staged, node, 0);
        if (r == KV_OK) Swap(exp, staged);
        return r;
    });
}
kv_result SKvExperiment::LoadFromVariantOld(SKvExperiment& exp, const CKvVariant& node) {
    return KvNoThrow([&] {
        SKvExperiment staged;
        const kv_result r = LoadTreeOld(staged, node, 0);
        if (r == KV_OK) Swap(exp, staged);
        return r;
    });
}

// ---- Samples: every run type of the tree form, with every member present
// (optional records and empty lists included), so that trees read back from
// lite variants and XML keep all members.
namespace {
const bool s_samplesRegistered = [] {
    KvNoThrow([] {
        for (uint32_t type = 1; type <= 8; ++type) {
            if (type == Exp::eExpTimeLoop) continue;  // the time-loop sample comes from a phase below
            SKvExperiment e;
            e.eType = type;
            if (type == Exp::eExpSpectLoop) e.uLoopPars.SpectLoop.pPlanes = std::make_unique<SKvPicturePlanes>();
            CKvVariant node;
            KvMeta::BeginStruct(node, CKvVariantDataCKvListVariant::m_runTypeOrig);
            SResult r;
            CKvVariant* lp = PutStruct(node, kLoopParsKey, LoopRunType(type));
            if (lp) {
                TreeSaveLoopPars(*lp, r, e, 0);
                if (r.value == KV_OK) KvMeta::RegisterSample(LoopRunType(type), *lp);
            }
        }
        CKvVariant time;
        KvMeta::BeginStruct(time, kRunTypeTime);
        SResult r;
        TreeSaveTime(time, r, SKvExpTimeLoop());
        if (r.value == KV_OK) KvMeta::RegisterSample(kRunTypeTime, time);
        CKvVariant af;
        KvMeta::BeginStruct(af, CKvVariantDataCKvListVariant::m_runTypeOrig);
        TreeSaveStruct(af, r, L"x", kRunTypeAF, SKvExpAutoFocus(), SAF{});
        if (r.value == KV_OK && af.IndexPtr(0)) KvMeta::RegisterSample(kRunTypeAF, *af.IndexPtr(0));
        SKvExperiment e;
        e.pLargeImage = std::make_unique<SKvExpLargeImage>();
        e.pNIExperiment = std::make_unique<SKvExperimentNI>();
        e.pRecordedData = std::make_unique<SKvRecordedData>();
        e.sParallelExperiment.aTasks.resize(1);
        e.sParallelExperiment.aEvents.resize(1);
        CKvVariant node;
        if (SaveTree(node, e, 0) != KV_OK) return KV_OK;
        for (const wchar_t* key : {L"pLargeImage", L"sParallelExperiment"}) {
            const CKvVariant* m = KvMeta::Find(node, key);
            if (m) KvMeta::RegisterSample(CKvStringA(m->GetRunType().GetName()).GetString(), *m);
        }
        if (const CKvVariant* pe = KvMeta::Find(node, L"sParallelExperiment")) {
            const CKvVariant* tasks = KvMeta::Find(*pe, L"aTasks");
            const CKvVariant* events = KvMeta::Find(*pe, L"aEvents");
            if (tasks && tasks->IndexPtr(0)) KvMeta::RegisterSample(kRunTypeTask, *tasks->IndexPtr(0));
            if (events && events->IndexPtr(0)) KvMeta::RegisterSample(kRunTypeEvent, *events->IndexPtr(0));
            // The experiment's own sample keeps its lists empty.
            CKvVariant* mpe = const_cast<CKvVariant*>(pe);
            for (int i = 0; i < 2; ++i)
                if (CKvVariant* list = mpe->IndexPtr(i))
                    KvMeta::BeginStruct(*list, CKvVariantDataCKvListVariant::m_runTypeOrig);
        }
        KvMeta::RegisterSample(kRunType, node);
        return KV_OK;
    });
    return true;
}();
}  // namespace

#include "gnr_metaformats/PictureSequence.h"

#include <algorithm>
#include <new>
#include <utility>


namespace {

using Exp = SKvExperiment;

// Two channel descriptions are the same channel: components, modality,
// colour and name. Settings slots play no part.
bool SamePlane(const SKvPicturePlaneDesc& a, const SKvPicturePlaneDesc& b) {
    return a.uiCompCount == b.uiCompCount && a.uiModalityMask == b.uiModalityMask && a.uiColor == b.uiColor &&
           a.sDescription == b.sDescription;
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
    // An empty large image and none describe the same acquisition.
    const bool emptyA = !a->pLargeImage || a->pLargeImage->IsEmpty();
    const bool emptyB = !b->pLargeImage || b->pLargeImage->IsEmpty();
    const bool sameLI = (emptyA && emptyB) ||
                        (a->pLargeImage && b->pLargeImage &&
                         a->pLargeImage->sLargeImage == b->pLargeImage->sLargeImage &&
                         a->pLargeImage->sLargeImageEx == b->pLargeImage->sLargeImageEx);
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

// ---- SKvLIDesc

bool SKvLIDesc::operator==(const SKvLIDesc& o) const {
    return iMethod == o.iMethod && iXFields == o.iXFields && iYFields == o.iYFields && KvSameValue(dXmm, o.dXmm) &&
           KvSameValue(dYmm, o.dYmm) && bStitch == o.bStitch && bValid == o.bValid &&
           bControlShutter == o.bControlShutter && KvSameValue(dOverlap, o.dOverlap) && uiOrder == o.uiOrder &&
           uiStitchingChannel == o.uiStitchingChannel && sPattern == o.sPattern;
}

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


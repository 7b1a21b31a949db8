// What each loop kind of an experiment stores, listed once per stored form and
// followed alike by that form's saver and loader, and the helpers both forms
// share. Internal to PictureSequenceLite.cpp and PictureSequenceTree.cpp.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "gnr_metaformats/PictureSequence.h"
#include "gnr_system/KvResult.h"

namespace KvExpIO {

using Exp = SKvExperiment;

inline constexpr char kRunType[] = "RKvExperiment";
inline constexpr char kRunTypeTime[] = "RKvExperiment.RKvExpTimeLoop";
inline constexpr char kRunTypeXYPos[] = "RKvExperiment.RKvExpXYPosLoop";
inline constexpr char kRunTypeXYDiscr[] = "RKvExperiment.RKvExpXYDiscrLoop";
inline constexpr char kRunTypeZStack[] = "RKvExperiment.RKvExpZStackLoop";
inline constexpr char kRunTypePolar[] = "RKvExperiment.RKvExpPolarLoop";
inline constexpr char kRunTypeSpect[] = "RKvExperiment.RKvExpSpectLoop";
inline constexpr char kRunTypeCustom[] = "RKvExperiment.RKvExpCustomLoop";
inline constexpr char kRunTypeNETime[] = "RKvExperiment.RKvExpNETimeLoop";
inline constexpr char kRunTypeLI[] = "RKvExperiment.RKvLIDesc";
inline constexpr char kRunTypeAF[] = "RKvExpAutoFocus";
inline constexpr char kRunTypeParallel[] = "RKvParallelExperiment";
inline constexpr char kRunTypeTask[] = "RKvParallelTask";
inline constexpr char kRunTypeEvent[] = "RKvParallelEvent";
inline constexpr wchar_t kLiteLevel[] = L"SKvExperiment";
inline constexpr wchar_t kLoopParsKey[] = L"uLoopPars";
inline constexpr wchar_t kItemValidKey[] = L"pItemValid";
inline constexpr wchar_t kNextLevelsKey[] = L"ppNextLevelEx";
inline constexpr wchar_t kNextCountKey[] = L"uiNextLevelCount";
inline constexpr wchar_t kCountKey[] = L"uiCount";
inline constexpr wchar_t kRepeatKey[] = L"uiRepeatCount";

// The members by which a saver (`Self`) differs from a loader: values kept
// for older readers are written and not read, and the reverse.
template <typename Self>
struct SSaverRole {
    template <typename T>
    void SaveOnly(const wchar_t* key, const T& value) {
        static_cast<Self&>(*this)(key, value);
    }
    template <typename T>
    void LoadOnly(const wchar_t*, const T&) {}
    // The length of a list, which loaders take from what is present.
    template <typename T>
    void Count(const wchar_t* key, const std::vector<T>& list) {
        static_cast<Self&>(*this)(key, static_cast<uint32_t>(list.size()));
    }
};
template <typename Self>
struct SLoaderRole {
    template <typename T>
    void SaveOnly(const wchar_t*, const T&) {}
    template <typename T>
    void LoadOnly(const wchar_t* key, T& value) {
        static_cast<Self&>(*this)(key, value);
    }
    template <typename T>
    void Count(const wchar_t*, const std::vector<T>&) {}
};

// Runs `load` on a fresh experiment and moves it into `exp` only when it
// succeeds, so that a failed load leaves `exp` as it was.
template <typename Load>
kv_result LoadStaged(Exp& exp, Load load) {
    return KvNoThrow([&] {
        Exp staged;
        const kv_result r = load(staged);
        if (r == KV_OK) Exp::Swap(exp, staged);
        return r;
    });
}

// ---- Helpers of both forms (PictureSequenceKinds.cpp)

// Channel descriptions are stored without their per-sample settings slots;
// a loaded set whose component counts are sound gets them back.
void RestorePlaneSettings(SKvPicturePlanes& planes);
// Appends `child` (owned) to a growing level array; false out of memory.
bool PushLevel(uint32_t& count, Exp**& array, std::unique_ptr<Exp> child);
// Counts never exceed what backs them after a load: the points, rows and
// channels present set the item count of their kinds, per-phase lists fit
// the phases, and `valid` (when `hasValid`) caps the count and becomes the
// validity array. Throws std::bad_alloc.
void ClampToPresent(Exp& e, const uint8_t* valid, uint64_t validSize, bool hasValid);
// A tree read back from XML or lite bytes gets every member of the
// registered sample, so records never written come back holding defaults:
// a record of nothing but defaults is taken as absent.
void DropEmptyRecords(Exp& e);

// ---- Records: the fields of each, in stored order. `v(key, field)` is one
// value; the form visitors add the structured members used below.

struct SAutoFocusFields {
    template <typename S, typename V>
    void operator()(S& a, V& v) const {
        v(L"eType", a.eType);
        v(L"dRange", a.dRange);
        v(L"dStep", a.dStep);
        v(L"dOffset", a.dOffset);
    }
};
inline constexpr SAutoFocusFields kAutoFocus{};

// The text goes out under "sPattern" and "sCamera"; a reader takes
// "sPattern", else "sCamera" (read first, so that "sPattern" wins).
struct SLargeImageFields {
    template <typename S, typename V>
    void operator()(S& d, V& v) const {
        v.LoadOnly(L"sCamera", d.sPattern);
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
        v.SaveOnly(L"sCamera", d.sPattern);
    }
};
inline constexpr SLargeImageFields kLargeImage{};

struct STaskFields {
    template <typename S, typename V>
    void operator()(S& t, V& v) const {
        v(L"uiID", t.uiID);
        v(L"wsName", t.wsName);
        v(L"wsCommand", t.wsCommand);
    }
};
struct SEventFields {
    template <typename S, typename V>
    void operator()(S& e, V& v) const {
        v(L"uiID", e.uiID);
        v(L"uiTaskID", e.uiTaskID);
        v(L"dTime", e.dTime);
    }
};

template <typename S, typename V>
void VisitHead(S& e, V& v) {
    v(L"eType", e.eType);
    v(L"wsApplicationDesc", e.wsApplicationDesc);
    v(L"wsUserDesc", e.wsUserDesc);
    v(L"aMeasProbesBase64", e.aMeasProbesBase64);
    v(L"wsCameraName", e.wsCameraName);
}
// Commands and flags; the tree spells the commands with "s" where the lite form has "ws".
template <typename S, typename V>
void VisitCommandsAndFlags(S& e, V& v, bool tree) {
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

// One phase of a multi-phase time lapse in the lite form.
struct SPhaseLiteFields {
    template <typename S, typename V>
    void operator()(S& t, V& v) const {
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
        v.Record(L"sAutoFocusBeforeCapture", kRunTypeAF, t.sAutoFocusBeforeCapture, kAutoFocus);
        v.Record(L"sAutoFocusBeforePeriod", kRunTypeAF, t.sAutoFocusBeforePeriod, kAutoFocus);
    }
};
// A time lapse, or one phase, in the tree form; it keeps the phase count too,
// so that a phase reads back whole.
struct STimeTreeFields {
    template <typename S, typename V>
    void operator()(S& t, V& v) const {
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
        v.Record(L"sAutoFocusBeforePeriod", kRunTypeAF, t.sAutoFocusBeforePeriod, kAutoFocus);
        v.Record(L"sAutoFocusBeforeCapture", kRunTypeAF, t.sAutoFocusBeforeCapture, kAutoFocus);
    }
};
inline constexpr STimeTreeFields kTimeTree{};

// The settings of an XY multipoint loop, the same keys in both forms.
template <typename S, typename V>
void VisitXYPosSettings(S& x, V& v) {
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

// ---- Loop kinds. Each kind lists its parameters once per form: Lite(p, v)
// inside the lite level "uLoopPars", Tree(p, v) inside the tree node of run
// type RunType. `p` is the SKvExpLoopPars, const when saving.
//
// Members beyond v(key, field) and v.Record(key, runType, record, fields):
//   v.Records(key, runType, list, fields)  one record per element: lite a
//       level of unnamed levels, tree a list of "item_%05u" structures;
//   v.Values(key, list)  one value per element (lite: unnamed values in a
//       level written only when the list is not empty; tree: "item_%05u");
//   v.Column(key, points, &Point::field[, fields, runType])  tree only: one
//       field of every point as a list of "item_%05u" values (or structures);
//       the first column of a kind sets the point count when loading;
//   v.Count(key, list)  the list's length, saved only (the loader counts
//       what is present);
//   v.Flags(key, bytes)  per-phase validity: lite bytes, tree bools;
//   v.SubLoops(key, subLoops)  the experiments nested under each phase;
//   v.Planes(key, planes), v.PlaneDesc(key, spect, point),
//   v.PlaneDescs(key, spect)  channel descriptions: the current form, and
//       the older per-channel form kept for older readers (saved only).

// The item count alone: XY discrete, polar, custom and unknown kinds in the lite form.
struct SCountOnly {
    template <typename P, typename V>
    static void Lite(P& p, V& v) {
        v(kCountKey, p.uiCount);
    }
};

// Time lapse (kind 1) and manual time lapse (kind 9), which the lite form
// stores by its count alone. The tree form of kind 0 and unknown kinds holds
// the time-lapse record too.
struct STimeKind {
    static constexpr const char* kTreeRunType = kRunTypeTime;
    template <typename P, typename V>
    static void Lite(P& p, V& v) {
        SCountOnly::Lite(p, v);
        auto& t = p.TimeLoop;
        v(L"dStart", t.dStart);
        v(L"dPeriod", t.dPeriod);
        v(L"dDuration", t.dDuration);
        v(L"bDurationPref", t.bDurationPref);
        v(L"dMaxPeriodDiff", t.dMaxPeriodDiff);
        v(L"dMinPeriodDiff", t.dMinPeriodDiff);
        v(L"dAvgPeriodDiff", t.dAvgPeriodDiff);
        v.Record(L"sAutoFocusBeforeCapture", kRunTypeAF, t.sAutoFocusBeforeCapture, kAutoFocus);
    }
    template <typename P, typename V>
    static void Tree(P& p, V& v) {
        kTimeTree(p.TimeLoop, v);
    }
};
struct SOtherTimeKind : SCountOnly {
    static constexpr const char* kTreeRunType = kRunTypeTime;
    template <typename P, typename V>
    static void Tree(P& p, V& v) {
        STimeKind::Tree(p, v);
    }
};

struct SXYPosKind {
    static constexpr const char* kTreeRunType = kRunTypeXYPos;
    struct SPointFields {
        template <typename S, typename V>
        void operator()(S& pt, V& v) const {
            v(L"dHZLOffset", pt.dHZLOffset);
            v(L"dPosX", pt.dPosX);
            v(L"dPosY", pt.dPosY);
            v(L"dPosZ", pt.dPosZ);
            v(L"dPosName", pt.dPosName);
        }
    };
    template <typename P, typename V>
    static void Lite(P& p, V& v) {
        SCountOnly::Lite(p, v);
        auto& x = p.XYPosLoop;
        VisitXYPosSettings(x, v);
        v.Record(L"sAFBefore", kRunTypeAF, x.sAFBefore, kAutoFocus);
        v.Records(L"Points", nullptr, x.Points, SPointFields{});
    }
    template <typename P, typename V>
    static void Tree(P& p, V& v) {
        auto& x = p.XYPosLoop;
        v(kCountKey, p.uiCount);
        // A point is whatever the X list holds; shorter lists leave defaults.
        v.Column(L"dPosX", x.Points, &SKvExpXYPos::dPosX);
        v.Column(L"dPosY", x.Points, &SKvExpXYPos::dPosY);
        v.Column(L"dPosZ", x.Points, &SKvExpXYPos::dPosZ);
        v.Column(L"dHZLOffset", x.Points, &SKvExpXYPos::dHZLOffset);
        v.Column(L"pPosName", x.Points, &SKvExpXYPos::dPosName);
        VisitXYPosSettings(x, v);
        v.Record(L"sAutoFocusBeforeCapture", kRunTypeAF, x.sAFBefore, kAutoFocus);
    }
};

struct SXYDiscrKind : SCountOnly {
    static constexpr const char* kTreeRunType = kRunTypeXYDiscr;
    template <typename P, typename V>
    static void Tree(P& p, V& v) {
        auto& d = p.XYDiscrLoop;
        v.Values(L"uiRow", d.uiRow);
        v.Values(L"uiCol", d.uiCol);
        v(L"bUseZ", d.bUseZ);
        v(L"dPosZ", d.dPosZ);
    }
};

struct SZStackKind {
    static constexpr const char* kTreeRunType = kRunTypeZStack;
    template <typename P, typename V>
    static void Lite(P& p, V& v) {
        SCountOnly::Lite(p, v);
        auto& z = p.ZStackLoop;
        v(L"bAbsolute", z.bAbsolute);
        v(L"bTriggeredPiezo", z.bTriggeredPiezo);
        v(L"bZInverted", z.bZInverted);
        v(L"dReferencePosition", z.dReferencePosition);
        v(L"dTIRFPosition", z.dTIRFPosition);
        v(L"dTIRFHZLOffset", z.dTIRFHZLOffset);
        v(L"bTIRF", z.bTIRF);
        v(L"dZHigh", z.dZHigh);
        v(L"dZHome", z.dZHome);
        // "dZLow" twice in a row: older readers take the second occurrence.
        v(L"dZLow", z.dZLow);
        v(L"dZLow", z.dZLow);
        v(L"dZStep", z.dZStep);
        v(L"iType", z.iType);
        v(L"wsCommandAfterCapture", z.wsCommandAfterCapture);
        v(L"wsCommandBeforeCapture", z.wsCommandBeforeCapture);
        v(L"wsZDevice", z.wsZDevice);
    }
    template <typename P, typename V>
    static void Tree(P& p, V& v) {
        auto& z = p.ZStackLoop;
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
};

struct SPolarKind : SCountOnly {
    static constexpr const char* kTreeRunType = kRunTypePolar;
    template <typename P, typename V>
    static void Tree(P& p, V& v) {
        v(L"dAngleStart", p.PolarLoop.dAngleStart);
        v(L"dAngleFinish", p.PolarLoop.dAngleFinish);
        v(L"bSceneRotates", p.PolarLoop.bSceneRotates);
    }
};

// Spectral: the lite form stores no count, the channels present are the count.
struct SSpectKind {
    static constexpr const char* kTreeRunType = kRunTypeSpect;
    template <typename P, typename V>
    static void Lite(P& p, V& v) {
        auto& s = p.SpectLoop;
        v.Planes(L"pPlanes", s.pPlanes);
        v(L"bMergeCameras", s.bMergeCameras);
        v.Records(L"Points", nullptr, s.Points, [&s](auto& pt, auto& pv) {
            pv.Record(L"pAutoFocus", kRunTypeAF, pt.pAutoFocus, kAutoFocus);
            pv.PlaneDesc(L"pPlaneDesc", s, pt);
            pv(L"wsCommandAfterCapture", pt.wsCommandAfterCapture);
            pv(L"wsCommandBeforeCapture", pt.wsCommandBeforeCapture);
            pv(L"pZStackPos", pt.pZStackPos);
        });
    }
    template <typename P, typename V>
    static void Tree(P& p, V& v) {
        auto& s = p.SpectLoop;
        v(L"bMergeCameras", s.bMergeCameras);
        v.PlaneDescs(L"pPlaneDesc", s);
        v.Planes(L"pPlanes", s.pPlanes);
        v.Column(L"pAutoFocus", s.Points, &SKvExpSpectPoint::pAutoFocus, kAutoFocus, kRunTypeAF);
        v.Column(L"szCommandBeforeCapture", s.Points, &SKvExpSpectPoint::wsCommandBeforeCapture);
        v.Column(L"szCommandAfterCapture", s.Points, &SKvExpSpectPoint::wsCommandAfterCapture);
        v.Column(L"pZStackPos", s.Points, &SKvExpSpectPoint::pZStackPos);
    }
};

struct SCustomKind : SCountOnly {
    static constexpr const char* kTreeRunType = kRunTypeCustom;
    template <typename P, typename V>
    static void Tree(P& p, V& v) {
        v(L"wsDescription", p.CustomLoop.wsDescription);
    }
};

struct SNETimeKind {
    static constexpr const char* kTreeRunType = kRunTypeNETime;
    template <typename P, typename V>
    static void Lite(P& p, V& v) {
        SCountOnly::Lite(p, v);
        auto& ne = p.NETimeLoop;
        v.Count(L"uiPeriodCount", ne.pPeriod);
        v.Records(L"pPeriod", nullptr, ne.pPeriod, SPhaseLiteFields{});
        v.Values(L"wsCommandAfterPeriod", ne.wsCommandAfterPeriod);
        v.Values(L"wsCommandBeforePeriod", ne.wsCommandBeforePeriod);
        v.Flags(L"pPeriodValid", ne.pPeriodValid);
        v.SubLoops(L"pSubLoops", ne.pSubLoops);
        v.Record(L"sAutoFocusBeforeCapture", kRunTypeAF, ne.sAutoFocusBeforeCapture, kAutoFocus);
        v.Record(L"sAutoFocusBeforePeriod", kRunTypeAF, ne.sAutoFocusBeforePeriod, kAutoFocus);
    }
    template <typename P, typename V>
    static void Tree(P& p, V& v) {
        auto& ne = p.NETimeLoop;
        v.Count(L"uiPeriodCount", ne.pPeriod);
        v.Record(L"sAutoFocusBeforePeriod", kRunTypeAF, ne.sAutoFocusBeforePeriod, kAutoFocus);
        v.Record(L"sAutoFocusBeforeCapture", kRunTypeAF, ne.sAutoFocusBeforeCapture, kAutoFocus);
        v.SubLoops(L"pSubLoops", ne.pSubLoops);
        v.Records(L"pPeriod", kRunTypeTime, ne.pPeriod, kTimeTree);
        v.Values(L"szCommandBeforePeriod", ne.wsCommandBeforePeriod);
        v.Values(L"szCommandAfterPeriod", ne.wsCommandAfterPeriod);
        v.Flags(L"pPeriodValid", ne.pPeriodValid);
    }
};

// Calls `f` with the table of loop kind `type`: the one place that tells the kinds apart.
template <typename F>
void WithLoopKind(uint32_t type, F&& f) {
    switch (type) {
    case Exp::eExpTimeLoop: return f(STimeKind{});
    case Exp::eExpXYPosLoop: return f(SXYPosKind{});
    case Exp::eExpXYDiscrLoop: return f(SXYDiscrKind{});
    case Exp::eExpZStackLoop: return f(SZStackKind{});
    case Exp::eExpPolarLoop: return f(SPolarKind{});
    case Exp::eExpSpectLoop: return f(SSpectKind{});
    case Exp::eExpCustomLoop: return f(SCustomKind{});
    case Exp::eExpNETimeLoop: return f(SNETimeKind{});
    default: return f(SOtherTimeKind{});  // kinds 0, 9 and unknown
    }
}

// The tree run type of the loop parameters of kind `type`.
inline const char* LoopRunType(uint32_t type) {
    const char* runType = kRunTypeTime;
    WithLoopKind(type, [&](auto kind) { runType = decltype(kind)::kTreeRunType; });
    return runType;
}

}  // namespace KvExpIO

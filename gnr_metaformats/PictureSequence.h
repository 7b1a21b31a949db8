// How the frames of a file were acquired: a tree of nested loops (time lapse,
// stage points, Z stack, spectral channels, ...), each level with its own
// parameters and its next-level loops. Saved as a variant tree (run type
// "RKvExperiment") and as a lite variant (level "SKvExperiment").
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "gnr_metaformats/ExperimentRecord.h"
#include "gnr_metaformats/PicturePlanes.h"
#include "gnr_system/CKvLiteVariant.h"
#include "gnr_system/CKvString.h"
#include "gnr_system/CKvVariant.h"
#include "gnr_system/KvResult.h"

struct SKvExperiment;

// Deepest loop nesting a file may hold (levels counted from the top, through
// next-level experiments and multi-phase sub-loops alike). Real acquisitions
// nest a handful of loops; the bound keeps damaged input from exhausting the
// stack of the recursive readers, writers and walks. A lite variant nests at
// most 128 levels and each loop level takes two of them (plus up to five
// inside its parameters), so 32 also keeps every valid tree storable.
constexpr uint32_t kExpMaxDepth = 32;

// Most items a level may have to be saved in the tree form, which stores one
// flag node per item (about 100 bytes each in memory). The lite form stores
// one byte per item and has no such bound.
constexpr uint32_t kExpMaxTreeItems = 10000000;

// Flags of SKvExperiment::CopyRecursive and Duplicate.
constexpr uint32_t kExpCopyNoItemValid = 0x1;  // the copy gets no item-validity arrays (every item valid)
constexpr uint32_t kExpCopyNoRecords = 0x2;    // the copy gets no NI experiment, recorded data or large image

// Equality of two stored doubles in which a NaN (which files may hold)
// matches a NaN, so that a copy of anything loaded compares equal to it.
inline bool KvSameValue(double a, double b) { return a == b || (a != a && b != b); }

// Autofocus run before a loop, before a capture or before a phase.
// Lite keys "eType", "dRange", "dStep", "dOffset"; tree run type "RKvExpAutoFocus", same keys.
struct SKvExpAutoFocus {
    enum EType : uint32_t { eNone = 0, eSoftware = 1, eHardware = 2 };
    uint32_t eType = eNone;
    double dRange = 0.0;   // scanned Z range, µm
    double dStep = 0.0;    // Z step of the scan, µm
    double dOffset = 0.0;  // offset added to the found focus, µm

    bool operator==(const SKvExpAutoFocus& o) const {
        return eType == o.eType && KvSameValue(dRange, o.dRange) && KvSameValue(dStep, o.dStep) &&
               KvSameValue(dOffset, o.dOffset);
    }
    bool operator!=(const SKvExpAutoFocus& o) const { return !(*this == o); }
};

// Time lapse (kinds 1 and 9), and one phase of a multi-phase time lapse.
struct SKvExpTimeLoop {
    uint32_t uiCount = 0;  // items of the phase; unused (0) for kinds 1 and 9, whose count is SKvExpLoopPars::uiCount
    double dStart = 0.0;
    double dPeriod = 0.0;
    double dDuration = 0.0;
    bool bDurationPref = false;  // the duration, not the count, was chosen by the user
    double dMaxPeriodDiff = 0.0;
    double dMinPeriodDiff = 0.0;
    double dAvgPeriodDiff = 0.0;
    SKvExpAutoFocus sAutoFocusBeforeCapture;
    // Phase-only fields (multi-phase time lapse).
    uint32_t uiGroup = 0;
    uint32_t uiStimulationCount = 0;
    uint32_t uiLoopType = 0;  // a phase with either of the two low bits set yields no frames
    CKvStringW wsPhaseName;
    SKvExpAutoFocus sAutoFocusBeforePeriod;
};
using SKvExpManualTimeLoop = SKvExpTimeLoop;

// One stage point of an XY multipoint loop.
struct SKvExpXYPos {
    double dPosX = 0.0;
    double dPosY = 0.0;
    double dPosZ = 0.0;
    double dHZLOffset = 0.0;
    CKvStringW dPosName;  // a text despite its prefix, as the stored key
};

// XY multipoint (kind 2). Points holds exactly SKvExpLoopPars::uiCount points.
struct SKvExpXYPosLoop {
    bool bRelativeXY = false;
    double dReferenceX = 0.0;
    double dReferenceY = 0.0;
    bool bRedefineAfterHZL = false;
    bool bRedefineAfterAutoFocus = false;
    bool bKeepHZLOn = false;
    bool bSplitMultipoints = false;
    bool bUseZ = false;
    CKvStringW sZDevice;
    SKvExpAutoFocus sAFBefore;  // tree key "sAutoFocusBeforeCapture"
    std::vector<SKvExpXYPos> Points;
};

// XY discrete (kind 3): wells of a plate by row and column. uiRow and uiCol
// are either both empty (positions not known, as after a lite load, which
// keeps only the count) or both SKvExpLoopPars::uiCount long.
struct SKvExpXYDiscrLoop {
    std::vector<uint32_t> uiRow;
    std::vector<uint32_t> uiCol;
    bool bUseZ = false;
    double dPosZ = 0.0;
};

// Z stack (kind 4).
struct SKvExpZStackLoop {
    bool bAbsolute = false;
    bool bTriggeredPiezo = false;
    bool bZInverted = false;
    double dReferencePosition = 0.0;
    double dTIRFPosition = 0.0;
    double dTIRFHZLOffset = 0.0;
    bool bTIRF = false;
    double dZHigh = 0.0;
    double dZHighHZLOffset = 0.0;  // tree form only
    double dZHome = 0.0;
    double dZLow = 0.0;
    double dZLowHZLOffset = 0.0;   // tree form only
    double dZStep = 0.0;
    int32_t iType = 0;             // how the range was defined (top/bottom, symmetric, ...)
    CKvStringW wsCommandAfterCapture;
    CKvStringW wsCommandBeforeCapture;
    CKvStringW wsZDevice;
};

// Polar (kind 5): rotation of the scene or stage.
struct SKvExpPolarLoop {
    double dAngleStart = 0.0;
    double dAngleFinish = 0.0;
    bool bSceneRotates = false;
};

// One channel of a spectral loop.
struct SKvExpSpectPoint {
    SKvExpAutoFocus pAutoFocus;
    CKvStringW wsCommandAfterCapture;
    CKvStringW wsCommandBeforeCapture;
    int32_t pZStackPos = 0;  // Z-stack position the channel is taken at (an integer despite its prefix)
};

// Spectral (kind 6). Points holds exactly SKvExpLoopPars::uiCount channels;
// pPlanes, when present, describes them (its uiCount may differ only in
// damaged input; readers use the smaller).
struct SKvExpSpectLoop {
    std::unique_ptr<SKvPicturePlanes> pPlanes;  // null: channel descriptions not known
    bool bMergeCameras = false;
    std::vector<SKvExpSpectPoint> Points;
};

// Custom (kind 7).
struct SKvExpCustomLoop {
    CKvStringW wsDescription;
};

// The loops nested under one phase of a multi-phase time lapse. Owns its
// experiments as SKvExperiment owns its next levels.
struct SKvExpSubLoop {
    SKvExpSubLoop() = default;
    SKvExpSubLoop(const SKvExpSubLoop&) = delete;
    SKvExpSubLoop& operator=(const SKvExpSubLoop&) = delete;
    SKvExpSubLoop(SKvExpSubLoop&& other) noexcept;
    SKvExpSubLoop& operator=(SKvExpSubLoop&& other) noexcept;
    ~SKvExpSubLoop();

    uint32_t uiNextLevelCount = 0;
    SKvExperiment** ppNextLevelEx = nullptr;  // owned array of owned pointers (slots may be null), or null
};

// Multi-phase time lapse (kind 8). The per-phase vectors are either empty
// (none stored) or as long as pPeriod.
struct SKvExpNETimeLoop {
    std::vector<SKvExpTimeLoop> pPeriod;              // the phases ("uiPeriodCount" = its size)
    std::vector<CKvStringW> wsCommandBeforePeriod;
    std::vector<CKvStringW> wsCommandAfterPeriod;
    std::vector<uint8_t> pPeriodValid;                // 0 = phase skipped; empty: all valid
    std::vector<SKvExpSubLoop> pSubLoops;             // empty: no sub-loops
    SKvExpAutoFocus sAutoFocusBeforeCapture;
    SKvExpAutoFocus sAutoFocusBeforePeriod;
};

// The parameters of one loop level. uiCount is the item count of every kind;
// only the record of the level's kind is meaningful, the others stay default.
struct SKvExpLoopPars {
    uint32_t uiCount = 0;
    SKvExpTimeLoop TimeLoop;          // kinds 1 and 9
    SKvExpXYPosLoop XYPosLoop;        // kind 2
    SKvExpXYDiscrLoop XYDiscrLoop;    // kind 3
    SKvExpZStackLoop ZStackLoop;      // kind 4
    SKvExpPolarLoop PolarLoop;        // kind 5
    SKvExpSpectLoop SpectLoop;        // kind 6
    SKvExpCustomLoop CustomLoop;      // kind 7
    SKvExpNETimeLoop NETimeLoop;      // kind 8
};

// One large-image (tiled scan) descriptor. Lite and tree keys as the field
// names, except that the text is written twice, as "sPattern" and "sCamera";
// a reader takes "sPattern", else "sCamera". Tree run type "RKvExperiment.RKvLIDesc".
struct SKvLIDesc {
    int32_t iMethod = 0;
    int32_t iXFields = 0;
    int32_t iYFields = 0;
    double dXmm = 0.0;
    double dYmm = 0.0;
    bool bStitch = false;
    bool bValid = false;
    bool bControlShutter = false;
    double dOverlap = 0.0;
    uint32_t uiOrder = 0;
    uint32_t uiStitchingChannel = 0;
    CKvStringW sPattern;

    bool operator==(const SKvLIDesc& o) const;
    bool operator!=(const SKvLIDesc& o) const { return !(*this == o); }
};

// The large-image record of a level: levels "pLargeImage" and "pLargeImageEx".
struct SKvExpLargeImage {
    SKvLIDesc sLargeImage;
    SKvLIDesc sLargeImageEx;

    // Both descriptors hold only defaults: the same acquisition as no large image.
    bool IsEmpty() const { return sLargeImage == SKvLIDesc() && sLargeImageEx == SKvLIDesc(); }
};

// A task run beside the loops (a macro, a stimulation program, ...).
// Lite keys "uiID", "wsName", "wsCommand"; tree run type "RKvParallelTask".
struct SKvParallelTask {
    uint32_t uiID = 0;  // unique within the parallel experiment, 1 and up
    CKvStringW wsName;
    CKvStringW wsCommand;
};

// A moment at which a task starts. Lite keys "uiID", "uiTaskID", "dTime";
// tree run type "RKvParallelEvent".
struct SKvParallelEvent {
    uint32_t uiID = 0;      // unique within the parallel experiment, 1 and up
    uint32_t uiTaskID = 0;  // the task started
    double dTime = 0.0;     // ms from the start of the acquisition
};

// Tasks and the events that start them, running beside the loop. Lite:
// levels "Tasks" and "Events", one unnamed level per entry. Tree: run type
// "RKvParallelExperiment" with lists "aTasks" and "aEvents".
struct SKvParallelExperiment {
    std::vector<SKvParallelTask> aTasks;
    std::vector<SKvParallelEvent> aEvents;

    bool operator==(const SKvParallelExperiment& o) const;
    bool operator!=(const SKvParallelExperiment& o) const { return !(*this == o); }

    // Appends a copy of `task` under a fresh ID (its own uiID is ignored),
    // answered; 0 out of memory or IDs exhausted.
    static uint32_t AddTask(SKvParallelExperiment& pe, const SKvParallelTask& task);
    // Appends a copy of `event` under a fresh ID, answered; 0 when its task
    // does not exist, out of memory or IDs exhausted.
    static uint32_t AddEvent(SKvParallelExperiment& pe, const SKvParallelEvent& event);
    // Whether an entry has `id`; `index` receives its place when given.
    static bool FindTask(const SKvParallelExperiment& pe, uint32_t id, uint32_t* index = nullptr);
    static bool FindEvent(const SKvParallelExperiment& pe, uint32_t id, uint32_t* index = nullptr);
    // Removes the task and every event that starts it; KV_ERR_NOT_FOUND when not found.
    static kv_result RemoveTask(SKvParallelExperiment& pe, uint32_t id);
    // KV_ERR_NOT_FOUND when not found.
    static kv_result RemoveEvent(SKvParallelExperiment& pe, uint32_t id);
};

struct SKvExperiment {
    // Loop kinds, the values stored in files.
    enum EKvExperimentType : uint32_t {
        eExpNone = 0,
        eExpTimeLoop = 1,
        eExpXYPosLoop = 2,
        eExpXYDiscrLoop = 3,
        eExpZStackLoop = 4,
        eExpPolarLoop = 5,
        eExpSpectLoop = 6,
        eExpCustomLoop = 7,
        eExpNETimeLoop = 8,
        eExpManualTimeLoop = 9,
    };

    SKvExperiment() = default;
    // Not copyable (use Copy / CopyRecursive, which report out of memory);
    // moving takes over the whole subtree.
    SKvExperiment(const SKvExperiment&) = delete;
    SKvExperiment& operator=(const SKvExperiment&) = delete;
    SKvExperiment(SKvExperiment&& other) noexcept;
    SKvExperiment& operator=(SKvExperiment&& other) noexcept;
    // Releases the whole subtree.
    ~SKvExperiment();

    uint32_t eType = eExpNone;  // EKvExperimentType
    CKvStringW wsApplicationDesc;
    CKvStringW wsUserDesc;
    CKvStringW aMeasProbesBase64;
    CKvStringW wsCameraName;
    SKvExpLoopPars uLoopPars;
    // Owned, uLoopPars.uiCount bytes (0 = item skipped), or null (all valid).
    // Whoever changes the count keeps the array at least that long; loading
    // guarantees it (see LoadFromLiteVariant).
    uint8_t* pItemValid = nullptr;
    SKvExpAutoFocus sAutoFocusBeforeLoop;
    CKvStringW wsCommandBeforeLoop;
    CKvStringW wsCommandBeforeCapture;
    CKvStringW wsCommandAfterCapture;
    CKvStringW wsCommandAfterLoop;
    bool bControlShutter = false;
    bool bControlLight = false;
    bool bUseHZL = false;
    bool bUseHWSequencer = false;
    bool bUseQoRecipe = false;
    bool bUseIntenzityCorrection = false;
    std::unique_ptr<SKvExpLargeImage> pLargeImage;   // null: none
    std::unique_ptr<SKvExperimentNI> pNIExperiment;  // null: none
    std::unique_ptr<SKvRecordedData> pRecordedData;  // null: none
    SKvParallelExperiment sParallelExperiment;
    uint32_t uiNextLevelCount = 0;
    SKvExperiment** ppNextLevelEx = nullptr;  // owned array of owned pointers (slots may be null), or null
    uint32_t uiRepeatCount = 0;  // how often this level repeats inside its parent

    // ---- Memory
    // *pp = a new default experiment; KV_ERR_INVALID_ARG for null pp, KV_ERR_OUT_OF_MEMORY when memory runs out.
    static kv_result Alloc(SKvExperiment** pp);
    // Deletes `p` and its next-level array, but not the experiments in that
    // array (nor those of multi-phase sub-loops): the caller has taken them over.
    static void Free(SKvExperiment* p);
    // Deletes `p` and everything below it. Null is allowed.
    static void FreeRecursive(SKvExperiment* p);
    // Makes `exp` a fresh level of kind `type` (any value) with `count` items:
    // default points for kind 2, channels for kind 6, phases (each of 0 items)
    // for kind 8, zero rows/columns for kind 3; no validity array, no next
    // levels. Kinds 1 and 9 share one branch. KV_ERR_OUT_OF_MEMORY when memory runs out (`exp` then
    // default), KV_ERR_INVALID_ARG when a per-item kind's count cannot be allocated.
    static kv_result Init(SKvExperiment& exp, uint32_t type, uint32_t count = 0);
    // Back to a default experiment, everything below released.
    static void Uninit(SKvExperiment& exp);
    // Level-only copy: every field of `src` except its next-level experiments
    // and multi-phase sub-loops; `dst` loses its own. KV_ERR_OUT_OF_MEMORY when memory runs out, `dst`
    // then unchanged.
    static kv_result Copy(SKvExperiment& dst, const SKvExperiment& src);
    // Copy of the whole subtree, with kExpCopy* `flags`. KV_ERR_OUT_OF_MEMORY when memory runs out,
    // KV_ERR_FAILED when `src` nests deeper than kExpMaxDepth; `dst` unchanged then.
    static kv_result CopyRecursive(SKvExperiment& dst, const SKvExperiment& src, uint32_t flags = 0);
    // *pp = a new CopyRecursive of `src`; KV_ERR_INVALID_ARG for a null pp,
    // KV_ERR_OUT_OF_MEMORY, KV_ERR_FAILED (then *pp untouched).
    static kv_result Duplicate(SKvExperiment** pp, const SKvExperiment& src, uint32_t flags = 0);
    // Two null experiments are equal, one null is not. Always compared: kind
    // (9 counts as 1), item count, item validity (null = all 1), and the
    // loop parameters that define where items are (time start/period/
    // duration, points, rows/columns, Z range and step, angles, channels
    // with their plane descriptions, phases with their counts and validity),
    // and the repeat count. With `bAll` also texts, commands, flags,
    // autofocus, large image and parallel experiment. With `bRecursive`
    // next levels and sub-loops are compared in order, else only their counts.
    static bool IsEqual(const SKvExperiment* a, const SKvExperiment* b, bool bRecursive, bool bAll);
    // The planes of the valid channels of a spectral level, in order (all
    // channels without a validity array). KV_ERR_INVALID_ARG when `exp` is not spectral or
    // has no plane descriptions; KV_ERR_OUT_OF_MEMORY when memory runs out (`planes` unchanged then).
    static kv_result ExtractValidPlanes(SKvPicturePlanes& planes, const SKvExperiment& exp);
    // Frames the experiment describes (0 for null).
    static uint32_t GetPictureCount(const SKvExperiment* exp);

    // ---- Item validity and next levels
    // Replaces the validity array by `count` bytes of `value` (none for 0). KV_ERR_OUT_OF_MEMORY.
    static kv_result AllocItemValid(SKvExperiment& exp, uint32_t count, uint8_t value = 1);
    static void FreeItemValid(SKvExperiment& exp);
    // Replaces the next-level array (everything in it released) by `count`
    // null slots (no array for 0). KV_ERR_OUT_OF_MEMORY.
    static kv_result AllocNextLevels(SKvExperiment& exp, uint32_t count);
    // Releases the next-level array and everything in it.
    static void FreeNextLevels(SKvExperiment& exp);
    static void Swap(SKvExperiment& a, SKvExperiment& b) noexcept;

    // ---- Serialisation
    // Lite: SaveToLiteVariant opens level "SKvExperiment" (KV_ERR_FAILED when it cannot)
    // and writes the record with WriteToLiteVariant; next levels go into
    // level "ppNextLevelEx" as unnamed levels of the same record.
    // LoadFromLiteVariant enters level "SKvExperiment" (KV_ERR_FAILED when missing) and
    // reads with ReadFromLiteVariant into a staged copy, so that a failure
    // leaves `exp` as it was. Damaged counts never drive an allocation:
    // next levels, points, channels and phases are what is present (a larger
    // stored count shrinks to it); a validity array longer than the item
    // count is cut to it, a shorter one shrinks the count to its length.
    // Nesting deeper than kExpMaxDepth is refused with KV_ERR_FAILED.
    static kv_result SaveToLiteVariant(CKvLiteVariantW& writer, const SKvExperiment& exp);
    static kv_result LoadFromLiteVariant(SKvExperiment& exp, CKvLiteVariantR& reader);
    static kv_result WriteToLiteVariant(CKvLiteVariantW& writer, const SKvExperiment& exp);
    static kv_result ReadFromLiteVariant(SKvExperiment& exp, CKvLiteVariantR& reader);
    // Tree: SaveToVariant writes the older form (SaveToVariantOld), then
    // "uiRepeatCount" and the list "ppNextLevelEx" of the present next levels.
    // LoadFromVariant reads them back (KV_ERR_INVALID_ARG for a node of another run type),
    // keeping the next levels of run type "RKvExperiment" that load without
    // error; same counting rules and depth bound as the lite form. In the
    // tree the item count is the length of "pItemValid", always written; a
    // list of all true reads back as no validity array. Saving a level of
    // more than kExpMaxTreeItems items is refused with KV_ERR_FAILED.
    static kv_result SaveToVariant(CKvVariant& node, const SKvExperiment& exp);
    static kv_result LoadFromVariant(SKvExperiment& exp, const CKvVariant& node);
    static kv_result SaveToVariantOld(CKvVariant& node, const SKvExperiment& exp);
    static kv_result LoadFromVariantOld(SKvExperiment& exp, const CKvVariant& node);
};

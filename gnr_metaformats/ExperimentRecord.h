// The event log of an acquisition (marks, phase changes, stimulations, kept
// sorted by time), the description of the signals recorded beside the frames,
// and the setup of the data-acquisition device that watched and drove them.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "gnr_system/CKvByteArray.h"
#include "gnr_system/CKvLiteVariant.h"
#include "gnr_system/CKvString.h"
#include "gnr_system/CKvVariant.h"
#include "gnr_system/KvResult.h"

// The event array of a record grows in whole blocks of this many bytes, so
// that a log written one event at a time is not reallocated at every event.
constexpr size_t kEventBlockBytes = 4096;
// GetNext treats an event up to this many time units after the given time as
// already reached: callers ask with the time of the event they stand on, and
// times that went through text or single precision come back slightly off.
constexpr double kEventTimeTolerance = 0.01;
// Description of the event logged when the user ends an acquisition by hand.
constexpr wchar_t kEventTextInteractiveFinish[] = L"Interactive Finish";

// One entry of the event log.
struct SKvExperimentEvent {
    // What the event records.
    enum EMeaning : uint32_t {
        eMeaningUndefined = 0,
        eMeaningUserMark = 1,         // a mark the user set during the acquisition
        eMeaningPhaseChange = 2,      // a time-lapse phase began
        eMeaningStimulation = 3,      // a stimulation was applied (see pStimulation)
        eMeaningCommand = 4,          // a command or macro ran
        eMeaningFinish = 5,           // the acquisition ended before its plan did
    };

    // A stimulation applied at the event's time.
    struct SKvStimulationDescription {
        enum EStimulationType : uint32_t {
            eStimulationNone = 0,     // never stored: SetStimulation removes the description
            eStimulationLight = 1,    // photo-activation or bleaching by light
            eStimulationElectric = 2,
            eStimulationTTL = 3,      // a pulse on a trigger line
        };

        uint32_t eType = eStimulationNone;  // EStimulationType, lite "T"
        uint32_t uiLength = 0;              // duration of one pulse in ms, lite "L"
        uint32_t uiPeriod = 0;              // ms from pulse to pulse, 0 for one pulse, lite "P"

        bool operator==(const SKvStimulationDescription& other) const {
            return eType == other.eType && uiLength == other.uiLength && uiPeriod == other.uiPeriod;
        }
        bool operator!=(const SKvStimulationDescription& other) const { return !(*this == other); }

        // Lite: "T", "L", "P" inside the level the caller opened or entered.
        // Tree: run type "RKvStimulationDescription", "eType", "uiLength", "uiPeriod".
        static kv_result SaveToLiteVariant(CKvLiteVariantW& writer, const SKvStimulationDescription& stim);
        static kv_result LoadFromLiteVariant(SKvStimulationDescription& stim, CKvLiteVariantR& reader);
        static kv_result SaveToVariant(CKvVariant& node, const SKvStimulationDescription& stim);
        static kv_result LoadFromVariant(SKvStimulationDescription& stim, const CKvVariant& node);
    };

    double dTime = 0.0;
    double dTime2 = 0.0;                 // second time (end of a span), 0 when unused
    uint32_t eMeaning = eMeaningUndefined;
    std::unique_ptr<CKvStringW> pDescription;  // null: none
    std::unique_ptr<CKvStringW> pAdditional;   // null: none
    uint32_t uiID = 0;                   // issued by the record, 1 and up
    std::unique_ptr<SKvStimulationDescription> pStimulation;  // null: none

    SKvExperimentEvent() = default;
    // Deep copies; like any standard container they throw std::bad_alloc when
    // memory runs out. The static Copy reports KV_ERR_OUT_OF_MEMORY instead.
    SKvExperimentEvent(const SKvExperimentEvent& other);
    SKvExperimentEvent& operator=(const SKvExperimentEvent& other);
    SKvExperimentEvent(SKvExperimentEvent&&) noexcept = default;
    SKvExperimentEvent& operator=(SKvExperimentEvent&&) noexcept = default;
    ~SKvExperimentEvent() = default;

    // Equal when every field is; a null text differs from an empty one.
    bool operator==(const SKvExperimentEvent& other) const;
    bool operator!=(const SKvExperimentEvent& other) const { return !(*this == other); }

    // Sets the time, clears the second time, copies both texts (null stays
    // null), sets the ID and removes any stimulation. KV_ERR_OUT_OF_MEMORY when memory runs out.
    static kv_result Init(SKvExperimentEvent& event, double time, uint32_t meaning, const wchar_t* description,
                          const wchar_t* additional, uint32_t id);
    // The end-of-acquisition event: meaning eMeaningFinish, description
    // kEventTextInteractiveFinish.
    static kv_result InitInteractiveFinish(SKvExperimentEvent& event, double time, uint32_t id);
    static kv_result SetDescription(SKvExperimentEvent& event, const wchar_t* description, const wchar_t* additional);
    // Type 0 removes the stimulation; any other type creates or overwrites it.
    // KV_ERR_OUT_OF_MEMORY when memory runs out.
    static kv_result SetStimulation(SKvExperimentEvent& event, uint32_t type, uint32_t length, uint32_t period);
    // Back to a default event, texts and stimulation released.
    static void Free(SKvExperimentEvent& event);
    static kv_result Copy(SKvExperimentEvent& dst, const SKvExperimentEvent& src);

    // Lite, inside the level the caller opened or entered: "T", "T2" (only
    // when non-zero), "M", "D" and "A" (only when not null), "I", level "S"
    // (only with a stimulation). Loading leaves fields whose key is missing.
    static kv_result SaveToLiteVariant(CKvLiteVariantW& writer, const SKvExperimentEvent& event);
    static kv_result LoadFromLiteVariant(SKvExperimentEvent& event, CKvLiteVariantR& reader);
    // Tree: run type "RKvExperimentEvent", "dTime", "dTime2", "eMeaning",
    // "wsDescription", "wsAdditional", "uiID", "pStimulation". Every member
    // is always written, since tree readers keep only the members of the
    // registered sample: a null text as an empty one (read back as null), no
    // stimulation as one of type 0. KV_ERR_INVALID_ARG for a node of another run type.
    static kv_result SaveToVariant(CKvVariant& node, const SKvExperimentEvent& event);
    static kv_result LoadFromVariant(SKvExperimentEvent& event, const CKvVariant& node);
};

// The event log: events sorted by time, each with an ID issued in the order
// the events were added. Events of equal time keep the order of adding; a
// time that is not a number (only a damaged file has one) counts as earlier
// than every other.
struct SKvExperimentRecord {
    SKvExperimentRecord() = default;
    SKvExperimentRecord(const SKvExperimentRecord&) = default;  // may throw std::bad_alloc; Copy does not
    SKvExperimentRecord& operator=(const SKvExperimentRecord&) = default;
    SKvExperimentRecord(SKvExperimentRecord&&) noexcept = default;
    SKvExperimentRecord& operator=(SKvExperimentRecord&&) noexcept = default;

    uint32_t GetCount() const { return static_cast<uint32_t>(m_aEvents.size()); }
    uint32_t GetLastID() const { return m_uiLastID; }
    // Room for this many events before the array grows again.
    size_t GetCapacity() const { return m_aEvents.capacity(); }
    // `index` must be below GetCount().
    const SKvExperimentEvent& operator[](uint32_t index) const { return m_aEvents[index]; }

    // Inserts a copy of `event` at its place by time (after events of the
    // same time) under the next ID, which it answers; `index` receives the
    // place. 0 when memory runs out or the IDs are exhausted; the record is
    // then unchanged.
    static uint32_t AddEvent(SKvExperimentRecord& record, const SKvExperimentEvent& event, uint32_t* index = nullptr);
    // Linear search by ID; false, `index` untouched, when no event has it.
    static bool FindEvent(const SKvExperimentRecord& record, uint32_t id, uint32_t* index = nullptr);
    // Copies out the event at `index`. KV_ERR_FAILED out of range, KV_ERR_OUT_OF_MEMORY when memory runs out.
    static kv_result GetEvent(const SKvExperimentRecord& record, uint32_t index, SKvExperimentEvent& event);
    // Replaces the event at `index` by a copy of `event` that keeps the ID of
    // the one replaced, and moves it to its place when its time changed;
    // `newIndex` receives that place. KV_ERR_FAILED out of range, KV_ERR_OUT_OF_MEMORY when memory runs out.
    static kv_result SetEvent(SKvExperimentRecord& record, uint32_t index, const SKvExperimentEvent& event,
                              uint32_t* newIndex = nullptr);
    // KV_ERR_FAILED out of range. The capacity stays.
    static kv_result RemoveEvent(SKvExperimentRecord& record, uint32_t index);

    // The first event not earlier than `time`, or the last index when all are
    // earlier; 0 for an empty record.
    static uint32_t FindFirst(const SKvExperimentRecord& record, double time);
    // These answer an index, also stored through `index` when given, or KV_ERR_FAILED:
    // GetPrevious the last event strictly earlier than `time`; GetNext the
    // event after FindFirst(time) when that one is at most `time` +
    // kEventTimeTolerance, else FindFirst(time) itself.
    static int32_t GetPrevious(const SKvExperimentRecord& record, double time, uint32_t* index = nullptr);
    static int32_t GetNext(const SKvExperimentRecord& record, double time, uint32_t* index = nullptr);

    // Adds every event of `src` to `dst` as AddEvent does: each gets a new
    // ID of `dst`, and among equal times `src`'s events follow `dst`'s. All
    // or nothing: KV_ERR_OUT_OF_MEMORY when memory runs out leaves `dst` unchanged.
    static kv_result Merge(SKvExperimentRecord& dst, const SKvExperimentRecord& src);
    // Deep copy, the last issued ID included. KV_ERR_OUT_OF_MEMORY leaves `dst` unchanged.
    static kv_result Copy(SKvExperimentRecord& dst, const SKvExperimentRecord& src);
    // Empty again, memory released and IDs restarting at 1.
    static void Free(SKvExperimentRecord& record);

    // Lite: level "RKvExperimentRecord" with "uiCount" and level "pEvents"
    // holding one unnamed level per event. Tree: run type
    // "RKvExperimentRecord", "uiCount", "uiLastID" and the plain list
    // "pEvents" of "a%u" elements. Loading replaces the record with the
    // events present, at most "uiCount" of them, sorted by time; the last
    // issued ID becomes at least the highest ID loaded. The lite loader
    // answers KV_ERR_FAILED when the level is missing, the tree loader KV_ERR_INVALID_ARG for a node of
    // another run type; KV_ERR_OUT_OF_MEMORY when memory runs out.
    static kv_result SaveToLiteVariant(CKvLiteVariantW& writer, const SKvExperimentRecord& record);
    static kv_result LoadFromLiteVariant(SKvExperimentRecord& record, CKvLiteVariantR& reader);
    static kv_result SaveToVariant(CKvVariant& node, const SKvExperimentRecord& record);
    static kv_result LoadFromVariant(SKvExperimentRecord& record, const CKvVariant& node);

private:
    std::vector<SKvExperimentEvent> m_aEvents;  // sorted by time, capacity in kEventBlockBytes blocks
    uint32_t m_uiLastID = 0;
};

// One recorded signal: which stream holds it and whether it was recorded.
struct SKvRecordedDataDesc {
    CKvStringW wsRDKey;           // name of the stream in the file's custom data
    CKvStringW wsRDDescription;   // what a user sees
    bool bRDCheck = false;        // recorded

    bool operator==(const SKvRecordedDataDesc& other) const {
        return wsRDKey == other.wsRDKey && wsRDDescription == other.wsRDDescription && bRDCheck == other.bRDCheck;
    }
};

// The signals recorded beside the frames, in groups by their source.
struct SKvRecordedData {
    enum EGroup : uint32_t {
        eGroupOther = 0,    // stage, temperature and other device values
        eGroupAngIn = 1,    // analogue inputs
        eGroupTTLIn = 2,    // TTL inputs
        eGroupAngOut = 3,   // analogue outputs as driven
        eGroupTTLOut = 4,   // TTL outputs as driven
        eGroupCount = 5,
    };
    // When values of a group are taken.
    enum ERecordMode : int32_t {
        eRecordOff = 0,
        eRecordWithFrames = 1,    // one value per frame
        eRecordContinuous = 2,    // every dValTime seconds (dValFrequnce per second)
    };

    int32_t iVersion = 1;
    double dValTime = 0.0;          // seconds between values in continuous mode
    double dValFrequnce = 0.0;      // values per second in continuous mode
    int32_t eRecordOther = eRecordOff;
    int32_t eRecordAngIn = eRecordOff;
    std::array<std::vector<SKvRecordedDataDesc>, eGroupCount> aGroups;

    bool operator==(const SKvRecordedData& other) const;
    bool operator!=(const SKvRecordedData& other) const { return !(*this == other); }

    // Lite, inside the level the caller opened or entered: "iVersion",
    // "dValTime", "dValFrequnce", "eRecordOther", "eRecordAngIn", then per
    // group a level "VectorRD_<group>" with "size" and level "name<group>"
    // holding one unnamed level per descriptor ("wsRDKey", "wsRDDescription",
    // "bRDCheck"); groups Other, AngIn, TTLIn, AngOut, TTLOut. Tree: run type
    // "RKvRecordedData" with the same keys, the group levels as plain lists
    // and the descriptors as "a%i" elements of run type "RKvRecordedDataDesc".
    // Loading: missing keys keep their values; a group present is replaced
    // by the descriptors present, at most "size" of them. KV_ERR_OUT_OF_MEMORY when memory runs out,
    // KV_ERR_INVALID_ARG for a tree node of another run type.
    static kv_result SaveToLiteVariant(CKvLiteVariantW& writer, const SKvRecordedData& data);
    static kv_result LoadFromLiteVariant(SKvRecordedData& data, CKvLiteVariantR& reader);
    static kv_result SaveToVariant(CKvVariant& node, const SKvRecordedData& data);
    static kv_result LoadFromVariant(SKvRecordedData& data, const CKvVariant& node);
};

// One watched input of the data-acquisition device: what signal, which
// condition on it, and what the acquisition does when the condition holds.
struct SKvND_NISetupInputs {
    enum EType : int32_t { eInTTL = 0, eInAnalog = 1, eInTemperature = 2, eInGasConcentration = 3,
                           eInCustom = 4, eInCameraTemperature = 5, eInKeepObjectInView = 6 };
    enum EEvents : int32_t { eEventNone = 0, eEventLog = 1, eEventNextPhase = 2, eEventStop = 3, eEventPause = 4 };
    // Analogue conditions compare with dValue1 (and dValue2 for a range),
    // with dHysteresis against chattering.
    enum EConditionAng : int32_t { eAngAbove = 0, eAngBelow = 1, eAngInside = 2, eAngOutside = 3 };
    enum EConditionTTL : int32_t { eTTLRising = 0, eTTLFalling = 1, eTTLHigh = 2, eTTLLow = 3 };

    bool bUseEvent = false;
    int32_t eEvents = eEventNone;
    int32_t eType = eInTTL;
    CKvStringW wsTTLName, wsAnalogName, wsCalibName, wsTempName, wsTempKey, wsGasConcName, wsGasConcKey,
        wsCustomName, wsCustomKey, wsCameraTempName, wsCameraTempKey;
    int32_t eConditionAng = eAngAbove;
    int32_t eConditionTTL = eTTLRising;
    double dValue1 = 0.0, dValue2 = 0.0, dValue3 = 0.0, dValue4 = 0.0;
    int32_t iIndex = 0;
    double dHysteresis = 0.0;
    CKvStringW wsUnit, sKeepObjInViewName, sKeepObjInViewCondition;
};

// One output the device drives: a level, a pulse train, an incubation or
// liquid-handling setting.
struct SKvND_NISetupOutputs {
    enum EType : int32_t { eOutTTL = 0, eOutAnalog = 1, eOutIncubation = 2, eOutLiquid = 3 };
    enum EPulseType : int32_t { ePulseLevel = 0, ePulseSingle = 1, ePulsePeriodic = 2 };

    bool bUseEvent = false;
    int32_t eEvents = SKvND_NISetupInputs::eEventNone;
    int32_t eType = eOutTTL;
    CKvStringW wsTTLName, wsAnalogName, wsCalibName, wsIncubationName;
    int32_t eConditionAng = SKvND_NISetupInputs::eAngAbove;
    int32_t eConditionTTL = SKvND_NISetupInputs::eTTLRising;
    double dValue = 0.0;       // level to set
    double dPulse = 0.0;       // pulse length, s
    double dTime2 = 0.0;       // period of a pulse train, s
    bool bInfiniti = false;    // pulse until the acquisition ends
    uint32_t uiNumPeriods = 0;
    int32_t iIndex = 0;
    int32_t ePulseType = ePulseLevel;
    CKvStringW wsUnit, sDescIncub;
    CKvByteArray BASettingsIncub;   // opaque settings of the incubation controller
    bool bWait = false;             // the acquisition waits until the output is done
    CKvStringW sInterfaceIncub, sLiquidControlName;
    int32_t iLiquidTreatment = 0;
    CKvByteArray BALiquidDefinition;  // opaque definition of the liquid treatment
};

// The device setup of an experiment.
struct SKvExperimentNI {
    bool bIgnoreSetup = false;
    std::vector<SKvND_NISetupInputs> aInputs;
    std::vector<SKvND_NISetupOutputs> aOutputs;

    // Lite, inside the level the caller opened or entered: "bIgnoreSetup";
    // level "VectorNISetupInputs" with "size" and level "values" holding one
    // unnamed level per input; the same for "VectorNISetupOutputs". Tree:
    // run type "RKvExperimentNI" with the same keys, the vectors as plain
    // lists and the entries as "a%i" elements of run types
    // "RKvND_NISetupInputs" and "RKvND_NISetupOutputs". Loading as for
    // SKvRecordedData.
    static kv_result SaveToLiteVariant(CKvLiteVariantW& writer, const SKvExperimentNI& ni);
    static kv_result LoadFromLiteVariant(SKvExperimentNI& ni, CKvLiteVariantR& reader);
    static kv_result SaveToVariant(CKvVariant& node, const SKvExperimentNI& ni);
    static kv_result LoadFromVariant(SKvExperimentNI& ni, const CKvVariant& node);
};

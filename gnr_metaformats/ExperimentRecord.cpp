#include "gnr_metaformats/ExperimentRecord.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "gnr_metaformats/KvMetaIO.h"

namespace {

using Event = SKvExperimentEvent;
using Stimulation = SKvExperimentEvent::SKvStimulationDescription;

constexpr char kRunTypeRecord[] = "RKvExperimentRecord";
constexpr char kRunTypeEvent[] = "RKvExperimentEvent";
constexpr char kRunTypeStimulation[] = "RKvStimulationDescription";
constexpr char kRunTypeRecordedData[] = "RKvRecordedData";
constexpr char kRunTypeRecordedDataDesc[] = "RKvRecordedDataDesc";
constexpr char kRunTypeNI[] = "RKvExperimentNI";
constexpr char kRunTypeNIInput[] = "RKvND_NISetupInputs";
constexpr char kRunTypeNIOutput[] = "RKvND_NISetupOutputs";

// Lite level and tree list of the recorded-data groups, in EGroup order.
struct SGroupKeys {
    const wchar_t* vector;
    const wchar_t* list;
};
constexpr SGroupKeys kRecordedGroups[SKvRecordedData::eGroupCount] = {
    {L"VectorRD_Other", L"nameOther"},   {L"VectorRD_AngIn", L"nameAngIn"},   {L"VectorRD_TTLIn", L"nameTTLIn"},
    {L"VectorRD_AngOut", L"nameAngOut"}, {L"VectorRD_TTLOut", L"nameTTLOut"},
};

std::unique_ptr<CKvStringW> CopyText(const wchar_t* text) {
    return text ? std::make_unique<CKvStringW>(text) : nullptr;
}
std::unique_ptr<CKvStringW> CopyText(const std::unique_ptr<CKvStringW>& text) {
    return text ? std::make_unique<CKvStringW>(*text) : nullptr;
}
// The tree form keeps every member of the registered sample, because readers
// of trees put members the sample lacks aside; texts are therefore always
// written, and an empty one stands for none.
CKvStringW TextOrEmpty(const std::unique_ptr<CKvStringW>& text) { return text ? *text : CKvStringW(); }
std::unique_ptr<CKvStringW> NullIfEmpty(const CKvStringW& text) {
    return text.IsEmpty() ? nullptr : std::make_unique<CKvStringW>(text);
}
bool SameText(const std::unique_ptr<CKvStringW>& a, const std::unique_ptr<CKvStringW>& b) {
    return a ? (b && *a == *b) : !b;
}

CKvStringW ElementName(size_t index) {
    CKvStringW name;
    name.Format(L"a%u", static_cast<unsigned>(index));
    return name;
}

// ---- Structured nodes. Members are appended while the node is still a
// plain list, and the run type is set last: appending to a list that already
// has a structured run type would turn it back into a plain list.

void BeginMembers(CKvVariant& node) { KvMeta::BeginStruct(node, CKvVariantDataCKvListVariant::m_runTypeOrig); }

kv_result EndMembers(CKvVariant& node, const char* runType, kv_result result) {
    if (result == KV_OK) node.GetData()->SetRunType(CKvVariantRunType(runType));
    return result;
}

// ---- Field visitors: one list of keys per structure serves all four forms.

using SLiteSaver = KvMeta::CLiteSaver;
using SLiteLoader = KvMeta::CLiteLoader;
using STreeSaver = KvMeta::CTreeSaver;
using STreeLoader = KvMeta::CTreeLoader;

template <typename Self, typename Visitor>
void VisitStimulation(Self& s, Visitor&& v, bool lite) {
    v(lite ? L"T" : L"eType", s.eType);
    v(lite ? L"L" : L"uiLength", s.uiLength);
    v(lite ? L"P" : L"uiPeriod", s.uiPeriod);
}

template <typename Self, typename Visitor>
void VisitRecordedDesc(Self& d, Visitor&& v) {
    v(L"wsRDKey", d.wsRDKey);
    v(L"wsRDDescription", d.wsRDDescription);
    v(L"bRDCheck", d.bRDCheck);
}

template <typename Self, typename Visitor>
void VisitRecordedScalars(Self& d, Visitor&& v) {
    v(L"iVersion", d.iVersion);
    v(L"dValTime", d.dValTime);
    v(L"dValFrequnce", d.dValFrequnce);
    v(L"eRecordOther", d.eRecordOther);
    v(L"eRecordAngIn", d.eRecordAngIn);
}

template <typename Self, typename Visitor>
void VisitNIInput(Self& e, Visitor&& v) {
    v(L"bUseEvent", e.bUseEvent);
    v(L"eEvents", e.eEvents);
    v(L"eType", e.eType);
    v(L"wsTTLName", e.wsTTLName);
    v(L"wsAnalogName", e.wsAnalogName);
    v(L"wsCalibName", e.wsCalibName);
    v(L"wsTempName", e.wsTempName);
    v(L"wsTempKey", e.wsTempKey);
    v(L"wsGasConcName", e.wsGasConcName);
    v(L"wsGasConcKey", e.wsGasConcKey);
    v(L"wsCustomName", e.wsCustomName);
    v(L"wsCustomKey", e.wsCustomKey);
    v(L"wsCameraTempName", e.wsCameraTempName);
    v(L"wsCameraTempKey", e.wsCameraTempKey);
    v(L"eConditionAng", e.eConditionAng);
    v(L"eConditionTTL", e.eConditionTTL);
    v(L"dValue1", e.dValue1);
    v(L"dValue2", e.dValue2);
    v(L"dValue3", e.dValue3);
    v(L"dValue4", e.dValue4);
    v(L"iIndex", e.iIndex);
    v(L"dHysteresis", e.dHysteresis);
    v(L"wsUnit", e.wsUnit);
    v(L"sKeepObjInViewName", e.sKeepObjInViewName);
    v(L"sKeepObjInViewCondition", e.sKeepObjInViewCondition);
}

template <typename Self, typename Visitor>
void VisitNIOutput(Self& e, Visitor&& v) {
    v(L"bUseEvent", e.bUseEvent);
    v(L"eEvents", e.eEvents);
    v(L"eType", e.eType);
    v(L"wsTTLName", e.wsTTLName);
    v(L"wsAnalogName", e.wsAnalogName);
    v(L"wsCalibName", e.wsCalibName);
    v(L"wsIncubationName", e.wsIncubationName);
    v(L"eConditionAng", e.eConditionAng);
    v(L"eConditionTTL", e.eConditionTTL);
    v(L"dValue", e.dValue);
    v(L"dPulse", e.dPulse);
    v(L"dTime2", e.dTime2);
    v(L"bInfiniti", e.bInfiniti);
    v(L"uiNumPeriods", e.uiNumPeriods);
    v(L"iIndex", e.iIndex);
    v(L"ePulseType", e.ePulseType);
    v(L"wsUnit", e.wsUnit);
    v(L"sDescIncub", e.sDescIncub);
    v(L"BASettingsIncub", e.BASettingsIncub);
    v(L"bWait", e.bWait);
    v(L"sInterfaceIncub", e.sInterfaceIncub);
    v(L"sLiquidControlName", e.sLiquidControlName);
    v(L"iLiquidTreatment", e.iLiquidTreatment);
    v(L"BALiquidDefinition", e.BALiquidDefinition);
}

struct SVisitRecordedDesc {
    template <typename Self, typename Visitor>
    void operator()(Self& e, Visitor&& v) const { VisitRecordedDesc(e, v); }
};
struct SVisitNIInput {
    template <typename Self, typename Visitor>
    void operator()(Self& e, Visitor&& v) const { VisitNIInput(e, v); }
};
struct SVisitNIOutput {
    template <typename Self, typename Visitor>
    void operator()(Self& e, Visitor&& v) const { VisitNIOutput(e, v); }
};

// ---- Lists of entries: a level (plain list) `vectorKey` holding "size" and
// the level (plain list) `listKey` with one element per entry.

// How many entries a stored "size" lets a loader take: every entry present
// when it is missing, none when it is negative.
size_t EntryLimit(int32_t size) { return size < 0 ? 0 : static_cast<size_t>(size); }
constexpr int32_t kSizeMissing = std::numeric_limits<int32_t>::max();

template <typename Entry, typename Visit>
kv_result SaveLiteEntries(CKvLiteVariantW& writer, const wchar_t* vectorKey, const wchar_t* listKey,
                          const std::vector<Entry>& entries, Visit visit) {
    kv_result result = KV_OK;
    KvMeta::CLvLevelWriter vector(writer, vectorKey);
    KvKeepFirstFailure(result, vector.Result());
    if (result == KV_OK) result = writer.Set(static_cast<int32_t>(entries.size()), L"size");
    if (result == KV_OK) {
        KvMeta::CLvLevelWriter list(writer, listKey);
        KvKeepFirstFailure(result, list.Result());
        for (size_t i = 0; i < entries.size() && result == KV_OK; ++i) {
            KvMeta::CLvLevelWriter one(writer, nullptr);
            KvKeepFirstFailure(result, one.Result());
            if (result != KV_OK) break;
            SLiteSaver saver{writer, {}};
            visit(entries[i], saver);
            KvKeepFirstFailure(result, saver.result);
            KvKeepFirstFailure(result, one.Close());
        }
        KvKeepFirstFailure(result, list.Close());
    }
    KvKeepFirstFailure(result, vector.Close());
    return result;
}

// Replaces `entries` with the entries present when the level exists. May throw.
template <typename Entry, typename Visit>
void LoadLiteEntries(CKvLiteVariantR& reader, const wchar_t* vectorKey, const wchar_t* listKey,
                     std::vector<Entry>& entries, Visit visit) {
    KvMeta::CLvLevelReader vector(reader, vectorKey);
    if (!vector.IsOpen()) return;
    int32_t size = kSizeMissing;
    KvMeta::LvGet(reader, L"size", size);
    const size_t limit = EntryLimit(size);
    std::vector<Entry> loaded;
    KvMeta::CLvLevelReader list(reader, listKey);
    while (list.IsOpen() && loaded.size() < limit && reader.IsNextValue()) {
        if (KvMeta::LvEnterElement(reader, nullptr)) {
            Entry entry;
            visit(entry, SLiteLoader{reader});
            reader.LevelEnd();
            loaded.push_back(std::move(entry));
        }
        if (reader.NextValue() != KV_OK) break;
    }
    entries = std::move(loaded);
}

// May throw.
template <typename Entry, typename Visit>
kv_result SaveTreeEntries(CKvVariant& node, const wchar_t* vectorKey, const wchar_t* listKey, const char* runType,
                          const std::vector<Entry>& entries, Visit visit) {
    CKvVariant* vector = KvMeta::PutList(node, vectorKey);
    if (!vector || !KvMeta::Put(*vector, L"size", static_cast<int32_t>(entries.size()))) return KV_ERR_OUT_OF_MEMORY;
    CKvVariant* list = KvMeta::PutList(*vector, listKey);
    if (!list) return KV_ERR_OUT_OF_MEMORY;
    for (size_t i = 0; i < entries.size(); ++i) {
        CKvVariant element;
        element.SetName(ElementName(i));
        BeginMembers(element);
        STreeSaver saver{element, {}};
        visit(entries[i], saver);
        if (EndMembers(element, runType, saver.result) != KV_OK) return saver.result;
        if (!list->Append(element)) return KV_ERR_OUT_OF_MEMORY;
    }
    return KV_OK;
}

// Replaces `entries` with the elements of `runType` present when the list
// exists; elements of another run type are reported and skipped. May throw.
template <typename Entry, typename Visit>
void LoadTreeEntries(const CKvVariant& node, const wchar_t* vectorKey, const wchar_t* listKey, const char* runType,
                     std::vector<Entry>& entries, Visit visit) {
    const CKvVariant* vector = KvMeta::Find(node, vectorKey);
    if (!vector || vector->GetCount() < 0) return;
    int32_t size = kSizeMissing;
    KvMeta::Get(*vector, L"size", size);
    const size_t limit = EntryLimit(size);
    std::vector<Entry> loaded;
    const CKvVariant* list = KvMeta::Find(*vector, listKey);
    const int count = list ? list->GetCount() : 0;
    for (int i = 0; i < count && loaded.size() < limit; ++i) {
        const CKvVariant* element = list->IndexPtr(i);
        if (!element || KvMeta::CheckRunType(*element, runType) != KV_OK) continue;
        Entry entry;
        visit(entry, STreeLoader{*element});
        loaded.push_back(std::move(entry));
    }
    entries = std::move(loaded);
}

// ---- Ordering by time

// -1 when `a` is earlier, 1 when later, 0 when equal. A time that cannot be
// compared (NaN, from a damaged file) counts as earlier than every other
// time and equal to another such, so that sorting and the binary searches
// see one consistent order.
int CompareTimes(double a, double b) {
    const bool aUnordered = std::isnan(a), bUnordered = std::isnan(b);
    if (aUnordered || bUnordered) return aUnordered == bUnordered ? 0 : (aUnordered ? -1 : 1);
    return a < b ? -1 : (a > b ? 1 : 0);
}

// The first event not earlier than `time`.
size_t LowerBound(const std::vector<Event>& events, double time) {
    size_t low = 0, high = events.size();
    while (low < high) {
        const size_t mid = low + (high - low) / 2;
        if (CompareTimes(events[mid].dTime, time) < 0) low = mid + 1;
        else high = mid;
    }
    return low;
}

// The first event later than `time`: a new event goes after its equals.
size_t UpperBound(const std::vector<Event>& events, double time) {
    size_t low = 0, high = events.size();
    while (low < high) {
        const size_t mid = low + (high - low) / 2;
        if (CompareTimes(events[mid].dTime, time) > 0) high = mid;
        else low = mid + 1;
    }
    return low;
}

bool EarlierForSort(const Event& a, const Event& b) { return CompareTimes(a.dTime, b.dTime) < 0; }

// Capacity, in events, of the whole blocks that hold `count` events.
size_t BlockCapacity(size_t count) {
    const size_t bytes = count * sizeof(Event);
    const size_t blocks = (bytes + kEventBlockBytes - 1) / kEventBlockBytes;
    return blocks * kEventBlockBytes / sizeof(Event);
}

// Room for one more event without reallocating during the insertion. May throw.
void ReserveOneMore(std::vector<Event>& events) {
    if (events.size() + 1 > events.capacity()) events.reserve(BlockCapacity(events.size() + 1));
}

}  // namespace

// ---------------------------------------------------------------- stimulation

kv_result Stimulation::SaveToLiteVariant(CKvLiteVariantW& writer, const SKvStimulationDescription& stim) {
    SLiteSaver saver{writer, {}};
    VisitStimulation(stim, saver, true);
    return saver.result;
}

kv_result Stimulation::LoadFromLiteVariant(SKvStimulationDescription& stim, CKvLiteVariantR& reader) {
    VisitStimulation(stim, SLiteLoader{reader}, true);
    return KV_OK;
}

kv_result Stimulation::SaveToVariant(CKvVariant& node, const SKvStimulationDescription& stim) {
    return KvNoThrow([&] {
        BeginMembers(node);
        STreeSaver saver{node, {}};
        VisitStimulation(stim, saver, false);
        return EndMembers(node, kRunTypeStimulation, saver.result);
    });
}

kv_result Stimulation::LoadFromVariant(SKvStimulationDescription& stim, const CKvVariant& node) {
    if (KvMeta::CheckRunType(node, kRunTypeStimulation) != KV_OK) return KV_ERR_INVALID_ARG;
    VisitStimulation(stim, STreeLoader{node}, false);
    return KV_OK;
}

// ---------------------------------------------------------------- event

SKvExperimentEvent::SKvExperimentEvent(const SKvExperimentEvent& other)
    : dTime(other.dTime),
      dTime2(other.dTime2),
      eMeaning(other.eMeaning),
      pDescription(CopyText(other.pDescription)),
      pAdditional(CopyText(other.pAdditional)),
      uiID(other.uiID),
      pStimulation(other.pStimulation ? std::make_unique<SKvStimulationDescription>(*other.pStimulation) : nullptr) {}

SKvExperimentEvent& SKvExperimentEvent::operator=(const SKvExperimentEvent& other) {
    if (this != &other) *this = SKvExperimentEvent(other);
    return *this;
}

bool SKvExperimentEvent::operator==(const SKvExperimentEvent& other) const {
    const bool sameStimulation =
        pStimulation ? (other.pStimulation && *pStimulation == *other.pStimulation) : !other.pStimulation;
    return dTime == other.dTime && dTime2 == other.dTime2 && eMeaning == other.eMeaning && uiID == other.uiID &&
           SameText(pDescription, other.pDescription) && SameText(pAdditional, other.pAdditional) && sameStimulation;
}

kv_result SKvExperimentEvent::Init(SKvExperimentEvent& event, double time, uint32_t meaning,
                                   const wchar_t* description, const wchar_t* additional, uint32_t id) {
    return KvNoThrow([&] {
        SKvExperimentEvent made;
        made.dTime = time;
        made.eMeaning = meaning;
        made.pDescription = CopyText(description);
        made.pAdditional = CopyText(additional);
        made.uiID = id;
        event = std::move(made);
        return KV_OK;
    });
}

kv_result SKvExperimentEvent::InitInteractiveFinish(SKvExperimentEvent& event, double time, uint32_t id) {
    return Init(event, time, eMeaningFinish, kEventTextInteractiveFinish, nullptr, id);
}

kv_result SKvExperimentEvent::SetDescription(SKvExperimentEvent& event, const wchar_t* description,
                                             const wchar_t* additional) {
    return KvNoThrow([&] {
        auto newDescription = CopyText(description);
        auto newAdditional = CopyText(additional);
        event.pDescription = std::move(newDescription);
        event.pAdditional = std::move(newAdditional);
        return KV_OK;
    });
}

kv_result SKvExperimentEvent::SetStimulation(SKvExperimentEvent& event, uint32_t type, uint32_t length,
                                             uint32_t period) {
    if (type == SKvStimulationDescription::eStimulationNone) {
        event.pStimulation.reset();
        return KV_OK;
    }
    return KvNoThrow([&] {
        if (!event.pStimulation) event.pStimulation = std::make_unique<SKvStimulationDescription>();
        *event.pStimulation = SKvStimulationDescription{type, length, period};
        return KV_OK;
    });
}

void SKvExperimentEvent::Free(SKvExperimentEvent& event) { event = SKvExperimentEvent(); }

kv_result SKvExperimentEvent::Copy(SKvExperimentEvent& dst, const SKvExperimentEvent& src) {
    return KvNoThrow([&] {
        dst = src;
        return KV_OK;
    });
}

kv_result SKvExperimentEvent::SaveToLiteVariant(CKvLiteVariantW& writer, const SKvExperimentEvent& event) {
    kv_result result = KV_OK;
    KvKeepFirstFailure(result, writer.Set(event.dTime, L"T"));
    // A second time of 0 means "none" and is left out to keep logs small.
    if (event.dTime2 != 0.0) KvKeepFirstFailure(result, writer.Set(event.dTime2, L"T2"));
    KvKeepFirstFailure(result, writer.Set(event.eMeaning, L"M"));
    if (event.pDescription) KvKeepFirstFailure(result, writer.Set(*event.pDescription, L"D"));
    if (event.pAdditional) KvKeepFirstFailure(result, writer.Set(*event.pAdditional, L"A"));
    KvKeepFirstFailure(result, writer.Set(event.uiID, L"I"));
    if (event.pStimulation && result == KV_OK) {
        KvMeta::CLvLevelWriter level(writer, L"S");
        KvKeepFirstFailure(result, level.Result());
        if (result == KV_OK) result = SKvStimulationDescription::SaveToLiteVariant(writer, *event.pStimulation);
        KvKeepFirstFailure(result, level.Close());
    }
    return result;
}

kv_result SKvExperimentEvent::LoadFromLiteVariant(SKvExperimentEvent& event, CKvLiteVariantR& reader) {
    return KvNoThrow([&] {
        KvMeta::LvGet(reader, L"T", event.dTime);
        KvMeta::LvGet(reader, L"T2", event.dTime2);
        KvMeta::LvGet(reader, L"M", event.eMeaning);
        CKvStringW text;
        if (reader.GetCKvStringW(text, L"D") == KV_OK) event.pDescription = std::make_unique<CKvStringW>(text);
        if (reader.GetCKvStringW(text, L"A") == KV_OK) event.pAdditional = std::make_unique<CKvStringW>(text);
        KvMeta::LvGet(reader, L"I", event.uiID);
        KvMeta::CLvLevelReader level(reader, L"S");
        if (level.IsOpen()) {
            SKvStimulationDescription stim;
            SKvStimulationDescription::LoadFromLiteVariant(stim, reader);
            // Type 0 stands for "no stimulation" everywhere else too.
            if (stim.eType != SKvStimulationDescription::eStimulationNone) {
                event.pStimulation = std::make_unique<SKvStimulationDescription>(stim);
            }
        }
        return KV_OK;
    });
}

kv_result SKvExperimentEvent::SaveToVariant(CKvVariant& node, const SKvExperimentEvent& event) {
    return KvNoThrow([&] {
        BeginMembers(node);
        const bool ok = KvMeta::Put(node, L"dTime", event.dTime) && KvMeta::Put(node, L"dTime2", event.dTime2) &&
                        KvMeta::Put(node, L"eMeaning", event.eMeaning) &&
                        KvMeta::Put(node, L"wsDescription", TextOrEmpty(event.pDescription)) &&
                        KvMeta::Put(node, L"wsAdditional", TextOrEmpty(event.pAdditional)) &&
                        KvMeta::Put(node, L"uiID", event.uiID);
        if (!ok) return KV_ERR_OUT_OF_MEMORY;
        CKvVariant* stim = KvMeta::PutList(node, L"pStimulation");
        if (!stim) return KV_ERR_OUT_OF_MEMORY;
        const kv_result saved = SKvStimulationDescription::SaveToVariant(
            *stim, event.pStimulation ? *event.pStimulation : SKvStimulationDescription());
        return EndMembers(node, kRunTypeEvent, saved);
    });
}

kv_result SKvExperimentEvent::LoadFromVariant(SKvExperimentEvent& event, const CKvVariant& node) {
    if (KvMeta::CheckRunType(node, kRunTypeEvent) != KV_OK) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&] {
        KvMeta::Get(node, L"dTime", event.dTime);
        KvMeta::Get(node, L"dTime2", event.dTime2);
        KvMeta::Get(node, L"eMeaning", event.eMeaning);
        CKvStringW text;
        if (KvMeta::Get(node, L"wsDescription", text)) event.pDescription = NullIfEmpty(text);
        if (KvMeta::Get(node, L"wsAdditional", text)) event.pAdditional = NullIfEmpty(text);
        KvMeta::Get(node, L"uiID", event.uiID);
        const CKvVariant* member = KvMeta::Find(node, L"pStimulation");
        SKvStimulationDescription stim;
        if (member && SKvStimulationDescription::LoadFromVariant(stim, *member) == KV_OK &&
            stim.eType != SKvStimulationDescription::eStimulationNone) {
            event.pStimulation = std::make_unique<SKvStimulationDescription>(stim);
        }
        return KV_OK;
    });
}

// ---------------------------------------------------------------- record

namespace {

// Inserts a copy of `event` under the record's next ID. False when the IDs
// are exhausted. May throw; the record is unchanged then.
bool InsertNew(std::vector<Event>& events, uint32_t& lastID, const Event& event, uint32_t* index) {
    if (lastID == std::numeric_limits<uint32_t>::max() || events.size() >= std::numeric_limits<uint32_t>::max()) {
        return false;
    }
    Event copy(event);
    copy.uiID = lastID + 1;
    ReserveOneMore(events);
    const size_t place = UpperBound(events, copy.dTime);
    events.insert(events.begin() + static_cast<std::ptrdiff_t>(place), std::move(copy));
    ++lastID;
    if (index) *index = static_cast<uint32_t>(place);
    return true;
}

// Events as loaded from a file become the record's: sorted by time (files
// written by us already are), in block capacity, IDs continuing after the
// highest one seen. May throw; the record is unchanged then.
void Adopt(std::vector<Event>& events, uint32_t& lastID, std::vector<Event>&& loaded, uint32_t storedLastID) {
    if (!std::is_sorted(loaded.begin(), loaded.end(), EarlierForSort)) {
        std::stable_sort(loaded.begin(), loaded.end(), EarlierForSort);
    }
    std::vector<Event> adopted;
    adopted.reserve(BlockCapacity(loaded.size()));
    uint32_t highest = storedLastID;
    for (Event& event : loaded) {
        highest = std::max(highest, event.uiID);
        adopted.push_back(std::move(event));
    }
    events.swap(adopted);
    lastID = highest;
}

}  // namespace

uint32_t SKvExperimentRecord::AddEvent(SKvExperimentRecord& record, const SKvExperimentEvent& event,
                                       uint32_t* index) {
    bool added = false;
    KvNoThrow([&] {
        added = InsertNew(record.m_aEvents, record.m_uiLastID, event, index);
        return KV_OK;
    });
    return added ? record.m_uiLastID : 0;
}

bool SKvExperimentRecord::FindEvent(const SKvExperimentRecord& record, uint32_t id, uint32_t* index) {
    for (size_t i = 0; i < record.m_aEvents.size(); ++i) {
        if (record.m_aEvents[i].uiID != id) continue;
        if (index) *index = static_cast<uint32_t>(i);
        return true;
    }
    return false;
}

kv_result SKvExperimentRecord::GetEvent(const SKvExperimentRecord& record, uint32_t index, SKvExperimentEvent& event) {
    if (index >= record.m_aEvents.size()) return KV_ERR_FAILED;
    return SKvExperimentEvent::Copy(event, record.m_aEvents[index]);
}

kv_result SKvExperimentRecord::SetEvent(SKvExperimentRecord& record, uint32_t index, const SKvExperimentEvent& event,
                                        uint32_t* newIndex) {
    if (index >= record.m_aEvents.size()) return KV_ERR_FAILED;
    return KvNoThrow([&] {
        std::vector<Event>& events = record.m_aEvents;
        Event copy(event);
        copy.uiID = events[index].uiID;
        size_t place = index;
        if (CompareTimes(copy.dTime, events[index].dTime) != 0) {
            // Moving within the array never reallocates: the capacity stays.
            events.erase(events.begin() + index);
            place = UpperBound(events, copy.dTime);
            events.insert(events.begin() + static_cast<std::ptrdiff_t>(place), std::move(copy));
        } else {
            events[index] = std::move(copy);
        }
        if (newIndex) *newIndex = static_cast<uint32_t>(place);
        return KV_OK;
    });
}

kv_result SKvExperimentRecord::RemoveEvent(SKvExperimentRecord& record, uint32_t index) {
    if (index >= record.m_aEvents.size()) return KV_ERR_FAILED;
    record.m_aEvents.erase(record.m_aEvents.begin() + index);
    return KV_OK;
}

uint32_t SKvExperimentRecord::FindFirst(const SKvExperimentRecord& record, double time) {
    const std::vector<Event>& events = record.m_aEvents;
    if (events.empty()) return 0;
    return static_cast<uint32_t>(std::min(LowerBound(events, time), events.size() - 1));
}

int32_t SKvExperimentRecord::GetPrevious(const SKvExperimentRecord& record, double time, uint32_t* index) {
    const size_t first = LowerBound(record.m_aEvents, time);
    if (first == 0) return KV_ERR_FAILED;  // empty, or nothing earlier
    if (index) *index = static_cast<uint32_t>(first - 1);
    return static_cast<int32_t>(first - 1);
}

int32_t SKvExperimentRecord::GetNext(const SKvExperimentRecord& record, double time, uint32_t* index) {
    const std::vector<Event>& events = record.m_aEvents;
    if (events.empty()) return KV_ERR_FAILED;
    size_t next = FindFirst(record, time);
    if (CompareTimes(events[next].dTime, time + kEventTimeTolerance) <= 0) ++next;
    if (next >= events.size()) return KV_ERR_FAILED;
    if (index) *index = static_cast<uint32_t>(next);
    return static_cast<int32_t>(next);
}

kv_result SKvExperimentRecord::Merge(SKvExperimentRecord& dst, const SKvExperimentRecord& src) {
    if (&dst == &src) {
        SKvExperimentRecord copy;
        const kv_result copied = Copy(copy, src);
        return copied != KV_OK ? copied : Merge(dst, copy);
    }
    SKvExperimentRecord merged;
    const kv_result copied = Copy(merged, dst);
    if (copied != KV_OK) return copied;
    return KvNoThrow([&] {
        for (const Event& event : src.m_aEvents) {
            if (!InsertNew(merged.m_aEvents, merged.m_uiLastID, event, nullptr)) return KV_ERR_FAILED;
        }
        dst = std::move(merged);
        return KV_OK;
    });
}

kv_result SKvExperimentRecord::Copy(SKvExperimentRecord& dst, const SKvExperimentRecord& src) {
    if (&dst == &src) return KV_OK;
    return KvNoThrow([&] {
        std::vector<Event> events;
        events.reserve(BlockCapacity(src.m_aEvents.size()));
        events.insert(events.end(), src.m_aEvents.begin(), src.m_aEvents.end());
        dst.m_aEvents.swap(events);
        dst.m_uiLastID = src.m_uiLastID;
        return KV_OK;
    });
}

void SKvExperimentRecord::Free(SKvExperimentRecord& record) {
    std::vector<Event>().swap(record.m_aEvents);
    record.m_uiLastID = 0;
}

kv_result SKvExperimentRecord::SaveToLiteVariant(CKvLiteVariantW& writer, const SKvExperimentRecord& record) {
    kv_result result = KV_OK;
    KvMeta::CLvLevelWriter top(writer, L"RKvExperimentRecord");
    KvKeepFirstFailure(result, top.Result());
    if (result == KV_OK) result = writer.Set(record.GetCount(), L"uiCount");
    if (result == KV_OK) {
        KvMeta::CLvLevelWriter list(writer, L"pEvents");
        KvKeepFirstFailure(result, list.Result());
        for (size_t i = 0; i < record.m_aEvents.size() && result == KV_OK; ++i) {
            KvMeta::CLvLevelWriter one(writer, nullptr);
            KvKeepFirstFailure(result, one.Result());
            if (result == KV_OK) result = SKvExperimentEvent::SaveToLiteVariant(writer, record.m_aEvents[i]);
            KvKeepFirstFailure(result, one.Close());
        }
        KvKeepFirstFailure(result, list.Close());
    }
    KvKeepFirstFailure(result, top.Close());
    return result;
}

kv_result SKvExperimentRecord::LoadFromLiteVariant(SKvExperimentRecord& record, CKvLiteVariantR& reader) {
    return KvNoThrow([&] {
        KvMeta::CLvLevelReader top(reader, L"RKvExperimentRecord");
        if (!top.IsOpen()) return KV_ERR_FAILED;
        uint32_t limit = std::numeric_limits<uint32_t>::max();  // every event present when "uiCount" is missing
        KvMeta::LvGet(reader, L"uiCount", limit);
        std::vector<Event> loaded;
        {
            KvMeta::CLvLevelReader list(reader, L"pEvents");
            while (list.IsOpen() && loaded.size() < limit && reader.IsNextValue()) {
                if (KvMeta::LvEnterElement(reader, nullptr)) {
                    Event event;
                    const kv_result read = SKvExperimentEvent::LoadFromLiteVariant(event, reader);
                    reader.LevelEnd();
                    if (read != KV_OK) return read;
                    loaded.push_back(std::move(event));
                }
                if (reader.NextValue() != KV_OK) break;
            }
        }
        Adopt(record.m_aEvents, record.m_uiLastID, std::move(loaded), 0);
        return KV_OK;
    });
}

kv_result SKvExperimentRecord::SaveToVariant(CKvVariant& node, const SKvExperimentRecord& record) {
    return KvNoThrow([&] {
        BeginMembers(node);
        if (!KvMeta::Put(node, L"uiCount", record.GetCount()) || !KvMeta::Put(node, L"uiLastID", record.m_uiLastID)) {
            return KV_ERR_OUT_OF_MEMORY;
        }
        CKvVariant* list = KvMeta::PutList(node, L"pEvents");
        if (!list) return KV_ERR_OUT_OF_MEMORY;
        for (size_t i = 0; i < record.m_aEvents.size(); ++i) {
            CKvVariant element;
            element.SetName(ElementName(i));
            const kv_result saved = SKvExperimentEvent::SaveToVariant(element, record.m_aEvents[i]);
            if (saved != KV_OK) return saved;
            if (!list->Append(element)) return KV_ERR_OUT_OF_MEMORY;
        }
        return EndMembers(node, kRunTypeRecord, KV_OK);
    });
}

kv_result SKvExperimentRecord::LoadFromVariant(SKvExperimentRecord& record, const CKvVariant& node) {
    if (KvMeta::CheckRunType(node, kRunTypeRecord) != KV_OK) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&] {
        uint32_t limit = std::numeric_limits<uint32_t>::max();
        KvMeta::Get(node, L"uiCount", limit);
        uint32_t lastID = 0;
        KvMeta::Get(node, L"uiLastID", lastID);
        std::vector<Event> loaded;
        const CKvVariant* list = KvMeta::Find(node, L"pEvents");
        const int count = list ? list->GetCount() : 0;
        for (int i = 0; i < count && loaded.size() < limit; ++i) {
            Event event;
            const CKvVariant* element = list->IndexPtr(i);
            // Elements that are no events were reported and are left out.
            if (element && SKvExperimentEvent::LoadFromVariant(event, *element) == KV_OK) {
                loaded.push_back(std::move(event));
            }
        }
        Adopt(record.m_aEvents, record.m_uiLastID, std::move(loaded), lastID);
        return KV_OK;
    });
}

// ---------------------------------------------------------------- recorded data

bool SKvRecordedData::operator==(const SKvRecordedData& other) const {
    return iVersion == other.iVersion && dValTime == other.dValTime && dValFrequnce == other.dValFrequnce &&
           eRecordOther == other.eRecordOther && eRecordAngIn == other.eRecordAngIn && aGroups == other.aGroups;
}

kv_result SKvRecordedData::SaveToLiteVariant(CKvLiteVariantW& writer, const SKvRecordedData& data) {
    SLiteSaver saver{writer, {}};
    VisitRecordedScalars(data, saver);
    kv_result result = saver.result;
    for (uint32_t g = 0; g < eGroupCount && result == KV_OK; ++g) {
        result = SaveLiteEntries(writer, kRecordedGroups[g].vector, kRecordedGroups[g].list, data.aGroups[g],
                                 SVisitRecordedDesc{});
    }
    return result;
}

kv_result SKvRecordedData::LoadFromLiteVariant(SKvRecordedData& data, CKvLiteVariantR& reader) {
    return KvNoThrow([&] {
        VisitRecordedScalars(data, SLiteLoader{reader});
        for (uint32_t g = 0; g < eGroupCount; ++g) {
            LoadLiteEntries(reader, kRecordedGroups[g].vector, kRecordedGroups[g].list, data.aGroups[g],
                            SVisitRecordedDesc{});
        }
        return KV_OK;
    });
}

kv_result SKvRecordedData::SaveToVariant(CKvVariant& node, const SKvRecordedData& data) {
    return KvNoThrow([&] {
        BeginMembers(node);
        STreeSaver saver{node, {}};
        VisitRecordedScalars(data, saver);
        kv_result result = saver.result;
        for (uint32_t g = 0; g < eGroupCount && result == KV_OK; ++g) {
            result = SaveTreeEntries(node, kRecordedGroups[g].vector, kRecordedGroups[g].list,
                                     kRunTypeRecordedDataDesc, data.aGroups[g], SVisitRecordedDesc{});
        }
        return EndMembers(node, kRunTypeRecordedData, result);
    });
}

kv_result SKvRecordedData::LoadFromVariant(SKvRecordedData& data, const CKvVariant& node) {
    if (KvMeta::CheckRunType(node, kRunTypeRecordedData) != KV_OK) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&] {
        VisitRecordedScalars(data, STreeLoader{node});
        for (uint32_t g = 0; g < eGroupCount; ++g) {
            LoadTreeEntries(node, kRecordedGroups[g].vector, kRecordedGroups[g].list, kRunTypeRecordedDataDesc,
                            data.aGroups[g], SVisitRecordedDesc{});
        }
        return KV_OK;
    });
}

// ---------------------------------------------------------------- NI setup

kv_result SKvExperimentNI::SaveToLiteVariant(CKvLiteVariantW& writer, const SKvExperimentNI& ni) {
    kv_result result = writer.Set(ni.bIgnoreSetup, L"bIgnoreSetup");
    if (result == KV_OK) result = SaveLiteEntries(writer, L"VectorNISetupInputs", L"values", ni.aInputs, SVisitNIInput{});
    if (result == KV_OK) result = SaveLiteEntries(writer, L"VectorNISetupOutputs", L"values", ni.aOutputs, SVisitNIOutput{});
    return result;
}

kv_result SKvExperimentNI::LoadFromLiteVariant(SKvExperimentNI& ni, CKvLiteVariantR& reader) {
    return KvNoThrow([&] {
        KvMeta::LvGet(reader, L"bIgnoreSetup", ni.bIgnoreSetup);
        LoadLiteEntries(reader, L"VectorNISetupInputs", L"values", ni.aInputs, SVisitNIInput{});
        LoadLiteEntries(reader, L"VectorNISetupOutputs", L"values", ni.aOutputs, SVisitNIOutput{});
        return KV_OK;
    });
}

kv_result SKvExperimentNI::SaveToVariant(CKvVariant& node, const SKvExperimentNI& ni) {
    return KvNoThrow([&] {
        BeginMembers(node);
        if (!KvMeta::Put(node, L"bIgnoreSetup", ni.bIgnoreSetup)) return KV_ERR_OUT_OF_MEMORY;
        const kv_result inputs =
            SaveTreeEntries(node, L"VectorNISetupInputs", L"values", kRunTypeNIInput, ni.aInputs, SVisitNIInput{});
        if (inputs != KV_OK) return inputs;
        return EndMembers(node, kRunTypeNI,
                          SaveTreeEntries(node, L"VectorNISetupOutputs", L"values", kRunTypeNIOutput, ni.aOutputs,
                                          SVisitNIOutput{}));
    });
}

kv_result SKvExperimentNI::LoadFromVariant(SKvExperimentNI& ni, const CKvVariant& node) {
    if (KvMeta::CheckRunType(node, kRunTypeNI) != KV_OK) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&] {
        KvMeta::Get(node, L"bIgnoreSetup", ni.bIgnoreSetup);
        LoadTreeEntries(node, L"VectorNISetupInputs", L"values", kRunTypeNIInput, ni.aInputs, SVisitNIInput{});
        LoadTreeEntries(node, L"VectorNISetupOutputs", L"values", kRunTypeNIOutput, ni.aOutputs, SVisitNIOutput{});
        return KV_OK;
    });
}

// ---------------------------------------------------------------- run types

namespace {

// Samples saved from default objects, so that trees read back from XML and
// lite variants get their run types (and the defaults of missing members).
template <typename Entry, typename Visit>
void RegisterEntrySample(const char* runType, Visit visit) {
    CKvVariant sample;
    BeginMembers(sample);
    const Entry entry;
    STreeSaver saver{sample, {}};
    visit(entry, saver);
    if (EndMembers(sample, runType, saver.result) == KV_OK) KvMeta::RegisterSample(runType, sample);
}

template <typename Struct, typename Save>
void RegisterStructSample(const char* runType, Save save) {
    CKvVariant sample;
    const Struct value{};
    if (save(sample, value) == KV_OK) KvMeta::RegisterSample(runType, sample);
}

const bool s_samplesRegistered = [] {
    KvNoThrow([] {
        RegisterStructSample<Stimulation>(kRunTypeStimulation, &Stimulation::SaveToVariant);
        RegisterStructSample<SKvExperimentEvent>(kRunTypeEvent, &SKvExperimentEvent::SaveToVariant);
        RegisterStructSample<SKvExperimentRecord>(kRunTypeRecord, &SKvExperimentRecord::SaveToVariant);
        RegisterEntrySample<SKvRecordedDataDesc>(kRunTypeRecordedDataDesc, SVisitRecordedDesc{});
        RegisterStructSample<SKvRecordedData>(kRunTypeRecordedData, &SKvRecordedData::SaveToVariant);
        RegisterEntrySample<SKvND_NISetupInputs>(kRunTypeNIInput, SVisitNIInput{});
        RegisterEntrySample<SKvND_NISetupOutputs>(kRunTypeNIOutput, SVisitNIOutput{});
        RegisterStructSample<SKvExperimentNI>(kRunTypeNI, &SKvExperimentNI::SaveToVariant);
        return KV_OK;
    });
    return true;
}();

}  // namespace

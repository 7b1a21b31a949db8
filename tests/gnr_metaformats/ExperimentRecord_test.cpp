#include "gnr_metaformats/ExperimentRecord.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "gnr_system/CKvSerializerXMLString.h"

namespace {

using Event = SKvExperimentEvent;
using Record = SKvExperimentRecord;

Event MakeEvent(double time, const wchar_t* description = nullptr) {
    Event event;
    EXPECT_EQ(KV_OK, Event::Init(event, time, Event::eMeaningUserMark, description, nullptr, 0));
    return event;
}

Record MakeRecord(const std::vector<double>& times) {
    Record record;
    for (double time : times) EXPECT_NE(0u, Record::AddEvent(record, MakeEvent(time)));
    return record;
}

std::vector<double> Times(const Record& record) {
    std::vector<double> times;
    for (uint32_t i = 0; i < record.GetCount(); ++i) times.push_back(record[i].dTime);
    return times;
}

CKvLiteVariantR Finish(CKvLiteVariantW& writer) {
    CKvLiteVariantR reader;
    EXPECT_EQ(KV_OK, writer.Finalize(reader, 0));
    return reader;
}

// The tree of `node` written as an XML document (which needs a name on every
// element) and read back.
CKvVariant ThroughXML(const CKvVariant& node) {
    CKvVariant named(node);
    named.SetName(CKvStringW(L"tree"));
    CKvStringW xml;
    EXPECT_EQ(KV_OK, CKvSerializerXMLString::DocumentToXML(xml, named));
    CKvVariant back;
    EXPECT_EQ(KV_OK, CKvSerializerXMLString::VariantFromXML(back, xml));
    return back;
}

// The tree of `node` written into a lite variant and read back as a tree.
CKvVariant ThroughLiteTree(const CKvVariant& node) {
    CKvLiteVariantW writer;
    EXPECT_EQ(KV_OK, writer.Set(node, L"tree"));
    CKvLiteVariantR reader = Finish(writer);
    CKvVariant back;
    EXPECT_EQ(KV_OK, reader.GetCurrentValue(back));
    return back;
}

}  // namespace

TEST(ExperimentRecord, KeepsEventsSortedAndIssuesIdsInOrderOfAdding) {
    Record record;
    // An event of a time already present goes after its equals; one later than all at the end.
    const struct { double time; uint32_t index; } adds[] = {{5, 0}, {1, 0}, {3, 1}, {3, 2}, {9, 4}};
    for (uint32_t i = 0; i < 5; ++i) {
        uint32_t index = 99;
        EXPECT_EQ(i + 1, Record::AddEvent(record, MakeEvent(adds[i].time), &index));
        EXPECT_EQ(adds[i].index, index) << i;
    }
    EXPECT_EQ((std::vector<double>{1, 3, 3, 5, 9}), Times(record));
    EXPECT_TRUE(record[0].uiID == 2 && record[1].uiID == 3 && record[2].uiID == 4 && record[3].uiID == 1);
    EXPECT_EQ(5u, record.GetLastID());

    // Removing never reissues an ID.
    EXPECT_EQ(KV_OK, Record::RemoveEvent(record, 4));
    EXPECT_EQ(6u, Record::AddEvent(record, MakeEvent(0)));
}

TEST(ExperimentRecord, SearchesByTimeWithTolerance) {
    const Record record = MakeRecord({5, 1, 3});
    struct Case {
        double time;
        uint32_t first;
        int32_t previous, next;
    };
    const Case cases[] = {
        {0.0, 0, KV_ERR_FAILED, 0}, {1.0, 0, KV_ERR_FAILED, 1}, {1.005, 1, 0, 1},  {2.0, 1, 0, 1},
        {2.995, 1, 0, 2},           {3.0, 1, 0, 2},             {4.9, 2, 1, 2},    {4.995, 2, 1, KV_ERR_FAILED},
        {5.0, 2, 1, KV_ERR_FAILED}, {7.0, 2, 2, KV_ERR_FAILED},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.time);
        EXPECT_EQ(c.first, Record::FindFirst(record, c.time));
        uint32_t index = 77;
        EXPECT_EQ(c.previous, Record::GetPrevious(record, c.time, &index));
        if (c.previous >= 0) {
            EXPECT_EQ(static_cast<uint32_t>(c.previous), index);
        }
        index = 77;
        EXPECT_EQ(c.next, Record::GetNext(record, c.time, &index));
        EXPECT_EQ(c.next >= 0 ? static_cast<uint32_t>(c.next) : 77u, index);
    }
    const Record empty;
    EXPECT_EQ(0u, Record::FindFirst(empty, 1.0));
    EXPECT_EQ(KV_ERR_FAILED, Record::GetPrevious(empty, 1.0));
    EXPECT_EQ(KV_ERR_FAILED, Record::GetNext(empty, 1.0));
}

TEST(ExperimentRecord, FindsGetsSetsAndRemovesEvents) {
    Record record = MakeRecord({10, 20, 30});  // IDs 1, 2, 3
    uint32_t index = 42;
    EXPECT_TRUE(Record::FindEvent(record, 2, &index));
    EXPECT_EQ(1u, index);
    EXPECT_FALSE(Record::FindEvent(record, 4, &index));
    EXPECT_EQ(1u, index);  // untouched on a miss

    Event event;
    EXPECT_EQ(KV_ERR_FAILED, Record::GetEvent(record, 3, event));
    ASSERT_EQ(KV_OK, Record::GetEvent(record, 0, event));
    EXPECT_EQ(10.0, event.dTime);

    // A new time moves the event to its place; it keeps its ID.
    event.dTime = 25;
    event.uiID = 77;
    ASSERT_EQ(KV_OK, Record::SetEvent(record, 0, event, &index));
    EXPECT_EQ(1u, index);
    EXPECT_EQ((std::vector<double>{20, 25, 30}), Times(record));
    EXPECT_EQ(1u, record[1].uiID);
    EXPECT_EQ(KV_ERR_FAILED, Record::SetEvent(record, 3, event));

    EXPECT_EQ(KV_ERR_FAILED, Record::RemoveEvent(record, 3));
    EXPECT_EQ(KV_OK, Record::RemoveEvent(record, 0));
    EXPECT_EQ((std::vector<double>{25, 30}), Times(record));
}

TEST(ExperimentRecord, GrowsInWholeBlocks) {
    Record record;
    Record::AddEvent(record, MakeEvent(0));
    const size_t perBlock = kEventBlockBytes / sizeof(Event);
    EXPECT_EQ(perBlock, record.GetCapacity());
    // Added in falling order, so that every event is inserted at the front.
    for (size_t i = 1; i <= perBlock; ++i) Record::AddEvent(record, MakeEvent(-static_cast<double>(i)));
    EXPECT_EQ(perBlock + 1, record.GetCount());
    EXPECT_EQ(2 * kEventBlockBytes / sizeof(Event), record.GetCapacity());
    for (uint32_t i = 1; i < record.GetCount(); ++i) ASSERT_LT(record[i - 1].dTime, record[i].dTime);
    EXPECT_EQ(perBlock + 1, record[0].uiID);
}

TEST(ExperimentRecord, MergesCopiesAndFrees) {
    Record dst = MakeRecord({1, 4});
    const Record src = MakeRecord({4, 2, 6});
    ASSERT_EQ(KV_OK, Record::Merge(dst, src));
    EXPECT_EQ((std::vector<double>{1, 2, 4, 4, 6}), Times(dst));
    EXPECT_EQ(5u, dst.GetLastID());
    // Among equal times the merged event follows dst's own; IDs are dst's new ones.
    EXPECT_EQ(2u, dst[2].uiID);
    EXPECT_EQ(4u, dst[3].uiID);

    Record copy;
    ASSERT_EQ(KV_OK, Record::Copy(copy, dst));
    EXPECT_EQ(dst.GetLastID(), copy.GetLastID());
    ASSERT_EQ(KV_OK, Record::Merge(copy, copy));
    EXPECT_EQ(10u, copy.GetCount());

    Record::Free(dst);
    EXPECT_EQ(0u, dst.GetCount());
    EXPECT_EQ(1u, Record::AddEvent(dst, MakeEvent(1)));
}

TEST(ExperimentEvent, InitStimulationAndDeepCopy) {
    Event event;
    ASSERT_EQ(KV_OK, Event::Init(event, 2.5, Event::eMeaningPhaseChange, L"phase 2", nullptr, 7));
    event.dTime2 = 3;
    ASSERT_EQ(KV_OK, Event::SetStimulation(event, Event::SKvStimulationDescription::eStimulationLight, 10, 100));
    Event copy = event;
    ASSERT_TRUE(copy.pDescription && copy.pStimulation);
    EXPECT_NE(event.pDescription.get(), copy.pDescription.get());
    EXPECT_EQ(event, copy);
    EXPECT_FALSE(copy.pAdditional);

    // Init starts over: second time cleared, stimulation gone.
    ASSERT_EQ(KV_OK, Event::Init(copy, 4, Event::eMeaningUserMark, nullptr, L"", 8));
    EXPECT_TRUE(copy.dTime2 == 0.0 && !copy.pDescription && copy.pAdditional && !copy.pStimulation);
    EXPECT_NE(event, copy);  // null and empty text differ

    ASSERT_EQ(KV_OK, Event::SetStimulation(event, 0, 1, 1));
    EXPECT_FALSE(event.pStimulation);
    ASSERT_EQ(KV_OK, Event::InitInteractiveFinish(event, 9, 3));
    EXPECT_EQ(CKvStringW(L"Interactive Finish"), *event.pDescription);
}

TEST(ExperimentRecord, LiteFormHasExactKeysAndRoundTrips) {
    Record record;
    Event plain = MakeEvent(1, L"mark");
    Event full = MakeEvent(2, L"stimulated");
    full.dTime2 = 2.5;
    Event::SetDescription(full, L"stimulated", L"by light");
    Event::SetStimulation(full, Event::SKvStimulationDescription::eStimulationTTL, 5, 50);
    Record::AddEvent(record, full);
    Record::AddEvent(record, plain);

    CKvLiteVariantW writer;
    ASSERT_EQ(KV_OK, Record::SaveToLiteVariant(writer, record));
    CKvLiteVariantR reader = Finish(writer);

    ASSERT_EQ(KV_OK, reader.LevelBegin(L"RKvExperimentRecord"));
    EXPECT_EQ(2u, reader.Get(L"uiCount", uint32_t{0}));
    uint32_t count = 0;
    ASSERT_EQ(KV_OK, reader.LevelBegin(L"pEvents", &count));
    EXPECT_EQ(2u, count);
    ASSERT_EQ(KV_OK, reader.CurrentLevelBegin());  // the plain mark, earliest
    for (const wchar_t* key : {L"T", L"M", L"D", L"I"}) EXPECT_TRUE(reader.IsValueSet(key)) << key;
    for (const wchar_t* key : {L"T2", L"A", L"S"}) EXPECT_FALSE(reader.IsValueSet(key)) << key;
    ASSERT_EQ(KV_OK, reader.LevelEnd());
    ASSERT_EQ(KV_OK, reader.NextValue());
    ASSERT_EQ(KV_OK, reader.CurrentLevelBegin());
    EXPECT_EQ(2.5, reader.Get(L"T2", 0.0));
    EXPECT_EQ(CKvStringW(L"by light"), reader.Get(L"A", L""));
    ASSERT_EQ(KV_OK, reader.LevelBegin(L"S"));
    EXPECT_EQ(5u, reader.Get(L"L", uint32_t{0}));
    EXPECT_EQ(50u, reader.Get(L"P", uint32_t{0}));

    reader.Reset();
    Record back;
    ASSERT_EQ(KV_OK, Record::LoadFromLiteVariant(back, reader));
    ASSERT_EQ(2u, back.GetCount());
    EXPECT_EQ(record[0], back[0]);
    EXPECT_EQ(record[1], back[1]);
    EXPECT_EQ(3u, Record::AddEvent(back, MakeEvent(0)));  // IDs continue after those loaded

    CKvLiteVariantW other;
    other.LevelBegin(L"Other");
    CKvLiteVariantR wrong = Finish(other);
    EXPECT_EQ(KV_ERR_FAILED, Record::LoadFromLiteVariant(back, wrong));
}

TEST(ExperimentRecord, TreeFormRoundTripsThroughXMLAndLite) {
    Record record = MakeRecord({3, 1});
    Event stimulated = MakeEvent(2, L"<&\"quoted\">");
    Event::SetStimulation(stimulated, Event::SKvStimulationDescription::eStimulationElectric, 1, 2);
    Record::AddEvent(record, stimulated);
    Record::RemoveEvent(record, 2);  // the last ID (3) now exceeds every ID present

    CKvVariant tree;
    ASSERT_EQ(KV_OK, Record::SaveToVariant(tree, record));
    for (const CKvVariant& node : {tree, ThroughXML(tree), ThroughLiteTree(tree)}) {
        Record back;
        ASSERT_EQ(KV_OK, Record::LoadFromVariant(back, node));
        ASSERT_EQ(2u, back.GetCount());
        EXPECT_EQ(record[0], back[0]);
        EXPECT_EQ(record[1], back[1]);
        EXPECT_EQ(3u, back.GetLastID());
    }
    Record untouched;
    CKvVariant wrong;
    ASSERT_EQ(KV_OK, SKvRecordedData::SaveToVariant(wrong, SKvRecordedData()));
    EXPECT_EQ(KV_ERR_INVALID_ARG, Record::LoadFromVariant(untouched, wrong));
}

TEST(ExperimentRecord, LoadingTakesWhatIsPresentAndSortsIt) {
    // A hand-made log: an absurd count, events out of order, a stray item.
    CKvLiteVariantW writer;
    writer.LevelBegin(L"RKvExperimentRecord");
    writer.Set(uint32_t{4000000000u}, L"uiCount");
    writer.LevelBegin(L"pEvents");
    const double times[] = {7, 2, NAN, 4};
    for (uint32_t i = 0; i < 4; ++i) {
        writer.LevelBegin(nullptr);
        writer.Set(times[i], L"T");
        writer.Set(10 + i, L"I");
        writer.LevelEnd();
        if (i == 1) writer.Set(int32_t{5}, L"stray");
    }
    CKvLiteVariantR reader = Finish(writer);
    Record record;
    ASSERT_EQ(KV_OK, Record::LoadFromLiteVariant(record, reader));
    ASSERT_EQ(4u, record.GetCount());
    // A time that cannot be compared counts as earlier than any other.
    EXPECT_TRUE(std::isnan(record[0].dTime));
    EXPECT_EQ(2.0, record[1].dTime);
    EXPECT_EQ(4.0, record[2].dTime);
    EXPECT_EQ(7.0, record[3].dTime);
    EXPECT_EQ(2, Record::GetNext(record, 3.0));
    EXPECT_EQ(1, Record::GetPrevious(record, 4.0));
    EXPECT_EQ(13u, record.GetLastID());
    EXPECT_LE(record.GetCapacity() * sizeof(Event), kEventBlockBytes);
}

namespace {

SKvRecordedData MakeRecordedData() {
    SKvRecordedData data;
    data.iVersion = 3;
    data.dValTime = 0.5;
    data.dValFrequnce = 2;
    data.eRecordAngIn = SKvRecordedData::eRecordContinuous;
    data.aGroups[SKvRecordedData::eGroupAngIn] = {{L"ai0", L"Input 0", true}, {L"ai1", L"Input 1", false}};
    data.aGroups[SKvRecordedData::eGroupTTLOut] = {{L"ttl", L"Shutter", true}};
    return data;
}

SKvExperimentNI MakeNI() {
    SKvExperimentNI ni;
    ni.bIgnoreSetup = true;
    ni.aInputs.resize(2);
    ni.aInputs[1].eType = SKvND_NISetupInputs::eInAnalog;
    ni.aInputs[1].dHysteresis = 0.25;
    ni.aInputs[1].sKeepObjInViewCondition = L"inside";
    ni.aOutputs.resize(1);
    ni.aOutputs[0].bInfiniti = true;
    ni.aOutputs[0].uiNumPeriods = 12;
    const uint8_t bytes[] = {1, 2, 3};
    ni.aOutputs[0].BASettingsIncub = CKvByteArray(bytes, sizeof bytes);
    ni.aOutputs[0].BALiquidDefinition = CKvByteArray(bytes, 1);
    return ni;
}

CKvVariant Tree(const SKvExperimentNI& ni) {
    CKvVariant tree;
    EXPECT_EQ(KV_OK, SKvExperimentNI::SaveToVariant(tree, ni));
    return tree;
}

}  // namespace

// Both kinds through the lite form and, as a tree, through XML and lite; `same` compares two of them.
template <typename T, typename Same>
void ExpectRoundTrips(const T& value, const wchar_t* level, Same same) {
    CKvLiteVariantW writer;
    writer.LevelBegin(level);
    ASSERT_EQ(KV_OK, T::SaveToLiteVariant(writer, value));
    CKvLiteVariantR reader = Finish(writer);
    ASSERT_EQ(KV_OK, reader.LevelBegin(level));
    T back;
    ASSERT_EQ(KV_OK, T::LoadFromLiteVariant(back, reader));
    EXPECT_TRUE(same(value, back)) << "lite";
    CKvVariant tree;
    ASSERT_EQ(KV_OK, T::SaveToVariant(tree, value));
    for (const CKvVariant& node : {ThroughXML(tree), ThroughLiteTree(tree)}) {
        T fromTree;
        ASSERT_EQ(KV_OK, T::LoadFromVariant(fromTree, node));
        EXPECT_TRUE(same(value, fromTree));
    }
}

TEST(RecordedDataAndExperimentNI, RoundTripThroughLiteTreeAndXML) {
    ExpectRoundTrips(MakeRecordedData(), L"pRecordedData",
                     [](const SKvRecordedData& a, const SKvRecordedData& b) { return a == b; });
    // The tree form is the whole content; the byte arrays are checked on their own.
    ExpectRoundTrips(MakeNI(), L"pNIExperiment", [](const SKvExperimentNI& a, const SKvExperimentNI& b) {
        return Tree(a) == Tree(b) && b.aOutputs.size() == 1 && b.aOutputs[0].BASettingsIncub.GetSize() == 3;
    });
    SKvExperimentNI wrong;
    EXPECT_EQ(KV_ERR_INVALID_ARG, SKvExperimentNI::LoadFromVariant(wrong, CKvVariant(1, CKvStringW(L"x"))));
}

TEST(ExperimentNI, ListSizesNeverDecideAllocation) {
    struct Case {
        int32_t size;
        size_t expected;
    };
    for (const Case c : {Case{2000000000, 3}, Case{2, 2}, Case{-5, 0}}) {
        SCOPED_TRACE(c.size);
        CKvLiteVariantW writer;
        writer.LevelBegin(L"pNIExperiment");
        writer.LevelBegin(L"VectorNISetupInputs");
        writer.Set(c.size, L"size");
        writer.LevelBegin(L"values");
        for (int i = 0; i < 3; ++i) {
            writer.LevelBegin(nullptr);
            writer.Set(int32_t{i}, L"iIndex");
            writer.LevelEnd();
        }
        writer.LevelEnd();
        writer.LevelEnd();
        CKvLiteVariantR reader = Finish(writer);
        ASSERT_EQ(KV_OK, reader.LevelBegin(L"pNIExperiment"));
        SKvExperimentNI ni = MakeNI();
        ASSERT_EQ(KV_OK, SKvExperimentNI::LoadFromLiteVariant(ni, reader));
        ASSERT_EQ(c.expected, ni.aInputs.size());
        for (size_t i = 0; i < ni.aInputs.size(); ++i) EXPECT_EQ(static_cast<int32_t>(i), ni.aInputs[i].iIndex);
        EXPECT_EQ(1u, ni.aOutputs.size());  // a missing list keeps what was there
        EXPECT_TRUE(ni.bIgnoreSetup);
    }
}

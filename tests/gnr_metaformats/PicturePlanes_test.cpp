#include "gnr_metaformats/PicturePlanes.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "gnr_metaformats/KvMetaIO.h"
#include "gnr_system/CKvSerializerXMLString.h"

namespace {

using Desc = SKvPicturePlaneDesc;
using Planes = SKvPicturePlanes;

CKvOpticalFilter Filter(const wchar_t* name, uint32_t placement, double wavelength) {
    CKvOpticalFilter filter;
    filter.SetName(name);
    filter.SetPlacement(placement);
    filter.GetEmissionSpectrum() = CKvOpticalFilterSpectrum(wavelength, SKvOFSpectrumPoint::eSptPeak);
    return filter;
}

CKvFluorescentProbe Probe(const wchar_t* name, uint32_t colour, double excitation, double emission) {
    CKvFluorescentProbe probe(name, colour);
    probe.GetExcitationSpectrum() = CKvOpticalFilterSpectrum(excitation, SKvOFSpectrumPoint::eSptPoint);
    probe.GetEmissionSpectrum() = CKvOpticalFilterSpectrum(emission, SKvOFSpectrumPoint::eSptPeak);
    return probe;
}

// Three planes with every field set: a camera fluorescence plane with a
// two-filter path, a confocal one, and a transmitted-light detector plane.
Planes Populated() {
    Planes planes;
    EXPECT_EQ(KV_OK, Planes::Alloc(planes, 3, 3));
    const uint64_t masks[] = {0x101, 0x201, 0x1000002};
    const wchar_t* names[] = {L"DAPI", L"GFP", L"TD"};
    for (uint32_t i = 0; i < 3; ++i) {
        Desc& p = planes.pPlanes[i];
        p.uiSampleIndex = i;
        p.uiModalityMask = masks[i];
        p.sDescription = names[i];
        p.uiColor = 0x0000FF << (8 * i);
        p.dObjCalibration1to1 = 6.5 + i;
        p.sizeObjFullChipCx = 2048;
        p.sizeObjFullChipCy = 1536 + static_cast<int32_t>(i);
        p.dLampVoltage = 3.5;
        p.dFadingCorr = 0.75;
        p.dAcqTime = 12.25 * (i + 1);
        p.dPinholeDiameter = 1.5;
        p.iChannelSeriesIndex = static_cast<int32_t>(i);
        planes.pSampleSettings[i] = static_cast<uint8_t>(10 + i);
    }
    planes.pPlanes[0].pFluorescentProbe = Probe(L"DAPI", 0xFF0000, 358, 461);
    planes.pPlanes[0].pFilterPath = CKvOpticalFilterPath(Filter(L"Ex 350/50", 1, 350), Filter(L"Em 460/50", 2, 460));
    planes.pPlanes[1].pFluorescentProbe = Probe(L"GFP", 0x00FF00, 488, 509);
    planes.pPlanes[1].pFilterPath = CKvOpticalFilterPath(Filter(L"Em 525/50", 2, 525));
    planes.uiCompCount = 3;
    planes.sDescription = L"three labels";
    planes.eRepresentation = kRepresentationHDR;
    return planes;
}

// Every stored field alike; `old` for planes that came back through the old
// layout, which carries the modality as the old value and no sample index,
// pinhole or channel series index.
bool SameDesc(const Desc& a, const Desc& b, bool old) {
    const uint64_t mask =
        old ? Desc::TranslateModalityToMask(Desc::TranslateMaskToModality(a.uiModalityMask)) : a.uiModalityMask;
    return a.uiCompCount == b.uiCompCount && mask == b.uiModalityMask &&
           (old ? 0u : a.uiSampleIndex) == b.uiSampleIndex && (old ? -1.0 : a.dPinholeDiameter) == b.dPinholeDiameter &&
           (old ? -1 : a.iChannelSeriesIndex) == b.iChannelSeriesIndex && a.pFluorescentProbe == b.pFluorescentProbe &&
           a.pFilterPath == b.pFilterPath && a.sDescription == b.sDescription && a.uiColor == b.uiColor &&
           a.dObjCalibration1to1 == b.dObjCalibration1to1 && a.sizeObjFullChipCx == b.sizeObjFullChipCx &&
           a.sizeObjFullChipCy == b.sizeObjFullChipCy && a.dLampVoltage == b.dLampVoltage &&
           a.dFadingCorr == b.dFadingCorr && a.dAcqTime == b.dAcqTime;
}

void ExpectSamePlanes(const Planes& want, const Planes& got, bool old = false, const char* how = "") {
    ASSERT_EQ(want.uiCount, got.uiCount) << how;
    EXPECT_TRUE(want.uiCompCount == got.uiCompCount && want.sDescription == got.sDescription &&
                want.eRepresentation == got.eRepresentation) << how;
    for (uint32_t i = 0; i < want.uiCount; ++i) EXPECT_TRUE(SameDesc(want.pPlanes[i], got.pPlanes[i], old)) << how << i;
}

// The lite form of `planes` inside a level, as a reader positioned at the top.
void SaveLite(const Planes& planes, CKvLiteVariantR& reader) {
    CKvLiteVariantW writer;
    {
        KvMeta::CLvLevelWriter level(writer, L"sPicturePlanes");
        EXPECT_EQ(KV_OK, Planes::SaveToLiteVariant(writer, planes));
    }
    ASSERT_EQ(KV_OK, writer.Finalize(reader, 0));
}

kv_result LoadLite(Planes& planes, CKvLiteVariantR& reader) {
    KvMeta::CLvLevelReader level(reader, L"sPicturePlanes");
    EXPECT_TRUE(level.IsOpen());
    return Planes::LoadFromLiteVariant(planes, reader);
}

std::vector<std::wstring> MemberNames(const CKvVariant& node) {
    std::vector<std::wstring> names;
    for (int i = 0; i < node.GetCount(); ++i) names.push_back(node[i].GetName().GetString());
    return names;
}

// Structured nodes get their run type once their members are in.
void SetRunType(CKvVariant& node, const char* runType) { node.GetData()->SetRunType(CKvVariantRunType(runType)); }

// An old writer's tree: only "sPlane", one plane of `runType` per modality value.
CKvVariant OldWriterTree(const std::vector<uint32_t>& modalities, uint32_t count, const char* runType) {
    CKvVariant root;
    KvMeta::BeginStruct(root, "CKvListVariant");
    KvMeta::Put(root, L"uiCount", count);
    KvMeta::Put(root, L"uiCompCount", static_cast<uint32_t>(modalities.size()));
    CKvVariant* list = KvMeta::PutList(root, L"sPlane");
    for (size_t i = 0; i < modalities.size(); ++i) {
        CKvVariant* element = KvMeta::PutList(*list, (L"a" + std::to_wstring(i)).c_str());
        KvMeta::Put(*element, L"uiCompCount", 1u);
        KvMeta::Put(*element, L"eModality", modalities[i]);
        KvMeta::Put(*element, L"dAcqTime", 4.5);
        SetRunType(*element, runType);
    }
    SetRunType(root, "RKvPicturePlanes");
    return root;
}

TEST(PicturePlaneDesc, ModalityTableAndMaskRules) {
    const uint64_t table[] = {0x101, 0x102, 0x201, 0x401, 0x801, 0x10201, 0x11, 0x21,
                              0x200201, 0x800201, 0x400201, 0x800201};
    for (uint32_t v = 0; v < 12; ++v) {
        EXPECT_EQ(table[v], Desc::TranslateModalityToMask(v)) << v;
        EXPECT_EQ(v == 9 ? 11u : v, Desc::TranslateMaskToModality(table[v])) << v;
        EXPECT_TRUE(Desc::IsModalityMaskValid(table[v])) << v;
    }
    EXPECT_EQ(0x101u, Desc::TranslateModalityToMask(12));
    EXPECT_EQ(4u, Desc::TranslateMaskToModality(0x1001));
    const struct { uint64_t mask; bool valid, changeable; } cases[] = {
        {0x1, true, true}, {0x2, true, true}, {0x101, true, true}, {0x102, true, true}, {0x0, false, false},
        {0x3, false, false}, {0x31, false, false}, {0x301, false, false}, {0x1001, true, false},
        {0x2001, false, false}, {0x4000001, true, false}, {0x1200002, false, false}, {0x1000002, true, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.valid, Desc::IsModalityMaskValid(c.mask)) << std::hex << c.mask;
        Desc d;
        d.uiModalityMask = c.mask;
        EXPECT_EQ(c.changeable, d.IsModalityChangeAllowed()) << std::hex << c.mask;
    }
}

TEST(PicturePlanes, InvalidMaskIsRepairedByComponentCount) {
    for (uint32_t components : {1u, 3u, 4u}) {
        const uint64_t want = components == 3 ? 0x2 : 0x1;
        Desc d;
        d.uiCompCount = components;
        d.uiModalityMask = 0x3;
        CKvVariant node;
        ASSERT_EQ(KV_OK, Desc::SaveToVariant(node, d));
        Desc fromTree;
        ASSERT_EQ(KV_OK, Desc::LoadFromVariant(fromTree, node));
        EXPECT_EQ(want, fromTree.uiModalityMask) << components;

        CKvLiteVariantW writer;
        writer.LevelBegin(L"d");
        ASSERT_EQ(KV_OK, Desc::SaveToLiteVariant(writer, d));
        CKvLiteVariantR reader;
        ASSERT_EQ(KV_OK, writer.Finalize(reader, 0));
        KvMeta::CLvLevelReader level(reader, L"d");
        Desc fromLite;
        ASSERT_EQ(KV_OK, Desc::LoadFromLiteVariant(fromLite, reader));
        EXPECT_EQ(want, fromLite.uiModalityMask) << components;
    }
}

TEST(PicturePlanes, PopulatedSetRoundTripsThroughTreeXmlAndLite) {
    const Planes planes = Populated();
    CKvVariant tree;
    tree.SetName(CKvStringW(L"sPicturePlanes"));  // XML elements need names
    ASSERT_EQ(KV_OK, Planes::SaveToVariant(tree, planes));
    Planes fromTree;
    ASSERT_EQ(KV_OK, Planes::LoadFromVariant(fromTree, tree));
    ExpectSamePlanes(planes, fromTree);
    // No settings come back, so the loaded set equals nothing until it gets slots again.
    EXPECT_EQ(0u, fromTree.uiSampleCount);
    EXPECT_FALSE(Planes::IsEqual(planes, fromTree));
    ASSERT_EQ(KV_OK, Planes::MakeCompatible(fromTree, 3));
    EXPECT_TRUE(Planes::IsEqual(planes, fromTree));

    CKvStringW xml;
    ASSERT_EQ(KV_OK, CKvSerializerXMLString::DocumentToXML(xml, tree));
    CKvVariant parsed;
    ASSERT_EQ(KV_OK, CKvSerializerXMLString::VariantFromXML(parsed, xml));
    Planes fromXml;
    ASSERT_EQ(KV_OK, Planes::LoadFromVariant(fromXml, parsed));
    ExpectSamePlanes(planes, fromXml, false, "XML");

    CKvLiteVariantR reader;
    SaveLite(planes, reader);
    Planes fromLite;
    ASSERT_EQ(KV_OK, LoadLite(fromLite, reader));
    ExpectSamePlanes(planes, fromLite, false, "lite");

    // A tree stored whole in a lite variant gets its registered run types back.
    CKvLiteVariantW treeWriter;
    ASSERT_EQ(KV_OK, treeWriter.Set(tree, L"planes"));
    CKvLiteVariantR treeReader;
    ASSERT_EQ(KV_OK, treeWriter.Finalize(treeReader, 0));
    CKvVariant liteTree;
    ASSERT_EQ(KV_OK, treeReader.GetCurrentValue(liteTree));
    Planes fromLiteTree;
    ASSERT_EQ(KV_OK, Planes::LoadFromVariant(fromLiteTree, liteTree));
    ExpectSamePlanes(planes, fromLiteTree, false, "tree in lite");
}

TEST(PicturePlanes, StoredLayoutsKeepTheirKeysInOrder) {
    const Planes planes = Populated();
    CKvVariant tree;
    ASSERT_EQ(KV_OK, Planes::SaveToVariant(tree, planes));
    EXPECT_EQ((std::vector<std::wstring>{L"uiCount", L"uiCompCount", L"sPlane", L"sPlaneNew", L"uiSampleCount",
                                         L"sSampleSetting", L"sDescription", L"eRepresentation"}),
              MemberNames(tree));
    EXPECT_EQ(3, tree[L"sSampleSetting"].GetCount());
    const CKvVariant& current = tree[L"sPlaneNew"][L"a1"];
    EXPECT_EQ(CKvVariantRunType("RKvPicturePlaneDescV1_2"), current.GetRunType());
    EXPECT_EQ((std::vector<std::wstring>{L"uiCompCount", L"uiSampleIndex", L"uiModalityMask", L"pFluorescentProbe",
                                         L"pFilterPath", L"dLampVoltage", L"dFadingCorr", L"uiColor", L"sDescription",
                                         L"dAcqTime", L"dPinholeDiameter", L"iChannelSeriesIndex",
                                         L"dObjCalibration1to1", L"sizeObjFullChip.cx", L"sizeObjFullChip.cy"}),
              MemberNames(current));
    const std::vector<std::wstring> oldKeys = {L"uiCompCount", L"sOpticalConfigName", L"eModality",
                                               L"pFluorescentProbe", L"pFilterPath", L"dLampVoltage",
                                               L"dFadingCorr", L"uiColor", L"sDescription", L"dAcqTime",
                                               L"dObjCalibration1to1", L"sizeObjFullChip.cx", L"sizeObjFullChip.cy"};
    std::vector<std::wstring> firstKeys = oldKeys;
    firstKeys.insert(firstKeys.begin() + 5, L"sCameraSetting");
    EXPECT_EQ(firstKeys, MemberNames(tree[L"sPlane"][L"a0"]));
    EXPECT_EQ(oldKeys, MemberNames(tree[L"sPlane"][L"a1"]));
    EXPECT_EQ(CKvVariantRunType("RKvPicturePlaneDescV1_1"), tree[L"sPlane"][L"a1"].GetRunType());
    EXPECT_EQ(KV_ERR_FAILED, Desc::SaveToVariantOld(tree, planes, 3));

    CKvLiteVariantR reader;
    SaveLite(planes, reader);
    KvMeta::CLvLevelReader level(reader, L"sPicturePlanes");
    std::vector<std::wstring> names;
    for (; reader.GetCurrentType() != eLvNone; reader.NextValue()) names.push_back(reader.GetCurrentName().GetString());
    EXPECT_EQ((std::vector<std::wstring>{L"uiCount", L"uiCompCount", L"sPlaneNew", L"sPlane", L"uiSampleCount",
                                         L"sSampleSetting", L"sDescription", L"eRepresentation"}),
              names);
}

TEST(PicturePlanes, OldLayoutAloneLoads) {
    const Planes planes = Populated();
    CKvVariant tree;
    ASSERT_EQ(KV_OK, Planes::SaveToVariant(tree, planes));
    ASSERT_EQ(KV_OK, tree.Delete(static_cast<unsigned>(tree.IndexOf(L"sPlaneNew"))));
    Planes fromOld;
    ASSERT_EQ(KV_OK, Planes::LoadFromVariant(fromOld, tree));
    ExpectSamePlanes(planes, fromOld, true);
    EXPECT_EQ(0x102u, fromOld.pPlanes[2].uiModalityMask);  // the detector bit has no old value

    // An old writer's tree; the first version carries no acquisition time.
    const struct { const char* runType; double acqTime; } versions[] = {
        {"RKvPicturePlaneDescV1_1", 4.5}, {"RKvPicturePlaneDesc", -1.0}};
    for (const auto& v : versions) {
        Planes loaded;
        ASSERT_EQ(KV_OK, Planes::LoadFromVariant(loaded, OldWriterTree({9, 2, 1}, 3, v.runType)));
        ASSERT_EQ(3u, loaded.uiCount) << v.runType;
        const Desc* p = loaded.pPlanes;
        EXPECT_TRUE(p[0].uiModalityMask == 0x800201u && p[1].uiModalityMask == 0x201u && p[2].uiModalityMask == 0x102u);
        EXPECT_EQ(v.acqTime, p[1].dAcqTime) << v.runType;
        EXPECT_TRUE(p[1].dPinholeDiameter == -1.0 && p[1].iChannelSeriesIndex == -1);
    }
}

TEST(PicturePlanes, MismatchedOrAbsurdCountsLoadEmpty) {
    for (uint32_t count : {2u, 4u, 4000000000u}) {
        Planes loaded = Populated();
        ASSERT_EQ(KV_OK, Planes::LoadFromVariant(loaded, OldWriterTree({0, 1, 2}, count, "RKvPicturePlaneDescV1_1")));
        EXPECT_TRUE(loaded.uiCount == 0 && loaded.uiCompCount == 0 && !loaded.pPlanes) << count;

        // Lite: three empty planes after the count.
        CKvLiteVariantW writer;
        writer.LevelBegin(L"sPicturePlanes");
        writer.Set(count, L"uiCount");
        writer.LevelBegin(L"sPlaneNew");
        for (int i = 0; i < 3; ++i) writer.LevelBegin(nullptr), writer.LevelEnd();
        writer.LevelEnd();
        CKvLiteVariantR reader;
        ASSERT_EQ(KV_OK, writer.Finalize(reader, 0));
        Planes fromLite = Populated();
        ASSERT_EQ(KV_OK, LoadLite(fromLite, reader));
        EXPECT_TRUE(fromLite.uiCount == 0 && fromLite.uiCompCount == 0 && !fromLite.pPlanes) << count;
    }
    // A wrong run type leaves the set alone; a wrong plane is traced and skipped.
    Planes kept = Populated();
    CKvVariant plain;
    KvMeta::BeginStruct(plain, "RKvSomethingElse");
    EXPECT_EQ(KV_ERR_INVALID_ARG, Planes::LoadFromVariant(kept, plain));
    EXPECT_EQ(3u, kept.uiCount);
    Planes skipped;
    ASSERT_EQ(KV_OK, Planes::LoadFromVariant(skipped, OldWriterTree({6, 7}, 2, "RKvOther")));
    ASSERT_EQ(2u, skipped.uiCount);
    EXPECT_EQ(Desc().uiModalityMask, skipped.pPlanes[1].uiModalityMask);
}

TEST(PicturePlanes, HugeAllocationsAnswerOutOfMemory) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the address sanitizer aborts on allocations it cannot serve";
#else
    Planes planes = Populated();
    EXPECT_EQ(KV_ERR_OUT_OF_MEMORY, Planes::Alloc(planes, 4000000000u, 1));
    EXPECT_TRUE(planes.uiCount == 0 && !planes.pPlanes && !planes.pSampleSettings);
    // Settings of 4 GB fail once the address space is held tight.
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit old{};
    ASSERT_EQ(0, getrlimit(RLIMIT_AS, &old));
    rlimit tight = old;
    tight.rlim_cur = static_cast<rlim_t>(pages) * sysconf(_SC_PAGESIZE) + (rlim_t{512} << 20);
    ASSERT_EQ(0, setrlimit(RLIMIT_AS, &tight));
    const kv_result result = Planes::Alloc(planes, 2, UINT32_MAX);
    setrlimit(RLIMIT_AS, &old);
    EXPECT_EQ(KV_ERR_OUT_OF_MEMORY, result);
    EXPECT_TRUE(planes.uiCount == 0 && planes.uiSampleCount == 0 && !planes.pPlanes);
#endif
}

TEST(PicturePlanes, EqualityCompatibilityAndCopies) {
    EXPECT_TRUE(Planes::IsCompatible(Planes(), Planes()));
    const Planes a = Populated();
    Planes b(a);
    EXPECT_TRUE(Planes::IsEqual(a, b));
    EXPECT_EQ(nullptr, b.GetPlaneSettings(3));
    b.pPlanes[2].sDescription = L"other";
    EXPECT_FALSE(Planes::IsEqual(a, b));
    EXPECT_TRUE(Planes::IsPlaneEqual(a, 0, b, 0));
    b.pPlanes[0].uiSampleIndex = 7;  // no slot there
    EXPECT_FALSE(Planes::IsPlaneEqual(a, 0, b, 0));
    b.pPlanes[1].uiCompCount = 2;
    EXPECT_FALSE(Planes::IsCompatible(a, b));
    const Planes& alias = b;
    b = a;
    b = alias;
    EXPECT_TRUE(Planes::IsEqual(a, b));
}

TEST(PicturePlanes, MonoRgbAndSpectral) {
    Planes planes = Populated();
    ASSERT_EQ(KV_OK, Planes::MakeRGB(planes));
    EXPECT_TRUE(planes.uiCount == 1 && planes.uiCompCount == 3 && planes.uiSampleCount == 1);
    EXPECT_TRUE(planes.pPlanes[0].uiCompCount == 3 && planes.pPlanes[0].uiModalityMask == 0x2);
    EXPECT_EQ(0u, planes.eRepresentation);
    EXPECT_EQ(KV_ERR_FAILED, planes.ConvertToSpectral());
    ASSERT_EQ(KV_OK, Planes::MakeMono(planes));
    EXPECT_TRUE(planes.uiCount == 1 && planes.uiCompCount == 1 && planes.pPlanes[0].uiColor == 0xFFFFFF);

    planes = Populated();
    EXPECT_FALSE(planes.IsSpectral());  // HDR
    planes.pPlanes[1].uiModalityMask |= 0x400000;
    ASSERT_EQ(KV_OK, planes.ConvertToSpectral());
    const Desc* p = planes.pPlanes;
    EXPECT_TRUE(p[0].uiModalityMask == 0x200101u && p[1].uiModalityMask == 0x200201u &&
                p[2].uiModalityMask == 0x1000002u && planes.eRepresentation == 0);
    EXPECT_TRUE(planes.IsSpectral());  // the TD plane does not spoil it
}

TEST(PicturePlanes, MakeCompatibleFitsThePlanesToTheComponents) {
    Planes three = Populated();
    three.pPlanes[2].uiSampleIndex = 9;
    ASSERT_EQ(KV_OK, Planes::MakeCompatible(three, 3));
    EXPECT_TRUE(three.uiCount == 3 && three.pPlanes[2].uiSampleIndex == 2 && three.pPlanes[2].sDescription == L"TD");

    const struct { uint32_t components; uint32_t planes; const wchar_t* firstName; uint32_t firstComps; } cases[] = {
        {0, 0, nullptr, 0}, {1, 1, L"Mono", 1}, {3, 3, L"DAPI", 1}, {4, 4, L"Channel 1", 1},
        {2, 2, L"Channel 1", 1}, {5000, 1, L"Channels", 5000},
    };
    for (const auto& c : cases) {
        // The stored plane set lost its component counts (as lite defaults give them).
        Planes planes = Populated();
        for (uint32_t i = 0; i < planes.uiCount; ++i) planes.pPlanes[i].uiCompCount = 0;
        ASSERT_EQ(KV_OK, Planes::MakeCompatible(planes, c.components)) << c.components;
        ASSERT_EQ(c.planes, planes.uiCount) << c.components;
        EXPECT_EQ(c.components, planes.uiCompCount);
        if (!c.planes) continue;
        EXPECT_EQ(CKvStringW(c.firstName), planes.pPlanes[0].sDescription) << c.components;
        EXPECT_EQ(c.firstComps, planes.pPlanes[0].uiCompCount);
        EXPECT_EQ(c.planes - 1, planes.pPlanes[c.planes - 1].uiSampleIndex);
        for (uint32_t i = 0; i < planes.uiCount; ++i) EXPECT_NE(nullptr, planes.GetPlaneSettings(i));
    }
}

TEST(PicturePlanes, MergeExtractAndSelections) {
    const Planes labels = Populated();
    Planes merged;
    ASSERT_EQ(KV_OK, Planes::MakeRGB(merged));
    merged.GetPlaneSettings(0)[0] = 42;
    ASSERT_EQ(KV_OK, Planes::MergePlanes(merged, labels));
    ASSERT_EQ(4u, merged.uiCount);
    EXPECT_EQ(6u, merged.uiCompCount);
    const uint32_t indices[] = {0, 3, 4, 5};
    const uint8_t slots[] = {42, 10, 11, 12};
    for (uint32_t i = 0; i < 4; ++i) {
        EXPECT_EQ(indices[i], merged.pPlanes[i].uiSampleIndex) << i;
        ASSERT_NE(nullptr, merged.GetPlaneSettings(i));
        EXPECT_EQ(slots[i], merged.GetPlaneSettings(i)[0]) << i;
    }
    ASSERT_EQ(KV_OK, Planes::MergePlanes(merged, merged));
    EXPECT_TRUE(merged.uiCount == 8 && merged.uiCompCount == 12);

    CKvRangeMask mask;
    mask.Add(0);
    mask.Add(2);
    mask.Add(7);
    EXPECT_EQ(2u, Planes::MaskedSampleCount(labels, mask));
    EXPECT_EQ(1u, Planes::GetNonTransmittedPlanesCount(labels, &mask));
    EXPECT_EQ(2u, Planes::GetNonTransmittedChannelCount(labels));
    uint32_t colours[3] = {};
    const uint32_t lut[3] = {0x111111, 0x222222, 0x1333333};
    EXPECT_EQ(2u, Planes::GetPlaneColors(labels, colours, &mask, 0, lut));
    EXPECT_TRUE(colours[0] == 0x111111 && colours[1] == 0x333333);
    EXPECT_EQ(3u, Planes::GetPlaneColors(labels, colours, nullptr, kPlaneColorsWhiteTD, nullptr));
    EXPECT_TRUE(colours[0] == 0xFF && colours[1] == 0xFF00 && colours[2] == 0xFFFFFF);

    Planes extracted;
    ASSERT_EQ(KV_OK, Planes::ExtractPlanes(extracted, labels, mask, 0));
    ASSERT_TRUE(extracted.uiCount == 2 && extracted.uiCompCount == 2);
    EXPECT_TRUE(extracted.pPlanes[1].sDescription == L"TD" && extracted.pPlanes[1].uiSampleIndex == 1);
    EXPECT_EQ(12, extracted.GetPlaneSettings(1)[0]);
    ASSERT_EQ(KV_OK, Planes::ExtractPlanes(extracted, extracted, mask, kExtractPlanesWhite));
    ASSERT_EQ(1u, extracted.uiCount);
    EXPECT_EQ(0xFFFFFFu, extracted.pPlanes[0].uiColor);
    ASSERT_EQ(KV_OK, Planes::ExtractPlanes(extracted, labels, CKvRangeMask(), 0));
    EXPECT_EQ(0u, extracted.uiCount);
}

}  // namespace

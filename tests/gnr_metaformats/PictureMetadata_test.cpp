#include "gnr_metaformats/PictureMetadata.h"

#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <vector>

#include "gnr_metaformats/KvMetaIO.h"
#include "gnr_system/CKvSerializerXMLString.h"

namespace {

CKvOpticalFilter Filter(const wchar_t* name, double low, double high) {
    CKvOpticalFilter filter;
    filter.SetName(name);
    filter.SetUserName(CKvStringW(name) + L" (user)");
    filter.SetNature(CKvOpticalFilter::eOfnBandPass);
    SKvOFSpectrumPoint edge{SKvOFSpectrumPoint::eSptRisingEdge, low, 0.9};
    filter.GetEmissionSpectrum().AddPoint(edge);
    edge = {SKvOFSpectrumPoint::eSptFallingEdge, high, 0.9};
    filter.GetEmissionSpectrum().AddPoint(edge);
    filter.GetExcitationSpectrum() = CKvOpticalFilterSpectrum(low - 60.0, SKvOFSpectrumPoint::eSptPoint);
    return filter;
}

// A record with every field away from its default: two planes with probes
// and three-filter paths, and three physical variables.
SKvPictureMetadata Populated() {
    SKvPictureMetadata m;
    m.dTimeAbsolute = 1.7e12;
    m.dTimeMSec = 1234.5;
    m.dXPos = -10.25;
    m.dYPos = 20.5;
    m.uiRow = 3;
    m.uiCol = 7;
    m.dZPos = 4.75;
    m.bZPosAbsolute = true;
    m.dAngle = 90.0;
    m.dTemperK = 310.15;
    m.bCalibrated = true;
    m.dCalibration = 0.108;
    m.dAspect = 1.01;
    m.wsObjectiveName = L"Plan Apo 60x Öl";
    m.dObjectiveMag = 60.0;
    m.dObjectiveNA = 1.4;
    m.dRefractIndex1 = 1.515;
    m.dRefractIndex2 = 1.33;
    m.dZoom = 2.0;
    m.dProjectiveMag = 1.5;
    m.wsCustomData = L"<custom/>";
    m.ePictureXAxis = 2;
    m.ePictureYAxis = 3;
    m.dTimeAxisCalibration = 0.5;
    m.dZAxisCalibration = 0.25;
    m.dStgLgCT11 = 0.0;
    m.dStgLgCT21 = 1.0;
    m.dStgLgCT12 = -1.0;
    m.dStgLgCT22 = 0.0;

    SKvPicturePlanes::Alloc(m.sPicturePlanes, 2, 0);  // setting slots are not read back
    m.sPicturePlanes.uiCompCount = 2;
    for (uint32_t i = 0; i < 2; ++i) {
        SKvPicturePlaneDesc& plane = m.sPicturePlanes.pPlanes[i];
        plane.uiSampleIndex = i;
        plane.uiModalityMask = i == 0 ? 0x201 : 0x101;
        plane.uiColor = i == 0 ? 0x00FF00u : 0x0000FFu;
        plane.sDescription = i == 0 ? L"GFP" : L"mCherry";
        plane.dPinholeDiameter = 1.2;
        plane.iChannelSeriesIndex = static_cast<int32_t>(i);
        plane.pFluorescentProbe = CKvFluorescentProbe(plane.sDescription, plane.uiColor);
        plane.pFluorescentProbe.GetEmissionSpectrum() = CKvOpticalFilterSpectrum(510.0 + 100 * i, SKvOFSpectrumPoint::eSptPeak);
        plane.pFilterPath = CKvOpticalFilterPath(Filter(L"ex", 470, 490), Filter(L"dm", 495, 700), Filter(L"em", 500, 550));
        plane.pFilterPath.SetDescription(L"path");
    }
    const SKvPhysicalVariable variables[] = {{L"Laser power", 1, 12.5}, {L"Gain", 2, 300.0}, {L"", 0, -1.0}};
    SKvPictureMetadata::SetPhysicalVariables(m, variables, 3);
    return m;
}

CKvVariant Tree(const SKvPictureMetadata& m) {
    CKvVariant node;
    EXPECT_EQ(KV_OK, SKvPictureMetadata::SaveToVariant(node, m));
    return node;
}

CKvLiteVariantR Lite(const SKvPictureMetadata& m) {
    CKvLiteVariantW writer;
    EXPECT_EQ(KV_OK, SKvPictureMetadata::SaveToLiteVariant(writer, m));
    CKvLiteVariantR reader;
    EXPECT_EQ(KV_OK, writer.Finalize(reader, 0));
    return reader;
}

// Two records agree when their saved trees do: every field is saved.
void ExpectSame(const SKvPictureMetadata& expected, const SKvPictureMetadata& actual) {
    CKvStringW a, b;
    CKvVariant::Trace(a, Tree(expected));
    CKvVariant::Trace(b, Tree(actual));
    EXPECT_EQ(a.Std(), b.Std());
}

std::vector<CKvStringW> MemberNames(const CKvVariant& node) {
    std::vector<CKvStringW> names;
    for (int i = 0; i < node.GetCount(); ++i) names.push_back(node[i].GetName());
    return names;
}

}  // namespace

TEST(PictureMetadata, DefaultsAndCalibration) {
    const double now = static_cast<double>(std::time(nullptr)) * 1000.0;
    SKvPictureMetadata m;
    EXPECT_EQ(0.0, std::fmod(m.dTimeAbsolute, 1000.0));
    EXPECT_NEAR(now, m.dTimeAbsolute, 5000.0);
    EXPECT_EQ(293.0, m.dTemperK);
    EXPECT_EQ(-1.0, m.dCalibration);
    EXPECT_EQ(-1.0, m.dAspect);
    EXPECT_FALSE(m.bCalibrated);
    EXPECT_EQ(0, m.ePictureXAxis);
    EXPECT_EQ(1, m.ePictureYAxis);
    EXPECT_EQ(1.0, m.dStgLgCT11);
    EXPECT_EQ(0.0, m.dStgLgCT21 + m.dStgLgCT12);
    EXPECT_EQ(1.0, m.dStgLgCT22);
    EXPECT_EQ(0u, m.sPicturePlanes.uiCount);
    EXPECT_EQ(nullptr, m.pPhysicalVar);

    struct Case {
        double calibration, aspect, magA, magB, projective, zoom;
        double wantCalibration, wantAspect, wantZoom, wantProjective;
        bool calibrated;
    } cases[] = {
        {0.5, 1.0, 10, 20, 0, 0, 5.0, 2.0, 1.0, 1.0, true},      // zero zoom and projective count as 1
        {0.5, 2.0, 10, 10, 2, 2.5, 1.0, 2.0, 2.5, 2.0, true},
        {0.5, 1.0, -4, 0, 1, 1, 0.5, 1.0, 1.0, 1.0, true},       // non-positive magnifications count as 1
        {0.0, 1.0, 10, 10, 1, 1, 0.0, 1.0, 1.0, 1.0, false},
    };
    for (const Case& c : cases) {
        SKvPictureMetadata meta = Populated();
        ASSERT_EQ(KV_OK, SKvPictureMetadata::SetCalibration(meta, c.calibration, c.aspect, nullptr, c.magA, c.magB,
                                                            c.projective, c.zoom));
        EXPECT_DOUBLE_EQ(c.wantCalibration, meta.dCalibration) << c.calibration << " " << c.magA;
        EXPECT_DOUBLE_EQ(c.wantAspect, meta.dAspect);
        EXPECT_EQ(c.wantZoom, meta.dZoom);
        EXPECT_EQ(c.wantProjective, meta.dProjectiveMag);
        EXPECT_EQ(c.calibrated, meta.bCalibrated);
        EXPECT_TRUE(meta.wsObjectiveName.IsEmpty());
        // Clearing the calibration resets the axes; keeping it leaves them.
        EXPECT_EQ(c.calibrated ? 2 : 0, meta.ePictureXAxis);
        EXPECT_EQ(c.calibrated ? 0.25 : -1.0, meta.dZAxisCalibration);
    }
}

TEST(PictureMetadata, CopiesAreDeep) {
    const SKvPictureMetadata original = Populated();
    SKvPictureMetadata copy(original);
    ExpectSame(original, copy);
    copy.pPhysicalVar[0].wsName = L"changed";
    copy.sPicturePlanes.pPlanes[1].sDescription = L"changed";
    EXPECT_EQ(CKvStringW(L"Laser power"), original.pPhysicalVar[0].wsName);
    EXPECT_EQ(CKvStringW(L"mCherry"), original.sPicturePlanes.pPlanes[1].sDescription);
    copy = original;
    ExpectSame(original, copy);
    copy.SetToDefault();
    EXPECT_EQ(0u, copy.uiPhysicalVarCount);
    EXPECT_EQ(0u, copy.sPicturePlanes.uiCount);
}

TEST(PictureMetadata, RoundTripsThroughTreeLiteAndXml) {
    const SKvPictureMetadata original = Populated();

    SKvPictureMetadata fromTree;
    ASSERT_EQ(KV_OK, SKvPictureMetadata::LoadFromVariant(fromTree, Tree(original)));
    ExpectSame(original, fromTree);

    CKvLiteVariantR reader = Lite(original);
    SKvPictureMetadata fromLite;
    ASSERT_EQ(KV_OK, SKvPictureMetadata::LoadFromLiteVariant(fromLite, reader));
    ExpectSame(original, fromLite);
    ASSERT_EQ(3u, fromLite.uiPhysicalVarCount);
    EXPECT_EQ(300.0, fromLite.pPhysicalVar[1].dValue);
    EXPECT_EQ(2u, fromLite.pPhysicalVar[1].uiIntepretation);
    EXPECT_EQ(7u, fromLite.uiCol);

    CKvStringW xml;
    ASSERT_EQ(KV_OK, CKvSerializerXMLString::DocumentToXML(xml, Tree(original)));
    CKvVariant parsed;
    ASSERT_EQ(KV_OK, CKvSerializerXMLString::VariantFromXML(parsed, xml));
    SKvPictureMetadata fromXml;
    ASSERT_EQ(KV_OK, SKvPictureMetadata::LoadFromVariant(fromXml, parsed));
    ExpectSame(original, fromXml);

    // The lite bytes read back as a tree load the same through the tree path.
    reader.Reset();
    CKvVariant liteTree;
    ASSERT_EQ(KV_OK, reader.GetCurrentValue(liteTree));
    ASSERT_TRUE(liteTree.SearchFixed(L"sPicturePlanes", nullptr));
}

TEST(PictureMetadata, KeysAndOrder) {
    const CKvVariant tree = Tree(Populated());
    EXPECT_EQ(CKvVariantRunType("RKvPictureMetadata"), tree.GetRunType());
    const std::vector<CKvStringW> expected = {
        L"dTimeMSec", L"dTimeAbsolute", L"dXPos", L"dYPos", L"uiRow", L"uiCol", L"dZPos", L"bZPosAbsolute",
        L"dAngle", L"sPicturePlanes", L"dTemperK", L"dCalibration", L"dAspect", L"bCalibrated",
        L"wsObjectiveName", L"dObjectiveMag", L"dObjectiveNA", L"dRefractIndex1", L"dRefractIndex2", L"dZoom",
        L"dProjectiveMag", L"uiPhysicalVarCount", L"pPhysicalVar", L"wsCustomData", L"ePictureXAxis",
        L"ePictureYAxis", L"dTimeAxisCalibration", L"dZAxisCalibration", L"dStgLgCT11", L"dStgLgCT12",
        L"dStgLgCT21", L"dStgLgCT22"};
    EXPECT_EQ(expected, MemberNames(tree));
    const CKvVariant& variable = tree[L"pPhysicalVar"][0];
    EXPECT_EQ(CKvVariantRunType("RKvPictureMetadata.RKvPictureMetadata"), variable.GetRunType());
    EXPECT_EQ((std::vector<CKvStringW>{L"wsName", L"uiIntepretation", L"dValue"}), MemberNames(variable));
    EXPECT_EQ(CKvVariantRunType("kv_uint32"), tree[L"uiCol"].GetRunType());
    EXPECT_EQ(CKvVariantRunType("kv_int32"), tree[L"ePictureYAxis"].GetRunType());

    // The lite form stores the same keys in the same order, but the column as "uiCon20(L".
    CKvLiteVariantR reader = Lite(Populated());
    ASSERT_EQ(KV_OK, reader.LevelBegin(L"SKvPictureMetadata"));
    std::vector<CKvStringW> liteNames;
    for (; reader.IsNextValue(); reader.NextValue()) liteNames.push_back(reader.GetCurrentName());
    std::vector<CKvStringW> liteExpected = expected;
    liteExpected[5] = L"uiCon20(L";
    EXPECT_EQ(liteExpected, liteNames);
}

TEST(PictureMetadata, OlderTreesLoadWithTheDescribedRules) {
    // An old writer: no absolute time, planes only in the old layout, and a
    // per-picture pinhole radius.
    CKvVariant old = Tree(Populated());
    old.Delete(static_cast<unsigned>(old.IndexOf(CKvStringW(L"dTimeAbsolute"))));
    CKvVariant& planes = old[L"sPicturePlanes"];
    planes.Delete(static_cast<unsigned>(planes.IndexOf(CKvStringW(L"sPlaneNew"))));
    KvMeta::Put(old, L"dPinholeRadius", 5.0);

    SKvPictureMetadata meta;
    meta.dTimeAbsolute = 42.0;
    ASSERT_EQ(KV_OK, SKvPictureMetadata::LoadFromVariant(meta, old));
    EXPECT_EQ(42.0, meta.dTimeAbsolute);
    // The same through XML, where the registered sample fills in what is missing.
    CKvStringW xml;
    ASSERT_EQ(KV_OK, CKvSerializerXMLString::DocumentToXML(xml, old));
    CKvVariant parsed;
    ASSERT_EQ(KV_OK, CKvSerializerXMLString::VariantFromXML(parsed, xml));
    ASSERT_EQ(KV_OK, SKvPictureMetadata::LoadFromVariant(meta, parsed));
    EXPECT_EQ(42.0, meta.dTimeAbsolute);
    EXPECT_EQ(10.0, meta.sPicturePlanes.pPlanes[1].dPinholeDiameter);
    ASSERT_EQ(2u, meta.sPicturePlanes.uiCount);
    for (uint32_t i = 0; i < 2; ++i) {
        EXPECT_EQ(10.0, meta.sPicturePlanes.pPlanes[i].dPinholeDiameter);
        EXPECT_EQ(-1, meta.sPicturePlanes.pPlanes[i].iChannelSeriesIndex);
        EXPECT_EQ(0u, meta.sPicturePlanes.pPlanes[i].uiSampleIndex);
    }
    EXPECT_EQ(0x201u, meta.sPicturePlanes.pPlanes[0].uiModalityMask);

    // A radius of 0 or below changes nothing, in either encoding.
    old[L"dPinholeRadius"] = 0.0;
    ASSERT_EQ(KV_OK, SKvPictureMetadata::LoadFromVariant(meta, old));
    EXPECT_EQ(-1.0, meta.sPicturePlanes.pPlanes[0].dPinholeDiameter);
    meta.sPicturePlanes.pPlanes[1].dPinholeDiameter = 3.0;
    CKvLiteVariantW writer;
    {
        ASSERT_EQ(KV_OK, writer.LevelBegin(L"SKvPictureMetadata"));
        writer.Set(-3.0, L"dPinholeRadius");
        writer.Set(9u, L"uiCol");  // the tree key means nothing in the lite form
        writer.Set(8u, L"uiCon20(L");
    }
    CKvLiteVariantR reader;
    ASSERT_EQ(KV_OK, writer.Finalize(reader, 1));
    ASSERT_EQ(KV_OK, SKvPictureMetadata::LoadFromLiteVariant(meta, reader));
    EXPECT_EQ(3.0, meta.sPicturePlanes.pPlanes[1].dPinholeDiameter);
    EXPECT_EQ(8u, meta.uiCol);
    EXPECT_EQ(42.0, meta.dTimeAbsolute);
}

TEST(PictureMetadata, BadInputLeavesTheRecordOrUsesWhatIsPresent) {
    const SKvPictureMetadata original = Populated();

    // Wrong run type, and a lite buffer without the level: -4 / -9, unchanged.
    SKvPictureMetadata meta = Populated();
    CKvVariant wrong = Tree(original);
    wrong.EnableTypeChange(true);
    wrong.GetData()->SetRunType(CKvVariantRunType("RKvPicturePlanes"));
    testing::internal::CaptureStdout();
    EXPECT_EQ(KV_ERR_INVALID_ARG, SKvPictureMetadata::LoadFromVariant(meta, wrong));
    EXPECT_EQ("Wrong variant runtype('RKvPicturePlanes'), expected 'RKvPictureMetadata'.\n",
              testing::internal::GetCapturedStdout());
    CKvLiteVariantW other;
    other.LevelBegin(L"Something");
    other.Set(1u, L"uiRow");
    CKvLiteVariantR otherReader;
    other.Finalize(otherReader, 0);
    EXPECT_EQ(KV_ERR_FAILED, SKvPictureMetadata::LoadFromLiteVariant(meta, otherReader));
    ExpectSame(original, meta);

    // Counts far beyond the elements present, and values of the wrong type.
    CKvVariant tree = Tree(original);
    tree[L"uiPhysicalVarCount"] = 4000000000u;
    tree[L"uiRow"] = CKvStringW(L"not a number");
    tree[L"wsObjectiveName"] = 12;
    ASSERT_EQ(KV_OK, SKvPictureMetadata::LoadFromVariant(meta, tree));
    EXPECT_EQ(3u, meta.uiPhysicalVarCount);
    EXPECT_EQ(CKvStringW(L"Plan Apo 60x Öl"), meta.wsObjectiveName);
    tree[L"uiPhysicalVarCount"] = 1u;
    ASSERT_EQ(KV_OK, SKvPictureMetadata::LoadFromVariant(meta, tree));
    EXPECT_EQ(1u, meta.uiPhysicalVarCount);

    CKvLiteVariantW writer;
    writer.LevelBegin(L"SKvPictureMetadata");
    writer.Set(4000000000u, L"uiPhysicalVarCount");
    writer.LevelBegin(L"pPhysicalVar");
    for (int i = 0; i < 3; ++i) {
        writer.LevelBegin(nullptr);  // unnamed elements are taken by position
        writer.Set(static_cast<double>(i), L"dValue");
        writer.LevelEnd();
    }
    CKvLiteVariantR reader;
    ASSERT_EQ(KV_OK, writer.Finalize(reader, 0));
    ASSERT_EQ(KV_OK, SKvPictureMetadata::LoadFromLiteVariant(meta, reader));
    ASSERT_EQ(3u, meta.uiPhysicalVarCount);
    EXPECT_EQ(2.0, meta.pPhysicalVar[2].dValue);
}

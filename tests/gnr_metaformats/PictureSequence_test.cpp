#include "gnr_metaformats/PictureSequence.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "gnr_metaformats/KvMetaIO.h"
#include "gnr_system/CKvSerializerXMLString.h"

namespace {

using Exp = SKvExperiment;

CKvLiteVariantR Finish(CKvLiteVariantW& writer) {
    CKvLiteVariantR reader;
    EXPECT_EQ(KV_OK, writer.Finalize(reader, 0));
    return reader;
}

std::unique_ptr<Exp> Make(uint32_t type, uint32_t count) {
    auto e = std::make_unique<Exp>();
    EXPECT_EQ(KV_OK, Exp::Init(*e, type, count));
    return e;
}

void AddChild(Exp& parent, std::unique_ptr<Exp> child) {
    ASSERT_EQ(KV_OK, Exp::AllocNextLevels(parent, 1));
    parent.ppNextLevelEx[0] = child.release();
}

}  // namespace

// Kinds without parameters of their own, and unknown ones, store only the count.
TEST(PictureSequence, KindsWithoutParametersStoreOnlyTheCount) {
    for (uint32_t type : {3u, 5u, 7u, 9u, 42u}) {
        CKvLiteVariantW writer;
        ASSERT_EQ(KV_OK, Exp::SaveToLiteVariant(writer, *Make(type, 7)));
        CKvVariant tree;
        ASSERT_EQ(KV_OK, Finish(writer).GetCurrentValue(tree));
        const CKvVariant* pars = tree.SearchFixedOneLevel(L"uLoopPars");
        ASSERT_TRUE(pars);
        ASSERT_EQ(1, pars->GetCount()) << type;
        EXPECT_EQ(std::wstring(L"uiCount"), pars->IndexPtr(0)->GetName().GetString());
    }
}

TEST(PictureSequence, HostileInputIsBounded) {
    // 10,000 nested next levels: refused, the caller's experiment untouched.
    CKvLiteVariantW writer;
    writer.LevelBegin(L"SKvExperiment");
    int opened = 0;
    for (int i = 0; i < 10000; ++i) {
        writer.Set(uint32_t{1}, L"eType");
        if (writer.LevelBegin(L"ppNextLevelEx") != KV_OK) break;
        ++opened;
        if (writer.LevelBegin(nullptr) != KV_OK) break;
        ++opened;
    }
    while (opened-- >= 0) writer.LevelEnd();
    CKvLiteVariantR reader = Finish(writer);
    auto keep = Make(Exp::eExpZStackLoop, 3);
    EXPECT_EQ(KV_ERR_FAILED, Exp::LoadFromLiteVariant(*keep, reader));
    EXPECT_EQ(3u, keep->uLoopPars.uiCount);

    // The same in the tree form, and a tree too deep to save.
    CKvVariant node;
    KvMeta::BeginStruct(node, "RKvExperiment");
    for (int i = 0; i < 100; ++i) {
        CKvVariant parent;
        KvMeta::BeginStruct(parent, "RKvExperiment");
        CKvVariant* list = KvMeta::PutList(parent, L"ppNextLevelEx");
        node.SetName(CKvStringW(L"a0"));
        list->Append(node);
        node = parent;
    }
    Exp fromTree;
    EXPECT_EQ(KV_ERR_FAILED, Exp::LoadFromVariant(fromTree, node));
    Exp deep;
    Exp* level = &deep;
    for (uint32_t i = 0; i < kExpMaxDepth + 1; ++i) {
        AddChild(*level, std::make_unique<Exp>());
        level = level->ppNextLevelEx[0];
    }
    CKvLiteVariantW tooDeep;
    EXPECT_EQ(KV_ERR_FAILED, Exp::SaveToLiteVariant(tooDeep, deep));
    Exp copy;
    EXPECT_EQ(KV_ERR_FAILED, Exp::CopyRecursive(copy, deep));

    // Absurd counts: what is present is taken, validity never shorter than the count.
    CKvLiteVariantW absurd;
    const uint32_t kHuge = 4000000000u;
    auto threeItems = [&absurd](const wchar_t* list, const std::function<void(int)>& fill) {
        absurd.LevelBegin(list);
        for (int i = 0; i < 3; ++i) {
            absurd.LevelBegin(nullptr);
            fill(i);
            absurd.LevelEnd();
        }
        absurd.LevelEnd();
    };
    absurd.LevelBegin(L"SKvExperiment");
    absurd.Set(uint32_t{Exp::eExpXYPosLoop}, L"eType");
    absurd.LevelBegin(L"uLoopPars");
    absurd.Set(kHuge, L"uiCount");
    threeItems(L"Points", [&](int i) { absurd.Set(double(i), L"dPosX"); });
    absurd.LevelEnd();
    const uint8_t valid[2] = {1, 0};
    absurd.Set(valid, 2, L"pItemValid");
    absurd.Set(kHuge, L"uiNextLevelCount");
    threeItems(L"ppNextLevelEx", [&](int) { absurd.Set(kHuge, L"eType"); });
    absurd.LevelEnd();
    CKvLiteVariantR absurdReader = Finish(absurd);
    Exp e;
    ASSERT_EQ(KV_OK, Exp::LoadFromLiteVariant(e, absurdReader));
    EXPECT_EQ(2u, e.uLoopPars.uiCount);
    EXPECT_EQ(2u, e.uLoopPars.XYPosLoop.Points.size());
    ASSERT_TRUE(e.pItemValid);
    EXPECT_EQ(0, e.pItemValid[1]);
    EXPECT_EQ(3u, e.uiNextLevelCount);
}

TEST(PictureSequence, CopyDuplicateCompareAndFree) {
    auto top = Make(Exp::eExpTimeLoop, 3);
    auto xy = Make(Exp::eExpXYPosLoop, 2);
    AddChild(*xy, Make(Exp::eExpZStackLoop, 5));
    AddChild(*top, std::move(xy));
    top->pNIExperiment = std::make_unique<SKvExperimentNI>();
    ASSERT_EQ(KV_OK, Exp::AllocItemValid(*top, 3, 0));

    Exp level;
    ASSERT_EQ(KV_OK, Exp::Copy(level, *top));
    EXPECT_EQ(nullptr, level.ppNextLevelEx);
    EXPECT_FALSE(Exp::IsEqual(top.get(), &level, false, false));

    Exp* dup = nullptr;
    ASSERT_EQ(KV_OK, Exp::Duplicate(&dup, *top));
    EXPECT_TRUE(Exp::IsEqual(top.get(), dup, true, true));
    dup->ppNextLevelEx[0]->ppNextLevelEx[0]->uLoopPars.ZStackLoop.dZStep = 1;
    EXPECT_TRUE(Exp::IsEqual(top.get(), dup, false, true));
    EXPECT_FALSE(Exp::IsEqual(top.get(), dup, true, false));
    dup->wsUserDesc = L"changed";
    EXPECT_TRUE(Exp::IsEqual(top.get(), dup, false, false));
    EXPECT_FALSE(Exp::IsEqual(top.get(), dup, false, true));
    Exp::FreeRecursive(dup);

    Exp bare;
    ASSERT_EQ(KV_OK, Exp::CopyRecursive(bare, *top, kExpCopyNoItemValid | kExpCopyNoRecords));
    EXPECT_EQ(nullptr, bare.pItemValid);
    EXPECT_EQ(nullptr, bare.pNIExperiment);
    ASSERT_EQ(1u, bare.uiNextLevelCount);

    // Manual time compares as time; Free leaves the next levels to the caller.
    auto manual = Make(Exp::eExpManualTimeLoop, 3);
    auto time = Make(Exp::eExpTimeLoop, 3);
    EXPECT_TRUE(Exp::IsEqual(manual.get(), time.get(), true, true));
    EXPECT_TRUE(Exp::IsEqual(nullptr, nullptr, true, true));
    EXPECT_FALSE(Exp::IsEqual(time.get(), nullptr, true, true));
    Exp* shell = nullptr;
    ASSERT_EQ(KV_OK, Exp::Alloc(&shell));
    AddChild(*shell, Make(Exp::eExpZStackLoop, 1));
    std::unique_ptr<Exp> kept(shell->ppNextLevelEx[0]);
    Exp::Free(shell);
    EXPECT_EQ(1u, kept->uLoopPars.uiCount);
}

TEST(PictureSequence, ParallelExperimentAndValidPlanes) {
    SKvParallelExperiment pe;
    const uint32_t task = SKvParallelExperiment::AddTask(pe, {0, L"macro", L"run()"});
    EXPECT_EQ(0u, SKvParallelExperiment::AddEvent(pe, {0, task + 1, 1.0}));
    const uint32_t event = SKvParallelExperiment::AddEvent(pe, {0, task, 2.0});
    EXPECT_TRUE(SKvParallelExperiment::FindEvent(pe, event));
    EXPECT_EQ(KV_OK, SKvParallelExperiment::RemoveTask(pe, task));
    EXPECT_FALSE(SKvParallelExperiment::FindEvent(pe, event));
    EXPECT_EQ(KV_ERR_NOT_FOUND, SKvParallelExperiment::RemoveEvent(pe, event));

    auto spect = Make(Exp::eExpSpectLoop, 4);
    SKvPicturePlanes planes;
    EXPECT_EQ(KV_ERR_INVALID_ARG, Exp::ExtractValidPlanes(planes, *spect));
    spect->uLoopPars.SpectLoop.pPlanes = std::make_unique<SKvPicturePlanes>();
    SKvPicturePlanes::MakeCompatible(*spect->uLoopPars.SpectLoop.pPlanes, 4);
    ASSERT_EQ(KV_OK, Exp::AllocItemValid(*spect, 4));
    spect->pItemValid[1] = 0;
    spect->pItemValid[3] = 0;
    ASSERT_EQ(KV_OK, Exp::ExtractValidPlanes(planes, *spect));
    ASSERT_EQ(2u, planes.uiCount);
    EXPECT_EQ(spect->uLoopPars.SpectLoop.pPlanes->pPlanes[2].sDescription, planes.pPlanes[1].sDescription);
    EXPECT_EQ(1u, planes.pPlanes[1].uiSampleIndex);
    EXPECT_EQ(2u, planes.uiCompCount);
}

namespace {

// A level of `type` with every field of its record away from the default, the
// level-wide records present and one next level, so that every key of both
// forms is written.
std::unique_ptr<Exp> Filled(uint32_t type) {
    auto e = Make(type, 3);
    SKvExpLoopPars& p = e->uLoopPars;
    e->wsApplicationDesc = L"app";
    e->wsCameraName = L"cam";
    EXPECT_EQ(KV_OK, Exp::AllocItemValid(*e, p.uiCount));
    if (p.uiCount > 1) e->pItemValid[1] = 0;
    e->sAutoFocusBeforeLoop = {SKvExpAutoFocus::eHardware, 1.5, 0.25, -3};
    e->wsCommandAfterLoop = L"after";
    e->bUseHZL = true;
    e->pLargeImage = std::make_unique<SKvExpLargeImage>();
    e->pLargeImage->sLargeImage.iXFields = 4;
    e->pLargeImage->sLargeImage.sPattern = L"meander";
    e->pNIExperiment = std::make_unique<SKvExperimentNI>();
    e->pNIExperiment->bIgnoreSetup = true;
    e->pRecordedData = std::make_unique<SKvRecordedData>();
    SKvParallelExperiment::AddEvent(e->sParallelExperiment,
                                    {0, SKvParallelExperiment::AddTask(e->sParallelExperiment, {0, L"m", L"go"}), 5});
    e->uiRepeatCount = 2;
    AddChild(*e, Make(Exp::eExpZStackLoop, 2));
    SKvExpTimeLoop& t = p.TimeLoop;
    t.dStart = 1, t.dPeriod = 2, t.dDuration = 3, t.bDurationPref = true;
    t.dMaxPeriodDiff = 4, t.dMinPeriodDiff = 5, t.dAvgPeriodDiff = 6;
    t.sAutoFocusBeforeCapture.dStep = 7;
    SKvExpXYPosLoop& xy = p.XYPosLoop;
    xy.bRelativeXY = xy.bKeepHZLOn = xy.bUseZ = true;
    xy.dReferenceX = 8, xy.sZDevice = L"z", xy.sAFBefore.dOffset = 9;
    for (size_t i = 0; i < xy.Points.size(); ++i) {
        xy.Points[i] = {1.0 + i, 2.0 + i, 3.0 + i, 4.0 + i, CKvStringW(L"p")};
    }
    SKvExpXYDiscrLoop& d = p.XYDiscrLoop;
    for (size_t i = 0; i < d.uiRow.size(); ++i) d.uiRow[i] = uint32_t(i + 1), d.uiCol[i] = uint32_t(i + 5);
    d.bUseZ = true, d.dPosZ = 10;
    SKvExpZStackLoop& z = p.ZStackLoop;
    z.bAbsolute = z.bTIRF = true;
    z.dReferencePosition = 11, z.dTIRFPosition = 12, z.dZHigh = 13, z.dZHighHZLOffset = 14, z.dZHome = 15;
    z.dZLow = 16, z.dZLowHZLOffset = 17, z.dZStep = 18, z.iType = -2;
    z.wsCommandAfterCapture = L"ca", z.wsCommandBeforeCapture = L"cb", z.wsZDevice = L"zd";
    p.PolarLoop = {19, 20, true};
    SKvExpSpectLoop& s = p.SpectLoop;
    if (type == Exp::eExpSpectLoop) {
        s.pPlanes = std::make_unique<SKvPicturePlanes>();
        SKvPicturePlanes::MakeCompatible(*s.pPlanes, 3);
    }
    s.bMergeCameras = true;
    for (size_t i = 0; i < s.Points.size(); ++i) {
        s.Points[i].pAutoFocus.dRange = 21.0 + i;
        s.Points[i].wsCommandAfterCapture = L"sa";
        s.Points[i].pZStackPos = int32_t(i);
    }
    p.CustomLoop.wsDescription = L"custom";
    SKvExpNETimeLoop& ne = p.NETimeLoop;
    for (size_t i = 0; i < ne.pPeriod.size(); ++i) {
        ne.pPeriod[i] = t;
        ne.pPeriod[i].uiCount = uint32_t(i + 2);
        ne.pPeriod[i].uiGroup = 1, ne.pPeriod[i].uiLoopType = 4, ne.pPeriod[i].wsPhaseName = L"ph";
        ne.pPeriod[i].sAutoFocusBeforePeriod.eType = SKvExpAutoFocus::eSoftware;
    }
    if (!ne.pPeriod.empty()) {
        ne.wsCommandBeforePeriod.assign(ne.pPeriod.size(), CKvStringW(L"bp"));
        ne.wsCommandAfterPeriod.assign(ne.pPeriod.size(), CKvStringW(L"ap"));
        ne.pPeriodValid.assign(ne.pPeriod.size(), 1);
        ne.pPeriodValid[0] = 0;
        ne.pSubLoops.resize(ne.pPeriod.size());
        ne.pSubLoops[1].ppNextLevelEx = new Exp*[1]{Make(Exp::eExpXYPosLoop, 2).release()};
        ne.pSubLoops[1].uiNextLevelCount = 1;
    }
    ne.sAutoFocusBeforeCapture.dStep = 22, ne.sAutoFocusBeforePeriod.dStep = 23;
    return e;
}

uint64_t Fnv(const void* data, size_t size) {
    uint64_t h = 1469598103934665603ull;
    for (size_t i = 0; i < size; ++i) h = (h ^ static_cast<const uint8_t*>(data)[i]) * 1099511628211ull;
    return h;
}

}  // namespace

// The stored bytes of both forms are what files already hold: any change of
// a key, its order or its type shows here.
TEST(PictureSequence, StoredBytesOfEveryKindStayTheSame) {
    // FNV-1a of the lite bytes and of the tree's XML, kinds 0 to 10.
    const uint64_t expected[][2] = {
        {0xc954a57a3bb5fc37ull, 0x3e71a8a352db0220ull}, {0x44add715c634d4e9ull, 0x3d9da45a657ad3b1ull},
        {0xe3e157b8ee0842d5ull, 0x831806d18732ba85ull}, {0x53d4cabc4f239330ull, 0xc03ebe53191e4b63ull},
        {0xd898faec461f4796ull, 0x4008d1ee68053320ull}, {0xc92485986316ca46ull, 0x223d39198f2d0714ull},
        {0x51470d5ab4a38eeaull, 0xc6547af0623d0d6bull}, {0x1013d85873e84924ull, 0x08dd554d54713b5full},
        {0x0a9d7e2da93cacf0ull, 0x5ea770933e50922eull}, {0xfc10d686e6a424eaull, 0x25e86ddf68e0b139ull},
        {0x179771ba1e05c3f5ull, 0x504ffdd1c5127951ull},
    };
    for (uint32_t type = 0; type <= 10; ++type) {
        SCOPED_TRACE(type);
        auto e = Filled(type);
        CKvLiteVariantW writer;
        ASSERT_EQ(KV_OK, Exp::SaveToLiteVariant(writer, *e));
        CKvLiteVariantR lite = Finish(writer);
        CKvVariant node;
        ASSERT_EQ(KV_OK, Exp::SaveToVariant(node, *e));
        node.SetName(CKvStringW(L"tree"));
        CKvStringW xml;
        ASSERT_EQ(KV_OK, CKvSerializerXMLString::DocumentToXML(xml, node));
        const uint64_t liteHash = Fnv(lite.GetData(), lite.GetSize());
        const uint64_t treeHash = Fnv(xml.GetString(), xml.GetLength() * sizeof(wchar_t));
        EXPECT_EQ(expected[type][0], liteHash);
        EXPECT_EQ(expected[type][1], treeHash);

        // The tree, directly and parsed back from its XML, brings every field
        // back; the lite form keeps only the kind and count of the kinds that
        // store nothing else there.
        Exp fromLite, fromTree, fromXml;
        CKvVariant parsed;
        ASSERT_EQ(KV_OK, CKvSerializerXMLString::VariantFromXML(parsed, xml));
        ASSERT_EQ(KV_OK, Exp::LoadFromLiteVariant(fromLite, lite));
        ASSERT_EQ(KV_OK, Exp::LoadFromVariant(fromTree, node));
        ASSERT_EQ(KV_OK, Exp::LoadFromVariant(fromXml, parsed));
        EXPECT_TRUE(Exp::IsEqual(e.get(), &fromTree, true, true));
        EXPECT_TRUE(Exp::IsEqual(e.get(), &fromXml, true, true));
        const bool countOnly = type == Exp::eExpXYDiscrLoop || type == Exp::eExpPolarLoop ||
                               type == Exp::eExpCustomLoop || type == Exp::eExpManualTimeLoop;
        EXPECT_EQ(!countOnly, Exp::IsEqual(e.get(), &fromLite, true, true));
        EXPECT_EQ(e->eType, fromLite.eType);
        EXPECT_EQ(e->uLoopPars.uiCount, fromLite.uLoopPars.uiCount);
    }
}

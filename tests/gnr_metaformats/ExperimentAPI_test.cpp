#include "gnr_metaformats/ExperimentAPI.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "gnr_system/CKvSerializerXMLString.h"

namespace {

using Exp = SKvExperiment;
using Api = CKvExperimentAPI;

Exp* Level(uint32_t type, uint32_t count, uint32_t repeat = 1, std::vector<uint8_t> valid = {}) {
    Exp* e = nullptr;
    EXPECT_EQ(Exp::Alloc(&e), KV_OK);
    EXPECT_EQ(Exp::Init(*e, type, count), KV_OK);
    e->uiRepeatCount = repeat;
    if (!valid.empty()) {
        EXPECT_EQ(Exp::AllocItemValid(*e, count), KV_OK);
        for (uint32_t i = 0; i < count; ++i) e->pItemValid[i] = valid[i % valid.size()];
    }
    return e;
}

Exp* Attach(Exp* parent, std::vector<Exp*> kids) {
    EXPECT_EQ(Exp::AllocNextLevels(*parent, static_cast<uint32_t>(kids.size())), KV_OK);
    for (size_t i = 0; i < kids.size(); ++i) parent->ppNextLevelEx[i] = kids[i];
    return parent;
}

// Multi-phase time lapse: phases of `counts` items, the given phase validity
// and loop types, and per phase the sub-loops in `subs` (none when empty).
Exp* MultiPhase(std::vector<uint32_t> counts, std::vector<uint8_t> valid, std::vector<uint32_t> types,
                std::vector<std::vector<Exp*>> subs) {
    Exp* e = Level(Exp::eExpNETimeLoop, static_cast<uint32_t>(counts.size()));
    auto& ne = e->uLoopPars.NETimeLoop;
    for (size_t i = 0; i < counts.size(); ++i) ne.pPeriod[i].uiCount = counts[i], ne.pPeriod[i].uiLoopType = types[i];
    ne.pPeriodValid = valid;
    ne.pSubLoops.resize(subs.size());
    for (size_t i = 0; i < subs.size(); ++i) {
        Exp holder;  // borrows the structure's own allocation of a next-level array
        Attach(&holder, subs[i]);
        std::swap(ne.pSubLoops[i].ppNextLevelEx, holder.ppNextLevelEx);
        std::swap(ne.pSubLoops[i].uiNextLevelCount, holder.uiNextLevelCount);
    }
    return e;
}

using Tree = std::unique_ptr<Exp>;

// Largest coordinate range per depth over every level of the tree.
void DisplaySizes(const Exp* e, uint32_t depth, std::map<uint32_t, uint32_t>& sizes) {
    if (!e) return;
    sizes[depth] = std::max(sizes[depth], Api::GetLoopSizeForDisplay(e));
    for (uint32_t k = 0; k < e->uiNextLevelCount; ++k) DisplaySizes(e->ppNextLevelEx[k], depth + 1, sizes);
    for (const auto& sub : e->uLoopPars.NETimeLoop.pSubLoops)
        for (uint32_t k = 0; k < sub.uiNextLevelCount; ++k) DisplaySizes(sub.ppNextLevelEx[k], depth + 1, sizes);
}

Exp* Generate(std::mt19937& rng, uint32_t depth) {
    auto pick = [&](uint32_t lo, uint32_t hi) { return std::uniform_int_distribution<uint32_t>(lo, hi)(rng); };
    auto validity = [&](uint32_t n) {
        std::vector<uint8_t> v;
        if (pick(0, 1)) for (uint32_t i = 0; i < n; ++i) v.push_back(static_cast<uint8_t>(pick(0, 3) != 0));
        return v;
    };
    const uint32_t repeat = pick(0, 2);
    if (depth >= 3 || pick(0, 4) == 0) return Level(Exp::eExpZStackLoop, pick(1, 5), repeat);
    switch (pick(0, 4)) {
    case 0: {  // spectral over one Z stack per channel, of different sizes
        const uint32_t channels = pick(1, 3);
        std::vector<Exp*> stacks;
        for (uint32_t c = 0; c < channels; ++c) stacks.push_back(Level(Exp::eExpZStackLoop, pick(1, 6)));
        return Attach(Level(Exp::eExpSpectLoop, channels, repeat), stacks);
    }
    case 1: {  // multi-phase with sub-loops
        const uint32_t phases = pick(1, 3);
        std::vector<uint32_t> counts, types;
        std::vector<uint8_t> valid;
        std::vector<std::vector<Exp*>> subs(phases);
        for (uint32_t p = 0; p < phases; ++p) {
            counts.push_back(pick(0, 4)), types.push_back(pick(0, 3) == 0 ? 1 : 0), valid.push_back(pick(0, 4) != 0);
            for (uint32_t s = pick(1, 2); s > 0; --s) subs[p].push_back(Generate(rng, depth + 1));
            if (subs[p].size() > 1)
                for (Exp* s : subs[p]) s->uiRepeatCount = std::max(1u, s->uiRepeatCount);
        }
        return MultiPhase(counts, valid, types, subs);
    }
    default: {  // time, XY or Z with validity bytes and one or two next levels
        const uint32_t types[] = {Exp::eExpTimeLoop, Exp::eExpXYPosLoop, Exp::eExpZStackLoop};
        const uint32_t n = pick(1, 5);
        Exp* e = Level(types[pick(0, 2)], n, repeat, validity(n));
        std::vector<Exp*> kids;
        for (uint32_t k = pick(1, 2); k > 0; --k) kids.push_back(Generate(rng, depth + 1));
        return Attach(e, kids);
    }
    }
}

TEST(ExperimentAPI, LoopSizesAndPeriodicity) {
    Tree plain(Level(Exp::eExpTimeLoop, 10));
    Tree skipped(Level(Exp::eExpTimeLoop, 10, 1, {1, 0, 1, 1, 0}));
    Tree phases(MultiPhase({3, 4, 5}, {1, 0, 1}, {0, 0, 0}, {}));
    Tree noPhases(Level(Exp::eExpNETimeLoop, 0));
    EXPECT_EQ(Api::GetLoopSize(plain.get()), 10u);
    EXPECT_EQ(Api::GetLoopSize(skipped.get()), 6u);
    EXPECT_EQ(Api::GetAllImagesCount(skipped.get()), 6u);
    EXPECT_EQ(Api::GetLoopSize(phases.get()), 8u);
    EXPECT_EQ(Api::GetLoopSize(noPhases.get()), 0u);

    EXPECT_EQ(Api::GetNextLevelPeriodicity(plain.get()), 0u);
    Tree reps(Attach(Level(Exp::eExpTimeLoop, 2), {Level(Exp::eExpZStackLoop, 3, 2), Level(Exp::eExpXYPosLoop, 4, 3)}));
    EXPECT_EQ(Api::GetNextLevelPeriodicity(reps.get()), 5u);
    EXPECT_EQ(Api::GetLoopSizeForDisplay(reps.get()), 10u);
    EXPECT_EQ(Api::GetAllImagesCount(reps.get()), 2u * (2 * 3 + 3 * 4));
    Tree zeros(Attach(Level(Exp::eExpTimeLoop, 2), {Level(Exp::eExpZStackLoop, 3, 0), Level(Exp::eExpZStackLoop, 3, 0)}));
    EXPECT_EQ(Api::GetNextLevelPeriodicity(zeros.get()), 1u);
    Tree hole(Attach(Level(Exp::eExpTimeLoop, 2), {Level(Exp::eExpZStackLoop, 3), nullptr}));
    EXPECT_EQ(Api::GetNextLevelPeriodicity(hole.get()), 0u);
    EXPECT_FALSE(Api::IsSimpleExperiment(reps.get()));
    EXPECT_TRUE(Api::IsSimpleExperiment(nullptr));
    EXPECT_EQ(Api::GetAllZStackLoopsSize(reps.get()), 3u);
    EXPECT_EQ(Api::GetAllTimeLoopsSize(phases.get()), 8u);
}

TEST(ExperimentAPI, PositionsOfSmallTrees) {
    Tree xyz(Attach(Level(Exp::eExpXYPosLoop, 3), {Level(Exp::eExpZStackLoop, 5)}));
    uint32_t pos[2] = {9, 9}, count = 0, index = 0;
    EXPECT_EQ(Api::CalcPosFromIdx(xyz.get(), 7, nullptr, &count), KV_OK);
    EXPECT_EQ(count, 2u);
    ASSERT_EQ(Api::CalcPosFromIdx(xyz.get(), 7, pos, &count), KV_OK);
    EXPECT_EQ(pos[0], 1u);
    EXPECT_EQ(pos[1], 2u);
    EXPECT_EQ(Api::CalcIdxFromPos(xyz.get(), pos, 2, index), KV_OK);
    EXPECT_EQ(index, 7u);
    EXPECT_EQ(Api::CalcPosFromIdx(xyz.get(), 15, pos, nullptr), KV_ERR_FAILED);
    const uint32_t outside[2] = {3, 0};
    EXPECT_EQ(Api::CalcIdxFromPos(xyz.get(), outside, 2, index), KV_ERR_FAILED);
    EXPECT_EQ(Api::CalcIdxFromPos(xyz.get(), pos, 1, index), KV_ERR_FAILED);

    // Spectral channels with Z stacks of 4, 7 and 2 planes: frames follow the largest.
    Tree spect(Attach(Level(Exp::eExpTimeLoop, 2), {Attach(Level(Exp::eExpSpectLoop, 3),
        {Level(Exp::eExpZStackLoop, 4), Level(Exp::eExpZStackLoop, 7), Level(Exp::eExpZStackLoop, 2)})}));
    EXPECT_EQ(Api::GetAllImagesCount(spect.get()), 14u);
    EXPECT_EQ(Api::GetZStackSizeMax(spect.get()), 7u);
    uint32_t spos[3];
    ASSERT_EQ(Api::CalcPosFromIdx(spect.get(), 12, spos, &count), KV_OK);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(std::vector<uint32_t>(spos, spos + 3), (std::vector<uint32_t>{1, 0, 5}));
    std::vector<uint32_t> comps;
    ASSERT_EQ(Api::GetCompIndexes(spect.get(), 12, 3, comps), KV_OK);
    EXPECT_EQ(comps, std::vector<uint32_t>{1});
    ASSERT_EQ(Api::GetCompIndexes(spect.get(), 8, 3, comps), KV_OK);
    EXPECT_EQ(comps, (std::vector<uint32_t>{0, 1, 2}));
    ASSERT_EQ(Api::GetCompSeqIndexes(spect.get(), 2, 3, comps), KV_OK);
    EXPECT_EQ(comps, (std::vector<uint32_t>{0, 1, 7, 8}));

    // Phases of 2, 3 (no frames) and 1 items over Z stacks of 2 and 3 planes.
    Tree phases(MultiPhase({2, 3, 1}, {1, 1, 1}, {0, 1, 0},
                           {{Level(Exp::eExpZStackLoop, 2)}, {Level(Exp::eExpZStackLoop, 9)}, {Level(Exp::eExpZStackLoop, 3)}}));
    EXPECT_EQ(Api::GetAllImagesCount(phases.get()), 7u);
    ASSERT_EQ(Api::CalcPosFromIdx(phases.get(), 5, pos, &count), KV_OK);
    EXPECT_EQ(pos[0], 5u);
    EXPECT_EQ(pos[1], 1u);
    const uint32_t noFrame[2] = {3, 0};
    EXPECT_EQ(Api::CalcIdxFromPos(phases.get(), noFrame, 2, index), KV_ERR_FAILED);
}

TEST(ExperimentAPI, RoundTripOverGeneratedTrees) {
    std::mt19937 rng(1234);
    uint64_t checked = 0, deepest = 0;
    for (int round = 0; round < 300; ++round) {
        Tree tree(Generate(rng, 0));
        std::map<uint32_t, uint32_t> sizes;
        DisplaySizes(tree.get(), 0, sizes);
        const uint32_t frames = Api::GetAllImagesCount(tree.get());
        uint32_t levels = 0;
        ASSERT_EQ(Api::CalcPosFromIdx(tree.get(), 0, nullptr, &levels), KV_OK);
        std::vector<uint32_t> pos(levels + 1);
        for (uint32_t i = 0; i < frames; ++i) {
            ASSERT_EQ(Api::CalcPosFromIdx(tree.get(), i, pos.data(), &levels), KV_OK) << round << " " << i;
            for (uint32_t l = 0; l < levels; ++l) EXPECT_LT(pos[l], std::max(1u, sizes[l])) << round;
            uint32_t back = ~0u;
            ASSERT_EQ(Api::CalcIdxFromPos(tree.get(), pos.data(), levels, back), KV_OK) << round << " " << i;
            EXPECT_EQ(back, i) << round;
        }
        EXPECT_EQ(Api::CalcPosFromIdx(tree.get(), frames, pos.data(), &levels), KV_ERR_FAILED);
        checked += frames, deepest = std::max<uint64_t>(deepest, levels);
    }
    EXPECT_GT(checked, 3000u);  // the generator must keep producing sizeable trees
    EXPECT_GE(deepest, 4u);
}

// Whole generated trees (next levels, sub-loops, validity, repeat counts)
// come back equal from the lite form, the tree form and the tree through XML.
TEST(ExperimentAPI, GeneratedTreesSurviveEveryStoredForm) {
    std::mt19937 rng(99);
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(round);
        Tree tree(Generate(rng, 0));
        tree->wsUserDesc = CKvStringW((L"round " + std::to_wstring(round)).c_str());
        std::vector<Tree> back;

        CKvLiteVariantW writer;
        ASSERT_EQ(Exp::SaveToLiteVariant(writer, *tree), KV_OK);
        CKvLiteVariantR reader;
        ASSERT_EQ(writer.Finalize(reader, 0), KV_OK);
        back.push_back(std::make_unique<Exp>());
        ASSERT_EQ(Exp::LoadFromLiteVariant(*back.back(), reader), KV_OK);

        CKvVariant node;
        ASSERT_EQ(Exp::SaveToVariant(node, *tree), KV_OK);
        back.push_back(std::make_unique<Exp>());
        ASSERT_EQ(Exp::LoadFromVariant(*back.back(), node), KV_OK);

        node.SetName(CKvStringW(L"experiment"));
        CKvStringW xml;
        ASSERT_EQ(CKvSerializerXMLString::DocumentToXML(xml, node), KV_OK);
        CKvVariant fromXml;
        ASSERT_EQ(CKvSerializerXMLString::VariantFromXML(fromXml, xml), KV_OK);
        back.push_back(std::make_unique<Exp>());
        ASSERT_EQ(Exp::LoadFromVariant(*back.back(), fromXml), KV_OK);

        for (size_t form = 0; form < back.size(); ++form) {
            SCOPED_TRACE(form);
            const Tree& loaded = back[form];
            EXPECT_TRUE(Exp::IsEqual(tree.get(), loaded.get(), true, true));
            EXPECT_EQ(Api::GetAllImagesCount(tree.get()), Api::GetAllImagesCount(loaded.get()));
        }
    }
}

TEST(ExperimentAPI, DamagedTreesAreRefused) {
    Tree hole(Attach(Level(Exp::eExpTimeLoop, 2), {nullptr}));
    uint32_t pos[2] = {0, 0}, index = 0;
    EXPECT_EQ(Api::CalcPosFromIdx(hole.get(), 0, pos, nullptr), KV_ERR_INVALID_ARG);
    EXPECT_EQ(Api::CalcIdxFromPos(hole.get(), pos, 2, index), KV_ERR_INVALID_ARG);
    EXPECT_EQ(Api::GetAllImagesCount(hole.get()), 0u);

    Tree deep(Level(Exp::eExpZStackLoop, 1));
    Exp* bottom = deep.get();
    for (int i = 0; i < 70; ++i) bottom = Attach(bottom, {Level(Exp::eExpZStackLoop, 1)})->ppNextLevelEx[0];
    EXPECT_EQ(Api::WalkExperiment(deep.get(), [](const Exp*, void*, uint32_t) { return KV_OK; }, nullptr),
              KV_ERR_FAILED);
    EXPECT_EQ(Api::GetAllImagesCount(deep.get()), 0u);
    uint32_t levels = 0;
    EXPECT_EQ(Api::CalcPosFromIdx(deep.get(), 0, nullptr, &levels), KV_OK);
    std::vector<uint32_t> deepPos(levels);
    EXPECT_EQ(Api::CalcPosFromIdx(deep.get(), 0, deepPos.data(), nullptr), KV_ERR_FAILED);
    EXPECT_EQ(Api::RepairExperiment(deep.get(), 1), KV_ERR_FAILED);
    EXPECT_FALSE(Api::IsSimpleExperiment(deep.get()));
}

TEST(ExperimentAPI, WalkVisitsParentsFirstAndStops) {
    Tree tree(Attach(Level(Exp::eExpTimeLoop, 2), {Attach(Level(Exp::eExpXYPosLoop, 2), {Level(Exp::eExpZStackLoop, 2)}),
                                                   Level(Exp::eExpCustomLoop, 2)}));
    std::vector<std::pair<uint32_t, uint32_t>> seen;  // (kind, depth)
    auto record = [](const Exp* e, void* p, uint32_t d) -> kv_result {
        auto* v = static_cast<std::vector<std::pair<uint32_t, uint32_t>>*>(p);
        v->push_back({e->eType, d});
        return e->eType == Exp::eExpZStackLoop ? 7 : KV_OK;
    };
    EXPECT_EQ(Api::WalkExperiment(tree.get(), record, &seen, 10), 7);
    EXPECT_EQ(seen, (std::vector<std::pair<uint32_t, uint32_t>>{{1, 10}, {2, 11}, {4, 12}}));
    EXPECT_EQ(Api::WalkExperiment(tree.get(), nullptr, nullptr), KV_ERR_INVALID_ARG);
    EXPECT_EQ(Api::WalkExperiment(nullptr, record, &seen), KV_OK);
}

TEST(ExperimentAPI, RepairMatchesFrameCount) {
    struct Case { std::vector<uint8_t> valid; uint32_t frames; bool keepPartial; uint32_t type, items, result; };
    const Case cases[] = {
        {{}, 10, true, Exp::eExpXYPosLoop, 2, 10},          // cancelled after two points
        {{}, 12, true, Exp::eExpTimeLoop, 12, 12},          // ends inside a point: plain sequence
        {{}, 12, false, Exp::eExpXYPosLoop, 2, 10},         // whole points only
        {{}, 25, true, Exp::eExpXYPosLoop, 5, 25},          // more frames than planned
        {{1, 0, 1, 1}, 10, true, Exp::eExpXYPosLoop, 3, 10},  // skipped point kept in place
    };
    for (const Case& c : cases) {
        Tree tree(Attach(Level(Exp::eExpXYPosLoop, 4, 1, c.valid), {Level(Exp::eExpZStackLoop, 5)}));
        ASSERT_EQ(Api::RepairExperimentEx(tree.get(), c.frames, c.keepPartial), KV_OK);
        EXPECT_EQ(tree->eType, c.type);
        EXPECT_EQ(tree->uLoopPars.uiCount, c.items);
        EXPECT_EQ(Api::GetAllImagesCount(tree.get()), c.result);
        if (c.type == Exp::eExpXYPosLoop) {
            EXPECT_EQ(tree->uLoopPars.XYPosLoop.Points.size(), c.items);
        }
    }
    // Phases of 2, 3 (no frames) and 2 items over Z stacks of 2, 9 and 3 planes: 10 frames.
    for (uint32_t frames : {4u, 5u, 6u, 7u}) {
        for (bool keepPartial : {true, false}) {
            Tree tree(MultiPhase({2, 3, 2}, {1, 1, 1}, {0, 1, 0},
                {{Level(Exp::eExpZStackLoop, 2)}, {Level(Exp::eExpZStackLoop, 9)}, {Level(Exp::eExpZStackLoop, 3)}}));
            ASSERT_EQ(Api::RepairExperimentEx(tree.get(), frames, keepPartial), KV_OK);
            const bool whole = frames % 3 == 1;
            EXPECT_EQ(tree->eType, uint32_t(whole || !keepPartial ? Exp::eExpNETimeLoop : Exp::eExpTimeLoop));
            EXPECT_EQ(Api::GetAllImagesCount(tree.get()), whole || keepPartial ? frames : 4 + (frames - 4) / 3 * 3);
        }
    }
}

TEST(ExperimentAPI, SpectralChannelsAndEdits) {
    auto spectral = [](std::vector<uint32_t> colours) {
        Exp* e = Level(Exp::eExpSpectLoop, static_cast<uint32_t>(colours.size()));
        auto planes = std::make_unique<SKvPicturePlanes>();
        EXPECT_EQ(SKvPicturePlanes::Alloc(*planes, static_cast<uint32_t>(colours.size()), 0), KV_OK);
        for (size_t i = 0; i < colours.size(); ++i) planes->pPlanes[i].uiColor = colours[i];
        EXPECT_EQ(SKvPicturePlanes::MakeCompatible(*planes, static_cast<uint32_t>(colours.size())), KV_OK);
        e->uLoopPars.SpectLoop.pPlanes = std::move(planes);
        return e;
    };
    Tree same(Attach(Level(Exp::eExpXYPosLoop, 2), {spectral({1, 2}), spectral({1, 2})}));
    Tree differ(Attach(Level(Exp::eExpXYPosLoop, 2), {spectral({1, 2}), spectral({2, 3})}));
    EXPECT_TRUE(Api::HasSameLambdaChannels(same.get()));
    EXPECT_FALSE(Api::HasSameLambdaChannels(differ.get()));
    // Channels whose stored component counts add up past any camera come from
    // a damaged tree: the superset is refused instead of allocated for.
    Tree huge(spectral({1, 2}));
    huge->uLoopPars.SpectLoop.pPlanes->pPlanes[0].uiCompCount = 0x7FFFFFFF;
    huge->uLoopPars.SpectLoop.pPlanes->pPlanes[1].uiCompCount = 0x7FFFFFFF;
    SKvExperiment* superset = nullptr;
    EXPECT_EQ(Api::GetSupersetSpectExp(huge.get(), &superset), KV_ERR_FAILED);
    EXPECT_EQ(superset, nullptr);
    uint32_t comps = 0;
    EXPECT_EQ(Api::GetSpectCompCount(differ.get(), comps), KV_OK);
    EXPECT_EQ(comps, 3u);
    SKvPicturePlanes planes;
    EXPECT_EQ(Api::GetSpectPlanes(nullptr, planes), KV_OK);
    EXPECT_EQ(planes.uiCount, 0u);

    // Insert a Z stack between time and XY, then above everything.
    Exp* root = Attach(Level(Exp::eExpTimeLoop, 3), {Level(Exp::eExpXYPosLoop, 2)});
    Tree z(Level(Exp::eExpZStackLoop, 4));
    z->uLoopPars.ZStackLoop.dZLow = 10, z->uLoopPars.ZStackLoop.dZStep = -0.5, z->uLoopPars.ZStackLoop.dZHome = 11;
    ASSERT_EQ(Api::AddExperimentLevel(&root, z.get(), 1), KV_OK);
    ASSERT_EQ(Api::AddExperimentLevel(&root, z.get(), 0), KV_OK);
    Tree owned(root);
    EXPECT_EQ(Api::GetExperimentCount(root), 4u);
    EXPECT_EQ(Api::GetNextLevelExperiment(Api::GetNextLevelExperiment(root, 0), 0)->eType, uint32_t(Exp::eExpZStackLoop));
    EXPECT_EQ(Api::GetAllImagesCount(root), 4u * 3 * 4 * 2);
    double value = 0;
    EXPECT_EQ(Api::GetZStackPositionForDisplay(root, 2, value), KV_OK);
    EXPECT_DOUBLE_EQ(value, 10 + 2 * 0.5 - 11);
    EXPECT_EQ(Api::GetZStackFirstMovePosition(root, value), KV_OK);
    EXPECT_DOUBLE_EQ(value, 10);
    EXPECT_EQ(Api::GetZStackHomePosition(root, value), KV_OK);
    EXPECT_EQ(Api::GetZStackStepSize(same.get(), value), KV_ERR_NOT_FOUND);
}

}  // namespace

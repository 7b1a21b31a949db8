#include "gnr_metaformats/ExperimentAPI.h"

#include <algorithm>
#include <limits>

#include "gnr_system/KvTrace.h"

namespace {

using Exp = SKvExperiment;

// Counts are kept in 64 bits but capped here, so that the product of two
// capped values still fits and a saturated count never wraps.
constexpr uint64_t kCountCap = std::numeric_limits<uint32_t>::max();
// Most components the channel superset of a tree may add up to.
constexpr uint64_t kMaxSupersetComponents = uint64_t{1} << 20;

uint64_t SatAdd(uint64_t a, uint64_t b) { return std::min(kCountCap, std::min(a, kCountCap) + std::min(b, kCountCap)); }
uint64_t SatMul(uint64_t a, uint64_t b) { return std::min(kCountCap, std::min(a, kCountCap) * std::min(b, kCountCap)); }

bool IsTimeKind(uint32_t type) {
    return type == Exp::eExpTimeLoop || type == Exp::eExpManualTimeLoop || type == Exp::eExpNETimeLoop;
}

bool HasSubLoops(const Exp& e) {
    return e.eType == Exp::eExpNETimeLoop && !e.uLoopPars.NETimeLoop.pSubLoops.empty();
}

bool IsPhaseValid(const SKvExpNETimeLoop& ne, size_t phase) {
    return phase >= ne.pPeriodValid.size() || ne.pPeriodValid[phase] != 0;
}

// A phase whose loop type has either low bit set yields no frames.
bool PhaseHasFrames(const SKvExpTimeLoop& phase) { return (phase.uiLoopType & 0x3u) == 0; }

// The loops nested under one item run of a level.
struct Children {
    SKvExperiment* const* items = nullptr;
    uint32_t count = 0;
};

Children NextLevels(const Exp& e) { return {e.ppNextLevelEx, e.ppNextLevelEx ? e.uiNextLevelCount : 0}; }

Children PhaseChildren(const Exp& e, size_t phase) {
    if (!HasSubLoops(e)) return NextLevels(e);
    const auto& subs = e.uLoopPars.NETimeLoop.pSubLoops;
    if (phase >= subs.size()) return {};
    return {subs[phase].ppNextLevelEx, subs[phase].ppNextLevelEx ? subs[phase].uiNextLevelCount : 0};
}

bool HasNullSlot(const Children& c) {
    for (uint32_t i = 0; i < c.count; ++i)
        if (!c.items[i]) return true;
    return false;
}

// Repeat count of child `k` as the item runs use it: 0 counts as 1 only for
// a single child.
uint64_t EffectiveRepeat(const Children& c, uint32_t k) {
    const uint32_t r = c.items[k] ? c.items[k]->uiRepeatCount : 0;
    return (r == 0 && c.count == 1) ? 1 : r;
}

uint64_t RepeatSum(const Children& c) {
    uint64_t sum = 0;
    for (uint32_t k = 0; k < c.count; ++k) sum = SatAdd(sum, EffectiveRepeat(c, k));
    return sum;
}

uint64_t ImageCount(const Exp* e, uint32_t depth);

// A stretch of "places" (item runs) of a level that share one set of
// children: place p runs the child whose repeat counts cover p modulo the
// children's repeat sum. A plain level is one segment of loop size x repeat
// sum places; a multi-phase time lapse has one segment per valid phase.
struct Segment {
    uint64_t places = 0;
    Children kids;
    bool frames = true;
};

std::vector<Segment> Segments(const Exp& e) {
    std::vector<Segment> out;
    if (e.eType == Exp::eExpNETimeLoop) {
        const auto& ne = e.uLoopPars.NETimeLoop;
        for (size_t i = 0; i < ne.pPeriod.size(); ++i) {
            if (!IsPhaseValid(ne, i)) continue;
            out.push_back({ne.pPeriod[i].uiCount, PhaseChildren(e, i), PhaseHasFrames(ne.pPeriod[i])});
        }
        return out;
    }
    Segment s;
    s.kids = NextLevels(e);
    s.places = SatMul(CKvExperimentAPI::GetLoopSize(&e), s.kids.count ? std::max<uint64_t>(RepeatSum(s.kids), 1) : 1);
    out.push_back(s);
    return out;
}

// Images of every child and the images of one full period of places.
struct SegmentCounts {
    std::vector<uint64_t> images;
    uint64_t period = 1;      // places per period
    uint64_t perPeriod = 0;   // images per period
    uint64_t total = 0;
};

SegmentCounts Count(const Segment& s, uint32_t depth) {
    SegmentCounts c;
    if (!s.frames) return c;
    if (s.kids.count == 0) {
        c.perPeriod = 1;
        c.total = s.places;
        return c;
    }
    c.period = RepeatSum(s.kids);
    for (uint32_t k = 0; k < s.kids.count; ++k) {
        c.images.push_back(ImageCount(s.kids.items[k], depth + 1));
        c.perPeriod = SatAdd(c.perPeriod, SatMul(EffectiveRepeat(s.kids, k), c.images.back()));
    }
    if (c.period == 0 || c.perPeriod == 0) {
        // Children whose repeat counts cover no place, or that hold no images.
        if (s.places) KV_TRACE_FAILURE();
        c.total = 0;
        return c;
    }
    const uint64_t full = s.places / c.period;
    uint64_t rest = s.places % c.period;
    c.total = SatMul(full, c.perPeriod);
    for (uint32_t k = 0; k < s.kids.count && rest; ++k) {
        const uint64_t r = std::min(rest, EffectiveRepeat(s.kids, k));
        c.total = SatAdd(c.total, SatMul(r, c.images[k]));
        rest -= r;
    }
    return c;
}

// Child to walk into from a spectral level: the first with the most images.
uint32_t LargestChild(const Children& kids, uint32_t depth, uint64_t* images) {
    uint32_t best = 0;
    uint64_t most = 0;
    for (uint32_t k = 0; k < kids.count; ++k) {
        const uint64_t n = ImageCount(kids.items[k], depth + 1);
        if (n > most) most = n, best = k;
    }
    if (images) *images = most;
    return best;
}

uint64_t ImageCount(const Exp* e, uint32_t depth) {
    if (!e) return 0;
    if (depth >= kExpMaxDepth) {
        KV_TRACE_FAILURE();
        return 0;
    }
    if (e->eType == Exp::eExpSpectLoop) {
        const Children kids = NextLevels(*e);
        if (kids.count == 0) return 1;
        uint64_t most = 0;
        LargestChild(kids, depth, &most);
        return most;
    }
    uint64_t total = 0;
    for (const Segment& s : Segments(*e)) total = SatAdd(total, Count(s, depth).total);
    return total;
}

// Where image `index` of a segment lies: its place and, with children, the
// child and the index inside it. False when the index is past the segment.
bool Locate(const Segment& s, const SegmentCounts& c, uint64_t index, uint64_t& place, uint32_t& child,
            uint64_t& inner) {
    if (index >= c.total) return false;
    if (s.kids.count == 0) {
        place = index;
        return true;
    }
    const uint64_t periods = std::min(index / c.perPeriod, s.places / c.period);
    place = periods * c.period;
    index -= periods * c.perPeriod;
    for (uint32_t k = 0; k < s.kids.count; ++k) {
        const uint64_t r = std::min(EffectiveRepeat(s.kids, k), s.places - place);
        const uint64_t span = r * c.images[k];
        if (index < span) {
            place += index / c.images[k];
            child = k;
            inner = index % c.images[k];
            return true;
        }
        index -= span;
        place += r;
    }
    KV_TRACE_FAILURE();
    return false;
}

// The inverse of Locate: first image of `place` in the segment and the child
// the place runs. False when the place is past the segment.
bool PlaceStart(const Segment& s, const SegmentCounts& c, uint64_t place, uint64_t& start, uint32_t& child) {
    if (place >= s.places) return false;
    if (s.kids.count == 0) {
        start = place;
        return true;
    }
    if (c.period == 0) return false;
    start = (place / c.period) * c.perPeriod;
    uint64_t within = place % c.period;
    for (uint32_t k = 0; k < s.kids.count; ++k) {
        const uint64_t r = EffectiveRepeat(s.kids, k);
        if (within < r) {
            start += within * c.images[k];
            child = k;
            return c.images[k] > 0;
        }
        start += r * c.images[k];
        within -= r;
    }
    return false;
}

const Exp* FirstChild(const Exp& e) {
    if (HasSubLoops(e)) {
        const auto& ne = e.uLoopPars.NETimeLoop;
        for (size_t i = 0; i < ne.pPeriod.size(); ++i) {
            const Children c = PhaseChildren(e, i);
            if (IsPhaseValid(ne, i) && c.count) return c.items[0];
        }
        return nullptr;
    }
    return e.ppNextLevelEx && e.uiNextLevelCount ? e.ppNextLevelEx[0] : nullptr;
}

// Groups of next-level loops of a level: the phases' sub-loops, else its next levels.
std::vector<Children> ChildGroups(const Exp& e) {
    std::vector<Children> groups;
    if (HasSubLoops(e))
        for (size_t i = 0; i < e.uLoopPars.NETimeLoop.pSubLoops.size(); ++i) groups.push_back(PhaseChildren(e, i));
    else
        groups.push_back(NextLevels(e));
    return groups;
}

bool AnyNullSlot(const Exp& e) {
    if (e.eType == Exp::eExpSpectLoop) return HasNullSlot(NextLevels(e));
    for (const Segment& s : Segments(e))
        if (HasNullSlot(s.kids)) return true;
    return false;
}

// Walks frame `index` down the tree. `pos` (maxLevels slots, may be null)
// receives the coordinates; `spect` / `spectIndex` the first spectral level
// met and the frame's index inside it.
kv_result Descend(const Exp* e, uint64_t index, uint32_t maxLevels, uint32_t* pos, const Exp** spect,
                  uint64_t* spectIndex) {
    for (uint32_t level = 0;; ++level) {
        if (level >= maxLevels || level >= kExpMaxDepth) return KV_ERR_FAILED;
        if (AnyNullSlot(*e)) return KV_ERR_INVALID_ARG;
        if (level == 0 && index >= ImageCount(e, 0)) return KV_ERR_FAILED;
        if (e->eType == Exp::eExpSpectLoop) {
            if (spect && !*spect) *spect = e, *spectIndex = index;
            if (pos) pos[level] = 0;
            const Children kids = NextLevels(*e);
            if (kids.count == 0) return KV_OK;
            e = kids.items[LargestChild(kids, level, nullptr)];
            continue;
        }
        uint64_t placeOffset = 0;
        const Exp* next = nullptr;
        bool found = false;
        for (const Segment& s : Segments(*e)) {
            const SegmentCounts c = Count(s, level);
            uint64_t place = 0, inner = 0;
            uint32_t child = 0;
            if (Locate(s, c, index, place, child, inner)) {
                const uint64_t coordinate = placeOffset + place;
                if (coordinate > kCountCap) return KV_ERR_FAILED;
                if (pos) pos[level] = static_cast<uint32_t>(coordinate);
                if (s.kids.count) next = s.kids.items[child];
                index = inner;
                found = true;
                break;
            }
            index -= std::min(index, c.total);
            placeOffset = SatAdd(placeOffset, s.places);
        }
        if (!found) return KV_ERR_FAILED;
        if (!next) return KV_OK;
        e = next;
    }
}

uint32_t SumLoopSizes(const Exp* e, bool (*match)(uint32_t), uint32_t depth) {
    if (!e) return 0;
    if (depth >= kExpMaxDepth) {
        KV_TRACE_FAILURE();
        return 0;
    }
    uint64_t sum = match(e->eType) ? CKvExperimentAPI::GetLoopSize(e) : 0;
    auto add = [&](const Children& c) {
        for (uint32_t k = 0; k < c.count; ++k) sum = SatAdd(sum, SumLoopSizes(c.items[k], match, depth + 1));
    };
    add(NextLevels(*e));
    if (HasSubLoops(*e))
        for (size_t i = 0; i < e->uLoopPars.NETimeLoop.pSubLoops.size(); ++i) add(PhaseChildren(*e, i));
    return static_cast<uint32_t>(sum);
}

kv_result Walk(const Exp* e, CKvExperimentAPI::WalkCallback cb, void* ctx, uint32_t depth, uint32_t level) {
    if (!e) return KV_OK;
    if (level >= kExpMaxDepth) return KV_ERR_FAILED;
    if (kv_result r = cb(e, ctx, depth)) return r;
    if (HasSubLoops(*e)) {
        const auto& ne = e->uLoopPars.NETimeLoop;
        for (size_t i = 0; i < ne.pPeriod.size(); ++i) {
            const Children c = PhaseChildren(*e, i);
            if (!IsPhaseValid(ne, i) || !c.count) continue;
            if (kv_result r = Walk(c.items[0], cb, ctx, depth + 1, level + 1)) return r;
        }
        return KV_OK;
    }
    const Children c = NextLevels(*e);
    for (uint32_t k = 0; k < c.count; ++k)
        if (kv_result r = Walk(c.items[k], cb, ctx, depth + 1, level + 1)) return r;
    return KV_OK;
}

const Exp* Find(const Exp* e, uint32_t type, uint32_t depth, uint32_t* found) {
    struct Ctx { uint32_t type; const Exp* hit; uint32_t depth; } ctx{type, nullptr, 0};
    Walk(e, [](const Exp* x, void* p, uint32_t d) -> kv_result {
        auto* c = static_cast<Ctx*>(p);
        if (x->eType != c->type) return KV_OK;
        c->hit = x, c->depth = d;
        return 1;  // stops the walk at the first match
    }, &ctx, depth, 0);
    if (ctx.hit && found) *found = ctx.depth;
    return ctx.hit;
}

const SKvExpZStackLoop* FirstZStack(const Exp* e) {
    const Exp* z = Find(e, Exp::eExpZStackLoop, 0, nullptr);
    return z ? &z->uLoopPars.ZStackLoop : nullptr;
}

// ---- Spectral channels

// What identifies a channel across spectral levels.
struct ChannelKey {
    const SKvPicturePlanes* planes = nullptr;  // null: not described
    uint32_t index = 0;

    bool operator==(const ChannelKey& o) const {
        if (!planes || !o.planes) return !planes && !o.planes && index == o.index;
        const SKvPicturePlaneDesc& a = planes->pPlanes[index];
        const SKvPicturePlaneDesc& b = o.planes->pPlanes[o.index];
        return a.sDescription == b.sDescription && a.uiColor == b.uiColor &&
               SKvPicturePlanes::GetPlaneOCName(*planes, index) == SKvPicturePlanes::GetPlaneOCName(*o.planes, o.index);
    }
};

ChannelKey KeyOf(const Exp& spect, uint32_t channel) {
    const SKvPicturePlanes* p = spect.uLoopPars.SpectLoop.pPlanes.get();
    if (p && channel < p->uiCount && p->pPlanes) return {p, channel};
    return {nullptr, channel};
}

bool IsItemValid(const Exp& e, uint32_t item) { return !e.pItemValid || e.pItemValid[item] != 0; }

// Channels of a spectral level; the structure keeps Points that long, and
// KeyOf checks the plane set separately.
uint32_t ChannelCount(const Exp& spect) { return spect.uLoopPars.uiCount; }

bool SameChannels(const Exp* e, const Exp& superset, uint32_t depth) {
    if (!e || depth >= kExpMaxDepth) return false;
    if (e->eType == Exp::eExpSpectLoop) {
        if (NextLevels(*e).count > 1 || ChannelCount(*e) != ChannelCount(superset)) return false;
        for (uint32_t i = 0; i < ChannelCount(*e); ++i) {
            if (IsItemValid(*e, i) != IsItemValid(superset, i)) return false;
            if (IsItemValid(*e, i) && !(KeyOf(*e, i) == KeyOf(superset, i))) return false;
        }
        return true;
    }
    bool any = false;
    for (const Children& c : ChildGroups(*e))
        for (uint32_t k = 0; k < c.count; ++k) {
            if (!SameChannels(c.items[k], superset, depth + 1)) return false;
            any = true;
        }
    return any;
}

// Distinct valid channels collected over the tree, in the order met.
struct SupersetCtx {
    std::vector<ChannelKey> keys;
};

// Copies the channels listed in `keys` into a fresh spectral level.
kv_result BuildSuperset(const std::vector<ChannelKey>& keys, SKvExperiment& out) {
    kv_result r = SKvExperiment::Init(out, Exp::eExpSpectLoop, static_cast<uint32_t>(keys.size()));
    if (KV_FAILED(r)) return r;
    auto planes = std::make_unique<SKvPicturePlanes>();
    r = SKvPicturePlanes::Alloc(*planes, static_cast<uint32_t>(keys.size()), 0);
    if (KV_FAILED(r)) return r;
    uint64_t comps = 0;
    for (size_t i = 0; i < keys.size(); ++i) {
        if (keys[i].planes) planes->pPlanes[i] = keys[i].planes->pPlanes[keys[i].index];
        comps += planes->pPlanes[i].uiCompCount;
    }
    // The superset gets one settings byte per component: counts that no
    // camera delivers come from damaged trees and are refused, not allocated.
    if (comps > kMaxSupersetComponents) return KV_ERR_FAILED;
    r = SKvPicturePlanes::MakeCompatible(*planes, static_cast<uint32_t>(comps));
    if (KV_FAILED(r)) return r;
    out.uLoopPars.SpectLoop.pPlanes = std::move(planes);
    return KV_OK;
}

void SetItemCount(Exp& e, uint32_t count);

// Sets the loop size of a plain level to `valid` acquired items, keeping the
// validity of the items that stay; items added are valid.
kv_result ResizeLoop(Exp& e, uint32_t valid) {
    if (!e.pItemValid) {
        SetItemCount(e, valid);
        return KV_OK;
    }
    std::vector<uint8_t> bytes;
    uint32_t kept = 0;
    for (uint32_t i = 0; i < e.uLoopPars.uiCount && kept < valid; ++i) {
        bytes.push_back(e.pItemValid[i]);
        if (e.pItemValid[i]) ++kept;
    }
    bytes.resize(bytes.size() + (valid - kept), 1);
    if (bytes.size() > kCountCap) return KV_ERR_FAILED;
    const uint32_t count = static_cast<uint32_t>(bytes.size());
    kv_result r = SKvExperiment::AllocItemValid(e, count);
    if (KV_FAILED(r)) return r;
    std::copy(bytes.begin(), bytes.end(), e.pItemValid);
    SetItemCount(e, count);
    return KV_OK;
}

// Keeps the per-item vectors of the loop parameters as long as the count.
void SetItemCount(Exp& e, uint32_t count) {
    SKvExpLoopPars& p = e.uLoopPars;
    p.uiCount = count;
    if (e.eType == Exp::eExpXYPosLoop) p.XYPosLoop.Points.resize(count);
    if (e.eType == Exp::eExpSpectLoop) p.SpectLoop.Points.resize(count);
    if (e.eType == Exp::eExpXYDiscrLoop && !p.XYDiscrLoop.uiRow.empty()) {
        p.XYDiscrLoop.uiRow.resize(count);
        p.XYDiscrLoop.uiCol.resize(count);
    }
}

// Turns the tree into a plain time lapse of `frames` items, keeping the
// top level's descriptions and repeat count.
kv_result Flatten(Exp& e, uint32_t frames) {
    CKvStringW app = e.wsApplicationDesc, user = e.wsUserDesc, probes = e.aMeasProbesBase64, camera = e.wsCameraName;
    const uint32_t repeat = e.uiRepeatCount;
    SKvExperiment::Uninit(e);
    kv_result r = SKvExperiment::Init(e, Exp::eExpTimeLoop, frames);
    if (KV_FAILED(r)) return r;
    e.wsApplicationDesc = app, e.wsUserDesc = user, e.aMeasProbesBase64 = probes, e.wsCameraName = camera;
    e.uiRepeatCount = repeat;
    return KV_OK;
}

bool IsSimple(const Exp* e, uint32_t depth) {
    if (!e) return true;
    if (depth >= kExpMaxDepth) return false;
    for (const Children& c : ChildGroups(*e)) {
        if (c.count > 1) return false;
        if (c.count == 1 && !IsSimple(c.items[0], depth + 1)) return false;
    }
    return true;
}

// Cuts the phases of a multi-phase time lapse after `frames` frames: the
// phase where they end keeps the items whose frames are all there, later
// phases keep their parameters with no items. KV_ERR_NOT_FOUND when the
// phases cannot express the count (more frames than planned, or frames that
// end inside an item while `keepPartialItem` asks to keep them).
kv_result CutPhases(Exp& e, uint64_t frames, bool keepPartialItem) {
    auto& ne = e.uLoopPars.NETimeLoop;
    bool cut = false;
    for (size_t i = 0; i < ne.pPeriod.size(); ++i) {
        if (!IsPhaseValid(ne, i)) continue;
        if (cut) {
            ne.pPeriod[i].uiCount = 0;
            continue;
        }
        const Segment s{ne.pPeriod[i].uiCount, PhaseChildren(e, i), PhaseHasFrames(ne.pPeriod[i])};
        const SegmentCounts c = Count(s, 0);
        if (frames >= c.total) {
            frames -= c.total;
            continue;
        }
        uint64_t place = 0, inner = 0;
        uint32_t child = 0;
        if (!Locate(s, c, frames, place, child, inner) || (inner && keepPartialItem)) return KV_ERR_NOT_FOUND;
        ne.pPeriod[i].uiCount = static_cast<uint32_t>(place);
        cut = true;
    }
    return cut ? KV_OK : KV_ERR_NOT_FOUND;
}

uint32_t TreeDepth(const Exp* e, uint32_t depth) {
    if (!e || depth > kExpMaxDepth) return depth;
    uint32_t deepest = depth + 1;
    for (const Children& c : ChildGroups(*e))
        for (uint32_t k = 0; k < c.count && deepest <= kExpMaxDepth; ++k)
            deepest = std::max(deepest, TreeDepth(c.items[k], depth + 1));
    return deepest;
}

}  // namespace

uint32_t CKvExperimentAPI::GetLoopSize(const SKvExperiment* exp) {
    if (!exp) return 0;
    if (exp->eType == Exp::eExpNETimeLoop) {
        const auto& ne = exp->uLoopPars.NETimeLoop;
        uint64_t sum = 0;
        for (size_t i = 0; i < ne.pPeriod.size(); ++i)
            if (IsPhaseValid(ne, i)) sum = SatAdd(sum, ne.pPeriod[i].uiCount);
        return static_cast<uint32_t>(sum);
    }
    if (!exp->pItemValid) return exp->uLoopPars.uiCount;
    uint32_t valid = 0;
    for (uint32_t i = 0; i < exp->uLoopPars.uiCount; ++i)
        if (exp->pItemValid[i]) ++valid;
    return valid;
}

uint32_t CKvExperimentAPI::GetLoopSize(const SKvExperiment* exp, uint32_t type) {
    return GetLoopSize(FindExperiment(exp, type));
}

uint32_t CKvExperimentAPI::GetLoopSizeForDisplay(const SKvExperiment* exp) {
    if (!exp) return 0;
    if (exp->eType == Exp::eExpNETimeLoop) return GetLoopSize(exp);
    if (exp->eType == Exp::eExpSpectLoop) return 1;
    const uint32_t periodicity = GetNextLevelPeriodicity(exp);
    return static_cast<uint32_t>(SatMul(GetLoopSize(exp), periodicity ? periodicity : 1));
}

uint32_t CKvExperimentAPI::GetNextLevelPeriodicity(const SKvExperiment* exp) {
    if (!exp || !exp->ppNextLevelEx) return 0;
    if (exp->uiNextLevelCount == 0) return 1;
    const Children kids = NextLevels(*exp);
    if (HasNullSlot(kids)) return 0;
    uint64_t sum = 0;
    for (uint32_t k = 0; k < kids.count; ++k) sum = SatAdd(sum, kids.items[k]->uiRepeatCount);
    return sum ? static_cast<uint32_t>(sum) : 1;
}

uint32_t CKvExperimentAPI::GetExperimentCount(const SKvExperiment* exp) {
    uint32_t levels = 0;
    for (; exp && levels < kExpMaxDepth; exp = FirstChild(*exp)) ++levels;
    return levels;
}

SKvExperiment* CKvExperimentAPI::GetNextLevelExperiment(const SKvExperiment* exp, uint32_t index) {
    if (!exp || !exp->ppNextLevelEx || index >= exp->uiNextLevelCount) return nullptr;
    return exp->ppNextLevelEx[index];
}

SKvExperiment* CKvExperimentAPI::FindExperiment(const SKvExperiment* exp, uint32_t type, uint32_t* depth) {
    return const_cast<SKvExperiment*>(Find(exp, type, 0, depth));
}

bool CKvExperimentAPI::IsSimpleExperiment(const SKvExperiment* exp) { return IsSimple(exp, 0); }

kv_result CKvExperimentAPI::WalkExperiment(const SKvExperiment* exp, WalkCallback callback, void* context,
                                           uint32_t depth) {
    if (!callback) return KV_ERR_INVALID_ARG;
    return Walk(exp, callback, context, depth, 0);
}

uint32_t CKvExperimentAPI::GetAllTimeLoopsSize(const SKvExperiment* exp) { return SumLoopSizes(exp, IsTimeKind, 0); }
uint32_t CKvExperimentAPI::GetAllXYPosLoopsSize(const SKvExperiment* exp) {
    return SumLoopSizes(exp, [](uint32_t t) { return t == Exp::eExpXYPosLoop; }, 0);
}
uint32_t CKvExperimentAPI::GetAllZStackLoopsSize(const SKvExperiment* exp) {
    return SumLoopSizes(exp, [](uint32_t t) { return t == Exp::eExpZStackLoop; }, 0);
}
uint32_t CKvExperimentAPI::GetAllCustLoopsSize(const SKvExperiment* exp) {
    return SumLoopSizes(exp, [](uint32_t t) { return t == Exp::eExpCustomLoop; }, 0);
}

uint32_t CKvExperimentAPI::GetAllImagesCount(const SKvExperiment* exp) {
    return static_cast<uint32_t>(ImageCount(exp, 0));
}

kv_result CKvExperimentAPI::CalcPosFromIdx(const SKvExperiment* exp, uint32_t index, uint32_t* pos,
                                           uint32_t* count) {
    // Branches may differ in depth: room for the deepest keeps every frame addressable.
    const uint32_t levels = exp ? TreeDepth(exp, 0) : 0;
    if (count) *count = levels;
    if (!exp) return KV_ERR_INVALID_ARG;
    if (!pos) return KV_OK;
    if (levels > kExpMaxDepth) return KV_ERR_FAILED;  // refused before any slot is written
    std::fill(pos, pos + levels, 0u);
    return Descend(exp, index, levels, pos, nullptr, nullptr);
}

kv_result CKvExperimentAPI::CalcIdxFromPos(const SKvExperiment* exp, const uint32_t* pos, uint32_t count,
                                           uint32_t& index) {
    if (!exp || (!pos && count)) return KV_ERR_INVALID_ARG;
    uint64_t result = 0;
    for (uint32_t level = 0;; ++level) {
        if (level >= count || level >= kExpMaxDepth) return KV_ERR_FAILED;
        if (AnyNullSlot(*exp)) return KV_ERR_INVALID_ARG;
        const Exp* next = nullptr;
        if (exp->eType == Exp::eExpSpectLoop) {
            if (pos[level] != 0) return KV_ERR_FAILED;
            const Children kids = NextLevels(*exp);
            if (kids.count) next = kids.items[LargestChild(kids, level, nullptr)];
        } else {
            uint64_t place = pos[level];
            bool found = false;
            for (const Segment& s : Segments(*exp)) {
                const SegmentCounts c = Count(s, level);
                if (place >= s.places) {
                    place -= s.places;
                    result += c.total;
                    continue;
                }
                uint64_t start = 0;
                uint32_t child = 0;
                if (!s.frames || !PlaceStart(s, c, place, start, child)) return KV_ERR_FAILED;
                result += start;
                if (s.kids.count) next = s.kids.items[child];
                found = true;
                break;
            }
            if (!found) return KV_ERR_FAILED;
        }
        if (!next) break;
        exp = next;
    }
    if (result > kCountCap) return KV_ERR_FAILED;
    index = static_cast<uint32_t>(result);
    return KV_OK;
}

kv_result CKvExperimentAPI::GetCompIndexes(const SKvExperiment* exp, uint32_t index, uint32_t compCount,
                                           std::vector<uint32_t>& comps) {
    return KvNoThrow([&]() -> kv_result {
        comps.clear();
        if (!exp) return KV_ERR_INVALID_ARG;
        const Exp* spect = nullptr;
        uint64_t inner = 0;
        kv_result r = Descend(exp, index, kExpMaxDepth, nullptr, &spect, &inner);
        if (KV_FAILED(r)) return r;
        const Children kids = spect ? NextLevels(*spect) : Children{};
        const bool perChannel = spect && kids.count > 1 && kids.count == ChannelCount(*spect);
        if (!spect) {
            for (uint32_t c = 0; c < compCount; ++c) comps.push_back(c);
            return KV_OK;
        }
        uint64_t first = 0;
        for (uint32_t ch = 0; ch < ChannelCount(*spect); ++ch) {
            if (!IsItemValid(*spect, ch)) continue;
            const ChannelKey key = KeyOf(*spect, ch);
            const uint64_t width = key.planes ? key.planes->pPlanes[key.index].uiCompCount : 1;
            const bool present = !perChannel || inner < ImageCount(kids.items[ch], 1);
            for (uint64_t c = first; present && c < first + width && c < compCount; ++c)
                comps.push_back(static_cast<uint32_t>(c));
            first += width;
            if (first >= compCount) break;
        }
        return KV_OK;
    });
}

kv_result CKvExperimentAPI::GetCompSeqIndexes(const SKvExperiment* exp, uint32_t comp, uint32_t compCount,
                                              std::vector<uint32_t>& indexes) {
    return KvNoThrow([&]() -> kv_result {
        indexes.clear();
        if (!exp || comp >= compCount) return KV_ERR_INVALID_ARG;
        const uint32_t frames = GetAllImagesCount(exp);
        std::vector<uint32_t> comps;
        for (uint32_t i = 0; i < frames; ++i) {
            kv_result r = GetCompIndexes(exp, i, compCount, comps);
            if (KV_FAILED(r)) return r;
            if (std::binary_search(comps.begin(), comps.end(), comp)) indexes.push_back(i);
        }
        return KV_OK;
    });
}

kv_result CKvExperimentAPI::GetSupersetSpectExp(const SKvExperiment* exp, SKvExperiment** superset) {
    if (!superset) return KV_ERR_INVALID_ARG;
    *superset = nullptr;
    return KvNoThrow([&]() -> kv_result {
        SupersetCtx ctx;
        kv_result r = Walk(exp, [](const Exp* e, void* p, uint32_t) -> kv_result {
            if (e->eType != Exp::eExpSpectLoop) return KV_OK;
            auto& keys = static_cast<SupersetCtx*>(p)->keys;
            for (uint32_t ch = 0; ch < ChannelCount(*e); ++ch) {
                const ChannelKey key = KeyOf(*e, ch);
                if (IsItemValid(*e, ch) && std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(key);
            }
            return KV_OK;
        }, &ctx, 0, 0);
        if (KV_FAILED(r)) return r;
        if (!Find(exp, Exp::eExpSpectLoop, 0, nullptr)) return KV_OK;
        auto out = std::make_unique<SKvExperiment>();
        r = BuildSuperset(ctx.keys, *out);
        if (KV_FAILED(r)) return r;
        *superset = out.release();
        return KV_OK;
    });
}

bool CKvExperimentAPI::HasSameLambdaChannels(const SKvExperiment* exp) {
    SKvExperiment* superset = nullptr;
    if (KV_FAILED(GetSupersetSpectExp(exp, &superset)) || !superset) return true;
    const bool same = SameChannels(exp, *superset, 0);
    SKvExperiment::FreeRecursive(superset);
    return same;
}

kv_result CKvExperimentAPI::GetSpectPlanes(const SKvExperiment* exp, SKvPicturePlanes& planes) {
    SKvExperiment* superset = nullptr;
    kv_result r = GetSupersetSpectExp(exp, &superset);
    if (KV_FAILED(r)) return r;
    if (!superset) {
        SKvPicturePlanes::Free(planes);
        return KV_OK;
    }
    r = SKvExperiment::ExtractValidPlanes(planes, *superset);
    SKvExperiment::FreeRecursive(superset);
    return r;
}

kv_result CKvExperimentAPI::GetSpectCompCount(const SKvExperiment* exp, uint32_t& count) {
    count = 0;
    SKvPicturePlanes planes;
    kv_result r = GetSpectPlanes(exp, planes);
    if (KV_SUCCEEDED(r)) count = planes.uiCompCount;
    return r;
}

kv_result CKvExperimentAPI::RepairExperiment(SKvExperiment* exp, uint32_t frames) {
    return RepairExperimentEx(exp, frames, true);
}

kv_result CKvExperimentAPI::RepairExperimentEx(SKvExperiment* exp, uint32_t frames, bool keepPartialItem) {
    if (!exp) return KV_ERR_INVALID_ARG;
    if (TreeDepth(exp, 0) > kExpMaxDepth) return KV_ERR_FAILED;
    return KvNoThrow([&]() -> kv_result {
        if (GetAllImagesCount(exp) == frames) return KV_OK;
        if (AnyNullSlot(*exp) || exp->eType == Exp::eExpSpectLoop) return Flatten(*exp, frames);
        if (exp->eType == Exp::eExpNETimeLoop) {
            const kv_result r = CutPhases(*exp, frames, keepPartialItem);
            return r == KV_ERR_NOT_FOUND ? Flatten(*exp, frames) : r;
        }
        const Children kids = NextLevels(*exp);
        uint64_t perItem = 1;
        if (kids.count) {
            Segment one{RepeatSum(kids), kids, true};
            perItem = Count(one, 0).total;
        }
        if (perItem == 0) return Flatten(*exp, frames);
        if (frames % perItem && keepPartialItem) return Flatten(*exp, frames);
        return ResizeLoop(*exp, static_cast<uint32_t>(frames / perItem));
    });
}

kv_result CKvExperimentAPI::AddExperimentLevel(SKvExperiment** root, const SKvExperiment* level, uint32_t index) {
    if (!root || !level) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&]() -> kv_result {
        auto copy = std::make_unique<SKvExperiment>();
        kv_result r = SKvExperiment::Copy(*copy, *level);
        if (KV_FAILED(r)) return r;
        if (GetExperimentCount(*root) >= kExpMaxDepth) return KV_ERR_FAILED;
        SKvExperiment* parent = nullptr;
        for (SKvExperiment* cur = *root; cur && index > 0; --index) {
            parent = cur;
            cur = GetNextLevelExperiment(cur, 0);
        }
        if (!parent) {
            if (*root) {
                r = SKvExperiment::AllocNextLevels(*copy, 1);
                if (KV_FAILED(r)) return r;
                copy->ppNextLevelEx[0] = *root;
            }
            *root = copy.release();
            return KV_OK;
        }
        // The new level takes over the parent's next levels and becomes its only one.
        SKvExperiment holder;
        r = SKvExperiment::AllocNextLevels(holder, 1);
        if (KV_FAILED(r)) return r;
        std::swap(copy->ppNextLevelEx, parent->ppNextLevelEx);
        std::swap(copy->uiNextLevelCount, parent->uiNextLevelCount);
        std::swap(holder.ppNextLevelEx, parent->ppNextLevelEx);
        std::swap(holder.uiNextLevelCount, parent->uiNextLevelCount);
        parent->ppNextLevelEx[0] = copy.release();
        return KV_OK;
    });
}

kv_result CKvExperimentAPI::GetZStackStepSize(const SKvExperiment* exp, double& step) {
    const SKvExpZStackLoop* z = FirstZStack(exp);
    if (!z) return KV_ERR_NOT_FOUND;
    step = z->dZStep < 0 ? -z->dZStep : z->dZStep;
    return KV_OK;
}

uint32_t CKvExperimentAPI::GetZStackSizeMax(const SKvExperiment* exp) {
    uint32_t most = 0;
    Walk(exp, [](const Exp* e, void* p, uint32_t) -> kv_result {
        if (e->eType == Exp::eExpZStackLoop)
            *static_cast<uint32_t*>(p) = std::max(*static_cast<uint32_t*>(p), GetLoopSize(e));
        return KV_OK;
    }, &most, 0, 0);
    return most;
}

kv_result CKvExperimentAPI::GetZStackHomePosition(const SKvExperiment* zstack, double& home) {
    if (!zstack || zstack->eType != Exp::eExpZStackLoop) return KV_ERR_INVALID_ARG;
    home = zstack->uLoopPars.ZStackLoop.dZHome;
    return KV_OK;
}

kv_result CKvExperimentAPI::GetFirstZStackHomePosition(const SKvExperiment* exp, double& home) {
    const Exp* z = FindExperiment(exp, Exp::eExpZStackLoop);
    return z ? GetZStackHomePosition(z, home) : KV_ERR_NOT_FOUND;
}

kv_result CKvExperimentAPI::GetZStackPositionForDisplay(const SKvExperiment* exp, uint32_t plane, double& position) {
    const Exp* e = FindExperiment(exp, Exp::eExpZStackLoop);
    if (!e) return KV_ERR_NOT_FOUND;
    if (plane >= e->uLoopPars.uiCount) return KV_ERR_INVALID_ARG;
    const SKvExpZStackLoop& z = e->uLoopPars.ZStackLoop;
    const double step = z.dZStep < 0 ? -z.dZStep : z.dZStep;
    position = z.bZInverted ? z.dZHigh - plane * step : z.dZLow + plane * step;
    if (!z.bAbsolute) position -= z.dZHome;
    return KV_OK;
}

kv_result CKvExperimentAPI::GetZStackFirstMovePosition(const SKvExperiment* exp, double& position) {
    const SKvExpZStackLoop* z = FirstZStack(exp);
    if (!z) return KV_ERR_NOT_FOUND;
    position = z->bZInverted ? z->dZHigh : z->dZLow;
    return KV_OK;
}

CKvStringW CKvExperimentAPI::GetCameraDescription(const SKvExperiment* exp) {
    const Exp* hit = nullptr;
    Walk(exp, [](const Exp* e, void* p, uint32_t) -> kv_result {
        if (e->wsCameraName.IsEmpty()) return KV_OK;
        *static_cast<const Exp**>(p) = e;
        return 1;
    }, &hit, 0, 0);
    return hit ? hit->wsCameraName : CKvStringW();
}

const SKvExpLargeImage* CKvExperimentAPI::GetLargeImage(const SKvExperiment* exp) {
    const Exp* hit = nullptr;
    Walk(exp, [](const Exp* e, void* p, uint32_t) -> kv_result {
        if (!e->pLargeImage) return KV_OK;
        *static_cast<const Exp**>(p) = e;
        return 1;
    }, &hit, 0, 0);
    return hit ? hit->pLargeImage.get() : nullptr;
}

// Defined here rather than beside the structure: counting frames is an
// operation over the tree, and the structure's unit stays free of the operations.
uint32_t SKvExperiment::GetPictureCount(const SKvExperiment* exp) {
    return exp ? CKvExperimentAPI::GetAllImagesCount(exp) : 0;
}

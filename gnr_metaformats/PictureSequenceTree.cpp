// The tree form of an experiment: a node of run type "RKvExperiment", the
// loop parameters in the structured member "uLoopPars" as each loop kind's
// table lists them; and the samples of every run type it uses.
#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "gnr_metaformats/KvMetaIO.h"
#include "gnr_metaformats/PictureSequence.h"
#include "gnr_metaformats/PictureSequenceKinds.h"

namespace KvExpIO {
namespace {

kv_result SaveTree(CKvVariant& node, const Exp& e, uint32_t depth);
kv_result LoadTree(Exp& e, const CKvVariant& node, uint32_t depth);

CKvStringW FormatName(const wchar_t* format, uint32_t i) {
    CKvStringW name;
    name.Format(format, i);
    return name;
}
// Elements of per-item lists are named "item_00000", "item_00001", ...
CKvStringW ItemName(uint32_t i) { return FormatName(L"item_%05u", i); }

// A new structured member `key` of `node` with run type `runType`; null out of memory.
CKvVariant* PutStruct(CKvVariant& node, const wchar_t* key, const char* runType) {
    CKvVariant* child = KvMeta::PutList(node, key);
    if (child) KvMeta::BeginStruct(*child, runType);
    return child;
}
// The member `key` when it is a list (of any run type), else null.
const CKvVariant* FindList(const CKvVariant& node, const wchar_t* key) {
    const CKvVariant* m = KvMeta::Find(node, key);
    return m && m->GetCount() >= 0 ? m : nullptr;
}

// The elements of the list member `key`, each converted to T (T{} when it
// does not convert).
template <typename T>
void TreeLoadValues(const CKvVariant& node, const wchar_t* key, std::vector<T>& values) {
    const CKvVariant* list = FindList(node, key);
    const int n = list ? list->GetCount() : 0;
    for (int i = 0; i < n; ++i) {
        const CKvVariant* el = list->IndexPtr(i);
        if (!el) continue;
        T v{};
        KvMeta::GetValue(*el, v);
        values.push_back(std::move(v));
    }
}

void TreeSaveLevels(CKvVariant& node, kv_result& r, uint32_t count, Exp* const* array, uint32_t depth) {
    CKvVariant* list = KvMeta::PutList(node, kNextLevelsKey);
    if (!list) return KvKeepFirstFailure(r, KV_ERR_OUT_OF_MEMORY);
    uint32_t n = 0;
    for (uint32_t i = 0; i < count && r == KV_OK; ++i) {
        if (!array[i]) continue;
        CKvVariant* child = KvMeta::PutList(*list, FormatName(L"a%u", n++).GetString());
        if (!child) return KvKeepFirstFailure(r, KV_ERR_OUT_OF_MEMORY);
        KvKeepFirstFailure(r, SaveTree(*child, *array[i], depth + 1));
    }
}
// Takes the elements of run type "RKvExperiment" that load without error;
// -9 only for nesting too deep, which fails the whole load.
kv_result TreeLoadLevels(const CKvVariant& node, uint32_t& count, Exp**& array, uint32_t depth) {
    const CKvVariant* list = FindList(node, kNextLevelsKey);
    const int n = list ? list->GetCount() : 0;
    for (int i = 0; i < n; ++i) {
        const CKvVariant* el = list->IndexPtr(i);
        if (!el || el->GetRunType() != CKvVariantRunType(kRunType)) continue;
        auto child = std::make_unique<Exp>();
        const kv_result r = LoadTree(*child, *el, depth + 1);
        if (r == KV_ERR_FAILED) return r;
        if (r != KV_OK) continue;
        if (!PushLevel(count, array, std::move(child))) return KV_ERR_OUT_OF_MEMORY;
    }
    return KV_OK;
}

// Appends what a table lists to `node`; the first failure is kept in `r`.
struct STreeSaver : SSaverRole<STreeSaver> {
    STreeSaver(CKvVariant& list, kv_result& result, uint32_t level) : node(list), r(result), depth(level) {}
    CKvVariant& node;
    kv_result& r;
    uint32_t depth;

    template <typename T>
    void operator()(const wchar_t* key, const T& value) {
        if (!KvMeta::Put(node, key, value)) KvKeepFirstFailure(r, KV_ERR_OUT_OF_MEMORY);
    }
    template <typename S, typename Fields>
    void Record(const wchar_t* key, const char* runType, const S& record, Fields fields) {
        if (r != KV_OK) return;
        CKvVariant* child = PutStruct(node, key, runType);
        if (!child) return KvKeepFirstFailure(r, KV_ERR_OUT_OF_MEMORY);
        STreeSaver sub{*child, r, depth};
        fields(record, sub);
    }
    // A plain list member `key` whose element i `put(saver, name, i)` adds.
    template <typename Put>
    void List(const wchar_t* key, size_t count, Put put) {
        CKvVariant* list = KvMeta::PutList(node, key);
        if (!list) return KvKeepFirstFailure(r, KV_ERR_OUT_OF_MEMORY);
        STreeSaver elements{*list, r, depth};
        for (uint32_t i = 0; i < count && r == KV_OK; ++i) put(elements, ItemName(i).GetString(), i);
    }
    template <typename T, typename Fields>
    void Records(const wchar_t* key, const char* runType, const std::vector<T>& list, Fields fields) {
        List(key, list.size(), [&](STreeSaver& s, const wchar_t* name, uint32_t i) {
            s.Record(name, runType, list[i], fields);
        });
    }
    template <typename T>
    void Values(const wchar_t* key, const std::vector<T>& list) {
        List(key, list.size(), [&](STreeSaver& s, const wchar_t* name, uint32_t i) { s(name, list[i]); });
    }
    template <typename P, typename F>
    void Column(const wchar_t* key, const std::vector<P>& points, F P::*field) {
        List(key, points.size(), [&](STreeSaver& s, const wchar_t* name, uint32_t i) { s(name, points[i].*field); });
    }
    template <typename P, typename F, typename Fields>
    void Column(const wchar_t* key, const std::vector<P>& points, F P::*field, Fields fields, const char* runType) {
        List(key, points.size(), [&](STreeSaver& s, const wchar_t* name, uint32_t i) {
            s.Record(name, runType, points[i].*field, fields);
        });
    }
    void Flags(const wchar_t* key, const std::vector<uint8_t>& bytes) {
        List(key, bytes.size(), [&](STreeSaver& s, const wchar_t* name, uint32_t i) { s(name, bytes[i] != 0); });
    }
    void SubLoops(const wchar_t* key, const std::vector<SKvExpSubLoop>& subs) {
        List(key, subs.size(), [&](STreeSaver& s, const wchar_t* name, uint32_t i) {
            CKvVariant* sub = KvMeta::PutList(s.node, name);
            if (!sub) return KvKeepFirstFailure(r, KV_ERR_OUT_OF_MEMORY);
            TreeSaveLevels(*sub, r, subs[i].uiNextLevelCount, subs[i].ppNextLevelEx, depth);
        });
    }
    void Planes(const wchar_t* key, const std::unique_ptr<SKvPicturePlanes>& planes) {
        if (!planes) return;
        CKvVariant* list = KvMeta::PutList(node, key);
        if (!list) return KvKeepFirstFailure(r, KV_ERR_OUT_OF_MEMORY);
        KvKeepFirstFailure(r, SKvPicturePlanes::SaveToVariant(*list, *planes));
    }
    // The per-channel form is for older readers; this one reads "pPlanes".
    void PlaneDescs(const wchar_t* key, const SKvExpSpectLoop& spect) {
        const uint32_t n = spect.pPlanes ? std::min<uint32_t>(spect.pPlanes->uiCount, spect.Points.size()) : 0;
        List(key, n, [&](STreeSaver& s, const wchar_t* name, uint32_t i) {
            CKvVariant* desc = KvMeta::PutList(s.node, name);
            if (!desc) return KvKeepFirstFailure(r, KV_ERR_OUT_OF_MEMORY);
            KvKeepFirstFailure(r, SKvPicturePlaneDesc::SaveToVariantOld(*desc, *spect.pPlanes, i));
        });
    }
};

// Reads what a table lists from `node`; missing members leave the fields as
// they are. `result` keeps the first failure of a nested experiment.
struct STreeLoader : SLoaderRole<STreeLoader> {
    STreeLoader(const CKvVariant& list, uint32_t level) : node(list), depth(level) {}
    const CKvVariant& node;
    uint32_t depth;
    kv_result result = KV_OK;
    const void* sizedPoints = nullptr;  // the point list whose count a column has set

    template <typename T>
    void operator()(const wchar_t* key, T& value) {
        KvMeta::Get(node, key, value);
    }
    template <typename S, typename Fields>
    void Record(const wchar_t* key, const char*, S& record, Fields fields) {
        if (const CKvVariant* child = FindList(node, key)) Visit(*child, record, fields);
    }
    template <typename S, typename Fields>
    void Visit(const CKvVariant& child, S& record, Fields fields) {
        STreeLoader sub{child, depth};
        fields(record, sub);
        if (result == KV_OK) result = sub.result;
    }
    template <typename T, typename Fields>
    void Records(const wchar_t* key, const char*, std::vector<T>& list, Fields fields) {
        const CKvVariant* elements = FindList(node, key);
        for (int i = 0, n = elements ? elements->GetCount() : 0; i < n; ++i) {
            const CKvVariant* el = elements->IndexPtr(i);
            if (!el || el->GetCount() < 0) continue;
            T item;
            Visit(*el, item, fields);
            list.push_back(std::move(item));
        }
    }
    template <typename T>
    void Values(const wchar_t* key, std::vector<T>& list) {
        TreeLoadValues(node, key, list);
    }
    // Calls `load(element, point)` for the elements of column `key` that
    // have a point; the first column of a point list sets its length.
    template <typename P, typename Load>
    void EachInColumn(const wchar_t* key, std::vector<P>& points, Load load) {
        const CKvVariant* column = FindList(node, key);
        const int n = column ? column->GetCount() : 0;
        if (sizedPoints != &points) {
            points.resize(static_cast<size_t>(n));
            sizedPoints = &points;
        }
        for (int i = 0; i < n && static_cast<size_t>(i) < points.size(); ++i)
            if (const CKvVariant* el = column->IndexPtr(i)) load(*el, points[i]);
    }
    template <typename P, typename F>
    void Column(const wchar_t* key, std::vector<P>& points, F P::*field) {
        EachInColumn(key, points, [&](const CKvVariant& el, P& point) { KvMeta::GetValue(el, point.*field); });
    }
    template <typename P, typename F, typename Fields>
    void Column(const wchar_t* key, std::vector<P>& points, F P::*field, Fields fields, const char*) {
        EachInColumn(key, points, [&](const CKvVariant& el, P& point) {
            if (el.GetCount() >= 0) Visit(el, point.*field, fields);
        });
    }
    void Flags(const wchar_t* key, std::vector<uint8_t>& bytes) {
        std::vector<bool> flags;
        TreeLoadValues(node, key, flags);
        for (bool f : flags) bytes.push_back(f ? 1 : 0);
    }
    void SubLoops(const wchar_t* key, std::vector<SKvExpSubLoop>& subs) {
        const CKvVariant* list = FindList(node, key);
        for (int i = 0, n = list ? list->GetCount() : 0; i < n && result == KV_OK; ++i) {
            const CKvVariant* sub = list->IndexPtr(i);
            SKvExpSubLoop loop;
            if (sub && sub->GetCount() >= 0)
                result = TreeLoadLevels(*sub, loop.uiNextLevelCount, loop.ppNextLevelEx, depth);
            if (result == KV_OK) subs.push_back(std::move(loop));
        }
    }
    // An empty set is what the registered sample brings in when the channels
    // were never described: none.
    void Planes(const wchar_t* key, std::unique_ptr<SKvPicturePlanes>& planes) {
        const CKvVariant* list = FindList(node, key);
        if (!list) return;
        auto loaded = std::make_unique<SKvPicturePlanes>();
        if (SKvPicturePlanes::LoadFromVariant(*loaded, *list) != KV_OK || loaded->uiCount == 0) return;
        RestorePlaneSettings(*loaded);
        planes = std::move(loaded);
    }
    void PlaneDescs(const wchar_t*, const SKvExpSpectLoop&) {}
};

void TreeSaveLoopPars(CKvVariant& lp, kv_result& r, const Exp& e, uint32_t depth) {
    STreeSaver save{lp, r, depth};
    WithLoopKind(e.eType, [&](auto kind) { decltype(kind)::Tree(e.uLoopPars, save); });
}

// Tasks and events: lists of structures named "a0", "a1", ...
template <typename T, typename Fields>
void TreeSaveEntries(CKvVariant& list, kv_result& r, const char* runType, const std::vector<T>& entries,
                     Fields fields) {
    STreeSaver save{list, r, 0};
    for (uint32_t i = 0; i < entries.size(); ++i)
        save.Record(FormatName(L"a%u", i).GetString(), runType, entries[i], fields);
}
template <typename T, typename Fields>
void TreeLoadEntries(const CKvVariant* list, std::vector<T>& entries, Fields fields) {
    for (int i = 0, n = list ? list->GetCount() : 0; i < n; ++i) {
        const CKvVariant* el = list->IndexPtr(i);
        if (!el) continue;
        T entry;
        STreeLoader load{*el, 0};
        fields(entry, load);
        entries.push_back(std::move(entry));
    }
}

// Records saved by their own savers into a plain member `key`.
template <typename T>
kv_result TreeSaveOptional(CKvVariant& node, const wchar_t* key, const std::unique_ptr<T>& record) {
    if (!record) return KV_OK;
    CKvVariant* member = KvMeta::PutList(node, key);
    return member ? T::SaveToVariant(*member, *record) : KV_ERR_OUT_OF_MEMORY;
}
template <typename T>
void TreeLoadOptional(const CKvVariant& node, const wchar_t* key, std::unique_ptr<T>& record) {
    const CKvVariant* member = FindList(node, key);
    if (!member) return;
    auto loaded = std::make_unique<T>();
    if (T::LoadFromVariant(*loaded, *member) == KV_OK) record = std::move(loaded);
}

kv_result SaveTreeOld(CKvVariant& node, const Exp& e, uint32_t depth) {
    if (depth >= kExpMaxDepth || e.uLoopPars.uiCount > kExpMaxTreeItems) return KV_ERR_FAILED;
    KvMeta::BeginStruct(node, kRunType);
    kv_result r = KV_OK;
    STreeSaver save{node, r, depth};
    VisitHead(e, save);
    // Every item gets a flag, so that the tree carries the item count.
    CKvVariant* valid = KvMeta::PutList(node, kItemValidKey);
    if (!valid) return KV_ERR_OUT_OF_MEMORY;
    STreeSaver flags{*valid, r, depth};
    for (uint32_t i = 0; i < e.uLoopPars.uiCount && r == KV_OK; ++i)
        flags(FormatName(L"%03u", i).GetString(), !e.pItemValid || e.pItemValid[i] != 0);
    CKvVariant* lp = PutStruct(node, kLoopParsKey, LoopRunType(e.eType));
    if (!lp) return KV_ERR_OUT_OF_MEMORY;
    TreeSaveLoopPars(*lp, r, e, depth);
    VisitCommandsAndFlags(e, save, true);
    if (e.pLargeImage) {
        save.Record(L"pLargeImage", kRunTypeLI, e.pLargeImage->sLargeImage, kLargeImage);
        save.Record(L"pLargeImageEx", kRunTypeLI, e.pLargeImage->sLargeImageEx, kLargeImage);
    }
    if (r == KV_OK) KvKeepFirstFailure(r, TreeSaveOptional(node, L"pNIExperiment", e.pNIExperiment));
    if (r == KV_OK) KvKeepFirstFailure(r, TreeSaveOptional(node, L"pRecordedData", e.pRecordedData));
    save.Record(L"sAutoFocusBeforeLoop", kRunTypeAF, e.sAutoFocusBeforeLoop, kAutoFocus);
    CKvVariant* pe = PutStruct(node, L"sParallelExperiment", kRunTypeParallel);
    if (!pe) return KV_ERR_OUT_OF_MEMORY;
    CKvVariant* tasks = KvMeta::PutList(*pe, L"aTasks");
    CKvVariant* events = KvMeta::PutList(*pe, L"aEvents");
    if (!tasks || !events) return KV_ERR_OUT_OF_MEMORY;
    TreeSaveEntries(*tasks, r, kRunTypeTask, e.sParallelExperiment.aTasks, STaskFields{});
    TreeSaveEntries(*events, r, kRunTypeEvent, e.sParallelExperiment.aEvents, SEventFields{});
    return r;
}

kv_result SaveTree(CKvVariant& node, const Exp& e, uint32_t depth) {
    kv_result res = SaveTreeOld(node, e, depth);
    if (res != KV_OK) return res;
    kv_result r = KV_OK;
    STreeSaver{node, r, depth}(kRepeatKey, e.uiRepeatCount);
    TreeSaveLevels(node, r, e.uiNextLevelCount, e.ppNextLevelEx, depth);
    return r;
}

kv_result LoadTreeOld(Exp& e, const CKvVariant& node, uint32_t depth) {
    if (depth >= kExpMaxDepth) return KV_ERR_FAILED;
    if (KvMeta::CheckRunType(node, kRunType) != KV_OK) return KV_ERR_INVALID_ARG;
    STreeLoader load{node, depth};
    VisitHead(e, load);
    std::vector<bool> valid;
    TreeLoadValues(node, kItemValidKey, valid);
    e.uLoopPars.uiCount = static_cast<uint32_t>(valid.size());
    const uint32_t treeCount = e.uLoopPars.uiCount;
    if (const CKvVariant* lp = FindList(node, kLoopParsKey)) {
        STreeLoader pars{*lp, depth};
        WithLoopKind(e.eType, [&](auto kind) { decltype(kind)::Tree(e.uLoopPars, pars); });
        if (pars.result != KV_OK) return pars.result;
    }
    ClampToPresent(e, nullptr, 0, false);
    // Per-item kinds may hold fewer records than flags; the smaller wins.
    if (e.eType == Exp::eExpXYPosLoop || e.eType == Exp::eExpSpectLoop ||
        (e.eType == Exp::eExpXYDiscrLoop && !e.uLoopPars.XYDiscrLoop.uiRow.empty()))
        e.uLoopPars.uiCount = std::min(e.uLoopPars.uiCount, treeCount);
    else
        e.uLoopPars.uiCount = treeCount;
    std::vector<uint8_t> bytes(valid.begin(), valid.end());
    const bool anySkipped = std::find(bytes.begin(), bytes.end(), 0) != bytes.end();
    ClampToPresent(e, bytes.data(), bytes.size(), anySkipped);
    VisitCommandsAndFlags(e, load, true);
    if (FindList(node, L"pLargeImage") || FindList(node, L"pLargeImageEx")) {
        e.pLargeImage = std::make_unique<SKvExpLargeImage>();
        load.Record(L"pLargeImage", kRunTypeLI, e.pLargeImage->sLargeImage, kLargeImage);
        load.Record(L"pLargeImageEx", kRunTypeLI, e.pLargeImage->sLargeImageEx, kLargeImage);
    }
    TreeLoadOptional(node, L"pNIExperiment", e.pNIExperiment);
    TreeLoadOptional(node, L"pRecordedData", e.pRecordedData);
    DropEmptyRecords(e);
    load.Record(L"sAutoFocusBeforeLoop", kRunTypeAF, e.sAutoFocusBeforeLoop, kAutoFocus);
    if (const CKvVariant* pe = FindList(node, L"sParallelExperiment")) {
        TreeLoadEntries(FindList(*pe, L"aTasks"), e.sParallelExperiment.aTasks, STaskFields{});
        TreeLoadEntries(FindList(*pe, L"aEvents"), e.sParallelExperiment.aEvents, SEventFields{});
    }
    return KV_OK;
}

kv_result LoadTree(Exp& e, const CKvVariant& node, uint32_t depth) {
    kv_result r = LoadTreeOld(e, node, depth);
    if (r != KV_OK) return r;
    KvMeta::Get(node, kRepeatKey, e.uiRepeatCount);
    return TreeLoadLevels(node, e.uiNextLevelCount, e.ppNextLevelEx, depth);
}

}  // namespace
}  // namespace KvExpIO

kv_result SKvExperiment::SaveToVariant(CKvVariant& node, const SKvExperiment& exp) {
    return KvNoThrow([&] { return KvExpIO::SaveTree(node, exp, 0); });
}
kv_result SKvExperiment::SaveToVariantOld(CKvVariant& node, const SKvExperiment& exp) {
    return KvNoThrow([&] { return KvExpIO::SaveTreeOld(node, exp, 0); });
}
kv_result SKvExperiment::LoadFromVariant(SKvExperiment& exp, const CKvVariant& node) {
    return KvExpIO::LoadStaged(exp, [&](SKvExperiment& staged) { return KvExpIO::LoadTree(staged, node, 0); });
}
kv_result SKvExperiment::LoadFromVariantOld(SKvExperiment& exp, const CKvVariant& node) {
    return KvExpIO::LoadStaged(exp, [&](SKvExperiment& staged) { return KvExpIO::LoadTreeOld(staged, node, 0); });
}

// ---- Samples: every run type of the tree form, with every member present
// (optional records and empty lists included), so that trees read back from
// lite variants and XML keep all members.
namespace KvExpIO {
namespace {
const bool s_samplesRegistered = [] {
    KvNoThrow([] {
        for (uint32_t type = 1; type <= 8; ++type) {
            if (type == Exp::eExpTimeLoop) continue;  // the time-loop sample comes from a phase below
            SKvExperiment e;
            e.eType = type;
            if (type == Exp::eExpSpectLoop) e.uLoopPars.SpectLoop.pPlanes = std::make_unique<SKvPicturePlanes>();
            CKvVariant node;
            KvMeta::BeginStruct(node, CKvVariantDataCKvListVariant::m_runTypeOrig);
            kv_result r = KV_OK;
            CKvVariant* lp = PutStruct(node, kLoopParsKey, LoopRunType(type));
            if (lp) {
                TreeSaveLoopPars(*lp, r, e, 0);
                if (r == KV_OK) KvMeta::RegisterSample(LoopRunType(type), *lp);
            }
        }
        CKvVariant time;
        KvMeta::BeginStruct(time, kRunTypeTime);
        kv_result r = KV_OK;
        STreeSaver timeSaver{time, r, 0};
        const SKvExpTimeLoop defaults;
        kTimeTree(defaults, timeSaver);
        if (r == KV_OK) KvMeta::RegisterSample(kRunTypeTime, time);
        CKvVariant af;
        KvMeta::BeginStruct(af, CKvVariantDataCKvListVariant::m_runTypeOrig);
        STreeSaver{af, r, 0}.Record(L"x", kRunTypeAF, SKvExpAutoFocus(), kAutoFocus);
        if (r == KV_OK && af.IndexPtr(0)) KvMeta::RegisterSample(kRunTypeAF, *af.IndexPtr(0));
        SKvExperiment e;
        e.pLargeImage = std::make_unique<SKvExpLargeImage>();
        e.pNIExperiment = std::make_unique<SKvExperimentNI>();
        e.pRecordedData = std::make_unique<SKvRecordedData>();
        e.sParallelExperiment.aTasks.resize(1);
        e.sParallelExperiment.aEvents.resize(1);
        CKvVariant node;
        if (SaveTree(node, e, 0) != KV_OK) return KV_OK;
        for (const wchar_t* key : {L"pLargeImage", L"sParallelExperiment"}) {
            const CKvVariant* m = KvMeta::Find(node, key);
            if (m) KvMeta::RegisterSample(CKvStringA(m->GetRunType().GetName()).GetString(), *m);
        }
        if (const CKvVariant* pe = KvMeta::Find(node, L"sParallelExperiment")) {
            const CKvVariant* tasks = KvMeta::Find(*pe, L"aTasks");
            const CKvVariant* events = KvMeta::Find(*pe, L"aEvents");
            if (tasks && tasks->IndexPtr(0)) KvMeta::RegisterSample(kRunTypeTask, *tasks->IndexPtr(0));
            if (events && events->IndexPtr(0)) KvMeta::RegisterSample(kRunTypeEvent, *events->IndexPtr(0));
            // The experiment's own sample keeps its lists empty.
            CKvVariant* mpe = const_cast<CKvVariant*>(pe);
            for (int i = 0; i < 2; ++i)
                if (CKvVariant* list = mpe->IndexPtr(i))
                    KvMeta::BeginStruct(*list, CKvVariantDataCKvListVariant::m_runTypeOrig);
        }
        KvMeta::RegisterSample(kRunType, node);
        return KV_OK;
    });
    return true;
}();
}  // namespace
}  // namespace KvExpIO

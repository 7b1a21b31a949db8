// The lite form of an experiment: level "SKvExperiment" holding the record,
// the loop parameters in level "uLoopPars" as each loop kind's table lists them.
#include <algorithm>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "gnr_metaformats/KvMetaIO.h"
#include "gnr_metaformats/PictureSequence.h"
#include "gnr_metaformats/PictureSequenceKinds.h"

namespace KvExpIO {
namespace {

kv_result WriteLite(CKvLiteVariantW& w, const Exp& e, uint32_t depth);
kv_result ReadLite(Exp& e, CKvLiteVariantR& rd, uint32_t depth);

// Runs `body` inside a new level `key` (null: unnamed); a result `body`
// returns is kept in `r` like the level's own.
template <typename Body>
void LiteLevel(CKvLiteVariantW& w, kv_result& r, const wchar_t* key, Body&& body) {
    if (r != KV_OK) return;
    KvMeta::CLvLevelWriter level(w, key);
    KvKeepFirstFailure(r, level.Result());
    if (r != KV_OK) return;
    if constexpr (std::is_same_v<decltype(body()), kv_result>)
        KvKeepFirstFailure(r, body());
    else
        body();
    KvKeepFirstFailure(r, level.Close());
}

// Calls `body` in every unnamed element level of level `key`; stops at the
// first error `body` answers, which it returns.
template <typename Body>
kv_result LiteElements(CKvLiteVariantR& rd, const wchar_t* key, Body&& body) {
    KvMeta::CLvLevelReader list(rd, key);
    if (!list.IsOpen()) return KV_OK;
    while (rd.IsNextValue()) {
        if (KvMeta::LvEnterElement(rd, nullptr)) {
            const kv_result r = body();
            rd.LevelEnd();
            if (r != KV_OK) return r;
        }
        if (rd.NextValue() != KV_OK) break;
    }
    return KV_OK;
}

void WriteLiteLevels(CKvLiteVariantW& w, kv_result& r, uint32_t count, Exp* const* array, uint32_t depth) {
    uint32_t present = 0;
    for (uint32_t i = 0; i < count; ++i) present += array[i] ? 1 : 0;
    KvKeepFirstFailure(r, w.Set(present, kNextCountKey));
    LiteLevel(w, r, kNextLevelsKey, [&] {
        for (uint32_t i = 0; i < count && r == KV_OK; ++i)
            if (array[i]) LiteLevel(w, r, nullptr, [&] { return WriteLite(w, *array[i], depth + 1); });
    });
}

// Reads the next levels present (the stored count caps nothing: a larger
// count shrinks to what is there). `exists` tells whether the level was found.
kv_result ReadLiteLevels(CKvLiteVariantR& rd, uint32_t& count, Exp**& array, uint32_t depth, bool& exists) {
    exists = rd.IsValueSet(kNextLevelsKey);
    return LiteElements(rd, kNextLevelsKey, [&]() -> kv_result {
        auto child = std::make_unique<Exp>();
        const kv_result r = ReadLite(*child, rd, depth + 1);
        if (r != KV_OK) return r;
        return PushLevel(count, array, std::move(child)) ? KV_OK : KV_ERR_OUT_OF_MEMORY;
    });
}

// Writes what a table lists; the first failure is kept in `r`.
struct SLiteSaver : SSaverRole<SLiteSaver> {
    SLiteSaver(CKvLiteVariantW& writer, kv_result& result, uint32_t level) : w(writer), r(result), depth(level) {}
    CKvLiteVariantW& w;
    kv_result& r;
    uint32_t depth;

    template <typename T>
    void operator()(const wchar_t* key, const T& value) {
        KvKeepFirstFailure(r, w.Set(value, key));
    }
    template <typename S, typename Fields>
    void Record(const wchar_t* key, const char*, const S& record, Fields fields) {
        LiteLevel(w, r, key, [&] { fields(record, *this); });
    }
    template <typename T, typename Fields>
    void Records(const wchar_t* key, const char*, const std::vector<T>& list, Fields fields) {
        LiteLevel(w, r, key, [&] {
            for (const T& item : list) Record(nullptr, nullptr, item, fields);
        });
    }
    void Values(const wchar_t* key, const std::vector<CKvStringW>& list) {
        if (list.empty()) return;
        LiteLevel(w, r, key, [&] {
            for (const CKvStringW& s : list) KvKeepFirstFailure(r, w.Set(s, nullptr));
        });
    }
    void Flags(const wchar_t* key, const std::vector<uint8_t>& bytes) {
        if (!bytes.empty()) KvKeepFirstFailure(r, w.Set(bytes.data(), bytes.size(), key));
    }
    void SubLoops(const wchar_t* key, const std::vector<SKvExpSubLoop>& subs) {
        if (subs.empty()) return;
        LiteLevel(w, r, key, [&] {
            for (const auto& sub : subs)
                LiteLevel(w, r, nullptr,
                          [&] { WriteLiteLevels(w, r, sub.uiNextLevelCount, sub.ppNextLevelEx, depth); });
        });
    }
    void Planes(const wchar_t* key, const std::unique_ptr<SKvPicturePlanes>& planes) {
        if (planes) LiteLevel(w, r, key, [&] { return SKvPicturePlanes::SaveToLiteVariant(w, *planes); });
    }
    // The per-plane form is for older readers; this one reads "pPlanes".
    void PlaneDesc(const wchar_t* key, const SKvExpSpectLoop& spect, const SKvExpSpectPoint& point) {
        const auto i = static_cast<uint32_t>(&point - spect.Points.data());
        if (spect.pPlanes && i < spect.pPlanes->uiCount)
            LiteLevel(w, r, key, [&] { return SKvPicturePlaneDesc::SaveToLiteVariantOld(w, *spect.pPlanes, i); });
    }
};

// Reads what a table lists; missing items leave the fields as they are.
// `result` keeps the first failure of a nested experiment.
struct SLiteLoader : SLoaderRole<SLiteLoader> {
    SLiteLoader(CKvLiteVariantR& reader, uint32_t level) : rd(reader), depth(level) {}
    CKvLiteVariantR& rd;
    uint32_t depth;
    kv_result result = KV_OK;

    template <typename T>
    void operator()(const wchar_t* key, T& value) {
        KvMeta::LvGet(rd, key, value);
    }
    template <typename S, typename Fields>
    void Record(const wchar_t* key, const char*, S& record, Fields fields) {
        KvMeta::CLvLevelReader level(rd, key);
        if (level.IsOpen()) fields(record, *this);
    }
    template <typename T, typename Fields>
    void Records(const wchar_t* key, const char*, std::vector<T>& list, Fields fields) {
        LiteElements(rd, key, [&] {
            T item;
            fields(item, *this);
            list.push_back(std::move(item));
            return KV_OK;
        });
    }
    void Values(const wchar_t* key, std::vector<CKvStringW>& list) {
        KvMeta::CLvLevelReader level(rd, key);
        while (level.IsOpen() && rd.IsNextValue()) {
            CKvStringW s;
            rd.GetCurrentValue(s);
            list.push_back(std::move(s));
            if (rd.NextValue() != KV_OK) break;
        }
    }
    // Fitted to the phases afterwards (ClampToPresent).
    void Flags(const wchar_t* key, std::vector<uint8_t>& bytes) {
        uint64_t size = 0;
        if (const uint8_t* stored = rd.Get(key, &size)) bytes.assign(stored, stored + size);
    }
    void SubLoops(const wchar_t* key, std::vector<SKvExpSubLoop>& subs) {
        if (result != KV_OK) return;
        result = LiteElements(rd, key, [&] {
            SKvExpSubLoop sub;
            bool exists = false;
            const kv_result r = ReadLiteLevels(rd, sub.uiNextLevelCount, sub.ppNextLevelEx, depth, exists);
            subs.push_back(std::move(sub));
            return r;
        });
    }
    void Planes(const wchar_t* key, std::unique_ptr<SKvPicturePlanes>& planes) {
        KvMeta::CLvLevelReader level(rd, key);
        if (!level.IsOpen()) return;
        auto loaded = std::make_unique<SKvPicturePlanes>();
        if (SKvPicturePlanes::LoadFromLiteVariant(*loaded, rd) != KV_OK) return;
        RestorePlaneSettings(*loaded);
        planes = std::move(loaded);
    }
    void PlaneDesc(const wchar_t*, const SKvExpSpectLoop&, const SKvExpSpectPoint&) {}
};

// The tasks and events of a parallel experiment, one unnamed level each.
struct SParallelFields {
    template <typename S, typename V>
    void operator()(S& pe, V& v) const {
        v.Records(L"Tasks", nullptr, pe.aTasks, STaskFields{});
        v.Records(L"Events", nullptr, pe.aEvents, SEventFields{});
    }
};

kv_result WriteLite(CKvLiteVariantW& w, const Exp& e, uint32_t depth) {
    if (depth >= kExpMaxDepth) return KV_ERR_FAILED;
    kv_result r = KV_OK;
    SLiteSaver save{w, r, depth};
    VisitHead(e, save);
    LiteLevel(w, r, kLoopParsKey,
              [&] { WithLoopKind(e.eType, [&](auto kind) { decltype(kind)::Lite(e.uLoopPars, save); }); });
    if (e.pItemValid && e.uLoopPars.uiCount)
        KvKeepFirstFailure(r, w.Set(e.pItemValid, e.uLoopPars.uiCount, kItemValidKey));
    save.Record(L"sAutoFocusBeforeLoop", kRunTypeAF, e.sAutoFocusBeforeLoop, kAutoFocus);
    VisitCommandsAndFlags(e, save, false);
    if (e.pLargeImage) {
        save.Record(L"pLargeImage", kRunTypeLI, e.pLargeImage->sLargeImage, kLargeImage);
        save.Record(L"pLargeImageEx", kRunTypeLI, e.pLargeImage->sLargeImageEx, kLargeImage);
    }
    if (e.pNIExperiment)
        LiteLevel(w, r, L"pNIExperiment", [&] { return SKvExperimentNI::SaveToLiteVariant(w, *e.pNIExperiment); });
    if (e.pRecordedData)
        LiteLevel(w, r, L"pRecordedData", [&] { return SKvRecordedData::SaveToLiteVariant(w, *e.pRecordedData); });
    save.Record(L"sParallelExperiment", kRunTypeParallel, e.sParallelExperiment, SParallelFields{});
    if (e.ppNextLevelEx) WriteLiteLevels(w, r, e.uiNextLevelCount, e.ppNextLevelEx, depth);
    save(kRepeatKey, e.uiRepeatCount);
    return r;
}

// Loads an optional record kept in its own level by its own loader.
template <typename T>
void ReadOptional(CKvLiteVariantR& rd, const wchar_t* key, std::unique_ptr<T>& record) {
    KvMeta::CLvLevelReader level(rd, key);
    if (!level.IsOpen()) return;
    record = std::make_unique<T>();
    T::LoadFromLiteVariant(*record, rd);
}

kv_result ReadLite(Exp& e, CKvLiteVariantR& rd, uint32_t depth) {
    if (depth >= kExpMaxDepth) return KV_ERR_FAILED;
    SLiteLoader load{rd, depth};
    VisitHead(e, load);
    {
        KvMeta::CLvLevelReader level(rd, kLoopParsKey);
        if (level.IsOpen()) WithLoopKind(e.eType, [&](auto kind) { decltype(kind)::Lite(e.uLoopPars, load); });
    }
    if (load.result != KV_OK) return load.result;
    uint64_t validSize = 0;
    const uint8_t* valid = rd.Get(kItemValidKey, &validSize);
    ClampToPresent(e, valid, validSize, valid != nullptr);
    load.Record(L"sAutoFocusBeforeLoop", kRunTypeAF, e.sAutoFocusBeforeLoop, kAutoFocus);
    VisitCommandsAndFlags(e, load, false);
    if (rd.IsValueSet(L"pLargeImage") || rd.IsValueSet(L"pLargeImageEx")) {
        e.pLargeImage = std::make_unique<SKvExpLargeImage>();
        load.Record(L"pLargeImage", kRunTypeLI, e.pLargeImage->sLargeImage, kLargeImage);
        load.Record(L"pLargeImageEx", kRunTypeLI, e.pLargeImage->sLargeImageEx, kLargeImage);
    }
    ReadOptional(rd, L"pNIExperiment", e.pNIExperiment);
    ReadOptional(rd, L"pRecordedData", e.pRecordedData);
    load.Record(L"sParallelExperiment", kRunTypeParallel, e.sParallelExperiment, SParallelFields{});
    bool exists = false;
    const kv_result r = ReadLiteLevels(rd, e.uiNextLevelCount, e.ppNextLevelEx, depth, exists);
    if (r != KV_OK) return r;
    // An existing but empty next-level list keeps its meaning ("levels exist, none here").
    if (exists && !e.ppNextLevelEx) {
        e.ppNextLevelEx = new (std::nothrow) Exp*[1]();
        if (!e.ppNextLevelEx) return KV_ERR_OUT_OF_MEMORY;
    }
    load(kRepeatKey, e.uiRepeatCount);
    return KV_OK;
}

}  // namespace
}  // namespace KvExpIO

using KvExpIO::kLiteLevel;

kv_result SKvExperiment::SaveToLiteVariant(CKvLiteVariantW& writer, const SKvExperiment& exp) {
    return KvNoThrow([&] {
        KvMeta::CLvLevelWriter level(writer, kLiteLevel);
        if (level.Result() != KV_OK) return KV_ERR_FAILED;
        const kv_result r = KvExpIO::WriteLite(writer, exp, 0);
        const kv_result closed = level.Close();
        return r != KV_OK ? r : closed;
    });
}

kv_result SKvExperiment::LoadFromLiteVariant(SKvExperiment& exp, CKvLiteVariantR& reader) {
    return KvNoThrow([&] {
        KvMeta::CLvLevelReader level(reader, kLiteLevel);
        if (!level.IsOpen()) return KV_ERR_FAILED;
        return ReadFromLiteVariant(exp, reader);
    });
}

kv_result SKvExperiment::WriteToLiteVariant(CKvLiteVariantW& writer, const SKvExperiment& exp) {
    return KvNoThrow([&] { return KvExpIO::WriteLite(writer, exp, 0); });
}

kv_result SKvExperiment::ReadFromLiteVariant(SKvExperiment& exp, CKvLiteVariantR& reader) {
    return KvExpIO::LoadStaged(exp, [&](SKvExperiment& staged) { return KvExpIO::ReadLite(staged, reader, 0); });
}

#include "gnr_metaformats/PictureSequenceKinds.h"

#include <algorithm>
#include <new>

namespace KvExpIO {

// A damaged set (an empty plane, absurd counts) is left as read; a sound one
// gets sample indices that follow each other.
void RestorePlaneSettings(SKvPicturePlanes& planes) {
    constexpr uint64_t kMaxComponents = 1024;
    uint64_t components = 0;
    for (uint32_t i = 0; i < planes.uiCount; ++i) {
        if (planes.pPlanes[i].uiCompCount == 0) return;
        components += planes.pPlanes[i].uiCompCount;
    }
    if (components == 0 || components > kMaxComponents) return;
    SKvPicturePlanes::MakeCompatible(planes, static_cast<uint32_t>(components));
}

bool PushLevel(uint32_t& count, Exp**& array, std::unique_ptr<Exp> child) {
    Exp** grown = new (std::nothrow) Exp*[count + 1];
    if (!grown) return false;
    std::copy(array, array + count, grown);
    grown[count] = child.release();
    delete[] array;
    array = grown;
    ++count;
    return true;
}

void ClampToPresent(Exp& e, const uint8_t* valid, uint64_t validSize, bool hasValid) {
    SKvExpLoopPars& p = e.uLoopPars;
    switch (e.eType) {
    case Exp::eExpXYPosLoop: p.uiCount = static_cast<uint32_t>(p.XYPosLoop.Points.size()); break;
    case Exp::eExpSpectLoop: p.uiCount = static_cast<uint32_t>(p.SpectLoop.Points.size()); break;
    case Exp::eExpXYDiscrLoop: {
        auto& x = p.XYDiscrLoop;
        if (!x.uiRow.empty() || !x.uiCol.empty()) {
            const size_t n = std::min(x.uiRow.size(), x.uiCol.size());
            x.uiRow.resize(n);
            x.uiCol.resize(n);
            p.uiCount = static_cast<uint32_t>(n);
        }
        break;
    }
    default: break;
    }
    auto& ne = p.NETimeLoop;
    const size_t phases = ne.pPeriod.size();
    auto fit = [phases](auto& v, auto fill) {
        if (!v.empty()) v.resize(phases, fill);
    };
    fit(ne.wsCommandBeforePeriod, CKvStringW());
    fit(ne.wsCommandAfterPeriod, CKvStringW());
    fit(ne.pPeriodValid, uint8_t{1});
    if (!ne.pSubLoops.empty()) ne.pSubLoops.resize(phases);
    if (!hasValid) return;
    const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(p.uiCount, validSize));
    p.uiCount = n;
    if (p.XYPosLoop.Points.size() > n) p.XYPosLoop.Points.resize(n);
    if (p.SpectLoop.Points.size() > n) p.SpectLoop.Points.resize(n);
    if (p.XYDiscrLoop.uiRow.size() > n) p.XYDiscrLoop.uiRow.resize(n);
    if (p.XYDiscrLoop.uiCol.size() > n) p.XYDiscrLoop.uiCol.resize(n);
    if (n == 0) return;
    if (Exp::AllocItemValid(e, n) != KV_OK) throw std::bad_alloc();
    std::copy(valid, valid + n, e.pItemValid);
}

void DropEmptyRecords(Exp& e) {
    if (e.pLargeImage && e.pLargeImage->IsEmpty()) e.pLargeImage.reset();
    if (e.pNIExperiment && !e.pNIExperiment->bIgnoreSetup && e.pNIExperiment->aInputs.empty() &&
        e.pNIExperiment->aOutputs.empty())
        e.pNIExperiment.reset();
    if (e.pRecordedData && *e.pRecordedData == SKvRecordedData()) e.pRecordedData.reset();
}

}  // namespace KvExpIO

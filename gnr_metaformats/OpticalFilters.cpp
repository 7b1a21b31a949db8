#include "gnr_metaformats/OpticalFilters.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>

#include "gnr_metaformats/KvMetaIO.h"
#include "gnr_system/KvTrace.h"

namespace {

constexpr char kRtPoint[] = "RKvOFSpectrumPoint";
constexpr char kRtSpectrum[] = "RKvOpticalFilterSpectrum";
constexpr char kRtProbe[] = "RKvFluorescentProbe";
constexpr char kRtFilter[] = "RKvOpticalFilter";
constexpr char kRtPath[] = "RKvOpticalFilterPath";

// A count key that is missing puts no limit on the elements taken.
constexpr uint32_t kNoCountLimit = std::numeric_limits<uint32_t>::max();

// Visible range of the display colour and the knees where its intensity
// starts to fall off towards the ends.
constexpr double kVisibleMin = 380.0;
constexpr double kVisibleMax = 780.0;
constexpr double kColourGamma = 0.8;

CKvStringW ElementName(const wchar_t* format, uint32_t index) {
    CKvStringW name;
    name.Format(format, index);
    return name;
}

// ---------------------------------------------------------------- curves

bool IsEdge(uint32_t type) {
    return type == SKvOFSpectrumPoint::eSptRisingEdge || type == SKvOFSpectrumPoint::eSptFallingEdge;
}

struct SNode {
    double w;
    double v;
};

// The curve of a spectrum in the form the wavelength questions work on: the
// usable points sorted by wavelength; an open edge adds a node at the window
// edge with the edge's value, so that the curve is piecewise linear over the
// nodes and 0 outside them.
struct SCurve {
    std::vector<SNode> nodes;
    size_t first = 0;  // index of the first real point among the nodes
    size_t count = 0;  // real points
    bool lines = false;
    bool openLow = false;   // the first point is a falling edge
    bool openHigh = false;  // the last point is a rising edge

    bool Empty() const { return count == 0; }
    double ValueAt(double w) const;
    // The value approached from below or from above `w`; differs from
    // ValueAt where the curve steps (an edge, the ends of the curve).
    double LimitBelow(double w) const;
    double LimitAbove(double w) const;
};

SCurve BuildCurve(const CKvOpticalFilterSpectrum& spectrum) {
    std::vector<SKvOFSpectrumPoint> points;
    points.reserve(spectrum.GetCount());
    for (uint32_t i = 0; i < spectrum.GetCount(); ++i) {
        const SKvOFSpectrumPoint& p = spectrum[i];
        // Non-finite numbers would break the ordering; such points say nothing.
        if (std::isfinite(p.dWavelength) && std::isfinite(p.dTValue)) points.push_back(p);
    }
    std::stable_sort(points.begin(), points.end(), [](const SKvOFSpectrumPoint& a, const SKvOFSpectrumPoint& b) {
        return a.dWavelength < b.dWavelength;
    });
    SCurve curve;
    curve.count = points.size();
    if (points.empty()) return curve;
    curve.lines = spectrum.IsPoints() || (points.size() == 1 && !IsEdge(points[0].eType));
    if (!curve.lines) {
        curve.openLow = points.front().eType == SKvOFSpectrumPoint::eSptFallingEdge;
        curve.openHigh = points.back().eType == SKvOFSpectrumPoint::eSptRisingEdge;
    }
    curve.nodes.reserve(points.size() + 2);
    if (curve.openLow && points.front().dWavelength > kOFWavelengthMin) {
        curve.nodes.push_back({kOFWavelengthMin, points.front().dTValue});
        curve.first = 1;
    }
    for (const SKvOFSpectrumPoint& p : points) curve.nodes.push_back({p.dWavelength, p.dTValue});
    if (curve.openHigh && points.back().dWavelength < kOFWavelengthMax) {
        curve.nodes.push_back({kOFWavelengthMax, points.back().dTValue});
    }
    return curve;
}

double SCurve::ValueAt(double w) const {
    if (nodes.empty() || !std::isfinite(w)) return 0.0;
    // Several nodes at one wavelength (lines, a vertical step): the highest.
    bool exact = false;
    double best = 0.0;
    for (const SNode& n : nodes) {
        if (n.w != w) continue;
        best = exact ? std::max(best, n.v) : n.v;
        exact = true;
    }
    if (exact || lines) return best;
    if (w < nodes.front().w || w > nodes.back().w) return 0.0;
    for (size_t i = 0; i + 1 < nodes.size(); ++i) {
        const SNode& a = nodes[i];
        const SNode& b = nodes[i + 1];
        if (w > a.w && w < b.w) return a.v + (b.v - a.v) * (w - a.w) / (b.w - a.w);
    }
    return 0.0;
}

double SCurve::LimitBelow(double w) const {
    const auto k = std::lower_bound(nodes.begin(), nodes.end(), w, [](const SNode& n, double x) { return n.w < x; });
    if (k == nodes.begin() || k == nodes.end()) return 0.0;
    const SNode& a = *(k - 1);
    if (k->w == w) return k->v;
    return a.v + (k->v - a.v) * (w - a.w) / (k->w - a.w);
}

double SCurve::LimitAbove(double w) const {
    const auto k = std::upper_bound(nodes.begin(), nodes.end(), w, [](double x, const SNode& n) { return x < n.w; });
    if (k == nodes.begin() || k == nodes.end()) return 0.0;
    const SNode& a = *(k - 1);
    if (a.w == w) return a.v;
    return a.v + (k->v - a.v) * (w - a.w) / (k->w - a.w);
}

// Where a straight segment from `a` to `b` reaches `level`; `a` and `b` lie
// on different sides of it.
double Crossing(const SNode& a, const SNode& b, double level) {
    return a.w + (level - a.v) * (b.w - a.w) / (b.v - a.v);
}

struct SPeak {
    double peak = 0.0;
    double low = 0.0;
    double high = 0.0;
};

bool FindPeak(const SCurve& curve, SPeak& out) {
    if (curve.Empty()) return false;
    const size_t begin = curve.first;
    const size_t end = curve.first + curve.count;
    size_t top = begin;
    for (size_t i = begin; i < end; ++i) {
        if (curve.nodes[i].v > curve.nodes[top].v) top = i;
    }
    const double maximum = curve.nodes[top].v;
    if (!(maximum > 0.0)) return false;
    if (curve.lines) {
        out.peak = out.low = out.high = curve.nodes[top].w;
        return true;
    }
    size_t plateauEnd = top;
    while (plateauEnd + 1 < end && curve.nodes[plateauEnd + 1].v == maximum) ++plateauEnd;
    out.peak = (curve.nodes[top].w + curve.nodes[plateauEnd].w) / 2.0;

    const double half = maximum / 2.0;
    size_t k = top;
    while (k > 0 && curve.nodes[k - 1].v > half) --k;
    out.low = k == 0 ? curve.nodes.front().w : Crossing(curve.nodes[k - 1], curve.nodes[k], half);
    k = plateauEnd;
    while (k + 1 < curve.nodes.size() && curve.nodes[k + 1].v > half) ++k;
    out.high = k + 1 == curve.nodes.size() ? curve.nodes.back().w : Crossing(curve.nodes[k + 1], curve.nodes[k], half);
    return true;
}

bool FindExactRange(const SCurve& curve, double& low, double& high) {
    const std::vector<SNode>& n = curve.nodes;
    size_t first = n.size();
    size_t last = 0;
    for (size_t i = 0; i < n.size(); ++i) {
        if (n[i].v > 0.0) {
            if (first == n.size()) first = i;
            last = i;
        }
    }
    if (first == n.size()) return false;
    if (curve.lines) {
        low = n[first].w;
        high = n[last].w;
        return true;
    }
    // Between a node at or below 0 and one above, the curve leaves 0 where
    // the segment crosses it.
    low = first == 0 ? n[first].w : Crossing(n[first - 1], n[first], 0.0);
    high = last + 1 == n.size() ? n[last].w : Crossing(n[last + 1], n[last], 0.0);
    return true;
}

// Transmission-weighted mean: the integral of w*T(w) over that of T(w),
// exact for a piecewise linear curve; values below 0 count as 0.
bool FindMean(const SCurve& curve, double& mean) {
    double weight = 0.0;
    double moment = 0.0;
    if (curve.lines) {
        for (const SNode& n : curve.nodes) {
            if (n.v <= 0.0) continue;
            weight += n.v;
            moment += n.w * n.v;
        }
    } else {
        for (size_t i = 0; i + 1 < curve.nodes.size(); ++i) {
            const SNode& a = curve.nodes[i];
            const SNode& b = curve.nodes[i + 1];
            const double va = std::max(a.v, 0.0);
            const double vb = std::max(b.v, 0.0);
            const double dw = b.w - a.w;
            weight += (va + vb) / 2.0 * dw;
            moment += dw * (a.w * (2.0 * va + vb) + b.w * (va + 2.0 * vb)) / 6.0;
        }
    }
    if (!(weight > 0.0)) return false;
    mean = moment / weight;
    return true;
}

// Sampling positions of a tabbed curve: every `step` from `low`, and `high`
// itself when the steps do not land on it.
uint32_t TabCount(double low, double high, double step) {
    if (!std::isfinite(low) || !std::isfinite(high) || !std::isfinite(step) || !(step > 0.0) || high < low) return 0;
    const double steps = std::ceil((high - low) / step - 1e-9);
    if (!(steps < static_cast<double>(kNoCountLimit))) return 0;
    return static_cast<uint32_t>(std::max(steps, 0.0)) + 1;
}

double TabPosition(double low, double high, double step, uint32_t index, uint32_t count) {
    return index + 1 == count ? high : low + step * index;
}

// A tabbed sample: the curve's value there; a line counts at the samples
// within half a step of it, since it would otherwise fall between them.
double TabValue(const SCurve& curve, double w, double step) {
    if (!curve.lines) return curve.ValueAt(w);
    double best = 0.0;
    for (const SNode& n : curve.nodes) {
        if (std::fabs(n.w - w) <= step / 2.0) best = std::max(best, n.v);
    }
    return best;
}

uint32_t FillTabs(const SCurve& curve, double low, double high, double step, double* wavelengths, double* values,
                  uint32_t capacity) {
    if (!wavelengths || !values) return 0;
    const uint32_t count = std::min(TabCount(low, high, step), capacity);
    const uint32_t total = TabCount(low, high, step);
    for (uint32_t i = 0; i < count; ++i) {
        wavelengths[i] = TabPosition(low, high, step, i, total);
        values[i] = TabValue(curve, wavelengths[i], step);
    }
    return count;
}

// ---------------------------------------------------------------- colour

struct SLinearRgb {
    double r = 0.0;
    double g = 0.0;
    double b = 0.0;
};

// The usual piecewise approximation of the colour of a wavelength, with the
// intensity falling off where the eye becomes insensitive.
bool VisibleColour(double w, SLinearRgb& rgb) {
    if (!(w >= kVisibleMin && w <= kVisibleMax)) return false;
    if (w < 440.0) {
        rgb = {(440.0 - w) / (440.0 - 380.0), 0.0, 1.0};
    } else if (w < 490.0) {
        rgb = {0.0, (w - 440.0) / (490.0 - 440.0), 1.0};
    } else if (w < 510.0) {
        rgb = {0.0, 1.0, (510.0 - w) / (510.0 - 490.0)};
    } else if (w < 580.0) {
        rgb = {(w - 510.0) / (580.0 - 510.0), 1.0, 0.0};
    } else if (w < 645.0) {
        rgb = {1.0, (645.0 - w) / (645.0 - 580.0), 0.0};
    } else {
        rgb = {1.0, 0.0, 0.0};
    }
    double factor = 1.0;
    if (w < 420.0) {
        factor = 0.3 + 0.7 * (w - 380.0) / (420.0 - 380.0);
    } else if (w > 700.0) {
        factor = 0.3 + 0.7 * (kVisibleMax - w) / (kVisibleMax - 700.0);
    }
    rgb.r *= factor;
    rgb.g *= factor;
    rgb.b *= factor;
    return true;
}

uint32_t ToByte(double c) {
    const double scaled = std::round(255.0 * std::clamp(c, 0.0, 1.0));
    return static_cast<uint32_t>(scaled);
}

uint32_t PackColour(double r, double g, double b) { return ToByte(r) | (ToByte(g) << 8) | (ToByte(b) << 16); }

double GammaEncode(double c) { return c > 0.0 ? std::pow(c, kColourGamma) : 0.0; }

double SrgbEncode(double c) { return c <= 0.0031308 ? 12.92 * c : 1.055 * std::pow(c, 1.0 / 2.4) - 0.055; }

template <typename Encode>
bool SpectrumColour(const CKvOpticalFilterSpectrum& spectrum, uint32_t& colour, Encode encode) {
    double peak = 0.0;
    double fwhm = 0.0;
    if (!spectrum.GetPeakAndFwhm(peak, fwhm)) return false;
    SLinearRgb rgb;
    colour = VisibleColour(peak, rgb) ? PackColour(encode(rgb.r), encode(rgb.g), encode(rgb.b)) : 0;
    return true;
}

// ---------------------------------------------------------------- loading helpers

// Where a counted list is read from: a tree node or the lite level the
// reader is in. LoadElements reads at most `limit` elements of the list
// `key` into `out`, each found by its name (`format`) or else by its position,
// and answers whether the list is there.
struct STreeList {
    const CKvVariant& node;

    void GetCount(const wchar_t* key, uint32_t& count) const { KvMeta::Get(node, key, count); }
    // Elements that fail to load are left out.
    template <typename T, typename Load>
    bool LoadElements(const wchar_t* key, const wchar_t* format, uint32_t limit, std::vector<T>& out, Load load) const {
        const CKvVariant* list = KvMeta::Find(node, key);
        if (!list) return false;
        const uint32_t count = std::min(limit, static_cast<uint32_t>(std::max(list->GetCount(), 0)));
        out.reserve(count);
        for (uint32_t i = 0; i < count; ++i) {
            const CKvVariant* element = KvMeta::ElementByNameOrPosition(*list, ElementName(format, i), static_cast<int>(i));
            if (!element) break;
            T item;
            if (load(item, *element) == KV_OK) out.push_back(item);
        }
        return true;
    }
};

struct SLiteList {
    CKvLiteVariantR& reader;

    void GetCount(const wchar_t* key, uint32_t& count) const { KvMeta::LvGet(reader, key, count); }
    // A null `format` takes the elements by position only. The reserve is
    // bounded by the children the level holds, never by `limit`.
    template <typename T, typename Load>
    bool LoadElements(const wchar_t* key, const wchar_t* format, uint32_t limit, std::vector<T>& out, Load load) const {
        KvMeta::CLvLevelReader level(reader, key);
        if (!level.IsOpen()) return false;
        const uint32_t count = std::min(limit, level.Count());
        out.reserve(std::min<uint32_t>(count, 1024));
        for (uint32_t i = 0; i < count; ++i) {
            const bool entered = format ? KvMeta::LvEnterElement(reader, ElementName(format, i))
                                        : KvMeta::LvEnterElement(reader, nullptr);
            if (!entered) {
                // Not a level: step over it, or stop at the end of the level.
                if (reader.NextValue() != KV_OK) break;
                continue;
            }
            T item;
            load(item, reader);
            reader.LevelEnd();
            out.push_back(item);
            if (reader.NextValue() != KV_OK) break;
        }
        return true;
    }
};

// Loads a list stored with its count from either form: the stored count
// (`countKey`) caps the elements read, never sizes an allocation. `out` is
// replaced by what loaded when the list is present, and emptied when it is
// absent and the count says 0; otherwise it stays as it was.
template <typename Source, typename T, typename Load>
void LoadCountedList(const Source& source, const wchar_t* countKey, const wchar_t* listKey, const wchar_t* format,
                     std::vector<T>& out, Load load) {
    uint32_t declared = kNoCountLimit;
    source.GetCount(countKey, declared);
    std::vector<T> loaded;
    const bool present = source.LoadElements(listKey, format, declared, loaded, load);
    if (present || declared == 0) out.swap(loaded);
}

// Saves a structure: `fill` appends the members to `node`, made a plain list
// first because appending to a structured list makes it plain again; the run
// type is given at the end, also to a partly filled node.
template <typename Fill>
kv_result SaveStruct(CKvVariant& node, const char* runType, Fill fill) {
    return KvNoThrow([&] {
        KvMeta::BeginStruct(node, CKvVariantDataCKvListVariant::m_runTypeOrig);
        const kv_result result = fill();
        node.GetData()->SetRunType(CKvVariantRunType(runType));
        return result;
    });
}

// Saves `spectrum` as the member or level `key` of a structure.
kv_result SaveSpectrumMember(CKvVariant& node, const wchar_t* key, const CKvOpticalFilterSpectrum& spectrum) {
    CKvVariant* member = KvMeta::PutList(node, key);
    return member ? spectrum.SaveToVariant(*member) : KV_ERR_OUT_OF_MEMORY;
}

void LoadSpectrumMember(const CKvVariant& node, const wchar_t* key, CKvOpticalFilterSpectrum& spectrum) {
    if (const CKvVariant* member = KvMeta::Find(node, key)) spectrum.LoadFromVariant(*member);
}

kv_result SaveSpectrumLevel(CKvLiteVariantW& writer, const wchar_t* key, const CKvOpticalFilterSpectrum& spectrum) {
    KvMeta::CLvLevelWriter level(writer, key);
    kv_result result = level.Result();
    if (result == KV_OK) result = spectrum.SaveToVariantNew(writer);
    KvKeepFirstFailure(result, level.Close());
    return result;
}

void LoadSpectrumLevel(CKvLiteVariantR& reader, const wchar_t* key, CKvOpticalFilterSpectrum& spectrum) {
    KvMeta::CLvLevelReader level(reader, key);
    if (level.IsOpen()) spectrum.LoadFromVariantNew(reader);
}

}  // namespace

// ==================================================================== point

kv_result SKvOFSpectrumPoint::SaveToVariant(CKvVariant& node) const {
    return SaveStruct(node, kRtPoint, [&] {
        if (!KvMeta::Put(node, L"eType", eType) || !KvMeta::Put(node, L"dWavelength", dWavelength) ||
            !KvMeta::Put(node, L"dTValue", dTValue)) {
            return KV_ERR_OUT_OF_MEMORY;
        }
        return KV_OK;
    });
}

kv_result SKvOFSpectrumPoint::LoadFromVariant(const CKvVariant& node) {
    const kv_result result = KvMeta::CheckRunType(node, kRtPoint);
    if (result != KV_OK) return result;
    KvMeta::Get(node, L"eType", eType);
    KvMeta::Get(node, L"dWavelength", dWavelength);
    KvMeta::Get(node, L"dTValue", dTValue);
    return KV_OK;
}

kv_result SKvOFSpectrumPoint::SaveToVariantNew(CKvLiteVariantW& writer) const {
    kv_result result = writer.Set(eType, L"eType");
    if (result == KV_OK) result = writer.Set(dWavelength, L"dWavelength");
    if (result == KV_OK) result = writer.Set(dTValue, L"dTValue");
    return result;
}

kv_result SKvOFSpectrumPoint::LoadFromVariantNew(CKvLiteVariantR& reader) {
    KvMeta::LvGet(reader, L"eType", eType);
    KvMeta::LvGet(reader, L"dWavelength", dWavelength);
    KvMeta::LvGet(reader, L"dTValue", dTValue);
    return KV_OK;
}

// ==================================================================== spectrum

CKvOpticalFilterSpectrum::CKvOpticalFilterSpectrum(double wavelength, uint32_t type)
    : m_bPoints(type == SKvOFSpectrumPoint::eSptPoint) {
    AddPoint({type, wavelength, 1.0});
}

CKvOpticalFilterSpectrum::CKvOpticalFilterSpectrum(const double* wavelengths, const double* values, uint32_t count) {
    if (!wavelengths || !values) return;
    KvNoThrow([&] {
        m_aPoints.reserve(count);
        for (uint32_t i = 0; i < count; ++i) {
            m_aPoints.push_back({SKvOFSpectrumPoint::eSptCurve, wavelengths[i], values[i]});
        }
        return KV_OK;
    });
}

CKvOpticalFilterSpectrum::CKvOpticalFilterSpectrum(uint32_t count) {
    KvNoThrow([&] {
        m_aPoints.resize(count);
        return KV_OK;
    });
}

bool CKvOpticalFilterSpectrum::operator==(const CKvOpticalFilterSpectrum& other) const {
    return m_bPoints == other.m_bPoints && m_aPoints == other.m_aPoints;
}

const SKvOFSpectrumPoint* CKvOpticalFilterSpectrum::GetPoint(uint32_t index) const {
    return index < m_aPoints.size() ? &m_aPoints[index] : nullptr;
}

SKvOFSpectrumPoint* CKvOpticalFilterSpectrum::GetPoint(uint32_t index) {
    return index < m_aPoints.size() ? &m_aPoints[index] : nullptr;
}

const SKvOFSpectrumPoint& CKvOpticalFilterSpectrum::operator[](uint32_t index) const {
    assert(index < m_aPoints.size());
    return m_aPoints[index];
}

kv_result CKvOpticalFilterSpectrum::AddPoint(const SKvOFSpectrumPoint& point) {
    return KvNoThrow([&] {
        m_aPoints.push_back(point);
        return KV_OK;
    });
}

kv_result CKvOpticalFilterSpectrum::InsertPoint(const SKvOFSpectrumPoint& point, uint32_t index) {
    if (index > m_aPoints.size()) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&] {
        m_aPoints.insert(m_aPoints.begin() + index, point);
        return KV_OK;
    });
}

kv_result CKvOpticalFilterSpectrum::RemovePoint(uint32_t index) {
    if (index >= m_aPoints.size()) return KV_ERR_INVALID_ARG;
    m_aPoints.erase(m_aPoints.begin() + index);
    return KV_OK;
}

void CKvOpticalFilterSpectrum::RemoveAll() { m_aPoints.clear(); }

bool CKvOpticalFilterSpectrum::FindNearestPoint(double wavelength, uint32_t& index) const {
    if (m_aPoints.empty()) return false;
    uint32_t best = 0;
    for (uint32_t i = 1; i < m_aPoints.size(); ++i) {
        if (std::fabs(m_aPoints[i].dWavelength - wavelength) < std::fabs(m_aPoints[best].dWavelength - wavelength)) {
            best = i;
        }
    }
    index = best;
    return true;
}

double CKvOpticalFilterSpectrum::GetValueAt(double wavelength) const {
    double value = 0.0;
    KvNoThrow([&] {
        value = BuildCurve(*this).ValueAt(wavelength);
        return KV_OK;
    });
    return value;
}

bool CKvOpticalFilterSpectrum::GetPeakAndFwhm(double& peak, double& fwhm, double* low, double* high) const {
    SPeak found;
    bool ok = false;
    KvNoThrow([&] {
        ok = FindPeak(BuildCurve(*this), found);
        return KV_OK;
    });
    if (!ok) return false;
    peak = found.peak;
    fwhm = found.high - found.low;
    if (low) *low = found.low;
    if (high) *high = found.high;
    return true;
}

bool CKvOpticalFilterSpectrum::GetWavelenghtRange(double& low, double& high) const {
    double peak = 0.0;
    double fwhm = 0.0;
    return GetPeakAndFwhm(peak, fwhm, &low, &high);
}

bool CKvOpticalFilterSpectrum::GetWavelenghtRangeExact(double& low, double& high) const {
    bool ok = false;
    KvNoThrow([&] {
        ok = FindExactRange(BuildCurve(*this), low, high);
        return KV_OK;
    });
    return ok;
}

bool CKvOpticalFilterSpectrum::GetMeanWavelength(double& mean) const {
    bool ok = false;
    KvNoThrow([&] {
        ok = FindMean(BuildCurve(*this), mean);
        return KV_OK;
    });
    return ok;
}

uint32_t CKvOpticalFilterSpectrum::GetTabbedPointCount() const {
    double low = 0.0;
    double high = 0.0;
    return GetWavelenghtRangeExact(low, high) ? TabCount(low, high, kOFTabStep) : 0;
}

uint32_t CKvOpticalFilterSpectrum::GetTabbedCurve(double* wavelengths, double* values, uint32_t count) const {
    double low = 0.0;
    double high = 0.0;
    if (!GetWavelenghtRangeExact(low, high)) return 0;
    return GetTabbedCurveEx(low, high, kOFTabStep, wavelengths, values, count);
}

uint32_t CKvOpticalFilterSpectrum::GetTabbedPointCountEx(double low, double high, double step) const {
    return TabCount(low, high, step);
}

uint32_t CKvOpticalFilterSpectrum::GetTabbedCurveEx(double low, double high, double step, double* wavelengths,
                                                    double* values, uint32_t count) const {
    uint32_t written = 0;
    KvNoThrow([&] {
        written = FillTabs(BuildCurve(*this), low, high, step, wavelengths, values, count);
        return KV_OK;
    });
    return written;
}

bool CKvOpticalFilterSpectrum::GetRGBColor(uint32_t& colour) const {
    return SpectrumColour(*this, colour, GammaEncode);
}

bool CKvOpticalFilterSpectrum::GetsRGBColor(uint32_t& colour) const {
    return SpectrumColour(*this, colour, SrgbEncode);
}

kv_result CKvOpticalFilterSpectrum::Combine(const CKvOpticalFilterSpectrum& other,
                                            CKvOpticalFilterSpectrum& result) const {
    return KvNoThrow([&] {
        const SCurve a = BuildCurve(*this);
        const SCurve b = BuildCurve(other);
        CKvOpticalFilterSpectrum combined;
        if (a.Empty() || b.Empty()) {
            result = combined;
            return KV_OK;
        }
        if (a.lines || b.lines) {
            // Only the lines pass, weakened by the other curve at each of them.
            const SCurve& lines = a.lines ? a : b;
            const SCurve& curve = a.lines ? b : a;
            combined.m_bPoints = true;
            for (size_t i = lines.first; i < lines.first + lines.count; ++i) {
                const SNode& n = lines.nodes[i];
                const double value = n.v * curve.ValueAt(n.w);
                if (value != 0.0) combined.m_aPoints.push_back({SKvOFSpectrumPoint::eSptPoint, n.w, value});
            }
            result = combined;
            return KV_OK;
        }
        std::vector<double> positions;
        positions.reserve(a.count + b.count);
        for (size_t i = 0; i < a.count; ++i) positions.push_back(a.nodes[a.first + i].w);
        for (size_t i = 0; i < b.count; ++i) positions.push_back(b.nodes[b.first + i].w);
        std::sort(positions.begin(), positions.end());
        positions.erase(std::unique(positions.begin(), positions.end()), positions.end());

        // Each wavelength gives the product below, at and above it, so that
        // a step of either curve stays a step (two points at one wavelength)
        // instead of becoming a slope to the neighbouring point.
        std::vector<SNode> product;
        product.reserve(3 * positions.size());
        for (const double w : positions) {
            const double below = a.LimitBelow(w) * b.LimitBelow(w);
            const double at = a.ValueAt(w) * b.ValueAt(w);
            const double above = a.LimitAbove(w) * b.LimitAbove(w);
            product.push_back({w, below});
            if (at != below) product.push_back({w, at});
            if (above != at) product.push_back({w, above});
        }
        size_t firstNonZero = product.size();
        size_t lastNonZero = 0;
        for (size_t i = 0; i < product.size(); ++i) {
            if (product[i].v == 0.0) continue;
            if (firstNonZero == product.size()) firstNonZero = i;
            lastNonZero = i;
        }
        if (firstNonZero == product.size()) {
            result = combined;
            return KV_OK;
        }
        // Zeros at the ends are dropped but for the one next to the band,
        // which keeps the slope of its flanks.
        const size_t begin = firstNonZero > 0 ? firstNonZero - 1 : 0;
        const size_t end = lastNonZero + 1 < product.size() ? lastNonZero + 1 : lastNonZero;
        for (size_t i = begin; i <= end; ++i) {
            combined.m_aPoints.push_back({SKvOFSpectrumPoint::eSptCurve, product[i].w, product[i].v});
        }
        // Beyond all points both curves hold their edge values only when
        // both are open there; then so is the product.
        if (a.openLow && b.openLow && begin == firstNonZero) {
            combined.m_aPoints.front().eType = SKvOFSpectrumPoint::eSptFallingEdge;
        }
        if (a.openHigh && b.openHigh && end == lastNonZero) {
            combined.m_aPoints.back().eType = SKvOFSpectrumPoint::eSptRisingEdge;
        }
        result = combined;
        return KV_OK;
    });
}

kv_result CKvOpticalFilterSpectrum::SaveToVariant(CKvVariant& node) const {
    return SaveStruct(node, kRtSpectrum, [&] {
        if (!KvMeta::Put(node, L"uiCount", GetCount())) return KV_ERR_OUT_OF_MEMORY;
        CKvVariant* list = KvMeta::PutList(node, L"pPoint");
        if (!list) return KV_ERR_OUT_OF_MEMORY;
        kv_result result = KV_OK;
        for (uint32_t i = 0; i < GetCount(); ++i) {
            CKvVariant* element = KvMeta::PutList(*list, ElementName(L"Point%u", i));
            const kv_result saved = element ? m_aPoints[i].SaveToVariant(*element) : KV_ERR_OUT_OF_MEMORY;
            if (saved != KV_OK) {
                KV_TRACE_FAILURE();
                KvKeepFirstFailure(result, saved);
            }
        }
        if (!KvMeta::Put(node, L"bPoints", m_bPoints)) return KV_ERR_OUT_OF_MEMORY;
        return result;
    });
}

kv_result CKvOpticalFilterSpectrum::LoadFromVariant(const CKvVariant& node) {
    const kv_result result = KvMeta::CheckRunType(node, kRtSpectrum);
    if (result != KV_OK) return result;
    return KvNoThrow([&] {
        KvMeta::Get(node, L"bPoints", m_bPoints);
        LoadCountedList(STreeList{node}, L"uiCount", L"pPoint", L"Point%u", m_aPoints,
                        [](SKvOFSpectrumPoint& p, const CKvVariant& element) { return p.LoadFromVariant(element); });
        return KV_OK;
    });
}

kv_result CKvOpticalFilterSpectrum::SaveToVariantNew(CKvLiteVariantW& writer) const {
    return KvNoThrow([&] {
        kv_result result = writer.Set(GetCount(), L"uiCount");
        if (result != KV_OK) return result;
        {
            KvMeta::CLvLevelWriter level(writer, L"pPoint");
            if (level.Result() != KV_OK) return level.Result();
            for (uint32_t i = 0; i < GetCount(); ++i) {
                KvMeta::CLvLevelWriter pointLevel(writer, ElementName(L"Point%u", i));
                kv_result saved = pointLevel.Result();
                if (saved == KV_OK) saved = m_aPoints[i].SaveToVariantNew(writer);
                KvKeepFirstFailure(saved, pointLevel.Close());
                if (saved != KV_OK) {
                    KV_TRACE_FAILURE();
                    KvKeepFirstFailure(result, saved);
                }
            }
            KvKeepFirstFailure(result, level.Close());
        }
        KvKeepFirstFailure(result, writer.Set(m_bPoints, L"bPoints"));
        return result;
    });
}

kv_result CKvOpticalFilterSpectrum::LoadFromVariantNew(CKvLiteVariantR& reader) {
    return KvNoThrow([&] {
        KvMeta::LvGet(reader, L"bPoints", m_bPoints);
        LoadCountedList(SLiteList{reader}, L"uiCount", L"pPoint", L"Point%u", m_aPoints,
                        [](SKvOFSpectrumPoint& p, CKvLiteVariantR& r) { return p.LoadFromVariantNew(r); });
        return KV_OK;
    });
}

// ==================================================================== probe

CKvFluorescentProbe::CKvFluorescentProbe(const CKvStringW& name, uint32_t colour) : m_sName(name), m_uiColor(colour) {}

bool CKvFluorescentProbe::operator==(const CKvFluorescentProbe& other) const {
    return m_sName == other.m_sName && m_uiColor == other.m_uiColor &&
           m_ExcitationSpectrum == other.m_ExcitationSpectrum && m_EmissionSpectrum == other.m_EmissionSpectrum;
}

bool CKvFluorescentProbe::GetExcitationPeakAndFwhm(double& peak, double& fwhm) const {
    return m_ExcitationSpectrum.GetPeakAndFwhm(peak, fwhm);
}

bool CKvFluorescentProbe::GetEmissionPeakAndFwhm(double& peak, double& fwhm) const {
    return m_EmissionSpectrum.GetPeakAndFwhm(peak, fwhm);
}

double CKvFluorescentProbe::GetExcitationWavelength() const {
    double peak = 0.0;
    double fwhm = 0.0;
    return GetExcitationPeakAndFwhm(peak, fwhm) ? peak : 0.0;
}

double CKvFluorescentProbe::GetEmissionWavelength() const {
    double peak = 0.0;
    double fwhm = 0.0;
    return GetEmissionPeakAndFwhm(peak, fwhm) ? peak : 0.0;
}

bool CKvFluorescentProbe::IsValid() const {
    return !m_sName.IsEmpty() || m_ExcitationSpectrum.GetCount() > 0 || m_EmissionSpectrum.GetCount() > 0;
}

kv_result CKvFluorescentProbe::SelectExcitation(const double* wavelengths, uint32_t count, uint32_t* selected) {
    if (!wavelengths || count == 0) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&] {
        const SCurve curve = BuildCurve(m_ExcitationSpectrum);
        uint32_t best = count;
        double bestValue = 0.0;
        for (uint32_t i = 0; i < count; ++i) {
            const double value = curve.ValueAt(wavelengths[i]);
            if (value > bestValue) {
                best = i;
                bestValue = value;
            }
        }
        if (best == count) return KV_ERR_NOT_FOUND;
        CKvOpticalFilterSpectrum line(wavelengths[best], SKvOFSpectrumPoint::eSptPoint);
        line.GetPoint(0)->dTValue = bestValue;
        m_ExcitationSpectrum = line;
        if (selected) *selected = best;
        return KV_OK;
    });
}

kv_result CKvFluorescentProbe::SaveToVariant(CKvVariant& node) const {
    return SaveStruct(node, kRtProbe, [&] {
        if (!KvMeta::Put(node, L"m_sName", m_sName) || !KvMeta::Put(node, L"m_uiColor", m_uiColor)) {
            return KV_ERR_OUT_OF_MEMORY;
        }
        kv_result result = SaveSpectrumMember(node, L"m_ExcitationSpectrum", m_ExcitationSpectrum);
        KvKeepFirstFailure(result, SaveSpectrumMember(node, L"m_EmissionSpectrum", m_EmissionSpectrum));
        return result;
    });
}

kv_result CKvFluorescentProbe::LoadFromVariant(const CKvVariant& node) {
    const kv_result result = KvMeta::CheckRunType(node, kRtProbe);
    if (result != KV_OK) return result;
    KvMeta::Get(node, L"m_sName", m_sName);
    KvMeta::Get(node, L"m_uiColor", m_uiColor);
    LoadSpectrumMember(node, L"m_ExcitationSpectrum", m_ExcitationSpectrum);
    LoadSpectrumMember(node, L"m_EmissionSpectrum", m_EmissionSpectrum);
    return KV_OK;
}

kv_result CKvFluorescentProbe::SaveToVariantNew(CKvLiteVariantW& writer) const {
    kv_result result = writer.Set(m_sName, L"m_sName");
    if (result == KV_OK) result = writer.Set(m_uiColor, L"m_uiColor");
    if (result == KV_OK) result = SaveSpectrumLevel(writer, L"m_ExcitationSpectrum", m_ExcitationSpectrum);
    if (result == KV_OK) result = SaveSpectrumLevel(writer, L"m_EmissionSpectrum", m_EmissionSpectrum);
    return result;
}

kv_result CKvFluorescentProbe::LoadFromVariantNew(CKvLiteVariantR& reader) {
    KvMeta::LvGet(reader, L"m_sName", m_sName);
    KvMeta::LvGet(reader, L"m_uiColor", m_uiColor);
    LoadSpectrumLevel(reader, L"m_ExcitationSpectrum", m_ExcitationSpectrum);
    LoadSpectrumLevel(reader, L"m_EmissionSpectrum", m_EmissionSpectrum);
    return KV_OK;
}

// ==================================================================== filter

bool CKvOpticalFilter::operator==(const CKvOpticalFilter& other) const {
    return m_sName == other.m_sName && m_sUserName == other.m_sUserName &&
           m_ExcitationSpectrum == other.m_ExcitationSpectrum && m_EmissionSpectrum == other.m_EmissionSpectrum &&
           m_MirrorSpectrum == other.m_MirrorSpectrum && m_ePlacement == other.m_ePlacement &&
           m_eNature == other.m_eNature && m_eSpctType == other.m_eSpctType && m_uiColor == other.m_uiColor;
}

kv_result CKvOpticalFilter::SaveToVariant(CKvVariant& node) const {
    return SaveStruct(node, kRtFilter, [&] {
        if (!KvMeta::Put(node, L"m_sUserName", m_sUserName) || !KvMeta::Put(node, L"m_sName", m_sName) ||
            !KvMeta::Put(node, L"m_ePlacement", m_ePlacement) || !KvMeta::Put(node, L"m_eNature", m_eNature) ||
            !KvMeta::Put(node, L"m_eSpctType", m_eSpctType) || !KvMeta::Put(node, L"m_uiColor", m_uiColor)) {
            return KV_ERR_OUT_OF_MEMORY;
        }
        kv_result result = SaveSpectrumMember(node, L"m_ExcitationSpectrum", m_ExcitationSpectrum);
        KvKeepFirstFailure(result, SaveSpectrumMember(node, L"m_EmissionSpectrum", m_EmissionSpectrum));
        KvKeepFirstFailure(result, SaveSpectrumMember(node, L"m_MirrorSpectrum", m_MirrorSpectrum));
        return result;
    });
}

kv_result CKvOpticalFilter::LoadFromVariant(const CKvVariant& node) {
    const kv_result result = KvMeta::CheckRunType(node, kRtFilter);
    if (result != KV_OK) return result;
    KvMeta::Get(node, L"m_sUserName", m_sUserName);
    KvMeta::Get(node, L"m_sName", m_sName);
    KvMeta::Get(node, L"m_ePlacement", m_ePlacement);
    KvMeta::Get(node, L"m_eNature", m_eNature);
    KvMeta::Get(node, L"m_eSpctType", m_eSpctType);
    KvMeta::Get(node, L"m_uiColor", m_uiColor);
    LoadSpectrumMember(node, L"m_ExcitationSpectrum", m_ExcitationSpectrum);
    LoadSpectrumMember(node, L"m_EmissionSpectrum", m_EmissionSpectrum);
    LoadSpectrumMember(node, L"m_MirrorSpectrum", m_MirrorSpectrum);
    return KV_OK;
}

kv_result CKvOpticalFilter::SaveToLiteVariant(CKvLiteVariantW& writer) const {
    kv_result result = SaveUserNameToLiteVariant(writer);
    if (result == KV_OK) result = writer.Set(m_sName, L"m_sName");
    if (result == KV_OK) result = writer.Set(m_ePlacement, L"m_ePlacement");
    if (result == KV_OK) result = writer.Set(m_eNature, L"m_eNature");
    if (result == KV_OK) result = writer.Set(m_eSpctType, L"m_eSpctType");
    if (result == KV_OK) result = writer.Set(m_uiColor, L"m_uiColor");
    if (result == KV_OK) result = SaveSpectrumLevel(writer, L"m_ExcitationSpectrum", m_ExcitationSpectrum);
    if (result == KV_OK) result = SaveSpectrumLevel(writer, L"m_EmissionSpectrum", m_EmissionSpectrum);
    if (result == KV_OK) result = SaveSpectrumLevel(writer, L"m_MirrorSpectrum", m_MirrorSpectrum);
    return result;
}

kv_result CKvOpticalFilter::LoadFromLiteVariant(CKvLiteVariantR& reader) {
    LoadUserNameFromLiteVariant(reader);
    KvMeta::LvGet(reader, L"m_sName", m_sName);
    KvMeta::LvGet(reader, L"m_ePlacement", m_ePlacement);
    KvMeta::LvGet(reader, L"m_eNature", m_eNature);
    KvMeta::LvGet(reader, L"m_eSpctType", m_eSpctType);
    KvMeta::LvGet(reader, L"m_uiColor", m_uiColor);
    LoadSpectrumLevel(reader, L"m_ExcitationSpectrum", m_ExcitationSpectrum);
    LoadSpectrumLevel(reader, L"m_EmissionSpectrum", m_EmissionSpectrum);
    LoadSpectrumLevel(reader, L"m_MirrorSpectrum", m_MirrorSpectrum);
    return KV_OK;
}

kv_result CKvOpticalFilter::SaveUserNameToLiteVariant(CKvLiteVariantW& writer) const {
    return writer.Set(m_sUserName, L"m_sUserName");
}

kv_result CKvOpticalFilter::LoadUserNameFromLiteVariant(CKvLiteVariantR& reader) {
    KvMeta::LvGet(reader, L"m_sUserName", m_sUserName);
    return KV_OK;
}

// ==================================================================== path

namespace {

// What passes every filter of `filters` whose spectrum chosen by `spectrumOf`
// carries information by the spectrum-type bit `bit`; false when none does.
template <typename SpectrumOf>
bool PathLight(const std::vector<CKvOpticalFilter>& filters, uint32_t bit, SpectrumOf spectrumOf,
               CKvOpticalFilterSpectrum& light) {
    bool any = false;
    for (const CKvOpticalFilter& filter : filters) {
        const CKvOpticalFilterSpectrum& spectrum = spectrumOf(filter);
        if ((filter.GetSpectrumType() & bit) == 0 || spectrum.GetCount() == 0) continue;
        if (!any) {
            light = spectrum;
            any = true;
        } else if (light.Combine(spectrum, light) != KV_OK) {
            return false;
        }
    }
    return any;
}

enum class EPathAnswer { eLow, eHigh, eMean };

template <typename SpectrumOf>
double PathWavelength(const std::vector<CKvOpticalFilter>& filters, uint32_t bit, SpectrumOf spectrumOf,
                      EPathAnswer answer) {
    double wavelength = 0.0;
    KvNoThrow([&] {
        CKvOpticalFilterSpectrum light;
        if (!PathLight(filters, bit, spectrumOf, light)) return KV_OK;
        double low = 0.0;
        double high = 0.0;
        double mean = 0.0;
        if (answer == EPathAnswer::eMean) {
            if (light.GetMeanWavelength(mean)) wavelength = mean;
        } else if (light.GetWavelenghtRange(low, high)) {
            wavelength = answer == EPathAnswer::eLow ? low : high;
        }
        return KV_OK;
    });
    return wavelength;
}

const CKvOpticalFilterSpectrum& ExcitationOf(const CKvOpticalFilter& f) { return f.GetExcitationSpectrum(); }
const CKvOpticalFilterSpectrum& EmissionOf(const CKvOpticalFilter& f) { return f.GetEmissionSpectrum(); }

}  // namespace

CKvOpticalFilterPath::CKvOpticalFilterPath(const CKvOpticalFilter& first) { AddFilter(first); }

CKvOpticalFilterPath::CKvOpticalFilterPath(const CKvOpticalFilter& first, const CKvOpticalFilter& second) {
    if (AddFilter(first) == KV_OK) AddFilter(second);
}

CKvOpticalFilterPath::CKvOpticalFilterPath(const CKvOpticalFilter& first, const CKvOpticalFilter& second,
                                           const CKvOpticalFilter& third) {
    if (AddFilter(first) == KV_OK && AddFilter(second) == KV_OK) AddFilter(third);
}

CKvOpticalFilterPath::CKvOpticalFilterPath(const CKvOpticalFilter* filters, uint32_t count) {
    if (!filters) return;
    KvNoThrow([&] {
        m_aFilters.assign(filters, filters + count);
        return KV_OK;
    });
}

bool CKvOpticalFilterPath::operator==(const CKvOpticalFilterPath& other) const {
    return m_sDescr == other.m_sDescr && m_aFilters == other.m_aFilters;
}

const CKvOpticalFilter& CKvOpticalFilterPath::operator[](uint32_t index) const {
    assert(index < m_aFilters.size());
    return m_aFilters[index];
}

CKvOpticalFilter& CKvOpticalFilterPath::operator[](uint32_t index) {
    assert(index < m_aFilters.size());
    return m_aFilters[index];
}

const CKvOpticalFilter* CKvOpticalFilterPath::GetFilterPointer() const {
    return m_aFilters.empty() ? nullptr : m_aFilters.data();
}

CKvOpticalFilter* CKvOpticalFilterPath::GetFilterPointer() { return m_aFilters.empty() ? nullptr : m_aFilters.data(); }

kv_result CKvOpticalFilterPath::AddFilter(const CKvOpticalFilter& filter) {
    return KvNoThrow([&] {
        m_aFilters.push_back(filter);
        return KV_OK;
    });
}

kv_result CKvOpticalFilterPath::RemoveFilter(uint32_t index) {
    if (index >= m_aFilters.size()) return KV_ERR_INVALID_ARG;
    m_aFilters.erase(m_aFilters.begin() + index);
    return KV_OK;
}

double CKvOpticalFilterPath::GetLowExcitationWavelength() const {
    return PathWavelength(m_aFilters, CKvOpticalFilter::eOfsExcitation, ExcitationOf, EPathAnswer::eLow);
}

double CKvOpticalFilterPath::GetHightExcitationWavelength() const {
    return PathWavelength(m_aFilters, CKvOpticalFilter::eOfsExcitation, ExcitationOf, EPathAnswer::eHigh);
}

double CKvOpticalFilterPath::GetLowEmissionWavelength() const {
    return PathWavelength(m_aFilters, CKvOpticalFilter::eOfsEmission, EmissionOf, EPathAnswer::eLow);
}

double CKvOpticalFilterPath::GetHightEmissionWavelength() const {
    return PathWavelength(m_aFilters, CKvOpticalFilter::eOfsEmission, EmissionOf, EPathAnswer::eHigh);
}

double CKvOpticalFilterPath::GetMeanExcitationWavelength() const {
    return PathWavelength(m_aFilters, CKvOpticalFilter::eOfsExcitation, ExcitationOf, EPathAnswer::eMean);
}

double CKvOpticalFilterPath::GetMeanEmissionWavelength() const {
    return PathWavelength(m_aFilters, CKvOpticalFilter::eOfsEmission, EmissionOf, EPathAnswer::eMean);
}

bool CKvOpticalFilterPath::GetEmissionWavelengthDescription(CKvStringW& text) const {
    text.Empty();
    const CKvOpticalFilterSpectrum* spectrum = nullptr;
    for (const CKvOpticalFilter& filter : m_aFilters) {
        if (filter.GetEmissionSpectrum().GetCount() > 0) spectrum = &filter.GetEmissionSpectrum();
    }
    if (!spectrum) return false;
    return KvNoThrow([&] {
               const CKvOpticalFilterSpectrum& s = *spectrum;
               double low = 0.0;
               double high = 0.0;
               if (s.GetCount() == 1) {
                   text.Format(L"%.1lf", s[0].dWavelength);
               } else if (s.GetCount() == 2) {
                   text.Format(L"%.1lf - %.1lf", s[0].dWavelength, s[1].dWavelength);
               } else if (s.GetWavelenghtRange(low, high)) {
                   text.Format(L"%.1lf - %.1lf", low, high);
               } else {
                   return KV_ERR_NOT_FOUND;
               }
               return KV_OK;
           }) == KV_OK;
}

kv_result CKvOpticalFilterPath::SaveToVariant(CKvVariant& node) const {
    return SaveStruct(node, kRtPath, [&] {
        if (!KvMeta::Put(node, L"m_sDescr", m_sDescr) || !KvMeta::Put(node, L"m_uiCount", GetCount())) {
            return KV_ERR_OUT_OF_MEMORY;
        }
        if (m_aFilters.empty()) return KV_OK;
        CKvVariant* list = KvMeta::PutList(node, L"m_pFilter");
        if (!list) return KV_ERR_OUT_OF_MEMORY;
        kv_result result = KV_OK;
        for (uint32_t i = 0; i < GetCount(); ++i) {
            CKvVariant* element = KvMeta::PutList(*list, ElementName(L"a%u", i));
            KvKeepFirstFailure(result, element ? m_aFilters[i].SaveToVariant(*element) : KV_ERR_OUT_OF_MEMORY);
        }
        return result;
    });
}

kv_result CKvOpticalFilterPath::LoadFromVariant(const CKvVariant& node) {
    const kv_result result = KvMeta::CheckRunType(node, kRtPath);
    if (result != KV_OK) return result;
    return KvNoThrow([&] {
        KvMeta::Get(node, L"m_sDescr", m_sDescr);
        LoadCountedList(STreeList{node}, L"m_uiCount", L"m_pFilter", L"a%u", m_aFilters,
                        [](CKvOpticalFilter& f, const CKvVariant& element) { return f.LoadFromVariant(element); });
        return KV_OK;
    });
}

kv_result CKvOpticalFilterPath::SaveToLiteVariant(CKvLiteVariantW& writer) const {
    kv_result result = writer.Set(m_sDescr, L"m_sDescr");
    if (result == KV_OK) result = writer.Set(GetCount(), L"m_uiCount");
    if (result != KV_OK || m_aFilters.empty()) return result;
    KvMeta::CLvLevelWriter level(writer, L"m_pFilter");
    if (level.Result() != KV_OK) return level.Result();
    for (const CKvOpticalFilter& filter : m_aFilters) {
        KvMeta::CLvLevelWriter filterLevel(writer, nullptr);
        KvKeepFirstFailure(result, filterLevel.Result());
        if (filterLevel.Result() == KV_OK) KvKeepFirstFailure(result, filter.SaveToLiteVariant(writer));
        KvKeepFirstFailure(result, filterLevel.Close());
    }
    KvKeepFirstFailure(result, level.Close());
    return result;
}

kv_result CKvOpticalFilterPath::LoadFromLiteVariant(CKvLiteVariantR& reader) {
    return KvNoThrow([&] {
        KvMeta::LvGet(reader, L"m_sDescr", m_sDescr);
        LoadCountedList(SLiteList{reader}, L"m_uiCount", L"m_pFilter", nullptr, m_aFilters,
                        [](CKvOpticalFilter& f, CKvLiteVariantR& r) { return f.LoadFromLiteVariant(r); });
        return KV_OK;
    });
}

// ==================================================================== registration

namespace {

template <typename T>
CKvVariant SampleOf(const T& object) {
    CKvVariant tree;
    object.SaveToVariant(tree);
    return tree;
}

// Registers the run types at library load, so that trees read back from XML
// or lite variants are recognised as these structures again.
struct SRegisterOpticalFilterSamples {
    SRegisterOpticalFilterSamples() {
        KvNoThrow([] {
            KvMeta::RegisterSample(kRtPoint, SampleOf(SKvOFSpectrumPoint()));
            KvMeta::RegisterSample(kRtSpectrum, SampleOf(CKvOpticalFilterSpectrum()));
            KvMeta::RegisterSample(kRtProbe, SampleOf(CKvFluorescentProbe()));
            KvMeta::RegisterSample(kRtFilter, SampleOf(CKvOpticalFilter()));
            // A default path writes no filter list; the sample carries an
            // empty one all the same, because a tree read from a lite
            // variant keeps only the members its sample knows.
            CKvVariant path = SampleOf(CKvOpticalFilterPath());
            static_cast<CKvVariantDataCKvListVariant*>(path.GetData())
                ->Value()
                .Add(CKvVariant(CKvListVariant(), CKvStringW(L"m_pFilter")));
            KvMeta::RegisterSample(kRtPath, path);
            return KV_OK;
        });
    }
};

const SRegisterOpticalFilterSamples s_registerOpticalFilterSamples;

}  // namespace

// Optical filters and fluorescent probes: the light path behind each picture
// plane, described by transmission spectra. The classes save and load
// themselves as variant trees and lite variants and answer wavelength
// questions (peak, width, band, mean wavelength, display colour).
#pragma once

#include <cstdint>
#include <vector>

#include "gnr_system/CKvLiteVariant.h"
#include "gnr_system/CKvString.h"
#include "gnr_system/CKvVariant.h"
#include "gnr_system/KvResult.h"

// Open-ended spectra (a long-pass edge, a short-pass edge) are evaluated
// inside this window, in nanometres: from the near ultraviolet that
// microscope optics still pass to the near infrared where silicon detectors
// stop responding.
constexpr double kOFWavelengthMin = 300.0;
constexpr double kOFWavelengthMax = 1100.0;
// Default step of tabbed curves, in nanometres.
constexpr double kOFTabStep = 1.0;

// One point of a spectrum.
struct SKvOFSpectrumPoint {
    // What the point says about the curve around it.
    enum EKvOFSpectrumPointType : uint32_t {
        eSptInvalid = 0,
        eSptPoint = 1,         // a single line (laser, lamp line): only this wavelength passes
        eSptRisingEdge = 2,    // cut-on: the value holds from here towards longer wavelengths
        eSptFallingEdge = 3,   // cut-off: the value holds from here towards shorter wavelengths
        eSptPeak = 4,          // the maximum of a band
        eSptCurve = 5,         // a sample of a measured curve
    };

    uint32_t eType = eSptInvalid;  // EKvOFSpectrumPointType
    double dWavelength = 0.0;      // nanometres
    double dTValue = 0.0;          // transmission (or excitation/emission strength), 0..1

    bool operator==(const SKvOFSpectrumPoint& other) const {
        return eType == other.eType && dWavelength == other.dWavelength && dTValue == other.dTValue;
    }
    bool operator!=(const SKvOFSpectrumPoint& other) const { return !(*this == other); }

    // Tree: run type "RKvOFSpectrumPoint", keys "eType", "dWavelength", "dTValue".
    kv_result SaveToVariant(CKvVariant& node) const;
    kv_result LoadFromVariant(const CKvVariant& node);
    // Lite: the same keys inside the level the caller opened or entered.
    kv_result SaveToVariantNew(CKvLiteVariantW& writer) const;
    kv_result LoadFromVariantNew(CKvLiteVariantR& reader);
};

// A transmission spectrum: points in the order given (callers normally give
// them by rising wavelength; the wavelength questions sort a copy).
//
// The curve a spectrum describes: with the discrete-points flag set, each
// point is a line of its own and nothing between points passes. Otherwise
// the curve runs through the points with linear interpolation; below the
// first point it is 0 unless that point is a falling edge (then its value
// holds down to kOFWavelengthMin), above the last point it is 0 unless that
// point is a rising edge (then its value holds up to kOFWavelengthMax). A
// single point that is no edge is a line.
class CKvOpticalFilterSpectrum {
public:
    CKvOpticalFilterSpectrum() = default;
    // One point of `type` with value 1.0; the discrete-points flag is set for eSptPoint.
    CKvOpticalFilterSpectrum(double wavelength, uint32_t type);
    // `count` curve points (eSptCurve) from the two arrays; none when either is null.
    CKvOpticalFilterSpectrum(const double* wavelengths, const double* values, uint32_t count);
    // `count` default points, to be filled through GetPoint.
    explicit CKvOpticalFilterSpectrum(uint32_t count);
    CKvOpticalFilterSpectrum(const CKvOpticalFilterSpectrum&) = default;
    CKvOpticalFilterSpectrum& operator=(const CKvOpticalFilterSpectrum&) = default;
    virtual ~CKvOpticalFilterSpectrum() = default;

    bool operator==(const CKvOpticalFilterSpectrum& other) const;
    bool operator!=(const CKvOpticalFilterSpectrum& other) const { return !(*this == other); }

    uint32_t GetCount() const { return static_cast<uint32_t>(m_aPoints.size()); }
    // Null when `index` is out of range.
    const SKvOFSpectrumPoint* GetPoint(uint32_t index) const;
    SKvOFSpectrumPoint* GetPoint(uint32_t index);
    // `index` must be below GetCount().
    const SKvOFSpectrumPoint& operator[](uint32_t index) const;
    bool IsPoints() const { return m_bPoints; }
    void SetPoints(bool points) { m_bPoints = points; }

    // KV_ERR_OUT_OF_MEMORY when memory runs out. InsertPoint puts the point before `index` (KV_ERR_INVALID_ARG when
    // `index` is above the count); RemovePoint KV_ERR_INVALID_ARG when out of range.
    kv_result AddPoint(const SKvOFSpectrumPoint& point);
    kv_result InsertPoint(const SKvOFSpectrumPoint& point, uint32_t index);
    kv_result RemovePoint(uint32_t index);
    void RemoveAll();

    // The index of the point whose wavelength is closest (the first of equals);
    // false when the spectrum is empty.
    bool FindNearestPoint(double wavelength, uint32_t& index) const;
    // The value of the curve (see above) at `wavelength`; 0 outside it.
    double GetValueAt(double wavelength) const;

    // Peak: the wavelength of the highest value; where several neighbouring
    // points share it (a flat top), the middle of that plateau. Width: the
    // distance between the half-maximum crossings on each side of the peak,
    // linearly interpolated; a side that never falls to half maximum ends at
    // its outermost point (or the window edge for an open edge). Lines
    // (discrete points, a single point) have width 0. `low` and `high`, when
    // given, receive the two crossings. False for an empty spectrum or one
    // whose values are all 0 or below.
    bool GetPeakAndFwhm(double& peak, double& fwhm, double* low = nullptr, double* high = nullptr) const;
    // The pass band: the half-maximum crossings of GetPeakAndFwhm.
    bool GetWavelenghtRange(double& low, double& high) const;
    // Where anything passes at all: the lowest and the highest wavelength
    // with a value above 0 (open edges extend to the window).
    bool GetWavelenghtRangeExact(double& low, double& high) const;
    // The transmission-weighted mean wavelength of the curve; false when nothing passes.
    bool GetMeanWavelength(double& mean) const;

    // The curve sampled every kOFTabStep nanometres over GetWavelenghtRangeExact
    // (both ends included: the high end is a sample of its own when the steps
    // miss it); the Ex forms over low..high by `step` (> 0). A line counts at
    // the samples within half a step of it.
    // GetTabbedCurve fills at most `count` pairs and answers how many it wrote
    // (0 when there is nothing to sample or an argument is unusable).
    uint32_t GetTabbedPointCount() const;
    uint32_t GetTabbedCurve(double* wavelengths, double* values, uint32_t count) const;
    uint32_t GetTabbedPointCountEx(double low, double high, double step) const;
    uint32_t GetTabbedCurveEx(double low, double high, double step, double* wavelengths, double* values,
                              uint32_t count) const;

    // The display colour of the peak wavelength, as 0x00BBGGRR (red in the low
    // byte): GetRGBColor with the usual visible-spectrum approximation (380 to
    // 780 nm, intensity falling off at both ends, gamma 0.8), GetsRGBColor
    // with the same linear components encoded by the sRGB transfer curve.
    // Wavelengths outside the visible range give black. False when the
    // spectrum has no peak.
    bool GetRGBColor(uint32_t& colour) const;
    bool GetsRGBColor(uint32_t& colour) const;

    // The spectrum of this one and `other` in series: at every wavelength
    // where either has a point, the product of both curves (eSptCurve points;
    // where a curve steps there, two points at that wavelength keep the step).
    // Points with value 0 are dropped at the ends but for the one next to the
    // band, which keeps its flank. When both curves are open towards one end,
    // the result's point there is the matching edge. A line spectrum gives its
    // lines weakened by the other curve there (two line spectra the lines they
    // share), discrete. `result` may be this or `other`. KV_ERR_OUT_OF_MEMORY when memory runs out.
    kv_result Combine(const CKvOpticalFilterSpectrum& other, CKvOpticalFilterSpectrum& result) const;

    // Tree: run type "RKvOpticalFilterSpectrum", "uiCount", "pPoint" (a plain
    // list of "Point%u" elements), "bPoints". Lite: "uiCount", level "pPoint"
    // with levels "Point%u", "bPoints". Loading takes the points present, at
    // most "uiCount" of them.
    kv_result SaveToVariant(CKvVariant& node) const;
    kv_result LoadFromVariant(const CKvVariant& node);
    kv_result SaveToVariantNew(CKvLiteVariantW& writer) const;
    kv_result LoadFromVariantNew(CKvLiteVariantR& reader);

private:
    std::vector<SKvOFSpectrumPoint> m_aPoints;
    bool m_bPoints = false;
};

// A fluorescent probe (dye, fluorescent protein) with its excitation and
// emission spectra.
class CKvFluorescentProbe {
public:
    CKvFluorescentProbe() = default;
    CKvFluorescentProbe(const CKvStringW& name, uint32_t colour);
    CKvFluorescentProbe(const CKvFluorescentProbe&) = default;
    CKvFluorescentProbe& operator=(const CKvFluorescentProbe&) = default;
    virtual ~CKvFluorescentProbe() = default;

    bool operator==(const CKvFluorescentProbe& other) const;
    bool operator!=(const CKvFluorescentProbe& other) const { return !(*this == other); }

    const CKvStringW& GetName() const { return m_sName; }
    void SetName(const CKvStringW& name) { m_sName = name; }
    uint32_t GetColor() const { return m_uiColor; }
    void SetColor(uint32_t colour) { m_uiColor = colour; }

    const CKvOpticalFilterSpectrum& GetExcitationSpectrum() const { return m_ExcitationSpectrum; }
    CKvOpticalFilterSpectrum& GetExcitationSpectrum() { return m_ExcitationSpectrum; }
    const CKvOpticalFilterSpectrum& GetEmissionSpectrum() const { return m_EmissionSpectrum; }
    CKvOpticalFilterSpectrum& GetEmissionSpectrum() { return m_EmissionSpectrum; }

    bool GetExcitationPeakAndFwhm(double& peak, double& fwhm) const;
    bool GetEmissionPeakAndFwhm(double& peak, double& fwhm) const;
    // The peak wavelengths; 0 when the spectrum has none.
    double GetExcitationWavelength() const;
    double GetEmissionWavelength() const;
    // A probe is usable when it has a name or at least one spectrum with points.
    bool IsValid() const;
    void DeleteEmissionSpectrum() { m_EmissionSpectrum.RemoveAll(); }
    // Given the excitation lines a light source offers, keeps as excitation
    // spectrum only the line the probe absorbs best (one eSptPoint point,
    // discrete, with the probe's value there); `selected` receives its index.
    // KV_ERR_INVALID_ARG without lines, KV_ERR_NOT_FOUND when the probe absorbs none of them.
    kv_result SelectExcitation(const double* wavelengths, uint32_t count, uint32_t* selected = nullptr);

    // Tree: run type "RKvFluorescentProbe", "m_sName", "m_uiColor",
    // "m_ExcitationSpectrum", "m_EmissionSpectrum". Lite: the same keys, the
    // spectra as levels.
    kv_result SaveToVariant(CKvVariant& node) const;
    kv_result LoadFromVariant(const CKvVariant& node);
    kv_result SaveToVariantNew(CKvLiteVariantW& writer) const;
    kv_result LoadFromVariantNew(CKvLiteVariantR& reader);

private:
    CKvStringW m_sName;
    uint32_t m_uiColor = 0xFFFFFF;
    CKvOpticalFilterSpectrum m_ExcitationSpectrum;
    CKvOpticalFilterSpectrum m_EmissionSpectrum;
};

// One optical filter of a light path.
class CKvOpticalFilter {
public:
    // Where the filter sits in the light path.
    enum EKvOpticalFilterPlacement : uint32_t {
        eOfpUnknown = 0,
        eOfpExcitation = 1,   // between light source and sample
        eOfpEmission = 2,     // between sample and detector
        eOfpCube = 3,         // a filter cube: excitation, mirror and emission together
        eOfpMirror = 4,       // a dichroic mirror alone
    };
    // What kind of filter it is.
    enum EKvOpticalFilterNature : uint32_t {
        eOfnUnknown = 0,
        eOfnBandPass = 1,
        eOfnLongPass = 2,
        eOfnShortPass = 3,
        eOfnMultiBand = 4,
        eOfnNeutralDensity = 5,
    };
    // Which of the three spectra carry information: a bit set.
    enum EKvOpticalFilterSpectrumType : uint32_t {
        eOfsExcitation = 1,
        eOfsEmission = 2,
        eOfsMirror = 4,
        eOfsAll = 7,
    };

    CKvOpticalFilter() = default;
    CKvOpticalFilter(const CKvOpticalFilter&) = default;
    CKvOpticalFilter& operator=(const CKvOpticalFilter&) = default;
    virtual ~CKvOpticalFilter() = default;

    bool operator==(const CKvOpticalFilter& other) const;
    bool operator!=(const CKvOpticalFilter& other) const { return !(*this == other); }

    const CKvStringW& GetName() const { return m_sName; }
    void SetName(const CKvStringW& name) { m_sName = name; }
    const CKvStringW& GetUserName() const { return m_sUserName; }
    void SetUserName(const CKvStringW& name) { m_sUserName = name; }
    uint32_t GetPlacement() const { return m_ePlacement; }
    void SetPlacement(uint32_t placement) { m_ePlacement = placement; }
    uint32_t GetNature() const { return m_eNature; }
    void SetNature(uint32_t nature) { m_eNature = nature; }
    uint32_t GetSpectrumType() const { return m_eSpctType; }
    void SetSpectrumType(uint32_t type) { m_eSpctType = type; }
    uint32_t GetColor() const { return m_uiColor; }
    void SetColor(uint32_t colour) { m_uiColor = colour; }

    const CKvOpticalFilterSpectrum& GetExcitationSpectrum() const { return m_ExcitationSpectrum; }
    CKvOpticalFilterSpectrum& GetExcitationSpectrum() { return m_ExcitationSpectrum; }
    const CKvOpticalFilterSpectrum& GetEmissionSpectrum() const { return m_EmissionSpectrum; }
    CKvOpticalFilterSpectrum& GetEmissionSpectrum() { return m_EmissionSpectrum; }
    const CKvOpticalFilterSpectrum& GetMirrorSpectrum() const { return m_MirrorSpectrum; }
    CKvOpticalFilterSpectrum& GetMirrorSpectrum() { return m_MirrorSpectrum; }

    // Tree: run type "RKvOpticalFilter". Lite keys in this order:
    // "m_sUserName", "m_sName", "m_ePlacement", "m_eNature", "m_eSpctType",
    // "m_uiColor", levels "m_ExcitationSpectrum", "m_EmissionSpectrum",
    // "m_MirrorSpectrum".
    kv_result SaveToVariant(CKvVariant& node) const;
    kv_result LoadFromVariant(const CKvVariant& node);
    kv_result SaveToLiteVariant(CKvLiteVariantW& writer) const;
    kv_result LoadFromLiteVariant(CKvLiteVariantR& reader);
    // The user name alone ("m_sUserName").
    kv_result SaveUserNameToLiteVariant(CKvLiteVariantW& writer) const;
    kv_result LoadUserNameFromLiteVariant(CKvLiteVariantR& reader);

private:
    CKvStringW m_sName;
    CKvStringW m_sUserName;
    CKvOpticalFilterSpectrum m_ExcitationSpectrum;
    CKvOpticalFilterSpectrum m_EmissionSpectrum;
    CKvOpticalFilterSpectrum m_MirrorSpectrum;
    uint32_t m_ePlacement = eOfpExcitation;
    uint32_t m_eNature = eOfnUnknown;
    uint32_t m_eSpctType = eOfsAll;
    uint32_t m_uiColor = 0;
};

// The ordered filters of one light path, from light source to detector.
class CKvOpticalFilterPath {
public:
    CKvOpticalFilterPath() = default;
    explicit CKvOpticalFilterPath(const CKvOpticalFilter& first);
    CKvOpticalFilterPath(const CKvOpticalFilter& first, const CKvOpticalFilter& second);
    CKvOpticalFilterPath(const CKvOpticalFilter& first, const CKvOpticalFilter& second,
                         const CKvOpticalFilter& third);
    // `count` filters from `filters`; none when it is null.
    CKvOpticalFilterPath(const CKvOpticalFilter* filters, uint32_t count);
    CKvOpticalFilterPath(const CKvOpticalFilterPath&) = default;
    CKvOpticalFilterPath& operator=(const CKvOpticalFilterPath&) = default;
    virtual ~CKvOpticalFilterPath() = default;

    bool operator==(const CKvOpticalFilterPath& other) const;
    bool operator!=(const CKvOpticalFilterPath& other) const { return !(*this == other); }

    uint32_t GetCount() const { return static_cast<uint32_t>(m_aFilters.size()); }
    // `index` must be below GetCount().
    const CKvOpticalFilter& operator[](uint32_t index) const;
    CKvOpticalFilter& operator[](uint32_t index);
    // The filters as an array of GetCount(); null when there are none.
    const CKvOpticalFilter* GetFilterPointer() const;
    CKvOpticalFilter* GetFilterPointer();
    kv_result AddFilter(const CKvOpticalFilter& filter);  // KV_ERR_OUT_OF_MEMORY when memory runs out
    kv_result RemoveFilter(uint32_t index);              // KV_ERR_INVALID_ARG out of range
    void RemoveAll() { m_aFilters.clear(); }
    const CKvStringW& GetDescription() const { return m_sDescr; }
    void SetDescription(const CKvStringW& text) { m_sDescr = text; }

    // The excitation (emission) light of the path is what passes every
    // filter's excitation (emission) spectrum that carries one (by the
    // spectrum-type bits and a non-empty spectrum): their Combine. Low and
    // high are that light's pass band (GetWavelenghtRange), the mean its
    // transmission-weighted mean wavelength. 0 when the path says nothing
    // about that light.
    double GetLowExcitationWavelength() const;
    double GetHightExcitationWavelength() const;
    double GetLowEmissionWavelength() const;
    double GetHightEmissionWavelength() const;
    double GetMeanExcitationWavelength() const;
    double GetMeanEmissionWavelength() const;
    // The emission filter's band as text. The relevant filter is the last one
    // of the path (closest to the detector) whose emission spectrum has
    // points: one point gives "%.1lf", two points "%.1lf - %.1lf" (first and
    // second point), more points the pass band as "%.1lf - %.1lf". False,
    // with an empty text, when no filter has an emission spectrum.
    bool GetEmissionWavelengthDescription(CKvStringW& text) const;

    // Tree: run type "RKvOpticalFilterPath", "m_sDescr", "m_uiCount", and
    // when there are filters a plain list "m_pFilter" of elements "a%u".
    // Lite: "m_sDescr", "m_uiCount", and when there are filters level
    // "m_pFilter" with one unnamed level per filter. Loading takes the
    // filters present, at most "m_uiCount" of them.
    kv_result SaveToVariant(CKvVariant& node) const;
    kv_result LoadFromVariant(const CKvVariant& node);
    kv_result SaveToLiteVariant(CKvLiteVariantW& writer) const;
    kv_result LoadFromLiteVariant(CKvLiteVariantR& reader);

private:
    std::vector<CKvOpticalFilter> m_aFilters;
    CKvStringW m_sDescr;
};

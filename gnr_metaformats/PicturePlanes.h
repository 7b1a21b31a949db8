// The planes (channels) of a picture: how many there are, how many colour
// components the whole pixel has, and for each plane how it was acquired.
// Saved in two layouts side by side so that older readers still load it.
#pragma once

#include <cstdint>

#include "gnr_metaformats/OpticalFilters.h"
#include "gnr_system/CKvLiteVariant.h"
#include "gnr_system/CKvRangeMask.h"
#include "gnr_system/CKvString.h"
#include "gnr_system/CKvVariant.h"
#include "gnr_system/KvResult.h"

struct SKvPicturePlanes;

// Bits of a plane's modality mask.
constexpr uint64_t kModalityFluorescence = 0x1;
constexpr uint64_t kModalityBrightfield = 0x2;
constexpr uint64_t kModalityContrastA = 0x10;       // first of two exclusive contrast kinds
constexpr uint64_t kModalityContrastB = 0x20;       // second of them
constexpr uint64_t kModalityCamera = 0x100;
constexpr uint64_t kModalityConfocalMask = 0xE00;   // any of the scanning-confocal detectors
constexpr uint64_t kModalityDetectorField = 0x3F00; // at most one detector kind
constexpr uint64_t kModalitySpectral = 0x200000;
constexpr uint64_t kModalityTD = 0x1000000;         // transmitted-light detector
constexpr uint64_t kModalityVirtualFilter = 0x4000000;
constexpr uint64_t kModalityKindField = 0x7E00000;  // at most one of spectral .. virtual filter
// Representation of a plane set that holds a high-dynamic-range picture.
constexpr uint32_t kRepresentationHDR = 2;

// Flags of SKvPicturePlanes::GetPlaneColors.
constexpr uint32_t kPlaneColorsFromProbe = 0x1;  // without a lut: the probe's colour where the plane has a valid probe
constexpr uint32_t kPlaneColorsWhiteTD = 0x2;    // transmitted-light planes (IsTD) white, whatever else says
// Flags of SKvPicturePlanes::ExtractPlanes.
constexpr uint32_t kExtractPlanesWhite = 0x1;    // extracted planes get colour 0xFFFFFF (shown grey)

// One plane of a picture.
struct SKvPicturePlaneDesc {
    // The old enumeration of modalities, still written beside the mask.
    enum EModality : uint32_t {
        eModFluorescence = 0,
        eModBrightfield = 1,
        eModConfocal = 2,
        eModConfocalB = 3,
        eModConfocalC = 4,
        eModMultiPhoton = 5,
        eModContrastA = 6,
        eModContrastB = 7,
        eModSpectral = 8,
        eModLegacy9 = 9,     // shares its mask with 11, so it reads back as 11
        eModKind10 = 10,
        eModKind11 = 11,
    };

    SKvPicturePlaneDesc() = default;
    SKvPicturePlaneDesc(const SKvPicturePlaneDesc&) = default;
    SKvPicturePlaneDesc& operator=(const SKvPicturePlaneDesc&) = default;
    virtual ~SKvPicturePlaneDesc() = default;

    uint32_t uiCompCount = 1;
    uint32_t uiSampleIndex = 0;
    double dObjCalibration1to1 = 0.0;
    int32_t sizeObjFullChipCx = 0;
    int32_t sizeObjFullChipCy = 0;
    uint64_t uiModalityMask = kModalityFluorescence;
    CKvFluorescentProbe pFluorescentProbe;
    CKvOpticalFilterPath pFilterPath;
    double dLampVoltage = 0.0;
    double dFadingCorr = 0.0;
    uint32_t uiColor = 0xFFFFFF;
    CKvStringW sDescription;
    double dAcqTime = 0.0;
    double dPinholeDiameter = -1.0;    // -1: unknown
    int32_t iChannelSeriesIndex = -1;  // -1: none

    // ---- Modality
    bool IsFlorescence() const { return (uiModalityMask & kModalityFluorescence) != 0; }
    bool IsBrightfield() const { return (uiModalityMask & kModalityBrightfield) != 0; }
    bool IsFromCamera() const { return (uiModalityMask & kModalityCamera) != 0; }
    bool IsFromConfocal() const { return (uiModalityMask & kModalityConfocalMask) != 0; }
    bool IsSpectral() const { return (uiModalityMask & kModalitySpectral) != 0; }
    bool IsVirtualFilter() const { return (uiModalityMask & kModalityVirtualFilter) != 0; }
    // Transmitted-light detector, or a brightfield plane of one component.
    bool IsTD() const { return (uiModalityMask & kModalityTD) != 0 || (IsBrightfield() && uiCompCount == 1); }
    // Only plain fluorescence or brightfield planes (from a camera or not) may change modality.
    bool IsModalityChangeAllowed() const;

    static bool IsModalityMonochrome(uint64_t mask) { return (mask & kModalityFluorescence) != 0; }
    static uint64_t TranslateModalityToMask(uint32_t modality);
    static uint32_t TranslateMaskToModality(uint64_t mask);
    static bool IsModalityMaskValid(uint64_t mask);
    // The mask a plane of `componentCount` components gets when its own is invalid.
    static uint64_t RepairedModalityMask(uint32_t componentCount);

    // ---- Arrays: `count` default descriptors (null for 0; KV_ERR_OUT_OF_MEMORY when memory runs out),
    // freed again with FreeArray (which nulls the pointer).
    static kv_result AllocArray(SKvPicturePlaneDesc*& array, uint32_t count);
    static void FreeArray(SKvPicturePlaneDesc*& array);
    static void CopyArray(SKvPicturePlaneDesc* dst, const SKvPicturePlaneDesc* src, uint32_t count);
    static void Copy(SKvPicturePlaneDesc& dst, const SKvPicturePlaneDesc& src) { dst = src; }

    // ---- Serialisation. The current form (run type "RKvPicturePlaneDescV1_2")
    // carries every field. The old form (run type "RKvPicturePlaneDescV1_1",
    // an element of "sPlane") carries the modality as "eModality" and no
    // sample index, pinhole or channel series index; it is saved from the
    // whole plane set (KV_ERR_FAILED when `index` is out of range). Loading accepts the
    // three stored versions and repairs an invalid mask.
    static kv_result SaveToVariant(CKvVariant& node, const SKvPicturePlaneDesc& desc);
    static kv_result SaveToVariantOld(CKvVariant& node, const SKvPicturePlanes& planes, uint32_t index);
    static kv_result LoadFromVariant(SKvPicturePlaneDesc& desc, const CKvVariant& node);
    // Lite: the keys inside the level the caller opened or entered.
    static kv_result SaveToLiteVariant(CKvLiteVariantW& writer, const SKvPicturePlaneDesc& desc);
    static kv_result SaveToLiteVariantOld(CKvLiteVariantW& writer, const SKvPicturePlanes& planes, uint32_t index);
    static kv_result LoadFromLiteVariant(SKvPicturePlaneDesc& desc, CKvLiteVariantR& reader);
};

// The plane set of a picture.
struct SKvPicturePlanes {
    SKvPicturePlanes() = default;
    SKvPicturePlanes(const SKvPicturePlanes& other);
    SKvPicturePlanes& operator=(const SKvPicturePlanes& other);
    ~SKvPicturePlanes();

    uint32_t uiCount = 0;                     // number of descriptors in pPlanes
    uint32_t uiCompCount = 0;                 // components of the whole pixel
    SKvPicturePlaneDesc* pPlanes = nullptr;   // owned, uiCount long; null when 0
    uint32_t uiSampleCount = 0;               // number of per-sample setting slots
    uint8_t* pSampleSettings = nullptr;       // owned, uiSampleCount bytes; null when 0
    CKvStringW sDescription;
    uint32_t eRepresentation = 0;             // 0 normal, kRepresentationHDR

    // ---- Memory. Alloc replaces the content by `planeCount` default
    // descriptors and `sampleCount` zeroed setting slots, with uiCompCount 0
    // (KV_ERR_OUT_OF_MEMORY when memory runs out, the set then empty). Free releases both arrays and
    // zeroes the three counts; description and representation stay. Copy
    // deep-copies (KV_ERR_OUT_OF_MEMORY, `dst` unchanged).
    static kv_result Alloc(SKvPicturePlanes& planes, uint32_t planeCount, uint32_t sampleCount);
    static void Free(SKvPicturePlanes& planes);
    static kv_result Copy(SKvPicturePlanes& dst, const SKvPicturePlanes& src);
    // Exchanges the whole content of two sets; never fails.
    static void Swap(SKvPicturePlanes& a, SKvPicturePlanes& b) noexcept;

    // The settings slot of plane `index`: null when the index is not below
    // the plane count or the plane's sample index is not below the sample count.
    const uint8_t* GetPlaneSettings(uint32_t index) const;
    uint8_t* GetPlaneSettings(uint32_t index);
    // This model keeps no optical-configuration or camera names: always empty.
    static CKvStringW GetPlaneOCName(const SKvPicturePlanes& planes, uint32_t index);
    static CKvStringW GetPlaneCameraUserName(const SKvPicturePlanes& planes, uint32_t index);

    bool IsHDR() const { return eRepresentation == kRepresentationHDR; }
    bool IsSpectral() const;
    kv_result ConvertToSpectral();

    static bool IsCompatible(const SKvPicturePlanes& a, const SKvPicturePlanes& b);
    static bool IsEqual(const SKvPicturePlanes& a, const SKvPicturePlanes& b);
    static bool IsPlaneEqual(const SKvPicturePlanes& a, uint32_t indexA, const SKvPicturePlanes& b, uint32_t indexB);

    // Planes that are not brightfield, counting only those `mask` selects when
    // given. A channel is a plane here, so both answer the same.
    static uint32_t GetNonTransmittedPlanesCount(const SKvPicturePlanes& planes, const CKvRangeMask* mask = nullptr);
    static uint32_t GetNonTransmittedChannelCount(const SKvPicturePlanes& planes, const CKvRangeMask* mask = nullptr);
    // One colour per plane `mask` selects (all planes without a mask), in
    // plane order, into `colours` (room for the plane count); answers how many
    // were written (0 for null `colours`). A plane's colour is lut[plane index]
    // when `lut` (plane-count long) is given, else its uiColor, or its probe's
    // colour with kPlaneColorsFromProbe; kPlaneColorsWhiteTD then whitens
    // transmitted-light planes. Colours are cut to 24 bits.
    static uint32_t GetPlaneColors(const SKvPicturePlanes& planes, uint32_t* colours, const CKvRangeMask* mask,
                                   uint32_t flag, const uint32_t* lut);
    // The components of the planes `mask` selects (indices past the planes ignored).
    static uint32_t MaskedSampleCount(const SKvPicturePlanes& planes, const CKvRangeMask& mask);

    // One plane (fluorescence, white, "Mono" / brightfield RGB "Brightfield"),
    // representation 0, one settings slot, no set description. KV_ERR_OUT_OF_MEMORY.
    static kv_result MakeMono(SKvPicturePlanes& planes);
    static kv_result MakeRGB(SKvPicturePlanes& planes);
    // Makes `planes` describe a pixel of `componentCount` components, as a
    // file is opened. Planes whose component counts (none 0) add up to it are
    // kept; as many planes as components become one component each, keeping
    // the rest of their description (an invalid mask repaired). Otherwise the
    // set is rebuilt: empty for 0, MakeMono for 1, MakeRGB for 3, else one
    // fluorescence plane per component, "Channel 1", "Channel 2", ... in red,
    // green, blue, cyan, magenta, yellow (repeating), or above 1024 components
    // (a damaged count) a single plane "Channels" holding them all. Kept
    // planes get sample indices that follow each other, uiCompCount set, and
    // settings slots up to the last sample index. KV_ERR_OUT_OF_MEMORY when memory runs out.
    static kv_result MakeCompatible(SKvPicturePlanes& planes, uint32_t componentCount);
    // Appends copies of the planes of `src` (those `mask` selects; indices
    // past its planes ignored) to `dst`. The result's sample indices follow
    // each other, uiCompCount is the sum of all components, each plane keeps
    // the settings slot it had (a zeroed slot when it had none), and the
    // description and representation stay those of `dst` (of `src` when
    // `dst` was empty). `dst` may be `src`. KV_ERR_OUT_OF_MEMORY when memory runs out, KV_ERR_INVALID_ARG when the
    // components would not fit 32 bits (`dst` unchanged either way).
    static kv_result MergePlanes(SKvPicturePlanes& dst, const SKvPicturePlanes& src);
    static kv_result MergePlanes(SKvPicturePlanes& dst, const SKvPicturePlanes& src, const CKvRangeMask& mask);
    // `dst` becomes copies of the planes of `src` that `mask` selects,
    // renumbered and with slots as in MergePlanes, and the description and
    // representation of `src`; an empty selection empties it. With
    // kExtractPlanesWhite in `flag` the extracted planes get colour 0xFFFFFF.
    static kv_result ExtractPlanes(SKvPicturePlanes& dst, const SKvPicturePlanes& src, const CKvRangeMask& mask,
                                   uint32_t flag);

    // ---- Serialisation: tree under run type "RKvPicturePlanes" with both
    // plane layouts, and the lite form inside the level the caller opened or
    // entered. Loading leaves the planes empty (result 0) when the stored
    // plane count disagrees with the stored list, and brings back no sample
    // settings (MakeCompatible gives them again).
    static kv_result SaveToVariant(CKvVariant& node, const SKvPicturePlanes& planes);
    static kv_result LoadFromVariant(SKvPicturePlanes& planes, const CKvVariant& node);
    static kv_result SaveToLiteVariant(CKvLiteVariantW& writer, const SKvPicturePlanes& planes);
    static kv_result LoadFromLiteVariant(SKvPicturePlanes& planes, CKvLiteVariantR& reader);
};

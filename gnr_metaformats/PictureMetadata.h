// The description of a picture: when and where it was taken, the stage
// position, calibration, objective, planes, physical variables and the
// stage-to-image transform. Saved per file and per frame, as a variant tree
// (run type "RKvPictureMetadata") and as a lite variant (level "SKvPictureMetadata").
#pragma once

#include <cstdint>

#include "gnr_metaformats/PicturePlanes.h"
#include "gnr_system/CKvLiteVariant.h"
#include "gnr_system/CKvString.h"
#include "gnr_system/CKvVariant.h"
#include "gnr_system/KvResult.h"

// A named physical quantity recorded with a picture.
struct SKvPhysicalVariable {
    CKvStringW wsName;
    uint32_t uiIntepretation = 0;  // what the value means; the codes belong to the acquiring program
    double dValue = 0.0;
};

// Meaning of the picture axes: the X axis defaults to space X, the Y axis to space Y.
constexpr int32_t kPictureAxisX = 0;
constexpr int32_t kPictureAxisY = 1;
// Room temperature, the default specimen temperature in kelvin.
constexpr double kDefaultTemperatureK = 293.0;

struct SKvPictureMetadata {
    SKvPictureMetadata() { SetToDefault(); }
    SKvPictureMetadata(const SKvPictureMetadata& other);
    SKvPictureMetadata& operator=(const SKvPictureMetadata& other);
    ~SKvPictureMetadata();

    double dTimeAbsolute;      // milliseconds since the Unix epoch
    double dTimeMSec;          // milliseconds since the start of the acquisition
    double dXPos;              // stage position
    double dYPos;
    uint32_t uiRow;
    uint32_t uiCol;
    double dZPos;
    bool bZPosAbsolute;
    double dAngle;
    SKvPicturePlanes sPicturePlanes;
    double dTemperK;
    double dCalibration;       // -1: unknown
    double dAspect;            // -1: unknown
    bool bCalibrated;
    CKvStringW wsObjectiveName;
    double dObjectiveMag;      // -1 for each objective value: unknown
    double dObjectiveNA;
    double dRefractIndex1;
    double dRefractIndex2;
    double dZoom;
    double dProjectiveMag;
    uint32_t uiPhysicalVarCount = 0;
    SKvPhysicalVariable* pPhysicalVar = nullptr;  // owned, uiPhysicalVarCount long; null when none
    CKvStringW wsCustomData;
    int32_t ePictureXAxis;
    int32_t ePictureYAxis;
    double dTimeAxisCalibration;
    double dZAxisCalibration;
    // Stage-to-image transform, stored column by column.
    double dStgLgCT11;
    double dStgLgCT21;
    double dStgLgCT12;
    double dStgLgCT22;

    // Absolute time now (whole seconds, in milliseconds), 293 K, calibration,
    // aspect and objective values -1, identity transform, no planes, no
    // physical variables.
    void SetToDefault();
    // Deep copy, planes and physical variables included; KV_ERR_OUT_OF_MEMORY when memory runs out
    // (`dst` then unchanged).
    static kv_result Copy(SKvPictureMetadata& dst, const SKvPictureMetadata& src);
    // Replaces the physical variables by `count` copies from `variables`; KV_ERR_OUT_OF_MEMORY.
    static kv_result SetPhysicalVariables(SKvPictureMetadata& meta, const SKvPhysicalVariable* variables,
                                          uint32_t count);

    // Stores a calibration given at objective magnification `magA` (X) and
    // `magB` (Y) as the picture's own: zero zoom or projective magnification
    // count as 1, non-positive magnifications as 1. A zero calibration marks
    // the picture uncalibrated and resets the axes. `objectiveName` may be null.
    static kv_result SetCalibration(SKvPictureMetadata& meta, double calibration, double aspect,
                                    const wchar_t* objectiveName, double magA, double magB, double projectiveMag,
                                    double zoom);

    // Loading is lenient: keys that are missing or of an unusable type keep
    // the field's value. The old key "dPinholeRadius", when above 0, gives
    // every plane a pinhole diameter of twice the radius. Wrong run type or
    // missing level: KV_ERR_INVALID_ARG / KV_ERR_FAILED and nothing changed.
    static kv_result SaveToVariant(CKvVariant& node, const SKvPictureMetadata& meta);
    static kv_result LoadFromVariant(SKvPictureMetadata& meta, const CKvVariant& node);
    // Opens (enters) the level "SKvPictureMetadata" in the current level.
    static kv_result SaveToLiteVariant(CKvLiteVariantW& writer, const SKvPictureMetadata& meta);
    static kv_result LoadFromLiteVariant(SKvPictureMetadata& meta, CKvLiteVariantR& reader);

    // Exchanges the whole content; never fails.
    friend void swap(SKvPictureMetadata& a, SKvPictureMetadata& b) noexcept;

private:
    void FreePhysicalVariables();
};

// The command that shows what the frames of a file are: the picture metadata
// (calibration, objective, stage position, planes with their light paths).
#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

#include "fileformat/QV8Layout.h"
#include "gnr_metaformats/PictureMetadata.h"
#include "tools/qv8/Qv8Command.h"
#include "tools/qv8/Qv8Json.h"

namespace {

std::string Number(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.10g", value);
    return text;
}

std::string Hex(uint64_t value, int digits) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%0*" PRIX64, digits, value);
    return text;
}

std::string EmissionText(const SKvPicturePlaneDesc& plane) {
    CKvStringW text;
    plane.pFilterPath.GetEmissionWavelengthDescription(text);
    return Utf8(text);
}

std::string PlanesText(const SKvPicturePlanes& planes) {
    std::string out = "planes: " + std::to_string(planes.uiCount) + " (" + std::to_string(planes.uiCompCount) +
                      " components" + (planes.IsHDR() ? ", HDR" : "") + ")\n";
    for (uint32_t i = 0; i < planes.uiCount; ++i) {
        const SKvPicturePlaneDesc& p = planes.pPlanes[i];
        out += "  " + std::to_string(i) + ": \"" + Utf8(p.sDescription) + "\", " + std::to_string(p.uiCompCount) +
               " component(s) from " + std::to_string(p.uiSampleIndex) + ", " +
               (p.IsBrightfield() ? "brightfield" : "fluorescence") + ", modality " + Hex(p.uiModalityMask, 1) +
               ", colour " + Hex(p.uiColor, 6);
        if (!p.pFluorescentProbe.GetName().IsEmpty()) out += ", probe \"" + Utf8(p.pFluorescentProbe.GetName()) + "\"";
        const std::string emission = EmissionText(p);
        if (!emission.empty()) out += ", emission " + emission + " nm";
        if (p.dPinholeDiameter >= 0.0) out += ", pinhole " + Number(p.dPinholeDiameter);
        out += "\n";
    }
    return out;
}

std::string MetadataText(const std::string& chunk, const SKvPictureMetadata& m) {
    std::string out = "chunk: " + chunk + "\n";
    out += "time: absolute " + Number(m.dTimeAbsolute) + " ms, relative " + Number(m.dTimeMSec) + " ms\n";
    out += "stage: x " + Number(m.dXPos) + ", y " + Number(m.dYPos) + ", z " + Number(m.dZPos) +
           (m.bZPosAbsolute ? " (absolute)" : " (relative)") + ", angle " + Number(m.dAngle) + "\n";
    out += "calibration: " + (m.bCalibrated ? Number(m.dCalibration) + " per pixel, aspect " + Number(m.dAspect)
                                            : std::string("none")) + "\n";
    out += "objective: \"" + Utf8(m.wsObjectiveName) + "\", magnification " + Number(m.dObjectiveMag) + ", NA " +
           Number(m.dObjectiveNA) + ", zoom " + Number(m.dZoom) + ", projective " + Number(m.dProjectiveMag) + "\n";
    out += "temperature: " + Number(m.dTemperK) + " K\n";
    out += PlanesText(m.sPicturePlanes);
    for (uint32_t i = 0; i < m.uiPhysicalVarCount; ++i) {
        const SKvPhysicalVariable& v = m.pPhysicalVar[i];
        out += "variable: \"" + Utf8(v.wsName) + "\" = " + Number(v.dValue) + " (interpretation " +
               std::to_string(v.uiIntepretation) + ")\n";
    }
    return out;
}

std::string PlanesJson(const SKvPicturePlanes& planes) {
    std::string out = "[";
    for (uint32_t i = 0; i < planes.uiCount; ++i) {
        const SKvPicturePlaneDesc& p = planes.pPlanes[i];
        out += std::string(i ? "," : "") + "{\"name\":" + JsonString(Utf8(p.sDescription)) +
               ",\"components\":" + std::to_string(p.uiCompCount) + ",\"sampleIndex\":" +
               std::to_string(p.uiSampleIndex) + ",\"modalityMask\":" + std::to_string(p.uiModalityMask) +
               ",\"color\":" + std::to_string(p.uiColor) + ",\"probe\":" +
               JsonString(Utf8(p.pFluorescentProbe.GetName())) + ",\"emission\":" + JsonString(EmissionText(p)) +
               ",\"filters\":" + std::to_string(p.pFilterPath.GetCount()) + ",\"pinholeDiameter\":" +
               JsonNumber(p.dPinholeDiameter) + "}";
    }
    return out + "]";
}

std::string MetadataJson(const std::string& chunk, const SKvPictureMetadata& m) {
    std::string out = "{\"chunk\":" + JsonString(chunk) + ",\"timeAbsolute\":" + JsonNumber(m.dTimeAbsolute) +
                      ",\"timeRelative\":" + JsonNumber(m.dTimeMSec) + ",\"x\":" + JsonNumber(m.dXPos) +
                      ",\"y\":" + JsonNumber(m.dYPos) + ",\"z\":" + JsonNumber(m.dZPos) +
                      ",\"zAbsolute\":" + (m.bZPosAbsolute ? "true" : "false") +
                      ",\"calibrated\":" + (m.bCalibrated ? "true" : "false") +
                      ",\"calibration\":" + JsonNumber(m.dCalibration) + ",\"aspect\":" + JsonNumber(m.dAspect) +
                      ",\"objective\":" + JsonString(Utf8(m.wsObjectiveName)) +
                      ",\"magnification\":" + JsonNumber(m.dObjectiveMag) + ",\"na\":" + JsonNumber(m.dObjectiveNA) +
                      ",\"temperatureK\":" + JsonNumber(m.dTemperK) + ",\"components\":" +
                      std::to_string(m.sPicturePlanes.uiCompCount) + ",\"planes\":" + PlanesJson(m.sPicturePlanes) +
                      ",\"variables\":[";
    for (uint32_t i = 0; i < m.uiPhysicalVarCount; ++i) {
        const SKvPhysicalVariable& v = m.pPhysicalVar[i];
        out += std::string(i ? "," : "") + "{\"name\":" + JsonString(Utf8(v.wsName)) + ",\"interpretation\":" +
               std::to_string(v.uiIntepretation) + ",\"value\":" + JsonNumber(v.dValue) + "}";
    }
    return out + "]}\n";
}

// The chunk named on the command line, or the file's first picture-metadata
// chunk by frame index.
std::string ChooseChunk(const CKvFileChunker& chunker, const std::string& given) {
    if (!given.empty()) return ChunkNameArg(given);
    std::string best;
    uint32_t bestIndex = 0;
    KvQV8ForEachIndexedChunk(chunker.GetChunkMap(), kPictureMetaLVPrefix, [&](std::string_view name, uint32_t index) {
        if (best.empty() || index < bestIndex) {
            best = name;
            bestIndex = index;
        }
    });
    return best;
}

int RunMeta(const Qv8Args& args) {
    bool json;
    std::vector<std::string> positional;
    if (!SplitArgs(args, "--json", json, positional)) return kExitUsage;
    if (positional.empty() || positional.size() > 2) return kExitUsage;
    const std::string& file = positional[0];

    CKvFileChunker chunker;
    kv_result r = OpenForReading(chunker, file);
    if (r != KV_OK) return ReportOpenFailure(file, r, chunker);
    const std::string name = ChooseChunk(chunker, positional.size() == 2 ? positional[1] : std::string());
    if (name.empty()) {
        chunker.Finalize();
        return ReportFailure(file, "no picture-metadata chunk (\"ImageMetadataSeqLV|N!\")", KV_ERR_NOT_FOUND);
    }
    CKvLiteVariantR reader;
    r = chunker.GetChunk(reader, name.c_str());
    chunker.Finalize();
    if (r == KV_ERR_NOT_FOUND) return ReportFailure(file, "no chunk named \"" + name + "\"", r);
    if (r != KV_OK) return ReportFailure(file, "reading chunk \"" + name + "\" failed", r);
    reader.Reset();

    SKvPictureMetadata meta;
    r = SKvPictureMetadata::LoadFromLiteVariant(meta, reader);
    if (r != KV_OK) return ReportFailure(file, "chunk \"" + name + "\" holds no picture metadata", r);
    return PrintOrFail(json ? MetadataJson(name, meta) : MetadataText(name, meta));
}

}  // namespace

const SQv8Command kMetaCommand = {
    "meta", "show the picture metadata: calibration, objective, stage, planes",
    "usage: qv8 meta FILE [NAME] [--json]\n"
    "\n"
    "Decodes the picture metadata of FILE: the chunk NAME, or else the first\n"
    "\"ImageMetadataSeqLV|N!\" chunk (the final \"!\" of NAME may be left out).\n"
    "Shows times, stage position, calibration, objective, temperature, every\n"
    "plane (name, components, modality mask, colour, probe, emission band,\n"
    "pinhole) and the physical variables.\n"
    "\n"
    "  --json   one JSON object: chunk, timeAbsolute, timeRelative, x, y, z,\n"
    "           zAbsolute, calibrated, calibration, aspect, objective,\n"
    "           magnification, na, temperatureK, components, planes (name,\n"
    "           components, sampleIndex, modalityMask, color, probe, emission,\n"
    "           filters, pinholeDiameter) and variables (name, interpretation,\n"
    "           value). Numbers that are not finite are null.\n",
    RunMeta};

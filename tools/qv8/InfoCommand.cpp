// The command that summarises a QV8 file: frame shape and compression, the
// acquisition loops, channels, optics, times, events and text information;
// as text for people or as one JSON document for programs.
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <memory>
#include <vector>

#include "fileformat/CKvQV8InputFile.h"
#include "gnr_metaformats/ExperimentAPI.h"
#include "gnr_system/KvBytes.h"
#include "tools/qv8/Qv8Command.h"
#include "tools/qv8/Qv8ImageFile.h"
#include "tools/qv8/Qv8Json.h"

namespace {

// Summary of the acquisition times of the frames that have one (a writer
// stores a negative time for a frame without).
struct STimeSummary {
    uint32_t count = 0;
    double first = NAN, last = NAN;
    double minInterval = NAN, maxInterval = NAN;
    bool increasing = true;

    double Span() const { return last - first; }
    double MeanInterval() const { return count > 1 ? Span() / (count - 1) : NAN; }
};

// Everything the command shows, read once.
struct SFileFacts {
    std::string file;
    uint64_t fileSize = 0;
    std::string version;
    SKvImageAttributes attributes;
    uint64_t frameBytes = 0;   // frames found x frame size
    uint64_t storedBytes = 0;  // their pixel bytes as stored
    uint32_t framesFound = 0;
    std::unique_ptr<SKvExperiment> experiment;    // null when the file has none
    std::unique_ptr<SKvPictureMetadata> picture;  // null when the file has none
    std::unique_ptr<SKvImageTextInfo> text;       // null when the file has none
    std::string appVersion;
    std::unique_ptr<SKvExperimentRecord> events;  // null when the file has none
    STimeSummary times;
};

// ---- reading ----

// The stored size of every frame chunk.
void MeasureFrames(CKvQV8InputFile_V02& in, SFileFacts& facts) {
    std::vector<SKvStoredFrame> frames;
    if (in.GetStoredFrames(frames) != KV_OK) return;
    for (const SKvStoredFrame& frame : frames) {
        ++facts.framesFound;
        facts.frameBytes += facts.attributes.FrameSize();
        facts.storedBytes += frame.nStoredBytes;
    }
}

STimeSummary SummariseTimes(const CKvByteArray& data) {
    STimeSummary s;
    for (size_t at = 0; at + sizeof(double) <= data.GetSize(); at += sizeof(double)) {
        const double t = kvbytes::LoadF64(data.GetData() + at);
        if (!std::isfinite(t) || t < 0.0) continue;
        if (s.count > 0) {
            const double step = t - s.last;
            if (step <= 0.0) s.increasing = false;
            s.minInterval = s.count == 1 ? step : std::min(s.minInterval, step);
            s.maxInterval = s.count == 1 ? step : std::max(s.maxInterval, step);
        } else {
            s.first = t;
        }
        s.last = t;
        ++s.count;
    }
    return s;
}

// Reads one optional record: kept when the reader answers 0.
template <typename T, typename Read>
std::unique_ptr<T> ReadOptional(Read&& read) {
    auto record = std::make_unique<T>();
    return read(*record) == KV_OK ? std::move(record) : nullptr;
}

std::string ReadAppVersion(IKvInputImageFile& in) {
    CKvVariant tree;
    if (in.GetCustomDataVar(kAppInfoName, tree) != KV_OK) return "";
    const CKvVariant* version = tree.SearchFixedOneLevel(kAppInfoVersionKey);
    return version ? Utf8(version->GetCKvStringW()) : "";
}

void ReadMetadata(IKvInputImageFile& in, SFileFacts& f) {
    f.experiment = ReadOptional<SKvExperiment>([&](SKvExperiment& e) { return in.GetImageMetadata(e, nullptr); });
    f.picture = ReadOptional<SKvPictureMetadata>([&](SKvPictureMetadata& m) { return in.GetImageMetadata(0, m, nullptr); });
    f.text = ReadOptional<SKvImageTextInfo>([&](SKvImageTextInfo& t) { return in.GetImageTextInfo(t); });
    f.events = ReadOptional<SKvExperimentRecord>([&](SKvExperimentRecord& r) { return in.GetImageEvents(r, nullptr); });
    f.appVersion = ReadAppVersion(in);
    CKvByteArray times;
    if (in.GetCustomData(kAcqTimesName, times) == KV_OK) f.times = SummariseTimes(times);
}

// Fills `facts` from one opening of the file; kExitOk, or the failure reported.
int ReadFacts(const std::string& file, SFileFacts& facts) {
    facts.file = file;
    CQv8ImageFile image;
    if (OpenImageFile(file, image, facts.attributes) != kExitOk) return kExitFailure;
    CKvQV8InputFile_V02* qv8 = image.QV8();
    if (!qv8) return ReportFailure(file, "not a QV8 image file", KV_ERR_NOT_SUPPORTED);
    facts.version = qv8->GetVersionText().GetString();
    struct stat info;
    if (stat(file.c_str(), &info) == 0) facts.fileSize = static_cast<uint64_t>(info.st_size);
    MeasureFrames(*qv8, facts);
    ReadMetadata(*image, facts);
    return kExitOk;
}

// ---- shared wording ----

struct SLoopKind {
    const char* symbol;  // in the loop summary: "T 10 × XY 3"
    const char* name;    // in JSON
};

SLoopKind LoopKind(uint32_t type) {
    switch (type) {
        case SKvExperiment::eExpTimeLoop: return {"T", "time"};
        case SKvExperiment::eExpXYPosLoop: return {"XY", "xy"};
        case SKvExperiment::eExpXYDiscrLoop: return {"XY", "wells"};
        case SKvExperiment::eExpZStackLoop: return {"Z", "z"};
        case SKvExperiment::eExpPolarLoop: return {"A", "polar"};
        case SKvExperiment::eExpSpectLoop: return {"λ", "spectral"};
        case SKvExperiment::eExpCustomLoop: return {"C", "custom"};
        case SKvExperiment::eExpNETimeLoop: return {"T", "phases"};
        case SKvExperiment::eExpManualTimeLoop: return {"T", "manualTime"};
        default: return {"?", "unknown"};
    }
}

// The loop levels along the first branch of the tree, outermost first.
std::vector<const SKvExperiment*> LoopChain(const SKvExperiment* top) {
    std::vector<const SKvExperiment*> chain;
    for (const SKvExperiment* e = top; e && chain.size() < kExpMaxDepth;
         e = CKvExperimentAPI::GetNextLevelExperiment(e, 0))
        if (e->eType != SKvExperiment::eExpNone) chain.push_back(e);
    return chain;
}

std::string LoopsText(const SKvExperiment* top) {
    std::string text;
    for (const SKvExperiment* e : LoopChain(top))
        text += (text.empty() ? "" : " × ") + std::string(LoopKind(e->eType).symbol) + " " +
                std::to_string(CKvExperimentAPI::GetLoopSize(e));
    return text;
}

const char* CompressionName(uint32_t compression) {
    switch (compression) {
        case kCompressionZlib: return "zlib";
        case kCompressionNone: return "none";
        case kCompressionLossy: return "lossy";
        default: return "unknown";
    }
}

const char* EventMeaningName(uint32_t meaning) {
    static const char* const names[] = {"undefined", "userMark", "phaseChange", "stimulation", "command", "finish"};
    return meaning < sizeof names / sizeof names[0] ? names[meaning] : "unknown";
}

double CompressionRatio(const SFileFacts& f) {
    return f.storedBytes ? static_cast<double>(f.frameBytes) / static_cast<double>(f.storedBytes) : NAN;
}

uint32_t SignificantBits(const SKvImageAttributes& a) {
    return a.uiBpcSignificant ? a.uiBpcSignificant : a.uiBpcInMemory;
}

std::string RgbText(uint32_t colour) {  // stored as 0x00BBGGRR
    char text[8];
    std::snprintf(text, sizeof text, "#%02X%02X%02X", colour & 0xFF, (colour >> 8) & 0xFF, (colour >> 16) & 0xFF);
    return text;
}

std::string EmissionBand(const SKvPicturePlaneDesc& plane) {
    CKvStringW band;
    plane.pFilterPath.GetEmissionWavelengthDescription(band);
    return Utf8(band);
}

// A wavelength of 0 means the probe has no such spectrum.
double Wavelength(double nm) { return nm > 0.0 ? nm : NAN; }

std::string Number(double value, const char* format = "%g") {
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

// "2024-03-14 09:30:00.000 UTC" of milliseconds since the Unix epoch.
std::string UtcText(double ms) {
    const double whole = std::round(ms);  // so that 999.6 ms carries into the seconds
    const double seconds = std::floor(whole / 1000.0);
    const time_t since = static_cast<time_t>(seconds);
    struct tm parts;
    if (!std::isfinite(ms) || !gmtime_r(&since, &parts)) return "?";
    char text[48];
    const size_t n = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    std::snprintf(text + n, sizeof text - n, ".%03d UTC", static_cast<int>(whole - seconds * 1000.0));
    return text;
}

// "4 min 33.9 s" or "12.500 s".
std::string DurationText(double ms) {
    if (ms < 60000.0) return Number(ms / 1000.0, "%.3f s");
    const double tenths = std::round(ms / 100.0);
    const double minutes = std::floor(tenths / 600.0);
    return Number(minutes, "%.0f min ") + Number((tenths - minutes * 600.0) / 10.0, "%.1f s");
}

// ---- text ----

constexpr size_t kLabelWidth = 13;

// A label of the text form, padded to the column where values start.
std::string Label(const std::string& name) {
    return name + std::string(name.size() < kLabelWidth ? kLabelWidth - name.size() : 1, ' ');
}

std::string ShapeText(const SFileFacts& f) {
    const SKvImageAttributes& a = f.attributes;
    std::string text = Label("frames") + std::to_string(a.uiSequenceCount) + " of " + std::to_string(a.uiWidth) +
                       " x " + std::to_string(a.uiHeight) + " pixels, " + std::to_string(a.uiComp) +
                       " component(s) of " + std::to_string(a.uiBpcInMemory) + " bits";
    if (SignificantBits(a) != a.uiBpcInMemory) text += " (" + std::to_string(SignificantBits(a)) + " significant)";
    text += "\n" + Label("compression") + std::string(CompressionName(a.eCompression));
    if (a.eCompression == kCompressionZlib) text += " level " + std::to_string(KvQV8ZlibLevel(a.dCompressionParam));
    if (f.storedBytes)
        text += ", ratio " + Number(CompressionRatio(f), "%.2f") + " (" + std::to_string(f.frameBytes) +
                " bytes of pixels stored in " + std::to_string(f.storedBytes) + ")";
    return text + "\n";
}

std::string ChannelsText(const SKvPicturePlanes& planes) {
    std::string text;
    for (uint32_t i = 0; i < planes.uiCount; ++i) {
        const SKvPicturePlaneDesc& p = planes.pPlanes[i];
        text += Label(i ? "" : "channels") + Utf8(p.sDescription);
        const double emission = Wavelength(p.pFluorescentProbe.GetEmissionWavelength());
        if (std::isfinite(emission)) text += ", emission " + Number(emission) + " nm";
        const std::string band = EmissionBand(p);
        if (!band.empty()) text += ", filter " + band + " nm";
        text += ", colour " + RgbText(p.uiColor) + "\n";
    }
    return text;
}

std::string OpticsText(const SKvPictureMetadata& m) {
    std::string text = Label("calibration") + (m.bCalibrated ? Number(m.dCalibration) + " µm/pixel, aspect " + Number(m.dAspect)
                                                         : std::string("none")) + "\n";
    text += Label("objective") + (m.wsObjectiveName.IsEmpty() ? std::string("unknown") : Utf8(m.wsObjectiveName));
    if (m.dObjectiveMag > 0) text += ", " + Number(m.dObjectiveMag) + "x";
    if (m.dObjectiveNA > 0) text += ", NA " + Number(m.dObjectiveNA);
    return text + "\n";
}

std::string TimesText(const STimeSummary& t) {
    if (t.count == 0) return Label("time span") + "no acquisition times\n";
    return Label("time span") + DurationText(t.Span()) + ", " + UtcText(t.first) + " to " + UtcText(t.last) + " (" +
           std::to_string(t.count) + " frames with times)\n";
}

std::string EventsText(const SKvExperimentRecord& record) {
    std::string text = Label("events") + std::to_string(record.GetCount()) + "\n";
    for (uint32_t i = 0; i < record.GetCount(); ++i) {
        const SKvExperimentEvent& e = record[i];
        text += "  " + DurationText(e.dTime) + "  " + EventMeaningName(e.eMeaning);
        if (e.pDescription) text += "  " + Utf8(*e.pDescription);
        text += "\n";
    }
    return text;
}

std::string TextInfoText(const SFileFacts& f) {
    std::string text;
    for (uint32_t i = 0; f.text && i < kTextInfoItemCount; ++i)
        if (!f.text->aItems[i].IsEmpty()) text += Label("text item " + std::to_string(i)) + Utf8(f.text->aItems[i]) + "\n";
    if (!f.appVersion.empty()) text += Label("application") + f.appVersion + "\n";
    return text;
}

std::string InfoText(const SFileFacts& f) {
    std::string text = Label("file") + f.file + "\n" + Label("size") + std::to_string(f.fileSize) + " bytes\n" +
                       Label("version") + f.version + "\n" + ShapeText(f);
    const std::string loops = LoopsText(f.experiment.get());
    text += Label("loops") + (loops.empty() ? std::string("none") : loops) + "\n";
    if (f.picture) text += ChannelsText(f.picture->sPicturePlanes) + OpticsText(*f.picture);
    text += TimesText(f.times);
    if (f.events) text += EventsText(*f.events);
    return text + TextInfoText(f);
}

// ---- JSON ----

void AttributesJson(CQv8JsonWriter& j, const SKvImageAttributes& a) {
    j.Key("attributes").BeginObject();
    j.Field("uiWidth", a.uiWidth).Field("uiWidthBytes", a.uiWidthBytes).Field("uiHeight", a.uiHeight);
    j.Field("uiComp", a.uiComp).Field("uiBpcInMemory", a.uiBpcInMemory).Field("uiBpcSignificant", a.uiBpcSignificant);
    j.Field("ePixelType", a.ePixelType).Field("uiSequenceCount", a.uiSequenceCount);
    j.Field("uiTileWidth", a.uiTileWidth).Field("uiTileHeight", a.uiTileHeight);
    j.Field("eCompression", a.eCompression).Field("dCompressionParam", a.dCompressionParam);
    j.EndObject();
}

void SummaryJson(CQv8JsonWriter& j, const SFileFacts& f) {
    const SKvImageAttributes& a = f.attributes;
    j.Field("file", f.file).Field("fileSize", f.fileSize).Field("version", f.version);
    j.Field("frameCount", a.uiSequenceCount).Field("width", a.uiWidth).Field("height", a.uiHeight);
    j.Field("components", a.uiComp).Field("bits", a.uiBpcInMemory).Field("significantBits", SignificantBits(a));
    j.Field("compression", CompressionName(a.eCompression));
    if (a.eCompression == kCompressionZlib) j.Field("compressionLevel", KvQV8ZlibLevel(a.dCompressionParam));
    else j.NullField("compressionLevel");
    j.Field("framesStored", f.framesFound).Field("frameBytes", f.frameBytes).Field("storedFrameBytes", f.storedBytes);
    j.Field("compressionRatio", CompressionRatio(f)).Field("loops", LoopsText(f.experiment.get()));
    j.Field("timeSpanMs", f.times.count ? f.times.Span() : NAN);
}

// Member `name`: null without a record, else what `write` makes of it.
template <typename T, typename Write>
void OptionalJson(CQv8JsonWriter& j, const char* name, const T* record, Write&& write) {
    j.Key(name);
    if (record) write(*record);
    else j.Null();
}

void TextInfoJson(CQv8JsonWriter& j, const SKvImageTextInfo& text) {
    j.BeginObject().Key("items").BeginArray();
    for (const CKvStringW& item : text.aItems) j.Value(Utf8(item));
    j.EndArray().EndObject();
}

void PlaneJson(CQv8JsonWriter& j, const SKvPicturePlaneDesc& p) {
    j.BeginObject().Field("name", Utf8(p.sDescription)).Field("components", p.uiCompCount);
    j.Field("sampleIndex", p.uiSampleIndex).Field("modalityMask", p.uiModalityMask);
    j.Field("color", p.uiColor).Field("rgb", RgbText(p.uiColor));
    j.Field("probe", Utf8(p.pFluorescentProbe.GetName()));
    j.Field("excitationNm", Wavelength(p.pFluorescentProbe.GetExcitationWavelength()));
    j.Field("emissionNm", Wavelength(p.pFluorescentProbe.GetEmissionWavelength()));
    j.Field("emissionBand", EmissionBand(p)).EndObject();
}

void PictureJson(CQv8JsonWriter& j, const SKvPictureMetadata& m) {
    j.BeginObject().Field("calibrated", m.bCalibrated).Field("calibration", m.dCalibration);
    j.Field("aspect", m.dAspect).Field("objective", Utf8(m.wsObjectiveName));
    j.Field("magnification", m.dObjectiveMag).Field("na", m.dObjectiveNA).Field("refractiveIndex", m.dRefractIndex1);
    j.Field("zoom", m.dZoom).Field("temperatureK", m.dTemperK);
    j.Field("x", m.dXPos).Field("y", m.dYPos).Field("z", m.dZPos).Field("zAbsolute", m.bZPosAbsolute);
    j.Field("components", m.sPicturePlanes.uiCompCount).Key("planes").BeginArray();
    for (uint32_t i = 0; i < m.sPicturePlanes.uiCount; ++i) PlaneJson(j, m.sPicturePlanes.pPlanes[i]);
    j.EndArray().EndObject();
}

void TimeLoopJson(CQv8JsonWriter& j, const SKvExpTimeLoop& t) {
    j.Field("start", t.dStart).Field("period", t.dPeriod).Field("duration", t.dDuration);
}

void XYLoopJson(CQv8JsonWriter& j, const SKvExpXYPosLoop& xy) {
    j.Field("relative", xy.bRelativeXY).Key("points").BeginArray();
    for (const SKvExpXYPos& p : xy.Points)
        j.BeginObject().Field("x", p.dPosX).Field("y", p.dPosY).Field("z", p.dPosZ).Field("name", Utf8(p.dPosName)).EndObject();
    j.EndArray();
}

void WellsJson(CQv8JsonWriter& j, const SKvExpXYDiscrLoop& wells) {
    j.Key("rows").BeginArray();
    for (uint32_t row : wells.uiRow) j.Value(row);
    j.EndArray().Key("columns").BeginArray();
    for (uint32_t column : wells.uiCol) j.Value(column);
    j.EndArray();
}

void ZLoopJson(CQv8JsonWriter& j, const SKvExpZStackLoop& z) {
    j.Field("absolute", z.bAbsolute).Field("inverted", z.bZInverted).Field("low", z.dZLow).Field("high", z.dZHigh);
    j.Field("step", z.dZStep).Field("home", z.dZHome).Field("device", Utf8(z.wsZDevice));
}

void SpectralJson(CQv8JsonWriter& j, const SKvExpSpectLoop& s) {
    j.Key("channels").BeginArray();
    for (uint32_t i = 0; s.pPlanes && i < s.pPlanes->uiCount; ++i) j.Value(Utf8(s.pPlanes->pPlanes[i].sDescription));
    j.EndArray();
}

void PhasesJson(CQv8JsonWriter& j, const SKvExpNETimeLoop& phases) {
    j.Key("phases").BeginArray();
    for (const SKvExpTimeLoop& p : phases.pPeriod) {
        j.BeginObject().Field("name", Utf8(p.wsPhaseName)).Field("count", p.uiCount);
        TimeLoopJson(j, p);
        j.EndObject();
    }
    j.EndArray();
}

void LoopJson(CQv8JsonWriter& j, const SKvExperiment& e) {
    const SKvExpLoopPars& pars = e.uLoopPars;
    j.BeginObject().Field("kind", LoopKind(e.eType).name).Field("type", e.eType);
    j.Field("size", CKvExperimentAPI::GetLoopSize(&e)).Field("count", pars.uiCount);
    switch (e.eType) {
        case SKvExperiment::eExpTimeLoop:
        case SKvExperiment::eExpManualTimeLoop: TimeLoopJson(j, pars.TimeLoop); break;
        case SKvExperiment::eExpXYPosLoop: XYLoopJson(j, pars.XYPosLoop); break;
        case SKvExperiment::eExpXYDiscrLoop: WellsJson(j, pars.XYDiscrLoop); break;
        case SKvExperiment::eExpZStackLoop: ZLoopJson(j, pars.ZStackLoop); break;
        case SKvExperiment::eExpPolarLoop:
            j.Field("angleStart", pars.PolarLoop.dAngleStart).Field("angleFinish", pars.PolarLoop.dAngleFinish);
            break;
        case SKvExperiment::eExpSpectLoop: SpectralJson(j, pars.SpectLoop); break;
        case SKvExperiment::eExpCustomLoop: j.Field("description", Utf8(pars.CustomLoop.wsDescription)); break;
        case SKvExperiment::eExpNETimeLoop: PhasesJson(j, pars.NETimeLoop); break;
        default: break;
    }
    j.EndObject();
}

void ExperimentJson(CQv8JsonWriter& j, const SKvExperiment& e) {
    j.BeginObject().Field("imageCount", CKvExperimentAPI::GetAllImagesCount(&e));
    j.Field("application", Utf8(e.wsApplicationDesc)).Key("loops").BeginArray();
    for (const SKvExperiment* level : LoopChain(&e)) LoopJson(j, *level);
    j.EndArray().EndObject();
}

void EventJson(CQv8JsonWriter& j, const SKvExperimentEvent& e) {
    j.BeginObject().Field("id", e.uiID).Field("time", e.dTime).Field("time2", e.dTime2);
    j.Field("meaning", e.eMeaning).Field("meaningName", EventMeaningName(e.eMeaning));
    if (e.pDescription) j.Field("description", Utf8(*e.pDescription));
    else j.NullField("description");
    if (e.pAdditional) j.Field("additional", Utf8(*e.pAdditional));
    else j.NullField("additional");
    j.Key("stimulation");
    if (e.pStimulation)
        j.BeginObject().Field("type", e.pStimulation->eType).Field("length", e.pStimulation->uiLength)
            .Field("period", e.pStimulation->uiPeriod).EndObject();
    else
        j.Null();
    j.EndObject();
}

void EventsJson(CQv8JsonWriter& j, const SKvExperimentRecord& record) {
    j.BeginArray();
    for (uint32_t i = 0; i < record.GetCount(); ++i) EventJson(j, record[i]);
    j.EndArray();
}

void TimesJson(CQv8JsonWriter& j, const STimeSummary& t) {
    j.Key("acquisitionTimes").BeginObject().Field("count", t.count).Field("first", t.first).Field("last", t.last);
    j.Field("firstUtc", t.count ? UtcText(t.first) : "").Field("lastUtc", t.count ? UtcText(t.last) : "");
    j.Field("spanMs", t.count ? t.Span() : NAN).Field("minIntervalMs", t.minInterval);
    j.Field("maxIntervalMs", t.maxInterval).Field("meanIntervalMs", t.MeanInterval());
    j.Field("increasing", t.increasing).EndObject();
}

std::string InfoJson(const SFileFacts& f) {
    CQv8JsonWriter j;
    j.BeginObject();
    SummaryJson(j, f);
    AttributesJson(j, f.attributes);
    OptionalJson(j, "textInfo", f.text.get(), [&](const SKvImageTextInfo& t) { TextInfoJson(j, t); });
    j.Field("appVersion", f.appVersion);
    OptionalJson(j, "pictureMetadata", f.picture.get(), [&](const SKvPictureMetadata& m) { PictureJson(j, m); });
    OptionalJson(j, "experiment", f.experiment.get(), [&](const SKvExperiment& e) { ExperimentJson(j, e); });
    OptionalJson(j, "events", f.events.get(), [&](const SKvExperimentRecord& r) { EventsJson(j, r); });
    TimesJson(j, f.times);
    j.EndObject();
    return j.Text();
}

int RunInfo(const Qv8Args& args) {
    bool json;
    std::vector<std::string> positional;
    if (!SplitArgs(args, "--json", json, positional)) return kExitUsage;
    if (positional.size() != 1) return kExitUsage;
    SFileFacts facts;
    if (ReadFacts(positional[0], facts) != kExitOk) return kExitFailure;
    return PrintOrFail(json ? InfoJson(facts) : InfoText(facts));
}

}  // namespace

const SQv8Command kInfoCommand = {
    "info", "summary of a file: frames, compression, loops, channels, optics, times",
    "usage: qv8 info FILE [--json]\n"
    "\n"
    "Summarises FILE: file size and version, frame count and shape, compression\n"
    "and its ratio, the acquisition loops (outermost first, e.g. T 10 × XY 3 × Z 5),\n"
    "channels with their emission wavelengths, calibration and objective, the\n"
    "span of the acquisition times, the events and the text information.\n"
    "\n"
    "  --json   one JSON object instead (UTF-8, indented). Numbers that are\n"
    "           not finite or not known are null. Its members:\n"
    "    file, fileSize           the path as given; its size in bytes\n"
    "    version                  version text of the file's signature (\"Ver3.0\")\n"
    "    frameCount               frames the attributes announce\n"
    "    width, height            pixels\n"
    "    components               samples per pixel (channels, interleaved)\n"
    "    bits, significantBits    bits per sample in memory; of them significant\n"
    "    compression              \"zlib\", \"none\", \"lossy\" or \"unknown\"\n"
    "    compressionLevel         zlib level the frames were written at (the\n"
    "                             parameter taken into 1..9, 6 below 1); null\n"
    "                             unless zlib\n"
    "    framesStored             frames with a frame chunk in the file\n"
    "    frameBytes               framesStored x bytes of one frame\n"
    "    storedFrameBytes         pixel bytes of those chunks as stored\n"
    "    compressionRatio         frameBytes / storedFrameBytes\n"
    "    loops                    the loop summary of the text form (\"\" without)\n"
    "    timeSpanMs               last minus first acquisition time\n"
    "    attributes               the image attributes by their stored keys:\n"
    "                             uiWidth, uiWidthBytes, uiHeight, uiComp,\n"
    "                             uiBpcInMemory, uiBpcSignificant, ePixelType,\n"
    "                             uiSequenceCount, uiTileWidth, uiTileHeight,\n"
    "                             eCompression (0 zlib, 1 lossy, 2 none),\n"
    "                             dCompressionParam\n"
    "    textInfo                 {items: the 14 text items in key order}, or null\n"
    "    appVersion               version text of the writing application (\"\" if none)\n"
    "    pictureMetadata          null, or: calibrated, calibration (µm/pixel),\n"
    "                             aspect, objective, magnification, na,\n"
    "                             refractiveIndex, zoom, temperatureK, x, y, z\n"
    "                             (stage, µm), zAbsolute, components, planes: one\n"
    "                             per channel {name, components, sampleIndex,\n"
    "                             modalityMask, color (0x00BBGGRR), rgb (\"#RRGGBB\"),\n"
    "                             probe, excitationNm, emissionNm (probe peaks),\n"
    "                             emissionBand (emission filter, nm, as text)}\n"
    "    experiment               null, or: imageCount (frames the loops describe),\n"
    "                             application, loops: the levels of the first\n"
    "                             branch, outermost first, each {kind, type, size\n"
    "                             (items acquired), count (items planned), and by\n"
    "                             kind: time, manualTime: start, period, duration\n"
    "                             (ms); xy: relative, points [{x, y, z, name}];\n"
    "                             wells: rows, columns; z: absolute, inverted, low,\n"
    "                             high, step, home (µm), device; polar: angleStart,\n"
    "                             angleFinish; spectral: channels (names); custom:\n"
    "                             description; phases: phases [{name, count,\n"
    "                             start, period, duration}]}\n"
    "                             kind is one of time, xy, wells, z, polar,\n"
    "                             spectral, custom, phases, manualTime, unknown\n"
    "    events                   null, or the event log by time: [{id, time and\n"
    "                             time2 (ms from the start), meaning (code),\n"
    "                             meaningName (undefined, userMark, phaseChange,\n"
    "                             stimulation, command, finish, unknown),\n"
    "                             description, additional (null when absent),\n"
    "                             stimulation (null, or {type, length, period})}]\n"
    "    acquisitionTimes         over the frames that have a time: count, first,\n"
    "                             last (ms since 1970-01-01 UTC), firstUtc, lastUtc\n"
    "                             (as text, \"\" without times), spanMs,\n"
    "                             minIntervalMs, maxIntervalMs, meanIntervalMs\n"
    "                             between consecutive times, increasing (each\n"
    "                             time later than the one before)\n",
    RunInfo};

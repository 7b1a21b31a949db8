// The command that writes a realistic synthetic acquisition: a time lapse
// over several stage positions with a Z stack at each, two fluorescence
// channels per frame, with the experiment, picture metadata, acquisition
// times, text information and events an acquisition program records.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "fileformat/CKvImageFormatQV8.h"
#include "fileformat/QV8Layout.h"
#include "tools/common/SyntheticFrames.h"
#include "tools/qv8/Qv8Command.h"

namespace {

// The loops, outermost first; frame index = (t x positions + p) x planes + z.
constexpr uint32_t kTimePoints = 10;
constexpr uint32_t kPositions = 3;
constexpr uint32_t kPlanes = 5;
constexpr uint32_t kFrameCount = kTimePoints * kPositions * kPlanes;
constexpr uint32_t kChannels = 2;
constexpr uint32_t kMaxSide = 8192;

// Timing of the acquisition, in milliseconds: one round over the positions
// every period; moving the stage and taking a plane take about this long.
constexpr double kStartTime = 1710408600000.0;  // 2024-03-14 09:30:00 UTC
constexpr double kPeriod = 30000.0;
constexpr double kStageMove = 1500.0;
constexpr double kPlaneTime = 220.0;

// The generator's range: a 12-bit camera. 8-bit samples are its values / 16.
constexpr uint32_t kCameraMax = 4095;
constexpr uint32_t kCameraBits = 12;
constexpr int kEightBitShift = kCameraBits - 8;

// Optical setup.
constexpr double kCalibration = 0.1625;  // µm per pixel: 6.5 µm camera pixels behind a 40x objective
constexpr double kZStep = 0.9;           // µm
constexpr double kZHome = 1502.3;        // µm, focus at the middle plane
const wchar_t kApplicationVersion[] = L"qv8 create-sample 1.0";

struct SSampleOptions {
    std::string file;
    uint32_t width = 512;
    uint32_t height = 512;
    uint32_t bits = 16;
    uint32_t level = 0;  // zlib level, 0 for raw frames
};

struct SChannel {
    const wchar_t* name;
    double excitation, emission;   // peaks, nm
    double bandLow, bandHigh;      // emission filter, nm
    uint32_t colour;               // 0x00BBGGRR
};

const SChannel kChannelSetup[kChannels] = {
    {L"DAPI", 358.0, 461.0, 435.0, 485.0, 0xFF0000},
    {L"GFP", 488.0, 510.0, 500.0, 550.0, 0x00FF00},
};

struct SStagePoint {
    double x, y;
    const wchar_t* name;
};

const SStagePoint kStagePoints[kPositions] = {
    {-12450.5, 8320.0, L"A1 field 1"},
    {-11980.0, 8415.5, L"A1 field 2"},
    {-3520.25, 8290.75, L"A2 field 1"},
};

// ---- arguments ----

bool ParseSize(const std::string& text, uint32_t& width, uint32_t& height) {
    const size_t x = text.find('x');
    return x != std::string::npos && ParseUnsigned(text.substr(0, x), 1, kMaxSide, width) &&
           ParseUnsigned(text.substr(x + 1), 1, kMaxSide, height);
}

// Fills `options` from the command line; false for a usage error.
bool ParseSampleArgs(const Qv8Args& args, SSampleOptions& options) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        const bool hasValue = i + 1 < args.size();
        if (arg == "--compress" && hasValue) {
            if (!ParseUnsigned(args[++i], 1, 9, options.level)) return false;
        } else if (arg == "--size" && hasValue) {
            if (!ParseSize(args[++i], options.width, options.height)) return false;
        } else if (arg == "--bits" && hasValue) {
            if (!ParseUnsigned(args[++i], 8, 16, options.bits) || (options.bits != 8 && options.bits != 16)) return false;
        } else if (arg.empty() || arg[0] == '-' || !options.file.empty()) {
            return false;
        } else {
            options.file = arg;
        }
    }
    return !options.file.empty();
}

// ---- metadata ----

SKvImageAttributes SampleAttributes(const SSampleOptions& o) {
    SKvImageAttributes a;
    a.uiWidth = o.width;
    a.uiHeight = o.height;
    a.uiComp = kChannels;
    a.uiBpcInMemory = static_cast<uint8_t>(o.bits);
    a.uiBpcSignificant = static_cast<uint8_t>(o.bits == 8 ? 8 : kCameraBits);
    a.uiWidthBytes = (o.width * kChannels * (o.bits / 8) + 3) / 4 * 4;
    a.eCompression = o.level ? kCompressionZlib : kCompressionNone;
    a.dCompressionParam = o.level;
    return a;
}

// A new loop level of `count` items with `next` as its only next level.
std::unique_ptr<SKvExperiment> NewLevel(uint32_t type, uint32_t count, std::unique_ptr<SKvExperiment> next) {
    auto level = std::make_unique<SKvExperiment>();
    if (SKvExperiment::Init(*level, type, count) != KV_OK) throw std::bad_alloc();
    if (next) {
        if (SKvExperiment::AllocNextLevels(*level, 1) != KV_OK) throw std::bad_alloc();
        level->ppNextLevelEx[0] = next.release();
    }
    return level;
}

// Time lapse over stage points over a Z stack.
std::unique_ptr<SKvExperiment> SampleExperiment() {
    std::unique_ptr<SKvExperiment> z = NewLevel(SKvExperiment::eExpZStackLoop, kPlanes, nullptr);
    SKvExpZStackLoop& stack = z->uLoopPars.ZStackLoop;
    stack.bAbsolute = true;
    stack.dZStep = kZStep;
    stack.dZHome = kZHome;
    stack.dZLow = kZHome - kZStep * (kPlanes - 1) / 2;
    stack.dZHigh = kZHome + kZStep * (kPlanes - 1) / 2;
    stack.wsZDevice = L"Z drive";
    std::unique_ptr<SKvExperiment> xy = NewLevel(SKvExperiment::eExpXYPosLoop, kPositions, std::move(z));
    for (uint32_t p = 0; p < kPositions; ++p) {
        SKvExpXYPos& point = xy->uLoopPars.XYPosLoop.Points[p];
        point.dPosX = kStagePoints[p].x;
        point.dPosY = kStagePoints[p].y;
        point.dPosZ = kZHome;
        point.dPosName = kStagePoints[p].name;
    }
    std::unique_ptr<SKvExperiment> time = NewLevel(SKvExperiment::eExpTimeLoop, kTimePoints, std::move(xy));
    time->uLoopPars.TimeLoop.dPeriod = kPeriod;
    time->uLoopPars.TimeLoop.dDuration = kPeriod * (kTimePoints - 1);
    time->wsApplicationDesc = kApplicationVersion;
    return time;
}

// An emission filter passing [low, high] nm.
CKvOpticalFilter EmissionFilter(const SChannel& c) {
    CKvOpticalFilter filter;
    filter.SetName(CKvStringW(c.name) + L" emission");
    filter.SetPlacement(CKvOpticalFilter::eOfpEmission);
    filter.SetNature(CKvOpticalFilter::eOfnBandPass);
    filter.SetSpectrumType(CKvOpticalFilter::eOfsEmission);
    filter.SetColor(c.colour);
    filter.GetEmissionSpectrum().AddPoint({SKvOFSpectrumPoint::eSptRisingEdge, c.bandLow, 1.0});
    filter.GetEmissionSpectrum().AddPoint({SKvOFSpectrumPoint::eSptFallingEdge, c.bandHigh, 1.0});
    return filter;
}

void DescribeChannel(SKvPicturePlaneDesc& plane, const SChannel& c) {
    plane.sDescription = c.name;
    plane.uiColor = c.colour;
    plane.uiModalityMask = kModalityFluorescence | kModalityCamera;
    plane.pFluorescentProbe = CKvFluorescentProbe(c.name, c.colour);
    plane.pFluorescentProbe.GetExcitationSpectrum() = CKvOpticalFilterSpectrum(c.excitation, SKvOFSpectrumPoint::eSptPeak);
    plane.pFluorescentProbe.GetEmissionSpectrum() = CKvOpticalFilterSpectrum(c.emission, SKvOFSpectrumPoint::eSptPeak);
    plane.pFilterPath = CKvOpticalFilterPath(EmissionFilter(c));
}

SKvPictureMetadata SamplePictureMetadata() {
    SKvPictureMetadata m;
    m.dTimeAbsolute = kStartTime;
    m.dTimeMSec = 0.0;
    m.dXPos = kStagePoints[0].x;
    m.dYPos = kStagePoints[0].y;
    m.dZPos = kZHome;
    m.bZPosAbsolute = true;
    m.dTemperK = 310.15;  // 37 °C, live cells
    m.bCalibrated = true;
    m.dCalibration = kCalibration;
    m.dAspect = 1.0;
    m.wsObjectiveName = L"Plan Apo λ 40x/0.95";
    m.dObjectiveMag = 40.0;
    m.dObjectiveNA = 0.95;
    m.dRefractIndex1 = 1.0;
    m.dZoom = 1.0;
    m.dProjectiveMag = 1.0;
    if (SKvPicturePlanes::MakeCompatible(m.sPicturePlanes, kChannels) != KV_OK) throw std::bad_alloc();
    for (uint32_t c = 0; c < kChannels; ++c) DescribeChannel(m.sPicturePlanes.pPlanes[c], kChannelSetup[c]);
    return m;
}

SKvImageTextInfo SampleTextInfo() {
    SKvImageTextInfo info;
    info.aItems[0] = L"Synthetic acquisition: HeLa H2B-GFP, nuclei stained with DAPI";
    info.aItems[1] = L"qv8 create-sample";
    info.aItems[2] = L"2024-03-14 09:30:00 UTC";
    info.aItems[3] = L"Plan Apo λ 40x/0.95, 12-bit camera, 37 °C";
    info.wsAppVersion = kApplicationVersion;
    return info;
}

void AddEvent(SKvExperimentRecord& record, double time, uint32_t meaning, const wchar_t* text, const wchar_t* extra,
              uint32_t stimulation = SKvExperimentEvent::SKvStimulationDescription::eStimulationNone) {
    SKvExperimentEvent event;
    if (SKvExperimentEvent::Init(event, time, meaning, text, extra, 0) != KV_OK ||
        SKvExperimentEvent::SetStimulation(event, stimulation, 500, 0) != KV_OK ||
        SKvExperimentRecord::AddEvent(record, event) == 0)
        throw std::bad_alloc();
}

SKvExperimentRecord SampleEvents() {
    SKvExperimentRecord record;
    AddEvent(record, 95000.0, SKvExperimentEvent::eMeaningUserMark, L"medium exchanged (\"fresh DMEM\")", nullptr);
    AddEvent(record, 151000.0, SKvExperimentEvent::eMeaningStimulation, L"photo-activation 405 nm", L"500 ms",
             SKvExperimentEvent::SKvStimulationDescription::eStimulationLight);
    AddEvent(record, 212500.0, SKvExperimentEvent::eMeaningCommand, L"nocodazole 10 µM added", nullptr);
    return record;
}

// The application that wrote the file, where readers look for it.
CKvVariant ApplicationInfo() {
    CKvVariant tree{CKvListVariant(), CKvStringW(kAppInfoName)};
    tree.Append(CKvVariant(kApplicationVersion, CKvStringW(kAppInfoVersionKey)));
    return tree;
}

// Where frame `index` lies in the loops.
struct SFramePlace {
    uint32_t time, position, plane;
};

SFramePlace PlaceOf(uint32_t index) {
    return {index / (kPositions * kPlanes), index / kPlanes % kPositions, index % kPlanes};
}

// Absolute time of frame `index`: the round of its time point, the stage
// moves before its position, its plane, and up to 14 ms of jitter.
double FrameTime(uint32_t index) {
    const SFramePlace at = PlaceOf(index);
    const double jitter = index * 7919u % 15;
    return kStartTime + at.time * kPeriod + at.position * kStageMove + at.plane * kPlaneTime + jitter;
}

kv_result WriteMetadata(IKvOutputImageFile& out, const SSampleOptions& options) {
    return KvNoThrow([&] {
        kv_result r = out.SetImageAttributes(SampleAttributes(options));
        if (r == KV_OK) r = out.SetImageMetadata(*SampleExperiment(), nullptr);
        if (r == KV_OK) r = out.SetImageMetadata(0, SamplePictureMetadata(), nullptr);
        if (r == KV_OK) r = out.SetImageTextInfo(SampleTextInfo());
        if (r == KV_OK) r = out.SetImageEvents(SampleEvents(), nullptr);
        const CKvVariant appInfo = ApplicationInfo();
        if (r == KV_OK) r = out.SetCustomDataVar(kAppInfoName, &appInfo);
        return r;
    });
}

// ---- frames ----

// The synthetic frame `index` in the file's sample size, rows padded to `widthBytes`.
void RenderFrame(const SSampleOptions& o, uint32_t index, uint32_t widthBytes, std::vector<uint16_t>& samples,
                 std::vector<uint8_t>& frame) {
    SSyntheticScene scene;
    scene.width = o.width;
    scene.height = o.height;
    scene.components = kChannels;
    scene.maxValue = kCameraMax;
    const SFramePlace at = PlaceOf(index);
    FillSyntheticFrame(scene, at.time, at.position, at.plane, samples.data());
    const size_t rowSamples = static_cast<size_t>(o.width) * kChannels;
    for (uint32_t y = 0; y < o.height; ++y) {
        const uint16_t* in = samples.data() + y * rowSamples;
        uint8_t* row = frame.data() + static_cast<size_t>(y) * widthBytes;
        if (o.bits == 16) {
            std::memcpy(row, in, rowSamples * sizeof(uint16_t));
        } else {
            for (size_t i = 0; i < rowSamples; ++i) row[i] = static_cast<uint8_t>(in[i] >> kEightBitShift);
        }
    }
}

kv_result WriteFrames(IKvOutputImageFile& out, const SSampleOptions& options) {
    const SKvImageAttributes shape = SampleAttributes(options);
    std::vector<uint16_t> samples(static_cast<size_t>(options.width) * options.height * kChannels);
    std::vector<uint8_t> frame(shape.FrameSize(), 0);
    CQv8ProgressBar bar("writing frames");
    for (uint32_t i = 0; i < kFrameCount; ++i) {
        RenderFrame(options, i, shape.uiWidthBytes, samples, frame);
        kv_result r = out.SetAcqTime(FrameTime(i));
        if (r == KV_OK) r = out.FlushData(i, frame.data(), nullptr, nullptr);
        if (r != KV_OK) return r;
        bar.Update((i + 1.0) / kFrameCount);
    }
    return KV_OK;
}

// Writes the whole file through the format's output file.
kv_result WriteSample(const SSampleOptions& options, std::string& failedStep) {
    IKvOutputImageFile* out = nullptr;
    failedStep = "cannot create the file; is its directory there and writable?";
    kv_result r = CKvImageFormatQV8::Shared()->CreateOutputImageFile(CKvStringUtils::UTF8toW(options.file.c_str()), out);
    if (r != KV_OK) return r;
    r = WriteMetadata(*out, options);
    if (r != KV_OK) failedStep = "writing the metadata failed";
    if (r == KV_OK) {
        r = KvNoThrow([&] { return WriteFrames(*out, options); });
        if (r != KV_OK) failedStep = "writing the frames failed";
    }
    if (r == KV_OK) {
        r = out->Finalize();
        if (r != KV_OK) failedStep = "finishing the file failed";
    }
    out->Release();
    return r;
}

int RunCreateSample(const Qv8Args& args) {
    SSampleOptions options;
    if (!ParseSampleArgs(args, options)) return kExitUsage;
    struct stat info;
    if (stat(options.file.c_str(), &info) == 0) {
        // The writer appends to an existing file; a sample always starts afresh.
        if (!S_ISREG(info.st_mode)) return ReportFailure(options.file, "exists and is not a regular file", KV_ERR_FAILED);
        if (std::remove(options.file.c_str()) != 0)
            return ReportFailure(options.file, std::string("cannot replace: ") + std::strerror(errno), KV_ERR_FAILED);
    }
    std::string failedStep;
    const kv_result r = WriteSample(options, failedStep);
    if (r == KV_OK) return kExitOk;
    std::remove(options.file.c_str());  // a partial sample is of no use
    return ReportFailure(options.file, failedStep, r);
}

}  // namespace

const SQv8Command kCreateSampleCommand = {
    "create-sample", "write a synthetic time-lapse / multi-position / Z-stack acquisition",
    "usage: qv8 create-sample OUT [--compress LEVEL] [--size WxH] [--bits 8|16]\n"
    "\n"
    "Writes a new QV8 file OUT (replacing it) holding a synthetic acquisition:\n"
    "10 time points x 3 stage positions x 5 Z planes = 150 frames, each with two\n"
    "fluorescence channels (\"DAPI\", \"GFP\") as interleaved components, and the\n"
    "experiment loops, picture metadata (planes, calibration, objective),\n"
    "acquisition times, text information, events and application version.\n"
    "\n"
    "Frame i is time point i / 15, position (i / 5) % 3, plane i % 5. Its pixels\n"
    "are FillSyntheticFrame (tools/common/SyntheticFrames.h) of seed 1, two\n"
    "components, maxValue 4095 (12 significant bits); with --bits 8 each sample\n"
    "is that value divided by 16.\n"
    "\n"
    "  --compress LEVEL   zlib-compress every frame at LEVEL (1..9); raw without\n"
    "  --size WxH         frame size in pixels, each side 1..8192 (default 512x512)\n"
    "  --bits 8|16        bits per sample (default 16)\n",
    RunCreateSample};

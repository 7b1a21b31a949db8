// Writes seed inputs for the fuzz targets with the library's own writers:
// make_seeds DIR creates DIR/chunker/ with small containers, finished,
// unfinished and damaged, and DIR/record/, DIR/picturemeta/ and
// DIR/experiment/ with metadata, DIR/qv8file/ with whole QV8 files, and
// DIR/framecodec/ with zlib streams of a frame.
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "fileformat/CKvFileChunker.h"
#include "fileformat/CKvImageFormatQV8.h"
#include "fileformat/KvFrameCodec.h"
#include "gnr_system/KvBytes.h"
#include "gnr_metaformats/ExperimentRecord.h"
#include "gnr_metaformats/PictureMetadata.h"
#include "gnr_metaformats/PictureSequence.h"
#include "gnr_system/CKvSerializerXMLString.h"

namespace {

bool Save(const std::string& path, const uint8_t* data, size_t size) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    const bool ok = std::fwrite(data, 1, size, f) == size;
    return std::fclose(f) == 0 && ok;
}

// A container with a few chunks of each kind, in memory.
CKvByteArray MakeContainer(bool finish) {
    CKvByteArray storage;
    CKvFileChunker chunker;
    CKvStringA version("Ver3.0");
    chunker.Initialize_Memory(storage, false, false, version);
    const double time = 1.5;
    std::vector<uint8_t> pixels(5000);
    for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<uint8_t>(i * 7);
    chunker.SetChunk(&time, sizeof time, pixels.data(), static_cast<uint32_t>(pixels.size()), "ImageDataSeq|0");
    chunker.SetChunk("attributes", 10, "ImageAttributesLV");
    chunker.SetChunkPart(&time, sizeof time, pixels.data(), 100, 300, false, "Streamed");
    chunker.SetChunkPart(nullptr, 0, pixels.data(), 200, 0, true, "Streamed");
    chunker.SetChunk(nullptr, 0, "Empty");
    if (finish) chunker.Finalize();
    return storage;
}

// Seeds for "record": an event log, and recorded data and a device setup in
// one level, as the experiment stores them.
bool SaveLite(const std::string& path, CKvLiteVariantW& writer) {
    CKvLiteVariantR out;
    return writer.Finalize(out, 0) == KV_OK && Save(path, out.GetData(), out.GetSize());
}

bool WriteRecordSeeds(const std::string& root) {
    const std::string dir = root + "/record";
    mkdir(dir.c_str(), 0755);
    SKvExperimentRecord record;
    SKvExperimentEvent event;
    SKvExperimentEvent::Init(event, 5.0, SKvExperimentEvent::eMeaningUserMark, L"mark", nullptr, 0);
    SKvExperimentRecord::AddEvent(record, event);
    SKvExperimentEvent::Init(event, 1.0, SKvExperimentEvent::eMeaningStimulation, L"light", L"488 nm", 0);
    event.dTime2 = 1.5;
    SKvExperimentEvent::SetStimulation(event, SKvExperimentEvent::SKvStimulationDescription::eStimulationLight, 20, 200);
    SKvExperimentRecord::AddEvent(record, event);
    SKvExperimentEvent::InitInteractiveFinish(event, 9.0, 0);
    SKvExperimentRecord::AddEvent(record, event);
    CKvLiteVariantW events;
    bool ok = SKvExperimentRecord::SaveToLiteVariant(events, record) == KV_OK && SaveLite(dir + "/events", events);

    SKvRecordedData recorded;
    recorded.eRecordAngIn = SKvRecordedData::eRecordContinuous;
    recorded.aGroups[SKvRecordedData::eGroupAngIn] = {{L"ai0", L"Input 0", true}, {L"ai1", L"Input 1", false}};
    SKvExperimentNI ni;
    ni.aInputs.resize(2);
    ni.aOutputs.resize(1);
    ni.aOutputs[0].BASettingsIncub = CKvByteArray("abc", 3);
    CKvLiteVariantW setup;
    ok = setup.LevelBegin(L"pExperiment") == KV_OK && SKvRecordedData::SaveToLiteVariant(setup, recorded) == KV_OK &&
         SKvExperimentNI::SaveToLiteVariant(setup, ni) == KV_OK && SaveLite(dir + "/setup", setup) && ok;
    return ok;
}

// Seeds for "picturemeta": one record with two planes, a probe and a filter
// path, as lite-variant bytes (first byte 0) and as an XML document (first byte 1).
bool WritePictureMetaSeeds(const std::string& root) {
    const std::string dir = root + "/picturemeta";
    mkdir(dir.c_str(), 0755);
    SKvPictureMetadata meta;
    meta.uiCol = 4;
    meta.wsObjectiveName = L"20x";
    if (SKvPicturePlanes::Alloc(meta.sPicturePlanes, 2, 0) != KV_OK) return false;
    meta.sPicturePlanes.uiCompCount = 2;
    SKvPicturePlaneDesc& plane = meta.sPicturePlanes.pPlanes[1];
    plane.uiSampleIndex = 1;
    plane.pFluorescentProbe = CKvFluorescentProbe(L"GFP", 0x00FF00);
    plane.pFluorescentProbe.GetEmissionSpectrum() = CKvOpticalFilterSpectrum(510.0, SKvOFSpectrumPoint::eSptPeak);
    CKvOpticalFilter filter;
    filter.GetEmissionSpectrum().AddPoint({SKvOFSpectrumPoint::eSptRisingEdge, 500.0, 0.9});
    filter.GetEmissionSpectrum().AddPoint({SKvOFSpectrumPoint::eSptFallingEdge, 550.0, 0.9});
    plane.pFilterPath = CKvOpticalFilterPath(filter, filter);
    const SKvPhysicalVariable variable{L"Gain", 1, 2.0};
    SKvPictureMetadata::SetPhysicalVariables(meta, &variable, 1);

    CKvLiteVariantW writer;
    CKvLiteVariantR lite;
    if (SKvPictureMetadata::SaveToLiteVariant(writer, meta) != KV_OK || writer.Finalize(lite, 0) != KV_OK) return false;
    std::string bytes(1, '\0');
    bytes.append(reinterpret_cast<const char*>(lite.GetData()), lite.GetSize());
    CKvVariant tree;
    CKvStringA xml;
    if (SKvPictureMetadata::SaveToVariant(tree, meta) != KV_OK ||
        CKvSerializerXMLString::DocumentToXML_UTF8(xml, tree) != KV_OK) {
        return false;
    }
    const std::string document = "\x01" + xml.Std();
    return Save(dir + "/lite", reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()) &&
           Save(dir + "/xml", reinterpret_cast<const uint8_t*>(document.data()), document.size());
}

// Seeds for "experiment": time x XY x Z with validity bytes, a spectral
// level over two Z stacks, and a multi-phase time lapse with sub-loops.
SKvExperiment* NewLevel(uint32_t type, uint32_t count) {
    SKvExperiment* e = nullptr;
    if (SKvExperiment::Alloc(&e) != KV_OK) return nullptr;
    SKvExperiment::Init(*e, type, count);
    return e;
}

bool Adopt(SKvExperiment& parent, std::vector<SKvExperiment*> kids) {
    if (SKvExperiment::AllocNextLevels(parent, static_cast<uint32_t>(kids.size())) != KV_OK) return false;
    for (size_t i = 0; i < kids.size(); ++i) parent.ppNextLevelEx[i] = kids[i];
    return true;
}

bool WriteExperimentSeeds(const std::string& root) {
    const std::string dir = root + "/experiment";
    mkdir(dir.c_str(), 0755);
    auto save = [&](const char* name, const SKvExperiment& e) {
        CKvLiteVariantW writer;
        return SKvExperiment::SaveToLiteVariant(writer, e) == KV_OK && SaveLite(dir + "/" + name, writer);
    };

    SKvExperiment time;
    SKvExperiment::Init(time, SKvExperiment::eExpTimeLoop, 4);
    time.uLoopPars.TimeLoop.dPeriod = 1000;
    SKvExperiment::AllocItemValid(time, 4);
    time.pItemValid[2] = 0;
    SKvExperiment* xy = NewLevel(SKvExperiment::eExpXYPosLoop, 3);
    SKvExperiment* z = NewLevel(SKvExperiment::eExpZStackLoop, 5);
    if (!xy || !z || !Adopt(*xy, {z}) || !Adopt(time, {xy})) return false;
    z->uLoopPars.ZStackLoop.dZStep = 0.5;
    bool ok = save("txyz", time);

    SKvExperiment spect;
    SKvExperiment::Init(spect, SKvExperiment::eExpSpectLoop, 2);
    spect.uLoopPars.SpectLoop.pPlanes = std::make_unique<SKvPicturePlanes>();
    SKvPicturePlanes::MakeCompatible(*spect.uLoopPars.SpectLoop.pPlanes, 2);
    SKvExperiment* z1 = NewLevel(SKvExperiment::eExpZStackLoop, 3);
    SKvExperiment* z2 = NewLevel(SKvExperiment::eExpZStackLoop, 6);
    ok = z1 && z2 && Adopt(spect, {z1, z2}) && save("spectral", spect) && ok;

    SKvExperiment phases;
    SKvExperiment::Init(phases, SKvExperiment::eExpNETimeLoop, 2);
    auto& ne = phases.uLoopPars.NETimeLoop;
    ne.pPeriod[0].uiCount = 3;
    ne.pPeriod[1].uiCount = 2;
    ne.pPeriodValid = {1, 1};
    ne.pSubLoops.resize(2);
    for (SKvExpSubLoop& sub : ne.pSubLoops) {
        SKvExperiment holder;
        if (!Adopt(holder, {NewLevel(SKvExperiment::eExpXYPosLoop, 2)})) return false;
        std::swap(sub.ppNextLevelEx, holder.ppNextLevelEx);
        std::swap(sub.uiNextLevelCount, holder.uiNextLevelCount);
    }
    return save("phases", phases) && ok;
}

// Seeds for "qv8file": small files written through the format's writer, raw
// and compressed, with metadata, copied into the seed directory.
bool WriteQV8Seeds(const std::string& root) {
    const std::string dir = root + "/qv8file";
    mkdir(dir.c_str(), 0755);
    mkdir((root + "/qv8repair").c_str(), 0755);
    bool ok = true;
    for (uint32_t compression : {kCompressionNone, kCompressionZlib}) {
        const std::string path = dir + (compression == kCompressionNone ? "/raw" : "/zlib");
        std::remove(path.c_str());
        const CKvStringW wide = CKvStringUtils::UTF8toW(path.c_str());
        IKvOutputImageFile* out = nullptr;
        if (CKvImageFormatQV8::Shared()->CreateOutputImageFile(wide, out) != KV_OK) return false;
        SKvImageAttributes a;
        a.uiWidth = 8;
        a.uiHeight = 4;
        a.uiComp = 2;
        a.uiBpcInMemory = a.uiBpcSignificant = 16;
        a.uiWidthBytes = 32;
        a.eCompression = compression;
        out->SetImageAttributes(a);
        SKvPictureMetadata meta;
        SKvPicturePlanes::MakeCompatible(meta.sPicturePlanes, 2);
        out->SetImageMetadata(0, meta, nullptr);
        SKvExperiment time;
        SKvExperiment::Init(time, SKvExperiment::eExpTimeLoop, 2);
        out->SetImageMetadata(time, nullptr);
        SKvImageTextInfo info;
        info.aItems[0] = L"seed";
        out->SetImageTextInfo(info);
        const uint8_t custom[] = {1, 2, 3, 4};
        out->SetCustomData(L"seed", custom, sizeof custom);
        std::vector<uint8_t> pixels(a.uiWidthBytes * a.uiHeight);
        for (uint32_t frame = 0; frame < 2; ++frame) {
            for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<uint8_t>(i * (frame + 3));
            out->SetAcqTime(10.0 * frame);
            ok = out->FlushData(frame, pixels.data(), nullptr, nullptr) == KV_OK && ok;
        }
        ok = out->Finalize() == KV_OK && ok;
        out->Release();
        // The same file serves the repair target, which cuts its trailer.
        std::ifstream in(path, std::ios::binary);
        std::ofstream(root + "/qv8repair/" + (compression == kCompressionNone ? "raw" : "zlib"), std::ios::binary)
            << in.rdbuf();
    }
    return ok;
}

// Seeds for "framecodec": the frame size, then its zlib stream, at a few levels.
bool WriteFrameCodecSeeds(const std::string& root) {
    const std::string dir = root + "/framecodec";
    mkdir(dir.c_str(), 0755);
    std::vector<uint8_t> frame(3000);
    for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<uint8_t>((i / 7) ^ (i % 13));
    CKvFrameDeflater deflater;
    for (int level : {1, 6, 9}) {
        std::vector<uint8_t> seed(4 + CKvFrameDeflater::Bound(frame.size()));
        kvbytes::StoreU32(seed.data(), static_cast<uint32_t>(frame.size()));
        uint64_t packed = 0;
        if (deflater.Compress(frame.data(), frame.size(), level, seed.data() + 4, seed.size() - 4, packed) != KV_OK)
            return false;
        seed.resize(4 + packed);
        FILE* f = std::fopen((dir + "/level" + std::to_string(level)).c_str(), "wb");
        if (!f) return false;
        const bool ok = std::fwrite(seed.data(), 1, seed.size(), f) == seed.size();
        if (std::fclose(f) != 0 || !ok) return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_seeds DIR\n");
        return 2;
    }
    const std::string dir = std::string(argv[1]) + "/chunker";
    mkdir(argv[1], 0755);
    mkdir(dir.c_str(), 0755);

    CKvByteArray finished = MakeContainer(true);
    CKvByteArray unfinished = MakeContainer(false);
    CKvByteArray empty;
    {
        CKvFileChunker chunker;
        CKvStringA version("Ver3.0");
        chunker.Initialize_Memory(empty, false, false, version);
        chunker.Finalize();
    }
    CKvByteArray damaged = finished;
    damaged.GetData()[kPageSize] ^= 0xFF;           // first chunk's magic
    damaged.GetData()[kPageSize + 8] = 0x7F;        // and its data length
    bool ok = Save(dir + "/finished", finished.GetData(), finished.GetSize()) &&
              Save(dir + "/unfinished", unfinished.GetData(), unfinished.GetSize()) &&
              Save(dir + "/empty", empty.GetData(), empty.GetSize()) &&
              Save(dir + "/damaged", damaged.GetData(), damaged.GetSize()) &&
              Save(dir + "/truncated", finished.GetData(), finished.GetSize() - 100);
    ok = WriteRecordSeeds(argv[1]) && ok;
    ok = WritePictureMetaSeeds(argv[1]) && ok;
    ok = WriteExperimentSeeds(argv[1]) && ok;
    ok = WriteQV8Seeds(argv[1]) && ok;
    ok = WriteFrameCodecSeeds(argv[1]) && ok;
    return ok ? 0 : 1;
}

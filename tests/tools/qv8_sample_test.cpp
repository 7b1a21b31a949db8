// The main-job commands of the qv8 tool end to end: `create-sample` writes
// small acquisitions, `info --json` must describe them field by field, and
// `frame` must hand out exactly the pixels the library reads back and the
// generator made.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "fileformat/CKvFileChunker.h"
#include "fileformat/CKvImageFormatQV8.h"
#include "fileformat/QV8Layout.h"
#include "gnr_system/CKvSerializerXMLString.h"
#include "tests/TestSupport.h"
#include "tests/tools/TestJson.h"
#include "tests/tools/ToolRunner.h"
#include "tools/common/SyntheticFrames.h"

namespace {

constexpr uint32_t kFrames = 150;  // 10 time points x 3 positions x 5 planes

// One sample written by the tool, with the options that made it.
struct SSample {
    const char* name;
    uint32_t width, height, bits, level;  // level 0: raw frames

    std::vector<std::string> CreateArgs(const std::string& path) const {
        std::vector<std::string> args = {"create-sample", path, "--size",
                                         std::to_string(width) + "x" + std::to_string(height)};
        if (bits != 16) args.insert(args.end(), {"--bits", std::to_string(bits)});
        if (level) args.insert(args.end(), {"--compress", std::to_string(level)});
        return args;
    }
    uint32_t RowBytes() const { return (width * 2 * (bits / 8) + 3) / 4 * 4; }
};

// 63 x 47 at 8 bits makes rows of 126 bytes, padded to 128 in the file.
const SSample kSamples[] = {
    {"raw16.qv8", 64, 48, 16, 0},
    {"zlib16.qv8", 64, 48, 16, 1},
    {"raw8.qv8", 63, 47, 8, 0},
};

// Frame `index` as documented by `create-sample --help`: time point i / 15,
// position (i / 5) % 3, plane i % 5 of the generator at 12 bits; 8-bit
// samples are those values / 16. Rows padded as the file stores them.
std::vector<uint8_t> GeneratedFrame(const SSample& s, uint32_t index) {
    SSyntheticScene scene;
    scene.width = s.width;
    scene.height = s.height;
    scene.components = 2;
    scene.maxValue = 4095;
    std::vector<uint16_t> samples(static_cast<size_t>(s.width) * s.height * 2);
    FillSyntheticFrame(scene, index / 15, index / 5 % 3, index % 5, samples.data());
    std::vector<uint8_t> frame(static_cast<size_t>(s.RowBytes()) * s.height, 0);
    for (uint32_t y = 0; y < s.height; ++y) {
        for (uint32_t i = 0; i < s.width * 2; ++i) {
            const uint16_t v = samples[static_cast<size_t>(y) * s.width * 2 + i];
            uint8_t* at = frame.data() + static_cast<size_t>(y) * s.RowBytes() + i * (s.bits / 8);
            if (s.bits == 8) {
                at[0] = static_cast<uint8_t>(v >> 4);
            } else {
                at[0] = static_cast<uint8_t>(v & 0xFF);
                at[1] = static_cast<uint8_t>(v >> 8);
            }
        }
    }
    return frame;
}

// The frame as the library reads it back.
std::vector<uint8_t> LibraryFrame(const std::string& path, uint32_t index) {
    CKvImageFormatQV8 format;
    IKvInputImageFile* in = nullptr;
    EXPECT_EQ(KV_OK, format.CreateInputImageFile(CKvStringUtils::UTF8toW(path.c_str()), in));
    if (!in) return {};
    SKvImageAttributes a;
    EXPECT_EQ(KV_OK, in->GetImageAttributes(a));
    std::vector<uint8_t> frame(a.FrameSize());
    EXPECT_EQ(KV_OK, in->GetData(index, frame.data(), nullptr, nullptr));
    in->Release();
    return frame;
}

// A Netpbm header (P5 or P7) and the raster after it.
struct SNetpbm {
    std::string magic, tupleType;
    uint32_t width = 0, height = 0, depth = 1, maxval = 0;
    std::string raster;
};

SNetpbm ParseNetpbm(const std::string& bytes) {
    SNetpbm p;
    std::istringstream in(bytes);
    in >> p.magic;
    if (p.magic == "P5") {
        in >> p.width >> p.height >> p.maxval;
        in.get();  // the single whitespace before the raster
    } else {
        std::string key;
        while (in >> key && key != "ENDHDR") {
            if (key == "WIDTH") in >> p.width;
            else if (key == "HEIGHT") in >> p.height;
            else if (key == "DEPTH") in >> p.depth;
            else if (key == "MAXVAL") in >> p.maxval;
            else if (key == "TUPLTYPE") in >> p.tupleType;
        }
        in.get();  // the newline after ENDHDR
    }
    p.raster = bytes.substr(static_cast<size_t>(in.tellg()));
    return p;
}

// Sample (x, y, c) of a Netpbm raster of `depth` components, big-endian when wide.
uint32_t NetpbmSample(const SNetpbm& p, uint32_t x, uint32_t y, uint32_t c) {
    const size_t bytes = p.maxval > 255 ? 2 : 1;
    const size_t at = ((static_cast<size_t>(y) * p.width + x) * p.depth + c) * bytes;
    const auto* r = reinterpret_cast<const uint8_t*>(p.raster.data());
    return bytes == 2 ? (r[at] << 8 | r[at + 1]) : r[at];
}

// Sample (x, y, c) of a stored frame of two components.
uint32_t FrameSample(const SSample& s, const std::vector<uint8_t>& frame, uint32_t x, uint32_t y, uint32_t c) {
    const size_t at = static_cast<size_t>(y) * s.RowBytes() + (x * 2 + c) * (s.bits / 8);
    return s.bits == 8 ? frame[at] : (frame[at] | frame[at + 1] << 8);
}

class Qv8SampleTest : public ::testing::Test {
protected:
    // The samples are written once for the whole suite.
    static void SetUpTestSuite() {
        s_dir = std::make_unique<CTestTempDir>();
        for (const SSample& s : kSamples) {
            const ToolRun run = RunQv8(s.CreateArgs(s_dir->File(s.name)), *s_dir);
            ASSERT_EQ(run.status, 0) << s.name << ": " << run.err;
            EXPECT_EQ(run.err, "") << "no progress bar when standard error is not a terminal";
        }
    }
    static void TearDownTestSuite() { s_dir.reset(); }

    static std::string PathOf(const SSample& s) { return s_dir->File(s.name); }
    ToolRun Run(const std::vector<std::string>& args) const { return RunQv8(args, m_tmp); }

    STestJson Info(const SSample& s) const {
        const ToolRun run = Run({"info", PathOf(s), "--json"});
        EXPECT_EQ(run.status, 0) << run.err;
        return STestJson::Parse(run.out);
    }

    static std::unique_ptr<CTestTempDir> s_dir;
    CTestTempDir m_tmp;
};

std::unique_ptr<CTestTempDir> Qv8SampleTest::s_dir;

void CheckShape(const SSample& s, const STestJson& j) {
    EXPECT_EQ(j["frameCount"].Number(), kFrames);
    EXPECT_EQ(j["width"].Number(), s.width);
    EXPECT_EQ(j["height"].Number(), s.height);
    EXPECT_EQ(j["components"].Number(), 2);
    EXPECT_EQ(j["bits"].Number(), s.bits);
    EXPECT_EQ(j["significantBits"].Number(), s.bits == 8 ? 8 : 12);
    EXPECT_EQ(j["version"].Text(), "Ver3.0");
    const STestJson& a = j["attributes"];
    EXPECT_EQ(a["uiSequenceCount"].Number(), kFrames);
    EXPECT_EQ(a["uiWidthBytes"].Number(), s.RowBytes());
    EXPECT_EQ(j["framesStored"].Number(), kFrames);
    EXPECT_EQ(j["frameBytes"].Number(), double(kFrames) * s.RowBytes() * s.height);
}

void CheckCompression(const SSample& s, const STestJson& j) {
    const double ratio = j["compressionRatio"].Number();
    EXPECT_DOUBLE_EQ(ratio, j["frameBytes"].Number() / j["storedFrameBytes"].Number());
    if (s.level == 0) {
        EXPECT_EQ(j["compression"].Text(), "none");
        EXPECT_TRUE(j["compressionLevel"].IsNull());
        EXPECT_EQ(ratio, 1.0);
    } else {
        EXPECT_EQ(j["compression"].Text(), "zlib");
        EXPECT_EQ(j["compressionLevel"].Number(), s.level);
        EXPECT_GT(ratio, 1.1) << "noisy 12-bit frames still compress";
    }
}

// The loops in order, and their parameters agreeing with the times.
void CheckExperiment(const STestJson& j) {
    EXPECT_EQ(j["loops"].Text(), "T 10 × XY 3 × Z 5");
    const STestJson& e = j["experiment"];
    EXPECT_EQ(e["imageCount"].Number(), kFrames);
    const STestJson& loops = e["loops"];
    ASSERT_EQ(loops.Size(), 3u);
    const char* kinds[] = {"time", "xy", "z"};
    const double sizes[] = {10, 3, 5};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(loops[i]["kind"].Text(), kinds[i]);
        EXPECT_EQ(loops[i]["size"].Number(), sizes[i]);
    }
    const double period = loops[0]["period"].Number();
    EXPECT_GT(period, 0);
    const STestJson& points = loops[1]["points"];
    ASSERT_EQ(points.Size(), 3u);
    EXPECT_NE(points[0]["x"].Number(), points[1]["x"].Number());
    EXPECT_FALSE(points[2]["name"].Text().empty());
    const STestJson& z = loops[2];
    EXPECT_GT(z["step"].Number(), 0);
    EXPECT_NEAR(z["high"].Number() - z["low"].Number(), 4 * z["step"].Number(), 1e-9);

    // Nine periods from the first round to the last, less than ten in all.
    const STestJson& t = j["acquisitionTimes"];
    EXPECT_EQ(t["count"].Number(), kFrames);
    EXPECT_TRUE(t["increasing"].Bool());
    EXPECT_GT(t["minIntervalMs"].Number(), 0);
    EXPECT_EQ(t["spanMs"].Number(), t["last"].Number() - t["first"].Number());
    EXPECT_EQ(j["timeSpanMs"].Number(), t["spanMs"].Number());
    EXPECT_GE(t["spanMs"].Number(), 9 * period);
    EXPECT_LT(t["spanMs"].Number(), 10 * period);
    EXPECT_EQ(t["firstUtc"].Text().rfind("20", 0), 0u) << t["firstUtc"].Text();
}

void CheckPicture(const STestJson& j) {
    const STestJson& m = j["pictureMetadata"];
    EXPECT_TRUE(m["calibrated"].Bool());
    EXPECT_GT(m["calibration"].Number(), 0);
    EXPECT_FALSE(m["objective"].Text().empty());
    EXPECT_GT(m["na"].Number(), 0);
    const STestJson& planes = m["planes"];
    ASSERT_EQ(planes.Size(), 2u);
    EXPECT_EQ(planes[0]["name"].Text(), "DAPI");
    EXPECT_EQ(planes[0]["emissionNm"].Number(), 461);
    EXPECT_EQ(planes[0]["rgb"].Text(), "#0000FF");
    EXPECT_EQ(planes[1]["name"].Text(), "GFP");
    EXPECT_EQ(planes[1]["emissionNm"].Number(), 510);
    EXPECT_EQ(planes[1]["rgb"].Text(), "#00FF00");
    EXPECT_EQ(planes[1]["sampleIndex"].Number(), 1);
    EXPECT_FALSE(planes[1]["emissionBand"].Text().empty());
}

// Events by time, with texts that need escaping (quotes, non-ASCII) intact.
void CheckEventsAndText(const STestJson& j) {
    const STestJson& events = j["events"];
    ASSERT_GE(events.Size(), 2u);
    EXPECT_EQ(events[0]["description"].Text(), "medium exchanged (\"fresh DMEM\")");
    for (size_t i = 1; i < events.Size(); ++i) EXPECT_GE(events[i]["time"].Number(), events[i - 1]["time"].Number());
    bool stimulation = false, micro = false;
    for (const STestJson& e : events.items) {
        stimulation |= !e["stimulation"].IsNull() && e["meaningName"].Text() == "stimulation";
        micro |= e["description"].Text().find("µM") != std::string::npos;
    }
    EXPECT_TRUE(stimulation);
    EXPECT_TRUE(micro);
    const STestJson& items = j["textInfo"]["items"];
    ASSERT_EQ(items.Size(), 14u);
    EXPECT_NE(items[0].Text().find("DAPI"), std::string::npos);
    EXPECT_EQ(items[13].Text(), "");
    EXPECT_FALSE(j["appVersion"].Text().empty());
}

TEST_F(Qv8SampleTest, InfoJsonDescribesEverySample) {
    for (const SSample& s : kSamples) {
        SCOPED_TRACE(s.name);
        const STestJson j = Info(s);
        CheckShape(s, j);
        CheckCompression(s, j);
        CheckExperiment(j);
        CheckPicture(j);
        CheckEventsAndText(j);
        EXPECT_EQ(j["fileSize"].Number(), static_cast<double>(ReadWholeFile(PathOf(s)).size()));
    }
}

TEST_F(Qv8SampleTest, InfoTextSummarisesForPeople) {
    const ToolRun run = Run({"info", PathOf(kSamples[1])});
    EXPECT_EQ(run.status, 0) << run.err;
    for (const char* part : {"frames       150 of 64 x 48 pixels, 2 component(s) of 16 bits (12 significant)\n",
                             "compression  zlib level 1, ratio ", "loops        T 10 × XY 3 × Z 5\n",
                             "channels     DAPI, emission 461 nm", "GFP, emission 510 nm", "time span    4 min ",
                             "events       3\n"})
        EXPECT_NE(run.out.find(part), std::string::npos) << part << "\n" << run.out;
}

// Three frames from each sample (first, one in the middle, last) through
// every form of output.
TEST_F(Qv8SampleTest, FrameOutputEqualsLibraryAndGenerator) {
    for (const SSample& s : kSamples) {
        for (uint32_t index : {0u, 77u, kFrames - 1}) {
            SCOPED_TRACE(std::string(s.name) + " frame " + std::to_string(index));
            const std::vector<uint8_t> generated = GeneratedFrame(s, index);
            ASSERT_TRUE(LibraryFrame(PathOf(s), index) == generated);
            const ToolRun raw = Run({"frame", PathOf(s), std::to_string(index)});
            ASSERT_EQ(raw.status, 0) << raw.err;
            EXPECT_TRUE(raw.out == std::string(generated.begin(), generated.end()));

            ASSERT_EQ(Run({"frame", PathOf(s), std::to_string(index), "-o", m_tmp.File("f.pgm")}).status, 0);
            ASSERT_EQ(Run({"frame", "-o", m_tmp.File("f.pam"), PathOf(s), std::to_string(index)}).status, 0);
            const SNetpbm pgm = ParseNetpbm(ReadWholeFile(m_tmp.File("f.pgm")));
            const SNetpbm pam = ParseNetpbm(ReadWholeFile(m_tmp.File("f.pam")));
            EXPECT_EQ(pgm.magic, "P5");
            EXPECT_EQ(pam.magic, "P7");
            EXPECT_EQ(pam.depth, 2u);
            EXPECT_EQ(pam.tupleType, "CHANNELS");
            for (const SNetpbm* p : {&pgm, &pam}) {
                EXPECT_EQ(p->width, s.width);
                EXPECT_EQ(p->height, s.height);
                EXPECT_EQ(p->maxval, s.bits == 8 ? 255u : 4095u);
                EXPECT_EQ(p->raster.size(), size_t(s.width) * s.height * p->depth * (s.bits / 8));
            }
            uint32_t mismatches = 0;
            for (uint32_t y = 0; y < s.height; ++y)
                for (uint32_t x = 0; x < s.width; ++x)
                    for (uint32_t c = 0; c < 2; ++c)
                        mismatches += (NetpbmSample(pam, x, y, c) != FrameSample(s, generated, x, y, c)) +
                                      (c == 0 && NetpbmSample(pgm, x, y, 0) != FrameSample(s, generated, x, y, 0));
            EXPECT_EQ(mismatches, 0u);
        }
    }
}

// The writer appends to an existing file; a second sample must replace it.
TEST_F(Qv8SampleTest, CreateSampleReplacesAnExistingFile) {
    const std::string path = m_tmp.File("again.qv8");
    const SSample small = {"again.qv8", 8, 4, 16, 0};
    ASSERT_EQ(Run(small.CreateArgs(path)).status, 0);
    const ToolRun run = Run(small.CreateArgs(path));
    ASSERT_EQ(run.status, 0) << run.err;
    const STestJson j = STestJson::Parse(Run({"info", "--json", path}).out);
    EXPECT_EQ(j["frameCount"].Number(), kFrames);
    EXPECT_EQ(j["framesStored"].Number(), kFrames);
}

// A file with frames and nothing else: what is missing is null, not invented.
TEST_F(Qv8SampleTest, InfoOfABareFileShowsNulls) {
    const std::string path = m_tmp.File("bare.qv8");
    {
        CKvImageFormatQV8 format;
        IKvOutputImageFile* out = nullptr;
        ASSERT_EQ(KV_OK, format.CreateOutputImageFile(CKvStringUtils::UTF8toW(path.c_str()), out));
        SKvImageAttributes a;
        a.uiWidth = 5;
        a.uiHeight = 3;
        a.uiComp = 1;
        a.uiBpcInMemory = a.uiBpcSignificant = 8;
        a.uiWidthBytes = 8;
        a.eCompression = kCompressionZlib;
        a.dCompressionParam = 9;
        ASSERT_EQ(KV_OK, out->SetImageAttributes(a));
        std::vector<uint8_t> pixels(a.FrameSize(), 7);
        for (uint32_t i = 0; i < 2; ++i) ASSERT_EQ(KV_OK, out->FlushData(i, pixels.data(), nullptr, nullptr));
        ASSERT_EQ(KV_OK, out->Finalize());
        out->Release();
    }
    const ToolRun run = Run({"info", "--json", path});
    ASSERT_EQ(run.status, 0) << run.err;
    const STestJson j = STestJson::Parse(run.out);
    EXPECT_EQ(j["frameCount"].Number(), 2);
    EXPECT_EQ(j["compressionLevel"].Number(), 9);
    EXPECT_EQ(j["loops"].Text(), "");
    EXPECT_TRUE(j["experiment"].IsNull());
    EXPECT_TRUE(j["events"].IsNull());
    EXPECT_TRUE(j["textInfo"].IsNull());
    EXPECT_TRUE(j["timeSpanMs"].IsNull());
    EXPECT_EQ(j["acquisitionTimes"]["count"].Number(), 0);
    EXPECT_TRUE(j["acquisitionTimes"]["meanIntervalMs"].IsNull());
    EXPECT_EQ(j["appVersion"].Text(), "");

    // A one-component frame: the PGM holds all of it, the PAM says GRAYSCALE.
    ASSERT_EQ(Run({"frame", path, "1", "-o", m_tmp.File("g.pam")}).status, 0);
    const SNetpbm pam = ParseNetpbm(ReadWholeFile(m_tmp.File("g.pam")));
    EXPECT_EQ(pam.tupleType, "GRAYSCALE");
    EXPECT_EQ(pam.raster, std::string(15, '\x07'));
}

// A damaged record makes the library print a diagnostic while the command
// goes on: the line goes to standard error, and standard output stays one
// JSON document.
TEST_F(Qv8SampleTest, DiagnosticsOfADamagedFileStayOutOfTheJson) {
    const std::string path = m_tmp.File("damaged.qv8");
    const SSample small = {"damaged.qv8", 8, 4, 16, 0};
    ASSERT_EQ(Run(small.CreateArgs(path)).status, 0);
    {
        // The events chunk once more, now holding a number where the record belongs.
        CKvFileChunker chunker;
        CKvStringA version;
        ASSERT_EQ(KV_OK, chunker.Initialize_File(CKvStringUtils::UTF8toW(path.c_str()).c_str(), false, true, version));
        CKvStringA xml;
        ASSERT_EQ(KV_OK, CKvSerializerXMLString::DocumentToXML_UTF8(xml, CKvVariant(5, L"SKvExperimentRecord")));
        ASSERT_EQ(KV_OK, chunker.SetChunk(xml.GetString(), static_cast<uint32_t>(xml.Size()), kChunkEvents));
        ASSERT_EQ(KV_OK, chunker.Finalize());
    }
    const ToolRun run = Run({"info", "--json", path});
    ASSERT_EQ(run.status, 0) << run.err;
    const STestJson j = STestJson::Parse(run.out);
    EXPECT_TRUE(j["events"].IsNull());
    EXPECT_EQ(j["frameCount"].Number(), kFrames);
    EXPECT_EQ(j["experiment"]["loops"].Size(), 3u) << "the rest of the file is still read";
    EXPECT_NE(run.err.find("Wrong variant runtype('kv_int32')"), std::string::npos) << run.err;
}

// A sample cut inside a frame, as if its writer had been killed there:
// repair recovers the frames before it with their times, and info and frame
// then treat the file as one of that many frames.
TEST_F(Qv8SampleTest, RepairedCutSampleReadsAsAShorterOne) {
    for (const SSample& s : {kSamples[0], kSamples[1]}) {
        SCOPED_TRACE(s.name);
        constexpr uint32_t kCutFrame = 77;
        const std::string cut = m_tmp.File("cut.qv8");
        std::filesystem::copy_file(PathOf(s), cut, std::filesystem::copy_options::overwrite_existing);
        SKvChunkMapMember frame;
        {
            CKvFileChunker chunker;
            CKvStringA version;
            ASSERT_EQ(chunker.Initialize_File(CKvStringUtils::UTF8toW(PathOf(s).c_str()).c_str(), true, false, version),
                      KV_OK);
            ASSERT_TRUE(chunker.GetChunkMap().Find(SKvFrameChunkName(kCutFrame).c_str(), frame));
        }
        std::filesystem::resize_file(cut, frame.position + kPageSize + 100);

        ToolRun run = Run({"repair", cut});
        ASSERT_EQ(run.status, 0) << run.err;
        const std::string n = std::to_string(kCutFrame);
        EXPECT_NE(run.out.find(cut + ": " + n + " frames recovered, sequence count " + n + " (was 0)\n"),
                  std::string::npos) << run.out;
        EXPECT_NE(run.out.find(cut + ": acquisition times rebuilt for " + n + " frames\n"), std::string::npos)
            << run.out;

        const STestJson j = STestJson::Parse(Run({"info", "--json", cut}).out);
        EXPECT_EQ(j["frameCount"].Number(), kCutFrame);
        EXPECT_EQ(j["framesStored"].Number(), kCutFrame);
        EXPECT_EQ(j["acquisitionTimes"]["count"].Number(), kCutFrame);
        EXPECT_EQ(j["acquisitionTimes"]["first"].Number(), Info(s)["acquisitionTimes"]["first"].Number());
        EXPECT_EQ(j["loops"].Text(), "T 10 × XY 3 × Z 5") << "the header data is kept";

        for (uint32_t index : {0u, kCutFrame - 1}) {
            run = Run({"frame", cut, std::to_string(index)});
            ASSERT_EQ(run.status, 0) << run.err;
            const std::vector<uint8_t> generated = GeneratedFrame(s, index);
            EXPECT_TRUE(run.out == std::string(generated.begin(), generated.end())) << index;
        }
        EXPECT_EQ(Run({"frame", cut, n}).status, 1);
    }
}

TEST_F(Qv8SampleTest, ErrorsExplainThemselves) {
    const std::string sample = PathOf(kSamples[0]), missing = m_tmp.File("missing.qv8");
    ToolRun run = Run({"frame", sample, "150"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "qv8: " + sample + ": no frame 150: the file has 150 frames (0 to 149) (-13)\n");
    for (const char* command : {"info", "frame"}) {
        run = command == std::string("info") ? Run({command, missing}) : Run({command, missing, "0"});
        EXPECT_EQ(run.status, 1) << command;
        EXPECT_EQ(run.err, "qv8: " + missing + ": cannot open: No such file or directory (-9)\n") << command;
    }
    const std::string text = m_tmp.File("notes.qv8");
    std::ofstream(text) << std::string(5000, 'x');
    run = Run({"info", text});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "qv8: " + text + ": not a QV8 container (-9)\n");
    run = Run({"create-sample", m_tmp.Path()});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("is not a regular file"), std::string::npos) << run.err;
    const std::string nowhere = m_tmp.File("no/such/dir.qv8");
    run = Run({"create-sample", nowhere});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err.rfind("qv8: " + nowhere + ": cannot create the file", 0), 0u) << run.err;
}

TEST_F(Qv8SampleTest, BadArgumentsAreUsageErrors) {
    const std::string out = m_tmp.File("x.qv8"), sample = PathOf(kSamples[0]);
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"create-sample"}, {"create-sample", out, "--size", "64"}, {"create-sample", out, "--size", "0x5"},
             {"create-sample", out, "--size", "64x48x2"}, {"create-sample", out, "--size", "-4x4"},
             {"create-sample", out, "--compress", "0"}, {"create-sample", out, "--compress", "10"},
             {"create-sample", out, "--bits", "12"}, {"create-sample", out, "--size"}, {"create-sample", out, out},
             {"info"}, {"info", sample, "--yaml"}, {"frame", sample}, {"frame", sample, "first"},
             {"frame", sample, "-1"}, {"frame", sample, "0", "-o"}}) {
        const ToolRun run = Run(args);
        EXPECT_EQ(run.status, 2) << testing::PrintToString(args);
        EXPECT_NE(run.err.find("usage: qv8 " + args[0]), std::string::npos) << run.err;
    }
    EXPECT_FALSE(std::ifstream(out).good()) << "nothing written on a usage error";
}

TEST_F(Qv8SampleTest, InfoHelpDocumentsEveryJsonMember) {
    const std::string help = Run({"info", "--help"}).out;
    const STestJson j = Info(kSamples[1]);
    for (const auto& [key, value] : j.members) EXPECT_NE(help.find(key), std::string::npos) << key;
    for (const auto& [key, value] : j["pictureMetadata"]["planes"][0].members)
        EXPECT_NE(help.find(key), std::string::npos) << key;
    for (const auto& [key, value] : j["events"][0].members) EXPECT_NE(help.find(key), std::string::npos) << key;
}

}  // namespace

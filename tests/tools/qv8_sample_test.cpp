// The main-job commands of the qv8 tool end to end: `create-sample` writes
// small acquisitions, `info --json` must describe them field by field, and
// `frame` must hand out exactly the pixels the generator made.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
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
std::string GeneratedFrame(const SSample& s, uint32_t index) {
    SSyntheticScene scene;
    scene.width = s.width;
    scene.height = s.height;
    scene.components = 2;
    scene.maxValue = 4095;
    std::vector<uint16_t> samples(static_cast<size_t>(s.width) * s.height * 2);
    FillSyntheticFrame(scene, index / 15, index / 5 % 3, index % 5, samples.data());
    std::string frame(static_cast<size_t>(s.RowBytes()) * s.height, '\0');
    for (uint32_t y = 0; y < s.height; ++y) {
        for (uint32_t i = 0; i < s.width * 2; ++i) {
            const uint16_t v = samples[static_cast<size_t>(y) * s.width * 2 + i];
            char* at = &frame[static_cast<size_t>(y) * s.RowBytes() + i * (s.bits / 8)];
            if (s.bits == 8) {
                at[0] = static_cast<char>(v >> 4);
            } else {
                at[0] = static_cast<char>(v & 0xFF);
                at[1] = static_cast<char>(v >> 8);
            }
        }
    }
    return frame;
}

// What `frame -o` writes for a stored frame: a PGM of the first component or
// a PAM of both, samples big-endian when wide, rows unpadded.
std::string ExpectedNetpbm(const SSample& s, const std::string& frame, bool pam) {
    const std::string w = std::to_string(s.width), h = std::to_string(s.height), max = s.bits == 8 ? "255" : "4095";
    std::string file = pam ? "P7\nWIDTH " + w + "\nHEIGHT " + h + "\nDEPTH 2\nMAXVAL " + max +
                                 "\nTUPLTYPE CHANNELS\nENDHDR\n"
                           : "P5\n" + w + " " + h + "\n" + max + "\n";
    for (uint32_t y = 0; y < s.height; ++y) {
        for (uint32_t i = 0; i < s.width * 2; i += pam ? 1 : 2) {
            const char* at = &frame[static_cast<size_t>(y) * s.RowBytes() + i * (s.bits / 8)];
            if (s.bits == 16) file += at[1];
            file += at[0];
        }
    }
    return file;
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

    STestJson Info(const std::string& path) const {
        const ToolRun run = Run({"info", "--json", path});
        EXPECT_EQ(run.status, 0) << run.err;
        return STestJson::Parse(run.out);
    }

    static std::unique_ptr<CTestTempDir> s_dir;
    CTestTempDir m_tmp;
};

std::unique_ptr<CTestTempDir> Qv8SampleTest::s_dir;

TEST_F(Qv8SampleTest, InfoJsonDescribesEverySample) {
    for (const SSample& s : kSamples) {
        SCOPED_TRACE(s.name);
        const STestJson j = Info(PathOf(s));
        EXPECT_EQ(j["fileSize"].Number(), static_cast<double>(ReadWholeFile(PathOf(s)).size()));
        const double frameBytes = double(kFrames) * s.RowBytes() * s.height;
        for (const auto& [key, want] : std::vector<std::pair<const char*, double>>{
                 {"frameCount", kFrames}, {"framesStored", kFrames}, {"width", s.width}, {"height", s.height},
                 {"components", 2}, {"bits", s.bits}, {"significantBits", s.bits == 8 ? 8 : 12},
                 {"frameBytes", frameBytes}})
            EXPECT_EQ(j[key].Number(), want) << key;
        EXPECT_EQ(j["version"].Text(), "Ver3.0");
        EXPECT_EQ(j["attributes"]["uiSequenceCount"].Number(), kFrames);
        EXPECT_EQ(j["attributes"]["uiWidthBytes"].Number(), s.RowBytes());

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

        // The loops in order, and their parameters agreeing with the times.
        EXPECT_EQ(j["loops"].Text(), "T 10 × XY 3 × Z 5");
        const STestJson& e = j["experiment"];
        EXPECT_EQ(e["imageCount"].Number(), kFrames);
        const STestJson& loops = e["loops"];
        ASSERT_EQ(loops.Size(), 3u);
        for (const auto& [i, kind, size] : {std::tuple{0, "time", 10}, {1, "xy", 3}, {2, "z", 5}}) {
            EXPECT_EQ(loops[i]["kind"].Text(), kind);
            EXPECT_EQ(loops[i]["size"].Number(), size);
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

        const STestJson& m = j["pictureMetadata"];
        EXPECT_TRUE(m["calibrated"].Bool());
        EXPECT_GT(m["calibration"].Number(), 0);
        EXPECT_FALSE(m["objective"].Text().empty());
        EXPECT_GT(m["na"].Number(), 0);
        const STestJson& planes = m["planes"];
        ASSERT_EQ(planes.Size(), 2u);
        const struct { const char* name; double nm; const char* rgb; } kPlanes[] = {{"DAPI", 461, "#0000FF"},
                                                                                    {"GFP", 510, "#00FF00"}};
        for (size_t i = 0; i < 2; ++i) {
            EXPECT_EQ(planes[i]["name"].Text(), kPlanes[i].name);
            EXPECT_EQ(planes[i]["emissionNm"].Number(), kPlanes[i].nm);
            EXPECT_EQ(planes[i]["rgb"].Text(), kPlanes[i].rgb);
            EXPECT_EQ(planes[i]["sampleIndex"].Number(), i);
        }
        EXPECT_FALSE(planes[1]["emissionBand"].Text().empty());

        // Events by time, with texts that need escaping (quotes, non-ASCII) intact.
        const STestJson& events = j["events"];
        ASSERT_GE(events.Size(), 2u);
        EXPECT_EQ(events[0]["description"].Text(), "medium exchanged (\"fresh DMEM\")");
        for (size_t i = 1; i < events.Size(); ++i) EXPECT_GE(events[i]["time"].Number(), events[i - 1]["time"].Number());
        bool stimulation = false, micro = false;
        for (const STestJson& event : events.items) {
            stimulation |= !event["stimulation"].IsNull() && event["meaningName"].Text() == "stimulation";
            micro |= event["description"].Text().find("µM") != std::string::npos;
        }
        EXPECT_TRUE(stimulation);
        EXPECT_TRUE(micro);
        const STestJson& items = j["textInfo"]["items"];
        ASSERT_EQ(items.Size(), 14u);
        EXPECT_NE(items[0].Text().find("DAPI"), std::string::npos);
        EXPECT_EQ(items[13].Text(), "");
        EXPECT_FALSE(j["appVersion"].Text().empty());
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
TEST_F(Qv8SampleTest, FrameOutputEqualsTheGenerator) {
    for (const SSample& s : kSamples) {
        for (uint32_t index : {0u, 77u, kFrames - 1}) {
            SCOPED_TRACE(std::string(s.name) + " frame " + std::to_string(index));
            const std::string generated = GeneratedFrame(s, index);
            const ToolRun raw = Run({"frame", PathOf(s), std::to_string(index)});
            ASSERT_EQ(raw.status, 0) << raw.err;
            EXPECT_TRUE(raw.out == generated);
            ASSERT_EQ(Run({"frame", PathOf(s), std::to_string(index), "-o", m_tmp.File("f.pgm")}).status, 0);
            ASSERT_EQ(Run({"frame", "-o", m_tmp.File("f.pam"), PathOf(s), std::to_string(index)}).status, 0);
            EXPECT_TRUE(ReadWholeFile(m_tmp.File("f.pgm")) == ExpectedNetpbm(s, generated, false));
            EXPECT_TRUE(ReadWholeFile(m_tmp.File("f.pam")) == ExpectedNetpbm(s, generated, true));
        }
    }
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
    const STestJson j = Info(path);
    EXPECT_EQ(j["frameCount"].Number(), 2);
    EXPECT_EQ(j["compressionLevel"].Number(), 9);
    EXPECT_EQ(j["acquisitionTimes"]["count"].Number(), 0);
    EXPECT_EQ(j["loops"].Text(), "");
    EXPECT_EQ(j["appVersion"].Text(), "");
    for (const STestJson* v : {&j["experiment"], &j["events"], &j["textInfo"], &j["timeSpanMs"],
                               &j["acquisitionTimes"]["meanIntervalMs"]})
        EXPECT_TRUE(v->IsNull());

    // A one-component frame: the PAM says GRAYSCALE and holds all of it.
    ASSERT_EQ(Run({"frame", path, "1", "-o", m_tmp.File("g.pam")}).status, 0);
    EXPECT_EQ(ReadWholeFile(m_tmp.File("g.pam")),
              "P7\nWIDTH 5\nHEIGHT 3\nDEPTH 1\nMAXVAL 255\nTUPLTYPE GRAYSCALE\nENDHDR\n" + std::string(15, '\x07'));
}

// A damaged record makes the library print a diagnostic while the command
// goes on: the line goes to standard error, and standard output stays one
// JSON document. The sample is written twice first: the writer appends to an
// existing file, so the second sample must replace the first.
TEST_F(Qv8SampleTest, DiagnosticsOfADamagedFileStayOutOfTheJson) {
    const std::string path = m_tmp.File("damaged.qv8");
    for (int i = 0; i < 2; ++i) ASSERT_EQ(Run(SSample{"damaged.qv8", 8, 4, 16, 0}.CreateArgs(path)).status, 0);
    {
        // The events chunk once more, now holding a number where the record belongs.
        CKvFileChunker chunker;
        CKvStringA version, xml;
        ASSERT_EQ(KV_OK, chunker.Initialize_File(CKvStringUtils::UTF8toW(path.c_str()).c_str(), false, true, version));
        ASSERT_EQ(KV_OK, CKvSerializerXMLString::DocumentToXML_UTF8(xml, CKvVariant(5, L"SKvExperimentRecord")));
        ASSERT_EQ(KV_OK, chunker.SetChunk(xml.GetString(), static_cast<uint32_t>(xml.Size()), kChunkEvents));
        ASSERT_EQ(KV_OK, chunker.Finalize());
    }
    const ToolRun run = Run({"info", "--json", path});
    ASSERT_EQ(run.status, 0) << run.err;
    const STestJson j = STestJson::Parse(run.out);
    EXPECT_TRUE(j["events"].IsNull());
    EXPECT_EQ(j["frameCount"].Number(), kFrames);
    EXPECT_EQ(j["framesStored"].Number(), kFrames);
    EXPECT_EQ(j["experiment"]["loops"].Size(), 3u) << "the rest of the file is still read";
    EXPECT_NE(run.err.find("Wrong variant runtype('kv_int32')"), std::string::npos) << run.err;
}

// A sample cut inside a frame, as if its writer had been killed there:
// repair recovers the frames before it with their times, and info and frame
// then treat the file as one of that many frames.
TEST_F(Qv8SampleTest, RepairedCutSampleReadsAsAShorterOne) {
    constexpr uint32_t kCut = 77;
    const std::string cut = m_tmp.File("cut.qv8"), n = std::to_string(kCut);
    for (const SSample& s : {kSamples[0], kSamples[1]}) {
        SCOPED_TRACE(s.name);
        std::filesystem::copy_file(PathOf(s), cut, std::filesystem::copy_options::overwrite_existing);
        SKvChunkMapMember frame;
        {
            CKvFileChunker chunker;
            CKvStringA version;
            ASSERT_EQ(KV_OK, chunker.Initialize_File(CKvStringUtils::UTF8toW(cut.c_str()).c_str(), true, false, version));
            ASSERT_TRUE(chunker.GetChunkMap().Find(SKvFrameChunkName(kCut).c_str(), frame));
        }
        std::filesystem::resize_file(cut, frame.position + kPageSize + 100);

        ToolRun run = Run({"repair", cut});
        ASSERT_EQ(run.status, 0) << run.err;
        for (const std::string& line : {cut + ": " + n + " frames recovered, sequence count " + n + " (was 0)\n",
                                        cut + ": acquisition times rebuilt for " + n + " frames\n"})
            EXPECT_NE(run.out.find(line), std::string::npos) << run.out;

        const STestJson j = Info(cut);
        EXPECT_EQ(j["frameCount"].Number(), kCut);
        EXPECT_EQ(j["framesStored"].Number(), kCut);
        EXPECT_EQ(j["acquisitionTimes"]["count"].Number(), kCut);
        EXPECT_EQ(j["acquisitionTimes"]["first"].Number(), Info(PathOf(s))["acquisitionTimes"]["first"].Number());
        EXPECT_EQ(j["loops"].Text(), "T 10 × XY 3 × Z 5") << "the header data is kept";
        for (uint32_t index : {0u, kCut - 1}) {
            run = Run({"frame", cut, std::to_string(index)});
            ASSERT_EQ(run.status, 0) << run.err;
            EXPECT_TRUE(run.out == GeneratedFrame(s, index)) << index;
        }
        EXPECT_EQ(Run({"frame", cut, n}).status, 1);
    }
}

// Failures: exit status 1, nothing on standard output, one line on standard
// error naming the file.
TEST_F(Qv8SampleTest, ErrorsExplainThemselves) {
    const std::string sample = PathOf(kSamples[0]), missing = m_tmp.File("missing.qv8");
    const std::string text = m_tmp.File("notes.qv8"), nowhere = m_tmp.File("no/such/dir.qv8");
    std::ofstream(text) << std::string(5000, 'x');
    const std::string noFile = ": cannot open: No such file or directory (-9)\n";
    for (const auto& [args, err] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"frame", sample, "150"}, sample + ": no frame 150: the file has 150 frames (0 to 149) (-13)\n"},
             {{"info", missing}, missing + noFile},
             {{"frame", missing, "0"}, missing + noFile},
             {{"info", text}, text + ": not a QV8 container (-9)\n"},
             {{"create-sample", m_tmp.Path()}, m_tmp.Path() + ": exists and is not a regular file (-9)\n"},
             {{"create-sample", nowhere}, nowhere + ": cannot create the file"}}) {
        const ToolRun run = Run(args);
        EXPECT_EQ(run.status, 1) << args[0];
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err.rfind("qv8: " + err, 0), 0u) << run.err;
        EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
    }
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
    const STestJson j = Info(PathOf(kSamples[1]));
    for (const STestJson* object : {&j, &j["pictureMetadata"]["planes"][0], &j["events"][0]})
        for (const auto& [key, value] : object->members) EXPECT_NE(help.find(key), std::string::npos) << key;
}

}  // namespace

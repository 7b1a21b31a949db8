// Runs the built qv8 tool on containers written here and checks its output,
// its error lines and its exit statuses.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "fileformat/CKvFileChunker.h"
#include "gnr_metaformats/PictureMetadata.h"
#include "gnr_system/KvBytes.h"
#include "gnr_system/CKvLiteVariant.h"
#include "tests/TestSupport.h"
#include "tests/tools/ToolRunner.h"

namespace {

namespace fs = std::filesystem;

// Binary data with every byte value, zeros and newlines included.
std::string BinaryData(size_t size) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>((i * 7 + i / 256) & 0xFF);
    return data;
}

class Qv8ToolTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_tmp.IsValid()); }

    std::string Path(const char* name) const { return m_tmp.File(name); }

    // Standard error goes to a file, so it is never a terminal here.
    ToolRun Run(const std::vector<std::string>& args) const { return RunQv8(args, m_tmp); }

    // Writes a container: chunk "b" (10 bytes) at 4096, "a" (5000 bytes, so
    // two pages) at 8192, frame 0 (8 bytes) at 16384, and `big` as a two-part
    // chunk at 20480 whose data starts with "prefix!!"; unfinished unless `finalize`.
    std::string WriteContainer(const char* name, const std::string& big, bool finalize = true) {
        const std::string path = Path(name);
        CKvFileChunker chunker;
        CKvStringA version("Ver3.0");
        EXPECT_EQ(chunker.Initialize_File(CKvStringUtils::UTF8toW(path.c_str()).c_str(), false, false, version), KV_OK);
        EXPECT_EQ(chunker.SetChunk(std::string(10, 'b').data(), 10, "b"), KV_OK);
        EXPECT_EQ(chunker.SetChunk(std::string(5000, 'a').data(), 5000, "a!"), KV_OK);
        EXPECT_EQ(chunker.SetChunk("12345678", 8, "ImageDataSeq|0"), KV_OK);
        EXPECT_EQ(chunker.SetChunk("prefix!!", 8, big.data(), static_cast<uint32_t>(big.size()), "big"), KV_OK);
        if (finalize) chunker.Finalize();
        return path;
    }

    CTestTempDir m_tmp;
};

// `chunks` lists the map; `cat` copies a chunk larger than one piece of its
// copy loop byte for byte; `repair` leaves a finished file alone.
TEST_F(Qv8ToolTest, ChunksCatAndRepairOfAFinishedFile) {
    const std::string big = BinaryData((4u << 20) + 1234);
    const std::string file = WriteContainer("a.qv8", big);
    const std::string before = ReadWholeFile(file);
    ToolRun run = Run({"chunks", file});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "ImageDataSeq|0!\t16384\t8\na!\t8192\t5000\nb!\t4096\t10\nbig!\t20480\t" +
                           std::to_string(8 + big.size()) + "\n");

    run = Run({"cat", file, "big"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(run.out == "prefix!!" + big) << run.out.size();
    EXPECT_EQ(Run({"cat", file, "ImageDataSeq|0!"}).out, "12345678");

    run = Run({"repair", file});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, file + ": has a chunk map, left unchanged\n");
    EXPECT_TRUE(ReadWholeFile(file) == before);
}

TEST_F(Qv8ToolTest, RepairRebuildsTheMapOfAnUnfinishedFile) {
    // Cutting off the trailer leaves the chunks but no way to find the map.
    const std::string file = WriteContainer("cut.qv8", BinaryData(9000));
    fs::resize_file(file, fs::file_size(file) - kChunkMapTrailerSize);
    ToolRun run = Run({"chunks", file});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "qv8: " + file + ": no chunk map (the writer did not finish); try 'qv8 repair " + file +
                           "' (-13)\n");

    run = Run({"repair", file});
    EXPECT_EQ(run.status, 0) << run.err;
    // A bare container: without attributes its frame chunk cannot be read.
    EXPECT_EQ(run.out, file + ": chunk map rebuilt, 4 chunks found\n" + file +
                           ": image attributes lost: no frame can be read\n");
    EXPECT_EQ(run.err, "") << "no progress bar when standard error is not a terminal";
    run = Run({"chunks", file});
    EXPECT_NE(run.out.find("QV8 FILE SIGNATURE CHUNK NAME01!\t0\t"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("b!\t4096\t4096\n"), std::string::npos) << run.out;
    EXPECT_TRUE(Run({"cat", file, "big"}).out == "prefix!!" + BinaryData(9000));

    // The writer died inside its last chunk: that chunk is lost.
    const std::string torn = WriteContainer("torn.qv8", BinaryData(3 * kPageSize), false);
    fs::resize_file(torn, fs::file_size(torn) - kPageSize);
    run = Run({"repair", torn});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, torn + ": chunk map rebuilt, 3 chunks found\n" + torn +
                           ": image attributes lost: no frame can be read\n");
    EXPECT_EQ(Run({"cat", torn, "big"}).status, 1);
}

// A file whose writer is still at work is not repaired: the tool says why
// and leaves it alone; once the writer is done, repair goes ahead.
TEST_F(Qv8ToolTest, RepairRefusesAFileAWriterHolds) {
    const std::string file = Path("busy.qv8");
    CKvFileChunker writer;
    CKvStringA version("Ver3.0");
    ASSERT_EQ(writer.Initialize_File(CKvStringUtils::UTF8toW(file.c_str()).c_str(), false, false, version), KV_OK);
    ASSERT_EQ(writer.SetChunk("12345678", 8, "ImageDataSeq|0"), KV_OK);
    const std::string before = ReadWholeFile(file);
    ToolRun run = Run({"repair", file});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "qv8: " + file + ": a writer still has the file open; let it finish or stop it first (-9)\n");
    EXPECT_TRUE(ReadWholeFile(file) == before);

    ASSERT_EQ(writer.Finalize(), KV_OK);
    fs::resize_file(file, fs::file_size(file) - kChunkMapTrailerSize);
    run = Run({"repair", file});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, file + ": chunk map rebuilt, 1 chunk found\n" + file +
                           ": image attributes lost: no frame can be read\n");
}

// Damage in the middle of a file hides nothing after it, and repair removes
// no byte: a chunk length broken to 2^40 is passed over.
TEST_F(Qv8ToolTest, RepairKeepsTheChunksAfterDamage) {
    const std::string file = WriteContainer("hurt.qv8", BinaryData(9000), false);
    std::string bytes = ReadWholeFile(file);
    kvbytes::StoreU64(reinterpret_cast<uint8_t*>(&bytes[2 * kPageSize + 8]), uint64_t(1) << 40);  // chunk "a"
    std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
    ToolRun run = Run({"repair", file});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, file + ": chunk map rebuilt, 3 chunks found\n" + file +
                           ": image attributes lost: no frame can be read\n");
    const std::string repaired = ReadWholeFile(file);
    EXPECT_GE(repaired.size(), bytes.size());
    EXPECT_TRUE(repaired.compare(0, bytes.size(), bytes) == 0);
    EXPECT_TRUE(Run({"cat", file, "big"}).out == "prefix!!" + BinaryData(9000));
    EXPECT_EQ(Run({"cat", file, "ImageDataSeq|0"}).out, "12345678");
}

TEST_F(Qv8ToolTest, FailuresReportOneLineAndExitOne) {
    const std::string file = WriteContainer("a.qv8", BinaryData(100));
    const std::string text = Path("notes.txt"), missing = Path("missing.qv8");
    std::ofstream(text) << std::string(5000, 'x');

    ToolRun run = Run({"cat", file, "X"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "qv8: " + file + ": no chunk named \"X!\" (-13)\n");
    for (const char* command : {"chunks", "repair"}) {
        run = Run({command, text});
        EXPECT_EQ(run.status, 1) << command;
        EXPECT_EQ(run.err, "qv8: " + text + ": not a QV8 container (-9)\n");
        run = Run({command, missing});
        EXPECT_EQ(run.status, 1) << command;
        EXPECT_EQ(run.err, "qv8: " + missing + ": cannot open: No such file or directory (-9)\n");
    }
    EXPECT_FALSE(fs::exists(missing));
    EXPECT_EQ(ReadWholeFile(text), std::string(5000, 'x'));
}

TEST_F(Qv8ToolTest, UsageAndHelp) {
    const ToolRun help = Run({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* command : {"chunks", "cat", "repair"})
        EXPECT_NE(help.out.find(std::string("  ") + command + " "), std::string::npos) << command;
    EXPECT_NE(Run({"chunks", "--help"}).out.find("POSITION"), std::string::npos);

    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {}, {"nonsense"}, {"chunks"}, {"chunks", "a", "b"}, {"cat", "a"}, {"repair"}}) {
        const ToolRun run = Run(args);
        EXPECT_EQ(run.status, 2) << testing::PrintToString(args);
        EXPECT_EQ(run.out, "");
        EXPECT_NE(run.err.find("usage: qv8"), std::string::npos) << run.err;
    }
}

}  // namespace

// `xml` shows a compressed lite-variant chunk and an XML chunk as UTF-8
// documents, flat or indented, and refuses a chunk that holds no metadata.
TEST_F(Qv8ToolTest, XmlShowsMetadataChunks) {
    const std::string path = Path("m.qv8");
    {
        CKvLiteVariantW writer;
        writer.LevelBegin(L"SKvCalibration");
        writer.Set(0.5, L"dCalibration");
        writer.Set(L"20x <air>", L"sObjective");
        writer.LevelEnd();
        CKvLiteVariantR encoded;
        ASSERT_EQ(writer.Finalize(encoded, 1), KV_OK);
        const std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><variant version=\"1.0\">"
                                "<Info runtype=\"CKvListVariant\"><uiCount runtype=\"kv_uint32\" value=\"3\"/></Info></variant>";
        CKvFileChunker chunker;
        CKvStringA version("Ver3.0");
        ASSERT_EQ(chunker.Initialize_File(CKvStringUtils::UTF8toW(path.c_str()).c_str(), false, false, version), KV_OK);
        ASSERT_EQ(chunker.SetChunk(encoded, "ImageCalibrationLV"), KV_OK);
        ASSERT_EQ(chunker.SetChunk(xml.data(), static_cast<uint32_t>(xml.size()), "TextInfo"), KV_OK);
        ASSERT_EQ(chunker.SetChunk("\x01\x02junk", 6, "Junk"), KV_OK);
        ASSERT_EQ(chunker.Finalize(), KV_OK);
    }
    ToolRun run = Run({"xml", path, "ImageCalibrationLV!"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "<?xml version=\"1.0\" encoding=\"UTF-8\"?><variant version=\"1.0\">"
                       "<SKvCalibration runtype=\"CKvListVariant\"><dCalibration runtype=\"double\" value=\"0.5\"/>"
                       "<sObjective runtype=\"CKvStringW\" value=\"20x &#x003C;air>\"/></SKvCalibration></variant>\n");
    run = Run({"xml", "--indent", path, "TextInfo"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<variant version=\"1.0\">\n"
                       "  <Info runtype=\"CKvListVariant\">\n    <uiCount runtype=\"kv_uint32\" value=\"3\"/>\n"
                       "  </Info>\n</variant>\n");
    run = Run({"xml", path, "Junk"});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("qv8: " + path + ": chunk \"Junk!\""), std::string::npos) << run.err;
}

// `meta` decodes the first picture-metadata chunk (by frame number, not by
// name order) or the one named, as text or JSON.
TEST_F(Qv8ToolTest, MetaShowsPictureMetadata) {
    const std::string path = Path("p.qv8");
    {
        CKvFileChunker chunker;
        CKvStringA version("Ver3.0");
        ASSERT_EQ(chunker.Initialize_File(CKvStringUtils::UTF8toW(path.c_str()).c_str(), false, false, version), KV_OK);
        for (uint32_t frame : {10u, 2u}) {
            SKvPictureMetadata meta;
            meta.dTimeAbsolute = 1000.0 * frame;
            SKvPicturePlanes::MakeRGB(meta.sPicturePlanes);
            meta.sPicturePlanes.pPlanes[0].sDescription = frame == 2 ? L"Cells \"A\"" : L"Other";
            CKvLiteVariantW writer;
            ASSERT_EQ(SKvPictureMetadata::SaveToLiteVariant(writer, meta), KV_OK);
            CKvLiteVariantR encoded;
            ASSERT_EQ(writer.Finalize(encoded, 1), KV_OK);
            ASSERT_EQ(chunker.SetChunk(encoded, ("ImageMetadataSeqLV|" + std::to_string(frame)).c_str()), KV_OK);
        }
        ASSERT_EQ(chunker.Finalize(), KV_OK);
    }
    ToolRun run = Run({"meta", path});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out.rfind("chunk: ImageMetadataSeqLV|2!\ntime: absolute 2000 ms", 0), 0u) << run.out;
    EXPECT_NE(run.out.find("planes: 1 (3 components)\n  0: \"Cells \"A\"\", 3 component(s) from 0, brightfield"),
              std::string::npos) << run.out;
    run = Run({"meta", "--json", path, "ImageMetadataSeqLV|10"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out.rfind("{\"chunk\":\"ImageMetadataSeqLV|10!\",\"timeAbsolute\":10000,", 0), 0u) << run.out;
    EXPECT_NE(run.out.find("\"planes\":[{\"name\":\"Other\",\"components\":3,"), std::string::npos) << run.out;
    const std::string other = WriteContainer("c.qv8", "x");
    run = Run({"meta", other});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("no picture-metadata chunk"), std::string::npos) << run.err;
    EXPECT_EQ(Run({"meta"}).status, 2);
}

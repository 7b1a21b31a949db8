// Runs the built qv8 tool on containers written here and checks its output,
// its error lines and its exit statuses.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "fileformat/CKvFileChunker.h"

namespace {

namespace fs = std::filesystem;

struct ToolRun {
    int status = -1;
    std::string out;
    std::string err;
};

std::string ShellQuote(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += (c == '\'') ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

std::string ReadFile(const std::string& path) {
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}

class Qv8ToolTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/qv8_tool_test_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_dir = pattern;
    }
    void TearDown() override { fs::remove_all(m_dir); }

    std::string Path(const char* name) const { return m_dir + "/" + name; }

    // Standard error goes to a file, so it is never a terminal here.
    ToolRun Run(const std::vector<std::string>& args) const {
        std::string command = ShellQuote(ZEM_QV8_TOOL);
        for (const std::string& arg : args) command += " " + ShellQuote(arg);
        command += " >" + ShellQuote(Path("stdout")) + " 2>" + ShellQuote(Path("stderr")) + " </dev/null";
        ToolRun run;
        const int raw = std::system(command.c_str());
        run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
        run.out = ReadFile(Path("stdout"));
        run.err = ReadFile(Path("stderr"));
        return run;
    }

    // Writes a container: chunk "b" (10 bytes) at 4096, "a" (5000 bytes, so
    // two pages) at 8192, frame 0 (8 bytes) at 16384, and `big` as a two-part
    // chunk whose data starts with "prefix!!"; unfinished unless `finalize`.
    void WriteContainer(const std::string& path, const std::string& big, bool finalize = true) {
        CKvFileChunker chunker;
        CKvStringA version("Ver3.0");
        ASSERT_EQ(chunker.Initialize_File(CKvStringUtils::UTF8toW(path.c_str()).c_str(), false, false, version), KV_OK);
        ASSERT_EQ(chunker.SetChunk(std::string(10, 'b').data(), 10, "b"), KV_OK);
        ASSERT_EQ(chunker.SetChunk(std::string(5000, 'a').data(), 5000, "a!"), KV_OK);
        ASSERT_EQ(chunker.SetChunk("12345678", 8, "ImageDataSeq|0"), KV_OK);
        ASSERT_EQ(chunker.SetChunk("prefix!!", 8, big.data(), static_cast<uint32_t>(big.size()), "big"), KV_OK);
        if (finalize) chunker.Finalize();
    }

    // Binary data with every byte value, zeros and newlines included.
    static std::string BinaryData(size_t size) {
        std::string data(size, '\0');
        for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>((i * 7 + i / 256) & 0xFF);
        return data;
    }

    std::string m_dir;
};

TEST_F(Qv8ToolTest, ChunksListsTheMapInNameOrder) {
    const std::string file = Path("a.qv8");
    WriteContainer(file, BinaryData(100));
    const ToolRun run = Run({"chunks", file});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out,
              "ImageDataSeq|0!\t16384\t8\n"
              "a!\t8192\t5000\n"
              "b!\t4096\t10\n"
              "big!\t20480\t108\n");
}

TEST_F(Qv8ToolTest, CatWritesChunkDataByteExact) {
    const std::string file = Path("a.qv8");
    // Larger than one piece of the copy loop, and not a whole number of pages.
    const std::string big = BinaryData((4u << 20) + 1234);
    WriteContainer(file, big);

    ToolRun run = Run({"cat", file, "big"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    ASSERT_EQ(run.out.size(), 8 + big.size());
    EXPECT_TRUE(run.out == "prefix!!" + big);

    run = Run({"cat", file, "ImageDataSeq|0!"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "12345678");
}

TEST_F(Qv8ToolTest, RepairRebuildsMapOfUnfinishedFile) {
    const std::string file = Path("cut.qv8");
    WriteContainer(file, BinaryData(9000));
    // Cutting off the trailer leaves the chunks but no way to find the map.
    fs::resize_file(file, fs::file_size(file) - kChunkMapTrailerSize);

    ToolRun run = Run({"chunks", file});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "qv8: " + file + ": no chunk map (the writer did not finish); try 'qv8 repair " + file +
                           "' (-13)\n");

    run = Run({"repair", file});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, file + ": chunk map rebuilt, 4 chunks found\n");
    EXPECT_EQ(run.err, "") << "no progress bar when standard error is not a terminal";

    run = Run({"chunks", file});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("QV8 FILE SIGNATURE CHUNK NAME01!\t0\t"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("b!\t4096\t4096\n"), std::string::npos) << run.out;
    run = Run({"cat", file, "big"});
    EXPECT_TRUE(run.status == 0 && run.out == "prefix!!" + BinaryData(9000));
}

TEST_F(Qv8ToolTest, RepairCountsOnlyCompleteChunks) {
    // The writer died inside its last chunk: that chunk is lost.
    const std::string file = Path("torn.qv8");
    WriteContainer(file, BinaryData(3 * kPageSize), false);
    fs::resize_file(file, fs::file_size(file) - kPageSize);
    const ToolRun run = Run({"repair", file});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, file + ": chunk map rebuilt, 3 chunks found\n");
    EXPECT_EQ(Run({"cat", file, "big"}).status, 1);
}

TEST_F(Qv8ToolTest, RepairLeavesFinishedFileUntouched) {
    const std::string file = Path("done.qv8");
    WriteContainer(file, BinaryData(100));
    const std::string before = ReadFile(file);
    const ToolRun run = Run({"repair", file});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, file + ": has a chunk map, left unchanged\n");
    EXPECT_TRUE(ReadFile(file) == before);
}

TEST_F(Qv8ToolTest, FailuresReportOneLineAndExitOne) {
    const std::string file = Path("a.qv8");
    WriteContainer(file, BinaryData(100));
    const std::string text = Path("notes.txt");
    std::ofstream(text) << std::string(5000, 'x');
    const std::string missing = Path("missing.qv8");

    ToolRun run = Run({"cat", file, "X"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "qv8: " + file + ": no chunk named \"X!\" (-13)\n");

    for (const char* command : {"chunks", "repair"}) {
        SCOPED_TRACE(command);
        run = Run({command, text});
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.err, "qv8: " + text + ": not a QV8 container (-9)\n");
        run = Run({command, missing});
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.err, "qv8: " + missing + ": cannot open: No such file or directory (-9)\n");
    }
    EXPECT_FALSE(fs::exists(missing));
    EXPECT_EQ(ReadFile(text), std::string(5000, 'x'));
}

TEST_F(Qv8ToolTest, UsageAndHelp) {
    const ToolRun help = Run({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* command : {"chunks", "cat", "repair"})
        EXPECT_NE(help.out.find(std::string("  ") + command + " "), std::string::npos) << command;

    const ToolRun chunksHelp = Run({"chunks", "--help"});
    EXPECT_EQ(chunksHelp.status, 0);
    EXPECT_NE(chunksHelp.out.find("POSITION"), std::string::npos);

    const std::vector<std::vector<std::string>> wrong = {
        {}, {"nonsense"}, {"chunks"}, {"chunks", "a", "b"}, {"cat", "a"}, {"repair"}};
    for (const auto& args : wrong) {
        const ToolRun run = Run(args);
        EXPECT_EQ(run.status, 2) << testing::PrintToString(args);
        EXPECT_EQ(run.out, "");
        EXPECT_NE(run.err.find("usage: qv8"), std::string::npos) << run.err;
    }
}

}  // namespace

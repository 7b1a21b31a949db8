// Conformance tests of the storage wrapper: reads, writes, seeks and
// truncation behave alike over a byte array and over a file.
#include "fileformat/CKvFileMemoWrapper.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/TestSupport.h"

namespace {

std::string Text(const CKvByteArray& a) { return std::string(reinterpret_cast<const char*>(a.GetData()), a.GetSize()); }

// A fresh temporary directory and the name of a file in it.
struct TempFile {
    CTestTempDir tmp;
    std::string path = tmp.File("w.bin");
    std::wstring name = tmp.WideFile("w.bin");
};

// Runs over a file (true) and over memory (false).
class WrapperTest : public ::testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Storage, WrapperTest, ::testing::Values(true, false),
                         [](const auto& info) { return info.param ? "File" : "Memory"; });

// Bad arguments change nothing; a read past the end reports what it got and
// fails for a file but not for memory.
TEST_P(WrapperTest, ReadsWritesSeeksAndCuts) {
    const bool isFile = GetParam();
    TempFile file;
    CKvByteArray buffer("0123456789", 10);
    CKvFileMemoWrapper w;
    std::ofstream(file.path) << "0123456789";
    ASSERT_EQ(isFile ? w.Initialize(file.name.c_str(), false, true) : w.Initialize(buffer, false, false), KV_OK);
    auto content = [&] { return isFile ? ReadWholeFile(file.path) : Text(buffer); };
    char out[16] = {};
    uint64_t n = 0, size = 0, position = 0;
    EXPECT_EQ(w.ReadFile(out, 0, &n), KV_ERR_INVALID_ARG);
    EXPECT_EQ(w.WriteFile(nullptr, 2, &n), KV_ERR_INVALID_ARG);
    ASSERT_EQ(w.SeekFile(4, 0), KV_OK);
    ASSERT_EQ(w.WriteFile("ab", 2, &n), KV_OK);
    EXPECT_TRUE(w.FilePosition(&position) == KV_OK && position == 6) << position;
    ASSERT_EQ(w.SeekFile(9, 0), KV_OK);
    ASSERT_EQ(w.WriteFile("XYZ", 3, &n), KV_OK);
    ASSERT_EQ(w.SeekFile(14, 0), KV_OK);  // past the end: the gap reads as zeros
    ASSERT_EQ(w.WriteFile("!", 1, &n), KV_OK);
    EXPECT_EQ(content(), std::string("0123ab678XYZ\0\0!", 15));
    ASSERT_EQ(w.SeekFile(-10, 1), KV_OK);
    ASSERT_EQ(w.SetEOF(), KV_OK);
    ASSERT_EQ(w.GetSize(&size), KV_OK);
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(content(), "0123a");
    ASSERT_EQ(w.SeekFile(2, 0), KV_OK);
    EXPECT_EQ(w.ReadFile(out, 10, &n), isFile ? KV_ERR_FAILED : KV_OK);
    EXPECT_EQ(std::string(out, n), "23a");
    EXPECT_EQ(w.ReadFile(out, 5, &n), isFile ? KV_ERR_FAILED : KV_OK);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(w.Finalize(), KV_OK);
}

TEST(WrapperFileTest, OpeningModesAndSharedClose) {
    TempFile file;
    CKvFileMemoWrapper w, copy;
    uint64_t n = 0;
    EXPECT_EQ(w.Initialize(file.name.c_str(), true, false), KV_ERR_FAILED);
    EXPECT_EQ(w.Initialize(file.name.c_str(), false, true), KV_ERR_FAILED);  // must exist: not created
    EXPECT_FALSE(w.IsOpen() || std::filesystem::exists(file.path));
    std::ofstream(file.path) << "hello";
    ASSERT_EQ(w.Initialize(file.name.c_str(), false, false), KV_OK);  // opened for update, never truncated
    copy = w;
    ASSERT_EQ(w.Finalize(), KV_OK);
    EXPECT_FALSE(copy.IsOpen());  // copies share the stream, and close it once
    EXPECT_EQ(copy.Finalize(), KV_OK);
    ASSERT_EQ(w.Initialize(file.name.c_str(), true, false), KV_OK);
    EXPECT_EQ(w.WriteFile("xy", 2, &n), KV_ERR_FAILED);
    EXPECT_EQ(w.Finalize(), KV_OK);
    EXPECT_EQ(ReadWholeFile(file.path), "hello");
}

// Opening, closing and a refused write leave their diagnostic text; a file
// takes any seek from 0 on, from the end too, and refuses one before 0.
TEST(WrapperFileTest, DiagnosticsAndSeeks) {
    TempFile file;
    CKvFileMemoWrapper w;
    const std::wstring name = file.name;
    EXPECT_EQ(w.Initialize(name.c_str(), true, false), KV_ERR_FAILED);
    EXPECT_EQ(std::wstring(w.GetLastDiagnostic().GetString()),
              L"CKvFileMemoWrapper::getFileHandle_READ() : Error KV_OpenFile(" + name + L") returned: -1000");
    EXPECT_EQ(w.Initialize(name.c_str(), false, true), KV_ERR_FAILED);
    EXPECT_EQ(std::wstring(w.GetLastDiagnostic().GetString()),
              L"CKvFileChunker::getFileHandle_WRITE() : Error KV_OpenFile(" + name + L") returned: -1000");
    ASSERT_EQ(w.Initialize(name.c_str(), false, false), KV_OK);
    EXPECT_EQ(std::wstring(w.GetLastDiagnostic().GetString()),
              L"CKvFileChunker::getFileHandle_WRITE() : File opened KV_OpenFile(" + name + L")");
    uint64_t n = 0, position = 0;
    ASSERT_EQ(w.WriteFile("0123456789", 10, &n), KV_OK);
    EXPECT_EQ(w.SeekFile(-4, 2), KV_OK);
    EXPECT_TRUE(w.FilePosition(&position) == KV_OK && position == 6) << position;
    EXPECT_EQ(w.SeekFile(5, 2), KV_OK);
    EXPECT_TRUE(w.FilePosition(&position) == KV_OK && position == 15) << position;
    EXPECT_EQ(w.SeekFile(-16, 7), KV_ERR_SEEK_FILE);  // any other origin is from the position
    EXPECT_EQ(w.SeekFile(-15, 7), KV_OK);
    EXPECT_TRUE(w.FilePosition(&position) == KV_OK && position == 0) << position;
    ASSERT_EQ(w.Finalize(), KV_OK);
    EXPECT_EQ(std::wstring(w.GetLastDiagnostic().GetString()), L"CKvFileMemoWrapper::CloseFile()");
    ASSERT_EQ(w.Initialize(name.c_str(), true, false), KV_OK);
    EXPECT_EQ(std::wstring(w.GetLastDiagnostic().GetString()),
              L"CKvFileMemoWrapper::getFileHandle_READ() : File opened KV_OpenFile(" + name + L")");
    EXPECT_EQ(w.WriteFile("x", 1, &n), KV_ERR_FAILED);
    EXPECT_EQ(std::wstring(w.GetLastDiagnostic().GetString()),
              L"CKvFileChunker::getFileHandle_WRITE() : File opened but not for write!");
    EXPECT_EQ(w.Finalize(), KV_OK);
    EXPECT_EQ(ReadWholeFile(file.path), "0123456789");
}

// Seeks stay inside the array except from the start; a read-only array still
// takes writes; Finalize forgets the array.
TEST(WrapperMemoryTest, SeeksWritesAndFinalize) {
    CKvByteArray buffer(std::string(100, 'x').data(), 100);
    CKvFileMemoWrapper w;
    ASSERT_EQ(w.Initialize(buffer, true, false), KV_OK);
    struct Case { int64_t offset; uint32_t origin; kv_result result; uint64_t position; } cases[] = {
        {10, 0, KV_OK, 10},  {101, 2, KV_ERR_FAILED, 10}, {100, 2, KV_OK, 0},  {0, 2, KV_OK, 100},
        {50, 0, KV_OK, 50},  {51, 1, KV_ERR_FAILED, 50},  {50, 1, KV_OK, 100}, {-101, 1, KV_ERR_FAILED, 100},
        {-100, 1, KV_OK, 0}, {-1, 0, KV_ERR_FAILED, 0},   {0, 3, KV_ERR_FAILED, 0}, {200, 0, KV_OK, 200}};
    uint64_t n = 0, p = 0;
    for (const Case& c : cases) {
        EXPECT_EQ(w.SeekFile(c.offset, c.origin), c.result) << c.offset << "/" << c.origin;
        EXPECT_TRUE(w.FilePosition(&p) == KV_OK && p == c.position) << c.offset << "/" << c.origin;
    }
    ASSERT_EQ(w.WriteFile("abc", 3, &n), KV_OK);
    EXPECT_EQ(Text(buffer).substr(99), 'x' + std::string(100, '\0') + "abc");
    ASSERT_EQ(w.Finalize(), KV_OK);
    EXPECT_EQ(w.SeekFile(0, 0), KV_ERR_FAILED);
}

}  // namespace

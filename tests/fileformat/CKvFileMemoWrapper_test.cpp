// Conformance tests of the storage wrapper: reads, writes, seeks and
// truncation behave alike over a byte array and over a file.
#include "fileformat/CKvFileMemoWrapper.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace {

enum class Kind { File, Memory };

std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

class WrapperTest : public ::testing::TestWithParam<Kind> {
protected:
    void SetUp() override {
        char dir[] = "/tmp/wrapper_testXXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_dir = dir;
        m_path = m_dir + "/w.bin";
        m_name.assign(m_path.begin(), m_path.end());
    }
    void TearDown() override {
        w.Finalize();
        std::filesystem::remove_all(m_dir);
    }
    // Opens writable storage holding `content`, positioned at 0.
    void Open(const std::string& content) {
        if (GetParam() == Kind::Memory) {
            buffer.SetData(content.data(), content.size());
            ASSERT_EQ(w.Initialize(buffer, false, false), KV_OK);
            return;
        }
        std::ofstream(m_path, std::ios::binary) << content;
        ASSERT_EQ(w.Initialize(m_name.c_str(), false, true), KV_OK);
    }
    std::string Content() const {
        if (GetParam() == Kind::File) return ReadText(m_path);
        return std::string(reinterpret_cast<const char*>(buffer.GetData()), buffer.GetSize());
    }
    uint64_t Position() {
        uint64_t p = ~0ull;
        EXPECT_EQ(w.FilePosition(&p), KV_OK);
        return p;
    }

    CKvFileMemoWrapper w;
    CKvByteArray buffer;
    std::string m_dir, m_path;
    std::wstring m_name;
};
INSTANTIATE_TEST_SUITE_P(Storage, WrapperTest, ::testing::Values(Kind::File, Kind::Memory),
                         [](const auto& info) { return info.param == Kind::File ? "File" : "Memory"; });

TEST_P(WrapperTest, WritesAtThePositionAndCutsThere) {
    Open("0123456789");
    uint64_t n = 0, size = 0;
    ASSERT_EQ(w.SeekFile(4, 0), KV_OK);
    ASSERT_EQ(w.WriteFile("ab", 2, &n), KV_OK);
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(Position(), 6u);
    EXPECT_EQ(Content(), "0123ab6789");
    ASSERT_EQ(w.SeekFile(9, 0), KV_OK);
    ASSERT_EQ(w.WriteFile("XYZ", 3, &n), KV_OK);
    EXPECT_EQ(Content(), "0123ab678XYZ");
    ASSERT_EQ(w.SeekFile(-7, 1), KV_OK);
    ASSERT_EQ(w.SetEOF(), KV_OK);
    EXPECT_EQ(Content(), "0123a");
    ASSERT_EQ(w.GetSize(&size), KV_OK);
    EXPECT_EQ(size, 5u);
    char out[8] = {};
    ASSERT_EQ(w.SeekFile(1, 0), KV_OK);
    ASSERT_EQ(w.ReadFile(out, 4, &n), KV_OK);
    EXPECT_EQ(std::string(out, n), "123a");
}

// Argument checks, and a read past the end: a file answers -9, memory a short count.
TEST_P(WrapperTest, ReadAndWriteArguments) {
    Open("abcdefghij");
    char out[16] = {};
    uint64_t n = 0;
    EXPECT_EQ(w.ReadFile(nullptr, 2, &n), KV_ERR_INVALID_ARG);
    EXPECT_EQ(w.ReadFile(out, 0, &n), KV_ERR_INVALID_ARG);
    EXPECT_EQ(w.ReadFile(out, 2, nullptr), KV_ERR_INVALID_ARG);
    EXPECT_EQ(w.WriteFile(nullptr, 0, &n), KV_OK);
    EXPECT_EQ(w.WriteFile(nullptr, 2, &n), KV_ERR_INVALID_ARG);
    EXPECT_EQ(w.FilePosition(nullptr), KV_ERR_INVALID_ARG);
    EXPECT_EQ(Position(), 0u);
    EXPECT_EQ(Content(), "abcdefghij");

    ASSERT_EQ(w.SeekFile(7, 0), KV_OK);
    kv_result r = w.ReadFile(out, 10, &n);
    EXPECT_EQ(std::string(out, n), "hij");
    if (GetParam() == Kind::File) {
        EXPECT_EQ(r, KV_ERR_FAILED);
    } else {
        EXPECT_TRUE(KV_SUCCEEDED(r));
        EXPECT_TRUE(KV_SUCCEEDED(w.ReadFile(out, 5, &n)));
        EXPECT_EQ(n, 0u);
    }
}

TEST_P(WrapperTest, FileOpeningModes) {
    if (GetParam() != Kind::File) GTEST_SKIP();
    CKvFileMemoWrapper missing, reader, created;
    EXPECT_EQ(missing.Initialize(m_name.c_str(), true, false), KV_ERR_FAILED);
    EXPECT_FALSE(missing.IsOpen());
    EXPECT_EQ(missing.Initialize(m_name.c_str(), false, true), KV_ERR_FAILED);
    EXPECT_FALSE(std::filesystem::exists(m_path));

    std::ofstream(m_path) << "hello";
    ASSERT_EQ(w.Initialize(m_name.c_str(), false, false), KV_OK);  // opened for update, never truncated
    EXPECT_EQ(std::wstring(w.GetFileName()), m_name);
    EXPECT_EQ(ReadText(m_path), "hello");
    CKvFileMemoWrapper copy = w;
    ASSERT_EQ(w.Finalize(), KV_OK);
    EXPECT_FALSE(copy.IsOpen());
    EXPECT_EQ(w.Finalize(), KV_OK);

    ASSERT_EQ(reader.Initialize(m_name.c_str(), true, false), KV_OK);
    uint64_t n = 0;
    EXPECT_EQ(reader.WriteFile("xy", 2, &n), KV_ERR_FAILED);
    EXPECT_EQ(reader.Finalize(), KV_OK);
    EXPECT_EQ(ReadText(m_path), "hello");

    std::filesystem::remove(m_path);
    ASSERT_EQ(created.Initialize(m_name.c_str(), false, false), KV_OK);
    EXPECT_TRUE(std::filesystem::exists(m_path));
    EXPECT_EQ(created.Finalize(), KV_OK);
}

TEST(WrapperMemoryTest, SeekStaysWithinTheArray) {
    CKvByteArray buffer(std::string(100, 'x').data(), 100);
    CKvFileMemoWrapper w;
    ASSERT_EQ(w.Initialize(buffer, false, false), KV_OK);
    struct Case { int64_t offset; uint32_t origin; kv_result result; uint64_t position; } cases[] = {
        {10, 0, KV_OK, 10}, {101, 2, KV_ERR_FAILED, 10}, {100, 2, KV_OK, 0},  {0, 2, KV_OK, 100},
        {50, 0, KV_OK, 50}, {51, 1, KV_ERR_FAILED, 50},  {50, 1, KV_OK, 100}, {0, 3, KV_ERR_FAILED, 100}};
    for (const Case& c : cases) {
        uint64_t p = 0;
        EXPECT_EQ(w.SeekFile(c.offset, c.origin), c.result) << c.offset << "/" << c.origin;
        ASSERT_EQ(w.FilePosition(&p), KV_OK);
        EXPECT_EQ(p, c.position) << c.offset << "/" << c.origin;
    }
}

TEST(WrapperMemoryTest, ReadOnlyArrayStillTakesWritesAndFinalizeForgetsIt) {
    CKvByteArray buffer;
    CKvFileMemoWrapper w;
    ASSERT_EQ(w.Initialize(buffer, true, false), KV_OK);
    EXPECT_TRUE(w.GetReadOnly());
    uint64_t n = 0, p = 0;
    ASSERT_EQ(w.WriteFile("abc", 3, &n), KV_OK);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.GetData()), buffer.GetSize()), "abc");
    ASSERT_EQ(w.Finalize(), KV_OK);
    EXPECT_EQ(w.SeekFile(0, 0), KV_ERR_FAILED);
    EXPECT_EQ(w.FilePosition(&p), KV_ERR_FAILED);
}

}  // namespace

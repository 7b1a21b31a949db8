// Tests of the KV_* file layer on real files in a fresh temporary directory.
#include "gnr_system/KvFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "gnr_system/CKvString.h"

namespace {

namespace fs = std::filesystem;

class KvFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/kvfile_test_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_dir = pattern;
    }
    void TearDown() override { fs::remove_all(m_dir); }

    std::string Narrow(const char* name) const { return m_dir + "/" + name; }
    std::wstring Wide(const char* name) const { return CKvStringUtils::UTF8toW(Narrow(name).c_str()).c_str(); }
    static void Put(const std::string& path, const std::string& content) { std::ofstream(path) << content; }
    static std::string Get(const std::string& path) {
        std::ostringstream out;
        out << std::ifstream(path).rdbuf();
        return out.str();
    }

    std::string m_dir;
};

TEST_F(KvFileTest, OpenModesByFlags) {
    // `readable`: the stream reads back what it wrote; `content`: the file
    // after writing "new" at the start (null: no file).
    struct Case { int flags; bool exists; kv_result result; bool readable; const char* content; };
    const Case cases[] = {
        {16, true, KV_OK, false, "new"},          {16, false, KV_OK, false, "new"},
        {17, true, KV_OK, true, "new"},           {17, false, KV_OK, true, "new"},
        {4, true, KV_OK, true, "new-content"},    {4, false, KV_OK, true, "new"},
        {0, true, KV_OK, true, "new-content"},    {0, false, KV_ERR_OPEN_FILE, false, nullptr},
        {11, true, KV_OK, true, "new-content"},   {11, false, KV_ERR_OPEN_FILE, false, nullptr},
        {15, true, KV_OK, true, "new-content"},   {15, false, KV_OK, true, "new"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "flags " << c.flags << (c.exists ? " existing" : " missing"));
        fs::remove(Narrow("f"));
        if (c.exists) Put(Narrow("f"), "old-content");
        FILE* file = reinterpret_cast<FILE*>(1);
        ASSERT_EQ(KV_OpenFile(Wide("f").c_str(), c.flags, 3, -1, &file), c.result);
        if (c.result != KV_OK) {
            EXPECT_EQ(file, nullptr);
            EXPECT_FALSE(fs::exists(Narrow("f")));
            continue;
        }
        uint64_t count = 0;
        char back[4] = {};
        EXPECT_EQ(KV_WriteFile(file, "new", 3, &count, nullptr), KV_WRITE_FILE_WROTE);
        EXPECT_EQ(KV_SeekFile(file, 0, 0), KV_OK);
        EXPECT_EQ(KV_ReadFile(file, back, 3, &count) == KV_OK && std::string(back) == "new", c.readable);
        EXPECT_EQ(KV_CloseFile(file), KV_OK);
        EXPECT_EQ(Get(Narrow("f")), c.content);
    }
}

TEST_F(KvFileTest, WriteAnswersWroteAndReadReportsShortCounts) {
    FILE* file = nullptr;
    ASSERT_EQ(KV_OpenFile(Wide("f").c_str(), 15, 3, -1, &file), KV_OK);
    uint64_t count = 99;
    EXPECT_EQ(KV_WriteFile(file, "0123456789", 10, &count, nullptr), KV_WRITE_FILE_WROTE);
    EXPECT_EQ(count, 10u);
    EXPECT_EQ(KV_WriteFile(file, "x", 0, &count, nullptr), KV_OK);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(Get(Narrow("f")), "0123456789");  // flushed at once

    char buffer[20] = {};
    EXPECT_EQ(KV_SeekFile(file, 0, 0), KV_OK);
    EXPECT_EQ(KV_ReadFile(file, buffer, 4, nullptr), KV_OK);
    EXPECT_EQ(KV_ReadFile(file, buffer, 20, &count), KV_ERR_READ_FILE);
    EXPECT_EQ(count, 6u);
    EXPECT_EQ(std::string(buffer, 6), "456789");
    EXPECT_EQ(KV_CloseFile(file), KV_OK);
}

TEST_F(KvFileTest, SeekOriginsAndTruncation) {
    FILE* file = nullptr;
    ASSERT_EQ(KV_OpenFile(Wide("f").c_str(), 15, 3, -1, &file), KV_OK);
    ASSERT_EQ(KV_WriteFile(file, "0123456789", 10, nullptr, nullptr), KV_WRITE_FILE_WROTE);
    struct Case { int64_t offset; uint32_t origin; uint64_t position; };  // each from position 2
    const Case cases[] = {{5, 0, 5}, {3, 1, 5}, {3, 7, 5}, {-1, 0xFFFFFFFF, 1}, {-4, 2, 6}, {0, 2, 10}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "origin " << c.origin);
        uint64_t position = 0;
        ASSERT_EQ(KV_SeekFile(file, 2, 0), KV_OK);
        EXPECT_EQ(KV_SeekFile(file, c.offset, c.origin), KV_OK);
        EXPECT_EQ(KV_FilePosition(file, &position), KV_OK);
        EXPECT_EQ(position, c.position);
    }
    EXPECT_EQ(KV_SeekFile(file, -11, 2), KV_ERR_SEEK_FILE);

    uint64_t size = 0;
    ASSERT_EQ(KV_SeekFile(file, 4, 0), KV_OK);
    EXPECT_EQ(KV_SetEOF(file), KV_OK);
    EXPECT_EQ(KV_GetFileSize(file, &size), KV_OK);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(KV_CloseFile(file), KV_OK);
    EXPECT_EQ(Get(Narrow("f")), "0123");
}

TEST_F(KvFileTest, SizesRemovalAndNamesBeyondAscii) {
    const std::wstring name = Wide("") + L"\u00e9t\u00e9\U0001F600.bin";
    FILE* file = nullptr;
    ASSERT_EQ(KV_OpenFile(name.c_str(), 15, 3, -1, &file), KV_OK);
    ASSERT_EQ(KV_WriteFile(file, "abc", 3, nullptr, nullptr), KV_WRITE_FILE_WROTE);
    uint64_t size = 0;
    EXPECT_EQ(KV_GetFileSize(file, &size), KV_OK);
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(KV_CloseFile(file), KV_OK);

    EXPECT_TRUE(fs::exists(Narrow("\xC3\xA9t\xC3\xA9\xF0\x9F\x98\x80.bin")));  // stored as UTF-8
    size = 0;
    EXPECT_EQ(KV_GetFileSizeFromName(name.c_str(), &size), KV_OK);
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(KV_AccessFile(name.c_str(), 0), KV_OK);
    EXPECT_EQ(KV_GetFileSize(stdin, &size), KV_ERR_FILE_SIZE);  // descriptor 0 is refused

    // Removing a missing file is an error only when the caller asks for it.
    EXPECT_EQ(KV_RemoveFile(name.c_str(), 1), KV_OK);
    EXPECT_EQ(KV_GetFileSizeFromName(name.c_str(), &size), KV_ERR_FILE_SIZE);
    EXPECT_EQ(KV_RemoveFile(name.c_str(), 1), KV_ERR_READ_FILE);
    EXPECT_EQ(KV_RemoveFile(name.c_str(), 0), KV_OK);
}

TEST_F(KvFileTest, AccessModes) {
    Put(Narrow("plain"), "x");
    Put(Narrow("tool"), "x");
    chmod(Narrow("plain").c_str(), 0644);
    chmod(Narrow("tool").c_str(), 0755);
    struct Case { const char* name; int mode; kv_result result; };
    const Case cases[] = {{"plain", 0, KV_OK},          {"plain", 1, KV_OK},
                          {"plain", 3, KV_OK},          {"plain", 4, KV_ERR_READ_FILE},
                          {"tool", 4, KV_OK},           {"tool", 7, KV_OK},
                          {"missing", 0, KV_ERR_READ_FILE}, {"missing", 1, KV_ERR_READ_FILE}};
    for (const Case& c : cases) {
        EXPECT_EQ(KV_AccessFile(Wide(c.name).c_str(), c.mode), c.result) << c.name << " mode " << c.mode;
    }
}

TEST_F(KvFileTest, CreateDirectoryFailsOnAnyExistingComponent) {
    EXPECT_EQ(KV_CreateDirectory(Wide("x").c_str(), 0, 0700), KV_OK);
    EXPECT_TRUE(fs::is_directory(Narrow("x")));
    EXPECT_EQ(fs::status(Narrow("x")).permissions() & fs::perms::all, fs::perms::owner_all);
    EXPECT_EQ(KV_CreateDirectory(Wide("x").c_str(), 0, 0700), KV_ERR_CREATE_DIRECTORY);
    EXPECT_EQ(KV_CreateDirectory(Wide("x/y").c_str(), 1, 0755), KV_ERR_CREATE_DIRECTORY);
    EXPECT_FALSE(fs::exists(Narrow("x/y")));

    // Relative paths where no component exists yet are made whole.
    const fs::path previous = fs::current_path();
    fs::current_path(m_dir);
    EXPECT_EQ(KV_CreateDirectory(L"p/q/r/", 1, 0755), KV_OK);
    fs::current_path(previous);
    EXPECT_TRUE(fs::is_directory(Narrow("p/q/r")));
}

TEST_F(KvFileTest, CopyRefusesAnExistingDestination) {
    std::string content;
    for (int i = 0; i < 10000; ++i) content += static_cast<char>('a' + i % 23);
    Put(Narrow("src"), content);
    EXPECT_EQ(KV_CopyFile(Wide("src").c_str(), Wide("dst").c_str()), KV_OK);
    EXPECT_EQ(Get(Narrow("dst")), content);

    Put(Narrow("dst"), "keep");
    errno = 0;
    EXPECT_EQ(KV_CopyFile(Wide("src").c_str(), Wide("dst").c_str()), KV_ERR_COPY_FILE);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(Get(Narrow("dst")), "keep");

    errno = 0;
    EXPECT_EQ(KV_CopyFile(Wide("none").c_str(), Wide("new").c_str()), KV_ERR_COPY_FILE);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(fs::exists(Narrow("new")));
    EXPECT_EQ(KV_MoveFile(Wide("src").c_str(), Wide("new").c_str()), KV_ERR_FAILED);
}

TEST_F(KvFileTest, TempPathAndNames) {
    wchar_t buffer[512];
    EXPECT_EQ(KV_GetTempPath(buffer, 512), KV_OK);
    EXPECT_STREQ(buffer, L"/tmp/");
    EXPECT_EQ(KV_GetTempPath(buffer, 3), KV_OK);
    EXPECT_STREQ(buffer, L"/t");

    const std::wstring dir = Wide("");  // ends in '/'
    ASSERT_EQ(KV_GetTempFileName(dir.c_str(), L"abcdefgh", 1, buffer, 512), KV_OK);
    const std::wstring first = buffer;
    EXPECT_EQ(first.rfind(dir + L"abcde", 0), 0u) << CKvStringA(buffer).c_str();
    EXPECT_NE(first[dir.size() + 5], L'f');
    EXPECT_EQ(fs::file_size(CKvStringA(buffer).c_str()), 0u);

    ASSERT_EQ(KV_GetTempFileName(dir.c_str(), L"abcdefgh", 0, buffer, 512), KV_OK);
    EXPECT_NE(first, buffer);
    EXPECT_EQ(std::wstring(buffer).rfind(dir + L"abcde", 0), 0u);
    EXPECT_FALSE(fs::exists(CKvStringA(buffer).c_str()));

    // A null or missing directory falls back to /tmp.
    for (const wchar_t* where : {static_cast<const wchar_t*>(nullptr), L"/nonexistent/dir"}) {
        ASSERT_EQ(KV_GetTempFileName(where, nullptr, 0, buffer, 512), KV_OK);
        EXPECT_EQ(std::wstring(buffer).rfind(L"/tmp/file", 0), 0u) << CKvStringA(buffer).c_str();
    }
    EXPECT_EQ(KV_GetTempFileName(dir.c_str(), L"p", 1, buffer, 8), KV_ERR_TEMP_FILE);
    EXPECT_EQ(std::distance(fs::directory_iterator(m_dir), fs::directory_iterator()), 1);
}

TEST(KvFileCalls, SstricmpOrdersWithoutCase) {
    struct Case { const wchar_t* a; const wchar_t* b; int result; };
    const Case cases[] = {{L"qv8", L"QV8", 0},  {L"", L"", 0},          {L"TIF", L"tiff", -'f'},
                          {L"a", L"C", 'a' - 'c'}, {L"Ab", L"a", 'b'},    {L"QV9", L"qv8", 1},
                          {L"x_", L"X[", '_' - '['}};
    for (const Case& c : cases) {
        EXPECT_EQ(KV_Sstricmp(c.a, c.b), c.result) << CKvStringA(c.a).c_str() << " vs " << CKvStringA(c.b).c_str();
    }
}

TEST(KvFileCalls, NullArgumentsAreRefused) {
    FILE* file = nullptr;
    uint64_t value = 0;
    EXPECT_EQ(KV_OpenFile(nullptr, 15, 3, -1, &file), KV_ERR_INVALID_ARG);
    EXPECT_EQ(KV_CloseFile(nullptr), KV_ERR_INVALID_ARG);
    EXPECT_EQ(KV_ReadFile(nullptr, &value, 1, &value), KV_ERR_INVALID_ARG);
    EXPECT_EQ(KV_WriteFile(nullptr, &value, 1, &value, nullptr), KV_ERR_INVALID_ARG);
    EXPECT_EQ(KV_SeekFile(nullptr, 0, 0), KV_ERR_INVALID_ARG);
    EXPECT_EQ(KV_GetFileSize(nullptr, &value), KV_ERR_INVALID_ARG);
    EXPECT_EQ(KV_GetFileSizeFromName(nullptr, &value), KV_ERR_INVALID_ARG);
    EXPECT_EQ(KV_RemoveFile(nullptr, 0), KV_ERR_INVALID_ARG);
    EXPECT_EQ(KV_AccessFile(nullptr, 0), KV_ERR_INVALID_ARG);
    EXPECT_EQ(KV_CreateDirectory(nullptr, 1, 0755), KV_ERR_INVALID_ARG);
    EXPECT_EQ(KV_CopyFile(nullptr, L"x"), KV_ERR_COPY_FILE);
    EXPECT_EQ(KV_GetTempFileName(nullptr, L"p", 0, nullptr, 8), KV_ERR_INVALID_ARG);
    EXPECT_GE(KV_GetProcessorCount(), 1);
}

}  // namespace

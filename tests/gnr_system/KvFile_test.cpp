// Tests of the KV_* file layer on real files in a fresh temporary directory.
#include "gnr_system/KvFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include "gnr_system/CKvString.h"
#include "tests/TestSupport.h"

namespace {

namespace fs = std::filesystem;

class KvFileTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_tmp.IsValid()); }

    std::string Narrow(const char* name) const { return m_tmp.File(name); }
    std::wstring Wide(const char* name) const { return m_tmp.WideFile(name); }
    static void Put(const std::string& path, const std::string& content) { std::ofstream(path) << content; }
    static std::string Get(const std::string& path) { return ReadWholeFile(path); }

    CTestTempDir m_tmp;
    const std::string& m_dir = m_tmp.Path();
};

TEST_F(KvFileTest, OpenModesByFlags) {
    // `readable`: the stream reads back what it wrote; `content`: the file
    // after writing "new" at the start (null: no file).
    struct Case { int flags; bool exists; kv_result result; bool readable; const char* content; };
    const Case cases[] = {
        {16, true, KV_OK, false, "new"},        {17, false, KV_OK, true, "new"},
        {4, true, KV_OK, true, "new-content"},  {4, false, KV_OK, true, "new"},
        {0, true, KV_OK, true, "new-content"},  {0, false, KV_ERR_OPEN_FILE, false, nullptr},
        {11, false, KV_ERR_OPEN_FILE, false, nullptr}, {15, true, KV_OK, true, "new-content"}, {15, false, KV_OK, true, "new"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "flags " << c.flags << (c.exists ? " existing" : " missing"));
        fs::remove(Narrow("f"));
        if (c.exists) Put(Narrow("f"), "old-content");
        FILE* file = reinterpret_cast<FILE*>(1);
        ASSERT_EQ(KV_OpenFile(Wide("f").c_str(), c.flags, 3, -1, &file), c.result);
        if (c.result != KV_OK) {
            EXPECT_TRUE(file == nullptr && !fs::exists(Narrow("f")));
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

// Writes answer "wrote" and are flushed at once; reads report short counts.
// Seeks from every origin, then a cut at the position.
TEST_F(KvFileTest, ReadWriteSeekAndTruncate) {
    FILE* file = nullptr;
    ASSERT_EQ(KV_OpenFile(Wide("f").c_str(), 15, 3, -1, &file), KV_OK);
    uint64_t count = 99, position = 0, size = 0;
    EXPECT_EQ(KV_WriteFile(file, "0123456789", 10, &count, nullptr), KV_WRITE_FILE_WROTE);
    EXPECT_EQ(count, 10u);
    EXPECT_EQ(Get(Narrow("f")), "0123456789");
    EXPECT_EQ(KV_WriteFile(file, "x", 0, &count, nullptr), KV_OK);
    EXPECT_EQ(count, 0u);
    char buffer[20] = {};
    EXPECT_EQ(KV_SeekFile(file, 4, 0), KV_OK);
    EXPECT_EQ(KV_ReadFile(file, buffer, 20, &count), KV_ERR_READ_FILE);
    EXPECT_EQ(std::string(buffer, count), "456789");

    struct Case { int64_t offset; uint32_t origin; uint64_t position; };  // each from position 2
    const Case cases[] = {{5, 0, 5}, {3, 1, 5}, {3, 7, 5}, {-1, 0xFFFFFFFF, 1}, {-4, 2, 6}};
    for (const Case& c : cases) {
        ASSERT_EQ(KV_SeekFile(file, 2, 0), KV_OK);
        EXPECT_EQ(KV_SeekFile(file, c.offset, c.origin), KV_OK);
        EXPECT_TRUE(KV_FilePosition(file, &position) == KV_OK && position == c.position) << c.origin;
    }
    EXPECT_EQ(KV_SeekFile(file, -11, 2), KV_ERR_SEEK_FILE);
    ASSERT_EQ(KV_SeekFile(file, 4, 0), KV_OK);
    EXPECT_EQ(KV_SetEOF(file), KV_OK);
    EXPECT_TRUE(KV_GetFileSize(file, &size) == KV_OK && size == 4) << size;
    EXPECT_EQ(KV_CloseFile(file), KV_OK);
    EXPECT_EQ(Get(Narrow("f")), "0123");
}

TEST_F(KvFileTest, SizesAccessRemovalAndNamesBeyondAscii) {
    const std::wstring name = Wide("") + L"\u00e9t\u00e9\U0001F600.bin";
    const std::string stored = Narrow("\xC3\xA9t\xC3\xA9\xF0\x9F\x98\x80.bin");  // the name as UTF-8
    FILE* file = nullptr;
    ASSERT_EQ(KV_OpenFile(name.c_str(), 15, 3, -1, &file), KV_OK);
    ASSERT_EQ(KV_WriteFile(file, "abc", 3, nullptr, nullptr), KV_WRITE_FILE_WROTE);
    EXPECT_EQ(KV_CloseFile(file), KV_OK);
    uint64_t size = 0;
    EXPECT_TRUE(KV_GetFileSizeFromName(name.c_str(), &size) == KV_OK && size == 3) << size;
    EXPECT_EQ(KV_GetFileSize(stdin, &size), KV_ERR_FILE_SIZE);  // descriptor 0 is refused

    // Mode bits: 1 read, 2 write, 4 execute.
    chmod(stored.c_str(), 0644);
    EXPECT_EQ(KV_AccessFile(name.c_str(), 3), KV_OK);
    EXPECT_EQ(KV_AccessFile(name.c_str(), 4), KV_ERR_READ_FILE);
    chmod(stored.c_str(), 0755);
    EXPECT_EQ(KV_AccessFile(name.c_str(), 7), KV_OK);

    // Removing a missing file is an error only when the caller asks for it.
    EXPECT_EQ(KV_RemoveFile(name.c_str(), 1), KV_OK);
    EXPECT_EQ(KV_AccessFile(name.c_str(), 0), KV_ERR_READ_FILE);
    EXPECT_EQ(KV_GetFileSizeFromName(name.c_str(), &size), KV_ERR_FILE_SIZE);
    EXPECT_EQ(KV_RemoveFile(name.c_str(), 1), KV_ERR_READ_FILE);
    EXPECT_EQ(KV_RemoveFile(name.c_str(), 0), KV_OK);
}

TEST_F(KvFileTest, CreateDirectoryFailsOnAnyExistingComponent) {
    EXPECT_EQ(KV_CreateDirectory(Wide("x").c_str(), 0, 0700), KV_OK);
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
    EXPECT_EQ(KV_CopyFile(Wide("src").c_str(), Wide("dst").c_str()), KV_ERR_COPY_FILE);
    EXPECT_TRUE(errno == EEXIST && Get(Narrow("dst")) == "keep");
    EXPECT_EQ(KV_CopyFile(Wide("none").c_str(), Wide("new").c_str()), KV_ERR_COPY_FILE);
    EXPECT_TRUE(errno == ENOENT && !fs::exists(Narrow("new")));
    EXPECT_EQ(KV_MoveFile(Wide("src").c_str(), Wide("new").c_str()), KV_ERR_FAILED);
}

TEST_F(KvFileTest, TempPathAndNames) {
    wchar_t buffer[512];
    EXPECT_TRUE(KV_GetTempPath(buffer, 512) == KV_OK && std::wstring(buffer) == L"/tmp/");
    EXPECT_TRUE(KV_GetTempPath(buffer, 3) == KV_OK && std::wstring(buffer) == L"/t");

    const std::wstring dir = Wide("");  // ends in '/'
    ASSERT_EQ(KV_GetTempFileName(dir.c_str(), L"abcdefgh", 1, buffer, 512), KV_OK);
    const std::wstring first = buffer;
    EXPECT_EQ(first.rfind(dir + L"abcde", 0), 0u) << CKvStringA(buffer).c_str();
    EXPECT_EQ(first.size(), dir.size() + 5 + 6);  // the prefix is cut to five characters
    EXPECT_EQ(fs::file_size(CKvStringA(buffer).c_str()), 0u);
    ASSERT_EQ(KV_GetTempFileName(dir.c_str(), L"abcdefgh", 0, buffer, 512), KV_OK);
    EXPECT_NE(first, buffer);
    EXPECT_FALSE(fs::exists(CKvStringA(buffer).c_str()));

    // A null or missing directory falls back to /tmp.
    for (const wchar_t* where : {static_cast<const wchar_t*>(nullptr), L"/nonexistent/dir"}) {
        ASSERT_EQ(KV_GetTempFileName(where, nullptr, 0, buffer, 512), KV_OK);
        EXPECT_EQ(std::wstring(buffer).rfind(L"/tmp/file", 0), 0u) << CKvStringA(buffer).c_str();
    }
    // A name that does not fit is refused and leaves no file behind.
    EXPECT_EQ(KV_GetTempFileName(dir.c_str(), L"p", 1, buffer, 8), KV_ERR_TEMP_FILE);
    EXPECT_EQ(std::distance(fs::directory_iterator(m_dir), fs::directory_iterator()), 1);
}

TEST(KvFileCalls, SstricmpAndNullArguments) {
    struct Case { const wchar_t* a; const wchar_t* b; int result; };
    const Case cases[] = {{L"qv8", L"QV8", 0}, {L"TIF", L"tiff", -'f'}, {L"a", L"C", 'a' - 'c'},
                          {L"Ab", L"a", 'b'},  {L"x_", L"X[", '_' - '['}};
    for (const Case& c : cases) {
        EXPECT_EQ(KV_Sstricmp(c.a, c.b), c.result) << CKvStringA(c.a).c_str() << " vs " << CKvStringA(c.b).c_str();
    }
    FILE* file = reinterpret_cast<FILE*>(1);
    EXPECT_EQ(KV_OpenFile(nullptr, 15, 3, -1, &file), KV_ERR_INVALID_ARG);
    EXPECT_EQ(file, nullptr);
}

}  // namespace

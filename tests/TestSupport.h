// Helpers shared by the test suites: a temporary directory removed with its
// content at the end of a test, whole-file reads, and zlib streams made the
// plain way to compare the library's against.
#pragma once

#include <stdlib.h>
#include <zlib.h>

#include <cstdint>
#include <vector>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "gnr_system/CKvString.h"

class CTestTempDir {
public:
    CTestTempDir() {
        char pattern[] = "/tmp/zemfilesdk_test_XXXXXX";
        if (mkdtemp(pattern)) m_path = pattern;
    }
    ~CTestTempDir() {
        if (!m_path.empty()) std::filesystem::remove_all(m_path);
    }
    CTestTempDir(const CTestTempDir&) = delete;
    CTestTempDir& operator=(const CTestTempDir&) = delete;

    bool IsValid() const { return !m_path.empty(); }
    const std::string& Path() const { return m_path; }
    // A path inside the directory, narrow (UTF-8) and wide.
    std::string File(const char* name) const { return m_path + "/" + name; }
    std::wstring WideFile(const char* name) const { return CKvStringUtils::UTF8toW(File(name).c_str()).c_str(); }

private:
    std::string m_path;
};

inline std::string ReadWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// `raw` as one zlib stream made by compress2 at `level`; empty on failure.
inline std::vector<uint8_t> TestDeflate(const std::vector<uint8_t>& raw, int level = 6) {
    uLongf size = compressBound(raw.size());
    std::vector<uint8_t> out(size);
    if (compress2(out.data(), &size, raw.data(), raw.size(), level) != Z_OK) return {};
    out.resize(size);
    return out;
}

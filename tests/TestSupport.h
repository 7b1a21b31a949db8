// Helpers shared by the test suites: a temporary directory removed with its
// content at the end of a test, and whole-file reads.
#pragma once

#include <stdlib.h>

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

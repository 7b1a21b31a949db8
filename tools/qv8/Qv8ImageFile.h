// QV8 image files as the image commands of the tool use them: opened for
// reading through the format registry, owned until the command ends, and the
// failures of opening explained in one line.
#pragma once

#include <string>

#include "fileformat/CKvQV8InputFile.h"
#include "fileformat/IKvImageFile.h"
#include "gnr_system/KvResult.h"

// Owns one reference to an input image file.
class CQv8ImageFile {
public:
    CQv8ImageFile() = default;
    ~CQv8ImageFile();
    CQv8ImageFile(const CQv8ImageFile&) = delete;
    CQv8ImageFile& operator=(const CQv8ImageFile&) = delete;

    // Opens `file` (UTF-8) through the format its extension calls for; a name
    // no registered format claims is opened as QV8, the format of this tool.
    kv_result Open(const std::string& file);
    IKvInputImageFile* operator->() const { return m_pFile; }
    // The QV8 reader behind the file, which also answers the signature's
    // version and the stored frames; null for a file of another format.
    CKvQV8InputFile_V02* QV8() const { return dynamic_cast<CKvQV8InputFile_V02*>(m_pFile); }
    IKvInputImageFile& operator*() const { return *m_pFile; }

private:
    IKvInputImageFile* m_pFile = nullptr;
};

// Reports why Open failed, from what the container under the file says;
// answers kExitFailure.
int ReportImageOpenFailure(const std::string& file, kv_result code);

// Opens `file` and reads its frame shape. kExitOk, or the failure reported
// and kExitFailure.
int OpenImageFile(const std::string& file, CQv8ImageFile& image, SKvImageAttributes& attributes);

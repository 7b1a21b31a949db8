// Opening QV8 image files for the image commands.
#include "tools/qv8/Qv8ImageFile.h"

#include "fileformat/CKvImageFormatQV8.h"
#include "gnr_system/ImageFormatManager.h"
#include "tools/qv8/Qv8Command.h"

namespace {

IKvImageFormatManager& Registry() {
    static CKvImageFormatManagerImpl manager;
    // The registry loads the formats only once per process; an empty one asks again.
    if (manager.GetImageFormatCount() == 0) manager.LoadAllImageFormats(true);
    return manager;
}

}  // namespace

CQv8ImageFile::~CQv8ImageFile() {
    if (m_pFile) m_pFile->Release();
}

kv_result CQv8ImageFile::Open(const std::string& file) {
    const CKvStringW wide = CKvStringUtils::UTF8toW(file.c_str());
    IKvImageFormat* format = nullptr;
    if (Registry().GetImageFormatByFilename(wide, format) != KV_OK) format = CKvImageFormatQV8::Shared();
    return format->CreateInputImageFile(wide, m_pFile);
}

int ReportImageOpenFailure(const std::string& file, kv_result code) {
    CKvFileChunker chunker;
    const kv_result r = OpenForReading(chunker, file);
    if (r != KV_OK) return ReportOpenFailure(file, r, chunker);
    chunker.Finalize();
    if (code == KV_ERR_REFUSED_VERSION) return ReportFailure(file, "a QV8 version this tool cannot read", code);
    return ReportFailure(file, "not a readable QV8 image file", code);
}

int OpenImageFile(const std::string& file, CQv8ImageFile& image, SKvImageAttributes& attributes) {
    kv_result r = image.Open(file);
    if (r != KV_OK) return ReportImageOpenFailure(file, r);
    r = image->GetImageAttributes(attributes);
    if (r != KV_OK) return ReportFailure(file, "no image attributes (\"ImageAttributesLV!\")", r);
    return kExitOk;
}

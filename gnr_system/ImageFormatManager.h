// The registry of image formats: keeps the registered formats in order,
// finds one by identifier or by the extension of a file name, and opens
// input files through the format a file name calls for.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "gnr_system/CKvString.h"
#include "gnr_system/KvClass.h"
#include "gnr_system/KvResult.h"

class IKvImageFormat;
class IKvInputImageFile;

// Progress of the file operations: (percent, done, total, user data).
typedef void (*KvImageFileProgress)(int, uint64_t, uint64_t, void*);

class IKvImageFormatManager : public IKvInterface {
public:
    // Appends `format` (the registry then owns a reference) and answers its
    // index. KV_ERR_INVALID_ARG for null, KV_ERR_FORMAT_REGISTERED_TWICE when its identifier is registered already.
    virtual kv_result RegisterImageFormat(IKvImageFormat* format, uint32_t* index) = 0;
    // Registers the formats of this library once (again with `reload`).
    virtual kv_result LoadAllImageFormats(bool reload) = 0;
    virtual uint32_t GetImageFormatCount() = 0;
    // KV_ERR_INVALID_ARG for an index out of range or an object that is no image format.
    virtual kv_result GetImageFormat(uint32_t index, IKvImageFormat*& format) = 0;
    // Exact identifier; KV_ERR_INVALID_ARG when absent.
    virtual kv_result GetImageFormatByID(CKvStringA id, IKvImageFormat*& format) = 0;
    // By the last extension of the name, compared without regard to case;
    // the first registered format that lists it. KV_ERR_INVALID_ARG when none does.
    virtual kv_result GetImageFormatByFilename(CKvStringW fileName, IKvImageFormat*& format) = 0;
    // Declared for formats that manage their files themselves; this registry
    // does not provide them and answers KV_ERR_NOT_PROVIDED (KV_ERR_INVALID_ARG when no format takes the name).
    virtual kv_result CopyImageFile(const wchar_t* from, const wchar_t* to, int flags, int* cancel,
                                    KvImageFileProgress progress, void* userData) = 0;
    virtual kv_result MoveImageFile(const wchar_t* from, const wchar_t* to, int flags, int* cancel,
                                    KvImageFileProgress progress, void* userData) = 0;
    virtual kv_result RemoveImageFile(const wchar_t* fileName, int flags) = 0;
    virtual kv_result GetImageFileSize(const wchar_t* fileName, uint64_t* size) = 0;
};

class CKvImageFormatManagerImpl : public IKvImageFormatManager {
public:
    CKvImageFormatManagerImpl() = default;
    ~CKvImageFormatManagerImpl() override;
    CKvImageFormatManagerImpl(const CKvImageFormatManagerImpl&) = delete;
    CKvImageFormatManagerImpl& operator=(const CKvImageFormatManagerImpl&) = delete;

    const char* GetClass() override { return "CKvImageFormatManagerImpl"; }
    kv_result RegisterImageFormat(IKvImageFormat* format, uint32_t* index) override;
    // Clears the registry and registers the QV8 format; a no-op when formats
    // were loaded before (by any registry of the process) and not `reload`.
    kv_result LoadAllImageFormats(bool reload) override;
    uint32_t GetImageFormatCount() override;
    kv_result GetImageFormat(uint32_t index, IKvImageFormat*& format) override;
    kv_result GetImageFormatByID(CKvStringA id, IKvImageFormat*& format) override;
    kv_result GetImageFormatByFilename(CKvStringW fileName, IKvImageFormat*& format) override;
    kv_result CopyImageFile(const wchar_t* from, const wchar_t* to, int flags, int* cancel,
                            KvImageFileProgress progress, void* userData) override;
    kv_result MoveImageFile(const wchar_t* from, const wchar_t* to, int flags, int* cancel,
                            KvImageFileProgress progress, void* userData) override;
    kv_result RemoveImageFile(const wchar_t* fileName, int flags) override;
    kv_result GetImageFileSize(const wchar_t* fileName, uint64_t* size) override;

private:
    void Clear();

    std::vector<IKvImageFormat*> m_aFormats;                    // registration order
    std::map<CKvStringA, uint32_t, CKvStringALess> m_mapByID;  // identifier -> index
};

class CKvImageFormatAPI {
public:
    // Opens `fileName` through the format its name calls for.
    static kv_result CreateInputImageFile(IKvImageFormatManager* manager, const wchar_t* fileName,
                                          IKvInputImageFile*& file);
};

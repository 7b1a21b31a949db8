#include "gnr_system/ImageFormatManager.h"

#include "fileformat/CKvImageFormatQV8.h"
#include "fileformat/IKvImageFile.h"
#include "gnr_system/KvFile.h"
#include "gnr_system/KvTrace.h"

namespace {

// Set once any registry has loaded the formats of this library.
bool g_bFormatsLoaded = false;

IKvInterface* CreateManager() { return new CKvImageFormatManagerImpl(); }
void* QueryManager(IKvInterface* object, const char* name) {
    const CKvStringA wanted(name ? name : "");
    if (wanted == CKvStringA("IKvImageFormatManager") || wanted == CKvStringA("CKvImageFormatManagerImpl") ||
        wanted == CKvStringA("IKvInterface"))
        return static_cast<IKvImageFormatManager*>(static_cast<CKvImageFormatManagerImpl*>(object));
    return nullptr;
}
void DestroyManager(IKvInterface* object) { delete object; }

const SKvClassInfo kManagerClass = {"CKvImageFormatManagerImpl", CreateManager, QueryManager, DestroyManager};
const bool s_registered = KvRegisterClass(&kManagerClass) == KV_OK;

}  // namespace

CKvImageFormatManagerImpl::~CKvImageFormatManagerImpl() { Clear(); }

void CKvImageFormatManagerImpl::Clear() {
    for (IKvImageFormat* format : m_aFormats) format->Release();
    m_aFormats.clear();
    m_mapByID.clear();
}

kv_result CKvImageFormatManagerImpl::RegisterImageFormat(IKvImageFormat* format, uint32_t* index) {
    if (!format) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&] {
        CKvStringA id;
        const kv_result r = format->GetID(id);
        if (r != KV_OK) return r;
        if (m_mapByID.count(id)) return KV_ERR_FORMAT_REGISTERED_TWICE;
        const uint32_t at = static_cast<uint32_t>(m_aFormats.size());
        m_aFormats.push_back(format);
        try {
            m_mapByID.emplace(id, at);
        } catch (...) {
            m_aFormats.pop_back();
            throw;
        }
        format->AddRef();
        if (index) *index = at;
        return KV_OK;
    });
}

kv_result CKvImageFormatManagerImpl::LoadAllImageFormats(bool reload) {
    (void)s_registered;
    if (g_bFormatsLoaded && !reload) return KV_OK;
    Clear();
    const kv_result r = RegisterImageFormat(CKvImageFormatQV8::Shared(), nullptr);
    if (r == KV_OK) g_bFormatsLoaded = true;
    return r;
}

uint32_t CKvImageFormatManagerImpl::GetImageFormatCount() { return static_cast<uint32_t>(m_aFormats.size()); }

kv_result CKvImageFormatManagerImpl::GetImageFormat(uint32_t index, IKvImageFormat*& format) {
    if (index >= m_aFormats.size()) return KV_ERR_INVALID_ARG;
    if (!m_aFormats[index]->QueryInterface("IKvImageFormat")) return KV_ERR_INVALID_ARG;
    format = m_aFormats[index];
    return KV_OK;
}

kv_result CKvImageFormatManagerImpl::GetImageFormatByID(CKvStringA id, IKvImageFormat*& format) {
    const auto it = m_mapByID.find(id);
    if (it == m_mapByID.end()) return KV_ERR_INVALID_ARG;
    format = m_aFormats[it->second];
    return KV_OK;
}

kv_result CKvImageFormatManagerImpl::GetImageFormatByFilename(CKvStringW fileName, IKvImageFormat*& format) {
    return KvNoThrow([&] {
        const std::wstring name(fileName.GetString());
        const size_t dot = name.rfind(L'.');
        if (dot == std::wstring::npos) return KV_ERR_INVALID_ARG;
        const std::wstring extension = name.substr(dot);
        for (IKvImageFormat* candidate : m_aFormats) {
            CKvStringW list;
            if (candidate->GetExtensions(list) != KV_OK) continue;
            const std::wstring all(list.GetString());
            for (size_t start = 0; start <= all.size();) {
                size_t end = all.find(L';', start);
                if (end == std::wstring::npos) end = all.size();
                const std::wstring entry = all.substr(start, end - start);
                if (!entry.empty() && KV_Sstricmp(entry.c_str(), extension.c_str()) == 0) {
                    format = candidate;
                    return KV_OK;
                }
                start = end + 1;
            }
        }
        return KV_ERR_INVALID_ARG;
    });
}

// The file operations find the format as the others would and then answer
// that this registry does not provide them.
kv_result CKvImageFormatManagerImpl::CopyImageFile(const wchar_t* from, const wchar_t*, int, int*, KvImageFileProgress,
                                                   void*) {
    IKvImageFormat* format = nullptr;
    if (!from || GetImageFormatByFilename(CKvStringW(from), format) != KV_OK) return KV_ERR_INVALID_ARG;
    return KV_ERR_NOT_PROVIDED;
}

kv_result CKvImageFormatManagerImpl::MoveImageFile(const wchar_t* from, const wchar_t* to, int flags, int* cancel,
                                                   KvImageFileProgress progress, void* userData) {
    return CopyImageFile(from, to, flags, cancel, progress, userData);
}

kv_result CKvImageFormatManagerImpl::RemoveImageFile(const wchar_t* fileName, int) {
    return CopyImageFile(fileName, nullptr, 0, nullptr, nullptr, nullptr);
}

kv_result CKvImageFormatManagerImpl::GetImageFileSize(const wchar_t* fileName, uint64_t*) {
    return CopyImageFile(fileName, nullptr, 0, nullptr, nullptr, nullptr);
}

kv_result CKvImageFormatAPI::CreateInputImageFile(IKvImageFormatManager* manager, const wchar_t* fileName,
                                                  IKvInputImageFile*& file) {
    file = nullptr;
    if (!manager) {
        // The trace names this unit and a fixed line, as clients that read the output expect.
        KvTraceFailure("gnr_system/ImageFormatManager", 248);
        return KV_ERR_INVALID_ARG;
    }
    if (!fileName) return KV_ERR_INVALID_ARG;
    IKvImageFormat* format = nullptr;
    kv_result r = manager->GetImageFormatByFilename(CKvStringW(fileName), format);
    if (r != KV_OK) return r;
    r = format->CreateInputImageFile(CKvStringW(fileName), file);
    format->Release();
    return r;
}

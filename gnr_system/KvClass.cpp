#include "gnr_system/KvClass.h"

#include <cstring>
#include <map>
#include <mutex>
#include <string>

namespace {

// Classes register during static initialisation and are looked up later;
// the mutex makes registration from several threads safe as well.
struct SRegistry {
    std::mutex lock;
    std::map<std::string, const SKvClassInfo*> classes;

    static SRegistry& Instance() {
        static SRegistry registry;
        return registry;
    }
};

}  // namespace

kv_result KvRegisterClass(const SKvClassInfo* info) {
    if (!info || !info->name || !*info->name || !info->create || !info->query || !info->destroy)
        return KV_ERR_INVALID_ARG;
    return KvNoThrow([&] {
        SRegistry& registry = SRegistry::Instance();
        std::lock_guard<std::mutex> guard(registry.lock);
        registry.classes.emplace(info->name, info);
        return KV_OK;
    });
}

const SKvClassInfo* KvFindClass(const char* className) {
    if (!className) return nullptr;
    const SKvClassInfo* found = nullptr;
    KvNoThrow([&] {
        SRegistry& registry = SRegistry::Instance();
        std::lock_guard<std::mutex> guard(registry.lock);
        const auto it = registry.classes.find(className);
        if (it != registry.classes.end()) found = it->second;
        return KV_OK;
    });
    return found;
}

kv_result KvCreateObject(const char* className, const char* interfaceName, void** object) {
    if (!object || !interfaceName) return KV_ERR_INVALID_ARG;
    const SKvClassInfo* info = KvFindClass(className);
    if (!info) return KV_ERR_INVALID_ARG;
    IKvInterface* created = nullptr;
    const kv_result made = KvNoThrow([&] {
        created = info->create();
        return created ? KV_OK : KV_ERR_OUT_OF_MEMORY;
    });
    if (made != KV_OK) return made;
    void* answered = info->query(created, interfaceName);
    if (!answered) {
        info->destroy(created);
        return KV_ERR_NOT_FOUND;
    }
    *object = answered;
    return KV_OK;
}

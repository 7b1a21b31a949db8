// The small run-time type system under the format interfaces: objects are
// created by class name and asked for an interface by name, so that a unit
// can use another (the format registry, say) without naming its class.
#pragma once

#include <cstdint>

#include "gnr_system/KvResult.h"

struct SKvClassInfo;

// Root of every interface the type system creates and queries.
class IKvInterface {
public:
    // Name of the object's class.
    virtual const char* GetClass() = 0;
    virtual ~IKvInterface() = default;
};

// Base of registered classes.
class CKvClass : public IKvInterface {
public:
    // The class's registration, or null for an object that was not created
    // through the type system.
    virtual const SKvClassInfo* GetCKvClassInfo() const = 0;
    // The object itself when it implements `interfaceName`, else null.
    virtual void* QueryInterface(const char* interfaceName) = 0;
    virtual uint32_t AddRef() = 0;
    virtual uint32_t Release() = 0;
};

// One registered class: its name, a factory and a query that answers the
// object as the named interface (null when it does not implement it).
struct SKvClassInfo {
    const char* name;
    IKvInterface* (*create)();
    void* (*query)(IKvInterface* object, const char* interfaceName);
    void (*destroy)(IKvInterface* object);
};

// Registers `info` (static storage) under its name; a name registered before
// keeps its first entry. KV_ERR_INVALID_ARG for a null or nameless entry.
kv_result KvRegisterClass(const SKvClassInfo* info);
// The registration of `className`, or null.
const SKvClassInfo* KvFindClass(const char* className);
// Creates an object of `className` and answers it as `interfaceName` in
// `*object`: KV_ERR_INVALID_ARG for null arguments or an unknown class, KV_ERR_OUT_OF_MEMORY when memory runs out,
// KV_ERR_NOT_FOUND when the class does not implement the interface (nothing is kept).
kv_result KvCreateObject(const char* className, const char* interfaceName, void** object);

// What every structure of the metadata model needs to save itself as a
// variant tree and a lite variant and to read itself back leniently: members
// that are missing or of an unusable type leave the field as it was.
#pragma once

#include <cstdint>

#include "gnr_system/CKvLiteVariant.h"
#include "gnr_system/CKvString.h"
#include "gnr_system/CKvVariant.h"
#include "gnr_system/KvResult.h"

namespace KvMeta {

// ---- Saving to a tree

// Makes `node` an empty list of the structured run type `runType`; its name
// stays. The run type need not be registered.
void BeginStruct(CKvVariant& node, const char* runType);

// Append one member named `key` to the list `node`; null out of memory.
CKvVariant* Put(CKvVariant& node, const wchar_t* key, bool value);
CKvVariant* Put(CKvVariant& node, const wchar_t* key, int32_t value);
CKvVariant* Put(CKvVariant& node, const wchar_t* key, uint32_t value);
CKvVariant* Put(CKvVariant& node, const wchar_t* key, uint64_t value);
CKvVariant* Put(CKvVariant& node, const wchar_t* key, double value);
CKvVariant* Put(CKvVariant& node, const wchar_t* key, const CKvStringW& value);
CKvVariant* Put(CKvVariant& node, const wchar_t* key, const CKvByteArray& value);
// An empty plain list named `key`, to be filled by a sub-structure.
CKvVariant* PutList(CKvVariant& node, const wchar_t* key);

// ---- Loading from a tree

// 0 when `node` has the run type `expected`. Otherwise prints
// "Wrong variant runtype('<actual>'), expected '<expected>'." and answers KV_ERR_INVALID_ARG.
kv_result CheckRunType(const CKvVariant& node, const char* expected);
// The same message for a node that may have one of several run types;
// `expectedText` is everything after "expected " up to the full stop. KV_ERR_INVALID_ARG.
kv_result ReportWrongRunType(const CKvVariant& node, const wchar_t* expectedText);

// The member `key` of the list `node`, or null.
const CKvVariant* Find(const CKvVariant& node, const wchar_t* key);

// Read the member `key` into `value` when it is present and convertible to
// the field's type; answer whether it was. Numbers convert between each
// other; texts are taken only from string members.
bool Get(const CKvVariant& node, const wchar_t* key, bool& value);
bool Get(const CKvVariant& node, const wchar_t* key, int32_t& value);
bool Get(const CKvVariant& node, const wchar_t* key, uint32_t& value);
bool Get(const CKvVariant& node, const wchar_t* key, uint64_t& value);
bool Get(const CKvVariant& node, const wchar_t* key, double& value);
bool Get(const CKvVariant& node, const wchar_t* key, CKvStringW& value);
// Byte arrays only from byte-array members.
bool Get(const CKvVariant& node, const wchar_t* key, CKvByteArray& value);
// The same conversions, reading the value node `member` itself (a list
// element, say).
bool GetValue(const CKvVariant& member, bool& value);
bool GetValue(const CKvVariant& member, int32_t& value);
bool GetValue(const CKvVariant& member, uint32_t& value);
bool GetValue(const CKvVariant& member, uint64_t& value);
bool GetValue(const CKvVariant& member, double& value);
bool GetValue(const CKvVariant& member, CKvStringW& value);
bool GetValue(const CKvVariant& member, CKvByteArray& value);

// The elements of a list member: the element named by `name` when there is
// one, else the element at `position`; null when neither exists.
const CKvVariant* ElementByNameOrPosition(const CKvVariant& list, const wchar_t* name, int position);

// ---- Registration

// Registers `sample` (a default structure saved to a tree) under `runType`,
// so that trees read back from XML and lite variants get that run type again.
// Safe during static initialisation; failures leave the type unregistered.
void RegisterSample(const char* runType, CKvVariant sample);

// ---- Lite variant

// Opens a level of the writer for one scope; Close (or the destructor) ends
// it. `Result()` is the opening's result.
class CLvLevelWriter {
public:
    CLvLevelWriter(CKvLiteVariantW& writer, const wchar_t* name);
    ~CLvLevelWriter() { Close(); }
    CLvLevelWriter(const CLvLevelWriter&) = delete;
    CLvLevelWriter& operator=(const CLvLevelWriter&) = delete;
    kv_result Result() const { return m_result; }
    kv_result Close();

private:
    CKvLiteVariantW& m_writer;
    kv_result m_result;
    bool m_bOpen;
};

// Enters a level of the reader for one scope and leaves it at the end.
// With a null name the level at the reader's position is entered.
class CLvLevelReader {
public:
    CLvLevelReader(CKvLiteVariantR& reader, const wchar_t* name);
    ~CLvLevelReader();
    CLvLevelReader(const CLvLevelReader&) = delete;
    CLvLevelReader& operator=(const CLvLevelReader&) = delete;
    bool IsOpen() const { return m_bOpen; }
    uint32_t Count() const { return m_nCount; }

private:
    CKvLiteVariantR& m_reader;
    uint32_t m_nCount = 0;
    bool m_bOpen = false;
};

// Reads the field from the item `key` when it is present and of the right
// type (signed and unsigned of one width read as each other); otherwise the
// field keeps its value.
template <typename T>
void LvGet(CKvLiteVariantR& reader, const wchar_t* key, T& value) {
    value = reader.Get(key, value);
}
void LvGet(CKvLiteVariantR& reader, const wchar_t* key, CKvStringW& value);
void LvGet(CKvLiteVariantR& reader, const wchar_t* key, CKvByteArray& value);

// ---- Field visitors. A structure lists its fields once, as calls
// visit(key, field); handing that list one of these saves or loads every
// field in either form. The savers keep the first failure in `result`.
struct CTreeSaver {
    CKvVariant& node;
    kv_result result = KV_OK;
    template <typename T>
    void operator()(const wchar_t* key, const T& value) {
        if (result == KV_OK && !Put(node, key, value)) result = KV_ERR_OUT_OF_MEMORY;
    }
};

struct CTreeLoader {
    const CKvVariant& node;
    template <typename T>
    void operator()(const wchar_t* key, T& value) {
        Get(node, key, value);
    }
};

struct CLiteSaver {
    CKvLiteVariantW& writer;
    kv_result result = KV_OK;
    template <typename T>
    void operator()(const wchar_t* key, const T& value) {
        if (result == KV_OK) result = writer.Set(value, key);
    }
};

struct CLiteLoader {
    CKvLiteVariantR& reader;
    template <typename T>
    void operator()(const wchar_t* key, T& value) {
        LvGet(reader, key, value);
    }
};

// Enters one element level of the level the reader is in: the child named
// `name` when there is one, else the level at the reader's position. Answers
// whether a level was entered. The caller reads it, leaves it with LevelEnd
// (which puts the position back on that element) and steps past it with
// NextValue, so that unnamed elements are visited in stored order.
bool LvEnterElement(CKvLiteVariantR& reader, const wchar_t* name);

}  // namespace KvMeta

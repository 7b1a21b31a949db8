// The variant tree: named nodes that hold a typed scalar or a list of child
// nodes, each with a run type. All metadata is built from it, and the binary
// and XML encodings serialize it. Structured run types are registered by sample.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "gnr_system/CKvByteArray.h"
#include "gnr_system/CKvString.h"
#include "gnr_system/KvResult.h"

typedef int32_t kv_int32;
typedef uint32_t kv_uint32;
typedef int64_t kv_int64;
typedef uint64_t kv_uint64;

// The name of a node's type: one of the ten built-in names or a registered
// structured type. Ordered and compared by name.
class CKvVariantRunType {
public:
    CKvVariantRunType() = default;
    CKvVariantRunType(const char* name) : m_strName(name) {}
    CKvVariantRunType(const CKvStringA& name) : m_strName(name) {}

    const CKvStringA& GetName() const { return m_strName; }

    bool operator<(const CKvVariantRunType& other) const { return m_strName < other.m_strName; }
    bool operator==(const CKvVariantRunType& other) const { return m_strName == other.m_strName; }
    bool operator!=(const CKvVariantRunType& other) const { return m_strName != other.m_strName; }

private:
    CKvStringA m_strName;
};

class CKvVariant;

// An ordered list of owned child nodes. Copies are deep.
class CKvListVariant {
public:
    CKvListVariant();
    CKvListVariant(const CKvListVariant& other);
    CKvListVariant(CKvListVariant&& other) noexcept;
    CKvListVariant& operator=(const CKvListVariant& other);
    CKvListVariant& operator=(CKvListVariant&& other) noexcept;
    ~CKvListVariant();

    int GetCount() const { return static_cast<int>(m_aElements.size()); }
    // Null when `index` is out of range.
    CKvVariant* GetAt(int index);
    const CKvVariant* GetAt(int index) const;
    // Copies `element` (its name included) to the end, or before `index`
    // (clamped to 0..count); answers the new element.
    CKvVariant& Add(const CKvVariant& element);
    CKvVariant& InsertAt(int index, const CKvVariant& element);
    CKvVariant& InsertOwned(int index, std::unique_ptr<CKvVariant> element);
    void RemoveAt(int index);
    void RemoveAll() { m_aElements.clear(); }

    // Equal when the elements agree pairwise in name and value.
    bool operator==(const CKvListVariant& other) const;
    bool operator!=(const CKvListVariant& other) const { return !(*this == other); }

private:
    std::vector<std::unique_ptr<CKvVariant>> m_aElements;
};

// The value held by a node. Text forms are what the XML encoding and Trace show.
class CKvVariantData {
public:
    virtual ~CKvVariantData() = default;
    // Text form of the value; fails (KV_ERR_FAILED) only where the type has no text for it.
    virtual kv_result Write(CKvStringW& text) const = 0;
    virtual kv_result Read(const CKvStringW& text) { return Read(text.GetString()); }
    virtual kv_result Read(const wchar_t* text) = 0;
    // Same type and same value.
    virtual bool Eq(const CKvVariantData& other) const = 0;
    virtual void* GetValueVoidPtr() = 0;
    // Copies the value into `target`, which must be of the same class (KV_ERR_FAILED otherwise).
    virtual kv_result GetValueCopy(CKvVariantData& target) const = 0;
    virtual std::unique_ptr<CKvVariantData> Clone() const = 0;
    virtual CKvVariantRunType GetRunType() const = 0;
    // Only lists carry a changeable run type; scalars ignore this.
    virtual void SetRunType(const CKvVariantRunType&) {}
    virtual bool IsArray() const { return false; }
};

// Common body of the scalar nodes: the value, comparison, copy and clone.
template <typename T, typename Derived>
class CKvVariantDataValue : public CKvVariantData {
public:
    CKvVariantDataValue() : m_value() {}
    explicit CKvVariantDataValue(const T& value) : m_value(value) {}

    const T& Value() const { return m_value; }
    T& Value() { return m_value; }

    bool Eq(const CKvVariantData& other) const override {
        const auto* same = dynamic_cast<const Derived*>(&other);
        return same && same->m_value == m_value;
    }
    void* GetValueVoidPtr() override { return &m_value; }
    kv_result GetValueCopy(CKvVariantData& target) const override {
        auto* same = dynamic_cast<Derived*>(&target);
        if (!same) return KV_ERR_FAILED;
        same->m_value = m_value;
        return KV_OK;
    }
    std::unique_ptr<CKvVariantData> Clone() const override {
        return std::make_unique<Derived>(static_cast<const Derived&>(*this));
    }
    CKvVariantRunType GetRunType() const override { return Derived::m_runType; }

protected:
    T m_value;
};

// The nine scalar node classes. Numeric parses never fail: text that holds no
// number reads as 0, as the C parsing functions give it.
#define KV_VARIANT_SCALAR_CLASS(Class, Type, RunTypeName)                       \
    class Class final : public CKvVariantDataValue<Type, Class> {               \
    public:                                                                     \
        static constexpr const char m_runType[] = RunTypeName;                  \
        using CKvVariantDataValue<Type, Class>::CKvVariantDataValue;            \
        using CKvVariantData::Read;                                             \
        kv_result Write(CKvStringW& text) const override;                       \
        kv_result Read(const wchar_t* text) override;                           \
    };
KV_VARIANT_SCALAR_CLASS(CKvVariantDataKv_int32, kv_int32, "kv_int32")
KV_VARIANT_SCALAR_CLASS(CKvVariantDataKv_uint32, kv_uint32, "kv_uint32")
KV_VARIANT_SCALAR_CLASS(CKvVariantDataKv_int64, kv_int64, "kv_int64")
KV_VARIANT_SCALAR_CLASS(CKvVariantDataKv_uint64, kv_uint64, "kv_uint64")
KV_VARIANT_SCALAR_CLASS(CKvVariantDataDouble, double, "double")
KV_VARIANT_SCALAR_CLASS(CKvVariantDataBool, bool, "bool")
// Text form: lowercase hexadecimal of the whole pointer value, no prefix.
KV_VARIANT_SCALAR_CLASS(CKvVariantDataVoidPtr, void*, "voidPtr")
KV_VARIANT_SCALAR_CLASS(CKvVariantDataCKvStringW, CKvStringW, "CKvStringW")
// Text form: Base64. An empty array has none, so its Write fails.
KV_VARIANT_SCALAR_CLASS(CKvVariantDataCKvByteArray, CKvByteArray, "CKvByteArray")
#undef KV_VARIANT_SCALAR_CLASS

// A list node: the elements plus the node's own run type, "CKvListVariant" for
// a plain list or the name of a registered structured type.
class CKvVariantDataCKvListVariant final : public CKvVariantData {
public:
    static constexpr const char m_runTypeOrig[] = "CKvListVariant";

    CKvVariantDataCKvListVariant() : m_rtRunType(m_runTypeOrig) {}
    explicit CKvVariantDataCKvListVariant(const CKvListVariant& list) : m_value(list), m_rtRunType(m_runTypeOrig) {}

    const CKvListVariant& Value() const { return m_value; }
    CKvListVariant& Value() { return m_value; }

    using CKvVariantData::Read;
    // The elements' text forms joined by one space.
    kv_result Write(CKvStringW& text) const override;
    // A list has no text parse: KV_ERR_NOT_PROVIDED.
    kv_result Read(const wchar_t* text) override;
    // Same run type and elements equal pairwise in name and value.
    bool Eq(const CKvVariantData& other) const override;
    void* GetValueVoidPtr() override { return &m_value; }
    kv_result GetValueCopy(CKvVariantData& target) const override;
    std::unique_ptr<CKvVariantData> Clone() const override;
    CKvVariantRunType GetRunType() const override { return m_rtRunType; }
    void SetRunType(const CKvVariantRunType& runType) override { m_rtRunType = runType; }
    bool IsArray() const override { return true; }

private:
    CKvListVariant m_value;
    CKvVariantRunType m_rtRunType;
};

// A named node of the tree. A null variant has no data. Names are restricted
// to the characters of XML element names (ValidateName).
class CKvVariant {
public:
    CKvVariant() = default;
    CKvVariant(const int& value, const CKvStringW& name);
    CKvVariant(const unsigned int& value, const CKvStringW& name);
    CKvVariant(const long& value, const CKvStringW& name);
    CKvVariant(const unsigned long& value, const CKvStringW& name);
    CKvVariant(const double& value, const CKvStringW& name);
    CKvVariant(const bool& value, const CKvStringW& name);
    CKvVariant(void* value, const CKvStringW& name);
    CKvVariant(const CKvByteArray& value, const CKvStringW& name);
    CKvVariant(const CKvStringW& value, const CKvStringW& name);
    CKvVariant(const wchar_t* value, const CKvStringW& name);
    // The bytes are taken as UTF-8.
    CKvVariant(const char* value, const CKvStringW& name);
    CKvVariant(const CKvListVariant& value, const CKvStringW& name);
    // A clone of the registered sample of `runType`; a null variant (and the
    // diagnostic of GetRunTypeSample) when the run type is not registered.
    CKvVariant(const CKvVariantRunType& runType, const CKvStringW& name);
    // Copies data and name; the type-change flag starts false.
    CKvVariant(const CKvVariant& other);
    CKvVariant(CKvVariant&& other) noexcept;
    ~CKvVariant();

    // ---- Names
    const CKvStringW& GetName() const { return m_strName; }
    // Answers whether the name had to be changed to be valid.
    bool SetName(const CKvStringW& name);
    // Empty becomes "no_name"; a first character other than A-Z, a-z, '_' and
    // any later one other than those, 0-9, '.' and '-' becomes '_'.
    // Answers whether the name was changed.
    static bool ValidateName(CKvStringW& name);

    // ---- Typed access. Each sets *ok (when given) to whether the node could
    // be converted; on failure it answers the value noted.
    bool GetBool(bool* ok = nullptr) const;            // false
    kv_int32 GetKv_int32(bool* ok = nullptr) const;    // -1
    kv_uint32 GetKv_uint32(bool* ok = nullptr) const;  // 0
    kv_int64 GetKv_int64(bool* ok = nullptr) const;    // -1
    kv_uint64 GetKv_uint64(bool* ok = nullptr) const;  // 0
    // Refuses "kv_uint64" and "voidPtr" nodes on purpose: 0.0.
    double GetDouble(bool* ok = nullptr) const;
    // The stored pointer, or the address of a byte array's bytes; null.
    void* GetVoidPtr(bool* ok = nullptr) const;
    // The text form of any node; *ok is whether the node has one.
    CKvStringW GetCKvStringW(bool* ok = nullptr) const;
    // The node's array or list; an empty one when the node holds none.
    const CKvByteArray& GetCKvByteArray(bool* ok = nullptr) const;
    const CKvListVariant& GetCKvListVariant(bool* ok = nullptr) const;
    const CKvVariantData* GetData() const { return m_pData.get(); }
    CKvVariantData* GetData() { return m_pData.get(); }
    bool IsNull() const { return !m_pData; }

    // ---- Comparison: equal when the node holds a value of the same run type
    // and that value is equal (no conversion). Names take no part.
    bool operator==(const CKvVariant& other) const;
    bool operator!=(const CKvVariant& other) const { return !(*this == other); }
#define KV_VARIANT_VALUE_OPERATORS(Type)                                                     \
    bool operator==(Type value) const { return *this == CKvVariant(value, CKvStringW()); } \
    bool operator!=(Type value) const { return !(*this == value); }                        \
    CKvVariant& operator=(Type value);
    KV_VARIANT_VALUE_OPERATORS(const int&)
    KV_VARIANT_VALUE_OPERATORS(const unsigned int&)
    KV_VARIANT_VALUE_OPERATORS(const long&)
    KV_VARIANT_VALUE_OPERATORS(const unsigned long&)
    KV_VARIANT_VALUE_OPERATORS(const double&)
    KV_VARIANT_VALUE_OPERATORS(const bool&)
    KV_VARIANT_VALUE_OPERATORS(void*)
    KV_VARIANT_VALUE_OPERATORS(const CKvByteArray&)
    KV_VARIANT_VALUE_OPERATORS(const CKvStringW&)
    KV_VARIANT_VALUE_OPERATORS(const wchar_t*)
    KV_VARIANT_VALUE_OPERATORS(const char*)
    KV_VARIANT_VALUE_OPERATORS(const CKvListVariant&)
#undef KV_VARIANT_VALUE_OPERATORS

    // ---- Assignment. From a value (above): overwrites a node of the same run
    // type, otherwise replaces the data whatever the type-change flag says.
    // From a variant: copies the value, not the name. A change of run type
    // without type change enabled prints a diagnostic and happens all the same.
    CKvVariant& operator=(const CKvVariant& other);
    void MakeNull() { m_pData.reset(); }
    // Answers the previous setting.
    bool EnableTypeChange(bool enable);
    bool IsEnabledTypeChange() const { return m_bTypeChange; }

    // ---- Text
    // A null node has no text form (KV_ERR_FAILED).
    kv_result Write(CKvStringW& text) const;
    kv_result Read(const CKvStringW& text);
    kv_result Read(const wchar_t* text);
    // The XML-like dump of a tree: printed to standard output, or into `text`.
    static void Trace(const CKvVariant& variant);
    static void Trace(CKvStringW& text, const CKvVariant& variant);

    // ---- Structure
    // The element count of a list; -1 for a scalar or a null node.
    int GetCount() const;
    // The element at `index`, or the first one named `name`. When there is
    // none, a null variant that belongs to nobody: what is written to it is
    // discarded at the next miss.
    CKvVariant& operator[](int index);
    const CKvVariant& operator[](int index) const;
    CKvVariant& operator[](const wchar_t* name);
    const CKvVariant& operator[](const wchar_t* name) const;
    // Null when out of range or no list.
    CKvVariant* IndexPtr(int index);
    const CKvVariant* IndexPtr(int index) const;
    // Index of the first element named `name`; -1 when the node is no list,
    // KV_ERR_FAILED when the list is empty or has no such element.
    int IndexOf(const CKvStringW& name) const;
    // The element named like `sample`; null when there is none.
    CKvVariant* Member(const CKvVariant& sample);
    // Copy `element` (name included) to the end, or before `index` (clamped
    // to 0..count). A node that is no plain list becomes one first: a scalar
    // is replaced by an empty list, a structured list loses its run type; a
    // scalar or structured node without type change enabled prints
    // "Error: invalid variant type (...) for array operation." (a null node
    // does not). Answer the new element, null only when memory ran out.
    CKvVariant* Append(const CKvVariant& element);
    CKvVariant* Insert(const CKvVariant& element, int index);
    // KV_ERR_FAILED when the node is no list, KV_ERR_INVALID_ARG when `index` is out of range.
    kv_result Delete(unsigned index);
    // Removes every element of a list (keeping its run type); no-op otherwise.
    void ClearList();
    // Assigns `value` to the element named `name`, or appends a copy of
    // `value` under that name. Answers the element.
    CKvVariant* SetOrAppend(const CKvStringW& name, const CKvVariant& value);
    // Null-terminated lists of names. Search finds each name breadth-first in
    // the subtree of the node reached so far (that node included); SearchFixed
    // follows a path of direct elements. Null when a step fails.
    CKvVariant* Search(const wchar_t* name, ...);
    const CKvVariant* Search(const wchar_t* name, ...) const;
    CKvVariant* SearchFixed(const wchar_t* name, ...);
    const CKvVariant* SearchFixed(const wchar_t* name, ...) const;
    CKvVariant* SearchFixedOneLevel(const wchar_t* name);
    const CKvVariant* SearchFixedOneLevel(const wchar_t* name) const;

    // ---- Run types
    // Empty for a null node.
    CKvVariantRunType GetRunType() const;
    // 0 when already `runType`; KV_ERR_FAILED when it differs and type change is not
    // enabled; KV_ERR_INVALID_ARG when `runType` is not registered. A node whose structure
    // differs from the sample's becomes a copy of the sample; one that matches
    // keeps its values and takes the sample's run types and member names.
    kv_result SetRunType(const CKvVariantRunType& runType);
    // As SetRunType, but members whose name and run type match a member of
    // the sample keep their values.
    kv_result SetRunTypeCompatible(const CKvVariantRunType& runType);
    // 0 when equal counts and run types (and, when `deep`, equal structure of
    // every member, recursively); 1 otherwise.
    static int CompareStructure(const CKvVariant& a, const CKvVariant& b, bool deep);
    // Registers `sample` under its name; a name registered before keeps its
    // first sample and index. KV_ERR_INVALID_ARG for a null sample or an empty name.
    static kv_result RegisterRunType(const CKvVariant& sample);
    // Makes sure the ten built-in types are registered (they always are:
    // the registry starts with them, indexes 0 to 9). Safe to call again.
    static void RegisterKnownTypes();
    // The registration index; for an unknown run type -1, or with `report`
    // a diagnostic and 0.
    static int GetRunTypeIndex(const CKvVariantRunType& runType, bool report = true);
    // The registered sample; a shared null variant and a diagnostic when unknown.
    static const CKvVariant& GetRunTypeSample(const CKvVariantRunType& runType);
    // A plain list named `name` holding copies of the members, from a
    // null-terminated argument list; the second form gives it `runType`.
    static CKvVariant CreateStruct(const CKvStringW& name, const CKvVariant* member, ...);
    static CKvVariant CreateStructNamed(const CKvVariantRunType& runType, const CKvStringW& name,
                                        const CKvVariant* member, ...);

private:
    template <typename Data, typename Value>
    CKvVariant& AssignValue(const Value& value);
    CKvVariantDataCKvListVariant* ListData() const;
    CKvListVariant* List() const;
    // Turns the node into a list for Append and Insert.
    void MakeListForArrayOperation();
    kv_result ChangeRunType(const CKvVariantRunType& runType, bool keepValues);

    std::unique_ptr<CKvVariantData> m_pData;
    CKvStringW m_strName;
    bool m_bTypeChange = false;
};

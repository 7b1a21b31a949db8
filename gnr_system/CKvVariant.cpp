#include "gnr_system/CKvVariant.h"

#include "gnr_system/KvTrace.h"

#include <locale.h>
#include <stdlib.h>

#include <charconv>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <deque>
#include <map>
#include <mutex>
#include <type_traits>

#include "gnr_system/Base64Coder.h"

// The value constructors map the C++ integer types onto the fixed-width run types.
static_assert(std::is_same_v<int, kv_int32> && std::is_same_v<unsigned int, kv_uint32>, "32-bit run types");
static_assert(std::is_same_v<long, kv_int64> && std::is_same_v<unsigned long, kv_uint64>, "64-bit run types");
static_assert(sizeof(void*) <= sizeof(unsigned long long), "voidPtr text form");

namespace {

constexpr kv_result kStructureDiffers = 1;

CKvStringW Widen(const char* ascii, size_t length) {
    CKvStringW wide;
    wide.Std().assign(ascii, ascii + length);
    return wide;
}

template <typename Integer>
void WriteInteger(CKvStringW& text, Integer value, int base = 10) {
    char digits[32];
    const auto end = std::to_chars(digits, digits + sizeof digits, value, base).ptr;
    text = Widen(digits, static_cast<size_t>(end - digits));
}

const wchar_t* OrEmpty(const wchar_t* text) { return text ? text : L""; }

// Numbers are always written with '.', so they are parsed in the "C" locale
// whatever locale the client program has set.
double ParseDouble(const wchar_t* text) {
    static const locale_t cLocale = newlocale(LC_NUMERIC_MASK, "C", static_cast<locale_t>(nullptr));
    const CKvStringA narrow(OrEmpty(text));
    return cLocale ? strtod_l(narrow.GetString(), nullptr, cLocale) : std::strtod(narrow.GetString(), nullptr);
}

}  // namespace

// ---- Scalar text forms ----

// Integers are decimal; the parse is the C library's for the type's width
// (out-of-range text saturates there, then is cut to the stored width).
#define KV_VARIANT_INTEGER_TEXT(Class, Type, parse)                                  \
    kv_result Class::Write(CKvStringW& text) const {                                 \
        WriteInteger(text, m_value);                                                 \
        return KV_OK;                                                                \
    }                                                                                \
    kv_result Class::Read(const wchar_t* text) {                                     \
        m_value = static_cast<Type>(parse(OrEmpty(text), nullptr, 10));              \
        return KV_OK;                                                                \
    }
KV_VARIANT_INTEGER_TEXT(CKvVariantDataKv_int32, kv_int32, std::wcstol)
KV_VARIANT_INTEGER_TEXT(CKvVariantDataKv_uint32, kv_uint32, std::wcstoul)
KV_VARIANT_INTEGER_TEXT(CKvVariantDataKv_int64, kv_int64, std::wcstoll)
KV_VARIANT_INTEGER_TEXT(CKvVariantDataKv_uint64, kv_uint64, std::wcstoull)
#undef KV_VARIANT_INTEGER_TEXT

kv_result CKvVariantDataDouble::Write(CKvStringW& text) const {
    // Fifteen decimals, as "%.15f" gives them; the largest doubles need 309
    // digits before the point.
    char digits[400];
    const auto end = std::to_chars(digits, digits + sizeof digits, m_value, std::chars_format::fixed, 15).ptr;
    text = Widen(digits, static_cast<size_t>(end - digits));
    return KV_OK;
}
kv_result CKvVariantDataDouble::Read(const wchar_t* text) {
    m_value = ParseDouble(text);
    return KV_OK;
}

kv_result CKvVariantDataBool::Write(CKvStringW& text) const {
    text = m_value ? L"true" : L"false";
    return KV_OK;
}
kv_result CKvVariantDataBool::Read(const wchar_t* text) {
    m_value = std::wcscmp(OrEmpty(text), L"true") == 0;
    return KV_OK;
}

kv_result CKvVariantDataVoidPtr::Write(CKvStringW& text) const {
    WriteInteger(text, static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(m_value)), 16);
    return KV_OK;
}
kv_result CKvVariantDataVoidPtr::Read(const wchar_t* text) {
    m_value = reinterpret_cast<void*>(static_cast<uintptr_t>(std::wcstoull(OrEmpty(text), nullptr, 16)));
    return KV_OK;
}

kv_result CKvVariantDataCKvStringW::Write(CKvStringW& text) const {
    text = m_value;
    return KV_OK;
}
kv_result CKvVariantDataCKvStringW::Read(const wchar_t* text) {
    m_value = OrEmpty(text);
    return KV_OK;
}

kv_result CKvVariantDataCKvByteArray::Write(CKvStringW& text) const {
    text.Empty();
    if (m_value.GetSize() == 0) return KV_ERR_FAILED;
    Base64Coder coder;
    const kv_result result = coder.Encode(m_value.GetData(), m_value.GetSize());
    if (result != KV_OK) return result;
    uint64_t length = 0;
    const char* encoded = coder.EncodedBuffer(&length);
    text = Widen(encoded, static_cast<size_t>(length));
    return KV_OK;
}
kv_result CKvVariantDataCKvByteArray::Read(const wchar_t* text) {
    Base64Coder coder;
    const kv_result decoded = coder.DecodeW(OrEmpty(text));
    uint64_t length = 0;
    const uint8_t* bytes = coder.DecodedBuffer(&length);
    m_value.FreeData();
    if (length && m_value.SetData(bytes, length) != KV_OK) return KV_ERR_OUT_OF_MEMORY;
    return decoded;
}

// ---- Lists ----

CKvListVariant::CKvListVariant() = default;
CKvListVariant::CKvListVariant(CKvListVariant&& other) noexcept = default;
CKvListVariant& CKvListVariant::operator=(CKvListVariant&& other) noexcept = default;
CKvListVariant::~CKvListVariant() = default;

CKvListVariant::CKvListVariant(const CKvListVariant& other) {
    m_aElements.reserve(other.m_aElements.size());
    for (const auto& element : other.m_aElements) m_aElements.push_back(std::make_unique<CKvVariant>(*element));
}

CKvListVariant& CKvListVariant::operator=(const CKvListVariant& other) {
    // Copy first: `other` may live inside one of the elements replaced here.
    CKvListVariant copy(other);
    m_aElements.swap(copy.m_aElements);
    return *this;
}

CKvVariant* CKvListVariant::GetAt(int index) {
    return index >= 0 && index < GetCount() ? m_aElements[static_cast<size_t>(index)].get() : nullptr;
}
const CKvVariant* CKvListVariant::GetAt(int index) const {
    return index >= 0 && index < GetCount() ? m_aElements[static_cast<size_t>(index)].get() : nullptr;
}

CKvVariant& CKvListVariant::Add(const CKvVariant& element) { return InsertAt(GetCount(), element); }

CKvVariant& CKvListVariant::InsertAt(int index, const CKvVariant& element) {
    return InsertOwned(index, std::make_unique<CKvVariant>(element));
}

CKvVariant& CKvListVariant::InsertOwned(int index, std::unique_ptr<CKvVariant> element) {
    const int at = index < 0 ? 0 : (index > GetCount() ? GetCount() : index);
    return **m_aElements.insert(m_aElements.begin() + at, std::move(element));
}

void CKvListVariant::RemoveAt(int index) {
    if (index >= 0 && index < GetCount()) m_aElements.erase(m_aElements.begin() + index);
}

bool CKvListVariant::operator==(const CKvListVariant& other) const {
    if (m_aElements.size() != other.m_aElements.size()) return false;
    for (size_t i = 0; i < m_aElements.size(); ++i) {
        const CKvVariant& a = *m_aElements[i];
        const CKvVariant& b = *other.m_aElements[i];
        if (a.GetName() != b.GetName() || a != b) return false;
    }
    return true;
}

kv_result CKvVariantDataCKvListVariant::Write(CKvStringW& text) const {
    text.Empty();
    CKvStringW element;
    for (int i = 0; i < m_value.GetCount(); ++i) {
        if (i) text += L' ';
        m_value.GetAt(i)->Write(element);
        text += element;
    }
    return KV_OK;
}

kv_result CKvVariantDataCKvListVariant::Read(const wchar_t*) { return KV_ERR_NOT_PROVIDED; }

bool CKvVariantDataCKvListVariant::Eq(const CKvVariantData& other) const {
    const auto* list = dynamic_cast<const CKvVariantDataCKvListVariant*>(&other);
    return list && list->m_rtRunType == m_rtRunType && list->m_value == m_value;
}

kv_result CKvVariantDataCKvListVariant::GetValueCopy(CKvVariantData& target) const {
    auto* list = dynamic_cast<CKvVariantDataCKvListVariant*>(&target);
    if (!list) return KV_ERR_FAILED;
    // Both are copied before the target changes: this list may be one of its elements.
    CKvListVariant elements(m_value);
    CKvVariantRunType runType = m_rtRunType;
    list->m_value = std::move(elements);
    list->m_rtRunType = std::move(runType);
    return KV_OK;
}

std::unique_ptr<CKvVariantData> CKvVariantDataCKvListVariant::Clone() const {
    return std::make_unique<CKvVariantDataCKvListVariant>(*this);
}

// ---- Run-type registry ----

namespace {

// Process-wide: created with the ten built-in types on first use (thread-safe
// static initialisation); later registrations are serialised by the mutex.
// Entries are never removed, so references to samples stay valid.
class RunTypeRegistry {
public:
    static RunTypeRegistry& Instance() {
        static RunTypeRegistry registry;
        return registry;
    }

    // False when the name was registered before; the first sample stays.
    bool Add(const CKvVariant& sample) {
        auto copy = std::make_unique<CKvVariant>(sample);
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto inserted = m_entries.emplace(CKvVariantRunType(CKvStringA(sample.GetName())), Entry{});
        if (!inserted.second) return false;
        inserted.first->second.pSample = std::move(copy);
        inserted.first->second.nIndex = m_nNextIndex++;
        return true;
    }
    const CKvVariant* FindSample(const CKvVariantRunType& runType) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto it = m_entries.find(runType);
        return it == m_entries.end() ? nullptr : it->second.pSample.get();
    }
    int FindIndex(const CKvVariantRunType& runType) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto it = m_entries.find(runType);
        return it == m_entries.end() ? -1 : static_cast<int>(it->second.nIndex);
    }

private:
    struct Entry {
        std::unique_ptr<CKvVariant> pSample;
        unsigned nIndex = 0;
    };

    RunTypeRegistry() {
        Add(CKvVariant(0, L"kv_int32"));
        Add(CKvVariant(0u, L"kv_uint32"));
        Add(CKvVariant(0L, L"kv_int64"));
        Add(CKvVariant(0UL, L"kv_uint64"));
        Add(CKvVariant(0.0, L"double"));
        Add(CKvVariant(false, L"bool"));
        Add(CKvVariant(static_cast<void*>(nullptr), L"voidPtr"));
        Add(CKvVariant(CKvStringW(), L"CKvStringW"));
        Add(CKvVariant(CKvByteArray(), L"CKvByteArray"));
        Add(CKvVariant(CKvListVariant(), L"CKvListVariant"));
    }

    mutable std::mutex m_mutex;
    std::map<CKvVariantRunType, Entry> m_entries;
    unsigned m_nNextIndex = 0;
};

const CKvVariant& SharedNullVariant() {
    static const CKvVariant null;
    return null;
}

// ---- Typed conversions ----

template <typename Target> struct NodeOf;
template <> struct NodeOf<bool> { using type = CKvVariantDataBool; };
template <> struct NodeOf<kv_int32> { using type = CKvVariantDataKv_int32; };
template <> struct NodeOf<kv_uint32> { using type = CKvVariantDataKv_uint32; };
template <> struct NodeOf<kv_int64> { using type = CKvVariantDataKv_int64; };
template <> struct NodeOf<kv_uint64> { using type = CKvVariantDataKv_uint64; };
template <> struct NodeOf<double> { using type = CKvVariantDataDouble; };

template <typename Target, typename Source>
Target FromInteger(Source value) {
    if constexpr (std::is_same_v<Target, bool>) {
        return value != 0;
    } else {
        return static_cast<Target>(value);
    }
}

// Truncates toward zero; values beyond the 64-bit range saturate there first.
template <typename Target>
Target FromDouble(double value) {
    if constexpr (std::is_same_v<Target, bool>) {
        return value != 0.0;
    } else if constexpr (std::is_same_v<Target, double>) {
        return value;
    } else {
        if (std::isnan(value)) return 0;
        if (value >= 0x1p64) return static_cast<Target>(UINT64_MAX);
        if (value >= 0x1p63) return static_cast<Target>(static_cast<uint64_t>(value));
        if (value < -0x1p63) return static_cast<Target>(INT64_MIN);
        return static_cast<Target>(static_cast<int64_t>(value));
    }
}

// Converts a node's value to Target. `allIntegers` false leaves out the
// unsigned 64-bit and pointer nodes (the double getter refuses them).
template <typename Target>
bool ConvertData(const CKvVariantData* data, Target& out, bool allIntegers) {
    if (!data) return false;
    if (const auto* n = dynamic_cast<const CKvVariantDataKv_int32*>(data)) {
        out = FromInteger<Target>(n->Value());
    } else if (const auto* n = dynamic_cast<const CKvVariantDataKv_uint32*>(data)) {
        out = FromInteger<Target>(n->Value());
    } else if (const auto* n = dynamic_cast<const CKvVariantDataKv_int64*>(data)) {
        out = FromInteger<Target>(n->Value());
    } else if (const auto* n = dynamic_cast<const CKvVariantDataBool*>(data)) {
        out = FromInteger<Target>(static_cast<int>(n->Value()));
    } else if (const auto* n = dynamic_cast<const CKvVariantDataDouble*>(data)) {
        out = FromDouble<Target>(n->Value());
    } else if (const auto* n = dynamic_cast<const CKvVariantDataKv_uint64*>(data)) {
        if (!allIntegers) return false;
        out = FromInteger<Target>(n->Value());
    } else if (const auto* n = dynamic_cast<const CKvVariantDataVoidPtr*>(data)) {
        if (!allIntegers) return false;
        out = FromInteger<Target>(reinterpret_cast<uintptr_t>(n->Value()));
    } else if (const auto* n = dynamic_cast<const CKvVariantDataCKvStringW*>(data)) {
        // The text is read as the target type reads it: "abc" gives 0.
        typename NodeOf<Target>::type parsed;
        parsed.Read(n->Value());
        out = parsed.Value();
    } else if (const auto* n = dynamic_cast<const CKvVariantDataCKvByteArray*>(data)) {
        const CKvByteArray& bytes = n->Value();
        if (bytes.GetSize() < sizeof(Target)) return false;
        if constexpr (std::is_same_v<Target, bool>) {
            out = bytes.GetData()[0] != 0;
        } else {
            std::memcpy(&out, bytes.GetData(), sizeof(Target));
        }
    } else {
        return false;
    }
    return true;
}

template <typename Target>
Target GetConverted(const CKvVariantData* data, bool* ok, Target failure, bool allIntegers = true) {
    Target value{};
    const bool converted = ConvertData(data, value, allIntegers);
    if (ok) *ok = converted;
    return converted ? value : failure;
}

// The names of a null-terminated argument list, `first` included.
std::vector<const wchar_t*> CollectNames(const wchar_t* first, va_list args) {
    std::vector<const wchar_t*> names;
    for (const wchar_t* name = first; name; name = va_arg(args, const wchar_t*)) names.push_back(name);
    return names;
}

const CKvVariant* FindBreadthFirst(const CKvVariant& root, const wchar_t* name) {
    std::deque<const CKvVariant*> pending{&root};
    while (!pending.empty()) {
        const CKvVariant* node = pending.front();
        pending.pop_front();
        if (node->GetName() == name) return node;
        for (int i = 0; i < node->GetCount(); ++i) pending.push_back(node->IndexPtr(i));
    }
    return nullptr;
}

const CKvVariant* FollowNames(const CKvVariant* node, const std::vector<const wchar_t*>& names, bool breadthFirst) {
    for (const wchar_t* name : names) {
        if (!node) break;
        node = breadthFirst ? FindBreadthFirst(*node, name) : node->SearchFixedOneLevel(name);
    }
    return node;
}

// The comparison behind SetRunType: a list's own run type is the one being
// changed, so for two lists only the members are compared, each shallowly.
int CompareForRunTypeChange(const CKvVariant& node, const CKvVariant& sample) {
    if (node.GetCount() < 0 || sample.GetCount() < 0) return CKvVariant::CompareStructure(node, sample, false);
    if (node.GetCount() != sample.GetCount()) return kStructureDiffers;
    for (int i = 0; i < node.GetCount(); ++i) {
        if (CKvVariant::CompareStructure(node[i], sample[i], false) != 0) return kStructureDiffers;
    }
    return 0;
}

// Gives `node` the run types of `sample` and its members the sample's member
// names, position by position, keeping every value.
void AdoptRunTypes(CKvVariant& node, const CKvVariant& sample) {
    if (node.GetCount() < 0 || sample.GetCount() < 0) return;
    node.GetData()->SetRunType(sample.GetRunType());
    const int count = node.GetCount() < sample.GetCount() ? node.GetCount() : sample.GetCount();
    for (int i = 0; i < count; ++i) {
        node[i].SetName(sample[i].GetName());
        AdoptRunTypes(node[i], sample[i]);
    }
}

// Copies into the members of `target` the values of the members of `source`
// that have the same name and run type, descending where both hold elements.
void CarryValues(CKvVariant& target, const CKvVariant& source) {
    for (int i = 0; i < source.GetCount(); ++i) {
        const CKvVariant& member = source[i];
        CKvVariant* slot = target.IndexPtr(target.IndexOf(member.GetName()));
        if (!slot || slot->GetRunType() != member.GetRunType()) continue;
        if (slot->GetCount() > 0 && member.GetCount() > 0) {
            CarryValues(*slot, member);
        } else {
            *slot = member;
        }
    }
}

void TraceNode(CKvStringW& out, const CKvVariant& node, int depth) {
    const CKvStringW indent(std::wstring(static_cast<size_t>(depth), L' '));
    const CKvStringW runType(node.GetRunType().GetName());
    out += indent;
    out += L"<";
    out += node.GetName();
    out += L" runtype=\"";
    out += runType;
    if (node.GetCount() < 0) {
        CKvStringW value;
        node.Write(value);
        out += L"\" value=\"";
        out += value;
        out += L"\"/>\r\n";
        return;
    }
    out += L"\">\r\n";
    for (int i = 0; i < node.GetCount(); ++i) TraceNode(out, node[i], depth + 1);
    out += indent;
    out += L"</";
    out += node.GetName();
    out += L">\r\n";
}

}  // namespace

namespace {
template <typename Data>
const char* RunTypeNameOf() {
    if constexpr (std::is_same_v<Data, CKvVariantDataCKvListVariant>) {
        return Data::m_runTypeOrig;
    } else {
        return Data::m_runType;
    }
}
}  // namespace

template <typename Data, typename Value>
CKvVariant& CKvVariant::AssignValue(const Value& value) {
    // The run type decides, not the class: a structured list assigned a
    // plain list becomes a plain list.
    auto* same = dynamic_cast<Data*>(m_pData.get());
    if (same && same->GetRunType() == CKvVariantRunType(RunTypeNameOf<Data>())) {
        same->Value() = value;
    } else {
        m_pData = std::make_unique<Data>(value);
    }
    return *this;
}

// ---- Construction ----

#define KV_VARIANT_VALUE_CONSTRUCTOR(Type, Data)                                       \
    CKvVariant::CKvVariant(Type value, const CKvStringW& name)                         \
        : m_pData(std::make_unique<Data>(value)) {                                     \
        SetName(name);                                                                 \
    }                                                                                  \
    CKvVariant& CKvVariant::operator=(Type value) { return AssignValue<Data>(value); }
KV_VARIANT_VALUE_CONSTRUCTOR(const int&, CKvVariantDataKv_int32)
KV_VARIANT_VALUE_CONSTRUCTOR(const unsigned int&, CKvVariantDataKv_uint32)
KV_VARIANT_VALUE_CONSTRUCTOR(const long&, CKvVariantDataKv_int64)
KV_VARIANT_VALUE_CONSTRUCTOR(const unsigned long&, CKvVariantDataKv_uint64)
KV_VARIANT_VALUE_CONSTRUCTOR(const double&, CKvVariantDataDouble)
KV_VARIANT_VALUE_CONSTRUCTOR(const bool&, CKvVariantDataBool)
KV_VARIANT_VALUE_CONSTRUCTOR(void*, CKvVariantDataVoidPtr)
KV_VARIANT_VALUE_CONSTRUCTOR(const CKvByteArray&, CKvVariantDataCKvByteArray)
KV_VARIANT_VALUE_CONSTRUCTOR(const CKvStringW&, CKvVariantDataCKvStringW)
KV_VARIANT_VALUE_CONSTRUCTOR(const CKvListVariant&, CKvVariantDataCKvListVariant)
#undef KV_VARIANT_VALUE_CONSTRUCTOR

CKvVariant::CKvVariant(const wchar_t* value, const CKvStringW& name) : CKvVariant(CKvStringW(OrEmpty(value)), name) {}
CKvVariant::CKvVariant(const char* value, const CKvStringW& name) : CKvVariant(CKvStringW(value ? value : ""), name) {}
CKvVariant& CKvVariant::operator=(const wchar_t* value) { return *this = CKvStringW(OrEmpty(value)); }
CKvVariant& CKvVariant::operator=(const char* value) { return *this = CKvStringW(value ? value : ""); }

CKvVariant::CKvVariant(const CKvVariantRunType& runType, const CKvStringW& name) {
    const CKvVariant& sample = GetRunTypeSample(runType);
    if (sample.m_pData) m_pData = sample.m_pData->Clone();
    SetName(name);
}

CKvVariant::CKvVariant(const CKvVariant& other)
    : m_pData(other.m_pData ? other.m_pData->Clone() : nullptr), m_strName(other.m_strName) {}

CKvVariant::CKvVariant(CKvVariant&& other) noexcept
    : m_pData(std::move(other.m_pData)), m_strName(std::move(other.m_strName)) {}

CKvVariant::~CKvVariant() = default;

// ---- Names ----

bool CKvVariant::SetName(const CKvStringW& name) {
    m_strName = name;
    return ValidateName(m_strName);
}

bool CKvVariant::ValidateName(CKvStringW& name) {
    if (name.IsEmpty()) {
        name = L"no_name";
        return true;
    }
    bool changed = false;
    for (int i = 0; i < name.GetLength(); ++i) {
        const wchar_t c = name.GetAt(i);
        const bool letter = (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z') || c == L'_';
        const bool later = (c >= L'0' && c <= L'9') || c == L'.' || c == L'-';
        if (!letter && !(i > 0 && later)) {
            name.SetAt(i, L'_');
            changed = true;
        }
    }
    return changed;
}

// ---- Typed access ----

bool CKvVariant::GetBool(bool* ok) const { return GetConverted<bool>(m_pData.get(), ok, false); }
kv_int32 CKvVariant::GetKv_int32(bool* ok) const { return GetConverted<kv_int32>(m_pData.get(), ok, -1); }
kv_uint32 CKvVariant::GetKv_uint32(bool* ok) const { return GetConverted<kv_uint32>(m_pData.get(), ok, 0u); }
kv_int64 CKvVariant::GetKv_int64(bool* ok) const { return GetConverted<kv_int64>(m_pData.get(), ok, -1L); }
kv_uint64 CKvVariant::GetKv_uint64(bool* ok) const { return GetConverted<kv_uint64>(m_pData.get(), ok, 0UL); }
double CKvVariant::GetDouble(bool* ok) const { return GetConverted<double>(m_pData.get(), ok, 0.0, false); }

void* CKvVariant::GetVoidPtr(bool* ok) const {
    if (ok) *ok = true;
    if (const auto* pointer = dynamic_cast<const CKvVariantDataVoidPtr*>(m_pData.get())) return pointer->Value();
    if (auto* bytes = dynamic_cast<CKvVariantDataCKvByteArray*>(m_pData.get())) return bytes->Value().GetData();
    if (ok) *ok = false;
    return nullptr;
}

CKvStringW CKvVariant::GetCKvStringW(bool* ok) const {
    CKvStringW text;
    const kv_result result = Write(text);
    if (ok) *ok = result == KV_OK;
    return text;
}

const CKvByteArray& CKvVariant::GetCKvByteArray(bool* ok) const {
    static const CKvByteArray empty;
    const auto* bytes = dynamic_cast<const CKvVariantDataCKvByteArray*>(m_pData.get());
    if (ok) *ok = bytes != nullptr;
    return bytes ? bytes->Value() : empty;
}

const CKvListVariant& CKvVariant::GetCKvListVariant(bool* ok) const {
    static const CKvListVariant empty;
    const auto* list = ListData();
    if (ok) *ok = list != nullptr;
    return list ? list->Value() : empty;
}

bool CKvVariant::operator==(const CKvVariant& other) const {
    if (!m_pData || !other.m_pData) return !m_pData && !other.m_pData;
    return m_pData->Eq(*other.m_pData);
}

// ---- Assignment ----

CKvVariant& CKvVariant::operator=(const CKvVariant& other) {
    if (this == &other) return *this;
    if (!other.m_pData) {
        m_pData.reset();
        return *this;
    }
    if (m_pData && m_pData->GetRunType() == other.m_pData->GetRunType() &&
        other.m_pData->GetValueCopy(*m_pData) == KV_OK) {
        return *this;
    }
    // A null target has no type to protect, so only a real change is reported.
    if (m_pData && !m_bTypeChange) {
        CKvStringA message;
        message.Format("Error: can't do assignment from type: %s to: %s, type change not enabled!",
                       m_pData->GetRunType().GetName().GetString(), other.m_pData->GetRunType().GetName().GetString());
        KvPrintDiagnostic(message);
    }
    m_pData = other.m_pData->Clone();
    return *this;
}

bool CKvVariant::EnableTypeChange(bool enable) {
    const bool previous = m_bTypeChange;
    m_bTypeChange = enable;
    return previous;
}

// ---- Text ----

kv_result CKvVariant::Write(CKvStringW& text) const {
    if (m_pData) return m_pData->Write(text);
    text.Empty();
    return KV_ERR_FAILED;
}

kv_result CKvVariant::Read(const CKvStringW& text) { return m_pData ? m_pData->Read(text) : KV_ERR_FAILED; }
kv_result CKvVariant::Read(const wchar_t* text) { return m_pData ? m_pData->Read(text) : KV_ERR_FAILED; }

void CKvVariant::Trace(const CKvVariant& variant) {
    CKvStringW text;
    Trace(text, variant);
    std::fputs(CKvStringA(text).GetString(), stdout);
    std::fflush(stdout);
}

void CKvVariant::Trace(CKvStringW& text, const CKvVariant& variant) {
    text = L"<variant version=\"1.0\">\r\n";
    TraceNode(text, variant, 0);
    text += L"</variant>\r\n";
}

// ---- Structure ----

CKvVariantDataCKvListVariant* CKvVariant::ListData() const {
    return dynamic_cast<CKvVariantDataCKvListVariant*>(m_pData.get());
}

CKvListVariant* CKvVariant::List() const {
    CKvVariantDataCKvListVariant* data = ListData();
    return data ? &data->Value() : nullptr;
}

int CKvVariant::GetCount() const {
    const CKvListVariant* list = List();
    return list ? list->GetCount() : -1;
}

namespace {
// What a missed look-up hands out for writing: a null variant of this
// thread, emptied at every hand-out so that no earlier write shows through.
CKvVariant& MissedElement() {
    thread_local CKvVariant missed;
    missed.MakeNull();
    missed.SetName(L"no_name");
    missed.EnableTypeChange(false);
    return missed;
}
}  // namespace

CKvVariant& CKvVariant::operator[](int index) {
    CKvVariant* element = IndexPtr(index);
    return element ? *element : MissedElement();
}
const CKvVariant& CKvVariant::operator[](int index) const {
    const CKvVariant* element = IndexPtr(index);
    return element ? *element : SharedNullVariant();
}
CKvVariant& CKvVariant::operator[](const wchar_t* name) {
    CKvVariant* element = SearchFixedOneLevel(name);
    return element ? *element : MissedElement();
}
const CKvVariant& CKvVariant::operator[](const wchar_t* name) const {
    const CKvVariant* element = SearchFixedOneLevel(name);
    return element ? *element : SharedNullVariant();
}

CKvVariant* CKvVariant::IndexPtr(int index) {
    CKvListVariant* list = List();
    return list ? list->GetAt(index) : nullptr;
}
const CKvVariant* CKvVariant::IndexPtr(int index) const {
    const CKvListVariant* list = List();
    return list ? list->GetAt(index) : nullptr;
}

int CKvVariant::IndexOf(const CKvStringW& name) const {
    const CKvListVariant* list = List();
    if (!list) return -1;
    for (int i = 0; i < list->GetCount(); ++i) {
        if (list->GetAt(i)->GetName() == name) return i;
    }
    return KV_ERR_FAILED;
}

CKvVariant* CKvVariant::Member(const CKvVariant& sample) { return IndexPtr(IndexOf(sample.GetName())); }

void CKvVariant::MakeListForArrayOperation() {
    CKvVariantDataCKvListVariant* list = ListData();
    const CKvVariantRunType plain(CKvVariantDataCKvListVariant::m_runTypeOrig);
    if (list && list->GetRunType() == plain) return;
    if (m_pData && !m_bTypeChange) {
        CKvStringA message;
        message.Format("Error: invalid variant type (%s) for array operation.", GetRunType().GetName().GetString());
        KvPrintDiagnostic(message);
    }
    if (list) {
        list->SetRunType(plain);
    } else {
        m_pData = std::make_unique<CKvVariantDataCKvListVariant>();
    }
}

CKvVariant* CKvVariant::Append(const CKvVariant& element) { return Insert(element, INT_MAX); }

CKvVariant* CKvVariant::Insert(const CKvVariant& element, int index) {
    CKvVariant* inserted = nullptr;
    KvNoThrow([&] {
        // Copy first: `element` may be this node or lie inside it.
        auto copy = std::make_unique<CKvVariant>(element);
        MakeListForArrayOperation();
        inserted = &List()->InsertOwned(index, std::move(copy));
        return KV_OK;
    });
    return inserted;
}

kv_result CKvVariant::Delete(unsigned index) {
    CKvListVariant* list = List();
    if (!list) return KV_ERR_FAILED;
    if (index >= static_cast<unsigned>(list->GetCount())) return KV_ERR_INVALID_ARG;
    list->RemoveAt(static_cast<int>(index));
    return KV_OK;
}

void CKvVariant::ClearList() {
    if (CKvListVariant* list = List()) list->RemoveAll();
}

CKvVariant* CKvVariant::SetOrAppend(const CKvStringW& name, const CKvVariant& value) {
    if (CKvVariant* element = IndexPtr(IndexOf(name))) {
        *element = value;
        return element;
    }
    CKvVariant named(value);
    named.SetName(name);
    return Append(named);
}

// The four path searches differ only in constness and in how a step is taken.
#define KV_VARIANT_PATH_SEARCH(Result, Method, Qualifier, breadthFirst)       \
    Result CKvVariant::Method(const wchar_t* name, ...) Qualifier {             \
        va_list args;                                                           \
        va_start(args, name);                                                   \
        const auto names = CollectNames(name, args);                            \
        va_end(args);                                                           \
        return const_cast<Result>(FollowNames(this, names, breadthFirst));      \
    }
KV_VARIANT_PATH_SEARCH(CKvVariant*, Search, , true)
KV_VARIANT_PATH_SEARCH(const CKvVariant*, Search, const, true)
KV_VARIANT_PATH_SEARCH(CKvVariant*, SearchFixed, , false)
KV_VARIANT_PATH_SEARCH(const CKvVariant*, SearchFixed, const, false)
#undef KV_VARIANT_PATH_SEARCH

CKvVariant* CKvVariant::SearchFixedOneLevel(const wchar_t* name) {
    return name ? IndexPtr(IndexOf(CKvStringW(name))) : nullptr;
}
const CKvVariant* CKvVariant::SearchFixedOneLevel(const wchar_t* name) const {
    return name ? IndexPtr(IndexOf(CKvStringW(name))) : nullptr;
}

// ---- Run types ----

CKvVariantRunType CKvVariant::GetRunType() const { return m_pData ? m_pData->GetRunType() : CKvVariantRunType(); }

kv_result CKvVariant::SetRunType(const CKvVariantRunType& runType) { return ChangeRunType(runType, false); }
kv_result CKvVariant::SetRunTypeCompatible(const CKvVariantRunType& runType) { return ChangeRunType(runType, true); }

kv_result CKvVariant::ChangeRunType(const CKvVariantRunType& runType, bool keepValues) {
    if (GetRunType() == runType) return KV_OK;
    if (!m_bTypeChange) return KV_ERR_FAILED;
    const CKvVariant& sample = GetRunTypeSample(runType);
    if (!sample.m_pData) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&] {
        if (CompareForRunTypeChange(*this, sample) == 0) {
            AdoptRunTypes(*this, sample);
            return KV_OK;
        }
        CKvVariant filled(sample);
        if (keepValues) CarryValues(filled, *this);
        m_pData = std::move(filled.m_pData);
        return KV_OK;
    });
}

int CKvVariant::CompareStructure(const CKvVariant& a, const CKvVariant& b, bool deep) {
    if (a.GetCount() != b.GetCount() || a.GetRunType() != b.GetRunType()) return kStructureDiffers;
    if (!deep) return 0;
    for (int i = 0; i < a.GetCount(); ++i) {
        if (CompareStructure(a[i], b[i], true) != 0) return kStructureDiffers;
    }
    return 0;
}

kv_result CKvVariant::RegisterRunType(const CKvVariant& sample) {
    if (!sample.m_pData || sample.m_strName.IsEmpty()) return KV_ERR_INVALID_ARG;
    return KvNoThrow([&] {
        RunTypeRegistry::Instance().Add(sample);
        return KV_OK;
    });
}

void CKvVariant::RegisterKnownTypes() { RunTypeRegistry::Instance(); }

int CKvVariant::GetRunTypeIndex(const CKvVariantRunType& runType, bool report) {
    const int index = RunTypeRegistry::Instance().FindIndex(runType);
    if (index >= 0 || !report) return index;
    CKvStringA message;
    message.Format("Error: CKvVariant::GetRunTypeIndex(), can't find: '%s' runtype!", runType.GetName().GetString());
    KvPrintDiagnostic(message);
    return 0;
}

const CKvVariant& CKvVariant::GetRunTypeSample(const CKvVariantRunType& runType) {
    if (const CKvVariant* sample = RunTypeRegistry::Instance().FindSample(runType)) return *sample;
    CKvStringA message;
    message.Format("Error: CKvVariant::GetRunTypeSample(), can't find: '%s' runtype!", runType.GetName().GetString());
    KvPrintDiagnostic(message);
    return SharedNullVariant();
}

namespace {
CKvVariant StructOfMembers(const CKvStringW& name, const CKvVariant* first, va_list members) {
    CKvListVariant list;
    for (const CKvVariant* member = first; member; member = va_arg(members, const CKvVariant*)) list.Add(*member);
    return CKvVariant(list, name);
}
}  // namespace

CKvVariant CKvVariant::CreateStruct(const CKvStringW& name, const CKvVariant* member, ...) {
    va_list args;
    va_start(args, member);
    CKvVariant result = StructOfMembers(name, member, args);
    va_end(args);
    return result;
}

CKvVariant CKvVariant::CreateStructNamed(const CKvVariantRunType& runType, const CKvStringW& name,
                                         const CKvVariant* member, ...) {
    va_list args;
    va_start(args, member);
    CKvVariant result = StructOfMembers(name, member, args);
    va_end(args);
    result.m_pData->SetRunType(runType);
    return result;
}

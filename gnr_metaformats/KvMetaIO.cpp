#include "gnr_metaformats/KvMetaIO.h"

#include "gnr_system/KvTrace.h"

namespace KvMeta {

void BeginStruct(CKvVariant& node, const char* runType) {
    const bool typeChange = node.EnableTypeChange(true);
    node = CKvListVariant();
    node.GetData()->SetRunType(CKvVariantRunType(runType));
    node.EnableTypeChange(typeChange);
}

namespace {
// Adds to the list itself: CKvVariant::Append would turn a structured list
// into a plain one first.
template <typename Value>
CKvVariant* Append(CKvVariant& node, const wchar_t* key, const Value& value) {
    CKvVariant* added = nullptr;
    KvNoThrow([&] {
        CKvVariantData* data = node.GetData();
        if (data && data->IsArray()) {
            added = &static_cast<CKvVariantDataCKvListVariant*>(data)->Value().Add(CKvVariant(value, CKvStringW(key)));
        } else {
            added = node.Append(CKvVariant(value, CKvStringW(key)));
        }
        return KV_OK;
    });
    return added;
}
}  // namespace

CKvVariant* Put(CKvVariant& node, const wchar_t* key, bool value) { return Append(node, key, value); }
CKvVariant* Put(CKvVariant& node, const wchar_t* key, int32_t value) { return Append(node, key, value); }
CKvVariant* Put(CKvVariant& node, const wchar_t* key, uint32_t value) { return Append(node, key, value); }
CKvVariant* Put(CKvVariant& node, const wchar_t* key, uint64_t value) {
    return Append(node, key, static_cast<unsigned long>(value));
}
CKvVariant* Put(CKvVariant& node, const wchar_t* key, double value) { return Append(node, key, value); }
CKvVariant* Put(CKvVariant& node, const wchar_t* key, const CKvStringW& value) { return Append(node, key, value); }
CKvVariant* Put(CKvVariant& node, const wchar_t* key, const CKvByteArray& value) { return Append(node, key, value); }
CKvVariant* PutList(CKvVariant& node, const wchar_t* key) { return Append(node, key, CKvListVariant()); }

kv_result ReportWrongRunType(const CKvVariant& node, const wchar_t* expectedText) {
    KvNoThrow([&] {
        CKvStringW message;
        message.Format(L"Wrong variant runtype('%ls'), expected %ls.",
                       CKvStringW(node.GetRunType().GetName()).GetString(), expectedText);
        KvPrintDiagnostic(message);
        return KV_OK;
    });
    return KV_ERR_INVALID_ARG;
}

kv_result CheckRunType(const CKvVariant& node, const char* expected) {
    if (node.GetRunType() == CKvVariantRunType(expected)) return KV_OK;
    CKvStringW quoted(L"'");
    quoted += CKvStringW(CKvStringA(expected));
    quoted += L"'";
    return ReportWrongRunType(node, quoted.GetString());
}

const CKvVariant* Find(const CKvVariant& node, const wchar_t* key) {
    if (node.GetCount() <= 0) return nullptr;
    return node.SearchFixedOneLevel(key);
}

namespace {
template <typename T, typename Getter>
bool GetNumber(const CKvVariant& member, T& value, Getter getter) {
    if (member.IsNull() || member.GetCount() >= 0) return false;
    bool ok = false;
    const T read = (member.*getter)(&ok);
    if (ok) value = read;
    return ok;
}
}  // namespace

bool GetValue(const CKvVariant& member, bool& value) { return GetNumber(member, value, &CKvVariant::GetBool); }
bool GetValue(const CKvVariant& member, int32_t& value) { return GetNumber(member, value, &CKvVariant::GetKv_int32); }
bool GetValue(const CKvVariant& member, uint32_t& value) {
    return GetNumber(member, value, &CKvVariant::GetKv_uint32);
}
bool GetValue(const CKvVariant& member, uint64_t& value) {
    unsigned long read = value;
    if (!GetNumber(member, read, &CKvVariant::GetKv_uint64)) return false;
    value = read;
    return true;
}
bool GetValue(const CKvVariant& member, double& value) { return GetNumber(member, value, &CKvVariant::GetDouble); }
bool GetValue(const CKvVariant& member, CKvStringW& value) {
    if (member.GetRunType() != CKvVariantRunType(CKvVariantDataCKvStringW::m_runType)) return false;
    return KvNoThrow([&] {
               value = member.GetCKvStringW();
               return KV_OK;
           }) == KV_OK;
}
bool GetValue(const CKvVariant& member, CKvByteArray& value) {
    if (member.GetRunType() != CKvVariantRunType(CKvVariantDataCKvByteArray::m_runType)) return false;
    return KvNoThrow([&] {
               value = member.GetCKvByteArray();
               return KV_OK;
           }) == KV_OK;
}

namespace {
template <typename T>
bool GetMember(const CKvVariant& node, const wchar_t* key, T& value) {
    const CKvVariant* member = Find(node, key);
    return member && GetValue(*member, value);
}
}  // namespace

bool Get(const CKvVariant& node, const wchar_t* key, bool& value) { return GetMember(node, key, value); }
bool Get(const CKvVariant& node, const wchar_t* key, int32_t& value) { return GetMember(node, key, value); }
bool Get(const CKvVariant& node, const wchar_t* key, uint32_t& value) { return GetMember(node, key, value); }
bool Get(const CKvVariant& node, const wchar_t* key, uint64_t& value) { return GetMember(node, key, value); }
bool Get(const CKvVariant& node, const wchar_t* key, double& value) { return GetMember(node, key, value); }
bool Get(const CKvVariant& node, const wchar_t* key, CKvStringW& value) { return GetMember(node, key, value); }
bool Get(const CKvVariant& node, const wchar_t* key, CKvByteArray& value) { return GetMember(node, key, value); }

const CKvVariant* ElementByNameOrPosition(const CKvVariant& list, const wchar_t* name, int position) {
    if (list.GetCount() <= 0) return nullptr;
    if (const CKvVariant* named = list.SearchFixedOneLevel(name)) return named;
    return list.IndexPtr(position);
}

void RegisterSample(const char* runType, CKvVariant sample) {
    KvNoThrow([&] {
        sample.SetName(CKvStringW(CKvStringA(runType)));
        return CKvVariant::RegisterRunType(sample);
    });
}

CLvLevelWriter::CLvLevelWriter(CKvLiteVariantW& writer, const wchar_t* name)
    : m_writer(writer), m_result(writer.LevelBegin(name)), m_bOpen(m_result == KV_OK) {}

kv_result CLvLevelWriter::Close() {
    if (!m_bOpen) return m_result;
    m_bOpen = false;
    return m_writer.LevelEnd();
}

CLvLevelReader::CLvLevelReader(CKvLiteVariantR& reader, const wchar_t* name) : m_reader(reader) {
    const kv_result result = name ? reader.LevelBegin(name, &m_nCount) : reader.CurrentLevelBegin(&m_nCount);
    m_bOpen = result == KV_OK;
}

CLvLevelReader::~CLvLevelReader() {
    if (m_bOpen) m_reader.LevelEnd();
}

void LvGet(CKvLiteVariantR& reader, const wchar_t* key, CKvStringW& value) {
    KvNoThrow([&] {
        CKvStringW read;
        if (reader.GetCKvStringW(read, key) == KV_OK) value = std::move(read);
        return KV_OK;
    });
}

void LvGet(CKvLiteVariantR& reader, const wchar_t* key, CKvByteArray& value) {
    KvNoThrow([&] {
        CKvByteArray read;
        if (reader.Get(key, read) == KV_OK) value = std::move(read);
        return KV_OK;
    });
}

bool LvEnterElement(CKvLiteVariantR& reader, const wchar_t* name) {
    if (name && reader.LevelBegin(name) == KV_OK) return true;
    const uint8_t type = reader.GetCurrentType();
    if (type != eLvLevel && type != eLvLevelOld) return false;
    return reader.CurrentLevelBegin() == KV_OK;
}

}  // namespace KvMeta

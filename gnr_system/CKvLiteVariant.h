// The lite variant: a compact binary encoding of a named tree of typed values.
// CKvLiteVariantW writes it item by item; CKvLiteVariantR reads it back, finds
// values by name through each level's sorted index, and merges encodings.
#pragma once

#include <cstdint>
#include <vector>

#include "gnr_system/CKvByteArray.h"
#include "gnr_system/CKvString.h"
#include "gnr_system/KvResult.h"

// Type codes, the first byte of every item. Any other value is invalid.
enum EKvLiteVariantType : uint8_t {
    eLvNone = 0,       // no item (end of the buffer)
    eLvBool = 1,       // 1 byte, 0 or 1
    eLvInt32 = 2,      // 4 bytes
    eLvUInt32 = 3,     // 4 bytes
    eLvInt64 = 4,      // 8 bytes
    eLvUInt64 = 5,     // 8 bytes
    eLvDouble = 6,     // 8 bytes, IEEE 754 binary64
    eLvPointer = 7,    // 8 bytes, an opaque pointer-sized value
    eLvString = 8,     // UTF-16LE units followed by a 0 unit
    eLvByteArray = 9,  // u64 byte count, then the bytes
    eLvLevelOld = 10,  // level whose offsets are absolute from the buffer start
    eLvLevel = 11,     // level: u32 count, u64 index offset, children, index table
};

// Item header: type byte and name-length byte, then name-length UTF-16 units.
constexpr uint64_t kLvItemHeaderSize = 2;
// A level adds its child count (u32) and index offset (u64) after the name.
constexpr uint64_t kLvLevelFieldsSize = 12;
// Names keep at most 254 units so that the terminator fits the length byte.
constexpr uint32_t kLvMaxNameUnits = 254;
// Compressed envelope: "LV0Z", u64 uncompressed length, then a zlib stream.
constexpr char kLvEnvelopeMagic[4] = {'L', 'V', '0', 'Z'};
constexpr uint64_t kLvEnvelopeHeaderSize = 12;
// Below this an envelope cannot hold even one byte of zlib stream.
constexpr uint64_t kLvMinEnvelopeSize = 13;
// Deflate expands its input at most about 1032 times; a declared length
// beyond that cannot be genuine and is refused before allocating.
constexpr uint64_t kLvMaxInflateRatio = 1032;
constexpr int kLvCompressionLevel = 6;
// Writer buffer size at the first item; it doubles from there.
constexpr uint64_t kLvInitialBufferSize = 4096;
// Growth steps of a level's child array and of the level stacks.
constexpr uint32_t kLvChildArrayStep = 32;
constexpr uint32_t kLvLevelStackStep = 8;
// Deepest nesting the reader enters; keeps hostile input from exhausting
// the stack of the recursive operations (conversion, merge, variant trees).
// A variant tree is written no deeper, so that it always reads back whole.
constexpr int32_t kLvMaxLevelDepth = 128;
// Name of the string item that opens the level of a list whose run type is
// not the plain list's, holding that run-type name.
constexpr wchar_t kLvRunTypeItemName[] = L"__m_runType";

// An item name in stored form: `length` UTF-16LE units including the
// terminating 0 (0 for an unnamed item), at `units`.
struct SKvLvName {
    uint8_t length = 0;
    const uint8_t* units = nullptr;
};

class CKvLiteVariantR;
class CKvVariant;

class CKvLiteVariantW {
public:
    CKvLiteVariantW() = default;
    ~CKvLiteVariantW();
    CKvLiteVariantW(const CKvLiteVariantW&) = delete;
    CKvLiteVariantW& operator=(const CKvLiteVariantW&) = delete;

    // Each appends one item to the innermost open level (or the top level).
    // Names longer than 254 characters are cut to 254. KV_ERR_OUT_OF_MEMORY when memory runs out.
    kv_result Set(bool value, const wchar_t* name);
    kv_result Set(int32_t value, const wchar_t* name);
    kv_result Set(uint32_t value, const wchar_t* name);
    kv_result Set(int64_t value, const wchar_t* name);
    kv_result Set(uint64_t value, const wchar_t* name);
    kv_result Set(double value, const wchar_t* name);
    kv_result Set(const void* value, const wchar_t* name);
    // A null string fails with KV_ERR_FAILED.
    kv_result Set(const wchar_t* value, const wchar_t* name);
    kv_result Set(const CKvStringW& value, const wchar_t* name) { return Set(value.GetString(), name); }
    kv_result Set(const CKvByteArray& value, const wchar_t* name);
    kv_result Set(const void* data, uint64_t size, const wchar_t* name);
    // Writes a whole variant tree under `name`, or under the variant's own
    // name when `name` is null. A scalar becomes one item of its type; a list
    // a level holding its elements under their own names, preceded by a
    // kLvRunTypeItemName string when its run type is not the plain list's (or
    // when its first element would be mistaken for that item); a null variant
    // an empty level, or nothing when the name is empty. KV_ERR_FAILED for a tree
    // nested deeper than kLvMaxLevelDepth levels, KV_ERR_OUT_OF_MEMORY when memory runs out; on
    // failure nothing of the tree stays written.
    kv_result Set(const CKvVariant& value, const wchar_t* name = nullptr);

    // The primitive behind every Set: `size` value bytes of a type 1 to 9
    // (for type 9 the byte count is written before them). Fixed-size types
    // must get their exact width, strings their units with the 0 unit; KV_ERR_FAILED else.
    kv_result Write(uint8_t type, const wchar_t* name, const void* data, uint64_t size);

    // Opens a level. At the top level only the very first item may be a
    // level (KV_ERR_FAILED otherwise).
    kv_result LevelBegin(const wchar_t* name);
    // Writes the open level's header fields and sorted index; KV_ERR_FAILED when none is open.
    kv_result LevelEnd();

    // Copies the reader's current item, a whole level included, as one new
    // item; KV_ERR_FAILED when the reader has no valid item there. The non-const form
    // first expands a compressed or old-form buffer.
    kv_result Append(CKvLiteVariantR& reader);
    kv_result Append(const CKvLiteVariantR& reader);

    // Makes room for `bytes` more bytes.
    kv_result Reserve(uint64_t bytes);

    // Closes every open level and hands the buffer to `out`; the writer is
    // left empty. With `compress` 1 `out` gets the compressed envelope; if
    // compression fails, KV_ERR_FAILED and the writer keeps its finished buffer.
    kv_result Finalize(CKvLiteVariantR& out, int compress);

    // Index order of two items' names: <0, 0, >0. Both must point at item headers.
    static int CompareItems(const uint8_t* a, const uint8_t* b);

    int32_t GetLevelIndex() const { return static_cast<int32_t>(m_aLevels.size()) - 1; }
    uint64_t GetSize() const { return m_nUsed; }
    const uint8_t* GetData() const { return m_pBuffer; }

private:
    friend class CKvLiteVariantR;

    struct SLevel {
        std::vector<uint64_t> children;  // child offsets relative to `start`
        uint64_t start = 0;              // buffer offset of the level's type byte
    };

    kv_result WriteItem(uint8_t type, const SKvLvName& name, const void* data, uint64_t size);
    kv_result BeginLevel(const SKvLvName& name);
    kv_result AppendBytes(const uint8_t* item, uint64_t size);
    // Records an item about to be written at the end as a child of the open level.
    void RecordChild();
    void WriteHeader(uint8_t type, const SKvLvName& name);
    void FreeBuffer();
    kv_result WriteVariant(const CKvVariant& value, const wchar_t* name);
    kv_result WriteList(const CKvVariant& list, const wchar_t* name);
    // Drops what was written after the state (buffer length, open levels,
    // children of the innermost of them) recorded before.
    void Truncate(uint64_t used, size_t levels, size_t children);

    uint8_t* m_pBuffer = nullptr;
    uint64_t m_nCapacity = 0;
    uint64_t m_nUsed = 0;
    std::vector<SLevel> m_aLevels;
};

class CKvLiteVariantR : public virtual CKvByteArray {
public:
    CKvLiteVariantR() = default;
    CKvLiteVariantR(const CKvLiteVariantR& other);
    CKvLiteVariantR& operator=(const CKvLiteVariantR& other);
    ~CKvLiteVariantR() override = default;

    // Takes ownership of a buffer allocated through CKvAlloc (encoded or
    // compressed), freeing the previous one; position 0, no level entered.
    void SetPointer(void* data, uint64_t size, uint64_t capacity);
    void Reset();
    void Clear();

    // Expands a compressed envelope in place. 0 when done or when the buffer
    // is no envelope; KV_ERR_FAILED when the stream is bad or its declared length impossible.
    kv_result Decompress();

    bool IsNextValue();
    // Steps over the current item (a whole level with its index); KV_ERR_FAILED at the end.
    kv_result NextValue();
    // Type code of the current item; 0 at the end of the buffer or level.
    uint8_t GetCurrentType();
    CKvStringW GetCurrentName();
    // Copies at most capacity - 1 characters and a terminator.
    kv_result GetCurrentName(wchar_t* buffer, uint32_t capacity);

    // Enters the level at the position and positions on its first child.
    kv_result CurrentLevelBegin(uint32_t* count = nullptr);
    kv_result LevelBegin(const wchar_t* name, uint32_t* count = nullptr);
    // Leaves the innermost level, positioned on that level's own item.
    kv_result LevelEnd();
    int32_t GetLevelIndex() const { return static_cast<int32_t>(m_aLevels.size()) - 1; }

    // Buffer offset of the item `name` (a leading backslash makes it a path
    // from the top). KV_ERR_FAILED when absent. The position stays unchanged.
    kv_result Find(const wchar_t* name, uint64_t& offset);
    bool IsValueSet(const wchar_t* name);

    // Copies the fixed-size value (types 1 to 7) of `name` into `dest`, which
    // holds `size` bytes, and steps past it. Signed and unsigned integers of
    // one width read as each other; any other mismatch is KV_ERR_FAILED.
    kv_result Read(uint8_t type, const wchar_t* name, void* dest, uint64_t size);

    // The value of `name`, or `def` when it is missing or of another type.
    bool Get(const wchar_t* name, bool def);
    int32_t Get(const wchar_t* name, int32_t def);
    uint32_t Get(const wchar_t* name, uint32_t def);
    int64_t Get(const wchar_t* name, int64_t def);
    uint64_t Get(const wchar_t* name, uint64_t def);
    double Get(const wchar_t* name, double def);
    void* Get(const wchar_t* name, void* def);
    CKvStringW Get(const wchar_t* name, const wchar_t* def);
    // Bytes of a byte-array item inside the buffer and their count; null when absent.
    const uint8_t* Get(const wchar_t* name, uint64_t* size);
    // Copies at most `size` bytes of a byte array.
    kv_result Get(const wchar_t* name, void* dest, uint64_t size);
    kv_result Get(const wchar_t* name, CKvByteArray& value);
    kv_result GetCKvStringW(CKvStringW& result, const wchar_t* name, const wchar_t* def = L"");

    // The same for the item at the position, without look-up or stepping.
    bool GetCurrentValue(bool def);
    int32_t GetCurrentValue(int32_t def);
    uint32_t GetCurrentValue(uint32_t def);
    int64_t GetCurrentValue(int64_t def);
    uint64_t GetCurrentValue(uint64_t def);
    double GetCurrentValue(double def);
    void* GetCurrentValue(void* def);
    kv_result GetCurrentValue(CKvStringW& result, const wchar_t* def = L"");
    kv_result GetCurrentValue(CKvByteArray& value);

    // Reads the current item as a variant tree into `value`, which keeps its
    // name and type-change setting: items of types 1 to 9 become scalars of
    // the matching run type; a level becomes a list of its children, each
    // named after its item, and takes the run type a leading
    // kLvRunTypeItemName string names (SetRunTypeCompatible). Children that
    // cannot be read are left out. KV_ERR_FAILED when there is no valid current item,
    // KV_ERR_OUT_OF_MEMORY when memory runs out. The position stays on the item.
    kv_result GetCurrentValue(CKvVariant& value);
    // The same for the item `name`; on success steps past it.
    kv_result Get(const wchar_t* name, CKvVariant& value);

    // Copies the current (or named) item into `out` as a buffer of its own.
    kv_result ExtractCurrent(CKvLiteVariantR& out);
    kv_result Extract(const wchar_t* name, CKvLiteVariantR& out);

    // Merges `other` into this encoding: both must start with a level of the
    // same name; this one wins on names present in both, `other` adds the
    // named items this one lacks.
    kv_result Merge(CKvLiteVariantR& other);
    // Writes the merge of the levels `a` and `b` are inside into `writer`.
    static kv_result MergeLevel(CKvLiteVariantW& writer, CKvLiteVariantR& a, CKvLiteVariantR& b);
    // Writes the item `name` of the current levels of `a` and `b` into
    // `writer`, merged when both have it as a level, copied when one has it.
    static kv_result MergeLevelEx(CKvLiteVariantW& writer, CKvLiteVariantR& a, CKvLiteVariantR& b,
                                  const wchar_t* name);
    // In the level this encoding starts with, replaces the child `name` by
    // the current item of `other` (added at the end when there is none).
    kv_result Replace(const wchar_t* name, CKvLiteVariantR& other);

    // A readable dump, one line per item, indented by level: `name (type) = value`.
    // The position and entered levels are kept.
    kv_result Trace(CKvStringW& text);
    // The encoding as a wide XML document (the item at the start of the
    // buffer, read into a variant tree), and back: the XML document replaces
    // the buffer with its uncompressed encoding.
    kv_result LiteVariantToXML(CKvStringW& xml);
    kv_result LiteVariantFromXML(const CKvStringW& xml);

    // Rewrites an old-form buffer (code-10 levels, absolute offsets) in place.
    kv_result ConvertLV31toLV32();

    // Expands a compressed buffer and converts an old-form level at the position.
    kv_result PrepareCurrent();
    // The bytes of the current item; KV_ERR_FAILED when there is no valid item.
    kv_result GetCurrentItem(const uint8_t*& data, uint64_t& size) const;

private:
    struct SLevel {
        uint64_t start = 0;          // buffer offset of the level's type byte
        uint64_t childrenBegin = 0;  // first child
        uint64_t childrenEnd = 0;    // index table
        uint32_t count = 0;
    };
    // One validated item.
    struct SItem {
        uint8_t type = 0;
        SKvLvName name;
        uint64_t start = 0;
        uint64_t value = 0;        // buffer offset of the value bytes
        uint64_t valueSize = 0;    // byte-array bytes, string units with the 0 unit
        uint64_t length = 0;       // whole item
        uint32_t count = 0;        // levels: children
        uint64_t indexOffset = 0;  // levels: relative to `start`
    };

    // End of the region the current position may read: the buffer, or the
    // children of the innermost level.
    uint64_t Limit() const;
    bool ParseItem(uint64_t pos, uint64_t limit, SItem& item) const;
    bool ParseName(uint64_t pos, uint64_t limit, SKvLvName& name) const;
    bool ParseCurrent(SItem& item);
    // Finds a stored name in the current level; `found` (if given) receives
    // the parsed item, so callers need not parse it again.
    kv_result FindStored(const SKvLvName& name, uint64_t& offset, SItem* found = nullptr);
    kv_result Locate(const wchar_t* name, uint64_t& offset, SItem* found);
    kv_result EnterLevelAt(uint64_t pos, uint32_t* count);
    // Find, then the item found, validated.
    kv_result FindItem(const wchar_t* name, SItem& item);
    kv_result FindValue(uint8_t type, const wchar_t* name, SItem& item);
    kv_result ReadFixed(const SItem& item, uint8_t type, void* dest, uint64_t size) const;
    kv_result ConvertOldLevel(uint64_t pos, uint64_t limit, int32_t depth);
    kv_result CopyItem(const SItem& item, CKvLiteVariantR& out) const;
    // The variant reading: the item parsed at the position into `value`. The
    // recursion descends only through entered levels, so its depth is bounded
    // by kLvMaxLevelDepth.
    kv_result ReadVariant(const SItem& item, CKvVariant& value);
    kv_result ReadScalar(const SItem& item, CKvVariant& value) const;
    kv_result ReadLevel(const SItem& level, CKvVariant& value);
    kv_result ReadElements(CKvVariant& list);
    void Adopt(CKvLiteVariantR& other);
    static kv_result MergePair(CKvLiteVariantW& writer, CKvLiteVariantR& a, uint64_t inA, CKvLiteVariantR& b,
                               uint64_t inB, const SKvLvName& name);
    void TraceLevel(CKvStringW& text, int depth);
    template <typename T>
    T GetFixed(const wchar_t* name, uint8_t type, T def);
    template <typename T>
    T GetCurrentFixed(uint8_t type, T def);

    std::vector<SLevel> m_aLevels;
    bool m_bEnvelopeTried = false;  // the envelope was expanded or failed once
};

// A reader shared by reference count; it deletes itself at count 0.
class CKvRefLiteVariantR : public CKvLiteVariantR {
public:
    CKvRefLiteVariantR() = default;
    // A copy starts with a count of its own.
    explicit CKvRefLiteVariantR(const CKvLiteVariantR& other) : CKvByteArray(other), CKvLiteVariantR(other) {}
    CKvRefLiteVariantR(const CKvRefLiteVariantR& other) : CKvByteArray(other), CKvLiteVariantR(other) {}
    CKvRefLiteVariantR& operator=(const CKvRefLiteVariantR&) = delete;
    uint32_t AddRef() { return ++m_nRefCount; }
    uint32_t Release();

private:
    ~CKvRefLiteVariantR() override = default;
    uint32_t m_nRefCount = 1;
};

// Holds one shared reader; copies share it.
class CKvLiteVariantRHolder {
public:
    CKvLiteVariantRHolder() = default;
    // Takes over one reference of `reader`.
    explicit CKvLiteVariantRHolder(CKvRefLiteVariantR* reader) : m_pReader(reader) {}
    CKvLiteVariantRHolder(const CKvLiteVariantRHolder& other);
    CKvLiteVariantRHolder& operator=(const CKvLiteVariantRHolder& other);
    ~CKvLiteVariantRHolder();

    CKvRefLiteVariantR* Get() const { return m_pReader; }
    bool IsNotNull() const { return m_pReader != nullptr; }
    // Creates an empty reader when none is held; KV_ERR_OUT_OF_MEMORY when memory runs out.
    kv_result MakeNotNull();
    // In addition copies the reader when it is shared.
    kv_result MakeNotNullAndUnique();

private:
    CKvRefLiteVariantR* m_pReader = nullptr;
};

// Hands arbitrary bytes to the lite-variant reader: walks every level it can
// enter, reads every value by position and by name and path, copies items
// through a writer, reads the input as a variant tree and writes that back,
// and merges the two halves of the input.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "gnr_system/CKvAlloc.h"
#include "gnr_system/CKvLiteVariant.h"
#include "gnr_system/CKvVariant.h"

namespace {

constexpr int kMaxWalkDepth = 40;
constexpr int kMaxItems = 2000;
constexpr size_t kMaxPaths = 32;

void Load(CKvLiteVariantR& r, const uint8_t* data, size_t size) {
    void* copy = size ? CKvAlloc::Alloc(0, size) : nullptr;
    if (copy) std::memcpy(copy, data, size);
    r.SetPointer(copy, copy ? size : 0, size);
}

// Every getter once; a successful read moves on, so the position may change.
void GetEveryType(CKvLiteVariantR& r, const wchar_t* name) {
    r.Get(name, false);
    r.Get(name, int32_t{0});
    r.Get(name, uint32_t{0});
    r.Get(name, int64_t{0});
    r.Get(name, uint64_t{0});
    r.Get(name, 0.0);
    r.Get(name, static_cast<void*>(nullptr));
    r.Get(name, L"");
    uint64_t size = 0;
    const uint8_t* bytes = r.Get(name, &size);
    if (bytes && size && (bytes < r.GetData() || bytes + size > r.GetData() + r.GetSize())) std::abort();
    uint8_t small[4];
    r.Get(name, small, sizeof small);
    CKvByteArray array;
    r.Get(name, array);
}

void ReadCurrent(CKvLiteVariantR& r) {
    r.GetCurrentValue(false);
    r.GetCurrentValue(int32_t{0});
    r.GetCurrentValue(uint64_t{0});
    r.GetCurrentValue(0.0);
    CKvStringW text;
    r.GetCurrentValue(text);
    CKvByteArray array;
    r.GetCurrentValue(array);
}

void Walk(CKvLiteVariantR& r, int depth, const std::wstring& path, std::vector<std::wstring>& paths, int& items,
          CKvLiteVariantW& copy) {
    while (items < kMaxItems && r.IsNextValue()) {
        ++items;
        const CKvStringW name = r.GetCurrentName();
        const std::wstring here = path + L"\\" + name.Std();
        if (paths.size() < kMaxPaths) paths.push_back(here);
        ReadCurrent(r);
        copy.Append(r);
        const uint64_t before = r.GetCurrentOffset();
        if (r.GetCurrentType() == eLvLevel && depth < kMaxWalkDepth && r.CurrentLevelBegin() == KV_OK) {
            Walk(r, depth + 1, here, paths, items, copy);
            if (r.LevelEnd() != KV_OK || r.GetCurrentOffset() != before) std::abort();
        }
        if (r.NextValue() != KV_OK) break;
        if (r.GetCurrentOffset() <= before) std::abort();  // every step moves forward
    }
}

std::vector<uint8_t> Encode(const CKvVariant& tree, int compress) {
    CKvLiteVariantW writer;
    CKvLiteVariantR encoded;
    // Whatever was read has at most as many levels as the writer accepts.
    if (writer.Set(tree, L"tree") != KV_OK || writer.Finalize(encoded, compress) != KV_OK) std::abort();
    return std::vector<uint8_t>(encoded.GetData(), encoded.GetData() + encoded.GetSize());
}

// The input as a variant tree, written back and read again: what the first
// reading kept survives the writing, so the second encoding equals the first.
void RoundTripTree(CKvLiteVariantR& reader, int compress) {
    reader.Reset();
    CKvVariant first;
    if (reader.GetCurrentValue(first) != KV_OK) return;
    const std::vector<uint8_t> once = Encode(first, compress);
    CKvLiteVariantR again;
    Load(again, once.data(), once.size());
    CKvVariant second;
    if (again.GetCurrentValue(second) != KV_OK || Encode(second, compress) != once) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CKvLiteVariantR reader;
    Load(reader, data, size);
    std::vector<std::wstring> paths;
    int items = 0;
    CKvLiteVariantW copy;
    copy.LevelBegin(L"copy");
    Walk(reader, 0, L"", paths, items, copy);
    CKvStringW text;
    if (reader.Trace(text) != KV_OK) std::abort();

    // What the writer copied is valid and reads back whole.
    CKvLiteVariantR copied;
    if (copy.Finalize(copied, static_cast<int>(size & 1)) != KV_OK) std::abort();
    if (copied.CurrentLevelBegin() != KV_OK) std::abort();
    RoundTripTree(reader, static_cast<int>(size & 1));

    for (const std::wstring& path : paths) {
        GetEveryType(reader, path.c_str());
        reader.Reset();
        reader.CurrentLevelBegin();
        const size_t slash = path.rfind(L'\\');
        GetEveryType(reader, path.c_str() + slash + 1);
        CKvVariant tree;
        reader.Get(path.c_str() + slash + 1, tree);
        CKvLiteVariantR extracted;
        if (reader.Extract(path.c_str(), extracted) == KV_OK && extracted.NextValue() != KV_OK) std::abort();
    }

    CKvLiteVariantR a, b;
    Load(a, data, size / 2);
    Load(b, data + size / 2, size - size / 2);
    if (a.Merge(b) == KV_OK) {
        int merged = 0;
        std::vector<std::wstring> none;
        CKvLiteVariantW sink;
        Walk(a, 0, L"", none, merged, sink);
    }
    return 0;
}

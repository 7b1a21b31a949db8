// Speed of the metadata encodings: writing and reading a metadata-sized
// lite-variant tree (64 planes of 20 keys each), reading it in written order
// (one name comparison per value) and in shuffled order (binary search), and
// look-ups in levels of 1,000 to 100,000 children, which should grow with
// the logarithm of the level size; and the XML round trip of the same tree.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "gnr_system/CKvLiteVariant.h"
#include "gnr_system/CKvSerializerXMLString.h"
#include "gnr_system/CKvVariant.h"

namespace {

constexpr int kPlanes = 64;
constexpr int kKeysPerPlane = 20;
constexpr int kItemsPerTree = kPlanes * (kKeysPerPlane + 1) + 1;  // values and levels

struct SNames {
    std::vector<std::wstring> planes;  // "Plane00" ...
    std::vector<std::wstring> keys;    // "dKey00" ... (doubles), "uiKey01" ... (unsigned), alternating
};

const SNames& Names() {
    static const SNames names = [] {
        SNames n;
        wchar_t buffer[32];
        for (int p = 0; p < kPlanes; ++p) {
            std::swprintf(buffer, 32, L"Plane%02d", p);
            n.planes.emplace_back(buffer);
        }
        for (int k = 0; k < kKeysPerPlane; ++k) {
            std::swprintf(buffer, 32, k % 2 ? L"uiKey%02d" : L"dKey%02d", k);
            n.keys.emplace_back(buffer);
        }
        return n;
    }();
    return names;
}

void WriteTree(CKvLiteVariantW& writer) {
    const SNames& n = Names();
    writer.LevelBegin(L"SKvPicturePlanes");
    for (int p = 0; p < kPlanes; ++p) {
        writer.LevelBegin(n.planes[static_cast<size_t>(p)].c_str());
        for (int k = 0; k < kKeysPerPlane; ++k) {
            const wchar_t* key = n.keys[static_cast<size_t>(k)].c_str();
            if (k % 2) writer.Set(static_cast<uint32_t>(p * k), key);
            else writer.Set(p * 0.5 + k, key);
        }
        writer.LevelEnd();
    }
    writer.LevelEnd();
}

CKvLiteVariantR EncodedTree() {
    CKvLiteVariantW writer;
    WriteTree(writer);
    CKvLiteVariantR reader;
    writer.Finalize(reader, 0);
    return reader;
}

void BM_WriteTree(benchmark::State& state) {
    for (auto _ : state) {
        CKvLiteVariantW writer;
        WriteTree(writer);
        CKvLiteVariantR out;
        writer.Finalize(out, 0);
        benchmark::DoNotOptimize(out.GetData());
    }
    state.SetItemsProcessed(state.iterations() * kItemsPerTree);
}

// Reads every value of every plane, keys in `order`.
double ReadTree(CKvLiteVariantR& reader, const std::vector<int>& order) {
    const SNames& n = Names();
    double sum = 0;
    reader.Reset();
    reader.LevelBegin(L"SKvPicturePlanes");
    for (int p = 0; p < kPlanes; ++p) {
        reader.LevelBegin(n.planes[static_cast<size_t>(p)].c_str());
        for (int k : order) {
            const wchar_t* key = n.keys[static_cast<size_t>(k)].c_str();
            sum += k % 2 ? reader.Get(key, 0u) : reader.Get(key, 0.0);
        }
        reader.LevelEnd();
        reader.NextValue();
    }
    return sum;
}

void BM_ReadTreeInWrittenOrder(benchmark::State& state) {
    CKvLiteVariantR reader = EncodedTree();
    std::vector<int> order(kKeysPerPlane);
    for (int k = 0; k < kKeysPerPlane; ++k) order[static_cast<size_t>(k)] = k;
    for (auto _ : state) benchmark::DoNotOptimize(ReadTree(reader, order));
    state.SetItemsProcessed(state.iterations() * kPlanes * kKeysPerPlane);
}

void BM_ReadTreeShuffled(benchmark::State& state) {
    CKvLiteVariantR reader = EncodedTree();
    std::vector<int> order(kKeysPerPlane);
    for (int k = 0; k < kKeysPerPlane; ++k) order[static_cast<size_t>(k)] = k;
    std::shuffle(order.begin(), order.end(), std::mt19937(7));
    for (auto _ : state) benchmark::DoNotOptimize(ReadTree(reader, order));
    state.SetItemsProcessed(state.iterations() * kPlanes * kKeysPerPlane);
}

// Look-ups of random names in one level of state.range(0) children.
void BM_LookupInLevel(benchmark::State& state) {
    const int children = static_cast<int>(state.range(0));
    std::vector<std::wstring> names(static_cast<size_t>(children));
    CKvLiteVariantW writer;
    writer.LevelBegin(L"Level");
    for (int i = 0; i < children; ++i) {
        names[static_cast<size_t>(i)] = L"item" + std::to_wstring(i * 7919 % 1000003);
        writer.Set(static_cast<int32_t>(i), names[static_cast<size_t>(i)].c_str());
    }
    writer.LevelEnd();
    CKvLiteVariantR reader;
    writer.Finalize(reader, 0);
    reader.LevelBegin(L"Level");
    std::mt19937 random(11);
    std::vector<int> order(4096);
    for (int& i : order) i = static_cast<int>(random() % static_cast<unsigned>(children));
    size_t next = 0;
    uint64_t offset = 0;
    for (auto _ : state) {
        reader.Find(names[static_cast<size_t>(order[next++ & 4095])].c_str(), offset);
        benchmark::DoNotOptimize(offset);
    }
    state.SetItemsProcessed(state.iterations());
}

// The tree decoded into a variant, written as a UTF-8 document and parsed back.
void BM_XmlRoundTrip(benchmark::State& state) {
    CKvLiteVariantR reader = EncodedTree();
    CKvVariant tree;
    tree.SetName(reader.GetCurrentName());
    reader.GetCurrentValue(tree);
    for (auto _ : state) {
        CKvStringA document;
        CKvSerializerXMLString::DocumentToXML_UTF8(document, tree);
        CKvVariant back;
        CKvSerializerXMLString::VariantFromXML_UTF8(back, document);
        benchmark::DoNotOptimize(back.GetCount());
    }
    state.SetItemsProcessed(state.iterations() * kItemsPerTree);
}

BENCHMARK(BM_WriteTree);
BENCHMARK(BM_XmlRoundTrip);
BENCHMARK(BM_ReadTreeInWrittenOrder);
BENCHMARK(BM_ReadTreeShuffled);
BENCHMARK(BM_LookupInLevel)->Arg(1000)->Arg(10000)->Arg(100000);

}  // namespace

BENCHMARK_MAIN();

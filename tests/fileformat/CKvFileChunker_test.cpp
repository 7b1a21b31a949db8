// Conformance tests of the chunk container: the bytes it lays down, reading
// them back over file and memory storage, appending, streaming, map recovery
// and damaged input.
#include "fileformat/CKvFileChunker.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "gnr_system/KvBytes.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint64_t kPage = kPageSize;

uint64_t RoundUp(uint64_t n) { return (n + kPage - 1) / kPage * kPage; }
Bytes Pattern(size_t size, uint8_t seed) {
    Bytes b(size);
    for (size_t i = 0; i < size; ++i) b[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 9));
    return b;
}
Bytes Concat(Bytes a, const Bytes& b) { a.insert(a.end(), b.begin(), b.end()); return a; }
Bytes ToBytes(const CKvByteArray& a) { return a.GetSize() ? Bytes(a.GetData(), a.GetData() + a.GetSize()) : Bytes(); }
Bytes Slice(const Bytes& b, uint64_t at, uint64_t n) { return Bytes(b.begin() + at, b.begin() + at + n); }
void Add(Bytes& b, std::string_view s) { b.insert(b.end(), s.begin(), s.end()); }
void AddU64(Bytes& b, uint64_t v) { b.resize(b.size() + 8); kvbytes::StoreU64(&b[b.size() - 8], v); }
uint64_t MapOffset(const Bytes& file) { return kvbytes::LoadU64(&file[file.size() - 8]); }
bool AllZero(const Bytes& b, uint64_t from, uint64_t to) {
    return std::all_of(b.begin() + from, b.begin() + to, [](uint8_t x) { return x == 0; });
}
Bytes Header(uint32_t nameLength, uint64_t dataLength) {
    Bytes h(kChunkHeaderSize);
    kvbytes::StoreU32(&h[0], kChunkMagic);
    kvbytes::StoreU32(&h[4], nameLength);
    kvbytes::StoreU64(&h[8], dataLength);
    return h;
}

struct Entry {
    std::string name;
    uint64_t position, size;
    bool operator==(const Entry& o) const { return name == o.name && position == o.position && size == o.size; }
};
std::ostream& operator<<(std::ostream& os, const Entry& e) { return os << e.name << '@' << e.position << '+' << e.size; }
using Entries = std::vector<Entry>;
Entries MapOf(const CKvFileChunker& c) {
    Entries v;
    for (const auto& [name, m] : c.GetChunkMap()) v.push_back({name.Std(), m.position, m.size});
    return v;
}
Entries Reversed(const Entries& v) { return Entries(v.rbegin(), v.rend()); }

// A whole map chunk as it must appear at `at`, entries in the given order.
Bytes MapChunk(const Entries& entries, uint64_t at) {
    Bytes data;
    for (const auto& e : entries) { Add(data, e.name); AddU64(data, e.position); AddU64(data, e.size); }
    Add(data, kChunkMapSignature);
    AddU64(data, at);
    uint64_t used = kChunkHeaderSize + kChunkMapChunkName.size() + data.size() + kChunkMapTrailerSize;
    data.resize(data.size() + RoundUp(used) - used);
    Add(data, kChunkMapSignature);
    AddU64(data, at);
    Bytes chunk = Header(32, data.size());
    Add(chunk, kChunkMapChunkName);
    return Concat(chunk, data);
}

enum class Kind { File, Memory };

// A container's storage: a file in a fresh temporary directory, or a byte array.
class Store {
public:
    explicit Store(Kind kind) : m_kind(kind) {
        char dir[] = "/tmp/chunker_testXXXXXX";
        if (kind == Kind::File && mkdtemp(dir)) m_dir = dir;
        m_path = m_dir + "/c.bin";
    }
    ~Store() { if (!m_dir.empty()) std::filesystem::remove_all(m_dir); }
    kv_result Open(CKvFileChunker& c, bool readOnly, bool openExisting, CKvStringA& version) {
        if (m_kind == Kind::Memory) return c.Initialize_Memory(m_buffer, readOnly, openExisting, version);
        std::wstring name(m_path.begin(), m_path.end());
        return c.Initialize_File(name.c_str(), readOnly, openExisting, version);
    }
    kv_result OpenRead(CKvFileChunker& c) { CKvStringA v; return Open(c, true, false, v); }
    kv_result OpenWrite(CKvFileChunker& c, bool openExisting) { CKvStringA v("Ver3.0"); return Open(c, false, openExisting, v); }
    Bytes Get() const {
        if (m_kind == Kind::Memory) return ToBytes(m_buffer);
        std::ifstream in(m_path, std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(in), {});
    }
    void Put(const Bytes& b) {
        if (m_kind == Kind::File) {
            std::ofstream(m_path, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), b.size());
            return;
        }
        m_buffer.SetSize(0);
        m_buffer.SetData(b.data(), b.size());
        m_buffer.SetCurrentOffset(0);
    }

private:
    Kind m_kind;
    std::string m_dir, m_path;
    CKvByteArray m_buffer;
};

template <class F>
void Build(Store& store, F body, const char* version = "Ver3.0") {
    CKvFileChunker c;
    CKvStringA v(version);
    ASSERT_EQ(store.Open(c, false, false, v), KV_OK);
    body(c);
    ASSERT_EQ(c.Finalize(), KV_OK);
}
void Put(CKvFileChunker& c, const char* name, const Bytes& d) {
    ASSERT_EQ(c.SetChunk(d.data(), static_cast<uint32_t>(d.size()), name), KV_OK) << name;
}
Bytes Read(CKvFileChunker& c, const char* name) {
    CKvByteArray d;
    EXPECT_EQ(c.GetChunk(d, name), KV_OK) << name;
    return ToBytes(d);
}

class ChunkerTest : public ::testing::TestWithParam<Kind> {
protected:
    Store store{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(Storage, ChunkerTest, ::testing::Values(Kind::File, Kind::Memory),
                         [](const auto& info) { return info.param == Kind::File ? "File" : "Memory"; });

TEST_P(ChunkerTest, EmptyContainerIsSignaturePageAndOneMapPage) {
    for (const std::string& version : {std::string("Ver3.0"), std::string(70, 'v')}) {
        Store s(GetParam());
        Build(s, [](CKvFileChunker&) {}, version.c_str());
        Bytes file = s.Get();
        ASSERT_EQ(file.size(), 2 * kPage);
        EXPECT_EQ(Slice(file, 0, 16), Header(32, 64));
        EXPECT_EQ(std::string(file.begin() + 16, file.begin() + 48), kSignatureChunkName);
        std::string kept = version.substr(0, kMaxVersionLength);
        EXPECT_EQ(std::string(file.begin() + 48, file.begin() + 48 + kept.size()), kept);
        EXPECT_TRUE(AllZero(file, 48 + kept.size(), kPage)) << version;
        EXPECT_EQ(Slice(file, kPage, kPage), MapChunk({}, kPage));

        CKvFileChunker r;
        CKvStringA read, first;
        ASSERT_EQ(s.Open(r, true, false, read), KV_OK);
        EXPECT_EQ(read.Std(), kept);
        EXPECT_TRUE(r.GetChunkMap().empty());
        EXPECT_EQ(r.GetNextChunkID(first, ""), KV_ERR_NOT_FOUND);
    }
}

// One chunk per container: header, name padding, data, page padding, then the map.
TEST_P(ChunkerTest, ChunkLayoutAndNamePadding) {
    struct Case { const char* name; size_t size1, size2; bool twoParts; uint32_t nameLength; } cases[] = {
        {"ImageDataSeq|0!", 8, 0, false, 4072},    // data ends on the page end
        {"empty!", 0, 0, false, 6},                // no data: no name padding, zeros to the page
        {"big!", 5000, 0, false, 3176},            // padding moves the data end to the second page end
        {"exact!", 4074, 0, false, 6},             // already ends on a page: no padding
        {"two!", 8, 2 * kPage + 100, true, 4072},  // the second part starts on a page
        {"two!", 8, 2 * kPage, true, 4072},
        {"two!", 0, 5000, true, 4080},             // even when the first part is empty
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.name) + " " + std::to_string(c.size1) + "+" + std::to_string(c.size2));
        Store s(GetParam());
        const Bytes d1 = Pattern(c.size1, 1), d2 = Pattern(c.size2, 2), all = Concat(d1, d2);
        Build(s, [&](CKvFileChunker& w) {
            if (!c.twoParts) return Put(w, c.name, d1);
            EXPECT_EQ(w.SetChunk(c.size1 ? d1.data() : nullptr, c.size1, d2.data(), c.size2, c.name), KV_OK);
        });
        Bytes file = s.Get();
        const std::string name = c.name;
        const uint64_t dataAt = kPage + 16 + c.nameLength, end = kPage + RoundUp(16 + c.nameLength + all.size());
        ASSERT_EQ(file.size(), end + kPage);
        EXPECT_EQ(Slice(file, kPage, 16), Header(c.nameLength, all.size()));
        EXPECT_EQ(std::string(file.begin() + kPage + 16, file.begin() + kPage + 16 + name.size()), name);
        EXPECT_TRUE(AllZero(file, kPage + 16 + name.size(), dataAt));
        EXPECT_EQ(Slice(file, dataAt, all.size()), all);
        EXPECT_TRUE(AllZero(file, dataAt + all.size(), end));
        EXPECT_EQ(Slice(file, end, kPage), MapChunk({{name, kPage, all.size()}}, end));
        CKvFileChunker r;
        ASSERT_EQ(s.OpenRead(r), KV_OK);
        EXPECT_EQ(Read(r, c.name), all);
    }
}

TEST_P(ChunkerTest, MapOrderIterationAndLookup) {
    const char* written[] = {"alpha", "zeta", "Zeta!", "a|b", "alpha2!"};
    Build(store, [&](CKvFileChunker& w) {
        for (size_t i = 0; i < 5; ++i) Put(w, written[i], Pattern(i + 1, uint8_t(i)));
    });
    Entries descending = {{"zeta!", 2 * kPage, 2}, {"a|b!", 4 * kPage, 4}, {"alpha2!", 5 * kPage, 5},
                          {"alpha!", kPage, 1}, {"Zeta!", 3 * kPage, 3}};
    Bytes file = store.Get();
    ASSERT_EQ(file.size(), 7 * kPage);
    EXPECT_EQ(MapOffset(file), 6 * kPage);
    EXPECT_EQ(Slice(file, 6 * kPage, kPage), MapChunk(descending, 6 * kPage));

    CKvFileChunker r;
    ASSERT_EQ(store.OpenRead(r), KV_OK);
    EXPECT_EQ(MapOf(r), Reversed(descending));
    CKvStringA name;
    ASSERT_EQ(r.GetNextChunkID(name, nullptr), KV_OK);
    std::vector<std::string> order{name.Std()};
    while (r.GetNextChunkID(name, order.back().c_str()) == KV_OK) order.push_back(name.Std());
    EXPECT_EQ(order, (std::vector<std::string>{"Zeta!", "alpha!", "alpha2!", "a|b!", "zeta!"}));
    EXPECT_EQ(r.GetNextChunkID(name, "nope!"), KV_ERR_NOT_FOUND);
    EXPECT_EQ(r.GetNextChunkID(name, "alpha"), KV_ERR_NOT_FOUND);

    EXPECT_EQ(Read(r, "alpha2"), Pattern(5, 4));
    EXPECT_FALSE(r.ExistChunk("alpha"));
    EXPECT_TRUE(r.ExistChunk("alpha!"));
    CKvByteArray d;
    EXPECT_EQ(r.GetChunk(d, "missing"), KV_ERR_NOT_FOUND);
}

// Maps whose entries fill one page exactly (no zero fill), or need a second page.
TEST_P(ChunkerTest, MapSizesAroundPageBounds) {
    struct Case { int count; bool longNames; uint64_t mapPages; } cases[] = {{8, true, 1}, {9, true, 2}, {150, false, 2}};
    for (const Case& c : cases) {
        Store s(GetParam());
        Entries ascending;
        Build(s, [&](CKvFileChunker& w) {
            for (int i = 0; i < c.count; ++i) {  // long names are 480 bytes: 8 entries and the fixed part fill a page
                std::string name = c.longNames ? std::string(478, 'n') + char('0' + i) : "ImageDataSeq|" + std::to_string(i);
                ascending.push_back({name + "!", kPage * (i + 1), 8});
                Put(w, name.c_str(), Pattern(8, uint8_t(i)));
            }
        });
        std::sort(ascending.begin(), ascending.end(), [](const Entry& a, const Entry& b) { return a.name < b.name; });
        Bytes file = s.Get();
        const uint64_t mapAt = kPage * (c.count + 1);
        ASSERT_EQ(file.size(), mapAt + c.mapPages * kPage) << c.count;
        EXPECT_EQ(Slice(file, mapAt, c.mapPages * kPage), MapChunk(Reversed(ascending), mapAt)) << c.count;
        CKvFileChunker r;
        ASSERT_EQ(s.OpenRead(r), KV_OK);
        EXPECT_EQ(MapOf(r), ascending);
    }
}

// Reads between writes must not move where the next chunk goes.
TEST_P(ChunkerTest, RewrittenChunkMovesItsEntry) {
    Bytes oldA = Pattern(100, 1), newA = Pattern(6000, 2), b = Pattern(10, 3);
    Build(store, [&](CKvFileChunker& w) {
        Put(w, "a", oldA);
        Put(w, "b", b);
        EXPECT_EQ(Read(w, "a"), oldA);
        Put(w, "a", newA);
        EXPECT_EQ(Read(w, "a"), newA);
    });
    Bytes file = store.Get();
    CKvFileChunker r;
    ASSERT_EQ(store.OpenRead(r), KV_OK);
    EXPECT_EQ(MapOf(r), (Entries{{"a!", 3 * kPage, 6000}, {"b!", 2 * kPage, 10}}));
    EXPECT_EQ(Read(r, "a"), newA);
    EXPECT_EQ(Read(r, "b"), b);
    EXPECT_EQ(Slice(file, 2 * kPage - 100, 100), oldA);  // the old copy stays as dead space
    EXPECT_EQ(MapOffset(file), 5 * kPage);
}

TEST_P(ChunkerTest, GetChunkPart) {
    Bytes data = Pattern(10000, 9);
    Build(store, [&](CKvFileChunker& w) { Put(w, "part", data); });
    CKvFileChunker r;
    ASSERT_EQ(store.OpenRead(r), KV_OK);
    struct Case { uint64_t offset; uint32_t size; bool ok; } cases[] = {{0, 16, true}, {4090, 20, true},
        {9990, 10, true}, {9991, 10, false}, {10000, 1, false}, {uint64_t(1) << 40, 1, false}};
    const Bytes keep = {'k', 'e', 'e', 'p'};
    SKvChunkHeader header;
    for (const Case& c : cases) {
        SKvChunkHeader h;
        CKvByteArray out(keep.data(), keep.size());
        kv_result res = r.GetChunkPart(h, out, c.offset, c.size, "part");
        EXPECT_EQ(res, c.ok ? KV_OK : KV_ERR_FAILED) << c.offset;
        EXPECT_EQ(ToBytes(out), c.ok ? Slice(data, c.offset, c.size) : keep) << c.offset;
        if (c.ok) header = h;
    }
    EXPECT_EQ(header.magic, kChunkMagic);
    EXPECT_EQ(header.nameLength, 3 * kPage - 16 - 10000);
    EXPECT_EQ(header.dataLength, 10000u);
    // A vouched header is trusted as given: its lengths place and bound the data.
    CKvByteArray out;
    SKvChunkHeader shifted = header;
    shifted.nameLength -= 4;
    ASSERT_EQ(r.GetChunkPart(shifted, out, 4, 8, "part!"), KV_OK);
    EXPECT_EQ(ToBytes(out), Slice(data, 0, 8));
    shifted = header;
    shifted.dataLength = 100;
    EXPECT_EQ(r.GetChunkPart(shifted, out, 95, 10, "part"), KV_ERR_FAILED);
    EXPECT_EQ(r.GetChunkPart(header, out, 0, 1, "nope"), KV_ERR_NOT_FOUND);
}

TEST_P(ChunkerTest, StreamedChunkReadsBackAsConcatenation) {
    const size_t pieces[] = {1, 4095, 3, 5000, 4097, 77, 12};
    uint64_t rest = 0;
    for (size_t p : pieces) rest += p;
    Bytes head = Pattern(8, 100), all = head, after = Pattern(30, 5);
    Build(store, [&](CKvFileChunker& w) {
        for (size_t i = 0; i < std::size(pieces); ++i) {
            Bytes piece = Pattern(pieces[i], uint8_t(i * 31 + 1));
            all = Concat(all, piece);
            EXPECT_EQ(w.SetChunkPart(i ? nullptr : head.data(), i ? 0 : 8, piece.data(), uint32_t(piece.size()), rest,
                                     i + 1 == std::size(pieces), "stream"), KV_OK) << i;
        }
        Put(w, "after", after);
    });
    Bytes file = store.Get();
    EXPECT_EQ(Slice(file, kPage, 16), Header(4072, 8 + rest));
    EXPECT_EQ(Slice(file, 2 * kPage, 1), Pattern(1, 1));  // streamed data starts on a page
    CKvFileChunker r;
    ASSERT_EQ(store.OpenRead(r), KV_OK);
    EXPECT_EQ(MapOf(r), (Entries{{"after!", 2 * kPage + RoundUp(rest), 30}, {"stream!", kPage, 8 + rest}}));
    EXPECT_EQ(Read(r, "stream"), all);
    EXPECT_EQ(Read(r, "after"), after);
}

TEST_P(ChunkerTest, AppendingKeepsOldChunksAndLeavesOldMapAsDeadSpace) {
    Bytes a = Pattern(20, 1), b = Pattern(5000, 2), c = Pattern(300, 3);
    Build(store, [&](CKvFileChunker& w) { Put(w, "a", a); Put(w, "b", b); });
    const Bytes before = store.Get();
    const uint64_t s = before.size();
    CKvFileChunker w;
    ASSERT_EQ(store.OpenWrite(w, true), KV_OK);
    EXPECT_EQ(MapOf(w).size(), 2u);
    Put(w, "c", c);
    EXPECT_EQ(Read(w, "a"), a);
    Put(w, "b", b);
    ASSERT_EQ(w.Finalize(), KV_OK);
    Bytes file = store.Get();
    EXPECT_EQ(Slice(file, 0, s), before);
    EXPECT_EQ(MapOffset(file), s + 3 * kPage);
    CKvFileChunker r;
    ASSERT_EQ(store.OpenRead(r), KV_OK);
    EXPECT_EQ(MapOf(r), (Entries{{"a!", kPage, 20}, {"b!", s + kPage, 5000}, {"c!", s, 300}}));
    EXPECT_EQ(Read(r, "a"), a);
    EXPECT_EQ(Read(r, "b"), b);
    EXPECT_EQ(Read(r, "c"), c);
}

// Appending to storage without a container, or to a container that lost its
// map: refused, and the storage is left as it was (Finalize included).
TEST_P(ChunkerTest, OpenExistingDecidesByContent) {
    Build(store, [](CKvFileChunker& w) { Put(w, "a", Pattern(10, 1)); });
    const Bytes good = store.Get();
    Bytes wrongNameLength = good;
    wrongNameLength[4] = 33;
    struct Case { Bytes content; kv_result result; } cases[] = {{Slice(good, 0, 2 * kPage), KV_ERR_NOT_FOUND},
        {Bytes(5000, 't'), KV_ERR_FAILED}, {wrongNameLength, KV_ERR_FAILED}, {Slice(good, 0, 50), KV_ERR_FAILED}};
    for (const Case& c : cases) {
        store.Put(c.content);
        CKvFileChunker r, w;
        EXPECT_EQ(store.OpenRead(r), c.result) << c.content.size();
        EXPECT_EQ(r.IsChunkMapMissing(), c.result == KV_ERR_NOT_FOUND);
        EXPECT_EQ(store.OpenWrite(w, true), c.result) << c.content.size();
        EXPECT_EQ(w.IsChunkMapMissing(), c.result == KV_ERR_NOT_FOUND);
        kv_result put = w.SetChunk("x", 1, "b");
        EXPECT_TRUE(c.result == KV_ERR_NOT_FOUND ? put == KV_ERR_NOT_FOUND : put != KV_OK) << put;
        w.Finalize();
        EXPECT_EQ(store.Get(), c.content) << c.content.size();
    }
    store.Put({});  // empty storage: a new container
    CKvFileChunker w, r;
    ASSERT_EQ(store.OpenWrite(w, true), KV_OK);
    Put(w, "x", Pattern(5, 5));
    ASSERT_EQ(w.Finalize(), KV_OK);
    ASSERT_EQ(store.OpenRead(r), KV_OK);
    EXPECT_EQ(Read(r, "x"), Pattern(5, 5));
    EXPECT_EQ(store.Get().size(), 3 * kPage);
}

TEST_P(ChunkerTest, ResynchronisesPastGarbageBeforeAChunk) {
    for (uint64_t junk : {uint64_t(200), kPage - 2, kPage + 37}) {  // in the first block, across its end, later
        Store s(GetParam());
        Build(s, [](CKvFileChunker& w) {
            Put(w, "a", Pattern(8, 1));
            Put(w, "b", Pattern(10000, 2));  // pages 2 to 4, replaced below
            Put(w, "c", Pattern(8, 3));
        });
        Bytes file = s.Get(), region = Concat(Bytes(junk, 0x55), Header(2, 5));
        Add(region, "b!hello");
        region.resize(3 * kPage);
        std::copy(region.begin(), region.end(), file.begin() + 2 * kPage);
        s.Put(file);
        CKvFileChunker r;
        ASSERT_EQ(s.OpenRead(r), KV_OK);
        EXPECT_EQ(Read(r, "b"), (Bytes{'h', 'e', 'l', 'l', 'o'})) << junk;
        EXPECT_EQ(Read(r, "c"), Pattern(8, 3));
    }
}

// Logs what CreateMissingChunkMap reports; answers the add calls from `adds`.
struct Recorder {
    std::vector<std::string> seen, asked;
    std::vector<double> fractions;
    std::vector<int> adds;
    bool cancel = false;
    static int OnChunk(SKvChunkHeader&, CKvStringA& name, CKvByteArray& data, void* user) {
        auto* self = static_cast<Recorder*>(user);
        if (!name.StartsWith("##ADD_NEW_CHUNKS##")) {
            self->seen.push_back(name.Std());
            return KV_OK;
        }
        size_t turn = self->asked.size();
        self->asked.push_back(name.Std());
        name = ("added" + std::to_string(turn) + "!").c_str();
        data.SetData("xyz", 3);
        return turn < self->adds.size() ? self->adds[turn] : KV_ERR_CANCELLED;
    }
    static bool OnProgress(double f, void* user) {
        static_cast<Recorder*>(user)->fractions.push_back(f);
        return static_cast<Recorder*>(user)->cancel;
    }
};

// Chunks on page 1 (empty), 2 (overwritten with junk), 3-5 (two parts), 6; the map on 7.
void BuildForRecovery(Store& s) {
    Build(s, [](CKvFileChunker& w) {
        Put(w, "e", {});
        Put(w, "junk", Pattern(8, 0));
        Bytes d1 = Pattern(8, 1), d2 = Pattern(5000, 2);
        EXPECT_EQ(w.SetChunk(d1.data(), 8, d2.data(), 5000, "two"), KV_OK);
        Put(w, "a", Pattern(100, 3));
    });
    Bytes file = s.Get();
    std::fill(file.begin() + 2 * kPage, file.begin() + 3 * kPage, 0x55);
    s.Put(file);
}

TEST_P(ChunkerTest, RecoversMissingMapAfterCut) {
    // In file order; sizes count header, name field and data.
    Entries all = {{std::string(kSignatureChunkName), 0, 112}, {"e!", kPage, 18}, {"two!", 3 * kPage, 9096},
                   {"a!", 6 * kPage, kPage}};
    struct Case { uint64_t cut; Entries found; uint64_t mapAt; } cases[] = {{7 * kPage, all, 7 * kPage},
        {7 * kPage + 100, all, 7 * kPage}, {6 * kPage + 2000, Entries(all.begin(), all.end() - 1), 6 * kPage}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.cut);
        Store s(GetParam());
        BuildForRecovery(s);
        s.Put(Slice(s.Get(), 0, c.cut));
        CKvFileChunker r;
        ASSERT_EQ(s.OpenRead(r), KV_ERR_NOT_FOUND);
        EXPECT_TRUE(r.IsChunkMapMissing());
        Recorder rec;
        ASSERT_EQ(r.CreateMissingChunkMap(Recorder::OnChunk, &rec, Recorder::OnProgress), KV_OK);
        EXPECT_FALSE(r.IsChunkMapMissing());
        std::vector<std::string> names;
        for (const Entry& e : c.found) names.push_back(e.name);
        EXPECT_EQ(rec.seen, names);
        EXPECT_EQ(rec.asked, std::vector<std::string>{"##ADD_NEW_CHUNKS##0"});
        ASSERT_FALSE(rec.fractions.empty());
        for (double f : rec.fractions) EXPECT_TRUE(f >= 0.0 && f <= 1.0) << f;
        EXPECT_EQ(rec.fractions.back(), 1.0);

        Entries ascending = c.found;
        std::sort(ascending.begin(), ascending.end(), [](const Entry& a, const Entry& b) { return a.name < b.name; });
        Bytes file = s.Get();
        ASSERT_EQ(file.size(), c.mapAt + kPage);
        EXPECT_EQ(Slice(file, c.mapAt, kPage), MapChunk(Reversed(ascending), c.mapAt));
        CKvFileChunker again;
        ASSERT_EQ(s.OpenRead(again), KV_OK);
        EXPECT_EQ(MapOf(again), ascending);
        EXPECT_EQ(Read(again, "two"), Concat(Pattern(8, 1), Pattern(5000, 2)));
    }
}

TEST_P(ChunkerTest, RecoveryCanBeCancelledAndCanAddChunks) {
    BuildForRecovery(store);
    const Bytes cut = Slice(store.Get(), 0, 7 * kPage);
    store.Put(cut);
    CKvFileChunker cancelled, r, again;
    ASSERT_EQ(store.OpenRead(cancelled), KV_ERR_NOT_FOUND);
    Recorder stop;
    stop.cancel = true;
    EXPECT_EQ(cancelled.CreateMissingChunkMap(nullptr, &stop, Recorder::OnProgress), KV_ERR_CANCELLED);
    EXPECT_EQ(store.Get(), cut);

    ASSERT_EQ(store.OpenRead(r), KV_ERR_NOT_FOUND);
    Recorder rec;
    rec.adds = {KV_OK, KV_ERR_NOT_SUPPORTED, KV_OK, KV_ERR_CANCELLED};
    ASSERT_EQ(r.CreateMissingChunkMap(Recorder::OnChunk, &rec, nullptr), KV_OK);
    EXPECT_EQ(rec.asked, (std::vector<std::string>{"##ADD_NEW_CHUNKS##0", "##ADD_NEW_CHUNKS##1",
                                                   "##ADD_NEW_CHUNKS##2", "##ADD_NEW_CHUNKS##3"}));
    ASSERT_EQ(store.OpenRead(again), KV_OK);
    EXPECT_EQ(Read(again, "added0"), (Bytes{'x', 'y', 'z'}));
    EXPECT_EQ(Read(again, "added2"), (Bytes{'x', 'y', 'z'}));
    EXPECT_FALSE(again.ExistChunk("added1!"));
    EXPECT_EQ(again.GetChunkMap().at(CKvStringA("added0!")).position, 7 * kPage);
}

TEST_P(ChunkerTest, ReserveGrowsStorageAndKeepsPosition) {
    CKvFileChunker w, r;
    ASSERT_EQ(store.OpenWrite(w, false), KV_OK);
    Put(w, "a", Pattern(8, 1));
    ASSERT_EQ(w.Reserve(10 * kPage), KV_OK);
    ASSERT_EQ(w.Reserve(kPage), KV_OK);
    uint64_t size = 0;
    ASSERT_EQ(w.Storage().GetSize(&size), KV_OK);
    EXPECT_EQ(size, 10 * kPage);
    Put(w, "b", Pattern(8, 2));
    ASSERT_EQ(w.Finalize(), KV_OK);
    EXPECT_EQ(store.Get().size(), 4 * kPage);
    ASSERT_EQ(store.OpenRead(r), KV_OK);
    EXPECT_EQ(MapOf(r), (Entries{{"a!", kPage, 8}, {"b!", 2 * kPage, 8}}));
}

TEST_P(ChunkerTest, SetMapChunkCopiesAnotherMap) {
    Build(store, [](CKvFileChunker& w) { Put(w, "a", Pattern(8, 1)); Put(w, "b", Pattern(9, 2)); });
    CKvFileChunker source;
    ASSERT_EQ(store.OpenRead(source), KV_OK);
    Store other(GetParam());
    Build(other, [&](CKvFileChunker& w) {
        EXPECT_EQ(w.SetMapChunk(nullptr), KV_ERR_INVALID_ARG);
        EXPECT_EQ(w.SetMapChunk(&source), KV_OK);
    });
    EXPECT_EQ(Slice(other.Get(), kPage, kPage), MapChunk(Reversed(MapOf(source)), kPage));
}

TEST_P(ChunkerTest, RefusesMalformedNames) {
    const std::string longest(kMaxChunkNameLength, 'n');
    struct Case { std::string name; kv_result expected; } cases[] = {{"a!b", KV_ERR_INVALID_ARG},
        {"a!b!", KV_ERR_INVALID_ARG}, {"!x", KV_ERR_INVALID_ARG}, {longest + "n", KV_ERR_INVALID_ARG},
        {longest + "n!", KV_ERR_INVALID_ARG}, {longest, KV_OK}, {longest + "!", KV_OK}};
    Build(store, [&](CKvFileChunker& w) {
        for (const Case& c : cases) EXPECT_EQ(w.SetChunk("d", 1, c.name.c_str()), c.expected) << c.name;
    });
    CKvFileChunker r;
    ASSERT_EQ(store.OpenRead(r), KV_OK);  // the longest name must also be readable
    EXPECT_EQ(MapOf(r), (Entries{{longest + "!", 2 * kPage, 1}}));
}

// One 64-bit field patched in a finished file: a chunk's data length, a map
// entry's position, the trailer's map offset.
TEST_P(ChunkerTest, DamagedLengthsAndOffsets) {
    Build(store, [](CKvFileChunker& w) { Put(w, "a", Pattern(8, 1)); Put(w, "b", Pattern(8, 2)); });
    const Bytes good = store.Get();
    const uint64_t size = good.size(), lengthA = kPage + 8, entryA = 3 * kPage + 48 + 18 + 2, trailer = size - 8;
    ASSERT_EQ(kvbytes::LoadU64(&good[entryA]), kPage);  // "b!" comes first in the map, then "a!"
    struct Case { uint64_t at, value; kv_result open; } cases[] = {
        {lengthA, uint64_t(1) << 40, KV_OK}, {lengthA, 0x7FFFFFF0, KV_OK}, {lengthA, size, KV_OK},
        {entryA, uint64_t(1) << 40, KV_OK}, {entryA, size + kPage, KV_OK}, {entryA, size - 8, KV_OK},
        {trailer, 0, KV_ERR_NOT_FOUND}, {trailer, size, KV_ERR_NOT_FOUND}, {trailer, uint64_t(1) << 50, KV_ERR_NOT_FOUND}};
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.at << " := " << c.value);
        Bytes file = good;
        kvbytes::StoreU64(&file[c.at], c.value);
        store.Put(file);
        CKvFileChunker r;
        ASSERT_EQ(store.OpenRead(r), c.open);
        EXPECT_EQ(r.IsChunkMapMissing(), c.open != KV_OK);
        if (c.open != KV_OK) continue;
        CKvByteArray out(Bytes{'k'}.data(), 1);
        EXPECT_EQ(r.GetChunk(out, "a"), KV_ERR_FAILED);
        if (c.value > size) {  // refused before reading: nothing allocated, nothing changed
            EXPECT_EQ(ToBytes(out), Bytes{'k'});
            EXPECT_LT(out.GetAllocated(), 1u << 20);
        }
        SKvChunkHeader h;
        if (c.at == entryA) {
            EXPECT_EQ(r.GetChunkPart(h, out, 0, 1, "a"), KV_ERR_FAILED);
        }
        EXPECT_EQ(Read(r, "b"), Pattern(8, 2));
    }
}

TEST_P(ChunkerTest, TruncatedMapEntryKeepsEntriesBeforeIt) {
    Build(store, [](CKvFileChunker& w) { for (const char* n : {"a", "b", "c"}) Put(w, n, Pattern(8, 1)); });
    const Bytes chunks = Slice(store.Get(), 0, 4 * kPage);
    for (std::string_view tail : {std::string_view("a!\1\2\3\4\5", 7), std::string_view("aaaa")}) {
        Bytes data;
        for (auto [name, at] : {std::pair{"c!", 3 * kPage}, std::pair{"b!", 2 * kPage}}) {
            Add(data, name);
            AddU64(data, at);
            AddU64(data, 8);
        }
        Add(data, tail);
        Bytes map = Header(32, data.size());
        Add(map, kChunkMapChunkName);
        map = Concat(map, data);
        map.resize(kPage - kChunkMapTrailerSize);
        Add(map, kChunkMapSignature);
        AddU64(map, 4 * kPage);
        store.Put(Concat(chunks, map));
        CKvFileChunker r;
        EXPECT_NE(store.OpenRead(r), KV_OK);
        EXPECT_EQ(MapOf(r), (Entries{{"b!", 2 * kPage, 8}, {"c!", 3 * kPage, 8}})) << tail;
    }
}

// A map write that fails (the file may not grow past the chunks) is reported
// by Finalize. The stream is unbuffered so that the failure shows in the write
// itself rather than in a later flush.
TEST(ChunkerFileTest, FinalizeReportsFailedMapWrite) {
    Store s(Kind::File);
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    auto oldHandler = signal(SIGXFSZ, SIG_IGN);
    rlimit limited = old;
    limited.rlim_cur = 9 * kPage;
    kv_result opened = KV_ERR_FAILED, put = KV_OK, finalized = KV_OK;
    if (setrlimit(RLIMIT_FSIZE, &limited) == 0) {  // nothing may be printed until the limit is lifted
        CKvFileChunker w;
        opened = s.OpenWrite(w, false);
        if (w.Storage().Stream()) setvbuf(w.Storage().Stream(), nullptr, _IONBF, 0);
        for (int i = 0; i < 8; ++i) put |= w.SetChunk("12345678", 8, ("chunk" + std::to_string(i)).c_str());
        finalized = w.Finalize();
        setrlimit(RLIMIT_FSIZE, &old);
    }
    signal(SIGXFSZ, oldHandler);
    EXPECT_EQ(opened, KV_OK);
    EXPECT_EQ(put, KV_OK);
    EXPECT_EQ(finalized, KV_ERR_FAILED);
}

}  // namespace

// Conformance tests of the chunk container: the bytes it lays down, reading
// them back, appending, streaming, map recovery and damaged input.
#include "fileformat/CKvFileChunker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "gnr_system/KvBytes.h"
#include "tests/TestSupport.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint64_t kPage = kPageSize;

uint64_t RoundUp(uint64_t n) { return (n + kPage - 1) / kPage * kPage; }
Bytes Pattern(size_t size, uint8_t seed) {
    Bytes b(size);
    for (size_t i = 0; i < size; ++i) b[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 9));
    return b;
}
void Append(Bytes& b, const Bytes& x) { b.insert(b.end(), x.begin(), x.end()); }
void Append(Bytes& b, std::string_view s) { b.insert(b.end(), s.begin(), s.end()); }
template <class... T>
Bytes Join(const T&... parts) { Bytes b; (Append(b, parts), ...); return b; }
Bytes U32(uint32_t v) { Bytes b(4); kvbytes::StoreU32(b.data(), v); return b; }
Bytes U64(uint64_t v) { Bytes b(8); kvbytes::StoreU64(b.data(), v); return b; }
Bytes Header(uint32_t nameLength, uint64_t dataLength) { return Join(U32(kChunkMagic), U32(nameLength), U64(dataLength)); }
Bytes ToBytes(const CKvByteArray& a) { return a.GetSize() ? Bytes(a.GetData(), a.GetData() + a.GetSize()) : Bytes(); }
Bytes Slice(const Bytes& b, uint64_t at, uint64_t n) { return Bytes(b.begin() + at, b.begin() + at + n); }
Bytes Tail(const Bytes& b, uint64_t at) { return at <= b.size() ? Bytes(b.begin() + at, b.end()) : Bytes{'?'}; }

using Entry = std::tuple<std::string, uint64_t, uint64_t>;  // name, position, size
using Entries = std::vector<Entry>;
Entries MapOf(const CKvFileChunker& c) {
    Entries v;
    for (const auto& [name, m] : c.GetChunkMap()) v.emplace_back(std::string(name), m.position, m.size);
    return v;
}

// A whole map chunk as it must appear at `at`, its entries in descending name order.
Bytes MapChunk(Entries entries, uint64_t at) {
    std::sort(entries.rbegin(), entries.rend());
    Bytes data;
    for (const auto& [name, position, size] : entries) data = Join(data, name, U64(position), U64(size));
    data = Join(data, kChunkMapSignature, U64(at));
    const uint64_t used = kChunkHeaderSize + kChunkMapChunkName.size() + data.size() + kChunkMapTrailerSize;
    data = Join(data, Bytes(RoundUp(used) - used), kChunkMapSignature, U64(at));
    return Join(Header(32, data.size()), kChunkMapChunkName, data);
}

enum class Kind { File, Memory };

// A container's storage: a file in a fresh temporary directory, or a byte array.
struct Store {
    explicit Store(Kind kind) : m_kind(kind) {
        if (kind == Kind::File) m_tmp = std::make_unique<CTestTempDir>();
        m_path = kind == Kind::File ? m_tmp->File("c.bin") : "/c.bin";
    }
    kv_result Open(CKvFileChunker& c, bool readOnly, bool openExisting, CKvStringA& version) {
        if (m_kind == Kind::Memory) return c.Initialize_Memory(m_buffer, readOnly, openExisting, version);
        const std::wstring name(m_path.begin(), m_path.end());
        return c.Initialize_File(name.c_str(), readOnly, openExisting, version);
    }
    kv_result OpenRead(CKvFileChunker& c) { CKvStringA v; return Open(c, true, false, v); }
    kv_result OpenWrite(CKvFileChunker& c, bool openExisting) { CKvStringA v("Ver3.0"); return Open(c, false, openExisting, v); }
    // A chunker that opened the storage read-only, as it must.
    std::unique_ptr<CKvFileChunker> Reader() {
        auto r = std::make_unique<CKvFileChunker>();
        EXPECT_EQ(OpenRead(*r), KV_OK);
        return r;
    }
    Bytes Get() const {
        if (m_kind == Kind::Memory) return ToBytes(m_buffer);
        const std::string content = ReadWholeFile(m_path);
        return Bytes(content.begin(), content.end());
    }
    void Put(const Bytes& b) {
        if (m_kind == Kind::Memory) m_buffer = CKvByteArray(b.data(), b.size());
        else std::ofstream(m_path, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), b.size());
    }

    Kind m_kind;
    std::unique_ptr<CTestTempDir> m_tmp;
    std::string m_path;
    CKvByteArray m_buffer;
};

// Writes a container (or appends to one) and finishes it.
template <class F>
void Build(Store& store, F body, const char* version = "Ver3.0", bool append = false) {
    CKvFileChunker c;
    CKvStringA v(version);
    ASSERT_EQ(store.Open(c, false, append, v), KV_OK);
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

// Round trips, appending and recovery run over both storages; layout and
// damage checks over one.
class ChunkerTest : public ::testing::TestWithParam<Kind> {
protected:
    Store store{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(Storage, ChunkerTest, ::testing::Values(Kind::File, Kind::Memory),
                         [](const auto& info) { return info.param == Kind::File ? "File" : "Memory"; });

// The signature page, then maps without entries, with entries that fill one
// page exactly with the fixed part (eight of 480 bytes), and with one more.
TEST(ChunkerLayout, SignaturePageAndMapSizes) {
    for (int count : {0, 8, 9}) {
        const std::string version = count ? "Ver3.0" : std::string(70, 'v'), kept = version.substr(0, kMaxVersionLength);
        Store s(Kind::Memory);
        Entries entries;
        Build(s, [&](CKvFileChunker& w) {
            for (int i = 0; i < count; ++i) {
                const std::string name = std::string(478, 'n') + char('0' + i);
                entries.emplace_back(name + "!", kPage * (i + 1), 8);
                Put(w, name.c_str(), Pattern(8, uint8_t(i)));
            }
        }, version.c_str());
        Bytes signature = Join(Header(32, 64), kSignatureChunkName, kept);
        signature.resize(kPage);
        const Bytes file = s.Get();
        const uint64_t mapAt = kPage * (count + 1);
        ASSERT_EQ(file.size(), mapAt + (count == 9 ? 2 : 1) * kPage);
        EXPECT_EQ(Slice(file, 0, kPage), signature);
        EXPECT_EQ(Tail(file, mapAt), MapChunk(entries, mapAt));
        CKvFileChunker r;
        CKvStringA read;
        ASSERT_EQ(s.Open(r, true, false, read), KV_OK);
        EXPECT_EQ(read.Std(), kept);
        EXPECT_EQ(MapOf(r), entries);
    }
}

// One chunk per container: header, name padding, data, page padding, then the map.
TEST(ChunkerLayout, ChunkLayoutAndNamePadding) {
    struct Case { const char* name; size_t size1, size2; uint32_t nameLength; } cases[] = {
        {"ImageDataSeq|0!", 8, 0, 4072},    // data ends on the page end
        {"empty!", 0, 0, 6},                // no data: no name padding, zeros to the page
        {"big!", 5000, 0, 3176},            // padding moves the data end to the second page end
        {"exact!", 4074, 0, 6},             // already ends on a page: no padding
        {"two!", 8, 2 * kPage + 100, 4072}, // two parts: the second starts on a page
        {"two!", 0, 5000, 4080},            // even when the first part is empty
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.name) + " " + std::to_string(c.size1) + "+" + std::to_string(c.size2));
        Store s(Kind::Memory);
        const Bytes d1 = Pattern(c.size1, 1), d2 = Pattern(c.size2, 2), all = Join(d1, d2);
        Build(s, [&](CKvFileChunker& w) {
            if (!c.size2) return Put(w, c.name, d1);
            EXPECT_EQ(w.SetChunk(c.size1 ? d1.data() : nullptr, c.size1, d2.data(), c.size2, c.name), KV_OK);
        });
        const std::string name = c.name;
        Bytes chunk = Join(Header(c.nameLength, all.size()), name, Bytes(c.nameLength - name.size()), all);
        chunk.resize(RoundUp(chunk.size()));
        EXPECT_EQ(Tail(s.Get(), kPage), Join(chunk, MapChunk({{name, kPage, all.size()}}, kPage + chunk.size())));
        EXPECT_EQ(Read(*s.Reader(), c.name), all);
    }
}

// The map is written in descending byte order of the names (upper case
// first) and walked in ascending order; names are looked up as stored.
TEST(ChunkerLayout, MapOrderAndWalk) {
    Store store(Kind::Memory);
    const char* written[] = {"alpha", "zeta", "Zeta!", "alpha2!"};
    Build(store, [&](CKvFileChunker& w) { for (size_t i = 0; i < 4; ++i) Put(w, written[i], Pattern(i + 1, uint8_t(i))); });
    const Entries ascending = {{"Zeta!", 3 * kPage, 3}, {"alpha!", kPage, 1}, {"alpha2!", 4 * kPage, 4},
                               {"zeta!", 2 * kPage, 2}};
    EXPECT_EQ(Tail(store.Get(), 5 * kPage), MapChunk(ascending, 5 * kPage));
    auto r = store.Reader();
    EXPECT_EQ(MapOf(*r), ascending);
    CKvStringA name;
    EXPECT_TRUE(r->GetNextChunkID(name, nullptr) == KV_OK && name == "Zeta!");
    EXPECT_TRUE(r->GetNextChunkID(name, "alpha!") == KV_OK && name == "alpha2!");
    EXPECT_EQ(r->GetNextChunkID(name, "zeta!"), KV_ERR_NOT_FOUND);
    EXPECT_EQ(r->GetNextChunkID(name, "alpha"), KV_ERR_NOT_FOUND);  // no "!" is appended here
    EXPECT_TRUE(r->ExistChunk("alpha!") && !r->ExistChunk("alpha"));
    // Another chunker's map, handed to a new container, is written as its own.
    Store other(Kind::Memory);
    Build(other, [&](CKvFileChunker& w) { EXPECT_EQ(w.SetMapChunk(r.get()), KV_OK); });
    EXPECT_EQ(Tail(other.Get(), kPage), MapChunk(ascending, kPage));
}

// A chunk streamed in uneven pieces and left open (the next streamed chunk ends
// it), a chunk rewritten, and reads and a reserve between writes, none of
// which may move where the next chunk goes.
TEST_P(ChunkerTest, StreamingRewritingAndReadingBetweenWrites) {
    const size_t pieces[] = {1, 4094, 1, 5000, 3, 4097, 77, 12};  // one short of a page, then to its end
    const uint64_t rest = 13285;  // their sum
    const Bytes oldA = Pattern(100, 1), newA = Pattern(6000, 2), head = Pattern(8, 100);
    Bytes streamed = head;
    store.Put(Bytes(30 * kPage, 0x55));  // a new container replaces it all, reserved space reads as zeros
    Build(store, [&](CKvFileChunker& w) {
        Put(w, "a", oldA);
        ASSERT_EQ(w.Reserve(20 * kPage), KV_OK);
        ASSERT_EQ(w.Reserve(kPage), KV_OK);  // never shrinks
        EXPECT_EQ(Tail(store.Get(), 2 * kPage), Bytes(18 * kPage));
        for (size_t i = 0; i < std::size(pieces); ++i) {
            const Bytes piece = Pattern(pieces[i], uint8_t(i * 31 + 1));
            streamed = Join(streamed, piece);
            EXPECT_EQ(w.SetChunkPart(i ? nullptr : head.data(), i ? 0 : 8, piece.data(), uint32_t(piece.size()), rest,
                                     false, "stream"), KV_OK) << i;
            if (i == 3) { EXPECT_EQ(Read(w, "a"), oldA); }
        }
        EXPECT_EQ(w.SetChunkPart(nullptr, 0, newA.data(), 6000, 6000, true, "a"), KV_OK);
        EXPECT_EQ(Read(w, "a"), newA);
    });
    const Bytes file = store.Get();
    EXPECT_EQ(Slice(file, 2 * kPage - 100, 100), oldA);  // the old copy stays as dead space
    EXPECT_EQ(Slice(file, 2 * kPage, 16), Header(4072, 8 + rest));
    const Entries entries = {{"a!", 7 * kPage, 6000}, {"stream!", 2 * kPage, 8 + rest}};
    EXPECT_EQ(Tail(file, 10 * kPage), MapChunk(entries, 10 * kPage));  // the map write cuts the reserve
    auto r = store.Reader();
    EXPECT_EQ(Read(*r, "stream"), streamed);
    EXPECT_EQ(Read(*r, "a"), newA);

    // Parts are checked against the data length before the output is touched.
    const uint64_t end = streamed.size();
    for (auto [offset, size, ok] : {std::tuple<uint64_t, uint32_t, bool>{4090, 20, true}, {end - 10, 10, true},
                                    {end - 9, 10, false}, {uint64_t(1) << 40, 1, false}}) {
        SKvChunkHeader h;
        CKvByteArray out("keep", 4);
        EXPECT_EQ(r->GetChunkPart(h, out, offset, size, "stream"), ok ? KV_OK : KV_ERR_FAILED) << offset;
        EXPECT_EQ(ToBytes(out), ok ? Slice(streamed, offset, size) : Join("keep")) << offset;
        // Straight into a caller's buffer: the same bytes, or the buffer untouched.
        std::vector<uint8_t> direct(size ? size : 1, 0xAB);
        SKvChunkHeader h2;
        EXPECT_EQ(r->ReadChunkPart(h2, direct.data(), offset, size, "stream"), ok ? KV_OK : KV_ERR_FAILED);
        if (ok) {
            EXPECT_EQ(Bytes(direct.begin(), direct.end()), Slice(streamed, offset, size));
        }
        else EXPECT_EQ(direct, std::vector<uint8_t>(direct.size(), 0xAB));
    }
    // A vouched header (non-zero magic) is trusted as given: its lengths place and bound the data.
    CKvByteArray out;
    SKvChunkHeader vouched{kChunkMagic, 4072 - 4, 100};
    ASSERT_EQ(r->GetChunkPart(vouched, out, 4, 8, "stream!"), KV_OK);
    EXPECT_EQ(ToBytes(out), Slice(streamed, 0, 8));
    EXPECT_EQ(r->GetChunkPart(vouched, out, 95, 10, "stream"), KV_ERR_FAILED);
    EXPECT_EQ(r->GetChunkPart(vouched, out, 0, 1, "nope"), KV_ERR_NOT_FOUND);
}

// Appending keeps every old byte and leaves the old map as dead space. Storage
// without a container, or a container that lost its map, is refused and left
// as it was (Finalize included); empty storage starts a new container.
TEST_P(ChunkerTest, AppendingOrRefusingToAppend) {
    const Bytes a = Pattern(20, 1), b = Pattern(5000, 2), c = Pattern(300, 3);
    Build(store, [&](CKvFileChunker& w) { Put(w, "a", a); Put(w, "b", b); });
    const Bytes good = store.Get();
    const uint64_t s = good.size();
    Bytes wrongNameLength = good;
    wrongNameLength[4] = 33;
    struct Case { Bytes content; kv_result result; } cases[] = {{Slice(good, 0, 2 * kPage), KV_ERR_NOT_FOUND},
        {Bytes(5000, 't'), KV_ERR_FAILED}, {wrongNameLength, KV_ERR_FAILED}, {Slice(good, 0, 50), KV_ERR_FAILED}};
    for (const Case& k : cases) {
        SCOPED_TRACE(k.content.size());
        store.Put(k.content);
        CKvFileChunker r, w;
        EXPECT_EQ(store.OpenRead(r), k.result);
        EXPECT_EQ(store.OpenWrite(w, true), k.result);
        EXPECT_EQ(w.IsChunkMapMissing(), k.result == KV_ERR_NOT_FOUND);
        const kv_result put = w.SetChunk("x", 1, "b");
        EXPECT_TRUE(k.result == KV_ERR_NOT_FOUND ? put == KV_ERR_NOT_FOUND : put != KV_OK) << put;
        w.Finalize();
        EXPECT_EQ(store.Get(), k.content);
    }
    store.Put({});
    Build(store, [](CKvFileChunker& w) { Put(w, "x", Pattern(5, 5)); }, "", true);
    EXPECT_EQ(Read(*store.Reader(), "x"), Pattern(5, 5));

    store.Put(good);
    Build(store, [&](CKvFileChunker& w) { Put(w, "c", c); EXPECT_EQ(Read(w, "a"), a); Put(w, "b", b); }, "", true);
    const Bytes file = store.Get();
    EXPECT_EQ(Slice(file, 0, s), good);
    const Entries entries = {{"a!", kPage, 20}, {"b!", s + kPage, 5000}, {"c!", s, 300}};
    EXPECT_EQ(Tail(file, s + 3 * kPage), MapChunk(entries, s + 3 * kPage));
    auto r = store.Reader();
    EXPECT_EQ(Join(Read(*r, "a"), Read(*r, "b"), Read(*r, "c")), Join(a, b, c));
}

// Logs what CreateMissingChunkMap reports. Answers its calls to add chunks
// from `adds`, then cancels; the added chunks are "added0!", "added1!", ...
struct Recorder {
    std::vector<std::string> seen;
    std::vector<int> adds;
    double fraction = -1;
    size_t turn = 0;
    static int OnChunk(SKvChunkHeader&, CKvStringA& name, CKvByteArray& data, void* user) {
        auto* self = static_cast<Recorder*>(user);
        self->seen.push_back(name.Std());
        if (!name.StartsWith("##ADD_NEW_CHUNKS##")) return KV_OK;
        const size_t turn = self->turn++;
        name = ("added" + std::to_string(turn) + "!").c_str();
        data.SetData("xyz", 3);
        return turn < self->adds.size() ? self->adds[turn] : KV_ERR_CANCELLED;
    }
    static bool OnProgress(double f, void* user) {
        EXPECT_TRUE(f >= 0.0 && f <= 1.0) << f;
        return static_cast<Recorder*>(user)->fraction = f, false;
    }
};

// Chunks on page 1 (empty), 2-3 (data length made 2^40), 4 (overwritten
// with junk), 5 (lengths made to run past the end), 6-8 (two parts), 9-11 (a
// name not ended by "!") and 12, the map on 13; cut either inside the map's
// trailer or inside the last chunk. The scan passes over the damage and finds
// every other chunk; it can be cancelled without a trace, and adds chunks
// after the file's last byte, a torn chunk included, the map after them. No
// byte of the file is cut or moved.
TEST_P(ChunkerTest, RecoversMissingMapPastDamage) {
    // In file order; sizes count header, name field and data.
    const Entries all = {{std::string(kSignatureChunkName), 0, 112}, {"e!", kPage, 18}, {"two!", 6 * kPage, 9096},
                         {"a!", 12 * kPage, kPage}};
    const Bytes two = Join(Pattern(8, 1), Pattern(5000, 2));
    for (uint64_t cut : {14 * kPage - kChunkMapTrailerSize, 12 * kPage + 2000}) {
        SCOPED_TRACE(cut);
        Store s(GetParam());
        Build(s, [&](CKvFileChunker& w) {
            Put(w, "e", {});
            Put(w, "broken", Pattern(5000, 2));
            Put(w, "junk", Pattern(8, 0));
            Put(w, "bogus", Pattern(8, 3));
            for (const char* name : {"two", "unnamed"}) ASSERT_EQ(w.SetChunk(two.data(), 8, two.data() + 8, 5000, name), KV_OK);
            Put(w, "a", Pattern(100, 3));
        });
        ASSERT_EQ(s.Get().size(), 14 * kPage);
        Bytes file = Slice(s.Get(), 0, cut);
        kvbytes::StoreU64(&file[2 * kPage + 8], uint64_t(1) << 40);
        std::fill(file.begin() + 4 * kPage, file.begin() + 5 * kPage, 0x55);
        kvbytes::StoreU64(&file[5 * kPage + 8], 100 * kPage);
        file[9 * kPage + kChunkHeaderSize + 7] = 'x';  // "unnamed!" becomes "unnamedx"
        s.Put(file);

        CKvFileChunker cancelled, r;
        ASSERT_EQ(s.OpenRead(cancelled), KV_ERR_NOT_FOUND);
        EXPECT_EQ(cancelled.CreateMissingChunkMap(nullptr, nullptr, [](double, void*) { return true; }), KV_ERR_CANCELLED);
        EXPECT_EQ(s.Get(), file);

        ASSERT_EQ(s.OpenRead(r), KV_ERR_NOT_FOUND);
        Recorder rec;
        rec.adds = {KV_OK, KV_ERR_NOT_SUPPORTED, KV_OK};
        ASSERT_EQ(r.CreateMissingChunkMap(Recorder::OnChunk, &rec, Recorder::OnProgress), KV_OK);
        Entries found(all.begin(), all.end() - (cut % kPage == 2000 ? 1 : 0));
        std::vector<std::string> seen;  // every chunk found, then every call to add one
        for (const Entry& e : found) seen.push_back(std::get<0>(e));
        for (int i = 0; i < 4; ++i) seen.push_back("##ADD_NEW_CHUNKS##" + std::to_string(i));
        EXPECT_EQ(rec.seen, seen);
        EXPECT_EQ(rec.fraction, 1.0);

        const uint64_t addAt = RoundUp(cut);
        EXPECT_EQ(Slice(s.Get(), 0, cut), file);
        found.emplace_back("added0!", addAt, 3);
        found.emplace_back("added2!", addAt + kPage, 3);
        EXPECT_EQ(Tail(s.Get(), addAt + 2 * kPage), MapChunk(found, addAt + 2 * kPage));
        auto again = s.Reader();
        EXPECT_EQ(Read(*again, "two"), two);
        EXPECT_EQ(Read(*again, "added2"), Join("xyz"));
    }
}

// A writer holds its file from opening to Finalize: a second writer is
// refused, a reader is not, and recovery leaves the file alone until the
// writer is done. While recovery works, no writer can start either.
TEST(ChunkerLock, RecoveryWaitsForTheWriter) {
    Store store(Kind::File);
    CKvFileChunker writer;
    ASSERT_EQ(store.OpenWrite(writer, false), KV_OK);
    Put(writer, "a", Pattern(100, 1));
    const Bytes unfinished = store.Get();

    CKvFileChunker second, repairer;
    EXPECT_EQ(store.OpenWrite(second, true), KV_ERR_FAILED);
    EXPECT_TRUE(second.IsHeldByWriter());
    ASSERT_EQ(store.OpenRead(repairer), KV_ERR_NOT_FOUND);
    EXPECT_FALSE(repairer.IsHeldByWriter());
    EXPECT_EQ(repairer.CreateMissingChunkMap(nullptr, nullptr, nullptr), KV_ERR_FAILED);
    EXPECT_TRUE(repairer.IsHeldByWriter());
    EXPECT_EQ(store.Get(), unfinished);

    ASSERT_EQ(writer.Finalize(), KV_OK);
    struct Probe {
        Store* store;
        int refused = 0;
        static int OnChunk(SKvChunkHeader&, CKvStringA& name, CKvByteArray&, void* user) {
            auto* self = static_cast<Probe*>(user);
            CKvFileChunker w;
            self->refused += self->store->OpenWrite(w, true) == KV_ERR_FAILED && w.IsHeldByWriter();
            return name.StartsWith("##ADD_NEW_CHUNKS##") ? KV_ERR_CANCELLED : KV_OK;
        }
    } probe{&store};
    ASSERT_EQ(repairer.CreateMissingChunkMap(Probe::OnChunk, &probe, nullptr), KV_OK);
    EXPECT_FALSE(repairer.IsHeldByWriter());
    EXPECT_EQ(probe.refused, 4);  // signature, "a", the finished map, then the call to add chunks
    EXPECT_EQ(Read(repairer, "a"), Pattern(100, 1));
    // Once recovery is done the file takes a writer again.
    Build(store, [](CKvFileChunker& w) { Put(w, "b", Pattern(5, 2)); }, "", true);
    EXPECT_EQ(Read(*store.Reader(), "a"), Pattern(100, 1));
}

TEST(ChunkerWrite, RefusesNamesTheMapCannotHold) {
    Store store(Kind::Memory);
    const std::string longest(kMaxChunkNameLength, 'n');
    const std::string mapEnd(kChunkMapSignature.substr(0, kChunkMapSignature.size() - 1));
    struct Case { std::string name; kv_result expected; } cases[] = {{"a!b", KV_ERR_INVALID_ARG},
        {"a!b!", KV_ERR_INVALID_ARG}, {longest + "n", KV_ERR_INVALID_ARG}, {mapEnd, KV_ERR_INVALID_ARG},
        {longest, KV_OK}, {longest + "!", KV_OK}};
    Build(store, [&](CKvFileChunker& w) {
        for (const Case& c : cases) EXPECT_EQ(w.SetChunk("d", 1, c.name.c_str()), c.expected) << c.name;
        EXPECT_EQ(w.SetChunkPart("d", 1, nullptr, 0, 0, true, "a!b"), KV_ERR_INVALID_ARG);
    });
    // The longest name must also be readable.
    EXPECT_EQ(MapOf(*store.Reader()), Entries({{longest + "!", 2 * kPage, 1}}));
}

// One field patched in a finished file: a chunk's data length, a map entry's
// position (off its chunk, onto another or into one), a chunk's name, the map
// chunk's data length, the trailer's map offset. A chunk whose entry and
// header no longer agree fails every read, the frame path's included, without
// touching or growing the output and never returning the bytes found there;
// the other chunks still read. A damaged map counts as missing and keeps the
// entries before the damage. Frames 5 and 6 are two-part chunks of two pages
// each, so one page after frame 5 lies its pixel page and two pages after it
// frame 6.
TEST(ChunkerDamage, DamagedChunkOrMapFailsEveryRead) {
    Store store(Kind::File);
    const Bytes prefix = Pattern(8, 9);
    const std::vector<std::pair<std::string, Bytes>> chunks = {{"a", Pattern(8, 1)},
        {"ImageDataSeq|5", Join(prefix, Pattern(300, 5))}, {"ImageDataSeq|6", Join(prefix, Pattern(300, 6))},
        {"ImageDataSeq|7", Pattern(8, 7)}};
    Build(store, [&](CKvFileChunker& w) {
        for (const auto& [name, data] : chunks) {
            if (data.size() == 8) Put(w, name.c_str(), data);
            else ASSERT_EQ(w.SetChunk(data.data(), 8, data.data() + 8, 300, name.c_str()), KV_OK);
        }
    });
    const Bytes good = store.Get();
    const uint64_t frame5 = 2 * kPage, frame6 = 4 * kPage, frame7 = 6 * kPage, mapAt = 7 * kPage, size = 8 * kPage;
    ASSERT_EQ(good.size(), size);
    auto patched = [&](uint64_t at, uint64_t value) {
        Bytes file = good;
        kvbytes::StoreU64(&file[at], value);
        return file;
    };
    // Moves the entry of `name` from `from` to `to` in the map.
    auto redirected = [&](const std::string& name, uint64_t from, uint64_t to) {
        const Bytes entry = Join(name, U64(from));
        const auto at = std::search(good.begin() + mapAt, good.end(), entry.begin(), entry.end());
        EXPECT_NE(at, good.end()) << name;
        return patched(at - good.begin() + name.size(), to);
    };
    // A chunk named "ImageDataSeq|7!x" where the map expects "ImageDataSeq|7!": its name does not end there.
    Bytes longerName = good;
    longerName[frame7 + kChunkHeaderSize + 15] = 'x';
    // The map lists "a!", then frames 7, 6 and 5, 31 bytes each: 81 bytes of
    // data cut the last name, 100 its position.
    const Entries kept = {{"ImageDataSeq|6!", frame6, 308}, {"ImageDataSeq|7!", frame7, 8}, {"a!", kPage, 8}};
    // `offset` and `size`: a part the chunk named has, the pixels for the frames.
    // A size of 0 checks whole reads only: a header claiming more data than
    // its entry does not stop a part read inside the entry.
    struct Case { Bytes file; kv_result open; const char* name; uint64_t offset, size; Entries kept; } cases[] = {
        {patched(kPage + 8, 0x7FFFFFF0), KV_OK, "a", 0, 0, {}},
        {redirected("a!", kPage, size - 8), KV_OK, "a", 0, 8, {}},
        {redirected("a!", kPage, uint64_t(1) << 40), KV_OK, "a", 0, 8, {}},
        {redirected("a!", kPage, 3), KV_OK, "a", 0, 8, {}},
        {redirected("a!", kPage, frame5), KV_OK, "a", 0, 8, {}},
        {redirected("ImageDataSeq|5!", frame5, frame5 + kPage), KV_OK, "ImageDataSeq|5", 8, 300, {}},
        {redirected("ImageDataSeq|6!", frame6, frame5 + 37), KV_OK, "ImageDataSeq|6", 8, 300, {}},
        {redirected("ImageDataSeq|6!", frame6, frame7), KV_OK, "ImageDataSeq|6", 8, 300, {}},
        {redirected("ImageDataSeq|7!", frame7, mapAt), KV_OK, "ImageDataSeq|7", 0, 8, {}},
        {longerName, KV_OK, "ImageDataSeq|7", 0, 8, {}},
        {patched(mapAt + 8, 81), KV_ERR_NOT_FOUND, "", 0, 0, kept},
        {patched(mapAt + 8, 100), KV_ERR_NOT_FOUND, "", 0, 0, kept},
        {patched(size - 8, 0), KV_ERR_NOT_FOUND, "", 0, 0, {}},
        {patched(size - 8, size), KV_ERR_NOT_FOUND, "", 0, 0, {}}};
    for (const Case& k : cases) {
        SCOPED_TRACE(::testing::Message() << "case " << (&k - cases));
        store.Put(k.file);
        CKvFileChunker r;
        ASSERT_EQ(store.OpenRead(r), k.open);
        EXPECT_EQ(r.IsChunkMapMissing(), k.open != KV_OK);
        if (k.open != KV_OK) {
            EXPECT_EQ(MapOf(r), k.kept);
            continue;
        }
        for (const auto& [name, data] : chunks)
            if (name != k.name) {
                EXPECT_EQ(Read(r, name.c_str()), data) << name;
            }
        CKvByteArray out("k", 1);
        SKvChunkHeader h;
        EXPECT_EQ(r.GetChunk(out, k.name), KV_ERR_FAILED);
        EXPECT_EQ(r.GetChunkPart(h, out, 0, 0x7FFFFF00, k.name), KV_ERR_FAILED);
        EXPECT_EQ(r.GetChunkHeader(h, k.name), KV_ERR_FAILED);
        EXPECT_EQ(ToBytes(out), Bytes{'k'});
        EXPECT_LT(out.GetAllocated(), 1u << 20);
        if (!k.size) continue;
        h = SKvChunkHeader{};
        EXPECT_EQ(r.GetChunkPart(h, out, k.offset, 8, k.name), KV_ERR_FAILED);
        EXPECT_EQ(ToBytes(out), Bytes{'k'});
        Bytes buffer(8, 0xAB);
        h = SKvChunkHeader{};
        EXPECT_EQ(r.ReadChunkPart(h, buffer.data(), k.offset, 8, k.name), KV_ERR_FAILED);
        EXPECT_EQ(buffer, Bytes(8, 0xAB));
        // The frame path reads header and pixels at once, then refuses them.
        Bytes part(k.size);
        h = SKvChunkHeader{};
        EXPECT_EQ(r.ReadAlignedPart(h, part.data(), k.offset, k.size, k.name), KV_ERR_FAILED);
        std::vector<uint8_t> rest;
        uint64_t restSize = 0;
        EXPECT_EQ(r.ReadAlignedRest(h, rest, k.offset, restSize, k.name), KV_ERR_FAILED);
        EXPECT_EQ(restSize, 0u);
    }
    // And undamaged, the frame path reads the pixels.
    store.Put(good);
    Bytes part(300);
    SKvChunkHeader h;
    ASSERT_EQ(store.Reader()->ReadAlignedPart(h, part.data(), 8, 300, "ImageDataSeq|5"), KV_OK);
    EXPECT_EQ(part, Slice(chunks[1].second, 8, 300));
}

}  // namespace

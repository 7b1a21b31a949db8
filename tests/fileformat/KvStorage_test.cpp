// The positional storages over a file and over a byte array behave alike, and
// the container reaches them the way it promises: a frame costs one read and
// is written with one write.
#include "fileformat/KvStorage.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fileformat/CKvFileChunker.h"
#include "fileformat/CKvQV8InputFile.h"
#include "fileformat/CKvQV8OutputFile.h"
#include "gnr_system/KvBytes.h"
#include "tests/TestSupport.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Mode = CKvPosixStorage::EKvOpenMode;

Bytes Pattern(size_t size, uint8_t seed) {
    Bytes b(size);
    for (size_t i = 0; i < size; ++i) b[i] = static_cast<uint8_t>(seed + i * 13 + (i >> 9));
    return b;
}

// A storage of either kind (a file when the parameter is true, else a byte
// array), with what it holds read and replaced from outside.
class StorageKinds : public ::testing::TestWithParam<bool> {
protected:
    std::unique_ptr<IKvStorage> NewStorage(Mode mode) {
        if (!GetParam()) return std::make_unique<CKvMemoryStorage>(m_array);
        auto file = std::make_unique<CKvPosixStorage>();
        EXPECT_EQ(file->Open(m_dir.File("s.bin").c_str(), mode), KV_OK);
        return file;
    }
    std::string Content() const {
        if (GetParam()) return ReadWholeFile(m_dir.File("s.bin"));
        return std::string(reinterpret_cast<const char*>(m_array.GetData()), m_array.GetSize());
    }
    void SetContent(const std::string& content) {
        if (GetParam()) {
            std::ofstream(m_dir.File("s.bin"), std::ios::binary) << content;
        } else {
            ASSERT_EQ(KV_OK, m_array.SetData(content.data(), content.size()));
        }
    }

    CTestTempDir m_dir;
    CKvByteArray m_array;
};

// ---- the two storages ----

class StorageTest : public StorageKinds {
protected:
    void SetUp() override { m_storage = NewStorage(Mode::UpdateOrCreate); }
    std::unique_ptr<IKvStorage> m_storage;
};
INSTANTIATE_TEST_SUITE_P(Kinds, StorageTest, ::testing::Values(true, false),
                         [](const auto& info) { return info.param ? "File" : "Memory"; });

// Gathered writes land at their position, gaps read as zeros, scattered reads
// fill span after span and come up short only at the end.
TEST_P(StorageTest, GatheredWritesAndScatteredReads) {
    IKvStorage& s = *m_storage;
    const SKvIoPart parts[] = {{"ab", 2}, {nullptr, 0}, {"cde", 3}};
    uint64_t n = 0;
    ASSERT_EQ(s.WriteAt(4, parts, 3, &n), KV_OK);
    EXPECT_EQ(n, 5u);
    ASSERT_EQ(s.WriteAt(0, "0123", 4), KV_OK);
    ASSERT_EQ(s.WriteAt(8, "XY", 2), KV_OK);  // overwrites inside, extends past the end
    ASSERT_EQ(s.WriteAt(14, "!", 1), KV_OK);
    EXPECT_EQ(Content(), std::string("0123abcdXY\0\0\0\0!", 15));

    char a[3] = {}, b[20] = {};
    const SKvIoSpan spans[] = {{a, 3}, {b, sizeof b}};
    ASSERT_EQ(s.ReadAt(2, spans, 2, &n), KV_OK);
    EXPECT_EQ(n, 13u);
    EXPECT_EQ(std::string(a, 3) + std::string(b, 10), std::string("23abcdXY\0\0\0\0!", 13));
    for (uint64_t past : {15, 100}) {
        ASSERT_EQ(s.ReadAt(past, b, 4, &n), KV_OK);
        EXPECT_EQ(n, 0u);
    }

    const SKvIoPart many[IKvStorage::kMaxParts + 1] = {};
    EXPECT_EQ(s.WriteAt(0, many, IKvStorage::kMaxParts + 1, &n), KV_ERR_INVALID_ARG);
    const SKvIoSpan null[] = {{nullptr, 4}};
    EXPECT_EQ(s.ReadAt(0, null, 1, &n), KV_ERR_INVALID_ARG);
    EXPECT_EQ(Content().size(), 15u);
}

// Truncation cuts and grows with zeros; a closed storage refuses everything.
TEST_P(StorageTest, TruncateSyncAndClose) {
    IKvStorage& s = *m_storage;
    uint64_t size = 0, n = 0;
    ASSERT_EQ(s.WriteAt(0, "abcdef", 6), KV_OK);
    ASSERT_EQ(s.Truncate(3), KV_OK);
    ASSERT_EQ(s.Size(&size), KV_OK);
    EXPECT_EQ(size, 3u);
    ASSERT_EQ(s.Truncate(5), KV_OK);
    EXPECT_EQ(s.Sync(), KV_OK);

    EXPECT_TRUE(s.IsOpen());
    EXPECT_EQ(s.Close(), KV_OK);
    EXPECT_FALSE(s.IsOpen());
    char out[4];
    EXPECT_EQ(s.ReadAt(0, out, 4, &n), KV_ERR_FAILED);
    EXPECT_EQ(s.WriteAt(0, "x", 1), KV_ERR_FAILED);
    EXPECT_EQ(s.Size(&size), KV_ERR_FAILED);
    EXPECT_EQ(s.Truncate(0), KV_ERR_FAILED);
    EXPECT_EQ(s.Sync(), KV_ERR_FAILED);
    EXPECT_EQ(s.Close(), KV_OK);  // a second close is harmless
    EXPECT_EQ(Content(), std::string("abc\0\0", 5));
}

// Opening modes: nothing is created or truncated unless asked, and a file
// opened for reading refuses writes and cuts.
TEST(PosixStorageTest, OpenModes) {
    CTestTempDir dir;
    const std::string path = dir.File("f.bin");
    CKvPosixStorage s;
    EXPECT_EQ(s.Open(path.c_str(), Mode::ReadOnly), KV_ERR_FAILED);
    EXPECT_EQ(s.Open(path.c_str(), Mode::UpdateExisting), KV_ERR_FAILED);
    EXPECT_FALSE(s.IsOpen() || std::filesystem::exists(path));
    ASSERT_EQ(s.Open(path.c_str(), Mode::UpdateOrCreate), KV_OK);
    ASSERT_EQ(s.WriteAt(0, "hello", 5), KV_OK);
    ASSERT_EQ(s.Open(path.c_str(), Mode::UpdateOrCreate), KV_OK);  // the earlier descriptor is closed
    EXPECT_EQ(s.Sync(), KV_OK);
    EXPECT_EQ(ReadWholeFile(path), "hello");
    ASSERT_EQ(s.Open(path.c_str(), Mode::ReadOnly), KV_OK);
    uint64_t n = 0;
    EXPECT_EQ(s.WriteAt(0, "j", 1, &n), KV_ERR_FAILED);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(s.Truncate(1), KV_ERR_SET_EOF);
    EXPECT_EQ(ReadWholeFile(path), "hello");
}

// ---- what the container asks of the storage ----

// Passes everything on and counts the reads and writes.
class CCountingStorage final : public IKvStorage {
public:
    explicit CCountingStorage(std::unique_ptr<IKvStorage> inner) : m_pInner(std::move(inner)) {}
    kv_result ReadAt(uint64_t position, const SKvIoSpan* spans, size_t count, uint64_t* read) override {
        ++reads;
        return m_pInner->ReadAt(position, spans, count, read);
    }
    kv_result WriteAt(uint64_t position, const SKvIoPart* parts, size_t count, uint64_t* written) override {
        ++writes;
        return m_pInner->WriteAt(position, parts, count, written);
    }
    kv_result Size(uint64_t* size) override { return m_pInner->Size(size); }
    kv_result Truncate(uint64_t size) override { return m_pInner->Truncate(size); }
    kv_result Sync() override { return m_pInner->Sync(); }
    kv_result Close() override { return m_pInner->Close(); }
    bool IsOpen() const override { return m_pInner->IsOpen(); }

    int reads = 0, writes = 0;

private:
    std::unique_ptr<IKvStorage> m_pInner;
};

CKvStringA FrameName(uint32_t index) {
    CKvStringA name;
    name.Format(kChunkFrame, index);
    return name;
}

// Frames written through the output file and read back through the input
// file, over a counting storage, raw and compressed.
class FrameAccessTest : public StorageKinds {
protected:
    static constexpr uint32_t kWidth = 96, kHeight = 40;
    const uint32_t kCompressions[2] = {kCompressionNone, kCompressionZlib};

    static Bytes Frame(uint8_t seed) { return Pattern(kWidth * kHeight, seed); }

    // Writes `frames`; `damage` may add chunks before the map is written.
    // Answers the writes per frame after the first, which also writes the
    // header chunks.
    int Write(uint32_t compression, const std::vector<Bytes>& frames,
              const std::function<void(CKvFileChunker&)>& damage = nullptr) {
        auto storage = std::make_shared<CCountingStorage>(NewStorage(Mode::UpdateOrCreate));
        auto chunker = std::make_unique<CKvFileChunker>();
        CKvFileChunker& chunks = *chunker;
        CKvStringA version("Ver3.0");
        EXPECT_EQ(KV_OK, chunker->Initialize_Storage(storage, false, false, version));
        auto* writer = new CKvQV8OutputFile_V03(nullptr, CKvStringW(L"unused"), false, std::move(chunker));
        SKvImageAttributes a;
        a.uiWidth = a.uiWidthBytes = kWidth;
        a.uiHeight = kHeight;
        a.uiComp = 1;
        a.uiBpcInMemory = a.uiBpcSignificant = 8;
        a.eCompression = compression;
        EXPECT_EQ(KV_OK, writer->SetImageAttributes(a));
        for (uint32_t i = 0; i < frames.size(); ++i) {
            if (i == 1) storage->writes = 0;
            Bytes copy = frames[i];
            EXPECT_EQ(KV_OK, writer->FlushData(i, copy.data(), nullptr, nullptr));
        }
        const int perFrame = frames.size() > 1 ? storage->writes / static_cast<int>(frames.size() - 1) : 0;
        if (damage) damage(chunks);
        EXPECT_EQ(KV_OK, writer->Finalize());
        writer->Release();
        return perFrame;
    }

    // A reader whose attributes are already read, and its counting storage.
    std::pair<CKvQV8InputFile_V03*, std::shared_ptr<CCountingStorage>> Open() {
        auto storage = std::make_shared<CCountingStorage>(NewStorage(Mode::ReadOnly));
        auto chunker = std::make_unique<CKvFileChunker>();
        CKvStringA version;
        EXPECT_EQ(KV_OK, chunker->Initialize_Storage(storage, true, false, version));
        auto* reader = new CKvQV8InputFile_V03(nullptr, std::move(chunker));
        SKvImageAttributes a;
        EXPECT_EQ(KV_OK, reader->GetImageAttributes(a));
        storage->reads = 0;
        return {reader, storage};
    }

    // Points the map entry of `name` at `to` instead of `from`.
    void RedirectMapEntry(const char* name, uint64_t from, uint64_t to) {
        std::string file = Content();
        std::string entry(name);
        entry.append(8, '\0');
        kvbytes::StoreU64(reinterpret_cast<uint8_t*>(&entry[entry.size() - 8]), from);
        const size_t at = file.rfind(entry);
        ASSERT_NE(at, std::string::npos);
        kvbytes::StoreU64(reinterpret_cast<uint8_t*>(&file[at + entry.size() - 8]), to);
        SetContent(file);
    }
};
INSTANTIATE_TEST_SUITE_P(Kinds, FrameAccessTest, ::testing::Values(true, false),
                         [](const auto& info) { return info.param ? "File" : "Memory"; });

TEST_P(FrameAccessTest, AFrameIsOneWriteAndOneRead) {
    const std::vector<Bytes> frames = {Frame(1), Frame(2), Frame(3)};
    for (uint32_t compression : kCompressions) {
        EXPECT_EQ(Write(compression, frames), 1) << compression;
        auto [reader, storage] = Open();
        for (uint32_t i : {2u, 0u, 1u}) {
            Bytes out(kWidth * kHeight);
            const int before = storage->reads;
            ASSERT_EQ(KV_OK, reader->GetData(i, out.data(), nullptr, nullptr)) << compression;
            EXPECT_EQ(storage->reads - before, 1) << compression << " frame " << i;
            EXPECT_EQ(out, frames[i]) << compression << " frame " << i;
        }
        EXPECT_EQ(0u, reader->Release());
    }
}

// A map entry moved off its frame chunk, onto the frame's own pixel page or
// onto the next frame: the read fails after its one storage read, and the
// bytes found there are never taken for the frame asked for.
TEST_P(FrameAccessTest, AMapEntryOffItsChunkFailsTheRead) {
    const std::vector<Bytes> frames = {Frame(5), Frame(6)};
    for (uint32_t compression : kCompressions) {
        uint64_t frame0 = 0, frame1 = 0;
        Write(compression, frames, [&](CKvFileChunker& c) {
            frame0 = c.GetChunkMap().at(FrameName(0).View()).position;
            frame1 = c.GetChunkMap().at(FrameName(1).View()).position;
        });
        ASSERT_LT(frame0 + kPageSize, frame1);
        for (uint64_t to : {frame0 + kPageSize, frame1}) {
            RedirectMapEntry(FrameName(0).c_str(), frame0, to);
            auto [reader, storage] = Open();
            Bytes out(kWidth * kHeight);
            EXPECT_EQ(KV_ERR_FAILED, reader->GetData(0, out.data(), nullptr, nullptr)) << compression << " " << to;
            EXPECT_EQ(storage->reads, 1) << compression << " " << to;
            EXPECT_NE(out, frames[1]) << "no bytes of the other frame are left in the buffer";
            ASSERT_EQ(KV_OK, reader->GetData(1, out.data(), nullptr, nullptr));
            EXPECT_EQ(out, frames[1]);
            EXPECT_EQ(0u, reader->Release());
            RedirectMapEntry(FrameName(0).c_str(), to, frame0);
        }
    }
}

// A frame chunk laid out otherwise (prefix and pixels as one part, so the
// pixels do not start a page) is read all the same.
TEST_P(FrameAccessTest, OtherLayoutsAreStillRead) {
    const Bytes pixels = Frame(7);
    for (uint32_t compression : kCompressions) {
        Write(compression, {Frame(8)}, [&](CKvFileChunker& c) {
            Bytes whole(kFramePrefixSize, 0);
            const Bytes stored = compression == kCompressionZlib ? TestDeflate(pixels) : pixels;
            whole.insert(whole.end(), stored.begin(), stored.end());
            ASSERT_EQ(KV_OK, c.SetChunk(whole.data(), static_cast<uint32_t>(whole.size()), FrameName(0).c_str()));
        });
        auto [reader, storage] = Open();
        Bytes out(kWidth * kHeight);
        ASSERT_EQ(KV_OK, reader->GetData(0, out.data(), nullptr, nullptr)) << compression;
        EXPECT_EQ(out, pixels) << compression;
        EXPECT_EQ(KV_ERR_NOT_FOUND, reader->GetData(1, out.data(), nullptr, nullptr));
        EXPECT_EQ(0u, reader->Release());
    }
}

}  // namespace

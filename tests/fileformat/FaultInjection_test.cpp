// Storage faults at every step of a writing and of a reading session: a full
// disk, an I/O error, a short write or read, a failed sync or cut. Every call
// that meets one answers a negative code, and what is left on the storage is
// a complete file or one that repair makes whole again, with every frame the
// writer acknowledged.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "fileformat/CKvFileChunker.h"
#include "fileformat/CKvQV8InputFile.h"
#include "fileformat/CKvQV8OutputFile.h"
#include "fileformat/KvStorage.h"
#include "gnr_metaformats/PictureSequence.h"
#include "gnr_system/KvBytes.h"
#include "tests/TestSupport.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kWidth = 64, kHeight = 48;
constexpr uint32_t kFrameCount = 4;

Bytes Pattern(size_t size, uint8_t seed) {
    Bytes b(size);
    for (size_t i = 0; i < size; ++i) b[i] = static_cast<uint8_t>(seed * 7 + (i * 31 + (i >> 6)) % 29);
    return b;
}

Bytes FramePixels(uint32_t index) { return Pattern(kWidth * kHeight, static_cast<uint8_t>(index + 1)); }
double FrameTime(uint32_t index) { return 0.25 + index; }

// ---- the faulty storage ----

enum EOp { kOpWrite, kOpSync, kOpTruncate, kOpRead, kOpCount };
const char* const kOpNames[kOpCount] = {"write", "sync", "truncate", "read"};

enum class EFault {
    DiskFull,  // nothing written, and the disk stays full
    IoError,   // this one call fails, nothing changes
    Short,     // a write lands in part, then the disk is full; a read returns half
};
const char* FaultName(EFault f) {
    switch (f) {
    case EFault::DiskFull: return "disk-full";
    case EFault::IoError: return "io-error";
    case EFault::Short: return "short";
    }
    return "?";
}

// Where to strike: the `at`-th call (from 0) of `op`; -1 never.
struct SFault {
    EOp op = kOpWrite;
    EFault kind = EFault::IoError;
    int at = -1;
};

// Passes everything to another storage and fails one call as told. Counts
// the calls of each kind, so that a clean run tells how many steps to try.
class CFaultyStorage final : public IKvStorage {
public:
    CFaultyStorage(std::shared_ptr<IKvStorage> inner, SFault fault) : m_pInner(std::move(inner)), m_fault(fault) {}

    kv_result ReadAt(uint64_t position, const SKvIoSpan* spans, size_t count, uint64_t* read) override {
        if (!Strike(kOpRead)) return m_pInner->ReadAt(position, spans, count, read);
        if (read) *read = 0;
        if (m_fault.kind != EFault::Short) return KV_ERR_FAILED;
        // A read that comes up short as at the end of the storage.
        std::vector<SKvIoSpan> half(spans, spans + count);
        TrimTo(half, Total(spans, count) / 2);
        return m_pInner->ReadAt(position, half.data(), half.size(), read);
    }
    kv_result WriteAt(uint64_t position, const SKvIoPart* parts, size_t count, uint64_t* written) override {
        if (written) *written = 0;
        const bool strike = Strike(kOpWrite);
        if (!strike && !m_bDiskFull) return m_pInner->WriteAt(position, parts, count, written);
        struck = true;
        if (!strike || m_fault.kind == EFault::IoError) return KV_ERR_FAILED;
        m_bDiskFull = true;
        if (m_fault.kind == EFault::Short) {
            std::vector<SKvIoPart> half(parts, parts + count);
            TrimTo(half, Total(parts, count) / 2);
            m_pInner->WriteAt(position, half.data(), half.size(), written);
        }
        return KV_ERR_FAILED;
    }
    kv_result Size(uint64_t* size) override { return m_pInner->Size(size); }
    kv_result Truncate(uint64_t size) override {
        uint64_t now = 0;
        const bool grows = m_pInner->Size(&now) == KV_OK && size > now;
        if (Strike(kOpTruncate) || (m_bDiskFull && grows)) {
            struck = true;
            return KV_ERR_SET_EOF;
        }
        return m_pInner->Truncate(size);
    }
    kv_result Sync() override {
        if (Strike(kOpSync)) {
            struck = true;
            return KV_ERR_FAILED;
        }
        return m_pInner->Sync();
    }
    kv_result Close() override { return m_pInner->Close(); }
    bool IsOpen() const override { return m_pInner->IsOpen(); }

    std::array<int, kOpCount> calls{};
    bool struck = false;  // a write, sync or cut failed

private:
    bool Strike(EOp op) { return calls[op]++ == m_fault.at && m_fault.op == op; }

    template <typename Piece>
    static uint64_t Total(const Piece* pieces, size_t count) {
        uint64_t total = 0;
        for (size_t i = 0; i < count; ++i) total += pieces[i].size;
        return total;
    }
    template <typename Piece>
    static void TrimTo(std::vector<Piece>& pieces, uint64_t keep) {
        for (Piece& p : pieces) {
            p.size = std::min(p.size, keep);
            keep -= p.size;
        }
    }

    std::shared_ptr<IKvStorage> m_pInner;
    SFault m_fault;
    bool m_bDiskFull = false;
};

// The codes a storage failure may come back as.
bool IsDocumentedFailure(kv_result r) {
    static const std::set<kv_result> codes = {KV_ERR_FAILED, KV_ERR_NOT_FOUND, KV_ERR_SET_EOF, KV_ERR_FILE_SIZE};
    return codes.count(r) != 0;
}

// ---- the sessions ----

SKvImageAttributes Attributes(uint32_t compression) {
    SKvImageAttributes a;
    a.uiWidth = kWidth;
    a.uiHeight = kHeight;
    a.uiComp = 1;
    a.uiBpcInMemory = a.uiBpcSignificant = 8;
    a.uiWidthBytes = kWidth;
    a.eCompression = compression;
    a.dCompressionParam = 6;
    return a;
}

SKvImageTextInfo TextInfo() {
    SKvImageTextInfo info;
    info.aItems[3] = L"description";
    return info;
}

struct SWriteSession {
    std::vector<uint32_t> acknowledged;  // frames whose FlushData answered KV_OK
    bool finalized = false;              // Finalize answered KV_OK
    std::string failedStep;              // the step that met the first failure
    std::vector<kv_result> failures;     // every negative answer
    bool struck = false;
    std::array<int, kOpCount> calls{};
};

// What a careful client does: attributes, experiment, text information,
// frames with their times, a binary layer, custom data, more frames,
// Finalize. At the first failure it stops and still calls Finalize to
// close the file.
SWriteSession WriteSession(std::shared_ptr<IKvStorage> inner, SFault fault, uint32_t compression) {
    SWriteSession s;
    auto storage = std::make_shared<CFaultyStorage>(std::move(inner), fault);
    auto chunker = std::make_unique<CKvFileChunker>();
    CKvStringA version("Ver3.0");
    const kv_result opened = chunker->Initialize_Storage(storage, false, false, version);
    auto* writer = new CKvQV8OutputFile_V03(nullptr, CKvStringW(L"faulty"), false, std::move(chunker));

    const SKvExperiment experiment;
    const CKvByteArray binary("binary layer", 12);
    const Bytes custom = Pattern(5000, 9);
    std::vector<std::pair<const char*, std::function<kv_result()>>> steps = {
        {"open", [&] { return opened; }},
        {"attributes", [&] { return writer->SetImageAttributes(Attributes(compression)); }},
        {"experiment", [&] { return writer->SetImageMetadata(experiment, nullptr); }},
        {"text-info", [&] { return writer->SetImageTextInfo(TextInfo()); }},
    };
    const auto frame = [&](uint32_t i) {
        return [&, i] {
            kv_result r = writer->SetAcqTime(FrameTime(i));
            if (r != KV_OK) return r;
            Bytes pixels = FramePixels(i);
            r = writer->FlushData(i, pixels.data(), nullptr, nullptr);
            if (r == KV_OK) s.acknowledged.push_back(i);
            return r;
        };
    };
    steps.push_back({"frame", frame(0)});
    steps.push_back({"frame", frame(1)});
    steps.push_back({"binary", [&] { return writer->SetImageBinary(const_cast<CKvByteArray*>(&binary)); }});
    steps.push_back({"custom", [&] { return writer->SetCustomData(L"Notes", custom.data(), custom.size()); }});
    for (uint32_t i = 2; i < kFrameCount; ++i) steps.push_back({"frame", frame(i)});
    steps.push_back({"finalize", [&] {
                         const kv_result r = writer->Finalize();
                         s.finalized = r == KV_OK;
                         return r;
                     }});

    for (auto& [name, step] : steps) {
        const kv_result r = step();
        if (r == KV_OK) continue;
        s.failedStep = name;
        s.failures.push_back(r);
        // The client's clean-up: closing must not claim a file it has not got.
        const kv_result closed = writer->Finalize();
        if (closed != KV_OK) s.failures.push_back(closed);
        s.finalized = closed == KV_OK;
        break;
    }
    writer->Release();
    s.struck = storage->struck;
    s.calls = storage->calls;
    return s;
}

CKvStringA FrameName(uint32_t index) {
    CKvStringA name;
    name.Format(kChunkFrame, index);
    return name;
}

// The frame as stored, checked against what was written: the time prefix,
// then the pixels, raw or inflated.
::testing::AssertionResult FrameIsIntact(CKvFileChunker& chunks, uint32_t index, uint32_t compression) {
    CKvByteArray data;
    const kv_result r = chunks.GetChunk(data, FrameName(index).c_str());
    if (r != KV_OK) return ::testing::AssertionFailure() << "frame " << index << " not read: " << r;
    if (data.GetSize() < kFramePrefixSize) return ::testing::AssertionFailure() << "frame " << index << " too short";
    if (kvbytes::LoadF64(data.GetData()) != FrameTime(index))
        return ::testing::AssertionFailure() << "frame " << index << " lost its time";
    Bytes pixels(data.GetData() + kFramePrefixSize, data.GetData() + data.GetSize());
    if (compression == kCompressionZlib) {
        Bytes raw(kWidth * kHeight);
        uLongf size = raw.size();
        if (uncompress(raw.data(), &size, pixels.data(), pixels.size()) != Z_OK || size != raw.size())
            return ::testing::AssertionFailure() << "frame " << index << " does not inflate";
        pixels = raw;
    }
    if (pixels != FramePixels(index)) return ::testing::AssertionFailure() << "frame " << index << " differs";
    return ::testing::AssertionSuccess();
}

enum class EOutcome { Complete, Repaired, Empty };

// Opens `bytes` as a container (repairing it when its map is missing) and
// checks every acknowledged frame. Empty: not even a signature, which is
// only acceptable when no frame was acknowledged.
EOutcome CheckLeftBytes(const CKvByteArray& bytes, const SWriteSession& s, uint32_t compression) {
    CKvByteArray copy(bytes);
    CKvFileChunker chunks;
    CKvStringA version;
    const kv_result opened = chunks.Initialize_Storage(std::make_shared<CKvMemoryStorage>(copy), true, false, version);
    EOutcome outcome = EOutcome::Complete;
    if (opened == KV_ERR_NOT_FOUND && chunks.IsChunkMapMissing()) {
        EXPECT_FALSE(s.finalized) << "Finalize answered KV_OK for a file without its map";
        // Repair rebuilds the map from the chunks themselves.
        EXPECT_EQ(KV_OK, chunks.CreateMissingChunkMap(nullptr, nullptr, nullptr));
        outcome = EOutcome::Repaired;
    } else if (opened != KV_OK) {
        EXPECT_TRUE(s.acknowledged.empty()) << "frames acknowledged into a file that is no container";
        EXPECT_FALSE(s.finalized);
        return EOutcome::Empty;
    }
    for (uint32_t i : s.acknowledged) EXPECT_TRUE(FrameIsIntact(chunks, i, compression));
    return outcome;
}

// A finalized file with `frames` frames, read through the image reader:
// frame count and every frame.
void ExpectReadable(const CKvByteArray& bytes, uint32_t frames) {
    CKvByteArray copy(bytes);
    auto chunker = std::make_unique<CKvFileChunker>();
    CKvStringA version;
    ASSERT_EQ(KV_OK, chunker->Initialize_Storage(std::make_shared<CKvMemoryStorage>(copy), true, false, version));
    auto* reader = new CKvQV8InputFile_V03(nullptr, std::move(chunker));
    // Attributes are written with the first frame: a file finalized before
    // any frame made it may have none.
    SKvImageAttributes a;
    const kv_result attributes = reader->GetImageAttributes(a);
    if (frames) {
        EXPECT_EQ(KV_OK, attributes);
    }
    if (attributes == KV_OK) {
        EXPECT_EQ(frames, a.uiSequenceCount);
    }
    Bytes out(kWidth * kHeight);
    for (uint32_t i = 0; i < frames; ++i) {
        EXPECT_EQ(KV_OK, reader->GetData(i, out.data(), nullptr, nullptr));
        EXPECT_EQ(FramePixels(i), out) << "frame " << i;
    }
    reader->Release();
}

// ---- the table of outcomes ----

struct SRow {
    int sessions = 0, failedAsDocumented = 0, complete = 0, repaired = 0, empty = 0;
};

class CFaultTable {
public:
    void Add(const std::string& fault, const std::string& step, const SRow& r) {
        SRow& row = m_rows[{fault, step}];
        row.sessions += r.sessions;
        row.failedAsDocumented += r.failedAsDocumented;
        row.complete += r.complete;
        row.repaired += r.repaired;
        row.empty += r.empty;
    }
    // One line per fault and step, printed and kept as test properties.
    void Print(const char* title) const {
        std::printf("%s\n%-26s %-11s %8s %8s %8s %8s %6s\n", title, "fault", "step", "sessions", "failed",
                    "complete", "repaired", "empty");
        for (const auto& [key, r] : m_rows) {
            std::printf("%-26s %-11s %8d %8d %8d %8d %6d\n", key.first.c_str(), key.second.c_str(), r.sessions,
                        r.failedAsDocumented, r.complete, r.repaired, r.empty);
            char value[96];
            std::snprintf(value, sizeof value, "sessions=%d failed=%d complete=%d repaired=%d empty=%d", r.sessions,
                          r.failedAsDocumented, r.complete, r.repaired, r.empty);
            ::testing::Test::RecordProperty(key.first + "@" + key.second, value);
        }
    }

private:
    std::map<std::pair<std::string, std::string>, SRow> m_rows;
};

// The faults tried on each kind of call.
std::vector<std::pair<EOp, EFault>> FaultKinds(bool reading) {
    if (reading) return {{kOpRead, EFault::IoError}, {kOpRead, EFault::Short}};
    return {{kOpWrite, EFault::DiskFull}, {kOpWrite, EFault::IoError}, {kOpWrite, EFault::Short},
            {kOpSync, EFault::IoError},   {kOpTruncate, EFault::IoError}, {kOpRead, EFault::IoError}};
}

// The storage a session runs on: memory, or a new file in `dir`. `bytes`
// gets what it holds afterwards.
class CSessionStorage {
public:
    CSessionStorage(bool file, const CTestTempDir& dir, int counter) : m_bFile(file) {
        if (!file) {
            m_pStorage = std::make_shared<CKvMemoryStorage>(m_array);
            return;
        }
        m_strPath = dir.File(("s" + std::to_string(counter) + ".qv8").c_str());
        auto posix = std::make_shared<CKvPosixStorage>();
        EXPECT_EQ(KV_OK, posix->Open(m_strPath.c_str(), CKvPosixStorage::EKvOpenMode::UpdateOrCreate));
        m_pStorage = posix;
    }
    std::shared_ptr<IKvStorage> Storage() const { return m_pStorage; }
    CKvByteArray Bytes() {
        if (!m_bFile) return m_array;
        m_pStorage->Close();
        const std::string content = ReadWholeFile(m_strPath);
        std::remove(m_strPath.c_str());
        return CKvByteArray(content.data(), content.size());
    }

private:
    bool m_bFile;
    CKvByteArray m_array;
    std::string m_strPath;
    std::shared_ptr<IKvStorage> m_pStorage;
};

class FaultInjectionTest : public ::testing::TestWithParam<bool> {
protected:
    CTestTempDir m_dir;
    int m_nCounter = 0;
};
INSTANTIATE_TEST_SUITE_P(Kinds, FaultInjectionTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "File" : "Memory"; });

// A fault at any write, sync, cut or read of a writing session: the caller
// hears of it, Finalize never claims a file that is not whole, and the bytes
// left hold every acknowledged frame, directly or after repair.
TEST_P(FaultInjectionTest, EveryStepOfAWritingSession) {
    CFaultTable table;
    for (uint32_t compression : {kCompressionNone, kCompressionZlib}) {
        SCOPED_TRACE(compression == kCompressionZlib ? "compressed" : "raw");
        CSessionStorage clean(GetParam(), m_dir, m_nCounter++);
        const SWriteSession reference = WriteSession(clean.Storage(), SFault{}, compression);
        ASSERT_TRUE(reference.failures.empty());
        ASSERT_TRUE(reference.finalized);
        ASSERT_EQ(kFrameCount, reference.acknowledged.size());
        ASSERT_GE(reference.calls[kOpSync], 1) << "Finalize must sync before it answers";
        ExpectReadable(clean.Bytes(), kFrameCount);

        for (const auto& [op, kind] : FaultKinds(false)) {
            const std::string fault = std::string(kOpNames[op]) + "/" + FaultName(kind);
            for (int at = 0; at < reference.calls[op]; ++at) {
                SCOPED_TRACE(fault + " at call " + std::to_string(at));
                CSessionStorage storage(GetParam(), m_dir, m_nCounter++);
                const SWriteSession s = WriteSession(storage.Storage(), SFault{op, kind, at}, compression);
                SRow row;
                row.sessions = 1;
                // A write, sync or cut that failed is never swallowed.
                if (s.struck) {
                    EXPECT_FALSE(s.failures.empty()) << "a storage failure went unreported";
                }
                bool documented = true;
                for (kv_result r : s.failures) {
                    EXPECT_TRUE(IsDocumentedFailure(r)) << "answered " << r;
                    documented = documented && IsDocumentedFailure(r);
                }
                if (!s.failures.empty() && documented) ++row.failedAsDocumented;
                const CKvByteArray bytes = storage.Bytes();
                switch (CheckLeftBytes(bytes, s, compression)) {
                case EOutcome::Complete: ++row.complete; break;
                case EOutcome::Repaired: ++row.repaired; break;
                case EOutcome::Empty: ++row.empty; break;
                }
                // Frames are written in order, so the acknowledged ones are 0 to n-1.
                if (s.finalized) ExpectReadable(bytes, static_cast<uint32_t>(s.acknowledged.size()));
                table.Add(fault, s.failures.empty() ? "none" : s.failedStep, row);
            }
        }
    }
    table.Print(GetParam() ? "Writing session on a file" : "Writing session in memory");
}

// A fault at any read of a reading session: each call answers the right
// content or a negative code, later calls are not disturbed, and nothing is
// written. In its table "complete" counts sessions in which every answer was
// right all the same (a frame read that meets a fault is retried the slow way).
TEST_P(FaultInjectionTest, EveryStepOfAReadingSession) {
    CFaultTable table;
    CSessionStorage clean(GetParam(), m_dir, m_nCounter++);
    ASSERT_TRUE(WriteSession(clean.Storage(), SFault{}, kCompressionZlib).finalized);
    const CKvByteArray bytes = clean.Bytes();
    const std::string path = m_dir.File("read.qv8");
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.GetData()),
                                                static_cast<std::streamsize>(bytes.GetSize()));
    // What a session reads from: a copy in memory, or the file opened read-only.
    const auto open = [&](CKvByteArray& copy) -> std::shared_ptr<IKvStorage> {
        if (!GetParam()) return std::make_shared<CKvMemoryStorage>(copy);
        auto file = std::make_shared<CKvPosixStorage>();
        EXPECT_EQ(KV_OK, file->Open(path.c_str(), CKvPosixStorage::EKvOpenMode::ReadOnly));
        return file;
    };

    // `struckStep` gets the step whose reads met the fault.
    const auto session = [&](SFault fault, SRow& row, std::string& struckStep) {
        CKvByteArray copy(bytes);
        auto storage = std::make_shared<CFaultyStorage>(open(copy), fault);
        auto chunker = std::make_unique<CKvFileChunker>();
        CKvStringA version;
        std::vector<kv_result> failures;
        int readsBefore = 0;
        const auto note = [&](const char* step, kv_result r) {
            if (readsBefore <= fault.at && fault.at < storage->calls[kOpRead]) struckStep = step;
            readsBefore = storage->calls[kOpRead];
            if (r == KV_OK) return true;
            EXPECT_TRUE(IsDocumentedFailure(r)) << step << " answered " << r;
            failures.push_back(r);
            return false;
        };
        if (note("open", chunker->Initialize_Storage(storage, true, false, version))) {
            auto* reader = new CKvQV8InputFile_V03(nullptr, std::move(chunker));
            SKvImageAttributes a;
            if (note("attributes", reader->GetImageAttributes(a))) {
                EXPECT_EQ(kWidth, a.uiWidth);
                EXPECT_EQ(kFrameCount, a.uiSequenceCount);
            }
            SKvExperiment experiment;
            note("experiment", reader->GetImageMetadata(experiment, nullptr));
            SKvImageTextInfo info;
            if (note("text-info", reader->GetImageTextInfo(info))) {
                EXPECT_EQ(TextInfo(), info);
            }
            CKvByteArray custom;
            if (note("custom", reader->GetCustomData(L"Notes", custom))) {
                EXPECT_EQ(Pattern(5000, 9), Bytes(custom.GetData(), custom.GetData() + custom.GetSize()));
            }
            Bytes out(kWidth * kHeight);
            for (uint32_t i = 0; i < kFrameCount; ++i) {
                if (note("frame", reader->GetData(i, out.data(), nullptr, nullptr))) {
                    EXPECT_EQ(FramePixels(i), out) << "frame " << i;
                }
            }
            reader->Release();
        }
        EXPECT_EQ(0, storage->calls[kOpWrite] + storage->calls[kOpTruncate]);
        const std::string left = GetParam() ? ReadWholeFile(path)
                                            : std::string(reinterpret_cast<const char*>(copy.GetData()), copy.GetSize());
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes.GetData()), bytes.GetSize()), left);
        row.sessions = 1;
        if (!failures.empty()) ++row.failedAsDocumented;
        else ++row.complete;
        return storage->calls[kOpRead];
    };

    SRow unused;
    std::string none;
    const int reads = session(SFault{}, unused, none);
    ASSERT_GT(reads, 0);
    for (const auto& [op, kind] : FaultKinds(true)) {
        const std::string fault = std::string(kOpNames[op]) + "/" + FaultName(kind);
        for (int at = 0; at < reads; ++at) {
            SCOPED_TRACE(fault + " at call " + std::to_string(at));
            SRow row;
            std::string step = "none";
            session(SFault{op, kind, at}, row, step);
            table.Add(fault, step, row);
        }
    }
    table.Print(GetParam() ? "Reading session of a file" : "Reading session in memory");
}

// A failed sync is a failed Finalize, also when asked again.
TEST(DurabilityTest, AFailedSyncFailsFinalize) {
    CKvByteArray array;
    auto storage = std::make_shared<CFaultyStorage>(std::make_shared<CKvMemoryStorage>(array),
                                                    SFault{kOpSync, EFault::IoError, 0});
    auto chunker = std::make_unique<CKvFileChunker>();
    CKvStringA version("Ver3.0");
    ASSERT_EQ(KV_OK, chunker->Initialize_Storage(storage, false, false, version));
    auto* writer = new CKvQV8OutputFile_V03(nullptr, CKvStringW(L"faulty"), false, std::move(chunker));
    ASSERT_EQ(KV_OK, writer->SetImageAttributes(Attributes(kCompressionNone)));
    Bytes pixels = FramePixels(0);
    ASSERT_EQ(KV_OK, writer->FlushData(0, pixels.data(), nullptr, nullptr));
    EXPECT_EQ(KV_ERR_FAILED, writer->Finalize());
    EXPECT_EQ(KV_ERR_FAILED, writer->Finalize());
    writer->Release();
    EXPECT_EQ(1, storage->calls[kOpSync]);
}

// A new file's storage syncs it together with its directory entry; memory
// has nothing to sync and answers KV_OK.
TEST(DurabilityTest, StoragesSync) {
    CTestTempDir dir;
    CKvPosixStorage created, existing;
    ASSERT_EQ(KV_OK, created.Open(dir.File("new.bin").c_str(), CKvPosixStorage::EKvOpenMode::UpdateOrCreate));
    ASSERT_EQ(KV_OK, created.WriteAt(0, "abc", 3));
    EXPECT_EQ(KV_OK, created.Sync());
    EXPECT_EQ(KV_OK, created.Sync());
    ASSERT_EQ(KV_OK, created.Close());  // a second writer waits for the first
    ASSERT_EQ(KV_OK, existing.Open(dir.File("new.bin").c_str(), CKvPosixStorage::EKvOpenMode::UpdateOrCreate));
    EXPECT_EQ(KV_OK, existing.Sync());
    EXPECT_EQ("abc", ReadWholeFile(dir.File("new.bin")));
    existing.Close();
    EXPECT_EQ(KV_ERR_FAILED, existing.Sync());

    CKvByteArray array;
    CKvMemoryStorage memory(array);
    EXPECT_EQ(KV_OK, memory.Sync());
}

// ---- a real full disk ----

// A size-limited tmpfs mounted for one test and unmounted at its end.
class CSmallFileSystem {
public:
    explicit CSmallFileSystem(const std::string& dir) : m_strDir(dir) {
        if (geteuid() != 0) return;
        const std::string command = "mount -t tmpfs -o size=1m tmpfs '" + dir + "' 2>/dev/null";
        m_bMounted = std::system(command.c_str()) == 0;
    }
    ~CSmallFileSystem() {
        if (m_bMounted) ::umount(m_strDir.c_str());
    }
    bool IsMounted() const { return m_bMounted; }

private:
    std::string m_strDir;
    bool m_bMounted = false;
};

// Frames written until the disk is full: the failure is reported, and every
// frame acknowledged before it reads back, directly or after repair.
TEST(DurabilityTest, RealFullDisk) {
    CTestTempDir dir;
    ASSERT_TRUE(dir.IsValid());
    CSmallFileSystem fs(dir.Path());
    if (!fs.IsMounted()) GTEST_SKIP() << "needs root and a tmpfs mount to fill a real disk";

    constexpr uint32_t kBigWidth = 256, kBigHeight = 256;  // 64 KiB frames: about 16 fit
    const std::wstring path = dir.WideFile("full.qv8");
    auto chunker = std::make_unique<CKvFileChunker>();
    CKvStringA version("Ver3.0");
    ASSERT_EQ(KV_OK, chunker->Initialize_File(path.c_str(), false, false, version));
    auto* writer = new CKvQV8OutputFile_V03(nullptr, CKvStringW(path.c_str()), false, std::move(chunker));
    SKvImageAttributes a = Attributes(kCompressionNone);
    a.uiWidth = a.uiWidthBytes = kBigWidth;
    a.uiHeight = kBigHeight;
    ASSERT_EQ(KV_OK, writer->SetImageAttributes(a));
    uint32_t acknowledged = 0;
    kv_result r = KV_OK;
    for (; acknowledged < 64; ++acknowledged) {
        Bytes pixels = Pattern(kBigWidth * kBigHeight, static_cast<uint8_t>(acknowledged));
        r = writer->FlushData(acknowledged, pixels.data(), nullptr, nullptr);
        if (r != KV_OK) break;
    }
    EXPECT_EQ(KV_ERR_FAILED, r) << "the disk never filled";
    const kv_result finalized = writer->Finalize();
    EXPECT_TRUE(finalized == KV_OK || IsDocumentedFailure(finalized)) << finalized;
    writer->Release();
    RecordProperty("full-disk", "frames acknowledged=" + std::to_string(acknowledged) +
                                    " finalize=" + std::to_string(finalized));

    CKvFileChunker chunks;
    const kv_result opened = chunks.Initialize_File(path.c_str(), true, false, version);
    if (finalized == KV_OK) {
        ASSERT_EQ(KV_OK, opened);
    } else {
        ASSERT_TRUE(opened == KV_OK || opened == KV_ERR_NOT_FOUND) << opened;
        if (opened == KV_ERR_NOT_FOUND) {
            ASSERT_EQ(KV_OK, chunks.CreateMissingChunkMap(nullptr, nullptr, nullptr));
        }
    }
    for (uint32_t i = 0; i < acknowledged; ++i) {
        CKvByteArray data;
        ASSERT_EQ(KV_OK, chunks.GetChunk(data, FrameName(i).c_str())) << "frame " << i;
        const Bytes pixels(data.GetData() + kFramePrefixSize, data.GetData() + data.GetSize());
        EXPECT_EQ(Pattern(kBigWidth * kBigHeight, static_cast<uint8_t>(i)), pixels) << "frame " << i;
    }
    chunks.Finalize();
}

}  // namespace

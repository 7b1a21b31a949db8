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
constexpr size_t kFrameSize = kWidth * kHeight;

Bytes Pattern(size_t size, uint8_t seed) {
    Bytes b(size);
    for (size_t i = 0; i < size; ++i) b[i] = static_cast<uint8_t>(seed * 7 + (i * 31 + (i >> 6)) % 29);
    return b;
}

Bytes FramePixels(uint32_t index, size_t size = kFrameSize) { return Pattern(size, static_cast<uint8_t>(index + 1)); }
double FrameTime(uint32_t index) { return 0.25 + index; }

// ---- the faulty storage ----

enum EOp { kOpWrite, kOpSync, kOpTruncate, kOpRead, kOpCount };
const char* const kOpNames[kOpCount] = {"write", "sync", "truncate", "read"};

enum EFault {
    kDiskFull,  // nothing written, and the disk stays full
    kIoError,   // this one call fails, nothing changes
    kShort,     // a write lands in part, then the disk is full; a read returns half
};
const char* const kFaultNames[] = {"disk-full", "io-error", "short"};

// Where to strike: the `at`-th call (from 0) of `op`; -1 never.
struct SFault {
    EOp op = kOpWrite;
    EFault kind = kIoError;
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
        if (m_fault.kind != kShort) return KV_ERR_FAILED;
        // A read that comes up short as at the end of the storage.
        const auto half = Halved(spans, count);
        return m_pInner->ReadAt(position, half.data(), half.size(), read);
    }
    kv_result WriteAt(uint64_t position, const SKvIoPart* parts, size_t count, uint64_t* written) override {
        if (written) *written = 0;
        const bool strike = Strike(kOpWrite);
        if (!strike && !m_bDiskFull) return m_pInner->WriteAt(position, parts, count, written);
        struck = true;
        if (!strike || m_fault.kind == kIoError) return KV_ERR_FAILED;
        m_bDiskFull = true;
        if (m_fault.kind == kShort) {
            const auto half = Halved(parts, count);
            m_pInner->WriteAt(position, half.data(), half.size(), written);
        }
        return KV_ERR_FAILED;
    }
    kv_result Size(uint64_t* size) override { return m_pInner->Size(size); }
    kv_result Truncate(uint64_t size) override {
        uint64_t now = 0;
        const bool grows = m_pInner->Size(&now) == KV_OK && size > now;
        if (Strike(kOpTruncate) || (m_bDiskFull && grows)) return struck = true, KV_ERR_SET_EOF;
        return m_pInner->Truncate(size);
    }
    kv_result Sync() override {
        if (Strike(kOpSync)) return struck = true, KV_ERR_FAILED;
        return m_pInner->Sync();
    }
    kv_result Close() override { return m_pInner->Close(); }
    bool IsOpen() const override { return m_pInner->IsOpen(); }

    std::array<int, kOpCount> calls{};
    bool struck = false;  // a write, sync or cut failed

private:
    bool Strike(EOp op) { return calls[op]++ == m_fault.at && m_fault.op == op; }

    // The first half of the bytes the pieces cover.
    template <typename Piece>
    static std::vector<Piece> Halved(const Piece* pieces, size_t count) {
        std::vector<Piece> half(pieces, pieces + count);
        uint64_t keep = 0;
        for (const Piece& p : half) keep += p.size;
        keep /= 2;
        for (Piece& p : half) keep -= (p.size = std::min(p.size, keep));
        return half;
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

SKvImageAttributes Attributes(uint32_t compression, uint32_t width = kWidth, uint32_t height = kHeight) {
    SKvImageAttributes a;
    a.uiWidth = a.uiWidthBytes = width;
    a.uiHeight = height;
    a.uiComp = 1;
    a.uiBpcInMemory = a.uiBpcSignificant = 8;
    a.eCompression = compression;
    a.dCompressionParam = 6;
    return a;
}

SKvImageTextInfo TextInfo() {
    SKvImageTextInfo info;
    info.aItems[3] = L"description";
    return info;
}

// Opens a container for reading over `storage`.
kv_result OpenChunker(CKvFileChunker& chunks, std::shared_ptr<IKvStorage> storage) {
    CKvStringA version;
    return chunks.Initialize_Storage(std::move(storage), true, false, version);
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
    std::vector<std::pair<const char*, std::function<kv_result()>>> steps = {
        {"open", [&] { return opened; }},
        {"attributes", [&] { return writer->SetImageAttributes(Attributes(compression)); }},
        {"experiment", [&] { return writer->SetImageMetadata(experiment, nullptr); }},
        {"text-info", [&] { return writer->SetImageTextInfo(TextInfo()); }},
        {"frame", frame(0)},
        {"frame", frame(1)},
        {"binary", [&] { return writer->SetImageBinary(const_cast<CKvByteArray*>(&binary)); }},
        {"custom", [&] { return writer->SetCustomData(L"Notes", custom.data(), custom.size()); }},
    };
    for (uint32_t i = 2; i < kFrameCount; ++i) steps.push_back({"frame", frame(i)});
    steps.push_back({"finalize", [&] { return writer->Finalize(); }});

    s.finalized = true;
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
::testing::AssertionResult FrameIsIntact(CKvFileChunker& chunks, uint32_t index, uint32_t compression,
                                         size_t size) {
    const auto fail = [&](const char* what) { return ::testing::AssertionFailure() << "frame " << index << what; };
    CKvByteArray data;
    if (chunks.GetChunk(data, FrameName(index).c_str()) != KV_OK) return fail(" not read");
    if (data.GetSize() < kFramePrefixSize) return fail(" too short");
    if (kvbytes::LoadF64(data.GetData()) != FrameTime(index)) return fail(" lost its time");
    Bytes pixels(data.GetData() + kFramePrefixSize, data.GetData() + data.GetSize());
    if (compression == kCompressionZlib) {
        Bytes raw(size);
        uLongf inflated = raw.size();
        if (uncompress(raw.data(), &inflated, pixels.data(), pixels.size()) != Z_OK || inflated != raw.size())
            return fail(" does not inflate");
        pixels = raw;
    }
    return pixels == FramePixels(index, size) ? ::testing::AssertionSuccess() : fail(" differs");
}

enum EOutcome { kComplete, kRepaired, kEmpty };

// Opens `bytes` as a container (repairing it when its map is missing) and
// checks every acknowledged frame. Empty: not even a signature, which is
// only acceptable when no frame was acknowledged.
EOutcome CheckLeftBytes(const CKvByteArray& bytes, const SWriteSession& s, uint32_t compression,
                        size_t frameSize = kFrameSize) {
    CKvByteArray copy(bytes);
    CKvFileChunker chunks;
    const kv_result opened = OpenChunker(chunks, std::make_shared<CKvMemoryStorage>(copy));
    EOutcome outcome = kComplete;
    if (opened == KV_ERR_NOT_FOUND && chunks.IsChunkMapMissing()) {
        EXPECT_FALSE(s.finalized) << "Finalize answered KV_OK for a file without its map";
        // Repair rebuilds the map from the chunks themselves.
        EXPECT_EQ(KV_OK, chunks.CreateMissingChunkMap(nullptr, nullptr, nullptr));
        outcome = kRepaired;
    } else if (opened != KV_OK) {
        EXPECT_TRUE(s.acknowledged.empty()) << "frames acknowledged into a file that is no container";
        EXPECT_FALSE(s.finalized);
        return kEmpty;
    }
    for (uint32_t i : s.acknowledged) EXPECT_TRUE(FrameIsIntact(chunks, i, compression, frameSize));
    return outcome;
}

// A finalized file with `frames` frames, read through the image reader:
// frame count and every frame.
void ExpectReadable(const CKvByteArray& bytes, uint32_t frames) {
    CKvByteArray copy(bytes);
    auto chunker = std::make_unique<CKvFileChunker>();
    ASSERT_EQ(KV_OK, OpenChunker(*chunker, std::make_shared<CKvMemoryStorage>(copy)));
    auto* reader = new CKvQV8InputFile_V03(nullptr, std::move(chunker));
    // Attributes are written with the first frame: a file finalized before
    // any frame made it may have none.
    SKvImageAttributes a;
    const kv_result attributes = reader->GetImageAttributes(a);
    EXPECT_TRUE(!frames || attributes == KV_OK) << attributes;
    if (attributes == KV_OK) { EXPECT_EQ(frames, a.uiSequenceCount); }
    Bytes out(kFrameSize);
    for (uint32_t i = 0; i < frames; ++i) {
        EXPECT_EQ(KV_OK, reader->GetData(i, out.data(), nullptr, nullptr));
        EXPECT_EQ(FramePixels(i), out) << "frame " << i;
    }
    reader->Release();
}

// ---- the table of outcomes ----

// Per fault and step: sessions, sessions failed with documented codes, and
// what was left: complete, repaired, empty.
enum EColumn { kSessions, kFailed, kCompleteCol, kRepairedCol, kEmptyCol, kColumns };
const char* const kColumnNames[kColumns] = {"sessions", "failed", "complete", "repaired", "empty"};
using SRow = std::array<int, kColumns>;

class CFaultTable {
public:
    void Add(const std::string& fault, const std::string& step, const SRow& r) {
        SRow& row = m_rows[{fault, step}];
        for (int c = 0; c < kColumns; ++c) row[c] += r[c];
    }
    // One line per fault and step, printed and kept as test properties.
    void Print(const char* title) const {
        std::printf("%s\n%-26s %-11s", title, "fault", "step");
        for (const char* name : kColumnNames) std::printf(" %8s", name);
        for (const auto& [key, r] : m_rows) {
            std::printf("\n%-26s %-11s", key.first.c_str(), key.second.c_str());
            std::string value;
            for (int c = 0; c < kColumns; ++c) {
                std::printf(" %8d", r[c]);
                value += std::string(c ? " " : "") + kColumnNames[c] + "=" + std::to_string(r[c]);
            }
            ::testing::Test::RecordProperty(key.first + "@" + key.second, value);
        }
        std::printf("\n");
    }

private:
    std::map<std::pair<std::string, std::string>, SRow> m_rows;
};

// Runs `session` with each fault on each call of its kind, `calls` giving how
// many calls of each kind a clean session makes, and tabulates the rows.
void EveryFault(const std::vector<std::pair<EOp, EFault>>& faults, const std::array<int, kOpCount>& calls,
                CFaultTable& table, const std::function<SRow(SFault, std::string&)>& session) {
    for (const auto& [op, kind] : faults) {
        const std::string fault = std::string(kOpNames[op]) + "/" + kFaultNames[kind];
        for (int at = 0; at < calls[op]; ++at) {
            SCOPED_TRACE(fault + " at call " + std::to_string(at));
            std::string step = "none";
            const SRow row = session(SFault{op, kind, at}, step);
            table.Add(fault, step, row);
        }
    }
}

std::string Text(const CKvByteArray& bytes) {
    return std::string(reinterpret_cast<const char*>(bytes.GetData()), bytes.GetSize());
}

// The storage a session runs on: memory, or a file in `dir`; new and empty,
// or holding `content` and opened read-only.
class CSessionStorage {
public:
    CSessionStorage(bool file, const CTestTempDir& dir, int counter, const CKvByteArray* content = nullptr)
        : m_bFile(file) {
        if (content) m_array = *content;
        if (!file) {
            m_pStorage = std::make_shared<CKvMemoryStorage>(m_array);
            return;
        }
        using Mode = CKvPosixStorage::EKvOpenMode;
        m_strPath = dir.File(("s" + std::to_string(counter) + ".qv8").c_str());
        if (content) std::ofstream(m_strPath, std::ios::binary) << Text(*content);
        auto posix = std::make_shared<CKvPosixStorage>();
        EXPECT_EQ(KV_OK, posix->Open(m_strPath.c_str(), content ? Mode::ReadOnly : Mode::UpdateOrCreate));
        m_pStorage = posix;
    }
    std::shared_ptr<IKvStorage> Storage() const { return m_pStorage; }
    // What the storage holds afterwards.
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

        const std::vector<std::pair<EOp, EFault>> faults = {{kOpWrite, kDiskFull}, {kOpWrite, kIoError},
                                                            {kOpWrite, kShort},    {kOpSync, kIoError},
                                                            {kOpTruncate, kIoError}, {kOpRead, kIoError}};
        EveryFault(faults, reference.calls, table, [&](SFault fault, std::string& step) {
            CSessionStorage storage(GetParam(), m_dir, m_nCounter++);
            const SWriteSession s = WriteSession(storage.Storage(), fault, compression);
            // A write, sync or cut that failed is never swallowed.
            EXPECT_TRUE(!s.struck || !s.failures.empty()) << "a storage failure went unreported";
            // Nor is a failed sync forgotten by the Finalize asked again.
            EXPECT_TRUE(fault.op != kOpSync || !s.finalized) << "Finalize after a failed sync answered KV_OK";
            for (kv_result r : s.failures) EXPECT_TRUE(IsDocumentedFailure(r)) << "answered " << r;
            const bool documented = std::all_of(s.failures.begin(), s.failures.end(), IsDocumentedFailure);
            SRow row{1, !s.failures.empty() && documented};
            const CKvByteArray bytes = storage.Bytes();
            ++row[kCompleteCol + CheckLeftBytes(bytes, s, compression)];
            // Frames are written in order, so the acknowledged ones are 0 to n-1.
            if (s.finalized) ExpectReadable(bytes, static_cast<uint32_t>(s.acknowledged.size()));
            if (!s.failures.empty()) step = s.failedStep;
            return row;
        });
    }
    table.Print(GetParam() ? "Writing session on a file" : "Writing session in memory");
}

// A fault at any read of a reading session: each call answers the right
// content or a negative code, later calls are not disturbed, and nothing is
// written. In its table "complete" counts sessions in which every answer was
// right all the same (a frame read that meets a fault is retried the slow way).
TEST_P(FaultInjectionTest, EveryStepOfAReadingSession) {
    CSessionStorage clean(GetParam(), m_dir, m_nCounter++);
    ASSERT_TRUE(WriteSession(clean.Storage(), SFault{}, kCompressionZlib).finalized);
    const CKvByteArray bytes = clean.Bytes();

    // `struckStep` gets the step whose reads met the fault; `reads` the reads made.
    int reads = 0;
    const auto session = [&](SFault fault, std::string& struckStep) {
        CSessionStorage original(GetParam(), m_dir, m_nCounter++, &bytes);
        auto storage = std::make_shared<CFaultyStorage>(original.Storage(), fault);
        auto chunker = std::make_unique<CKvFileChunker>();
        bool failed = false;
        int readsBefore = 0;
        const auto note = [&](const char* step, kv_result r) {
            if (readsBefore <= fault.at && fault.at < storage->calls[kOpRead]) struckStep = step;
            readsBefore = storage->calls[kOpRead];
            if (r == KV_OK) return true;
            EXPECT_TRUE(IsDocumentedFailure(r)) << step << " answered " << r;
            failed = true;
            return false;
        };
        if (note("open", OpenChunker(*chunker, storage))) {
            auto* reader = new CKvQV8InputFile_V03(nullptr, std::move(chunker));
            SKvImageAttributes a;
            if (note("attributes", reader->GetImageAttributes(a))) {
                EXPECT_EQ(kWidth, a.uiWidth);
                EXPECT_EQ(kFrameCount, a.uiSequenceCount);
            }
            SKvExperiment experiment;
            note("experiment", reader->GetImageMetadata(experiment, nullptr));
            SKvImageTextInfo info;
            if (note("text-info", reader->GetImageTextInfo(info))) { EXPECT_EQ(TextInfo(), info); }
            CKvByteArray custom;
            if (note("custom", reader->GetCustomData(L"Notes", custom))) {
                EXPECT_EQ(Pattern(5000, 9), Bytes(custom.GetData(), custom.GetData() + custom.GetSize()));
            }
            Bytes out(kFrameSize);
            for (uint32_t i = 0; i < kFrameCount; ++i) {
                if (note("frame", reader->GetData(i, out.data(), nullptr, nullptr))) {
                    EXPECT_EQ(FramePixels(i), out) << "frame " << i;
                }
            }
            reader->Release();
        }
        EXPECT_EQ(0, storage->calls[kOpWrite] + storage->calls[kOpTruncate]);
        EXPECT_EQ(Text(bytes), Text(original.Bytes()));
        reads = storage->calls[kOpRead];
        return SRow{1, failed, !failed};
    };

    std::string none;
    session(SFault{}, none);
    ASSERT_GT(reads, 0);
    CFaultTable table;
    std::array<int, kOpCount> calls{};
    calls[kOpRead] = reads;
    EveryFault({{kOpRead, kIoError}, {kOpRead, kShort}}, calls, table, session);
    table.Print(GetParam() ? "Reading session of a file" : "Reading session in memory");
}

// ---- a real full disk ----

// A size-limited tmpfs mounted for one test and unmounted at its end.
struct SSmallFileSystem {
    std::string dir;
    bool mounted = geteuid() == 0 &&
                   std::system(("mount -t tmpfs -o size=1m tmpfs '" + dir + "' 2>/dev/null").c_str()) == 0;
    ~SSmallFileSystem() {
        if (mounted) ::umount(dir.c_str());
    }
};

// Frames written until the disk is full: the failure is reported, and every
// frame acknowledged before it reads back, directly or after repair.
TEST(DurabilityTest, RealFullDisk) {
    CTestTempDir dir;
    ASSERT_TRUE(dir.IsValid());
    const SSmallFileSystem fs{dir.Path()};
    if (!fs.mounted) GTEST_SKIP() << "needs root and a tmpfs mount to fill a real disk";

    constexpr uint32_t kBigSide = 256;  // 64 KiB frames: about 16 fit
    const std::wstring path = dir.WideFile("full.qv8");
    auto chunker = std::make_unique<CKvFileChunker>();
    CKvStringA version("Ver3.0");
    ASSERT_EQ(KV_OK, chunker->Initialize_File(path.c_str(), false, false, version));
    auto* writer = new CKvQV8OutputFile_V03(nullptr, CKvStringW(path.c_str()), false, std::move(chunker));
    ASSERT_EQ(KV_OK, writer->SetImageAttributes(Attributes(kCompressionNone, kBigSide, kBigSide)));
    SWriteSession s;
    kv_result r = KV_OK;
    for (uint32_t i = 0; r == KV_OK && i < 64; ++i) {
        Bytes pixels = FramePixels(i, kBigSide * kBigSide);
        if ((r = writer->SetAcqTime(FrameTime(i))) == KV_OK &&
            (r = writer->FlushData(i, pixels.data(), nullptr, nullptr)) == KV_OK)
            s.acknowledged.push_back(i);
    }
    EXPECT_EQ(KV_ERR_FAILED, r) << "the disk never filled";
    const kv_result finalized = writer->Finalize();
    s.finalized = finalized == KV_OK;
    EXPECT_TRUE(s.finalized || IsDocumentedFailure(finalized)) << finalized;
    writer->Release();
    RecordProperty("full-disk", "frames acknowledged=" + std::to_string(s.acknowledged.size()) +
                                    " finalize=" + std::to_string(finalized));
    const std::string left = ReadWholeFile(dir.File("full.qv8"));
    CheckLeftBytes(CKvByteArray(left.data(), left.size()), s, kCompressionNone, kBigSide * kBigSide);
}

}  // namespace

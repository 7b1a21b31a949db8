// Files whose writer stopped part way (cut at chosen bytes, or a writer
// process killed) are repaired and must then read like files closed
// normally: the frame count, every whole frame, the times, the metadata.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "../TestSupport.h"
#include "fileformat/CKvFileChunker.h"
#include "fileformat/CKvImageFormatQV8.h"
#include "fileformat/QV8Layout.h"
#include "gnr_system/KvBytes.h"

namespace {

namespace fs = std::filesystem;

SKvImageAttributes Shape(uint32_t compression) {
    SKvImageAttributes a;
    a.uiWidth = 40;
    a.uiHeight = 30;
    a.uiComp = 1;
    a.uiBpcInMemory = a.uiBpcSignificant = 16;
    a.uiWidthBytes = 80;
    a.eCompression = compression;
    a.dCompressionParam = 4;
    return a;
}

std::vector<uint8_t> Frame(const SKvImageAttributes& a, uint32_t index) {
    std::vector<uint8_t> pixels(a.FrameSize());
    uint32_t state = 777 + index;
    for (size_t i = 0; i < pixels.size(); ++i) {
        state = state * 1103515245 + 12345;
        pixels[i] = static_cast<uint8_t>(i / 5 + index * 11 + ((state >> 16) & 7));
    }
    return pixels;
}

// Frame 0 at time 0.0, as a relative clock starts: still a time.
double TimeOf(uint32_t index) { return 250.0 * index; }

struct SPlan {
    const char* version = "Ver3.0";
    uint32_t compression = kCompressionNone;
    std::vector<uint32_t> frames = {0, 1, 2, 3, 4};  // in writing order
    bool timed = true;
};

// Starts a file through the format's writer; a version other than 3 is set
// by an empty container the writer appends to.
IKvOutputImageFile* StartFile(const std::wstring& path, const SPlan& plan) {
    if (std::string(plan.version) != "Ver3.0") {
        CKvFileChunker empty;
        CKvStringA version(plan.version);
        EXPECT_EQ(KV_OK, empty.Initialize_File(path.c_str(), false, false, version));
        EXPECT_EQ(KV_OK, empty.Finalize());
    }
    IKvOutputImageFile* out = nullptr;
    EXPECT_EQ(KV_OK, CKvImageFormatQV8::Shared()->CreateOutputImageFile(CKvStringW(path.c_str()), out));
    if (!out) return nullptr;
    EXPECT_EQ(KV_OK, out->SetImageAttributes(Shape(plan.compression)));
    SKvImageTextInfo info;
    info.aItems[2] = L"written before the first frame";
    EXPECT_EQ(KV_OK, out->SetImageTextInfo(info));
    SKvPictureMetadata meta;
    meta.dTimeAbsolute = std::nan("");  // no time for frame 0 here
    meta.wsObjectiveName = L"20x";
    EXPECT_EQ(KV_OK, out->SetImageMetadata(0, meta, nullptr));
    return out;
}

kv_result WriteFrame(IKvOutputImageFile* out, const SPlan& plan, uint32_t index) {
    std::vector<uint8_t> pixels = Frame(Shape(plan.compression), index);
    if (plan.timed) {
        // Given with the frame's metadata: SetAcqTime would give it to the
        // frame after the highest written, wrong for frames out of order.
        SKvPictureMetadata meta;
        meta.dTimeAbsolute = TimeOf(index);
        meta.wsObjectiveName = L"20x";
        const kv_result r = out->SetImageMetadata(index, meta, nullptr);
        if (r != KV_OK) return r;
    }
    return out->FlushData(index, pixels.data(), nullptr, nullptr);
}

// Writes every frame of the plan and leaves the file unfinished.
void WriteUnfinished(const std::wstring& path, const SPlan& plan) {
    IKvOutputImageFile* out = StartFile(path, plan);
    ASSERT_NE(nullptr, out);
    for (uint32_t index : plan.frames) ASSERT_EQ(KV_OK, WriteFrame(out, plan, index));
    out->Release();
}

struct SChunkAt {
    std::string name;
    uint64_t position;
};

// The chunks of a file in file order, read from their headers alone.
std::vector<SChunkAt> ChunksOf(const std::string& path) {
    const std::string bytes = ReadWholeFile(path);
    std::vector<SChunkAt> chunks;
    for (uint64_t at = kPageSize; at + kChunkHeaderSize <= bytes.size();) {
        const uint8_t* h = reinterpret_cast<const uint8_t*>(bytes.data() + at);
        if (kvbytes::LoadU32(h) != kChunkMagic) break;
        const uint32_t nameLength = kvbytes::LoadU32(h + 4);
        const uint64_t end = at + kChunkHeaderSize + nameLength + kvbytes::LoadU64(h + 8);
        const std::string field = bytes.substr(at + kChunkHeaderSize, nameLength);
        chunks.push_back({field.substr(0, field.find('\0')), at});
        at = (end + kPageSize - 1) / kPageSize * kPageSize;
    }
    return chunks;
}

uint64_t PositionOf(const std::string& path, const std::string& name) {
    for (const SChunkAt& c : ChunksOf(path))
        if (c.name == name) return c.position;
    ADD_FAILURE() << "no chunk " << name;
    return 0;
}

std::string FrameName(uint32_t index) { return SKvFrameChunkName(index).c_str(); }

SKvQV8RepairReport Repair(const std::wstring& path) {
    SKvQV8RepairReport report;
    EXPECT_EQ(KV_OK, CKvImageFormatQV8::RepairFile(path.c_str(), report, nullptr, nullptr));
    return report;
}

bool HasTimeChunk(const std::wstring& path) {
    CKvFileChunker chunker;
    CKvStringA version;
    EXPECT_EQ(KV_OK, chunker.Initialize_File(path.c_str(), true, false, version));
    return chunker.ExistChunk(kChunkAcqTimes);
}

// The repaired file reads as a finished one with frames 0 .. count - 1,
// those in `absent` excepted.
void ExpectReadable(const std::wstring& path, const SPlan& plan, uint32_t count,
                    const std::vector<uint32_t>& absent = {}) {
    IKvInputImageFile* in = nullptr;
    ASSERT_EQ(KV_OK, CKvImageFormatQV8::Shared()->CreateInputImageFile(CKvStringW(path.c_str()), in));
    SKvImageAttributes a;
    ASSERT_EQ(KV_OK, in->GetImageAttributes(a));
    EXPECT_EQ(count, a.uiSequenceCount);
    EXPECT_EQ(plan.compression, a.eCompression);
    SKvImageTextInfo info;
    EXPECT_EQ(KV_OK, in->GetImageTextInfo(info));
    EXPECT_EQ(CKvStringW(L"written before the first frame"), info.aItems[2]);
    std::vector<uint8_t> back(a.FrameSize());
    for (uint32_t i = 0; i <= count; ++i) {
        const bool gone = i == count || std::find(absent.begin(), absent.end(), i) != absent.end();
        if (gone) {
            EXPECT_EQ(KV_ERR_NOT_FOUND, in->GetData(i, back.data(), nullptr, nullptr)) << i;
            continue;
        }
        ASSERT_EQ(KV_OK, in->GetData(i, back.data(), nullptr, nullptr)) << i;
        EXPECT_TRUE(back == Frame(a, i)) << i;
        SKvPictureMetadata meta;
        ASSERT_EQ(KV_OK, in->GetImageMetadata(i, meta, nullptr));
        if (plan.timed) {
            EXPECT_EQ(TimeOf(i), meta.dTimeAbsolute) << i;
        }
    }
    in->Release();
    EXPECT_EQ(plan.timed && count > 0, HasTimeChunk(path));
}

}  // namespace

// One unfinished file per encoding, cut at every kind of place; the frames
// before the cut come back, the one it runs through does not.
TEST(QV8Repair, FileCutAnywhereKeepsTheFramesBeforeTheCut) {
    CTestTempDir dir;
    for (const SPlan& plan : {SPlan{}, SPlan{"Ver3.0", kCompressionZlib}, SPlan{"Ver2.0", kCompressionZlib},
                             SPlan{"Ver2.0", kCompressionNone}}) {
        SCOPED_TRACE(std::string(plan.version) + (plan.compression == kCompressionZlib ? " zlib" : " raw"));
        const std::string whole = dir.File("whole.qv8");
        const std::wstring wholeW = dir.WideFile("whole.qv8");
        fs::remove(whole);
        WriteUnfinished(wholeW, plan);
        const uint64_t frame3 = PositionOf(whole, FrameName(3));
        const uint64_t size = fs::file_size(whole);

        struct SCut {
            uint64_t at;
            uint32_t frames;
        };
        for (const SCut cut : {SCut{size, 5}, SCut{frame3 + 8, 3}, SCut{frame3 + kChunkHeaderSize + 5, 3},
                               SCut{frame3 + kPageSize - 3, 3}, SCut{frame3 + kPageSize + 100, 3},
                               SCut{PositionOf(whole, FrameName(0)), 0}}) {
            SCOPED_TRACE("cut at " + std::to_string(cut.at));
            const std::string path = dir.File("cut.qv8");
            fs::copy_file(whole, path, fs::copy_options::overwrite_existing);
            fs::resize_file(path, cut.at);
            const std::wstring pathW = dir.WideFile("cut.qv8");
            const SKvQV8RepairReport report = Repair(pathW);
            EXPECT_FALSE(report.bHadChunkMap);
            EXPECT_TRUE(report.bAttributesFound);
            EXPECT_EQ(0u, report.uiStoredSequenceCount);
            EXPECT_EQ(cut.frames, report.uiFramesRecovered);
            EXPECT_EQ(cut.frames, report.uiSequenceCount);
            EXPECT_EQ(cut.frames > 0, report.bAttributesRewritten);
            EXPECT_EQ(cut.frames, report.uiTimedFrames);
            EXPECT_TRUE(report.aMissingFrames.empty());
            ExpectReadable(pathW, plan, cut.frames);
            EXPECT_TRUE(Repair(pathW).bHadChunkMap) << "a second repair changes nothing";
        }

        // Cut inside the header data: the attributes are lost, the map is not.
        const std::string path = dir.File("header.qv8");
        fs::copy_file(whole, path, fs::copy_options::overwrite_existing);
        fs::resize_file(path, PositionOf(whole, FrameName(0)) - kPageSize + 20);
        const SKvQV8RepairReport report = Repair(dir.WideFile("header.qv8"));
        EXPECT_FALSE(report.bAttributesFound);
        EXPECT_EQ(0u, report.uiFramesRecovered);
        IKvInputImageFile* in = nullptr;
        ASSERT_EQ(KV_OK, CKvImageFormatQV8::Shared()->CreateInputImageFile(dir.WideFile("header.qv8").c_str(), in));
        in->Release();
    }
}

// A finished file cut just before its map still holds the attributes and
// times its close wrote; frames written out of order leave a gap that is
// reported and reads as not found; frames without times get no time chunk.
TEST(QV8Repair, CountTimesAndGaps) {
    CTestTempDir dir;
    {
        SPlan plan;
        const std::wstring path = dir.WideFile("closed.qv8");
        IKvOutputImageFile* out = StartFile(path, plan);
        ASSERT_NE(nullptr, out);
        for (uint32_t index : plan.frames) ASSERT_EQ(KV_OK, WriteFrame(out, plan, index));
        ASSERT_EQ(KV_OK, out->Finalize());
        out->Release();
        const std::string file = dir.File("closed.qv8");
        fs::resize_file(file, PositionOf(file, std::string(kChunkMapChunkName)));
        const SKvQV8RepairReport report = Repair(path);
        EXPECT_EQ(5u, report.uiStoredSequenceCount);
        EXPECT_EQ(5u, report.uiFramesRecovered);
        ExpectReadable(path, plan, 5);
    }
    {
        SPlan plan;
        plan.frames = {0, 1, 3, 6, 4};
        const std::wstring path = dir.WideFile("gap.qv8");
        WriteUnfinished(path, plan);
        const SKvQV8RepairReport report = Repair(path);
        EXPECT_EQ(7u, report.uiSequenceCount);
        EXPECT_EQ(5u, report.uiFramesRecovered);
        EXPECT_EQ((std::vector<uint32_t>{2, 5}), report.aMissingFrames);
        EXPECT_EQ(5u, report.uiTimedFrames);
        ExpectReadable(path, plan, 7, {2, 5});
        // The missing frames have the writer's mark for "no time".
        CKvFileChunker chunker;
        CKvStringA version;
        ASSERT_EQ(KV_OK, chunker.Initialize_File(path.c_str(), true, false, version));
        CKvByteArray times;
        ASSERT_EQ(KV_OK, chunker.GetChunk(times, kChunkAcqTimes));
        ASSERT_EQ(7 * sizeof(double), times.GetSize());
        EXPECT_EQ(-1.0, kvbytes::LoadF64(times.GetData() + 2 * sizeof(double)));
        EXPECT_EQ(TimeOf(6), kvbytes::LoadF64(times.GetData() + 6 * sizeof(double)));
    }
    {
        SPlan plan;
        plan.timed = false;
        plan.compression = kCompressionZlib;
        const std::wstring path = dir.WideFile("untimed.qv8");
        WriteUnfinished(path, plan);
        const SKvQV8RepairReport report = Repair(path);
        EXPECT_EQ(5u, report.uiFramesRecovered);
        EXPECT_EQ(0u, report.uiTimedFrames);
        EXPECT_FALSE(report.bAcqTimesRewritten);
        ExpectReadable(path, plan, 5);
    }
}

// A frame chunk that is complete as a chunk but not a whole frame: a raw one
// whose data is too short, a compressed one whose stream does not inflate.
// The last such frame is dropped; one below the count is reported damaged.
TEST(QV8Repair, FramesThatAreNotWholeAreNotCounted) {
    CTestTempDir dir;
    for (const uint32_t compression : {kCompressionNone, kCompressionZlib}) {
        SPlan plan;
        plan.compression = compression;
        const std::string file = dir.File("damaged.qv8");
        const std::wstring path = dir.WideFile("damaged.qv8");
        fs::remove(file);
        WriteUnfinished(path, plan);
        for (uint32_t index : {1u, 4u}) {
            const uint64_t at = PositionOf(file, FrameName(index));
            std::fstream f(file, std::ios::in | std::ios::out | std::ios::binary);
            if (compression == kCompressionNone) {
                // One byte short of the frame: the chunk reads, the frame does not.
                uint8_t length[8];
                kvbytes::StoreU64(length, kFramePrefixSize + Shape(compression).FrameSize() - 1);
                f.seekp(static_cast<std::streamoff>(at + 8));
                f.write(reinterpret_cast<const char*>(length), sizeof length);
            } else {
                f.seekp(static_cast<std::streamoff>(at + kPageSize + 40));
                f.write("\xFF\xFF\xFF\xFF", 4);
            }
        }
        const SKvQV8RepairReport report = Repair(path);
        EXPECT_EQ(4u, report.uiSequenceCount);
        EXPECT_EQ(3u, report.uiFramesRecovered);
        EXPECT_EQ((std::vector<uint32_t>{1, 4}), report.aTornFrames);
        IKvInputImageFile* in = nullptr;
        ASSERT_EQ(KV_OK, CKvImageFormatQV8::Shared()->CreateInputImageFile(CKvStringW(path.c_str()), in));
        std::vector<uint8_t> back(Shape(compression).FrameSize());
        for (uint32_t i : {0u, 2u, 3u}) {
            ASSERT_EQ(KV_OK, in->GetData(i, back.data(), nullptr, nullptr)) << i;
            EXPECT_TRUE(back == Frame(Shape(compression), i)) << i;
        }
        EXPECT_NE(KV_OK, in->GetData(1, back.data(), nullptr, nullptr));
        in->Release();
    }
}

// A writer process killed with SIGKILL: every frame whose FlushData returned
// is recovered. The child reports each such frame on a pipe; it either
// waits after frame `stopAfter` (killed between frames) or writes on (killed
// wherever it is, likely inside a frame).
TEST(QV8Repair, WriterKilledMidRun) {
    CTestTempDir dir;
    struct SCase {
        uint32_t compression;
        uint32_t killAfter;
        bool waitThere;
    };
    for (const SCase c : {SCase{kCompressionNone, 3, true}, SCase{kCompressionZlib, 6, true},
                          SCase{kCompressionNone, 4, false}, SCase{kCompressionZlib, 9, false}}) {
        SCOPED_TRACE(std::to_string(c.compression) + " after " + std::to_string(c.killAfter));
        const std::wstring path = dir.WideFile("killed.qv8");
        fs::remove(dir.File("killed.qv8"));
        SPlan plan;
        plan.compression = c.compression;
        int reports[2], hold[2];
        ASSERT_EQ(0, pipe(reports));
        ASSERT_EQ(0, pipe(hold));
        const pid_t child = fork();
        ASSERT_NE(-1, child);
        if (child == 0) {
            close(reports[0]);
            close(hold[1]);
            IKvOutputImageFile* out = StartFile(path, plan);
            for (uint32_t i = 0; out && i < 1000; ++i) {
                if (WriteFrame(out, plan, i) != KV_OK) _exit(1);
                if (write(reports[1], &i, sizeof i) != sizeof i) _exit(1);
                if (c.waitThere && i + 1 == c.killAfter) break;
            }
            char never;
            while (read(hold[0], &never, 1) != 0) {}  // killed here, or while writing
            _exit(1);
        }
        close(reports[1]);
        close(hold[0]);
        uint32_t returned = 0, index = 0;
        while (returned < c.killAfter && read(reports[0], &index, sizeof index) == sizeof index) ++returned;
        ASSERT_EQ(c.killAfter, returned);
        kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status));
        // Frames reported between the last read and the kill returned too.
        while (read(reports[0], &index, sizeof index) == sizeof index) ++returned;
        close(reports[0]);
        close(hold[1]);

        const SKvQV8RepairReport report = Repair(path);
        if (c.waitThere) {
            EXPECT_EQ(returned, report.uiFramesRecovered);
        }
        // A frame may be whole on disk before FlushData returned.
        EXPECT_GE(report.uiFramesRecovered, returned);
        EXPECT_LE(report.uiFramesRecovered, returned + 1);
        EXPECT_TRUE(report.aMissingFrames.empty());
        ExpectReadable(path, plan, report.uiFramesRecovered);
    }
}

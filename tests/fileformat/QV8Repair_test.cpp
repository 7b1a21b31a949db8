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
    bool finish = false;  // closed normally (then cut before its map)
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

// Writes every frame of the plan and, unless the plan finishes it, leaves
// the file unfinished.
void WriteFile(const std::wstring& path, const SPlan& plan) {
    IKvOutputImageFile* out = StartFile(path, plan);
    ASSERT_NE(nullptr, out);
    for (uint32_t index : plan.frames) ASSERT_EQ(KV_OK, WriteFrame(out, plan, index));
    if (plan.finish) {
        EXPECT_EQ(KV_OK, out->Finalize());
    }
    out->Release();
}

// Where the chunk `name` starts, found by walking the chunk headers alone.
uint64_t PositionOf(const std::string& path, const std::string& name) {
    const std::string bytes = ReadWholeFile(path);
    for (uint64_t at = kPageSize; at + kChunkHeaderSize <= bytes.size();) {
        const uint8_t* h = reinterpret_cast<const uint8_t*>(bytes.data() + at);
        if (kvbytes::LoadU32(h) != kChunkMagic) break;
        const uint32_t nameLength = kvbytes::LoadU32(h + 4);
        const std::string field = bytes.substr(at + kChunkHeaderSize, nameLength);
        if (field.substr(0, field.find('\0')) == name) return at;
        const uint64_t end = at + kChunkHeaderSize + nameLength + kvbytes::LoadU64(h + 8);
        at = (end + kPageSize - 1) / kPageSize * kPageSize;
    }
    ADD_FAILURE() << "no chunk " << name;
    return 0;
}

std::string FrameName(uint32_t index) { return SKvFrameChunkName(index).c_str(); }

SKvQV8RepairReport Repair(const std::wstring& path) {
    SKvQV8RepairReport report;
    EXPECT_EQ(KV_OK, CKvImageFormatQV8::RepairFile(path.c_str(), report, nullptr, nullptr));
    return report;
}

// The repaired file reads as a finished one with frames 0 .. count - 1,
// those in `absent` excepted; in the times chunk, which a file has when it
// has timed frames, those carry the writer's mark for "no time".
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
        if (i == count || std::find(absent.begin(), absent.end(), i) != absent.end()) {
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
    CKvFileChunker chunker;
    CKvStringA version;
    ASSERT_EQ(KV_OK, chunker.Initialize_File(path.c_str(), true, false, version));
    CKvByteArray times;
    ASSERT_EQ(plan.timed && count > 0, chunker.GetChunk(times, kChunkAcqTimes) == KV_OK);
    if (!plan.timed || !count) return;
    ASSERT_EQ(count * sizeof(double), times.GetSize());
    for (uint32_t i : absent) EXPECT_EQ(-1.0, kvbytes::LoadF64(times.GetData() + i * sizeof(double))) << i;
}

}  // namespace

// One unfinished file per encoding, cut at every kind of place; the frames
// before the cut come back, the one it runs through does not. Cut inside the
// header data, the attributes are lost but the file still gets its map.
TEST(QV8Repair, FileCutAnywhereKeepsTheFramesBeforeTheCut) {
    CTestTempDir dir;
    const std::string whole = dir.File("whole.qv8"), path = dir.File("cut.qv8");
    const std::wstring pathW = dir.WideFile("cut.qv8");
    for (const SPlan& plan : {SPlan{}, SPlan{"Ver3.0", kCompressionZlib}, SPlan{"Ver2.0", kCompressionZlib},
                             SPlan{"Ver2.0", kCompressionNone}}) {
        SCOPED_TRACE(std::string(plan.version) + (plan.compression == kCompressionZlib ? " zlib" : " raw"));
        fs::remove(whole);
        WriteFile(dir.WideFile("whole.qv8"), plan);
        const uint64_t frame0 = PositionOf(whole, FrameName(0)), frame3 = PositionOf(whole, FrameName(3));
        struct SCut {
            uint64_t at;
            uint32_t frames;
            bool attributes;
        };
        for (const SCut cut : {SCut{fs::file_size(whole), 5, true}, SCut{frame3 + 8, 3, true},
                               SCut{frame3 + kChunkHeaderSize + 5, 3, true}, SCut{frame3 + kPageSize - 3, 3, true},
                               SCut{frame3 + kPageSize + 100, 3, true}, SCut{frame0, 0, true},
                               SCut{frame0 - kPageSize + 20, 0, false}}) {
            SCOPED_TRACE("cut at " + std::to_string(cut.at));
            fs::copy_file(whole, path, fs::copy_options::overwrite_existing);
            fs::resize_file(path, cut.at);
            const SKvQV8RepairReport report = Repair(pathW);
            EXPECT_FALSE(report.bHadChunkMap);
            EXPECT_EQ(cut.attributes, report.bAttributesFound);
            EXPECT_EQ(0u, report.uiStoredSequenceCount);
            EXPECT_EQ(cut.frames, report.uiFramesRecovered);
            EXPECT_EQ(cut.frames, report.uiSequenceCount);
            EXPECT_EQ(cut.frames > 0, report.bAttributesRewritten);
            EXPECT_EQ(cut.frames, report.uiTimedFrames);
            EXPECT_TRUE(report.aMissingFrames.empty());
            if (cut.attributes) {
                ExpectReadable(pathW, plan, cut.frames);
            } else {
                IKvInputImageFile* in = nullptr;
                ASSERT_EQ(KV_OK, CKvImageFormatQV8::Shared()->CreateInputImageFile(pathW.c_str(), in));
                in->Release();
            }
            EXPECT_TRUE(Repair(pathW).bHadChunkMap) << "a second repair changes nothing";
        }
    }
}

// A finished file cut just before its map still holds the attributes and
// times its close wrote; frames written out of order leave a gap that is
// reported and reads as not found; frames without times get no time chunk.
TEST(QV8Repair, CountTimesAndGaps) {
    CTestTempDir dir;
    SPlan closed, gap, untimed;
    closed.finish = true;
    gap.frames = {0, 1, 3, 6, 4};
    untimed.timed = false;
    untimed.compression = kCompressionZlib;
    struct SCase {
        SPlan plan;
        uint32_t stored, count;
        std::vector<uint32_t> missing;
    };
    for (const SCase& c : {SCase{closed, 5, 5, {}}, SCase{gap, 0, 7, {2, 5}}, SCase{untimed, 0, 5, {}}}) {
        SCOPED_TRACE(c.count);
        const std::wstring path = dir.WideFile("file.qv8");
        fs::remove(dir.File("file.qv8"));
        WriteFile(path, c.plan);
        if (c.plan.finish) fs::resize_file(dir.File("file.qv8"), PositionOf(dir.File("file.qv8"), std::string(kChunkMapChunkName)));
        const SKvQV8RepairReport report = Repair(path);
        EXPECT_EQ(c.stored, report.uiStoredSequenceCount);
        EXPECT_EQ(c.count, report.uiSequenceCount);
        EXPECT_EQ(5u, report.uiFramesRecovered);
        EXPECT_EQ(c.missing, report.aMissingFrames);
        EXPECT_EQ(c.plan.timed ? 5u : 0u, report.uiTimedFrames);
        if (!c.plan.timed) {
            EXPECT_FALSE(report.bAcqTimesRewritten);
        }
        ExpectReadable(path, c.plan, c.count, c.missing);
    }
}

// Frame indexes come from chunk names: one far out makes a long gap, which is
// counted and listed only in part, without a walk or an allocation per frame.
TEST(QV8Repair, AFrameFarOutIsCountedWithoutWalkingTheGap) {
    CTestTempDir dir;
    SPlan plan;
    plan.timed = false;
    plan.frames = {0, 4000000000u};
    const std::wstring path = dir.WideFile("far.qv8");
    WriteFile(path, plan);
    const SKvQV8RepairReport report = Repair(path);
    EXPECT_EQ(4000000001u, report.uiSequenceCount);
    EXPECT_EQ(2u, report.uiFramesRecovered);
    EXPECT_EQ(3999999999u, report.uiMissingFrames);
    ASSERT_EQ(kMaxListedFrames, report.aMissingFrames.size());
    EXPECT_EQ(1u, report.aMissingFrames.front());
}

// A frame chunk that is complete as a chunk but not a whole frame: a raw one
// whose data is one byte short, a compressed one whose stream does not
// inflate. The last such frame is dropped; one below the count is reported.
TEST(QV8Repair, FramesThatAreNotWholeAreNotCounted) {
    CTestTempDir dir;
    const std::string file = dir.File("damaged.qv8");
    const std::wstring path = dir.WideFile("damaged.qv8");
    for (const uint32_t compression : {kCompressionNone, kCompressionZlib}) {
        SPlan plan;
        plan.compression = compression;
        fs::remove(file);
        WriteFile(path, plan);
        for (uint32_t index : {1u, 4u}) {
            const uint64_t at = PositionOf(file, FrameName(index));
            std::fstream f(file, std::ios::in | std::ios::out | std::ios::binary);
            uint8_t patch[8];
            kvbytes::StoreU64(patch, kFramePrefixSize + Shape(compression).FrameSize() - 1);
            if (compression != kCompressionNone) std::memset(patch, 0xFF, 4);
            f.seekp(static_cast<std::streamoff>(compression == kCompressionNone ? at + 8 : at + kPageSize + 40));
            f.write(reinterpret_cast<const char*>(patch), compression == kCompressionNone ? 8 : 4);
        }
        const SKvQV8RepairReport report = Repair(path);
        EXPECT_EQ(4u, report.uiSequenceCount);
        EXPECT_EQ(3u, report.uiFramesRecovered);
        EXPECT_EQ((std::vector<uint32_t>{1, 4}), report.aTornFrames);
        IKvInputImageFile* in = nullptr;
        ASSERT_EQ(KV_OK, CKvImageFormatQV8::Shared()->CreateInputImageFile(CKvStringW(path.c_str()), in));
        std::vector<uint8_t> back(Shape(compression).FrameSize());
        for (uint32_t i : {0u, 1u, 2u, 3u}) {
            const kv_result r = in->GetData(i, back.data(), nullptr, nullptr);
            EXPECT_EQ(i != 1, r == KV_OK && back == Frame(Shape(compression), i)) << i;
        }
        in->Release();
    }
}

// A writer process killed with SIGKILL: every frame whose FlushData returned
// is recovered. The child reports each such frame on a pipe; it either waits
// after frame `killAfter` (killed between frames) or writes on (killed
// wherever it is, likely inside a frame).
TEST(QV8Repair, WriterKilledMidRun) {
    CTestTempDir dir;
    const std::wstring path = dir.WideFile("killed.qv8");
    struct SCase {
        uint32_t compression, killAfter;
        bool waitThere;
    };
    for (const SCase c : {SCase{kCompressionNone, 3, true}, SCase{kCompressionZlib, 6, true},
                          SCase{kCompressionNone, 4, false}, SCase{kCompressionZlib, 9, false}}) {
        SCOPED_TRACE(std::to_string(c.compression) + " after " + std::to_string(c.killAfter));
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
                if (WriteFrame(out, plan, i) != KV_OK || write(reports[1], &i, sizeof i) != sizeof i) _exit(1);
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
        // A frame may be whole on disk before FlushData returned, but not
        // while the writer waits between frames.
        EXPECT_GE(report.uiFramesRecovered, returned);
        EXPECT_LE(report.uiFramesRecovered, returned + (c.waitThere ? 0 : 1));
        EXPECT_TRUE(report.aMissingFrames.empty());
        ExpectReadable(path, plan, report.uiFramesRecovered);
    }
}

// Speed of QV8 files against plain POSIX I/O, bare zlib, libtiff and HDF5 on
// the same synthetic frames: large frames raw and deflated at two levels
// (MB/s of frame bytes), and many small frames (write, open and random reads,
// in ms). Every figure is the median of several runs; every store's frames
// are read back and compared, untimed, so that a broken fast path cannot look
// fast. Prints a table with the targets the library aims at, and writes all
// figures as JSON.
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <thread>

#include "bench/peers/BenchReport.h"
#include "bench/peers/FrameStores.h"
#include "tools/common/SyntheticFrames.h"

namespace {

constexpr const char* kUsage =
    "usage: qv8_peer_bench [--json FILE] [--dir DIR] [--runs N] [--quick]\n"
    "  --json FILE  where the figures go as JSON (default: bench-results.json)\n"
    "  --dir DIR    directory for the scratch files, removed afterwards\n"
    "               (default: $TMPDIR, else /tmp)\n"
    "  --runs N     runs of each write measurement, the median is reported\n"
    "               (default: 5; at most 3 for zlib level 6); reads run 3 times as often\n"
    "  --quick      few frames and 2 runs: a smoke test, not a measurement\n";

struct SOptions {
    std::string json = "bench-results.json";
    std::string dir;
    uint32_t runs = 5;
    bool quick = false;
};

// Sizes of the workloads; --quick shrinks them.
struct SSizes {
    uint32_t rawFrames = 200, zlib1Frames = 48, zlib6Frames = 16;
    uint32_t largeSide = 1024;
    uint32_t smallFrames = 20000, smallSide = 64, smallReads = 1000;
};

constexpr uint32_t kSlowLevelRunCap = 3;  // runs of the zlib level 6 group at most
// Reads cost a fraction of what writes cost and suffer as much from other
// work on the machine: they get this many times the runs.
constexpr uint32_t kReadRunFactor = 3;
constexpr uint32_t kCheckedFrames = 5;    // frames compared after each write

using Clock = std::chrono::steady_clock;

// Runs of one measurement: the warm-up runs are done and not recorded (the
// first pass of raw I/O also pays for growing the page cache).
struct SRuns {
    uint32_t warmUps = 0;
    uint32_t measured = 1;
    uint32_t Total() const { return warmUps + measured; }
};

double Seconds(const std::function<void()>& work) {
    const Clock::time_point start = Clock::now();
    work();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// CPU time of all threads of this process, in seconds.
double ProcessCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + now.tv_nsec * 1e-9;
}

// Elapsed and CPU seconds of `work`, recorded into `figure` unless the run
// is a warm-up. CPU above elapsed time shows threads that found free cores.
void Record(SFigure* figure, bool keep, const std::function<void()>& work) {
    const double cpuStart = ProcessCpuSeconds();
    const double seconds = Seconds(work);
    if (!keep) return;
    figure->seconds.push_back(seconds);
    figure->cpuSeconds.push_back(ProcessCpuSeconds() - cpuStart);
}

SFrameSet MakeFrames(uint32_t side, uint32_t count) {
    SFrameSet frames;
    frames.width = frames.height = side;
    frames.count = count;
    frames.pixels.resize(uint64_t{side} * side * count);
    SSyntheticScene scene;
    scene.width = scene.height = side;
    scene.components = 1;
    for (uint32_t t = 0; t < count; ++t)
        FillSyntheticFrame(scene, t, 0, 0, frames.pixels.data() + uint64_t{side} * side * t);
    return frames;
}

std::vector<uint32_t> InOrder(uint32_t count) {
    std::vector<uint32_t> order(count);
    for (uint32_t i = 0; i < count; ++i) order[i] = i;
    return order;
}

// A fixed permutation of 0..count-1: the same random order for every store
// and every run.
std::vector<uint32_t> Shuffled(uint32_t count, uint32_t seed) {
    std::vector<uint32_t> order = InOrder(count);
    std::mt19937 random(seed);
    for (uint32_t i = count; i > 1; --i) std::swap(order[i - 1], order[random() % i]);
    return order;
}

// A scratch directory removed with its content at the end.
class CScratchDir {
public:
    explicit CScratchDir(const std::string& parent) {
        std::string pattern = parent + "/qv8_peer_bench_XXXXXX";
        Require(mkdtemp(pattern.data()) != nullptr, "cannot create a scratch directory in " + parent);
        m_path = pattern;
    }
    ~CScratchDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    std::string File(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// One store under test in a group, with its scratch file.
struct SContender {
    std::string name;  // kStore*
    std::unique_ptr<CFrameStore> store;
    std::string path;
    bool reads = true;         // whether its reads are measured
    bool orderMatters = true;  // false: only the first read pass is measured
};

void RemoveFile(const std::string& path) {
    std::error_code ignored;
    if (!path.empty()) std::filesystem::remove(path, ignored);
}

void CheckFrame(const SFrameSet& frames, uint32_t index, const void* got, const std::string& who) {
    Require(std::memcmp(frames.Frame(index), got, frames.FrameBytes()) == 0,
            who + ": frame " + std::to_string(index) + " read back differs from what was written");
}

// Opens what `c` wrote and compares a few frames spread over the sequence.
void Verify(SContender& c, const SFrameSet& frames, std::vector<uint8_t>& buffer) {
    c.store->Open(c.path, frames);
    for (uint32_t k = 0; k < kCheckedFrames; ++k) {
        const uint32_t index = static_cast<uint32_t>(uint64_t{frames.count - 1} * k / (kCheckedFrames - 1));
        std::fill(buffer.begin(), buffer.end(), 0xA5);
        c.store->Read(index, buffer.data());
        CheckFrame(frames, index, buffer.data(), c.name);
    }
    c.store->Close();
}

// Writes of every contender, run after run so that a busy moment of the
// machine spreads over all of them; each write goes to a fresh file.
void MeasureWrites(CReport& report, const std::string& group, std::vector<SContender>& contenders,
                   const SFrameSet& frames, SRuns runs) {
    std::vector<SFigure*> figures;
    for (SContender& c : contenders) {
        c.store->Prepare(frames);
        figures.push_back(&report.Add(group, c.name, kOpWrite));
        figures.back()->bytes = frames.TotalBytes();
    }
    for (uint32_t run = 0; run < runs.Total(); ++run) {
        for (size_t i = 0; i < contenders.size(); ++i) {
            SContender& c = contenders[i];
            RemoveFile(c.path);
            Record(figures[i], run >= runs.warmUps, [&] { c.store->Write(c.path, frames); });
        }
    }
    std::vector<uint8_t> buffer(frames.FrameBytes());
    for (size_t i = 0; i < contenders.size(); ++i) {
        figures[i]->storedBytes = contenders[i].store->StoredBytes(contenders[i].path);
        Verify(contenders[i], frames, buffer);
    }
}

// One pass of reads: every frame of `order`, into one reused buffer.
struct SReadPass {
    const char* op;
    std::vector<uint32_t> order;
};

// The read passes of every contender; within a run each contender does all
// its passes back to back, so that orders are compared under the same load.
// Opening and closing are not timed; the last frame read is compared afterwards.
void MeasureReads(CReport& report, const std::string& group, std::vector<SContender>& contenders,
                  const SFrameSet& frames, const std::vector<SReadPass>& passes, SRuns runs) {
    std::vector<std::vector<SFigure*>> figures(contenders.size());
    for (size_t i = 0; i < contenders.size(); ++i) {
        if (!contenders[i].reads) continue;
        for (size_t p = 0; p < (contenders[i].orderMatters ? passes.size() : 1); ++p) {
            figures[i].push_back(&report.Add(group, contenders[i].name, passes[p].op));
            figures[i].back()->bytes = frames.FrameBytes() * passes[p].order.size();
        }
    }
    std::vector<uint8_t> buffer(frames.FrameBytes());
    for (uint32_t run = 0; run < runs.Total(); ++run) {
        for (size_t i = 0; i < contenders.size(); ++i) {
            SContender& c = contenders[i];
            for (size_t p = 0; p < figures[i].size(); ++p) {
                const std::vector<uint32_t>& order = passes[p].order;
                c.store->Open(c.path, frames);
                Record(figures[i][p], run >= runs.warmUps, [&] {
                    for (uint32_t index : order) c.store->Read(index, buffer.data());
                });
                CheckFrame(frames, order.back(), buffer.data(), c.name);
                c.store->Close();
            }
        }
    }
}

std::vector<SReadPass> ReadPasses(uint32_t count) {
    return {{kOpReadSeq, InOrder(count)}, {kOpReadRandom, Shuffled(count, 7)}};
}

void Progress(const std::string& what) {
    std::fprintf(stderr, "[bench] %s\n", what.c_str());
    std::fflush(stderr);
}

std::string RunsText(SRuns writes, SRuns reads) {
    std::string text = "median of " + std::to_string(writes.measured) + " runs";
    if (reads.measured != writes.measured) text += " (reads " + std::to_string(reads.measured) + ")";
    if (writes.warmUps) text += " after a warm-up";
    return text;
}

std::string LargeTitle(const std::string& kind, uint32_t frames, const SSizes& s, SRuns writes, SRuns reads) {
    return "W1 " + kind + ": " + std::to_string(frames) + " frames of " + std::to_string(s.largeSide) + " x " +
           std::to_string(s.largeSide) + " x 16 bits, " + RunsText(writes, reads);
}

// Large frames, raw: the QV8 file against write/pread, memcpy and the peers.
void RunLargeRaw(CReport& report, const CScratchDir& dir, const SFrameSet& frames, const SSizes& sizes,
                 uint32_t runs) {
    const std::string group = "w1-raw";
    const SRuns writes{1, runs}, reads{1, runs * kReadRunFactor};
    report.AddGroup(SGroup{group, LargeTitle("raw", frames.count, sizes, writes, reads), true, 0, frames.count,
                           frames.width, frames.height, writes.measured, reads.measured, frames.count});
    std::vector<SContender> c;
    c.push_back({kStoreMemcpy, MakeMemcpyStore(), "", true});
    c.push_back({kStorePlain, MakePosixStore(), dir.File("plain.raw"), true});
    c.push_back({kStorePlainSync, MakePosixStore(true), dir.File("synced.raw"), false});
    c.push_back({kStoreQv8, MakeQv8Store({0, 0}), dir.File("frames.qv8"), true});
    c.push_back({kStoreTiff, MakeTiffStore({0, 1}), dir.File("frames.tif"), true});
    c.push_back({kStoreHdf5, MakeHdf5Store({0, 1}), dir.File("frames.h5"), true});
    Progress("W1 raw: writes");
    MeasureWrites(report, group, c, frames, writes);
    Progress("W1 raw: reads");
    MeasureReads(report, group, c, frames, ReadPasses(frames.count), reads);
    for (SContender& one : c) RemoveFile(one.path);
}

// Large frames deflated at `level`: the QV8 writer with one and two threads
// against compress2 / uncompress and the peers' deflate.
void RunLargeZlib(CReport& report, const CScratchDir& dir, const SFrameSet& frames, const SSizes& sizes,
                  int level, uint32_t runs) {
    const std::string group = "w1-zlib" + std::to_string(level);
    const std::string kind = "zlib level " + std::to_string(level);
    // Deflating takes long enough that the first run needs no warm-up.
    const SRuns writes{0, runs}, reads{0, runs * kReadRunFactor};
    report.AddGroup(SGroup{group, LargeTitle(kind, frames.count, sizes, writes, reads), true, level, frames.count,
                           frames.width, frames.height, writes.measured, reads.measured, frames.count});
    std::vector<SContender> c;
    // uncompress works from memory, where order does not matter: its
    // sequential pass is the reference of both orders.
    c.push_back({kStoreZlib, MakeZlibStore(level), "", true, false});
    c.push_back({kStoreQv8OneThread, MakeQv8Store({level, 1}), dir.File("frames1.qv8"), false});
    c.push_back({kStoreQv8TwoThreads, MakeQv8Store({level, 2}), dir.File("frames2.qv8"), true});
    c.push_back({kStoreTiff, MakeTiffStore({level, 1}), dir.File("frames.tif"), true});
    c.push_back({kStoreHdf5, MakeHdf5Store({level, 1}), dir.File("frames.h5"), true});
    Progress("W1 " + kind + ": writes");
    MeasureWrites(report, group, c, frames, writes);
    Progress("W1 " + kind + ": reads");
    MeasureReads(report, group, c, frames, ReadPasses(frames.count), reads);
    for (SContender& one : c) RemoveFile(one.path);
}

// Many small frames: writing the whole sequence, opening it as a client does
// before its first frame, and reading the same random frames.
void RunSmall(CReport& report, const CScratchDir& dir, const SFrameSet& frames, const SSizes& sizes,
              uint32_t runs) {
    const std::string group = "w2";
    const SRuns writes{1, runs}, readRuns{1, runs * kReadRunFactor};
    const std::string title = "W2 raw: " + std::to_string(frames.count) + " frames of " +
                              std::to_string(sizes.smallSide) + " x " + std::to_string(sizes.smallSide) +
                              " x 16 bits, " + std::to_string(sizes.smallReads) + " random reads, " +
                              RunsText(writes, readRuns);
    report.AddGroup(SGroup{group, title, false, 0, frames.count, frames.width, frames.height, writes.measured,
                           readRuns.measured, sizes.smallReads});
    std::vector<SContender> c;
    c.push_back({kStorePlain, MakePosixStore(), dir.File("small.raw"), true});
    c.push_back({kStorePlainSync, MakePosixStore(true), dir.File("synced-small.raw"), false});
    c.push_back({kStoreQv8, MakeQv8Store({0, 0}), dir.File("small.qv8"), true});
    c.push_back({kStoreTiff, MakeTiffStore({0, 1}), dir.File("small.tif"), true});
    c.push_back({kStoreHdf5, MakeHdf5Store({0, 1}), dir.File("small.h5"), true});
    Progress("W2: writes");
    MeasureWrites(report, group, c, frames, writes);
    // Only the stores whose reads count are opened and read.
    for (auto it = c.begin(); it != c.end();) {
        if (it->reads) {
            ++it;
            continue;
        }
        RemoveFile(it->path);
        it = c.erase(it);
    }

    Progress("W2: open and random reads");
    std::vector<uint32_t> picks = Shuffled(frames.count, 11);
    picks.resize(std::min<size_t>(picks.size(), sizes.smallReads));
    std::vector<uint8_t> buffer(frames.FrameBytes());
    std::vector<SFigure*> opens, reads, totals;
    for (SContender& one : c) {
        opens.push_back(&report.Add(group, one.name, kOpOpen));
        reads.push_back(&report.Add(group, one.name, kOpReads));
        totals.push_back(&report.Add(group, one.name, kOpOpenReads));
    }
    for (uint32_t run = 0; run < readRuns.Total(); ++run) {
        for (size_t i = 0; i < c.size(); ++i) {
            const double open = Seconds([&] { c[i].store->Open(c[i].path, frames); });
            const double read = Seconds([&] {
                for (uint32_t index : picks) c[i].store->Read(index, buffer.data());
            });
            CheckFrame(frames, picks.back(), buffer.data(), c[i].name);
            c[i].store->Close();
            if (run < readRuns.warmUps) continue;
            opens[i]->seconds.push_back(open);
            reads[i]->seconds.push_back(read);
            totals[i]->seconds.push_back(open + read);
        }
    }
    for (SContender& one : c) RemoveFile(one.path);
}

bool ParseOptions(int argc, char** argv, SOptions& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--json" && hasValue) {
            options.json = argv[++i];
        } else if (arg == "--dir" && hasValue) {
            options.dir = argv[++i];
        } else if (arg == "--runs" && hasValue) {
            const long runs = std::strtol(argv[++i], nullptr, 10);
            if (runs < 1 || runs > 1000) return false;
            options.runs = static_cast<uint32_t>(runs);
        } else if (arg == "--quick") {
            options.quick = true;
        } else if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else {
            return false;
        }
    }
    return true;
}

// The one-minute load average: other work on the machine shows in every figure.
double LoadAverage() {
    double load[1] = {0};
    return getloadavg(load, 1) == 1 ? load[0] : 0.0;
}

std::string About(const SOptions& options, uint32_t runs, double loadBefore, double loadAfter) {
    char text[640];
    std::snprintf(text, sizeof text,
                  "  \"program\": \"qv8_peer_bench\",\n  \"quick\": %s,\n  \"runs\": %u,\n  \"cores\": %u,\n"
                  "  \"load_average_before\": %.2f,\n  \"load_average_after\": %.2f,\n"
                  "  \"zlib\": \"%s\",\n  \"libtiff\": \"%s\",\n  \"hdf5\": \"%s\"",
                  options.quick ? "true" : "false", runs, std::thread::hardware_concurrency(), loadBefore,
                  loadAfter, ZlibVersion().c_str(), TiffVersion().c_str(), Hdf5Version().c_str());
    return text;
}

int Run(const SOptions& options) {
    SSizes sizes;
    uint32_t runs = options.runs;
    if (options.quick) {
        sizes = SSizes{12, 6, 3, 1024, 2000, 64, 200};
        runs = std::min<uint32_t>(runs, 2);
    }
    std::string parent = options.dir;
    if (parent.empty()) parent = getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
    const CScratchDir dir(parent);

    const double loadBefore = LoadAverage();
    std::printf("qv8_peer_bench: %u cores (load average %.2f), %s, %s, HDF5 %s%s\n",
                std::thread::hardware_concurrency(), loadBefore, ("zlib " + ZlibVersion()).c_str(),
                TiffVersion().c_str(), Hdf5Version().c_str(),
                options.quick ? " (quick: a smoke test, not a measurement)" : "");
    std::fflush(stdout);
    CReport report;
    Progress("generating frames");
    const SFrameSet large = MakeFrames(sizes.largeSide, sizes.rawFrames);
    RunLargeRaw(report, dir, large, sizes, runs);
    for (const int level : {1, 6}) {
        const uint32_t count = level == 1 ? sizes.zlib1Frames : sizes.zlib6Frames;
        SFrameSet subset{large.width, large.height, count, {}};
        subset.pixels.assign(large.pixels.begin(), large.pixels.begin() + subset.TotalBytes() / sizeof(uint16_t));
        RunLargeZlib(report, dir, subset, sizes, level, level == 6 ? std::min(runs, kSlowLevelRunCap) : runs);
    }
    const SFrameSet small = MakeFrames(sizes.smallSide, sizes.smallFrames);
    RunSmall(report, dir, small, sizes, runs);

    const double loadAfter = LoadAverage();
    report.EvaluateTargets();
    report.PrintTables(stdout);
    report.PrintTargets(stdout);
    if (options.quick) std::printf("  (a quick run has smaller workloads: its targets say little)\n");
    const unsigned cores = std::thread::hardware_concurrency();
    std::printf("\nload average %.2f before, %.2f after, on %u cores", loadBefore, loadAfter, cores);
    // The benchmark itself keeps about one core busy.
    if (std::max(loadBefore, loadAfter) > cores)
        std::printf(": other work shared the machine; the threaded cases suffer most");
    std::printf("\n");
    Require(report.WriteJson(options.json, About(options, runs, loadBefore, loadAfter)),
            options.json + ": cannot write the results");
    std::printf("\nfigures written to %s\n", options.json.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    SOptions options;
    if (!ParseOptions(argc, argv, options)) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    try {
        return Run(options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qv8_peer_bench: %s\n", e.what());
        return 1;
    }
}

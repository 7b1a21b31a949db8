// Speed of the chunk container against plain stdio on the same bytes:
// writing and reading 256 frame-sized two-part chunks, opening a file whose
// map has 100,000 entries, and looking names up in that map. Prints the
// ratios at the end (1.0 = as fast as plain stdio).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "fileformat/CKvFileChunker.h"

namespace {

constexpr int kFrameCount = 256;
constexpr uint32_t kPrefixSize = 8;          // the time stamp in front of a frame
constexpr uint32_t kFrameSize = 4u << 20;    // pixel data of one frame
constexpr int kMapEntries = 100000;
constexpr int kLargeIterations = 3;          // each pass moves 1 GiB

struct SBenchFiles {
    std::string dir;
    std::string readChunked, readPlain;    // inputs of the read benchmarks
    std::string writeChunked, writePlain;  // outputs of the write benchmarks
    std::string bigMap;                    // a container with kMapEntries chunks
};

SBenchFiles g_files;
std::vector<uint8_t> g_prefix(kPrefixSize, 0x5A);
std::vector<uint8_t> g_frame(kFrameSize);
std::vector<CKvStringA> g_frameNames;  // "ImageDataSeq|%i!" for every frame
std::vector<CKvStringA> g_mapNames;    // the names of the big map

CKvStringW Wide(const std::string& path) { return CKvStringUtils::UTF8toW(path.c_str()); }

std::vector<CKvStringA> FrameNames(int count) {
    std::vector<CKvStringA> names(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) names[static_cast<size_t>(i)].Format("ImageDataSeq|%i!", i);
    return names;
}

bool WriteChunked(const std::string& path) {
    CKvFileChunker chunker;
    CKvStringA version("Ver3.0");
    if (chunker.Initialize_File(Wide(path).c_str(), false, false, version) != KV_OK) return false;
    for (const CKvStringA& name : g_frameNames) {
        if (chunker.SetChunk(g_prefix.data(), kPrefixSize, g_frame.data(), kFrameSize, name.c_str()) != KV_OK)
            return false;
    }
    return chunker.Finalize() == KV_OK;
}

bool WritePlain(const std::string& path) {
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) return false;
    bool ok = true;
    for (int i = 0; i < kFrameCount && ok; ++i) {
        ok = std::fwrite(g_prefix.data(), 1, kPrefixSize, file) == kPrefixSize &&
             std::fwrite(g_frame.data(), 1, kFrameSize, file) == kFrameSize;
    }
    ok = std::fflush(file) == 0 && ok;
    return std::fclose(file) == 0 && ok;
}

bool WriteBigMap(const std::string& path) {
    CKvFileChunker chunker;
    CKvStringA version("Ver3.0");
    if (chunker.Initialize_File(Wide(path).c_str(), false, false, version) != KV_OK) return false;
    for (const CKvStringA& name : g_mapNames)
        if (chunker.SetChunk("12345678", 8, name.c_str()) != KV_OK) return false;
    return chunker.Finalize() == KV_OK;
}

bool SetUpFiles() {
    char pattern[] = "/tmp/chunker_bench_XXXXXX";
    if (!mkdtemp(pattern)) return false;
    g_files.dir = pattern;
    g_files.readChunked = g_files.dir + "/read.qv8";
    g_files.readPlain = g_files.dir + "/read.raw";
    g_files.writeChunked = g_files.dir + "/write.qv8";
    g_files.writePlain = g_files.dir + "/write.raw";
    g_files.bigMap = g_files.dir + "/map.qv8";
    for (size_t i = 0; i < g_frame.size(); ++i) g_frame[i] = static_cast<uint8_t>(i * 31 + (i >> 12));
    g_frameNames = FrameNames(kFrameCount);
    g_mapNames = FrameNames(kMapEntries);
    return WriteChunked(g_files.readChunked) && WritePlain(g_files.readPlain) && WriteBigMap(g_files.bigMap);
}

void RemoveFiles() {
    if (!g_files.dir.empty()) std::filesystem::remove_all(g_files.dir);
}

constexpr int64_t kFrameBytes = int64_t{kFrameCount} * (kPrefixSize + kFrameSize);

// ---- writing ----

// Each pass writes a new file into a page cache without dirty pages:
// removing the last file drops its pages unwritten, and the untimed sync
// writes back whatever else is pending, so no pass pays for another's
// write-back. The last file is removed too, for the benchmarks after this.
void RunWriteBenchmark(benchmark::State& state, bool (*write)(const std::string&), const std::string& path) {
    for (auto _ : state) {
        state.PauseTiming();
        std::remove(path.c_str());
        sync();
        state.ResumeTiming();
        if (!write(path)) state.SkipWithError("write failed");
    }
    std::remove(path.c_str());
}

void BM_WriteChunker(benchmark::State& state) { RunWriteBenchmark(state, WriteChunked, g_files.writeChunked); }
void BM_WriteFwrite(benchmark::State& state) { RunWriteBenchmark(state, WritePlain, g_files.writePlain); }

// ---- reading ----

bool OpenForReading(CKvFileChunker& chunker, const std::string& path) {
    CKvStringA version;
    return chunker.Initialize_File(Wide(path).c_str(), true, false, version) == KV_OK;
}

void BM_ReadGetChunk(benchmark::State& state) {
    CKvByteArray data;
    for (auto _ : state) {
        CKvFileChunker chunker;
        if (!OpenForReading(chunker, g_files.readChunked)) state.SkipWithError("open failed");
        for (const CKvStringA& name : g_frameNames)
            if (chunker.GetChunk(data, name.c_str()) != KV_OK) state.SkipWithError("GetChunk failed");
        benchmark::DoNotOptimize(data.GetData());
    }
}

// The header is not vouched for: every call reads it, as a reader that
// visits each frame once does.
void BM_ReadGetChunkPart(benchmark::State& state) {
    CKvByteArray data;
    for (auto _ : state) {
        CKvFileChunker chunker;
        if (!OpenForReading(chunker, g_files.readChunked)) state.SkipWithError("open failed");
        for (const CKvStringA& name : g_frameNames) {
            SKvChunkHeader header;
            if (chunker.GetChunkPart(header, data, kPrefixSize, kFrameSize, name.c_str()) != KV_OK)
                state.SkipWithError("GetChunkPart failed");
        }
        benchmark::DoNotOptimize(data.GetData());
    }
}

void BM_ReadFread(benchmark::State& state) {
    std::vector<uint8_t> prefix(kPrefixSize), frame(kFrameSize);
    for (auto _ : state) {
        FILE* file = std::fopen(g_files.readPlain.c_str(), "rb");
        if (!file) state.SkipWithError("fopen failed");
        for (int i = 0; file && i < kFrameCount; ++i) {
            if (std::fread(prefix.data(), 1, kPrefixSize, file) != kPrefixSize ||
                std::fread(frame.data(), 1, kFrameSize, file) != kFrameSize)
                state.SkipWithError("fread failed");
        }
        if (file) std::fclose(file);
        benchmark::DoNotOptimize(frame.data());
    }
}

// ---- the map ----

void BM_OpenBigMap(benchmark::State& state) {
    for (auto _ : state) {
        CKvFileChunker chunker;
        if (!OpenForReading(chunker, g_files.bigMap) || chunker.GetChunkMap().size() != kMapEntries)
            state.SkipWithError("open failed");
    }
}

void BM_LookupBigMap(benchmark::State& state) {
    CKvFileChunker chunker;
    if (!OpenForReading(chunker, g_files.bigMap)) state.SkipWithError("open failed");
    for (auto _ : state) {
        int found = 0;
        for (const CKvStringA& name : g_mapNames) found += chunker.ExistChunk(name.c_str());
        if (found != kMapEntries) state.SkipWithError("a name was not found");
        benchmark::DoNotOptimize(found);
    }
}

// Page-cache timings on a busy machine vary by a third from pass to pass,
// and the noise only ever adds time: every benchmark is repeated and its
// fastest repetition counts.
constexpr int kRepetitions = 5;

void Configure(benchmark::internal::Benchmark* b, int iterations) {
    b->Iterations(iterations)->Repetitions(kRepetitions)->DisplayAggregatesOnly(true);
    b->ComputeStatistics("min", [](const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); });
    b->UseRealTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_WriteChunker)->Apply([](auto* b) { Configure(b, kLargeIterations); });
BENCHMARK(BM_WriteFwrite)->Apply([](auto* b) { Configure(b, kLargeIterations); });
BENCHMARK(BM_ReadFread)->Apply([](auto* b) { Configure(b, kLargeIterations); });
BENCHMARK(BM_ReadGetChunk)->Apply([](auto* b) { Configure(b, kLargeIterations); });
BENCHMARK(BM_ReadGetChunkPart)->Apply([](auto* b) { Configure(b, kLargeIterations); });
BENCHMARK(BM_OpenBigMap)->Apply([](auto* b) { Configure(b, 10); });
BENCHMARK(BM_LookupBigMap)->Apply([](auto* b) { Configure(b, 20); });

// Shows the runs as usual and keeps each benchmark's real time per
// iteration: the fastest repetition's, or the single run's.
class CRecordingReporter : public benchmark::ConsoleReporter {
public:
    CRecordingReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred || run.iterations == 0) continue;
            const bool fastest = run.run_type == Run::RT_Aggregate && run.aggregate_name == "min";
            if (fastest || runs.size() == 1)
                m_seconds[run.run_name.function_name] = run.real_accumulated_time / static_cast<double>(run.iterations);
        }
        ConsoleReporter::ReportRuns(runs);
    }
    // Seconds per iteration, or 0 when the benchmark did not run.
    double Seconds(const std::string& function) const {
        auto it = m_seconds.find(function);
        return it == m_seconds.end() ? 0.0 : it->second;
    }

private:
    std::map<std::string, double> m_seconds;
};

// Counters are left out of the benchmarks: the repetitions' "min" statistic
// would pick the lowest rate, not the rate of the fastest repetition.
void PrintRate(const char* what, double seconds) {
    if (seconds > 0) std::printf("  %-34s %7.2f GiB/s\n", what, static_cast<double>(kFrameBytes) / seconds / (1u << 30));
}

void PrintRatio(const char* what, double plain, double ours) {
    if (plain > 0 && ours > 0) std::printf("  %-34s %7.2f\n", what, plain / ours);
}

void PrintSummary(const CRecordingReporter& r) {
    const double fwrite = r.Seconds("BM_WriteFwrite"), write = r.Seconds("BM_WriteChunker");
    const double fread = r.Seconds("BM_ReadFread"), get = r.Seconds("BM_ReadGetChunk");
    const double part = r.Seconds("BM_ReadGetChunkPart");
    std::printf("\nfastest of %d repetitions, %d chunks of %u + %u bytes\n", kRepetitions, kFrameCount, kPrefixSize,
                kFrameSize);
    PrintRate("fwrite", fwrite);
    PrintRate("SetChunk + Finalize", write);
    PrintRate("fread", fread);
    PrintRate("GetChunk", get);
    PrintRate("GetChunkPart (4 MiB of each)", part);
    std::printf("ratio = plain stdio time / container time (1.0 = as fast; target >= 0.9)\n");
    PrintRatio("write: fwrite / SetChunk+Finalize", fwrite, write);
    PrintRatio("read:  fread / GetChunk", fread, get);
    PrintRatio("read:  fread / GetChunkPart", fread, part);
    const double open = r.Seconds("BM_OpenBigMap");
    const double lookups = r.Seconds("BM_LookupBigMap");
    if (open > 0) std::printf("open with a %d-entry map:            %7.2f ms\n", kMapEntries, open * 1e3);
    if (lookups > 0) std::printf("ExistChunk in that map:               %7.1f ns per look-up\n", lookups / kMapEntries * 1e9);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    std::atexit(RemoveFiles);
    if (!SetUpFiles()) {
        std::fprintf(stderr, "chunker_bench: cannot write the input files under /tmp\n");
        return 1;
    }
    // The inputs go to disk before timing starts, so their write-back does
    // not compete with the benchmarks.
    sync();
    CRecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    PrintSummary(reporter);
    benchmark::Shutdown();
    return 0;
}

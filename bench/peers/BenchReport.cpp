// Ratios, targets, the table and the JSON file of the peer benchmark.
#include "bench/peers/BenchReport.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double kMega = 1e6;  // MB/s counts 10^6 bytes

bool IsRead(const std::string& op) { return op == kOpReadSeq || op == kOpReadRandom; }

std::string CaseName(const SFigure& f) {
    if (f.store == kStoreZlib) return f.op == kOpWrite ? "compress2" : "uncompress";
    std::string store = f.store;
    if (store == kStorePlain) store = f.op == kOpWrite ? "write()" : f.op == kOpOpen ? "open()" : "pread()";
    if (store == kStorePlainSync) store = "write()+sync";
    if (store == kStoreQv8OneThread) store = "qv8, 1 thread";
    if (store == kStoreQv8TwoThreads) store = "qv8, 2 threads";
    std::string op = f.op;
    if (op == kOpReadSeq) op = "read seq";
    if (op == kOpReadRandom) op = "read random";
    if ((f.store == kStorePlain || f.store == kStorePlainSync) && (op == kOpWrite || op == kOpOpen)) return store;
    return store + " " + op;
}

std::string Cell(bool found, double value, const char* format) {
    if (!found) return "-";
    char text[32];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

// One table row: the columns right-aligned after a left-aligned case name,
// without trailing blanks.
void PrintRow(FILE* out, const std::string& name, const std::vector<std::string>& cells) {
    std::string line = "  " + name + std::string(name.size() < 30 ? 30 - name.size() : 0, ' ');
    static const size_t kWidths[] = {11, 10, 10, 10, 10, 10};
    for (size_t i = 0; i < cells.size() && i < 6; ++i)
        line += std::string(cells[i].size() < kWidths[i] ? kWidths[i] - cells[i].size() : 1, ' ') + cells[i];
    while (!line.empty() && line.back() == ' ') line.pop_back();
    std::fprintf(out, "%s\n", line.c_str());
}

std::string JsonNumber(double value) {
    if (!std::isfinite(value)) return "null";
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", value);
    return text;
}

// Rows of a table: operations in this order, each over the stores in this order.
const char* const kOpOrder[] = {kOpWrite, kOpReadSeq, kOpReadRandom, kOpOpen, kOpReads, kOpOpenReads};
const char* const kStoreOrder[] = {kStoreMemcpy,       kStorePlain,         kStorePlainSync, kStoreZlib, kStoreQv8,
                                   kStoreQv8OneThread, kStoreQv8TwoThreads, kStoreTiff,      kStoreHdf5};

double MedianOf(const std::vector<double>& values) {
    if (values.empty()) return NAN;
    std::vector<double> sorted = values;
    std::sort(sorted.begin(), sorted.end());
    const size_t n = sorted.size();
    return n % 2 ? sorted[n / 2] : (sorted[n / 2 - 1] + sorted[n / 2]) / 2;
}

}  // namespace

double SFigure::Median() const { return MedianOf(seconds); }

double SFigure::CpuPerWall() const { return cpuSeconds.empty() ? 0.0 : MedianOf(cpuSeconds) / Median(); }

SFigure& CReport::Add(const std::string& group, const std::string& store, const std::string& op) {
    m_figures.push_back(SFigure{group, store, op, {}, {}, 0, 0});
    return m_figures.back();
}

const SFigure* CReport::Find(const std::string& group, const std::string& store, const std::string& op) const {
    for (const SFigure& f : m_figures)
        if (f.group == group && f.store == store && f.op == op && !f.seconds.empty()) return &f;
    return nullptr;
}

const SGroup* CReport::FindGroup(const std::string& id) const {
    for (const SGroup& g : m_groups)
        if (g.id == id) return &g;
    return nullptr;
}

bool CReport::Ratio(const SFigure& figure, const std::string& store, const std::string& op, double& ratio) const {
    const SFigure* other = Find(figure.group, store, op);
    const SGroup* group = FindGroup(figure.group);
    if (!other || other == &figure || !group) return false;
    ratio = group->throughput ? other->Median() / figure.Median() : figure.Median() / other->Median();
    return std::isfinite(ratio);
}

bool CReport::RatioToReference(const SFigure& figure, double& ratio) const {
    const SGroup* group = FindGroup(figure.group);
    if (!group) return false;
    if (group->level > 0) {
        if (figure.op == kOpWrite) return Ratio(figure, kStoreZlib, kOpWrite, ratio);
        if (IsRead(figure.op)) return Ratio(figure, kStoreZlib, kOpReadSeq, ratio);
        return false;
    }
    return Ratio(figure, kStorePlain, figure.op, ratio);
}

void CReport::AddTarget(const std::string& text, bool found, double value, double limit, bool atLeast) {
    if (!found) return;
    m_targets.push_back(STarget{text, value, atLeast ? value >= limit : value <= limit});
}

void CReport::EvaluateTargets() {
    m_targets.clear();
    double r = 0;
    bool found = false;
    auto ratio = [&](const std::string& group, const char* store, const char* op, const char* against,
                     const char* againstOp) {
        const SFigure* f = Find(group, store, op);
        found = f && (against ? Ratio(*f, against, againstOp, r) : RatioToReference(*f, r));
        return found;
    };
    for (const char* op : {kOpReadSeq, kOpReadRandom}) {
        ratio("w1-raw", kStoreQv8, op, nullptr, nullptr);
        AddTarget(std::string("W1 raw ") + op + ": qv8 speed >= 0.95 x pread", found, r, 0.95, true);
    }
    // A QV8 file is synced before its close returns, so its writes are held
    // against plain writes that are synced too.
    ratio("w1-raw", kStoreQv8, kOpWrite, kStorePlainSync, kOpWrite);
    AddTarget("W1 raw write: qv8 speed >= 0.90 x write()+sync", found, r, 0.90, true);
    for (const SGroup& g : m_groups) {
        if (g.level == 0) continue;
        const std::string level = "W1 zlib " + std::to_string(g.level);
        for (const char* op : {kOpReadSeq, kOpReadRandom}) {
            ratio(g.id, kStoreQv8TwoThreads, op, kStoreTiff, op);
            AddTarget(level + " " + op + ": qv8 speed >= 1.00 x libtiff deflate", found, r, 1.0, true);
        }
        ratio(g.id, kStoreQv8OneThread, kOpWrite, nullptr, nullptr);
        AddTarget(level + " write, 1 thread: qv8 speed >= 0.95 x compress2", found, r, 0.95, true);
        ratio(g.id, kStoreQv8TwoThreads, kOpWrite, nullptr, nullptr);
        AddTarget(level + " write, 2 threads: qv8 speed >= 1.80 x compress2", found, r, 1.80, true);
    }
    ratio("w2", kStoreQv8, kOpWrite, kStorePlainSync, kOpWrite);
    AddTarget("W2 write: qv8 time <= 1.5 x write()+sync", found, r, 1.5, false);
    ratio("w2", kStoreQv8, kOpOpenReads, kStoreHdf5, kOpOpenReads);
    AddTarget("W2 open + reads: qv8 time <= 0.5 x HDF5", found, r, 0.5, false);
    ratio("w2", kStoreQv8, kOpOpenReads, kStoreTiff, kOpOpenReads);
    AddTarget("W2 open + reads: qv8 time <= 0.01 x libtiff (100 x faster)", found, r, 0.01, false);
}

void CReport::PrintTables(FILE* out) const {
    for (const SGroup& g : m_groups) {
        std::fprintf(out, "\n%s\n", g.title.c_str());
        const bool mbps = g.throughput;
        PrintRow(out, "case", {mbps ? "MB/s" : "ms", "vs ref", "vs tiff", "vs hdf5", g.level ? "stored" : "",
                               g.level ? "cpu/wall" : ""});
        for (const char* op : kOpOrder) {
            for (const char* store : kStoreOrder) {
                const SFigure* f = Find(g.id, store, op);
                if (!f) continue;
                const double median = f->Median();
                const double shown = mbps ? f->bytes / median / kMega : median * 1e3;
                double ref = 0, tiff = 0, hdf5 = 0;
                const bool hasRef = RatioToReference(*f, ref);
                const bool hasTiff = Ratio(*f, kStoreTiff, op, tiff);
                const bool hasHdf5 = Ratio(*f, kStoreHdf5, op, hdf5);
                // Compressed groups show how much of the frame bytes the writer kept.
                const bool showStored = g.level && op == std::string(kOpWrite) && f->bytes;
                PrintRow(out, CaseName(*f),
                         {Cell(true, shown, mbps ? "%.0f" : "%.2f"), Cell(hasRef, ref, "%.2f"),
                          Cell(hasTiff, tiff, "%.2f"), Cell(hasHdf5, hdf5, "%.2f"),
                          showStored ? Cell(true, double(f->storedBytes) / f->bytes, "%.3f") : "",
                          g.level ? Cell(true, f->CpuPerWall(), "%.2f") : ""});
            }
        }
    }
    std::fprintf(out,
                 "\nMB/s: frame bytes (uncompressed, 10^6 bytes) per second; 'vs' columns: speed of the case\n"
                 "divided by the speed of the other (above 1 is faster). W2 'vs' columns: time of the case\n"
                 "divided by the time of the other (below 1 is faster). stored: bytes written / frame bytes.\n"
                 "cpu/wall: CPU time of all threads / elapsed time (near 2 when a second thread had a core).\n");
}

void CReport::PrintTargets(FILE* out) const {
    std::fprintf(out, "\ntargets\n");
    for (const STarget& t : m_targets)
        std::fprintf(out, "  %-4s %-62s %8.3f\n", t.pass ? "pass" : "MISS", t.text.c_str(), t.value);
}

bool CReport::WriteJson(const std::string& path, const std::string& about) const {
    FILE* out = std::fopen(path.c_str(), "w");
    if (!out) return false;
    std::fprintf(out, "{\n%s,\n  \"ratios\": \"%s\",\n  \"groups\": [\n", about.c_str(),
                 "throughput groups: speed of the case / speed of the other (above 1 is faster); "
                 "time groups: time of the case / time of the other (below 1 is faster)");
    for (size_t gi = 0; gi < m_groups.size(); ++gi) {
        const SGroup& g = m_groups[gi];
        std::fprintf(out,
                     "    {\"id\": \"%s\", \"title\": \"%s\", \"unit\": \"%s\", \"zlib_level\": %d, \"frames\": %u, "
                     "\"width\": %u, \"height\": %u, \"write_runs\": %u, \"read_runs\": %u, \"reads\": %u, "
                     "\"figures\": [",
                     g.id.c_str(), g.title.c_str(), g.throughput ? "MB/s" : "ms", g.level, g.frames, g.width,
                     g.height, g.writeRuns, g.readRuns, g.reads);
        const char* separator = "\n";
        for (const SFigure& f : m_figures) {
            if (f.group != g.id || f.seconds.empty()) continue;
            const double median = f.Median();
            double ref = NAN, tiff = NAN, hdf5 = NAN;
            if (!RatioToReference(f, ref)) ref = NAN;
            if (!Ratio(f, kStoreTiff, f.op, tiff)) tiff = NAN;
            if (!Ratio(f, kStoreHdf5, f.op, hdf5)) hdf5 = NAN;
            std::string runs;
            for (double s : f.seconds) runs += (runs.empty() ? "" : ", ") + JsonNumber(s);
            std::fprintf(out,
                         "%s      {\"store\": \"%s\", \"op\": \"%s\", \"case\": \"%s\", \"median_s\": %s, "
                         "\"value\": %s, \"vs_reference\": %s, \"vs_libtiff\": %s, \"vs_hdf5\": %s, "
                         "\"cpu_per_wall\": %s, \"frame_bytes\": %llu, \"stored_bytes\": %llu, \"runs_s\": [%s]}",
                         separator, f.store.c_str(), f.op.c_str(), CaseName(f).c_str(), JsonNumber(median).c_str(),
                         JsonNumber(g.throughput ? f.bytes / median / kMega : median * 1e3).c_str(),
                         JsonNumber(ref).c_str(), JsonNumber(tiff).c_str(), JsonNumber(hdf5).c_str(),
                         f.cpuSeconds.empty() ? "null" : JsonNumber(f.CpuPerWall()).c_str(),
                         static_cast<unsigned long long>(f.bytes), static_cast<unsigned long long>(f.storedBytes),
                         runs.c_str());
            separator = ",\n";
        }
        std::fprintf(out, "\n    ]}%s\n", gi + 1 < m_groups.size() ? "," : "");
    }
    std::fprintf(out, "  ],\n  \"targets\": [");
    for (size_t i = 0; i < m_targets.size(); ++i) {
        const STarget& t = m_targets[i];
        std::fprintf(out, "%s\n    {\"target\": \"%s\", \"value\": %s, \"pass\": %s}", i ? "," : "", t.text.c_str(),
                     JsonNumber(t.value).c_str(), t.pass ? "true" : "false");
    }
    std::fprintf(out, "\n  ]\n}\n");
    return std::fclose(out) == 0;
}

// The figures the peer benchmark measures, their ratios to the reference and
// to the peer libraries, the targets computed from those ratios, and the two
// ways they are reported: a table for people and a JSON file for programs.
#pragma once

#include <cstdint>
#include <cstdio>
#include <deque>
#include <string>
#include <vector>

// Store names as they appear in the report.
constexpr const char* kStoreMemcpy = "memcpy";
constexpr const char* kStorePlain = "plain";     // POSIX write / pread
constexpr const char* kStorePlainSync = "plain-sync";  // POSIX write, then fdatasync and the directory's fsync
constexpr const char* kStoreZlib = "zlib";       // compress2 / uncompress in memory
constexpr const char* kStoreQv8 = "qv8";
constexpr const char* kStoreQv8OneThread = "qv8-1t";
constexpr const char* kStoreQv8TwoThreads = "qv8-2t";
constexpr const char* kStoreTiff = "libtiff";
constexpr const char* kStoreHdf5 = "hdf5";

// Operation names.
constexpr const char* kOpWrite = "write";
constexpr const char* kOpReadSeq = "read-seq";
constexpr const char* kOpReadRandom = "read-random";
constexpr const char* kOpOpen = "open";
constexpr const char* kOpReads = "reads";
constexpr const char* kOpOpenReads = "open+reads";

// One workload: frames of one shape stored one way.
struct SGroup {
    std::string id;       // "w1-raw", "w1-zlib1", "w1-zlib6", "w2"
    std::string title;    // one line for the table
    bool throughput = true;  // MB/s with speed ratios; otherwise ms with time ratios
    int level = 0;           // zlib level of the compressed groups, 0 for raw
    uint32_t frames = 0, width = 0, height = 0;
    uint32_t writeRuns = 0, readRuns = 0;  // runs behind each median
    uint32_t reads = 0;                    // frames read per pass
};

// The times of one operation of one store, one per run.
struct SFigure {
    std::string group, store, op;
    std::vector<double> seconds;
    std::vector<double> cpuSeconds;  // CPU time of the whole process in the same runs, when measured
    uint64_t bytes = 0;        // frame bytes moved per run; 0 for figures reported as times
    uint64_t storedBytes = 0;  // what a write left behind
    double Median() const;
    // Median CPU time over median elapsed time; 0 when CPU time was not measured.
    double CpuPerWall() const;
};

struct STarget {
    std::string text;  // what is compared, with the limit
    double value = 0;
    bool pass = false;
};

class CReport {
public:
    void AddGroup(const SGroup& group) { m_groups.push_back(group); }
    SFigure& Add(const std::string& group, const std::string& store, const std::string& op);
    const SFigure* Find(const std::string& group, const std::string& store, const std::string& op) const;
    // `figure` against the figure of `store` doing `op` in the same group,
    // when there is one and it is another: a speed ratio for throughput groups
    // (above 1 is faster) and a time ratio otherwise (below 1 is faster).
    bool Ratio(const SFigure& figure, const std::string& store, const std::string& op, double& ratio) const;
    // The reference `figure` is held against: the plain store's same
    // operation, and for compressed groups compress2 for writes and
    // uncompress for reads.
    bool RatioToReference(const SFigure& figure, double& ratio) const;

    // Computes the pass or miss of every target whose figures were measured.
    void EvaluateTargets();

    void PrintTables(FILE* out) const;
    void PrintTargets(FILE* out) const;
    // `about` holds ready-made JSON members (without braces) describing the run.
    bool WriteJson(const std::string& path, const std::string& about) const;

private:
    const SGroup* FindGroup(const std::string& id) const;
    void AddTarget(const std::string& text, bool found, double value, double limit, bool atLeast);

    std::vector<SGroup> m_groups;
    std::deque<SFigure> m_figures;  // a deque: Add hands out references that must stay valid
    std::vector<STarget> m_targets;
};

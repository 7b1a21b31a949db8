// The command that recovers a file whose writer did not finish: rebuilds
// its chunk map and completes it as the writer's close would have.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "fileformat/CKvImageFormatQV8.h"
#include "tools/qv8/Qv8Command.h"

namespace {

std::string Plural(uint64_t count, const char* noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

// One line per fact, each starting with the file name.
std::string DescribeRepair(const std::string& file, const SKvQV8RepairReport& report) {
    std::vector<std::string> facts;
    facts.push_back("chunk map rebuilt, " + Plural(report.nChunksFound, "chunk") + " found");
    if (!report.bAttributesFound) {
        facts.push_back("image attributes lost: no frame can be read");
    } else {
        facts.push_back(Plural(report.uiFramesRecovered, "frame") + " recovered, sequence count " +
                        std::to_string(report.uiSequenceCount) + " (was " +
                        std::to_string(report.uiStoredSequenceCount) + ")");
        if (report.bAttributesRewritten) facts.push_back("image attributes saved with the new sequence count");
    }
    for (uint32_t index : report.aMissingFrames) facts.push_back("frame " + std::to_string(index) + " missing");
    if (report.uiMissingFrames > report.aMissingFrames.size())
        facts.push_back(std::to_string(report.uiMissingFrames - report.aMissingFrames.size()) + " more frames missing");
    for (uint32_t index : report.aTornFrames)
        facts.push_back("frame " + std::to_string(index) +
                        (index < report.uiSequenceCount ? " damaged, cannot be read" : " torn, dropped"));
    if (report.bAcqTimesRewritten)
        facts.push_back("acquisition times rebuilt for " + Plural(report.uiTimedFrames, "frame"));
    else if (report.bAttributesFound && report.uiFramesRecovered)
        facts.push_back("no acquisition times in the frames");
    std::string text;
    for (const std::string& fact : facts) text += file + ": " + fact + "\n";
    return text;
}

int RunRepair(const Qv8Args& args) {
    if (args.size() != 1) return kExitUsage;
    const std::string& file = args[0];
    CKvFileChunker chunker;
    kv_result r = OpenForReading(chunker, file);
    chunker.Finalize();
    if (r == KV_OK) return PrintOrFail(file + ": has a chunk map, left unchanged\n");
    if (r != KV_ERR_NOT_FOUND || !chunker.IsChunkMapMissing()) return ReportOpenFailure(file, r, chunker);
    // Checked before the scan, which may take long, rather than after it.
    if (access(file.c_str(), W_OK) != 0)
        return ReportFailure(file, std::string("cannot repair: ") + std::strerror(errno), KV_ERR_FAILED);

    CQv8ProgressBar bar("repairing");
    SKvQV8RepairReport report;
    r = CKvImageFormatQV8::RepairFile(CKvStringUtils::UTF8toW(file.c_str()).c_str(), report,
                                      bar.IsShown() ? CQv8ProgressBar::Callback : nullptr, &bar);
    bar.Finish();
    if (r != KV_OK && report.bHeldByWriter)
        return ReportFailure(file, "a writer still has the file open; let it finish or stop it first", r);
    if (r != KV_OK) return ReportFailure(file, "repair failed", r);
    if (report.bHadChunkMap) return PrintOrFail(file + ": has a chunk map, left unchanged\n");
    return PrintOrFail(DescribeRepair(file, report));
}

}  // namespace

const SQv8Command kRepairCommand = {
    "repair", "recover a file whose writer did not finish",
    "usage: qv8 repair FILE\n"
    "\n"
    "Recovers FILE when it has no chunk map (its writer did not finish), in place:\n"
    "scans it for chunks, checks every frame is whole, saves the image attributes\n"
    "again with the number of frames found, rebuilds the acquisition times from the\n"
    "frames and writes the map. The sequence count is the highest whole frame + 1;\n"
    "a lower frame that is missing or damaged stays unreadable. Damaged parts are\n"
    "passed over and no byte of the file is removed: the new map goes after its\n"
    "end. A file that has a map is left unchanged, and a file that a writer still\n"
    "has open is refused.\n"
    "\n"
    "Output, one line per fact, each starting with 'FILE: ':\n"
    "  chunk map rebuilt, N chunks found\n"
    "  N frames recovered, sequence count N (was M)\n"
    "  image attributes saved with the new sequence count\n"
    "  image attributes lost: no frame can be read\n"
    "  frame I missing | frame I damaged, cannot be read | frame I torn, dropped\n"
    "  acquisition times rebuilt for N frames | no acquisition times in the frames\n",
    RunRepair};

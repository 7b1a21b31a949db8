// The command that rebuilds the missing chunk map of a container.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tools/qv8/Qv8Command.h"

namespace {

// Chunks that hold data, as opposed to the container's own signature and map.
size_t CountDataChunks(const CKvFileChunker::ChunkMap& map) {
    return static_cast<size_t>(std::count_if(map.begin(), map.end(), [](const auto& entry) {
        return entry.first != kSignatureChunkName && entry.first != kChunkMapChunkName;
    }));
}

int RunRepair(const Qv8Args& args) {
    if (args.size() != 1) return kExitUsage;
    const std::string& file = args[0];
    CKvFileChunker chunker;
    kv_result r = OpenForReading(chunker, file);
    if (r == KV_OK) {
        chunker.Finalize();
        std::printf("%s: has a chunk map, left unchanged\n", file.c_str());
        return kExitOk;
    }
    if (r != KV_ERR_NOT_FOUND || !chunker.IsChunkMapMissing()) return ReportOpenFailure(file, r, chunker);
    // Checked before the scan, which may take long, rather than after it.
    if (access(file.c_str(), W_OK) != 0)
        return ReportFailure(file, std::string("cannot repair: ") + std::strerror(errno), KV_ERR_FAILED);

    CQv8ProgressBar bar("rebuilding chunk map");
    r = chunker.CreateMissingChunkMap(nullptr, &bar, bar.IsShown() ? CQv8ProgressBar::Callback : nullptr);
    bar.Finish();
    if (r != KV_OK && chunker.IsHeldByWriter())
        return ReportFailure(file, "a writer still has the file open; let it finish or stop it first", r);
    if (r != KV_OK) return ReportFailure(file, "rebuilding the chunk map failed", r);
    const size_t found = CountDataChunks(chunker.GetChunkMap());
    chunker.Finalize();
    std::printf("%s: chunk map rebuilt, %zu chunk%s found\n", file.c_str(), found, found == 1 ? "" : "s");
    return kExitOk;
}

}  // namespace

const SQv8Command kRepairCommand = {
    "repair", "rebuild the missing chunk map of a container",
    "usage: qv8 repair FILE\n"
    "\n"
    "Rebuilds the chunk map of FILE when it has none (its writer did not finish),\n"
    "by scanning the whole file for chunks, and reports how many data chunks it\n"
    "found. Damaged parts are passed over; no byte of the file is removed: the\n"
    "new map goes after its end. A file that has a map is left unchanged, and a\n"
    "file that a writer still has open is refused. The file is changed in place.\n",
    RunRepair};

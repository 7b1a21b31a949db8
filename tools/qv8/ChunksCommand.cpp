// The command that lists the chunk map of a container.
#include <cinttypes>
#include <cstdio>

#include "tools/qv8/Qv8Command.h"

namespace {

int RunChunks(const Qv8Args& args) {
    if (args.size() != 1) return kExitUsage;
    const std::string& file = args[0];
    CKvFileChunker chunker;
    const kv_result r = OpenForReading(chunker, file);
    if (r != KV_OK) return ReportOpenFailure(file, r, chunker);
    for (const auto& [name, member] : chunker.GetChunkMap()) {
        std::printf("%s\t%" PRIu64 "\t%" PRIu64 "\n", EscapeChunkName(name).c_str(), member.position, member.size);
    }
    chunker.Finalize();
    return kExitOk;
}

}  // namespace

const SQv8Command kChunksCommand = {
    "chunks", "list the chunk map of a container",
    "usage: qv8 chunks FILE\n"
    "\n"
    "Lists the chunk map of FILE, one line per entry, in ascending byte order\n"
    "of the names:\n"
    "\n"
    "    NAME <TAB> POSITION <TAB> SIZE\n"
    "\n"
    "NAME      the chunk name with its final \"!\"; control bytes and backslashes\n"
    "          in it are written as \\xHH\n"
    "POSITION  file offset of the chunk header, decimal\n"
    "SIZE      decimal; the data length for chunks entered by the writer, header\n"
    "          + name + data for chunks entered by 'qv8 repair'\n"
    "\n"
    "A map rebuilt by 'qv8 repair' also lists the signature chunk at position 0,\n"
    "and the map chunk of an earlier session when the file was appended to.\n"
    "This format is stable; lines are separated by a newline.\n",
    RunChunks};

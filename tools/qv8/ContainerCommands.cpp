// Commands on the chunk container itself: list the map, print a chunk,
// rebuild a missing map.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>

#include "tools/qv8/Qv8Command.h"

namespace {

// A chunk is copied to standard output in pieces of this size, so memory
// stays bounded and chunks above 4 GiB can be printed too.
constexpr uint32_t kCatPieceSize = 4u << 20;

// Chunk names are plain ASCII in files we write, but a damaged map may hold
// any byte before a "!"; escaping keeps the listing one entry per line.
std::string EscapeName(std::string_view name) {
    std::string out;
    out.reserve(name.size());
    for (unsigned char c : name) {
        if (c < 0x20 || c == 0x7F || c == '\\') {
            char escaped[5];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string WithBang(const std::string& name) {
    return !name.empty() && name.back() == '!' ? name : name + '!';
}

// ---- chunks ----

int RunChunks(const Qv8Args& args) {
    if (args.size() != 1) return kExitUsage;
    const std::string& file = args[0];
    CKvFileChunker chunker;
    const kv_result r = OpenForReading(chunker, file);
    if (r != KV_OK) return ReportOpenFailure(file, r, chunker);
    for (const auto& [name, member] : chunker.GetChunkMap()) {
        std::printf("%s\t%" PRIu64 "\t%" PRIu64 "\n", EscapeName(name).c_str(), member.position, member.size);
    }
    chunker.Finalize();
    return kExitOk;
}

// ---- cat ----

int RunCat(const Qv8Args& args) {
    if (args.size() != 2) return kExitUsage;
    const std::string& file = args[0];
    const std::string name = WithBang(args[1]);
    CKvFileChunker chunker;
    kv_result r = OpenForReading(chunker, file);
    if (r != KV_OK) return ReportOpenFailure(file, r, chunker);

    // A zero-byte part reads only the header, which gives the data length.
    SKvChunkHeader header;
    CKvByteArray piece;
    r = chunker.GetChunkPart(header, piece, 0, 0, name.c_str());
    if (r == KV_ERR_NOT_FOUND) return ReportFailure(file, "no chunk named \"" + EscapeName(name) + "\"", r);
    for (uint64_t offset = 0; r == KV_OK && offset < header.dataLength; offset += piece.GetSize()) {
        const uint32_t size = static_cast<uint32_t>(std::min<uint64_t>(kCatPieceSize, header.dataLength - offset));
        // The header is read again for every piece rather than vouched for:
        // a vouched header is located from the map entry, an unvouched one
        // where the reader found it, and the two differ in a damaged file.
        SKvChunkHeader pieceHeader;
        r = chunker.GetChunkPart(pieceHeader, piece, offset, size, name.c_str());
        if (r == KV_OK && !WriteStdout(piece.GetData(), piece.GetSize()))
            return ReportFailure("standard output", std::string("write failed: ") + std::strerror(errno), KV_ERR_FAILED);
    }
    if (r != KV_OK) return ReportFailure(file, "reading chunk \"" + EscapeName(name) + "\" failed", r);
    chunker.Finalize();
    return kExitOk;
}

// ---- repair ----

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
    if (r != KV_OK) return ReportFailure(file, "rebuilding the chunk map failed", r);
    const size_t found = CountDataChunks(chunker.GetChunkMap());
    chunker.Finalize();
    std::printf("%s: chunk map rebuilt, %zu chunk%s found\n", file.c_str(), found, found == 1 ? "" : "s");
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

const SQv8Command kCatCommand = {
    "cat", "write the data of one chunk to standard output",
    "usage: qv8 cat FILE NAME\n"
    "\n"
    "Writes the data bytes of chunk NAME of FILE to standard output, unchanged.\n"
    "The final \"!\" of NAME may be left out.\n",
    RunCat};

const SQv8Command kRepairCommand = {
    "repair", "rebuild the missing chunk map of a container",
    "usage: qv8 repair FILE\n"
    "\n"
    "Rebuilds the chunk map of FILE when it has none (its writer did not finish),\n"
    "by scanning the file for chunks, and reports how many data chunks it found.\n"
    "A file that has a map is left unchanged. The file is changed in place.\n",
    RunRepair};

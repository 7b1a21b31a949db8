// The command that writes the data of one chunk to standard output.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/qv8/Qv8Command.h"

namespace {

// A chunk is copied to standard output in pieces of this size, so memory
// stays bounded and chunks above 4 GiB can be printed too.
constexpr uint32_t kCatPieceSize = 4u << 20;

int RunCat(const Qv8Args& args) {
    if (args.size() != 2) return kExitUsage;
    const std::string& file = args[0];
    const std::string name = ChunkNameArg(args[1]);
    CKvFileChunker chunker;
    kv_result r = OpenForReading(chunker, file);
    if (r != KV_OK) return ReportOpenFailure(file, r, chunker);

    // A zero-byte part reads only the header, which gives the data length.
    SKvChunkHeader header;
    CKvByteArray piece;
    r = chunker.GetChunkPart(header, piece, 0, 0, name.c_str());
    if (r == KV_ERR_NOT_FOUND) return ReportFailure(file, "no chunk named \"" + EscapeChunkName(name) + "\"", r);
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
    if (r != KV_OK) return ReportFailure(file, "reading chunk \"" + EscapeChunkName(name) + "\" failed", r);
    chunker.Finalize();
    return kExitOk;
}

}  // namespace

const SQv8Command kCatCommand = {
    "cat", "write the data of one chunk to standard output",
    "usage: qv8 cat FILE NAME\n"
    "\n"
    "Writes the data bytes of chunk NAME of FILE to standard output, unchanged.\n"
    "The final \"!\" of NAME may be left out.\n",
    RunCat};

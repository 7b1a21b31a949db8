// Arbitrary bytes opened as a read-only container in memory: the map is
// walked and every chunk read whole, in parts and as frames are read; a read
// that succeeds must have found the chunk of that name where the map puts
// it. A container without a map is repaired on a copy, which must keep every
// byte it had, and walked again; one that opens for appending takes a new
// chunk, which must read back after finalizing.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fileformat/CKvFileChunker.h"
#include "gnr_system/KvBytes.h"

namespace {

// Whether the storage holds a chunk header and the name `name` at the
// position the map gives it.
bool NamedChunkAt(const CKvByteArray& storage, const CKvFileChunker& chunker, const CKvStringA& name) {
    const uint64_t position = chunker.GetChunkMap().at(name.View()).position;
    const uint64_t size = storage.GetSize();
    if (position > size || size - position < kChunkHeaderSize + name.Size()) return false;
    const uint8_t* at = storage.GetData() + position;
    uint8_t magic[4];
    kvbytes::StoreU32(magic, kChunkMagic);
    return std::memcmp(at, magic, 4) == 0 && std::memcmp(at + kChunkHeaderSize, name.c_str(), name.Size()) == 0;
}

void WalkAllChunks(CKvFileChunker& chunker, const CKvByteArray& storage) {
    CKvStringA name, previous;
    CKvByteArray data;
    std::vector<uint8_t> rest;
    kv_result r = chunker.GetNextChunkID(name, "");
    for (int guard = 0; r == KV_OK && guard < 4096; ++guard) {
        if (chunker.GetChunk(data, name.c_str()) == KV_OK && !NamedChunkAt(storage, chunker, name)) std::abort();
        SKvChunkHeader header;
        if (chunker.GetChunkPart(header, data, 0, 16, name.c_str()) == KV_OK) {
            if (!NamedChunkAt(storage, chunker, name)) std::abort();
            // Again with the header vouched for, as frame readers do.
            chunker.GetChunkPart(header, data, 8, 1, name.c_str());
        }
        // As frames are read: header and part in one read, checked against each other.
        uint8_t part[64];
        SKvChunkHeader aligned;
        if (chunker.ReadAlignedPart(aligned, part, 8, sizeof part, name.c_str()) == KV_OK &&
            !NamedChunkAt(storage, chunker, name))
            std::abort();
        uint64_t restSize = 0;
        if (chunker.ReadAlignedRest(aligned, rest, 8, restSize, name.c_str()) == KV_OK &&
            (restSize > rest.size() || aligned.magic != kChunkMagic || !NamedChunkAt(storage, chunker, name)))
            std::abort();
        chunker.ExistChunk(name.c_str());
        previous = name;
        r = chunker.GetNextChunkID(name, previous.c_str());
    }
}

int CountChunk(SKvChunkHeader&, CKvStringA& name, CKvByteArray&, void* user) {
    // In the adding phase, add one chunk and stop.
    int& calls = *static_cast<int*>(user);
    if (name.StartsWith("##ADD_NEW_CHUNKS##")) return calls++ > 1000 || name.EndsWith("1") ? KV_ERR_CANCELLED : KV_OK;
    ++calls;
    return KV_OK;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    {
        CKvByteArray storage(bytes, size);
        CKvFileChunker chunker;
        CKvStringA version;
        const kv_result r = chunker.Initialize_Memory(storage, true, false, version);
        if (r == KV_OK) WalkAllChunks(chunker, storage);
        if (r == KV_ERR_NOT_FOUND) {
            int calls = 0;
            if (chunker.CreateMissingChunkMap(CountChunk, &calls, nullptr) == KV_OK) {
                // Repair only adds: everything that was there is still there.
                if (storage.GetSize() < size || (size && std::memcmp(storage.GetData(), bytes, size) != 0))
                    std::abort();
                CKvFileChunker reread;
                if (reread.Initialize_Memory(storage, true, false, version) != KV_OK) std::abort();
                WalkAllChunks(reread, storage);
            }
        }
        chunker.Finalize();
    }
    {
        CKvByteArray storage(bytes, size);
        CKvFileChunker chunker;
        CKvStringA version("Ver3.0");
        if (chunker.Initialize_Memory(storage, false, true, version) == KV_OK) {
            static const char kPayload[] = "appended chunk";
            if (chunker.SetChunk(kPayload, sizeof kPayload, "FuzzAppended") != KV_OK) std::abort();
            if (chunker.Finalize() != KV_OK) std::abort();
            CKvFileChunker reread;
            CKvByteArray data;
            if (reread.Initialize_Memory(storage, true, false, version) != KV_OK) std::abort();
            if (reread.GetChunk(data, "FuzzAppended") != KV_OK || data.GetSize() != sizeof kPayload ||
                std::memcmp(data.GetData(), kPayload, sizeof kPayload) != 0)
                std::abort();
        }
    }
    return 0;
}

// Writes seed inputs for the fuzz targets with the library's own writers:
// make_seeds DIR creates DIR/chunker/ with small containers, finished,
// unfinished and damaged.
#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <vector>

#include "fileformat/CKvFileChunker.h"

namespace {

bool Save(const std::string& path, const uint8_t* data, size_t size) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    const bool ok = std::fwrite(data, 1, size, f) == size;
    return std::fclose(f) == 0 && ok;
}

// A container with a few chunks of each kind, in memory.
CKvByteArray MakeContainer(bool finish) {
    CKvByteArray storage;
    CKvFileChunker chunker;
    CKvStringA version("Ver3.0");
    chunker.Initialize_Memory(storage, false, false, version);
    const double time = 1.5;
    std::vector<uint8_t> pixels(5000);
    for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<uint8_t>(i * 7);
    chunker.SetChunk(&time, sizeof time, pixels.data(), static_cast<uint32_t>(pixels.size()), "ImageDataSeq|0");
    chunker.SetChunk("attributes", 10, "ImageAttributesLV");
    chunker.SetChunkPart(&time, sizeof time, pixels.data(), 100, 300, false, "Streamed");
    chunker.SetChunkPart(nullptr, 0, pixels.data(), 200, 0, true, "Streamed");
    chunker.SetChunk(nullptr, 0, "Empty");
    if (finish) chunker.Finalize();
    return storage;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_seeds DIR\n");
        return 2;
    }
    const std::string dir = std::string(argv[1]) + "/chunker";
    mkdir(argv[1], 0755);
    mkdir(dir.c_str(), 0755);

    CKvByteArray finished = MakeContainer(true);
    CKvByteArray unfinished = MakeContainer(false);
    CKvByteArray empty;
    {
        CKvFileChunker chunker;
        CKvStringA version("Ver3.0");
        chunker.Initialize_Memory(empty, false, false, version);
        chunker.Finalize();
    }
    CKvByteArray damaged = finished;
    damaged.GetData()[kPageSize] ^= 0xFF;           // first chunk's magic
    damaged.GetData()[kPageSize + 8] = 0x7F;        // and its data length
    bool ok = Save(dir + "/finished", finished.GetData(), finished.GetSize()) &&
              Save(dir + "/unfinished", unfinished.GetData(), unfinished.GetSize()) &&
              Save(dir + "/empty", empty.GetData(), empty.GetSize()) &&
              Save(dir + "/damaged", damaged.GetData(), damaged.GetSize()) &&
              Save(dir + "/truncated", finished.GetData(), finished.GetSize() - 100);
    return ok ? 0 : 1;
}

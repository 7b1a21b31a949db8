// Writes a small container the way an acquisition program does: a header
// chunk, then frames as two-part chunks (an 8-byte time stamp, then the
// pixel rows starting on a page boundary), then the chunk map.
//   container_demo OUT.qv8 [FRAMES]
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "fileformat/CKvFileChunker.h"

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: container_demo OUT.qv8 [FRAMES]\n");
        return 2;
    }
    const int frames = argc > 2 ? std::atoi(argv[2]) : 8;
    const CKvStringW path = CKvStringUtils::UTF8toW(argv[1]);
    CKvFileChunker chunker;
    CKvStringA version("Ver3.0");
    kv_result r = chunker.Initialize_File(path.c_str(), false, false, version);
    if (r != KV_OK) {
        std::fprintf(stderr, "container_demo: %s: cannot create (%d)\n", argv[1], r);
        return 1;
    }
    const char attributes[] = "width=256 height=256 bits=16";
    r = chunker.SetChunk(attributes, sizeof attributes - 1, "DemoAttributes");
    std::vector<uint16_t> pixels(256 * 256);
    for (int frame = 0; frame < frames && r == KV_OK; ++frame) {
        for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<uint16_t>((i % 256) * 64 + frame * 100);
        const double seconds = frame * 0.5;
        CKvStringA name;
        name.Format("ImageDataSeq|%i", frame);
        r = chunker.SetChunk(&seconds, sizeof seconds, pixels.data(),
                             static_cast<uint32_t>(pixels.size() * sizeof pixels[0]), name.c_str());
    }
    const kv_result finalized = chunker.Finalize();
    if (r == KV_OK) r = finalized;
    if (r != KV_OK) {
        std::fprintf(stderr, "container_demo: %s: write failed (%d)\n", argv[1], r);
        return 1;
    }
    std::printf("%s: %d frames written\n", argv[1], frames);
    return 0;
}

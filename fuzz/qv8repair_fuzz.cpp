// Repairs arbitrary bytes as a QV8 file whose writer never finished (its map
// trailer cut off), then reads the repaired file back through the format:
// recovery must neither crash on what it scans nor leave a file that reads
// wrongly. The input goes through a scratch file, as repair works on files.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "fileformat/CKvFileChunker.h"
#include "fileformat/CKvImageFormatQV8.h"
#include "fileformat/QV8Repair.h"

namespace {

// Frames larger than this are not read back: the fuzzer would spend its time allocating.
constexpr uint64_t kMaxFuzzFrame = 16ull << 20;
// Frames read back after a repair.
constexpr uint32_t kFramesRead = 4;

const std::string& ScratchFile() {
    static const std::string path = "/tmp/qv8repair_fuzz." + std::to_string(getpid()) + ".qv8";
    return path;
}

void ReadBack(const CKvStringW& name) {
    IKvInputImageFile* reader = nullptr;
    if (CKvImageFormatQV8::Shared()->CreateInputImageFile(name, reader) != KV_OK || !reader) return;
    SKvImageAttributes attributes;
    if (reader->GetImageAttributes(attributes) == KV_OK && attributes.FrameSize() > 0 &&
        attributes.FrameSize() <= kMaxFuzzFrame) {
        std::vector<uint8_t> frame(static_cast<size_t>(attributes.FrameSize()));
        for (uint32_t i = 0; i < kFramesRead && i < attributes.uiSequenceCount; ++i)
            reader->GetData(i, frame.data(), nullptr, nullptr);
    }
    SKvPictureMetadata metadata;
    reader->GetImageMetadata(0, metadata, nullptr);
    reader->Release();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A file with its trailer is left alone by repair: the trailer is cut so
    // that the scan runs on every input.
    const size_t kept = size > kChunkMapTrailerSize ? size - kChunkMapTrailerSize : size;
    const std::string& path = ScratchFile();
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return 0;
    const bool written = std::fwrite(data, 1, kept, f) == kept;
    if (std::fclose(f) != 0 || !written) return 0;

    const CKvStringW name = CKvStringUtils::UTF8toW(path.c_str());
    SKvQV8RepairReport report;
    if (KvQV8RepairFile(name.c_str(), report, nullptr, nullptr) == KV_OK) ReadBack(name);
    std::remove(path.c_str());
    return 0;
}

// Opens arbitrary bytes as a QV8 container and calls every read operation of
// the reader its version text selects: version 2 for "Ver2...", else version 3.
// (Every container starts with the same chunk magic, so the version text is
// the byte the fuzzer can flip to reach the other reader.)
// Frames are read into buffers of exactly the frame size the attributes
// claim, so any write past it is caught by the address sanitizer.
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "fileformat/CKvQV8InputFile.h"

namespace {

// Larger frames are not read: the fuzzer would spend its time allocating.
constexpr uint64_t kMaxFuzzFrame = 64ull << 20;

void Exercise(IKvInputImageFile* reader) {
    SKvImageAttributes attributes;
    const bool shaped = reader->GetImageAttributes(attributes) == KV_OK;
    const uint64_t frameSize = attributes.FrameSize();
    if (shaped && frameSize > 0 && frameSize <= kMaxFuzzFrame) {
        std::vector<uint8_t> frame(static_cast<size_t>(frameSize));
        reader->GetData(0, frame.data(), nullptr, nullptr);
        reader->GetData(1, frame.data(), nullptr, nullptr);
        // One component of every sample fits the frame buffer.
        reader->GetComponentData(0, 0, frame.data(), 0, 0);
        const uint32_t width = attributes.uiWidth, height = attributes.uiHeight;
        reader->GetRectData(0, 0, 0, width, height, width, height, frame.data(), 0, 0, nullptr, nullptr);
        reader->GetRectData(0, 0, 0, width, height, 1, 1, frame.data(), 0, 0, nullptr, nullptr);
    }

    SKvExperiment experiment;
    CKvVariant tree;
    reader->GetImageMetadata(experiment, &tree);
    SKvPictureMetadata metadata;
    reader->GetImageMetadata(0, metadata, &tree);
    reader->GetImageMetadata(5, metadata, nullptr);
    SKvImageTextInfo info;
    reader->GetImageTextInfo(info);
    SKvExperimentRecord record;
    reader->GetImageEvents(record, &tree);

    CKvByteArray data;
    reader->GetCustomData(L"Tag", data);
    reader->GetCustomDataSeq(L"Tag", 0, data);
    CKvVariant custom;
    reader->GetCustomDataVar(L"Tag", custom);
    reader->GetCustomDataVarSeq(L"Tag", 0, custom);
    reader->GetCustomDataVar(kThumbnailName, custom);
    reader->GetImageBinary(nullptr);
    reader->GetImageBinary(&data);
    double time = 0.0;
    reader->GetAcqTime(time);
    reader->Release();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CKvByteArray bytes(data, size);
    auto chunker = std::make_unique<CKvFileChunker>();
    CKvStringA version;
    if (chunker->Initialize_Memory(bytes, true, false, version) != KV_OK) return 0;
    if (std::strncmp(version.c_str(), "Ver2", 4) == 0) {
        Exercise(new CKvQV8InputFile_V02(nullptr, std::move(chunker)));
    } else {
        Exercise(new CKvQV8InputFile_V03(nullptr, std::move(chunker)));
    }
    return 0;
}

// QV8 files written and read as a client of the format does: the version-3
// output file with the frame shape as attributes, one FlushData per frame and
// Finalize; the input file opened, its attributes read, then GetData per frame.
#include "bench/peers/FrameStores.h"
#include "fileformat/CKvImageFormatQV8.h"
#include "fileformat/KvFrameCodec.h"

namespace {

CKvStringW WidePath(const std::string& path) { return CKvStringUtils::UTF8toW(path.c_str()); }

std::string Failure(const char* what, kv_result result) {
    return std::string("qv8: ") + what + " (" + std::to_string(result) + ")";
}

class CQv8Store : public CFrameStore {
public:
    explicit CQv8Store(SCodec codec) : m_codec(codec) {}
    ~CQv8Store() override { Close(); }

    void Write(const std::string& path, const SFrameSet& frames) override {
        KvSetFrameCodecThreads(m_codec.threads);
        IKvOutputImageFile* out = nullptr;
        kv_result r = m_format.CreateOutputImageFile(WidePath(path), out);
        Require(r == KV_OK && out, Failure("cannot create the file", r));
        r = out->SetImageAttributes(Attributes(frames));
        for (uint32_t i = 0; i < frames.count && r == KV_OK; ++i)
            r = out->FlushData(i, const_cast<uint16_t*>(frames.Frame(i)), nullptr, nullptr);
        if (r == KV_OK) r = out->Finalize();
        out->Release();
        Require(r == KV_OK, Failure("writing failed", r));
    }
    void Open(const std::string& path, const SFrameSet& frames) override {
        Close();
        kv_result r = m_format.CreateInputImageFile(WidePath(path), m_input);
        Require(r == KV_OK && m_input, Failure("cannot open the file", r));
        SKvImageAttributes attributes;
        r = m_input->GetImageAttributes(attributes);
        Require(r == KV_OK, Failure("cannot read the attributes", r));
        Require(attributes.uiSequenceCount == frames.count && attributes.FrameSize() == frames.FrameBytes(),
                "qv8: the file holds another shape than was written");
    }
    void Read(uint32_t index, void* out) override {
        const kv_result r = m_input->GetData(index, out, nullptr, nullptr);
        Require(r == KV_OK, Failure("cannot read a frame", r));
    }
    void Close() override {
        if (m_input) m_input->Release();
        m_input = nullptr;
    }

private:
    SKvImageAttributes Attributes(const SFrameSet& frames) const {
        SKvImageAttributes a;
        a.uiWidth = frames.width;
        a.uiWidthBytes = frames.width * sizeof(uint16_t);
        a.uiHeight = frames.height;
        a.uiComp = 1;
        a.uiBpcInMemory = 16;
        a.uiBpcSignificant = 12;  // the synthetic frames stay below 4096
        a.eCompression = m_codec.level > 0 ? kCompressionZlib : kCompressionNone;
        a.dCompressionParam = m_codec.level;
        return a;
    }

    SCodec m_codec;
    CKvImageFormatQV8 m_format;
    IKvInputImageFile* m_input = nullptr;
};

}  // namespace

std::unique_ptr<CFrameStore> MakeQv8Store(SCodec codec) { return std::make_unique<CQv8Store>(codec); }

// Multi-page TIFF through libtiff: one page per frame, the whole frame in one
// strip, raw or Adobe deflate at the codec's level. Frames are reached by
// reading the next directory when they follow the current one and by
// TIFFSetDirectory otherwise.
#include <tiffio.h>

#include "bench/peers/FrameStores.h"

namespace {

class CTiffStore : public CFrameStore {
public:
    explicit CTiffStore(SCodec codec) : m_codec(codec) {}
    ~CTiffStore() override { Close(); }

    void Write(const std::string& path, const SFrameSet& frames) override {
        TIFF* tiff = TIFFOpen(path.c_str(), "w");
        Require(tiff, "libtiff: cannot create " + path);
        bool ok = true;
        for (uint32_t i = 0; i < frames.count && ok; ++i) {
            SetPageTags(tiff, frames);
            const tmsize_t size = static_cast<tmsize_t>(frames.FrameBytes());
            ok = TIFFWriteEncodedStrip(tiff, 0, const_cast<uint16_t*>(frames.Frame(i)), size) == size &&
                 TIFFWriteDirectory(tiff) == 1;
        }
        TIFFClose(tiff);
        Require(ok, "libtiff: writing failed");
    }
    void Open(const std::string& path, const SFrameSet& frames) override {
        Close();
        // "c": no strip chopping, which would cut the single raw strip into
        // pieces of a few rows; a whole frame is wanted at once.
        m_tiff = TIFFOpen(path.c_str(), "rc");
        Require(m_tiff, "libtiff: cannot open " + path);
        m_frameBytes = static_cast<tmsize_t>(frames.FrameBytes());
    }
    void Read(uint32_t index, void* out) override {
        const tdir_t current = TIFFCurrentDirectory(m_tiff);
        if (index != current) {
            const bool next = index == static_cast<uint32_t>(current) + 1;
            const int moved = next ? TIFFReadDirectory(m_tiff) : TIFFSetDirectory(m_tiff, static_cast<tdir_t>(index));
            Require(moved == 1, "libtiff: no page " + std::to_string(index));
        }
        Require(TIFFReadEncodedStrip(m_tiff, 0, out, m_frameBytes) == m_frameBytes,
                "libtiff: cannot read page " + std::to_string(index));
    }
    void Close() override {
        if (m_tiff) TIFFClose(m_tiff);
        m_tiff = nullptr;
    }

private:
    void SetPageTags(TIFF* tiff, const SFrameSet& frames) const {
        TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, frames.width);
        TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, frames.height);
        TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 16);
        TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 1);
        TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_UINT);
        TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
        TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
        TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, frames.height);
        if (m_codec.level > 0) {
            TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
            TIFFSetField(tiff, TIFFTAG_ZIPQUALITY, m_codec.level);
        } else {
            TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
        }
    }

    SCodec m_codec;
    TIFF* m_tiff = nullptr;
    tmsize_t m_frameBytes = 0;
};

}  // namespace

std::string TiffVersion() {
    // The first line of libtiff's version text is "LIBTIFF, Version x.y.z".
    const std::string text = TIFFGetVersion();
    return text.substr(0, text.find('\n'));
}

std::unique_ptr<CFrameStore> MakeTiffStore(SCodec codec) { return std::make_unique<CTiffStore>(codec); }

// An HDF5 file holding one dataset [frames, height, width] of uint16, chunked
// one frame per chunk, raw or with the deflate filter at the codec's level.
// Frames go in and out as one-frame hyperslabs, with the library's defaults
// for everything else, as a typical client uses it.
#include <hdf5.h>

#include "bench/peers/FrameStores.h"

namespace {

constexpr const char* kDatasetName = "frames";

class CHdf5Store : public CFrameStore {
public:
    explicit CHdf5Store(SCodec codec) : m_codec(codec) {}
    ~CHdf5Store() override { Close(); }

    void Write(const std::string& path, const SFrameSet& frames) override {
        const hid_t file = H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT);
        Require(file >= 0, "hdf5: cannot create " + path);
        const hsize_t dims[3] = {frames.count, frames.height, frames.width};
        const hsize_t chunk[3] = {1, frames.height, frames.width};
        const hid_t space = H5Screate_simple(3, dims, nullptr);
        const hid_t properties = H5Pcreate(H5P_DATASET_CREATE);
        H5Pset_chunk(properties, 3, chunk);
        if (m_codec.level > 0) H5Pset_deflate(properties, static_cast<unsigned>(m_codec.level));
        const hid_t dataset =
            H5Dcreate2(file, kDatasetName, H5T_STD_U16LE, space, H5P_DEFAULT, properties, H5P_DEFAULT);
        const hid_t frameSpace = H5Screate_simple(3, chunk, nullptr);
        bool ok = dataset >= 0;
        for (uint32_t i = 0; i < frames.count && ok; ++i) {
            SelectFrame(space, i, frames);
            ok = H5Dwrite(dataset, H5T_NATIVE_UINT16, frameSpace, space, H5P_DEFAULT, frames.Frame(i)) >= 0;
        }
        H5Sclose(frameSpace);
        if (dataset >= 0) H5Dclose(dataset);
        H5Pclose(properties);
        H5Sclose(space);
        ok = H5Fclose(file) >= 0 && ok;
        Require(ok, "hdf5: writing failed");
    }
    void Open(const std::string& path, const SFrameSet& frames) override {
        Close();
        m_file = H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
        Require(m_file >= 0, "hdf5: cannot open " + path);
        m_dataset = H5Dopen2(m_file, kDatasetName, H5P_DEFAULT);
        Require(m_dataset >= 0, "hdf5: no dataset");
        m_space = H5Dget_space(m_dataset);
        const hsize_t chunk[3] = {1, frames.height, frames.width};
        m_frameSpace = H5Screate_simple(3, chunk, nullptr);
        m_frames = &frames;
    }
    void Read(uint32_t index, void* out) override {
        SelectFrame(m_space, index, *m_frames);
        Require(H5Dread(m_dataset, H5T_NATIVE_UINT16, m_frameSpace, m_space, H5P_DEFAULT, out) >= 0,
                "hdf5: cannot read a frame");
    }
    void Close() override {
        if (m_frameSpace >= 0) H5Sclose(m_frameSpace);
        if (m_space >= 0) H5Sclose(m_space);
        if (m_dataset >= 0) H5Dclose(m_dataset);
        if (m_file >= 0) H5Fclose(m_file);
        m_frameSpace = m_space = m_dataset = m_file = -1;
    }

private:
    static void SelectFrame(hid_t space, uint32_t index, const SFrameSet& frames) {
        const hsize_t start[3] = {index, 0, 0};
        const hsize_t count[3] = {1, frames.height, frames.width};
        Require(H5Sselect_hyperslab(space, H5S_SELECT_SET, start, nullptr, count, nullptr) >= 0,
                "hdf5: cannot select a frame");
    }

    SCodec m_codec;
    hid_t m_file = -1;
    hid_t m_dataset = -1;
    hid_t m_space = -1;       // the whole dataset; one frame selected at a time
    hid_t m_frameSpace = -1;  // the caller's buffer: one frame
    const SFrameSet* m_frames = nullptr;
};

}  // namespace

std::string Hdf5Version() {
    unsigned major = 0, minor = 0, release = 0;
    H5get_libversion(&major, &minor, &release);
    return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(release);
}

std::unique_ptr<CFrameStore> MakeHdf5Store(SCodec codec) { return std::make_unique<CHdf5Store>(codec); }

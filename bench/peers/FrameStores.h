// The ways of keeping a sequence of equally sized 16-bit frames that the peer
// benchmark compares: QV8 files, plain POSIX files, in-memory copies and zlib
// streams, multi-page TIFF files and HDF5 datasets. Each store writes a whole
// sequence, then opens it again and reads single frames into a caller's buffer.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

// Frames generated once, before anything is timed, and kept in one block.
struct SFrameSet {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t count = 0;
    std::vector<uint16_t> pixels;  // count frames, one after the other

    uint64_t FrameBytes() const { return uint64_t{width} * height * sizeof(uint16_t); }
    uint64_t TotalBytes() const { return FrameBytes() * count; }
    const uint16_t* Frame(uint32_t index) const { return pixels.data() + uint64_t{width} * height * index; }
};

// Any failure of a store or of a check ends the benchmark with this message.
class CBenchError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

inline void Require(bool condition, const std::string& what) {
    if (!condition) throw CBenchError(what);
}

// How the frame pixels are stored: raw, or deflated at `level` (1..9) using
// up to `threads` threads where the store can use more than one.
struct SCodec {
    int level = 0;  // 0: raw
    int threads = 1;
};

class CFrameStore {
public:
    virtual ~CFrameStore() = default;

    // Allocates what Write needs for frames of this shape, so that the timed
    // writes measure the work and not the first touch of fresh memory.
    virtual void Prepare(const SFrameSet&) {}
    // Writes every frame into a new file at `path` (which does not exist) and
    // closes it: what a client does to record a sequence.
    virtual void Write(const std::string& path, const SFrameSet& frames) = 0;
    // Opens what Write made, as a client does before its first frame.
    virtual void Open(const std::string& path, const SFrameSet& frames) = 0;
    // Frame `index` into `out`, which holds FrameBytes() bytes.
    virtual void Read(uint32_t index, void* out) = 0;
    virtual void Close() = 0;
    // Bytes the written sequence takes: the file size unless the store keeps
    // its frames elsewhere.
    virtual uint64_t StoredBytes(const std::string& path) const;
};

// memcpy into and out of one block of memory as large as the sequence: the
// fastest any store can move the bytes.
std::unique_ptr<CFrameStore> MakeMemcpyStore();
// One POSIX write per frame into one file, offsets kept in memory; pread back.
// With `sync`, the file's data and its directory entry are synced before the
// close, as a file that must survive a power cut is.
std::unique_ptr<CFrameStore> MakePosixStore(bool sync = false);
// compress2 of each frame into its own buffer, uncompress back; no file.
std::unique_ptr<CFrameStore> MakeZlibStore(int level);
// A QV8 file through the format's output and input files.
std::unique_ptr<CFrameStore> MakeQv8Store(SCodec codec);
// A multi-page TIFF, one page and one strip per frame.
std::unique_ptr<CFrameStore> MakeTiffStore(SCodec codec);
// An HDF5 dataset [frames, height, width] of uint16, one chunk per frame.
std::unique_ptr<CFrameStore> MakeHdf5Store(SCodec codec);

// Versions of the libraries behind the stores, for the report.
std::string ZlibVersion();
std::string TiffVersion();
std::string Hdf5Version();

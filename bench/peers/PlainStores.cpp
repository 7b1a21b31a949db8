// The reference stores: memcpy, plain POSIX files and bare zlib streams. They
// do the least work that keeps the frames, so the library is measured against
// them.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>

#include "bench/peers/FrameStores.h"

uint64_t CFrameStore::StoredBytes(const std::string& path) const {
    struct stat info {};
    Require(stat(path.c_str(), &info) == 0, path + ": cannot stat");
    return static_cast<uint64_t>(info.st_size);
}

namespace {

std::string SystemError(const std::string& what) { return what + ": " + std::strerror(errno); }

class CMemcpyStore : public CFrameStore {
public:
    void Prepare(const SFrameSet& frames) override {
        m_arena.assign(frames.TotalBytes(), 0);  // touched now, not while timed
    }
    void Write(const std::string&, const SFrameSet& frames) override {
        Require(m_arena.size() >= frames.TotalBytes(), "memcpy: not prepared");
        for (uint32_t i = 0; i < frames.count; ++i)
            std::memcpy(m_arena.data() + i * frames.FrameBytes(), frames.Frame(i), frames.FrameBytes());
    }
    void Open(const std::string&, const SFrameSet& frames) override { m_frameBytes = frames.FrameBytes(); }
    void Read(uint32_t index, void* out) override {
        std::memcpy(out, m_arena.data() + index * m_frameBytes, m_frameBytes);
    }
    void Close() override {}
    uint64_t StoredBytes(const std::string&) const override { return m_arena.size(); }

private:
    std::vector<uint8_t> m_arena;
    uint64_t m_frameBytes = 0;
};

class CPosixStore : public CFrameStore {
public:
    explicit CPosixStore(bool sync) : m_bSync(sync) {}
    ~CPosixStore() override { Close(); }

    void Write(const std::string& path, const SFrameSet& frames) override {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        Require(fd >= 0, SystemError(path));
        m_offsets.clear();
        uint64_t offset = 0;
        for (uint32_t i = 0; i < frames.count; ++i) {
            m_offsets.push_back(offset);
            WriteAll(fd, frames.Frame(i), frames.FrameBytes(), path);
            offset += frames.FrameBytes();
        }
        if (m_bSync) {
            Require(fdatasync(fd) == 0, SystemError(path));
            const size_t slash = path.find_last_of('/');
            const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
            const int dirFd = open(directory.c_str(), O_RDONLY | O_DIRECTORY);
            Require(dirFd >= 0 && fsync(dirFd) == 0, SystemError(directory));
            close(dirFd);
        }
        Require(close(fd) == 0, SystemError(path));
    }
    void Open(const std::string& path, const SFrameSet& frames) override {
        Close();
        m_fd = open(path.c_str(), O_RDONLY);
        Require(m_fd >= 0, SystemError(path));
        m_frameBytes = frames.FrameBytes();
    }
    void Read(uint32_t index, void* out) override {
        Require(index < m_offsets.size(), "pread: no such frame");
        const ssize_t got = pread(m_fd, out, m_frameBytes, static_cast<off_t>(m_offsets[index]));
        Require(got == static_cast<ssize_t>(m_frameBytes), SystemError("pread"));
    }
    void Close() override {
        if (m_fd >= 0) close(m_fd);
        m_fd = -1;
    }

private:
    static void WriteAll(int fd, const void* data, uint64_t size, const std::string& path) {
        const auto* bytes = static_cast<const uint8_t*>(data);
        while (size > 0) {
            const ssize_t put = write(fd, bytes, size);
            Require(put > 0, SystemError(path));
            bytes += put;
            size -= static_cast<uint64_t>(put);
        }
    }

    bool m_bSync;
    std::vector<uint64_t> m_offsets;  // where each frame starts, as a writer would index them
    int m_fd = -1;
    uint64_t m_frameBytes = 0;
};

class CZlibStore : public CFrameStore {
public:
    explicit CZlibStore(int level) : m_level(level) {}

    void Prepare(const SFrameSet& frames) override {
        const uLong bound = compressBound(static_cast<uLong>(frames.FrameBytes()));
        m_streams.assign(frames.count, std::vector<uint8_t>(bound, 0));
        m_sizes.assign(frames.count, 0);
    }
    void Write(const std::string&, const SFrameSet& frames) override {
        Require(m_streams.size() == frames.count, "compress2: not prepared");
        for (uint32_t i = 0; i < frames.count; ++i) {
            uLongf size = static_cast<uLongf>(m_streams[i].size());
            Require(compress2(m_streams[i].data(), &size, reinterpret_cast<const Bytef*>(frames.Frame(i)),
                              static_cast<uLong>(frames.FrameBytes()), m_level) == Z_OK,
                    "compress2 failed");
            m_sizes[i] = size;
        }
    }
    void Open(const std::string&, const SFrameSet& frames) override { m_frameBytes = frames.FrameBytes(); }
    void Read(uint32_t index, void* out) override {
        uLongf size = static_cast<uLongf>(m_frameBytes);
        Require(uncompress(static_cast<Bytef*>(out), &size, m_streams[index].data(), m_sizes[index]) == Z_OK &&
                    size == m_frameBytes,
                "uncompress failed");
    }
    void Close() override {}
    uint64_t StoredBytes(const std::string&) const override {
        uint64_t total = 0;
        for (uLongf size : m_sizes) total += size;
        return total;
    }

private:
    int m_level;
    std::vector<std::vector<uint8_t>> m_streams;  // one deflated frame each
    std::vector<uLongf> m_sizes;
    uint64_t m_frameBytes = 0;
};

}  // namespace

std::unique_ptr<CFrameStore> MakeMemcpyStore() { return std::make_unique<CMemcpyStore>(); }
std::unique_ptr<CFrameStore> MakePosixStore(bool sync) { return std::make_unique<CPosixStore>(sync); }
std::unique_ptr<CFrameStore> MakeZlibStore(int level) { return std::make_unique<CZlibStore>(level); }

std::string ZlibVersion() { return zlibVersion(); }

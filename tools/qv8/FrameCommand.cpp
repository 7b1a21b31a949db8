// The command that takes the pixels of one frame out of a file: raw to
// standard output, or as a Netpbm picture (PGM, PAM) that viewers open.
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "tools/qv8/Qv8Command.h"
#include "tools/qv8/Qv8ImageFile.h"

namespace {

// Netpbm samples are at most 16 bits.
constexpr uint32_t kNetpbmMaxBits = 16;

struct SFrameRequest {
    std::string file;
    uint32_t index = 0;
    std::string out;  // empty: standard output
};

bool ParseFrameArgs(const Qv8Args& args, SFrameRequest& request) {
    std::vector<std::string> positional;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "-o" && i + 1 < args.size() && request.out.empty()) request.out = args[++i];
        else if (args[i].empty() || args[i][0] == '-') return false;
        else positional.push_back(args[i]);
    }
    if (positional.size() != 2 || !ParseUnsigned(positional[1], 0, UINT32_MAX, request.index)) return false;
    request.file = positional[0];
    return true;
}

// Extensions are compared without regard to case: "X.PGM" is a PGM too.
bool HasExtension(const std::string& path, const char* extension) {
    const size_t n = std::strlen(extension);
    return path.size() >= n && strcasecmp(path.c_str() + path.size() - n, extension) == 0;
}

// Component `c` of pixel (x, y) of a frame of 8- or 16-bit little-endian samples.
uint32_t Sample(const SKvImageAttributes& a, const std::vector<uint8_t>& frame, uint32_t x, uint32_t y, uint32_t c) {
    const size_t at = static_cast<size_t>(y) * a.uiWidthBytes + (static_cast<size_t>(x) * a.uiComp + c) * (a.uiBpcInMemory / 8);
    return a.uiBpcInMemory == 8 ? frame[at] : frame[at] | (frame[at + 1] << 8);
}

// Largest sample value: from the significant bits when the file gives them.
uint32_t NetpbmMaxval(const SKvImageAttributes& a) {
    const uint32_t bits = a.uiBpcSignificant && a.uiBpcSignificant <= a.uiBpcInMemory ? a.uiBpcSignificant : a.uiBpcInMemory;
    return (1u << bits) - 1;
}

// The raster of the first `depth` components of every pixel, big-endian
// when samples take two bytes, each sample capped at `maxval`.
std::string NetpbmRaster(const SKvImageAttributes& a, const std::vector<uint8_t>& frame, uint32_t depth, uint32_t maxval) {
    const bool wide = maxval > 255;
    std::string raster;
    raster.reserve(static_cast<size_t>(a.uiWidth) * a.uiHeight * depth * (wide ? 2 : 1));
    for (uint32_t y = 0; y < a.uiHeight; ++y) {
        for (uint32_t x = 0; x < a.uiWidth; ++x) {
            for (uint32_t c = 0; c < depth; ++c) {
                const uint32_t v = std::min(Sample(a, frame, x, y, c), maxval);
                if (wide) raster += static_cast<char>(v >> 8);
                raster += static_cast<char>(v & 0xFF);
            }
        }
    }
    return raster;
}

const char* TupleType(uint32_t components) {
    switch (components) {
        case 1: return "GRAYSCALE";
        case 3: return "RGB";
        default: return "CHANNELS";
    }
}

// The frame as the file `out` asks for by its extension: PGM of the first
// component, PAM of all of them, else the raw frame buffer.
bool EncodeFrame(const SKvImageAttributes& a, const std::vector<uint8_t>& frame, const std::string& out,
                 std::string& bytes) {
    const bool pgm = HasExtension(out, ".pgm"), pam = HasExtension(out, ".pam");
    if (!pgm && !pam) {
        bytes.assign(frame.begin(), frame.end());
        return true;
    }
    if (a.uiBpcInMemory != 8 && a.uiBpcInMemory != kNetpbmMaxBits) return false;
    const uint32_t maxval = NetpbmMaxval(a);
    char header[160];
    if (pgm)
        std::snprintf(header, sizeof header, "P5\n%u %u\n%u\n", a.uiWidth, a.uiHeight, maxval);
    else
        std::snprintf(header, sizeof header, "P7\nWIDTH %u\nHEIGHT %u\nDEPTH %u\nMAXVAL %u\nTUPLTYPE %s\nENDHDR\n",
                      a.uiWidth, a.uiHeight, a.uiComp, maxval, TupleType(a.uiComp));
    bytes = header + NetpbmRaster(a, frame, pgm ? 1 : a.uiComp, maxval);
    return true;
}

bool WriteFile(const std::string& path, const std::string& bytes) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return std::fclose(f) == 0 && written;
}

int Deliver(const SKvImageAttributes& a, const std::vector<uint8_t>& frame, const std::string& out) {
    if (out.empty()) {
        if (isatty(STDOUT_FILENO))
            return ReportFailure("standard output", "is a terminal; redirect the pixels or use -o FILE", KV_ERR_FAILED);
        if (!WriteStdout(frame.data(), frame.size()))
            return ReportFailure("standard output", "write failed", KV_ERR_FAILED);
        return kExitOk;
    }
    std::string bytes;
    if (!EncodeFrame(a, frame, out, bytes))
        return ReportFailure(out, "Netpbm takes 8- or 16-bit samples only; write a raw file instead", KV_ERR_NOT_SUPPORTED);
    if (!WriteFile(out, bytes)) return ReportFailure(out, std::string("cannot write: ") + std::strerror(errno), KV_ERR_FAILED);
    return kExitOk;
}

std::string FramesText(const SKvImageAttributes& a) {
    if (a.uiSequenceCount == 0) return "the file has no frames";
    return "the file has " + std::to_string(a.uiSequenceCount) + " frames (0 to " +
           std::to_string(a.uiSequenceCount - 1) + ")";
}

int RunFrame(const Qv8Args& args) {
    SFrameRequest request;
    if (!ParseFrameArgs(args, request)) return kExitUsage;
    CQv8ImageFile image;
    SKvImageAttributes a;
    if (OpenImageFile(request.file, image, a) != kExitOk) return kExitFailure;
    if (request.index >= a.uiSequenceCount)
        return ReportFailure(request.file, "no frame " + std::to_string(request.index) + ": " + FramesText(a),
                             KV_ERR_NOT_FOUND);
    // Rows shorter than their pixels come only from damaged attributes.
    if (static_cast<uint64_t>(a.uiWidth) * a.uiComp * ((a.uiBpcInMemory + 7) / 8) > a.uiWidthBytes)
        return ReportFailure(request.file, "the attributes give rows shorter than their pixels", KV_ERR_FAILED);
    std::vector<uint8_t> frame(a.FrameSize());
    const kv_result r = image->GetData(request.index, frame.data(), nullptr, nullptr);
    if (r != KV_OK) return ReportFailure(request.file, "reading frame " + std::to_string(request.index) + " failed", r);
    return Deliver(a, frame, request.out);
}

}  // namespace

const SQv8Command kFrameCommand = {
    "frame", "the pixels of one frame: raw, or as a PGM / PAM picture",
    "usage: qv8 frame FILE INDEX [-o OUT]\n"
    "\n"
    "Reads frame INDEX (0 is the first) of FILE.\n"
    "\n"
    "Without -o the frame buffer goes to standard output as the library returns\n"
    "it: HEIGHT rows of WIDTHBYTES bytes each (the row size of the file's\n"
    "attributes, padding included), the components of each pixel interleaved,\n"
    "samples of 16 bits little-endian. 'qv8 info --json' shows the shape.\n"
    "\n"
    "  -o OUT   write to the file OUT instead; its extension picks the form:\n"
    "           .pgm  Netpbm P5 of the first component only (the other\n"
    "                 components of a multi-component frame are left out)\n"
    "           .pam  Netpbm P7 with DEPTH = components and TUPLTYPE GRAYSCALE\n"
    "                 (1), RGB (3) or CHANNELS (any other count)\n"
    "           any other extension: the raw frame buffer as above\n"
    "           In PGM and PAM, MAXVAL is 2^bits - 1 of the significant bits,\n"
    "           with MAXVAL above 255 every sample takes two bytes, big-endian,\n"
    "           and rows carry no padding. Only 8- and 16-bit samples fit.\n"
    "\n"
    "An INDEX past the last frame is an error (exit status 1).\n",
    RunFrame};

// Error reports, container opening and the progress bar shared by the commands.
#include "tools/qv8/Qv8Command.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "gnr_system/CKvString.h"

int ReportFailure(const std::string& subject, const std::string& what, kv_result code) {
    std::fprintf(stderr, "qv8: %s: %s (%d)\n", subject.c_str(), what.c_str(), static_cast<int>(code));
    return kExitFailure;
}

kv_result OpenForReading(CKvFileChunker& chunker, const std::string& file, CKvStringA* version) {
    const CKvStringW wide = CKvStringUtils::UTF8toW(file.c_str());
    CKvStringA text;
    const kv_result r = chunker.Initialize_File(wide.c_str(), true, false, text);
    if (version) *version = text;
    return r;
}

namespace {

// The container layer answers -9 both for a file it cannot open and for one
// that is not a container; the file system tells the two apart.
std::string DescribeUnopenedFile(const std::string& file) {
    struct stat info;
    if (stat(file.c_str(), &info) != 0) return std::string("cannot open: ") + std::strerror(errno);
    if (S_ISDIR(info.st_mode)) return "cannot open: is a directory";
    if (access(file.c_str(), R_OK) != 0) return std::string("cannot open: ") + std::strerror(errno);
    return "";
}

}  // namespace

int ReportOpenFailure(const std::string& file, kv_result code, const CKvFileChunker& chunker) {
    if (code == KV_ERR_NOT_FOUND && chunker.IsChunkMapMissing())
        return ReportFailure(file, "no chunk map (the writer did not finish); try 'qv8 repair " + file + "'", code);
    const std::string unopened = DescribeUnopenedFile(file);
    if (!unopened.empty()) return ReportFailure(file, unopened, code);
    if (code == KV_ERR_FAILED) return ReportFailure(file, "not a QV8 container", code);
    return ReportFailure(file, "cannot read the container", code);
}

bool WriteStdout(const void* data, size_t size) {
    return size == 0 || std::fwrite(data, 1, size, stdout) == size;
}

int PrintOrFail(const std::string& text) {
    if (!WriteStdout(text.data(), text.size())) return ReportFailure("standard output", "write failed", KV_ERR_FAILED);
    return kExitOk;
}

std::string EscapeChunkName(std::string_view name) {
    std::string out;
    out.reserve(name.size());
    for (unsigned char c : name) {
        if (c < 0x20 || c == 0x7F || c == '\\') {
            char escaped[5];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string ChunkNameArg(const std::string& name) {
    return !name.empty() && name.back() == '!' ? name : name + '!';
}

std::string Utf8(const CKvStringW& text) { return CKvStringUtils::WtoUTF8(text.GetString(), text.Size()).Std(); }

bool SplitArgs(const Qv8Args& args, const char* flag, bool& flagSet, std::vector<std::string>& positional) {
    flagSet = false;
    for (const std::string& arg : args) {
        if (arg == flag) flagSet = true;
        else if (!arg.empty() && arg[0] == '-') return false;
        else positional.push_back(arg);
    }
    return true;
}

bool ParseUnsigned(const std::string& text, uint32_t min, uint32_t max, uint32_t& value) {
    if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    const unsigned long long parsed = std::strtoull(text.c_str(), nullptr, 10);
    if (parsed < min || parsed > max) return false;
    value = static_cast<uint32_t>(parsed);
    return true;
}

// ---- progress bar ----

namespace {
constexpr int kBarWidth = 40;
}

CQv8ProgressBar::CQv8ProgressBar(const char* label) : m_szLabel(label), m_bShown(isatty(STDERR_FILENO) != 0) {}

CQv8ProgressBar::~CQv8ProgressBar() { Finish(); }

void CQv8ProgressBar::Update(double fraction) {
    if (!m_bShown) return;
    if (!(fraction >= 0.0)) fraction = 0.0;  // also catches NaN
    if (fraction > 1.0) fraction = 1.0;
    const int percent = static_cast<int>(fraction * 100.0);
    if (percent == m_nLastPercent) return;
    m_nLastPercent = percent;
    const int filled = static_cast<int>(fraction * kBarWidth);
    char bar[kBarWidth + 1];
    std::memset(bar, '#', static_cast<size_t>(filled));
    std::memset(bar + filled, '.', static_cast<size_t>(kBarWidth - filled));
    bar[kBarWidth] = '\0';
    std::fprintf(stderr, "\r%s [%s] %3d%%", m_szLabel, bar, percent);
    std::fflush(stderr);
    m_bDrawn = true;
}

void CQv8ProgressBar::Finish() {
    if (!m_bDrawn) return;
    std::fputc('\n', stderr);
    m_bDrawn = false;
    m_nLastPercent = -1;
}

bool CQv8ProgressBar::Callback(double fraction, void* bar) {
    static_cast<CQv8ProgressBar*>(bar)->Update(fraction);
    return false;
}

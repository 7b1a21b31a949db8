// The pieces every qv8 command shares: its entry in the command table, the
// exit statuses, the one-line error report and the terminal progress bar.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "fileformat/CKvFileChunker.h"
#include "gnr_system/KvResult.h"

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;  // the command ran and something failed
constexpr int kExitUsage = 2;    // the command line was wrong

using Qv8Args = std::vector<std::string>;

// One command of the tool. `run` gets the arguments after the command name
// and answers an exit status; kExitUsage makes the dispatcher print `usage`
// on standard error.
struct SQv8Command {
    const char* name;
    const char* summary;  // one line for `qv8 --help`
    const char* usage;    // the text of `qv8 COMMAND --help`, ending in a newline
    int (*run)(const Qv8Args& args);
};

// The commands, one file each named after the command, listed by the
// dispatcher in this order.
extern const SQv8Command kChunksCommand;
extern const SQv8Command kCatCommand;
extern const SQv8Command kRepairCommand;
extern const SQv8Command kXmlCommand;
extern const SQv8Command kMetaCommand;
extern const SQv8Command kCreateSampleCommand;
extern const SQv8Command kInfoCommand;
extern const SQv8Command kFrameCommand;

// Prints "qv8: SUBJECT: WHAT (CODE)" on standard error; answers kExitFailure.
int ReportFailure(const std::string& subject, const std::string& what, kv_result code);

// Opens a container read-only, the file name given as UTF-8; `version`,
// when given, receives the version text of its signature.
kv_result OpenForReading(CKvFileChunker& chunker, const std::string& file, CKvStringA* version = nullptr);
// Reports why OpenForReading failed, with a hint where one helps; answers
// kExitFailure.
int ReportOpenFailure(const std::string& file, kv_result code, const CKvFileChunker& chunker);

// Writes bytes to standard output; false (with errno set) when it fails.
bool WriteStdout(const void* data, size_t size);
// Writes text to standard output; on failure reports it and answers kExitFailure.
int PrintOrFail(const std::string& text);

// A chunk name fit for one line of output. Names are plain ASCII in files
// we write, but a damaged map may hold any byte before a "!": control bytes
// and backslashes are written as \xHH.
std::string EscapeChunkName(std::string_view name);
// A chunk name given on the command line, whose final "!" may be left out.
std::string ChunkNameArg(const std::string& name);

// UTF-8 form of a metadata text.
std::string Utf8(const CKvStringW& text);
// Splits `args` into positional arguments and the one option `flag`
// (`flagSet` tells whether it was given); false for any other option.
bool SplitArgs(const Qv8Args& args, const char* flag, bool& flagSet, std::vector<std::string>& positional);
// A decimal number without sign or trailing characters, in [min, max].
bool ParseUnsigned(const std::string& text, uint32_t min, uint32_t max, uint32_t& value);

// A bar drawn on standard error while long work runs, only when standard
// error is a terminal; otherwise it stays silent.
class CQv8ProgressBar {
public:
    explicit CQv8ProgressBar(const char* label);
    ~CQv8ProgressBar();
    CQv8ProgressBar(const CQv8ProgressBar&) = delete;
    CQv8ProgressBar& operator=(const CQv8ProgressBar&) = delete;

    bool IsShown() const { return m_bShown; }
    void Update(double fraction);
    // Ends the bar's line so later output starts on a fresh one.
    void Finish();
    // Fits KvProgressCallback with the bar as user data; never cancels.
    static bool Callback(double fraction, void* bar);

private:
    const char* m_szLabel;
    bool m_bShown;
    bool m_bDrawn = false;
    int m_nLastPercent = -1;  // redraw only when the shown value changes
};

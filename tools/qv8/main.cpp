// qv8: inspects and repairs QV8 files from the command line. Dispatches to
// the command named by the first argument.
#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>

#include "gnr_system/KvTrace.h"
#include "tools/qv8/Qv8Command.h"

namespace {

// Every command of the tool, in the order `qv8 --help` lists them.
const SQv8Command* const kCommands[] = {
    &kChunksCommand,
    &kCatCommand,
    &kRepairCommand,
    &kXmlCommand,
    &kMetaCommand,
    &kCreateSampleCommand,
    &kInfoCommand,
    &kFrameCommand,
};

const SQv8Command* FindCommand(std::string_view name) {
    for (const SQv8Command* command : kCommands)
        if (name == command->name) return command;
    return nullptr;
}

void PrintToolUsage(FILE* out) {
    std::fputs("usage: qv8 COMMAND ARGS...\n\ncommands:\n", out);
    for (const SQv8Command* command : kCommands) std::fprintf(out, "  %-14s %s\n", command->name, command->summary);
    std::fputs("\n'qv8 COMMAND --help' describes a command.\n", out);
}

// The library's diagnostics go to standard error, so that what a command
// writes to standard output (JSON, chunk data, pictures) stays clean.
void DiagnosticToStderr(const char* text, size_t size, void*) { std::fwrite(text, 1, size, stderr); }

bool IsHelp(std::string_view arg) { return arg == "--help" || arg == "-h"; }

int RunCommand(const SQv8Command& command, const Qv8Args& args) {
    for (const std::string& arg : args) {
        if (IsHelp(arg)) {
            std::fputs(command.usage, stdout);
            return kExitOk;
        }
    }
    int status;
    try {
        status = command.run(args);
    } catch (const std::bad_alloc&) {  // a frame or record larger than memory, as damaged attributes can claim
        return ReportFailure(command.name, "out of memory", KV_ERR_OUT_OF_MEMORY);
    }
    if (status == kExitUsage) std::fputs(command.usage, stderr);
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    KvSetDiagnosticSink(DiagnosticToStderr, nullptr);
    if (argc < 2) {
        PrintToolUsage(stderr);
        return kExitUsage;
    }
    const std::string_view first = argv[1];
    int status;
    if (IsHelp(first)) {
        PrintToolUsage(stdout);
        status = kExitOk;
    } else if (const SQv8Command* command = FindCommand(first)) {
        status = RunCommand(*command, Qv8Args(argv + 2, argv + argc));
    } else {
        std::fprintf(stderr, "qv8: unknown command '%s'\n", argv[1]);
        PrintToolUsage(stderr);
        return kExitUsage;
    }
    // Output goes through stdio: a full disk or closed pipe shows up here.
    if (status == kExitOk && (std::fflush(stdout) != 0 || std::ferror(stdout))) {
        std::fprintf(stderr, "qv8: standard output: write failed: %s (%d)\n", std::strerror(errno),
                     static_cast<int>(KV_ERR_FAILED));
        return kExitFailure;
    }
    return status;
}

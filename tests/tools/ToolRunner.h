// Runs the built qv8 tool (path in ZEM_QV8_TOOL) and captures what it says.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tests/TestSupport.h"

struct ToolRun {
    int status;  // exit status; -1 when the tool did not exit normally
    std::string out, err;
};

inline std::string ShellQuote(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += (c == '\'') ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// Standard output and error go to files in `dir`, so neither is a terminal;
// standard input is empty.
inline ToolRun RunQv8(const std::vector<std::string>& args, const CTestTempDir& dir) {
    std::string command = ShellQuote(ZEM_QV8_TOOL);
    for (const std::string& arg : args) command += " " + ShellQuote(arg);
    command += " >" + ShellQuote(dir.File("stdout")) + " 2>" + ShellQuote(dir.File("stderr")) + " </dev/null";
    const int raw = std::system(command.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, ReadWholeFile(dir.File("stdout")), ReadWholeFile(dir.File("stderr"))};
}

// Diagnostics of the library: lines on standard output, after which the
// operation goes on. There is no log file and there are no log levels.
#pragma once

#include "gnr_system/CKvString.h"

// Prints `text` and a line feed to standard output.
void KvPrintDiagnostic(const CKvStringA& text);
void KvPrintDiagnostic(const CKvStringW& text);

// Prints the trace line "\nFailure! File: <file>, line: <line>\n" that marks a
// step which failed while the surrounding operation carries on.
void KvTraceFailure(const char* file, int line);

// The trace line for the current source position.
#define KV_TRACE_FAILURE() KvTraceFailure(__FILE__, __LINE__)

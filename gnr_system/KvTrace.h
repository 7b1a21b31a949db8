// Diagnostics of the library: lines that report a step gone wrong, after
// which the operation goes on. They go to standard output unless the program
// points them elsewhere. There is no log file and there are no log levels.
#pragma once

#include <cstddef>

#include "gnr_system/CKvString.h"

// Receives one diagnostic: `size` bytes of UTF-8 text with its line feeds,
// not null-terminated, and the user pointer the sink was set with.
typedef void (*KvDiagnosticSink)(const char* text, size_t size, void* user);

// Sends the diagnostics of the whole process to `sink`, called with `user`;
// a null `sink` sends them to standard output again, as at start. Any thread
// may call it: diagnostics reach the sink one at a time, and once this
// returns the previous sink is not called any more, so its user data may go.
// A sink must not print diagnostics itself.
void KvSetDiagnosticSink(KvDiagnosticSink sink, void* user);
// The sink now set (null for standard output) and its user pointer.
void KvGetDiagnosticSink(KvDiagnosticSink& sink, void*& user);

// Hands `size` bytes of `text` to the sink as one diagnostic.
void KvEmitDiagnostic(const char* text, size_t size);
// One diagnostic of `text` and a line feed.
void KvPrintDiagnostic(const CKvStringA& text);
void KvPrintDiagnostic(const CKvStringW& text);

// The trace line "\nFailure! File: <file>, line: <line>\n" that marks a
// step which failed while the surrounding operation carries on.
void KvTraceFailure(const char* file, int line);

// The trace line for the current source position.
#define KV_TRACE_FAILURE() KvTraceFailure(__FILE__, __LINE__)

// Delivery of diagnostics: one process-wide sink behind a mutex, standard
// output while none is set.
#include "gnr_system/KvTrace.h"

#include <cstdio>
#include <mutex>
#include <string>

namespace {

// Held while a diagnostic is delivered, so that lines of several threads do
// not interleave and a replaced sink is never called after its replacement.
std::mutex g_diagnosticMutex;
KvDiagnosticSink g_pDiagnosticSink = nullptr;
void* g_pDiagnosticUser = nullptr;

void WriteToStdout(const char* text, size_t size) {
    std::fwrite(text, 1, size, stdout);
    std::fflush(stdout);
}

}  // namespace

void KvSetDiagnosticSink(KvDiagnosticSink sink, void* user) {
    const std::lock_guard<std::mutex> lock(g_diagnosticMutex);
    g_pDiagnosticSink = sink;
    g_pDiagnosticUser = sink ? user : nullptr;
}

void KvGetDiagnosticSink(KvDiagnosticSink& sink, void*& user) {
    const std::lock_guard<std::mutex> lock(g_diagnosticMutex);
    sink = g_pDiagnosticSink;
    user = g_pDiagnosticUser;
}

void KvEmitDiagnostic(const char* text, size_t size) {
    const std::lock_guard<std::mutex> lock(g_diagnosticMutex);
    if (g_pDiagnosticSink) g_pDiagnosticSink(text, size, g_pDiagnosticUser);
    else WriteToStdout(text, size);
}

void KvPrintDiagnostic(const CKvStringA& text) {
    const std::string line = std::string(text.GetString()) + '\n';
    KvEmitDiagnostic(line.data(), line.size());
}

void KvPrintDiagnostic(const CKvStringW& text) { KvPrintDiagnostic(CKvStringUtils::WtoUTF8(text.GetString(), text.GetLength())); }

void KvTraceFailure(const char* file, int line) {
    CKvStringA text;
    text.Format("\nFailure! File: %s, line: %d\n", file ? file : "", line);
    KvEmitDiagnostic(text.GetString(), text.Size());
}

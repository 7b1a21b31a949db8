#include "gnr_system/KvTrace.h"

#include <cstdio>

void KvPrintDiagnostic(const CKvStringA& text) {
    std::fputs(text.GetString(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void KvPrintDiagnostic(const CKvStringW& text) { KvPrintDiagnostic(CKvStringUtils::WtoUTF8(text.GetString(), text.GetLength())); }

void KvTraceFailure(const char* file, int line) {
    std::printf("\nFailure! File: %ls, line: %d\n", CKvStringUtils::UTF8toW(file ? file : "").GetString(), line);
    std::fflush(stdout);
}

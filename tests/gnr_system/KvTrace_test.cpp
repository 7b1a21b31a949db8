// The diagnostic sink: diagnostics reach the sink a program sets, whole and
// one at a time, standard output otherwise, and a replaced sink is never
// called again.
#include "gnr_system/KvTrace.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "gnr_system/CKvSerializerXMLString.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

// What a sink was given. No lock of its own: the library delivers one
// diagnostic at a time.
struct SCollected {
    std::string text;
    std::vector<size_t> sizes;             // of each call
    std::atomic<bool> retired{false};      // set once another sink replaced this one
    std::atomic<int> callsWhileRetired{0};
};

void Collect(const char* text, size_t size, void* user) {
    auto* collected = static_cast<SCollected*>(user);
    if (collected->retired) ++collected->callsWhileRetired;
    collected->text.append(text, size);
    collected->sizes.push_back(size);
}

// A sink takes every diagnostic, one call each, instead of standard output;
// setting no sink brings standard output back and forgets the user pointer.
TEST(DiagnosticSink, SinkReplacesStandardOutputUntilReset) {
    SCollected collected;
    KvSetDiagnosticSink(Collect, &collected);
    CaptureStdout();
    KvPrintDiagnostic(CKvStringA("narrow"));
    KvPrintDiagnostic(CKvStringW(L"wide \u00B5m"));
    KvTraceFailure("dir/unit.cpp", 42);
    // A diagnostic from inside the library: a document that does not parse.
    CKvVariant tree;
    EXPECT_EQ(KV_ERR_FAILED, CKvSerializerXMLString::VariantFromXML(
                                 tree, CKvStringW(L"<variant version=\"1.0\">\n<x runtype=\"kv_int32\" value=\"7\">\n</variant>")));
    EXPECT_EQ("", GetCapturedStdout());
    const std::string narrow = "narrow\n", wide = "wide \xC2\xB5m\n", trace = "\nFailure! File: dir/unit.cpp, line: 42\n";
    const std::string xml = "Error: CKvSerializerXMLString::VariantFromXML(); mismatched tag at line 3\n";
    const std::string all = narrow + wide + trace + xml;
    EXPECT_EQ(all, collected.text);
    EXPECT_EQ((std::vector<size_t>{narrow.size(), wide.size(), trace.size(), xml.size()}), collected.sizes);

    KvSetDiagnosticSink(nullptr, &collected);
    KvDiagnosticSink sink = Collect;
    void* user = &collected;
    KvGetDiagnosticSink(sink, user);
    EXPECT_EQ(nullptr, sink);
    EXPECT_EQ(nullptr, user);
    CaptureStdout();
    KvPrintDiagnostic(CKvStringA("back on stdout"));
    KV_TRACE_FAILURE();
    const std::string printed = GetCapturedStdout();
    EXPECT_EQ(0u, printed.find("back on stdout\n\nFailure! File: ")) << printed;
    EXPECT_EQ(all, collected.text);
}

// Threads print while the sink is swapped back and forth: every diagnostic
// arrives whole at exactly one sink, and none reaches a sink after it was
// replaced.
TEST(DiagnosticSink, SwappingWhileThreadsPrintLosesAndSplitsNothing) {
    constexpr int kThreads = 4, kLines = 2000, kSwaps = 500;
    SCollected a, b;
    KvSetDiagnosticSink(Collect, &a);
    std::atomic<int> running{kThreads};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &running] {
            CKvStringA line;
            line.Format("thread %d says something went wrong", t);
            for (int i = 0; i < kLines; ++i) KvPrintDiagnostic(line);
            --running;
        });
    }
    for (int swap = 0; swap < kSwaps || running > 0; ++swap) {
        SCollected &next = swap % 2 ? a : b, &previous = swap % 2 ? b : a;
        next.retired = false;
        KvSetDiagnosticSink(Collect, &next);
        previous.retired = true;
    }
    for (std::thread& thread : threads) thread.join();
    KvSetDiagnosticSink(nullptr, nullptr);

    EXPECT_EQ(0, a.callsWhileRetired + b.callsWhileRetired);
    EXPECT_EQ(static_cast<size_t>(kThreads) * kLines, a.sizes.size() + b.sizes.size());
    // Cut each sink's text at the sizes it was called with: each piece must be
    // one whole line of one thread.
    const std::string tail = " says something went wrong\n";
    for (const SCollected* c : {&a, &b}) {
        size_t at = 0;
        for (size_t size : c->sizes) {
            const std::string piece = c->text.substr(at, size);
            at += size;
            ASSERT_TRUE(piece.size() == 8 + tail.size() && piece.rfind("thread ", 0) == 0 && piece.substr(8) == tail)
                << piece;
        }
        EXPECT_EQ(at, c->text.size());
    }
}

}  // namespace

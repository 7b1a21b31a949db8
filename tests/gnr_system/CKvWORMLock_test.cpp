#include "gnr_system/CKvWORMLock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

// Long enough for a thread that is free to go to get there on a loaded machine.
constexpr auto kGenerousWait = 5s;
// How long a thread that should be blocked is watched before we call it blocked.
constexpr auto kBlockedWatch = 100ms;

// Polls `condition` until it holds or `timeout` passes.
bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout = kGenerousWait) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// Runs `body` on its own thread. A thread still stuck at destruction means the
// lock deadlocked: the test program stops instead of hanging.
class CProbe {
public:
    explicit CProbe(std::function<void()> body)
        : m_thread([this, body = std::move(body)] {
              body();
              m_done = true;
          }) {}
    ~CProbe() {
        if (!WaitDone()) {
            fprintf(stderr, "lock test: a thread is still blocked, giving up\n");
            std::abort();
        }
        m_thread.join();
    }
    CProbe(const CProbe&) = delete;
    CProbe& operator=(const CProbe&) = delete;

    bool WaitDone() const { return WaitFor([this] { return m_done.load(); }); }
    // Stays unfinished for the whole watch.
    bool StaysBlocked() const {
        std::this_thread::sleep_for(kBlockedWatch);
        return !m_done;
    }

private:
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

TEST(CKvWORMLockTest, ReadersHoldTheLockTogether) {
    CKvWORMLock lock;
    constexpr int kReaders = 4;
    std::atomic<int> inside{0};
    std::atomic<int> sawAll{0};
    std::vector<std::unique_ptr<CProbe>> readers;
    for (int i = 0; i < kReaders; ++i) {
        readers.push_back(std::make_unique<CProbe>([&] {
            EXPECT_EQ(0, lock.rLock());
            ++inside;
            // Every reader holds the lock while waiting for all the others.
            if (WaitFor([&] { return inside.load() == kReaders; })) ++sawAll;
            EXPECT_EQ(0, lock.rUnLock());
        }));
    }
    for (auto& reader : readers) EXPECT_TRUE(reader->WaitDone());
    EXPECT_EQ(kReaders, sawAll.load());
    EXPECT_EQ(0, lock.GetReaderCount());
}

TEST(CKvWORMLockTest, WriterExcludesReadersAndWriters) {
    CKvWORMLock lock;
    ASSERT_EQ(0, lock.wLock());
    CProbe reader([&] {
        lock.rLock();
        lock.rUnLock();
    });
    CProbe writer([&] {
        lock.wLock();
        lock.wUnLock();
    });
    // Another lock has its own state, though it shares the monitor.
    CKvWORMLock other;
    CProbe otherUser([&] {
        other.wLock();
        other.rLock();
        other.rUnLock();
        other.wUnLock();
    });
    EXPECT_TRUE(otherUser.WaitDone());
    EXPECT_TRUE(reader.StaysBlocked());
    EXPECT_TRUE(writer.StaysBlocked());

    EXPECT_EQ(0, lock.wUnLock());
    EXPECT_TRUE(reader.WaitDone());
    EXPECT_TRUE(writer.WaitDone());
}

TEST(CKvWORMLockTest, ReaderHoldsOffAWriterButNotAnotherReader) {
    CKvWORMLock lock;
    ASSERT_EQ(0, lock.rLock());
    CProbe reader([&] {
        lock.rLock();
        lock.rUnLock();
    });
    EXPECT_TRUE(reader.WaitDone());

    CProbe writer([&] {
        lock.wLock();
        lock.wUnLock();
    });
    EXPECT_TRUE(writer.StaysBlocked());
    EXPECT_EQ(0, lock.rUnLock());
    EXPECT_TRUE(writer.WaitDone());
}

TEST(CKvWORMLockTest, OwnerReentersAndReleasesAfterAsManyUnlocks) {
    CKvWORMLock lock;
    // On a probe thread, so that a lock that blocks its own writer fails the
    // test rather than hanging it.
    CProbe owner([&] {
        EXPECT_EQ(0, lock.wLock());
        EXPECT_EQ(0, lock.wLock());
        EXPECT_EQ(0, lock.rLock());
        EXPECT_EQ(2, lock.GetWriterCount());
        EXPECT_EQ(1, lock.GetReaderCount());
        EXPECT_EQ(0, lock.rUnLock());
    });
    ASSERT_TRUE(owner.WaitDone());

    // The write lock outlives its thread until it is unlocked twice; the
    // unlocks come from this thread since owners are not checked on unlock.
    CProbe other([&] {
        lock.rLock();
        lock.rUnLock();
    });
    EXPECT_TRUE(other.StaysBlocked());
    EXPECT_EQ(0, lock.wUnLock());
    EXPECT_TRUE(other.StaysBlocked());
    EXPECT_EQ(0, lock.wUnLock());
    EXPECT_TRUE(other.WaitDone());
    EXPECT_EQ(0, lock.GetWriterCount());
}

TEST(CKvWORMLockTest, WriterHoldingAReadLockCannotReenter) {
    CKvWORMLock lock;
    std::atomic<bool> holdsBoth{false};
    CProbe writer([&] {
        lock.wLock();
        lock.rLock();
        holdsBoth = true;
        lock.wLock();  // waits: its own read lock counts like anyone's
        lock.wUnLock();
        lock.wUnLock();
    });
    ASSERT_TRUE(WaitFor([&] { return holdsBoth.load(); }));
    EXPECT_TRUE(writer.StaysBlocked());

    // Readers have no owner, so any thread may give the read lock back.
    EXPECT_EQ(0, lock.rUnLock());
    EXPECT_TRUE(writer.WaitDone());
    EXPECT_EQ(0, lock.GetWriterCount());
    EXPECT_EQ(0, lock.GetReaderCount());
}

TEST(CKvWORMLockTest, UnbalancedUnlocksReportAndCarryOn) {
    CKvWORMLock lock;
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, lock.rUnLock());
    std::string output = testing::internal::GetCapturedStdout();
    EXPECT_EQ(0u, output.find("\nFailure! File: ")) << output;
    EXPECT_NE(std::string::npos, output.find("CKvWORMLock.cpp, line: ")) << output;
    EXPECT_EQ('\n', output.back());
    EXPECT_EQ(-1, lock.GetReaderCount());

    testing::internal::CaptureStdout();
    EXPECT_EQ(0, lock.wUnLock());
    output = testing::internal::GetCapturedStdout();
    EXPECT_EQ(0u, output.find("\nFailure! File: ")) << output;
    EXPECT_EQ(-1, lock.GetWriterCount());

    // Balanced calls print nothing.
    CKvWORMLock balanced;
    testing::internal::CaptureStdout();
    balanced.wLock();
    balanced.rLock();
    balanced.rUnLock();
    balanced.wUnLock();
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST(CKvWORMLockTest, ProcessWideSectionSerialisesItsWriters) {
    CKvWORMLock_CS& section = CKvWORMLock_CS::ms_worm_cs;
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    long counter = 0;  // plain on purpose: only the section protects it
    std::vector<std::unique_ptr<CProbe>> workers;
    for (int i = 0; i < kThreads; ++i) {
        workers.push_back(std::make_unique<CProbe>([&] {
            for (int round = 0; round < kRounds; ++round) {
                section.wLock();
                section.wLock();  // a nested section of the same thread
                const long seen = counter;
                counter = seen + 1;
                section.wUnLock();
                section.wUnLock();
            }
        }));
    }
    for (auto& worker : workers) EXPECT_TRUE(worker->WaitDone());
    section.rLock();
    EXPECT_EQ(long{kThreads} * kRounds, counter);
    section.rUnLock();
    EXPECT_EQ(0, section.GetWriterCount());
    EXPECT_EQ(0, section.GetReaderCount());
}

}  // namespace

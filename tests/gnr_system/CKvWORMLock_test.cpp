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

// Polls `condition` until it holds or `timeout` (ample on a loaded machine) passes.
bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 5s) {
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
    explicit CProbe(std::function<void()> body) : m_thread([this, body = std::move(body)] { body(); m_done = true; }) {}
    ~CProbe() {
        if (!WaitDone()) {
            fprintf(stderr, "lock test: a thread is still blocked, giving up\n");
            std::abort();
        }
        m_thread.join();
    }
    bool WaitDone() const { return WaitFor([this] { return m_done.load(); }); }
    // Stays unfinished for a watch long enough to call it blocked.
    bool StaysBlocked() const {
        std::this_thread::sleep_for(100ms);
        return !m_done;
    }

private:
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

template <class Lock> std::function<void()> ReadOnce(Lock& lock) { return [&lock] { lock.rLock(); lock.rUnLock(); }; }
template <class Lock> std::function<void()> WriteOnce(Lock& lock) { return [&lock] { lock.wLock(); lock.wUnLock(); }; }

TEST(CKvWORMLockTest, ReadersHoldTheLockTogether) {
    CKvWORMLock lock;
    constexpr int kReaders = 4;
    std::atomic<int> inside{0}, sawAll{0};
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
    CKvWORMLock lock, other;
    ASSERT_EQ(0, lock.wLock());
    CProbe reader(ReadOnce(lock)), writer(WriteOnce(lock));
    // Another lock has its own state, though it shares the monitor.
    CProbe otherUser([&] { other.wLock(); other.rLock(); other.rUnLock(); other.wUnLock(); });
    EXPECT_TRUE(otherUser.WaitDone());
    EXPECT_TRUE(reader.StaysBlocked());
    EXPECT_TRUE(writer.StaysBlocked());
    EXPECT_EQ(0, lock.wUnLock());
    EXPECT_TRUE(reader.WaitDone());
    EXPECT_TRUE(writer.WaitDone());
}

TEST(CKvWORMLockTest, ReaderHoldsOffAWriter) {
    CKvWORMLock lock;
    ASSERT_EQ(0, lock.rLock());
    CProbe writer(WriteOnce(lock));
    EXPECT_TRUE(writer.StaysBlocked());
    EXPECT_EQ(0, lock.rUnLock());
    EXPECT_TRUE(writer.WaitDone());
}

TEST(CKvWORMLockTest, OwnerReentersAndReleasesAfterAsManyUnlocks) {
    CKvWORMLock lock;
    // On a probe, so that a lock blocking its own writer fails rather than hangs.
    CProbe owner([&] {
        EXPECT_EQ(0, lock.wLock());
        EXPECT_EQ(0, lock.wLock());
        EXPECT_EQ(0, lock.rLock());
        EXPECT_EQ(2, lock.GetWriterCount());
        EXPECT_EQ(1, lock.GetReaderCount());
        EXPECT_EQ(0, lock.rUnLock());
    });
    ASSERT_TRUE(owner.WaitDone());
    // The write lock outlives its thread until unlocked twice (owners are not checked on unlock).
    CProbe other(ReadOnce(lock));
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
    // Runs `calls` and returns what they printed.
    auto printed = [](const std::function<void()>& calls) {
        testing::internal::CaptureStdout();
        calls();
        return testing::internal::GetCapturedStdout();
    };
    std::string output = printed([&] { EXPECT_EQ(0, lock.rUnLock()); });
    EXPECT_EQ(0u, output.find("\nFailure! File: ")) << output;
    EXPECT_NE(std::string::npos, output.find("CKvWORMLock.cpp, line: ")) << output;
    EXPECT_EQ('\n', output.back());
    EXPECT_EQ(-1, lock.GetReaderCount());
    output = printed([&] { EXPECT_EQ(0, lock.wUnLock()); });
    EXPECT_EQ(0u, output.find("\nFailure! File: ")) << output;
    EXPECT_EQ(-1, lock.GetWriterCount());
    CKvWORMLock balanced;
    EXPECT_EQ("", printed([&] { balanced.wLock(); ReadOnce(balanced)(); balanced.wUnLock(); }));
}

TEST(CKvWORMLockTest, ProcessWideSectionSerialisesItsWriters) {
    CKvWORMLock_CS& section = CKvWORMLock_CS::ms_worm_cs;
    constexpr int kThreads = 4, kRounds = 2000;
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
    EXPECT_EQ(long{kThreads} * kRounds, counter);
    EXPECT_EQ(0, section.GetWriterCount());
    EXPECT_EQ(0, section.GetReaderCount());
}

}  // namespace
